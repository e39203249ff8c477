/*
 * The section codec: vectors written by hand from the record formats,
 * round trips through a slot, and the reader's refusals.
 */
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include <sdb/sdb.h>
#include <sdb/sdb_rep.h>

namespace {

/* Bytes in host order, as the formats are written. */
struct bytes {
	std::vector<uint8_t> v;
	template <class T> bytes &n(T x)
	{
		const auto *p = reinterpret_cast<const uint8_t *>(&x);
		v.insert(v.end(), p, p + sizeof x);
		return *this;
	}
	bytes &s(const std::string &t)
	{
		v.insert(v.end(), t.begin(), t.end());
		return *this;
	}
	bytes &block(uint32_t type, uint32_t len)
	{
		return n(type).n(len);
	}
};

struct entry {
	std::vector<uint8_t> buf = std::vector<uint8_t>(76 + 40960);
	sdb_sts_entry *e = sdb_sts_entry_init_private(buf.data(), buf.size(), 1);
};

std::vector<uint8_t> encode(const sdb_sts_entry *e, int section)
{
	std::vector<uint8_t> out(65536);
	size_t used = 0;
	EXPECT_EQ(sdb_rep_encode_section(e, section, out.data(), out.size(),
	    &used), 0);
	out.resize(used);
	return out;
}

int decode(const std::vector<uint8_t> &v, int section,
    const std::vector<uint8_t> &filter = {})
{
	entry d;
	return sdb_rep_decode_section(d.e, section, v.data(), v.size(),
	    filter.empty() ? nullptr : filter.data(), (uint16_t)filter.size());
}

/* Decoded into a fresh slot and encoded again: the same bytes. */
void expect_round_trip(const std::vector<uint8_t> &v, int section)
{
	entry d;
	ASSERT_EQ(sdb_rep_decode_section(d.e, section, v.data(), v.size(),
	    nullptr, 0), 0);
	EXPECT_EQ(d.e->dirty_flags, 0);
	EXPECT_EQ(encode(d.e, section), v);
}

} // namespace

TEST(Codec, ClientRecordVector)
{
	entry c;
	ASSERT_EQ(sdb_sts_entry_put_attr(c.e, USER_NAME, 3, "bob"), 0);
	uint32_t state = 2;
	ASSERT_EQ(sdb_sts_entry_put_attr(c.e, SESSION_STATE, 4, &state), 0);
	const uint8_t bits[5] = {1, 2, 3, 4, 5};
	ASSERT_EQ(sdb_sts_entry_put_attr(c.e, CONFIGURATION_BITS, 5, bits), 0);
	ASSERT_EQ(sdb_sts_entry_add_service_id(c.e, 5, SDB_SERVICE_LI), 0);
	ASSERT_EQ(sdb_sts_entry_add_service_id(c.e, 6, SDB_SERVICE_LI), 0);
	c.e->dynamic_session = 9;
	bytes want;
	want.n<uint16_t>(1)
	    .block(1, 18).n<uint16_t>(2).n<uint64_t>(5).n<uint64_t>(6)
	    .block(7, 8).n<uint16_t>(5).s(std::string("\1\2\3\4\5", 5))
	    .block(6, 8).n<uint64_t>(9)
	    .block(0, 15).n<uint16_t>(17).n<uint16_t>(3).s("bob")
	    .n<uint16_t>(36).n<uint16_t>(4).n<uint32_t>(2);
	std::vector<uint8_t> got = encode(c.e, SDB_REP_SECTION_CLIENT);
	EXPECT_EQ(got, want.v);
	expect_round_trip(got, SDB_REP_SECTION_CLIENT);
	/* The filter of configuration bits: one shared bit lets it through. */
	EXPECT_EQ(decode(got, SDB_REP_SECTION_CLIENT, {0, 0, 0, 0, 4}), 0);
	EXPECT_EQ(decode(got, SDB_REP_SECTION_CLIENT, {0xfe, 0xfd}),
	    SDB_ERR_FILTERED);
}

TEST(Codec, EmptyClientAndServiceRecordVectors)
{
	entry c;
	bytes client;
	client.n<uint16_t>(1).block(6, 8).n<uint64_t>(0).block(0, 0);
	EXPECT_EQ(encode(c.e, SDB_REP_SECTION_CLIENT), client.v);
	c.e->client_session = 77;
	ASSERT_EQ(sdb_sts_entry_put_attr(c.e, SERVICE_SESSION_NAME, 2, "sv"), 0);
	bytes service;
	service.n<uint16_t>(1).block(2, 6).n<uint16_t>(42).n<uint16_t>(2).s("sv")
	    .block(3, 8).n<uint64_t>(77);
	std::vector<uint8_t> got = encode(c.e, SDB_REP_SECTION_SERVICE);
	EXPECT_EQ(got, service.v);
	expect_round_trip(got, SDB_REP_SECTION_SERVICE);
}

