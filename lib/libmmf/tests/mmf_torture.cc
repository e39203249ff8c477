/*
 * mmf-torture: drives a heap file from a process of its own, for the
 * process tests.  Every command opens FILE with the same geometry.
 *
 *   create FILE              open or make the store
 *   hold FILE                take the lock, say "locked", wait for ever
 *   lock FILE                take the lock; print the wait and takeovers
 *   init-die FILE            die by SIGKILL halfway through initialising
 *   init-stop FILE           stop (SIGSTOP) halfway through initialising
 *   soak FILE SECONDS SEED   allocate, stamp, verify and free at random
 *   check FILE               open, then check the file's bytes
 *   register FILE            open with registration in the meminfo table
 */
#include "mmf/mmf.h"
#include "mmf/mmf_check.h"
#include "platform/paths.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

const uint32_t kSizes[] = {64, 256, 1024, 4096};
constexpr uint64_t kRegion = 256 << 10;

mmf_t *open_store(const char *name, bool *created = nullptr)
{
	return mmf_create(name, 128 * kRegion, 4 * kRegion, 2 * kRegion, false,
	    kRegion, 4, 4, kSizes, 0, created);
}

mmf_t *must_open(const char *name)
{
	mmf_t *m = open_store(name);
	if (m == nullptr) {
		fprintf(stderr, "mmf-torture: cannot open %s: %s\n", name,
		    strerror(mmf_errno));
		exit(1);
	}
	return m;
}

double now_ms()
{
	using namespace std::chrono;
	return duration<double, std::milli>(
	    steady_clock::now().time_since_epoch()).count();
}

int cmd_hold(const char *name)
{
	mmf_t *m = must_open(name);
	signal(SIGTERM, [](int) {});	/* only SIGKILL may end a holder */
	mmf_lock(m);
	printf("locked %d\n", getpid());
	fflush(stdout);
	for (;;)
		pause();
}

int cmd_lock(const char *name)
{
	mmf_t *m = must_open(name);
	double t0 = now_ms();
	mmf_lock(m);
	double t1 = now_ms();
	printf("took_ms=%.1f takeovers=%u\n", t1 - t0,
	    mmf_get_shared_info(m)->dead_holder_takeovers);
	mmf_unlock(m);
	mmf_close(m);
	return 0;
}

struct stamp {
	uint32_t magic;
	uint32_t pid;
	uint64_t seq;
	uint64_t offset;
};

int cmd_soak(const char *name, double seconds, unsigned seed)
{
	mmf_t *m = must_open(name);
	std::mt19937 rng(seed ^ static_cast<unsigned>(getpid()));
	struct block {
		uint64_t off;
		uint64_t seq;
	};
	std::vector<block> live;
	uint64_t seq = 0, allocs = 0, frees = 0;
	double end = now_ms() + seconds * 1000;
	auto verify = [&](const block &b) {
		stamp s;
		memcpy(&s, mmf_ensure_mapped(m, b.off, sizeof(s)), sizeof(s));
		if (s.magic != 0x50AC50AC || s.pid != uint32_t(getpid()) ||
		    s.seq != b.seq || s.offset != b.off) {
			printf("DOUBLE offset=%llu pid=%u seq=%llu\n",
			    static_cast<unsigned long long>(b.off), s.pid,
			    static_cast<unsigned long long>(s.seq));
			fflush(stdout);
			exit(3);
		}
	};
	while (now_ms() < end) {
		bool do_alloc = live.size() < 50 ||
		    (live.size() < 400 && rng() % 2 == 0);
		if (do_alloc) {
			uint32_t bytes = 24 + rng() % 3000;
			uint64_t off;
			void *p = mmf_alloc(m, bytes, &off);
			if (p == nullptr)
				continue;
			stamp s = {0x50AC50AC, uint32_t(getpid()), ++seq, off};
			memcpy(p, &s, sizeof(s));
			live.push_back({off, seq});
			allocs++;
		} else {
			size_t i = rng() % live.size();
			verify(live[i]);
			mmf_free_offset(m, live[i].off);
			live[i] = live.back();
			live.pop_back();
			frees++;
		}
	}
	for (const block &b : live)
		verify(b);
	printf("ok allocs=%llu frees=%llu\n",
	    static_cast<unsigned long long>(allocs),
	    static_cast<unsigned long long>(frees));
	mmf_close(m);
	return 0;
}

int cmd_check(const char *name)
{
	mmf_t *m = open_store(name);
	if (m == nullptr) {
		printf("open failed: %s\n", strerror(mmf_errno));
		return 1;
	}
	bool valid = mmf_valid(m, false);
	mmf_close(m);
	std::string path = tolvar::path(name);
	int fd = open(path.c_str(), O_RDONLY);
	struct stat st;
	if (fd < 0 || fstat(fd, &st) != 0)
		return 1;
	void *img = mmap(nullptr, st.st_size, PROT_READ, MAP_SHARED, fd, 0);
	mmf_check_report rep;
	mmf_check_status s = mmf_check_image(img, st.st_size, &rep);
	printf("valid=%d check=%s nodes=%llu used=%llu %s\n", valid,
	    mmf_check_status_text(s), static_cast<unsigned long long>(rep.nodes),
	    static_cast<unsigned long long>(rep.used_nodes), rep.detail);
	return valid && s == MMF_CHECK_OK ? 0 : 2;
}

} // namespace

int main(int argc, char **argv)
{
	if (argc < 3) {
		fprintf(stderr, "usage: mmf-torture command FILE [args]\n");
		return 2;
	}
	std::string cmd = argv[1];
	const char *name = argv[2];
	if (cmd == "create" || cmd == "register") {
		bool created = false;
		mmf_t *m = open_store(name, cmd == "register" ? &created : nullptr);
		if (m == nullptr) {
			printf("open failed: %s\n", strerror(mmf_errno));
			return 1;
		}
		printf("ok created=%d current=%llu\n", created,
		    static_cast<unsigned long long>(mmf_get_current_bytes(m)));
		mmf_close(m);
		return 0;
	}
	if (cmd == "hold")
		return cmd_hold(name);
	if (cmd == "lock")
		return cmd_lock(name);
	if (cmd == "init-die") {
		mmf_init_test_hook = [] { raise(SIGKILL); };
		open_store(name);
		return 1;
	}
	if (cmd == "init-stop") {
		mmf_init_test_hook = [] { raise(SIGSTOP); };
		open_store(name);
		return 1;
	}
	if (cmd == "soak" && argc == 5)
		return cmd_soak(name, atof(argv[3]),
		    static_cast<unsigned>(atoi(argv[4])));
	if (cmd == "check")
		return cmd_check(name);
	fprintf(stderr, "mmf-torture: unknown command %s\n", cmd.c_str());
	return 2;
}
