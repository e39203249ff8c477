/*
 * The keel client against a scripted peer on keel's socket: registration
 * and its failures, the answers that change the client's view, bad bytes
 * from keel, the re-registration timer, unregistration.
 */
#include "keel_test_util.h"

#include <platform/ev.h>
#include <platform/process.h>

#include <algorithm>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>

using namespace keeltest;

namespace {

class KeelRegister : public KeelTest {};

using calls = std::vector<std::string>;

calls
open_calls()
{
	calls out;
	for (const auto &c : env().calls)
		if (c != "register_setup")
			out.push_back(c);
	return out;
}

TEST_F(KeelRegister, RegistersInOpenOrderAndSendsItsState)
{
	fake_keel k;
	write_platform("role = master\n");
	keel_set_recovery_pending(h);

	ASSERT_EQ(keel_register(h), 0);
	EXPECT_EQ(open_calls(),
	    (calls{"open_internal", "db_init", "secondary_init"}));
	EXPECT_TRUE(h->user_reg && h->connected && keel_is_registered());
	ASSERT_EQ(ready.size(), 1u);
	EXPECT_NE(ready[0], nullptr);
	EXPECT_TRUE(logged("KEEL db: Master"));
	EXPECT_TRUE(logged("Successfully registered with KEEL"));

	auto regs = k.registrations();
	ASSERT_EQ(regs.size(), 1u);
	const keel_msg_register &m = regs[0];
	EXPECT_STREQ(m.name, platform_progname());
	EXPECT_EQ(m.pid, static_cast<uint32_t>(getpid()));
	EXPECT_EQ(m.flags, KEEL_REG_REGISTER | KEEL_REG_MASTER);
	EXPECT_EQ(m.recovery_state, KEEL_RECOVERY_PENDING);
	EXPECT_EQ(m.reserved[0] | m.reserved[1], 0);

	/* Registered: every setter now refuses. */
	evContext ctx{};
	EXPECT_EQ(keel_set_event_context(h, &ctx), -25);
	EXPECT_EQ(keel_set_poll_mode(h), -25);
	EXPECT_EQ(keel_set_timeout(h, 5), -25);
	EXPECT_EQ(keel_set_recovery_pending(h), -25);
}

/*
 * With L3 HA the redundancy state decides, not the chassis role: state 2
 * is master, anything else or a failed read is standby.  The master bit
 * of the registration must agree with it.
 */
class KeelL3Ha : public KeelTest {
protected:
	void expect_master(const char *platform, bool master)
	{
		fake_keel k;
		write_platform(platform);
		ASSERT_EQ(keel_register(h), 0);
		EXPECT_EQ(env().master, master ? 1 : 0);
		EXPECT_TRUE(logged(master ? "KEEL db: Master" : "KEEL db: Standby"));
		auto regs = k.registrations();
		ASSERT_EQ(regs.size(), 1u);
		EXPECT_EQ((regs[0].flags & KEEL_REG_MASTER) != 0, master);
	}
};

TEST_F(KeelL3Ha, FailedReadIsStandbyWhateverTheRole)
{
	expect_master("role = master\nl3_ha = 1\n", false);
}

TEST_F(KeelL3Ha, StateOtherThanTwoIsStandby)
{
	expect_master("role = master\nl3_ha = 1\nredundancy_state = 1\n", false);
}

TEST_F(KeelL3Ha, StateTwoIsMasterWhateverTheRole)
{
	expect_master("role = standby\nl3_ha = 1\nredundancy_state = 2\n", true);
}

TEST_F(KeelL3Ha, WithoutL3HaTheRoleDecides)
{
	expect_master("role = standby\nredundancy_state = 2\n", false);
}

TEST_F(KeelRegister, SettersRefuseNullArguments)
{
	EXPECT_EQ(keel_set_event_context(h, nullptr), -25);
	EXPECT_EQ(keel_set_issu_context(h, nullptr), -25);
	EXPECT_EQ(keel_set_log_cb(h, nullptr, nullptr), -25);
	EXPECT_EQ(keel_set_conn_callbacks(h, nullptr, nullptr, nullptr), -25);
	EXPECT_FALSE(h->issu_capable);
}

TEST_F(KeelRegister, ConnectionCallbacksBracketTheSocket)
{
	static std::vector<std::pair<char, int>> seen;
	seen.clear();
	ASSERT_EQ(keel_set_conn_callbacks(h, nullptr,
	    [](void *, int fd) { seen.push_back({'u', fd}); },
	    [](void *, int fd) {
		    /* Called before the close: the socket is still ours. */
		    EXPECT_NE(fcntl(fd, F_GETFD), -1);
		    seen.push_back({'d', fd});
	    }), 0);
	fake_keel k;
	ASSERT_EQ(keel_register(h), 0);
	int fd = h->fd;
	ASSERT_EQ(seen.size(), 1u);
	EXPECT_EQ(seen[0], std::make_pair('u', fd));
	keel_close_connection(h, 0, 0);
	ASSERT_EQ(seen.size(), 2u);
	EXPECT_EQ(seen[1], std::make_pair('d', fd));
	/* Owed once only. */
	keel_close_connection(h, 0, 0);
	EXPECT_EQ(seen.size(), 2u);
}

TEST_F(KeelRegister, KeelRegisteringAgainWhileDisconnectedIsTold)
{
	fake_keel k;
	char *name = program_invocation_short_name;
	program_invocation_short_name = const_cast<char *>("keel");
	ASSERT_EQ(keel_register(h), 0);
	keel_close_connection(h, 0, 0);
	EXPECT_EQ(keel_register(h), 0);
	program_invocation_short_name = name;
	EXPECT_EQ(count_events("LIBSDB_KEEL_REGISTERED",
	    "Invalid keel_register() call, keel daemon already registered."), 1);
}

TEST_F(KeelRegister, ResetForgetsWithoutAWord)
{
	fake_keel k;
	ASSERT_EQ(keel_register(h), 0);
	keel_reset();
	EXPECT_EQ(h->fd, -1);
	EXPECT_FALSE(h->user_reg || keel_is_registered());
	/* keel heard no unregistration, and a new handle may be made. */
	usleep(50000);
	EXPECT_EQ(k.registrations().size(), 1u);
	keel_handle *old = h;
	h = keel_init_handle();
	ASSERT_NE(h, nullptr);
	free(old);
}

TEST_F(KeelRegister, SilentKeelFailsWithSendErrorAndClosesTheDatabase)
{
	fake_keel k;
	k.silent();
	keel_set_timeout(h, 200);

	EXPECT_EQ(keel_register(h), -35);
	EXPECT_TRUE(logged("No response from KEEL"));
	EXPECT_TRUE(h->fd == -1 && !h->user_reg);
	EXPECT_EQ(open_calls(), (calls{"open_internal", "close_internal"}));
}

TEST_F(KeelRegister, NoKeelAndNoDatabase)
{
	/* Nobody listens: a connect failure, and the database is closed. */
	char path[108];
	keel_path(path, sizeof(path));
	unlink(path);
	EXPECT_EQ(keel_register(h), -26);
	EXPECT_EQ(open_calls(), (calls{"open_internal", "close_internal"}));

	/* The stores are not there yet: try later, never connect. */
	env().calls.clear();
	env().open_rc = -1;
	EXPECT_EQ(keel_register(h), -19);
	EXPECT_EQ(open_calls(), (calls{"open_internal", "close_internal"}));

	/* No session database on this platform: nothing is touched. */
	env().calls.clear();
	env().supported = 0;
	EXPECT_EQ(keel_register(h), -17);
	EXPECT_TRUE(env().calls.empty());
	EXPECT_TRUE(logged("KEEL not supported on this platform"));
}

TEST_F(KeelRegister, KeelThatStopsAcceptingCannotHoldUs)
{
	/* A listener that never accepts: its backlog fills up. */
	int l = listen_on_keel_path(1);
	keel_set_timeout(h, 20);
	std::vector<int> codes;
	for (int i = 0; i < 6; i++)
		codes.push_back(keel_register(h));
	close(l);
	/* First the answer never comes, then the connect is refused. */
	EXPECT_EQ(codes.front(), -35);
	EXPECT_EQ(codes.back(), -26);
	EXPECT_FALSE(h->user_reg);
}

TEST_F(KeelRegister, RefusalsCarryTheirMeaning)
{
	fake_keel k;
	std::vector<uint8_t> flips;
	int restarts = 0;
	static int *restarts_p;
	restarts_p = &restarts;
	keel_set_mastership_cb(h, &flips, [](void *ctx, uint8_t m) {
		static_cast<std::vector<uint8_t> *>(ctx)->push_back(m);
	});
	keel_set_env_restart_cb(h, [] { (*restarts_p)++; });

	k.answer(0, -19);
	EXPECT_EQ(keel_register(h), -19);
	EXPECT_TRUE(logged("SDB env is invalid: session database has not "
	    "started yet"));
	EXPECT_TRUE(logged("KEEL reg failed"));

	k.answer(0, -36);
	EXPECT_EQ(keel_register(h), -36);
	EXPECT_EQ(restarts, 1);

	k.answer(0, -11);
	EXPECT_EQ(keel_register(h), -11);
	EXPECT_TRUE(env().recovering);

	/* Mismatch: the client's view flips and the application hears. */
	env().master = 0;
	k.answer(0, -31);
	EXPECT_EQ(keel_register(h), -31);
	EXPECT_EQ(flips, std::vector<uint8_t>{1});
	EXPECT_EQ(env().master, 1);
	EXPECT_TRUE(logged("Mastership changed to Master"));
	EXPECT_FALSE(h->user_reg);
	EXPECT_EQ(h->fd, -1);

	/* Failure without a status is still a failure. */
	k.answer(0, 0);
	EXPECT_EQ(keel_register(h), -25);
}

TEST_F(KeelRegister, FailedDatabaseInitSaysGoodbyeWithTheCode)
{
	fake_keel k;
	env().db_init_rc = -2;

	EXPECT_EQ(keel_register(h), -2);
	EXPECT_TRUE(logged("Failed to open SDB SDB out of memory"));
	/* The peer hears the unregistration with the code. */
	auto regs = k.registrations(2);
	ASSERT_EQ(regs.size(), 2u);
	EXPECT_EQ(regs[1].flags & KEEL_REG_REGISTER, 0);
	EXPECT_EQ(static_cast<int32_t>(regs[1].error), -2);
	EXPECT_EQ(open_calls(),
	    (calls{"open_internal", "db_init", "close_internal"}));
}

TEST_F(KeelRegister, EnhancedPlatformRetriesTwentyTimesThenGivesUp)
{
#ifdef __SANITIZE_ADDRESS__
	/* The sanitizer's own mappings do not fit in the lowered limit. */
	GTEST_SKIP() << "data limit steps and AddressSanitizer do not mix";
#endif
	write_platform("enhanced_bbe = 1\n");
	int before = count_events("LIBSDB_KEEL_RETRY_STATUS");
	/* The retries lower the data limit: only in a child of our own. */
	pid_t pid = fork();
	ASSERT_GE(pid, 0);
	if (pid == 0) {
		struct rlimit rl = {RLIM_INFINITY, RLIM_INFINITY};
		setrlimit(RLIMIT_DATA, &rl);
		fake_keel k;
		env().db_init_rc = -2;
		int rc = keel_register(h);
		long inits = std::count(env().calls.begin(), env().calls.end(),
		    "db_init");
		_exit(rc == -2 && inits == 21 ? 0 : 1);
	}
	int status;
	ASSERT_EQ(waitpid(pid, &status, 0), pid);
	ASSERT_TRUE(WIFEXITED(status));
	EXPECT_EQ(WEXITSTATUS(status), 0) << "not 21 tries ending in -2";
	EXPECT_EQ(count_events("LIBSDB_KEEL_RETRY_STATUS") - before, 20);
	EXPECT_GE(count_events("LIBSDB_KEEL_RLIMIT_SUCCESS"), 1);
}

using KeelMessages = KeelTest;

TEST_F(KeelMessages, BadBytesFromKeelCloseTheConnection)
{
	struct bad {
		std::vector<uint8_t> bytes;
		const char *line;
		bool hang_up;	/* else the peer stalls with the socket open */
	};
	const std::vector<bad> cases = {
		{{9, 0, 0, 0}, "Invalid message type 9", true},
		{{0xff, 0xff, 0xff, 0xff}, "Invalid message type -1", true},
		{{5, 0, 0, 0, 7, 0, 0, 0}, "Invalid mastership value 7", true},
		{{0, 0, 0, 0, 1, 0}, "Failed to recv nread=6, expected=20", true},
		{{3, 0}, "Failed to recv nread=2, expected=4", true},
		{{}, "Connection with keel closed", true},
		{{0, 0, 0, 0, 1, 0, 0, 0}, "Failed to recv nread=8, expected=20",
		    false},
	};
	keel_set_timeout(h, 100);
	int events_before = count_events("LIBSDB_KEEL_MESSAGE_INVALID");
	for (const auto &c : cases) {
		log.clear();
		ready.clear();
		int p = attach_peer();
		ASSERT_GE(p, 0);
		ASSERT_EQ(write(p, c.bytes.data(), c.bytes.size()),
		    static_cast<ssize_t>(c.bytes.size()));
		if (c.hang_up)
			shutdown(p, SHUT_WR);
		keel_process(h);
		EXPECT_TRUE(logged(c.line)) << c.line;
		EXPECT_TRUE(h->fd == -1 && !h->connected) << c.line;
		/* The environment went down with the connection. */
		EXPECT_EQ(ready, std::vector<void *>{nullptr}) << c.line;
		close(p);
		peer = -1;
	}
	/* Each bad message, but not the plain end of the stream, is an event. */
	EXPECT_EQ(count_events("LIBSDB_KEEL_MESSAGE_INVALID") - events_before,
	    6);
}

TEST_F(KeelMessages, MastershipMessageClosesAndTellsTheApplication)
{
	std::vector<uint8_t> flips;
	keel_set_mastership_cb(h, &flips, [](void *ctx, uint8_t m) {
		static_cast<std::vector<uint8_t> *>(ctx)->push_back(m);
	});
	int p = attach_peer();
	keel_msg_mastership m = {KEEL_MSG_MASTERSHIP, 1, {}};
	ASSERT_EQ(write(p, &m, sizeof(m)), static_cast<ssize_t>(sizeof(m)));
	keel_process(h);
	EXPECT_EQ(flips, std::vector<uint8_t>{1});
	EXPECT_EQ(h->fd, -1);
	EXPECT_EQ(h->rx[0], 1u);
	close(p);

	/* The same role again: closed all the same, but no news. */
	p = attach_peer();
	ASSERT_EQ(write(p, &m, sizeof(m)), static_cast<ssize_t>(sizeof(m)));
	keel_process(h);
	EXPECT_EQ(flips.size(), 1u);
	EXPECT_EQ(h->fd, -1);
}

TEST_F(KeelMessages, EnhancedModeForcesSuccess)
{
	write_platform("enhanced_bbe = 2\n");

	int p = attach_peer();
	h->connected = 0;
	keel_msg_answer a = {KEEL_MSG_REG_ANSWER, 0, static_cast<uint32_t>(-19),
	    0, 0};
	ASSERT_EQ(write(p, &a, sizeof(a)), static_cast<ssize_t>(sizeof(a)));
	keel_process(h);
	EXPECT_TRUE(h->connected);
	EXPECT_EQ(static_cast<int32_t>(h->reg_status), -19);
}

TEST_F(KeelMessages, PollReadsOnlyWhatIsWaiting)
{
	h->poll_mode = 1;
	int p = attach_peer();
	EXPECT_EQ(keel_poll(h), 0);
	EXPECT_GE(h->fd, 0);
	keel_msg_chassis_issu m = {KEEL_MSG_CHASSIS_ISSU, KEEL_CHASSIS_IDLE};
	ASSERT_EQ(write(p, &m, sizeof(m)), static_cast<ssize_t>(sizeof(m)));
	EXPECT_EQ(keel_poll(h), 0);
	EXPECT_TRUE(logged("Received ISSU message <IDLE>, daemon state <IDLE>"));
	EXPECT_GE(h->fd, 0);
}

/* Drive the event loop on the test clock until pred holds. */
template <class P>
bool
spin(evContext ctx, P pred, int seconds)
{
	for (int i = 0; i < seconds * 10 && !pred(); i++) {
		ev_clock_advance(__evConsTime(0, 100000000));
		__evLoopOnce(ctx, 2);
	}
	return pred();
}

class KeelEvents : public KeelTest {
protected:
	void SetUp() override
	{
		KeelTest::SetUp();
		struct timespec zero = {1000, 0};
		ev_clock_set(&zero);
		ASSERT_EQ(__evCreate(&ctx), 0);
		ASSERT_EQ(keel_set_event_context(h, &ctx), 0);
	}
	void TearDown() override
	{
		KeelTest::TearDown();
		__evDestroy(ctx);
		ev_clock_set(nullptr);
	}
	evContext ctx{};
};

TEST_F(KeelEvents, LostKeelIsRetriedEveryIntervalUntilItAnswers)
{
	auto k = std::make_unique<fake_keel>();
	ASSERT_EQ(keel_register(h), 0);
	ASSERT_TRUE(h->selected);

	/* keel goes away: the environment goes down, the timer starts. */
	k.reset();
	ASSERT_TRUE(spin(ctx, [&] { return h->fd < 0; }, 2));
	EXPECT_TRUE(logged("Start a timer to try to reregister with KEEL"));
	EXPECT_TRUE(keel_timer_running(h));
	ASSERT_EQ(ready.size(), 2u);
	EXPECT_EQ(ready[1], nullptr);

	/* Nobody listens: every interval one more failed attempt. */
	env().check_rc = -19;
	spin(ctx, [] { return false; }, 16);
	int tries = count_logged("Unable to connect to KEEL socket: No such "
	    "file or directory") + count_logged("Unable to connect to KEEL "
	    "socket: Connection refused");
	EXPECT_GE(tries, 2);
	EXPECT_LE(tries, 4);

	/* keel is back: the next attempt registers again. */
	k = std::make_unique<fake_keel>();
	ASSERT_TRUE(spin(ctx, [&] { return h->connected != 0; }, 12));
	EXPECT_TRUE(logged("Successfully reregistered with KEEL"));
	EXPECT_NE(ready.back(), nullptr);
	EXPECT_FALSE(keel_timer_running(h));
}

TEST_F(KeelEvents, SocketLostWithEnvironmentIntactSkipsTheRestart)
{
	fake_keel k;
	ASSERT_EQ(keel_register(h), 0);
	env().calls.clear();
	/* A close without notification, as after a failed send. */
	keel_close_connection(h, 0, 1);
	ASSERT_TRUE(spin(ctx, [&] { return h->connected != 0; }, 12));
	EXPECT_TRUE(logged("Successfully reregistered with KEEL - Skiped DB "
	    "restart ..."));
	EXPECT_TRUE(open_calls().empty());
}

TEST_F(KeelEvents, UnregisterSaysGoodbyeAndAllowsANewHandle)
{
	fake_keel k;
	ASSERT_EQ(keel_register(h), 0);
	EXPECT_EQ(keel_unregister(&h), 0);
	EXPECT_EQ(h, nullptr);
	EXPECT_FALSE(keel_is_registered());
	auto regs = k.registrations(2);
	ASSERT_EQ(regs.size(), 2u);
	EXPECT_EQ(regs[1].flags & KEEL_REG_REGISTER, 0);
	h = keel_init_handle();
	EXPECT_NE(h, nullptr);
}

TEST_F(KeelRegister, ReplicationStateAndRecoveryMessages)
{
	EXPECT_EQ(keel_recovery_complete(h), -25);
	EXPECT_TRUE(logged("Cannot send recovery complete to KEEL if not "
	    "registered"));
	EXPECT_EQ(keel_send_replication_state(h, 1), -25);
	EXPECT_TRUE(logged("Unable to send replication, no connection"));

	int p = attach_peer();
	EXPECT_EQ(keel_send_replication_state(h, 1), 0);
	EXPECT_EQ(keel_send_replication_state(h, 2), 0);
	EXPECT_EQ(keel_send_replication_state(h, 9), 0);
	EXPECT_EQ(keel_recovery_complete(h), 0);
	uint32_t types[4];
	ASSERT_TRUE(read_msg(p, types, sizeof(types)));
	EXPECT_EQ(types[0], 6u);
	EXPECT_EQ(types[1], 7u);
	EXPECT_EQ(types[2], 1u);
	EXPECT_EQ(types[3], 2u);

	/* keel went away: the send fails, closes, and says so. */
	close(p);
	peer = -1;
	EXPECT_EQ(keel_send_replication_state(h, 1), -35);
	EXPECT_EQ(h->fd, -1);
}

using KeelDeathTest = KeelTest;

TEST_F(KeelDeathTest, MisuseStopsTheProcess)
{
	GTEST_FLAG_SET(death_test_style, "threadsafe");
	EXPECT_DEATH(keel_init_handle(), "insist '!g_keel_init_handle_done' "
	    "failed");
	keel_handle *other = reinterpret_cast<keel_handle *>(&log);
	EXPECT_DEATH(keel_unregister(&other), "insist 'ctx == g_keel_ctx' failed");
	int p = attach_peer();
	(void)p;
	EXPECT_DEATH(keel_register(h), "insist 'h->fd < 0' failed");
}

TEST(KeelRlimit, StepsDownAndHoldsTheFloor)
{
#ifdef __SANITIZE_ADDRESS__
	/* The sanitizer's own mappings do not fit in the lowered limit. */
	GTEST_SKIP() << "data limit too low for the address sanitizer";
#endif
	/* The limit is lowered for good: only in a child of our own. */
	pid_t pid = fork();
	ASSERT_GE(pid, 0);
	if (pid == 0) {
		struct rlimit rl = {RLIM_INFINITY, RLIM_INFINITY};
		setrlimit(RLIMIT_DATA, &rl);
		rlim_t prev = RLIM_INFINITY, seen[25];
		for (int i = 0; i < 25; i++) {
			set_rlimits_retry_i386();
			getrlimit(RLIMIT_DATA, &rl);
			seen[i] = rl.rlim_cur;
			if (seen[i] > prev || seen[i] <= 0x80000000ULL)
				_exit(1);
			prev = seen[i];
		}
		_exit(seen[0] == 0xC0000000ULL &&
		    seen[1] == 0xC0000000ULL - 0x3333333ULL &&
		    seen[24] == seen[23] ? 0 : 2);
	}
	int status;
	ASSERT_EQ(waitpid(pid, &status, 0), pid);
	ASSERT_TRUE(WIFEXITED(status));
	EXPECT_EQ(WEXITSTATUS(status), 0) << "1: not stepping down above the "
	    "floor; 2: wrong first steps or no floor";
}

} // namespace
