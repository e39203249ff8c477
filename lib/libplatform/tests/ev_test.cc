/*
 * The event library: descriptor registrations, listen and connect over TCP
 * loopback and unix sockets, timers on a driven and on the real clock,
 * defer, and signals that must wake the loop.
 *
 * Waits are bounded by a watchdog timer or a turn limit, never measured.
 */
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <netinet/in.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <platform/ev.h>

namespace {

struct timespec
ts(time_t sec, long nsec = 0)
{
	return __evConsTime(sec, nsec);
}

class EventLoop : public ::testing::Test {
protected:
	void SetUp() override
	{
		ev_clock_set(nullptr);
		ASSERT_EQ(__evCreate(&ev), 0);
	}

	void TearDown() override
	{
		__evDestroy(ev);
		ev_clock_set(nullptr);
	}

	/* Turn the loop until done() holds; false after many idle turns. */
	bool run_until(const std::function<bool()> &done)
	{
		for (int i = 0; i < 2000 && !done(); i++)
			if (__evLoopOnce(ev, 10) != 0)
				return false;
		return done();
	}

	void turns(int n, int timeout_ms = 0)
	{
		for (int i = 0; i < n; i++)
			ASSERT_EQ(__evLoopOnce(ev, timeout_ms), 0);
	}

	evContext ev{};
};

/* --- descriptors --------------------------------------------------------- */

struct fd_log {
	int reads = 0;
	int writes = 0;
	int read_mask = 0;
	int write_mask = 0;
	evFileID read_id{};
	evFileID write_id{};
	bool close_in_read = false;
};

void
on_read(evContext ctx, void *uap, int fd, int mask)
{
	auto *log = static_cast<fd_log *>(uap);
	char buf[64];

	log->reads++;
	log->read_mask = mask;
	(void)!read(fd, buf, sizeof(buf));
	if (log->close_in_read) {
		EXPECT_EQ(__evDeselectFD(ctx, log->write_id), 0);
		EXPECT_EQ(__evDeselectFD(ctx, log->read_id), 0);
		close(fd);
	}
}

void
on_write(evContext, void *uap, int, int mask)
{
	static_cast<fd_log *>(uap)->writes++;
	static_cast<fd_log *>(uap)->write_mask = mask;
}

TEST_F(EventLoop, DisjointMasksShareADescriptorOverlappingOnesAreRefused)
{
	int sv[2];
	ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
	fd_log log;
	ASSERT_EQ(__evSelectFD(ev, sv[0], EV_READ, on_read, &log, &log.read_id), 0);
	ASSERT_EQ(__evSelectFD(ev, sv[0], EV_WRITE, on_write, &log, &log.write_id), 0);
	evFileID extra;
	errno = 0;
	EXPECT_EQ(__evSelectFD(ev, sv[0], EV_READ | EV_EXCEPT, on_read, &log, &extra), -1);
	EXPECT_EQ(errno, ETOOMANYREFS);

	turns(1);
	EXPECT_EQ(log.reads, 0);
	EXPECT_EQ(log.write_mask, EV_WRITE);
	ASSERT_EQ(write(sv[1], "x", 1), 1);
	ASSERT_TRUE(run_until([&] { return log.reads > 0; }));
	EXPECT_EQ(log.read_mask, EV_READ);

	/* With the write side gone, the read side still works alone. */
	ASSERT_EQ(__evDeselectFD(ev, log.write_id), 0);
	int writes = log.writes;
	ASSERT_EQ(write(sv[1], "y", 1), 1);
	ASSERT_TRUE(run_until([&] { return log.reads > 1; }));
	EXPECT_EQ(log.writes, writes);
	ASSERT_EQ(__evDeselectFD(ev, log.read_id), 0);
	close(sv[0]);
	close(sv[1]);
}

TEST_F(EventLoop, HandlerDeselectsAndClosesItsDescriptor)
{
	int sv[2], again[2];
	ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
	fd_log log, fresh;
	log.close_in_read = true;
	ASSERT_EQ(__evSelectFD(ev, sv[0], EV_READ, on_read, &log, &log.read_id), 0);
	ASSERT_EQ(__evSelectFD(ev, sv[0], EV_WRITE, on_write, &log, &log.write_id), 0);
	ASSERT_EQ(write(sv[1], "x", 1), 1);
	/* Readable and writable in the same turn: the read handler runs first
	 * and kills both, so the write handler of that turn is dropped. */
	turns(1, 1000);
	turns(3);
	EXPECT_EQ(log.reads, 1);
	EXPECT_EQ(log.writes, 0);
	/* Dead IDs are refused, not reused. */
	errno = 0;
	EXPECT_EQ(__evDeselectFD(ev, log.read_id), -1);
	EXPECT_EQ(errno, ENOENT);

	/* The number comes back for a new descriptor, which works normally. */
	ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, again), 0);
	ASSERT_EQ(__evSelectFD(ev, again[0], EV_READ, on_read, &fresh, &fresh.read_id), 0);
	ASSERT_EQ(write(again[1], "z", 1), 1);
	ASSERT_TRUE(run_until([&] { return fresh.reads > 0; }));
	EXPECT_EQ(log.reads, 1);
	ASSERT_EQ(__evDeselectFD(ev, fresh.read_id), 0);
	for (int fd : {again[0], again[1], sv[1]})
		close(fd);
}

