/*
 * The record channel in-process: the receive walk over the peer's bytes,
 * what each message does to the database's id word, the entry pool and
 * the encoder.  The binary runs in an IPC namespace of its own and opens
 * the main segment as keel would, so the id word is the real one.
 */
#include "rep.h"

#include <platform/paths.h>
#include <platform/trace.h>
#include <sdb/sdb.h>
#include <sdb/sdb_id.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string trace_path;

class environment : public ::testing::Environment {
public:
	void SetUp() override
	{
		char tmpl[] = "/tmp/tolvard-rep-test-XXXXXX";
		ASSERT_NE(mkdtemp(tmpl), nullptr);
		setenv("TOLVAR_ROOT", tmpl, 1);
		root_ = tmpl;
		ASSERT_EQ(sdb_open_internal(true), 0);
		tolvard_state.trace = daemon_trace_initialize("/rep-test.trace");
		trace_path = tolvar::path("/rep-test.trace");
		ASSERT_NE(tolvard_state.trace, nullptr);
	}
	void TearDown() override
	{
		sdb_close_internal(true);
		std::string cmd = "rm -rf " + root_;
		(void)system(cmd.c_str());
	}

private:
	std::string root_;
};

std::string trace_text(void)
{
	std::ifstream in(trace_path);
	std::stringstream ss;
	ss << in.rdbuf();
	return ss.str();
}

/* The trace lines written since the fixture began. */
class Channel : public ::testing::Test {
protected:
	void SetUp() override
	{
		mark_ = trace_text().size();
		tolvard_state.role = role_standby;
		tolvard_state.gres_enabled = 0;
		tolvard_state.recv_msgs = 0;
		tolvard_state.recv_bytes = 0;
		ASSERT_EQ(sdb_id_set(0), 0);
	}
	std::string traced(void) { return trace_text().substr(mark_); }
	bool saw(const std::string &line)
	{
		return traced().find(line) != std::string::npos;
	}

private:
	size_t mark_ = 0;
};

std::vector<uint8_t> msg(uint8_t type, const void *payload, uint16_t len,
    uint8_t version = 1)
{
	std::vector<uint8_t> m(4 + len);
	m[0] = version;
	m[1] = type;
	memcpy(&m[2], &len, 2);
	if (len != 0)
		memcpy(&m[4], payload, len);
	return m;
}

std::vector<uint8_t> session_id_msg(uint64_t id)
{
	return msg(TOLVARD_MSG_SESSION_ID, &id, sizeof(id));
}

std::vector<uint8_t> cat(std::vector<uint8_t> a, const std::vector<uint8_t> &b)
{
	a.insert(a.end(), b.begin(), b.end());
	return a;
}

int decode(const std::vector<uint8_t> &rec)
{
	/* An exact-size copy: a read past the record is a read past the
	 * allocation. */
	auto *p = static_cast<uint8_t *>(malloc(rec.size() + 1));
	memcpy(p, rec.data(), rec.size());
	int rc = tolvard_msg_decode(p, (uint32_t)rec.size());
	free(p);
	return rc;
}

} // namespace

TEST_F(Channel, EmptyRecordIsAMessage)
{
	EXPECT_EQ(tolvard_msg_decode(nullptr, 0), 0);
	EXPECT_EQ(tolvard_state.recv_msgs, 1u);
	EXPECT_FALSE(saw("Out of Sync"));
}

TEST_F(Channel, StandbyTakesTheMastersId)
{
	auto rec = session_id_msg(4242);
	EXPECT_EQ(decode(rec), 0);
	EXPECT_EQ(sdb_id_get(), 4242u);
	EXPECT_TRUE(saw("New session id 4242"));
	EXPECT_EQ(tolvard_state.recv_msgs, 1u);
	EXPECT_EQ(tolvard_state.recv_bytes, 12u);
	/* The next one moves it on. */
	EXPECT_EQ(decode(session_id_msg(5000)), 0);
	EXPECT_EQ(sdb_id_get(), 5000u);
}

