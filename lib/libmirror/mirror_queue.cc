/*
 * The send side of the data queues: queuing an item, the send scheduler,
 * the encoding job mirror_q_flush, acknowledgements coming back, and what
 * a close does to the queues.  See mirror_queue.h for the invariants.
 */
#include "mirror_direct.h"
#include "mirror_internal.h"
#include "mirror_queue.h"

#include <cstring>

using namespace mirror;

mirror_queues mirror_q;

namespace {

constexpr int EOK = 0;

/* Room below which a buffer is sent before another record is tried:
 * a main TLV header, a definition with handle and a data TLV header. */
constexpr uint32_t min_record_room = sizeof(mirror_data_def_tlv) + 12;

mirror_reg_entry eod_entry;
mirror_reg_entry ack_entry;

void
list_append(mirror_q_list &l, mirror_q_entry *mqp)
{
	mqp->mirq_next = nullptr;
	mqp->mirq_prev = l.tail;
	if (l.tail != nullptr)
		l.tail->mirq_next = mqp;
	else
		l.head = mqp;
	l.tail = mqp;
	l.mirq_n_queued++;
}

void
list_remove(mirror_q_list &l, mirror_q_entry *mqp)
{
	if (mqp->mirq_prev != nullptr)
		mqp->mirq_prev->mirq_next = mqp->mirq_next;
	else
		l.head = mqp->mirq_next;
	if (mqp->mirq_next != nullptr)
		mqp->mirq_next->mirq_prev = mqp->mirq_prev;
	else
		l.tail = mqp->mirq_prev;
	mqp->mirq_next = mqp->mirq_prev = nullptr;
	l.mirq_n_queued--;
}

void
node_lock(mirror_data_node *node)
{
	mirror_registry(node->mdn_data_id)->mirror_data_lock_func(node);
}

void
node_unlock(mirror_data_node *node)
{
	mirror_registry(node->mdn_data_id)->mirror_data_unlock_func(node);
}

void
entry_release(mirror_q_entry *mqp)
{
	mirror_assert(mqp->mirq_refcount > 0);
	if (--mqp->mirq_refcount == 0)
		mirror_func->block_free(mirror_q.entry_pool, mqp);
}

/* Take the entry off its list and out of the counts; nothing else. */
void
list_take(mirror_q_entry *mqp)
{
	uint16_t queue_num = mqp->mirq_queue;
	mirror_assert(queue_num < MIRRORQ_MAX);
	list_remove(mirror_q.q[queue_num], mqp);
	if (mirror_queue_is_run_queue(queue_num))
		mirror_q.len--;
	mqp->mirq_queue = MIRRORQ_NONE;
}

/* Put an entry that is on no list at the tail of queue_num, without a lock. */
void
list_put(mirror_q_entry *mqp, uint16_t queue_num)
{
	mqp->mirq_queue = queue_num;
	list_append(mirror_q.q[queue_num], mqp);
	if (mirror_queue_is_run_queue(queue_num) && ++mirror_q.len == 1)
		mirror_q_schedule();
}

void
move_to_tail(mirror_q_entry *mqp, uint16_t queue_num)
{
	list_take(mqp);
	list_put(mqp, queue_num);
}

/* The entry keeps its place but forgets its node, which keeps its lock. */
void
unlink_node(mirror_q_entry *mqp)
{
	mirror_data_node *node = mqp->mirq_data;
	if (node != nullptr)
		node->mdn_queue_entry = nullptr;
	mqp->mirq_data = nullptr;
}

int
mirror_op_common(mirror_data_node *node, uint8_t ack, uint8_t op)
{
	mirror_assert(node != nullptr);
	mirror_reg_entry *registry = mirror_registry(node->mdn_data_id);
	mirror_assert(registry);
	if (!mirror_operation_will_succeed(node->mdn_data_id))
		return 0;
	node->mdn_ack = ack != 0;
	node->mdn_op = op;

	auto *mqp = static_cast<mirror_q_entry *>(node->mdn_queue_entry);
	bool detached = false;
	if (ack == 0 && mqp != nullptr) {
		/*
		 * The item no longer wants an acknowledgement.  An entry that
		 * asked for one gives the node up: the node goes out anew
		 * without.  A waiting entry stays and finds no node when the
		 * answer comes, so nobody is told about it.
		 */
		if (mqp->mirq_ack_state == MIRQ_ACK_REQ) {
			mirror_dequeue(mqp, false);
			detached = true;
		} else if (mqp->mirq_ack_state == MIRQ_ACK_WAIT) {
			unlink_node(mqp);
			detached = true;
		}
	}
	mqp = static_cast<mirror_q_entry *>(node->mdn_queue_entry);
	bool had_entry = false;
	if (mqp != nullptr) {
		if (ack == 0) {
			move_to_tail(mqp, MIRRORQ_DATA);
			return 1;
		}
		switch (mqp->mirq_ack_state) {
		case MIRQ_ACK_NONE:
			mirror_dequeue(mqp, false);
			break;
		case MIRQ_ACK_REQ:
			move_to_tail(mqp, MIRRORQ_DATA);
			return 2;
		default:
			unlink_node(mqp);
			break;
		}
		had_entry = true;
	}
	mqp = mirror_q_entry_new(node, node->mdn_ack ? MIRQ_ACK_REQ : MIRQ_ACK_NONE);
	node->mdn_op = op;
	mirror_enqueue(mqp, MIRRORQ_DATA);
	/* The old entry's lock passes to the new one: one lock per node. */
	if (had_entry || detached)
		node_unlock(node);
	return ack ? 2 : 1;
}

#define mirror_tx_buffer_len (mirror_l.tx_len)

/*
 * Send what is buffered.  True when the buffer drained on the same link;
 * false when the socket took only part of it, or the send closed the link
 * (then the queues are empty and nothing may be touched).
 */
bool
transmit_all(uint64_t gen)
{
	mirror_data_transmit();
	return gen == mirror_l.generation && mirror_l.tx_len == 0;
}

enum class step { sent, retry, stop };

/* Account for n bytes written behind the buffer, in an open main TLV. */
void
commit_bytes(bool opened, uint32_t n)
{
	if (opened)
		mirror_l.tx_open_main = mirror_l.tx_len;
	mirror_l.tx_len += n;
	wire::put_header(mirror_l.tx_buf + mirror_l.tx_open_main, MAIN_TLV_DATA_MIRROR,
	    mirror_l.tx_len - static_cast<uint32_t>(mirror_l.tx_open_main) - RPC_TLV20NS_SIZE);
}

/*
 * The item's encoder refused it.  Without an acknowledgement it simply
 * leaves the queue.  With one, parking it on the waiting list would leave
 * it waiting for an answer to a record that never went out, for as long
 * as the link lives; it is answered at once with reason 1, not delivered.
 */
void
drop_refused(mirror_q_entry *mqp)
{
	if (mqp->mirq_ack_state != MIRQ_ACK_REQ) {
		mirror_dequeue(mqp, true);
		return;
	}
	mirror_data_node *node = mqp->mirq_data;
	mirror_dequeue(mqp, false);
	mirror_reg_entry *registry = mirror_registry(node->mdn_data_id);
	if (registry->mirror_data_ack_func != nullptr)
		registry->mirror_data_ack_func(node, 1);
	node_unlock(node);
}

/* Encode the first entry of queue_num into the send buffer. */
step
encode_one(mirror_q_entry *mqp, uint16_t queue_num, uint64_t gen)
{
	mirror_data_node *node = mqp->mirq_data;
	uint32_t room = mirror_l.effective_tx - mirror_l.tx_len;
	if (room <= min_record_room)
		return transmit_all(gen) ? step::retry : step::stop;

	bool opened = mirror_l.tx_open_main < 0;
	uint32_t main_hdr = opened ? RPC_TLV20NS_SIZE : 0;
	uint8_t *def_p = mirror_l.tx_buf + mirror_l.tx_len + main_hdr;
	bool is_ack = node->mdn_data_id == mirror_l.st.mirror_ack_id;

	if (is_ack) {
		auto *an = reinterpret_cast<mirror_ack_node *>(node);
		wire::record_def def;
		def.data_id = an->acked_data_id;
		def.op = an->acked_op;
		def.ack = MIRROR_ACK_REPLY;
		std::memcpy(def.handle, an->handle, an->handle_len);
		commit_bytes(opened, main_hdr + static_cast<uint32_t>(wire::put_def(def_p, def)));
		node->mdn_last_op = node->mdn_op;
		mirror_dequeue(mqp, true);
		return step::sent;
	}

	uint8_t mode = node->mdn_ack ? MIRROR_ACK_WANTED : MIRROR_ACK_NONE;
	uint32_t def_whole = RPC_TLV20NS_SIZE + MIRROR_DATA_DEF_OVERHEAD +
	    (mode != MIRROR_ACK_NONE ? MIRROR_DATA_HANDLE_LEN : 0);
	uint32_t client_room = (room - main_hdr - def_whole - RPC_TLV20NS_SIZE) & ~3u;
	uint8_t *data_p = def_p + def_whole + RPC_TLV20NS_SIZE;

	/* The encoder may queue or unqueue anything, this entry included. */
	mqp->mirq_refcount++;
	int n = mirror_registry(node->mdn_data_id)->mirror_data_encode_func(node, data_p,
	    client_room);
	mirror_assert(*mirror_tx_redzone() == MIRROR_REDZONE_PATTERN);
	bool kept = mqp->mirq_queue == queue_num && mqp->mirq_data == node;
	entry_release(mqp);
	if (!kept)
		return step::retry;	/* nothing of it counts in the buffer */
	if (n == 0) {
		/* An item that never fits an empty buffer can never be sent. */
		mirror_assert(mirror_tx_buffer_len != 0);
		return transmit_all(gen) ? step::retry : step::stop;
	}
	if (n < 0) {
		drop_refused(mqp);
		return step::sent;
	}
	mirror_assert(static_cast<uint32_t>(n) <= client_room);

	wire::record_def def;
	def.data_id = node->mdn_data_id;
	def.op = node->mdn_op;
	def.ack = mode;
	def.len = static_cast<uint32_t>(n);
	if (mode == MIRROR_ACK_WANTED) {
		mirror_assert(mqp->mirq_ack_state == MIRQ_ACK_REQ);
		uint32_t h = 0;
		int status = mirror_q.handles->alloc(mqp, &h);
		mirror_assert(status == EOK);
		mqp->mirq_handle = h;
		mqp->mirq_has_handle = 1;
		/* Returned byte for byte by the peer: host order is ours to pick. */
		std::memcpy(def.handle, &h, sizeof(h));
	}
	wire::put_def(def_p, def);
	uint32_t padded = (static_cast<uint32_t>(n) + 3) & ~3u;
	std::memset(data_p + n, 0, padded - static_cast<uint32_t>(n));
	wire::put_header(def_p + def_whole, MIRROR_DATA_TLV, padded);
	commit_bytes(opened, main_hdr + def_whole + RPC_TLV20NS_SIZE + padded);
	node->mdn_last_op = node->mdn_op;

	if (mode == MIRROR_ACK_WANTED) {
		mqp->mirq_ack_state = MIRQ_ACK_WAIT;
		move_to_tail(mqp, MIRRORQ_ACK_WAIT);
	} else {
		mirror_dequeue(mqp, true);
	}
	return step::sent;
}

/* The background job: encode up to MIRROR_Q_FLUSH_LIMIT entries. */
void
q_flush(mirror_job *)
{
	uint64_t gen = mirror_l.generation;
	uint16_t queue_num = MIRRORQ_ACK;
	for (int done = 0; done < MIRROR_Q_FLUSH_LIMIT;) {
		/* Acknowledgements first; the queue number only rises in a run. */
		while (queue_num <= MIRRORQ_DATA && mirror_q.q[queue_num].head == nullptr)
			queue_num++;
		if (queue_num > MIRRORQ_DATA)
			break;
		mirror_q_entry *mqp = mirror_q.q[queue_num].head;
		if (mqp->mirq_data == nullptr) {
			mirror_dequeue(mqp, false);
			done++;
			continue;
		}
		step s = encode_one(mqp, queue_num, gen);
		if (s == step::stop)
			break;
		if (s == step::sent)
			done++;
	}
	if (gen != mirror_l.generation)
		return;	/* closed under us: the close path cleaned up */
	if (mirror_l.tx_error == 0)
		mirror_data_transmit();
	if (gen == mirror_l.generation)
		mirror_q_schedule();
}

/* Library class callbacks. */
void
eod_lock(mirror_data_node *node)
{
	reinterpret_cast<mirror_eod_node *>(node)->ref_count++;
}

void
eod_unlock(mirror_data_node *node)
{
	auto *eod = reinterpret_cast<mirror_eod_node *>(node);
	mirror_assert(eod->ref_count > 0);
	if (--eod->ref_count == 0)
		mirror_func->block_free(mirror_q.eod_pool, eod);
}

int
eod_encode(mirror_data_node *node, uint8_t *buf, uint32_t room)
{
	auto *eod = reinterpret_cast<mirror_eod_node *>(node);
	return static_cast<int>(wire::put_eod(std::span(buf, room),
	    static_cast<uint16_t>(eod->data_id), eod->count));
}

void
eod_acked(mirror_data_node *node, int reason)
{
	auto *eod = reinterpret_cast<mirror_eod_node *>(node);
	mirror_reg_entry *e = mirror_registry(eod->data_id);
	if (reason == 0 && e != nullptr && e->mirror_data_eod_func != nullptr)
		e->mirror_data_eod_func(eod->count, 0);
}

void
ack_lock(mirror_data_node *node)
{
	reinterpret_cast<mirror_ack_node *>(node)->ack_refcount++;
}

void
ack_unlock(mirror_data_node *node)
{
	auto *an = reinterpret_cast<mirror_ack_node *>(node);
	mirror_assert(an->ack_refcount > 0);
	if (--an->ack_refcount == 0)
		mirror_func->block_free(mirror_q.ack_pool, an);
}

/* Acknowledgements travel as bare definitions, written by the flush job. */
int
data_ack_data_encode(mirror_data_node *, uint8_t *, uint32_t)
{
	mirror_assert(!"data_ack_data_encode");
}

void
data_ack_data_decode(mirror_recvd_data *)
{
	mirror_assert(!"data_ack_data_decode");
}

void
library_class(mirror_reg_entry *e, uint32_t id)
{
	std::memset(e, 0, sizeof(*e));
	e->mirror_receiver = MIRROR_RECEIVER_BOTH;
	e->mirror_no_resync = 1;
	e->mirror_data_id = static_cast<uint8_t>(id);
}

} // namespace