TEST(Codec, AttributeAndDynamicRecordVectors)
{
	entry c;
	size_t used;
	EXPECT_EQ(sdb_rep_encode_section(c.e, SDB_REP_SECTION_AUTH_REQ, nullptr,
	    0, &used), SDB_ERR_NOT_FOUND);
	ASSERT_EQ(sdb_sts_entry_put_auth(c.e, SDB_STS_AUTH_RESP, 25, "ab", 2), 0);
	ASSERT_EQ(sdb_sts_entry_put_auth(c.e, SDB_STS_AUTH_RESP, 8, "c", 1), 0);
	bytes auth;
	auth.n<uint16_t>(1).block(4, 11).n<uint16_t>(25).n<uint16_t>(2).s("ab")
	    .n<uint16_t>(8).n<uint16_t>(1).s("c");
	std::vector<uint8_t> got = encode(c.e, SDB_REP_SECTION_AUTH_RESP);
	EXPECT_EQ(got, auth.v);
	expect_round_trip(got, SDB_REP_SECTION_AUTH_RESP);

	ASSERT_EQ(sdb_sts_entry_put_dyn_general(c.e, "orvia-vlan-id", "12", 2), 0);
	bytes dyn;
	dyn.n<uint16_t>(1).block(5, 24).s(std::string("orvia-vlan-id\0", 14))
	    .n<uint16_t>(0).n<uint32_t>(3).s(std::string("12\0\0", 4));
	got = encode(c.e, SDB_REP_SECTION_DYNAMIC);
	EXPECT_EQ(got, dyn.v);
	expect_round_trip(got, SDB_REP_SECTION_DYNAMIC);
}

TEST(Codec, ArraysAndManyValuesRoundTrip)
{
	entry c;
	uint16_t inst;
	for (int i = 0; i < 30; i++) {
		std::string v = "10." + std::to_string(i) + ".0.0/16";
		ASSERT_EQ(sdb_sts_entry_put_dyn_ident(c.e, 0, "orvia-routes",
		    v.data(), (uint32_t)v.size(), &inst), 0);
		ASSERT_EQ(sdb_sts_entry_put_dyn_member(c.e, inst,
		    "orvia-framed-route-cost", "7", 1), 0);
		ASSERT_EQ(sdb_sts_entry_put_dyn_prefix(c.e, "pfx", v.data(),
		    (uint32_t)v.size()), 0);
		ASSERT_EQ(sdb_sts_entry_put_auth(c.e, SDB_STS_AUTH_REQ,
		    (uint16_t)(i * 101 % 300), v.data(), (uint32_t)v.size()), 0);
	}
	expect_round_trip(encode(c.e, SDB_REP_SECTION_DYNAMIC),
	    SDB_REP_SECTION_DYNAMIC);
	expect_round_trip(encode(c.e, SDB_REP_SECTION_AUTH_REQ),
	    SDB_REP_SECTION_AUTH_REQ);
}

TEST(Codec, ReaderRefusals)
{
	auto client = [](bytes b) { return decode(b.v, SDB_REP_SECTION_CLIENT); };
	EXPECT_EQ(client(bytes{}), SDB_ERR_FATAL);
	EXPECT_EQ(client(bytes{}.n<uint16_t>(2)), SDB_ERR_FATAL);
	EXPECT_EQ(client(bytes{}.n<uint16_t>(1)), 0);
	/* A block running past the section. */
	EXPECT_EQ(client(bytes{}.n<uint16_t>(1).block(0, 9).s("abcd")),
	    SDB_ERR_FATAL);
	/* Ids: a count that claims more than there is. */
	EXPECT_EQ(client(bytes{}.n<uint16_t>(1).block(1, 10).n<uint16_t>(2)
	    .n<uint64_t>(5)), SDB_ERR_FATAL);
	/* A block of a service record in a client record ends the read. */
	EXPECT_EQ(client(bytes{}.n<uint16_t>(1).block(3, 8).n<uint64_t>(1)),
	    SDB_ERR_CORRUPT);
	/* Attribute numbers the store cannot hold are refused, not stored. */
	EXPECT_EQ(client(bytes{}.n<uint16_t>(1).block(0, 5).n<uint16_t>(296)
	    .n<uint16_t>(1).s("x")), SDB_ERR_FATAL);
	EXPECT_EQ(client(bytes{}.n<uint16_t>(1).block(0, 65).n<uint16_t>(19)
	    .n<uint16_t>(61).s(std::string(61, 'i'))), SDB_ERR_PARAM);
	/* Block 7 with 5 bytes: the next head starts 7 bytes after it. */
	EXPECT_EQ(client(bytes{}.n<uint16_t>(1).block(7, 8).n<uint16_t>(5)
	    .s("abcde").block(6, 8).n<uint64_t>(3)), 0);
	/* Dynamic entries: no NUL after a name, a member with no instance. */
	auto dyn = [](bytes b) { return decode(b.v, SDB_REP_SECTION_DYNAMIC); };
	EXPECT_EQ(dyn(bytes{}.n<uint16_t>(1).block(5, 3).s("abc")),
	    SDB_ERR_FATAL);
	EXPECT_EQ(dyn(bytes{}.n<uint16_t>(1).block(5, 10).s(std::string("m\0", 2))
	    .n<uint16_t>(3).n<uint32_t>(0).s(std::string("\0", 1)).s("x")),
	    SDB_ERR_FATAL);
}
