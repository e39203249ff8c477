/*
 * The connection engine: one TCP connection between the two routing
 * engines.  The master listens, the standby connects; both send their
 * control messages first and the link is ready when both directions are
 * done.  Every failure goes through mirror_peer_close_actual(), which
 * tears everything down and starts again after retry_period.
 *
 * Invariants:
 *  - There is a socket only in mirror_l.task (the connection) or in
 *    mirror_l.listen_task (the listener), never in both: the listener is
 *    gone while a peer is connected.
 *  - mirror_l.generation changes whenever the buffers are reset.  A
 *    handler that may have closed the link (every transmit, every TLV
 *    handler) compares it before it touches the buffers again; after a
 *    close on the master even mirror_l.task may be a new object.
 *  - tx_cntrl_done and rx_cntrl_done are both 0 whenever there is no
 *    connection, so a new connection always starts its control exchange
 *    from the beginning.
 *  - Bytes of the peer are never asserted on: anything malformed ends in
 *    mirror_stream_error(), which reports and closes.
 */
#include "mirror_direct.h"
#include "mirror_internal.h"

#include <platform/chassis.h>
#include <platform/logging.h>
#include <platform/trace.h>

#include <arpa/inet.h>
#include <cassert>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

mirror_link mirror_l;

using namespace mirror;