TEST_F(Channel, StandbyIdIsNeverPulledBack)
{
	ASSERT_EQ(sdb_id_set(9000), 0);
	EXPECT_EQ(decode(session_id_msg(100)), 0);
	EXPECT_EQ(sdb_id_get(), 9000u);
}

TEST_F(Channel, MasterAndNoRoleRefuseASessionId)
{
	ASSERT_EQ(sdb_id_set(77), 0);
	tolvard_state.role = role_master;
	EXPECT_EQ(decode(session_id_msg(1000)), 0);
	EXPECT_TRUE(saw("SESSION ID 1000 msg recv rejected, we are master"));
	EXPECT_EQ(sdb_id_get(), 77u);
	tolvard_state.role = role_none;
	EXPECT_EQ(decode(session_id_msg(1001)), 0);
	EXPECT_TRUE(saw("SESSION ID 1001 msg recv rejected, we are neither "
	    "master nor standby"));
	EXPECT_EQ(sdb_id_get(), 77u);
}

TEST_F(Channel, SessionIdOfAnotherSizeIsRejected)
{
	uint32_t small = 5;
	EXPECT_EQ(decode(msg(TOLVARD_MSG_SESSION_ID, &small, 4)), 0);
	EXPECT_TRUE(saw("SESSION ID msg recv size 4, should be 8, rejected"));
	EXPECT_EQ(sdb_id_get(), 0u);
}

TEST_F(Channel, StrayBytesBehindAMessageAreOutOfSync)
{
	auto rec = cat(session_id_msg(10), {1, 2, 3});
	EXPECT_EQ(decode(rec), -1);
	std::string t = traced();
	size_t a = t.find("Failed to read msg header, too small 15");
	size_t b = t.find("error handling message from recv data");
	size_t c = t.find("Out of Sync");
	ASSERT_NE(a, std::string::npos) << t;
	EXPECT_TRUE(a < b && b < c && c != std::string::npos) << t;
	EXPECT_EQ(tolvard_state.recv_msgs, 0u);
	EXPECT_EQ(tolvard_state.recv_bytes, 0u);
}

TEST_F(Channel, BadHeadersAreOutOfSync)
{
	uint64_t id = 3;
	EXPECT_EQ(decode(msg(TOLVARD_MSG_SESSION_ID, &id, 8, 2)), -1);
	EXPECT_TRUE(saw("Failed to decode msg header, unknown version 2, have 1"));
	auto rec = session_id_msg(3);
	rec[2] = 9;	/* one more than is there */
	EXPECT_EQ(decode(rec), -1);
	EXPECT_TRUE(saw("Failed to decode msg header, len too short 9, have 8"));
	rec[2] = 0xff;
	rec[3] = 0xff;
	EXPECT_EQ(decode(rec), -1);
	EXPECT_EQ(sdb_id_get(), 0u);
	EXPECT_EQ(tolvard_state.recv_msgs, 0u);
}

TEST_F(Channel, WalkSkipsUnknownTypesAndGoesOn)
{
	uint64_t zero = 0;
	auto rec = cat(cat(msg(TOLVARD_MSG_BARRIER, &zero, 8), msg(9, "ab", 2)),
	    cat(msg(TOLVARD_MSG_RESERVED, nullptr, 0), session_id_msg(31)));
	EXPECT_EQ(decode(rec), 0);
	EXPECT_TRUE(saw("Failed to decode msg header, unknown msg type 9"));
	EXPECT_EQ(sdb_id_get(), 31u);
	EXPECT_EQ(tolvard_state.recv_msgs, 1u);
	EXPECT_EQ(tolvard_state.recv_bytes, (uint32_t)rec.size());
}