bool
mirror_queue_is_run_queue(uint16_t queue_num)
{
	return queue_num == MIRRORQ_ACK || queue_num == MIRRORQ_DATA;
}

mirror_reg_entry *
mirror_registry(uint32_t data_id)
{
	if (mirror_l.reg == nullptr || data_id >= mirror_l.st.MIRROR_DATA_LAST)
		return nullptr;
	return mirror_l.reg[data_id];
}

/* This engine sends the class: its receiver is the other side or both. */
bool
mirror_is_sender(const mirror_reg_entry *entry)
{
	return entry->mirror_receiver != mirror_l.re_is_master;
}

mirror_q_entry *
mirror_q_entry_new(mirror_data_node *node, uint8_t ack_state)
{
	auto *mqp = static_cast<mirror_q_entry *>(mirror_func->block_alloc(mirror_q.entry_pool));
	mirror_assert(mqp != nullptr);
	std::memset(mqp, 0, sizeof(*mqp));
	mqp->mirq_data = node;
	mqp->mirq_queue = MIRRORQ_NONE;
	mqp->mirq_refcount = 1;
	mqp->mirq_ack_state = ack_state;
	return mqp;
}

void
mirror_enqueue(mirror_q_entry *mqp, uint16_t queue_num)
{
	mirror_assert(mirror_queue_is_run_queue(queue_num));
	mirror_assert(mqp->mirq_queue == MIRRORQ_NONE);
	mirror_data_node *node = mqp->mirq_data;
	if (node != nullptr) {
		node_lock(node);
		node->mdn_queue_entry = mqp;
	}
	list_put(mqp, queue_num);
}

