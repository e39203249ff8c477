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

void
record_fatal(const char *message)
{
	fatal_messages.emplace_back(message);
}

struct timespec
ts(time_t sec, long nsec = 0)
{
	return __evConsTime(sec, nsec);
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
		/* Contexts have no delete; stop everything, keep them reachable. */
		otimer_stop(&ctx->root);
		EXPECT_FALSE(ctx->ev_timer_set);
		kept().push_back(ctx);
		__evDestroy(ev);
		ev_clock_set(nullptr);
	}

	static std::vector<otimer_context_t *> &kept()
	{
		/* Never destroyed, so that they stay reachable at exit. */
		static auto *contexts = new std::vector<otimer_context_t *>;
		return *contexts;
	}

	void advance(time_t sec, long nsec = 0) { ev_clock_advance(ts(sec, nsec)); }
	void turn() { ASSERT_EQ(__evLoopOnce(ev, 0), 0); }
	void advance_and_turn(time_t sec, long nsec = 0)
	{
		advance(sec, nsec);
		turn();
	}

	otimer_t *leaf(intptr_t id, otimer_t *parent = nullptr)
	{
		otimer_t *t = otimer_create(ctx, parent, record, reinterpret_cast<void *>(id));
		EXPECT_NE(t, nullptr);
		return t;
	}

	static void record(otimer_t *t, void *arg)
	{
		(void)t;
		fired.push_back(reinterpret_cast<intptr_t>(arg));
	}

	bool tree_ok() { return htimer_verify(&ctx->root.ht) == 0; }

	static std::vector<intptr_t> fired;
	evContext ev{};
	otimer_context_t *ctx = nullptr;
};

std::vector<intptr_t> Timers::fired;

TEST_F(Timers, FireInExpiryOrder)
{
	otimer_t *a = leaf(5), *b = leaf(1), *c = leaf(3);
	otimer_t *node = otimer_node_create(ctx, nullptr);
	otimer_t *d = leaf(2, node), *e = leaf(4, node);
	otimer_oneshot_secs(a, 5, 0);
	otimer_oneshot_secs(b, 1, 0);
	otimer_oneshot_secs(c, 3, 0);
	otimer_oneshot_secs(e, 4, 0);
	otimer_oneshot_secs(d, 2, 0);
	ASSERT_TRUE(tree_ok());
	EXPECT_EQ(__evCmpTime(ctx->root.ht.ht_expiry, ts(1001)), 0);
	EXPECT_EQ(__evCmpTime(node->ht.ht_expiry, ts(1002)), 0);

	turn();
	EXPECT_TRUE(fired.empty());
	advance_and_turn(1);
	EXPECT_EQ(fired, (std::vector<intptr_t>{1}));
	advance_and_turn(10);
	EXPECT_EQ(fired, (std::vector<intptr_t>{1, 2, 3, 4, 5}));
	EXPECT_FALSE(otimer_is_running(node));
	EXPECT_FALSE(ctx->ev_timer_set);
	for (otimer_t *t : {a, b, c, d, e, node})
		otimer_delete(t);
}

TEST_F(Timers, EqualExpiriesFireInArmingOrder)
{
	std::vector<otimer_t *> t;
	for (intptr_t i = 0; i < 5; i++)
		t.push_back(leaf(i));
	for (intptr_t i : {3, 0, 4, 1, 2})
		otimer_oneshot(t[i], 2, 500, 0);
	/* Re-armed to the same time, it keeps its place... */
	otimer_oneshot(t[4], 2, 500, 0);
	/* ...but moved away and back, it goes behind the others. */
	otimer_oneshot(t[0], 1, 0, 0);
	otimer_oneshot(t[0], 2, 500, 0);
	ASSERT_TRUE(tree_ok());
	advance_and_turn(3);
	EXPECT_EQ(fired, (std::vector<intptr_t>{3, 4, 1, 2, 0}));
	for (otimer_t *x : t)
		otimer_delete(x);
}

