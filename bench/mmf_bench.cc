/*
 * mmf_bench: the heap against glibc malloc, and the cost of taking a lock
 * over from a holder killed by SIGKILL.
 *
 * Allocation: 10^5 live blocks of 16 to 1024 bytes, then 10^6 operations
 * (each a free of a random live block or an allocation in its place),
 * the same sequence for malloc/free and for mmf_alloc/mmf_free_offset, in
 * a whole-mode and a region-mode store.  Reported as time per operation
 * and as a ratio to malloc.
 *
 * Takeover: the time from the holder's death (reaped) to the lock in the
 * next process, when the waiter comes after the death and when it was
 * already waiting; the baseline is an uncontended lock and unlock.
 */
#include "mmf/mmf.h"
#include "platform/paths.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t kLive = 100000;
constexpr size_t kOps = 1000000;
const uint32_t kSizes[] = {16, 32, 64, 128, 256, 512, 1024};

double now_s()
{
	struct timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return ts.tv_sec + ts.tv_nsec / 1e9;
}

struct workload {
	std::vector<uint32_t> sizes;	/* kLive + kOps / 2 */
	std::vector<uint32_t> victims;	/* kOps / 2 */
};

workload make_workload()
{
	std::mt19937 rng(42);
	workload w;
	for (size_t i = 0; i < kLive + kOps / 2; i++)
		w.sizes.push_back(16 + rng() % 1009);
	for (size_t i = 0; i < kOps / 2; i++)
		w.victims.push_back(rng() % kLive);
	return w;
}

double run_malloc(const workload &w)
{
	std::vector<void *> live(kLive);
	for (size_t i = 0; i < kLive; i++) {
		live[i] = malloc(w.sizes[i]);
		memset(live[i], 1, 8);
	}
	double t0 = now_s();
	for (size_t i = 0; i < kOps / 2; i++) {
		uint32_t v = w.victims[i];
		free(live[v]);
		live[v] = malloc(w.sizes[kLive + i]);
		memset(live[v], 1, 8);
	}
	double t = now_s() - t0;
	for (void *p : live)
		free(p);
	return t;
}

double run_mmf(const workload &w, mmf_t *m)
{
	std::vector<uint64_t> live(kLive);
	for (size_t i = 0; i < kLive; i++)
		memset(mmf_alloc(m, w.sizes[i], &live[i]), 1, 8);
	double t0 = now_s();
	for (size_t i = 0; i < kOps / 2; i++) {
		uint32_t v = w.victims[i];
		mmf_free_offset(m, live[v]);
		void *p = mmf_alloc(m, w.sizes[kLive + i], &live[v]);
		if (p == nullptr) {
			fprintf(stderr, "mmf_bench: store full\n");
			exit(1);
		}
		memset(p, 1, 8);
	}
	double t = now_s() - t0;
	for (uint64_t off : live)
		mmf_free_offset(m, off);
	return t;
}

void bench_alloc()
{
	workload w = make_workload();
	double base = run_malloc(w);
	const uint64_t max = 256ull << 20, R = 4ull << 20;
	mmf_t *whole = mmf_create("/mfs/var/bench/whole", max, max, max, true,
	    0, 1, 7, kSizes, 0, nullptr);
	/* 32 regions of 4 MiB: the live set stays mapped, as a store's
	 * geometry should be chosen. */
	mmf_t *regions = mmf_create("/mfs/var/bench/regions", max, 16 * R, R,
	    false, R, 32, 7, kSizes, 0, nullptr);
	if (whole == nullptr || regions == nullptr) {
		fprintf(stderr, "mmf_bench: cannot make the stores\n");
		exit(1);
	}
	double tw = run_mmf(w, whole);
	double tr = run_mmf(w, regions);
	double ops = static_cast<double>(kOps);
	printf("alloc/free, %zu operations over %zu live blocks:\n", kOps, kLive);
	printf("  %-24s %8.1f ns/op  (baseline)\n", "malloc/free", base / ops * 1e9);
	printf("  %-24s %8.1f ns/op  ratio %.2f\n", "mmf whole mode",
	    tw / ops * 1e9, tw / base);
	printf("  %-24s %8.1f ns/op  ratio %.2f\n", "mmf region mode",
	    tr / ops * 1e9, tr / base);
	mmf_delete(whole);
	mmf_delete(regions);
}

/* A child that takes the lock, says so, and waits to be killed. */
pid_t start_holder(mmf_t *m)
{
	int fds[2];
	if (pipe(fds) != 0)
		exit(1);
	pid_t pid = fork();
	if (pid == 0) {
		mmf_lock(m);
		ssize_t n = write(fds[1], "x", 1);
		(void)n;
		for (;;)
			pause();
	}
	char c;
	ssize_t n = read(fds[0], &c, 1);
	(void)n;
	close(fds[0]);
	close(fds[1]);
	return pid;
}

double median(std::vector<double> v)
{
	std::sort(v.begin(), v.end());
	return v[v.size() / 2];
}

void bench_takeover()
{
	const uint32_t sizes[] = {64};
	mmf_t *m = mmf_create("/mfs/var/bench/lock", 1 << 20, 1 << 20, 1 << 20,
	    true, 0, 1, 1, sizes, 0, nullptr);
	const int rounds = 2000;
	double t0 = now_s();
	for (int i = 0; i < rounds; i++) {
		mmf_lock(m);
		mmf_unlock(m);
	}
	double base = (now_s() - t0) / rounds;

	std::vector<double> after;
	for (int i = 0; i < 5; i++) {
		pid_t h = start_holder(m);
		kill(h, SIGKILL);
		waitpid(h, nullptr, 0);
		double s = now_s();
		mmf_lock(m);
		after.push_back(now_s() - s);
		mmf_unlock(m);
	}

	/* The waiter is already spinning when the holder dies. */
	auto *got = static_cast<double *>(mmap(nullptr, sizeof(double),
	    PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
	std::vector<double> during;
	for (int i = 0; i < 3; i++) {
		pid_t h = start_holder(m);
		pid_t w = fork();
		if (w == 0) {
			mmf_lock(m);
			*got = now_s();
			mmf_unlock(m);
			_exit(0);
		}
		usleep(300000);
		kill(h, SIGKILL);
		waitpid(h, nullptr, 0);
		double dead = now_s();
		waitpid(w, nullptr, 0);
		during.push_back(*got - dead);
	}
	printf("lock takeover after SIGKILL (holder reaped):\n");
	printf("  %-32s %10.2f us  (baseline)\n", "uncontended lock+unlock",
	    base * 1e6);
	printf("  %-32s %10.2f ms  ratio %.0f\n", "waiter arriving after death",
	    median(after) * 1e3, median(after) / base);
	printf("  %-32s %10.2f ms  ratio %.0f\n", "waiter already waiting",
	    median(during) * 1e3, median(during) / base);
	printf("  takeovers counted: %u\n",
	    mmf_get_shared_info(m)->dead_holder_takeovers);
	mmf_delete(m);
}

} // namespace

int main()
{
	/* The creation semaphore has a fixed key: keep ours to ourselves. */
	unshare(CLONE_NEWIPC);
	char tmpl[] = "/tmp/mmf-bench-XXXXXX";
	if (mkdtemp(tmpl) == nullptr)
		return 1;
	setenv("TOLVAR_ROOT", tmpl, 1);
	setenv("TOLVAR_NO_GCORE", "1", 1);
	mmf_mkdir_path("/mfs/var/bench");
	bench_alloc();
	bench_takeover();
	std::string cmd = std::string("rm -rf ") + tmpl;
	return system(cmd.c_str()) == 0 ? 0 : 1;
}