namespace {

constexpr int task_priority = 60;
constexpr uint32_t retry_normal = 2;
constexpr uint32_t retry_mismatch = 60;
constexpr int flush_tlv_limit = 100;
constexpr int peer_maxseg = 1398;

mirror_sw_version local_version;
void (*direct_ready_fn)(void);

void mirror_start_listen(mirror_timer *timer, void *data);
void mirror_connect_peer(mirror_timer *timer, void *data);
void mirror_init_listen();
void mirror_init_connect();

/* The version of this program, from its version string "major.minor.rev". */
void
set_local_version()
{
	unsigned major = 0, minor = 0, rev = 0;
	sscanf(TOLVAR_VERSION, "%u.%u.%u", &major, &minor, &rev);
	local_version.major = static_cast<uint8_t>(major);
	local_version.minor = static_cast<uint16_t>(minor);
	local_version.revision = static_cast<uint16_t>(rev);
	local_version.last = 0;
	local_version.letter = 'R';
}

void
write_redzone()
{
	uint32_t pattern = MIRROR_REDZONE_PATTERN;
	std::memcpy(mirror_l.tx_buf + mirror_l.effective_tx, &pattern, sizeof(pattern));
}

/* Every encode stays inside the effective buffer; anything else is a bug. */
void
check_redzone()
{
	mirror_assert(*mirror_tx_redzone() == MIRROR_REDZONE_PATTERN);
}

void
set_effective_tx(uint32_t size)
{
	/* The old red zone may lie inside the new area: clear it first. */
	std::memset(mirror_l.tx_buf + mirror_l.effective_tx, 0, sizeof(uint32_t));
	mirror_l.effective_tx = size;
	write_redzone();
}

void
free_peer_dbs()
{
	mirror_peer_db *d = mirror_l.peer.mpi_dbs;
	while (d != nullptr) {
		mirror_peer_db *next = d->mpd_next;
		free(d);
		d = next;
	}
	mirror_l.peer.mpi_dbs = nullptr;
}

void
clear_peer_info()
{
	free_peer_dbs();
	mirror_l.peer = mirror_peer_record{};
}

void
mark_known(uint32_t id)
{
	if (id <= MIRROR_MAX_DATA_ID)
		mirror_l.peer.mpi_known[id / 32] |= 1u << (id % 32);
}

/* Reset the receive and send state for a new connection or after a close. */
void
reset_buffers()
{
	mirror_l.rx_in = mirror_l.rx_out = 0;
	mirror_l.tx_len = mirror_l.tx_pos = 0;
	mirror_l.tx_error = 0;
	mirror_l.tx_open_main = -1;
	mirror_l.rx_disabled = 0;
	set_effective_tx(MIRROR_EFFECTIVE_TX_BUFF_MIN);
	mirror_l.generation++;
	mirror_q_rx_reset();
}

void
delete_timer(mirror_timer **t)
{
	mirror_func->timer_delete(*t);
	*t = nullptr;
}

void
format_last_close(const char *func, int line)
{
	char when[32];
	time_t now = time(nullptr);
	struct tm tm;
	localtime_r(&now, &tm);
	strftime(when, sizeof(when), "%Y-%m-%d %H:%M:%S", &tm);
	int e = mirror_l.stats.ms_last_errno;
	snprintf(mirror_l.stats.last_close, sizeof(mirror_l.stats.last_close),
	    "At %s %s:%d errno %d %s", when, func, line, e, strerror(e));
}

void
mirror_peer_keepalive_send(mirror_timer *, void *)
{
	if (mirror_l.tx_len == 0) {
		mirror_l.tx_len = static_cast<uint32_t>(wire::put_keepalive(
		    std::span(mirror_l.tx_buf, mirror_l.effective_tx)));
		check_redzone();
		uint64_t gen = mirror_l.generation;
		mirror_data_transmit();
		if (gen != mirror_l.generation)
			return;
	}
	if (mirror_l.peer.mpi_keepalive != 0 && mirror_l.keepalive_send_timer != nullptr)
		mirror_func->timer_set_oneshot(mirror_l.keepalive_send_timer,
		    MIRROR_KEEPALIVE_SEND_PERIOD);
}

void
mirror_peer_keepalive_expiry(mirror_timer *, void *)
{
	mirror_trace("mirror keepalive expired after %u seconds",
	    mirror_l.peer.mpi_keepalive);
	mirror_l.stats.ms_last_errno = ETIMEDOUT;
	mirror_peer_close();
}

void
mirror_start_keepalive_timer(mirror_timer **timer, uint32_t secs, mirror_timer_fn handler)
{
	if (!mirror_connected() || secs == 0 || mirror_l.task == nullptr)
		return;
	if (*timer != nullptr)
		mirror_func->timer_set_oneshot(*timer, secs);
	else
		*timer = mirror_func->timer_create(mirror_l.task, "mirror keepalive", 0, 0,
		    secs, handler, nullptr);
}

void
control_expiry(mirror_timer *, void *)
{
	mirror_trace("mirror peer sent no control message in %u seconds",
	    MIRROR_KEEPALIVE_TIME);
	mirror_l.stats.ms_last_errno = ETIMEDOUT;
	mirror_peer_close();
}

/*
 * Keepalives start only with the peer's control message, which says how
 * long the peer may stay quiet.  A peer that connects and never speaks
 * (or never reads ours) would otherwise hold the one connection for ever:
 * it gets the default keepalive time to finish the exchange.
 */
void
await_control()
{
	delete_timer(&mirror_l.control_timer);
	mirror_l.control_timer = mirror_func->timer_create(mirror_l.task,
	    "mirror control wait", 0, 0, MIRROR_KEEPALIVE_TIME, control_expiry, nullptr);
}

/* Both directions are done: from now on the keepalives watch the peer. */
void
link_ready()
{
	delete_timer(&mirror_l.control_timer);
	mirror_l.peer_seen = 1;
	mirror_trace("mirror connection ready");
}

void
start_keepalives()
{
	mirror_start_keepalive_timer(&mirror_l.keepalive_recv_timer, mirror_l.peer.mpi_keepalive,
	    mirror_peer_keepalive_expiry);
	if (mirror_l.peer.mpi_keepalive != 0)
		mirror_start_keepalive_timer(&mirror_l.keepalive_send_timer,
		    MIRROR_KEEPALIVE_SEND_PERIOD, mirror_peer_keepalive_send);
}

/* A malformed stream: say so everywhere, then close through the one path. */
void
stream_error(const char *func, int line, const char *what)
{
	char text[256];
	snprintf(text, sizeof(text), "Mirror stream error from %s: %s",
	    mirror_task_peer_name(), what);
	mirror_trace("%s", text);
	static const char *const attrs[] = {"peer", "error", nullptr};
	logging_event(LOG_ERR, "MIRROR_STREAM_ERROR", attrs,
	    "MIRROR_STREAM_ERROR: %s:%d: %s", func, line, text);
	mirror_report(MIRROR_REPORT_ERROR, text);
	mirror_l.stats.ms_stream_errors++;
	mirror_l.stats.ms_last_errno = EPROTO;
	mirror_peer_close_actual(func, line);
}

/* Refused without a close: a warning to the application and an event. */
void
vrefused(const char *func, int line, const char *peer, const char *fmt, va_list ap)
{
	char what[160], text[256];
	vsnprintf(what, sizeof(what), fmt, ap);
	snprintf(text, sizeof(text), "Mirror peer %s: %s", peer, what);
	mirror_trace("%s", text);
	static const char *const attrs[] = {"peer", "reason", nullptr};
	logging_event(LOG_WARNING, "MIRROR_PEER_REFUSED", attrs,
	    "MIRROR_PEER_REFUSED: %s:%d: %s", func, line, text);
	mirror_report(MIRROR_REPORT_WARNING, text);
	mirror_l.stats.ms_refused++;
}

__attribute__((format(printf, 4, 5))) void
refused(const char *func, int line, const char *peer, const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	vrefused(func, line, peer, fmt, ap);
	va_end(ap);
}

#define STREAM_ERROR(what) stream_error(__func__, __LINE__, (what))

void
cntrl_version_mismatch(uint32_t version, const char *reason)
{
	if (mirror_l.task != nullptr) {
		char text[255];
		if (version != 0) {
			bool m = mirror_l.st.is_master;
			snprintf(text, sizeof(text),
			    "Mirror versions on Routing Engines are incompatible: "
			    "master%s has version %d, standby%s has version %d",
			    m ? " (this system)" : "",
			    m ? MIRROR_CNTRL_VERSION : static_cast<int>(version),
			    m ? "" : " (this system)",
			    m ? static_cast<int>(version) : MIRROR_CNTRL_VERSION);
			mirror_report(MIRROR_REPORT_WARNING, text);
		} else {
			snprintf(text, sizeof(text),
			    "Mirror version on other Routing Engine is incompatible: %s",
			    reason);
			mirror_report(MIRROR_REPORT_ERROR, text);
		}
		mirror_trace("%s", text);
	}
	mirror_l.retry_period = retry_mismatch;
	mirror_peer_close();
}

/*
 * A peer that announced no keepalive time (a first-generation peer, or a
 * keepalive time of 0) sends nothing while the link is idle, so no timer
 * of ours may bound its silence without cutting a healthy idle link.  The
 * kernel's keepalive probes bound it instead: they are invisible to the
 * peer's program, and a peer whose host is gone is dropped after the
 * keepalive time we announce ourselves and three unanswered probes.
 */
void
watch_silent_peer()
{
	if (mirror_l.peer.mpi_keepalive != 0 || mirror_l.task == nullptr)
		return;
	int rc = mirror_func->set_option(mirror_l.task, MIRROR_SOCKOPT_KEEPALIVE,
	    MIRROR_KEEPALIVE_TIME);
	if (rc != 0)
		mirror_trace("mirror keepalive option failed: %s", strerror(rc));
}

/* The peer's control message was accepted, in either generation. */
void
control_accepted()
{
	/*
	 * Whatever was refused before, this peer speaks our version: the
	 * next loss of the link retries at the normal rate again, even when
	 * our own control message is still leaving.
	 */
	mirror_l.retry_period = retry_normal;
	watch_silent_peer();
	for (uint32_t id = 0; id < mirror_l.st.MIRROR_DATA_LAST; id++) {
		mirror_reg_entry *e = mirror_l.reg[id];
		/* The peer may have restarted: what it sent before counts no more. */
		if (e != nullptr && mirror_is_receiver(e) && e->mirror_data_clear_func)
			e->mirror_data_clear_func();
	}
	mirror_l.rx_cntrl_done = 1;
	if (mirror_connected()) {
		link_ready();
		mirror_q_link_up();
		mirror_report_state(MIRROR_STATE_UP);
		if (mirror_l.peer.mpi_cntrl_gen == 2)
			start_keepalives();
	}
}

const char *
local_db_name(uint32_t id)
{
	for (const mirror_db_entry *e = mirror_l.st.mirror_db_table;
	    e != nullptr && e->name != nullptr; e++)
		if (e->id == id)
			return e->name;
	return nullptr;
}

void
add_peer_db(const wire::peer_db &d)
{
	size_t n = d.name.size();
	auto *pd = static_cast<mirror_peer_db *>(calloc(1, sizeof(mirror_peer_db) + n));
	if (pd == nullptr)
		return;
	pd->mpd_data_id = d.data_id;
	std::memcpy(pd->mpd_name, d.name.data(), n);
	const char *local = local_db_name(d.data_id);
	if (local == nullptr) {
		pd->mpd_status = 0;
	} else if (strlen(local) >= n && std::memcmp(local, d.name.data(), n) == 0) {
		/* Compared over the length that came in. */
		pd->mpd_status = 1;
		mark_known(d.data_id);
	} else {
		pd->mpd_status = 2;
	}
	pd->mpd_next = mirror_l.peer.mpi_dbs;
	mirror_l.peer.mpi_dbs = pd;
}

void
rx_cntrl2(std::span<const uint8_t> value)
{
	if (mirror_l.rx_cntrl_done) {
		mirror_trace("mirror cntrl2 message error");
		mirror_l.stats.ms_last_errno = EPROTO;
		mirror_peer_close();
		return;
	}
	wire::cntrl2_in in;
	wire::error err = wire::parse_cntrl2(value, in);
	if (err == wire::error::empty_cntrl2) {
		/*
		 * Resetting the buffers under a live connection would throw away
		 * bytes on both sides and leave both streams cut in the middle of
		 * a TLV; a close is the only reset that both ends agree on.
		 */
		mirror_trace("mirror cntrl2 message error");
		STREAM_ERROR(wire::error_text(err));
		return;
	}
	if (err != wire::error::none) {
		STREAM_ERROR(wire::error_text(err));
		return;
	}
	clear_peer_info();
	mirror_l.peer.mpi_cntrl_gen = 2;
	set_effective_tx(MIRROR_EFFECTIVE_TX_BUFF_MIN);
	if (in.has_version) {
		mirror_l.peer.mpi_version = in.version;
		mirror_l.peer.mpi_has_version = 1;
	}
	for (const wire::peer_db &d : in.dbs)
		add_peer_db(d);
	if (in.has_keepalive)
		mirror_l.peer.mpi_keepalive = in.keepalive;
	if (in.has_buf_size) {
		mirror_l.peer.mpi_buf_size_seen = 1;
		mirror_l.peer.mpi_buf_size = wire::clamp_buf_size(in.buf_size);
		set_effective_tx(mirror_l.peer.mpi_buf_size);
	}
	if (in.has_flags)
		mirror_l.peer.mpi_flags = in.flags;
	if (in.has_flags && in.flags > MIRROR_CNTRL_FLAGS_MAX) {
		mirror_trace("mirror cntrl2 invalid flag ");
		cntrl_version_mismatch(0, "invalid flags");
		return;
	}
	control_accepted();
}

void
rx_cntrl(std::span<const uint8_t> value)
{
	if (mirror_l.rx_cntrl_done)
		return;	/* the second generation came first */
	wire::cntrl_in in;
	if (!wire::parse_cntrl(value, in)) {
		cntrl_version_mismatch(0, "invalid length");
		return;
	}
	if (in.version == 0) {
		/* No number to name in the text: say what came instead. */
		cntrl_version_mismatch(0, "invalid version 0");
		return;
	}
	if (in.version != MIRROR_CNTRL_VERSION) {
		cntrl_version_mismatch(in.version, nullptr);
		return;
	}
	if (in.flags > MIRROR_CNTRL_FLAGS_MAX) {
		cntrl_version_mismatch(0, "invalid flags");
		return;
	}
	clear_peer_info();
	mirror_l.peer.mpi_cntrl_gen = 1;
	mirror_l.peer.mpi_flags = in.flags;
	set_effective_tx(MIRROR_EFFECTIVE_TX_BUFF_MIN);
	for (const mirror_db_entry *e = mirror_l.st.mirror_db_table;
	    e != nullptr && e->name != nullptr; e++)
		mark_known(e->id);
	control_accepted();
}

class data_to_queues : public wire::data_sink {
public:
	void record(const wire::record_def &def, std::span<const uint8_t> data) override
	{
		mirror_q_rx_record(def, data);
	}
	void ack(const wire::record_def &def) override
	{
		mirror_q_rx_ack(def);
	}
	void resync_req(uint16_t data_id) override
	{
		mirror_q_rx_resync_req(data_id);
	}
	void unknown(unsigned type) override
	{
		char text[64];
		snprintf(text, sizeof(text), "Unknown Mirror Data TLV 0x%04x", type);
		mirror_report(MIRROR_REPORT_UNKNOWN_DATA_TLV, text);
		mirror_trace("%s", text);
	}
};

void
rx_data(std::span<const uint8_t> value)
{
	if (!mirror_l.rx_cntrl_done) {
		/* Our peer always speaks its control message first. */
		STREAM_ERROR("data before the control message");
		return;
	}
	data_to_queues sink;
	uint64_t gen = mirror_l.generation;
	wire::error err = wire::parse_data(value, sink);
	if (err != wire::error::none && gen == mirror_l.generation)
		STREAM_ERROR(wire::error_text(err));
}

void
rx_main_tlv(unsigned type, std::span<const uint8_t> value)
{
	switch (type) {
	case MAIN_TLV_CNTRL:
		rx_cntrl(value);
		break;
	case MAIN_TLV_DATA_MIRROR:
		rx_data(value);
		break;
	case MAIN_TLV_CNTRL2:
		rx_cntrl2(value);
		break;
	case MAIN_TLV_KEEPALIVE:
		break;	/* its arrival was the point */
	default: {
		char text[64];
		snprintf(text, sizeof(text), "Unknown Mirror TLV 0x%04x", type);
		mirror_report(MIRROR_REPORT_UNKNOWN_TLV, text);
		mirror_trace("%s", text);
		break;
	}
	}
}

void rx_resume(mirror_job *job);

void
mirror_flush_rx_buf()
{
	uint64_t gen = mirror_l.generation;
	int walked = 0;
	bool more = false;

	while (mirror_l.rx_out < mirror_l.rx_in) {
		if (walked == flush_tlv_limit) {
			more = true;
			break;
		}
		wire::frame f = wire::next_main(std::span(mirror_l.rx_buf + mirror_l.rx_out,
		    mirror_l.rx_in - mirror_l.rx_out), mirror_rx_capacity);
		if (f.err != wire::error::none) {
			STREAM_ERROR(wire::error_text(f.err));
			return;
		}
		if (f.whole == 0)
			break;
		if (walked == 0)
			mirror_func->timer_reset(mirror_l.keepalive_recv_timer);
		rx_main_tlv(f.type, f.value);
		if (gen != mirror_l.generation)
			return;	/* closed from inside: the rest is dropped */
		mirror_l.rx_out += static_cast<uint32_t>(f.whole);
		walked++;
	}
	if (mirror_l.rx_out == mirror_l.rx_in)
		mirror_l.rx_in = mirror_l.rx_out = 0;
	if (walked > 0)
		mirror_start_keepalive_timer(&mirror_l.keepalive_recv_timer,
		    mirror_l.peer.mpi_keepalive, mirror_peer_keepalive_expiry);
	if (more && mirror_l.rx_job == nullptr && mirror_l.task != nullptr) {
		/*
		 * Complete TLVs are left and the socket may have nothing more to
		 * say: resume the walk on the next turn instead of waiting for
		 * bytes that may never come.
		 */
		mirror_l.rx_job = mirror_func->job_create_background(mirror_l.task,
		    mirror_l.st.job_priority, "mirror receive", rx_resume, nullptr);
	}
	if (!more && mirror_l.rx_disabled && mirror_l.task != nullptr &&
	    mirror_l.rx_in - mirror_l.rx_out < mirror_rx_capacity) {
		mirror_l.rx_disabled = 0;
		if (!mirror_l.task->throttled)
			mirror_func->socket_throttle(mirror_l.task, 0);
	}
}

void
rx_resume(mirror_job *job)
{
	mirror_func->job_delete(job);
	mirror_l.rx_job = nullptr;
	mirror_flush_rx_buf();
}

void
mirror_data_receive()
{
	if (mirror_l.rx_out > 0) {
		std::memmove(mirror_l.rx_buf, mirror_l.rx_buf + mirror_l.rx_out,
		    mirror_l.rx_in - mirror_l.rx_out);
		mirror_l.rx_in -= mirror_l.rx_out;
		mirror_l.rx_out = 0;
	}
	uint32_t room = mirror_rx_capacity - mirror_l.rx_in;
	if (room == 0) {
		mirror_func->socket_disable_receive(mirror_l.task);
		mirror_l.rx_disabled = 1;
		mirror_trace("mirror read disabled");
		return;
	}
	errno = 0;	/* a read of 0 leaves no stale reason behind */
	ssize_t n = read(mirror_l.task->fd, mirror_l.rx_buf + mirror_l.rx_in, room);
	if (n == 0) {
		mirror_l.stats.ms_last_errno = errno;
		mirror_trace("mirror peer closed the connection");
		mirror_peer_close();
		return;
	}
	if (n < 0) {
		int e = errno;
		mirror_l.stats.ms_last_errno = e;
		if (e != EINTR && e != EAGAIN && e != ENETUNREACH && e != EHOSTUNREACH)
			mirror_trace("mirror read error: %d", e);
		return;
	}
	mirror_l.rx_in += static_cast<uint32_t>(n);
	mirror_l.stats.ms_bytes_in += static_cast<uint64_t>(n);
	uint64_t gen = mirror_l.generation;
	mirror_flush_rx_buf();
	if (gen != mirror_l.generation || mirror_l.task == nullptr)
		return;
	if (mirror_l.rx_in - mirror_l.rx_out >= mirror_rx_capacity && mirror_l.rx_job == nullptr) {
		mirror_func->socket_disable_receive(mirror_l.task);
		mirror_l.rx_disabled = 1;
		mirror_trace("mirror read disabled");
	}
}

void
mirror_connection_send_cntrl_msg()
{
	uint64_t gen = mirror_l.generation;
	if (!mirror_l.cntrl_written) {
		std::span<uint8_t> out(mirror_l.tx_buf, mirror_l.effective_tx);
		size_t n = 0;
		if (mirror_l.cntrl2_enabled) {
			wire::cntrl_out c;
			c.version = local_version;
			c.dbs = mirror_l.st.mirror_db_table;
			n = wire::put_cntrl2(out, c);
		}
		n += wire::put_cntrl(out.subspan(n), 0);
		check_redzone();
		mirror_l.tx_len = static_cast<uint32_t>(n);
		mirror_l.tx_pos = 0;
		int rc = mirror_data_transmit();
		if (rc == EPIPE || gen != mirror_l.generation)
			return;
		mirror_l.cntrl_written = 1;
		if (mirror_l.tx_len != 0)
			return;
	} else if (mirror_l.tx_len != 0) {
		mirror_data_transmit();
		if (gen != mirror_l.generation || mirror_l.tx_len != 0)
			return;
	}
	mirror_l.tx_cntrl_done = 1;
	mirror_func->set_normal_write(mirror_l.task);
	mirror_sock_connection_write_ready(mirror_l.task, mirror_l.task->fd, EV_WRITE);
	if (gen != mirror_l.generation)
		return;
	if (mirror_connected()) {
		link_ready();
		mirror_report_state(MIRROR_STATE_UP);
		mirror_q_link_up();
		/*
		 * The peer's keepalive time came while our control message was
		 * still leaving.  Start both timers now: waiting for traffic
		 * would leave an idle link without keepalives in either
		 * direction, and the peer would close it.
		 */
		if (mirror_l.peer.mpi_cntrl_gen == 2)
			start_keepalives();
	}
}

int
mirror_peer_connected()
{
	if (mirror_func->get_addr_local(mirror_l.task) == nullptr) {
		int e = errno;
		mirror_l.stats.ms_last_errno = e;
		mirror_peer_close();
		return e;
	}
	reset_buffers();
	mirror_func->socket_connected(mirror_l.task, mirror_l.task->fd);
	delete_timer(&mirror_l.connect_timer);
	await_control();
	mirror_trace("mirror connected to %s",
	    mirror_addr_print(mirror_func->get_addr(mirror_l.task)));
	mirror_q_send_schedule();
	return 0;
}

void
mirror_peer_connect_complete(mirror_task *task)
{
	if (mirror_func->get_addr_remote(task) == nullptr) {
		mirror_l.stats.ms_last_errno = errno;
		mirror_peer_close();
		return;
	}
	if (mirror_peer_connected() != 0)
		mirror_peer_close();
}

void
mirror_connect_peer(mirror_timer *, void *)
{
	mirror_task *task = mirror_l.task;
	if (task == nullptr || mirror_func->task_socket(task) >= 0)
		return;	/* an attempt is under way or the link is up */
	if (mirror_l.st.port == 0 && mirror_l.st.lr_id != 0)
		return;	/* the master's dynamic port is not known yet */
	mirror_func->set_connect(task, mirror_peer_connect_complete);
	int rc = mirror_func->connect_ore(task, htons(mirror_l.st.port));
	if (rc == 0) {
		mirror_peer_connected();
		return;
	}
	mirror_l.stats.ms_last_errno = rc;
	if (rc == EINPROGRESS && mirror_func->get_addr_local(task) != nullptr)
		return;
	mirror_peer_close();
}

void
mirror_init_connect()
{
	if (mirror_l.task == nullptr) {
		mirror_l.task = mirror_func->task_alloc(&mirror_l.st, "Mirror Task", task_priority);
		mirror_assert(mirror_l.task != nullptr);
		mirror_func->set_re_switchover(mirror_l.task, mirror_generic_re_switchover);
		mirror_func->set_terminate(mirror_l.task, mirror_generic_terminate);
		if (!mirror_func->task_create(mirror_l.task))
			mirror_func->quit(EINVAL);
	}
	if (mirror_l.connect_timer == nullptr)
		mirror_l.connect_timer = mirror_func->timer_create(mirror_l.task,
		    "Connect Timer", 0, mirror_l.retry_period, 0, mirror_connect_peer, nullptr);
}

void
standby_wait_expired(mirror_timer *, void *)
{
	delete_timer(&mirror_l.standby_wait_timer);
	if (mirror_l.peer_seen)
		return;
	mirror_l.peer_seen = 1;
	mirror_trace("mirror standby not present");
	mirror_report_state(MIRROR_STATE_NO_STANDBY);
}

/*
 * The listener could not be set up (a port still held, an address not yet
 * there).  A task host would quit; here the process lives on, so close the
 * socket and try again on the next period rather than stay deaf for good.
 */
void
listen_failed(const char *what, int err)
{
	mirror_l.stats.ms_last_errno = err;
	mirror_trace("mirror listen %s failed: %s", what, strerror(err));
	mirror_func->quit(err);
	mirror_func->close(mirror_l.listen_task);
	if (mirror_l.listen_timer == nullptr)
		mirror_l.listen_timer = mirror_func->timer_create(mirror_l.listen_task,
		    "Listen Timer", 0, mirror_l.retry_period, 0, mirror_start_listen, nullptr);
}

void
mirror_start_listen(mirror_timer *, void *)
{
	mirror_task *lt = mirror_l.listen_task;
	const mirror_state &st = mirror_l.st;
	int fd = mirror_func->get_socket_tcp(lt);
	if (fd < 0)
		return;
	delete_timer(&mirror_l.listen_timer);
	if (st.lr_id != 0)
		mirror_l.st.port = 0;
	mirror_addr any{};
	any.ma_len = MIRROR_ADDR_LEN_INET;
	any.ma_kind = MIRROR_ADDR_INET;
	any.ma_port = htons(mirror_l.st.port);
	any.ma_addr4 = htonl(INADDR_ANY);
	mirror_func->socket_listening(lt, fd);

	int rc;
	if ((rc = mirror_func->set_option(lt, MIRROR_SOCKOPT_RTBL_INDEX,
	    st.use_peer_addr ? st.rt_table : 1)) != 0 ||
	    (rc = mirror_func->set_option(lt, MIRROR_SOCKOPT_NONBLOCKING, 1)) != 0 ||
	    (rc = mirror_func->set_option(lt, MIRROR_SOCKOPT_REUSEADDR, 1)) != 0 ||
	    (rc = mirror_func->set_option(lt, MIRROR_SOCKOPT_REUSEPORT, 1)) != 0) {
		listen_failed("option", rc);
		return;
	}
	if (st.use_sa && (rc = mirror_func->set_sa(lt, &any)) != 0) {
		listen_failed("security association", rc);
		return;
	}
	if ((rc = mirror_func->addr_local(lt, &any)) != 0) {
		listen_failed("bind", rc);
		return;
	}
	if (st.lr_id != 0) {
		mirror_addr *local = mirror_func->get_addr_local(lt);
		if (local != nullptr)
			mirror_l.st.port = ntohs(local->ma_port);
		if (st.port_cb != nullptr)
			st.port_cb(mirror_l.st.port);
	}
	if ((rc = mirror_func->listen(lt, 2)) != 0) {
		listen_failed("listen", rc);
		return;
	}
	mirror_trace("mirror listening on port %u", mirror_l.st.port);
	if (!mirror_l.peer_seen && mirror_l.standby_wait_timer == nullptr)
		mirror_l.standby_wait_timer = mirror_func->timer_create(lt, "Standby Wait",
		    0, 0, 3 * mirror_l.retry_period, standby_wait_expired, nullptr);
}

void
mirror_init_listen()
{
	if (mirror_l.task != nullptr) {
		mirror_func->task_delete(mirror_l.task);
		mirror_l.task = nullptr;
	}
	if (mirror_l.listen_task == nullptr) {
		mirror_l.listen_task = mirror_func->task_alloc(&mirror_l.st, "Mirror Listen",
		    task_priority);
		mirror_assert(mirror_l.listen_task != nullptr);
		if (!mirror_func->task_create(mirror_l.listen_task))
			mirror_func->quit(EINVAL);
		mirror_func->set_terminate(mirror_l.listen_task, mirror_generic_terminate);
	}
	if (mirror_l.listen_timer == nullptr && mirror_func->task_socket(mirror_l.listen_task) < 0)
		mirror_l.listen_timer = mirror_func->timer_create(mirror_l.listen_task,
		    "Listen Timer", 0, mirror_l.retry_period, 0, mirror_start_listen, nullptr);
}

void
mirror_stop_listen()
{
	delete_timer(&mirror_l.standby_wait_timer);
	delete_timer(&mirror_l.listen_timer);
	mirror_func->task_delete(mirror_l.listen_task);
	mirror_l.listen_task = nullptr;
	if (mirror_l.st.lr_id != 0) {
		mirror_l.st.port = 0;
		if (mirror_l.st.port_cb != nullptr)
			mirror_l.st.port_cb(0);
	}
}

void
mirror_re_switchover()
{
	mirror_l.re_is_master = static_cast<uint8_t>(mirror_func->is_re_master());
	mirror_q_decode_all();
	if (!mirror_l.st.is_master) {
		mirror_l.st.is_master = 1;
		mirror_q_stop_resync();
	}
	if (mirror_l.st.lr_id != 0)
		mirror_l.st.port = 0;
	mirror_trace("mirror switchover: this engine is master now");
	mirror_peer_close();
	if (mirror_l.connect_timer != nullptr) {
		delete_timer(&mirror_l.connect_timer);
		mirror_init_listen();
	}
}

} // namespace

