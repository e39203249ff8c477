/*
 * The event library: descriptor registrations, listen and connect over TCP
 * loopback and unix sockets, timers on a driven and on the real clock,
 * defer, and signals that must wake the loop.
 *
 * Waits are bounded by a watchdog timer or a turn limit, never measured.
 */
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <netinet/in.h>
#include <pthread.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
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

	evContext ev{};
};

/* --- descriptors --------------------------------------------------------- */

struct fd_log {
	int reads = 0;
	int writes = 0;
	int last_read_mask = 0;
	int last_write_mask = 0;
	evFileID read_id{};
	evFileID write_id{};
	bool close_in_read = false;
};

void
on_read(evContext ctx, void *uap, int fd, int mask)
{
	auto *log = static_cast<fd_log *>(uap);
	log->reads++;
	log->last_read_mask = mask;
	char buf[64];
	(void)!read(fd, buf, sizeof(buf));
	if (log->close_in_read) {
		EXPECT_EQ(__evDeselectFD(ctx, log->write_id), 0);
		EXPECT_EQ(__evDeselectFD(ctx, log->read_id), 0);
		close(fd);
	}
}

void
on_write(evContext ctx, void *uap, int fd, int mask)
{
	(void)ctx;
	(void)fd;
	auto *log = static_cast<fd_log *>(uap);
	log->writes++;
	log->last_write_mask = mask;
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

	ASSERT_EQ(__evLoopOnce(ev, 0), 0);
	EXPECT_EQ(log.reads, 0);
	EXPECT_GE(log.writes, 1);
	EXPECT_EQ(log.last_write_mask, EV_WRITE);

	ASSERT_EQ(write(sv[1], "x", 1), 1);
	ASSERT_TRUE(run_until([&] { return log.reads > 0; }));
	EXPECT_EQ(log.reads, 1);
	EXPECT_EQ(log.last_read_mask, EV_READ);

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
	int sv[2];
	ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
	fd_log log;
	log.close_in_read = true;
	ASSERT_EQ(__evSelectFD(ev, sv[0], EV_READ, on_read, &log, &log.read_id), 0);
	ASSERT_EQ(__evSelectFD(ev, sv[0], EV_WRITE, on_write, &log, &log.write_id), 0);
	ASSERT_EQ(write(sv[1], "x", 1), 1);
	/* Readable and writable in the same turn: the read handler runs first
	 * and kills both, so the write handler of that turn is dropped. */
	ASSERT_EQ(__evLoopOnce(ev, 1000), 0);
	EXPECT_EQ(log.reads, 1);
	EXPECT_EQ(log.writes, 0);
	for (int i = 0; i < 3; i++)
		ASSERT_EQ(__evLoopOnce(ev, 0), 0);
	EXPECT_EQ(log.reads, 1);
	EXPECT_EQ(log.writes, 0);

	/* Dead IDs are refused, not reused. */
	errno = 0;
	EXPECT_EQ(__evDeselectFD(ev, log.read_id), -1);
	EXPECT_EQ(errno, ENOENT);

	/* The number comes back for a new descriptor, which works normally. */
	int again[2];
	ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, again), 0);
	fd_log fresh;
	ASSERT_EQ(__evSelectFD(ev, again[0], EV_READ, on_read, &fresh, &fresh.read_id), 0);
	ASSERT_EQ(write(again[1], "z", 1), 1);
	ASSERT_TRUE(run_until([&] { return fresh.reads > 0; }));
	EXPECT_EQ(log.reads, 1);
	ASSERT_EQ(__evDeselectFD(ev, fresh.read_id), 0);
	close(again[0]);
	close(again[1]);
	close(sv[1]);
}

TEST_F(EventLoop, DescriptorsEpollCannotWatchAreRefused)
{
	char path[] = "/tmp/ev_test_fileXXXXXX";
	int fd = mkstemp(path);
	ASSERT_GE(fd, 0);
	unlink(path);
	fd_log log;
	errno = 0;
	EXPECT_EQ(__evSelectFD(ev, fd, EV_READ, on_read, &log, &log.read_id), -1);
	EXPECT_EQ(errno, EPERM);
	/* Nothing half-registered stays behind. */
	EXPECT_EQ(__evLoopOnce(ev, 0), 0);
	EXPECT_EQ(log.reads, 0);
	close(fd);
}

