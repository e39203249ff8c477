/*
 * The local client server: a unix stream socket on which local processes
 * register and use the daemon as a barrier.  An ACK is answered with its
 * own bytes once the standby has acknowledged everything sent before it,
 * or at once when there is nothing to wait for.
 *
 * Bad input from a client costs that client its connection and nothing
 * else.  Sockets are non-blocking and a failed send ends the connection,
 * so a client that stops reading cannot stall the daemon.
 */
#include "server.h"
#include "events.h"
#include "keel_client.h"

#include <platform/access.h>
#include <platform/logging.h>
#include <platform/paths.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

evConnID listen_id;
bool listening;
bool refusing;	/* the last accept failed */

/* One read at a time, on one thread: a single buffer serves every client. */
uint8_t recv_buf[TOLVARD_LOCAL_RECV_MAX];

bool set_nonblocking(int fd)
{
	int flags = fcntl(fd, F_GETFL);

	return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

const char *up_down(bool up)
{
	return up ? "up" : "down";
}

void free_copies(struct tolvard_entry *entry)
{
	struct tolvard_ack_copy *copy;

	while ((copy = TAILQ_FIRST(&entry->acks)) != nullptr) {
		TAILQ_REMOVE(&entry->acks, copy, links);
		free(copy);
	}
}

void conn_free(struct tolvard_conn *conn)
{
	free(conn);
}

/* The steps of the walk, bound to one connection. */
class conn_steps final : public tolvard_local::walk_sink {
public:
	explicit conn_steps(struct tolvard_conn *c) : conn(c) {}

	bool reg(const tolvard_reg_msg &msg) override;
	bool ack(std::span<const uint8_t> msg) override;

private:
	bool wait_for_standby(std::span<const uint8_t> msg);
	struct tolvard_conn *conn;
};

bool conn_steps::reg(const tolvard_reg_msg &msg)
{
	if (conn->dead)
		return false;
	/* The name need not be terminated on the wire. */
	char name[TOLVARD_LOCAL_NAME_MAX];
	memcpy(name, msg.name, sizeof(name) - 1);
	name[sizeof(name) - 1] = '\0';
	tolvard_trace(TRACE_SERVER,
	    "REG: %s, conn %d, %s, pid %d, transiton %s, status %s", "ACK",
	    conn->fd, name, static_cast<int>(msg.pid),
	    up_down(msg.flags & TOLVARD_REG_UP), sdb_strerror(msg.status));
	conn->pid = msg.pid;
	memcpy(conn->name, name, sizeof(conn->name));
	conn->flags = msg.flags;
	return true;
}

bool conn_steps::ack(std::span<const uint8_t> msg)
{
	if (conn->dead)
		return false;
	tolvard_trace(TRACE_SERVER, "Processing %d bytes",
	    static_cast<int>(msg.size()));
	if (!tolvard_state.mirror_up || !tolvard_state.db_up ||
	    !tolvard_state.gres_enabled) {
		tolvard_trace(TRACE_SERVER,
		    "Send ACK, gres %s, mirror connection %s, db %s",
		    tolvard_state.gres_enabled ? "enabled" : "disabled",
		    up_down(tolvard_state.mirror_up), up_down(tolvard_state.db_up));
		return tolvard_conn_send_ack(conn, msg);
	}
	return wait_for_standby(msg);
}

/*
 * Put a barrier on the channel behind everything sent so far, and keep
 * the client's bytes on its entry until the standby acknowledges it.
 */
bool conn_steps::wait_for_standby(std::span<const uint8_t> msg)
{
	auto *copy = static_cast<struct tolvard_ack_copy *>(
	    malloc(sizeof(struct tolvard_ack_copy) + msg.size()));
	if (copy == nullptr) {
		tolvard_trace(TRACE_SERVER, "Server failed to request ACK, no memory");
		return tolvard_conn_send_ack(conn, msg);
	}
	copy->size = msg.size();
	memcpy(copy->msg, msg.data(), msg.size());

	/* A new session id goes into the stream ahead of the barrier. */
	tolvard_session_id_check();
	static const uint8_t barrier[8] = {};
	struct tolvard_entry *entry = tolvard_rep_send(barrier, sizeof(barrier),
	    TOLVARD_MSG_BARRIER, 1);
	if (entry == nullptr || conn->dead || entry->conn != nullptr) {
		/*
		 * No entry, or the connection ended during the send, or an
		 * entry still bound to an earlier barrier (the channel keeps
		 * an entry until its acknowledgement, so this does not
		 * happen): nothing of our own to wait on, answer now rather
		 * than ride on an acknowledgement of older data.
		 */
		if (entry == nullptr)
			tolvard_trace(TRACE_SERVER, "Server, failed to request ACK");
		free(copy);
		return !conn->dead && tolvard_conn_send_ack(conn, msg);
	}
	/*
	 * acks is empty whenever conn is clear: release and terminate both
	 * empty it before they clear conn.
	 */
	TAILQ_INIT(&entry->acks);
	TAILQ_INSERT_TAIL(&conn->waiting, entry, wait_links);
	entry->conn = conn;
	tolvard_trace(TRACE_SERVER, "Server, waiting for ACK");
	TAILQ_INSERT_TAIL(&entry->acks, copy, links);
	return true;
}

/* Say what stopped a walk, in the words of the step that stopped it. */
void walk_failed(struct tolvard_conn *conn,
    const tolvard_local::walk_result &r)
{
	using tolvard_local::walk_status;

	switch (r.status) {
	case walk_status::done:
		return;
	case walk_status::too_small:
		tolvard_trace(TRACE_SERVER, "Server failed to recv, too small %d, min %d",
		    static_cast<int>(r.have), static_cast<int>(r.need));
		tolvard_conn_terminate(conn);
		return;
	case walk_status::unknown_type:
		tolvard_trace(TRACE_SERVER,
		    "Server failed msg decode, unknown msg type %d",
		    static_cast<int>(r.type));
		tolvard_conn_terminate(conn);
		return;
	case walk_status::short_reg:
		tolvard_trace(TRACE_SERVER,
		    "Server failed reg msg decode expected %d, have %d",
		    static_cast<int>(r.need), static_cast<int>(r.have));
		tolvard_conn_terminate(conn);
		break;
	case walk_status::ack_overrun:
		/* A claim beyond what an int holds prints as INT_MAX rather
		 * than as a wrapped, plausible-looking size. */
		tolvard_trace(TRACE_SERVER,
		    "Server failed ack msg decode expected %d, have %d",
		    static_cast<int>(std::min<uint64_t>(r.need, INT_MAX)),
		    static_cast<int>(r.have));
		tolvard_conn_terminate(conn);
		break;
	case walk_status::step_failed:
		/* The step has ended the connection itself. */
		break;
	}
	tolvard_trace(TRACE_SERVER, "Server failed msg decode, type %d",
	    static_cast<int>(r.type));
}

} // namespace

