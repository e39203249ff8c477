/*
 * Application timers against a clock the test drives: ev_clock_set() takes
 * the event library's clock over, and each __evLoopOnce(ev, 0) is one turn
 * of the loop that never sleeps.
 */
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "otimer_assert.h"
#include "otimer_private.h"

namespace {

std::vector<std::string> fatal_messages;
std::vector<intptr_t> fired;
/* Contexts have no delete: kept reachable, so that no leak is reported. */
auto *kept = new std::vector<otimer_context_t *>;

void
record_fatal(const char *message)
{
	fatal_messages.emplace_back(message);
}

void
record(otimer_t *, void *arg)
{
	fired.push_back(reinterpret_cast<intptr_t>(arg));
}

struct timespec
ts(time_t sec, long nsec = 0)
{
	return __evConsTime(sec, nsec);
}

bool
due_at(const otimer_t *t, struct timespec when)
{
	return __evCmpTime(t->ht.ht_expiry, when) == 0;
}

class Timers : public ::testing::Test {
protected:
	void SetUp() override
	{
		struct timespec start = ts(1000);
		ev_clock_set(&start);
		ASSERT_EQ(__evCreate(&ev), 0);
		ctx = otimer_context_create(ev, record_fatal);
		ASSERT_NE(ctx, nullptr);
		fatal_messages.clear();
		fired.clear();
	}

	void TearDown() override
	{
		otimer_stop(&ctx->root);
		EXPECT_FALSE(ctx->ev_timer_set);
		kept->push_back(ctx);
		__evDestroy(ev);
		ev_clock_set(nullptr);
	}

	void advance(time_t sec, long nsec = 0) { ev_clock_advance(ts(sec, nsec)); }
	void turn() { ASSERT_EQ(__evLoopOnce(ev, 0), 0); }
	void advance_and_turn(time_t sec)
	{
		advance(sec);
		turn();
	}

	otimer_t *leaf(intptr_t id, otimer_t *parent = nullptr)
	{
		otimer_t *t = otimer_create(ctx, parent, record, reinterpret_cast<void *>(id));
		EXPECT_NE(t, nullptr);
		return t;
	}

	bool tree_ok() { return htimer_verify(&ctx->root.ht) == 0; }

	evContext ev{};
	otimer_context_t *ctx = nullptr;
};

void
delete_all(const std::vector<otimer_t *> &timers)
{
	for (otimer_t *t : timers)
		otimer_delete(t);
}

TEST_F(Timers, FireInExpiryOrderAndEqualOnesInArmingOrder)
{
	otimer_t *node = otimer_node_create(ctx, nullptr);
	std::vector<otimer_t *> t;
	/* Each fires after as many seconds as its id; the last two nested. */
	for (intptr_t id : {5, 1, 3, 4, 2}) {
		t.push_back(leaf(id, t.size() >= 3 ? node : nullptr));
		otimer_oneshot_secs(t.back(), id, 0);
	}
	turn();
	EXPECT_TRUE(fired.empty());
	advance_and_turn(1);
	EXPECT_EQ(fired, (std::vector<intptr_t>{1}));
	advance_and_turn(10);
	EXPECT_EQ(fired, (std::vector<intptr_t>{1, 2, 3, 4, 5}));
	EXPECT_FALSE(ctx->ev_timer_set);

	/* Now all due together, two of them under the node. */
	fired.clear();
	for (intptr_t i : {3, 0, 4, 1, 2})
		otimer_oneshot(t[i], 2, 500, 0);
	/* Re-armed to the same time, it keeps its place... */
	otimer_oneshot(t[4], 2, 500, 0);
	/* ...but moved away and back, it goes behind the others. */
	otimer_oneshot(t[0], 1, 0, 0);
	otimer_oneshot(t[0], 2, 500, 0);
	advance_and_turn(3);
	EXPECT_EQ(fired, (std::vector<intptr_t>{4, 2, 1, 3, 5}));
	t.push_back(node);
	delete_all(t);
}

/* What a handler does to its own timer on its first call. */
enum self_action { rearm, stop, remove };

struct self_run {
	self_action action;
	bool periodic;
	int calls;
};

void
act_on_self(otimer_t *t, void *arg)
{
	auto *run = static_cast<self_run *>(arg);
	if (++run->calls > 1)
		return;
	if (run->action == rearm) {
		(run->periodic ? otimer_periodic_secs : otimer_oneshot_secs)(t, 7, 0);
	} else if (run->action == stop) {
		otimer_stop(t);
	} else {
		otimer_delete(t);
		/* Still ours until we return. */
		EXPECT_FALSE(otimer_is_running(t));
		EXPECT_EQ(otimer_arg(t), arg);
	}
}

TEST_F(Timers, HandlerRearmsStopsOrDeletesItsOwnTimer)
{
	const struct {
		self_action action;
		bool periodic;
		int calls;	/* in all */
	} cases[] = {
		/* The handler's arming wins over the periodic restart. */
		{rearm, false, 2}, {rearm, true, 3}, {stop, true, 1},
		{remove, false, 1}, {remove, true, 1},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.action * 2 + c.periodic);
		self_run run{c.action, c.periodic, 0};
		otimer_t *t = otimer_create(ctx, nullptr, act_on_self, &run);
		otimer_t *other = leaf(9);
		(c.periodic ? otimer_periodic_secs : otimer_oneshot_secs)(t, 2, 0);
		otimer_oneshot_secs(other, 2, 0);
		advance_and_turn(2);
		ASSERT_EQ(run.calls, 1);
		ASSERT_TRUE(tree_ok());
		EXPECT_EQ(fired.size(), 1u);	/* the one behind it still fired */
		if (c.action != remove) {
			EXPECT_EQ(otimer_remaining_secs(t), c.action == rearm ? 7 : 0);
		}
		/* A freed timer coming back would be caught by AddressSanitizer. */
		advance_and_turn(7);
		advance_and_turn(7);
		EXPECT_EQ(run.calls, c.calls);
		fired.clear();
		otimer_delete(other);
		if (c.action != remove)
			otimer_delete(t);
		EXPECT_FALSE(ctx->ev_timer_set);
	}
}

