/*
 * The engine's seam to the data queues.  Until the queues are in place a
 * received record is handed to its class at once, and the send side is the
 * direct record path; acknowledgements and resync requests of the peer are
 * traced and otherwise left alone.
 */
#include "mirror_direct.h"
#include "mirror_internal.h"

#include <cstring>

namespace {

mirror_reg_entry eod_entry;
mirror_reg_entry ack_entry;

void
lib_lock(mirror_data_node *)
{
}

int
lib_encode(mirror_data_node *, uint8_t *, uint32_t)
{
	return -1;
}

void
lib_decode(mirror_recvd_data *)
{
}

void
eod_received(std::span<const uint8_t> data)
{
	uint16_t id;
	uint32_t count;
	unsigned type;
	if (!mirror::wire::parse_eod(data, &id, &count, &type)) {
		mirror_trace("Unknown TLV received by endofdb marker, TLV: %d",
		    static_cast<int>(type));
		return;
	}
	if (id >= mirror_l.st.MIRROR_DATA_LAST || mirror_l.reg[id] == nullptr)
		return;
	mirror_reg_entry *e = mirror_l.reg[id];
	if (e->mirror_data_eod_func != nullptr)
		e->mirror_data_eod_func(count, 1);
}

} // namespace

void
mirror_q_setup()
{
	for (mirror_reg_entry *e : {&eod_entry, &ack_entry}) {
		std::memset(e, 0, sizeof(*e));
		e->mirror_data_lock_func = lib_lock;
		e->mirror_data_unlock_func = lib_lock;
		e->mirror_data_encode_func = lib_encode;
		e->mirror_data_decode_func = lib_decode;
		e->mirror_receiver = MIRROR_RECEIVER_BOTH;
		e->mirror_no_resync = 1;
	}
	eod_entry.mirror_data_id = static_cast<uint8_t>(mirror_l.st.mirror_eod_id);
	ack_entry.mirror_data_id = static_cast<uint8_t>(mirror_l.st.mirror_ack_id);
	if (mirror_l.st.mirror_eod_id < mirror_l.st.MIRROR_DATA_LAST &&
	    mirror_l.reg[mirror_l.st.mirror_eod_id] == nullptr)
		mirror_register_data(&eod_entry);
	if (mirror_l.st.mirror_ack_id < mirror_l.st.MIRROR_DATA_LAST &&
	    mirror_l.st.mirror_ack_id != mirror_l.st.mirror_eod_id &&
	    mirror_l.reg[mirror_l.st.mirror_ack_id] == nullptr)
		mirror_register_data(&ack_entry);
}

void
mirror_q_send_schedule()
{
	mirror_direct_ready();
}

void
mirror_q_link_up()
{
}

void
mirror_q_link_closed()
{
}

void
mirror_q_rx_reset()
{
}

void
mirror_q_decode_all()
{
}

void
mirror_q_stop_resync()
{
}

void
mirror_q_rx_record(const mirror::wire::record_def &def, std::span<const uint8_t> data)
{
	if (def.data_id >= mirror_l.st.MIRROR_DATA_LAST || mirror_l.reg[def.data_id] == nullptr) {
		/* Both ends run one table in practice; the record has no home. */
		mirror_trace("mirror record for unknown data id %u dropped", def.data_id);
		return;
	}
	if (def.data_id == mirror_l.st.mirror_eod_id) {
		eod_received(data);
		return;
	}
	if (def.data_id == mirror_l.st.mirror_ack_id) {
		/* Acknowledgements travel as definitions only; a record is bogus. */
		mirror_trace("mirror record in the acknowledgement class dropped");
		return;
	}
	mirror_reg_entry *e = mirror_l.reg[def.data_id];
	if (!mirror_is_receiver(e)) {
		mirror_trace("mirror record for data id %u, not received here, dropped",
		    def.data_id);
		return;
	}
	mirror_recvd_data rd{};
	rd.total_len = def.len;
	rd.got_len = def.len;
	rd.data = const_cast<uint8_t *>(data.data());
	rd.data_id = static_cast<uint8_t>(def.data_id);
	rd.op = def.op;
	e->mirror_data_decode_func(&rd);
}

void
mirror_q_rx_ack(const mirror::wire::record_def &def)
{
	mirror_trace("mirror acknowledgement for data id %u ignored", def.data_id);
}

void
mirror_q_rx_resync_req(uint16_t data_id)
{
	mirror_trace("mirror resync request for data id %u ignored", data_id);
}
