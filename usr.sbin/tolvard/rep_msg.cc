/*
 * The receive side of the record channel.  A record is the peer's bytes:
 * every length is checked against what arrived before anything is read,
 * multi-byte fields are copied out (a payload has no alignment), and a
 * record that does not add up is traced "Out of Sync" and dropped whole.
 * Nothing here can stop the daemon.
 */
#include "rep.h"

#include <sdb/sdb_id.h>

#include <cstring>
#include <span>

namespace {

void out_of_sync(void)
{
	tolvard_trace(TRACE_MIRROR, "error handling message from recv data");
	tolvard_trace(TRACE_MIRROR, "Out of Sync");
}

void dispatch(uint8_t type, std::span<const uint8_t> payload)
{
	uint32_t len = (uint32_t)payload.size();
	switch (type) {
	case TOLVARD_MSG_BARRIER:
	case TOLVARD_MSG_RESERVED:
		break;
	case TOLVARD_MSG_SESSION_ID:
		tolvard_session_id_recv(payload.data(), len);
		break;
	case TOLVARD_MSG_INFO:
		tolvard_info_recv(payload.data(), len);
		break;
	default:
		/* A newer peer's message: skip it, its length is known. */
		tolvard_trace(TRACE_MIRROR,
		    "Failed to decode msg header, unknown msg type %d", type);
		break;
	}
}

} // namespace

int tolvard_msg_decode(const uint8_t *data, uint32_t length)
{
	if (length == 0) {
		tolvard_state.recv_msgs++;
		return 0;
	}
	std::span<const uint8_t> rest(data, length);
	while (!rest.empty()) {
		tolvard_msg_header h;
		if (rest.size() < sizeof(h)) {
			tolvard_trace(TRACE_MIRROR,
			    "Failed to read msg header, too small %d", (int)length);
			out_of_sync();
			return -1;
		}
		memcpy(&h, rest.data(), sizeof(h));
		rest = rest.subspan(sizeof(h));
		if (h.version > TOLVARD_MSG_VERSION) {
			tolvard_trace(TRACE_MIRROR,
			    "Failed to decode msg header, unknown version %d, "
			    "have %d", h.version, TOLVARD_MSG_VERSION);
			out_of_sync();
			return -1;
		}
		if (h.length > rest.size()) {
			tolvard_trace(TRACE_MIRROR,
			    "Failed to decode msg header, len too short %d, "
			    "have %d", h.length, (int)rest.size());
			out_of_sync();
			return -1;
		}
		dispatch(h.type, rest.first(h.length));
		rest = rest.subspan(h.length);
	}
	tolvard_state.recv_msgs++;
	tolvard_state.recv_bytes += length;
	return 0;
}

/*
 * The standby stores the master's id with sdb_id_raise, never lowering
 * its own word.  The word can only be ahead when this engine was master
 * before and generated ids the new master never heard of; pulling it back
 * would let the next master hand those ids out again.  Ids only grow, so
 * a raise stores every id of a master in step with us.
 */
void tolvard_session_id_recv(const uint8_t *payload, uint32_t length)
{
	uint64_t id = 0;
	if (length != sizeof(id)) {
		tolvard_trace(TRACE_DB,
		    "SESSION ID msg recv size %d, should be %d, rejected",
		    (int)length, (int)sizeof(id));
		return;
	}
	memcpy(&id, payload, sizeof(id));
	if (tolvard_state.role == role_master) {
		tolvard_trace(TRACE_DB,
		    "SESSION ID %llu msg recv rejected, we are master",
		    (unsigned long long)id);
		return;
	}
	if (tolvard_state.role != role_standby) {
		tolvard_trace(TRACE_DB, "SESSION ID %llu msg recv rejected, we "
		    "are neither master nor standby", (unsigned long long)id);
		return;
	}
	tolvard_trace(TRACE_DB, "New session id %llu", (unsigned long long)id);
	if (sdb_id_raise(id) != 0)
		tolvard_trace(TRACE_DB, "Failed to update new session id %llu",
		    (unsigned long long)id);
	else
		tolvard_heard();
}

void tolvard_info_recv(const uint8_t *payload, uint32_t length)
{
	uint32_t word = 0;
	if (length < sizeof(word)) {
		tolvard_trace(TRACE_DB,
		    "INFO msg recv size %d, should be at least %d, rejected",
		    (int)length, (int)sizeof(word));
		return;
	}
	memcpy(&word, payload, sizeof(word));
	switch (tolvard_state.role) {
	case role_master: {
		int ready = (word & TOLVARD_INFO_READY) != 0;
		tolvard_trace(TRACE_DB, "INFO msg recv, new state %s",
		    ready ? "UP" : "DOWN");
		tolvard_rep_ready_set(ready);
		break;
	}
	case role_standby:
		if (word & TOLVARD_INFO_REQUEST) {
			tolvard_trace(TRACE_DB, "INFO MSG msg recv, send our state");
			tolvard_info_send(tolvard_state.gres_enabled ?
			    TOLVARD_INFO_READY : 0);
		} else {
			tolvard_trace(TRACE_DB,
			    "INFO MSG msg recv rejected, we are standby");
		}
		break;
	default:
		tolvard_trace(TRACE_DB, "INFO MSG msg recv rejected, we are "
		    "neither master nor standby");
		break;
	}
}
