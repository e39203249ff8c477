/*
 * Event library on epoll.  See platform/ev.h for the contract.
 *
 * Invariants:
 *  - A registration (file, listen or connect) is freed only at the end of a
 *    turn; a handler may kill any registration, its own included, and the
 *    dispatcher skips dead ones.
 *  - The epoll interest of a descriptor is the union of the masks of its
 *    live registrations; it is recomputed on every select and deselect.
 *  - Timers live in an ordered set keyed by (due, sequence); among equal due
 *    times the older timer fires first.
 *  - The IDs handed out (evFileID, evTimerID, evConnID) carry a serial
 *    number that is never reused, not a pointer: an ID kept after its
 *    registration died (a one-shot timer that fired, a connect that
 *    completed, a second deselect) is refused with ENOENT instead of
 *    touching freed memory or a newer registration at the same address.
 */
#include "platform/ev.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <cstdint>
#include <fcntl.h>
#include <map>
#include <memory>
#include <pthread.h>
#include <set>
#include <sys/epoll.h>
#include <unistd.h>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

struct ev_context;

struct file_reg {
	int fd;
	int mask;
	evFileFunc func;
	void *uap;
	uint64_t id = 0;
	bool dead = false;
};

struct conn_reg {
	ev_context *ctx;
	int fd;
	bool listening;
	int saved_flags;	/* connect: the caller's file flags, restored */
	evConnFunc func;
	void *uap;
	evFileID file{};
	uint64_t id = 0;
	bool dead = false;
	bool paused = false;	/* listen: not watched until pause_timer */
	evTimerID pause_timer{};
};

struct ev_timer {
	struct timespec due;
	struct timespec inter;
	evTimerFunc func;
	void *uap;
	unsigned long seq;
	uint64_t id = 0;
};

struct timer_order {
	bool operator()(const ev_timer *a, const ev_timer *b) const
	{
		int c = __evCmpTime(a->due, b->due);
		if (c != 0)
			return c < 0;
		return a->seq < b->seq;
	}
};

struct deferred {
	evDeferFunc func;
	void *uap;
};

struct ev_context {
	int epfd = -1;
	std::unordered_map<int, std::vector<file_reg *>> files;
	std::vector<file_reg *> dead_files;
	std::vector<conn_reg *> dead_conns;
	std::set<ev_timer *, timer_order> timers;
	/* Live registrations by ID. */
	std::unordered_map<uint64_t, file_reg *> file_ids;
	std::unordered_map<uint64_t, conn_reg *> conn_ids;
	std::unordered_map<uint64_t, ev_timer *> timer_ids;
	uint64_t next_id = 0;
	unsigned long timer_seq = 0;
	std::deque<deferred> defers;
	evSyncFunc sync = nullptr;
	void *sync_uap = nullptr;
	bool stop = false;
	/* Held for a listener to accept and close with when the descriptor
	 * table is full; opened with the first listen. */
	int spare_fd = -1;
	bool signals_blocked = false;
	sigset_t wait_mask;
};

bool test_clock_on;
struct timespec test_clock_now;

ev_context *ctx_of(evContext c)
{
	return static_cast<ev_context *>(c.opaque);
}

evContext handle_of(ev_context *c)
{
	return evContext{c};
}

void *id_opaque(uint64_t id)
{
	return reinterpret_cast<void *>(static_cast<uintptr_t>(id));
}

uint64_t opaque_id(const void *opaque)
{
	return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(opaque));
}

template <typename T>
T *find_id(std::unordered_map<uint64_t, T *> &ids, const void *opaque)
{
	auto it = ids.find(opaque_id(opaque));
	return it == ids.end() ? nullptr : it->second;
}

int epoll_events_of(int mask)
{
	int ev = 0;
	if (mask & EV_READ)
		ev |= EPOLLIN;
	if (mask & EV_WRITE)
		ev |= EPOLLOUT;
	if (mask & EV_EXCEPT)
		ev |= EPOLLPRI;
	return ev;
}

int ready_mask_of(uint32_t events)
{
	int mask = 0;
	if (events & (EPOLLIN | EPOLLHUP | EPOLLERR | EPOLLRDHUP))
		mask |= EV_READ;
	if (events & (EPOLLOUT | EPOLLHUP | EPOLLERR))
		mask |= EV_WRITE;
	if (events & EPOLLPRI)
		mask |= EV_EXCEPT;
	return mask;
}

