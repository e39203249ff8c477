/*
 * The stream format against golden byte vectors, and its parsers against
 * streams that break each rule.
 */
#include "mirror_wire.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using namespace mirror::wire;
using bytes = std::vector<uint8_t>;

namespace {

bytes
hex(const char *s)
{
	bytes out;
	unsigned v;
	int n;
	while (sscanf(s, " %2x%n", &v, &n) == 1) {
		out.push_back(static_cast<uint8_t>(v));
		s += n;
	}
	return out;
}

bytes
str(const std::string &s)
{
	return bytes(s.begin(), s.end());
}

bytes
cat(std::initializer_list<bytes> parts)
{
	bytes out;
	for (const bytes &p : parts)
		out.insert(out.end(), p.begin(), p.end());
	return out;
}

struct collected : data_sink {
	std::vector<record_def> defs;
	std::vector<bytes> data;
	std::vector<record_def> acks;
	std::vector<uint16_t> resyncs;
	std::vector<unsigned> unknowns;

	void record(const record_def &d, std::span<const uint8_t> v) override
	{
		defs.push_back(d);
		data.emplace_back(v.begin(), v.end());
	}
	void ack(const record_def &d) override { acks.push_back(d); }
	void resync_req(uint16_t id) override { resyncs.push_back(id); }
	void unknown(unsigned type) override { unknowns.push_back(type); }
};

/* The value of a main TLV given whole. */
std::span<const uint8_t>
value_of(const bytes &main)
{
	return std::span(main).subspan(4);
}

const mirror_db_entry tolvard_table[] = {
	{2, "TOLVARD session"},
	{0, "End-of-database"},
	{1, "Mirror ack"},
	{0, nullptr},
};

} // namespace

TEST(MirrorTlv, HeaderPacksTypeAndLength)
{
	rpc_tlv20ns t{};
	_rpc_tlv20ns_set(&t, RPC_TLV20NS_SET_TYPE | RPC_TLV20NS_SET_LEN, 0xABC, 0x12345 + 4);
	EXPECT_EQ(bytes(t.b, t.b + 4), hex("1A BC 23 45"));
	EXPECT_EQ(rpc_tlv20ns_type(&t), 0xABCu);
	EXPECT_EQ(rpc_tlv20ns_len(&t), 0x12345u);

	/* Writing one field keeps the other's bits. */
	_rpc_tlv20ns_set(&t, RPC_TLV20NS_SET_LEN, 0, 4);
	EXPECT_EQ(rpc_tlv20ns_type(&t), 0xABCu);
	EXPECT_EQ(rpc_tlv20ns_len(&t), 0u);
	_rpc_tlv20ns_set(&t, RPC_TLV20NS_SET_LEN, 0, RPC_MAX_TLV20_LEN + 4);
	_rpc_tlv20ns_set(&t, RPC_TLV20NS_SET_TYPE, 3, 0);
	EXPECT_EQ(bytes(t.b, t.b + 4), hex("F0 03 FF FF"));
	EXPECT_EQ(rpc_tlv20ns_len(&t), static_cast<unsigned>(RPC_MAX_TLV20_LEN));

	EXPECT_EQ(rpc_tlv20ns_padded(0), 4u);
	EXPECT_EQ(rpc_tlv20ns_padded(3), 8u);
	EXPECT_EQ(rpc_tlv20ns_padded(4), 8u);
	EXPECT_EQ(rpc_tlv20ns_padded(5), 12u);
}

TEST(MirrorTlv, KeepaliveAndFirstGenerationControl)
{
	uint8_t buf[16];
	ASSERT_EQ(put_keepalive(buf), 4u);
	EXPECT_EQ(bytes(buf, buf + 4), hex("00 03 00 00"));
	ASSERT_EQ(put_cntrl(buf, 1), 12u);
	EXPECT_EQ(bytes(buf, buf + 12), hex("00 00 00 08  00 00 00 01  01 00 00 00"));
	EXPECT_EQ(put_cntrl(std::span(buf, 11), 0), 0u);
}

