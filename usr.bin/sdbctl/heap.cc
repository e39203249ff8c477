/*
 * sdbctl heap FILE: check a heap file without opening it as a store (no
 * lock is taken and nothing is written) and print its header, size
 * classes and counters.  A damaged file is described, never followed.
 */
#include "sdbctl.h"

#include "mmf/mmf_check.h"
#include "platform/paths.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct counter {
	const char *name;
	size_t offset;
	bool wide;
};

#define C32(f, text) {text, offsetof(mmf_shared_info_t, f), false}
#define C64(f, text) {text, offsetof(mmf_shared_info_t, f), true}
constexpr counter kCounters[] = {
	C32(bad_header_count, "bad header count"),
	C32(region_map_calls, "region map calls"),
	C32(ensure_mapped_calls, "ensure mapped calls"),
	C32(offset_to_ptr_calls, "offset to pointer calls"),
	C32(mmap_calls, "mmap calls"),
	C32(munmap_ok, "munmap successes"),
	C32(munmap_calls, "munmap calls"),
	C32(munmap_failed, "munmap failures"),
	C32(half_unmap_ok, "second-half unmaps"),
	C32(half_unmap_failed, "second-half unmap failures"),
	C32(region_unmap_ok, "region unmaps"),
	C32(region_unmap_failed, "region unmap failures"),
	C32(double_split, "double mappings split"),
	C32(mmap_failed, "mmap failures"),
	C32(create_opens, "opens through create"),
	C32(grow_count, "grows"),
	C64(grown_bytes, "grown bytes"),
	C32(last_check_iters, "last check nodes"),
	C64(lock_count, "locks"),
	C64(unlock_count, "unlocks"),
	C64(contended_count, "contended locks"),
	C64(lock_wait_ns, "lock wait ns"),
	C32(nested_count, "nested locks"),
	C32(deepest_nesting, "deepest nesting"),
	C32(most_spins, "most spins"),
	C32(dead_holder_takeovers, "locks taken from dead holders"),
	C32(relock_at_zero, "relocks at count 0"),
	C32(relock_in_unlock, "relocks during unlock"),
	C32(unlock_word_changed, "unlocks finding the word changed"),
	C32(spins_ended_free, "spins ended by a free lock"),
	C32(last_check_secs, "last check seconds"),
	C32(check_timeouts, "check timeouts"),
	C32(timeout_check_iters, "timed-out check nodes"),
	C32(timeout_check_secs, "timed-out check seconds"),
};
#undef C32
#undef C64

const char *magic_text(uint32_t magic)
{
	switch (magic) {
	case MMF_MAGIC_READY:
		return "ready";
	case MMF_MAGIC_INIT:
		return "initialising";
	case MMF_MAGIC_NONE:
		return "none";
	default:
		return "not a heap";
	}
}

void print_header(const mmf_shared_info_t &si)
{
	printf("header:\n");
	printf("  %-28s %u\n", "version", si.version);
	printf("  %-28s %u\n", "header bytes", si.header_bytes);
	printf("  %-28s 0x%08x (%s)\n", "magic", si.magic, magic_text(si.magic));
	printf("  %-28s %" PRIu64 "\n", "current bytes", si.current_bytes);
	printf("  %-28s %" PRIu64 "\n", "first allocation offset",
	    si.first_alloc_offset);
	printf("  %-28s %" PRIu64 "\n", "allocated bytes", si.allocated_bytes);
	printf("  %-28s %u\n", "allocations", si.alloc_count);
	printf("  %-28s %u\n", "frees", si.free_count);
	printf("  %-28s %" PRIu64 " (%u bytes)\n", "common area",
	    si.common_offset, si.common_len);
	printf("  %-28s %u\n", "raw", si.raw);
	printf("  %-28s %u\n", "created", si.created);
	printf("  %-28s %u\n", "lock holder", si.lockerpid);
	printf("  %-28s %u\n", "initialiser", si.initializer);
	printf("  %-28s %u\n", "last mapper", si.last_mapper);
	printf("  %-28s %u\n", "last unmapper", si.last_unmapper);
}