int live_mask(const std::vector<file_reg *> &regs)
{
	int mask = 0;
	for (const file_reg *r : regs)
		if (!r->dead)
			mask |= r->mask;
	return mask;
}

/* Bring epoll's interest in fd in line with the live registrations.
 * -1 with errno when epoll refuses the descriptor. */
int update_interest(ev_context *ctx, int fd, int old_mask)
{
	auto it = ctx->files.find(fd);
	int mask = it == ctx->files.end() ? 0 : live_mask(it->second);
	struct epoll_event ev = {};
	ev.events = epoll_events_of(mask);
	ev.data.fd = fd;
	if (mask == 0) {
		/* Fails harmlessly when the descriptor is already closed. */
		if (old_mask != 0)
			epoll_ctl(ctx->epfd, EPOLL_CTL_DEL, fd, nullptr);
		return 0;
	}
	int op = old_mask == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
	if (epoll_ctl(ctx->epfd, op, fd, &ev) == 0)
		return 0;
	/* The descriptor was closed and its number reused behind our back. */
	if (errno == ENOENT)
		return epoll_ctl(ctx->epfd, EPOLL_CTL_ADD, fd, &ev);
	if (errno == EEXIST)
		return epoll_ctl(ctx->epfd, EPOLL_CTL_MOD, fd, &ev);
	return -1;
}

void reap_dead(ev_context *ctx)
{
	for (file_reg *r : ctx->dead_files)
		delete r;
	ctx->dead_files.clear();
	for (conn_reg *c : ctx->dead_conns)
		delete c;
	ctx->dead_conns.clear();
}

void run_defers(ev_context *ctx)
{
	/* Only what was queued before this turn; new ones wait for the next. */
	size_t n = ctx->defers.size();
	for (size_t i = 0; i < n && !ctx->defers.empty(); i++) {
		deferred d = ctx->defers.front();
		ctx->defers.pop_front();
		d.func(handle_of(ctx), d.uap);
	}
}

void run_timers(ev_context *ctx)
{
	struct timespec now = __evNowTime();
	/* By ID and sequence: a handler may clear a later timer (and a new one
	 * may be allocated at its address) or reset it; those are skipped and
	 * whatever is due then fires on the next turn. */
	std::vector<std::pair<uint64_t, unsigned long>> due;
	for (ev_timer *t : ctx->timers) {
		if (__evCmpTime(t->due, now) > 0)
			break;
		due.emplace_back(t->id, t->seq);
	}
	for (const auto &d : due) {
		auto it = ctx->timer_ids.find(d.first);
		if (it == ctx->timer_ids.end())
			continue;	/* cleared by an earlier handler */
		ev_timer *t = it->second;
		if (t->seq != d.second || __evCmpTime(t->due, now) > 0)
			continue;	/* reset by an earlier handler */
		ctx->timers.erase(t);
		struct timespec fired_due = t->due, inter = t->inter;
		bool periodic = inter.tv_sec != 0 || inter.tv_nsec != 0;
		if (periodic) {
			t->due = __evAddTime(t->due, inter);
			if (__evCmpTime(t->due, now) <= 0)
				t->due = __evAddTime(now, inter);
			t->seq = ++ctx->timer_seq;
			ctx->timers.insert(t);
		} else {
			ctx->timer_ids.erase(t->id);
		}
		evTimerFunc func = t->func;
		void *uap = t->uap;
		if (!periodic)
			delete t;
		func(handle_of(ctx), uap, fired_due, inter);
	}
}

int wait_timeout(ev_context *ctx, int timeout_ms)
{
	if (!ctx->defers.empty())
		return 0;
	if (ctx->timers.empty())
		return timeout_ms;
	struct timespec now = __evNowTime();
	const ev_timer *first = *ctx->timers.begin();
	if (__evCmpTime(first->due, now) <= 0)
		return 0;
	if (test_clock_on)
		return timeout_ms;	/* the test moves time, not the kernel */
	struct timespec left = __evSubTime(first->due, now);
	long ms = left.tv_sec * 1000 + (left.tv_nsec + 999999) / 1000000;
	if (timeout_ms >= 0 && timeout_ms < ms)
		return timeout_ms;
	return static_cast<int>(std::min(ms, 24L * 3600 * 1000));
}

