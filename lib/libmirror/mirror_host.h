/*
 * The host operations of the mirror library.  The connection engine never
 * calls the event library, the timer toolkit or a socket directly: it goes
 * through mirror_func, a table that mirror_setup() picks.  This system has
 * one real host, the generic event-loop host (mirror_generic); a
 * task-scheduler host is recognised by mirror_task_defined() and is absent
 * here.
 */
#ifndef MIRROR_HOST_H
#define MIRROR_HOST_H

#include <orx/mirror_addr.h>
#include <orx/mirror_data.h>

#include <cstdint>

struct mirror_generic_task;
struct mirror_generic_timer;
struct mirror_generic_job;

typedef mirror_generic_task mirror_task;
typedef mirror_generic_timer mirror_timer;
typedef mirror_generic_job mirror_job;

typedef void (*mirror_io_fn)(mirror_task *task, int fd, int mask);
typedef void (*mirror_connect_fn)(mirror_task *task);
typedef void (*mirror_accept_fn)(mirror_task *task, int fd, const mirror_addr *peer);
typedef void (*mirror_task_fn)(mirror_task *task);
typedef void (*mirror_timer_fn)(mirror_timer *timer, void *data);
typedef void (*mirror_job_fn)(mirror_job *job);

struct mirror_generic_task {
	const char	*name;
	int		priority;
	evContext	event_context;
	otimer_context_t *timer_context;
	int		fd;
	mirror_addr	*addr;
	evFileID	write_id;
	evFileID	read_id;
	evConnID	conn_id;
	mirror_connect_fn connect_fn;
	mirror_accept_fn accept_fn;
	mirror_io_fn	write_fn;
	mirror_io_fn	recv_fn;
	mirror_task_fn	terminate_fn;
	mirror_task_fn	switchover_fn;
	uint8_t		read_selected;
	uint8_t		write_selected;
	uint8_t		listening;
	uint8_t		connecting;
	uint8_t		throttled;
};

struct mirror_generic_timer {
	otimer_t	*timer;
	uint32_t	interval;	/* seconds; 0 for a one-shot */
	mirror_task	*task;
	mirror_timer_fn	handler;
	void		*data;
};

#define MIRROR_JOB_QUEUED	0x01	/* a wakeup is on the pipe */
#define MIRROR_JOB_RUNNING	0x02
#define MIRROR_JOB_DELETE	0x04	/* free when it is safe */

struct mirror_generic_job {
	mirror_timer	*timer;
	mirror_job_fn	func;
	mirror_task	*task;
	void		*data;
	uint8_t		flags;
};

/* Socket options of set_option. */
#define MIRROR_SOCKOPT_RTBL_INDEX	1
#define MIRROR_SOCKOPT_NONBLOCKING	2
#define MIRROR_SOCKOPT_REUSEPORT	3
#define MIRROR_SOCKOPT_REUSEADDR	4
#define MIRROR_SOCKOPT_RCVBUF		5
#define MIRROR_SOCKOPT_SNDBUF		6
#define MIRROR_SOCKOPT_MAXSEG		7
#define MIRROR_SOCKOPT_KEEPALIVE	8	/* kernel probes after value idle seconds */

#define MIRROR_IP_RTBL_OPTION		109	/* IPPROTO_IP level */
#define MIRROR_INTERNAL_SA		"__tamrack_internal_ipsec_sa__"

/*
 * Programming errors of the library stop the process in every build,
 * NDEBUG or not.  Never used on bytes from the peer.
 */
[[noreturn]] void mirror_assert_fail(const char *expr, const char *file, int line,
    const char *func);