TEST_F(EventLoop, DescriptorsEpollCannotWatchAreRefusedAndLeaveNoTrace)
{
	char path[] = "/tmp/ev_test_fileXXXXXX";
	int fd = mkstemp(path), sv[2];
	ASSERT_GE(fd, 0);
	unlink(path);
	fd_log log;
	errno = 0;
	EXPECT_EQ(__evSelectFD(ev, fd, EV_READ, on_read, &log, &log.read_id), -1);
	EXPECT_EQ(errno, EPERM);
	/* A socket under the same number is taken as if nothing had been. */
	ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
	ASSERT_EQ(dup2(sv[0], fd), fd);
	ASSERT_EQ(__evSelectFD(ev, fd, EV_READ, on_read, &log, &log.read_id), 0);
	ASSERT_EQ(write(sv[1], "x", 1), 1);
	ASSERT_TRUE(run_until([&] { return log.reads > 0; }));
	ASSERT_EQ(__evDeselectFD(ev, log.read_id), 0);
	for (int x : {fd, sv[0], sv[1]})
		close(x);
}

/* --- listen and connect -------------------------------------------------- */

/* One per side: what its listen or connect handler was last given. */
struct conn_log {
	int calls = 0;
	int fd = -2;
	int error = 0;
	int lalen = 0;
	int ralen = 0;
};

void
on_conn(evContext, void *uap, int fd, const void *, int lalen, const void *, int ralen)
{
	auto *log = static_cast<conn_log *>(uap);
	*log = {log->calls + 1, fd, fd < 0 ? errno : 0, lalen, ralen};
}

bool
fd_is_open(int fd)
{
	return fcntl(fd, F_GETFD) != -1;
}

/* Each case runs over TCP loopback and over an abstract unix socket. */
class Sockets : public EventLoop, public ::testing::WithParamInterface<int> {
protected:
	int new_socket() { return socket(GetParam(), SOCK_STREAM | SOCK_CLOEXEC, 0); }

	/* A socket bound to a fresh address (the kernel picks the port or the
	 * abstract name), which addr then holds. */
	int bound_socket()
	{
		int fd = new_socket();
		std::memset(&addr, 0, sizeof(addr));
		addr.ss_family = static_cast<sa_family_t>(GetParam());
		addr_len = sizeof(sa_family_t);
		if (GetParam() == AF_INET) {
			auto *sin = reinterpret_cast<struct sockaddr_in *>(&addr);
			sin->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
			addr_len = sizeof(*sin);
		}
		EXPECT_EQ(bind(fd, sa(), addr_len), 0);
		addr_len = sizeof(addr);
		EXPECT_EQ(getsockname(fd, sa(), &addr_len), 0);
		return fd;
	}

	struct sockaddr *sa() { return reinterpret_cast<struct sockaddr *>(&addr); }

	struct sockaddr_storage addr;
	socklen_t addr_len = 0;
};

