/*
 * The mirror link: one TCP connection between the two routing engines.
 *
 * Use.  An application fills a mirror_state (its data classes in
 * mirror_db_table, the port, whether this engine is master, its event and
 * timer contexts) and calls, in this order:
 *
 *	mirror_setup(&state);		copies the block, makes the buffers
 *	mirror_register_data(&entry);	once per data class it owns
 *	mirror_start();			master listens, standby connects
 *
 * and then runs its event loop.  Everything happens in that one thread:
 * the library never blocks and takes no locks.  The master listens on
 * TCP port 32006 (MIRROR_PORT) and the standby connects to the address of
 * the other engine, taken from the platform (peer_re_name()).  The two ends
 * exchange control messages (database descriptions, software version,
 * keepalive time, buffer size); when both directions are done the link is
 * ready (mirror_connected()) and every class is told state 1 through its
 * mirror_data_state_func.  Keepalives flow while the link is idle; a peer
 * that is silent for the announced keepalive time, a read of 0, a broken
 * pipe or a malformed stream closes the link, every class is told state 0
 * and the library tries again after retry_period (2 s, or 60 s after the
 * peer spoke an incompatible version).  The library never gives up; only
 * mirror_terminate() stops it.  A master that never saw a standby tells its
 * classes state 2 after three retry periods.
 *
 * A standby that becomes master calls mirror_re_switchover_event() after
 * the platform says so; the link is closed and the engine listens.
 *
 * The application defines mirror_report(code, text) to hear of warnings
 * (1), errors (2) and unknown TLVs (3, 4).  Trace lines of the library go
 * to the trace file given as mirror_state.trace (a daemon_trace_file_t *,
 * category 1) when there is one.
 *
 * Errors are 0 or an errno value.  Misuse by the caller is an assertion;
 * bytes from the peer never are: a malformed stream closes the link with a
 * report and a "MIRROR_STREAM_ERROR" event.
 *
 * Tests may pass another port in mirror_state.port; the daemons always use
 * MIRROR_PORT.
 */
#ifndef ORX_MIRROR_DATA_H
#define ORX_MIRROR_DATA_H

#include <orx/mirror_tlv.h>
#include <platform/ev.h>
#include <stddef.h>
#include <stdint.h>
#include <timers/otimer.h>

