/*
 * The calls tolvard makes on the keel client of the session database
 * library.  The client connects to keel, opens the database in this
 * process and reports the state of the database environment back through
 * the callbacks set here.  All setters fail with -25 once the handle is
 * registered.
 */
#ifndef TOLVARD_KEEL_CLIENT_H
#define TOLVARD_KEEL_CLIENT_H

#include <platform/ev.h>

#include <stdarg.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct keel_handle keel_handle;

/* Answer filled in by an ISSU callback: the wait asked for and a text. */
struct keel_issu_info {
	uint32_t wait;
	char text[128];
};

typedef void (*keel_log_cb_t)(void *ctx, int priority, const char *fmt,
                              va_list ap);
typedef void (*keel_db_ready_cb_t)(void *ctx, void *env);
typedef void (*keel_issu_prepare_cb_t)(void *ctx, int *abort, int *ready,
                                       struct keel_issu_info *info);
typedef void (*keel_issu_switchover_cb_t)(void *ctx, int *ready,
                                          struct keel_issu_info *info);
typedef void (*keel_issu_done_cb_t)(void *ctx);

/* One handle per process. */
keel_handle *keel_init_handle(void);
int keel_set_event_context(keel_handle *h, evContext *ctx);
int keel_set_recovery_pending(keel_handle *h);
int keel_set_issu_context(keel_handle *h, void *ctx);
int keel_set_issu_prepare_cbs(keel_handle *h, keel_issu_prepare_cb_t prepare,
                              keel_issu_done_cb_t prepare_done);
int keel_set_issu_switchover_cbs(keel_handle *h,
                                 keel_issu_switchover_cb_t switchover,
                                 keel_issu_done_cb_t switchover_done);
int keel_set_log_cb(keel_handle *h, void *ctx, keel_log_cb_t cb);
int keel_set_db_ready_cb(keel_handle *h, void *ctx, keel_db_ready_cb_t cb);

/*
 * 0, or a negative database status: -19 when keel has not started the
 * database yet (try later), -17 when the platform has no session database.
 * The database-ready callback has run by the time it returns 0.
 */
int keel_register(keel_handle *h);
/* Frees the handle and clears *hp whatever the result. */
int keel_unregister(keel_handle **hp);

/* Text of a database status. */
const char *sdb_strerror(int code);

#ifdef __cplusplus
}
#endif

#endif