#define mirror_assert(e) \
	((e) ? (void)0 : mirror_assert_fail(#e, __FILE__, __LINE__, __func__))
/* The same with the text that names the condition in the caller's terms. */
#define mirror_assert_text(e, text) \
	((e) ? (void)0 : mirror_assert_fail((text), __FILE__, __LINE__, __func__))

/* The table, slot by slot. */
struct mirror_func_table {
	mirror_task *(*task_alloc)(const mirror_state *st, const char *name, int priority);
	int	(*task_create)(mirror_task *task);
	void	(*task_delete)(mirror_task *task);
	int	(*task_socket)(mirror_task *task);
	void	(*set_socket)(mirror_task *task, int fd);
	void	*(*block_init)(uint32_t size, const char *name);
	void	*(*block_init_flags)(uint32_t size, const char *name, int flags);
	void	*(*block_alloc)(void *pool);
	void	(*block_free)(void *pool, void *p);
	void	*(*mem_malloc)(mirror_task *task, size_t size);
	void	(*mem_free)(mirror_task *task, void *p);
	mirror_timer *(*timer_create)(mirror_task *task, const char *name, int flags,
	    uint32_t interval, uint32_t offset, mirror_timer_fn handler, void *data);
	mirror_task *(*timer_task)(mirror_timer *timer);
	void	(*timer_delete)(mirror_timer *timer);
	void	(*timer_reset)(mirror_timer *timer);
	void	(*timer_set_oneshot)(mirror_timer *timer, uint32_t secs);
	int	(*timer_running)(mirror_timer *timer);
	int	(*timer_job_pending)(mirror_job *job);
	mirror_job *(*job_create_background)(mirror_task *task, uint32_t priority,
	    const char *name, mirror_job_fn func, void *data);
	mirror_job *(*timer_create_background_job)(mirror_task *task, uint32_t priority,
	    const char *name, uint32_t secs, mirror_job_fn func, void *data);
	void	(*job_delete)(mirror_job *job);
	void	*(*job_data)(mirror_job *job);
	int	(*accept)(mirror_task *task, int fd, mirror_addr **peer);
	mirror_task *(*alloc_accept)(const mirror_state *st, const char *name, int priority);
	int	(*addr_local)(mirror_task *task, const mirror_addr *addr);
	int	(*lr_dynamic)(const mirror_state *st);
	int	(*set_option)(mirror_task *task, int option, int value);
	void	(*set_connect)(mirror_task *task, mirror_connect_fn fn);
	void	(*set_accept)(mirror_task *task, mirror_accept_fn fn);
	void	(*set_recv)(mirror_task *task, mirror_io_fn fn);
	void	(*set_write)(mirror_task *task, mirror_io_fn fn);
	void	(*set_normal_write)(mirror_task *task);
	void	(*close)(mirror_task *task);
	int	(*get_socket_tcp)(mirror_task *task);
	mirror_addr *(*get_addr_local)(mirror_task *task);
	mirror_addr *(*get_addr_remote)(mirror_task *task);
	void	(*socket_disable_write)(mirror_task *task);
	void	(*socket_reenable_write)(mirror_task *task);
	void	(*socket_disable_receive)(mirror_task *task);
	void	(*socket_throttle)(mirror_task *task, int on);
	int	(*listen)(mirror_task *task, int backlog);
	int	(*writable)(mirror_task *task);
	int	(*connect_ore)(mirror_task *task, uint16_t port_net);
	void	(*set_terminate)(mirror_task *task, mirror_task_fn fn);
	void	(*set_re_switchover)(mirror_task *task, mirror_task_fn fn);
	uint32_t (*get_maxpacket)(int large);
	int	(*is_re_master)(void);
	const char *(*get_lr_name)(void);
	void	(*socket_listening)(mirror_task *task, int fd);
	void	(*socket_accepted)(mirror_task *task, int fd);
	void	(*socket_connected)(mirror_task *task, int fd);
	void	(*quit)(int code);
	void	(*set_addr)(mirror_task *task, mirror_addr *addr);
	mirror_addr *(*get_addr)(mirror_task *task);
	void	*(*mgmt_file)(void *arg);
	void	(*mgmt_out_complete)(void);
	void	(*trace_set)(void *trace);
	void	*(*trace_get)(void);
	void	(*get_current_utime)(void);
	int	(*utime_should_suspend)(void);
	int	(*set_sa)(mirror_task *task, const mirror_addr *addr);
};

extern const mirror_func_table mirror_generic;
extern const mirror_func_table *mirror_func;

/* True when a task-scheduler host is linked in; never in this system. */
bool mirror_task_defined();

/* Handlers of the connection engine that the host installs. */
void mirror_sock_data_receive(mirror_task *task, int fd, int mask);
void mirror_sock_conn_send_cntrl_msg(mirror_task *task, int fd, int mask);
void mirror_sock_connection_write_ready(mirror_task *task, int fd, int mask);
void mirror_listen_accept_common(mirror_task *task, int fd, const mirror_addr *peer);
void mirror_generic_re_switchover(mirror_task *task);
void mirror_generic_terminate(mirror_task *task);

/*
 * The other routing engine's address (network order), as the connector
 * uses it: peer_addr when use_peer_addr is set, else the peer engine's
 * name looked up.  0 or an errno value.
 */
int mirror_expected_peer(uint32_t *addr_net);

/* Library trace, category 1 of the application's trace file. */
void mirror_trace(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/* Counters of the wakeup pipe, for tests. */
struct mirror_pipe_counters {
	uint64_t writes;
	uint64_t reads;
	int	fd_read;
};
mirror_pipe_counters mirror_generic_pipe_counters();

#endif
