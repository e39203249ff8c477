/*
 * keel's server on one connection, without an event loop: framing of
 * messages however the bytes arrive, and the status a registration gets.
 */
#include "keel_server_internal.h"

#include <gtest/gtest.h>
#include <platform/paths.h>

#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

const bool root_set = [] {
	char tmpl[] = "/tmp/keelsrv-test-XXXXXX";
	const char *dir = mkdtemp(tmpl);
	setenv("TOLVAR_ROOT", dir != nullptr ? dir : "/tmp", 1);
	return true;
}();

keel_msg_register
registration(uint8_t flags)
{
	keel_msg_register m{};
	m.type = KEEL_MSG_REGISTER;
	strcpy(m.name, "tolvard");
	m.pid = 4242;
	m.flags = flags;
	return m;
}

class KeelServer : public ::testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_TRUE(root_set);
		ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
		c = keel_server_adopt(sv[0]);
		ASSERT_NE(c, nullptr);
		keel_server_set_ready(1);
		keel_server_set_recovering(0);
		keel_server_set_purging(0);
	}
	void TearDown() override
	{
		keel_server_drop_all();
		close(sv[1]);
	}
	bool feed(const void *p, size_t len)
	{
		return keel_server_feed(c, static_cast<const uint8_t *>(p), len);
	}
	/* The answer waiting on the client's end, if any. */
	bool answer(keel_msg_answer *a)
	{
		struct pollfd p = {sv[1], POLLIN, 0};
		if (poll(&p, 1, 0) <= 0)
			return false;
		return read(sv[1], a, sizeof(*a)) == sizeof(*a);
	}
	int32_t status_of(uint8_t flags)
	{
		keel_msg_register m = registration(flags);
		keel_msg_answer a;
		EXPECT_TRUE(feed(&m, sizeof(m)));
		EXPECT_TRUE(answer(&a));
		return static_cast<int32_t>(a.status);
	}

	int sv[2];
	keel_conn *c = nullptr;
};

TEST_F(KeelServer, MessagesAreWholeHoweverTheyArrive)
{
	/* keel is standby here: a standby registration is accepted. */
	keel_msg_register m = registration(KEEL_REG_REGISTER);
	const uint8_t *b = reinterpret_cast<const uint8_t *>(&m);
	keel_msg_answer a;
	for (size_t i = 0; i + 1 < sizeof(m); i++) {
		ASSERT_TRUE(feed(b + i, 1));
		ASSERT_FALSE(answer(&a)) << "answered after " << i + 1 << " bytes";
	}
	ASSERT_TRUE(feed(b + sizeof(m) - 1, 1));
	ASSERT_TRUE(answer(&a));
	EXPECT_EQ(a.type, (uint32_t)KEEL_MSG_REG_ANSWER);
	EXPECT_EQ(a.flags, (uint32_t)KEEL_ANSWER_SUCCESS);
	EXPECT_EQ(a.status, 0u);
	EXPECT_TRUE(c->registered);
	EXPECT_EQ(c->name, "tolvard");

	/* An ISSU state and two short messages in one read. */
	keel_msg_issu issu{};
	issu.type = KEEL_MSG_ISSU;
	issu.issu.state = KEEL_ISSU_PREPARE;
	issu.issu.wait = 30;
	uint32_t shorts[2] = {KEEL_MSG_REP_STATE1, KEEL_MSG_RECOVERY_DONE};
	uint8_t burst[sizeof(issu) + sizeof(shorts)];
	memcpy(burst, &issu, sizeof(issu));
	memcpy(burst + sizeof(issu), shorts, sizeof(shorts));
	ASSERT_TRUE(feed(burst, sizeof(burst)));
	EXPECT_EQ(c->issu.state, (uint32_t)KEEL_ISSU_PREPARE);
	EXPECT_EQ(c->issu.wait, 30u);
	EXPECT_EQ(c->have, 0u);
	EXPECT_EQ(keel_server_client_count(), 1);

	/* Goodbye: no longer counted, and its end is no death. */
	keel_msg_register bye = registration(0);
	ASSERT_TRUE(feed(&bye, sizeof(bye)));
	EXPECT_TRUE(c->unregistered);
	EXPECT_EQ(keel_server_client_count(), 0);
}