INSTANTIATE_TEST_SUITE_P(Families, Sockets, ::testing::Values(AF_INET, AF_UNIX));

TEST_P(Sockets, ListenAndConnect)
{
	int lfd = bound_socket(), cfd = new_socket();
	int flags = fcntl(cfd, F_GETFL);
	conn_log server, client;
	evConnID lid, cid;
	ASSERT_EQ(__evListen(ev, lfd, 8, on_conn, &server, &lid), 0);
	ASSERT_EQ(__evConnect(ev, cfd, &addr, addr_len, on_conn, &client, &cid), 0);
	ASSERT_TRUE(run_until([&] { return server.calls > 0 && client.calls > 0; }));
	EXPECT_EQ(client.fd, cfd);
	EXPECT_GT(server.lalen, 0);
	EXPECT_GT(server.ralen, 0);
	EXPECT_EQ(fcntl(cfd, F_GETFL), flags);	/* the caller's flags are back */
	char c = 0;
	ASSERT_EQ(write(cfd, "p", 1), 1);	/* the two ends are one connection */
	ASSERT_EQ(read(server.fd, &c, 1), 1);

	/* Two more clients, accepted one per readiness, none lost. */
	std::vector<int> accepted{server.fd};
	int more[2];
	for (int &fd : more) {
		fd = new_socket();
		ASSERT_EQ(connect(fd, sa(), addr_len), 0);
	}
	ASSERT_TRUE(run_until([&] {
		if (server.fd != accepted.back())
			accepted.push_back(server.fd);
		return server.calls >= 3;
	}));
	EXPECT_EQ(accepted.size(), 3u);

	/* A completed connect cannot be cancelled; a listen can, once. */
	errno = 0;
	EXPECT_EQ(__evCancelConn(ev, cid), -1);
	EXPECT_EQ(errno, ENOENT);
	EXPECT_EQ(__evCancelConn(ev, lid), 0);
	EXPECT_EQ(__evCancelConn(ev, lid), -1);
	accepted.insert(accepted.end(), {more[0], more[1], cfd, lfd});
	for (int fd : accepted)
		close(fd);
}

/*
 * Out of descriptors, a waiting connection is closed at once with the
 * spare descriptor, or, when even that cannot take it, the listener rests
 * a moment; either way the handler hears EMFILE and the loop goes on.
 */
TEST_P(Sockets, FullDescriptorTableNeitherSpinsNorHangsAClient)
{
	int lfd = bound_socket(), c1 = new_socket(), c2 = new_socket();
	conn_log server;
	evConnID lid;
	ASSERT_EQ(__evListen(ev, lfd, 8, on_conn, &server, &lid), 0);
	struct rlimit saved;
	ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
	auto limit = [&](rlim_t soft) {
		struct rlimit r = saved;
		r.rlim_cur = soft;
		ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &r), 0);
	};
	int free_fd = fcntl(0, F_DUPFD_CLOEXEC, 0);
	ASSERT_GE(free_fd, 0);
	close(free_fd);

	/* No free number but the spare's: the client is closed at once. */
	ASSERT_EQ(connect(c1, sa(), addr_len), 0);
	limit(free_fd);
	ASSERT_TRUE(run_until([&] { return server.calls >= 1; }));
	EXPECT_EQ(server.fd, -1);
	EXPECT_EQ(server.error, EMFILE);
	char c;
	EXPECT_EQ(recv(c1, &c, 1, 0), 0);

	/* Not even the spare's: the listener rests, and takes the client
	 * once descriptors are back. */
	ASSERT_EQ(connect(c2, sa(), addr_len), 0);
	limit(3);
	bool refused = run_until([&] { return server.calls >= 2; });
	limit(saved.rlim_cur);
	ASSERT_TRUE(refused);
	EXPECT_EQ(server.error, EMFILE);
	ASSERT_TRUE(run_until([&] { return server.fd >= 0; }));
	ASSERT_EQ(write(c2, "p", 1), 1);
	ASSERT_EQ(read(server.fd, &c, 1), 1);
	for (int fd : {server.fd, c1, c2, lfd})
		close(fd);
}

