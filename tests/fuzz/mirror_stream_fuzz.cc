/*
 * The mirror receive path over arbitrary bytes: main TLVs framed as the
 * connection engine frames them, each value handed to the parser of its
 * type, records of the end-of-database class to theirs.  Nothing may read
 * outside the input or stop the process.
 */
#include "mirror_wire.h"

#include <cstddef>
#include <cstdint>

using namespace mirror::wire;

namespace {

class sink : public data_sink {
public:
	void record(const record_def &def, std::span<const uint8_t> data) override
	{
		uint16_t id;
		uint32_t count;
		unsigned type;
		if (def.data_id == 0)
			(void)parse_eod(data, &id, &count, &type);
		sum += data.empty() ? 0 : data.back();
	}
	void ack(const record_def &def) override { sum += def.handle_len; }
	void resync_req(uint16_t id) override { sum += id; }
	void unknown(unsigned type) override { sum += type; }
	unsigned sum = 0;
};

} // namespace

extern "C" int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	std::span<const uint8_t> unread(data, size);
	/* A ring as small as a few TLVs also tries the oversize rule. */
	size_t capacity = size > 0 && (data[0] & 1) ? 64 : MIRROR_READ_BUFF_SIZE - 1;
	for (int walked = 0; walked < 1000; walked++) {
		frame f = next_main(unread, capacity);
		if (f.err != error::none || f.whole == 0)
			break;
		sink s;
		switch (f.type) {
		case MAIN_TLV_CNTRL: {
			cntrl_in in;
			(void)parse_cntrl(f.value, in);
			break;
		}
		case MAIN_TLV_DATA_MIRROR:
			if (parse_data(f.value, s) != error::none)
				return 0;	/* the engine closes here */
			break;
		case MAIN_TLV_CNTRL2: {
			cntrl2_in in;
			if (parse_cntrl2(f.value, in) != error::none)
				return 0;
			if (in.has_buf_size)
				(void)clamp_buf_size(in.buf_size);
			break;
		}
		default:
			break;
		}
		unread = unread.subspan(f.whole);
	}
	return 0;
}
