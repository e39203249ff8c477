/*
 * The region of the short-term store: its sizes, creation and attachment,
 * and the entries of the table.
 *
 * Creation.  The region is usable once its format is complete, and the
 * completion mark is written last: the next and prev words of the last
 * entry stay 0 until the heap is formatted and every entry has its slot.
 * The creator formats under an exclusive flock of the file, which the
 * kernel drops when it dies; the next opener then takes the lock at once,
 * finds the mark missing and formats again.  So a waiter waits only while
 * a living process formats, and never on a dead one.
 */
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <syslog.h>

#include "mmf/mmf.h"
#include "platform/logging.h"
#include "platform/paths.h"
#include "sts/sts_impl.h"

namespace sts {
region R;
}
using namespace sts;

namespace {

sdb_sts_flush_fn flush_fn;
/* Bases of the last mappings, for dumps. */
uintptr_t recent_bases[5];
unsigned recent_next;

constexpr uint32_t page = 4096;
constexpr unsigned lock_polls = 12000;	/* of 10 ms: 2 minutes */

/* Test seam: called once in the middle of a format. */
void (*format_hook)(void);

bool format_complete(const uint8_t *base, const sdb_sts_geometry &g)
{
	auto *last = reinterpret_cast<const sdb_sts_entry *>(base +
	    (size_t)(g.total_entries - 1) * SDB_STS_ENTRY_SIZE);
	uint32_t links;
	memcpy(&links, &last->next, 4);
	return links == 0xFFFFFFFFu;
}

int zero_file(int fd, uint32_t bytes)
{
	static const uint8_t zeros[1 << 20] = {};
	for (uint32_t done = 0; done < bytes;) {
		uint32_t n = std::min<uint32_t>(bytes - done, sizeof zeros);
		ssize_t w = pwrite(fd, zeros, n, done);
		if (w < 0 && errno == EINTR)
			continue;
		if (w <= 0)
			return -1;
		done += (uint32_t)w;
	}
	return 0;
}

void format_region(void)
{
	sdb_trace(SDB_TRACE_INFO, "STS format %u bytes, %u entries",
	    R.g.max_bytes, R.g.total_entries);
	for (uint32_t i = 0; i + 1 < R.g.total_entries; i++) {
		entry_at(i)->next = SDB_STS_NO_LINK;
		entry_at(i)->prev = SDB_STS_NO_LINK;
	}
	heap_reset();
	heap_ctl()->defrag_count = 0;
	if (format_hook != nullptr)
		format_hook();
	for (uint32_t i = 0; i < R.g.total_entries; i++) {
		sdb_sts_entry *e = entry_at(i);
		uint32_t off = sdb_sts_heap_alloc(SDB_STS_SLOT_MIN);
		sdb_sts_assert_corruption(off != 0);
		e->data_start_offset = off;
		e->slot_size = SDB_STS_SLOT_MIN;
		entry_reinit(e);
	}
	/* The mark, last: the links of the last entry. */
	sdb_sts_entry *last = entry_at(R.g.total_entries - 1);
	STS_WORD(last, sdb_sts_entry, next).store(0xFFFFFFFFu,
	    std::memory_order_release);
}

/* flock with a bound: a living formatter gets 2 minutes. */
int lock_file(int fd)
{
	for (unsigned i = 0; i < lock_polls; i++) {
		if (flock(fd, LOCK_EX | LOCK_NB) == 0)
			return 0;
		if (errno != EWOULDBLOCK && errno != EINTR)
			return -1;
		usleep(10000);
	}
	return -1;
}

int open_region(const sdb_sts_geometry &g)
{
	std::string path = tolvar::path(SDB_STS_DATA_FILE);
	std::string dir = path.substr(0, path.rfind('/'));
	tolvar_mkdirs(dir.c_str(), 0755);
	int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
	if (fd < 0) {
		sdb_trace(SDB_TRACE_ERR, "Failed to open file %s, %s",
		    path.c_str(), strerror(errno));
		return -1;
	}
	if (lock_file(fd) != 0) {
		sdb_trace(SDB_TRACE_ERR, "Failed to open file %s, %s",
		    path.c_str(), "its creator never finished");
		close(fd);
		return -1;
	}
	struct stat st;
	if (fstat(fd, &st) != 0) {
		close(fd);
		return -1;
	}
	bool fresh = st.st_size == 0;
	if (!fresh && (uint64_t)st.st_size != g.max_bytes) {
		/* Another scale class: its sessions are in other slots.  Keep
		 * it for the operator rather than format it away. */
		sdb_trace(SDB_TRACE_ERR, "Failed to open file %s, %s",
		    path.c_str(), "size does not match the scale class");
		close(fd);
		return -1;
	}
	if (fresh && ftruncate(fd, g.max_bytes) != 0) {
		sdb_trace(SDB_TRACE_ERR, "Truncate failed, len %u, errno %s",
		    g.max_bytes, strerror(errno));
		close(fd);
		return -1;
	}
	void *p = mmap(nullptr, g.max_bytes, PROT_READ | PROT_WRITE, MAP_SHARED,
	    fd, 0);
	if (p == MAP_FAILED) {
		sdb_trace(SDB_TRACE_ERR, "Failed mmap, %s", strerror(errno));
		close(fd);
		return -1;
	}
	R.g = g;
	R.base = static_cast<uint8_t *>(p);
	R.fd = fd;
	if (!format_complete(R.base, g)) {
		/* New, or left half formatted by a creator that died. */
		if (zero_file(fd, g.max_bytes) != 0) {
			sdb_trace(SDB_TRACE_ERR, "STS format failed, %s",
			    strerror(errno));
			munmap(p, g.max_bytes);
			close(fd);
			R = region{};
			return -1;
		}
		format_region();
	}
	flock(fd, LOCK_UN);
	recent_bases[recent_next++ % 5] = (uintptr_t)p;
	return 0;
}

uint32_t home_of(uint64_t sid)
{
	return (uint32_t)((sid - 1) % R.g.home_count);
}

/*
 * The entry lock, as far as this store needs it while one writer works at
 * a time: the pid word is taken by compare-and-swap, a holder may take it
 * again, and a dead holder's lock is taken over.  A live holder of another
 * process makes the caller give up (no waiting yet).
 */
bool entry_lock(sdb_sts_entry *e, int line)
{
	uint32_t me = (uint32_t)getpid();
	auto pid = STS_WORD(e, sdb_sts_entry, lock_pid);
	uint32_t cur = 0;
	if (!pid.compare_exchange_strong(cur, me)) {
		if (cur == me && (uint32_t)e->lock_thread == sdb_thread_id()) {
			e->lock_count++;
			return true;
		}
		if (cur == me || sdb_sts_owner_alive(cur))
			return false;
		if (!pid.compare_exchange_strong(cur, me))
			return false;
		e->lock_count = 0;
	}
	e->lock_thread = sdb_thread_id();
	e->lock_count = 1;
	e->lock_line = (uint16_t)line;
	return true;
}

void entry_unlock(sdb_sts_entry *e)
{
	sdb_sts_assert(e->lock_pid == (uint32_t)getpid() && e->lock_count > 0);
	if (--e->lock_count > 0)
		return;
	e->lock_thread = 0;
	STS_WORD(e, sdb_sts_entry, lock_pid).store(0,
	    std::memory_order_release);
}

} // namespace