TEST_F(KeelServer, RefusalsInTheirOrder)
{
	keel_server_set_purging(1);
	keel_server_set_ready(0);
	EXPECT_EQ(status_of(KEEL_REG_REGISTER), -36);
	keel_server_set_purging(0);
	EXPECT_EQ(status_of(KEEL_REG_REGISTER), -19);
	keel_server_set_ready(1);
	keel_server_set_recovering(1);
	EXPECT_EQ(status_of(KEEL_REG_REGISTER | KEEL_REG_MASTER), -11);
	keel_server_set_recovering(0);
	EXPECT_EQ(status_of(KEEL_REG_REGISTER | KEEL_REG_MASTER), -31);
	EXPECT_FALSE(c->registered);
	EXPECT_EQ(status_of(KEEL_REG_REGISTER), 0);
	EXPECT_TRUE(c->registered);
}

TEST_F(KeelServer, BadBytesCloseOnlyThisConnection)
{
	uint32_t bad = 77;
	EXPECT_FALSE(feed(&bad, sizeof(bad)));
	/* The peer sees the end of the stream, nothing else. */
	char buf[8];
	EXPECT_EQ(read(sv[1], buf, sizeof(buf)), 0);
	EXPECT_EQ(keel_server_clients(), nullptr);
}

TEST_F(KeelServer, OldConnectionOfAReregisteredClientIsNoDeath)
{
	keel_msg_register m = registration(KEEL_REG_REGISTER);
	keel_msg_answer a;
	ASSERT_TRUE(feed(&m, sizeof(m)));
	ASSERT_TRUE(answer(&a));

	/* The same process on a second connection. */
	int sv2[2];
	ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv2), 0);
	keel_conn *c2 = keel_server_adopt(sv2[0]);
	EXPECT_TRUE(keel_server_is_death(c));
	ASSERT_TRUE(keel_server_feed(c2, reinterpret_cast<uint8_t *>(&m),
	    sizeof(m)));
	EXPECT_EQ(keel_server_client_count(), 2);
	EXPECT_FALSE(keel_server_is_death(c));
	EXPECT_FALSE(keel_server_is_death(c2));
	close(sv2[1]);

	/* Said goodbye, or told to go: not a death either. */
	keel_server_drop(c2);
	EXPECT_TRUE(keel_server_is_death(c));
	c->leaving = true;
	EXPECT_FALSE(keel_server_is_death(c));
	c->leaving = false;
	keel_msg_register bye = registration(0);
	ASSERT_TRUE(feed(&bye, sizeof(bye)));
	EXPECT_FALSE(keel_server_is_death(c));
}

TEST(KeelServerCheck, WhatAMessageMustBe)
{
	keel_msg_register m = registration(KEEL_REG_REGISTER);
	auto check = [](const keel_msg_register &r, bool registered = false) {
		return keel_server_check(reinterpret_cast<const uint8_t *>(&r),
		    sizeof(r), registered);
	};
	EXPECT_EQ(check(m), nullptr);
	keel_msg_register bad = m;
	bad.pid = 0;
	EXPECT_STREQ(check(bad), "no process id");
	bad = m;
	bad.recovery_state = 3;
	EXPECT_STREQ(check(bad), "recovery state out of range");
	bad = m;
	bad.issu.text_len = 4;
	memcpy(bad.issu.text, "abcd", 4);
	EXPECT_STREQ(check(bad), "ISSU text not terminated");
	bad = m;
	bad.issu_capable = 2;
	EXPECT_STREQ(check(bad), "reserved bytes set");
	/* Unregistration may carry the code of a failed open. */
	bad = m;
	bad.flags = 0;
	bad.error = static_cast<uint32_t>(-2);
	EXPECT_EQ(check(bad), nullptr);
	EXPECT_STREQ(keel_server_check(reinterpret_cast<const uint8_t *>(&m),
	    100, false), "wrong length");
}

} // namespace