TEST_F(Timers, ElevenDueTogetherFireTenNowAndOneNextTurn)
{
	std::vector<otimer_t *> t;
	for (intptr_t i = 0; i < 11; i++) {
		t.push_back(leaf(i));
		otimer_oneshot_secs(t.back(), 4, 0);
	}
	advance_and_turn(4);
	EXPECT_EQ(fired.size(), 10u);
	EXPECT_TRUE(ctx->ev_timer_set);	/* set again, due in the past */
	turn();
	ASSERT_EQ(fired.size(), 11u);
	EXPECT_EQ(fired.back(), 10);
	EXPECT_FALSE(ctx->ev_timer_set);
	delete_all(t);
}

TEST_F(Timers, StoppingTheLastChildStopsEveryParentAndTheEventTimer)
{
	otimer_t *outer = otimer_node_create(ctx, nullptr);
	otimer_t *inner = otimer_node_create(ctx, outer);
	otimer_t *t = leaf(1, inner), *u = leaf(2, inner), *v = leaf(3, outer);
	otimer_oneshot_secs(t, 5, 0);
	otimer_oneshot_secs(u, 8, 0);
	ASSERT_TRUE(ctx->ev_timer_set);
	evTimerID id = ctx->ev_timer;

	otimer_stop(t);	/* the first child goes: the parents follow u */
	EXPECT_TRUE(due_at(outer, ts(1008)));
	EXPECT_EQ(__evCmpTime(ctx->ev_due, ts(1008)), 0);
	otimer_stop(u);
	EXPECT_FALSE(otimer_is_running(inner));
	EXPECT_FALSE(otimer_is_running(outer));
	EXPECT_FALSE(ctx->ev_timer_set);
	/* The event library no longer has that timer. */
	errno = 0;
	EXPECT_EQ(__evClearTimer(ev, id), -1);
	EXPECT_EQ(errno, ENOENT);

	/* Stopping an inner node stops every leaf below it, at any depth. */
	otimer_oneshot_secs(t, 5, 0);
	otimer_oneshot_secs(v, 6, 0);
	otimer_stop(outer);
	EXPECT_FALSE(otimer_is_running(t) || otimer_is_running(v));
	EXPECT_FALSE(ctx->ev_timer_set);
	advance_and_turn(20);
	EXPECT_TRUE(fired.empty());

	/* Deleted while it has children, a node only stops; they still work
	 * under it, and it goes with the last of them (LeakSanitizer checks). */
	otimer_delete(outer);
	otimer_oneshot_secs(v, 2, 0);
	advance_and_turn(2);
	EXPECT_EQ(fired, (std::vector<intptr_t>{3}));
	ASSERT_TRUE(tree_ok());
	delete_all({t, u, inner, v});
}

