/*
 * The session id scan index: a process-local bitmap of the ids that have
 * a head, five levels deep, each level 64 times coarser than the one
 * below.  It is only a hint: an id that died after the build is found
 * empty by the caller, one born after it lies at or above max_id and is
 * tested one by one.
 *
 * An instance may be dropped from the cache while another thread still
 * walks it: it is freed when its last user gives it back.
 */
#include <bit>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "sdb/sdb_lts.h"
#include "sdb_impl.h"

namespace {

constexpr uint64_t headroom = 1000000;
constexpr uint64_t level0_bits = 200000000;
constexpr uint64_t short_range = 99999;
constexpr uint32_t short_runs = 10001;
constexpr uint64_t stale_ids = 100001;

struct {
	std::mutex mu;
	sdb_sii *cached = nullptr;
	uint64_t created_next = 0;
	uint32_t small_count = 0;
} slot;

void sii_free(sdb_sii *s)
{
	if (s == nullptr)
		return;
	for (sdb_sii_level &l : s->levels)
		free(l.words);
	free(s);
}

/* The slot's lock is held.  Frees now or at the last put. */
void drop_locked(void)
{
	sdb_sii *s = slot.cached;
	slot.cached = nullptr;
	if (s == nullptr)
		return;
	s->dropped = 1;
	if (s->users == 0)
		sii_free(s);
}

void set_bit(sdb_sii *s, uint64_t id)
{
	for (uint32_t n = 0; n < s->level_count; n++) {
		sdb_sii_level &l = s->levels[n];
		uint64_t word = id >> l.span_shift;
		uint64_t bit = (id & (l.span - 1)) >> l.unit_shift;
		sdb_lts_assert(word < l.word_count);
		uint64_t m = 1ull << bit;
		if ((l.words[word] & m) == 0) {
			if (l.words[word] == 0)
				l.words_used++;
			l.bits_set++;
			l.words[word] |= m;
		}
	}
}

sdb_sii *build(uint64_t next)
{
	timespec t0;
	clock_gettime(CLOCK_MONOTONIC, &t0);
	auto *s = static_cast<sdb_sii *>(calloc(1, sizeof(sdb_sii)));
	if (s == nullptr)
		return nullptr;
	s->word_bits = 64;
	sdb_sts_flush_all_to_lts();
	if (next <= headroom)
		return s;	/* no level: every id is tested */
	s->max_id = next;
	uint64_t limit = next + headroom;
	uint64_t unit0 = std::bit_ceil(std::max<uint64_t>(1,
	    limit / level0_bits));
	for (uint32_t n = 0; n < SDB_SII_LEVELS; n++) {
		sdb_sii_level &l = s->levels[n];
		l.unit = unit0 << (6 * n);
		l.unit_shift = (uint32_t)std::countr_zero(l.unit);
		l.span = l.unit * 64;
		l.span_shift = l.unit_shift + 6;
		l.word_count = (uint32_t)((limit + l.span - 1) / l.span);
		l.words = static_cast<uint64_t *>(calloc(l.word_count, 8));
		if (l.words == nullptr) {
			sii_free(s);
			return nullptr;
		}
	}
	s->level_count = SDB_SII_LEVELS;
	sdb_lts_each_head([](void *arg, uint64_t id) {
		auto *s = static_cast<sdb_sii *>(arg);
		s->ids_seen++;
		uint64_t room = (uint64_t)s->levels[0].word_count *
		    s->levels[0].span;
		/* An id beyond the bitmaps (born during the build) is
		 * found by the one-by-one walk above max_id. */
		if (id >= room)
			return;
		set_bit(s, id);
		if (s->lowest_id == 0 || id < s->lowest_id)
			s->lowest_id = id;
		if (id > s->highest_id)
			s->highest_id = id;
		if (id >= s->max_id)
			s->max_id = id + 1;
	}, s);
	timespec t1;
	clock_gettime(CLOCK_MONOTONIC, &t1);
	int64_t us = (t1.tv_sec - t0.tv_sec) * 1000000 +
	    (t1.tv_nsec - t0.tv_nsec) / 1000;
	s->build_secs = (uint64_t)us / 1000000;
	s->build_usecs = (uint32_t)(us % 1000000);
	return s;
}

uint64_t flushed(uint64_t id)
{
	sdb_sts_flush_client_and_services(id);
	return id;
}

} // namespace

/*
 * The short-term store writes its sessions back here; the walks call
 * these first so that they see every write.  The write-back itself is not
 * there yet, and these do nothing.
 */
extern "C" int sdb_sts_flush_all_to_lts(void)
{
	return 0;
}

extern "C" int sdb_sts_flush_client_and_services(uint64_t sid)
{
	(void)sid;
	return 0;
}

extern "C" sdb_sii *sdb_lts_scan_index_get(uint64_t first, uint64_t last)
{
	if (last < first)
		return nullptr;
	std::lock_guard<std::mutex> g(slot.mu);
	if (last - first <= short_range) {
		if (++slot.small_count >= short_runs && slot.cached != nullptr) {
			sdb_trace(SDB_TRACE_INFO, "SDB SII delete instance");
			drop_locked();
		}
		return nullptr;
	}
	slot.small_count = 0;
	uint64_t next = sdb_lts_next_session_id();
	if (slot.cached != nullptr) {
		if (next >= slot.created_next &&
		    next - slot.created_next < stale_ids) {
			slot.cached->users++;
			return slot.cached;
		}
		sdb_trace(SDB_TRACE_INFO, "SDB SII recreating instance");
		drop_locked();
	} else {
		sdb_trace(SDB_TRACE_INFO, "SDB SII creating instance");
	}
	sdb_sii *s = build(next);
	if (s == nullptr)
		return nullptr;
	slot.cached = s;
	slot.created_next = next;
	s->users = 1;
	return s;
}

extern "C" void sdb_lts_scan_index_put(sdb_sii *s)
{
	if (s == nullptr)
		return;
	std::lock_guard<std::mutex> g(slot.mu);
	if (s->users > 0)
		s->users--;
	if (s->dropped && s->users == 0)
		sii_free(s);
}

extern "C" void sdb_lts_scan_index_drop(void)
{
	std::lock_guard<std::mutex> g(slot.mu);
	drop_locked();
}

extern "C" uint64_t sdb_lts_scan_next(sdb_sii *s, uint64_t id)
{
	if (s == nullptr)
		return flushed(id);
	__atomic_add_fetch(&s->lookups, 1, __ATOMIC_RELAXED);
	if (s->level_count == 0 || id >= s->max_id ||
	    (id & (s->levels[0].unit - 1)) != 0)
		return flushed(id);
	int ceiling = (int)s->level_count - 1;
	for (;;) {
		int n = ceiling;
		while (n > 0 && (id & (s->levels[n].unit - 1)) != 0)
			n--;
		const sdb_sii_level &l = s->levels[n];
		uint64_t word = id >> l.span_shift;
		uint32_t bit = (uint32_t)((id & (l.span - 1)) >> l.unit_shift);
		sdb_lts_assert(word < l.word_count);
		uint64_t w = l.words[word];
		if (w & (1ull << bit)) {
			if (n == 0)
				return flushed(id);
			ceiling = n - 1;
		} else if (bit == 63 || (w >> (bit + 1)) == 0) {
			id += l.unit * (64 - bit);
		} else {
			id += l.unit;
		}
		if (id >= s->max_id)
			return flushed(s->max_id);
	}
}