TEST_F(Timers, MovingATimerReordersIt)
{
	otimer_t *a = leaf(1), *b = leaf(2), *c = leaf(3);
	otimer_oneshot_secs(a, 10, 0);
	otimer_oneshot_secs(b, 20, 0);
	otimer_oneshot_secs(c, 30, 0);
	otimer_oneshot_secs(a, 25, 0);	/* first moves to the middle */
	ASSERT_TRUE(tree_ok());
	EXPECT_EQ(__evCmpTime(ctx->ev_due, ts(1020)), 0);
	otimer_oneshot_secs(c, 5, 0);	/* last moves to the front */
	ASSERT_TRUE(tree_ok());
	EXPECT_EQ(__evCmpTime(ctx->ev_due, ts(1005)), 0);
	advance_and_turn(30);
	EXPECT_EQ(fired, (std::vector<intptr_t>{3, 2, 1}));
	for (otimer_t *x : {a, b, c})
		otimer_delete(x);
}

int rearm_count;

void
rearm_once(otimer_t *t, void *arg)
{
	(void)arg;
	if (++rearm_count == 1)
		otimer_oneshot_secs(t, 7, 0);
}

TEST_F(Timers, OneShotRearmedInItsHandlerRunsOnceMore)
{
	rearm_count = 0;
	otimer_t *t = otimer_create(ctx, nullptr, rearm_once, nullptr);
	otimer_oneshot_secs(t, 1, 0);
	advance_and_turn(1);
	EXPECT_EQ(rearm_count, 1);
	EXPECT_TRUE(otimer_is_running(t));
	EXPECT_EQ(otimer_remaining_secs(t), 7);
	advance_and_turn(6);
	EXPECT_EQ(rearm_count, 1);
	advance_and_turn(1);
	EXPECT_EQ(rearm_count, 2);
	EXPECT_FALSE(otimer_is_running(t));
	advance_and_turn(100);
	EXPECT_EQ(rearm_count, 2);
	otimer_delete(t);
}

TEST_F(Timers, PeriodicRearmedInItsHandlerKeepsTheNewInterval)
{
	rearm_count = 0;
	otimer_t *t = otimer_create(ctx, nullptr, rearm_once, nullptr);
	otimer_periodic_secs(t, 2, 0);
	advance_and_turn(2);
	EXPECT_EQ(rearm_count, 1);
	/* The handler's oneshot of 7 s won over the restart. */
	EXPECT_EQ(otimer_remaining_secs(t), 7);
	advance_and_turn(7);
	EXPECT_EQ(rearm_count, 2);
	EXPECT_FALSE(otimer_is_running(t));
	otimer_delete(t);
}

int delete_calls;

void
delete_self(otimer_t *t, void *arg)
{
	(void)arg;
	delete_calls++;
	otimer_delete(t);
	/* Still ours until we return: the handler may look at it. */
	EXPECT_FALSE(otimer_is_running(t));
	EXPECT_EQ(otimer_arg(t), nullptr);
}

TEST_F(Timers, TimerDeletedInItsHandlerIsFreedAfterwards)
{
	delete_calls = 0;
	otimer_t *once = otimer_create(ctx, nullptr, delete_self, nullptr);
	otimer_t *every = otimer_create(ctx, nullptr, delete_self, nullptr);
	otimer_t *other = leaf(9);
	otimer_oneshot_secs(once, 1, 0);
	otimer_periodic_secs(every, 1, 0);
	otimer_periodic_secs(other, 1, 0);
	advance_and_turn(1);
	EXPECT_EQ(delete_calls, 2);
	EXPECT_EQ(fired, (std::vector<intptr_t>{9}));
	ASSERT_TRUE(tree_ok());
	/* Neither comes back (AddressSanitizer would catch a late touch). */
	advance_and_turn(1);
	EXPECT_EQ(delete_calls, 2);
	EXPECT_EQ(fired, (std::vector<intptr_t>{9, 9}));
	otimer_delete(other);
}

int stop_calls;

void
stop_self(otimer_t *t, void *arg)
{
	(void)arg;
	stop_calls++;
	otimer_stop(t);
}

TEST_F(Timers, PeriodicStoppedByItsHandlerDoesNotRunAgain)
{
	stop_calls = 0;
	otimer_t *t = otimer_create(ctx, nullptr, stop_self, nullptr);
	otimer_periodic_secs(t, 3, 0);
	advance_and_turn(3);
	EXPECT_EQ(stop_calls, 1);
	EXPECT_FALSE(otimer_is_running(t));
	EXPECT_FALSE(ctx->ev_timer_set);
	advance_and_turn(30);
	EXPECT_EQ(stop_calls, 1);
	otimer_delete(t);
}

