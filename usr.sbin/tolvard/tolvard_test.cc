/*
 * The database open of tolvard, run in-process against a keel client that
 * answers from a script, on the real event loop and timers with the event
 * library's test clock: time moves only when the test moves it.
 */
#include "tolvard.h"
#include "keel_client.h"

#include <platform/ev.h>
#include <platform/paths.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct keel_script {
	std::deque<int> answers;	/* empty: success */
	std::vector<double> register_times;
	int handles = 0;
	int unregisters = 0;
	uint32_t chassis_issu = 0;	/* the last ISSU message of keel */
	uint32_t daemon_issu = 0;	/* the daemon's own ISSU state */
	int issu_ready = 0;		/* keel_issu_ready calls */
} script;

char fake_env;

double now_secs()
{
	struct timespec t = __evNowTime();
	return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

} // namespace

extern "C" {

keel_handle *keel_init_handle(void)
{
	script.handles++;
	return new keel_handle{};
}

int keel_set_event_context(keel_handle *, evContext *) { return 0; }
int keel_set_recovery_pending(keel_handle *) { return 0; }
int keel_set_issu_context(keel_handle *, void *) { return 0; }
int keel_set_issu_prepare_cbs(keel_handle *, keel_issu_prepare_cb,
                              keel_issu_cb) { return 0; }
int keel_set_issu_switchover_cbs(keel_handle *, keel_issu_switchover_cb,
                                 keel_issu_cb) { return 0; }
int keel_set_log_cb(keel_handle *, void *, keel_log_cb) { return 0; }

int keel_set_db_ready_cb(keel_handle *h, void *ctx, keel_db_ready_cb cb)
{
	h->db_ready_ctx = ctx;
	h->db_ready_cb = cb;
	return 0;
}

int keel_register(keel_handle *h)
{
	script.register_times.push_back(now_secs());
	int rc = 0;
	if (!script.answers.empty()) {
		rc = script.answers.front();
		script.answers.pop_front();
	}
	if (rc == 0)
		h->db_ready_cb(h->db_ready_ctx, &fake_env);
	return rc;
}

int keel_unregister(keel_handle **hp)
{
	script.unregisters++;
	delete *hp;
	*hp = nullptr;
	return 0;
}

/* Readiness reports to keel: nothing here waits on them. */
int keel_recovery_complete(keel_handle *) { return 0; }
int keel_issu_ready(keel_handle *)
{
	script.issu_ready++;
	script.daemon_issu = KEEL_ISSU_READY;
	return 0;
}
uint32_t keel_chassis_issu_state(const keel_handle *) { return script.chassis_issu; }
uint32_t keel_daemon_issu_state(const keel_handle *) { return script.daemon_issu; }

const char *sdb_strerror(int code)
{
	return code == 0 ? "success" : "scripted failure";
}

} // extern "C"

namespace {

std::string read_file(const std::string &abs)
{
	std::ifstream in(tolvar::path(abs));
	std::stringstream s;
	s << in.rdbuf();
	return s.str();
}

/*
 * One root, event context and timer context for the whole process, as in
 * the daemon: the root is read once and the timer context made once.
 */
class DaemonEnvironment : public ::testing::Environment {
public:
	void SetUp() override
	{
		static char dir[] = "/tmp/tolvard_test.XXXXXX";
		ASSERT_NE(mkdtemp(dir), nullptr);
		setenv("TOLVAR_ROOT", dir, 1);
		struct timespec start = {1000, 0};
		ev_clock_set(&start);
		ASSERT_EQ(__evCreate(&tolvard_state.event_context), 0);
		tolvard_trace_init();
		tolvard_timer_init();
	}

	void TearDown() override
	{
		std::error_code ignored;
		std::filesystem::remove_all(tolvar_root(), ignored);
	}
};

const auto *const environment =
    ::testing::AddGlobalTestEnvironment(new DaemonEnvironment);

void write_file(const std::string &abs, const std::string &text)
{
	std::string p = tolvar::path(abs);
	std::filesystem::create_directories(
	    std::filesystem::path(p).parent_path());
	std::ofstream(p) << text;
}

class DbOpen : public ::testing::Test {
protected:
	void SetUp() override
	{
		otimer_delete(tolvard_state.db_retry_timer);
		tolvard_state.db_retry_timer = nullptr;
		if (tolvard_state.keel_handle != nullptr)
			tolvard_close();
		tolvard_state.role = role_master;
		tolvard_state.db_retry_delay = TOLVARD_DB_RETRY_FIRST;
		tolvard_state.db_attempts = 0;
		tolvard_state.platform_ok = 1;
		tolvard_state.db_up = 1;
		script = keel_script{};
	}

