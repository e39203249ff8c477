/*
 * Role control and the local server in-process, against the real event
 * library and the platform file, with no keel and no mirror link: what
 * each role change and configuration change does to the flags, and how
 * a connection and the entries that wait for it let go of each other.
 *
 * The paths that end the process (a restart, the wait for a reboot) run
 * as death tests; TOLVAR_TEST_TIMESCALE shortens their waits.
 */
#include "server.h"
#include "events.h"
#include "keel_client.h"

#include <platform/paths.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

std::string read_file(const std::string &abs)
{
	std::ifstream in(tolvar::path(abs));
	std::stringstream s;
	s << in.rdbuf();
	return s.str();
}

void write_file(const std::string &abs, const std::string &text)
{
	std::ofstream out(tolvar::path(abs));
	out << text;
}

class environment : public ::testing::Environment {
public:
	void SetUp() override
	{
		static char dir[] = "/tmp/tolvard-role-test.XXXXXX";
		ASSERT_NE(mkdtemp(dir), nullptr);
		setenv("TOLVAR_ROOT", dir, 1);
		/* 30 s become 30 ms, 900 s become 900 ms. */
		setenv("TOLVAR_TEST_TIMESCALE", "1000", 1);
		for (const char *d : {"/etc", "/etc/tolvar", "/var", "/var/log",
		    "/var/run"})
			mkdir(tolvar::path(d).c_str(), 0755);
		ASSERT_EQ(__evCreate(&tolvard_state.event_context), 0);
		tolvard_trace_init();
		tolvard_timer_init();
	}
};

const auto *env = ::testing::AddGlobalTestEnvironment(new environment);

char some_env;

class Role : public ::testing::Test {
protected:
	void SetUp() override
	{
		mark_ = read_file(TOLVARD_TRACE_FILE).size();
		events_mark_ = read_file("/var/log/events").size();
		otimer_delete(tolvard_state.restart_timer);
		tolvard_state.restart_timer = nullptr;
		tolvard_state.role = role_master;
		/*
		 * Graceful switchover off unless a test turns it on: with it
		 * on, a send would reach the mirror library, which has no
		 * class registered here.
		 */
		tolvard_state.gres_configured = 0;
		tolvard_state.gres_enabled = 0;
		tolvard_state.mirror_up = 0;
		tolvard_state.mirror_inited = 1;	/* never set up the link */
		tolvard_state.db_up = 1;
		tolvard_state.db_env = &some_env;
		tolvard_state.rep_ready = 1;
		tolvard_state.conn_lost = 0;
		platform("master");
	}

	void platform(const char *role)
	{
		write_file("/etc/tolvar/platform", std::string("role = ") + role + "\n");
	}
	std::string traced() { return read_file(TOLVARD_TRACE_FILE).substr(mark_); }
	std::string events() { return read_file("/var/log/events").substr(events_mark_); }
	bool saw(const std::string &s) { return traced().find(s) != std::string::npos; }

private:
	size_t mark_ = 0;
	size_t events_mark_ = 0;
};

TEST_F(Role, GresSyncWithoutChangeDoesNothing)
{
	tolvard_gres_sync();
	EXPECT_FALSE(saw("Graceful Switchover config changed"));
	EXPECT_EQ(tolvard_state.rep_ready, 1);
}

TEST_F(Role, GresOffOnMasterStopsReplicationButKeepsDatabase)
{
	tolvard_state.gres_enabled = 1;
	tolvard_state.gres_configured = 0;
	tolvard_gres_sync();
	EXPECT_TRUE(saw("Graceful Switchover disabled"));
	EXPECT_EQ(tolvard_state.gres_enabled, 0);
	EXPECT_EQ(tolvard_state.rep_ready, 0);
	EXPECT_EQ(tolvard_state.db_up, 1);
	EXPECT_FALSE(otimer_is_running(tolvard_state.restart_timer));
}

