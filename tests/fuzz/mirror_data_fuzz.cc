/*
 * The value of a data main TLV, as the peer sends it.  Every record the
 * parser hands out must lie inside the input and be as long as its
 * definition says.
 */
#include "mirror_wire.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

using namespace mirror::wire;

namespace {

class checking_sink : public data_sink {
public:
	std::span<const uint8_t> input;

	void record(const record_def &def, std::span<const uint8_t> data) override
	{
		if (data.size() != def.len || data.data() < input.data() ||
		    data.data() + data.size() > input.data() + input.size())
			abort();
		if (def.op < MIRROR_OP_ADD || def.op > MIRROR_OP_RESYNC || def.ack > 1)
			abort();
	}
	void ack(const record_def &def) override
	{
		if (def.ack != MIRROR_ACK_REPLY || def.handle_len > MIRROR_DATA_HANDLE_LEN)
			abort();
	}
	void resync_req(uint16_t) override {}
	void unknown(unsigned type) override
	{
		if (type <= MIRROR_DB_RESYNC_REQ_TLV)
			abort();
	}
};

} // namespace

extern "C" int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	checking_sink s;
	s.input = std::span(data, size);
	(void)parse_data(s.input, s);
	return 0;
}
