/*
 * The generic host: the mirror library on a plain event loop.
 *
 * Tasks are sockets with their event registrations, timers wrap otimers,
 * and background jobs run one call per turn of the loop, woken through a
 * pipe.  The pipe is used not for threads but to get a function called on
 * the next turn.
 *
 * Invariants:
 *  - read_selected, write_selected, listening and connecting say exactly
 *    which event registrations of a task are alive; close drops them all
 *    before the descriptor goes.
 *  - A job is freed only when it is neither queued on the pipe nor running;
 *    a delete in between only marks it (MIRROR_JOB_DELETE).
 *  - Every interval given in seconds is divided by TOLVAR_TEST_TIMESCALE
 *    here and nowhere else.
 */
#include "mirror_host.h"

#include <platform/chassis.h>
#include <platform/logging.h>
#include <platform/timescale.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

namespace {

/* The wakeup pipe. */
typedef void (*wakeup_fn)(evContext ctx, void *arg, int unused);

struct wakeup_block {
	wakeup_fn func;
	void	*arg;
};

constexpr int pipe_slots = 128;	/* 127 can be filled */

struct wakeup_pipe {
	bool	ready = false;
	bool	failed = false;
	int	fds[2] = {-1, -1};
	evContext ctx{};
	evFileID read_id{};
	wakeup_block *ring[pipe_slots] = {};
	int	head = 0;	/* next to run */
	int	tail = 0;	/* next free */
	uint64_t writes = 0;
	uint64_t reads = 0;
} wpipe;

void
mirror_generic_pipe_wakeup(evContext ctx, void *uap, int fd, int mask)
{
	(void)uap;
	(void)mask;
	char word[sizeof(void *)];
	ssize_t n = read(fd, word, sizeof(word));
	if (n <= 0)
		return;
	mirror_assert(n == static_cast<ssize_t>(sizeof(word)));
	wpipe.reads++;
	if (wpipe.head == wpipe.tail)
		return;
	wakeup_block *b = wpipe.ring[wpipe.head];
	wpipe.ring[wpipe.head] = nullptr;
	wpipe.head = (wpipe.head + 1) % pipe_slots;
	b->func(ctx, b->arg, 0);
	delete b;
}

void
mirror_generic_pipe_setup(evContext ctx)
{
	if (wpipe.ready || wpipe.failed)
		return;
	if (pipe2(wpipe.fds, O_NONBLOCK | O_CLOEXEC) != 0) {
		logging(LOG_CRIT, "%s: failed to create pipes (%d)\n", __func__, errno);
		wpipe.failed = true;
		return;
	}
	if (__evSelectFD(ctx, wpipe.fds[0], EV_READ, mirror_generic_pipe_wakeup, nullptr,
	    &wpipe.read_id) != 0) {
		logging(LOG_CRIT, "%s: failed to setup pipe, errno = %d", __func__, errno);
		close(wpipe.fds[0]);
		close(wpipe.fds[1]);
		wpipe.failed = true;
		return;
	}
	wpipe.ctx = ctx;
	wpipe.ready = true;
}

void
deferred_block(evContext ctx, void *uap)
{
	auto *b = static_cast<wakeup_block *>(uap);
	b->func(ctx, b->arg, 0);
	delete b;
}

void
mirror_generic_pipe_send_wakeup(evContext ctx, wakeup_fn func, void *arg)
{
	auto *b = new wakeup_block{func, arg};
	if (!wpipe.ready || ctx.opaque != wpipe.ctx.opaque) {
		if (wpipe.ready)
			logging(LOG_ERR, "%s: multiple event contexts used (orig=%p, cur=%p)\n",
			    __func__, wpipe.ctx.opaque, ctx.opaque);
		__evDefer(ctx, deferred_block, b);
		return;
	}
	int next = (wpipe.tail + 1) % pipe_slots;
	/* A process has a handful of jobs; 127 pending wakeups is a bug. */
	mirror_assert(next != wpipe.head);
	wpipe.ring[wpipe.tail] = b;
	wpipe.tail = next;
	void *word = b;
	ssize_t n = write(wpipe.fds[1], &word, sizeof(word));
	if (n != static_cast<ssize_t>(sizeof(word)))
		logging(LOG_ERR, "%s: failed to write to pipe, ret = %d, errno = %d",
		    __func__, static_cast<int>(n), errno);
	else
		wpipe.writes++;
}

/* Event trampolines into the task's handlers. */
void
task_read_ready(evContext, void *uap, int fd, int mask)
{
	auto *task = static_cast<mirror_task *>(uap);
	if (task->recv_fn != nullptr)
		task->recv_fn(task, fd, mask);
}

void
task_write_ready(evContext, void *uap, int fd, int mask)
{
	auto *task = static_cast<mirror_task *>(uap);
	if (task->write_fn != nullptr)
		task->write_fn(task, fd, mask);
}

void
select_read(mirror_task *task, bool on)
{
	if (on && !task->read_selected && task->fd >= 0) {
		if (__evSelectFD(task->event_context, task->fd, EV_READ, task_read_ready,
		    task, &task->read_id) == 0)
			task->read_selected = 1;
	} else if (!on && task->read_selected) {
		__evDeselectFD(task->event_context, task->read_id);
		task->read_selected = 0;
	}
}

void
select_write(mirror_task *task, bool on)
{
	if (on && !task->write_selected && task->fd >= 0) {
		if (__evSelectFD(task->event_context, task->fd, EV_WRITE, task_write_ready,
		    task, &task->write_id) == 0)
			task->write_selected = 1;
	} else if (!on && task->write_selected) {
		__evDeselectFD(task->event_context, task->write_id);
		task->write_selected = 0;
	}
}

mirror_task *
mirror_generic_task_alloc(const mirror_state *st, const char *name, int priority)
{
	mirror_assert(st->mirror_eventlib_context.opaque != nullptr &&
	    "state->mirror_eventlib_context");
	mirror_assert(st->mirror_timer_context != nullptr && "state->mirror_timer_context");
	auto *task = static_cast<mirror_task *>(calloc(1, sizeof(mirror_task)));
	if (task == nullptr)
		return nullptr;
	task->name = name;
	task->priority = priority;
	task->event_context = st->mirror_eventlib_context;
	task->timer_context = st->mirror_timer_context;
	task->fd = -1;
	mirror_generic_pipe_setup(task->event_context);
	if (wpipe.ready && wpipe.ctx.opaque != task->event_context.opaque)
		logging(LOG_ERR, "%s: multiple event contexts used (orig=%p, cur=%p)\n",
		    __func__, wpipe.ctx.opaque, task->event_context.opaque);
	return task;
}

int
generic_task_create(mirror_task *)
{
	return 1;
}

void
generic_close(mirror_task *task)
{
	if (task->fd < 0)
		return;
	select_read(task, false);
	select_write(task, false);
	if (task->listening || task->connecting)
		__evCancelConn(task->event_context, task->conn_id);
	task->listening = 0;
	task->connecting = 0;
	task->throttled = 0;
	close(task->fd);
	task->fd = -1;
}

void
generic_task_delete(mirror_task *task)
{
	if (task == nullptr)
		return;
	generic_close(task);
	free(task->addr);
	free(task);
}

int
generic_task_socket(mirror_task *task)
{
	return task->fd;
}

void
generic_set_socket(mirror_task *task, int fd)
{
	if (fd != task->fd) {
		select_read(task, false);
		select_write(task, false);
	}
	task->fd = fd;
	select_read(task, task->recv_fn != nullptr && !task->throttled);
	select_write(task, task->write_fn != nullptr);
}

void *
generic_block_init(uint32_t size, const char *)
{
	auto *pool = static_cast<uint32_t *>(malloc(sizeof(uint32_t)));
	if (pool != nullptr)
		*pool = size;
	return pool;
}

void *
generic_block_init_flags(uint32_t size, const char *name, int)
{
	return generic_block_init(size, name);
}

void *
generic_block_alloc(void *pool)
{
	return calloc(1, *static_cast<uint32_t *>(pool));
}

void
generic_block_free(void *, void *p)
{
	free(p);
}

void *
generic_mem_malloc(mirror_task *, size_t size)
{
	return calloc(1, size);
}

void
generic_mem_free(mirror_task *, void *p)
{
	free(p);
}

void
timer_fired(otimer_t *, void *arg)
{
	auto *w = static_cast<mirror_timer *>(arg);
	w->handler(w, w->data);
}

void
arm_oneshot(otimer_t *t, uint32_t secs)
{
	struct timespec ts = tolvar_scaled_secs(secs);
	otimer_oneshot(t, ts.tv_sec, ts.tv_nsec, 0);
}

mirror_timer *
generic_timer_create(mirror_task *task, const char *, int, uint32_t interval,
    uint32_t offset, mirror_timer_fn handler, void *data)
{
	auto *w = static_cast<mirror_timer *>(calloc(1, sizeof(mirror_timer)));
	if (w == nullptr)
		return nullptr;
	w->task = task;
	w->handler = handler;
	w->data = data;
	w->interval = interval;
	w->timer = otimer_create(task->timer_context, nullptr, timer_fired, w);
	if (w->timer == nullptr) {
		free(w);
		return nullptr;
	}
	if (interval > 0) {
		struct timespec ts = tolvar_scaled_secs(interval);
		otimer_periodic(w->timer, ts.tv_sec, ts.tv_nsec, 0);
	} else if (offset > 0) {
		arm_oneshot(w->timer, offset);
	} else {
		otimer_oneshot(w->timer, 0, 1000, 0);
	}
	return w;
}

mirror_task *
generic_timer_task(mirror_timer *w)
{
	return w->task;
}

void
generic_timer_delete(mirror_timer *w)
{
	if (w == nullptr)
		return;
	otimer_delete(w->timer);
	free(w);
}

void
generic_timer_reset(mirror_timer *w)
{
	if (w != nullptr)
		otimer_stop(w->timer);
}

void
generic_timer_set_oneshot(mirror_timer *w, uint32_t secs)
{
	arm_oneshot(w->timer, secs);
}

int
generic_timer_running(mirror_timer *w)
{
	return w != nullptr && otimer_is_running(w->timer);
}

int
generic_timer_job_pending(mirror_job *job)
{
	return job != nullptr && generic_timer_running(job->timer);
}

void job_run(evContext ctx, void *arg, int unused);

void
job_queue(mirror_job *job)
{
	job->flags |= MIRROR_JOB_QUEUED;
	mirror_generic_pipe_send_wakeup(job->task->event_context, job_run, job);
}

void
job_free(mirror_job *job)
{
	generic_timer_delete(job->timer);
	free(job);
}

void
job_run(evContext, void *arg, int)
{
	auto *job = static_cast<mirror_job *>(arg);
	job->flags &= ~MIRROR_JOB_QUEUED;
	if (job->flags & MIRROR_JOB_DELETE) {
		job_free(job);
		return;
	}
	job->flags |= MIRROR_JOB_RUNNING;
	job->func(job);
	job->flags &= ~MIRROR_JOB_RUNNING;
	if (job->flags & MIRROR_JOB_DELETE)
		job_free(job);
	else
		job_queue(job);
}

mirror_job *
generic_job_create_background(mirror_task *task, uint32_t, const char *,
    mirror_job_fn func, void *data)
{
	auto *job = static_cast<mirror_job *>(calloc(1, sizeof(mirror_job)));
	if (job == nullptr)
		return nullptr;
	job->func = func;
	job->task = task;
	job->data = data;
	job_queue(job);
	return job;
}

void
job_timer_fired(mirror_timer *, void *data)
{
	auto *job = static_cast<mirror_job *>(data);
	if (!(job->flags & (MIRROR_JOB_QUEUED | MIRROR_JOB_RUNNING | MIRROR_JOB_DELETE)))
		job_queue(job);
}

mirror_job *
generic_timer_create_background_job(mirror_task *task, uint32_t, const char *name,
    uint32_t secs, mirror_job_fn func, void *data)
{
	auto *job = static_cast<mirror_job *>(calloc(1, sizeof(mirror_job)));
	if (job == nullptr)
		return nullptr;
	job->func = func;
	job->task = task;
	job->data = data;
	job->timer = generic_timer_create(task, name, 0, 0, secs, job_timer_fired, job);
	if (job->timer == nullptr) {
		free(job);
		return nullptr;
	}
	return job;
}

void
generic_job_delete(mirror_job *job)
{
	if (job == nullptr)
		return;
	generic_timer_delete(job->timer);
	job->timer = nullptr;
	if (job->flags & (MIRROR_JOB_QUEUED | MIRROR_JOB_RUNNING))
		job->flags |= MIRROR_JOB_DELETE;
	else
		free(job);
}

void *
generic_job_data(mirror_job *job)
{
	return job->data;
}

int
generic_accept(mirror_task *task, int fd, mirror_addr **peer)
{
	struct sockaddr_storage ss;
	socklen_t len = sizeof(ss);
	int nfd = accept4(fd, reinterpret_cast<struct sockaddr *>(&ss), &len, SOCK_CLOEXEC);
	(void)task;
	if (nfd < 0)
		return -1;
	if (ss.ss_family == AF_UNIX)
		*peer = mirror_addr_text("local");
	else
		*peer = mirror_addr_copy(sock2bfdd(reinterpret_cast<struct sockaddr *>(&ss), len));
	return nfd;
}

int
generic_addr_local(mirror_task *task, const mirror_addr *addr)
{
	socklen_t len;
	struct sockaddr *sa = sock2unix(addr, &len);
	return bind(task->fd, sa, len) == 0 ? 0 : errno;
}

int
generic_lr_dynamic(const mirror_state *st)
{
	return st->lr_id != 0;
}

int
generic_set_option(mirror_task *task, int option, int value)
{
	int rc;
	switch (option) {
	case MIRROR_SOCKOPT_RTBL_INDEX:
		/* Linux has one routing table for this link: nothing to select. */
		return 0;
	case MIRROR_SOCKOPT_NONBLOCKING:
		rc = ioctl(task->fd, FIONBIO, &value);
		break;
	case MIRROR_SOCKOPT_REUSEPORT:
		rc = setsockopt(task->fd, SOL_SOCKET, SO_REUSEPORT, &value, sizeof(value));
		break;
	case MIRROR_SOCKOPT_REUSEADDR:
		rc = setsockopt(task->fd, SOL_SOCKET, SO_REUSEADDR, &value, sizeof(value));
		break;
	case MIRROR_SOCKOPT_RCVBUF:
		rc = setsockopt(task->fd, SOL_SOCKET, SO_RCVBUF, &value, sizeof(value));
		break;
	case MIRROR_SOCKOPT_SNDBUF:
		rc = setsockopt(task->fd, SOL_SOCKET, SO_SNDBUF, &value, sizeof(value));
		break;
	case MIRROR_SOCKOPT_MAXSEG:
		rc = setsockopt(task->fd, IPPROTO_TCP, TCP_MAXSEG, &value, sizeof(value));
		break;
	case MIRROR_SOCKOPT_KEEPALIVE: {
		/* Probes every sixth of the idle time, three unanswered drop. */
		int on = 1, cnt = 3;
		int idle = std::max(1, static_cast<int>(value / tolvar_timescale()));
		int intvl = std::max(1, static_cast<int>(value / 6 / tolvar_timescale()));
		rc = setsockopt(task->fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
		if (rc == 0)
			rc = setsockopt(task->fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof(idle));
		if (rc == 0)
			rc = setsockopt(task->fd, IPPROTO_TCP, TCP_KEEPINTVL, &intvl, sizeof(intvl));
		if (rc == 0)
			rc = setsockopt(task->fd, IPPROTO_TCP, TCP_KEEPCNT, &cnt, sizeof(cnt));
		/* Probes wait while data is unacknowledged: bound that too. */
		unsigned int user_ms = static_cast<unsigned int>((idle + cnt * intvl) * 1000);
		if (rc == 0)
			rc = setsockopt(task->fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &user_ms,
			    sizeof(user_ms));
		break;
	}
	default:
		return EINVAL;
	}
	return rc == 0 ? 0 : errno;
}

void
generic_set_connect(mirror_task *task, mirror_connect_fn fn)
{
	task->connect_fn = fn;
}

void
generic_set_accept(mirror_task *task, mirror_accept_fn fn)
{
	task->accept_fn = fn;
}

void
generic_set_recv(mirror_task *task, mirror_io_fn fn)
{
	task->recv_fn = fn;
}

void
generic_set_write(mirror_task *task, mirror_io_fn fn)
{
	task->write_fn = fn;
}

void
generic_set_normal_write(mirror_task *task)
{
	task->write_fn = mirror_sock_connection_write_ready;
}

int
generic_get_socket_tcp(mirror_task *)
{
	return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

mirror_addr *
generic_get_addr_local(mirror_task *task)
{
	struct sockaddr_storage ss;
	socklen_t len = sizeof(ss);
	if (task->fd < 0 || getsockname(task->fd, reinterpret_cast<struct sockaddr *>(&ss), &len) != 0)
		return nullptr;
	return sock2bfdd(reinterpret_cast<struct sockaddr *>(&ss), len);
}

mirror_addr *
generic_get_addr_remote(mirror_task *task)
{
	struct sockaddr_storage ss;
	socklen_t len = sizeof(ss);
	if (task->fd < 0 || getpeername(task->fd, reinterpret_cast<struct sockaddr *>(&ss), &len) != 0 ||
	    len == 0)
		return nullptr;
	return sock2bfdd(reinterpret_cast<struct sockaddr *>(&ss), len);
}

void
generic_socket_disable_write(mirror_task *task)
{
	select_write(task, false);
}

void
generic_socket_reenable_write(mirror_task *task)
{
	select_write(task, task->write_fn != nullptr);
}

void
generic_socket_disable_receive(mirror_task *task)
{
	select_read(task, false);
}

void
generic_socket_throttle(mirror_task *task, int on)
{
	task->throttled = on != 0;
	select_read(task, !on && task->recv_fn != nullptr);
}

void
accept_ready(evContext, void *uap, int fd, const void *, int, const void *ra, int ralen)
{
	auto *task = static_cast<mirror_task *>(uap);
	if (fd < 0) {
		mirror_trace("failed accept %s\n", strerror(errno));
		return;
	}
	const mirror_addr *peer = sock2bfdd(static_cast<const struct sockaddr *>(ra),
	    static_cast<socklen_t>(ralen));
	if (task->accept_fn != nullptr)
		task->accept_fn(task, fd, peer);
	else
		close(fd);
}

int
generic_listen(mirror_task *task, int backlog)
{
	if (task->listening)
		return 0;
	if (__evListen(task->event_context, task->fd, backlog, accept_ready, task,
	    &task->conn_id) != 0)
		return errno;
	task->listening = 1;
	return 0;
}

int
generic_writable(mirror_task *task)
{
	struct pollfd p = {task->fd, POLLOUT, 0};
	return task->fd >= 0 && poll(&p, 1, 0) == 1 && (p.revents & POLLOUT);
}

void
connect_complete(evContext, void *uap, int fd, const void *, int, const void *, int)
{
	auto *task = static_cast<mirror_task *>(uap);
	task->connecting = 0;
	if (fd >= 0 && mirror_state_get()->use_peer_addr) {
		int mss = 1398;
		setsockopt(fd, IPPROTO_TCP, TCP_MAXSEG, &mss, sizeof(mss));
	}
	if (task->connect_fn != nullptr)
		task->connect_fn(task);
}

int
generic_connect(mirror_task *task, uint16_t port_net)
{
	const mirror_state *st = mirror_state_get();
	int rc;

	task->fd = generic_get_socket_tcp(task);
	if (task->fd < 0)
		return errno;
	if ((rc = generic_set_option(task, MIRROR_SOCKOPT_NONBLOCKING, 1)) != 0 ||
	    (rc = generic_set_option(task, MIRROR_SOCKOPT_REUSEADDR, 1)) != 0 ||
	    (rc = generic_set_option(task, MIRROR_SOCKOPT_RTBL_INDEX,
	    st->use_peer_addr ? st->rt_table : 1)) != 0)
		return rc;

	uint32_t addr;
	if ((rc = mirror_expected_peer(&addr)) != 0)
		return rc;
	free(task->addr);
	task->addr = mirror_addr_v4(port_net, addr);
	if (task->addr == nullptr)
		return ENOMEM;
	if (st->use_sa && iri_set_sa(task->fd, MIRROR_INTERNAL_SA) != 0)
		mirror_func->quit(errno);

	socklen_t len;
	struct sockaddr *sa = sock2unix(task->addr, &len);
	if (__evConnect(task->event_context, task->fd, sa, static_cast<int>(len),
	    connect_complete, task, &task->conn_id) != 0)
		return errno;
	task->connecting = 1;
	errno = EINPROGRESS;
	return errno;
}

} // namespace

int
mirror_expected_peer(uint32_t *addr_net)
{
	const mirror_state *st = mirror_state_get();
	if (st->use_peer_addr) {
		*addr_net = st->peer_addr;
		return 0;
	}
	const char *name = peer_re_name();
	if (name == nullptr)
		return ENOENT;
	return iri_gethostbyname(name, addr_net);
}

namespace {

void
generic_set_terminate(mirror_task *task, mirror_task_fn fn)
{
	task->terminate_fn = fn;
}

void
generic_set_re_switchover(mirror_task *task, mirror_task_fn fn)
{
	task->switchover_fn = fn;
}

uint32_t
generic_get_maxpacket(int large)
{
	long value = 0;
	size_t len = sizeof(value);
	uint32_t size = 0x10000;
	if (platform_sysctlbyname("kern.ipc.maxsockbuf", &value, &len) == 0 &&
	    value > 0)
		size = static_cast<uint32_t>(value);
	return large ? size : size / 2;
}

int
generic_is_re_master(void)
{
	return nmchassis_is_generic_protocol_master();
}

const char *
generic_get_lr_name(void)
{
	return nullptr;
}

void
generic_socket_listening(mirror_task *task, int fd)
{
	task->accept_fn = mirror_listen_accept_common;
	generic_set_socket(task, fd);
}

void
generic_socket_accepted(mirror_task *task, int fd)
{
	task->recv_fn = mirror_sock_data_receive;
	task->write_fn = mirror_sock_conn_send_cntrl_msg;
	task->accept_fn = nullptr;
	generic_set_socket(task, fd);
	task->switchover_fn = mirror_generic_re_switchover;
	task->terminate_fn = mirror_generic_terminate;
}

void
generic_socket_connected(mirror_task *task, int fd)
{
	task->recv_fn = mirror_sock_data_receive;
	task->write_fn = mirror_sock_conn_send_cntrl_msg;
	task->connect_fn = nullptr;
	generic_set_socket(task, fd);
}

void
generic_quit(int)
{
}

void
generic_set_addr(mirror_task *task, mirror_addr *addr)
{
	if (task->addr != addr)
		free(task->addr);
	task->addr = addr;
}

mirror_addr *
generic_get_addr(mirror_task *task)
{
	return task->addr;
}

void *
generic_mgmt_file(void *arg)
{
	return arg;
}

void
generic_nothing(void)
{
}

void
generic_trace_set(void *)
{
}

void *
generic_trace_get(void)
{
	return nullptr;
}

int
generic_utime_should_suspend(void)
{
	return 1;
}

int
generic_set_sa(mirror_task *task, const mirror_addr *)
{
	return iri_set_sa(task->fd, MIRROR_INTERNAL_SA) == 0 ? 0 : errno;
}

} // namespace

const mirror_func_table mirror_generic = {
	mirror_generic_task_alloc,
	generic_task_create,
	generic_task_delete,
	generic_task_socket,
	generic_set_socket,
	generic_block_init,
	generic_block_init_flags,
	generic_block_alloc,
	generic_block_free,
	generic_mem_malloc,
	generic_mem_free,
	generic_timer_create,
	generic_timer_task,
	generic_timer_delete,
	generic_timer_reset,
	generic_timer_set_oneshot,
	generic_timer_running,
	generic_timer_job_pending,
	generic_job_create_background,
	generic_timer_create_background_job,
	generic_job_delete,
	generic_job_data,
	generic_accept,
	mirror_generic_task_alloc,
	generic_addr_local,
	generic_lr_dynamic,
	generic_set_option,
	generic_set_connect,
	generic_set_accept,
	generic_set_recv,
	generic_set_write,
	generic_set_normal_write,
	generic_close,
	generic_get_socket_tcp,
	generic_get_addr_local,
	generic_get_addr_remote,
	generic_socket_disable_write,
	generic_socket_reenable_write,
	generic_socket_disable_receive,
	generic_socket_throttle,
	generic_listen,
	generic_writable,
	generic_connect,
	generic_set_terminate,
	generic_set_re_switchover,
	generic_get_maxpacket,
	generic_is_re_master,
	generic_get_lr_name,
	generic_socket_listening,
	generic_socket_accepted,
	generic_socket_connected,
	generic_quit,
	generic_set_addr,
	generic_get_addr,
	generic_mgmt_file,
	generic_nothing,
	generic_trace_set,
	generic_trace_get,
	generic_nothing,
	generic_utime_should_suspend,
	generic_set_sa,
};

static_assert(sizeof(mirror_func_table) == 61 * sizeof(void *));

const mirror_func_table *mirror_func = &mirror_generic;

/*
 * A task-scheduler host would define __task_create; the placeholder here is
 * weak and stops the process if anything reaches it.
 */
extern "C" __attribute__((weak)) int
__task_create(void *)
{
	mirror_assert(!"__task_create placeholder");
	abort();
}

extern "C" __attribute__((weak)) int __task_create_placeholder(void *) __attribute__((alias("__task_create")));

bool
mirror_task_defined()
{
	return reinterpret_cast<void *>(&__task_create) !=
	    reinterpret_cast<void *>(&__task_create_placeholder);
}

mirror_pipe_counters
mirror_generic_pipe_counters()
{
	return mirror_pipe_counters{wpipe.writes, wpipe.reads, wpipe.fds[0]};
}

void
mirror_assert_fail(const char *expr, const char *file, int line, const char *func)
{
	logging(LOG_CRIT, "mirror assertion failed: %s, function %s, file %s, line %d",
	    expr, func, file, line);
	fprintf(stderr, "mirror assertion failed: %s, function %s, file %s, line %d\n",
	    expr, func, file, line);
	abort();
}