TEST_F(Role, GresOffOnStandbyClosesAndRestartsLater)
{
	tolvard_state.mirror_inited = 0;	/* its "not ready" goes nowhere */
	tolvard_state.gres_enabled = 1;
	tolvard_state.role = role_standby;
	tolvard_state.gres_configured = 0;
	tolvard_gres_sync();
	EXPECT_EQ(tolvard_state.db_up, 0);
	EXPECT_EQ(tolvard_state.db_env, nullptr);
	EXPECT_TRUE(otimer_is_running(tolvard_state.restart_timer));
	EXPECT_TRUE(saw("Restarting in 30 seconds"));
}

TEST_F(Role, StandbySaysNotReadyBeforeGresGoesAndReadyAtEveryStart)
{
	/* Without a link set up every send is traced and goes no further. */
	tolvard_state.mirror_inited = 0;
	tolvard_state.role = role_standby;
	tolvard_state.gres_enabled = 1;
	tolvard_state.mirror_up = 1;
	EXPECT_EQ(tolvard_rep_start(), 0);
	EXPECT_TRUE(saw("Send failed, mirroring not set up"));
	tolvard_state.gres_configured = 0;
	tolvard_gres_sync();
	EXPECT_TRUE(saw("Replication IS NOT ready"));
	EXPECT_FALSE(saw("Send failed, GRES not configured"));
}

TEST_F(Role, GresOffWithoutRoleOnlyTraces)
{
	tolvard_state.gres_enabled = 1;
	tolvard_state.role = role_none;
	tolvard_state.gres_configured = 0;
	tolvard_gres_sync();
	EXPECT_TRUE(saw("Graceful Switchover change, but we are neither master "
	    "nor standby"));
	EXPECT_EQ(tolvard_state.db_up, 1);
	EXPECT_FALSE(otimer_is_running(tolvard_state.restart_timer));
}

TEST_F(Role, ReplicationStartRefusesWithReasonAndEvent)
{
	tolvard_state.role = role_none;
	EXPECT_EQ(tolvard_rep_start(), -1);
	EXPECT_TRUE(saw("Cannot start replication, mastership not determined"));

	tolvard_state.role = role_master;
	EXPECT_EQ(tolvard_rep_start(), -1);
	EXPECT_NE(events().find("TOLVARD_GRES_DISABLED"), std::string::npos);

	tolvard_state.gres_enabled = 1;
	EXPECT_EQ(tolvard_rep_start(), -1);
	EXPECT_NE(events().find("TOLVARD_MIRROR_CONN_DOWN: Cannot start "
	    "replication, mirroring down"), std::string::npos);
}

TEST_F(Role, NoReadinessWhileARestartIsPending)
{
	tolvard_state.role = role_standby;
	tolvard_state.gres_enabled = 1;
	tolvard_state.gres_configured = 0;
	tolvard_state.mirror_inited = 0;	/* its "not ready" goes nowhere */
	tolvard_gres_sync();
	tolvard_state.mirror_inited = 1;
	ASSERT_TRUE(otimer_is_running(tolvard_state.restart_timer));
	/* Switched back on, and the link comes: still not ready. */
	tolvard_state.gres_configured = 1;
	tolvard_gres_sync();
	tolvard_mirror_state_change(1);
	EXPECT_EQ(tolvard_state.rep_ready, 0);
	EXPECT_TRUE(saw("Cannot start replication, restart pending"));
	tolvard_poll_stop();
}

TEST_F(Role, NoReadinessWithoutADatabase)
{
	/* The open is still being retried when the link comes up. */
	tolvard_state.gres_enabled = 1;
	tolvard_state.session_id_sent = 0;
	tolvard_state.rep_ready = 0;
	tolvard_state.db_up = 0;
	tolvard_state.db_env = nullptr;
	tolvard_mirror_state_change(1);
	EXPECT_EQ(tolvard_state.rep_ready, 0);
	EXPECT_TRUE(saw("Cannot start replication, database down"));
	tolvard_poll_stop();
}

TEST_F(Role, StopWithoutDatabaseSaysSo)
{
	tolvard_state.db_env = nullptr;
	EXPECT_EQ(tolvard_rep_stop(), -1);
	EXPECT_TRUE(saw("Cannot stop replication, database already down"));
	EXPECT_EQ(tolvard_state.rep_ready, 1);
}