/* --- listen and connect -------------------------------------------------- */

struct conn_log {
	int accepted = -1;
	int accepts = 0;
	int accept_lalen = 0;
	int accept_ralen = 0;
	int connected = -2;	/* fd given to the connect handler */
	int connect_errno = 0;
	int connects = 0;
};

void
on_accept(evContext ctx, void *uap, int fd, const void *la, int lalen,
          const void *ra, int ralen)
{
	(void)ctx;
	(void)la;
	(void)ra;
	auto *log = static_cast<conn_log *>(uap);
	log->accepts++;
	log->accepted = fd;
	log->accept_lalen = lalen;
	log->accept_ralen = ralen;
}

void
on_connect(evContext ctx, void *uap, int fd, const void *la, int lalen,
           const void *ra, int ralen)
{
	(void)ctx;
	(void)la;
	(void)lalen;
	(void)ra;
	(void)ralen;
	auto *log = static_cast<conn_log *>(uap);
	log->connects++;
	log->connected = fd;
	log->connect_errno = fd < 0 ? errno : 0;
}

bool
fd_is_open(int fd)
{
	return fcntl(fd, F_GETFD) != -1;
}

void
expect_round_trip(int a, int b)
{
	ASSERT_EQ(write(a, "ping", 4), 4);
	char buf[8] = {};
	ASSERT_EQ(read(b, buf, sizeof(buf)), 4);
	EXPECT_STREQ(buf, "ping");
}

TEST_F(EventLoop, ListenAndConnectOverTcpLoopback)
{
	int lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	ASSERT_GE(lfd, 0);
	struct sockaddr_in sin = {};
	sin.sin_family = AF_INET;
	sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	ASSERT_EQ(bind(lfd, reinterpret_cast<struct sockaddr *>(&sin), sizeof(sin)), 0);
	socklen_t len = sizeof(sin);
	ASSERT_EQ(getsockname(lfd, reinterpret_cast<struct sockaddr *>(&sin), &len), 0);

	conn_log log;
	evConnID lid, cid;
	ASSERT_EQ(__evListen(ev, lfd, 8, on_accept, &log, &lid), 0);
	int cfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	int flags = fcntl(cfd, F_GETFL);
	ASSERT_EQ(__evConnect(ev, cfd, &sin, sizeof(sin), on_connect, &log, &cid), 0);
	ASSERT_TRUE(run_until([&] { return log.accepts > 0 && log.connects > 0; }));

	EXPECT_EQ(log.connected, cfd);
	EXPECT_GE(log.accepted, 0);
	EXPECT_EQ(log.accept_lalen, static_cast<int>(sizeof(struct sockaddr_in)));
	EXPECT_EQ(log.accept_ralen, static_cast<int>(sizeof(struct sockaddr_in)));
	EXPECT_EQ(fcntl(cfd, F_GETFL), flags);	/* the caller's flags are back */
	expect_round_trip(cfd, log.accepted);
	expect_round_trip(log.accepted, cfd);

	/* A completed connect cannot be cancelled; a listen can. */
	errno = 0;
	EXPECT_EQ(__evCancelConn(ev, cid), -1);
	EXPECT_EQ(errno, ENOENT);
	EXPECT_EQ(__evCancelConn(ev, lid), 0);
	EXPECT_EQ(__evCancelConn(ev, lid), -1);
	close(log.accepted);
	close(cfd);
	close(lfd);
}

class UnixSockets : public EventLoop {
protected:
	void SetUp() override
	{
		EventLoop::SetUp();
		char tmpl[] = "/tmp/ev_test_XXXXXX";
		ASSERT_NE(mkdtemp(tmpl), nullptr);
		dir = tmpl;
	}

	void TearDown() override
	{
		unlink(path().c_str());
		rmdir(dir.c_str());
		EventLoop::TearDown();
	}

	std::string path() const { return dir + "/sock"; }

	struct sockaddr_un address() const
	{
		struct sockaddr_un sun = {};
		sun.sun_family = AF_UNIX;
		std::snprintf(sun.sun_path, sizeof(sun.sun_path), "%s", path().c_str());
		return sun;
	}

