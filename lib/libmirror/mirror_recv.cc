/*
 * The receive side of the data queues: records the peer sent wait on
 * mirror_recvd_data_list, oldest first, until the decode job hands them to
 * their class; acknowledgements the peer returns end the wait of our own
 * items; resync requests start a resync.
 *
 * Every function here runs on bytes of the peer.  None of them asserts on
 * what the peer sent: a violation closes the link with a report.
 *
 * Invariants:
 *  - Every record on the list is complete: a definition and its data
 *    always lie in one main TLV, so a record is whole when it is made.
 *  - A record holds one reference on its acknowledgement node; the node
 *    is freed when the record and the queue are both done with it.
 *  - rx_backlogged is set only while reading is off because of the
 *    backlog; the decode job turns reading back on.
 */
#include "mirror_internal.h"
#include "mirror_queue.h"

#include <cstdlib>
#include <cstring>

using namespace mirror;

namespace {

void
record_free(mirror_recvd_data *rd)
{
	if (rd->ack_node != nullptr) {
		auto *an = static_cast<mirror_ack_node *>(rd->ack_node);
		if (--an->ack_refcount == 0)
			mirror_func->block_free(mirror_q.ack_pool, an);
		rd->ack_node = nullptr;
	}
	free(rd->data);
	mirror_func->block_free(mirror_q.recvd_pool, rd);
}

mirror_recvd_data *
list_pop()
{
	mirror_recvd_data *rd = mirror_q.rx_head;
	if (rd == nullptr)
		return nullptr;
	mirror_q.rx_head = rd->mrd_next;
	if (mirror_q.rx_head != nullptr)
		mirror_q.rx_head->mrd_prev = nullptr;
	else
		mirror_q.rx_tail = nullptr;
	rd->mrd_next = nullptr;
	mirror_q.rx_count--;
	mirror_q.rx_bytes -= rd->total_len;
	return rd;
}

void
list_push(mirror_recvd_data *rd)
{
	rd->mrd_prev = mirror_q.rx_tail;
	rd->mrd_next = nullptr;
	if (mirror_q.rx_tail != nullptr)
		mirror_q.rx_tail->mrd_next = rd;
	else
		mirror_q.rx_head = rd;
	mirror_q.rx_tail = rd;
	mirror_q.rx_count++;
	mirror_q.rx_bytes += rd->total_len;
}

/*
 * Decoding takes 100 records a turn, while one read may bring thousands
 * of small ones: left alone the list would grow without bound.  Above the
 * backlog mark the socket is not read, and TCP holds the peer back.
 */
void
backlog_check()
{
	if (mirror_l.task == nullptr)
		return;
	bool over = mirror_q.rx_count >= MIRROR_RX_BACKLOG_RECORDS ||
	    mirror_q.rx_bytes >= MIRROR_RX_BACKLOG_BYTES;
	if (over) {
		mirror_func->socket_disable_receive(mirror_l.task);
		mirror_q.rx_backlogged = 1;
	} else if (mirror_q.rx_backlogged && mirror_q.rx_count <= MIRROR_RX_BACKLOG_RECORDS / 2 &&
	    mirror_q.rx_bytes <= MIRROR_RX_BACKLOG_BYTES / 2) {
		mirror_q.rx_backlogged = 0;
		/* The ring or the application may want reading off: leave it. */
		if (!mirror_l.rx_disabled && !mirror_l.task->throttled)
			mirror_func->socket_throttle(mirror_l.task, 0);
	}
}

void decode_job_run(mirror_job *job);

void
decode_job_start()
{
	if (mirror_q.decode_job == nullptr && mirror_l.task != nullptr)
		mirror_q.decode_job = mirror_func->job_create_background(mirror_l.task,
		    mirror_l.st.job_priority, "mirror_recv_data_flush", decode_job_run, nullptr);
}

void
decode_job_stop()
{
	if (mirror_q.decode_job != nullptr) {
		mirror_func->job_delete(mirror_q.decode_job);
		mirror_q.decode_job = nullptr;
	}
}

/* Queue the answer to a record that wanted one. */
void
mirror_return_ack(mirror_recvd_data *rd)
{
	auto *an = static_cast<mirror_ack_node *>(rd->ack_node);
	if (!mirror_connected())
		return;
	mirror_q_entry *mqp = mirror_q_entry_new(&an->node, MIRQ_ACK_NONE);
	an->node.mdn_op = MIRROR_OP_ADD;
	mirror_enqueue(mqp, MIRRORQ_ACK);
}

/*
 * Decode up to the budget (all with force).  The acknowledgement is queued
 * before the record is applied, but the send job cannot run before this
 * run ends, so it always leaves after the record was applied.
 */
void
recv_data_flush(bool force)
{
	uint64_t gen = mirror_l.generation;
	for (int budget = MIRROR_DECODE_LIMIT; force || budget > 0; budget--) {
		mirror_recvd_data *rd = list_pop();
		if (rd == nullptr)
			break;
		if (rd->ack_node != nullptr)
			mirror_return_ack(rd);
		mirror_reg_entry *e = mirror_registry(rd->data_id);
		if (e != nullptr)
			e->mirror_data_decode_func(rd);
		else
			mirror_trace("mirror record for unregistered data id %u dropped",
			    rd->data_id);
		record_free(rd);
		if (gen != mirror_l.generation)
			break;	/* a callback closed the link: the list is gone */
	}
	if (mirror_q.rx_head == nullptr)
		decode_job_stop();
	backlog_check();
}

void
decode_job_run(mirror_job *)
{
	recv_data_flush(false);
}

} // namespace

