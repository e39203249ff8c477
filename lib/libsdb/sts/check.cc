/*
 * The check of a region image: the entry table with its overflow chains,
 * every slot (free list and sections, no two pieces overlapping) and the
 * heap (slots and free blocks tile it, the bins hold exactly the free
 * blocks, no two free blocks touch).  The image is outside bytes: every
 * offset is tested before it is followed, and nothing here stops.
 */
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

#include "sdb/sdb.h"
#include "sdb/sdb_sts.h"

namespace {

struct checker {
	const uint8_t *img;
	size_t size;
	sdb_sts_geometry g{};
	sdb_sts_check_report *rep;
	void (*each)(void *, const char *) = nullptr;
	void *arg = nullptr;

	void problem(const char *fmt, ...) __attribute__((format(printf, 2, 3)))
	{
		char text[sizeof rep->first_problem];
		va_list ap;
		va_start(ap, fmt);
		vsnprintf(text, sizeof text, fmt, ap);
		va_end(ap);
		if (rep->problems++ == 0)
			memcpy(rep->first_problem, text, sizeof text);
		if (each != nullptr)
			each(arg, text);
	}

	template <class T> T load(size_t off) const
	{
		T v;
		memcpy(&v, img + off, sizeof v);
		return v;
	}
	sdb_sts_entry entry(uint32_t i) const
	{
		return load<sdb_sts_entry>((size_t)i * SDB_STS_ENTRY_SIZE);
	}

	bool free_block_at(uint32_t off, uint32_t *size) const
	{
		if (off < g.heap_start || off > g.max_bytes - SDB_STS_HDR_SIZE)
			return false;
		auto h = load<sdb_sts_block_hdr>(off);
		if (h.magic != SDB_STS_HDR_MAGIC || h.offset != off ||
		    h.flags != 1 || h.size < SDB_STS_HDR_SIZE + SDB_STS_TRL_SIZE ||
		    h.size > g.max_bytes - off)
			return false;
		auto t = load<sdb_sts_block_trl>(off + h.size - SDB_STS_TRL_SIZE);
		if (t.magic != SDB_STS_TRL_MAGIC || t.size != h.size)
			return false;
		*size = h.size;
		return true;
	}

	void entries(void);
	void slot(uint32_t i, const sdb_sts_entry &e);
	void heap(void);
};

/* The pieces of one slot, marked byte by byte. */
struct slot_map {
	checker &c;
	uint32_t index;
	const uint8_t *slot;
	uint32_t size;
	std::vector<uint8_t> used;
	bool bad = false;

