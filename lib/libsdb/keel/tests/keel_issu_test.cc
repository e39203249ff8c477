/*
 * ISSU: the chassis messages that keel relays, the daemon's answers, and
 * the operations that the application starts itself.
 */
#include "keel_test_util.h"

using namespace keeltest;

namespace {

struct issu_calls {
	std::vector<std::string> calls;
	int abort = 0, ready = 1;
	keel_issu_info info{};
};

issu_calls *cur;

class KeelIssu : public KeelTest {
protected:
	void SetUp() override
	{
		KeelTest::SetUp();
		cur = &calls;
		keel_set_issu_context(h, &calls);
		keel_set_issu_idle_cb(h, [](void *) {
			cur->calls.push_back("idle");
		});
		keel_set_issu_prepare_cbs(h,
		    [](void *, int *abort, int *ready, keel_issu_info *info) {
			    cur->calls.push_back("prepare");
			    EXPECT_EQ(*ready, 1);
			    EXPECT_EQ(*abort, 0);
			    *abort = cur->abort;
			    *ready = cur->ready;
			    *info = cur->info;
		    },
		    [](void *) { cur->calls.push_back("prepare_done"); });
		keel_set_issu_switchover_cbs(h,
		    [](void *, int *ready, keel_issu_info *info) {
			    cur->calls.push_back("switchover");
			    *ready = cur->ready;
			    *info = cur->info;
		    },
		    [](void *) { cur->calls.push_back("switchover_done"); });
		keel_set_issu_abort_cb(h, [](void *, keel_issu_info *info) {
			cur->calls.push_back("abort");
			*info = cur->info;
		});
		p = attach_peer();
	}

	/* Deliver a chassis message and return what the client sent back. */
	bool deliver(uint32_t msg, keel_msg_issu *out)
	{
		keel_msg_chassis_issu m = {KEEL_MSG_CHASSIS_ISSU, msg};
		EXPECT_EQ(write(p, &m, sizeof(m)), (ssize_t)sizeof(m));
		keel_process(h);
		return nothing_or(out);
	}

	bool nothing_or(keel_msg_issu *out)
	{
		struct pollfd pf = {p, POLLIN, 0};
		if (poll(&pf, 1, 0) <= 0)
			return false;
		EXPECT_TRUE(read_msg(p, out, sizeof(*out)));
		EXPECT_EQ(out->type, (uint32_t)KEEL_MSG_ISSU);
		return true;
	}

