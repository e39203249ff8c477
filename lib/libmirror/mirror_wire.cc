/*
 * The mirror stream format: encoders and parsers.
 *
 * Invariant of every parser: an offset is advanced only after the bytes it
 * steps over were shown to be present, so no read ever leaves the span it
 * was given, whatever the peer sent.
 */
#include "mirror_wire.h"

#include <algorithm>
#include <cstring>

extern "C" void
_rpc_tlv20ns_set(rpc_tlv20ns *tlv, int what, unsigned type, unsigned tlv_len)
{
	if (what & RPC_TLV20NS_SET_TYPE) {
		tlv->b[0] = static_cast<uint8_t>((tlv->b[0] & 0xF0) | ((type >> 8) & 0x0F));
		tlv->b[1] = static_cast<uint8_t>(type);
	}
	if (what & RPC_TLV20NS_SET_LEN) {
		unsigned len = tlv_len - RPC_TLV20NS_SIZE;
		tlv->b[0] = static_cast<uint8_t>((tlv->b[0] & 0x0F) | (((len >> 16) & 0x0F) << 4));
		tlv->b[2] = static_cast<uint8_t>(len >> 8);
		tlv->b[3] = static_cast<uint8_t>(len);
	}
}

namespace mirror::wire {

const char *
error_text(error e)
{
	switch (e) {
	case error::none:
		return "no error";
	case error::bad_length:
		return "bad length";
	case error::oversize:
		return "TLV larger than the receive buffer";
	case error::bad_magic:
		return "bad data definition magic";
	case error::unpaired_data:
		return "data definition and data do not pair";
	case error::bad_mode:
		return "bad acknowledgement mode";
	case error::bad_op:
		return "bad operation";
	case error::empty_cntrl2:
		return "empty control message";
	case error::bad_handle:
		return "bad acknowledgement handle length";
	}
	return "unknown error";
}

void
put_header(uint8_t *p, unsigned type, size_t len)
{
	rpc_tlv20ns *tlv = reinterpret_cast<rpc_tlv20ns *>(p);
	tlv->b[0] = 0;
	_rpc_tlv20ns_set(tlv, RPC_TLV20NS_SET_TYPE | RPC_TLV20NS_SET_LEN, type,
	    static_cast<unsigned>(len + RPC_TLV20NS_SIZE));
}

frame
next_main(std::span<const uint8_t> unread, size_t capacity)
{
	frame f;
	if (unread.size() < RPC_TLV20NS_SIZE)
		return f;
	const auto *hdr = reinterpret_cast<const rpc_tlv20ns *>(unread.data());
	size_t len = rpc_tlv20ns_len(hdr);
	size_t whole = rpc_tlv20ns_padded(len);
	if (whole > capacity) {
		f.err = error::oversize;
		return f;
	}
	if (whole > unread.size())
		return f;
	f.whole = whole;
	f.type = rpc_tlv20ns_type(hdr);
	f.value = unread.subspan(RPC_TLV20NS_SIZE, len);
	return f;
}

size_t
put_keepalive(std::span<uint8_t> out)
{
	if (out.size() < RPC_TLV20NS_SIZE)
		return 0;
	put_header(out.data(), MAIN_TLV_KEEPALIVE, 0);
	return RPC_TLV20NS_SIZE;
}

size_t
put_cntrl(std::span<uint8_t> out, uint8_t flags)
{
	size_t whole = rpc_tlv20ns_padded(MIRROR_CNTRL_LEN);
	if (out.size() < whole)
		return 0;
	uint8_t *p = out.data();
	put_header(p, MAIN_TLV_CNTRL, MIRROR_CNTRL_LEN);
	put32(p + 4, MIRROR_CNTRL_VERSION);
	p[8] = flags;
	/* The reserved bytes carry nothing; zero them all the same. */
	std::memset(p + 9, 0, 3);
	return whole;
}

namespace {

/* Append one sub-TLV at *off; false when it does not fit. */
bool
put_sub(std::span<uint8_t> out, size_t *off, unsigned type,
    std::span<const uint8_t> value)
{
	size_t whole = rpc_tlv20ns_padded(value.size());
	if (out.size() - *off < whole)
		return false;
	uint8_t *p = out.data() + *off;
	put_header(p, type, value.size());
	std::memcpy(p + RPC_TLV20NS_SIZE, value.data(), value.size());
	std::memset(p + RPC_TLV20NS_SIZE + value.size(), 0,
	    whole - RPC_TLV20NS_SIZE - value.size());
	*off += whole;
	return true;
}

} // namespace

size_t
put_cntrl2(std::span<uint8_t> out, const cntrl_out &c)
{
	if (out.size() < RPC_TLV20NS_SIZE)
		return 0;
	size_t off = RPC_TLV20NS_SIZE;
	uint8_t word[8];

	word[0] = c.flags;
	if (!put_sub(out, &off, MIRROR_CNTRL2_STATE, std::span(word, 1)))
		return 0;

	put16(word, c.version.minor);
	put16(word + 2, c.version.last);
	put16(word + 4, c.version.revision);
	word[6] = c.version.major;
	word[7] = static_cast<uint8_t>(c.version.letter);
	if (!put_sub(out, &off, MIRROR_CNTRL2_SW_VERSION, std::span(word, 8)))
		return 0;

	size_t desc_total = 0;
	for (const mirror_db_entry *e = c.dbs; e != nullptr && e->name != nullptr; e++) {
		size_t name_len = std::min<size_t>(strlen(e->name), 255);
		uint8_t desc[2 + 255];
		put16(desc, static_cast<uint16_t>(e->id));
		std::memcpy(desc + 2, e->name, name_len);
		if (!put_sub(out, &off, MIRROR_CNTRL2_DB_DESC, std::span(desc, name_len + 2)))
			return 0;
		desc_total += rpc_tlv20ns_padded(name_len + 2);
		if (desc_total >= MIRROR_DB_DESC_LIMIT)
			break;
	}

	put32(word, c.keepalive);
	if (!put_sub(out, &off, MIRROR_CNTRL2_KEEPALIVE, std::span(word, 4)))
		return 0;
	put32(word, c.buf_size);
	if (!put_sub(out, &off, MIRROR_CNTRL2_BUF_SIZE, std::span(word, 4)))
		return 0;

	put_header(out.data(), MAIN_TLV_CNTRL2, off - RPC_TLV20NS_SIZE);
	return off;
}

size_t
record_size(uint32_t data_len, uint8_t ack)
{
	size_t def = RPC_TLV20NS_SIZE + MIRROR_DATA_DEF_OVERHEAD +
	    (ack != MIRROR_ACK_NONE ? MIRROR_DATA_HANDLE_LEN : 0);
	if (ack == MIRROR_ACK_REPLY)
		return def;
	return def + rpc_tlv20ns_padded(data_len);
}

size_t
put_def(uint8_t *p, const record_def &def)
{
	size_t def_len = MIRROR_DATA_DEF_OVERHEAD +
	    (def.ack != MIRROR_ACK_NONE ? MIRROR_DATA_HANDLE_LEN : 0);
	put_header(p, MIRROR_DATA_DEF_TLV, def_len);
	put16(p + 4, def.data_id);
	p[6] = def.op;
	p[7] = def.ack;
	put32(p + 8, def.len);
	put32(p + 12, MDD_MAGIC);
	if (def.ack != MIRROR_ACK_NONE)
		std::memcpy(p + 16, def.handle, MIRROR_DATA_HANDLE_LEN);
	return RPC_TLV20NS_SIZE + def_len;
}

size_t
put_record(std::span<uint8_t> out, const record_def &def,
    std::span<const uint8_t> data)
{
	size_t need = record_size(static_cast<uint32_t>(data.size()), def.ack);
	if (out.size() < need)
		return 0;
	record_def d = def;
	d.len = def.ack == MIRROR_ACK_REPLY ? 0 : static_cast<uint32_t>(data.size());
	uint8_t *p = out.data() + put_def(out.data(), d);
	if (def.ack == MIRROR_ACK_REPLY)
		return need;
	/* The inner reader steps unpadded: the length field holds the pad. */
	size_t padded = rpc_tlv20ns_padded(data.size()) - RPC_TLV20NS_SIZE;
	put_header(p, MIRROR_DATA_TLV, padded);
	if (!data.empty())
		std::memcpy(p + RPC_TLV20NS_SIZE, data.data(), data.size());
	std::memset(p + RPC_TLV20NS_SIZE + data.size(), 0, padded - data.size());
	return need;
}

size_t
put_record_main(std::span<uint8_t> out, const record_def &def,
    std::span<const uint8_t> data)
{
	if (out.size() < RPC_TLV20NS_SIZE)
		return 0;
	size_t n = put_record(out.subspan(RPC_TLV20NS_SIZE), def, data);
	if (n == 0)
		return 0;
	put_header(out.data(), MAIN_TLV_DATA_MIRROR, n);
	return n + RPC_TLV20NS_SIZE;
}

size_t
put_resync_req_main(std::span<uint8_t> out, uint16_t data_id)
{
	constexpr size_t whole = 2 * RPC_TLV20NS_SIZE + MIRROR_DB_RESYNC_REQ_OVERHEAD;
	if (out.size() < whole)
		return 0;
	uint8_t *p = out.data();
	put_header(p, MAIN_TLV_DATA_MIRROR, whole - RPC_TLV20NS_SIZE);
	put_header(p + 4, MIRROR_DB_RESYNC_REQ_TLV, MIRROR_DB_RESYNC_REQ_OVERHEAD);
	put16(p + 8, data_id);
	p[10] = p[11] = 0;
	return whole;
}

size_t
put_eod(std::span<uint8_t> out, uint16_t data_id, uint32_t count)
{
	if (out.size() < MIRROR_EOD_TLV_LEN)
		return 0;
	uint8_t *p = out.data();
	put_header(p, 0, MIRROR_EOD_TLV_LEN - RPC_TLV20NS_SIZE);
	put16(p + 4, data_id);
	put16(p + 6, 0);
	put32(p + 8, count);
	return MIRROR_EOD_TLV_LEN;
}

bool
parse_eod(std::span<const uint8_t> data, uint16_t *data_id, uint32_t *count,
    unsigned *type)
{
	if (data.size() < RPC_TLV20NS_SIZE)
		return false;
	const auto *hdr = reinterpret_cast<const rpc_tlv20ns *>(data.data());
	*type = rpc_tlv20ns_type(hdr);
	if (*type != 0 || rpc_tlv20ns_len(hdr) != MIRROR_EOD_TLV_LEN - RPC_TLV20NS_SIZE ||
	    data.size() < MIRROR_EOD_TLV_LEN)
		return false;
	*data_id = get16(data.data() + 4);
	*count = get32(data.data() + 8);
	return true;
}

uint32_t
clamp_buf_size(uint32_t announced)
{
	uint64_t v = (static_cast<uint64_t>(announced) + 3) & ~static_cast<uint64_t>(3);
	v = std::clamp<uint64_t>(v, MIRROR_EFFECTIVE_TX_BUFF_MIN, MIRROR_EFFECTIVE_TX_BUFF_MAX);
	return static_cast<uint32_t>(v);
}

bool
parse_cntrl(std::span<const uint8_t> value, cntrl_in &out)
{
	if (value.size() < MIRROR_CNTRL_LEN)
		return false;
	out.version = get32(value.data());
	out.flags = value[4];
	return true;
}

error
parse_cntrl2(std::span<const uint8_t> value, cntrl2_in &out)
{
	if (value.empty())
		return error::empty_cntrl2;
	size_t off = 0;
	/* 1 to 3 bytes left over can only be pad: nothing to read there. */
	while (value.size() - off >= RPC_TLV20NS_SIZE) {
		const auto *hdr = reinterpret_cast<const rpc_tlv20ns *>(value.data() + off);
		size_t len = rpc_tlv20ns_len(hdr);
		if (len > value.size() - off - RPC_TLV20NS_SIZE)
			return error::bad_length;
		const uint8_t *v = value.data() + off + RPC_TLV20NS_SIZE;
		switch (rpc_tlv20ns_type(hdr)) {
		case MIRROR_CNTRL2_STATE:
			if (len >= 1) {
				out.has_flags = true;
				out.flags = v[0];
			}
			break;
		case MIRROR_CNTRL2_SW_VERSION:
			if (len >= 8) {
				out.has_version = true;
				out.version.minor = get16(v);
				out.version.last = get16(v + 2);
				out.version.revision = get16(v + 4);
				out.version.major = v[6];
				out.version.letter = static_cast<char>(v[7]);
			}
			break;
		case MIRROR_CNTRL2_DB_DESC:
			if (len >= 3)
				out.dbs.push_back(peer_db{get16(v),
				    std::string(reinterpret_cast<const char *>(v + 2), len - 2)});
			break;
		case MIRROR_CNTRL2_KEEPALIVE:
			if (len >= 4) {
				out.has_keepalive = true;
				out.keepalive = get32(v);
			}
			break;
		case MIRROR_CNTRL2_BUF_SIZE:
			if (len >= 4) {
				out.has_buf_size = true;
				out.buf_size = get32(v);
			}
			break;
		default:
			break;	/* a later generation's sub-TLV */
		}
		off += std::min(rpc_tlv20ns_padded(len), value.size() - off);
	}
	return error::none;
}

error
parse_data(std::span<const uint8_t> value, data_sink &sink)
{
	size_t off = 0;
	bool pending = false;	/* a definition waits for its data TLV */
	record_def def;

	while (value.size() - off >= RPC_TLV20NS_SIZE) {
		const auto *hdr = reinterpret_cast<const rpc_tlv20ns *>(value.data() + off);
		size_t len = rpc_tlv20ns_len(hdr);
		unsigned type = rpc_tlv20ns_type(hdr);
		if (len > value.size() - off - RPC_TLV20NS_SIZE)
			return error::bad_length;
		std::span<const uint8_t> v = value.subspan(off + RPC_TLV20NS_SIZE, len);
		if (pending && type != MIRROR_DATA_TLV)
			return error::unpaired_data;
		switch (type) {
		case MIRROR_DATA_DEF_TLV:
			if (len < MIRROR_DATA_DEF_OVERHEAD)
				return error::bad_length;
			if (get32(v.data() + 8) != MDD_MAGIC)
				return error::bad_magic;
			def = record_def{};
			def.data_id = get16(v.data());
			def.op = v[2];
			def.ack = v[3];
			def.len = get32(v.data() + 4);
			if (def.op < MIRROR_OP_ADD || def.op > MIRROR_OP_RESYNC)
				return error::bad_op;
			if (def.ack > MIRROR_ACK_REPLY)
				return error::bad_mode;
			if (def.ack != MIRROR_ACK_NONE) {
				/* The handle goes back byte for byte: any other
				 * length than ours could not be returned as it came. */
				if (len - MIRROR_DATA_DEF_OVERHEAD != MIRROR_DATA_HANDLE_LEN)
					return error::bad_handle;
				def.handle_len = static_cast<uint8_t>(len - MIRROR_DATA_DEF_OVERHEAD);
				std::memcpy(def.handle, v.data() + MIRROR_DATA_DEF_OVERHEAD,
				    def.handle_len);
			}
			if (def.ack == MIRROR_ACK_REPLY)
				sink.ack(def);
			else
				pending = true;
			break;
		case MIRROR_DATA_TLV:
			if (!pending)
				return error::unpaired_data;
			if (len < def.len)
				return error::bad_length;
			pending = false;
			sink.record(def, v.first(def.len));
			break;
		case MIRROR_DB_RESYNC_REQ_TLV:
			if (len != MIRROR_DB_RESYNC_REQ_OVERHEAD)
				return error::bad_length;
			sink.resync_req(get16(v.data()));
			break;
		default:
			sink.unknown(type);
			break;
		}
		off += RPC_TLV20NS_SIZE + len;
	}
	if (pending)
		return error::unpaired_data;
	if (off != value.size())
		return error::bad_length;	/* a header cut short */
	return error::none;
}

} // namespace mirror::wire