	/* Let time pass in steps, running the loop after each. */
	void run_for(double seconds, double step = 0.25)
	{
		for (double t = 0; t < seconds; t += step) {
			ev_clock_advance(__evConsTime(0, static_cast<long>(step * 1e9)));
			for (int i = 0; i < 3; i++)
				__evLoopOnce(tolvard_state.event_context, 0);
		}
	}

	std::vector<double> gaps() const
	{
		std::vector<double> out;
		const auto &t = script.register_times;
		for (size_t i = 1; i < t.size(); i++)
			out.push_back(t[i] - t[i - 1]);
		return out;
	}

	static void expect_gaps(const std::vector<double> &got,
	                        const std::vector<double> &want)
	{
		ASSERT_EQ(got.size(), want.size());
		for (size_t i = 0; i < want.size(); i++) {
			/* One loop step of slack: the clock moves in steps. */
			EXPECT_GE(got[i], want[i] - 1e-6) << "retry " << i;
			EXPECT_LE(got[i], want[i] + 0.26) << "retry " << i;
		}
	}
};

TEST_F(DbOpen, CountedFailuresBackOffDoublingToTen)
{
	script.answers = {-12, -12, -12, -12, -12, -12, -12};
	tolvard_open();
	run_for(60);
	expect_gaps(gaps(), {1, 2, 4, 8, 10, 10, 10});
	EXPECT_EQ(tolvard_state.db_attempts, 0) << "success resets the count";
	EXPECT_EQ(tolvard_state.db_retry_delay, TOLVARD_DB_RETRY_FIRST);
	EXPECT_EQ(tolvard_state.db_up, 1);
	EXPECT_EQ(script.handles, 1) << "one handle serves every retry";
}

TEST_F(DbOpen, TryLaterNeverCountsAndKeepsRetrying)
{
	/* Ten counted failures among forty "try later" answers: one short
	 * of giving up, so the process must live to see the success. */
	for (int i = 0; i < 50; i++)
		script.answers.push_back(i % 5 == 0 ? -4 : -19);
	tolvard_open();
	/* Only a close brings db_up down: local ACKs still go through the
	 * standby while the open is retried. */
	EXPECT_EQ(tolvard_state.db_up, 1);
	run_for(600, 1.0);
	EXPECT_EQ(script.register_times.size(), 51u);
	EXPECT_EQ(tolvard_state.db_up, 1);
	std::vector<double> g = gaps();
	for (size_t i = 4; i < g.size(); i++)
		EXPECT_NEAR(g[i], 10, 1.01) << "retry " << i;
}

TEST_F(DbOpen, NoDatabaseOnPlatformStopsRetrying)
{
	script.answers = {-17};
	tolvard_open();
	run_for(30);
	EXPECT_EQ(script.register_times.size(), 1u);
	EXPECT_EQ(tolvard_state.platform_ok, 0);
	EXPECT_EQ(tolvard_state.db_env, nullptr);
}

TEST_F(DbOpen, NoRoleLeavesDatabaseClosed)
{
	tolvard_state.role = role_none;
	tolvard_open();
	run_for(5);
	EXPECT_TRUE(script.register_times.empty());
	EXPECT_EQ(script.handles, 0);
	EXPECT_EQ(tolvard_state.db_env, nullptr);
	/* The queue waits for a role, not for the database. */
	tolvard_session_id_check();
	std::string t = read_file(TOLVARD_TRACE_FILE);
	EXPECT_NE(t.find("tolvard_open called, but our role is neither master "
	    "nor standby"), std::string::npos);
	EXPECT_NE(t.find("Cannot empty queue, waiting for master/standby role "
	    "assignment"), std::string::npos);
	EXPECT_EQ(t.find("Cannot empty queue, db down"), std::string::npos);
}

TEST_F(DbOpen, ReopenKeepsOnePendingAttempt)
{
	script.answers = {-12, -12, -12};
	tolvard_open();			/* fails; retry armed for 1 s */
	tolvard_reopen();		/* fails again; retry armed for 2 s */
	EXPECT_EQ(script.unregisters, 1);
	run_for(1.5);
	EXPECT_EQ(script.register_times.size(), 2u) << "the first retry was stopped";
	run_for(1.0);
	EXPECT_EQ(script.register_times.size(), 3u);
}

TEST_F(DbOpen, CloseCancelsPendingRetry)
{
	script.answers = {-12};
	tolvard_open();
	tolvard_close();
	run_for(30);
	EXPECT_EQ(script.register_times.size(), 1u);
	EXPECT_EQ(tolvard_state.db_up, 0);
	tolvard_open();			/* a later open starts afresh */
	EXPECT_EQ(tolvard_state.db_up, 1);
	EXPECT_EQ(script.handles, 2);
}

TEST_F(DbOpen, EleventhCountedFailureEndsTheProcess)
{
	for (int i = 0; i < 11; i++)
		script.answers.push_back(i % 2 ? -19 : -5);
	for (int i = 0; i < 10; i++)
		script.answers.push_back(-5);
	EXPECT_EXIT({
		tolvard_open();
		run_for(600, 1.0);
		exit(7);	/* not reached when the open gives up */
	}, ::testing::ExitedWithCode(1), "");
	std::string events = read_file("/var/log/events");
	EXPECT_NE(events.find("\tTOLVARD_DB_OPEN_FAILED\tretry-count\t"
	    "TOLVARD_DB_OPEN_FAILED: Failed to open DB 11 times, giving up"),
	    std::string::npos) << events;
	std::string trace = read_file(TOLVARD_TRACE_FILE);
	size_t gave_up = trace.find("Failed to open DB 11 times, giving up");
	size_t shut = trace.find("Shutdown complete", gave_up);
	size_t exited = trace.find("exited with code 1", shut);
	EXPECT_NE(gave_up, std::string::npos);
	EXPECT_NE(shut, std::string::npos);
	EXPECT_NE(exited, std::string::npos);
}

TEST_F(DbOpen, StandbyGivenItsRoleLateOpensBeforeItsLinkExists)
{
	/*
	 * Started without a role: graceful switchover is on but no link was
	 * set up.  The role comes, and the open tells the master about our
	 * readiness before the link exists.  Run in a child, as the link it
	 * then sets up is the process's one link.
	 */
	tolvard_state.role = role_none;
	tolvard_state.gres_configured = 1;
	tolvard_state.mirror_inited = 0;
	tolvard_state.rep_ready = 0;
	write_file("/etc/tolvar/platform", "role = none\n");
	tolvard_mirror_init();
	ASSERT_EQ(tolvard_state.gres_enabled, 1);
	write_file("/etc/tolvar/platform", "role = standby\n");
	EXPECT_EXIT({
		tolvard_mirror_mastership_change();
		exit(tolvard_state.db_up && tolvard_state.mirror_inited ? 0 : 2);
	}, ::testing::ExitedWithCode(0), "");
	tolvard_state.gres_configured = 0;
	tolvard_state.gres_enabled = 0;
}

TEST_F(DbOpen, LostEnvironmentIsForgotten)
{
	tolvard_open();
	EXPECT_EQ(tolvard_state.db_env, &fake_env);
	tolvard_db_state_change(&tolvard_state, nullptr);
	EXPECT_EQ(tolvard_state.db_env, nullptr);
	tolvard_close();
	EXPECT_EQ(tolvard_state.keel_handle, nullptr);
	EXPECT_EQ(tolvard_state.db_up, 0);
}

/*
 * An ISSU step that waits for replication goes on only with the link up:
 * a database that comes back while the standby is away must not release
 * it, and the link that comes up later, with the flag already set, does.
 */
TEST_F(DbOpen, IssuWaitsForTheLinkNotForTheDatabase)
{
	script.chassis_issu = KEEL_CHASSIS_DAEMON_ISSU_PREPARE;
	script.daemon_issu = KEEL_ISSU_PREPARE;
	tolvard_state.rep_ready = 0;
	tolvard_state.mirror_up = 0;
	tolvard_open();
	ASSERT_EQ(tolvard_state.db_env, &fake_env);
	EXPECT_EQ(tolvard_state.rep_ready, 1);
	EXPECT_EQ(script.issu_ready, 0);

	/* The link is up and the database registers again. */
	tolvard_state.rep_ready = 0;
	tolvard_state.mirror_up = 1;
	tolvard_db_state_change(&tolvard_state, &fake_env);
	EXPECT_EQ(script.issu_ready, 1);

	/* One answer for one step, however often the flag is set again. */
	tolvard_state.rep_ready = 0;
	tolvard_db_state_change(&tolvard_state, &fake_env);
	EXPECT_EQ(script.issu_ready, 1);
	tolvard_state.mirror_up = 0;
	tolvard_close();
}

} // namespace

