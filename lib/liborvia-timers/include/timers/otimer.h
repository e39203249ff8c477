/*
 * Application timers.  Any number of otimers share one event-library timer
 * per context; they are leaves of a hierarchical timer tree whose root alone
 * is known to the event library.
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
/* Called with the text of a failed internal assertion; one per process. */
typedef void (*otimer_fatal_t)(const char *message);

otimer_context_t *otimer_context_create(evContext ev, otimer_fatal_t fatal);

/* parent NULL means the context's root.  NULL when out of memory. */
otimer_t *otimer_create(otimer_context_t *ctx, otimer_t *parent,
                        otimer_handler_t handler, void *arg);
otimer_t *otimer_node_create(otimer_context_t *ctx, otimer_t *parent);

/* jitter is a percentage, capped at 99. */
void otimer_oneshot(otimer_t *t, time_t secs, long nsecs, unsigned jitter);
void otimer_periodic(otimer_t *t, time_t secs, long nsecs, unsigned jitter);
void otimer_oneshot_secs(otimer_t *t, time_t secs, unsigned jitter);
void otimer_periodic_secs(otimer_t *t, time_t secs, unsigned jitter);
void otimer_oneshot_group(otimer_t *t, time_t secs, long nsecs, unsigned jitter);
void otimer_periodic_group(otimer_t *t, time_t secs, long nsecs, unsigned jitter);
void otimer_oneshot_group_secs(otimer_t *t, time_t secs, unsigned jitter);
void otimer_periodic_group_secs(otimer_t *t, time_t secs, unsigned jitter);

void otimer_stop(otimer_t *t);		/* NULL allowed */
void otimer_delete(otimer_t *t);	/* NULL allowed; deferred inside its handler */
bool otimer_is_running(const otimer_t *t);
bool otimer_is_expired(const otimer_t *t);
void otimer_remaining(const otimer_t *t, struct timespec *left);
time_t otimer_remaining_secs(const otimer_t *t);
void otimer_set_spread(otimer_t *t, bool on);
void otimer_respace(otimer_t *node);
void *otimer_arg(const otimer_t *t);

#ifdef __cplusplus
}
#endif

#endif