TEST_F(Timers, GroupsShareOneParentAndGoWithTheirLastTimer)
{
	otimer_t *a = leaf(1), *b = leaf(2), *c = leaf(3);
	otimer_oneshot_group_secs(a, 30, 0);
	otimer_periodic_group_secs(b, 30, 0);
	otimer_oneshot_group(c, 30, 500, 0);	/* another interval */
	ASSERT_NE(a->group, nullptr);
	EXPECT_EQ(a->group, b->group);
	EXPECT_NE(a->group, c->group);
	EXPECT_EQ(a->ht.ht_parent, &a->group->parent->ht);
	EXPECT_EQ(patricia_count(ctx->groups), 2u);
	/* Armed again in its group, then moved to another, which releases
	 * the old one: the counts must come out even, as the end shows. */
	otimer_oneshot_group_secs(a, 30, 0);
	otimer_oneshot_group(a, 30, 500, 0);
	EXPECT_EQ(a->group, c->group);
	otimer_delete(b);	/* last of its group: group and node go */
	EXPECT_EQ(patricia_count(ctx->groups), 1u);
	ASSERT_TRUE(tree_ok());
	advance_and_turn(31);
	EXPECT_EQ(fired, (std::vector<intptr_t>{3, 1}));
	delete_all({a, c});
	EXPECT_EQ(patricia_count(ctx->groups), 0u);
}

TEST_F(Timers, JitterIsCappedAndZeroDrawsNoRandomNumber)
{
	otimer_t *t = leaf(1), *u = leaf(2);
	otimer_oneshot_secs(t, 10, 150);
	EXPECT_EQ(t->jitter, 99);
	/* Never later than the interval, never earlier than 99% of it. */
	EXPECT_LE(__evCmpTime(t->ht.ht_expiry, ts(1010)), 0);
	EXPECT_GE(__evCmpTime(t->ht.ht_expiry, ts(1000, 100000000)), 0);
	/* The group key takes the capped jitter too. */
	otimer_oneshot_group_secs(t, 60, 150);
	otimer_oneshot_group_secs(u, 60, 99);
	EXPECT_EQ(t->group, u->group);

	srandom(4242);
	long first = random();
	long second = random();
	srandom(4242);
	otimer_oneshot_secs(t, 10, 0);
	otimer_periodic(t, 3, 250000000, 0);
	EXPECT_EQ(random(), first);	/* nothing was drawn */
	EXPECT_TRUE(due_at(t, ts(1003, 250000000)));
	srandom(4242);
	otimer_oneshot_secs(t, 10, 20);
	EXPECT_EQ(random(), second);	/* exactly one was drawn */
	delete_all({t, u});
}

TEST(Jitter, UnitFollowsTheLengthOfTheInterval)
{
	/* Worked out in 32 bits: the unit coarsens above 41 and 42948 s. */
	const struct {
		time_t secs;
		unsigned percent;	/* over 100 counts as 100 */
		long unit_ns;
		uint64_t span;		/* in units */
	} cases[] = {
		{41, 50, 1000, 20500000}, {42, 50, 1000000, 21000},
		{42948, 50, 1000000, 21474000}, {42949, 50, 1000000000, 21474},
		{2, 400, 1000, 2000000},
	};
	for (const auto &c : cases) {
		srandom(7);
		uint64_t r = static_cast<uint64_t>(random()) % c.span;
		srandom(7);
		struct timespec j = htimer_jitter(ts(c.secs), c.percent);
		__int128 got = static_cast<__int128>(j.tv_sec) * 1000000000 + j.tv_nsec;
		EXPECT_EQ(got, static_cast<__int128>(r) * c.unit_ns) << c.secs;
	}
	/* A span of nothing in the unit means no jitter (and no division). */
	EXPECT_EQ(__evCmpTime(htimer_jitter(ts(0, 1500), 50), ts(0)), 0);
}

TEST_F(Timers, RespaceSpreadsLeavesEarlierOnly)
{
	otimer_t *node = otimer_node_create(ctx, nullptr);
	std::vector<otimer_t *> t;
	for (time_t secs : {5, 38, 39, 39, 40}) {
		t.push_back(leaf(static_cast<intptr_t>(t.size()), node));
		otimer_oneshot_secs(t.back(), secs, 0);
	}
	otimer_respace(t[0]);	/* a leaf, and NULL: nothing */
	otimer_respace(nullptr);
	otimer_respace(node);
	ASSERT_TRUE(tree_ok());
	/* Five steps of 8 s from 1000 up to 1040, taking only moves earlier. */
	const time_t want[] = {1005, 1016, 1024, 1032, 1040};
	for (int i = 0; i < 5; i++)
		EXPECT_TRUE(due_at(t[i], ts(want[i]))) << i;
	/* With fewer than three leaves nothing moves. */
	for (int i = 2; i < 5; i++)
		otimer_stop(t[i]);
	otimer_oneshot_secs(t[0], 30, 0);
	otimer_oneshot_secs(t[1], 40, 0);
	otimer_respace(node);
	EXPECT_TRUE(due_at(t[0], ts(1030)));
	EXPECT_TRUE(fatal_messages.empty());
	t.push_back(node);
	delete_all(t);
}