void dispatch_files(ev_context *ctx, const struct epoll_event *events, int n)
{
	for (int i = 0; i < n; i++) {
		int fd = events[i].data.fd;
		int ready = ready_mask_of(events[i].events);
		auto it = ctx->files.find(fd);
		if (it == ctx->files.end())
			continue;
		std::vector<file_reg *> regs = it->second;	/* handlers may edit it */
		for (file_reg *r : regs) {
			if (r->dead || (r->mask & ready) == 0)
				continue;
			r->func(handle_of(ctx), r->uap, fd, r->mask & ready);
		}
	}
}

/* pthread_sigmask: the mask is the loop thread's own, whatever other
 * threads the process has. */
void block_loop_signals(ev_context *ctx)
{
	sigset_t set;
	ev_loop_signals(&set);
	pthread_sigmask(SIG_BLOCK, &set, &ctx->wait_mask);
	/* While waiting, let through exactly what the caller let through. */
	ctx->signals_blocked = true;
}

void unblock_loop_signals(ev_context *ctx)
{
	pthread_sigmask(SIG_SETMASK, &ctx->wait_mask, nullptr);
	ctx->signals_blocked = false;
}

int loop_turn(ev_context *ctx, int timeout_ms)
{
	struct epoll_event events[64];
	run_defers(ctx);
	int n = epoll_pwait(ctx->epfd, events, 64, wait_timeout(ctx, timeout_ms),
	                    &ctx->wait_mask);
	if (n < 0 && errno != EINTR)
		return -1;
	if (n > 0)
		dispatch_files(ctx, events, n);
	run_timers(ctx);
	if (ctx->sync != nullptr)
		ctx->sync(handle_of(ctx), ctx->sync_uap);
	reap_dead(ctx);
	return 0;
}

void conn_ready(evContext c, void *uap, int fd, int mask);

void listen_ready(evContext c, void *uap, int fd, int mask);

int open_spare(void)
{
	return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

void listen_resume(evContext c, void *uap, struct timespec, struct timespec)
{
	conn_reg *cr = static_cast<conn_reg *>(uap);
	ev_context *ctx = ctx_of(c);
	cr->paused = false;
	if (ctx->spare_fd < 0)
		ctx->spare_fd = open_spare();
	if (!cr->dead)
		(void)__evSelectFD(c, cr->fd, EV_READ, listen_ready, cr, &cr->file);
}

/*
 * accept failed for want of a descriptor or of memory, with a connection
 * still waiting: the listener stays readable, and a level-triggered loop
 * would call us again at once, for ever.  Give the spare descriptor up
 * for a moment to take that connection and close it, so that its client
 * hears at once instead of hanging; when even that fails, stop watching
 * the listener for a moment.  The handler is told either way.
 */
void listen_overloaded(evContext c, conn_reg *cr, int err)
{
	ev_context *ctx = ctx_of(c);
	bool shed = false, spent = ctx->spare_fd >= 0;
	if (spent) {
		close(ctx->spare_fd);
		ctx->spare_fd = -1;
		int nfd = accept4(cr->fd, nullptr, nullptr, SOCK_CLOEXEC);
		if (nfd >= 0) {
			close(nfd);
			shed = true;
		}
	}
	/* With the spare still free, so that the handler can log. */
	errno = err;
	cr->func(c, cr->uap, -1, nullptr, 0, nullptr, 0);
	if (spent)
		ctx->spare_fd = open_spare();
	if ((!shed || ctx->spare_fd < 0) && !cr->paused && !cr->dead &&
	    __evSetTimer(c, listen_resume, cr,
	                 __evAddTime(__evNowTime(), __evConsTime(0, 100000000)),
	                 __evConsTime(0, 0), &cr->pause_timer) == 0) {
		__evDeselectFD(c, cr->file);
		cr->paused = true;
	}
}

void listen_ready(evContext c, void *uap, int fd, int mask)
{
	(void)mask;
	conn_reg *cr = static_cast<conn_reg *>(uap);
	struct sockaddr_storage ra, la;
	socklen_t ralen = sizeof(ra), lalen = sizeof(la);
	int nfd = accept4(fd, reinterpret_cast<struct sockaddr *>(&ra), &ralen,
	                  SOCK_CLOEXEC);
	if (nfd < 0) {
		if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS ||
		    errno == ENOMEM)
			listen_overloaded(c, cr, errno);
		/* EAGAIN or a connection that went away: nothing to do */
		return;
	}
	if (getsockname(nfd, reinterpret_cast<struct sockaddr *>(&la), &lalen) != 0)
		lalen = 0;
	cr->func(c, cr->uap, nfd, &la, static_cast<int>(lalen), &ra,
	         static_cast<int>(ralen));
}