int tolvard_server_init(void)
{
	TAILQ_INIT(&tolvard_state.conn_list);
	int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (fd < 0)
		return 0;
	if (!set_nonblocking(fd)) {
		close(fd);
		return 0;
	}

	std::string path = tolvar::path(TOLVARD_SERVER_PATH);
	struct sockaddr_un sun = {};
	sun.sun_family = AF_UNIX;
	int rc = -1;
	if (path.size() < sizeof(sun.sun_path)) {
		memcpy(sun.sun_path, path.c_str(), path.size() + 1);
		unlink(sun.sun_path);
		/* Root's, and the configured group's: see access.h. */
		struct tolvar_access access;
		tolvar_access_get(&access);
		if (access.unknown_group[0] != '\0')
			tolvard_trace(TRACE_SERVER, "Unknown group %s, the socket "
			    "is for root only", access.unknown_group);
		rc = tolvar_access_bind(fd,
		    reinterpret_cast<struct sockaddr *>(&sun), sizeof(sun),
		    sun.sun_path, &access);
	} else {
		/* A root too deep for a socket name: say so as a bind error. */
		errno = ENAMETOOLONG;
	}
	if (rc != 0) {
		const char *why = strerror(errno);
		tolvard_trace(TRACE_SERVER, "Error binding %s: err %s",
		    path.c_str(), why);
		logging(LOG_ERR, "%s: Error binding %s: err %s",
		    __func__, path.c_str(), why);
		close(fd);
		return 0;
	}
	if (__evListen(tolvard_state.event_context, fd, TOLVARD_LOCAL_BACKLOG,
	    tolvard_server_listen, nullptr, &listen_id) != 0) {
		const char *why = strerror(errno);
		tolvard_trace(TRACE_SERVER, "Error, cannot listen: err %s", why);
		logging(LOG_ERR, "%s: Error, cannot listen: err %s",
		    __func__, why);
		close(fd);
		return 0;
	}
	listening = true;
	tolvard_state.listen_fd = fd;
	return 1;
}