TEST_F(Timers, PeriodicCountsFromItsLastExpiry)
{
	otimer_t *t = leaf(1);
	otimer_periodic_secs(t, 10, 0);
	/* Fired late, at 1015: the next period still ends at 1020. */
	advance_and_turn(15);
	EXPECT_EQ(fired.size(), 1u);
	EXPECT_EQ(__evCmpTime(t->ht.ht_expiry, ts(1020)), 0);
	EXPECT_EQ(otimer_remaining_secs(t), 5);
	advance_and_turn(5);
	EXPECT_EQ(fired.size(), 2u);
	advance_and_turn(9);
	EXPECT_EQ(fired.size(), 2u);
	EXPECT_FALSE(otimer_is_expired(t));
	advance(1);
	EXPECT_TRUE(otimer_is_expired(t));
	turn();
	EXPECT_EQ(fired.size(), 3u);
	otimer_delete(t);
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
	for (intptr_t i = 0; i < 11; i++)
		EXPECT_EQ(fired[i], i);
	EXPECT_FALSE(ctx->ev_timer_set);
	for (otimer_t *x : t)
		otimer_delete(x);
}

TEST_F(Timers, StoppingTheLastChildStopsEveryParentAndTheEventTimer)
{
	otimer_t *outer = otimer_node_create(ctx, nullptr);
	otimer_t *inner = otimer_node_create(ctx, outer);
	otimer_t *t = leaf(1, inner);
	otimer_t *u = leaf(2, inner);
	otimer_oneshot_secs(t, 5, 0);
	otimer_oneshot_secs(u, 8, 0);
	ASSERT_TRUE(ctx->ev_timer_set);
	evTimerID id = ctx->ev_timer;
	EXPECT_TRUE(otimer_is_running(inner));
	EXPECT_TRUE(otimer_is_running(outer));

	otimer_stop(t);	/* the first child goes: the parents follow u */
	EXPECT_EQ(__evCmpTime(outer->ht.ht_expiry, ts(1008)), 0);
	EXPECT_EQ(__evCmpTime(ctx->ev_due, ts(1008)), 0);
	otimer_stop(u);
	EXPECT_FALSE(otimer_is_running(inner));
	EXPECT_FALSE(otimer_is_running(outer));
	EXPECT_FALSE(htimer_running(&ctx->root.ht));
	EXPECT_FALSE(ctx->ev_timer_set);
	/* The event library no longer has that timer. */
	errno = 0;
	EXPECT_EQ(__evClearTimer(ev, id), -1);
	EXPECT_EQ(errno, ENOENT);
	advance_and_turn(20);
	EXPECT_TRUE(fired.empty());
	ASSERT_TRUE(tree_ok());
	for (otimer_t *x : {t, u, inner, outer})
		otimer_delete(x);
}

TEST_F(Timers, StoppingAnInnerNodeStopsEveryLeafBelow)
{
	otimer_t *node = otimer_node_create(ctx, nullptr);
	otimer_t *sub = otimer_node_create(ctx, node);
	otimer_t *a = leaf(1, node), *b = leaf(2, sub), *c = leaf(3);
	otimer_oneshot_secs(a, 1, 0);
	otimer_oneshot_secs(b, 2, 0);
	otimer_oneshot_secs(c, 3, 0);
	otimer_stop(node);
	EXPECT_FALSE(otimer_is_running(a));
	EXPECT_FALSE(otimer_is_running(b));
	EXPECT_FALSE(otimer_is_running(sub));
	EXPECT_TRUE(otimer_is_running(c));
	EXPECT_EQ(__evCmpTime(ctx->ev_due, ts(1003)), 0);
	ASSERT_TRUE(tree_ok());
	advance_and_turn(5);
	EXPECT_EQ(fired, (std::vector<intptr_t>{3}));
	for (otimer_t *x : {a, b, c, sub, node})
		otimer_delete(x);
}