void
mirror_dequeue(mirror_q_entry *mqp, bool unlock)
{
	list_take(mqp);
	if (mqp->mirq_has_handle) {
		mirror_q.handles->remove(mqp->mirq_handle);
		mqp->mirq_has_handle = 0;
	}
	mirror_data_node *node = mqp->mirq_data;
	if (node != nullptr) {
		node->mdn_op = 0;
		node->mdn_queue_entry = nullptr;
		mqp->mirq_data = nullptr;
		if (unlock)
			node_unlock(node);
	}
	entry_release(mqp);
}

void
mirror_post_ack(mirror_q_entry *mqp, int reason)
{
	mirror_assert(mqp->mirq_queue == MIRRORQ_ACK_WAIT);
	mirror_assert(mqp->mirq_ack_state == MIRQ_ACK_WAIT);
	mirror_assert(mqp->mirq_refcount > 0);
	mirror_data_node *node = mqp->mirq_data;
	mirror_dequeue(mqp, false);
	if (node == nullptr)
		return;	/* unlinked by a later operation: nobody waits */
	mirror_reg_entry *registry = mirror_registry(node->mdn_data_id);
	if (registry->mirror_data_ack_func != nullptr)
		registry->mirror_data_ack_func(node, reason);
	node_unlock(node);
}

