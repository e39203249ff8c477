/*
 * mirror-queue-bench: items through the data queues of the mirror link,
 * between two processes on loopback, against a plain TCP pair that moves
 * the same bytes in the same run.
 *
 * usage: mirror-queue-bench [-m megabytes] [-r runs]
 *
 * The sender keeps a window of items queued (mirror_add); an item comes
 * back to it at its unlock, or with an acknowledgement at the answer.  The
 * receiver counts records in its decode callback.  For 16-byte, 1 KiB and
 * 64 KiB items, with and without acknowledgements, it prints records and
 * bytes per second, the same for TCP, and their ratio; with
 * acknowledgements also the enqueue-to-acknowledgement latency, p50 and
 * p99, under that load, and once more for one item at a time.  The best
 * of the runs is kept for each figure, so that a passing disturbance of
 * the machine does not decide it.
 */
#include "tcp_baseline.h"
#include <orx/mirror_data.h>
#include <platform/ev.h>
#include <timers/otimer.h>

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

const mirror_db_entry db_table[] = {
	{2, "Bench queue"},
	{0, "End-of-database"},
	{1, "Mirror ack"},
	{0, nullptr},
};

struct job {
	uint32_t size;
	uint32_t window;
	uint64_t count;
	uint8_t	ack;
};

struct latency {
	double	p50_us;
	double	p99_us;
};

struct item {
	mirror_data_node node;	/* first: the node is the item */
	clock_type::time_point queued;
	bool	out;		/* held by the library */
	bool	answered;
};

evContext ev;
int cmd_fd = -1;
int result_fd = -1;

/* Receiver. */
uint64_t expect, got;
clock_type::time_point first;

/* Sender. */
job cur;
bool running;
uint64_t left, done;
std::vector<item> pool;
std::vector<item *> free_items;
std::vector<uint8_t> payload;
std::vector<double> lat_us;

void
fatal(const char *message)
{
	fprintf(stderr, "mirror-queue-bench: %s\n", message);
	_exit(1);
}

void
put(const void *p, size_t n)
{
	if (write(result_fd, p, n) != static_cast<ssize_t>(n))
		_exit(1);
}

item *
of(mirror_data_node *n)
{
	return reinterpret_cast<item *>(n);
}

void
item_lock(mirror_data_node *n)
{
	of(n)->out = true;
}

void
item_unlock(mirror_data_node *n)
{
	item *it = of(n);
	it->out = false;
	if (cur.ack && !it->answered)
		return;	/* lost without an answer: not counted */
	free_items.push_back(it);
	done++;
}

int
item_encode(mirror_data_node *, uint8_t *buf, uint32_t room)
{
	if (payload.size() > room)
		return 0;
	std::memcpy(buf, payload.data(), payload.size());
	return static_cast<int>(payload.size());
}

void
item_acked(mirror_data_node *n, int reason)
{
	item *it = of(n);
	it->answered = reason == 0;
	if (it->answered)
		lat_us.push_back(std::chrono::duration<double, std::micro>(
		    clock_type::now() - it->queued).count());
}

void
count_record(mirror_recvd_data *rd)
{
	(void)rd;
	if (expect == 0)
		return;
	if (got++ == 0)
		first = clock_type::now();
	if (got == expect) {
		double secs = std::chrono::duration<double>(clock_type::now() - first).count();
		put(&secs, sizeof(secs));
		expect = 0;
	}
}

mirror_data_node *
no_next(mirror_data_node *)
{
	return nullptr;
}

void
sender_start(const job &j)
{
	cur = j;
	payload.assign(j.size, 0x5a);
	pool.assign(j.window, item{});
	free_items.clear();
	for (item &it : pool) {
		mirror_data_node_init(&it.node, 2);
		free_items.push_back(&it);
	}
	left = j.count;
	done = 0;
	lat_us.clear();
	running = true;
}