void kill_conn(ev_context *ctx, conn_reg *cr)
{
	if (cr->paused)
		__evClearTimer(handle_of(ctx), cr->pause_timer);
	else
		__evDeselectFD(handle_of(ctx), cr->file);
	if (!cr->listening)
		fcntl(cr->fd, F_SETFL, cr->saved_flags);
	cr->dead = true;
	ctx->conn_ids.erase(cr->id);
	ctx->dead_conns.push_back(cr);
}

void finish_connect(ev_context *ctx, conn_reg *cr, int error)
{
	kill_conn(ctx, cr);
	struct sockaddr_storage la, ra;
	socklen_t lalen = sizeof(la), ralen = sizeof(ra);
	if (error == 0 &&
	    getpeername(cr->fd, reinterpret_cast<struct sockaddr *>(&ra), &ralen) != 0)
		error = errno;
	if (error != 0) {
		errno = error;
		cr->func(handle_of(ctx), cr->uap, -1, nullptr, 0, nullptr, 0);
		return;
	}
	if (getsockname(cr->fd, reinterpret_cast<struct sockaddr *>(&la), &lalen) != 0)
		lalen = 0;
	cr->func(handle_of(ctx), cr->uap, cr->fd, &la, static_cast<int>(lalen), &ra,
	         static_cast<int>(ralen));
}

void conn_ready(evContext c, void *uap, int fd, int mask)
{
	(void)mask;
	conn_reg *cr = static_cast<conn_reg *>(uap);
	if (cr->dead)
		return;
	int error = 0;
	socklen_t len = sizeof(error);
	if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) != 0)
		error = errno;
	finish_connect(ctx_of(c), cr, error);
}

} // namespace

extern "C" {

void ev_loop_signals(sigset_t *set)
{
	sigemptyset(set);
	for (int sig : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGPWR,
	                SIGALRM, SIGCHLD})
		sigaddset(set, sig);
}

int __evCreate(evContext *out)
{
	auto ctx = std::make_unique<ev_context>();
	ctx->epfd = epoll_create1(EPOLL_CLOEXEC);
	if (ctx->epfd < 0)
		return -1;
	pthread_sigmask(SIG_SETMASK, nullptr, &ctx->wait_mask);
	out->opaque = ctx.release();
	return 0;
}

int __evDestroy(evContext c)
{
	ev_context *ctx = ctx_of(c);
	if (ctx == nullptr)
		return -1;
	for (auto &entry : ctx->files)
		for (file_reg *r : entry.second)
			delete r;
	for (auto &entry : ctx->conn_ids)
		delete entry.second;
	for (auto &entry : ctx->timer_ids)
		delete entry.second;
	reap_dead(ctx);
	if (ctx->spare_fd >= 0)
		close(ctx->spare_fd);
	close(ctx->epfd);
	delete ctx;
	return 0;
}

int __evSetSyncHandler(evContext c, evSyncFunc func, void *uap)
{
	ev_context *ctx = ctx_of(c);
	ctx->sync = func;
	ctx->sync_uap = uap;
	return 0;
}

int __evLoopOnce(evContext c, int timeout_ms)
{
	ev_context *ctx = ctx_of(c);
	if (ctx->signals_blocked)
		return loop_turn(ctx, timeout_ms);
	block_loop_signals(ctx);
	int rc = loop_turn(ctx, timeout_ms);
	unblock_loop_signals(ctx);
	return rc;
}