void
mirror_stream_error(const char *func, int line, const char *what)
{
	stream_error(func, line, what);
}

void
mirror_peer_refused(const char *func, int line, const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	vrefused(func, line, mirror_task_peer_name(), fmt, ap);
	va_end(ap);
}

void
mirror_trace(const char *fmt, ...)
{
	auto *tf = static_cast<daemon_trace_file_t *>(mirror_l.st.trace);
	if (tf == nullptr)
		return;
	va_list ap;
	va_start(ap, fmt);
	daemon_tracev(tf, 1, 0, fmt, ap);
	va_end(ap);
}

const char *
mirror_task_peer_name()
{
	if (mirror_l.task == nullptr)
		return "(null)";
	return mirror_addr_print(mirror_func->get_addr(mirror_l.task));
}

bool
mirror_is_receiver(const mirror_reg_entry *e)
{
	return e->mirror_receiver == MIRROR_RECEIVER_BOTH ||
	    e->mirror_receiver == mirror_l.re_is_master;
}

void
mirror_report_state(int state)
{
	for (uint32_t id = 0; mirror_l.reg != nullptr && id < mirror_l.st.MIRROR_DATA_LAST; id++) {
		mirror_reg_entry *e = mirror_l.reg[id];
		if (e != nullptr && e->mirror_data_state_func != nullptr)
			e->mirror_data_state_func(state);
	}
}

