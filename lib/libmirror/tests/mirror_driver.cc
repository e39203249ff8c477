/*
 * mirror-driver: one routing engine's end of the mirror link, driven from
 * standard input, for the multi-process tests.
 *
 * usage: mirror-driver [-p port] [-t tracefile] [-n name-of-class-3] [-1] [-Q]
 *
 * The role comes from the platform file, as in the daemons ("role =
 * master" listens, anything else connects to "peer_address").  -1 sends
 * only the first-generation control message.  -Q adds class 4, "Driver
 * queue", whose items go through the data queues (mirror_driver_queue.cc
 * lists its commands).  Commands, one per line:
 *
 *	send <id> <text>	a record of class <id> with the text
 *	bulk <id> <count> <size>	count records of size bytes, as fast as
 *				the link takes them; "bulk-done" at the end
 *	switchover		tell the library this engine became master
 *	status			print "status key=value ..."
 *	peer			print what the peer announced
 *	terminate		close for good
 *	quit			exit
 *
 * Events go to standard output, one line each: "state <n>", "recv id=<id>
 * op=<op> len=<n> data=<text>", "report <code> <text>", "sent",
 * "send-error <errno>", "eod id=<id> count=<n>".
 */
#include "mirror_direct.h"
#include "mirror_driver_queue.h"

#include <orx/mirror_data.h>
#include <platform/chassis.h>
#include <platform/ev.h>
#include <platform/logging.h>
#include <platform/trace.h>
#include <timers/otimer.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

evContext ev;
std::string input;
bool quitting;

mirror_db_entry db_table[] = {
	{2, "TOLVARD session"},
	{0, "End-of-database"},
	{1, "Mirror ack"},
	{3, "Driver data"},
	{0, nullptr},	/* -Q: the queued class */
	{0, nullptr},
};

struct bulk_state {
	bool	active = false;
	uint16_t id = 0;
	uint64_t left = 0;
	std::vector<uint8_t> record;
} bulk;

void
out(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

void
out(const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	vprintf(fmt, ap);
	va_end(ap);
	putchar('\n');
	fflush(stdout);
}

void
node_nothing(mirror_data_node *)
{
}

int
encode_nothing(mirror_data_node *, uint8_t *, uint32_t)
{
	return -1;
}

mirror_data_node *
next_nothing(mirror_data_node *)
{
	return nullptr;
}

void
decode(mirror_recvd_data *rd)
{
	std::string text(reinterpret_cast<const char *>(rd->data),
	    std::min<uint32_t>(rd->got_len, 64));
	for (char &c : text)
		if (c < 0x20 || c > 0x7e)
			c = '.';
	out("recv id=%u op=%u len=%u data=%s", rd->data_id, rd->op, rd->got_len,
	    text.c_str());
}

void
decode_quiet(mirror_recvd_data *)
{
}

void
state_changed(int state)
{
	out("state %d", state);
}

void
eod(uint32_t count, int is_receiver)
{
	out("eod count=%u receiver=%d", count, is_receiver);
}

mirror_reg_entry session_class;
mirror_reg_entry driver_class;

void
bulk_pump()
{
	while (bulk.active && bulk.left > 0) {
		int rc = mirror_direct_send(bulk.id, MIRROR_OP_UPDATE, bulk.record.data(),
		    static_cast<uint32_t>(bulk.record.size()));
		if (rc == EAGAIN)
			return;	/* the ready hook calls again */
		if (rc != 0) {
			out("send-error %d", rc);
			bulk.active = false;
			return;
		}
		bulk.left--;
	}
	if (bulk.active && mirror_direct_flush() == 0) {
		bulk.active = false;
		out("bulk-done");
	}
}

void
command(const std::string &line)
{
	char word[32] = "";
	sscanf(line.c_str(), "%31s", word);
	std::string cmd = word;
	if (cmd == "send") {
		unsigned id;
		int pos = 0;
		if (sscanf(line.c_str(), "send %u %n", &id, &pos) < 1 || pos == 0) {
			out("bad-command %s", line.c_str());
			return;
		}
		std::string text = line.substr(pos);
		int rc = mirror_direct_send(static_cast<uint16_t>(id), MIRROR_OP_ADD,
		    text.data(), static_cast<uint32_t>(text.size()));
		if (rc == 0)
			rc = mirror_direct_flush();
		if (rc == 0 || rc == EAGAIN)
			out("sent");
		else
			out("send-error %d", rc);
	} else if (cmd == "bulk") {
		unsigned id;
		unsigned long long count;
		unsigned size;
		if (sscanf(line.c_str(), "bulk %u %llu %u", &id, &count, &size) != 3) {
			out("bad-command %s", line.c_str());
			return;
		}
		bulk.active = true;
		bulk.id = static_cast<uint16_t>(id);
		bulk.left = count;
		bulk.record.assign(size, 'b');
		bulk_pump();
	} else if (cmd == "switchover") {
		mirror_re_switchover_event();
		out("switchover-done");
	} else if (cmd == "status") {
		const mirror_link_stats *s = mirror_stats();
		out("status connected=%d standby_missing=%d master=%d closes=%u "
		    "stream_errors=%u last_errno=%d",
		    mirror_connected(), mirror_standby_missing(),
		    mirror_state_get()->is_master, s->ms_closes, s->ms_stream_errors,
		    s->ms_last_errno);
	} else if (cmd == "peer") {
		const mirror_peer_record *p = mirror_peer_info();
		std::string dbs;
		for (const mirror_peer_db *d = p->mpi_dbs; d != nullptr; d = d->mpd_next) {
			char buf[300];
			snprintf(buf, sizeof(buf), "%s%u:%s:%u", dbs.empty() ? "" : ",",
			    d->mpd_data_id, d->mpd_name, d->mpd_status);
			dbs += buf;
		}
		out("peer gen=%u version=%u.%u%c keepalive=%u bufsize=%u flags=%u "
		    "known2=%d known3=%d dbs=%s",
		    p->mpi_cntrl_gen, p->mpi_version.major, p->mpi_version.minor,
		    p->mpi_version.letter ? p->mpi_version.letter : '-', p->mpi_keepalive,
		    p->mpi_buf_size, p->mpi_flags, mirror_peer_known(2),
		    mirror_peer_known(3), dbs.c_str());
	} else if (cmd == "terminate") {
		mirror_terminate(nullptr);
		out("terminated");
	} else if (cmd == "quit") {
		quitting = true;
		__evBreak(ev);
	} else if (driver_queue_command(cmd, line)) {
		/* done */
	} else if (!cmd.empty()) {
		out("bad-command %s", line.c_str());
	}
}

void
stdin_ready(evContext, void *, int fd, int)
{
	char buf[4096];
	ssize_t n = read(fd, buf, sizeof(buf));
	if (n <= 0) {
		if (n < 0 && errno == EINTR)
			return;
		quitting = true;
		__evBreak(ev);
		return;
	}
	input.append(buf, static_cast<size_t>(n));
	size_t nl;
	while ((nl = input.find('\n')) != std::string::npos) {
		std::string line = input.substr(0, nl);
		input.erase(0, nl + 1);
		command(line);
		if (quitting)
			return;
	}
}

void
timer_fatal(const char *message)
{
	fprintf(stderr, "timer failure: %s\n", message);
	abort();
}

void
fill_class(mirror_reg_entry *e, uint8_t id, void (*dec)(mirror_recvd_data *))
{
	e->mirror_data_lock_func = node_nothing;
	e->mirror_data_unlock_func = node_nothing;
	e->mirror_data_encode_func = encode_nothing;
	e->mirror_data_decode_func = dec;
	e->mirror_data_get_next_func = next_nothing;
	e->mirror_data_eod_func = eod;
	e->mirror_receiver = MIRROR_RECEIVER_BOTH;
	e->mirror_data_id = id;
}

} // namespace