TEST_F(Timers, SpreadModeQueuesBehindTheLatestSibling)
{
	otimer_t *node = otimer_node_create(ctx, nullptr);
	std::vector<otimer_t *> t;
	srandom(12345);	/* the same draws every run */
	otimer_set_spread_gap(ts(0, 100000000));
	for (intptr_t i = 0; i < 6; i++) {
		t.push_back(leaf(i, node));
		otimer_set_spread(t.back(), true);
		otimer_oneshot_secs(t.back(), 10, 90);
	}
	otimer_set_spread_gap(ts(0));
	for (int i = 1; i < 6; i++)
		EXPECT_LT(__evCmpTime(t[i - 1]->ht.ht_expiry, t[i]->ht.ht_expiry), 0) << i;
	advance_and_turn(11);
	EXPECT_EQ(fired, (std::vector<intptr_t>{0, 1, 2, 3, 4, 5}));
	t.push_back(node);
	delete_all(t);
}

TEST_F(Timers, MisuseIsReportedThroughTheFatalHandlerAndDoesNothing)
{
	otimer_t *node = otimer_node_create(ctx, nullptr);
	otimer_t *t = leaf(1);
	/* Made without a handler: the process's handler must stay ours. */
	otimer_context_t *other = otimer_context_create(ev, nullptr);
	kept->push_back(other);
	otimer_t *foreign = otimer_node_create(other, nullptr);

	otimer_oneshot_secs(node, 1, 0);
	otimer_periodic_group_secs(node, 1, 0);
	EXPECT_EQ(otimer_create(ctx, t, record, nullptr), nullptr);
	EXPECT_EQ(otimer_create(ctx, foreign, record, nullptr), nullptr);
	const char *want[] = {"'htimer_is_leaf(timer)'", "'autoparenting non-leaf timer'",
	                      "'!htimer_is_leaf(timer) && htimer_initialized(timer)'",
	                      "'parent->context == ctx'"};
	ASSERT_EQ(fatal_messages.size(), 4u);
	for (int i = 0; i < 4; i++) {
		const std::string &m = fatal_messages[i];
		EXPECT_NE(m.find(std::string("assert ") + want[i] + " failed"),
		          std::string::npos) << m;
		/* "file:line: " in front. */
		EXPECT_LT(m.find(".cc:"), m.find("assert '")) << m;
	}
	EXPECT_FALSE(otimer_is_running(node));
	EXPECT_EQ(node->group, nullptr);
	ASSERT_TRUE(tree_ok());
	delete_all({t, node, foreign});
}

TEST_F(Timers, QueriesOnStoppedPastDueAndNullTimers)
{
	otimer_t *t = leaf(1);
	struct timespec left;
	otimer_remaining(t, &left);
	EXPECT_EQ(__evCmpTime(left, ts(0)), 0);
	otimer_oneshot(t, 3, 700000000, 0);
	otimer_remaining(t, &left);
	EXPECT_EQ(__evCmpTime(left, ts(3, 700000000)), 0);
	EXPECT_EQ(otimer_remaining_secs(t), 3);
	EXPECT_FALSE(otimer_is_expired(t));
	advance(5);	/* past due, not yet fired */
	EXPECT_TRUE(otimer_is_expired(t));
	otimer_remaining(t, &left);
	EXPECT_EQ(__evCmpTime(left, ts(0)), 0);
	otimer_delete(t);

	otimer_stop(nullptr);
	otimer_delete(nullptr);
	otimer_oneshot_secs(nullptr, 1, 0);
	EXPECT_FALSE(otimer_is_running(nullptr) || otimer_is_expired(nullptr));
	EXPECT_EQ(otimer_remaining_secs(nullptr), 0);
	EXPECT_EQ(otimer_arg(nullptr), nullptr);
	EXPECT_TRUE(fatal_messages.empty());
}

struct nested {
	evContext ev;
	otimer_t *other;
	int calls;
};