void
sender_refill()
{
	while (running && left > 0 && !free_items.empty()) {
		item *it = free_items.back();
		it->answered = false;
		it->queued = clock_type::now();
		if (mirror_add(&it->node, cur.ack) == 0)
			return;	/* the link is not up yet */
		free_items.pop_back();
		left--;
	}
	if (running && done == cur.count) {
		running = false;
		latency l{0, 0};
		if (!lat_us.empty()) {
			std::sort(lat_us.begin(), lat_us.end());
			l.p50_us = lat_us[lat_us.size() / 2];
			l.p99_us = lat_us[std::min(lat_us.size() - 1, lat_us.size() * 99 / 100)];
		}
		put(&l, sizeof(l));
	}
}

void
command_ready(evContext, void *, int fd, int)
{
	job j;
	if (read(fd, &j, sizeof(j)) != static_cast<ssize_t>(sizeof(j)))
		_exit(0);	/* the parent is gone */
	if (j.window == 0) {
		expect = j.count;	/* receiver */
		got = 0;
		char ok = 'r';
		put(&ok, 1);
	} else {
		sender_start(j);
	}
}

/* One engine; never returns. */
[[noreturn]] void
engine(const std::string &root, bool master, uint16_t port)
{
	setenv("TOLVAR_ROOT", root.c_str(), 1);
	signal(SIGPIPE, SIG_IGN);
	__evCreate(&ev);
	mirror_state st{};
	st.mirror_db_table = db_table;
	st.MIRROR_DATA_LAST = 3;
	st.mirror_ack_id = 1;
	st.port = port;
	st.is_master = master;
	st.mirror_eventlib_context = ev;
	st.mirror_timer_context = otimer_context_create(ev, fatal);
	mirror_setup(&st);
	static mirror_reg_entry e;
	e.mirror_data_lock_func = item_lock;
	e.mirror_data_unlock_func = item_unlock;
	e.mirror_data_encode_func = item_encode;
	e.mirror_data_decode_func = count_record;
	e.mirror_data_get_next_func = no_next;
	e.mirror_data_ack_func = item_acked;
	e.mirror_receiver = MIRROR_RECEIVER_BOTH;
	e.mirror_data_id = 2;
	e.mirror_no_resync = 1;
	mirror_register_data(&e);
	mirror_start();
	evFileID id;
	__evSelectFD(ev, cmd_fd, EV_READ, command_ready, nullptr, &id);
	for (;;) {
		sender_refill();
		__evLoopOnce(ev, 10);
	}
}

uint16_t
free_port()
{
	int fd = socket(AF_INET, SOCK_STREAM, 0);
	struct sockaddr_in sin = {};
	sin.sin_family = AF_INET;
	sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	bind(fd, reinterpret_cast<struct sockaddr *>(&sin), sizeof(sin));
	socklen_t len = sizeof(sin);
	getsockname(fd, reinterpret_cast<struct sockaddr *>(&sin), &len);
	close(fd);
	return ntohs(sin.sin_port);
}

void
write_platform(const std::string &root, const char *role)
{
	mkdir(root.c_str(), 0755);
	mkdir((root + "/etc").c_str(), 0755);
	mkdir((root + "/etc/tolvar").c_str(), 0755);
	std::ofstream(root + "/etc/tolvar/platform")
	    << "role = " << role << "\npeer_address = 127.0.0.1\n";
}

struct engine_proc {
	pid_t	pid = -1;
	int	cmd = -1;
	int	result = -1;
};

engine_proc
spawn(const std::string &root, bool master, uint16_t port)
{
	int c[2], r[2];
	if (pipe(c) != 0 || pipe(r) != 0)
		fatal("pipe");
	engine_proc p;
	p.pid = fork();
	if (p.pid == 0) {
		close(c[1]);
		close(r[0]);
		cmd_fd = c[0];
		result_fd = r[1];
		engine(root, master, port);
	}
	close(c[0]);
	close(r[1]);
	p.cmd = c[1];
	p.result = r[0];
	return p;
}

template <typename T>
void
get(int fd, T *v)
{
	if (read(fd, v, sizeof(*v)) != static_cast<ssize_t>(sizeof(*v)))
		fatal("an engine died");
}