extern "C" void
mirror_report(int code, const char *text)
{
	out("report %d %s", code, text);
}

int
main(int argc, char **argv)
{
	int port = MIRROR_PORT;
	const char *trace_path = "/var/log/mirror-driver";
	bool first_gen_only = false;
	bool quiet = false;
	bool queue_class = false;
	int opt;
	while ((opt = getopt(argc, argv, "p:t:n:1qQ")) != -1) {
		switch (opt) {
		case 'p':
			port = atoi(optarg);
			break;
		case 't':
			trace_path = optarg;
			break;
		case 'n':
			db_table[3].name = optarg;
			break;
		case '1':
			first_gen_only = true;
			break;
		case 'q':
			quiet = true;
			break;
		case 'Q':
			queue_class = true;
			break;
		default:
			fprintf(stderr, "usage: mirror-driver [-p port] [-t trace] "
			    "[-n name] [-1] [-q] [-Q]\n");
			return 2;
		}
	}
	if (__evCreate(&ev) != 0)
		return 1;
	otimer_context_t *timers = otimer_context_create(ev, timer_fatal);

	mirror_state st{};
	st.mirror_db_table = db_table;
	st.mirror_first_id = 0;
	st.MIRROR_DATA_LAST = 4;
	if (queue_class) {
		db_table[4] = {DRIVER_QUEUE_ID, DRIVER_QUEUE_NAME};
		st.MIRROR_DATA_LAST = DRIVER_QUEUE_ID + 1;
	}
	st.mirror_ack_id = 1;
	st.mirror_eod_id = 0;
	st.port = static_cast<uint16_t>(port);
	st.is_master = static_cast<uint8_t>(nmchassis_is_generic_protocol_master());
	st.mirror_eventlib_context = ev;
	st.mirror_timer_context = timers;
	st.trace = daemon_trace_initialize(trace_path);
	st.large_buffers = static_cast<uint8_t>(nmchassis_is_virtual_chassis());
	if (mirror_setup(&st) != 0)
		return 1;
	if (first_gen_only)
		mirror_cntrl2_disable();
	fill_class(&session_class, 2, quiet ? decode_quiet : decode);
	session_class.mirror_data_state_func = state_changed;
	fill_class(&driver_class, 3, quiet ? decode_quiet : decode);
	mirror_register_data(&session_class);
	mirror_register_data(&driver_class);
	mirror_direct_set_ready(bulk_pump);
	mirror_start();

	evFileID id;
	__evSelectFD(ev, STDIN_FILENO, EV_READ, stdin_ready, nullptr, &id);
	out("started %s port=%d", st.is_master ? "master" : "standby", port);
	__evMainLoopSync(ev);
	return 0;
}
