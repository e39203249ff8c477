/*
 * keel's socket server.  Invariants:
 *
 *  - A connection is in the list from accept until it is dropped; a
 *    dropped connection is deselected before its descriptor is closed.
 *  - A message is acted on only when it is whole and has passed
 *    keel_server_check(); a bad one closes its connection and nothing else.
 *  - A registered client whose socket ends without an unregistration, and
 *    that keel did not tell to go, is taken for dead: what it held in the
 *    stores is released and the secondary tables are checked.
 */
#include "keel.h"
#include "keel_server_internal.h"

#include <platform/access.h>
#include <platform/chassis.h>
#include <platform/logging.h>
#include <platform/paths.h>
#include <platform/process.h>
#include <platform/timescale.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <fcntl.h>
#include <sdb/sdb.h>
#include <new>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

keel_server_override keel_server_test;

namespace {

struct server {
	evContext ctx{};
	bool running = false;
	int listen_fd = -1;
	evConnID listen_id{};
	keel_server_log_fn log = nullptr;
	void *log_ctx = nullptr;
	keel_conn *conns = nullptr;
	bool ready = false;
	bool recovering = false;
	bool purging = false;
	int master = 0;
	uint32_t chassis_issu = KEEL_CHASSIS_IDLE;
	bool refusing = false;	/* the last accept failed */
	bool sweeping = false;
	evTimerID sweep_id{};
};

/* Room in keel's backlog for a burst of clients that all start at once. */
constexpr int listen_backlog = 1024;

server srv;

const char *const reason_attrs[] = {"process-name", "reason", nullptr};

const char *
role_name(int master)
{
	return master ? "Master" : "Standby";
}

const char *
who(const keel_conn *c)
{
	return c->name.empty() ? "unregistered client" : c->name.c_str();
}

/*
 * A client died with its socket: take back the bucket locks it held, then
 * have the secondary tables checked, since it may have died inside an
 * update of them.  The check is traced until the environment has it.
 */
void
release_dead_client(const keel_conn *c)
{
	keel_server_log(LOG_PRI_INTERNAL_INFO, "Lost connection with %s[%u]",
	    who(c), c->pid);
	int rc = sdb_lts_release_dead(c->pid);
	keel_server_log(rc == 0 ? LOG_PRI_INTERNAL_INFO : LOG_PRI_INTERNAL_ERR,
	    "sdb_lts_release_dead(%u): %d", c->pid, rc);
	keel_server_log(LOG_PRI_INTERNAL_INFO,
	    "sdb_db_secondary_failcheck after %s[%u]: not yet in this keel",
	    who(c), c->pid);
}

void
deselect(keel_conn *c)
{
	if (c->selected) {
		(void)__evDeselectFD(srv.ctx, c->id);
		c->selected = false;
	}
}

void
reject(keel_conn *c, const char *reason)
{
	keel_server_log(LOG_PRI_INTERNAL_ERR, "Invalid message from %s[%u]: "
	    "%s, closing", who(c), c->pid, reason);
	logging_event(3, "KEEL_CLIENT_MESSAGE_INVALID", reason_attrs,
	    "KEEL_CLIENT_MESSAGE_INVALID: %s: %s", who(c), reason);
	keel_server_drop(c);
}

/* The status that keeps this registration out, or 0. */
int32_t
registration_status(const keel_msg_register &m)
{
	if (platform_get_long("session_db", 1) == 0)
		return -17;
	if (srv.purging)
		return -36;
	if (!srv.ready)
		return -19;
	if (srv.recovering)
		return -11;
	int client_master = (m.flags & KEEL_REG_MASTER) != 0;
	if (client_master != srv.master)
		return -31;
	return 0;
}

void
answer(keel_conn *c, const keel_msg_register &m)
{
	keel_msg_answer a;
	int32_t status;

	if (keel_server_test.silent) {
		keel_server_log(LOG_PRI_INTERNAL_INFO,
		    "Registration of %s[%u] left unanswered", who(c), c->pid);
		return;
	}
	status = keel_server_test.answer_forced ?
	    keel_server_test.answer_status : registration_status(m);
	memset(&a, 0, sizeof(a));
	a.type = KEEL_MSG_REG_ANSWER;
	a.flags = (status == 0 && !keel_server_test.answer_forced) ?
	    KEEL_ANSWER_SUCCESS : 0;
	a.status = static_cast<uint32_t>(status);
	a.daemon_issu = m.issu.state;
	a.chassis_issu = srv.chassis_issu;
	if (keel_server_send(c, &a, sizeof(a)) != 0)
		return;
	c->registered = (a.flags & KEEL_ANSWER_SUCCESS) != 0;
	keel_server_log(LOG_PRI_INTERNAL_INFO,
	    "Registration of %s[%u] as %s: %s, status %d", who(c), c->pid,
	    role_name((m.flags & KEEL_REG_MASTER) != 0),
	    c->registered ? "accepted" : "refused", status);
}

void
registration(keel_conn *c, const keel_msg_register &m)
{
	c->name.assign(m.name, strnlen(m.name, sizeof(m.name)));
	c->pid = m.pid;
	c->issu = m.issu;
	if ((m.flags & KEEL_REG_REGISTER) == 0) {
		c->unregistered = true;
		c->registered = false;
		keel_server_log(LOG_PRI_INTERNAL_INFO,
		    "Unregistration of %s[%u], err %d", who(c), c->pid,
		    static_cast<int32_t>(m.error));
		return;
	}
	c->unregistered = false;
	answer(c, m);
}

/* One whole, checked message. */
void
dispatch(keel_conn *c, const uint8_t *msg)
{
	uint32_t type;
	memcpy(&type, msg, sizeof(type));

	switch (type) {
	case KEEL_MSG_REGISTER: {
		keel_msg_register m;
		memcpy(&m, msg, sizeof(m));
		registration(c, m);
		break;
	}
	case KEEL_MSG_ISSU: {
		keel_msg_issu m;
		memcpy(&m, msg, sizeof(m));
		c->issu = m.issu;
		keel_server_log(LOG_PRI_INTERNAL_INFO,
		    "ISSU state of %s[%u]: <%u> wait %u", who(c), c->pid,
		    m.issu.state, m.issu.wait);
		break;
	}
	case KEEL_MSG_RECOVERY_DONE:
		keel_server_log(LOG_PRI_INTERNAL_INFO,
		    "Recovery complete from %s[%u]", who(c), c->pid);
		break;
	default:
		/* Replication state: keel only notes it. */
		keel_server_log(LOG_PRI_INTERNAL_INFO,
		    "Replication state message %u from %s[%u]", type, who(c),
		    c->pid);
		break;
	}
}

void
on_readable(evContext, void *uap, int, int)
{
	keel_conn *c = static_cast<keel_conn *>(uap);
	uint8_t buf[512];

	ssize_t n = read(c->fd, buf, sizeof(buf));
	if (n < 0 && (errno == EINTR || errno == EAGAIN))
		return;
	if (n <= 0) {
		if (c->have != 0)
			reject(c, "connection ended inside a message");
		else {
			if (keel_server_is_death(c))
				release_dead_client(c);
			keel_server_drop(c);
		}
		return;
	}
	(void)keel_server_feed(c, buf, static_cast<size_t>(n));
}

const char *const accept_attrs[] = {"error-message", nullptr};

/*
 * fd -1: the event library could not take a connection for want of
 * descriptors or memory, and has refused it.  One event for each run of
 * refusals, a trace line for every one.
 */
void
on_accept(evContext, void *, int fd, const void *, int, const void *, int)
{
	if (fd < 0) {
		const char *why = strerror(errno);
		keel_server_log(LOG_PRI_INTERNAL_ERR,
		    "Unable to accept a connection: %s, refused", why);
		if (!srv.refusing)
			logging_event(3, "KEEL_ACCEPT_FAILED", accept_attrs,
			    "KEEL_ACCEPT_FAILED: Unable to accept a connection: "
			    "%s", why);
		srv.refusing = true;
		return;
	}
	srv.refusing = false;
	if (keel_server_adopt(fd) == nullptr)
		close(fd);
}

/*
 * Drop every connection that has not registered within the bound, or
 * whose message has been half-sent for longer: each would otherwise hold
 * a descriptor of keel for ever.
 */
void
sweep_idle(evContext, void *, struct timespec, struct timespec)
{
	struct timespec now = __evNowTime();
	struct timespec bound = tolvar_scaled_secs(KEEL_CLIENT_IDLE_SECS);
	auto past = [&](struct timespec since) {
		return __evCmpTime(__evSubTime(now, since), bound) > 0;
	};
	for (keel_conn *c = srv.conns, *next; c != nullptr; c = next) {
		next = c->next;
		if (c->have != 0 && past(c->partial_at))
			reject(c, "message left half-sent");
		else if (!c->registered && past(c->accepted_at))
			reject(c, "no registration in time");
	}
}

int
socket_path(char *buf, size_t size)
{
	return tolvar_path(KEEL_SOCKET_PATH, buf, size) != nullptr ? 0 : -1;
}

} // namespace