TEST(MirrorTlv, SecondGenerationControlGolden)
{
	cntrl_out c;
	c.version = mirror_sw_version{5, 2, 7, 0x0102, 'R'};
	c.dbs = tolvard_table;
	uint8_t buf[512];
	size_t n = put_cntrl2(buf, c);
	bytes want = cat({
	    hex("00 02 00 64"),
	    hex("00 00 00 01  00 00 00 00"),
	    hex("00 01 00 08  00 02 01 02 00 07 05 52"),
	    hex("00 02 00 11  00 02"), str("TOLVARD session"), hex("00 00 00"),
	    hex("00 02 00 11  00 00"), str("End-of-database"), hex("00 00 00"),
	    hex("00 02 00 0C  00 01"), str("Mirror ack"),
	    hex("00 03 00 04  00 00 00 3C"),
	    hex("00 04 00 04  00 02 00 00"),
	});
	ASSERT_EQ(bytes(buf, buf + n), want);

	cntrl2_in in;
	ASSERT_EQ(parse_cntrl2(value_of(want), in), error::none);
	EXPECT_TRUE(in.has_flags);
	EXPECT_EQ(in.flags, 0);
	EXPECT_EQ(in.version.major, 5);
	EXPECT_EQ(in.version.minor, 2);
	EXPECT_EQ(in.version.revision, 7);
	EXPECT_EQ(in.version.last, 0x0102);
	EXPECT_EQ(in.version.letter, 'R');
	ASSERT_EQ(in.dbs.size(), 3u);
	EXPECT_EQ(in.dbs[0].data_id, 2);
	EXPECT_EQ(in.dbs[0].name, "TOLVARD session");
	EXPECT_EQ(in.dbs[2].name, "Mirror ack");
	EXPECT_EQ(in.keepalive, 60u);
	EXPECT_EQ(in.buf_size, 0x20000u);
}

TEST(MirrorTlv, DescriptionsStopAtTheLimit)
{
	/* 300 descriptions of 15 bytes (value 17, padded 24): 171 reach 4096. */
	std::vector<mirror_db_entry> table(300, mirror_db_entry{7, "fifteen-chars.."});
	table.push_back(mirror_db_entry{0, nullptr});
	cntrl_out c;
	c.dbs = table.data();
	std::vector<uint8_t> buf(16384);
	size_t n = put_cntrl2(buf, c);
	cntrl2_in in;
	ASSERT_EQ(parse_cntrl2(std::span(buf).subspan(4, n - 4), in), error::none);
	EXPECT_EQ(in.dbs.size(), 171u);
	EXPECT_TRUE(in.has_keepalive);
}

TEST(MirrorTlv, OneCharacterNamePadsToEight)
{
	const mirror_db_entry table[] = {{9, "x"}, {0, nullptr}};
	cntrl_out c;
	c.dbs = table;
	uint8_t buf[128];
	size_t n = put_cntrl2(buf, c);
	/* state 8, version 12, then the description: length 3, 8 bytes whole. */
	EXPECT_EQ(bytes(buf + 24, buf + 32), hex("00 02 00 03  00 09 78 00"));
	EXPECT_EQ(n, 4u + 8 + 12 + 8 + 8 + 8);
}

TEST(MirrorTlv, ShortOrUnknownSubTlvsAreIgnored)
{
	bytes value = cat({
	    hex("00 00 00 00"),			/* empty state */
	    hex("00 01 00 04  00 01 00 02"),	/* version under 8 bytes */
	    hex("00 02 00 02  00 05 00 00"),	/* description under 3 bytes */
	    hex("00 03 00 02  00 3C 00 00"),	/* keepalive under 4 bytes */
	    hex("00 09 00 04  DE AD BE EF"),	/* a later generation's sub-TLV */
	    hex("00 04 00 04  00 00 FF FF"),
	});
	cntrl2_in in;
	ASSERT_EQ(parse_cntrl2(value, in), error::none);
	EXPECT_FALSE(in.has_flags);
	EXPECT_FALSE(in.has_version);
	EXPECT_TRUE(in.dbs.empty());
	EXPECT_FALSE(in.has_keepalive);
	ASSERT_TRUE(in.has_buf_size);
	EXPECT_EQ(in.buf_size, 0xFFFFu);

	EXPECT_EQ(parse_cntrl2({}, in), error::empty_cntrl2);
	/* A sub-TLV that claims more than its main TLV holds. */
	EXPECT_EQ(parse_cntrl2(hex("00 03 00 08  00 00 00 3C"), in), error::bad_length);
}

TEST(MirrorTlv, BufferSizeIsRoundedAndHeld)
{
	EXPECT_EQ(clamp_buf_size(0xFFFF), 0x10000u);
	EXPECT_EQ(clamp_buf_size(0), 0x10000u);
	EXPECT_EQ(clamp_buf_size(0x30000), 0x20000u);
	EXPECT_EQ(clamp_buf_size(0x10001), 0x10004u);
	EXPECT_EQ(clamp_buf_size(0xFFFFFFFF), 0x20000u);
}