void
mirror_q_schedule()
{
	mirror_task *task = mirror_l.task;
	if (task != nullptr && mirror_q.len != 0 && mirror_connected()) {
		if (mirror_func->writable(task)) {
			if (mirror_q.flush_job == nullptr)
				mirror_q.flush_job = mirror_func->job_create_background(task,
				    mirror_l.st.job_priority, "mirror_q_flush", q_flush, nullptr);
			return;
		}
		/* The write event runs the scheduler again when there is room. */
		mirror_func->socket_reenable_write(task);
	}
	mirror_q_flush_stop();
}

void
mirror_q_flush_stop()
{
	if (mirror_q.flush_job != nullptr) {
		mirror_func->job_delete(mirror_q.flush_job);
		mirror_q.flush_job = nullptr;
	}
}

void
mirror_send_eod(uint32_t data_id, uint32_t count)
{
	auto *eod = static_cast<mirror_eod_node *>(mirror_func->block_alloc(mirror_q.eod_pool));
	mirror_assert(eod != nullptr);
	std::memset(eod, 0, sizeof(*eod));
	eod->node.mdn_data_id = static_cast<uint8_t>(mirror_l.st.mirror_eod_id);
	eod->data_id = data_id;
	eod->count = count;
	/* Not queued (no link, or the peer lacks the class): nobody holds it. */
	if (mirror_add(&eod->node, 1) == 0)
		mirror_func->block_free(mirror_q.eod_pool, eod);
}