/* A holder holds while it lives and maps the store: a live pid that does
 * not map it is a dead holder's pid taken by another process. */
bool sdb_sts_owner_alive(uint32_t pid)
{
	if (!sdb_pid_alive(pid))
		return false;
	return R.fd < 0 || mmf_pid_maps_file((pid_t)pid, R.fd);
}

void sts::entry_reinit(sdb_sts_entry *e)
{
	auto *b = reinterpret_cast<uint8_t *>(e);
	memset(b + 16, 0, 60 - 16);
	e->dirty_flags = 0;
	e->next = SDB_STS_NO_LINK;
	e->prev = SDB_STS_NO_LINK;
	uint8_t *slot = sdb_sts_slot(e);
	memset(slot, 0, 4);
	auto *n = at<sdb_sts_free_node>(slot, 4);
	n->len = (uint16_t)(e->slot_size - 4);
	n->next = 0;
	e->free_list_offset = 4;
}

extern "C" int sdb_sts_geometry_for(uint64_t bytes, uint32_t unit,
    sdb_sts_geometry *g)
{
	unit = (unit + page - 1) / page * page;
	if (unit == 0 || bytes == 0)
		return SDB_ERR_PARAM;
	uint64_t max = (bytes + unit - 1) / unit * unit;
	uint64_t total = max / unit;
	if (max > UINT32_MAX || total <= SDB_STS_OVERFLOW_ENTRIES ||
	    total >= SDB_STS_NO_LINK)
		return SDB_ERR_PARAM;
	g->max_bytes = (uint32_t)max;
	g->alloc_bytes = unit;
	g->total_entries = (uint32_t)total;
	g->home_count = (uint32_t)total - SDB_STS_OVERFLOW_ENTRIES;
	g->heap_ctl_offset = (uint32_t)total * SDB_STS_ENTRY_SIZE;
	g->heap_start = g->heap_ctl_offset + SDB_STS_HEAP_CTL_SIZE;
	/* Every entry needs its first slot. */
	if ((uint64_t)g->heap_start + total * SDB_STS_SLOT_MIN > max)
		return SDB_ERR_PARAM;
	return 0;
}