#ifdef __cplusplus
extern "C" {
#endif

#define MIRROR_PORT		32006
#define MIRROR_MAX_DATA_ID	100	/* ids above are never known */
#define MIRROR_JOB_PRIORITY	4

/* Connection states told to mirror_data_state_func. */
#define MIRROR_STATE_DOWN		0
#define MIRROR_STATE_UP			1
#define MIRROR_STATE_NO_STANDBY		2

/* mirror_report() codes. */
#define MIRROR_REPORT_WARNING		1
#define MIRROR_REPORT_ERROR		2
#define MIRROR_REPORT_UNKNOWN_TLV	3
#define MIRROR_REPORT_UNKNOWN_DATA_TLV	4

/* Operations of a record. */
#define MIRROR_OP_ADD		1
#define MIRROR_OP_DELETE	2
#define MIRROR_OP_UPDATE	3
#define MIRROR_OP_RESYNC	4

/* mirror_receiver values. */
#define MIRROR_RECEIVER_STANDBY	0
#define MIRROR_RECEIVER_MASTER	1
#define MIRROR_RECEIVER_BOTH	2

/* One row of the application's table of data classes; a null name ends it. */
typedef struct mirror_db_entry {
	uint32_t	id;
	const char	*name;
} mirror_db_entry;

typedef void (*mirror_port_cb_t)(uint16_t port);

/* The configuration block; mirror_setup() copies it. */
typedef struct mirror_state {
	const mirror_db_entry *mirror_db_table;
	uint32_t	mirror_first_id;
	uint32_t	MIRROR_DATA_LAST;	/* one above the last id */
	uint32_t	mirror_ack_id;
	uint32_t	mirror_eod_id;
	uint16_t	port;			/* MIRROR_PORT */
	uint16_t	lr_id;			/* not 0: dynamic port */
	mirror_port_cb_t port_cb;
	uint8_t		is_master;
	evContext	mirror_eventlib_context;
	otimer_context_t *mirror_timer_context;
	uint32_t	job_priority;
	void		*trace;			/* daemon_trace_file_t * */
	uint8_t		large_buffers;
	uint16_t	use_peer_addr;
	uint16_t	rt_table;
	uint32_t	peer_addr;		/* IPv4, network order */
	uint8_t		use_sa;
} mirror_state;

/* Head of every item, embedded by the application in its own structure. */
typedef struct mirror_data_node {
	uint8_t		mdn_data_id;
	uint8_t		mdn_op;
	uint8_t		mdn_last_op;
	uint8_t		mdn_ack;
	void		*mdn_queue_entry;
} mirror_data_node;

/* A received record as the decode callback sees it. */
typedef struct mirror_recvd_data {
	struct mirror_recvd_data *mrd_next;
	struct mirror_recvd_data *mrd_prev;
	uint32_t	total_len;
	uint32_t	got_len;
	uint8_t		*data;
	void		*ack_node;
	uint8_t		data_id;
	uint8_t		op;
} mirror_recvd_data;

/* One data class, filled in and owned by the application. */
typedef struct mirror_reg_entry {
	void	(*mirror_data_lock_func)(mirror_data_node *);
	void	(*mirror_data_unlock_func)(mirror_data_node *);
	int	(*mirror_data_encode_func)(mirror_data_node *, uint8_t *, uint32_t);
	void	(*mirror_data_decode_func)(mirror_recvd_data *);
	mirror_data_node *(*mirror_data_get_next_func)(mirror_data_node *);
	void	(*mirror_data_clear_func)(void);
	void	(*mirror_data_state_func)(int state);
	void	(*mirror_data_ack_func)(mirror_data_node *, int reason);
	void	(*mirror_data_eod_func)(uint32_t count, int is_receiver);
	uint32_t	mirror_receiver;
	uint8_t		mirror_data_id;
	uint8_t		mirror_resync_unpaced;
	uint8_t		mirror_no_resync;
} mirror_reg_entry;

/* A database description the peer sent. */
typedef struct mirror_peer_db {
	struct mirror_peer_db *mpd_next;
	uint16_t	mpd_data_id;
	uint8_t		mpd_status;	/* 0 unknown id, 1 equal, 2 other name */
	char		mpd_name[1];	/* NUL-terminated, allocated to fit */
} mirror_peer_db;

typedef struct mirror_sw_version {
	uint8_t		major;
	uint16_t	minor;
	uint16_t	revision;
	uint16_t	last;
	char		letter;
} mirror_sw_version;

typedef struct mirror_peer_record {
	mirror_peer_db	*mpi_dbs;
	uint8_t		mpi_cntrl_gen;		/* 0 none yet, 1 or 2 */
	mirror_sw_version mpi_version;
	uint8_t		mpi_has_version;
	uint32_t	mpi_known[(MIRROR_MAX_DATA_ID + 32) / 32];
	uint8_t		mpi_flags;
	uint32_t	mpi_keepalive;		/* seconds, 0 none */
	uint8_t		mpi_buf_size_seen;
	uint32_t	mpi_buf_size;
} mirror_peer_record;

typedef struct mirror_link_stats {
	uint32_t	ms_closes;
	uint32_t	ms_resyncs;
	uint64_t	ms_bytes_out;
	uint64_t	ms_bytes_in;
	int		ms_last_errno;
	uint32_t	ms_throttles;
	uint32_t	ms_stream_errors;
	char		last_close[128];
	uint32_t	ms_refused;	/* connections from another address */
} mirror_link_stats;

int	mirror_setup(const mirror_state *state);
int	mirror_register_data(mirror_reg_entry *entry);
int	mirror_start(void);
void	mirror_re_switchover_event(void);
void	mirror_terminate(void *task);

int	mirror_connected(void);
int	mirror_standby_missing(void);
mirror_link_stats *mirror_stats(void);
void	mirror_stats_clear(void);
const mirror_peer_record *mirror_peer_info(void);
int	mirror_peer_known(uint32_t data_id);
void	mirror_peer_version(uint8_t *major, uint16_t *minor);
void	mirror_local_version(uint8_t *major, uint16_t *minor);
void	mirror_throttle_recv(int on);
const mirror_state *mirror_state_get(void);
void	mirror_set_trace(void *trace);
void	mirror_set_job_priority(uint32_t priority);
void	mirror_cntrl2_disable(void);

/*
 * The data queues.  A class's items go to the peer in the order they were
 * queued, each with its newest content.  mirror_add, mirror_delete and
 * mirror_update return 0 when nothing was queued (no ready link, the peer
 * does not know the class, or this engine does not send it), 1 when the
 * item was queued and 2 when it was queued with an acknowledgement wanted:
 * then mirror_data_ack_func is called exactly once for it, with 0 when the
 * peer acknowledged and 1 when the link was lost, before the item's last
 * unlock.  Re-queuing a queued item moves it to the tail.
 */
void	mirror_data_node_init(mirror_data_node *node_ptr, uint8_t data_id);
int	mirror_operation_will_succeed(uint32_t data_id);
int	mirror_add(mirror_data_node *node, uint8_t ack);
int	mirror_delete(mirror_data_node *node, uint8_t ack);
int	mirror_update(mirror_data_node *node, uint8_t ack);
void	mirror_unqueue(mirror_data_node *node);
int	mirror_request_db_resync(uint32_t data_id);

/* Supplied by the application; the library has a silent default. */
void	mirror_report(int code, const char *text);

#ifdef __cplusplus
}
#endif

#endif
