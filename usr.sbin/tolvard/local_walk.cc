/*
 * The walk over the bytes of one read from a local client.
 *
 * Invariant: every read of the buffer is at an offset below bytes.size(),
 * checked before it is made; sizes from the wire are widened to 64 bits
 * before any arithmetic, so no claim of the client can wrap around.
 */
#include "tolvard_local.h"

#include <cstring>

namespace tolvard_local {

namespace {

uint32_t read_u32(std::span<const uint8_t> bytes)
{
	uint32_t v;
	/* A message after a REG may sit anywhere: copy, never cast. */
	memcpy(&v, bytes.data(), sizeof(v));
	return v;
}

walk_result stop(walk_status status, uint32_t type, uint64_t need,
    size_t have)
{
	return walk_result{status, type, need, have};
}

} // namespace

walk_result walk(std::span<const uint8_t> bytes, walk_sink &sink)
{
	while (!bytes.empty()) {
		if (bytes.size() < sizeof(uint32_t))
			return stop(walk_status::too_small, 0,
			    sizeof(tolvard_ack_msg), bytes.size());
		uint32_t type = read_u32(bytes);
		uint64_t size;

		switch (type) {
		case TOLVARD_LOCAL_REG: {
			size = sizeof(tolvard_reg_msg);
			if (bytes.size() < size)
				return stop(walk_status::short_reg, type, size,
				    bytes.size());
			tolvard_reg_msg msg;
			memcpy(&msg, bytes.data(), sizeof(msg));
			if (!sink.reg(msg))
				return stop(walk_status::step_failed, type,
				    size, bytes.size());
			break;
		}
		case TOLVARD_LOCAL_ACK: {
			if (bytes.size() < sizeof(tolvard_ack_msg))
				return stop(walk_status::ack_overrun, type,
				    sizeof(tolvard_ack_msg), bytes.size());
			size = tolvard_ack_size(read_u32(bytes.subspan(4)));
			if (size > bytes.size())
				return stop(walk_status::ack_overrun, type, size,
				    bytes.size());
			if (!sink.ack(bytes.first(size)))
				return stop(walk_status::step_failed, type,
				    size, bytes.size());
			break;
		}
		default:
			return stop(walk_status::unknown_type, type, 0,
			    bytes.size());
		}
		bytes = bytes.subspan(size);
	}
	return stop(walk_status::done, 0, 0, 0);
}

} // namespace tolvard_local
