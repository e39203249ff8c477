/*
 * The send side of the record channel: the entry pool, the mirror class's
 * callbacks and the poll that carries the session id word from the
 * master to the standby.
 *
 * An entry is free (on free_list), or held by the mirror library between
 * tolvard_data_lock and tolvard_data_unlock, with its payload in data.
 * Entries are never freed; the pool grows on demand to
 * mirror_max_entries + 1.  An entry keeps its initialised node on the free
 * list, so a re-used entry goes out as an update.
 */
#include "rep.h"

#include <sdb/sdb_id.h>

#include <cstdlib>
#include <cstring>

namespace {

/* Whether entry is on free_list: the list's own back link says so. */
bool on_free_list(const tolvard_entry *e)
{
	return e->free_links.tqe_prev != nullptr;
}

void free_list_remove(tolvard_entry *e)
{
	TAILQ_REMOVE(&tolvard_state.free_list, e, free_links);
	e->free_links.tqe_prev = nullptr;
}

int entry_add(tolvard_entry *e, uint8_t ack)
{
	if (e->data == nullptr) {
		tolvard_trace(TRACE_MIRROR,
		    "Mirroring ADD for %u failed, data not present", e->entry_id);
		return -1;
	}
	e->node.mdn_queue_entry = nullptr;
	mirror_data_node_init(&e->node, TOLVARD_DATA_ID);
	e->flags |= TOLVARD_ENTRY_INITED;
	if (ack)
		e->flags |= TOLVARD_ENTRY_ACK;
	if (mirror_add(&e->node, ack) == 0) {
		tolvard_trace(TRACE_MIRROR, "Mirroring ADD for %u failed",
		    e->entry_id);
		return -1;
	}
	return 0;
}

/* 0 from the library means the link is not ready: the data is dropped. */
int entry_update(tolvard_entry *e, uint8_t ack)
{
	if (e->data == nullptr) {
		tolvard_trace(TRACE_MIRROR,
		    "Mirroring UPDATE for %u failed, no data to send", e->entry_id);
		return -1;
	}
	if (!(e->flags & TOLVARD_ENTRY_INITED)) {
		tolvard_trace(TRACE_MIRROR,
		    "Mirroring UPDATE failed, mirroring disabled");
		return -1;
	}
	if (ack)
		e->flags |= TOLVARD_ENTRY_ACK;
	if (mirror_update(&e->node, ack) == 0) {
		tolvard_trace(TRACE_MIRROR, "Mirroring UPDATE for %u failed",
		    e->entry_id);
		return -1;
	}
	return 0;
}

void drop_payload(tolvard_entry *e)
{
	free(e->data);
	e->data = nullptr;
	e->size = 0;
}

} // namespace

tolvard_entry *tolvard_entry_of(mirror_data_node *node)
{
	return reinterpret_cast<tolvard_entry *>(
	    reinterpret_cast<char *>(node) - offsetof(tolvard_entry, node));
}

tolvard_entry *tolvard_entry_new(void)
{
	if (tolvard_state.entries_created > tolvard_state.mirror_max_entries) {
		tolvard_state.max_hits++;
		tolvard_trace(TRACE_MIRROR, "Max messages hit %d times",
		    (int)tolvard_state.max_hits);
		return nullptr;
	}
	auto *e = static_cast<tolvard_entry *>(calloc(1, sizeof(tolvard_entry)));
	if (e == nullptr)
		return nullptr;
	TAILQ_INIT(&e->acks);
	e->entry_id = ++tolvard_state.entries_created;
	if (tolvard_state.debug)
		tolvard_trace(TRACE_MIRROR, "Mirroring create new buffer %d",
		    (int)e->entry_id);
	return e;
}

tolvard_entry *tolvard_entry_get(void)
{
	tolvard_entry *e = TAILQ_FIRST(&tolvard_state.free_list);
	if (e == nullptr)
		return tolvard_entry_new();
	free_list_remove(e);
	return e;
}

