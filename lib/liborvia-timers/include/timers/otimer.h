/*
 * Application timers.  Any number of otimers share one event-library timer
 * per context; they are leaves of a hierarchical timer tree whose root alone
 * is known to the event library.
 *
 * One thread: the one that runs the context's event loop.  Handlers run from
 * that loop, at most ten expiries per turn.  Timers under the same parent
 * (or in the same group) that are due at the same time fire in the order in
 * which they were armed; across parents, a node fires its children together
 * when its earliest child is due, so no order between parents is promised.
 *
 * A handler may do anything to its own timer: re-arm it (that wins over the
 * automatic restart of a periodic timer), stop it, or delete it (the timer
 * is then freed when the handler returns).  A periodic timer counts each
 * period from its last expiry, not from the end of its handler.
 */
#ifndef TIMERS_OTIMER_H
#define TIMERS_OTIMER_H

#include <platform/ev.h>
#include <stdbool.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct otimer otimer_t;
typedef struct otimer_context otimer_context_t;

typedef void (*otimer_handler_t)(otimer_t *timer, void *arg);
/*
 * Called with the text "file:line: assert 'expression' failed" of a failed
 * internal check (misuse, such as arming an inner node).  One per process:
 * the last non-NULL handler given wins.  If it returns, the call that failed
 * does nothing and the timers carry on.
 */
typedef void (*otimer_fatal_t)(const char *message);

/* NULL when out of memory.  A context lives until the process ends. */
otimer_context_t *otimer_context_create(evContext ev, otimer_fatal_t fatal);

/*
 * A leaf timer (otimer_create) or an inner node that other timers can be
 * made under (otimer_node_create).  parent NULL means the context's root.
 * NULL when out of memory or when parent is not an inner node.
 */
otimer_t *otimer_create(otimer_context_t *ctx, otimer_t *parent,
                        otimer_handler_t handler, void *arg);
otimer_t *otimer_node_create(otimer_context_t *ctx, otimer_t *parent);

/*
 * Arm a leaf to expire after the interval, less a random span below jitter
 * percent of it (jitter capped at 99; 0 draws no random number).  Arming a
 * running timer moves it.  The _group forms first move the timer under a
 * node shared by every timer armed with the same interval and jitter.
 */
void otimer_oneshot(otimer_t *t, time_t secs, long nsecs, unsigned jitter);
void otimer_periodic(otimer_t *t, time_t secs, long nsecs, unsigned jitter);
void otimer_oneshot_secs(otimer_t *t, time_t secs, unsigned jitter);
void otimer_periodic_secs(otimer_t *t, time_t secs, unsigned jitter);
void otimer_oneshot_group(otimer_t *t, time_t secs, long nsecs, unsigned jitter);
void otimer_periodic_group(otimer_t *t, time_t secs, long nsecs, unsigned jitter);
void otimer_oneshot_group_secs(otimer_t *t, time_t secs, unsigned jitter);
void otimer_periodic_group_secs(otimer_t *t, time_t secs, unsigned jitter);

/* Stopping an inner node stops every timer below it. */
void otimer_stop(otimer_t *t);		/* NULL allowed */
/* NULL allowed; inside its own handler, deferred until the handler returns.
 * An inner node that still has timers made under it is stopped at once and
 * freed when the last of them is deleted. */
void otimer_delete(otimer_t *t);
bool otimer_is_running(const otimer_t *t);	/* false for NULL */
bool otimer_is_expired(const otimer_t *t);	/* running and due; false for NULL */
/* Time left; zero when stopped or past due. */
void otimer_remaining(const otimer_t *t, struct timespec *left);
time_t otimer_remaining_secs(const otimer_t *t);	/* whole seconds */

/*
 * Spread mode: the timer is armed no earlier than its latest sibling plus
 * the spread gap (process-wide, initially zero), unless that would put it
 * after its unjittered time.
 */
void otimer_set_spread(otimer_t *t, bool on);
void otimer_set_spread_gap(struct timespec gap);
/*
 * Spread the leaf children of node (when there are at least three) evenly
 * between now and the latest of them, which stays; none moves later.
 */
void otimer_respace(otimer_t *node);
void *otimer_arg(const otimer_t *t);

#ifdef __cplusplus
}
#endif

#endif