TEST_F(Timers, HandlerTurningTheLoopIsNotReentered)
{
	nested n{ev, leaf(5), 0};
	/*
	 * A handler that runs the loop (a wait on a path that ends the
	 * process, say) must not see its own timer, still due, fire again
	 * inside; arming another sets the event timer for the root anew.
	 */
	otimer_t *t = otimer_create(ctx, nullptr, [](otimer_t *, void *arg) {
		auto *n = static_cast<nested *>(arg);
		if (++n->calls == 1) {
			otimer_oneshot_secs(n->other, 1, 0);
			for (int i = 0; i < 3; i++)
				__evLoopOnce(n->ev, 0);
		}
	}, &n);
	otimer_periodic_secs(t, 1, 0);
	advance_and_turn(1);
	EXPECT_EQ(n.calls, 1);
	EXPECT_TRUE(due_at(t, ts(1002)));
	ASSERT_TRUE(tree_ok());
	advance_and_turn(1);
	EXPECT_EQ(n.calls, 2);
	EXPECT_EQ(fired, (std::vector<intptr_t>{5}));
	delete_all({t, n.other});
}

/*
 * Random arming, stopping, grouping and deleting against a model of when
 * each timer is due.  Every expiry must come from a timer the model has
 * due, in due order within a jump of the clock; the one event timer must
 * follow the root.
 */
struct model_timer {
	otimer_t *t = nullptr;
	bool running = false;
	bool periodic = false;
	struct timespec due {};
	struct timespec interval {};
};

struct model_run {
	std::vector<model_timer> timers;
	struct timespec last_due;	/* of the last expiry since the clock moved */
	size_t total = 0;
} model;

void
model_fired(otimer_t *t, void *arg)
{
	model_timer &mt = model.timers[reinterpret_cast<intptr_t>(arg)];
	if (mt.t != t || !mt.running || __evCmpTime(mt.due, __evNowTime()) > 0 ||
	    __evCmpTime(mt.due, model.last_due) < 0) {
		ADD_FAILURE() << "timer " << reinterpret_cast<intptr_t>(arg) << " fired";
		return;
	}
	model.last_due = mt.due;
	model.total++;
	if (mt.periodic)	/* fired late or not, from this expiry */
		mt.due = __evAddTime(mt.due, mt.interval);
	else
		mt.running = false;
}

TEST_F(Timers, RandomWorkloadMatchesAModel)
{
	using arm_fn = void (*)(otimer_t *, time_t, long, unsigned);
	const arm_fn arms[] = {otimer_oneshot, otimer_periodic, otimer_oneshot_group,
	                       otimer_periodic_group};
	std::srand(77);
	model = model_run{};
	model.timers.resize(30);
	for (intptr_t i = 0; i < 30; i++)
		model.timers[i].t = otimer_create(ctx, nullptr, model_fired,
		                                  reinterpret_cast<void *>(i));
	for (int step = 0; step < 4000; step++) {
		SCOPED_TRACE(step);
		model_timer &mt = model.timers[std::rand() % 30];
		struct timespec interval = ts(1 + std::rand() % 8,
		                              (std::rand() % 2) * 250000000L);
		int op = std::rand() % 9;
		if (op < 4) {
			arms[op](mt.t, interval.tv_sec, interval.tv_nsec, 0);
			mt = {mt.t, true, (op & 1) != 0,
			      __evAddTime(__evNowTime(), interval), interval};
		} else if (op == 4) {
			otimer_stop(mt.t);
			mt.running = false;
		} else if (op == 5) {
			void *arg = otimer_arg(mt.t);
			otimer_delete(mt.t);
			mt = {};
			mt.t = otimer_create(ctx, nullptr, model_fired, arg);
		} else {
			advance(std::rand() % 3, (std::rand() % 4) * 250000000L);
			model.last_due = ts(0);
			/* Ten per turn: enough turns for everything due. */
			for (int i = 0; i < 40; i++)
				turn();
		}
		ASSERT_FALSE(HasFailure());
		ASSERT_TRUE(tree_ok());
		for (const model_timer &x : model.timers) {
			ASSERT_EQ(otimer_is_running(x.t), x.running);
			ASSERT_TRUE(!x.running || due_at(x.t, x.due));
		}
		ASSERT_EQ(ctx->ev_timer_set, htimer_running(&ctx->root.ht));
		ASSERT_TRUE(!ctx->ev_timer_set ||
		            __evCmpTime(ctx->ev_due, ctx->root.ht.ht_expiry) == 0);
	}
	EXPECT_GT(model.total, 1000u);	/* the workload did fire timers */
	for (model_timer &x : model.timers)
		otimer_delete(x.t);
	EXPECT_EQ(ctx->groups == nullptr ? 0u : patricia_count(ctx->groups), 0u);
}

} // namespace