/* The engine's seam. */
void
mirror_q_setup()
{
	if (mirror_q.entry_pool == nullptr) {
		mirror_q.entry_pool = mirror_func->block_init(sizeof(mirror_q_entry), "mir_q_entry");
		mirror_q.eod_pool = mirror_func->block_init(sizeof(mirror_eod_node), "end_of_db");
		mirror_q.ack_pool = mirror_func->block_init(sizeof(mirror_ack_node), "mirror_ack_data");
		mirror_q.recvd_pool = mirror_func->block_init(sizeof(mirror_recvd_data),
		    "mirror_recvd_data");
		mirror_q.handles = new itable32();
	}
	if (mirror_q.reg == nullptr)
		mirror_q.reg = static_cast<mirror_reg_internal *>(calloc(
		    mirror_l.st.MIRROR_DATA_LAST + 1, sizeof(mirror_reg_internal)));
	mirror_assert(mirror_l.st.mirror_eod_id < mirror_l.st.MIRROR_DATA_LAST &&
	    mirror_l.st.mirror_ack_id < mirror_l.st.MIRROR_DATA_LAST);
	mirror_assert(mirror_q.entry_pool != nullptr && mirror_q.eod_pool != nullptr &&
	    mirror_q.ack_pool != nullptr && mirror_q.recvd_pool != nullptr &&
	    mirror_q.reg != nullptr);

	library_class(&eod_entry, mirror_l.st.mirror_eod_id);
	eod_entry.mirror_data_lock_func = eod_lock;
	eod_entry.mirror_data_unlock_func = eod_unlock;
	eod_entry.mirror_data_encode_func = eod_encode;
	eod_entry.mirror_data_decode_func = mirror_eod_decode;
	eod_entry.mirror_data_ack_func = eod_acked;
	library_class(&ack_entry, mirror_l.st.mirror_ack_id);
	ack_entry.mirror_data_lock_func = ack_lock;
	ack_entry.mirror_data_unlock_func = ack_unlock;
	ack_entry.mirror_data_encode_func = data_ack_data_encode;
	ack_entry.mirror_data_decode_func = data_ack_data_decode;
	if (mirror_registry(mirror_l.st.mirror_eod_id) == nullptr)
		mirror_register_data(&eod_entry);
	if (mirror_registry(mirror_l.st.mirror_ack_id) == nullptr)
		mirror_register_data(&ack_entry);
}