TEST_F(Timers, OneEventTimerFollowsTheEarliestOfManyTimers)
{
	std::vector<otimer_t *> t;
	for (intptr_t i = 0; i < 50; i++) {
		t.push_back(leaf(i));
		otimer_oneshot_secs(t.back(), 100 - i, 0);
		ASSERT_EQ(__evCmpTime(ctx->ev_due, ts(1100 - i)), 0);
	}
	ASSERT_TRUE(tree_ok());
	evTimerID id = ctx->ev_timer;
	otimer_stop(t[49]);
	EXPECT_EQ(__evCmpTime(ctx->ev_due, ts(1052)), 0);
	/* Reset, not replaced. */
	EXPECT_EQ(ctx->ev_timer.opaque, id.opaque);
	for (otimer_t *x : t)
		otimer_delete(x);
	EXPECT_FALSE(ctx->ev_timer_set);
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
	EXPECT_EQ(a->group->refcount, 2u);
	EXPECT_EQ(a->ht.ht_parent, &a->group->parent->ht);
	EXPECT_EQ(a->ht.ht_parent, b->ht.ht_parent);
	EXPECT_EQ(a->group->parent->ht.ht_parent, &ctx->root.ht);
	EXPECT_EQ(patricia_count(ctx->groups), 2u);
	ASSERT_TRUE(tree_ok());

	/* Arming again in the same group keeps the count. */
	otimer_oneshot_group_secs(a, 30, 0);
	EXPECT_EQ(a->group->refcount, 2u);

	/* Moving to another group releases the old one. */
	otimer_oneshot_group(a, 30, 500, 0);
	EXPECT_EQ(a->group, c->group);
	EXPECT_EQ(c->group->refcount, 2u);
	EXPECT_EQ(b->group->refcount, 1u);
	EXPECT_TRUE(otimer_is_running(a));
	EXPECT_EQ(otimer_arg(a), reinterpret_cast<void *>(1));

	otimer_delete(b);	/* last of its group: group and node go */
	EXPECT_EQ(patricia_count(ctx->groups), 1u);
	ASSERT_TRUE(tree_ok());

	advance_and_turn(31);
	EXPECT_EQ(fired, (std::vector<intptr_t>{3, 1}));
	otimer_delete(a);
	EXPECT_EQ(c->group->refcount, 1u);
	otimer_delete(c);
	EXPECT_EQ(patricia_count(ctx->groups), 0u);
}

TEST_F(Timers, GroupKeyTakesTheCappedJitter)
{
	otimer_t *a = leaf(1), *b = leaf(2);
	otimer_oneshot_group_secs(a, 60, 150);
	otimer_oneshot_group_secs(b, 60, 99);
	EXPECT_EQ(a->group, b->group);
	EXPECT_EQ(a->group->key.jitter, 99u);
	otimer_delete(a);
	otimer_delete(b);
}

TEST_F(Timers, JitterIsCappedAndZeroDrawsNoRandomNumber)
{
	otimer_t *t = leaf(1);

	otimer_oneshot_secs(t, 10, 150);
	EXPECT_EQ(t->jitter, 99);
	/* Never later than the interval, never earlier than 99% of it. */
	EXPECT_LE(__evCmpTime(t->ht.ht_expiry, ts(1010)), 0);
	EXPECT_GE(__evCmpTime(t->ht.ht_expiry, ts(1000, 100000000)), 0);

	srandom(4242);
	long first = random();
	long second = random();

	srandom(4242);
	otimer_oneshot_secs(t, 10, 0);
	otimer_periodic(t, 3, 250000000, 0);
	EXPECT_EQ(random(), first);	/* nothing was drawn */
	EXPECT_EQ(__evCmpTime(t->ht.ht_expiry, ts(1003, 250000000)), 0);

	srandom(4242);
	otimer_oneshot_secs(t, 10, 20);
	EXPECT_EQ(random(), second);	/* exactly one was drawn */
	/* 10 s is counted in microseconds; 20% of it is the span. */
	long r = first % 2000000;
	EXPECT_EQ(__evCmpTime(t->ht.ht_expiry,
	                      __evSubTime(ts(1010), ts(r / 1000000, (r % 1000000) * 1000))),
	          0);
	otimer_delete(t);
}

TEST_F(Timers, JitterUnitFollowsTheLengthOfTheInterval)
{
	struct unit_case {
		time_t secs;
		long unit_ns;
		uint64_t per_interval;	/* units in the interval */
	};
	const unit_case cases[] = {
		{1, 1000, 1000000},
		{41, 1000, 41000000},
		{42, 1000000, 42000},
		{42948, 1000000, 42948000},
		{42949, 1000000000, 42949},
		{1000000, 1000000000, 1000000},
	};
	for (const unit_case &c : cases) {
		for (unsigned seed : {1u, 7u, 99u}) {
			srandom(seed);
			uint64_t v = static_cast<uint64_t>(random());
			uint64_t span = c.per_interval * 50 / 100;
			uint64_t r = v % span;
			srandom(seed);
			struct timespec j = htimer_jitter(ts(c.secs), 50);
			__int128 got = static_cast<__int128>(j.tv_sec) * 1000000000 + j.tv_nsec;
			EXPECT_EQ(got, static_cast<__int128>(r) * c.unit_ns)
			    << "interval " << c.secs << " seed " << seed;
		}
	}
	/* A span of nothing in the unit means no jitter. */
	EXPECT_EQ(__evCmpTime(htimer_jitter(ts(0, 1500), 50), ts(0)), 0);
	/* Over 100 percent counts as 100. */
	srandom(3);
	uint64_t v = static_cast<uint64_t>(random());
	srandom(3);
	struct timespec j = htimer_jitter(ts(2), 400);
	EXPECT_EQ(j.tv_sec * 1000000 + j.tv_nsec / 1000,
	          static_cast<long>(v % 2000000));
}