int
mirror_data_transmit()
{
	if (mirror_l.tx_len == 0)
		return 0;
	if (mirror_l.tx_pos >= mirror_l.tx_len) {
		mirror_l.tx_pos = mirror_l.tx_len = 0;
		return 0;
	}
	mirror_task *task = mirror_l.task;
	mirror_l.tx_open_main = -1;	/* its header may be on the wire now */
	/* MSG_NOSIGNAL: a dead peer must give EPIPE, not kill us with SIGPIPE. */
	ssize_t n = send(task->fd, mirror_l.tx_buf + mirror_l.tx_pos,
	    mirror_l.tx_len - mirror_l.tx_pos, MSG_NOSIGNAL);
	if (n > 0) {
		mirror_l.stats.ms_bytes_out += static_cast<uint64_t>(n);
		mirror_l.tx_pos += static_cast<uint32_t>(n);
		if (mirror_l.tx_pos == mirror_l.tx_len) {
			mirror_l.tx_pos = mirror_l.tx_len = 0;
			mirror_l.tx_error = 0;
		} else {
			mirror_l.tx_error = EAGAIN;
			mirror_func->socket_reenable_write(task);
		}
		mirror_func->timer_reset(mirror_l.keepalive_send_timer);
		if (mirror_l.peer.mpi_keepalive != 0)
			mirror_start_keepalive_timer(&mirror_l.keepalive_send_timer,
			    MIRROR_KEEPALIVE_SEND_PERIOD, mirror_peer_keepalive_send);
		return 0;
	}
	int e = n < 0 ? errno : EAGAIN;
	mirror_l.tx_error = e;
	switch (e) {
	case EINTR:
	case EAGAIN:
	case ENETUNREACH:
	case ENOBUFS:
	case EHOSTUNREACH:
		/* Be woken when the socket drains, whoever wrote last. */
		mirror_func->socket_reenable_write(task);
		return e;
	case EPIPE:
		mirror_trace("Broken pipe(%d), closing mirror pipe", e);
		mirror_l.stats.ms_last_errno = e;
		mirror_peer_close();
		return e;
	default:
		mirror_trace("error writing to sock %d", e);
		return e;
	}
}