TEST_F(Role, LinkEventsMoveTheFlags)
{
	tolvard_state.mirror_up = 1;
	tolvard_mirror_event(MIRROR_STATE_DOWN);
	EXPECT_EQ(tolvard_state.mirror_up, 0);
	EXPECT_EQ(tolvard_state.conn_lost, 1u);
	EXPECT_EQ(tolvard_state.rep_ready, 0);
	EXPECT_EQ(tolvard_state.poll_running, 0);

	tolvard_state.mirror_up = 1;
	tolvard_mirror_event(MIRROR_STATE_NO_STANDBY);
	EXPECT_EQ(tolvard_state.mirror_up, 0);
	EXPECT_EQ(tolvard_state.conn_lost, 1u);
	std::string ev = events();
	EXPECT_LT(ev.find("TOLVARD_MIRROR_CONN_LOST"), ev.find("TOLVARD_MIRROR_NO_STANDBY"));
}

TEST_F(Role, LinkUpWithoutRoleStartsNothing)
{
	tolvard_state.gres_enabled = 1;
	tolvard_state.role = role_none;
	tolvard_state.rep_ready = 0;
	tolvard_mirror_state_change(1);
	EXPECT_EQ(tolvard_state.mirror_up, 1);
	EXPECT_EQ(tolvard_state.rep_ready, 0);
	EXPECT_TRUE(saw("Mirror state change to UP, but role is neither master "
	    "nor standby"));
}

TEST_F(Role, OnlyTheStandbyTellsItsReadiness)
{
	/* With graceful switchover off the INFO send stops at its first
	 * check, which is enough to see that it was tried. */
	tolvard_state.rep_ready = 0;
	tolvard_rep_ready_set(1);
	EXPECT_TRUE(saw("Replication IS ready"));
	EXPECT_FALSE(saw("Send failed"));

	tolvard_state.role = role_standby;
	tolvard_rep_ready_set(0);
	EXPECT_TRUE(saw("Replication IS NOT ready"));
	EXPECT_TRUE(saw("Send failed, GRES not configured"));
}

TEST_F(Role, IssuAnswersFollowTheLinkAndReadiness)
{
	keel_issu_info info = {};
	int abort = 7, ready = 7;

	tolvard_state.mirror_up = 1;
	tolvard_issu_prepare(nullptr, &abort, &ready, &info);
	EXPECT_EQ(abort, 0);
	EXPECT_EQ(ready, 1);
	EXPECT_EQ(info.wait, 0u);
	EXPECT_STREQ(info.text, "");

	tolvard_state.rep_ready = 0;
	tolvard_issu_switchover_prepare(nullptr, &ready, &info);
	EXPECT_EQ(ready, 0);
	EXPECT_EQ(info.wait, 1800u);
	EXPECT_STREQ(info.text, "Waiting for repository sync");
}

TEST_F(Role, SameRoleIsNoChange)
{
	EXPECT_EQ(tolvard_mirror_mastership_change(), 0);
	EXPECT_FALSE(saw("Mastership change"));
}

TEST_F(Role, StandbyToNoneOnlyNotesTheRole)
{
	tolvard_state.role = role_standby;
	platform("none");
	EXPECT_EQ(tolvard_mirror_mastership_change(), 1);
	EXPECT_EQ(tolvard_state.role, static_cast<uint32_t>(role_none));
	EXPECT_TRUE(saw("Switching from Standby to None"));
	EXPECT_EQ(tolvard_state.db_up, 1);
	EXPECT_FALSE(otimer_is_running(tolvard_state.restart_timer));
}

TEST_F(Role, NoneToStandbyOpensWhatAStartWouldOpen)
{
	/* There is no keel here: the open fails and is retried later. */
	tolvard_state.role = role_none;
	tolvard_state.mirror_inited = 0;
	platform("standby");
	EXPECT_EQ(tolvard_mirror_mastership_change(), 1);
	EXPECT_EQ(tolvard_state.role, static_cast<uint32_t>(role_standby));
	EXPECT_TRUE(saw("Switching from None to Standby"));
	EXPECT_TRUE(saw("Failed to init SDB"));
	EXPECT_TRUE(otimer_is_running(tolvard_state.db_retry_timer));
	EXPECT_TRUE(saw("No Mirroring Init, Graceful Switchover not configured"));
	EXPECT_FALSE(otimer_is_running(tolvard_state.restart_timer));
	otimer_stop(tolvard_state.db_retry_timer);
	tolvard_state.db_attempts = 0;
}