struct result {
	double	secs;
	latency	lat;
};

result
run_queue(const engine_proc &recv, const engine_proc &send, const job &j)
{
	job rj{j.size, 0, j.count, 0};
	if (write(recv.cmd, &rj, sizeof(rj)) != static_cast<ssize_t>(sizeof(rj)))
		fatal("receiver");
	char ok;
	get(recv.result, &ok);
	if (write(send.cmd, &j, sizeof(j)) != static_cast<ssize_t>(sizeof(j)))
		fatal("sender");
	result r{};
	get(recv.result, &r.secs);
	get(send.result, &r.lat);
	return r;
}

/* Seconds for a plain TCP pair to move bytes, written in 128 KiB writes. */
double
run_tcp(uint64_t bytes)
{
	return tcp_pair_seconds(bytes, 0x20000);
}

} // namespace

int
main(int argc, char **argv)
{
	unsigned megabytes = 64;
	int runs = 3;
	int opt;
	while ((opt = getopt(argc, argv, "m:r:")) != -1) {
		if (opt == 'm')
			megabytes = static_cast<unsigned>(atoi(optarg));
		else if (opt == 'r')
			runs = atoi(optarg);
		else {
			fprintf(stderr, "usage: mirror-queue-bench [-m megabytes] [-r runs]\n");
			return 2;
		}
	}
	char tmpl[] = "/tmp/mirror-queue-bench.XXXXXX";
	std::string dir = mkdtemp(tmpl);
	write_platform(dir + "/master", "master");
	write_platform(dir + "/standby", "standby");
	uint16_t port = free_port();
	engine_proc recv = spawn(dir + "/master", true, port);
	engine_proc send = spawn(dir + "/standby", false, port);

	printf("%-6s %-4s %12s %10s %12s %10s %7s %10s %10s\n", "item", "ack", "records/s",
	    "MB/s", "tcp rec/s", "tcp MB/s", "ratio", "ack p50us", "ack p99us");
	for (uint32_t size : {16u, 1024u, 65536u}) {
		uint64_t count = std::clamp<uint64_t>((static_cast<uint64_t>(megabytes) << 20) / size,
		    2000, 400000);
		uint32_t window = static_cast<uint32_t>(std::clamp<uint64_t>((4u << 20) / size, 16, 2000));
		double tcp = 0;
		for (int i = 0; i < runs; i++) {
			double s = run_tcp(count * size);
			tcp = tcp == 0 ? s : std::min(tcp, s);
		}
		for (uint8_t ack : {0, 1}) {
			result best{0, {0, 0}};
			for (int i = 0; i < runs; i++) {
				result r = run_queue(recv, send, job{size, window, count, ack});
				if (best.secs == 0 || r.secs < best.secs)
					best = r;
			}
			double rps = static_cast<double>(count) / best.secs;
			double trps = static_cast<double>(count) / tcp;
			printf("%-6u %-4s %12.0f %10.1f %12.0f %10.1f %7.3f", size, ack ? "yes" : "no",
			    rps, rps * size / 1e6, trps, trps * size / 1e6, rps / trps);
			if (ack)
				printf(" %10.1f %10.1f", best.lat.p50_us, best.lat.p99_us);
			printf("\n");
			fflush(stdout);
		}
	}
	/* One item at a time: the latency of the link itself. */
	latency alone{0, 0};
	for (int i = 0; i < runs; i++) {
		result r = run_queue(recv, send, job{16, 1, 2000, 1});
		if (alone.p50_us == 0 || r.lat.p50_us < alone.p50_us)
			alone = r.lat;
	}
	printf("one 16-byte item at a time: enqueue to acknowledgement p50 %.1f us, p99 %.1f us\n",
	    alone.p50_us, alone.p99_us);
	kill(send.pid, SIGKILL);
	kill(recv.pid, SIGKILL);
	waitpid(send.pid, nullptr, 0);
	waitpid(recv.pid, nullptr, 0);
	std::string rm = "rm -rf " + dir;
	return system(rm.c_str()) == 0 ? 0 : 1;
}