void
mirror_sock_connection_write_ready(mirror_task *task, int, int mask)
{
	if (mask & EV_EXCEPT) {
		mirror_peer_close();
		return;
	}
	if (!(mask & EV_WRITE))
		return;
	if (mirror_l.tx_len == 0) {
		mirror_l.tx_error = 0;
		mirror_func->socket_disable_write(task);
		mirror_q_send_schedule();
	} else {
		mirror_data_transmit();
	}
}

void
mirror_sock_conn_send_cntrl_msg(mirror_task *, int, int mask)
{
	if (mask & EV_EXCEPT) {
		mirror_peer_close();
		return;
	}
	mirror_connection_send_cntrl_msg();
}

void
mirror_sock_data_receive(mirror_task *, int, int mask)
{
	if (mask & EV_EXCEPT) {
		mirror_peer_close();
		return;
	}
	if (mask & EV_READ)
		mirror_data_receive();
}

/*
 * Only the other routing engine may take the one connection: anyone else
 * who reaches the port would keep the real standby out for as long as it
 * holds the link.  A stranger is closed at once and the listener stays.
 */
static bool
expected_peer(const mirror_addr *peer)
{
	uint32_t want;
	int rc = mirror_expected_peer(&want);
	if (rc == 0 && peer != nullptr && peer->ma_kind == MIRROR_ADDR_INET &&
	    peer->ma_addr4 == want)
		return true;
	char wanted[INET_ADDRSTRLEN] = "unknown";
	if (rc == 0)
		inet_ntop(AF_INET, &want, wanted, sizeof(wanted));
	refused(__func__, __LINE__, mirror_addr_print(peer), "connection refused: the peer is %s",
	    wanted);
	return false;
}