	std::string dir;
};

TEST_F(UnixSockets, ListenAndConnect)
{
	struct sockaddr_un sun = address();
	int lfd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	ASSERT_EQ(bind(lfd, reinterpret_cast<struct sockaddr *>(&sun), sizeof(sun)), 0);
	conn_log log;
	evConnID lid, cid;
	ASSERT_EQ(__evListen(ev, lfd, 8, on_accept, &log, &lid), 0);

	int cfd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	int flags = fcntl(cfd, F_GETFL);
	ASSERT_EQ(__evConnect(ev, cfd, &sun, sizeof(sun), on_connect, &log, &cid), 0);
	ASSERT_TRUE(run_until([&] { return log.accepts > 0 && log.connects > 0; }));
	EXPECT_EQ(log.connected, cfd);
	EXPECT_EQ(fcntl(cfd, F_GETFL), flags);
	expect_round_trip(cfd, log.accepted);

	/* Two more clients, accepted one per readiness, none lost. */
	int more[2];
	for (int &fd : more) {
		fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
		ASSERT_EQ(connect(fd, reinterpret_cast<struct sockaddr *>(&sun), sizeof(sun)), 0);
	}
	std::vector<int> accepted{log.accepted};
	ASSERT_TRUE(run_until([&] {
		if (log.accepted != accepted.back())
			accepted.push_back(log.accepted);
		return log.accepts >= 3;
	}));
	EXPECT_EQ(log.accepts, 3);
	EXPECT_EQ(__evCancelConn(ev, lid), 0);
	if (log.accepted != accepted.back())
		accepted.push_back(log.accepted);
	for (int fd : accepted)
		close(fd);
	for (int fd : more)
		close(fd);
	close(cfd);
	close(lfd);
}

TEST_F(UnixSockets, RefusedConnectLeavesTheDescriptorOpen)
{
	struct sockaddr_un sun = address();
	/* Bound but not listening: the path exists, nobody answers. */
	int bound = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	ASSERT_EQ(bind(bound, reinterpret_cast<struct sockaddr *>(&sun), sizeof(sun)), 0);
	int cfd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	int flags = fcntl(cfd, F_GETFL);
	conn_log log;
	evConnID cid;
	errno = 0;
	EXPECT_EQ(__evConnect(ev, cfd, &sun, sizeof(sun), on_connect, &log, &cid), -1);
	EXPECT_EQ(errno, ECONNREFUSED);
	EXPECT_TRUE(fd_is_open(cfd));
	EXPECT_EQ(fcntl(cfd, F_GETFL), flags);
	for (int i = 0; i < 3; i++)
		ASSERT_EQ(__evLoopOnce(ev, 0), 0);
	EXPECT_EQ(log.connects, 0);
	close(cfd);
	close(bound);
}

TEST_F(EventLoop, RefusedTcpConnectLeavesTheDescriptorOpen)
{
	/* A bound port with no listener answers with a reset. */
	int bound = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	struct sockaddr_in sin = {};
	sin.sin_family = AF_INET;
	sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	ASSERT_EQ(bind(bound, reinterpret_cast<struct sockaddr *>(&sin), sizeof(sin)), 0);
	socklen_t len = sizeof(sin);
	ASSERT_EQ(getsockname(bound, reinterpret_cast<struct sockaddr *>(&sin), &len), 0);

	int cfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	int flags = fcntl(cfd, F_GETFL);
	conn_log log;
	evConnID cid;
	errno = 0;
	int rc = __evConnect(ev, cfd, &sin, sizeof(sin), on_connect, &log, &cid);
	if (rc == 0) {
		/* Refused later: the handler is told, with fd -1. */
		ASSERT_TRUE(run_until([&] { return log.connects > 0; }));
		EXPECT_EQ(log.connected, -1);
		EXPECT_EQ(log.connect_errno, ECONNREFUSED);
	} else {
		EXPECT_EQ(errno, ECONNREFUSED);
	}
	EXPECT_TRUE(fd_is_open(cfd));
	EXPECT_EQ(fcntl(cfd, F_GETFL), flags);
	for (int i = 0; i < 3; i++)
		ASSERT_EQ(__evLoopOnce(ev, 0), 0);
	EXPECT_LE(log.connects, 1);
	close(cfd);
	close(bound);
}

