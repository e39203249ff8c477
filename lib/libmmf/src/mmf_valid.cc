/*
 * Walking a live heap: the tiling check run at every open, and the
 * listing of its nodes for a person.
 */
#include "mmf_impl.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <vector>

using namespace mmf_impl;

/*
 * An empty store whose first node is exactly its default size gives the
 * grown space back.  The free nodes beyond the default leave their lists
 * before current_bytes drops, so no list leads past the end; the file
 * is cut last, and a death before that is an unfinished grow to the next
 * opener.
 */
static void shrink_if_empty(mmf_t *m)
{
	mmf_shared_info_t *si = m->shared_info;
	uint64_t def = m->default_bytes, foa = si->first_alloc_offset;
	mmf_node_header_t n;
	if (si->allocated_bytes != 0 || si->current_bytes <= def ||
	    !node_read(m, foa, &n) || !(n.flags & MMF_FLAG_FREE) ||
	    n.len != def - foa)
		return;
	std::vector<uint64_t> beyond;
	for (uint64_t off = def; off < si->current_bytes; off += n.len) {
		if (!node_valid(m, off, &n, false) || !(n.flags & MMF_FLAG_FREE))
			return;
		beyond.push_back(off);
	}
	for (uint64_t off : beyond)
		list_remove(m, off);
	si->current_bytes = def;
	m->shrinks_at_check++;
	if (ftruncate(m->fd, static_cast<off_t>(def)) != 0)
		return;
}

extern "C" bool mmf_valid(mmf_t *m, bool fatal)
{
	mmf_shared_info_t *si = m->shared_info;
	if (si->version != MMF_VERSION || si->header_bytes != MMF_HEADER_BYTES) {
		/* The magic is kept: clearing it would have the next opener
		 * wipe a store that may only have a damaged header word. */
		MMF_BUMP(m, bad_header_count);
		m->corrupt = true;
		return false;
	}
	if (!m->allocs_allowed)
		return true;

	mmf_lock(m);
	si = m->shared_info;
	try {
		shrink_if_empty(m);
	} catch (const mmf_damage &d) {
		note_damage(m, __func__, d);
	}

	bool saved = m->assert_on_bad;
	m->assert_on_bad = fatal;
	bool ok = true;
	uint64_t off = si->first_alloc_offset, iters = 0;
	uint64_t start = now_ns();
	while (off < si->current_bytes) {
		mmf_node_header_t n;
		const char *fault = nullptr;
		if (!node_valid(m, off, &n, false, &fault)) {
			if (fatal && saved)
				mmf_detected_fatal_problem(__LINE__, fault,
				    __FILE__, __LINE__);
			/* The length of a bad node is unknown; the walk can
			 * go no further. */
			ok = false;
			break;
		}
		off += n.len;
		MMF_ASSERT(++iters < MMF_VALID_MAX_ITERS);
		if (iters % 10000 == 0 && now_ns() - start >= 3000000000ull) {
			MMF_BUMP(m, check_timeouts);
			si->timeout_check_iters = static_cast<uint32_t>(iters);
			si->timeout_check_secs = static_cast<uint32_t>(
			    (now_ns() - start) / 1000000000ull);
			break;
		}
	}
	if (ok && off > si->current_bytes)
		ok = false;
	m->assert_on_bad = saved;
	si->last_check_iters = static_cast<uint32_t>(iters);
	si->last_check_secs = static_cast<uint32_t>((now_ns() - start) /
	    1000000000ull);
	if (!ok)
		m->corrupt = true;
	mmf_unlock(m);
	if (!ok && fatal)
		MMF_ASSERT(!"nodes tile the area");
	return ok;
}

extern "C" void mmf_show(const char *title, mmf_t *m)
{
	mmf_lock(m);
	mmf_shared_info_t *si = m->shared_info;
	printf("%s\n", title);
	uint64_t tcount = 0, tbytes = 0;
	for (uint32_t i = 0; i < si->num_alloc_sizes && i < MMF_MAX_CLASSES;
	    i++) {
		uint64_t count = 0, bytes = 0, walked = 0;
		for (uint64_t off = si->free_heads[i]; off != 0;) {
			mmf_node_header_t n;
			if (!node_read(m, off, &n) || ++walked > 100000000)
				break;
			printf("   f%2u p%8x o%10llu l%10d po%10llu no%10llu "
			    "nno%10llu", n.flags, n.pattern,
			    static_cast<unsigned long long>(n.offset),
			    static_cast<int>(n.len),
			    static_cast<unsigned long long>(n.prev_offset),
			    static_cast<unsigned long long>(n.next_offset),
			    static_cast<unsigned long long>(n.offset + n.len));
			if (n.prev_offset == off)
				printf(" *** prev offset should not be same as offset!");
			if (n.next_offset == off)
				printf(" *** next offset should not be same as offset!");
			if (off > si->first_alloc_offset) {
				mmf_node_trailer_t t;
				void *p = map_range(m, off - 8, 8, false);
				if (p != nullptr) {
					memcpy(&t, p, sizeof(t));
					mmf_node_header_t pn;
					if (t.len >= MMF_NODE_BYTES &&
					    off - t.len >= si->first_alloc_offset &&
					    node_read(m, off - t.len, &pn) &&
					    (pn.flags & MMF_FLAG_FREE))
						printf(" *** should coalesce with prev!!!");
				}
			}
			printf("\n");
			if (n.next_offset != 0) {
				mmf_node_header_t nx;
				MMF_ASSERT(node_read(m, n.next_offset, &nx));
				MMF_ASSERT(nx.prev_offset == off);
			}
			count++;
			bytes += n.len;
			off = n.next_offset;
		}
		printf(" free i%2d (%5d): c%10d b%10d\n", static_cast<int>(i),
		    static_cast<int>(si->alloc_sizes[i]),
		    static_cast<int>(count), static_cast<int>(bytes));
		tcount += count;
		tbytes += bytes;
	}
	printf("tfree %12s c%10d b%10d\n", "", static_cast<int>(tcount),
	    static_cast<int>(tbytes));
	printf("------------------------------------------------------------\n");
	printf("============= showing all nodes\n");
	uint64_t off = si->first_alloc_offset, total = si->first_alloc_offset;
	while (off < si->current_bytes) {
		mmf_node_header_t n;
		if (!node_read(m, off, &n) || n.len < MMF_NODE_BYTES)
			break;
		printf("   f%2u p%8x o%10llu l%10d po%10llu no%10llu nno%10llu\n",
		    n.flags, n.pattern, static_cast<unsigned long long>(n.offset),
		    static_cast<int>(n.len),
		    static_cast<unsigned long long>(n.prev_offset),
		    static_cast<unsigned long long>(n.next_offset),
		    static_cast<unsigned long long>(n.offset + n.len));
		total += n.len;
		off += n.len;
	}
	printf("total bytes = %llu\n", static_cast<unsigned long long>(total));
	if (total != si->current_bytes)
		printf("total bytes %llu != current bytes %llu\n",
		    static_cast<unsigned long long>(total),
		    static_cast<unsigned long long>(si->current_bytes));
	mmf_unlock(m);
}
