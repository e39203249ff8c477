/*
 * The stream format against golden byte vectors, and its parsers against
 * streams that break each rule.
 */
#include "mirror_wire.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <utility>
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

record_def
def_of(uint16_t id, uint8_t op, uint8_t ack = MIRROR_ACK_NONE, const char *handle = "\0\0\0\0")
{
	record_def d;
	d.data_id = id;
	d.op = op;
	d.ack = ack;
	std::memcpy(d.handle, handle, 4);
	return d;
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
	_rpc_tlv20ns_set(&t, RPC_TLV20NS_SET_LEN, 0, RPC_MAX_TLV20_LEN + 4);
	EXPECT_EQ(rpc_tlv20ns_type(&t), 0xABCu);
	_rpc_tlv20ns_set(&t, RPC_TLV20NS_SET_TYPE, 3, 0);
	EXPECT_EQ(bytes(t.b, t.b + 4), hex("F0 03 FF FF"));
}

TEST(MirrorTlv, GoldenVectorsBothWays)
{
	uint8_t buf[512];
	/* What an encoder wrote, taken at once; padding must be written, not left. */
	auto out = [&buf](size_t n) {
		bytes b(buf, buf + n);
		memset(buf, 0xEE, sizeof(buf));
		return b;
	};
	out(0);
	cntrl_out c;
	c.version = mirror_sw_version{5, 2, 7, 0x0102, 'R'};
	c.dbs = tolvard_table;
	const mirror_db_entry one_char[] = {{9, "x"}, {0, nullptr}};
	cntrl_out c1;
	c1.dbs = one_char;
	const bytes client = hex("01 02 03 04 05 06 07 08");
	const bytes cntrl2 = cat({
	    hex("00 02 00 64"),
	    hex("00 00 00 01  00 00 00 00"),
	    hex("00 01 00 08  00 02 01 02 00 07 05 52"),
	    hex("00 02 00 11  00 02"), str("TOLVARD session"), hex("00 00 00"),
	    hex("00 02 00 11  00 00"), str("End-of-database"), hex("00 00 00"),
	    hex("00 02 00 0C  00 01"), str("Mirror ack"),
	    hex("00 03 00 04  00 00 00 3C"),
	    hex("00 04 00 04  00 02 00 00"),
	});
	const bytes with_ack = cat({hex("00 01 00 20  00 00 00 10"),
	    hex("00 02 01 01  00 00 00 08  FE ED FA CE  11 22 33 44  00 01 00 08"), client});
	const bytes ack = hex("00 01 00 14  00 00 00 10  00 02 01 02  00 00 00 00  FE ED FA CE"
	    "  00 00 00 07");
	const bytes resync = hex("00 01 00 08  00 02 00 04  00 05 00 00");
	bytes eod = hex("00 00 00 08  00 02 00 00  00 00 03 E8");
	struct {
		const char *name;
		bytes	got;
		bytes	want;
	} cases[] = {
	    {"keepalive", out(put_keepalive(buf)), hex("00 03 00 00")},
	    {"first generation control", out(put_cntrl(buf, 1)), hex("00 00 00 08  00 00 00 01  01 00 00 00")},
	    {"no room", out(put_cntrl(std::span(buf, 11), 0)), {}},
	    {"second generation control", out(put_cntrl2(buf, c)), cntrl2},
	    /* state 8, version 12, then the description: length 3, 8 bytes whole. */
	    {"one character name", out(put_cntrl2(buf, c1)), cat({hex("00 02 00 2C"),
		hex("00 00 00 01 00 00 00 00  00 01 00 08 00 00 00 00 00 00 00 00"),
		hex("00 02 00 03  00 09 78 00  00 03 00 04 00 00 00 3C  00 04 00 04 00 02 00 00")})},
	    {"record with acknowledgement", out(put_record_main(buf,
		def_of(2, MIRROR_OP_ADD, MIRROR_ACK_WANTED, "\x11\x22\x33\x44"), client)), with_ack},
	    {"five bytes pad to eight", out(put_record_main(buf, def_of(3, MIRROR_OP_UPDATE), str("hello"))),
		cat({hex("00 01 00 1C  00 00 00 0C  00 03 03 00  00 00 00 05  FE ED FA CE  00 01 00 08"),
		str("hello"), hex("00 00 00")})},
	    {"acknowledgement", out(put_record_main(buf,
		def_of(2, MIRROR_OP_ADD, MIRROR_ACK_REPLY, "\0\0\0\7"), {})), ack},
	    {"resync request", out(put_resync_req_main(buf, 5)), resync},
	    {"end of database", out(put_eod(buf, 2, 1000)), eod},
	};
	for (auto &k : cases)
		EXPECT_EQ(k.got, k.want) << k.name;
	EXPECT_EQ(record_size(8, MIRROR_ACK_WANTED) + 4, with_ack.size());

	cntrl2_in in;
	ASSERT_EQ(parse_cntrl2(value_of(cntrl2), in), error::none);
	EXPECT_TRUE(in.has_flags && in.flags == 0);
	EXPECT_EQ(std::tuple(in.version.major, in.version.minor, in.version.revision,
	    in.version.last, in.version.letter), std::tuple(5, 2, 7, 0x0102, 'R'));
	ASSERT_EQ(in.dbs.size(), 3u);
	EXPECT_EQ(in.dbs[0].data_id, 2);
	EXPECT_EQ(in.dbs[0].name, "TOLVARD session");
	EXPECT_EQ(in.dbs[2].name, "Mirror ack");
	EXPECT_EQ(std::pair(in.keepalive, in.buf_size), std::pair(60u, 0x20000u));

	collected got;
	ASSERT_EQ(parse_data(value_of(with_ack), got), error::none);
	ASSERT_EQ(parse_data(value_of(ack), got), error::none);
	ASSERT_EQ(parse_data(value_of(resync), got), error::none);
	ASSERT_EQ(got.defs.size(), 1u);
	EXPECT_EQ(std::tuple(got.defs[0].data_id, got.defs[0].op, got.defs[0].ack, got.defs[0].handle_len),
	    std::tuple(2, MIRROR_OP_ADD, MIRROR_ACK_WANTED, 4));
	EXPECT_EQ(bytes(got.defs[0].handle, got.defs[0].handle + 4), hex("11 22 33 44"));
	EXPECT_EQ(got.data[0], client);
	ASSERT_EQ(got.acks.size(), 1u);
	EXPECT_EQ(got.acks[0].handle[3], 7);
	EXPECT_EQ(got.resyncs, std::vector<uint16_t>{5});

	uint16_t id;
	uint32_t count;
	unsigned type;
	ASSERT_TRUE(parse_eod(eod, &id, &count, &type));
	EXPECT_EQ(std::pair(id, count), std::pair(uint16_t{2}, 1000u));
	eod[1] = 0x05;
	EXPECT_FALSE(parse_eod(eod, &id, &count, &type));
	EXPECT_EQ(type, 5u);
	EXPECT_FALSE(parse_eod(hex("00 00 00 04  00 02 00 00"), &id, &count, &type));
}