/* Refused (bound, nobody listening) or cancelled, a connect leaves the
 * caller's descriptor open with its flags, and reports at most once. */
TEST_P(Sockets, RefusedOrCancelledConnectLeavesTheDescriptorAlone)
{
	for (bool cancel : {false, true}) {
		SCOPED_TRACE(cancel);
		int sfd = bound_socket(), cfd = new_socket();
		ASSERT_EQ(cancel ? listen(sfd, 4) : 0, 0);
		int flags = fcntl(cfd, F_GETFL);
		conn_log client;
		evConnID cid;
		errno = 0;
		int rc = __evConnect(ev, cfd, &addr, addr_len, on_conn, &client, &cid);
		if (cancel) {
			ASSERT_EQ(rc, 0);
			ASSERT_EQ(__evCancelConn(ev, cid), 0);
		} else if (rc == 0) {
			/* Refused later: the handler is told, with fd -1. */
			ASSERT_TRUE(run_until([&] { return client.calls > 0; }));
			EXPECT_EQ(client.fd, -1);
			EXPECT_EQ(client.error, ECONNREFUSED);
		} else {
			EXPECT_EQ(errno, ECONNREFUSED);
		}
		turns(5, 10);
		EXPECT_EQ(client.calls, cancel || rc != 0 ? 0 : 1);
		EXPECT_TRUE(fd_is_open(cfd));
		EXPECT_EQ(fcntl(cfd, F_GETFL), flags);
		close(cfd);
		close(sfd);
	}
}

/* --- timers and defer ---------------------------------------------------- */

struct timer_log {
	std::vector<int> order;
	std::vector<struct timespec> dues;
	evTimerID self{};
	size_t clear_after = 0;	/* clear self on this call, 0 never */
};

struct tagged {
	timer_log *log;
	int tag;
};

void
on_timer(evContext ctx, void *uap, struct timespec due, struct timespec)
{
	auto *t = static_cast<tagged *>(uap);
	t->log->order.push_back(t->tag);
	t->log->dues.push_back(due);
	if (t->log->order.size() == t->log->clear_after) {
		EXPECT_EQ(__evClearTimer(ctx, t->log->self), 0);
	}
}

class DrivenClock : public EventLoop {
protected:
	void SetUp() override
	{
		EventLoop::SetUp();
		struct timespec start = ts(1000);
		ev_clock_set(&start);
	}

	void advance_and_turn(time_t sec)
	{
		ev_clock_advance(ts(sec));
		turns(1);
	}
};

TEST_F(DrivenClock, TimersDueInThePastFireOnTheNextTurn)
{
	timer_log log;
	tagged tag[3] = {{&log, 1}, {&log, 2}, {&log, 3}};
	evTimerID id;
	/* Its handler sets another, also in the past, which waits a turn. */
	ASSERT_EQ(__evSetTimer(ev, [](evContext ctx, void *uap, struct timespec,
	                              struct timespec) {
		auto *t = static_cast<tagged *>(uap);
		t->log->order.push_back(t->tag);
		EXPECT_EQ(__evSetTimer(ctx, on_timer, t + 1, ts(1), ts(0), nullptr), 0);
	}, &tag[0], ts(900), ts(0), &id), 0);
	turns(1);
	EXPECT_EQ(log.order, (std::vector<int>{1}));
	turns(1);
	EXPECT_EQ(log.order, (std::vector<int>{1, 2}));
	EXPECT_EQ(__evCmpTime(log.dues[0], ts(1)), 0);

	/* Fired one-shots are gone: their IDs are refused... */
	errno = 0;
	EXPECT_EQ(__evClearTimer(ev, id), -1);
	EXPECT_EQ(errno, ENOENT);
	EXPECT_EQ(__evResetTimer(ev, id, on_timer, &tag[0], ts(2000), ts(0)), -1);
	/* ...and a stale ID never reaches a newer timer. */
	ASSERT_EQ(__evSetTimer(ev, on_timer, &tag[2], ts(1001), ts(0), nullptr), 0);
	EXPECT_EQ(__evClearTimer(ev, id), -1);
	advance_and_turn(1);
	EXPECT_EQ(log.order, (std::vector<int>{1, 2, 3}));
}