extern "C" int sdb_sts_init(uint64_t bytes, uint32_t unit)
{
	if (R.base != nullptr)
		return 0;
	sdb_sts_geometry g;
	if (sdb_sts_geometry_for(bytes, unit, &g) != 0 || open_region(g) != 0)
		return SDB_ERR_NOMEM;
	return 0;
}

extern "C" void sdb_sts_close(void)
{
	if (R.base == nullptr)
		return;
	munmap(R.base, R.g.max_bytes);
	close(R.fd);
	R = region{};
}

extern "C" void sdb_sts_quiesce(void)
{
}

extern "C" int sdb_sts_is_open(void)
{
	return R.base != nullptr;
}

extern "C" const sdb_sts_geometry *sdb_sts_geometry_get(void)
{
	return R.base != nullptr ? &R.g : nullptr;
}

extern "C" uint8_t *sdb_sts_base(void)
{
	return R.base;
}

extern "C" uint8_t *sdb_sts_slot(const sdb_sts_entry *e)
{
	if (in_mapping(e))
		return R.base + e->data_start_offset;
	/* A private copy: the slot bytes follow the 76 entry bytes. */
	return const_cast<uint8_t *>(reinterpret_cast<const uint8_t *>(e)) +
	    SDB_STS_ENTRY_SIZE;
}

extern "C" void sdb_sts_set_flush_fn(sdb_sts_flush_fn fn)
{
	flush_fn = fn;
}

extern "C" uint32_t sdb_sts_entry_index(const sdb_sts_entry *e)
{
	return (uint32_t)((reinterpret_cast<const uint8_t *>(e) - R.base) /
	    SDB_STS_ENTRY_SIZE);
}

extern "C" sdb_sts_entry *sdb_sts_entry_get_by_index(uint32_t index)
{
	if (R.base == nullptr || index >= R.g.total_entries)
		return nullptr;
	sdb_sts_entry *e = entry_at(index);
	return entry_lock(e, __LINE__) ? e : nullptr;
}

extern "C" sdb_sts_entry *sdb_sts_entry_find(uint64_t sid)
{
	if (R.base == nullptr || sid == 0)
		return nullptr;
	for (uint32_t i = home_of(sid), n = 0;
	    i < R.g.total_entries && n <= SDB_STS_OVERFLOW_ENTRIES;
	    i = entry_at(i)->next, n++) {
		sdb_sts_entry *e = entry_at(i);
		if (e->session_id != sid)
			continue;
		if (!entry_lock(e, __LINE__))
			return nullptr;
		if (e->session_id == sid)
			return e;
		entry_unlock(e);
		return nullptr;
	}
	return nullptr;
}

/* Nothing to load from yet: a session is found in the store or not at all. */
extern "C" sdb_sts_entry *sdb_sts_entry_get(uint64_t sid)
{
	return sdb_sts_entry_find(sid);
}

/*
 * The home entry for a new session.  A resident session is pushed out only
 * through the flush function, since it would be lost otherwise: without
 * one, a busy home entry gives none and the caller reports -2.
 */
extern "C" sdb_sts_entry *sdb_sts_entry_create(uint64_t sid)
{
	if (R.base == nullptr || sid == 0)
		return nullptr;
	sdb_sts_entry *e = entry_at(home_of(sid));
	if (!entry_lock(e, __LINE__))
		return nullptr;
	if (e->lock_count > 1) {
		sdb_sts_assert_corruption(e->session_id != sid);
		entry_unlock(e);
		return nullptr;
	}
	if (e->session_id == sid)
		return e;
	if (e->session_id != 0) {
		if (flush_fn == nullptr || flush_fn(e) != 0) {
			entry_unlock(e);
			return nullptr;
		}
	}
	entry_reinit(e);
	e->session_id = sid;
	return e;
}

extern "C" void sdb_sts_entry_release(sdb_sts_entry *e)
{
	if (e != nullptr)
		entry_unlock(e);
}

extern "C" int sdb_sts_entry_clear_session(uint64_t sid)
{
	sdb_sts_entry *e = sdb_sts_entry_find(sid);
	if (e == nullptr)
		return SDB_ERR_NOT_FOUND;
	e->session_id = 0;
	entry_unlock(e);
	return 0;
}

