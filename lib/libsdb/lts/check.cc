/*
 * The check of the long-term store: every chain acyclic and within its
 * bound, every head inside an allocated block of the heap, every section
 * inside its head's carved bytes or in an allocated heap block of its
 * own, and no place used twice.  It reads only, under each bucket's lock.
 */
#include <cstdio>
#include <cstring>
#include <set>

#include "mmf/mmf.h"
#include "mmf/mmf_format.h"
#include "sdb/sdb_lts.h"
#include "sdb_impl.h"

namespace {

struct checker {
	sdb_lts_check_report *rep;
	mmf_t *m = sdb_lts_data();
	std::set<uint64_t> places;

	void problem(const char *fmt, unsigned long long a,
	    unsigned long long b)
	{
		if (rep->problems++ == 0)
			snprintf(rep->first_problem, sizeof rep->first_problem,
			    fmt, a, b);
	}

	/* Whether off is the user start of an allocated heap block of at
	 * least len bytes. */
	bool allocated(uint64_t off, uint32_t len)
	{
		if (off < mmf_get_first_alloc_offset(m) + MMF_NODE_HEADER_BYTES ||
		    off + len > mmf_get_current_bytes(m))
			return false;
		mmf_node_header_t n;
		memcpy(&n, sdb_lts_map(off - MMF_NODE_HEADER_BYTES,
		    MMF_NODE_HEADER_BYTES), sizeof n);
		return n.pattern == MMF_HEADER_PATTERN &&
		    (n.flags & MMF_FLAG_FREE) == 0 &&
		    n.len >= (uint64_t)len + MMF_NODE_BYTES;
	}

	void head(uint64_t off, uint32_t b)
	{
		if (!allocated(off, SDB_LTS_MAX_RECORD)) {
			problem("bucket %llu: head at %llu is no allocated block",
			    b, off);
			return;
		}
		sdb_lts_head h;
		memcpy(&h, sdb_lts_map(off, SDB_LTS_HEAD_SIZE), sizeof h);
		if (h.self != off || h.sid % sdb_lts_bucket_count() != b) {
			problem("head at %llu: not its own or in another "
			    "bucket (session %llu)", off, h.sid);
			return;
		}
		uint64_t end = off + SDB_LTS_MAX_RECORD;
		if (h.cursor < off + SDB_LTS_HEAD_SIZE || h.cursor > end ||
		    h.cursor + h.left != end)
			problem("session %llu: cursor %llu outside its block",
			    h.sid, h.cursor);
		rep->heads++;
		for (int i = 0; i < SDB_LTS_DESC_COUNT; i++) {
			sdb_lts_desc d = h.desc[i];
			if (d.offset == 0)
				continue;
			rep->sections++;
			if (d.len > d.cap)
				problem("session %llu: section at %llu longer "
				    "than its place", h.sid, d.offset);
			if (!places.insert(d.offset).second)
				problem("session %llu: place %llu used twice",
				    h.sid, d.offset);
			if (d.offset >= off && d.offset < end) {
				if (d.offset < off + SDB_LTS_HEAD_SIZE ||
				    d.offset + d.cap > h.cursor)
					problem("session %llu: section at %llu "
					    "not in the carved bytes", h.sid,
					    d.offset);
			} else {
				rep->heap_sections++;
				if (!allocated(d.offset, d.cap))
					problem("session %llu: section at %llu "
					    "in free heap", h.sid, d.offset);
			}
		}
	}
};

uint64_t get64(const void *p)
{
	uint64_t v;
	memcpy(&v, p, 8);
	return v;
}

} // namespace

extern "C" int sdb_lts_check(sdb_lts_check_report *rep, unsigned flags)
{
	memset(rep, 0, sizeof *rep);
	if (sdb_lts_header_ptr() == nullptr || sdb_lts_data() == nullptr)
		return SDB_ERR_FATAL;
	checker c{rep};
	uint32_t n = sdb_lts_bucket_count();
	for (uint32_t b = 0; b < n; b++) {
		if (sdb_sentry_lock_acquire(b) != 0)
			return SDB_ERR_FATAL;
		sdb_lts_bucket *r = sdb_lts_bucket_ptr(b);
		uint64_t spare = get64(r->spare_block);
		if (spare != 0 && !c.allocated(spare, SDB_LTS_MAX_RECORD))
			c.problem("bucket %llu: spare block %llu not allocated",
			    b, spare);
		if ((flags & SDB_LTS_CHECK_STILL) == 0)
			c.places.clear();
		std::set<uint64_t> chain;
		uint64_t off = get64(r->first_head);
		uint32_t len = 0;
		while (off != 0) {
			if (!chain.insert(off).second) {
				c.problem("bucket %llu: chain loops at %llu", b,
				    off);
				break;
			}
			if (++len > SDB_LTS_CHAIN_MAX) {
				c.problem("bucket %llu: chain longer than %llu",
				    b, SDB_LTS_CHAIN_MAX);
				break;
			}
			c.head(off, b);
			if (!c.allocated(off, SDB_LTS_MAX_RECORD))
				break;
			off = static_cast<sdb_lts_head *>(sdb_lts_map(off,
			    SDB_LTS_HEAD_SIZE))->next;
		}
		if (len > rep->longest_chain)
			rep->longest_chain = len;
		sdb_sentry_lock_release(b);
	}
	return rep->problems == 0 ? 0 : SDB_ERR_CORRUPT;
}