	issu_calls calls;
	int p = -1;
};

TEST_F(KeelIssu, PrepareReadyAndSwitchover)
{
	keel_msg_issu out;
	ASSERT_TRUE(deliver(KEEL_CHASSIS_DAEMON_ISSU_PREPARE, &out));
	EXPECT_EQ(out.issu.state, (uint32_t)KEEL_ISSU_READY);
	EXPECT_EQ(out.issu.wait, 0u);
	EXPECT_EQ(out.issu.text_len, 0u);
	EXPECT_EQ(keel_chassis_issu_state(h),
	    (uint32_t)KEEL_CHASSIS_DAEMON_ISSU_PREPARE);
	EXPECT_TRUE(logged("Send ISSU message <READY>"));

	EXPECT_FALSE(deliver(KEEL_CHASSIS_DAEMON_ISSU_PREPARE_DONE, &out));

	/* Switchover not ready yet: asks for a wait with a reason. */
	calls.ready = 0;
	calls.info.wait = 30;
	strcpy(calls.info.text, "bulk sync");
	ASSERT_TRUE(deliver(KEEL_CHASSIS_DAEMON_SWITCHOVER_PREPARE, &out));
	EXPECT_EQ(out.issu.state, (uint32_t)KEEL_ISSU_SWITCHOVER_PREPARE);
	EXPECT_EQ(out.issu.wait, 30u);
	EXPECT_EQ(out.issu.text_len, 10u);
	EXPECT_STREQ(out.issu.text, "bulk sync");
	EXPECT_TRUE(logged("Send ISSU message <SWITCHOVER_PREPARE>, wait=30 "
	    "errstr=\"bulk sync\""));

	/* The application finishes, then the chassis moves on. */
	EXPECT_EQ(keel_issu_ready(h), 0);
	ASSERT_TRUE(nothing_or(&out));
	EXPECT_EQ(out.issu.state, (uint32_t)KEEL_ISSU_SWITCHOVER_READY);
	EXPECT_EQ(out.issu.wait, 0u);
	EXPECT_FALSE(deliver(KEEL_CHASSIS_DAEMON_SWITCHOVER_PREPARE_DONE, &out));
	EXPECT_FALSE(deliver(KEEL_CHASSIS_IDLE, &out));
	EXPECT_EQ(keel_daemon_issu_state(h), (uint32_t)KEEL_ISSU_IDLE);
	EXPECT_EQ(calls.calls, (std::vector<std::string>{"prepare",
	    "prepare_done", "switchover", "switchover_done", "idle"}));
}

TEST_F(KeelIssu, RefusedTransitionsChangeNothing)
{
	keel_msg_issu out;
	/* Nothing to be done, nothing to abort, no such phases. */
	EXPECT_FALSE(deliver(KEEL_CHASSIS_DAEMON_ISSU_PREPARE_DONE, &out));
	EXPECT_FALSE(deliver(KEEL_CHASSIS_ABORT, &out));
	EXPECT_FALSE(deliver(KEEL_CHASSIS_DAEMON_SWITCHOVER_PREPARE, &out));
	EXPECT_EQ(count_logged("Invalid ISSU state transition"), 3);
	EXPECT_FALSE(deliver(KEEL_CHASSIS_FRU_ISSU, &out));
	EXPECT_FALSE(deliver(KEEL_CHASSIS_UNKNOWN, &out));
	EXPECT_FALSE(deliver(0x7fffffff, &out));
	EXPECT_TRUE(logged("Invalid ISSU state message 3"));
	EXPECT_TRUE(logged("Invalid ISSU state message 8"));
	EXPECT_TRUE(logged("Received ISSU message <UNKNOWN>, daemon state "
	    "<IDLE>"));
	EXPECT_EQ(keel_daemon_issu_state(h), (uint32_t)KEEL_ISSU_IDLE);
	EXPECT_TRUE(calls.calls.empty());
	EXPECT_GE(h->fd, 0);	/* bad phases are no reason to hang up */

	EXPECT_EQ(keel_issu_ready(h), -25);
	EXPECT_TRUE(logged("Cannot send ISSU ready to KEEL in IDLE state"));
	EXPECT_EQ(keel_issu_abort(h, 5, "x"), -25);
	EXPECT_TRUE(logged("Cannot send ISSU abort to KEEL in IDLE state"));
	EXPECT_EQ(keel_issu_extend_wait(h, 5, "x"), -25);
	EXPECT_TRUE(logged("Cannot extend ISSU wait in state <IDLE>"));
	EXPECT_EQ(keel_issu_ready(nullptr), -25);
	EXPECT_EQ(keel_chassis_issu_state(nullptr), 0u);
}

TEST_F(KeelIssu, AbortFromTheApplicationAndFromTheChassis)
{
	keel_msg_issu out;
	calls.ready = 0;
	calls.info.wait = 10;
	ASSERT_TRUE(deliver(KEEL_CHASSIS_DAEMON_ISSU_PREPARE, &out));
	EXPECT_EQ(out.issu.state, (uint32_t)KEEL_ISSU_PREPARE);
	EXPECT_TRUE(logged("Send ISSU message <PREPARE>, wait=10 "
	    "errstr=\"NULL\""));

	/* A longer wait; the text is cut to what the block holds. */
	std::string longtext(300, 'x');
	EXPECT_EQ(keel_issu_extend_wait(h, 60, longtext.c_str()), 0);
	ASSERT_TRUE(nothing_or(&out));
	EXPECT_EQ(out.issu.wait, 60u);
	EXPECT_EQ(out.issu.text_len, 128u);
	EXPECT_EQ(strlen(out.issu.text), 127u);

	EXPECT_EQ(keel_issu_abort(h, 0, "disk full"), 0);
	ASSERT_TRUE(nothing_or(&out));
	EXPECT_EQ(out.issu.state, (uint32_t)KEEL_ISSU_ABORT);
	EXPECT_STREQ(out.issu.text, "disk full");

	/* The chassis aborts too: the callback hears it. */
	strcpy(calls.info.text, "stopped");
	ASSERT_TRUE(deliver(KEEL_CHASSIS_ABORT, &out));
	EXPECT_EQ(out.issu.state, (uint32_t)KEEL_ISSU_ABORT);
	EXPECT_STREQ(out.issu.text, "stopped");
	EXPECT_EQ(calls.calls.back(), "abort");

	/* Ready from ABORT goes back to IDLE. */
	EXPECT_EQ(keel_issu_ready(h), 0);
	ASSERT_TRUE(nothing_or(&out));
	EXPECT_EQ(out.issu.state, (uint32_t)KEEL_ISSU_IDLE);
}

TEST_F(KeelIssu, ChangesWithoutAConnectionFailAndWaitForTheRegistration)
{
	keel_msg_issu out;
	calls.ready = 0;
	calls.info.wait = 10;
	ASSERT_TRUE(deliver(KEEL_CHASSIS_DAEMON_ISSU_PREPARE, &out));
	keel_close_connection(h, 0, 0);
	EXPECT_EQ(keel_issu_abort(h, 0, "link gone"), -35);
	EXPECT_FALSE(logged("Send ISSU message <ABORT>"));
	EXPECT_EQ(keel_daemon_issu_state(h), (uint32_t)KEEL_ISSU_ABORT);
}

TEST_F(KeelIssu, PrepareCanAbortAtOnce)
{
	keel_msg_issu out;
	calls.abort = 1;
	strcpy(calls.info.text, "no");
	ASSERT_TRUE(deliver(KEEL_CHASSIS_DAEMON_ISSU_PREPARE, &out));
	EXPECT_EQ(out.issu.state, (uint32_t)KEEL_ISSU_ABORT);
	EXPECT_EQ(out.issu.text_len, 3u);
}

TEST_F(KeelIssu, ReconnectionWithChassisAbortRunsTheAbortAgain)
{
	close(p);
	peer = -1;
	h->fd = -1;
	h->user_reg = 0;
	h->connected = 0;
	h->issu.state = KEEL_ISSU_PREPARE;
	fake_keel k;
	k.answer(KEEL_ANSWER_SUCCESS, 0, KEEL_ISSU_PREPARE, KEEL_CHASSIS_ABORT);
	ASSERT_EQ(keel_register(h), 0);
	EXPECT_TRUE(logged("Received KEEL Reg, daemon issu state <PREPARE>, "
	    "baysd issu state <ABORT>"));
	EXPECT_EQ(calls.calls, std::vector<std::string>{"abort"});
	EXPECT_EQ(keel_daemon_issu_state(h), (uint32_t)KEEL_ISSU_ABORT);
	/* The registration carried the daemon's state to keel. */
	auto regs = k.registrations();
	ASSERT_FALSE(regs.empty());
	EXPECT_EQ(regs[0].issu.state, (uint32_t)KEEL_ISSU_PREPARE);
	EXPECT_EQ(regs[0].issu_capable, 1);
}

TEST(KeelIssuNames, OutOfTableIsUnknown)
{
	EXPECT_STREQ(keel_daemon_issu_name(7), "UNKNOWN");
	EXPECT_STREQ(keel_chassis_issu_name(1000), "UNKNOWN");
}

TEST(KeelIssuSetters, CapableNeedsAPrepareCallback)
{
	keel_env_set(recording_env());
	env() = env_record{};
	keel_handle *h = keel_init_handle();
	int ctx;
	keel_set_issu_context(h, &ctx);
	EXPECT_TRUE(h->issu_capable);
	EXPECT_EQ(keel_register(h), -25);
	EXPECT_TRUE(env().calls.empty());
	keel_unregister(&h);
	keel_env_set(nullptr);
}

} // namespace
