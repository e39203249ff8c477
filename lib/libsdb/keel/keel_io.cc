/*
 * The socket to keel: connecting and registering, sending, and reading and
 * acting on one message at a time.
 *
 * Everything that comes from keel is checked before it is used: a message
 * of an unknown type, a short message, or a value outside its range closes
 * the connection with a trace, and the re-registration timer brings it
 * back.  A read never waits longer than timeout_ms for the rest of a
 * message, so that a keel that stalls half-way cannot hang the caller's
 * event loop.
 */
#include "keel_private.h"

#include <platform/chassis.h>
#include <platform/logging.h>
#include <platform/paths.h>
#include <platform/process.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const char *
master_name(int master)
{
	return master ? "Master" : "Standby";
}

/* Wait until fd is readable; false when timeout_ms passed first. */
bool
wait_readable(int fd, int timeout_ms)
{
	struct pollfd p = {fd, POLLIN, 0};
	for (;;) {
		int n = poll(&p, 1, timeout_ms);
		if (n >= 0)
			return n > 0;
		if (errno != EINTR)
			return false;
	}
}

/*
 * Read exactly len bytes; the count read, which is short only at the end
 * of the stream, on an error, or when keel stalls inside a message.
 */
ssize_t
read_exact(int fd, void *buf, size_t len, int timeout_ms)
{
	size_t got = 0;
	while (got < len) {
		if (got > 0 && !wait_readable(fd, timeout_ms))
			break;
		ssize_t n = read(fd, static_cast<char *>(buf) + got, len - got);
		if (n < 0 && errno == EINTR)
			continue;
		if (n <= 0)
			break;
		got += static_cast<size_t>(n);
	}
	return static_cast<ssize_t>(got);
}

void
keel_receive(evContext, void *uap, int, int)
{
	keel_handle *h = static_cast<keel_handle *>(uap);

	keel_info(h, "Received message from KEEL");
	(void)keel_read_message(h);
}

void
registration_answer(keel_handle *h, const keel_msg_answer &a)
{
	int status = static_cast<int32_t>(a.status);
	bool success = (a.flags & KEEL_ANSWER_SUCCESS) != 0;

	h->reg_status = a.status;
	long mode = 0;
	size_t len = sizeof(mode);
	if (platform_sysctlbyname("net.enhanced_bbe_mode", &mode, &len) == 0 &&
	    mode == 2)
		success = true;
	if (success) {
		if (h->issu_capable) {
			keel_info(h, "Received KEEL Reg, daemon issu state <%s>, "
			    "baysd issu state <%s>",
			    keel_daemon_issu_name(a.daemon_issu),
			    keel_chassis_issu_name(a.chassis_issu));
			h->issu.state = a.daemon_issu;
			h->chassis_issu = a.chassis_issu;
		} else
			keel_info(h, "Received KEEL Reg: %s", sdb_strerror(status));
		h->connected = 1;
		return;
	}
	keel_info(h, "SDB env is invalid: %s", sdb_strerror(status));
	if (status == KEEL_ERR_RECOVERING)
		keel_env()->set_recovering();
	keel_close_connection(h, status != 0, 1);
	if (status == KEEL_ERR_PURGING && h->env_restart_cb != nullptr)
		h->env_restart_cb();
	if (status == KEEL_ERR_MASTERSHIP)
		keel_mastership_step(h, !keel_env()->is_master());
}

const char *const bad_message_attrs[] = {"process-name", "message-type",
    "length", nullptr};

/* Bytes from keel that no keel sends: say so where operators look. */
void
bad_message_event(uint32_t type, size_t len)
{
	logging_event(3, "LIBSDB_KEEL_MESSAGE_INVALID", bad_message_attrs,
	    "LIBSDB_KEEL_MESSAGE_INVALID: %s:%d %s: message type %d, %d bytes, "
	    "connection closed", __func__, __LINE__, platform_progname(),
	    static_cast<int>(type), static_cast<int>(len));
}