void
keel_server_log(int priority, const char *fmt, ...)
{
	if (srv.log == nullptr)
		return;
	va_list ap;
	va_start(ap, fmt);
	srv.log(srv.log_ctx, priority, fmt, ap);
	va_end(ap);
}

bool
keel_server_is_death(const keel_conn *c)
{
	if (!c->registered || c->unregistered || c->leaving)
		return false;
	/*
	 * The same process registered again on a newer connection before
	 * this one's end reached us: it is alive, and what it holds is its.
	 */
	for (const keel_conn *o = srv.conns; o != nullptr; o = o->next)
		if (o != c && o->registered && o->pid == c->pid)
			return false;
	return true;
}

const char *
keel_server_check(const uint8_t *msg, size_t len, bool registered)
{
	uint32_t type;

	if (len < sizeof(type))
		return "short message";
	memcpy(&type, msg, sizeof(type));
	size_t want = keel_msg_to_keel_size(type);
	if (want == 0)
		return "unknown type";
	if (len != want)
		return "wrong length";

	const keel_issu_block *issu = nullptr;
	keel_msg_register r;
	keel_msg_issu i;
	if (type == KEEL_MSG_REGISTER) {
		memcpy(&r, msg, sizeof(r));
		if (memchr(r.name, '\0', sizeof(r.name)) == nullptr ||
		    r.name[0] == '\0')
			return "process name not terminated";
		if (r.pid == 0)
			return "no process id";
		if ((r.flags & ~(KEEL_REG_REGISTER | KEEL_REG_MASTER)) != 0)
			return "unknown flags";
		if (r.issu_capable > 1 || r.reserved[0] != 0 ||
		    r.reserved[1] != 0)
			return "reserved bytes set";
		if ((r.flags & KEEL_REG_REGISTER) && r.error != 0)
			return "error code in a registration";
		if (r.recovery_state > 2)
			return "recovery state out of range";
		issu = &r.issu;
	} else if (!registered) {
		return "message before registration";
	} else if (type == KEEL_MSG_ISSU) {
		memcpy(&i, msg, sizeof(i));
		issu = &i.issu;
	}
	if (issu != nullptr) {
		if (issu->state > KEEL_ISSU_UNKNOWN)
			return "ISSU state out of range";
		if (issu->text_len > KEEL_ISSU_TEXT_LEN)
			return "ISSU text too long";
		if (issu->text_len != 0 && issu->text[issu->text_len - 1] != '\0')
			return "ISSU text not terminated";
	}
	return nullptr;
}

