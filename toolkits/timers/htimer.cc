/*
 * Hierarchical timer tree: see htimer.h for the invariants.
 *
 * Insertion walks from the latest sibling backwards.  Timers armed with the
 * same interval arrive in expiry order, so for them the walk is one step.
 */
#include "htimer.h"

#include <cstdlib>
#include <platform/ev.h>

#include "otimer_assert.h"

namespace {

/* The parent test of every operation; the text names the node checked. */
bool
parent_ok(const htimer_t *timer)
{
	return OTIMER_CHECK(!htimer_is_leaf(timer) && htimer_initialized(timer));
}

bool
is_last(const htimer_t *parent, const htimer_t *timer)
{
	return timer->ht_next == parent->ht_first;
}

void
unlink_child(htimer_t *timer)
{
	htimer_t *parent = timer->ht_parent;

	if (timer->ht_next == timer) {
		parent->ht_first = nullptr;
	} else {
		timer->ht_prev->ht_next = timer->ht_next;
		timer->ht_next->ht_prev = timer->ht_prev;
		if (parent->ht_first == timer)
			parent->ht_first = timer->ht_next;
	}
	timer->ht_next = timer->ht_prev = nullptr;
}

void
link_after(htimer_t *pos, htimer_t *timer)
{
	timer->ht_prev = pos;
	timer->ht_next = pos->ht_next;
	pos->ht_next->ht_prev = timer;
	pos->ht_next = timer;
}

/*
 * Put a linked-off running timer on its parent's list.  Walks back from the
 * latest child and goes behind the first one that is not later, so a timer
 * goes after every sibling of equal expiry.  True when it became first.
 */
bool
insert_child(htimer_t *timer)
{
	htimer_t *parent = timer->ht_parent;
	htimer_t *first = parent->ht_first;

	if (first == nullptr) {
		timer->ht_next = timer->ht_prev = timer;
		parent->ht_first = timer;
		return true;
	}
	for (htimer_t *t = first->ht_prev;; t = t->ht_prev) {
		if (__evCmpTime(t->ht_expiry, timer->ht_expiry) <= 0) {
			link_after(t, timer);
			return false;
		}
		if (t == first)
			break;
	}
	link_after(first->ht_prev, timer);
	parent->ht_first = timer;
	return true;
}

/*
 * Re-sort a timer whose expiry was just set.  True when the parent's first
 * child, or the first child's expiry, changed.
 */
bool
resort(htimer_t *timer, bool was_running, struct timespec old_expiry)
{
	htimer_t *parent = timer->ht_parent;
	bool was_first = false;

	if (was_running) {
		if (__evCmpTime(old_expiry, timer->ht_expiry) == 0)
			return false;
		was_first = parent->ht_first == timer;
		/*
		 * It keeps its place when its neighbours still bracket it.  A
		 * successor of the same expiry does not: the timer was armed
		 * after it and must fire after it, so it goes behind.
		 */
		bool prev_ok = was_first ||
		    __evCmpTime(timer->ht_prev->ht_expiry, timer->ht_expiry) <= 0;
		bool next_ok = is_last(parent, timer) ||
		    __evCmpTime(timer->ht_next->ht_expiry, timer->ht_expiry) > 0;
		if (prev_ok && next_ok)
			return was_first;
		unlink_child(timer);
	}
	return insert_child(timer) || was_first;
}

/* The first child of parent changed or went away: carry that upwards. */
void
first_changed(htimer_t *parent)
{
	if (parent->ht_first != nullptr) {
		htimer_set_expiry(parent, parent->ht_first->ht_expiry);
		return;
	}
	/* A node that loses its last child stops, and so may its parent. */
	htimer_t *up = parent->ht_parent;
	bool was_first = false;
	if (htimer_running(parent) && up != nullptr) {
		was_first = up->ht_first == parent;
		unlink_child(parent);
	}
	parent->ht_flags &= ~HTIMER_RUNNING;
	if (was_first)
		first_changed(up);
}

void
stop_leaf(htimer_t *timer)
{
	htimer_t *parent = timer->ht_parent;

	if (!htimer_running(timer))
		return;
	timer->ht_flags &= ~HTIMER_RUNNING;
	if (parent == nullptr)
		return;
	bool was_first = parent->ht_first == timer;
	unlink_child(timer);
	if (was_first)
		first_changed(parent);
}

int
init_timer(htimer_t *timer, htimer_t *parent, uint8_t leaf)
{
	if (htimer_initialized(timer) && !OTIMER_CHECK(!htimer_running(timer)))
		return -1;
	if (parent != nullptr && !parent_ok(parent))
		return -1;
	timer->ht_parent = parent;
	timer->ht_first = timer->ht_next = timer->ht_prev = nullptr;
	timer->ht_expiry = __evConsTime(0, 0);
	timer->ht_data = 0;
	timer->ht_magic = HTIMER_MAGIC;
	timer->ht_flags = leaf;
	return 0;
}

} // namespace