namespace {

/*
 * What the configuration says about graceful switchover, read by read.  A
 * configuration that cannot be parsed must not switch replication off.
 */
TEST(ConfigRead, GracefulSwitchoverFollowsEachGoodRead)
{
	const std::string config = "/etc/tolvar/config";
	const std::string platform = "/etc/tolvar/platform";

	write_file(platform, "role = master\n");
	write_file(config, "set chassis redundancy graceful-switchover\n");
	EXPECT_EQ(tolvard_config_read(0), 1);
	EXPECT_EQ(tolvard_state.gres_configured, 1);

	write_file(config, "set chassis redundancy {\n");
	EXPECT_EQ(tolvard_config_read(0), 1);
	EXPECT_EQ(tolvard_state.gres_configured, 1) << "unreadable is not off";

	write_file(config, "set chassis redundancy\n");
	EXPECT_EQ(tolvard_config_read(0), 1);
	EXPECT_EQ(tolvard_state.gres_configured, 0);

	write_file(platform, "role = master\ncluster = 1\n");
	EXPECT_EQ(tolvard_config_read(0), 1);
	EXPECT_EQ(tolvard_state.gres_configured, 1) << "a cluster implies it";

	std::filesystem::remove(tolvar::path(config));
	write_file(platform, "role = master\n");
	EXPECT_EQ(tolvard_config_read(0), 0);
	EXPECT_EQ(tolvard_state.gres_configured, 1) << "no read, no change";
	EXPECT_EQ(tolvard_state.gres_enabled, 0) << "acting on it is not ours";
}

} // namespace

