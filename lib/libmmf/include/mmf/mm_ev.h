/*
 * Binding of the mapped queue to a host's event system: one table of
 * operations per binding, so that the queue knows neither the event
 * library nor the task framework.  The first byte of every binding
 * context is its type (MM_CTX_TASK or MM_CTX_EV).
 */
#ifndef MMF_MM_EV_H
#define MMF_MM_EV_H

#include <stdbool.h>
#include <stdint.h>

#include "platform/ev.h"

#ifdef __cplusplus
extern "C" {
#endif

#define MM_CTX_TASK	0
#define MM_CTX_EV	1
#define MM_MAX_TIMERS	2

typedef void (*mm_handler_t)(void *ctx);

typedef struct mm_ops {
	bool (*sock_set)(void *ctx, int fd);
	bool (*sock_reset)(void *ctx);
	bool (*sock_enable_read)(void *ctx, mm_handler_t handler);
	bool (*sock_disable_read)(void *ctx);
	bool (*conn_timer_create)(void *ctx, uint32_t ms, mm_handler_t handler,
	    uint32_t index);
	bool (*conn_timer_destroy)(void *ctx, uint32_t index);
} mm_ops_t;

/* What every binding context starts with. */
typedef struct mm_ctx {
	uint8_t type;
	const mm_ops_t *ops;
	void *queue;
	int fd;
	mm_handler_t read_handler;
	mm_handler_t timer_handler[MM_MAX_TIMERS];
} mm_ctx_t;

/* Event library binding; any number per process. */
mm_ctx_t *mm_ev_create(evContext *ev_ctx, void *queue);
/* Task binding; one per process, and it cannot run on this platform. */
mm_ctx_t *mm_task_create(void);
void mm_ctx_destroy(mm_ctx_t *ctx);

/* Timers of the event binding, for tests: set, failed, cleared. */
void mm_ev_timer_counts(mm_ctx_t *ctx, uint32_t out[3]);

#ifdef __cplusplus
}
#endif

#endif
