/*
 * ISSU: the chassis drives the daemon through its phases by messages that
 * keel relays (type 3); the daemon answers with its state in an ISSU
 * block (type 4).  The state lives in the handle and survives a
 * reconnection: the registration carries it to keel and the answer gives
 * it back.
 */
#include "keel_private.h"

#include <array>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::array<const char *, 7> daemon_names = {
	"IDLE", "PREPARE", "READY", "SWITCHOVER_PREPARE", "SWITCHOVER_READY",
	"ABORT", "UNKNOWN",
};

constexpr std::array<const char *, 9> chassis_names = {
	"IDLE", "DAEMON_ISSU_PREPARE", "DAEMON_ISSU_PREPARE_DONE", "FRU_ISSU",
	"FRU_ISSU_DONE", "DAEMON_SWITCHOVER_PREPARE",
	"DAEMON_SWITCHOVER_PREPARE_DONE", "ABORT", "UNKNOWN",
};

/* States whose message carries the wait and the text. */
bool
has_info(uint32_t state)
{
	return state == KEEL_ISSU_PREPARE ||
	    state == KEEL_ISSU_SWITCHOVER_PREPARE || state == KEEL_ISSU_ABORT;
}

void
set_info(keel_handle *h, uint32_t wait, const char *text)
{
	h->issu.wait = wait;
	memset(h->issu.text, 0, sizeof(h->issu.text));
	if (text != nullptr && text[0] != '\0') {
		size_t len = strnlen(text, sizeof(h->issu.text) - 1);
		memcpy(h->issu.text, text, len);
		h->issu.text_len = static_cast<uint32_t>(len + 1);
	} else
		h->issu.text_len = 0;
}

/* Terminated copy of an info record from a callback. */
void
set_info(keel_handle *h, const keel_issu_info &info)
{
	char text[sizeof(info.text)];
	memcpy(text, info.text, sizeof(text));
	text[sizeof(text) - 1] = '\0';
	set_info(h, info.wait, text);
}

int
send_state(keel_handle *h)
{
	const char *name = keel_daemon_issu_name(h->issu.state);

	/*
	 * Without a connection nothing is sent: the caller hears so, and the
	 * new state waits in the handle for the next registration, which
	 * carries it to keel.
	 */
	if (h->fd < 0)
		return KEEL_ERR_SEND;
	if (has_info(h->issu.state))
		keel_info(h, "Send ISSU message <%s>, wait=%d errstr=\"%s\"",
		    name, static_cast<int>(h->issu.wait),
		    h->issu.text_len != 0 ? h->issu.text : "NULL");
	else
		keel_info(h, "Send ISSU message <%s>", name);
	keel_msg_issu m;
	memset(&m, 0, sizeof(m));
	m.type = KEEL_MSG_ISSU;
	m.issu = h->issu;
	return keel_send(h, &m, sizeof(m));
}

bool
state_in(uint32_t state, std::initializer_list<uint32_t> allowed)
{
	for (uint32_t s : allowed)
		if (s == state)
			return true;
	return false;
}

} // namespace

extern "C" const char *
keel_daemon_issu_name(uint32_t state)
{
	return state < daemon_names.size() ? daemon_names[state] : "UNKNOWN";
}

extern "C" const char *
keel_chassis_issu_name(uint32_t msg)
{
	return msg < chassis_names.size() ? chassis_names[msg] : "UNKNOWN";
}