/*
 * The margin at a change to master: the base, plus the rate for every
 * second since this engine last knew the newest id, or the unknown margin
 * when it never did; never wrapping.
 */
TEST(IdMargin, GrowsWithTheTimeOutOfStep)
{
	struct tolvard_state saved = tolvard_state;
	tolvard_state.id_rate = 1000;
	tolvard_state.id_margin = 50;
	tolvard_state.id_margin_unknown = 7000;

	tolvard_state.heard_at = 0;
	EXPECT_EQ(tolvard_id_margin_size(100), 7050u);
	tolvard_state.heard_at = 100;
	EXPECT_EQ(tolvard_id_margin_size(100), 50u);
	EXPECT_EQ(tolvard_id_margin_size(130), 30050u);
	/* A clock set back is no time at all, not a smaller margin. */
	EXPECT_EQ(tolvard_id_margin_size(40), 50u);
	tolvard_state.id_rate = UINT64_MAX / 2;
	EXPECT_EQ(tolvard_id_margin_size(100 + 10), UINT64_MAX);

	/* Due only on a start as master. */
	tolvard_state.role = role_standby;
	tolvard_state.id_margin_due = 0;
	tolvard_id_margin_start(5);
	EXPECT_EQ(tolvard_state.id_margin_due, 0);
	EXPECT_EQ(tolvard_state.heard_at, 5);
	tolvard_state.role = role_master;
	tolvard_id_margin_start(0);
	EXPECT_EQ(tolvard_state.id_margin_due, 1);
	EXPECT_EQ(tolvard_ids_open(), 0);
	tolvard_state = saved;
}
