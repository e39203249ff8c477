/*
 * The bytes of one read from a client of tolvard's local socket.  Every
 * message handed to a step must lie inside the input, an ACK must be as
 * long as its word count says, and the walk must account for every byte:
 * either it consumed them all or it stopped with what was left.
 */
#include "tolvard_local.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

class checking_steps final : public tolvard_local::walk_sink {
public:
	std::span<const uint8_t> input;
	size_t consumed = 0;
	bool refuse_second_ack = false;
	int acks = 0;

	bool reg(const tolvard_reg_msg &msg) override
	{
		if (msg.type != TOLVARD_LOCAL_REG)
			abort();
		consumed += sizeof(msg);
		return true;
	}

	bool ack(std::span<const uint8_t> msg) override
	{
		if (msg.data() != input.data() + consumed ||
		    msg.size() < sizeof(tolvard_ack_msg) ||
		    consumed + msg.size() > input.size())
			abort();
		tolvard_ack_msg head;
		memcpy(&head, msg.data(), sizeof(head));
		if (head.type != TOLVARD_LOCAL_ACK ||
		    tolvard_ack_size(head.words) != msg.size())
			abort();
		consumed += msg.size();
		return !(refuse_second_ack && ++acks == 2);
	}
};

void run(std::span<const uint8_t> bytes, bool refuse)
{
	checking_steps steps;
	steps.input = bytes;
	steps.refuse_second_ack = refuse;
	tolvard_local::walk_result r = tolvard_local::walk(bytes, steps);

	using tolvard_local::walk_status;
	switch (r.status) {
	case walk_status::done:
		if (steps.consumed != bytes.size())
			abort();
		break;
	case walk_status::step_failed:
		if (!refuse)
			abort();
		break;
	default:
		/* Stopped on the message after the last one handled. */
		if (r.have != bytes.size() - steps.consumed || r.have == 0)
			abort();
		if (r.status == walk_status::too_small && r.have >= 4)
			abort();
		if ((r.status == walk_status::short_reg ||
		    r.status == walk_status::ack_overrun) && r.need <= r.have)
			abort();
		break;
	}
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	std::span<const uint8_t> bytes(data, size);
	run(bytes, false);
	run(bytes, true);
	return 0;
}