void
mirror_listen_accept_common(mirror_task *, int fd, const mirror_addr *peer)
{
	if (!expected_peer(peer)) {
		close(fd);
		return;
	}
	if (mirror_l.task != nullptr) {
		/* One connection at a time; the listener should be gone. */
		mirror_trace("mirror second connection from %s refused",
		    mirror_addr_print(peer));
		close(fd);
		return;
	}
	reset_buffers();
	mirror_task *task = mirror_func->alloc_accept(&mirror_l.st, "Mirror Task", task_priority);
	mirror_assert(task != nullptr);
	mirror_l.task = task;
	mirror_func->socket_accepted(task, fd);
	mirror_func->set_addr(task, mirror_addr_copy(peer));
	if (mirror_func->get_addr_local(task) == nullptr) {
		mirror_func->task_delete(task);
		mirror_l.task = nullptr;
		return;
	}
	if (!mirror_func->task_create(task))
		mirror_func->quit(EINVAL);

	int rc;
	if ((rc = mirror_func->set_option(task, MIRROR_SOCKOPT_NONBLOCKING, 1)) != 0 ||
	    (rc = mirror_func->set_option(task, MIRROR_SOCKOPT_RCVBUF,
	    static_cast<int>(mirror_l.sock_buf_size))) != 0 ||
	    (rc = mirror_func->set_option(task, MIRROR_SOCKOPT_SNDBUF,
	    static_cast<int>(mirror_l.sock_buf_size))) != 0 ||
	    (mirror_l.st.use_peer_addr &&
	    (rc = mirror_func->set_option(task, MIRROR_SOCKOPT_MAXSEG, peer_maxseg)) != 0)) {
		mirror_trace("mirror accept option failed: %s", strerror(rc));
		mirror_func->quit(rc);
	}
	mirror_trace("mirror accepted %s", mirror_addr_print(peer));
	await_control();
	mirror_q_send_schedule();
	mirror_stop_listen();
}

