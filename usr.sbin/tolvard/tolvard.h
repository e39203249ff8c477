/*
 * tolvard: keeps the session id counter and replication readiness of the
 * session database in step between the two routing engines.
 *
 * The daemon is one thread.  Everything it owns hangs off tolvard_state and
 * is touched only from the event loop, so nothing here is locked.  Signal
 * handlers write only their own flag; the work runs in the loop's
 * synchronous handler.
 */
#ifndef TOLVARD_H
#define TOLVARD_H

#include <orx/mirror_data.h>
#include <platform/ev.h>
#include <platform/trace.h>
#include <timers/otimer.h>

#include <signal.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/queue.h>

struct keel_handle;
struct keel_issu_info;
struct tolvard_entry;	/* an entry of the record channel */
struct tolvard_conn;	/* a connection of the local server */
struct tolvard_ack_copy;	/* a local ACK waiting for the standby */

enum tolvard_role {
	role_none = 0,
	role_standby = 1,
	role_master = 2,
};

/* Categories of the trace file. */
enum tolvard_trace_category {
	TRACE_DB = 0,		/* database and replication */
	TRACE_MIRROR = 1,
	TRACE_GENERAL = 4,
	TRACE_KEEL = 5,		/* text coming from the keel client */
	TRACE_SERVER = 6,	/* local server */
};

/* Open retries back off from 1 second, doubling, to at most 10. */
#define TOLVARD_DB_RETRY_FIRST	1
#define TOLVARD_DB_RETRY_MAX	10
/* Counted open failures tolerated before the daemon gives up. */
#define TOLVARD_DB_MAX_ATTEMPTS	10

#define TOLVARD_MIRROR_ENTRIES		1000
#define TOLVARD_MIRROR_ENTRIES_VC	2000

#define TOLVARD_PID_FILE	"/var/run/tolvard.pid"
#define TOLVARD_TRACE_FILE	"/var/log/tolvard"

TAILQ_HEAD(tolvard_entry_list, tolvard_entry);
TAILQ_HEAD(tolvard_conn_list, tolvard_conn);
TAILQ_HEAD(tolvard_ack_list, tolvard_ack_copy);

/* Messages of the record channel and the bits of the INFO state word. */
#define TOLVARD_MSG_BARRIER	1
#define TOLVARD_MSG_SESSION_ID	2
#define TOLVARD_MSG_INFO	3
#define TOLVARD_MSG_RESERVED	4
#define TOLVARD_INFO_REQUEST	0x1	/* asks the receiver for its state */
#define TOLVARD_INFO_READY	0x2	/* replication is ready ("UP") */

/*
 * One unit of sending on the record channel.  The mirror library's
 * callbacks get &node; the entry is found by subtracting its offset.
 * An entry that carries a local barrier is on its connection's waiting
 * list exactly while conn is set, and holds the clients' ACKs on acks.
 */
struct tolvard_entry {
	TAILQ_ENTRY(tolvard_entry) free_links;
	TAILQ_ENTRY(tolvard_entry) wait_links;
	mirror_data_node node;
	uint8_t flags;
	void *data;
	uint32_t size;
	uint32_t msg_type;
	uint32_t entry_id;
	struct tolvard_conn *conn;
	struct tolvard_ack_list acks;
};

struct tolvard_state {
	evContext event_context;
	/* tolvard_state_init() zeroes from here ... */
	otimer_context_t *timer_context;
	uint32_t role;
	uint8_t gres_configured;	/* as the last configuration read found it */
	uint8_t gres_enabled;		/* as the daemon acts on it */
	uint8_t mirror_up;		/* only through tolvard_mirror_state_change */
	uint8_t db_up;
	uint8_t rep_ready;
	uint8_t platform_ok;		/* 0 once keel said there is no database */
	uint8_t debug;
	uint32_t entries_created;
	uint32_t max_hits;
	uint32_t recv_msgs;
	uint32_t recv_bytes;
	uint32_t conn_lost;
	/* ... to here. */
	struct tolvard_entry_list free_list;
	struct tolvard_conn_list conn_list;
	int listen_fd;
	daemon_trace_file_t *trace;

	int db_retry_delay;		/* seconds until the next open retry */
	const char *db_name;
	void *db_env;			/* from the database-ready callback; 0: lost */
	struct keel_handle *keel_handle;
	uint32_t mirror_max_entries;
	otimer_t *db_retry_timer;
	int db_attempts;		/* counted failed opens */
	uint8_t rep_started;		/* "Starting Replication" was traced */
	uint8_t poll_running;
	otimer_t *poll_timer;
	uint8_t mirror_inited;
	otimer_t *restart_timer;
	uint64_t session_id_sent;
	/*
	 * Written by the signal handlers.  sig_atomic_t rather than a byte:
	 * a handler may run between any two instructions of the set-up code,
	 * before the event loop blocks signals around its work.
	 */
	volatile sig_atomic_t sig_hup;
	volatile sig_atomic_t sig_info;
	volatile sig_atomic_t sig_term;
	volatile sig_atomic_t sig_usr1;
	volatile sig_atomic_t sig_usr2;