TEST_F(DrivenClock, PeriodicTimersRunUntilCleared)
{
	timer_log log;
	log.clear_after = 3;
	tagged p{&log, 7};
	ASSERT_EQ(__evSetTimer(ev, on_timer, &p, ts(1005), ts(5), &log.self), 0);
	turns(1);
	EXPECT_TRUE(log.dues.empty());
	advance_and_turn(5);
	/* Far behind: one call, and the next period counts from now. */
	advance_and_turn(12);
	turns(1);
	ASSERT_EQ(log.dues.size(), 2u);
	EXPECT_EQ(__evCmpTime(log.dues[1], ts(1010)), 0);
	advance_and_turn(5);
	ASSERT_EQ(log.dues.size(), 3u);	/* cleared itself in this call */
	EXPECT_EQ(__evCmpTime(log.dues[2], ts(1022)), 0);
	advance_and_turn(60);
	EXPECT_EQ(log.dues.size(), 3u);
}

TEST_F(DrivenClock, EqualDueTimesFireInOrderOfSetting)
{
	timer_log log;
	tagged t[4] = {{&log, 0}, {&log, 1}, {&log, 2}, {&log, 3}};
	evTimerID ids[4];
	for (int i = 0; i < 4; i++)
		ASSERT_EQ(__evSetTimer(ev, on_timer, &t[i], ts(1003), ts(0), &ids[i]), 0);
	/* A reset goes behind the others of its time. */
	ASSERT_EQ(__evResetTimer(ev, ids[1], on_timer, &t[1], ts(1003), ts(0)), 0);
	ASSERT_EQ(__evClearTimer(ev, ids[2]), 0);
	advance_and_turn(3);
	EXPECT_EQ(log.order, (std::vector<int>{0, 3, 1}));
}

TEST_F(EventLoop, DeferredWorkRunsOnceAtTheStartOfTheNextTurn)
{
	using log_t = std::vector<std::string>;
	log_t log;
	ASSERT_EQ(__evSetSyncHandler(ev, [](evContext, void *uap) {
		static_cast<log_t *>(uap)->push_back("sync");
	}, &log), 0);
	ASSERT_EQ(__evDefer(ev, [](evContext ctx, void *uap) {
		static_cast<log_t *>(uap)->push_back("first");
		__evDefer(ctx, [](evContext, void *uap2) {
			static_cast<log_t *>(uap2)->push_back("second");
		}, uap);
	}, &log), 0);
	turns(3);
	EXPECT_EQ(log, (log_t{"first", "sync", "second", "sync", "sync"}));
}

/* --- signals -------------------------------------------------------------- */

volatile sig_atomic_t usr1_seen;

/* A lost wakeup shows as the watchdog firing, 60 s on. */
struct signal_run {
	bool flag_seen = false;
	bool watchdog = false;
	int raised_flag = -1;	/* the flag right after raise() */
	int go_pipe = -1;
};

class Signals : public EventLoop {
protected:
	void SetUp() override
	{
		EventLoop::SetUp();
		usr1_seen = 0;
		struct sigaction sa = {};
		sa.sa_handler = [](int) { usr1_seen = 1; };
		sigemptyset(&sa.sa_mask);
		ASSERT_EQ(sigaction(SIGUSR1, &sa, &saved), 0);
		/* Every turn ends here. */
		ASSERT_EQ(__evSetSyncHandler(ev, [](evContext ctx, void *uap) {
			if (usr1_seen) {
				static_cast<signal_run *>(uap)->flag_seen = true;
				__evBreak(ctx);
			}
		}, &run), 0);
		/* Bounds the wait should a wakeup be lost; never reached otherwise. */
		ASSERT_EQ(__evSetTimer(ev, [](evContext ctx, void *uap, struct timespec,
		                              struct timespec) {
			static_cast<signal_run *>(uap)->watchdog = true;
			__evBreak(ctx);
		}, &run, __evAddTime(__evNowTime(), ts(60)), ts(0), nullptr), 0);
	}

