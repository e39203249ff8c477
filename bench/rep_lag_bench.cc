/*
 * rep-lag-bench: how long a new session id takes to reach the standby.
 *
 * Brings up a two-engine lab (tolvar-lab: keel and tolvard on each
 * engine, a veth link between them), then runs itself once inside each
 * engine: a watcher on the standby that notes every change of the id word
 * with its CLOCK_MONOTONIC time, and a generator on the master that hands
 * out ids with sdb_id_generate at uneven gaps, noting when each was made.
 * The lag of an id is the time from its generation to the first moment
 * the standby's word holds it or a later one.  The master's poll period
 * (100 ms) is the floor the lag is reported against: an id waits for the
 * next tick of the poll, then crosses the link.
 *
 * usage: rep-lag-bench [count]
 *        rep-lag-bench --watch count file	(inside the standby)
 *        rep-lag-bench --generate count file	(inside the master)
 */
#include <sdb/sdb.h>
#include <sdb/sdb_id.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr double poll_ms = 100.0;
constexpr uint64_t give_up_ns = 120ull * 1000000000ull;

uint64_t now_ns(void)
{
	struct timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return (uint64_t)ts.tv_sec * 1000000000ull + (uint64_t)ts.tv_nsec;
}

void sleep_us(long us)
{
	struct timespec ts = {us / 1000000, (us % 1000000) * 1000};
	while (nanosleep(&ts, &ts) != 0 && errno == EINTR)
		;
}

int attach(void)
{
	int rc = sdb_open_internal(false);
	if (rc != 0)
		fprintf(stderr, "rep-lag-bench: session database: %s (%d)\n",
		    sdb_strerror(rc), rc);
	return rc;
}

/* Standby: every change of the word, until it reaches start + count. */
int watch(uint64_t count, const char *file)
{
	if (attach() != 0)
		return 1;
	uint64_t last = sdb_id_get(), target = last + count;
	std::vector<std::pair<uint64_t, uint64_t>> changes;
	printf("ready %" PRIu64 "\n", last);
	fflush(stdout);
	uint64_t start = now_ns();
	while (last < target && now_ns() - start < give_up_ns) {
		uint64_t v = sdb_id_get();
		if (v != last) {
			changes.emplace_back(v, now_ns());
			last = v;
		}
		sleep_us(100);
	}
	FILE *f = fopen(file, "w");
	if (f == nullptr)
		return 1;
	for (auto &[v, t] : changes)
		fprintf(f, "%" PRIu64 " %" PRIu64 "\n", v, t);
	fclose(f);
	return last >= target ? 0 : 1;
}

/* Master: count ids at gaps of 2 to 12 ms, so they fall on every phase
 * of the poll. */
int generate(uint64_t count, const char *file)
{
	if (attach() != 0)
		return 1;
	std::mt19937 rng(7);
	std::uniform_int_distribution<long> gap(2000, 12000);
	std::vector<std::pair<uint64_t, uint64_t>> made;
	for (uint64_t i = 0; i < count; i++) {
		uint64_t id = 0;
		if (sdb_id_generate(&id) != 0)
			return 1;
		made.emplace_back(id, now_ns());
		sleep_us(gap(rng));
	}
	FILE *f = fopen(file, "w");
	if (f == nullptr)
		return 1;
	for (auto &[v, t] : made)
		fprintf(f, "%" PRIu64 " %" PRIu64 "\n", v, t);
	fclose(f);
	return 0;
}

std::vector<std::pair<uint64_t, uint64_t>> read_pairs(const std::string &file)
{
	std::vector<std::pair<uint64_t, uint64_t>> out;
	FILE *f = fopen(file.c_str(), "r");
	if (f == nullptr)
		return out;
	unsigned long long a, b;
	while (fscanf(f, "%llu %llu", &a, &b) == 2)
		out.emplace_back(a, b);
	fclose(f);
	return out;
}

/* The lab, driven through its command. */
struct lab {
	std::string dir, env;

	int run(const std::string &args, std::string *out = nullptr) const
	{
		std::string cmd = env + " " TOLVAR_LAB_COMMAND " " + args;
		FILE *p = popen(cmd.c_str(), "r");
		if (p == nullptr)
			return -1;
		char buf[512];
		std::string text;
		while (fgets(buf, sizeof(buf), p) != nullptr)
			text += buf;
		if (out != nullptr)
			*out = text;
		int st = pclose(p);
		return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
	}

	uint64_t id(const char *engine) const
	{
		std::string out;
		if (run(std::string("exec ") + engine + " sdbctl id show 2>/dev/null",
		    &out) != 0)
			return UINT64_MAX;
		return strtoull(out.c_str(), nullptr, 10);
	}
};

bool wait_until(const lab &l, bool (*ok)(const lab &))
{
	for (int i = 0; i < 600; i++) {
		if (ok(l))
			return true;
		sleep_us(100000);
	}
	return false;
}

