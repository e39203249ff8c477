/*
 * The private handle of an open heap and the helpers shared by the
 * modules of the library.
 */
#ifndef MMF_IMPL_H
#define MMF_IMPL_H

#include "mmf/mmf.h"

#include <atomic>
#include <mutex>
#include <cstdint>
#include <string>
#include <sys/types.h>

struct mmf_mapped_entry;

struct mmf_region {
	uint8_t *ptr;			/* view of this region, or null */
	uint64_t bytes;			/* bytes of the mapping owned here */
	int64_t owner;			/* region that made the mapping */
	mmf_mapped_entry *entry;	/* set on the owner only */
};

struct mmf_mapped_entry {
	int64_t mapping;		/* owning region */
	mmf_mapped_entry *prev;
	mmf_mapped_entry *next;
};

struct mmf {
	mmf_shared_info_t *shared_info;
	uint64_t page_size;
	int fd;
	uint32_t mmap_flags;
	uint32_t create_flags;
	char *name;
	bool whole_mapped;
	bool read_only;
	bool raw;
	uint64_t regions;
	uint64_t max_bytes;
	uint64_t region_map_bytes;
	uint64_t region_shift;
	uint32_t max_mapped_regions;
	uint64_t default_bytes;
	uint64_t grow_by_bytes;
	uint64_t mapped_bytes;
	uint64_t own_allocs;
	uint64_t own_frees;
	bool assert_on_bad;
	uint64_t bytes_before_reset;
	uint32_t shrinks_at_check;
	std::atomic<bool> closing;
	std::atomic<pid_t> locker_thread;
	std::atomic<uint32_t> locker_cnt;
	std::atomic<uint32_t> unlock_in_progress_cnt;
	std::atomic<pid_t> unlock_in_progress[MMF_MAX_UNLOCK_IN_PROGRESS];
	std::atomic<pid_t> closing_thread;
	mmf_region *region_table;
	mmf_mapped_entry *mapped_entries;
	mmf_mapped_entry *mapped_list;
	mmf_mapped_entry *mapped_list_tail;
	mmf_mapped_entry *mapped_list_free;
	mmf_shared_info_t stats;	/* this handle's share of the counters */
	uint64_t meminfo_index;
	bool allocs_allowed;

	/* Private to this rebuild. */
	uint8_t *whole_base;		/* whole mode: the one mapping */
	uint64_t whole_bytes;
	bool no_meminfo;		/* the meminfo table's own heap */
	bool corrupt;			/* damage seen; refuse further work */
	uint32_t want_classes;		/* classes asked for at open */
	uint32_t want_sizes[MMF_MAX_USER_CLASSES];
	std::mutex map_mu;		/* region table, between threads */
	bool registered;
};

/* Raise a counter in the header and in the handle alike. */
#define MMF_BUMP(m, field) do {						\
	(m)->shared_info->field++;					\
	(m)->stats.field++;						\
} while (0)

/*
 * Bytes of the file that fail a check are damage, not a programming error:
 * the operation is abandoned by throwing mmf_damage, which the public entry
 * points catch (no exception leaves the library), and the handle is marked
 * corrupt so that it is not used to write into a damaged store again.
 */
struct mmf_damage {
	const char *expr;
	const char *file;
	int line;
};

#define MMF_CHECK_FILE(expr) do {					\
	if (__builtin_expect(!(expr), 0))				\
		throw mmf_damage{#expr, __FILE__, __LINE__};		\
} while (0)

#define MMF_ASSERT(expr) MMF_ASSERT_TEXT(expr, #expr)

/* The same, with the text operators know in place of the expression. */
#define MMF_ASSERT_TEXT(expr, text) do {				\
	if (__builtin_expect(!(expr), 0))				\
		mmf_detected_fatal_problem(__LINE__, text, __FILE__,	\
		    __LINE__);						\
} while (0)

namespace mmf_impl {

pid_t gettid_cached();
/*
 * True when pid is alive and has this handle's file mapped.  A pid in the
 * lock word or the initialiser field that is alive but does not map the
 * file is a stale word (a reused pid, or damage), never a holder: such a
 * process must not be waited for, let alone killed.
 */
bool holder_alive(mmf_t *m, uint32_t pid);
/* The handles of this process, so that a lock word holding our own pid
 * can be told from one left by a dead process that had the same pid. */
void handle_register(mmf_t *m);
void handle_unregister(mmf_t *m);
bool this_process_holds(mmf_t *m);
uint64_t now_ns();
/* Long waits, shortened in tests by TOLVAR_TEST_TIMESCALE, in ns. */
uint64_t scaled_ns(double seconds);
void sleep_ns(uint64_t ns);
void log_event(const char *tag, const char *func, int line,
    const char *fmt, ...) __attribute__((format(printf, 4, 5)));
std::string resolve(const char *name);

/* Open, in mmf_open.cc. */
bool map_header(mmf_t *m, bool *is_new);
void unmap_all(mmf_t *m);

/* Region mapping, in mmf_map.cc. */
void *map_range(mmf_t *m, uint64_t offset, uint64_t len, bool fatal);
bool remap_whole(mmf_t *m);
void drop_regions(mmf_t *m);
void free_region_table(mmf_t *m);
bool alloc_region_table(mmf_t *m);

/* Nodes, in mmf_node.cc: copies in and out, never pointers kept. */
bool node_read(mmf_t *m, uint64_t off, mmf_node_header_t *n);
void node_write(mmf_t *m, uint64_t off, const mmf_node_header_t *n);
bool trailer_read(mmf_t *m, uint64_t node_off, uint32_t len,
    mmf_node_trailer_t *t);
void trailer_write(mmf_t *m, uint64_t node_off, uint32_t len);
/* Single 4-byte stores: a holder that dies leaves old or new, not both. */
void node_set_len(mmf_t *m, uint64_t off, uint32_t len);
void node_set_flags(mmf_t *m, uint64_t off, uint32_t flags);
/* Lay an unlinked node; the header last, so that a walk never meets a
 * header whose trailer is not yet there. */
void node_lay(mmf_t *m, uint64_t off, uint32_t len, uint32_t flags);
/* fatal: damage throws mmf_damage; otherwise false, with *fault set. */
bool node_valid(mmf_t *m, uint64_t off, mmf_node_header_t *n, bool fatal,
    const char **fault = nullptr);
/* Mark the handle corrupt and report the damage once. */
void note_damage(mmf_t *m, const char *func, const mmf_damage &d);
uint32_t class_of(const mmf_shared_info_t *si, uint32_t len);
void list_push(mmf_t *m, uint64_t off);
void list_remove(mmf_t *m, uint64_t off);
void set_allocation_info(mmf_shared_info_t *si, uint32_t n,
    const uint32_t *sizes);
void add_free_bytes(mmf_t *m, uint64_t from, uint64_t to);
void extend_area(mmf_t *m, uint64_t new_end);
/* The lists match the nodes; *used: the bytes of the nodes in use. */
bool lists_consistent(mmf_t *m, uint64_t *used);
/* Rebuild what a dead lock holder may have left half done. */
bool repair_after_dead_holder(mmf_t *m);

/* Meminfo row of this handle. */
void meminfo_refresh(mmf_t *m);
/* Close the table; the next use opens and checks it again, as a new
 * process would (tests, in a forked child). */
void meminfo_forget();
bool meminfo_refresh_wanted_mmf(mmf_t *m);

} // namespace mmf_impl

#endif
