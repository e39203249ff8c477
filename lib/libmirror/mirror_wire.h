/*
 * Encoders and parsers of the mirror stream.  Pure code over byte spans:
 * nothing here knows about sockets, timers or the connection, so that the
 * fuzzers and the golden tests run it exactly as the engine does.
 *
 * Every parser takes bytes that came from the peer.  It never trusts a
 * length: each one is checked against the bytes at hand before it is used,
 * and a violation is returned as an error for the caller to close the link.
 */
#ifndef MIRROR_WIRE_H
#define MIRROR_WIRE_H

#include <orx/mirror_data.h>
#include <orx/mirror_tlv.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace mirror::wire {

enum class error {
	none = 0,
	bad_length,	/* a length that the bytes at hand contradict */
	oversize,	/* a main TLV larger than the receive ring */
	bad_magic,	/* a data definition without MDD_MAGIC */
	unpaired_data,	/* definition and data TLV do not pair up */
	bad_mode,	/* an acknowledgement mode above 2 */
	bad_op,		/* an operation outside 1 to 4 */
	empty_cntrl2,	/* a control message without sub-TLVs */
	bad_handle,	/* an acknowledgement handle of another length than 4 */
};

const char *error_text(error e);

inline void
put16(uint8_t *p, uint16_t v)
{
	p[0] = static_cast<uint8_t>(v >> 8);
	p[1] = static_cast<uint8_t>(v);
}

inline void
put32(uint8_t *p, uint32_t v)
{
	p[0] = static_cast<uint8_t>(v >> 24);
	p[1] = static_cast<uint8_t>(v >> 16);
	p[2] = static_cast<uint8_t>(v >> 8);
	p[3] = static_cast<uint8_t>(v);
}

inline uint16_t
get16(const uint8_t *p)
{
	return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

inline uint32_t
get32(const uint8_t *p)
{
	return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
	    (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

/* Header of a TLV of value length len at p. */
void put_header(uint8_t *p, unsigned type, size_t len);

/* A main TLV found at the front of the unread bytes. */
struct frame {
	error	err = error::none;
	size_t	whole = 0;	/* header, value, pad; 0: wait for more */
	unsigned type = 0;
	std::span<const uint8_t> value;
};

/*
 * Look at the front of the unread bytes.  whole is 0 while the TLV is
 * incomplete.  A TLV whose whole size exceeds capacity could never be read
 * and is an error at once, rather than a ring that fills and stalls.
 */
frame next_main(std::span<const uint8_t> unread, size_t capacity);

/* What this side announces in its control messages. */
struct cntrl_out {
	uint8_t	flags = 0;
	mirror_sw_version version{};
	const mirror_db_entry *dbs = nullptr;
	uint32_t keepalive = MIRROR_KEEPALIVE_TIME;
	uint32_t buf_size = MIRROR_TX_BUFF_SIZE;
};

/* Encoders return the bytes written, or 0 when out has no room. */
size_t put_keepalive(std::span<uint8_t> out);
size_t put_cntrl(std::span<uint8_t> out, uint8_t flags);
size_t put_cntrl2(std::span<uint8_t> out, const cntrl_out &c);

/* A record inside a data main TLV: definition and data TLV. */
struct record_def {
	uint16_t data_id = 0;
	uint8_t	op = 0;
	uint8_t	ack = MIRROR_ACK_NONE;
	uint32_t len = 0;		/* client data, unpadded */
	uint8_t	handle[MIRROR_DATA_HANDLE_LEN] = {};
	uint8_t	handle_len = 0;
};

/* Bytes a record adds to a data main TLV. */
size_t record_size(uint32_t data_len, uint8_t ack);
/*
 * The definition TLV alone at p, with def.len as given and the handle
 * only with an acknowledgement mode; its whole size.  For the encoder that
 * learns the length after the client data is in place behind it.
 */
size_t put_def(uint8_t *p, const record_def &def);
/* Definition and data TLV (none for an acknowledgement). */
size_t put_record(std::span<uint8_t> out, const record_def &def,
    std::span<const uint8_t> data);
/* A whole MAIN_TLV_DATA_MIRROR around one record. */
size_t put_record_main(std::span<uint8_t> out, const record_def &def,
    std::span<const uint8_t> data);
size_t put_resync_req_main(std::span<uint8_t> out, uint16_t data_id);
/* The end-of-database client data, 12 bytes. */
size_t put_eod(std::span<uint8_t> out, uint16_t data_id, uint32_t count);

/* MAIN_TLV_CNTRL2 as read. */
struct peer_db {
	uint16_t data_id;
	std::string name;
};

struct cntrl2_in {
	bool	has_flags = false;
	uint8_t	flags = 0;
	bool	has_version = false;
	mirror_sw_version version{};
	std::vector<peer_db> dbs;
	bool	has_keepalive = false;
	uint32_t keepalive = 0;
	bool	has_buf_size = false;
	uint32_t buf_size = 0;
};

error parse_cntrl2(std::span<const uint8_t> value, cntrl2_in &out);

struct cntrl_in {
	uint32_t version = 0;
	uint8_t	flags = 0;
};

/* false when the value is shorter than a first-generation message. */
bool parse_cntrl(std::span<const uint8_t> value, cntrl_in &out);

/* The peer's buffer size held to what one write may carry. */
uint32_t clamp_buf_size(uint32_t announced);

/* Receiver of what a data main TLV holds, in stream order. */
class data_sink {
public:
	virtual ~data_sink() = default;
	virtual void record(const record_def &def, std::span<const uint8_t> data) = 0;
	virtual void ack(const record_def &def) = 0;
	virtual void resync_req(uint16_t data_id) = 0;
	virtual void unknown(unsigned type) = 0;
};

error parse_data(std::span<const uint8_t> value, data_sink &sink);

/* The end-of-database client data; false for another type or length. */
bool parse_eod(std::span<const uint8_t> data, uint16_t *data_id, uint32_t *count,
    unsigned *type);

} // namespace mirror::wire

#endif
