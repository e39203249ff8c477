/*
 * What the event channel accepts from the socket and the request queue.
 */
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include <sdb/sdb_bbe.h>

namespace {

std::vector<uint8_t> msg(uint16_t type, std::vector<uint8_t> body)
{
	std::vector<uint8_t> m(4);
	uint16_t len = static_cast<uint16_t>(4 + body.size());
	memcpy(m.data(), &len, 2);
	memcpy(m.data() + 2, &type, 2);
	m.insert(m.end(), body.begin(), body.end());
	return m;
}

std::vector<uint8_t> words(std::initializer_list<uint32_t> w)
{
	std::vector<uint8_t> b(w.size() * 4);
	memcpy(b.data(), std::data(w), b.size());
	return b;
}

TEST(SdbBbeMsg, WholeMessagesOnlyAndMalformedOnesClose)
{
	std::vector<uint8_t> ack = msg(SDB_BBE_MSG_ACK, words({1, 1, 2, 3, 4, 5, 6}));
	std::vector<uint8_t> ka = msg(SDB_BBE_MSG_KEEPALIVE, {});
	std::vector<uint8_t> s = ack;
	s.insert(s.end(), ka.begin(), ka.end());
	s.insert(s.end(), ack.begin(), ack.begin() + 10);	/* half */
	EXPECT_EQ(sdb_bbe_msg_check(s.data(), 3), 0);
	EXPECT_EQ(sdb_bbe_msg_check(s.data(), 31), 0);
	EXPECT_EQ(sdb_bbe_msg_check(s.data(), s.size()), 32);
	EXPECT_EQ(sdb_bbe_msg_check(s.data() + 32, s.size() - 32), 4);
	EXPECT_EQ(sdb_bbe_msg_check(s.data() + 36, s.size() - 36), 0);

	EXPECT_EQ(sdb_bbe_msg_check(msg(SDB_BBE_MSG_ACK, words({2, 0})).data(),
	    12), -1);	/* two rows announced, none there */
	uint8_t tiny[4] = {3, 0, 6, 0};
	EXPECT_EQ(sdb_bbe_msg_check(tiny, 4), -1);
	EXPECT_EQ(sdb_bbe_msg_check(msg(9, {}).data(), 4), -1);
	std::vector<uint8_t> n2 = msg(SDB_BBE_MSG_NOTIFY, words({2, 0, 0, 0}));
	EXPECT_EQ(sdb_bbe_msg_check(n2.data(), n2.size()), -1);
	std::vector<uint8_t> n0 = msg(SDB_BBE_MSG_NOTIFY, words({0, 2, 7, 8}));
	EXPECT_EQ(sdb_bbe_msg_check(n0.data(), n0.size()), 20);
}

std::vector<uint8_t> app_def(uint16_t keylen)
{
	std::vector<uint8_t> e(8 + keylen, 'k');
	uint16_t hdr[4] = {SDB_BBE_REQ_APP_DEF, uint16_t(4 + keylen), 9, keylen};
	memcpy(e.data(), hdr, 8);
	return e;
}

TEST(SdbBbeMsg, RequestEntries)
{
	EXPECT_TRUE(sdb_bbe_entry_check(app_def(70).data(), 78));
	EXPECT_FALSE(sdb_bbe_entry_check(app_def(71).data(), 79));
	std::vector<uint8_t> del(12, 0);
	uint16_t hdr[2] = {SDB_BBE_REQ_DELETE, 8};
	memcpy(del.data(), hdr, 4);
	EXPECT_TRUE(sdb_bbe_entry_check(del.data(), 12));
	EXPECT_FALSE(sdb_bbe_entry_check(del.data(), 11));
	hdr[0] = SDB_BBE_REQ_SESSION;
	memcpy(del.data(), hdr, 4);
	EXPECT_FALSE(sdb_bbe_entry_check(del.data(), 12));
}

} // namespace
