/*
 * mirror-bench: bytes per second of records over the mirror link between
 * two processes on loopback, against a plain TCP pair that moves the same
 * payload in the same run.  No keepalive is due during a run; the data
 * queues are not involved (records go through the direct path).
 *
 * usage: mirror-bench [-m megabytes] [-r runs]
 *
 * For each record size it prints the payload rate of both and the ratio
 * mirror / TCP; the best of the runs is kept for each, so that a passing
 * disturbance of the machine does not decide the figure.
 */
#include "tcp_baseline.h"
#include "mirror_direct.h"

#include <orx/mirror_data.h>
#include <platform/ev.h>
#include <platform/trace.h>
#include <timers/otimer.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

const mirror_db_entry db_table[] = {
	{2, "Bench data"},
	{0, "End-of-database"},
	{1, "Mirror ack"},
	{0, nullptr},
};

evContext ev;
uint64_t total_bytes;
uint64_t got_bytes;
clock_type::time_point first_byte;
uint64_t left_records;
std::vector<uint8_t> record_buf;
int result_fd = -1;

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
finish()
{
	double secs = std::chrono::duration<double>(clock_type::now() - first_byte).count();
	ssize_t n = write(result_fd, &secs, sizeof(secs));
	(void)n;
	_exit(0);
}

void
nothing(mirror_data_node *)
{
}

int
no_encode(mirror_data_node *, uint8_t *, uint32_t)
{
	return -1;
}

mirror_data_node *
no_next(mirror_data_node *)
{
	return nullptr;
}

void
count_record(mirror_recvd_data *rd)
{
	if (got_bytes == 0)
		first_byte = clock_type::now();
	got_bytes += rd->got_len;
	if (got_bytes >= total_bytes)
		finish();
}

void
pump()
{
	while (left_records > 0) {
		int rc = mirror_direct_send(2, MIRROR_OP_UPDATE, record_buf.data(),
		    static_cast<uint32_t>(record_buf.size()));
		if (rc == EAGAIN)
			return;
		if (rc != 0) {
			fprintf(stderr, "mirror-bench: send failed: %s\n", strerror(rc));
			_exit(1);
		}
		left_records--;
	}
	mirror_direct_flush();
}

void
link_state(int state)
{
	if (state == MIRROR_STATE_UP && left_records > 0)
		pump();
}

void
fatal(const char *message)
{
	fprintf(stderr, "mirror-bench: %s\n", message);
	_exit(1);
}

/* One engine; never returns. */
[[noreturn]] void
engine(const std::string &root, bool master, uint16_t port, uint32_t size)
{
	setenv("TOLVAR_ROOT", root.c_str(), 1);
	__evCreate(&ev);
	mirror_state st{};
	st.mirror_db_table = db_table;
	st.MIRROR_DATA_LAST = 3;
	st.mirror_ack_id = 1;
	st.port = port;
	st.is_master = master;
	st.mirror_eventlib_context = ev;
	st.mirror_timer_context = otimer_context_create(ev, fatal);
	if (getenv("MIRROR_BENCH_TRACE") != nullptr)
		st.trace = daemon_trace_initialize("/var/log/mirror-bench");
	mirror_setup(&st);
	static mirror_reg_entry e;
	e.mirror_data_lock_func = nothing;
	e.mirror_data_unlock_func = nothing;
	e.mirror_data_encode_func = no_encode;
	e.mirror_data_decode_func = count_record;
	e.mirror_data_get_next_func = no_next;
	e.mirror_receiver = MIRROR_RECEIVER_BOTH;
	e.mirror_data_id = 2;
	e.mirror_no_resync = 1;
	e.mirror_data_state_func = link_state;
	mirror_register_data(&e);
	if (!master) {
		record_buf.assign(size, 0x5a);
		left_records = total_bytes / size;
		mirror_direct_set_ready(pump);
	}
	mirror_start();
	__evMainLoopSync(ev);
	_exit(0);
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

double
run_mirror(const std::string &dir, uint32_t size)
{
	uint16_t port = free_port();
	int fds[2];
	if (pipe(fds) != 0)
		return 0;
	pid_t recv_pid = fork();
	if (recv_pid == 0) {
		close(fds[0]);
		result_fd = fds[1];
		engine(dir + "/master", true, port, size);
	}
	close(fds[1]);
	pid_t send_pid = fork();
	if (send_pid == 0)
		engine(dir + "/standby", false, port, size);
	double secs = 0;
	ssize_t n = read(fds[0], &secs, sizeof(secs));
	close(fds[0]);
	kill(send_pid, SIGKILL);
	kill(recv_pid, SIGKILL);
	waitpid(send_pid, nullptr, 0);
	waitpid(recv_pid, nullptr, 0);
	return n == sizeof(secs) && secs > 0 ? static_cast<double>(total_bytes) / secs : 0;
}

double
run_tcp(uint32_t chunk)
{
	double secs = tcp_pair_seconds(total_bytes, chunk);
	return secs > 0 ? static_cast<double>(total_bytes) / secs : 0;
}

} // namespace

int
main(int argc, char **argv)
{
	unsigned megabytes = 256;
	int runs = 3;
	int opt;
	while ((opt = getopt(argc, argv, "m:r:")) != -1) {
		if (opt == 'm')
			megabytes = static_cast<unsigned>(atoi(optarg));
		else if (opt == 'r')
			runs = atoi(optarg);
		else {
			fprintf(stderr, "usage: mirror-bench [-m megabytes] [-r runs]\n");
			return 2;
		}
	}
	total_bytes = static_cast<uint64_t>(megabytes) << 20;
	char tmpl[] = "/tmp/mirror-bench.XXXXXX";
	std::string dir = mkdtemp(tmpl);
	write_platform(dir + "/master", "master");
	write_platform(dir + "/standby", "standby");

	printf("%-8s %14s %14s %8s\n", "record", "mirror MB/s", "tcp MB/s", "ratio");
	for (uint32_t size : {64u, 1024u, 8192u}) {
		/* Keep the payload a whole number of records. */
		uint64_t want = (static_cast<uint64_t>(megabytes) << 20) / size * size;
		total_bytes = want;
		double best_m = 0, best_t = 0;
		for (int i = 0; i < runs; i++) {
			best_m = std::max(best_m, run_mirror(dir, size));
			best_t = std::max(best_t, run_tcp(0x20000));
		}
		printf("%-8u %14.1f %14.1f %8.3f\n", size, best_m / 1e6, best_t / 1e6,
		    best_t > 0 ? best_m / best_t : 0);
		fflush(stdout);
	}
	std::string rm = "rm -rf " + dir;
	return system(rm.c_str()) == 0 ? 0 : 1;
}