void print_classes(const mmf_shared_info_t &si)
{
	unsigned n = si.num_alloc_sizes <= MMF_MAX_CLASSES ?
	    si.num_alloc_sizes : MMF_MAX_CLASSES;
	printf("size classes: %u\n", n);
	printf("  %5s %12s %12s %12s %12s\n", "CLASS", "NODE_BYTES", "ALLOCS",
	    "FREES", "FREE_HEAD");
	for (unsigned i = 0; i < n; i++)
		printf("  %5u %12u %12u %12u %12" PRIu64 "\n", i,
		    si.alloc_sizes[i], si.allocs_by_class[i],
		    si.frees_by_class[i], si.free_heads[i]);
}

void print_counters(const mmf_shared_info_t &si)
{
	const auto *base = reinterpret_cast<const uint8_t *>(&si);
	printf("counters:\n");
	for (const counter &c : kCounters) {
		uint64_t v = 0;
		if (c.wide)
			memcpy(&v, base + c.offset, 8);
		else {
			uint32_t v32;
			memcpy(&v32, base + c.offset, 4);
			v = v32;
		}
		printf("  %-34s %" PRIu64 "\n", c.name, v);
	}
	printf("  %-34s", "contention by spins");
	for (uint32_t h : si.contention_hist)
		printf(" %u", h);
	printf("\n");
}

} // namespace

int sdbctl_heap(int argc, char **argv)
{
	if (argc != 2) {
		fprintf(stderr, "usage: sdbctl heap FILE\n");
		return SDBCTL_EXIT_USAGE;
	}
	const char *name = argv[1];
	std::string path = name[0] == '/' ? tolvar::path(name) : name;
	/*
	 * Not a mapping: a store truncated by its owner while we look would
	 * kill us with SIGBUS.  O_NONBLOCK keeps a FIFO from hanging us.
	 */
	int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
	struct stat st;
	if (fd < 0 || fstat(fd, &st) != 0) {
		fprintf(stderr, "sdbctl: heap %s: %s\n", name, strerror(errno));
		if (fd >= 0)
			close(fd);
		return SDBCTL_EXIT_FAIL;
	}
	if (!S_ISREG(st.st_mode)) {
		fprintf(stderr, "sdbctl: heap %s: not a regular file\n", name);
		close(fd);
		return SDBCTL_EXIT_FAIL;
	}
	/* Read in pieces: a store may be several GiB. */
	auto read_at = [](void *ctx, uint64_t off, void *buf, size_t len) {
		int rfd = *static_cast<int *>(ctx);
		size_t done = 0;
		while (done < len) {
			ssize_t n = pread(rfd, static_cast<char *>(buf) + done,
			    len - done, static_cast<off_t>(off + done));
			if (n < 0 && errno == EINTR)
				continue;
			if (n <= 0)
				break;	/* shrank under us */
			done += static_cast<size_t>(n);
		}
		return done;
	};
	uint64_t size = static_cast<uint64_t>(st.st_size);
	mmf_check_report rep;
	mmf_check_status s = mmf_check_file(read_at, &fd, size, &rep);
	mmf_shared_info_t si;
	bool have_header = size >= sizeof(si) &&
	    read_at(&fd, 0, &si, sizeof(si)) == sizeof(si);
	close(fd);
	printf("heap %s: %" PRIu64 " bytes\n", name, size);
	if (have_header) {
		print_header(si);
		print_classes(si);
		print_counters(si);
	}
	if (s == MMF_CHECK_OK || rep.repairable)
		printf("nodes: %" PRIu64 " (%" PRIu64 " in use, %" PRIu64
		    " bytes; %" PRIu64 " free, %" PRIu64 " bytes)\n", rep.nodes,
		    rep.used_nodes, rep.used_bytes, rep.free_nodes,
		    rep.free_bytes);
	if (s != MMF_CHECK_OK && rep.repairable) {
		/* The library puts these right at the next open. */
		printf("repairable: %s%s%s\n", mmf_check_status_text(s),
		    rep.detail[0] != '\0' ? ": " : "", rep.detail);
		if (have_header && si.lockerpid != 0)
			printf("lock held by pid %u: the store may be changing\n",
			    si.lockerpid);
		return 0;
	}
	if (s != MMF_CHECK_OK) {
		fprintf(stderr, "sdbctl: heap %s: damaged: %s (at offset %" PRIu64
		    ")%s%s\n", name, mmf_check_status_text(s), rep.bad_offset,
		    rep.detail[0] != '\0' ? ": " : "", rep.detail);
		return SDBCTL_EXIT_FAIL;
	}
	printf("valid\n");
	return 0;
}