TEST_F(Role, MasterToStandbyClosesAndArmsTheRestart)
{
	platform("standby");
	EXPECT_EQ(tolvard_mirror_mastership_change(), 1);
	EXPECT_EQ(tolvard_state.role, static_cast<uint32_t>(role_standby));
	EXPECT_EQ(tolvard_state.db_up, 0);
	EXPECT_TRUE(otimer_is_running(tolvard_state.restart_timer));
	std::string t = traced();
	EXPECT_LT(t.find("Switching from Master to Standby"),
	    t.find("Restarting in 30 seconds"));
}

TEST_F(Role, RestartTimerEndsTheProcessWithZero)
{
	platform("standby");
	EXPECT_EXIT({
		tolvard_mirror_mastership_change();
		for (;;)
			__evLoopOnce(tolvard_state.event_context, 100);
	}, ::testing::ExitedWithCode(0), "");
	EXPECT_TRUE(saw("tolvard restarting as standby"));
}

TEST_F(Role, BackToMasterWithinTheDelayRestartsAtOnce)
{
	platform("standby");
	tolvard_mirror_mastership_change();
	ASSERT_TRUE(otimer_is_running(tolvard_state.restart_timer));
	platform("master");
	EXPECT_EXIT(tolvard_mirror_mastership_change(),
	    ::testing::ExitedWithCode(0), "");
	EXPECT_TRUE(saw("GRES switched back to master, before standby closed down"));
	EXPECT_TRUE(saw("tolvard restarting as master"));
	EXPECT_NE(events().find("TOLVARD_GRES_BACK_TO_MASTER"), std::string::npos);
}

TEST_F(Role, MasterToNoneWaitsThenFails)
{
	platform("none");
	EXPECT_EXIT(tolvard_mirror_mastership_change(),
	    ::testing::ExitedWithCode(1), "");
	std::string ev = events();
	size_t to_none = ev.find("TOLVARD_GRES_SWITCH_TO_NONE");
	ASSERT_NE(to_none, std::string::npos);
	EXPECT_NE(ev.find("TOLVARD_GRES_REBOOT_FAIL", to_none), std::string::npos);
	EXPECT_TRUE(saw("Switching from Master to None"));
	/* The last line names the step that exits, not a helper of it. */
	EXPECT_TRUE(saw("tolvard_mirror_mastership_change: line "));
	EXPECT_TRUE(saw("exited with code 1"));
}

/* The local server ------------------------------------------------------ */

class Server : public Role {
protected:
	void SetUp() override
	{
		Role::SetUp();
		TAILQ_INIT(&tolvard_state.conn_list);
		ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds_), 0);
		tolvard_server_listen(tolvard_state.event_context, nullptr, fds_[0],
		    nullptr, 0, nullptr, 0);
		conn_ = TAILQ_FIRST(&tolvard_state.conn_list);
		ASSERT_NE(conn_, nullptr);
	}
	void TearDown() override
	{
		while (struct tolvard_conn *c = TAILQ_FIRST(&tolvard_state.conn_list))
			tolvard_conn_terminate(c);
		if (fds_[1] >= 0)
			close(fds_[1]);
	}

	/* An entry waiting on conn_ with these ACKs, as a barrier leaves it. */
	void wait_on(struct tolvard_entry *e, std::initializer_list<uint32_t> words)
	{
		*e = {};
		TAILQ_INIT(&e->acks);
		for (uint32_t w : words) {
			uint32_t msg[3] = {TOLVARD_LOCAL_ACK, 1, w};
			auto *c = static_cast<struct tolvard_ack_copy *>(
			    malloc(sizeof(struct tolvard_ack_copy) + sizeof(msg)));
			c->size = sizeof(msg);
			memcpy(c->msg, msg, sizeof(msg));
			TAILQ_INSERT_TAIL(&e->acks, c, links);
		}
		TAILQ_INSERT_TAIL(&conn_->waiting, e, wait_links);
		e->conn = conn_;
	}

	void client_writes(const void *p, size_t n)
	{
		ASSERT_EQ(write(fds_[1], p, n), static_cast<ssize_t>(n));
		tolvard_conn_read(tolvard_state.event_context, conn_, fds_[0], EV_READ);
	}

	bool connected() { return !TAILQ_EMPTY(&tolvard_state.conn_list); }

	int fds_[2] = {-1, -1};
	struct tolvard_conn *conn_ = nullptr;
};