/* Close for a message that keel should never have sent. */
void
reject(keel_handle *h, const char *fmt, uint32_t type, uint32_t value)
{
	keel_error(h, fmt, value);
	bad_message_event(type, keel_msg_to_client_size(type));
	keel_close_connection(h, 1, 1);
}

} // namespace

int
keel_path(char *buf, size_t size)
{
	return tolvar_path(KEEL_SOCKET_PATH, buf, size) != nullptr ? 0 : -1;
}

int
keel_send(keel_handle *h, const void *msg, size_t len)
{
	size_t sent = 0;
	while (sent < len) {
		/*
		 * MSG_NOSIGNAL: a keel that went away must not kill us.
		 * MSG_DONTWAIT: a keel that no longer reads must not hang us;
		 * our messages are small, so a full socket means a stuck keel.
		 */
		ssize_t n = send(h->fd, static_cast<const char *>(msg) + sent,
		    len - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
		if (n < 0 && errno == EINTR)
			continue;
		if (n <= 0) {
			keel_error(h, "Unable to send message, err %s",
			    strerror(n < 0 ? errno : EPIPE));
			keel_close_connection(h, 0, 1);
			return KEEL_ERR_SEND;
		}
		sent += static_cast<size_t>(n);
	}
	return 0;
}

int
keel_send_registration(keel_handle *h, int reg, uint32_t error)
{
	keel_msg_register m;

	memset(&m, 0, sizeof(m));
	m.type = KEEL_MSG_REGISTER;
	snprintf(m.name, sizeof(m.name), "%s", platform_progname());
	m.pid = static_cast<uint32_t>(getpid());
	m.flags = (reg ? KEEL_REG_REGISTER : 0) |
	    (keel_env()->is_master() ? KEEL_REG_MASTER : 0);
	m.issu_capable = h->issu_capable;
	m.error = error;
	m.recovery_state = h->recovery_state;
	m.issu = h->issu;
	return keel_send(h, &m, sizeof(m));
}

int
keel_connect(keel_handle *h)
{
	struct sockaddr_un sun;
	char path[sizeof(sun.sun_path)];

	if (h->fd < 0) {
		h->fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
		if (h->fd < 0) {
			keel_error(h, "Failed to create KEEL sock");
			h->fd = -1;
			return KEEL_ERR_FATAL;
		}
		keel_info(h, "KEEL sock created");
	}
	memset(&sun, 0, sizeof(sun));
	sun.sun_family = AF_UNIX;
	if (keel_path(path, sizeof(path)) != 0) {
		keel_error(h, "Unable to connect to KEEL socket: %s",
		    strerror(ENAMETOOLONG));
		return KEEL_ERR_CONNECT;
	}
	memcpy(sun.sun_path, path, strlen(path) + 1);
	socklen_t len = static_cast<socklen_t>(offsetof(struct sockaddr_un,
	    sun_path) + strlen(path) + 1);
	/*
	 * A full backlog means "try again shortly", not a failure: a unix
	 * connect then waits for room, for at most the send timeout, and
	 * fails with EAGAIN only when keel has taken nobody for that long.
	 * The wait is bounded like the answer's, by timeout_ms, so a keel
	 * that has stopped accepting cannot hold us for longer.
	 */
	struct timeval tv = {static_cast<time_t>(h->timeout_ms / 1000),
	    static_cast<suseconds_t>(h->timeout_ms % 1000 * 1000)};
	struct timeval old_tv = {0, 0};
	socklen_t tvlen = sizeof(old_tv);
	(void)getsockopt(h->fd, SOL_SOCKET, SO_SNDTIMEO, &old_tv, &tvlen);
	(void)setsockopt(h->fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
	int flags = fcntl(h->fd, F_GETFL);
	(void)fcntl(h->fd, F_SETFL, flags & ~O_NONBLOCK);
	int rc;
	do {
		rc = connect(h->fd, reinterpret_cast<struct sockaddr *>(&sun), len);
	} while (rc != 0 && errno == EINTR);
	int err = errno;
	(void)setsockopt(h->fd, SOL_SOCKET, SO_SNDTIMEO, &old_tv,
	    sizeof(old_tv));
	errno = err;
	if (rc != 0) {
		keel_error(h, "Unable to connect to KEEL socket: %s",
		    strerror(errno));
		return KEEL_ERR_CONNECT;
	}
	keel_info(h, "Connected to KEEL");

	if (h->issu_capable)
		keel_info(h, "Send registration message to KEEL, daemon issu "
		    "state <%s>", keel_daemon_issu_name(h->issu.state));
	else
		keel_info(h, "Send registration message to KEEL");
	if (keel_send_registration(h, 1, 0) != 0) {
		keel_error(h, "Failed to send registration message");
		return KEEL_ERR_SEND;
	}
	if (!wait_readable(h->fd, static_cast<int>(h->timeout_ms))) {
		keel_error(h, "No response from KEEL");
		return KEEL_ERR_SEND;
	}
	(void)keel_read_message(h);
	if (!h->connected) {
		keel_error(h, "KEEL reg failed");
		return h->reg_status != 0 ? static_cast<int32_t>(h->reg_status)
		    : KEEL_ERR_FATAL;
	}

	h->selected = 0;
	if (h->event_driven) {
		if (__evSelectFD(h->event_context, h->fd, EV_READ, keel_receive,
		    h, &h->event_id) != 0) {
			keel_error(h, "Unable to complete socket-selection "
			    "operation %s", strerror(errno));
			return KEEL_ERR_FATAL;
		}
		h->selected = 1;
	}
	if (h->has_conn_cb) {
		h->conn_up_cb(h->conn_ctx, h->fd);
		h->conn_cb_done = 1;
	}
	if (h->issu_capable)
		keel_issu_after_connect(h);
	return 0;
}

int
keel_read_message(keel_handle *h)
{
	uint32_t type;
	union {
		keel_msg_answer answer;
		keel_msg_chassis_issu issu;
		keel_msg_mastership mastership;
		uint8_t bytes[sizeof(keel_msg_answer)];
	} m;

	if (h->fd < 0) {
		keel_error(h, "Bad socket descriptor %d", h->fd);
		keel_close_connection(h, 1, 1);
		return KEEL_ERR_FATAL;
	}
	int timeout = static_cast<int>(h->timeout_ms);
	ssize_t n = read_exact(h->fd, &type, sizeof(type), timeout);
	size_t want = sizeof(type);
	if (n == static_cast<ssize_t>(sizeof(type))) {
		want = keel_msg_to_client_size(type);
		if (want == 0) {
			/* Of the two texts for an unknown type, the one of
			 * the receive step: the event beside it gives the
			 * length. */
			reject(h, "Invalid message type %d", type, type);
			return KEEL_ERR_FATAL;
		}
		memset(h->rx, 0, sizeof(h->rx));
		memset(&m, 0, sizeof(m));
		m.answer.type = type;
		n += read_exact(h->fd, m.bytes + sizeof(type),
		    want - sizeof(type), timeout);
	}
	if (n != static_cast<ssize_t>(want)) {
		if (n == 0)
			keel_info(h, "Connection with keel closed");
		else {
			keel_error(h, "Failed to recv nread=%d, expected=%d",
			    static_cast<int>(n), static_cast<int>(want));
			bad_message_event(n >= 4 ? type : 0xffffffffu,
			    static_cast<size_t>(n));
		}
		keel_close_connection(h, 1, 1);
		return KEEL_ERR_FATAL;
	}
	memcpy(h->rx, m.bytes + sizeof(type), want - sizeof(type));

	switch (type) {
	case KEEL_MSG_MASTERSHIP:
		if (m.mastership.master > 1) {
			reject(h, "Invalid mastership value %d", type,
			    m.mastership.master);
			return KEEL_ERR_FATAL;
		}
		keel_mastership_step(h, m.mastership.master);
		break;
	case KEEL_MSG_CHASSIS_ISSU:
		keel_issu_received(h, m.issu.msg);
		break;
	case KEEL_MSG_REG_ANSWER:
		registration_answer(h, m.answer);
		break;
	}
	return 0;
}

void
keel_mastership_step(keel_handle *h, uint8_t master)
{
	keel_close_connection(h, 1, 1);
	if ((master != 0) == (keel_env()->is_master() != 0))
		return;
	keel_info(h, "Mastership changed to %s", master_name(master));
	keel_env()->set_mastership(master);
	if (h->mastership_cb != nullptr)
		h->mastership_cb(h->mastership_ctx, master);
}

int
keel_query_mastership(keel_handle *h)
{
	/*
	 * With L3 HA the redundancy state of the routing socket decides, and
	 * a failed read counts as standby; otherwise the chassis role.  The
	 * platform answers the routing socket's query from its file, so
	 * there is no socket to open first.
	 */
	int master;
	if (mchassis_L3_ha_is_enabled()) {
		uint32_t state = 0;
		master = (platform_redundancy_state(&state) == 0 &&
		    state == 2) ? 1 : 0;
	} else {
		master = nmchassis_is_generic_protocol_master() ? 1 : 0;
	}
	keel_env()->set_mastership(master);
	keel_info(h, "KEEL db: %s", master_name(master));
	return master;
}

extern "C" void
keel_close_connection(keel_handle *h, int notify, int start_timer)
{
	if (h->event_driven && h->selected) {
		(void)__evDeselectFD(h->event_context, h->event_id);
		h->selected = 0;
	}
	if (h->conn_cb_done) {
		h->conn_cb_done = 0;
		h->conn_down_cb(h->conn_ctx, h->fd);
	}
	if (h->fd >= 0) {
		keel_info(h, "Closing communication with KEEL");
		if (close(h->fd) != 0)
			keel_error(h, "Close failed");
		h->fd = -1;
	}
	h->connected = 0;
	if (start_timer && h->user_reg && h->event_driven &&
	    h->rereg_timer != nullptr && !keel_timer_running(h)) {
		keel_info(h, "Start a timer to try to reregister with KEEL");
		keel_timer_arm(h);
	}
	if (notify) {
		/*
		 * The ready callback learns of the loss with a null
		 * environment: a daemon tells "up" from "lost" by that value
		 * alone, so a placeholder here would look like a new
		 * environment to it.
		 */
		keel_info(h, "SDB STATE DOWN");
		(void)keel_env()->close_internal(h->is_keel);
		if (h->db_ready_cb != nullptr)
			h->db_ready_cb(h->db_ready_ctx, nullptr);
	}
}

extern "C" int
keel_process(keel_handle *h)
{
	if (h == nullptr || h->fd < 0)
		return 0;
	return keel_read_message(h);
}

extern "C" int
keel_poll(keel_handle *h)
{
	if (h == nullptr || !h->poll_mode || h->fd < 0)
		return 0;
	if (!wait_readable(h->fd, 0))
		return 0;
	return keel_read_message(h);
}

extern "C" int
keel_recovery_complete(keel_handle *h)
{
	if (h == nullptr || !h->connected) {
		if (h != nullptr)
			keel_error(h, "Cannot send recovery complete to KEEL if "
			    "not registered");
		return KEEL_ERR_FATAL;
	}
	uint32_t type = KEEL_MSG_RECOVERY_DONE;
	return keel_send(h, &type, sizeof(type));
}

extern "C" int
keel_send_replication_state(keel_handle *h, int state)
{
	if (h == nullptr || h->fd < 0) {
		if (h != nullptr)
			keel_error(h, "Unable to send replication, no connection");
		return KEEL_ERR_FATAL;
	}
	uint32_t type = state == 1 ? KEEL_MSG_REP_STATE1 :
	    state == 2 ? KEEL_MSG_REP_STATE2 : KEEL_MSG_REP_STATE;
	return keel_send(h, &type, sizeof(type));
}