TEST_F(Timers, RespaceSpreadsLeavesEarlierOnly)
{
	otimer_t *node = otimer_node_create(ctx, nullptr);
	std::vector<otimer_t *> t;
	const time_t at[] = {5, 38, 39, 39, 40};
	for (intptr_t i = 0; i < 5; i++) {
		t.push_back(leaf(i, node));
		otimer_oneshot_secs(t.back(), at[i], 0);
	}
	otimer_respace(node);
	ASSERT_TRUE(tree_ok());
	/* Five steps of 8 s from 1000 up to 1040, taking only moves earlier. */
	const time_t want[] = {1005, 1016, 1024, 1032, 1040};
	for (int i = 0; i < 5; i++)
		EXPECT_EQ(__evCmpTime(t[i]->ht.ht_expiry, ts(want[i])), 0) << i;
	advance_and_turn(16);
	EXPECT_EQ(fired, (std::vector<intptr_t>{0, 1}));
	for (otimer_t *x : t)
		otimer_delete(x);
	otimer_delete(node);
}

TEST_F(Timers, RespaceNeedsThreeLeaves)
{
	otimer_t *node = otimer_node_create(ctx, nullptr);
	otimer_t *a = leaf(1, node), *b = leaf(2, node);
	otimer_oneshot_secs(a, 30, 0);
	otimer_oneshot_secs(b, 40, 0);
	otimer_respace(node);
	EXPECT_EQ(__evCmpTime(a->ht.ht_expiry, ts(1030)), 0);
	otimer_respace(a);	/* a leaf: nothing */
	otimer_respace(nullptr);
	EXPECT_TRUE(fatal_messages.empty());
	for (otimer_t *x : {a, b, node})
		otimer_delete(x);
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
	for (otimer_t *x : t)
		otimer_delete(x);
	otimer_delete(node);
}

TEST_F(Timers, DeletedNodeWaitsForItsLastChild)
{
	otimer_t *node = otimer_node_create(ctx, nullptr);
	otimer_t *a = leaf(1, node), *b = leaf(2, node);
	otimer_oneshot_secs(a, 1, 0);
	otimer_delete(node);
	EXPECT_FALSE(otimer_is_running(a));
	EXPECT_TRUE(node->flags & OTIMER_DOOMED);
	/* Its children still work under it until they go. */
	otimer_oneshot_secs(b, 2, 0);
	advance_and_turn(2);
	EXPECT_EQ(fired, (std::vector<intptr_t>{2}));
	otimer_delete(a);
	otimer_delete(b);	/* frees the node too; LeakSanitizer checks */
}