void
keel_issu_received(keel_handle *h, uint32_t msg)
{
	uint32_t state = h->issu.state;
	int ready = 1, abort = 0;
	keel_issu_info info;
	bool allowed;

	keel_info(h, "Received ISSU message <%s>, daemon state <%s>",
	    keel_chassis_issu_name(msg), keel_daemon_issu_name(state));
	h->chassis_issu = msg;
	memset(&info, 0, sizeof(info));

	switch (msg) {
	case KEEL_CHASSIS_IDLE:
		allowed = true;
		break;
	case KEEL_CHASSIS_DAEMON_ISSU_PREPARE:
		allowed = state_in(state, {KEEL_ISSU_IDLE, KEEL_ISSU_PREPARE,
		    KEEL_ISSU_READY});
		break;
	case KEEL_CHASSIS_DAEMON_ISSU_PREPARE_DONE:
		allowed = state == KEEL_ISSU_READY;
		break;
	case KEEL_CHASSIS_DAEMON_SWITCHOVER_PREPARE:
		allowed = state_in(state, {KEEL_ISSU_READY,
		    KEEL_ISSU_SWITCHOVER_PREPARE, KEEL_ISSU_SWITCHOVER_READY});
		break;
	case KEEL_CHASSIS_DAEMON_SWITCHOVER_PREPARE_DONE:
		allowed = state == KEEL_ISSU_SWITCHOVER_READY;
		break;
	case KEEL_CHASSIS_ABORT:
		allowed = state != KEEL_ISSU_IDLE;
		break;
	default:
		keel_error(h, "Invalid ISSU state message %d",
		    static_cast<int>(msg));
		return;
	}
	if (!allowed) {
		keel_error(h, "Invalid ISSU state transition");
		return;
	}

	switch (msg) {
	case KEEL_CHASSIS_IDLE:
		if (h->issu_idle_cb != nullptr)
			h->issu_idle_cb(h->issu_ctx);
		h->issu.state = KEEL_ISSU_IDLE;
		return;
	case KEEL_CHASSIS_DAEMON_ISSU_PREPARE:
		if (h->issu_prepare_cb != nullptr)
			h->issu_prepare_cb(h->issu_ctx, &abort, &ready, &info);
		if (abort) {
			h->issu.state = KEEL_ISSU_ABORT;
			set_info(h, info);
		} else if (ready) {
			h->issu.state = KEEL_ISSU_READY;
			set_info(h, 0, nullptr);
		} else {
			h->issu.state = KEEL_ISSU_PREPARE;
			set_info(h, info);
		}
		break;
	case KEEL_CHASSIS_DAEMON_ISSU_PREPARE_DONE:
		if (h->issu_prepare_done_cb != nullptr)
			h->issu_prepare_done_cb(h->issu_ctx);
		return;
	case KEEL_CHASSIS_DAEMON_SWITCHOVER_PREPARE:
		if (h->issu_switchover_cb != nullptr)
			h->issu_switchover_cb(h->issu_ctx, &ready, &info);
		if (ready) {
			h->issu.state = KEEL_ISSU_SWITCHOVER_READY;
			set_info(h, 0, nullptr);
		} else {
			h->issu.state = KEEL_ISSU_SWITCHOVER_PREPARE;
			set_info(h, info);
		}
		break;
	case KEEL_CHASSIS_DAEMON_SWITCHOVER_PREPARE_DONE:
		if (h->issu_switchover_done_cb != nullptr)
			h->issu_switchover_done_cb(h->issu_ctx);
		return;
	case KEEL_CHASSIS_ABORT:
		if (h->issu_abort_cb != nullptr)
			h->issu_abort_cb(h->issu_ctx, &info);
		h->issu.state = KEEL_ISSU_ABORT;
		set_info(h, info);
		break;
	}
	(void)send_state(h);
}

void
keel_issu_after_connect(keel_handle *h)
{
	uint32_t c = h->chassis_issu;
	uint32_t s = h->issu.state;

	if (c == KEEL_CHASSIS_ABORT || (c != KEEL_CHASSIS_IDLE &&
	    !state_in(s, {KEEL_ISSU_READY, KEEL_ISSU_SWITCHOVER_READY,
	    KEEL_ISSU_ABORT})))
		keel_issu_received(h, c);
}

extern "C" int
keel_issu_ready(keel_handle *h)
{
	if (h == nullptr)
		return KEEL_ERR_FATAL;
	switch (h->issu.state) {
	case KEEL_ISSU_PREPARE:
		h->issu.state = KEEL_ISSU_READY;
		break;
	case KEEL_ISSU_SWITCHOVER_PREPARE:
		h->issu.state = KEEL_ISSU_SWITCHOVER_READY;
		break;
	case KEEL_ISSU_ABORT:
		h->issu.state = KEEL_ISSU_IDLE;
		break;
	default:
		keel_error(h, "Cannot send ISSU ready to KEEL in %s state",
		    keel_daemon_issu_name(h->issu.state));
		return KEEL_ERR_FATAL;
	}
	set_info(h, 0, nullptr);
	return send_state(h);
}

extern "C" int
keel_issu_extend_wait(keel_handle *h, uint32_t secs, const char *text)
{
	if (h == nullptr)
		return KEEL_ERR_FATAL;
	if (!has_info(h->issu.state) || h->issu.wait == 0) {
		keel_error(h, "Cannot extend ISSU wait in state <%s>",
		    keel_daemon_issu_name(h->issu.state));
		return KEEL_ERR_FATAL;
	}
	if (text != nullptr)
		set_info(h, secs, text);
	else
		h->issu.wait = secs;
	return send_state(h);
}

extern "C" int
keel_issu_abort(keel_handle *h, uint32_t secs, const char *text)
{
	if (h == nullptr)
		return KEEL_ERR_FATAL;
	if (h->issu.state != KEEL_ISSU_PREPARE) {
		keel_error(h, "Cannot send ISSU abort to KEEL in %s state",
		    keel_daemon_issu_name(h->issu.state));
		return KEEL_ERR_FATAL;
	}
	h->issu.state = KEEL_ISSU_ABORT;
	set_info(h, secs, text);
	return send_state(h);
}

extern "C" uint32_t
keel_chassis_issu_state(const keel_handle *h)
{
	return h != nullptr ? h->chassis_issu : 0;
}

extern "C" uint32_t
keel_daemon_issu_state(const keel_handle *h)
{
	return h != nullptr ? h->issu.state : KEEL_ISSU_IDLE;
}