void tolvard_entry_free(tolvard_entry *e)
{
	e->flags &= (uint8_t)~(TOLVARD_ENTRY_ACK | TOLVARD_ENTRY_SPARE);
	if (tolvard_state.debug)
		tolvard_trace(TRACE_MIRROR, "Adding entry %d to free list",
		    (int)e->entry_id);
	if (on_free_list(e)) {
		tolvard_trace(TRACE_MIRROR,
		    "Failed to add entry %d to free list, already present",
		    (int)e->entry_id);
		return;
	}
	TAILQ_INSERT_HEAD(&tolvard_state.free_list, e, free_links);
}

tolvard_entry *tolvard_rep_send(const void *payload, uint32_t size,
    uint32_t msg_type, uint8_t ack)
{
	if (!tolvard_state.gres_enabled) {
		tolvard_trace(TRACE_MIRROR, "%s: Send failed, GRES not configured",
		    __func__);
		return nullptr;
	}
	/*
	 * Graceful switchover can be on with no link set up (a start without
	 * a role), and the mirror library stops the process on a class it
	 * does not know.
	 */
	if (!tolvard_state.mirror_inited) {
		tolvard_trace(TRACE_MIRROR, "%s: Send failed, mirroring not set up",
		    __func__);
		return nullptr;
	}
	tolvard_entry *e = tolvard_entry_get();
	if (e == nullptr) {
		tolvard_trace(TRACE_MIRROR, "Failed to get entry");
		return nullptr;
	}
	e->msg_type = msg_type;
	e->size = size;
	e->data = nullptr;
	if (size != 0) {
		e->data = malloc(size);
		if (e->data == nullptr) {
			e->size = 0;
			tolvard_entry_free(e);
			tolvard_trace(TRACE_MIRROR, "No memory for buffer data %d",
			    (int)size);
			return nullptr;
		}
		memcpy(e->data, payload, size);
	}
	int rc = (e->flags & TOLVARD_ENTRY_INITED) ? entry_update(e, ack) :
	    entry_add(e, ack);
	if (rc != 0) {
		drop_payload(e);
		tolvard_entry_free(e);
		tolvard_trace(TRACE_MIRROR, "Mirror add/update failed, ret %d", rc);
		return nullptr;
	}
	tolvard_state.records_sent++;
	return e;
}

void tolvard_session_id_send(void)
{
	uint64_t id = tolvard_state.session_id_sent;
	if (id != 0)
		tolvard_rep_send(&id, sizeof(id), TOLVARD_MSG_SESSION_ID, 0);
}

void tolvard_info_send(uint32_t state)
{
	tolvard_rep_send(&state, sizeof(state), TOLVARD_MSG_INFO, 0);
}

/*
 * On the master: send the id word when it moved.  A send that failed
 * (no entry free, no memory) leaves session_id_sent where it was, so the
 * next tick tries again; otherwise an idle master would leave the standby
 * behind until the next session was made.
 */
int tolvard_session_id_check(void)
{
	if (!tolvard_state.db_up) {
		tolvard_trace(TRACE_DB, "Cannot empty queue, db down");
		return 0;
	}
	if (tolvard_state.role == role_none) {
		tolvard_trace(TRACE_DB, "Cannot empty queue, waiting for "
		    "master/standby role assignment");
		return 0;
	}
	if (tolvard_state.role != role_master)
		return 0;
	uint64_t id = sdb_id_get();
	/* 0: the word is not mapped yet, while an open is retried. */
	if (id == 0 || id == tolvard_state.session_id_sent)
		return 0;
	uint64_t before = tolvard_state.session_id_sent;
	tolvard_state.session_id_sent = id;
	tolvard_trace(TRACE_DB, "New Session id %llu", (unsigned long long)id);
	if (id != 0 && tolvard_rep_send(&id, sizeof(id),
	    TOLVARD_MSG_SESSION_ID, 0) == nullptr)
		tolvard_state.session_id_sent = before;
	return 1;
}

