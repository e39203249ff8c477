/*
 * mmcq_bench: messages per second and latency to the receiver through a
 * mapped queue, against a unix datagram socket measured in the same run.
 *
 * 16-byte and 512-byte messages, from one and from four sender
 * processes, to one receiver that reads as fast as it can (the queue
 * without wakeups, polled; the socket by blocking reads).  Each message
 * carries its send time; latency is receive time minus send time.  The
 * senders run flat out, so latency includes the backlog that builds up
 * ahead of the receiver (the queue holds it; the socket makes its senders
 * wait instead).
 */
#include "mmf/mmcq.h"
#include "platform/ev.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint32_t kTotal = 200000;
constexpr uint32_t kBytes = 16 << 20;
constexpr uint32_t kMaxMsg = 1024;

uint64_t now_ns()
{
	struct timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return uint64_t(ts.tv_sec) * 1000000000ull + uint64_t(ts.tv_nsec);
}

struct result {
	double per_sec, avg_us, p99_us;
};

result summarise(std::vector<uint64_t> &lat, double secs)
{
	std::sort(lat.begin(), lat.end());
	double sum = 0;
	for (uint64_t l : lat)
		sum += double(l);
	return {double(lat.size()) / secs, sum / double(lat.size()) / 1e3,
	    double(lat[lat.size() * 99 / 100]) / 1e3};
}

void stamp(uint8_t *buf)
{
	uint64_t t = now_ns();
	memcpy(buf, &t, 8);
}

uint64_t age(const uint8_t *buf)
{
	uint64_t t;
	memcpy(&t, buf, 8);
	return now_ns() - t;
}

result run_mmcq(uint32_t size, int senders, int round)
{
	std::string name = "bench" + std::to_string(round);
	evContext ev;
	__evCreate(&ev);
	mmcq_t *rx = mmcq_receiver_create(name.c_str(), &ev, nullptr, kMaxMsg,
	    kBytes, kBytes, 0, 0, nullptr);
	if (rx == nullptr)
		exit(1);
	uint32_t each = kTotal / uint32_t(senders);
	for (int s = 0; s < senders; s++) {
		if (fork() != 0)
			continue;
		mmcq_t *tx = mmcq_sender_create(name.c_str(), &ev, kMaxMsg,
		    kBytes, kBytes, 0, 0, nullptr, nullptr);
		uint8_t buf[kMaxMsg] = {};
		for (uint32_t i = 0; i < each; i++) {
			stamp(buf);
			while (mmcq_send(tx, buf, size) == MMCQ_Q_FULL)
				sched_yield();
		}
		_exit(0);
	}
	std::vector<uint64_t> lat;
	lat.reserve(kTotal);
	uint8_t buf[kMaxMsg];
	double start = double(now_ns());
	while (lat.size() < each * uint32_t(senders)) {
		uint32_t len = sizeof(buf);
		if (mmcq_receive(rx, buf, &len) == MMCQ_SUCCESS)
			lat.push_back(age(buf));
		else
			sched_yield();
	}
	double secs = (double(now_ns()) - start) / 1e9;
	while (wait(nullptr) > 0)
		;
	mmcq_delete(rx);
	__evDestroy(ev);
	return summarise(lat, secs);
}

result run_dgram(uint32_t size, int senders)
{
	int sv[2];
	if (socketpair(AF_UNIX, SOCK_DGRAM, 0, sv) != 0)
		exit(1);
	int big = 4 << 20;
	setsockopt(sv[0], SOL_SOCKET, SO_RCVBUF, &big, sizeof(big));
	uint32_t each = kTotal / uint32_t(senders);
	for (int s = 0; s < senders; s++) {
		if (fork() != 0)
			continue;
		close(sv[0]);
		uint8_t buf[kMaxMsg] = {};
		for (uint32_t i = 0; i < each; i++) {
			stamp(buf);
			if (send(sv[1], buf, size, 0) != ssize_t(size))
				_exit(1);
		}
		_exit(0);
	}
	close(sv[1]);
	std::vector<uint64_t> lat;
	lat.reserve(kTotal);
	uint8_t buf[kMaxMsg];
	double start = double(now_ns());
	while (lat.size() < each * uint32_t(senders)) {
		if (recv(sv[0], buf, sizeof(buf), 0) > 0)
			lat.push_back(age(buf));
	}
	double secs = (double(now_ns()) - start) / 1e9;
	while (wait(nullptr) > 0)
		;
	close(sv[0]);
	return summarise(lat, secs);
}

} // namespace

int main()
{
	unshare(CLONE_NEWIPC);
	char tmpl[] = "/tmp/mmcq-bench-XXXXXX";
	if (mkdtemp(tmpl) == nullptr)
		return 1;
	setenv("TOLVAR_ROOT", tmpl, 1);
	setenv("TOLVAR_NO_GCORE", "1", 1);
	printf("%u messages per case; latency is send to receive\n", kTotal);
	int round = 0;
	for (uint32_t size : {16u, 512u}) {
		for (int senders : {1, 4}) {
			result b = run_dgram(size, senders);
			result q = run_mmcq(size, senders, round++);
			printf("%3u bytes, %d sender%s:\n", size, senders,
			    senders == 1 ? " " : "s");
			printf("  %-18s %10.0f msg/s  avg %8.1f us  p99 %8.1f us"
			    "  (baseline)\n", "unix datagram", b.per_sec,
			    b.avg_us, b.p99_us);
			printf("  %-18s %10.0f msg/s  avg %8.1f us  p99 %8.1f us"
			    "  ratio %.2f\n", "mmcq", q.per_sec, q.avg_us,
			    q.p99_us, q.per_sec / b.per_sec);
		}
	}
	std::string rm = std::string("rm -rf ") + tmpl;
	return system(rm.c_str()) == 0 ? 0 : 1;
}
