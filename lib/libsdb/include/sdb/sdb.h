/*
 * Session database library: status codes, tracing, platform questions,
 * the environment's open and close order and the locks of the stores.
 *
 * Every function returns 0 or a negative library status; sdb_strerror()
 * gives its text.  Nothing here throws.
 */
#ifndef SDB_SDB_H
#define SDB_SDB_H

#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Library status codes.  -18 is never given out. */
#define SDB_OK			  0
#define SDB_ERR_FATAL		 -1
#define SDB_ERR_NOMEM		 -2
#define SDB_ERR_INVALID_DATA	 -3
#define SDB_ERR_DEADLOCK	 -4
#define SDB_ERR_CORRUPT		 -5
#define SDB_ERR_PARAM		 -6
#define SDB_ERR_NOT_FOUND	 -7
#define SDB_ERR_ATTR_EXISTS	 -8
#define SDB_ERR_ATTR_MISSING	 -9
#define SDB_ERR_NO_UNITS	-10
#define SDB_ERR_RECOVERING	-11
#define SDB_ERR_UNAVAILABLE	-12
#define SDB_ERR_READ_ONLY	-13
#define SDB_ERR_STATE_RECOVERING -14
#define SDB_ERR_NO_REPLICATION	-15
#define SDB_ERR_NO_ARRAY	-16
#define SDB_ERR_UNSUPPORTED	-17
#define SDB_ERR_NOT_STARTED	-19
#define SDB_ERR_FILTERED	-20
#define SDB_ERR_NEEDS_RECOVERY	-21
#define SDB_ERR_COUNTERS	-22
#define SDB_ERR_SHM_IN_USE	-23
#define SDB_ERR_SHM_TOO_SMALL	-24
#define SDB_ERR_KEEL_FATAL	-25
#define SDB_ERR_KEEL_CONNECT	-26
#define SDB_ERR_ISSU		-27
#define SDB_ERR_SHM_CLEAN	-28
#define SDB_ERR_RSMON_THROTTLE	-29
#define SDB_ERR_NO_MATCH	-30
#define SDB_ERR_MASTERSHIP	-31
#define SDB_ERR_CONFLICT	-32
#define SDB_ERR_SMGR_RECOVERY	-33
#define SDB_ERR_BLOCKED		-34
#define SDB_ERR_KEEL_SEND	-35
#define SDB_ERR_PURGING		-36
#define SDB_ERR_BUFFER		-37
#define SDB_ERR_TOO_MANY	-38
#define SDB_ERR_LOCK_TYPE	-39
#define SDB_ERR_LAST		SDB_ERR_LOCK_TYPE

const char *sdb_strerror(int code);
/* Operating system errno (positive) or library code to a library code. */
int sdb_map_error(int code);
/*
 * The errno of the system call that failed in the last open of the stores
 * by this process (EACCES in preference), 0 when none failed; a status
 * code alone cannot tell "no permission" from "not made yet".
 */
int sdb_open_errno(void);
void sdb_open_errno_clear(void);

/* Trace levels of sdb_trace_fn. */
#define SDB_TRACE_ERR	0xFF03
#define SDB_TRACE_INFO	0xFF07

struct keel_handle;
typedef void (*sdb_trace_fn_t)(struct keel_handle *h, int level,
    const char *fmt, va_list ap);
/* The application's trace callback; may be null. */
extern sdb_trace_fn_t sdb_trace_fn;
void sdb_set_trace_fn(sdb_trace_fn_t fn);

/* Process-wide flags. */
extern bool sdb_is_master;
extern bool sdb_keel_recovering;
extern uint8_t sdb_init_flag;
void sdb_set_mastership(bool master);

/* Platform questions; answered once per process. */
bool sdb_platform_supported(void);
bool sdb_replication_supported(void);
bool sdb_large_id_space(void);
uint32_t sdb_client_count(void);

/* Environment states. */
enum sdb_env_state {
	SDB_STATE_INIT = 0,
	SDB_STATE_ENV_CREATED = 1,
	SDB_STATE_REPLICATION = 2,
	SDB_STATE_NO_STATS = 3,
	SDB_STATE_CLOSING = 5,
	SDB_STATE_CLOSED = 6,
	SDB_STATE_UP = 7,
	SDB_STATE_PANIC = 8,
	SDB_STATE_DOWN = 9,
	SDB_STATE_SECONDARY_RECOVERY = 10,
};
/* The state of this process's environment, or -1 before the first init. */
int sdb_db_env_state(void);
const char *sdb_db_env_state_name(int state);

/* Open and close, in this order: open_internal, (keel connection),
 * db_init, db_secondary_init, and on the master keel only
 * db_secondary_recover. */
int sdb_open_internal(bool is_keel);
int sdb_db_init(struct keel_handle *h, bool is_keel);
int sdb_db_secondary_init(bool is_keel, bool is_locked);
int sdb_db_secondary_recover(int force, int is_locked);
int sdb_close_internal(bool is_keel);
int sdb_db_env_check(void);
int sdb_db_env_check_reinit(void);
void sdb_db_env_down(struct keel_handle *h);
void sdb_db_secondary_needs_recovery(void);
void sdb_db_secondary_detach(void);
int sdb_db_remove_files(bool enabled, int what);
int sdb_app_table_size_set(int table_id, int value);

/* Bulk synchronisation status in the main segment; -19 without it. */
int sdb_status_block_state_set(uint8_t state);
int sdb_status_block_progress_set(int row, uint64_t done, uint64_t total);
int sdb_status_block_get(uint8_t *state, uint8_t *flag, char *text,
    size_t text_size, uint32_t *percent);
int sdb_status_block_text_set(const char *text);
int sdb_status_block_flag_set(uint8_t flag);

/* Recovery status of the secondary tables (main segment); -19 without it. */
int sdb_recovery_status_get(uint32_t *status);

/* Locks. */
#define SDB_SEM_ID_GEN		0
#define SDB_SEM_UNIT_POOL	1
#define SDB_SEM_SECONDARY	2
#define SDB_SEM_SPARE		3
#define SDB_SEM_COUNT		4
#define SDB_SEM_KEY		8888
#define SDB_SEM_READERS		5
#define SDB_LOCK_READ		0
#define SDB_LOCK_WRITE		1
#define SDB_LOCK_LOCK_VALUE	1

int sdb_sem_init(bool is_keel);
int sdb_sem_lock(int number, bool write);
int sdb_sem_unlock(int number, bool write);
int sdb_db_lock(int type);
int sdb_db_unlock(int type);
void sdb_db_quiesce(void);
int sdb_sentry_lock_acquire(uint64_t sid);
int sdb_sentry_lock_release(uint64_t sid);
void sdb_lts_process_lock(void);
void sdb_lts_process_unlock(void);
void sdb_lts_release_own_buckets(void);
void sdb_lts_quiesce(void);
int sdb_lts_release_dead(uint32_t pid);
void sdb_process_thread_safe_lock(void);
void sdb_process_thread_safe_unlock(void);
void sdb_process_thread_safe_lock_wait(uint32_t count);
int sdb_quiesce(void);

#ifdef __cplusplus
}
#endif

#endif