bool
keel_server_feed(keel_conn *c, const uint8_t *data, size_t len)
{
	uint32_t type = 0;
	size_t want = sizeof(type);

	for (;;) {
		if (c->have >= sizeof(type)) {
			memcpy(&type, c->buf, sizeof(type));
			want = keel_msg_to_keel_size(type);
			if (want == 0) {
				char reason[64];
				snprintf(reason, sizeof(reason),
				    "Invalid message: type=%d, len=%d",
				    static_cast<int>(type),
				    static_cast<int>(c->have + len));
				reject(c, reason);
				return false;
			}
			if (c->have == want) {
				c->have = 0;
				const char *bad = keel_server_check(c->buf,
				    want, c->registered);
				if (bad != nullptr) {
					reject(c, bad);
					return false;
				}
				dispatch(c, c->buf);
				if (c->broken) {
					keel_server_drop(c);
					return false;
				}
				want = sizeof(type);
				continue;
			}
		}
		if (len == 0)
			return true;
		size_t take = want - c->have < len ? want - c->have : len;
		if (c->have == 0)
			c->partial_at = __evNowTime();
		memcpy(c->buf + c->have, data, take);
		c->have += take;
		data += take;
		len -= take;
	}
}

keel_conn *
keel_server_adopt(int fd)
{
	keel_conn *c = new (std::nothrow) keel_conn;
	if (c == nullptr)
		return nullptr;
	c->fd = fd;
	c->accepted_at = __evNowTime();
	(void)fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
	(void)fcntl(fd, F_SETFD, FD_CLOEXEC);
	if (srv.running) {
		if (__evSelectFD(srv.ctx, fd, EV_READ, on_readable, c,
		    &c->id) != 0) {
			keel_server_log(LOG_PRI_INTERNAL_ERR,
			    "Unable to select client socket: %s",
			    strerror(errno));
			delete c;
			return nullptr;
		}
		c->selected = true;
	}
	c->next = srv.conns;
	srv.conns = c;
	return c;
}