TEST_F(EventLoop, CancelledConnectNeverCallsBack)
{
	int lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	struct sockaddr_in sin = {};
	sin.sin_family = AF_INET;
	sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	ASSERT_EQ(bind(lfd, reinterpret_cast<struct sockaddr *>(&sin), sizeof(sin)), 0);
	socklen_t len = sizeof(sin);
	ASSERT_EQ(getsockname(lfd, reinterpret_cast<struct sockaddr *>(&sin), &len), 0);
	ASSERT_EQ(listen(lfd, 4), 0);

	int cfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	int flags = fcntl(cfd, F_GETFL);
	conn_log log;
	evConnID cid;
	ASSERT_EQ(__evConnect(ev, cfd, &sin, sizeof(sin), on_connect, &log, &cid), 0);
	ASSERT_EQ(__evCancelConn(ev, cid), 0);
	EXPECT_EQ(fcntl(cfd, F_GETFL), flags);
	for (int i = 0; i < 5; i++)
		ASSERT_EQ(__evLoopOnce(ev, 10), 0);
	EXPECT_EQ(log.connects, 0);
	EXPECT_TRUE(fd_is_open(cfd));
	close(cfd);
	close(lfd);
}

/* --- timers and defer ---------------------------------------------------- */

struct timer_log {
	std::vector<int> order;
	std::vector<struct timespec> dues;
	int id = 0;
	evTimerID self{};
	int clear_after = 0;	/* clear self on this call, 0 never */
};

struct tagged {
	timer_log *log;
	int tag;
};