TEST(MirrorTlv, RecordWithAcknowledgementGolden)
{
	record_def def;
	def.data_id = 2;
	def.op = MIRROR_OP_ADD;
	def.ack = MIRROR_ACK_WANTED;
	std::memcpy(def.handle, "\x11\x22\x33\x44", 4);
	bytes client = hex("01 02 03 04 05 06 07 08");
	uint8_t buf[64];
	size_t n = put_record_main(buf, def, client);
	bytes want = cat({
	    hex("00 01 00 20"),
	    hex("00 00 00 10"),
	    hex("00 02 01 01  00 00 00 08  FE ED FA CE  11 22 33 44"),
	    hex("00 01 00 08"), client,
	});
	ASSERT_EQ(bytes(buf, buf + n), want);
	EXPECT_EQ(n, 4 + record_size(8, MIRROR_ACK_WANTED));

	collected got;
	ASSERT_EQ(parse_data(value_of(want), got), error::none);
	ASSERT_EQ(got.defs.size(), 1u);
	EXPECT_EQ(got.defs[0].data_id, 2);
	EXPECT_EQ(got.defs[0].op, MIRROR_OP_ADD);
	EXPECT_EQ(got.defs[0].ack, MIRROR_ACK_WANTED);
	EXPECT_EQ(got.defs[0].handle_len, 4);
	EXPECT_EQ(bytes(got.defs[0].handle, got.defs[0].handle + 4), hex("11 22 33 44"));
	EXPECT_EQ(got.data[0], client);
}

TEST(MirrorTlv, FiveBytesOfClientDataPadToEight)
{
	record_def def;
	def.data_id = 3;
	def.op = MIRROR_OP_UPDATE;
	uint8_t buf[64];
	memset(buf, 0xEE, sizeof(buf));
	size_t n = put_record_main(buf, def, str("hello"));
	bytes want = cat({
	    hex("00 01 00 1C"),
	    hex("00 00 00 0C  00 03 03 00  00 00 00 05  FE ED FA CE"),
	    hex("00 01 00 08"), str("hello"), hex("00 00 00"),
	});
	ASSERT_EQ(bytes(buf, buf + n), want);
	collected got;
	ASSERT_EQ(parse_data(value_of(want), got), error::none);
	ASSERT_EQ(got.data.size(), 1u);
	EXPECT_EQ(got.data[0], str("hello"));
}

TEST(MirrorTlv, AcknowledgementResyncAndEndOfDatabase)
{
	record_def def;
	def.data_id = 2;
	def.op = MIRROR_OP_ADD;
	def.ack = MIRROR_ACK_REPLY;
	std::memcpy(def.handle, "\x00\x00\x00\x07", 4);
	uint8_t buf[64];
	size_t n = put_record_main(buf, def, {});
	bytes ack = hex("00 01 00 14  00 00 00 10  00 02 01 02  00 00 00 00  FE ED FA CE  00 00 00 07");
	ASSERT_EQ(bytes(buf, buf + n), ack);

	n = put_resync_req_main(buf, 5);
	bytes resync = hex("00 01 00 08  00 02 00 04  00 05 00 00");
	ASSERT_EQ(bytes(buf, buf + n), resync);

	n = put_eod(buf, 2, 1000);
	bytes eod = hex("00 00 00 08  00 02 00 00  00 00 03 E8");
	ASSERT_EQ(bytes(buf, buf + n), eod);

	collected got;
	ASSERT_EQ(parse_data(value_of(ack), got), error::none);
	ASSERT_EQ(got.acks.size(), 1u);
	EXPECT_EQ(got.acks[0].handle[3], 7);
	EXPECT_TRUE(got.defs.empty());
	ASSERT_EQ(parse_data(value_of(resync), got), error::none);
	EXPECT_EQ(got.resyncs, std::vector<uint16_t>{5});

	uint16_t id;
	uint32_t count;
	unsigned type;
	ASSERT_TRUE(parse_eod(eod, &id, &count, &type));
	EXPECT_EQ(id, 2);
	EXPECT_EQ(count, 1000u);
	eod[1] = 0x05;
	EXPECT_FALSE(parse_eod(eod, &id, &count, &type));
	EXPECT_EQ(type, 5u);
	EXPECT_FALSE(parse_eod(hex("00 00 00 04  00 02 00 00"), &id, &count, &type));
}