/*
 * Stop serving before a wait that blocks the event loop: every client
 * sees its connection close, and a new one is refused instead of queued
 * unanswered.  The path stays; the next start unlinks it.
 */
void tolvard_server_close(void)
{
	struct tolvard_conn *conn;

	while ((conn = TAILQ_FIRST(&tolvard_state.conn_list)) != nullptr)
		tolvard_conn_terminate(conn);
	if (listening) {
		__evCancelConn(tolvard_state.event_context, listen_id);
		listening = false;
	}
	if (tolvard_state.listen_fd >= 0) {
		close(tolvard_state.listen_fd);
		tolvard_state.listen_fd = -1;
	}
}

void tolvard_server_listen(evContext ctx, void *arg, int fd, const void *la,
    int lalen, const void *ra, int ralen)
{
	(void)ctx;
	(void)arg;
	(void)la;
	(void)lalen;
	(void)ra;
	(void)ralen;
	if (fd < 0) {
		/* The event library refused a connection for want of
		 * descriptors or memory: one event for each run of them. */
		const char *why = strerror(errno);
		tolvard_trace(TRACE_SERVER,
		    "Unable to accept a connection, err %s", why);
		if (!refusing)
			tolvard_event(TOLVARD_SERVER_ACCEPT_FAILED, why);
		refusing = true;
		return;
	}
	refusing = false;
	auto *conn = static_cast<struct tolvard_conn *>(
	    calloc(1, sizeof(struct tolvard_conn)));
	if (conn == nullptr) {
		tolvard_trace(TRACE_SERVER, "Unable to allocate new connection");
		logging(LOG_ERR, "%s: Unable to allocate new connection",
		    __func__);
		close(fd);
		return;
	}
	TAILQ_INIT(&conn->waiting);
	set_nonblocking(fd);
	conn->fd = fd;
	int size = TOLVARD_LOCAL_SOCKBUF;
	if (setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) != 0)
		tolvard_trace(TRACE_SERVER, "Failed set socket send buff size");
	if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)) != 0)
		tolvard_trace(TRACE_SERVER, "Failed set socket recv buff size");
	TAILQ_INSERT_HEAD(&tolvard_state.conn_list, conn, links);

	if (__evSelectFD(tolvard_state.event_context, fd, EV_READ | EV_EXCEPT,
	    tolvard_conn_read, conn, &conn->read_id) != 0) {
		const char *why = strerror(errno);
		tolvard_trace(TRACE_SERVER,
		    "Unable to receive new connection, err %s", why);
		logging(LOG_ERR,
		    "%s: Unable to receive new connection, err %s", __func__, why);
		tolvard_conn_terminate(conn);
		return;
	}
	conn->selected = true;
	tolvard_trace(TRACE_SERVER, "Accepted a new connection %d", fd);
}

void tolvard_conn_read(evContext ctx, void *arg, int fd, int mask)
{
	(void)ctx;
	(void)mask;
	auto *conn = static_cast<struct tolvard_conn *>(arg);
	ssize_t n = recv(fd, recv_buf, sizeof(recv_buf), 0);

	if (n == 0) {
		tolvard_trace(TRACE_SERVER, "Connection closed for %d", fd);
		tolvard_conn_terminate(conn);
		return;
	}
	if (n < 0) {
		/* A wake-up with nothing to read is not the client's fault. */
		if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)
			return;
		tolvard_trace(TRACE_SERVER, "Server failed to Recv (%d): %s", fd,
		    strerror(errno));
		tolvard_conn_terminate(conn);
		return;
	}
	tolvard_trace(TRACE_SERVER, "Server Recv %d bytes", static_cast<int>(n));

	conn_steps steps(conn);
	conn->in_walk = true;
	tolvard_local::walk_result r = tolvard_local::walk(
	    std::span<const uint8_t>(recv_buf, static_cast<size_t>(n)), steps);
	walk_failed(conn, r);
	conn->in_walk = false;
	if (conn->dead)
		conn_free(conn);
}