void tolvard_poll(otimer_t *timer, void *arg)
{
	(void)timer;
	(void)arg;
	if (tolvard_state.mirror_up && tolvard_state.db_up &&
	    tolvard_state.gres_enabled)
		tolvard_session_id_check();
}

/* The mirror library's callbacks. */

void tolvard_data_lock(mirror_data_node *node)
{
	tolvard_entry_of(node)->flags |= TOLVARD_ENTRY_LOCKED;
}

void tolvard_data_unlock(mirror_data_node *node)
{
	tolvard_entry *e = tolvard_entry_of(node);
	e->flags &= (uint8_t)~TOLVARD_ENTRY_LOCKED;
	drop_payload(e);
	tolvard_entry_free(e);
}

int tolvard_data_encode(mirror_data_node *node, uint8_t *buf, uint32_t room)
{
	if (node == nullptr)
		return -1;
	tolvard_entry *e = tolvard_entry_of(node);
	if (node->mdn_op < MIRROR_OP_ADD || node->mdn_op > MIRROR_OP_RESYNC) {
		tolvard_trace(TRACE_MIRROR,
		    "Mirror Lib, unrecognized encode operation %d for %u",
		    node->mdn_op, e->entry_id);
		return -1;
	}
	if (e->data == nullptr || e->size > UINT16_MAX)
		return -1;
	if ((uint64_t)e->size + sizeof(tolvard_msg_header) > room) {
		if (tolvard_state.debug)
			tolvard_trace(TRACE_MIRROR,
			    "Mirror send %u : too small len %d, left %d, op %d",
			    e->entry_id, (int)e->size, (int)room, node->mdn_op);
		return 0;
	}
	tolvard_msg_header h = {TOLVARD_MSG_VERSION, (uint8_t)e->msg_type,
	    (uint16_t)e->size};
	memcpy(buf, &h, sizeof(h));
	memcpy(buf + sizeof(h), e->data, e->size);
	if (tolvard_state.debug)
		tolvard_trace(TRACE_MIRROR, "Mirror send %u : len %d, left %d, op %d",
		    e->entry_id, (int)e->size, (int)room, node->mdn_op);
	return (int)(e->size + sizeof(h));
}

void tolvard_data_ack(mirror_data_node *node, int reason)
{
	tolvard_entry *e = tolvard_entry_of(node);
	tolvard_trace(TRACE_MIRROR, "Mirroring ACK for %u, reason %d",
	    e->entry_id, reason);
	/*
	 * The answer to a barrier is the client's own bytes and cannot say
	 * which way it ended; the counters in the status file can.  They
	 * are written before the answer goes, so a client that reads them
	 * after its answer finds its own outcome counted.
	 */
	if (e->conn != nullptr) {
		if (reason == 0)
			tolvard_state.barriers_acked++;
		else
			tolvard_state.barriers_lost++;
		tolvard_status_write();
	}
	tolvard_ack_release(e);
}

void tolvard_data_decode(mirror_recvd_data *record)
{
	if (record == nullptr)
		return;
	if (record->got_len == 0) {
		tolvard_trace(TRACE_MIRROR,
		    "Mirror Recv data too small %d, expected %d", 0, 1);
		return;
	}
	switch (record->op) {
	case MIRROR_OP_ADD:
	case MIRROR_OP_UPDATE:
	case MIRROR_OP_RESYNC:
		/* got_len, not total_len: never read past what arrived. */
		tolvard_msg_decode(record->data, record->got_len);
		break;
	case MIRROR_OP_DELETE:
		tolvard_trace(TRACE_MIRROR, "Mirror DELETE bytes %d",
		    (int)record->got_len);
		break;
	default:
		tolvard_trace(TRACE_MIRROR,
		    "Mirror Lib, unrecognized decode operation %d", record->op);
		break;
	}
}