void
mirror_generic_re_switchover(mirror_task *)
{
	mirror_re_switchover();
}

void
mirror_generic_terminate(mirror_task *task)
{
	mirror_terminate(task);
}

void
mirror_peer_close_actual(const char *func, int line)
{
	format_last_close(func, line);
	if (mirror_l.task == nullptr || mirror_func->task_socket(mirror_l.task) < 0)
		return;
	mirror_trace("mirror close from %s:%d errno %d", func, line,
	    mirror_l.stats.ms_last_errno);
	bool was_connected = mirror_connected();
	/*
	 * Both halves go, connected or not: a half left over from this
	 * connection would make the next one refuse the peer's control
	 * message for ever.
	 */
	mirror_l.tx_cntrl_done = 0;
	mirror_l.rx_cntrl_done = 0;
	if (was_connected) {
		mirror_l.stats.ms_closes++;
		mirror_report_state(MIRROR_STATE_DOWN);
	}
	clear_peer_info();
	mirror_l.cntrl_written = 0;
	mirror_l.stats.ms_bytes_in = mirror_l.stats.ms_bytes_out = 0;
	mirror_l.stats.ms_throttles = 0;
	mirror_q_clear();
	reset_buffers();
	if (mirror_l.rx_job != nullptr) {
		mirror_func->job_delete(mirror_l.rx_job);
		mirror_l.rx_job = nullptr;
	}
	mirror_q_stop_resync();
	mirror_func->close(mirror_l.task);
	mirror_func->set_addr(mirror_l.task, nullptr);
	delete_timer(&mirror_l.connect_timer);
	delete_timer(&mirror_l.keepalive_send_timer);
	delete_timer(&mirror_l.keepalive_recv_timer);
	delete_timer(&mirror_l.control_timer);
	if (mirror_l.terminating)
		return;
	if (mirror_l.st.is_master)
		mirror_init_listen();
	else
		mirror_init_connect();
}

/* The direct record path (mirror_direct.h). */
void
mirror_direct_set_ready(void (*fn)(void))
{
	direct_ready_fn = fn;
}

void
mirror_direct_ready()
{
	if (direct_ready_fn != nullptr && mirror_connected() && mirror_l.tx_len == 0)
		direct_ready_fn();
}

int
mirror_direct_send(uint16_t data_id, uint8_t op, const void *data, uint32_t len)
{
	if (!mirror_connected())
		return ENOTCONN;
	if (!mirror_peer_known(data_id))
		return ENOENT;
	size_t need = wire::record_size(len, MIRROR_ACK_NONE);
	if (need + RPC_TLV20NS_SIZE > mirror_l.effective_tx)
		return EMSGSIZE;
	size_t room = mirror_l.effective_tx - mirror_l.tx_len;
	bool open = mirror_l.tx_open_main >= 0;
	if (room < need + (open ? 0 : RPC_TLV20NS_SIZE)) {
		uint64_t gen = mirror_l.generation;
		int rc = mirror_data_transmit();
		if (gen != mirror_l.generation)
			return ENOTCONN;
		if (mirror_l.tx_len != 0)
			return rc != 0 ? rc : EAGAIN;
		open = false;
	}
	if (!open) {
		mirror_l.tx_open_main = mirror_l.tx_len;
		mirror_l.tx_len += RPC_TLV20NS_SIZE;
	}
	wire::record_def def;
	def.data_id = data_id;
	def.op = op;
	size_t n = wire::put_record(std::span(mirror_l.tx_buf + mirror_l.tx_len,
	    mirror_l.effective_tx - mirror_l.tx_len), def,
	    std::span(static_cast<const uint8_t *>(data), len));
	mirror_assert(n == need);
	mirror_l.tx_len += static_cast<uint32_t>(n);
	uint8_t *hdr = mirror_l.tx_buf + mirror_l.tx_open_main;
	wire::put_header(hdr, MAIN_TLV_DATA_MIRROR,
	    mirror_l.tx_len - static_cast<uint32_t>(mirror_l.tx_open_main) - RPC_TLV20NS_SIZE);
	check_redzone();
	return 0;
}