extern "C" int sdb_sts_entry_remove(uint64_t sid)
{
	sdb_sts_entry *e = sdb_sts_entry_find(sid);
	if (e == nullptr)
		return SDB_ERR_NOT_FOUND;
	if (e->slot_size > 5 * page) {
		/* A large slot goes back; a small one takes its place. */
		uint32_t small = sdb_sts_heap_alloc(SDB_STS_SLOT_MIN);
		if (small != 0) {
			sdb_sts_heap_free(e->data_start_offset, e->slot_size);
			e->data_start_offset = small;
			e->slot_size = SDB_STS_SLOT_MIN;
		}
	}
	entry_reinit(e);
	entry_unlock(e);
	return 0;
}

/* Test seam of the format, not in the public header. */
void sdb_sts_set_format_hook(void (*fn)(void))
{
	format_hook = fn;
}

volatile int sdb_sts_assert_line;

[[noreturn]] void sdb_sts_assert_fail(const char *expr, const char *file,
    int line)
{
	sdb_sts_assert_line = line;
	sdb_trace(SDB_TRACE_ERR, "sdb_sts_assert: %s at %s:%d", expr, file,
	    line);
	fprintf(stderr, "Assertion failed: (%s), file %s, line %d.\n", expr,
	    file, line);
	abort();
}

[[noreturn]] void sdb_sts_corruption_fail(const char *expr, const char *file,
    int line)
{
	sdb_sts_assert_line = line;
	sdb_event(LOG_ERR, "LIBSDB_STS_CORRUPTION",
	    "LIBSDB_STS_CORRUPTION: %s:%d short-term store corrupted: %s",
	    file, line, expr);
	sdb_sts_assert_fail(expr, file, line);
}

namespace {
/* Bytes of the slot up to the end of the last piece in use. */
uint32_t used_extent(const sdb_sts_entry *e, uint16_t *tail_prev)
{
	const uint8_t *slot = sdb_sts_slot(e);
	uint16_t prev = 0, last = 0;
	for (uint16_t off = e->free_list_offset, n = 0; off != 0 &&
	    n < SDB_STS_SLOT_MAX / 4; n++) {
		const auto *fn = at<sdb_sts_free_node>(slot, off);
		if (fn->next == 0) {
			last = off;
			break;
		}
		prev = off;
		off = fn->next;
	}
	*tail_prev = prev;
	if (last != 0 &&
	    last + at<sdb_sts_free_node>(slot, last)->len == e->slot_size)
		return last;
	*tail_prev = 0xFFFF;	/* the slot is used to its end */
	return e->slot_size;
}
} // namespace

extern "C" int sdb_sts_get_entry_and_len(uint64_t sid, uint32_t *len,
    void *buf)
{
	sdb_sts_entry *e = sdb_sts_entry_find(sid);
	if (e == nullptr)
		return SDB_ERR_NOT_FOUND;
	uint16_t tail_prev;
	uint32_t used = used_extent(e, &tail_prev);
	uint32_t need = SDB_STS_ENTRY_SIZE + used;
	if (*len < need) {
		*len = need;
		entry_unlock(e);
		return SDB_ERR_NOMEM;
	}
	auto *out = static_cast<uint8_t *>(buf);
	memcpy(out, e, SDB_STS_ENTRY_SIZE);
	memcpy(out + SDB_STS_ENTRY_SIZE, sdb_sts_slot(e), used);
	entry_unlock(e);
	/* The copy holds no lock and ends where its bytes end. */
	auto *c = reinterpret_cast<sdb_sts_entry *>(out);
	memset(out, 0, 16);
	c->next = c->prev = SDB_STS_NO_LINK;
	c->slot_size = used;
	if (tail_prev == 0)
		c->free_list_offset = 0;
	else if (tail_prev != 0xFFFF)
		at<sdb_sts_free_node>(out + SDB_STS_ENTRY_SIZE, tail_prev)->next = 0;
	*len = need;
	return 0;
}

extern "C" sdb_sts_entry *sdb_sts_entry_copy(uint64_t sid)
{
	uint32_t len = SDB_STS_ENTRY_SIZE + SDB_STS_SLOT_MAX;
	void *buf = malloc(len);
	if (buf == nullptr)
		return nullptr;
	if (sdb_sts_get_entry_and_len(sid, &len, buf) != 0) {
		free(buf);
		return nullptr;
	}
	return static_cast<sdb_sts_entry *>(buf);
}