/* The end-of-database class's decoder: tell the class that was sent. */
void
mirror_eod_decode(mirror_recvd_data *rd)
{
	uint16_t id;
	uint32_t count;
	unsigned type = 0;
	if (!wire::parse_eod(std::span<const uint8_t>(rd->data, rd->got_len), &id, &count, &type)) {
		mirror_trace("Unknown TLV received by endofdb marker, TLV: %d",
		    static_cast<int>(type));
		return;
	}
	mirror_reg_entry *e = mirror_registry(id);
	if (e == nullptr || e->mirror_no_resync) {
		mirror_trace("mirror end of database for data id %u ignored", id);
		return;
	}
	if (e->mirror_data_eod_func != nullptr)
		e->mirror_data_eod_func(count, 1);
}

void
mirror_recv_stop()
{
	decode_job_stop();
	while (mirror_recvd_data *rd = list_pop())
		record_free(rd);
	mirror_q.rx_backlogged = 0;
}

void
mirror_q_rx_reset()
{
	mirror_recv_stop();
}

void
mirror_q_decode_all()
{
	recv_data_flush(true);
}

void
mirror_q_rx_record(const wire::record_def &def, std::span<const uint8_t> data)
{
	if (!mirror_l.rx_cntrl_done)
		return;	/* the link closed earlier in this main TLV */
	if (def.data_id == mirror_l.st.mirror_ack_id) {
		/* Acknowledgements travel as bare definitions; this one is bogus. */
		mirror_stream_error(__func__, __LINE__, "record in the acknowledgement class");
		return;
	}
	auto *rd = static_cast<mirror_recvd_data *>(mirror_func->block_alloc(mirror_q.recvd_pool));
	mirror_assert(rd != nullptr);
	std::memset(rd, 0, sizeof(*rd));
	rd->total_len = static_cast<uint32_t>(data.size());
	if (!data.empty()) {
		rd->data = static_cast<uint8_t *>(malloc(data.size()));
		mirror_assert(rd->data != nullptr);
		std::memcpy(rd->data, data.data(), data.size());
	}
	rd->got_len = rd->total_len;
	rd->data_id = static_cast<uint8_t>(def.data_id);
	rd->op = def.op;
	/*
	 * A record that has no class here is dropped when its turn comes, but
	 * its acknowledgement is returned all the same: an unanswered one
	 * would keep the sender's item waiting for as long as the link lives.
	 */
	if (def.ack == MIRROR_ACK_WANTED) {
		auto *an = static_cast<mirror_ack_node *>(mirror_func->block_alloc(mirror_q.ack_pool));
		mirror_assert(an != nullptr);
		std::memset(an, 0, sizeof(*an));
		an->node.mdn_data_id = static_cast<uint8_t>(mirror_l.st.mirror_ack_id);
		an->acked_data_id = def.data_id;
		an->acked_op = def.op;
		an->handle_len = def.handle_len;
		std::memcpy(an->handle, def.handle, def.handle_len);
		an->ack_refcount = 1;
		rd->ack_node = an;
	}
	if (def.data_id >= mirror_l.st.MIRROR_DATA_LAST)
		rd->data_id = static_cast<uint8_t>(mirror_l.st.MIRROR_DATA_LAST);	/* no class */
	list_push(rd);
	decode_job_start();
	backlog_check();
}

void
mirror_q_rx_ack(const wire::record_def &def)
{
	if (!mirror_l.rx_cntrl_done)
		return;
	uint32_t handle = 0;
	mirror_q_entry *entry = nullptr;
	if (def.handle_len == sizeof(handle)) {
		std::memcpy(&handle, def.handle, sizeof(handle));
		entry = static_cast<mirror_q_entry *>(mirror_q.handles->get(handle));
	}
	if (entry == nullptr) {
		/* We never gave this handle out, or it was answered already. */
		mirror_stream_error(__func__, __LINE__, "acknowledgement with an unknown handle");
		return;
	}
	mirror_post_ack(entry, 0);
}

void
mirror_q_rx_resync_req(uint16_t data_id)
{
	if (!mirror_l.rx_cntrl_done)
		return;
	mirror_reg_entry *e = mirror_registry(data_id);
	/*
	 * Names are compared over the length that came in, so the two ends
	 * may disagree about which ids they share; closing on such a request
	 * would only repeat at every connection and take every other class
	 * down with it.  It is refused, loudly, and the link stays.
	 */
	if (data_id >= mirror_l.st.MIRROR_DATA_LAST || !mirror_peer_known(data_id) ||
	    (e != nullptr && (e->mirror_no_resync || e->mirror_data_get_next_func == nullptr))) {
		mirror_peer_refused(__func__, __LINE__, "resync request for data id %u refused: %s",
		    data_id, data_id >= mirror_l.st.MIRROR_DATA_LAST || !mirror_peer_known(data_id) ?
		    "not a shared class" : "the class has no resync");
		return;
	}
	if (e == nullptr) {
		mirror_q.reg[data_id].resync_pending = 1;
		return;
	}
	mirror_data_resync(data_id);
}