TEST_F(Server, ReleaseSendsEveryCopyInOrderAndLetsGo)
{
	struct tolvard_entry e;
	wait_on(&e, {11, 22});
	tolvard_ack_release(&e);
	uint32_t got[6];
	ASSERT_EQ(read(fds_[1], got, sizeof(got)), static_cast<ssize_t>(sizeof(got)));
	EXPECT_EQ(got[2], 11u);
	EXPECT_EQ(got[5], 22u);
	EXPECT_EQ(e.conn, nullptr);
	EXPECT_TRUE(TAILQ_EMPTY(&e.acks));
	EXPECT_TRUE(TAILQ_EMPTY(&conn_->waiting));
	/* A second acknowledgement finds nobody. */
	tolvard_ack_release(&e);
	EXPECT_TRUE(connected());
}

TEST_F(Server, TerminateLeavesTheEntryWithNoConnection)
{
	struct tolvard_entry a, b;
	wait_on(&a, {1});
	wait_on(&b, {2, 3});
	tolvard_conn_terminate(conn_);
	EXPECT_FALSE(connected());
	EXPECT_EQ(a.conn, nullptr);
	EXPECT_EQ(b.conn, nullptr);
	EXPECT_TRUE(TAILQ_EMPTY(&b.acks));
	/* The acknowledgement comes later and sends nothing. */
	tolvard_ack_release(&b);
	char c;
	EXPECT_EQ(read(fds_[1], &c, 1), 0);
	EXPECT_TRUE(saw("Term: Remove entry"));
}

TEST_F(Server, FailedSendDuringReleaseEndsConnectionOnce)
{
	struct tolvard_entry a, b;
	wait_on(&a, {1, 2});
	wait_on(&b, {3});
	close(fds_[1]);
	fds_[1] = -1;
	tolvard_ack_release(&a);
	EXPECT_FALSE(connected());
	EXPECT_EQ(a.conn, nullptr);
	EXPECT_EQ(b.conn, nullptr);
	EXPECT_TRUE(TAILQ_EMPTY(&a.acks));
	EXPECT_TRUE(saw("Server failed to Send"));
}

TEST_F(Server, ClientThatStopsReadingIsEndedMidWalk)
{
	/* Answers at once (no link); the client's end no longer reads,
	 * so the first send fails inside the walk. */
	ASSERT_EQ(shutdown(fds_[1], SHUT_RD), 0);
	uint32_t two[4] = {TOLVARD_LOCAL_ACK, 0, TOLVARD_LOCAL_ACK, 0};
	client_writes(two, sizeof(two));
	EXPECT_FALSE(connected());
	EXPECT_TRUE(saw("Server failed msg decode, type 1"));
}

TEST_F(Server, RegisteredAndUnknownConnectionsInTheDump)
{
	tolvard_reg_msg reg = {};
	reg.type = TOLVARD_LOCAL_REG;
	memset(reg.name, 'x', sizeof(reg.name));	/* no terminator */
	reg.pid = 77;
	client_writes(&reg, sizeof(reg));
	ASSERT_TRUE(connected());
	EXPECT_EQ(conn_->pid, 77u);
	EXPECT_EQ(strlen(conn_->name), sizeof(conn_->name) - 1);

	int more[2];
	ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, more), 0);
	tolvard_server_listen(tolvard_state.event_context, nullptr, more[0],
	    nullptr, 0, nullptr, 0);
	tolvard_conn_dump();
	EXPECT_TRUE(saw("pid 77, status down"));
	EXPECT_TRUE(saw("UNKNOWN conn"));
	EXPECT_TRUE(saw("-- TOLVAR process list, 2 conn(s), 1 ack --"));
	close(more[1]);
}

} // namespace