void
on_timer(evContext ctx, void *uap, struct timespec due, struct timespec inter)
{
	(void)inter;
	auto *t = static_cast<tagged *>(uap);
	t->log->order.push_back(t->tag);
	t->log->dues.push_back(due);
	if (t->log->clear_after != 0 &&
	    static_cast<int>(t->log->order.size()) == t->log->clear_after) {
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

	void turn() { ASSERT_EQ(__evLoopOnce(ev, 0), 0); }
};

void
set_past_timer(evContext ctx, void *uap, struct timespec due, struct timespec inter)
{
	(void)due;
	(void)inter;
	auto *t = static_cast<tagged *>(uap);
	t->log->order.push_back(t->tag);
	static tagged later{nullptr, 0};
	later = {t->log, t->tag + 1};
	EXPECT_EQ(__evSetTimer(ctx, on_timer, &later, ts(1), ts(0), nullptr), 0);
}

TEST_F(DrivenClock, TimersDueInThePastFireOnTheNextTurn)
{
	timer_log log;
	tagged a{&log, 1};
	evTimerID id;
	ASSERT_EQ(__evSetTimer(ev, set_past_timer, &a, ts(900), ts(0), &id), 0);
	turn();
	/* The one it set from its handler, also in the past, waits a turn. */
	EXPECT_EQ(log.order, (std::vector<int>{1}));
	turn();
	EXPECT_EQ(log.order, (std::vector<int>{1, 2}));
	EXPECT_EQ(__evCmpTime(log.dues[0], ts(1)), 0);

	/* Fired one-shots are gone: their IDs are refused. */
	errno = 0;
	EXPECT_EQ(__evClearTimer(ev, id), -1);
	EXPECT_EQ(errno, ENOENT);
	EXPECT_EQ(__evResetTimer(ev, id, on_timer, &a, ts(2000), ts(0)), -1);
	/* ...and a stale ID never reaches a newer timer. */
	tagged b{&log, 3};
	ASSERT_EQ(__evSetTimer(ev, on_timer, &b, ts(1001), ts(0), nullptr), 0);
	EXPECT_EQ(__evClearTimer(ev, id), -1);
	ev_clock_advance(ts(1));
	turn();
	EXPECT_EQ(log.order, (std::vector<int>{1, 2, 3}));
}

TEST_F(DrivenClock, PeriodicTimersRunUntilCleared)
{
	timer_log log;
	log.clear_after = 4;
	tagged p{&log, 7};
	ASSERT_EQ(__evSetTimer(ev, on_timer, &p, ts(1005), ts(5), &log.self), 0);
	turn();
	EXPECT_TRUE(log.order.empty());
	ev_clock_advance(ts(5));
	turn();
	ev_clock_advance(ts(5));
	turn();
	ASSERT_EQ(log.dues.size(), 2u);
	EXPECT_EQ(__evCmpTime(log.dues[0], ts(1005)), 0);
	EXPECT_EQ(__evCmpTime(log.dues[1], ts(1010)), 0);
	/* Far behind: one call, and the next period counts from now. */
	ev_clock_advance(ts(12));
	turn();
	turn();
	ASSERT_EQ(log.dues.size(), 3u);
	EXPECT_EQ(__evCmpTime(log.dues[2], ts(1015)), 0);
	ev_clock_advance(ts(4));
	turn();
	EXPECT_EQ(log.dues.size(), 3u);
	ev_clock_advance(ts(1));
	turn();
	ASSERT_EQ(log.dues.size(), 4u);	/* cleared itself in this call */
	EXPECT_EQ(__evCmpTime(log.dues[3], ts(1027)), 0);
	ev_clock_advance(ts(60));
	turn();
	EXPECT_EQ(log.dues.size(), 4u);
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
	ev_clock_advance(ts(3));
	turn();
	EXPECT_EQ(log.order, (std::vector<int>{0, 3, 1}));
}

struct defer_log {
	std::vector<std::string> events;
	evContext ctx;
};

void
deferred_again(evContext ctx, void *uap)
{
	(void)ctx;
	static_cast<defer_log *>(uap)->events.push_back("second");
}

void
deferred_first(evContext ctx, void *uap)
{
	auto *log = static_cast<defer_log *>(uap);
	log->events.push_back("first");
	__evDefer(ctx, deferred_again, log);
}

void
sync_marks_turn(evContext ctx, void *uap)
{
	(void)ctx;
	static_cast<defer_log *>(uap)->events.push_back("sync");
}

TEST_F(EventLoop, DeferredWorkRunsOnceAtTheStartOfTheNextTurn)
{
	defer_log log;
	ASSERT_EQ(__evSetSyncHandler(ev, sync_marks_turn, &log), 0);
	ASSERT_EQ(__evDefer(ev, deferred_first, &log), 0);
	ASSERT_EQ(__evLoopOnce(ev, 0), 0);
	ASSERT_EQ(__evLoopOnce(ev, 0), 0);
	ASSERT_EQ(__evLoopOnce(ev, 0), 0);
	EXPECT_EQ(log.events, (std::vector<std::string>{"first", "sync", "second", "sync",
	                                                "sync"}));
}

/* --- signals -------------------------------------------------------------- */

volatile sig_atomic_t usr1_seen;

void
on_usr1(int sig)
{
	(void)sig;
	usr1_seen = 1;
}

struct signal_run {
	bool flag_seen = false;
	bool watchdog = false;
	int turns = 0;
	int turn_seen = 0;
	int raised_flag = -1;	/* the flag right after raise() */
	std::atomic<bool> looping{false};
	int go_pipe = -1;
};

void
sync_checks_flag(evContext ctx, void *uap)
{
	auto *run = static_cast<signal_run *>(uap);
	run->turns++;
	if (usr1_seen) {
		run->flag_seen = true;
		run->turn_seen = run->turns;
		__evBreak(ctx);
	}
}

void
watchdog_fired(evContext ctx, void *uap, struct timespec due, struct timespec inter)
{
	(void)due;
	(void)inter;
	static_cast<signal_run *>(uap)->watchdog = true;
	__evBreak(ctx);
}

/* Runs in the first turn, with the loop's signals blocked. */
void
announce_loop(evContext ctx, void *uap)
{
	(void)ctx;
	auto *run = static_cast<signal_run *>(uap);
	run->looping = true;
	if (run->go_pipe >= 0)
		(void)!write(run->go_pipe, "g", 1);
}

void
raise_inside_turn(evContext ctx, void *uap)
{
	(void)ctx;
	auto *run = static_cast<signal_run *>(uap);
	raise(SIGUSR1);
	run->raised_flag = usr1_seen;
}

class Signals : public EventLoop {
protected:
	void SetUp() override
	{
		EventLoop::SetUp();
		usr1_seen = 0;
		struct sigaction sa = {};
		sa.sa_handler = on_usr1;
		sigemptyset(&sa.sa_mask);
		ASSERT_EQ(sigaction(SIGUSR1, &sa, &saved), 0);
		ASSERT_EQ(__evSetSyncHandler(ev, sync_checks_flag, &run), 0);
		/* Bounds the wait should a wakeup be lost; never reached otherwise. */
		ASSERT_EQ(__evSetTimer(ev, watchdog_fired, &run,
		                       __evAddTime(__evNowTime(), ts(60)), ts(0), nullptr), 0);
	}

	void TearDown() override
	{
		sigaction(SIGUSR1, &saved, nullptr);
		EventLoop::TearDown();
	}

	struct sigaction saved = {};
	signal_run run;
};

TEST_F(Signals, SignalFromAnotherThreadWakesTheWaitingLoop)
{
	pthread_t loop_thread = pthread_self();
	ASSERT_EQ(__evDefer(ev, announce_loop, &run), 0);
	std::thread sender([&] {
		while (!run.looping)
			std::this_thread::yield();
		/* Most likely the loop sleeps by now; if not, the signal waits
		 * for its sleep, which must end at once. */
		usleep(20000);
		pthread_kill(loop_thread, SIGUSR1);
	});
	EXPECT_EQ(__evMainLoopSync(ev), 0);
	sender.join();
	EXPECT_TRUE(run.flag_seen);
	EXPECT_FALSE(run.watchdog);
}

TEST_F(Signals, SignalFromAChildProcessWakesTheWaitingLoop)
{
	int go[2];
	ASSERT_EQ(pipe(go), 0);
	pid_t child = fork();
	ASSERT_GE(child, 0);
	if (child == 0) {
		char c;
		close(go[1]);
		if (read(go[0], &c, 1) == 1) {
			usleep(20000);
			kill(getppid(), SIGUSR1);
		}
		_exit(0);
	}
	close(go[0]);
	run.go_pipe = go[1];
	ASSERT_EQ(__evDefer(ev, announce_loop, &run), 0);
	EXPECT_EQ(__evMainLoopSync(ev), 0);
	close(go[1]);
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_TRUE(WIFEXITED(status));
	EXPECT_TRUE(run.flag_seen);
	EXPECT_FALSE(run.watchdog);
}

TEST_F(Signals, SignalDuringDispatchIsHeldForTheNextWait)
{
	ASSERT_EQ(__evDefer(ev, raise_inside_turn, &run), 0);
	EXPECT_EQ(__evMainLoopSync(ev), 0);
	/* Blocked while the loop dispatched... */
	EXPECT_EQ(run.raised_flag, 0);
	/* ...and seen no later than the turn after. */
	EXPECT_TRUE(run.flag_seen);
	EXPECT_LE(run.turn_seen, 2);
	EXPECT_FALSE(run.watchdog);
}

TEST_F(Signals, SignalBetweenSingleTurnsIsSeenByTheNextTurn)
{
	ASSERT_EQ(__evDefer(ev, raise_inside_turn, &run), 0);
	ASSERT_EQ(__evLoopOnce(ev, 0), 0);
	EXPECT_EQ(run.raised_flag, 0);
	if (!run.flag_seen) {
		ASSERT_EQ(__evLoopOnce(ev, 0), 0);
	}
	EXPECT_TRUE(run.flag_seen);
}

/* --- the real clock ------------------------------------------------------ */

void
break_on_timer(evContext ctx, void *uap, struct timespec due, struct timespec inter)
{
	(void)due;
	(void)inter;
	(*static_cast<int *>(uap))++;
	__evBreak(ctx);
}

TEST_F(EventLoop, TheLoopSleepsUntilTheNextTimer)
{
	int fired = 0;
	struct timespec start = __evNowTime();
	ASSERT_EQ(__evSetTimer(ev, break_on_timer, &fired,
	                       __evAddTime(start, ts(0, 20000000)), ts(0), nullptr), 0);
	EXPECT_EQ(__evMainLoopSync(ev), 0);
	EXPECT_EQ(fired, 1);
	/* It did not fire early. */
	EXPECT_GE(__evCmpTime(__evNowTime(), __evAddTime(start, ts(0, 20000000))), 0);
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