void
keel_server_drop(keel_conn *c)
{
	for (keel_conn **p = &srv.conns; *p != nullptr; p = &(*p)->next) {
		if (*p == c) {
			*p = c->next;
			break;
		}
	}
	deselect(c);
	if (c->fd >= 0)
		close(c->fd);
	c->fd = -1;
	/*
	 * The record may be the argument of the handler that is running;
	 * the event library drops later events of a dead registration, and
	 * nothing after the drop reads it, so it can go at once.
	 */
	delete c;
}

void
keel_server_drop_all(void)
{
	while (srv.conns != nullptr)
		keel_server_drop(srv.conns);
}

keel_conn *
keel_server_clients(void)
{
	return srv.conns;
}

int
keel_server_send(keel_conn *c, const void *msg, size_t len)
{
	size_t sent = 0;
	while (sent < len) {
		ssize_t n = send(c->fd, static_cast<const char *>(msg) + sent,
		    len - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
		if (n < 0 && errno == EINTR)
			continue;
		if (n <= 0) {
			/* A client that cannot take 20 bytes is gone or stuck. */
			keel_server_log(LOG_PRI_INTERNAL_ERR,
			    "Unable to send to %s[%u]: %s, closing", who(c),
			    c->pid, strerror(n < 0 ? errno : EPIPE));
			c->broken = true;
			return -1;
		}
		sent += static_cast<size_t>(n);
	}
	return 0;
}

extern "C" int
keel_server_init(evContext ctx, keel_server_log_fn log, void *log_ctx)
{
	struct sockaddr_un sun;
	char path[sizeof(sun.sun_path)];

	srv.ctx = ctx;
	srv.log = log;
	srv.log_ctx = log_ctx;
	srv.master = nmchassis_is_generic_protocol_master() ? 1 : 0;
	if (socket_path(path, sizeof(path)) != 0) {
		errno = ENAMETOOLONG;
		return -1;
	}
	std::string dir(path);
	tolvar_mkdirs(dir.substr(0, dir.rfind('/')).c_str(), 0755);
	(void)unlink(path);
	srv.listen_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (srv.listen_fd < 0)
		return -1;
	memset(&sun, 0, sizeof(sun));
	sun.sun_family = AF_UNIX;
	memcpy(sun.sun_path, path, strlen(path) + 1);
	/* Root's, and the configured group's: see access.h. */
	struct tolvar_access access;
	tolvar_access_get(&access);
	if (tolvar_access_bind(srv.listen_fd,
	    reinterpret_cast<struct sockaddr *>(&sun), sizeof(sun), path,
	    &access) != 0 ||
	    __evListen(ctx, srv.listen_fd, listen_backlog, on_accept, nullptr,
	    &srv.listen_id) != 0) {
		int e = errno;
		keel_server_log(LOG_PRI_INTERNAL_ERR,
		    "Unable to listen on %s: %s", path, strerror(e));
		close(srv.listen_fd);
		srv.listen_fd = -1;
		errno = e;
		return -1;
	}
	srv.running = true;
	/* Swept four times within the bound, so none outstays it by much. */
	struct timespec every = tolvar_scaled_secs(KEEL_CLIENT_IDLE_SECS / 4.0);
	srv.sweeping = __evSetTimer(ctx, sweep_idle, nullptr,
	    __evAddTime(__evNowTime(), every), every, &srv.sweep_id) == 0;
	keel_server_log(LOG_PRI_INTERNAL_INFO, "Listening on %s as %s",
	    path, role_name(srv.master));
	const char *control = getenv("TOLVAR_KEEL_TEST_CONTROL");
	if (control != nullptr && strcmp(control, "1") == 0 &&
	    keel_server_control_init(ctx) != 0)
		keel_server_log(LOG_PRI_INTERNAL_ERR,
		    "Unable to open the test control: %s", strerror(errno));
	return 0;
}

extern "C" void
keel_server_shutdown(void)
{
	char path[sizeof(((struct sockaddr_un *)nullptr)->sun_path)];

	keel_server_control_shutdown();
	if (srv.sweeping)
		(void)__evClearTimer(srv.ctx, srv.sweep_id);
	srv.sweeping = false;
	keel_server_drop_all();
	if (srv.listen_fd >= 0) {
		(void)__evCancelConn(srv.ctx, srv.listen_id);
		close(srv.listen_fd);
		srv.listen_fd = -1;
		if (socket_path(path, sizeof(path)) == 0)
			(void)unlink(path);
	}
	srv.running = false;
}

extern "C" void
keel_server_set_ready(int ready)
{
	srv.ready = ready != 0;
}

extern "C" void
keel_server_set_recovering(int on)
{
	srv.recovering = on != 0;
}

extern "C" void
keel_server_set_purging(int on)
{
	srv.purging = on != 0;
}

extern "C" int
keel_server_is_master(void)
{
	return srv.master;
}

extern "C" int
keel_server_mastership_check(void)
{
	int master = nmchassis_is_generic_protocol_master() ? 1 : 0;
	if (master == srv.master)
		return 0;
	srv.master = master;
	sdb_set_mastership(master != 0);
	keel_server_log(LOG_PRI_INTERNAL_INFO, "Mastership changed to %s",
	    role_name(master));

	keel_msg_mastership m;
	memset(&m, 0, sizeof(m));
	m.type = KEEL_MSG_MASTERSHIP;
	m.master = static_cast<uint8_t>(master);
	for (keel_conn *c = srv.conns, *next; c != nullptr; c = next) {
		next = c->next;
		if (!c->registered)
			continue;
		/* The client closes and comes back with the new role. */
		c->leaving = true;
		keel_server_log(LOG_PRI_INTERNAL_INFO,
		    "Send mastership %s to %s[%u]", role_name(master), who(c),
		    c->pid);
		if (keel_server_send(c, &m, sizeof(m)) != 0)
			keel_server_drop(c);
	}
	return 1;
}

extern "C" void
keel_server_chassis_issu(uint32_t msg)
{
	keel_msg_chassis_issu m;

	srv.chassis_issu = msg;
	memset(&m, 0, sizeof(m));
	m.type = KEEL_MSG_CHASSIS_ISSU;
	m.msg = msg;
	for (keel_conn *c = srv.conns, *next; c != nullptr; c = next) {
		next = c->next;
		if (c->registered && keel_server_send(c, &m, sizeof(m)) != 0)
			keel_server_drop(c);
	}
}

extern "C" int
keel_server_client_count(void)
{
	int n = 0;
	for (keel_conn *c = srv.conns; c != nullptr; c = c->next)
		n += c->registered ? 1 : 0;
	return n;
}

/*
 * keel's main starts, readies and stops the server through these.  Its
 * text goes to keel's trace file through the library's trace callback.
 *
 * SIGHUP is how keel learns that the role may have changed.  The handler
 * only writes a byte into a pipe that the event loop watches, so the
 * check and the messages to the clients run on the loop like all else.
 */
namespace {

int hup_pipe[2] = {-1, -1};
evFileID hup_id;
struct sigaction old_hup;

void
trace_via_library(void *, int priority, const char *fmt, va_list ap)
{
	if (sdb_trace_fn != nullptr)
		sdb_trace_fn(nullptr, priority, fmt, ap);
}

void
on_sighup(int)
{
	int e = errno;
	char b = 1;
	ssize_t w = write(hup_pipe[1], &b, 1);
	(void)w;
	errno = e;
}

void
on_hup_readable(evContext, void *, int fd, int)
{
	char buf[64];
	while (read(fd, buf, sizeof(buf)) > 0)
		;
	keel_server_log(LOG_PRI_INTERNAL_INFO, "SIGHUP: reading the role");
	(void)keel_server_mastership_check();
}

int
watch_sighup(evContext ctx)
{
	if (pipe2(hup_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
		return -1;
	if (__evSelectFD(ctx, hup_pipe[0], EV_READ, on_hup_readable, nullptr,
	    &hup_id) != 0)
		return -1;
	struct sigaction sa = {};
	sa.sa_handler = on_sighup;
	sigemptyset(&sa.sa_mask);
	sa.sa_flags = SA_RESTART;
	return sigaction(SIGHUP, &sa, &old_hup);
}

void
unwatch_sighup(void)
{
	if (hup_pipe[0] < 0)
		return;
	(void)sigaction(SIGHUP, &old_hup, nullptr);
	(void)__evDeselectFD(srv.ctx, hup_id);
	close(hup_pipe[0]);
	close(hup_pipe[1]);
	hup_pipe[0] = hup_pipe[1] = -1;
}

} // namespace

int
keel_registration_start(evContext ctx)
{
	if (keel_server_init(ctx, trace_via_library, nullptr) != 0)
		return -1;
	if (watch_sighup(ctx) != 0) {
		keel_server_log(LOG_PRI_INTERNAL_ERR,
		    "Unable to watch SIGHUP: %s", strerror(errno));
		return -1;
	}
	return 0;
}

void
keel_registration_ready(int ready)
{
	keel_server_set_ready(ready);
}

void
keel_registration_stop(void)
{
	unwatch_sighup();
	keel_server_shutdown();
}