int
mirror_direct_flush()
{
	if (!mirror_connected())
		return ENOTCONN;
	uint64_t gen = mirror_l.generation;
	int rc = mirror_data_transmit();
	if (gen != mirror_l.generation)
		return ENOTCONN;
	if (mirror_l.tx_len != 0)
		return rc != 0 ? rc : EAGAIN;
	return 0;
}

extern "C" {

__attribute__((weak)) void
mirror_report(int code, const char *text)
{
	(void)code;
	(void)text;
}

int
mirror_setup(const mirror_state *state)
{
	if (mirror_l.task != nullptr || mirror_l.listen_task != nullptr)
		return 0;
	mirror_assert(state != nullptr);
	mirror_assert(state->MIRROR_DATA_LAST <= MIRROR_MAX_DATA_ID + 1);
	mirror_l.st = *state;
	mirror_l.st.job_priority = MIRROR_JOB_PRIORITY;
	mirror_assert(!mirror_task_defined() && "no task host in this system");
	mirror_func = &mirror_generic;
	mirror_l.sock_buf_size = mirror_func->get_maxpacket(mirror_l.st.large_buffers);
	mirror_l.re_is_master = static_cast<uint8_t>(mirror_func->is_re_master());
	set_local_version();
	if (mirror_l.reg == nullptr)
		mirror_l.reg = static_cast<mirror_reg_entry **>(calloc(
		    mirror_l.st.MIRROR_DATA_LAST + 1, sizeof(mirror_reg_entry *)));
	if (mirror_l.tx_buf == nullptr)
		mirror_l.tx_buf = static_cast<uint8_t *>(calloc(1, MIRROR_TX_BUFF_ALLOC));
	if (mirror_l.rx_buf == nullptr)
		mirror_l.rx_buf = static_cast<uint8_t *>(calloc(1, MIRROR_READ_BUFF_SIZE));
	if (mirror_l.reg == nullptr || mirror_l.tx_buf == nullptr || mirror_l.rx_buf == nullptr)
		return ENOMEM;
	mirror_l.effective_tx = MIRROR_EFFECTIVE_TX_BUFF_MIN;
	reset_buffers();
	mirror_l.set_up = true;
	mirror_q_setup();
	return 0;
}

int
mirror_register_data(mirror_reg_entry *entry)
{
	mirror_assert(mirror_l.set_up);
	mirror_assert(entry != nullptr);
	mirror_assert_text(entry->mirror_data_id < mirror_l.st.MIRROR_DATA_LAST,
	    "data_id < MIRROR_DATA_LAST");
	mirror_assert(mirror_l.reg[entry->mirror_data_id] == nullptr);
	mirror_assert(entry->mirror_data_lock_func != nullptr && entry->mirror_data_unlock_func != nullptr &&
	    entry->mirror_data_encode_func != nullptr && entry->mirror_data_decode_func != nullptr);
	mirror_assert(entry->mirror_no_resync || entry->mirror_data_get_next_func != nullptr);
	mirror_l.reg[entry->mirror_data_id] = entry;
	mirror_q_registered(entry);
	return 0;
}

int
mirror_start(void)
{
	mirror_assert(mirror_l.set_up);
	mirror_l.terminating = 0;
	if (mirror_l.st.is_master)
		mirror_init_listen();
	else
		mirror_init_connect();
	return 0;
}

void
mirror_re_switchover_event(void)
{
	mirror_assert(!mirror_task_defined());
	if (!nmchassis_is_generic_protocol_master()) {
		logging(LOG_ERR, "%s: Not switchover RE on the new master.\n", __func__);
		return;
	}
	if (mirror_func->is_re_master() != mirror_l.re_is_master)
		mirror_re_switchover();
}

void
mirror_terminate(void *)
{
	mirror_l.terminating = 1;
	mirror_peer_close();
	delete_timer(&mirror_l.connect_timer);
	delete_timer(&mirror_l.standby_wait_timer);
	delete_timer(&mirror_l.listen_timer);
	if (mirror_l.listen_task != nullptr) {
		mirror_func->task_delete(mirror_l.listen_task);
		mirror_l.listen_task = nullptr;
	}
	if (mirror_l.task != nullptr) {
		mirror_func->task_delete(mirror_l.task);
		mirror_l.task = nullptr;
	}
}

int
mirror_connected(void)
{
	return mirror_l.tx_cntrl_done == 1 && mirror_l.rx_cntrl_done == 1;
}

int
mirror_standby_missing(void)
{
	if (!mirror_l.st.is_master || mirror_connected())
		return 0;
	return (mirror_l.task == nullptr && mirror_l.listen_task == nullptr) ||
	    mirror_l.peer_seen;
}

mirror_link_stats *
mirror_stats(void)
{
	return &mirror_l.stats;
}

void
mirror_stats_clear(void)
{
	mirror_l.stats = mirror_link_stats{};
}

const mirror_peer_record *
mirror_peer_info(void)
{
	return &mirror_l.peer;
}

int
mirror_peer_known(uint32_t id)
{
	return id <= MIRROR_MAX_DATA_ID && (mirror_l.peer.mpi_known[id / 32] & (1u << (id % 32)));
}

void
mirror_peer_version(uint8_t *major, uint16_t *minor)
{
	*major = mirror_l.peer.mpi_version.major;
	*minor = mirror_l.peer.mpi_version.minor;
}

void
mirror_local_version(uint8_t *major, uint16_t *minor)
{
	set_local_version();
	*major = local_version.major;
	*minor = local_version.minor;
}

void
mirror_throttle_recv(int on)
{
	mirror_l.stats.ms_throttles++;
	if (mirror_l.task != nullptr)
		mirror_func->socket_throttle(mirror_l.task, on);
}

const mirror_state *
mirror_state_get(void)
{
	return &mirror_l.st;
}

void
mirror_set_trace(void *trace)
{
	mirror_l.st.trace = trace;
}

void
mirror_set_job_priority(uint32_t priority)
{
	mirror_l.st.job_priority = priority;
}

void
mirror_cntrl2_disable(void)
{
	mirror_l.cntrl2_enabled = 0;
}

} // extern "C"