double percentile(std::vector<double> v, double p)
{
	std::sort(v.begin(), v.end());
	size_t k = (size_t)(p / 100.0 * (double)(v.size() - 1) + 0.5);
	return v[std::min(k, v.size() - 1)];
}

int measure(const lab &l, uint64_t count, const char *self)
{
	std::string watch_file = l.dir + "/watch", gen_file = l.dir + "/made";
	std::string n = std::to_string(count);
	std::string cmd = l.env + " " TOLVAR_LAB_COMMAND " exec re1 " + self +
	    " --watch " + n + " " + watch_file;
	FILE *watcher = popen(cmd.c_str(), "r");
	char line[128] = "";
	if (watcher == nullptr || fgets(line, sizeof(line), watcher) == nullptr ||
	    strncmp(line, "ready", 5) != 0) {
		fprintf(stderr, "rep-lag-bench: the watcher did not start\n");
		return 1;
	}
	int rc = l.run("exec re0 " + std::string(self) + " --generate " + n +
	    " " + gen_file);
	int wrc = pclose(watcher);
	if (rc != 0 || !WIFEXITED(wrc) || WEXITSTATUS(wrc) != 0) {
		fprintf(stderr, "rep-lag-bench: a run failed (%d, %d)\n", rc, wrc);
		return 1;
	}
	auto made = read_pairs(gen_file), seen = read_pairs(watch_file);
	std::vector<double> lag_ms;
	size_t j = 0;
	for (auto &[id, t] : made) {
		while (j < seen.size() && seen[j].first < id)
			j++;
		if (j == seen.size())
			break;
		lag_ms.push_back((double)(seen[j].second - t) / 1e6);
	}
	if (lag_ms.size() != made.size() || made.empty()) {
		fprintf(stderr, "rep-lag-bench: %zu of %zu ids seen\n",
		    lag_ms.size(), made.size());
		return 1;
	}
	double p50 = percentile(lag_ms, 50), p99 = percentile(lag_ms, 99);
	double mx = *std::max_element(lag_ms.begin(), lag_ms.end());
	printf("session id replication lag, master to standby, %zu ids\n",
	    lag_ms.size());
	printf("  poll period (floor)  %7.1f ms\n", poll_ms);
	printf("  p50                  %7.1f ms  (%.2f x poll period)\n", p50,
	    p50 / poll_ms);
	printf("  p99                  %7.1f ms  (%.2f x poll period)\n", p99,
	    p99 / poll_ms);
	printf("  max                  %7.1f ms  (%.2f x poll period)\n", mx,
	    mx / poll_ms);
	return 0;
}

bool linked(const lab &l)
{
	uint64_t a = l.id("re0"), b = l.id("re1");
	return a != UINT64_MAX && a == b && a != 0;
}

bool answering(const lab &l)
{
	return l.id("re0") != UINT64_MAX && l.id("re1") != UINT64_MAX;
}

int drive(uint64_t count, const char *self)
{
	if (geteuid() != 0) {
		printf("rep-lag-bench: skipped, the lab needs root\n");
		return 0;
	}
	char tmpl[] = "/tmp/rlbXXXXXX";
	if (mkdtemp(tmpl) == nullptr)
		return 1;
	lab l;
	l.dir = tmpl;
	l.env = "TOLVAR_BIN=" TOLVAR_BIN_DIR " TOLVAR_LAB_DIR=" + l.dir +
	    " TOLVAR_LAB_NAME=rlb" + std::to_string(getpid() % 10000) +
	    " TOLVAR_LAB_SUBNET=10.94.0";
	if (l.run("up >/dev/null") != 0) {
		fprintf(stderr, "rep-lag-bench: the lab did not come up\n");
		return 1;
	}
	int rc = 1;
	/* One id first: the standby holds the master's word once it has it,
	 * so both start from the same value. */
	if (wait_until(l, answering) &&
	    l.run("exec re0 sdbctl id generate >/dev/null") == 0 &&
	    wait_until(l, linked))
		rc = measure(l, count, self);
	else
		fprintf(stderr, "rep-lag-bench: the engines did not get in step\n");
	l.run("down >/dev/null");
	std::string rm = "rm -rf " + l.dir;
	(void)!system(rm.c_str());
	return rc;
}

} // namespace

int main(int argc, char **argv)
{
	if (argc == 4 && strcmp(argv[1], "--watch") == 0)
		return watch(strtoull(argv[2], nullptr, 10), argv[3]);
	if (argc == 4 && strcmp(argv[1], "--generate") == 0)
		return generate(strtoull(argv[2], nullptr, 10), argv[3]);
	uint64_t count = argc > 1 ? strtoull(argv[1], nullptr, 10) : 1000;
	if (count == 0) {
		fprintf(stderr, "usage: rep-lag-bench [count]\n");
		return 2;
	}
	char self[4096];
	ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
	if (n <= 0)
		return 1;
	self[n] = '\0';
	return drive(count, self);
}