bool tolvard_conn_send_ack(struct tolvard_conn *conn,
    std::span<const uint8_t> msg)
{
	ssize_t n = conn->dead ? -1
	    : send(conn->fd, msg.data(), msg.size(), MSG_NOSIGNAL | MSG_DONTWAIT);

	/*
	 * A short send is a failure too: the rest could only follow later,
	 * and the client would meanwhile read a torn echo as an answer.
	 */
	if (n <= 0 || static_cast<size_t>(n) != msg.size()) {
		tolvard_trace(TRACE_SERVER, "Server failed to Send: %s",
		    n < 0 ? strerror(errno) : "short send");
		tolvard_conn_terminate(conn);
		return false;
	}
	tolvard_trace(TRACE_SERVER, "Server Send ACK %d bytes", static_cast<int>(n));
	return true;
}

void tolvard_ack_release(struct tolvard_entry *entry)
{
	struct tolvard_conn *conn = entry->conn;
	struct tolvard_ack_copy *copy;

	if (conn == nullptr)
		return;
	while ((copy = TAILQ_FIRST(&entry->acks)) != nullptr) {
		/* Off the list first: a failed send ends the connection,
		 * which frees whatever is still on the entry. */
		TAILQ_REMOVE(&entry->acks, copy, links);
		bool sent = tolvard_conn_send_ack(conn,
		    std::span<const uint8_t>(copy->msg, copy->size));
		free(copy);
		if (!sent)
			return;
	}
	entry->conn = nullptr;
	TAILQ_REMOVE(&conn->waiting, entry, wait_links);
}

void tolvard_conn_terminate(struct tolvard_conn *conn)
{
	struct tolvard_entry *entry;

	if (conn->dead)
		return;
	conn->dead = true;
	if (conn->pid != 0)
		tolvard_trace(TRACE_SERVER,
		    "Terminate ACK connection: conn %d, %s, pid %d", conn->fd,
		    conn->name, static_cast<int>(conn->pid));
	else
		tolvard_trace(TRACE_SERVER, "Terminate connection %d", conn->fd);

	/* The entries stay with the channel until their acknowledgement
	 * comes; it then finds no connection. */
	while ((entry = TAILQ_FIRST(&conn->waiting)) != nullptr) {
		tolvard_trace(TRACE_SERVER, "Term: Remove entry %d",
		    static_cast<int>(entry->entry_id));
		entry->conn = nullptr;
		TAILQ_REMOVE(&conn->waiting, entry, wait_links);
		free_copies(entry);
	}
	if (conn->selected &&
	    __evDeselectFD(tolvard_state.event_context, conn->read_id) != 0)
		tolvard_trace(TRACE_SERVER, "read deselect failed");
	conn->selected = false;
	close(conn->fd);
	conn->fd = -1;
	TAILQ_REMOVE(&tolvard_state.conn_list, conn, links);
	if (!conn->in_walk)
		conn_free(conn);
}

void tolvard_conn_dump(void)
{
	struct tolvard_conn *conn;
	int total = 0, acks = 0;

	tolvard_trace(TRACE_SERVER, "-- TOLVAR process list --");
	TAILQ_FOREACH(conn, &tolvard_state.conn_list, links) {
		total++;
		if (conn->pid == 0) {
			tolvard_trace(TRACE_SERVER, "UNKNOWN conn %d", conn->fd);
			continue;
		}
		acks++;
		tolvard_trace(TRACE_SERVER, "conn %d, %s, pid %d, status %s",
		    conn->fd, conn->name, static_cast<int>(conn->pid),
		    up_down(conn->flags & TOLVARD_REG_UP));
	}
	tolvard_trace(TRACE_SERVER, "-- TOLVAR process list, %d conn(s), %d ack --",
	    total, acks);
}
