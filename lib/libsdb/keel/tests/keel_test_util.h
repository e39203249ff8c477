/*
 * Helpers of the keel client's tests: a root directory of their own, an
 * environment table that records the open and close order, a scripted
 * peer on keel's socket, and a fixture that owns the one handle.
 */
#ifndef KEEL_TEST_UTIL_H
#define KEEL_TEST_UTIL_H

#include "keel_private.h"

#include <gtest/gtest.h>
#include <platform/paths.h>

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace keeltest {

/* What the recording environment was asked, in order. */
struct env_record {
	std::vector<std::string> calls;
	int open_rc = 0, db_init_rc = 0, secondary_rc = 0, check_rc = 0;
	int supported = 1;
	int master = 0;
	bool recovering = false;
	uint32_t recovery_status = 3;
};

env_record &env();
const keel_env_ops *recording_env();

/* The peer: accepts connections on keel's socket and answers as told. */
class fake_keel {
public:
	enum mode { ANSWER, SILENT };

	fake_keel();
	~fake_keel();
	/* Answer every registration with these flags and status. */
	void answer(uint32_t flags, int32_t status, uint32_t daemon_issu = 0,
	    uint32_t chassis_issu = 0);
	void silent();
	/* Registrations read so far, once there are at least n of them
	 * (or a generous wait has passed). */
	std::vector<keel_msg_register> registrations(size_t n = 0);

private:
	void run();

	int listen_fd_ = -1;
	int client_fd_ = -1;
	std::atomic<bool> stop_{false};
	std::mutex mu_;
	mode mode_ = ANSWER;
	keel_msg_answer answer_{};
	std::vector<keel_msg_register> regs_;
	std::thread thread_;
};

/* Fixture: a fresh handle with a log that the test can read. */
class KeelTest : public ::testing::Test {
protected:
	void SetUp() override;
	void TearDown() override;
	bool logged(const std::string &line) const;
	int count_logged(const std::string &line) const;
	/* Attach one end of a socketpair as if keel had accepted us. */
	int attach_peer();

	keel_handle *h = nullptr;
	std::vector<std::string> log;
	std::vector<void *> ready;	/* environments given to db_ready_cb */
	int peer = -1;
};

/* A socket listening where keel listens, in place of any before it. */
int listen_on_keel_path(int backlog);

/* Write the platform file ("role = master" and the like); "" removes it. */
void write_platform(const std::string &text);

/* Lines of the event log with this tag. */
/* Events of the tag, only those whose line holds text when given. */
int count_events(const std::string &tag, const std::string &text = "");

/* Read one whole message of the given size from fd, waiting at most 2 s. */
bool read_msg(int fd, void *buf, size_t len);

} // namespace keeltest

#endif