TEST_F(Channel, InfoMessages)
{
	uint32_t word = TOLVARD_INFO_READY;
	EXPECT_EQ(decode(msg(TOLVARD_MSG_INFO, &word, 2)), 0);
	EXPECT_TRUE(saw("INFO msg recv size 2, should be at least 4, rejected"));

	tolvard_state.role = role_master;
	tolvard_state.rep_ready = 0;
	EXPECT_EQ(decode(msg(TOLVARD_MSG_INFO, &word, 4)), 0);
	EXPECT_TRUE(saw("INFO msg recv, new state UP"));
	EXPECT_EQ(tolvard_state.rep_ready, 1);
	word = 0;
	EXPECT_EQ(decode(msg(TOLVARD_MSG_INFO, &word, 4)), 0);
	EXPECT_TRUE(saw("INFO msg recv, new state DOWN"));
	EXPECT_EQ(tolvard_state.rep_ready, 0);

	tolvard_state.role = role_standby;
	EXPECT_EQ(decode(msg(TOLVARD_MSG_INFO, &word, 4)), 0);
	EXPECT_TRUE(saw("INFO MSG msg recv rejected, we are standby"));
	word = TOLVARD_INFO_REQUEST;
	EXPECT_EQ(decode(msg(TOLVARD_MSG_INFO, &word, 4)), 0);
	EXPECT_TRUE(saw("INFO MSG msg recv, send our state"));
	/* Without graceful switchover nothing goes out. */
	EXPECT_TRUE(saw("Send failed, GRES not configured"));
	tolvard_state.role = role_none;
	EXPECT_EQ(decode(msg(TOLVARD_MSG_INFO, &word, 4)), 0);
	EXPECT_TRUE(saw("INFO MSG msg recv rejected, we are neither master "
	    "nor standby"));
}

TEST_F(Channel, RecordsByOperation)
{
	auto rec = session_id_msg(64);
	mirror_recvd_data r = {};
	r.data = rec.data();
	r.got_len = r.total_len = (uint32_t)rec.size();
	r.op = MIRROR_OP_DELETE;
	tolvard_data_decode(&r);
	EXPECT_TRUE(saw("Mirror DELETE bytes 12"));
	EXPECT_EQ(sdb_id_get(), 0u);
	r.op = 7;
	tolvard_data_decode(&r);
	EXPECT_TRUE(saw("Mirror Lib, unrecognized decode operation 7"));
	r.got_len = 0;
	r.op = MIRROR_OP_ADD;
	tolvard_data_decode(&r);
	EXPECT_TRUE(saw("Mirror Recv data too small 0, expected 1"));
	tolvard_data_decode(nullptr);
	EXPECT_EQ(sdb_id_get(), 0u);
	for (uint8_t op : {MIRROR_OP_ADD, MIRROR_OP_UPDATE, MIRROR_OP_RESYNC}) {
		ASSERT_EQ(sdb_id_set(0), 0);
		r.op = op;
		r.got_len = (uint32_t)rec.size();
		tolvard_data_decode(&r);
		EXPECT_EQ(sdb_id_get(), 64u) << (int)op;
	}
}

TEST_F(Channel, EncoderWritesTheHeaderOrWaitsForRoom)
{
	tolvard_entry e = {};
	uint64_t id = 0x1122334455667788ULL;
	e.data = &id;
	e.size = 8;
	e.msg_type = TOLVARD_MSG_SESSION_ID;
	e.entry_id = 5;
	e.node.mdn_op = MIRROR_OP_UPDATE;
	uint8_t buf[16] = {};
	EXPECT_EQ(tolvard_data_encode(&e.node, buf, 11), 0);
	ASSERT_EQ(tolvard_data_encode(&e.node, buf, sizeof(buf)), 12);
	EXPECT_EQ(buf[0], 1);
	EXPECT_EQ(buf[1], TOLVARD_MSG_SESSION_ID);
	uint16_t len;
	memcpy(&len, buf + 2, 2);
	EXPECT_EQ(len, 8);
	EXPECT_EQ(memcmp(buf + 4, &id, 8), 0);
	/* What the encoder writes the decoder reads. */
	EXPECT_EQ(tolvard_msg_decode(buf, 12), 0);
	EXPECT_EQ(sdb_id_get(), 0x1122334455667788ULL);

	e.node.mdn_op = 5;
	EXPECT_EQ(tolvard_data_encode(&e.node, buf, sizeof(buf)), -1);
	EXPECT_TRUE(saw("Mirror Lib, unrecognized encode operation 5 for 5"));
	e.node.mdn_op = MIRROR_OP_ADD;
	e.data = nullptr;
	EXPECT_EQ(tolvard_data_encode(&e.node, buf, sizeof(buf)), -1);
	EXPECT_EQ(tolvard_data_encode(nullptr, buf, sizeof(buf)), -1);
	EXPECT_EQ(tolvard_entry_of(&e.node), &e);
}

