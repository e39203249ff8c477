/*
 * Resync: a receiver asks for a class's whole database after a connection
 * comes up, and the sender walks the class's items through the data queue,
 * then sends an end-of-database record with the number of items walked.
 *
 * Invariants:
 *  - A class has at most one resync job; resume is the node at which the
 *    next run starts, and it holds one lock (the class's lock function)
 *    from the end of one run to the start of the next.
 *  - resync_requested, resync_pending and request_owed are cleared at
 *    every close, so a new connection starts each class idle.
 */
#include "mirror_internal.h"
#include "mirror_queue.h"

using namespace mirror;

namespace {

void
resync_stop(uint32_t data_id)
{
	mirror_reg_internal &ri = mirror_q.reg[data_id];
	if (ri.resync_job != nullptr) {
		mirror_func->job_delete(ri.resync_job);
		ri.resync_job = nullptr;
	}
	if (ri.resume != nullptr) {
		mirror_data_node *node = ri.resume;
		ri.resume = nullptr;
		mirror_registry(data_id)->mirror_data_unlock_func(node);
	}
}

/* Queue one item of the walk unless it is queued already. */
void
resync_queue(mirror_data_node *node)
{
	if (!mirror_operation_will_succeed(node->mdn_data_id) || node->mdn_queue_entry != nullptr)
		return;
	node->mdn_ack = 0;
	mirror_q_entry *mqp = mirror_q_entry_new(node, MIRQ_ACK_NONE);
	node->mdn_op = MIRROR_OP_RESYNC;
	mirror_enqueue(mqp, MIRRORQ_DATA);
}

void
resync_run(mirror_job *job)
{
	auto data_id = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(mirror_func->job_data(job)));
	mirror_reg_internal &ri = mirror_q.reg[data_id];
	mirror_reg_entry *e = mirror_registry(data_id);
	mirror_data_node *started_at = ri.resume;
	mirror_data_node *node = started_at != nullptr ? started_at :
	    e->mirror_data_get_next_func(nullptr);
	for (int n = 0; node != nullptr && (e->mirror_resync_unpaced || n < MIRROR_RESYNC_LIMIT); n++) {
		resync_queue(node);
		node = e->mirror_data_get_next_func(node);
		ri.count++;
	}
	if (started_at != nullptr) {
		ri.resume = nullptr;
		e->mirror_data_unlock_func(started_at);
	}
	if (node == nullptr) {
		mirror_send_eod(data_id, ri.count);
		resync_stop(data_id);
		return;
	}
	/* Hold the next item so that it is still there for the next run. */
	e->mirror_data_lock_func(node);
	ri.resume = node;
}

bool
resync_possible(uint32_t data_id)
{
	mirror_reg_entry *e = mirror_registry(data_id);
	return mirror_connected() && e != nullptr && !e->mirror_no_resync &&
	    mirror_peer_known(data_id);
}

} // namespace

void
mirror_data_resync(uint32_t data_id)
{
	mirror_reg_entry *e = mirror_registry(data_id);
	if (!mirror_is_sender(e) || mirror_l.task == nullptr)
		return;
	mirror_l.stats.ms_resyncs++;
	resync_stop(data_id);
	mirror_q.reg[data_id].count = 0;
	mirror_q.reg[data_id].resync_job = mirror_func->job_create_background(mirror_l.task,
	    mirror_l.st.job_priority, "mirror_data_resync", resync_run,
	    reinterpret_cast<void *>(static_cast<uintptr_t>(data_id)));
}

void
mirror_resync_decision(uint32_t data_id)
{
	if (!resync_possible(data_id))
		return;
	mirror_reg_entry *e = mirror_registry(data_id);
	mirror_reg_internal &ri = mirror_q.reg[data_id];
	uint64_t gen = mirror_l.generation;
	if (mirror_is_receiver(e) && !ri.resync_requested) {
		/* Set first: a close inside the request clears it for the next link. */
		ri.resync_requested = 1;
		mirror_request_db_resync(data_id);
		if (gen != mirror_l.generation)
			return;
	}
	if (mirror_is_sender(e) && ri.resync_pending) {
		ri.resync_pending = 0;
		mirror_data_resync(data_id);
	}
}

void
mirror_resync_retry_owed()
{
	for (uint32_t id = 0; mirror_q.reg != nullptr && id < mirror_l.st.MIRROR_DATA_LAST; id++) {
		if (!mirror_q.reg[id].request_owed)
			continue;
		uint64_t gen = mirror_l.generation;
		mirror_request_db_resync(id);
		if (gen != mirror_l.generation || mirror_q.reg[id].request_owed)
			return;
	}
}

void
mirror_q_registered(mirror_reg_entry *entry)
{
	mirror_resync_decision(entry->mirror_data_id);
}

void
mirror_q_link_up()
{
	uint64_t gen = mirror_l.generation;
	for (uint32_t id = 0; id < mirror_l.st.MIRROR_DATA_LAST; id++) {
		mirror_resync_decision(id);
		if (gen != mirror_l.generation)
			return;
	}
}

void
mirror_q_stop_resync()
{
	for (uint32_t id = 0; mirror_q.reg != nullptr && id < mirror_l.st.MIRROR_DATA_LAST; id++) {
		if (mirror_registry(id) != nullptr)
			resync_stop(id);
		mirror_q.reg[id].resync_requested = 0;
		mirror_q.reg[id].resync_pending = 0;
		mirror_q.reg[id].request_owed = 0;
	}
}

extern "C" int
mirror_request_db_resync(uint32_t data_id)
{
	if (!resync_possible(data_id))
		return ENOTCONN;
	mirror_reg_internal &ri = mirror_q.reg[data_id];
	constexpr uint32_t need = 2 * RPC_TLV20NS_SIZE + MIRROR_DB_RESYNC_REQ_OVERHEAD;
	uint64_t gen = mirror_l.generation;
	while (mirror_l.effective_tx - mirror_l.tx_len < need) {
		int rc = mirror_data_transmit();
		if (gen != mirror_l.generation)
			return ENOTCONN;
		if (rc != 0 || mirror_l.tx_len != 0)
			break;
	}
	if (mirror_l.effective_tx - mirror_l.tx_len < need) {
		/* Asked again when the buffer drains: a lost request would
		 * leave this side without the peer's database for good. */
		ri.request_owed = 1;
		return EAGAIN;
	}
	ri.request_owed = 0;
	size_t n = wire::put_resync_req_main(std::span(mirror_l.tx_buf + mirror_l.tx_len,
	    mirror_l.effective_tx - mirror_l.tx_len), static_cast<uint16_t>(data_id));
	mirror_assert(n == need);
	mirror_l.tx_len += need;
	mirror_l.tx_open_main = -1;	/* records behind it need a main TLV of their own */
	mirror_assert(*mirror_tx_redzone() == MIRROR_REDZONE_PATTERN);
	if (mirror_l.tx_error == 0)
		mirror_data_transmit();
	return 0;
}
