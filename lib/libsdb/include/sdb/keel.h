/*
 * Client of keel, the daemon that owns the session database on a routing
 * engine.  Every process that uses the database registers through this
 * client: it opens the database in the calling process, holds a unix
 * stream socket to keel, and learns over it of mastership changes, ISSU
 * phases and the news that its environment is no longer valid.  When the
 * socket is lost the client closes what it must and, in event mode, tries
 * again every 5 seconds.
 *
 * keel links the same library and calls keel_register() too: a process
 * whose name begins with "keel" connects nowhere and opens the database as
 * its owner.
 *
 * There is one handle per process.  All calls run in the application's one
 * thread, from its event loop or by polling.  Results are 0 or a negative
 * session database status (see sdb_strerror()).
 */
#ifndef SDB_KEEL_H
#define SDB_KEEL_H

#include <stdarg.h>
#include <stdint.h>

#include <platform/ev.h>
#include <sdb/keel_msg.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Status codes that the client gives out or reads in an answer. */
#define KEEL_ERR_RECOVERING	(-11)	/* SDB is recovering */
#define KEEL_ERR_NOT_SUPPORTED	(-17)	/* no session database here */
#define KEEL_ERR_NOT_STARTED	(-19)	/* try again later */
#define KEEL_ERR_FATAL		(-25)	/* keel unexpected fatal error */
#define KEEL_ERR_CONNECT	(-26)	/* failed to connect to keel */
#define KEEL_ERR_MASTERSHIP	(-31)	/* keel mastership mismatch */
#define KEEL_ERR_SEND		(-35)	/* failure sending to keel */
#define KEEL_ERR_PURGING	(-36)	/* keel is purging the database */

/* Levels handed to the log callback. */
#define KEEL_LOG_INFO	0xFF07
#define KEEL_LOG_ERR	0xFF03

/* recovery_state as it goes out in the registration. */
#define KEEL_RECOVERY_NONE	0
#define KEEL_RECOVERY_PENDING	1
#define KEEL_RECOVERY_COMPLETE	2

/* What an ISSU callback may fill in: the wait it asks for and a reason. */
typedef struct keel_issu_info {
	uint32_t wait;
	char text[128];
} keel_issu_info;

typedef void (*keel_conn_cb)(void *ctx, int fd);
typedef void (*keel_issu_cb)(void *ctx);
typedef void (*keel_issu_prepare_cb)(void *ctx, int *abort, int *ready,
    keel_issu_info *info);
typedef void (*keel_issu_switchover_cb)(void *ctx, int *ready,
    keel_issu_info *info);
typedef void (*keel_issu_abort_cb_t)(void *ctx, keel_issu_info *info);
typedef void (*keel_log_cb)(void *ctx, int priority, const char *fmt,
    va_list ap);
/* env is the database environment, NULL when it went away. */
typedef void (*keel_db_ready_cb)(void *ctx, void *env);
typedef void (*keel_mastership_cb)(void *ctx, uint8_t master);
typedef void (*keel_env_restart_cb)(void);

/*
 * The handle.  Allocated zeroed by keel_init_handle(), freed by
 * keel_unregister().  Applications use the calls below; the database
 * environment reads is_keel, chassis_issu and the ready callback.
 */