extern "C" {

int
htimer_init_node(htimer_t *timer, htimer_t *parent)
{
	return init_timer(timer, parent, 0);
}

int
htimer_init_leaf(htimer_t *timer, htimer_t *parent)
{
	return init_timer(timer, parent, HTIMER_LEAF);
}

void
htimer_set_expiry(htimer_t *timer, struct timespec expiry)
{
	htimer_t *parent = timer->ht_parent;

	if (parent != nullptr && !parent_ok(parent))
		return;
	bool was_running = htimer_running(timer);
	struct timespec old = timer->ht_expiry;
	timer->ht_expiry = expiry;
	timer->ht_flags |= HTIMER_RUNNING;
	if (parent != nullptr && resort(timer, was_running, old))
		htimer_set_expiry(parent, parent->ht_first->ht_expiry);
}

struct timespec
htimer_jitter(struct timespec interval, unsigned percent)
{
	if (percent > 100)
		percent = 100;
	if (percent == 0 || interval.tv_sec < 0)
		return __evConsTime(0, 0);

	/* Interval and span stay within 32 bits in the unit chosen. */
	uint64_t value;
	long unit_ns;
	if (interval.tv_sec <= 41) {
		value = interval.tv_sec * 1000000ULL + interval.tv_nsec / 1000;
		unit_ns = 1000;
	} else if (interval.tv_sec <= 42948) {
		value = interval.tv_sec * 1000ULL + interval.tv_nsec / 1000000;
		unit_ns = 1000000;
	} else {
		value = static_cast<uint64_t>(interval.tv_sec);
		unit_ns = 1000000000;
	}
	uint64_t span = value * percent / 100;
	if (span > UINT32_MAX)
		span = UINT32_MAX;
	if (span == 0)
		return __evConsTime(0, 0);
	uint64_t r = static_cast<uint64_t>(random()) % span;
	uint64_t per_sec = 1000000000ULL / unit_ns;
	return __evConsTime(static_cast<time_t>(r / per_sec),
	                    static_cast<long>(r % per_sec) * unit_ns);
}

struct timespec
htimer_start_time(struct timespec base, struct timespec interval, unsigned percent)
{
	struct timespec due = __evAddTime(base, interval);
	return __evSubTime(due, htimer_jitter(interval, percent));
}

void
htimer_start(htimer_t *timer, struct timespec interval, unsigned percent)
{
	htimer_set_expiry(timer, htimer_start_time(__evNowTime(), interval, percent));
}

void
htimer_restart(htimer_t *timer, struct timespec interval, unsigned percent)
{
	htimer_set_expiry(timer, htimer_start_time(timer->ht_expiry, interval, percent));
}

void
htimer_stop(htimer_t *timer)
{
	if (htimer_is_leaf(timer)) {
		stop_leaf(timer);
		return;
	}
	/* Deepest first; the last child to go stops this node as well. */
	while (timer->ht_first != nullptr)
		htimer_stop(timer->ht_first);
	stop_leaf(timer);
}

void
htimer_set_parent(htimer_t *timer, htimer_t *parent)
{
	if (parent == timer->ht_parent)
		return;
	if (parent != nullptr && !parent_ok(parent))
		return;
	bool was_running = htimer_running(timer);
	struct timespec expiry = timer->ht_expiry;
	/* An inner node keeps its children: only its own link moves. */
	if (was_running) {
		htimer_t *old = timer->ht_parent;
		timer->ht_flags &= ~HTIMER_RUNNING;
		if (old != nullptr) {
			bool was_first = old->ht_first == timer;
			unlink_child(timer);
			if (was_first)
				first_changed(old);
		}
	}
	timer->ht_parent = parent;
	if (was_running)
		htimer_set_expiry(timer, expiry);
}

void
htimer_remove_parent(htimer_t *timer)
{
	htimer_set_parent(timer, nullptr);
}

htimer_t *
htimer_earliest_leaf(htimer_t *node)
{
	if (!htimer_running(node))
		return nullptr;
	while (!htimer_is_leaf(node) && node->ht_first != nullptr)
		node = node->ht_first;
	return htimer_is_leaf(node) ? node : nullptr;
}

htimer_t *
htimer_next_child(const htimer_t *parent, const htimer_t *child)
{
	if (child == nullptr)
		return parent->ht_first;
	return is_last(parent, child) ? nullptr : child->ht_next;
}

int
htimer_verify(const htimer_t *node)
{
	if (!htimer_initialized(node))
		return -1;
	const htimer_t *first = node->ht_first;
	if (htimer_is_leaf(node))
		return first == nullptr ? 0 : -1;
	if (first == nullptr)
		return 0;
	if (!htimer_running(node) || __evCmpTime(node->ht_expiry, first->ht_expiry) != 0)
		return -1;
	const htimer_t *t = first;
	do {
		if (t->ht_parent != node || !htimer_running(t) ||
		    t->ht_next->ht_prev != t)
			return -1;
		if (t->ht_next != first &&
		    __evCmpTime(t->ht_expiry, t->ht_next->ht_expiry) > 0)
			return -1;
		if (!htimer_is_leaf(t) && (t->ht_first == nullptr || htimer_verify(t) != 0))
			return -1;
		t = t->ht_next;
	} while (t != first);
	return 0;
}

} // extern "C"