TEST_F(Timers, MisuseIsReportedThroughTheFatalHandler)
{
	otimer_t *node = otimer_node_create(ctx, nullptr);
	otimer_t *t = leaf(1);

	otimer_oneshot_secs(node, 1, 0);
	ASSERT_EQ(fatal_messages.size(), 1u);
	EXPECT_NE(fatal_messages[0].find("assert 'htimer_is_leaf(timer)' failed"),
	          std::string::npos) << fatal_messages[0];
	EXPECT_FALSE(otimer_is_running(node));

	otimer_periodic_group_secs(node, 1, 0);
	ASSERT_EQ(fatal_messages.size(), 2u);
	EXPECT_NE(fatal_messages[1].find("assert 'autoparenting non-leaf timer' failed"),
	          std::string::npos) << fatal_messages[1];

	EXPECT_EQ(otimer_create(ctx, t, record, nullptr), nullptr);
	ASSERT_EQ(fatal_messages.size(), 3u);
	EXPECT_NE(fatal_messages[2].find(
	              "assert '!htimer_is_leaf(timer) && htimer_initialized(timer)' failed"),
	          std::string::npos) << fatal_messages[2];
	/* "file:line: " in front. */
	EXPECT_EQ(fatal_messages[2].rfind("htimer.cc:", 0), 0u) << fatal_messages[2];

	/* A parent of another context. */
	otimer_context_t *other = otimer_context_create(ev, nullptr);
	kept().push_back(other);
	otimer_t *foreign = otimer_node_create(other, nullptr);
	EXPECT_EQ(otimer_create(ctx, foreign, record, nullptr), nullptr);
	ASSERT_EQ(fatal_messages.size(), 4u);
	EXPECT_NE(fatal_messages[3].find("assert 'parent->context == ctx' failed"),
	          std::string::npos) << fatal_messages[3];
	otimer_delete(foreign);
	fatal_messages.pop_back();

	/* Releasing a group twice is caught, and changes nothing. */
	otimer_oneshot_group_secs(t, 9, 0);
	struct otimer_group *g = t->group;
	g->refcount = 0;
	otimer_oneshot_group_secs(t, 8, 0);
	ASSERT_EQ(fatal_messages.size(), 4u);
	EXPECT_NE(fatal_messages[3].find("assert 'refcount is zero' failed"),
	          std::string::npos);
	EXPECT_EQ(patricia_count(ctx->groups), 2u);
	/* Clean up what the forced fault left. */
	patricia_delete(ctx->groups, &g->node);
	otimer_delete(g->parent);
	free(g);

	EXPECT_EQ(otimer_is_running(t), true);
	otimer_delete(t);
	otimer_delete(node);
	ASSERT_TRUE(tree_ok());
}

TEST_F(Timers, NullIsAcceptedWhereDocumented)
{
	otimer_stop(nullptr);
	otimer_delete(nullptr);
	EXPECT_FALSE(otimer_is_running(nullptr));
	EXPECT_FALSE(otimer_is_expired(nullptr));
	EXPECT_EQ(otimer_remaining_secs(nullptr), 0);
	EXPECT_EQ(otimer_arg(nullptr), nullptr);
	otimer_oneshot_secs(nullptr, 1, 0);
	EXPECT_TRUE(fatal_messages.empty());
}

TEST_F(Timers, RemainingIsZeroWhenStoppedOrPast)
{
	otimer_t *t = leaf(1);
	struct timespec left;
	otimer_remaining(t, &left);
	EXPECT_EQ(__evCmpTime(left, ts(0)), 0);
	otimer_oneshot(t, 3, 700000000, 0);
	otimer_remaining(t, &left);
	EXPECT_EQ(__evCmpTime(left, ts(3, 700000000)), 0);
	EXPECT_EQ(otimer_remaining_secs(t), 3);
	advance(5);	/* past due, not yet fired */
	EXPECT_TRUE(otimer_is_expired(t));
	otimer_remaining(t, &left);
	EXPECT_EQ(__evCmpTime(left, ts(0)), 0);
	turn();
	EXPECT_FALSE(otimer_is_running(t));
	otimer_delete(t);
}

TEST_F(Timers, TheLastFatalHandlerGivenWins)
{
	EXPECT_EQ(otimer_get_fatal_handler(), record_fatal);
	/* A context made without one leaves the process's handler alone. */
	otimer_context_t *other = otimer_context_create(ev, nullptr);
	ASSERT_NE(other, nullptr);
	kept().push_back(other);
	EXPECT_EQ(otimer_get_fatal_handler(), record_fatal);
}

struct nested {
	evContext ev;
	int calls = 0;
};

void
turn_loop_inside(otimer_t *t, void *arg)
{
	(void)t;
	auto *n = static_cast<nested *>(arg);
	if (++n->calls > 1)
		return;
	/* A handler that runs the loop (a wait on a path that ends the
	 * process, say) must not see its own timer fire again inside. */
	for (int i = 0; i < 3; i++)
		__evLoopOnce(n->ev, 0);
}

TEST_F(Timers, HandlerTurningTheLoopIsNotReentered)
{
	nested n;
	n.ev = ev;
	otimer_t *t = otimer_create(ctx, nullptr, turn_loop_inside, &n);
	otimer_t *u = leaf(5);
	otimer_periodic_secs(t, 1, 0);
	otimer_oneshot_secs(u, 1, 0);
	advance_and_turn(1);
	EXPECT_EQ(n.calls, 1);
	EXPECT_EQ(fired, (std::vector<intptr_t>{5}));
	EXPECT_EQ(__evCmpTime(t->ht.ht_expiry, ts(1002)), 0);
	ASSERT_TRUE(tree_ok());
	otimer_delete(t);
	otimer_delete(u);
}