int __evMainLoopSync(evContext c)
{
	ev_context *ctx = ctx_of(c);
	/* Blocked for the whole loop and opened only inside epoll_pwait, so a
	 * signal can never slip in between a flag test and the wait. */
	block_loop_signals(ctx);
	ctx->stop = false;
	int rc = 0;
	while (!ctx->stop && rc == 0)
		rc = loop_turn(ctx, -1);
	int saved = errno;
	unblock_loop_signals(ctx);
	errno = saved;
	return rc;
}

void __evBreak(evContext c)
{
	ctx_of(c)->stop = true;
}

int __evSelectFD(evContext c, int fd, int eventmask, evFileFunc func, void *uap,
                 evFileID *id)
{
	ev_context *ctx = ctx_of(c);
	if (fd < 0 || func == nullptr || (eventmask & (EV_READ | EV_WRITE | EV_EXCEPT)) == 0) {
		errno = EINVAL;
		return -1;
	}
	auto &regs = ctx->files[fd];
	int old = live_mask(regs);
	if (old & eventmask) {
		errno = ETOOMANYREFS;	/* masks of one descriptor must be disjoint */
		return -1;
	}
	auto *r = new file_reg{fd, eventmask & (EV_READ | EV_WRITE | EV_EXCEPT), func, uap};
	regs.push_back(r);
	if (update_interest(ctx, fd, old) != 0) {
		/* Not a descriptor epoll takes (a regular file, a closed fd). */
		int err = errno;
		regs.pop_back();
		if (regs.empty())
			ctx->files.erase(fd);
		delete r;
		errno = err;
		return -1;
	}
	r->id = ++ctx->next_id;
	ctx->file_ids[r->id] = r;
	if (id != nullptr)
		id->opaque = id_opaque(r->id);
	return 0;
}

int __evDeselectFD(evContext c, evFileID id)
{
	ev_context *ctx = ctx_of(c);
	file_reg *r = find_id(ctx->file_ids, id.opaque);
	if (r == nullptr || r->dead) {
		errno = ENOENT;
		return -1;
	}
	ctx->file_ids.erase(r->id);
	auto it = ctx->files.find(r->fd);
	if (it == ctx->files.end()) {
		errno = ENOENT;
		return -1;
	}
	int old = live_mask(it->second);
	r->dead = true;
	it->second.erase(std::remove(it->second.begin(), it->second.end(), r),
	                 it->second.end());
	int fd = r->fd;
	if (it->second.empty())
		ctx->files.erase(it);
	update_interest(ctx, fd, old);
	ctx->dead_files.push_back(r);
	return 0;
}

int __evListen(evContext c, int fd, int maxconn, evConnFunc func, void *uap,
               evConnID *id)
{
	ev_context *ctx = ctx_of(c);
	if (listen(fd, maxconn) != 0)
		return -1;
	if (ctx->spare_fd < 0)
		ctx->spare_fd = open_spare();
	int flags = fcntl(fd, F_GETFL);
	fcntl(fd, F_SETFL, flags | O_NONBLOCK);
	auto *cr = new conn_reg{ctx, fd, true, flags, func, uap};
	if (__evSelectFD(c, fd, EV_READ, listen_ready, cr, &cr->file) != 0) {
		int err = errno;
		fcntl(fd, F_SETFL, flags);
		delete cr;
		errno = err;
		return -1;
	}
	cr->id = ++ctx->next_id;
	ctx->conn_ids[cr->id] = cr;
	if (id != nullptr)
		id->opaque = id_opaque(cr->id);
	return 0;
}

int __evConnect(evContext c, int fd, const void *ra, int ralen, evConnFunc func,
                void *uap, evConnID *id)
{
	ev_context *ctx = ctx_of(c);
	int flags = fcntl(fd, F_GETFL);
	if (flags < 0)
		return -1;
	fcntl(fd, F_SETFL, flags | O_NONBLOCK);
	auto *cr = new conn_reg{ctx, fd, false, flags, func, uap};
	int rc = connect(fd, static_cast<const struct sockaddr *>(ra),
	                 static_cast<socklen_t>(ralen));
	if (rc != 0 && errno != EINPROGRESS && errno != EAGAIN) {
		/* An immediate failure (a unix socket with no listener) is the
		 * caller's to see now; the descriptor stays open and unchanged. */
		int err = errno;
		fcntl(fd, F_SETFL, flags);
		delete cr;
		errno = err;
		return -1;
	}
	/* Completion, immediate or not, is reported when the socket is writable. */
	if (__evSelectFD(c, fd, EV_WRITE, conn_ready, cr, &cr->file) != 0) {
		int err = errno;
		fcntl(fd, F_SETFL, flags);
		delete cr;
		errno = err;
		return -1;
	}
	cr->id = ++ctx->next_id;
	ctx->conn_ids[cr->id] = cr;
	if (id != nullptr)
		id->opaque = id_opaque(cr->id);
	return 0;
}