	void TearDown() override
	{
		EXPECT_FALSE(run.watchdog);
		sigaction(SIGUSR1, &saved, nullptr);
		EventLoop::TearDown();
	}

	struct sigaction saved = {};
	signal_run run;
};

TEST_F(Signals, SignalFromAChildProcessWakesTheWaitingLoop)
{
	int go[2];
	ASSERT_EQ(pipe(go), 0);
	pid_t child = fork();
	ASSERT_GE(child, 0);
	if (child == 0) {
		char c;
		close(go[1]);
		/* Told once the loop runs; most likely it sleeps when the
		 * signal comes, and if not, its next sleep must end at once. */
		if (read(go[0], &c, 1) == 1) {
			usleep(20000);
			kill(getppid(), SIGUSR1);
		}
		_exit(0);
	}
	run.go_pipe = go[1];
	ASSERT_EQ(__evDefer(ev, [](evContext, void *uap) {
		(void)!write(static_cast<signal_run *>(uap)->go_pipe, "g", 1);
	}, &run), 0);
	EXPECT_EQ(__evMainLoopSync(ev), 0);
	close(go[0]);
	close(go[1]);
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_TRUE(WIFEXITED(status));
	EXPECT_TRUE(run.flag_seen);
}

TEST_F(Signals, SignalDuringDispatchIsHeldForTheNextWait)
{
	/* Under the main loop, and between single turns. */
	for (bool main_loop : {true, false}) {
		SCOPED_TRACE(main_loop);
		usr1_seen = 0;
		run = signal_run{};
		ASSERT_EQ(__evDefer(ev, [](evContext, void *uap) {
			raise(SIGUSR1);
			static_cast<signal_run *>(uap)->raised_flag = usr1_seen;
		}, &run), 0);
		if (main_loop) {
			ASSERT_EQ(__evMainLoopSync(ev), 0);
		} else {
			turns(2);
		}
		/* Blocked while the loop dispatched... */
		EXPECT_EQ(run.raised_flag, 0);
		/* ...and seen no later than the turn after. */
		EXPECT_TRUE(run.flag_seen);
	}
}

/* --- the real clock ------------------------------------------------------ */

struct real_timer {
	int fired = 0;
	bool early = false;
};

TEST_F(EventLoop, OnTheRealClockPastTimersFireAtOnceAndNoneEarly)
{
	real_timer t;
	struct timespec now = __evNowTime();
	for (struct timespec due : {__evSubTime(now, ts(1)), __evAddTime(now, ts(0, 20000000))})
		ASSERT_EQ(__evSetTimer(ev, [](evContext ctx, void *uap, struct timespec due,
		                              struct timespec) {
			auto *r = static_cast<real_timer *>(uap);
			r->early |= __evCmpTime(__evNowTime(), due) < 0;
			if (++r->fired == 2)
				__evBreak(ctx);
		}, &t, due, ts(0), nullptr), 0);
	/* A wait that never ends (a past due time taken for a long sleep)
	 * ends the test through SIGALRM's default action instead. */
	alarm(60);
	EXPECT_EQ(__evMainLoopSync(ev), 0);
	alarm(0);
	EXPECT_EQ(t.fired, 2);
	EXPECT_FALSE(t.early);
}

TEST(EventTime, ArithmeticNormalises)
{
	EXPECT_EQ(__evCmpTime(__evConsTime(1, 1500000000), ts(2, 500000000)), 0);
	EXPECT_EQ(__evCmpTime(__evConsTime(1, -1), ts(0, 999999999)), 0);
	EXPECT_EQ(__evCmpTime(__evAddTime(ts(1, 600000000), ts(0, 600000000)),
	                      ts(2, 200000000)), 0);
	EXPECT_EQ(__evCmpTime(__evSubTime(ts(2, 100000000), ts(0, 200000000)),
	                      ts(1, 900000000)), 0);
	EXPECT_LT(__evCmpTime(ts(1, 5), ts(1, 6)), 0);
	EXPECT_GT(__evCmpTime(ts(2, 0), ts(1, 999999999)), 0);
}

} // namespace