/*
 * Random arming, stopping, grouping and deleting against a model of when
 * each timer is due.  Every expiry must come from a timer the model has
 * due, in due order, and nothing due may be left once the loop is idle.
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
	std::vector<struct timespec> fired_dues;
	size_t total = 0;
	bool bad = false;
};

model_run *current_model;

void
model_fired(otimer_t *t, void *arg)
{
	model_run *m = current_model;
	model_timer &mt = m->timers[reinterpret_cast<intptr_t>(arg)];
	struct timespec now = __evNowTime();
	if (mt.t != t || !mt.running || __evCmpTime(mt.due, now) > 0) {
		m->bad = true;
		return;
	}
	m->fired_dues.push_back(mt.due);
	m->total++;
	if (mt.periodic)
		mt.due = __evAddTime(mt.due, mt.interval);
	else
		mt.running = false;
}

TEST_F(Timers, RandomWorkloadMatchesAModel)
{
	model_run m;
	current_model = &m;
	std::srand(77);
	m.timers.resize(30);
	for (intptr_t i = 0; i < 30; i++)
		m.timers[i].t = otimer_create(ctx, nullptr, model_fired,
		                              reinterpret_cast<void *>(i));
	for (int step = 0; step < 4000; step++) {
		model_timer &mt = m.timers[std::rand() % 30];
		time_t secs = 1 + std::rand() % 8;
		long nsecs = (std::rand() % 2) * 250000000L;
		switch (std::rand() % 10) {
		case 0:
		case 1:
			otimer_oneshot(mt.t, secs, nsecs, 0);
			mt = {mt.t, true, false, __evAddTime(__evNowTime(), ts(secs, nsecs)),
			      ts(secs, nsecs)};
			break;
		case 2:
		case 3:
			otimer_periodic(mt.t, secs, nsecs, 0);
			mt = {mt.t, true, true, __evAddTime(__evNowTime(), ts(secs, nsecs)),
			      ts(secs, nsecs)};
			break;
		case 4:
			otimer_periodic_group_secs(mt.t, secs, 0);
			mt = {mt.t, true, true, __evAddTime(__evNowTime(), ts(secs)), ts(secs)};
			break;
		case 5:
			otimer_oneshot_group_secs(mt.t, secs, 0);
			mt = {mt.t, true, false, __evAddTime(__evNowTime(), ts(secs)), ts(secs)};
			break;
		case 6:
			otimer_stop(mt.t);
			mt.running = false;
			break;
		case 7: {
			void *arg = otimer_arg(mt.t);
			otimer_delete(mt.t);
			mt = {};
			mt.t = otimer_create(ctx, nullptr, model_fired, arg);
			break;
		}
		default: {
			advance(std::rand() % 3, (std::rand() % 4) * 250000000L);
			m.fired_dues.clear();
			/* Ten per turn: enough turns for everything due. */
			for (int i = 0; i < 40; i++)
				turn();
			for (size_t i = 1; i < m.fired_dues.size(); i++)
				ASSERT_LE(__evCmpTime(m.fired_dues[i - 1], m.fired_dues[i]), 0)
				    << "step " << step;
			break;
		}
		}
		ASSERT_FALSE(m.bad) << "step " << step;
		ASSERT_TRUE(tree_ok()) << "step " << step;
		for (const model_timer &x : m.timers) {
			ASSERT_EQ(otimer_is_running(x.t), x.running) << "step " << step;
			if (x.running) {
				ASSERT_EQ(__evCmpTime(x.t->ht.ht_expiry, x.due), 0) << "step " << step;
			}
		}
		ASSERT_EQ(ctx->ev_timer_set, htimer_running(&ctx->root.ht));
		if (ctx->ev_timer_set) {
			ASSERT_EQ(__evCmpTime(ctx->ev_due, ctx->root.ht.ht_expiry), 0);
		}
	}
	EXPECT_GT(m.total, 1000u);	/* the workload did fire timers */
	for (model_timer &x : m.timers)
		otimer_delete(x.t);
	EXPECT_EQ(ctx->groups == nullptr ? 0u : patricia_count(ctx->groups), 0u);
}

} // namespace