typedef struct keel_handle {
	uint8_t		user_reg;	/* registration finished */
	uint8_t		connected;	/* keel answered with success */
	uint8_t		is_keel;	/* this process is keel */
	uint8_t		poll_mode;	/* the application calls keel_poll() */
	uint8_t		event_driven;	/* an event context was given */
	uint8_t		has_conn_cb;
	uint8_t		issu_capable;
	uint8_t		selected;	/* event_id is live */
	int		fd;		/* socket to keel, -1 when closed */
	uint32_t	recovery_state;	/* KEEL_RECOVERY_* */
	uint32_t	timeout_ms;	/* wait for the registration answer */
	evContext	event_context;
	evFileID	event_id;
	void		*timer_context;	/* the client's own, see keel_timer */
	void		*rereg_timer;
	struct timespec	rereg_interval;
	void		*conn_ctx;
	keel_conn_cb	conn_up_cb;
	keel_conn_cb	conn_down_cb;
	uint8_t		conn_cb_done;	/* conn_down_cb is owed */
	void		*issu_ctx;
	keel_issu_cb	issu_idle_cb;
	keel_issu_prepare_cb issu_prepare_cb;
	keel_issu_cb	issu_prepare_done_cb;
	keel_issu_switchover_cb issu_switchover_cb;
	keel_issu_cb	issu_switchover_done_cb;
	keel_issu_abort_cb_t issu_abort_cb;
	void		*log_ctx;
	keel_log_cb	log_cb;
	keel_db_ready_cb db_ready_cb;
	void		*db_ready_ctx;
	void		*mastership_ctx;
	keel_mastership_cb mastership_cb;
	keel_env_restart_cb env_restart_cb;
	keel_issu_block	issu;		/* exactly as it goes on the wire */
	uint32_t	chassis_issu;	/* last chassis ISSU message */
	uint32_t	reg_status;	/* status of the last answer */
	uint32_t	rx[4];		/* payload of the last message */
} keel_handle;

keel_handle *keel_init_handle(void);
int	keel_set_event_context(keel_handle *h, evContext *ctx);
int	keel_set_poll_mode(keel_handle *h);
int	keel_set_recovery_pending(keel_handle *h);
int	keel_set_timeout(keel_handle *h, uint32_t ms);
int	keel_set_conn_callbacks(keel_handle *h, void *ctx, keel_conn_cb up,
	    keel_conn_cb down);
int	keel_set_issu_context(keel_handle *h, void *ctx);
int	keel_set_issu_idle_cb(keel_handle *h, keel_issu_cb cb);
int	keel_set_issu_prepare_cbs(keel_handle *h, keel_issu_prepare_cb prepare,
	    keel_issu_cb prepare_done);
int	keel_set_issu_switchover_cbs(keel_handle *h,
	    keel_issu_switchover_cb prepare, keel_issu_cb done);
int	keel_set_issu_abort_cb(keel_handle *h, keel_issu_abort_cb_t cb);
int	keel_set_log_cb(keel_handle *h, void *ctx, keel_log_cb cb);
int	keel_set_db_ready_cb(keel_handle *h, void *ctx, keel_db_ready_cb cb);
int	keel_set_mastership_cb(keel_handle *h, void *ctx,
	    keel_mastership_cb cb);
int	keel_set_env_restart_cb(keel_handle *h, keel_env_restart_cb cb);

int	keel_register(keel_handle *h);
int	keel_reregister(keel_handle *h);
/* Closes, frees the handle and clears *hp. */
int	keel_unregister(keel_handle **hp);

int	keel_recovery_complete(keel_handle *h);
int	keel_send_replication_state(keel_handle *h, int state);

int	keel_issu_ready(keel_handle *h);
int	keel_issu_extend_wait(keel_handle *h, uint32_t secs, const char *text);
int	keel_issu_abort(keel_handle *h, uint32_t secs, const char *text);
uint32_t keel_chassis_issu_state(const keel_handle *h);
uint32_t keel_daemon_issu_state(const keel_handle *h);
const char *keel_daemon_issu_name(uint32_t state);
const char *keel_chassis_issu_name(uint32_t msg);

/* Read one message: keel_process() whenever the socket is open,
 * keel_poll() in poll mode and only when one is waiting. */
int	keel_process(keel_handle *h);
int	keel_poll(keel_handle *h);
int	keel_is_registered(void);
/* Forget the connection and the global handle without a word to keel,
 * e.g. in a child after fork(); the handle is not freed. */
void	keel_reset(void);

/*
 * Close the connection to keel.  notify takes the database environment
 * down and tells the ready callback; start_timer arms re-registration.
 * Used by the environment when its state check finds it invalid.
 */
void	keel_close_connection(keel_handle *h, int notify, int start_timer);

#ifdef __cplusplus
}
#endif

#endif