TEST_F(Channel, PoolHoldsOneMoreThanTheLimitThenCounts)
{
	ASSERT_EQ(tolvard_state.entries_created, 0u);
	tolvard_state.mirror_max_entries = TOLVARD_MIRROR_ENTRIES;
	std::vector<tolvard_entry *> held;
	for (int i = 0; i < TOLVARD_MIRROR_ENTRIES + 1; i++) {
		tolvard_entry *e = tolvard_entry_get();
		ASSERT_NE(e, nullptr) << i;
		EXPECT_EQ(e->entry_id, (uint32_t)i + 1);
		held.push_back(e);
	}
	EXPECT_EQ(tolvard_entry_get(), nullptr);
	EXPECT_TRUE(saw("Max messages hit 1 times"));
	EXPECT_EQ(tolvard_state.max_hits, 1u);
	/* A freed entry comes back first, once. */
	tolvard_entry *e = held.back();
	e->flags = TOLVARD_ENTRY_INITED | TOLVARD_ENTRY_ACK | TOLVARD_ENTRY_SPARE;
	tolvard_entry_free(e);
	EXPECT_EQ(e->flags, TOLVARD_ENTRY_INITED);
	tolvard_entry_free(e);
	EXPECT_TRUE(saw("Failed to add entry 1001 to free list, already present"));
	EXPECT_EQ(tolvard_entry_get(), e);
	EXPECT_EQ(tolvard_entry_get(), nullptr);
	EXPECT_EQ(tolvard_state.max_hits, 2u);
	for (tolvard_entry *h : held)
		tolvard_entry_free(h);
}

TEST_F(Channel, SendWithoutGracefulSwitchoverFailsAndTheIdIsTriedAgain)
{
	tolvard_state.role = role_master;
	tolvard_state.db_up = 1;
	tolvard_state.session_id_sent = 0;
	ASSERT_EQ(sdb_id_set(12), 0);
	uint64_t id = 1;
	EXPECT_EQ(tolvard_rep_send(&id, 8, TOLVARD_MSG_SESSION_ID, 0), nullptr);
	EXPECT_TRUE(saw("tolvard_rep_send: Send failed, GRES not configured"));
	tolvard_session_id_check();
	EXPECT_TRUE(saw("New Session id 12"));
	EXPECT_EQ(tolvard_state.session_id_sent, 0u);
	tolvard_state.db_up = 0;
	tolvard_session_id_check();
	EXPECT_TRUE(saw("Cannot empty queue, db down"));
	tolvard_state.db_up = 1;
	tolvard_state.role = role_none;
	tolvard_session_id_check();
	EXPECT_TRUE(saw("Cannot empty queue, waiting for master/standby role "
	    "assignment"));
}

TEST_F(Channel, ReplicationStartSendsAMovedIdOnce)
{
	tolvard_state.role = role_master;
	tolvard_state.db_up = 1;
	tolvard_state.gres_enabled = 1;
	tolvard_state.mirror_up = 1;
	tolvard_state.mirror_inited = 0;	/* every send is traced and fails */
	static char env;
	tolvard_state.db_env = &env;
	tolvard_state.session_id_sent = 7;
	ASSERT_EQ(sdb_id_set(40), 0);
	EXPECT_EQ(tolvard_rep_start(), 0);
	std::string t = traced();
	const std::string send = "tolvard_rep_send: Send failed, mirroring not set up";
	size_t first = t.find(send);
	EXPECT_NE(first, std::string::npos);
	EXPECT_EQ(t.find(send, first + 1), std::string::npos);
	tolvard_state.mirror_up = 0;
	tolvard_state.rep_ready = 0;
	tolvard_state.db_env = nullptr;
}

int main(int argc, char **argv)
{
	::testing::InitGoogleTest(&argc, argv);
	::testing::AddGlobalTestEnvironment(new environment);
	return RUN_ALL_TESTS();
}
