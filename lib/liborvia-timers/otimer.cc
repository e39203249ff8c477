/*
 * Application timers on the hierarchical timer tree.
 *
 * Every context holds exactly one event-library timer, set to the root's
 * expiry whenever the root runs.  Every operation that can move the root
 * (arm, stop, delete, the restart of a periodic timer, respace) ends with
 * sync_event_timer(), so the event timer exists exactly while some timer of
 * the context runs.
 */
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "otimer_assert.h"
#include "otimer_private.h"

namespace {

/* At most this many expiries per call of the event timer; the rest wait for
 * the next turn of the event loop, so that timers cannot starve it. */
constexpr int fire_batch = 10;
constexpr unsigned max_jitter = 99;

/* Gap kept behind the latest sibling by timers in spread mode. */
struct timespec spread_gap;

htimer_t *
root_of(otimer_context_t *ctx)
{
	return &ctx->root.ht;
}

otimer_t *
otimer_of(htimer_t *ht)
{
	return reinterpret_cast<otimer_t *>(ht);
}

/* Bring the event timer in line with the root. */
void
sync_event_timer(otimer_context_t *ctx)
{
	htimer_t *root = root_of(ctx);
	static const struct timespec once = {0, 0};

	if (!ctx->ev_timer_set) {
		if (!htimer_running(root))
			return;
		if (__evSetTimer(ctx->ev, otimer_fire, ctx, root->ht_expiry, once,
		                 &ctx->ev_timer) == 0) {
			ctx->ev_timer_set = true;
			ctx->ev_due = root->ht_expiry;
		}
		return;
	}
	if (!htimer_running(root)) {
		__evClearTimer(ctx->ev, ctx->ev_timer);
		ctx->ev_timer_set = false;
		return;
	}
	if (__evCmpTime(root->ht_expiry, ctx->ev_due) == 0)
		return;
	if (__evResetTimer(ctx->ev, ctx->ev_timer, otimer_fire, ctx, root->ht_expiry,
	                   once) == 0) {
		ctx->ev_due = root->ht_expiry;
		return;
	}
	/* The event library lost it: set a new one. */
	ctx->ev_timer_set = false;
	sync_event_timer(ctx);
}

void destroy(otimer_t *t);

/* t no longer counts as a child of its parent. */
void
leave_parent(otimer_t *t)
{
	htimer_t *up = t->ht.ht_parent;

	if (up == nullptr)
		return;
	otimer_t *parent = otimer_of(up);
	if (parent->children > 0)
		parent->children--;
	if ((parent->flags & OTIMER_DOOMED) != 0 && parent->children == 0 &&
	    parent != &parent->context->root)
		destroy(parent);
}

void release_group(struct otimer_group *g);

/* Free a stopped timer, or doom an inner node that still has children. */
void
destroy(otimer_t *t)
{
	otimer_context_t *ctx = t->context;

	if (htimer_running(&t->ht)) {
		htimer_stop(&t->ht);
		sync_event_timer(ctx);
	}
	if (!htimer_is_leaf(&t->ht) && t->children > 0) {
		t->flags |= OTIMER_DOOMED;
		return;
	}
	struct otimer_group *g = t->group;
	t->group = nullptr;
	if (g != nullptr)
		release_group(g);
	leave_parent(t);
	t->ht.ht_magic = 0;
	std::free(t);
}

void
release_group(struct otimer_group *g)
{
	if (g->refcount == 0) {
		OTIMER_FAIL("refcount is zero");
		return;
	}
	if (--g->refcount > 0)
		return;
	otimer_context_t *ctx = g->parent->context;
	patricia_delete(ctx->groups, &g->node);
	otimer_delete(g->parent);
	std::free(g);
}

otimer_t *
new_timer(otimer_context_t *ctx, otimer_t *parent, bool leaf)
{
	if (ctx == nullptr)
		return nullptr;
	if (parent == nullptr)
		parent = &ctx->root;
	/* Another context's tree would be synchronised with the wrong loop. */
	if (!OTIMER_CHECK(parent->context == ctx))
		return nullptr;
	auto *t = static_cast<otimer_t *>(std::calloc(1, sizeof(otimer_t)));
	if (t == nullptr)
		return nullptr;
	int rc = leaf ? htimer_init_leaf(&t->ht, &parent->ht)
	              : htimer_init_node(&t->ht, &parent->ht);
	if (rc != 0) {
		std::free(t);
		return nullptr;
	}
	t->context = ctx;
	parent->children++;
	return t;
}

/* Expiry of a timer in spread mode: never before the latest sibling. */
struct timespec
spread_start(otimer_t *t, struct timespec interval, unsigned jitter)
{
	struct timespec now = __evNowTime();
	struct timespec expiry = htimer_start_time(now, interval, jitter);
	htimer_t *parent = t->ht.ht_parent;

	if (parent == nullptr || parent->ht_first == nullptr)
		return expiry;
	htimer_t *latest = parent->ht_first->ht_prev;
	if (latest == &t->ht)	/* arming a running timer: the others count */
		latest = latest->ht_prev == latest ? nullptr : latest->ht_prev;
	if (latest == nullptr || __evCmpTime(expiry, latest->ht_expiry) >= 0)
		return expiry;
	struct timespec plain = __evAddTime(now, interval);
	if (__evCmpTime(latest->ht_expiry, plain) >= 0)
		return plain;
	return __evAddTime(latest->ht_expiry, spread_gap);
}

void
arm(otimer_t *t, time_t secs, long nsecs, unsigned jitter, bool periodic)
{
	if (t == nullptr)
		return;
	htimer_t *timer = &t->ht;
	if (!OTIMER_CHECK(htimer_is_leaf(timer)))
		return;
	struct timespec interval = __evConsTime(secs, nsecs);
	t->jitter = static_cast<uint8_t>(jitter > max_jitter ? max_jitter : jitter);
	if (periodic)
		t->flags |= OTIMER_PERIODIC;
	else
		t->flags &= ~OTIMER_PERIODIC;
	t->interval = interval;
	if ((t->flags & OTIMER_SPREAD) != 0)
		htimer_set_expiry(&t->ht, spread_start(t, interval, t->jitter));
	else
		htimer_start(&t->ht, interval, t->jitter);
	sync_event_timer(t->context);
	t->flags |= OTIMER_TOUCHED;
}

struct otimer_group *
find_group(otimer_context_t *ctx, const struct otimer_group_key &key)
{
	if (ctx->groups == nullptr) {
		ctx->groups = patricia_root_init(nullptr, 0, sizeof(key),
		                                 offsetof(struct otimer_group, key));
		if (ctx->groups == nullptr)
			return nullptr;
	}
	patnode *n = patricia_lookup(ctx->groups, &key);
	if (n != nullptr)
		return reinterpret_cast<struct otimer_group *>(n);

	auto *g = static_cast<struct otimer_group *>(
	    std::calloc(1, sizeof(struct otimer_group)));
	if (g == nullptr)
		return nullptr;
	g->parent = new_timer(ctx, nullptr, false);
	if (g->parent == nullptr) {
		std::free(g);
		return nullptr;
	}
	g->key = key;
	patricia_node_init_length(&g->node, sizeof(key));
	patricia_add(ctx->groups, &g->node);
	g->refcount = 0;
	return g;
}

/* Re-home a leaf under parent, as a fresh leaf with its handler and arg. */
void
move_leaf(otimer_t *t, otimer_t *parent)
{
	htimer_stop(&t->ht);
	sync_event_timer(t->context);
	leave_parent(t);
	htimer_init_leaf(&t->ht, &parent->ht);
	parent->children++;
}

void
arm_group(otimer_t *t, time_t secs, long nsecs, unsigned jitter, bool periodic)
{
	if (t == nullptr)
		return;
	if (!htimer_is_leaf(&t->ht)) {
		OTIMER_FAIL("autoparenting non-leaf timer");
		return;
	}
	if (jitter > max_jitter)
		jitter = max_jitter;
	struct timespec interval = __evConsTime(secs, nsecs);
	struct otimer_group_key key;
	std::memset(&key, 0, sizeof(key));
	key.secs = static_cast<uint32_t>(interval.tv_sec);
	key.nsecs = static_cast<uint32_t>(interval.tv_nsec);
	key.jitter = jitter;

	struct otimer_group *g = find_group(t->context, key);
	if (g == nullptr) {
		/* Out of memory: the timer still runs, only ungrouped. */
		arm(t, secs, nsecs, jitter, periodic);
		return;
	}
	g->refcount++;
	struct otimer_group *old = t->group;
	t->group = g;
	/*
	 * The timer moves before its old group is released: releasing may
	 * delete the old shared node, which must by then have no child.
	 */
	if (t->ht.ht_parent != &g->parent->ht)
		move_leaf(t, g->parent);
	if (old != nullptr)
		release_group(old);
	arm(t, secs, nsecs, jitter, periodic);
}

} // namespace