	/*
	 * The id margin (id_margin.cc).  heard_at is the wall-clock second
	 * at which this engine last knew the newest id of the engines: as
	 * master, every second it stays master; as standby, when the
	 * master's id or any of the master's bytes arrived.  0: unknown.
	 */
	uint64_t id_rate;		/* ids per second, the highest rate */
	uint64_t id_margin;		/* added at every change to master */
	uint64_t id_margin_unknown;	/* added when heard_at is unknown */
	uint8_t id_margin_due;		/* became master, margin not yet added */
	uint64_t id_margin_added;	/* the last margin added */
	int64_t heard_at;
	uint8_t heard_as_master;	/* heard_at was set while master */
	int config_errors;		/* of the last configuration read */

	/* The status file and its counters (status.cc). */
	otimer_t *status_timer;
	int64_t link_since;		/* wall clock of the last link change */
	uint64_t bytes_in_seen;		/* mirror bytes in at the last tick */
	uint32_t records_sent;
	uint32_t barriers_acked;
	uint32_t barriers_lost;
	int64_t restart_at;		/* wall clock of a pending restart */
};

extern struct tolvard_state tolvard_state;

/* state.cc */
void tolvard_trace(int category, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
void tolvard_tracev(int category, const char *fmt, va_list ap)
    __attribute__((format(printf, 2, 0)));
void tolvard_trace_init(void);
void tolvard_rlimit_init(void);
uint32_t tolvard_role_query(void);
void tolvard_state_init(void);
int tolvard_pidlock(void);
void tolvard_pid_remove(void);
void tolvard_timer_init(void);
void tolvard_timer_assert(const char *message);
[[noreturn]] void tolvard_exit(const char *function, int line, int code);
#define TOLVARD_EXIT(code) tolvard_exit(__func__, __LINE__, (code))
/* From a helper of a named step: the last trace line names the step. */
#define TOLVARD_EXIT_AS(step, code) tolvard_exit((step), __LINE__, (code))

/* config.cc */
int tolvard_config_read(int check);
int tolvard_process_graceful_restart_cfg(char *errmsg, size_t errlen);
int tolvard_platform_check(void);

/* db.cc */
void tolvard_open(void);
void tolvard_open_later(void);
void tolvard_open_retry(otimer_t *timer, void *arg);
void tolvard_reopen(void);
void tolvard_close(void);
void tolvard_shutdown(void);
void tolvard_db_state_change(void *context, void *env);

/* signals.cc */
void tolvard_signal_init(void);
void tolvard_signal_sync(evContext ctx, void *arg);
void tolvard_stats_dump(void);

/* role.cc: role and switchover control, readiness, the ISSU answers */
#define TOLVARD_RESTART_DELAY	30	/* seconds, after losing mastership */
#define TOLVARD_REBOOT_WAIT	900	/* seconds, master to none */
#define TOLVARD_ISSU_WAIT	1800	/* seconds, asked while not ready */
#define TOLVARD_POLL_MS		100

const char *tolvard_role_name(uint32_t role);
void tolvard_gres_sync(void);
int tolvard_mirror_mastership_change(void);
void tolvard_switch_to_master(void);
void tolvard_restart_later(void);
[[noreturn]] void tolvard_restart(otimer_t *timer, void *arg);
void tolvard_mirror_event(int state);
void tolvard_mirror_state_change(int up);
int tolvard_rep_start(void);
int tolvard_rep_stop(void);
int tolvard_rep_active(void);
void tolvard_rep_ready_set(int ready);
void tolvard_poll_start(void);
void tolvard_poll_stop(void);
void tolvard_issu_prepare(void *ctx, int *abort, int *ready,
    struct keel_issu_info *info);
void tolvard_issu_switchover_prepare(void *ctx, int *ready,
    struct keel_issu_info *info);
void tolvard_issu_done(void *ctx);

/* id_margin.cc: never an id twice across a change of master */
#define TOLVARD_ID_RATE			10000000ULL
#define TOLVARD_ID_MARGIN		10000000ULL	/* 1 s at the rate */
/* How much older than ours the other engine's last news of us may be: its
 * keepalive period, and a second for whole-second clocks. */
#define TOLVARD_PEER_LAG_SECS		61
#define TOLVARD_ID_MARGIN_UNKNOWN	3000000000ULL	/* 300 s at the rate */
int tolvard_id_margin_config(int check);
void tolvard_id_margin_start(int64_t previous_heard_at);
void tolvard_id_margin_apply(void);
uint64_t tolvard_id_margin_size(int64_t now);
int tolvard_ids_open(void);
void tolvard_heard(void);

/* status.cc: what the daemon shows of itself */
#define TOLVARD_STATUS_FILE	"/var/run/tolvard.status"
int64_t tolvard_status_previous_heard_at(void);
int tolvard_status_previous_heard_as_master(void);
void tolvard_status_init(void);
void tolvard_status_write(void);
void tolvard_status_dump(void);
void tolvard_status_final(void);

/* server.cc: the local client server */
int tolvard_server_init(void);
void tolvard_server_close(void);
void tolvard_ack_release(struct tolvard_entry *entry);
void tolvard_conn_dump(void);

/* The record channel (pending.cc until it is built). */
int tolvard_mirror_init(void);
struct tolvard_entry *tolvard_rep_send(const void *data, uint32_t size,
    uint32_t msg_type, uint8_t ack);
void tolvard_session_id_send(void);
void tolvard_info_send(uint32_t state);
int tolvard_session_id_check(void);	/* 1: the id moved, a send was tried */
void tolvard_poll(otimer_t *timer, void *arg);

#endif