int __evCancelConn(evContext c, evConnID id)
{
	ev_context *ctx = ctx_of(c);
	conn_reg *cr = find_id(ctx->conn_ids, id.opaque);
	if (cr == nullptr || cr->dead) {
		errno = ENOENT;
		return -1;
	}
	kill_conn(ctx, cr);
	return 0;
}

int __evDefer(evContext c, evDeferFunc func, void *uap)
{
	ctx_of(c)->defers.push_back(deferred{func, uap});
	return 0;
}

int __evSetTimer(evContext c, evTimerFunc func, void *uap, struct timespec due,
                 struct timespec inter, evTimerID *id)
{
	ev_context *ctx = ctx_of(c);
	if (func == nullptr) {
		errno = EINVAL;
		return -1;
	}
	auto *t = new ev_timer{due, inter, func, uap, ++ctx->timer_seq};
	t->id = ++ctx->next_id;
	ctx->timers.insert(t);
	ctx->timer_ids[t->id] = t;
	if (id != nullptr)
		id->opaque = id_opaque(t->id);
	return 0;
}

int __evResetTimer(evContext c, evTimerID id, evTimerFunc func, void *uap,
                   struct timespec due, struct timespec inter)
{
	ev_context *ctx = ctx_of(c);
	ev_timer *t = find_id(ctx->timer_ids, id.opaque);
	if (t == nullptr || func == nullptr) {
		errno = t == nullptr ? ENOENT : EINVAL;
		return -1;
	}
	ctx->timers.erase(t);
	t->func = func;
	t->uap = uap;
	t->due = due;
	t->inter = inter;
	t->seq = ++ctx->timer_seq;
	ctx->timers.insert(t);
	return 0;
}

int __evClearTimer(evContext c, evTimerID id)
{
	ev_context *ctx = ctx_of(c);
	ev_timer *t = find_id(ctx->timer_ids, id.opaque);
	if (t == nullptr) {
		errno = ENOENT;
		return -1;
	}
	ctx->timers.erase(t);
	ctx->timer_ids.erase(t->id);
	delete t;
	return 0;
}

struct timespec __evNowTime(void)
{
	if (test_clock_on)
		return test_clock_now;
	struct timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return ts;
}

struct timespec __evConsTime(time_t sec, long nsec)
{
	struct timespec ts;
	ts.tv_sec = sec + nsec / 1000000000L;
	ts.tv_nsec = nsec % 1000000000L;
	if (ts.tv_nsec < 0) {
		ts.tv_nsec += 1000000000L;
		ts.tv_sec--;
	}
	return ts;
}

struct timespec __evAddTime(struct timespec a, struct timespec b)
{
	return __evConsTime(a.tv_sec + b.tv_sec, a.tv_nsec + b.tv_nsec);
}

struct timespec __evSubTime(struct timespec a, struct timespec b)
{
	return __evConsTime(a.tv_sec - b.tv_sec, a.tv_nsec - b.tv_nsec);
}

int __evCmpTime(struct timespec a, struct timespec b)
{
	if (a.tv_sec != b.tv_sec)
		return a.tv_sec < b.tv_sec ? -1 : 1;
	if (a.tv_nsec != b.tv_nsec)
		return a.tv_nsec < b.tv_nsec ? -1 : 1;
	return 0;
}

void ev_clock_set(const struct timespec *now)
{
	test_clock_on = now != nullptr;
	if (now != nullptr)
		test_clock_now = *now;
}

void ev_clock_advance(struct timespec by)
{
	test_clock_now = __evAddTime(test_clock_now, by);
}

} // extern "C"