extern "C" {

void
otimer_fire(evContext ev, void *uap, struct timespec due, struct timespec inter)
{
	(void)ev;
	(void)due;
	(void)inter;
	auto *ctx = static_cast<otimer_context_t *>(uap);
	htimer_t *root = root_of(ctx);

	ctx->ev_timer_set = false;	/* one-shot: the event library dropped it */
	/*
	 * A handler that turns the event loop itself must not have the timer
	 * that is firing fired again underneath it: the outer call goes on
	 * with the expired timers when the handler returns.
	 */
	if (ctx->in_fire) {
		sync_event_timer(ctx);
		return;
	}
	ctx->in_fire = true;
	for (int i = 0; i < fire_batch; i++) {
		if (!htimer_running(root) ||
		    __evCmpTime(root->ht_expiry, __evNowTime()) > 0)
			break;
		htimer_t *leaf = htimer_earliest_leaf(root);
		if (leaf == nullptr)
			break;
		otimer_t *t = otimer_of(leaf);
		if ((t->flags & OTIMER_PERIODIC) == 0)
			otimer_stop(t);
		t->flags &= ~OTIMER_TOUCHED;
		t->flags |= OTIMER_FIRING;
		if (t->handler != nullptr)
			t->handler(t, t->arg);
		t->flags &= ~OTIMER_FIRING;
		if ((t->flags & OTIMER_DOOMED) != 0) {
			destroy(t);
		} else if ((t->flags & (OTIMER_PERIODIC | OTIMER_TOUCHED)) == OTIMER_PERIODIC &&
		    htimer_running(&t->ht)) {
			/* (Not running: its parent was stopped under it.) */
			/* Untouched by its handler: next period from this expiry. */
			htimer_restart(&t->ht, t->interval, t->jitter);
			sync_event_timer(ctx);
		}
	}
	ctx->in_fire = false;
	sync_event_timer(ctx);
}

otimer_context_t *
otimer_context_create(evContext ev, otimer_fatal_t fatal)
{
	auto *ctx = static_cast<otimer_context_t *>(
	    std::calloc(1, sizeof(otimer_context_t)));
	if (ctx == nullptr)
		return nullptr;
	ctx->ev = ev;
	htimer_init_node(&ctx->root.ht, nullptr);
	ctx->root.context = ctx;
	/*
	 * A library that makes its own context without a handler must not
	 * silence the daemon's: only a handler given replaces the last one.
	 */
	otimer_set_fatal_handler(fatal);
	return ctx;
}

otimer_t *
otimer_create(otimer_context_t *ctx, otimer_t *parent, otimer_handler_t handler,
              void *arg)
{
	otimer_t *t = new_timer(ctx, parent, true);
	if (t != nullptr) {
		t->handler = handler;
		t->arg = arg;
	}
	return t;
}

otimer_t *
otimer_node_create(otimer_context_t *ctx, otimer_t *parent)
{
	return new_timer(ctx, parent, false);
}

void
otimer_oneshot(otimer_t *t, time_t secs, long nsecs, unsigned jitter)
{
	arm(t, secs, nsecs, jitter, false);
}

void
otimer_periodic(otimer_t *t, time_t secs, long nsecs, unsigned jitter)
{
	arm(t, secs, nsecs, jitter, true);
}

void
otimer_oneshot_secs(otimer_t *t, time_t secs, unsigned jitter)
{
	arm(t, secs, 0, jitter, false);
}

void
otimer_periodic_secs(otimer_t *t, time_t secs, unsigned jitter)
{
	arm(t, secs, 0, jitter, true);
}

void
otimer_oneshot_group(otimer_t *t, time_t secs, long nsecs, unsigned jitter)
{
	arm_group(t, secs, nsecs, jitter, false);
}

void
otimer_periodic_group(otimer_t *t, time_t secs, long nsecs, unsigned jitter)
{
	arm_group(t, secs, nsecs, jitter, true);
}

void
otimer_oneshot_group_secs(otimer_t *t, time_t secs, unsigned jitter)
{
	arm_group(t, secs, 0, jitter, false);
}

void
otimer_periodic_group_secs(otimer_t *t, time_t secs, unsigned jitter)
{
	arm_group(t, secs, 0, jitter, true);
}

void
otimer_stop(otimer_t *t)
{
	if (t == nullptr)
		return;
	htimer_stop(&t->ht);
	sync_event_timer(t->context);
	t->flags |= OTIMER_TOUCHED;
}

void
otimer_delete(otimer_t *t)
{
	if (t == nullptr || t == &t->context->root)
		return;
	otimer_stop(t);
	if ((t->flags & OTIMER_FIRING) != 0) {
		t->flags |= OTIMER_DOOMED;	/* otimer_fire frees it */
		return;
	}
	destroy(t);
}

bool
otimer_is_running(const otimer_t *t)
{
	return t != nullptr && htimer_running(&t->ht);
}

bool
otimer_is_expired(const otimer_t *t)
{
	return otimer_is_running(t) && __evCmpTime(t->ht.ht_expiry, __evNowTime()) <= 0;
}

void
otimer_remaining(const otimer_t *t, struct timespec *left)
{
	*left = __evConsTime(0, 0);
	if (!otimer_is_running(t))
		return;
	struct timespec now = __evNowTime();
	if (__evCmpTime(t->ht.ht_expiry, now) > 0)
		*left = __evSubTime(t->ht.ht_expiry, now);
}

time_t
otimer_remaining_secs(const otimer_t *t)
{
	struct timespec left;

	otimer_remaining(t, &left);
	return left.tv_sec;
}

void
otimer_set_spread(otimer_t *t, bool on)
{
	if (t == nullptr)
		return;
	if (on)
		t->flags |= OTIMER_SPREAD;
	else
		t->flags &= ~OTIMER_SPREAD;
}

void
otimer_set_spread_gap(struct timespec gap)
{
	spread_gap = gap;
}

void
otimer_respace(otimer_t *node)
{
	if (node == nullptr || htimer_is_leaf(&node->ht))
		return;
	htimer_t *parent = &node->ht;
	size_t n = 0;
	for (htimer_t *c = htimer_next_child(parent, nullptr); c != nullptr;
	     c = htimer_next_child(parent, c))
		if (htimer_is_leaf(c))
			n++;
	if (n < 3)
		return;
	auto **leaves = static_cast<htimer_t **>(std::calloc(n, sizeof(htimer_t *)));
	if (leaves == nullptr)
		return;
	size_t i = 0;
	for (htimer_t *c = htimer_next_child(parent, nullptr); c != nullptr;
	     c = htimer_next_child(parent, c))
		if (htimer_is_leaf(c))
			leaves[i++] = c;

	/*
	 * n equal steps from now to the latest leaf, which stays where it is;
	 * a leaf only ever moves earlier, so their order holds.
	 */
	struct timespec now = __evNowTime();
	struct timespec last = leaves[n - 1]->ht_expiry;
	if (__evCmpTime(last, now) > 0) {
		struct timespec window = __evSubTime(last, now);
		__int128 span = static_cast<__int128>(window.tv_sec) * 1000000000 +
		    window.tv_nsec;
		for (i = 0; i + 1 < n; i++) {
			__int128 off = span * static_cast<__int128>(i + 1) /
			    static_cast<__int128>(n);
			struct timespec target = __evAddTime(now,
			    __evConsTime(static_cast<time_t>(off / 1000000000),
			                 static_cast<long>(off % 1000000000)));
			if (__evCmpTime(target, leaves[i]->ht_expiry) < 0)
				htimer_set_expiry(leaves[i], target);
		}
		sync_event_timer(node->context);
	}
	std::free(leaves);
}

void *
otimer_arg(const otimer_t *t)
{
	return t == nullptr ? nullptr : t->arg;
}

} // extern "C"
