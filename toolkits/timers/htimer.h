/*
 * Hierarchical timer tree.
 *
 * Timers are the leaves of a tree.  Every inner node keeps its running
 * children on a circular, doubly linked list in expiry order and expires
 * itself when its earliest child does, so only the root needs to be known
 * to whatever wakes the process up.
 *
 * Invariants (htimer_verify() checks them):
 *  - Every child on a node's list is running; a stopped timer is on no list.
 *  - ht_first is the child with the smallest expiry; walking ht_next from it
 *    gives non-decreasing expiries and comes back to ht_first.  Among equal
 *    expiries the one inserted earlier comes first.
 *  - A running inner node has the expiry of its first child; an inner node
 *    without children is stopped.
 *
 * Misuse is reported through otimer_assert() (see otimer_assert.h) and the
 * offending call then does nothing, so that the tree stays consistent when
 * the fatal handler returns.
 */
#ifndef TIMERS_HTIMER_H
#define TIMERS_HTIMER_H

#include <stdbool.h>
#include <stdint.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

#define HTIMER_MAGIC	'B'
#define HTIMER_RUNNING	0x01
#define HTIMER_LEAF	0x02

typedef struct htimer {
	struct htimer *ht_parent;	/* NULL at the root */
	struct htimer *ht_first;	/* earliest running child */
	struct htimer *ht_next;		/* sibling list, circular */
	struct htimer *ht_prev;
	struct timespec ht_expiry;
	uint16_t ht_data;		/* free for the user of the tree */
	uint8_t ht_magic;		/* HTIMER_MAGIC once initialised */
	uint8_t ht_flags;		/* HTIMER_RUNNING, HTIMER_LEAF */
} htimer_t;

static inline bool
htimer_initialized(const htimer_t *timer)
{
	return timer->ht_magic == HTIMER_MAGIC;
}

static inline bool
htimer_running(const htimer_t *timer)
{
	return (timer->ht_flags & HTIMER_RUNNING) != 0;
}

static inline bool
htimer_is_leaf(const htimer_t *timer)
{
	return (timer->ht_flags & HTIMER_LEAF) != 0;
}

/*
 * Initialise a zeroed or stopped timer as an inner node or a leaf under
 * parent (NULL for none: a root).  0, or -1 when refused (a running timer,
 * a parent that is not an initialised inner node).  Memory that was never
 * a timer must be zeroed first: garbage may look like a running one.
 */
int htimer_init_node(htimer_t *timer, htimer_t *parent);
int htimer_init_leaf(htimer_t *timer, htimer_t *parent);

/* Run the timer until the absolute time expiry (on __evNowTime's clock). */
void htimer_set_expiry(htimer_t *timer, struct timespec expiry);

/*
 * Expire interval from now, less a random span below percent of interval
 * (percent capped at 100; 0 draws no random number).  htimer_restart()
 * counts from the timer's last expiry instead of now.
 */
void htimer_start(htimer_t *timer, struct timespec interval, unsigned percent);
void htimer_restart(htimer_t *timer, struct timespec interval, unsigned percent);

/* The expiry htimer_start() would give, without arming anything. */
struct timespec htimer_start_time(struct timespec base, struct timespec interval,
                                  unsigned percent);

/* The span to take off: random() modulo percent of interval, worked out in
 * microseconds, milliseconds or seconds by the length of the interval. */
struct timespec htimer_jitter(struct timespec interval, unsigned percent);

/*
 * Stop a leaf, or every leaf below an inner node (deepest first).  A parent
 * left without running children stops too, up to the root.
 */
void htimer_stop(htimer_t *timer);

/* Move under another parent (NULL: none), keeping a running timer's expiry. */
void htimer_set_parent(htimer_t *timer, htimer_t *parent);
void htimer_remove_parent(htimer_t *timer);

/* The earliest leaf below node, or NULL when node is not running. */
htimer_t *htimer_earliest_leaf(htimer_t *node);

/* The child after child in expiry order, NULL after the last. */
htimer_t *htimer_next_child(const htimer_t *parent, const htimer_t *child);

/* 0 when the tree below node keeps every invariant, -1 otherwise. */
int htimer_verify(const htimer_t *node);

#ifdef __cplusplus
}
#endif

#endif