void
mirror_q_send_schedule()
{
	mirror_resync_retry_owed();
	mirror_q_schedule();
	mirror_direct_ready();
}

void
mirror_q_clear()
{
	mirror_q_flush_stop();
	/* Nothing is sent any more: every item leaves, and those that want
	 * an acknowledgement join the waiting list to be answered below. */
	while (mirror_q.len != 0) {
		uint16_t queue_num = mirror_q.q[MIRRORQ_ACK].head != nullptr ? MIRRORQ_ACK : MIRRORQ_DATA;
		mirror_q_entry *mqp = mirror_q.q[queue_num].head;
		if (mqp->mirq_data != nullptr && mqp->mirq_ack_state == MIRQ_ACK_REQ) {
			mqp->mirq_ack_state = MIRQ_ACK_WAIT;
			move_to_tail(mqp, MIRRORQ_ACK_WAIT);
		} else {
			mirror_dequeue(mqp, true);
		}
	}
	/* The callbacks may unqueue other items; always take the head anew. */
	while (mirror_q.q[MIRRORQ_ACK_WAIT].head != nullptr)
		mirror_post_ack(mirror_q.q[MIRRORQ_ACK_WAIT].head, 1);
	mirror_recv_stop();
}

extern "C" {

void
mirror_data_node_init(mirror_data_node *node_ptr, uint8_t data_id)
{
	mirror_assert(node_ptr != nullptr);
	mirror_assert(node_ptr->mdn_queue_entry == NULL);
	node_ptr->mdn_data_id = data_id;
	node_ptr->mdn_op = 0;
	node_ptr->mdn_last_op = 0;
	node_ptr->mdn_ack = 0;
}

int
mirror_operation_will_succeed(uint32_t data_id)
{
	mirror_reg_entry *e = mirror_registry(data_id);
	return mirror_connected() && e != nullptr && mirror_is_sender(e) &&
	    mirror_peer_known(data_id);
}

int
mirror_add(mirror_data_node *node, uint8_t ack)
{
	return mirror_op_common(node, ack, MIRROR_OP_ADD);
}

int
mirror_delete(mirror_data_node *node, uint8_t ack)
{
	return mirror_op_common(node, ack, MIRROR_OP_DELETE);
}

int
mirror_update(mirror_data_node *node, uint8_t ack)
{
	return mirror_op_common(node, ack, MIRROR_OP_UPDATE);
}

void
mirror_unqueue(mirror_data_node *node)
{
	auto *mqp = static_cast<mirror_q_entry *>(node->mdn_queue_entry);
	if (mqp == nullptr)
		return;
	if (mqp->mirq_queue == MIRRORQ_ACK_WAIT)
		unlink_node(mqp);
	else
		mirror_dequeue(mqp, false);
	node_unlock(node);
}

} // extern "C"