TEST(MirrorTlv, ControlMessagesAtTheirLimits)
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

	/* Sub-TLVs too short for their kind, or of a later generation, are skipped. */
	bytes value = cat({
	    hex("00 00 00 00"),			/* empty state */
	    hex("00 01 00 04  00 01 00 02"),	/* version under 8 bytes */
	    hex("00 02 00 02  00 05 00 00"),	/* description under 3 bytes */
	    hex("00 03 00 02  00 3C 00 00"),	/* keepalive under 4 bytes */
	    hex("00 09 00 04  DE AD BE EF"),
	    hex("00 04 00 04  00 00 FF FF"),
	});
	in = cntrl2_in{};
	ASSERT_EQ(parse_cntrl2(value, in), error::none);
	EXPECT_FALSE(in.has_flags || in.has_version || in.has_keepalive || !in.dbs.empty());
	ASSERT_TRUE(in.has_buf_size);
	EXPECT_EQ(in.buf_size, 0xFFFFu);
	EXPECT_EQ(parse_cntrl2({}, in), error::empty_cntrl2);
	/* A sub-TLV that claims more than its main TLV holds. */
	EXPECT_EQ(parse_cntrl2(hex("00 03 00 08  00 00 00 3C"), in), error::bad_length);

	cntrl_in first;
	EXPECT_FALSE(parse_cntrl(hex("00 00 00 01  00 00 00"), first));
	ASSERT_TRUE(parse_cntrl(hex("00 00 00 02  01 00 00 00"), first));
	EXPECT_EQ(std::pair(first.version, first.flags), std::pair(2u, uint8_t{1}));

	/* The peer's buffer size is rounded to a word and held to one write. */
	for (auto [announced, held] : std::initializer_list<std::pair<uint32_t, uint32_t>>{
	    {0xFFFF, 0x10000}, {0, 0x10000}, {0x30000, 0x20000}, {0x10001, 0x10004},
	    {0xFFFFFFFF, 0x20000}})
		EXPECT_EQ(clamp_buf_size(announced), held) << announced;
}

TEST(MirrorTlv, DataStreamsThatBreakTheRules)
{
	const bytes good_def = hex("00 00 00 0C  00 02 01 00  00 00 00 04  FE ED FA CE");
	const bytes good_data = hex("00 01 00 04  61 62 63 64");
	/* A definition of one operation and mode, then an empty data TLV. */
	auto def_with = [](const char *op_mode) {
		return cat({hex("00 00 00 0C  00 02"), hex(op_mode),
		    hex("00 00 00 00  FE ED FA CE  00 01 00 00")});
	};
	struct {
		const char *name;
		bytes value;
		error want;
	} cases[] = {
	    {"bad magic", cat({hex("00 00 00 0C  00 02 01 00  00 00 00 04  FE ED FA CF"), good_data}),
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
	    {"operation 0", def_with("00 00"), error::bad_op},
	    {"operation 5", def_with("05 00"), error::bad_op},
	    {"mode 3", def_with("01 03"), error::bad_mode},
	    {"handle of 8 bytes",
	     hex("00 00 00 14  00 02 01 02  00 00 00 00  FE ED FA CE  00 00 00 00 00 00 00 00"),
	     error::bad_handle},
	    {"wanted with a handle of 2 bytes",
	     cat({hex("00 00 00 0E  00 02 01 01  00 00 00 04  FE ED FA CE  11 22"), good_data}),
	     error::bad_handle},
	    {"wanted without a handle",
	     cat({hex("00 00 00 0C  00 02 01 01  00 00 00 04  FE ED FA CE"), good_data}),
	     error::bad_handle},
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