TEST(MirrorTlv, DataStreamsThatBreakTheRules)
{
	const bytes good_def = hex("00 00 00 0C  00 02 01 00  00 00 00 04  FE ED FA CE");
	const bytes good_data = hex("00 01 00 04  61 62 63 64");
	struct {
		const char *name;
		bytes value;
		error want;
	} cases[] = {
	    {"bad magic", hex("00 00 00 0C  00 02 01 00  00 00 00 04  FE ED FA CF  00 01 00 04 61 62 63 64"),
	     error::bad_magic},
	    {"short definition", hex("00 00 00 08  00 02 01 00  00 00 00 04"), error::bad_length},
	    {"data shorter than defined",
	     cat({hex("00 00 00 0C  00 02 01 00  00 00 00 09  FE ED FA CE"), good_data}),
	     error::bad_length},
	    {"definition without data", good_def, error::unpaired_data},
	    {"data without definition", good_data, error::unpaired_data},
	    {"two definitions", cat({good_def, good_def, good_data}), error::unpaired_data},
	    {"resync of 8 bytes", hex("00 02 00 08  00 05 00 00 00 00 00 00"), error::bad_length},
	    {"inner TLV past the end", hex("00 01 00 40  61 62 63 64"), error::bad_length},
	    {"length past the end", cat({good_def, hex("00 01 00 40 61 62 63 64")}),
	     error::bad_length},
	    {"header cut short", cat({good_def, good_data, hex("00 01")}), error::bad_length},
	    {"operation 0", hex("00 00 00 0C  00 02 00 00  00 00 00 00  FE ED FA CE  00 01 00 00"),
	     error::bad_op},
	    {"operation 5", hex("00 00 00 0C  00 02 05 00  00 00 00 00  FE ED FA CE  00 01 00 00"),
	     error::bad_op},
	    {"mode 3", hex("00 00 00 0C  00 02 01 03  00 00 00 00  FE ED FA CE  00 01 00 00"),
	     error::bad_mode},
	    {"handle of 8 bytes",
	     hex("00 00 00 14  00 02 01 02  00 00 00 00  FE ED FA CE  00 00 00 00 00 00 00 00"),
	     error::bad_length},
	};
	for (auto &c : cases) {
		collected got;
		EXPECT_EQ(parse_data(c.value, got), c.want) << c.name;
	}

	/* An unknown data TLV is skipped and the walk goes on. */
	collected got;
	ASSERT_EQ(parse_data(cat({hex("00 07 00 04  00 00 00 00"), good_def, good_data}), got),
	    error::none);
	EXPECT_EQ(got.unknowns, std::vector<unsigned>{7});
	ASSERT_EQ(got.data.size(), 1u);
	EXPECT_EQ(got.data[0], str("abcd"));
}

TEST(MirrorTlv, MainFraming)
{
	bytes stream = cat({hex("00 02 00 05  01 02 03 04 05 00 00 00"), hex("00 03 00 00")});
	frame f = next_main(stream, MIRROR_READ_BUFF_SIZE - 1);
	EXPECT_EQ(f.err, error::none);
	EXPECT_EQ(f.whole, 12u);
	EXPECT_EQ(f.type, 2u);
	EXPECT_EQ(f.value.size(), 5u);
	/* Incomplete: wait for more, whatever is missing. */
	EXPECT_EQ(next_main(std::span(stream).first(3), 0x20000).whole, 0u);
	EXPECT_EQ(next_main(std::span(stream).first(11), 0x20000).whole, 0u);
	/* Larger than the ring can ever hold. */
	EXPECT_EQ(next_main(hex("F0 01 FF FF"), 0x20000).err, error::oversize);
	EXPECT_EQ(next_main(hex("1F 01 FF FC"), 0x20000).err, error::none);
	EXPECT_EQ(next_main(hex("1F 01 FF FC"), 0x20000).whole, 0u);
	EXPECT_EQ(next_main(hex("20 01 00 00"), 0x20000).err, error::oversize);
	/* Types above 3 frame like any other; the engine skips them. */
	f = next_main(hex("0F FF 00 00"), 0x20000);
	EXPECT_EQ(f.type, 0xFFFu);
	EXPECT_EQ(f.whole, 4u);
}

TEST(MirrorTlv, FirstGenerationControlParse)
{
	cntrl_in in;
	EXPECT_FALSE(parse_cntrl(hex("00 00 00 01  00 00 00"), in));
	ASSERT_TRUE(parse_cntrl(hex("00 00 00 02  01 00 00 00"), in));
	EXPECT_EQ(in.version, 2u);
	EXPECT_EQ(in.flags, 1);
}