	template <class T> T load(uint32_t off) const
	{
		T v;
		memcpy(&v, slot + off, sizeof v);
		return v;
	}
	/* Mark [off, off + len); false when outside or taken. */
	bool mark(uint32_t off, uint32_t len, const char *what)
	{
		len = std::max<uint32_t>(len, 4);
		if (bad)
			return false;
		if (off < 4 || off + len > size) {
			c.problem("entry %u: %s at %u+%u outside the slot of %u",
			    index, what, off, len, size);
			bad = true;
			return false;
		}
		for (uint32_t i = off; i < off + len; i++)
			if (used[i]++) {
				c.problem("entry %u: %s at %u overlaps another "
				    "piece at %u", index, what, off, i);
				bad = true;
				return false;
			}
		return true;
	}
	void value_block(uint16_t off, const char *what)
	{
		if (!mark(off, 4, what))
			return;
		auto vb = load<sdb_sts_value_block>(off);
		for (uint32_t i = off; i < off + 4u; i++)
			used[i]--;
		if (vb.len + 4u > vb.alloc_len)
			c.problem("entry %u: %s at %u longer than its block",
			    index, what, off);
		mark(off, vb.alloc_len, what);
	}
};

void checker::slot(uint32_t i, const sdb_sts_entry &e)
{
	slot_map m{*this, i, img + e.data_start_offset, e.slot_size,
	    std::vector<uint8_t>(e.slot_size), false};
	unsigned n = 0;
	for (uint32_t off = e.free_list_offset, prev = 0; off != 0; n++) {
		if (off <= prev || n > e.slot_size / 4) {
			problem("entry %u: free list out of order at %u", i, off);
			return;
		}
		if (off + 4 > e.slot_size) {
			problem("entry %u: free piece at %u outside the slot",
			    i, off);
			return;
		}
		auto fn = m.load<sdb_sts_free_node>(off);
		if (fn.len < 4) {
			problem("entry %u: free piece at %u of %u bytes", i, off,
			    fn.len);
			return;
		}
		if (!m.mark(off, fn.len, "free piece"))
			return;
		prev = off;
		off = fn.next;
	}
	if (e.client_offset != 0 &&
	    m.mark(e.client_offset, SDB_STS_ATTR_TABLE_SIZE, "attribute table")) {
		auto t = m.load<sdb_sts_attr_table>(e.client_offset);
		if (t.count > SDB_ATTR_TABLE_SIZE)
			problem("entry %u: attribute count %u", i, t.count);
		uint32_t listed = 0;
		for (uint32_t k = 0; k < std::min<uint32_t>(t.count,
		    SDB_ATTR_TABLE_SIZE); k++) {
			uint16_t a = t.numbers[k];
			if (a == 0 || a > SDB_ATTR_NUM_MAX || t.offset[a] == 0) {
				problem("entry %u: attribute list names %u "
				    "without a value", i, a);
				return;
			}
			m.value_block(t.offset[a], "attribute value");
		}
		for (uint32_t a = 0; a < SDB_ATTR_TABLE_SIZE; a++)
			listed += t.offset[a] != 0;
		if (listed != t.count)
			problem("entry %u: %u attribute values for a count of "
			    "%u", i, listed, t.count);
	}
	if (e.dynamic_offset != 0 &&
	    m.mark(e.dynamic_offset, SDB_STS_HASH_SIZE, "dynamic table")) {
		auto h = m.load<sdb_sts_hash>(e.dynamic_offset);
		uint32_t nodes = 0;
		std::map<uint16_t, sdb_sts_dyn_node> seen;
		for (int b = 0; b < SDB_STS_HASH_BUCKETS && !m.bad; b++)
			for (uint16_t n = h.bucket[b]; n != 0 && !m.bad;) {
				if (!m.mark(n, SDB_STS_DYN_NODE_SIZE,
				    "dynamic node"))
					break;
				auto d = m.load<sdb_sts_dyn_node>(n);
				if (d.bkt != b || d.et > SDB_DYN_MEMBER ||
				    d.klen == 0)
					problem("entry %u: dynamic node at %u "
					    "is damaged", i, n);
				m.mark(d.koff, d.klen, "dynamic key");
				if (d.vlen != 0) {
					if (d.vlen > d.dao)
						problem("entry %u: dynamic value "
						    "at %u longer than its "
						    "block", i, d.voff);
					m.mark(d.voff, d.dao, "dynamic value");
				}
				nodes++;
				seen[n] = d;
				n = d.noff;
			}
		if (!m.bad && nodes != h.count)
			problem("entry %u: %u dynamic nodes for a count of %u",
			    i, nodes, h.count);
		/* Instance and member chains lead to nodes of the table, and
		 * end: each node is met at most once along them. */
		std::map<uint16_t, int> chained;
		for (auto &[off, d] : seen)
			for (uint16_t next : {d.nioff, d.nmoff})
				if (next != 0 && (!seen.count(next) ||
				    ++chained[next] > 1)) {
					problem("entry %u: dynamic node at %u "
					    "chains to %u", i, off, next);
					return;
				}
		for (auto &[off, d] : seen) {
			uint32_t len = 0;
			for (uint16_t n = d.nioff; n != 0 && len <= seen.size();
			    n = seen[n].nioff)
				len++;
			if (len > SDB_STS_DYN_CHAIN_MAX || len > seen.size()) {
				problem("entry %u: the chain of node %u does not "
				    "end", i, off);
				return;
			}
		}
	}
	for (uint16_t t : {e.auth_req_offset, e.auth_rep_offset}) {
		if (t == 0 || !m.mark(t, SDB_STS_HASH_SIZE, "auth table"))
			continue;
		auto h = m.load<sdb_sts_hash>(t);
		uint32_t nodes = 0;
		for (int b = 0; b < SDB_STS_HASH_BUCKETS && !m.bad; b++)
			for (uint16_t n = h.bucket[b]; n != 0 && !m.bad;) {
				if (!m.mark(n, SDB_STS_AUTH_NODE_SIZE,
				    "auth node"))
					break;
				auto a = m.load<sdb_sts_auth_node>(n);
				if (a.len > a.alloc_len)
					problem("entry %u: auth value at %u "
					    "longer than its block", i, a.voff);
				m.mark(a.voff, a.alloc_len, "auth value");
				nodes++;
				n = a.next;
			}
		if (!m.bad && nodes != h.count)
			problem("entry %u: %u auth nodes for a count of %u", i,
			    nodes, h.count);
	}
	if (e.app_data_offset != 0 &&
	    m.mark(e.app_data_offset, SDB_STS_APP_TABLE_SIZE, "app table")) {
		auto t = m.load<sdb_sts_app_table>(e.app_data_offset);
		for (const sdb_sts_app_rec &r : t.rec) {
			if (r.voff == 0)
				continue;
			if (r.len > r.alloc_len)
				problem("entry %u: application blob at %u longer "
				    "than its block", i, r.voff);
			m.mark(r.voff, r.alloc_len, "application blob");
		}
	}
	if (e.service_session_ids_offset != 0) {
		if (e.service_list_bytes != SDB_STS_SERVICE_LIST_SMALL &&
		    e.service_list_bytes != SDB_STS_SERVICE_LIST_LARGE)
			problem("entry %u: service list of %u bytes", i,
			    e.service_list_bytes);
		else if (e.service_session_ids_count * 8u > e.service_list_bytes)
			problem("entry %u: %u service ids in %u bytes", i,
			    e.service_session_ids_count, e.service_list_bytes);
		m.mark(e.service_session_ids_offset, e.service_list_bytes,
		    "service list");
	} else if (e.service_session_ids_count != 0) {
		problem("entry %u: %u service ids without a list", i,
		    e.service_session_ids_count);
	}
}

void checker::entries(void)
{
	std::map<uint64_t, uint32_t> sids;
	for (uint32_t i = 0; i < g.total_entries; i++) {
		sdb_sts_entry e = entry(i);
		if (e.slot_size < SDB_STS_SLOT_MIN || e.slot_size > SDB_STS_SLOT_MAX ||
		    e.slot_size % SDB_STS_SLOT_MIN != 0 ||
		    e.data_start_offset < g.heap_start ||
		    e.data_start_offset > g.max_bytes - e.slot_size) {
			problem("entry %u: slot at %u of %u bytes is outside the "
			    "heap", i, e.data_start_offset, e.slot_size);
			continue;
		}
		rep->slot_bytes += e.slot_size;
		if (e.lock_pid != 0)
			rep->locked_entries++;
		if (e.dirty_flags != 0)
			rep->dirty_entries++;
		bool last = i + 1 == g.total_entries;
		if (!last && e.next != SDB_STS_NO_LINK &&
		    (e.next >= g.total_entries || entry(e.next).prev != i))
			problem("entry %u: next %u does not lead back", i, e.next);
		if (!last && e.prev != SDB_STS_NO_LINK &&
		    (e.prev >= g.total_entries || entry(e.prev).next != i))
			problem("entry %u: prev %u does not lead back", i, e.prev);
		slot(i, e);
		if (e.session_id == 0)
			continue;
		rep->sessions++;
		uint32_t home = (uint32_t)((e.session_id - 1) % g.home_count);
		if (i >= g.home_count) {
			rep->overflow_sessions++;
		} else if (i != home) {
			problem("entry %u: session %llu belongs in entry %u", i,
			    (unsigned long long)e.session_id, home);
		}
		uint64_t sid = e.session_id;
		if (!sids.emplace(sid, i).second)
			problem("entries %u and %u hold session %llu", sids[sid],
			    i, (unsigned long long)sid);
	}
}

void checker::heap(void)
{
	std::map<uint32_t, uint32_t> slots;	/* offset -> entry */
	for (uint32_t i = 0; i < g.total_entries; i++) {
		sdb_sts_entry e = entry(i);
		uint32_t off = e.data_start_offset;
		if (off >= g.heap_start && e.slot_size >= SDB_STS_SLOT_MIN &&
		    off <= g.max_bytes - e.slot_size &&
		    !slots.emplace(off, i).second)
			problem("entries %u and %u share the slot at %u",
			    slots[off], i, off);
	}
	std::map<uint32_t, uint32_t> free_blocks;
	bool prev_free = false;
	for (uint32_t pos = g.heap_start; pos < g.max_bytes;) {
		auto s = slots.find(pos);
		uint32_t size;
		if (s != slots.end()) {
			pos += entry(s->second).slot_size;
			slots.erase(s);
			prev_free = false;
		} else if (free_block_at(pos, &size)) {
			if (prev_free)
				problem("free blocks touch at %u", pos);
			free_blocks[pos] = size;
			rep->free_blocks++;
			rep->free_bytes += size;
			pos += size;
			prev_free = true;
		} else if (g.max_bytes - pos < SDB_STS_SLOT_MIN) {
			break;	/* the heap's tail, too small for a slot */
		} else {
			problem("heap bytes at %u are neither a slot nor a free "
			    "block", pos);
			return;
		}
	}
	for (auto [off, i] : slots)
		problem("entry %u: slot at %u overlaps another block", i, off);
	auto ctl = load<sdb_sts_heap_ctl>(g.heap_ctl_offset);
	rep->defrag_count = ctl.defrag_count;
	uint32_t in_bins = 0;
	for (uint32_t b = 0; b < SDB_STS_BINS; b++) {
		uint32_t prev = 0, n = 0;
		for (uint32_t off = ctl.bins[b]; off != 0; n++) {
			auto f = free_blocks.find(off);
			if (f == free_blocks.end() || n > rep->free_blocks) {
				problem("bin %u leads to %u, not a free block",
				    b, off);
				break;
			}
			auto h = load<sdb_sts_block_hdr>(off);
			uint32_t want = h.size < 4096 ? 0 : h.size > 40960 ? 10 :
			    (h.size - 4096) / 4096;
			if (want != b)
				problem("block at %u of %u bytes in bin %u", off,
				    h.size, b);
			if (h.prev != prev)
				problem("block at %u: prev %u, not %u", off,
				    h.prev, prev);
			in_bins++;
			prev = off;
			off = h.next;
		}
	}
	if (in_bins != rep->free_blocks)
		problem("%u free blocks, %u of them in bins", rep->free_blocks,
		    in_bins);
}

} // namespace

extern "C" int sdb_sts_check_image(const void *image, size_t size,
    sdb_sts_check_report *rep)
{
	return sdb_sts_check_image_each(image, size, rep, nullptr, nullptr);
}

extern "C" int sdb_sts_check_image_each(const void *image, size_t size,
    sdb_sts_check_report *rep, void (*fn)(void *, const char *), void *arg)
{
	*rep = {};
	checker c{static_cast<const uint8_t *>(image), size, {}, rep, fn, arg};
	if (size > UINT32_MAX ||
	    sdb_sts_geometry_for(size, 5 * 4096, &c.g) != 0 ||
	    c.g.max_bytes != size) {
		c.problem("%zu bytes is not the size of a store", size);
		return SDB_ERR_CORRUPT;
	}
	rep->total_entries = c.g.total_entries;
	rep->home_count = c.g.home_count;
	sdb_sts_entry last = c.entry(c.g.total_entries - 1);
	if (last.next != SDB_STS_NO_LINK || last.prev != SDB_STS_NO_LINK) {
		c.problem("the format was never completed");
		return SDB_ERR_CORRUPT;
	}
	c.entries();
	c.heap();
	return rep->problems == 0 ? 0 : SDB_ERR_CORRUPT;
}
