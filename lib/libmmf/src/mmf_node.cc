/*
 * Nodes and free lists.  Nodes are read and written by copy through the
 * mapping, never held by pointer: in region mode any mapping call may
 * unmap the region behind an earlier pointer.
 *
 * Invariants (with the lock held, between calls):
 *  - nodes tile [first_alloc_offset, current_bytes): the node after the
 *    one at off stands at off + len, and its trailer repeats len;
 *  - a node is on the free list of class_of(len) exactly when its flags
 *    hold MMF_FLAG_FREE;
 *  - allocated_bytes is the sum of len over the nodes not free.
 *
 * A holder may die between any two stores.  The header of a node is the
 * truth: each change of a node's length is one 4-byte store, made after
 * the trailer and the header of any node carved from it are in place, so
 * that a walk by headers always tiles.  A stale trailer, a free node off
 * its list, or a wrong allocated_bytes is what a dead holder can leave,
 * and repair_after_dead_holder() rebuilds them from the headers.
 */
#include "mmf_impl.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace mmf_impl {

namespace {

uint64_t cur(mmf_t *m)
{
	return m->shared_info->current_bytes;
}

void store32(mmf_t *m, uint64_t off, size_t field, uint32_t v)
{
	void *p = map_range(m, off + field, 4, true);
	std::atomic_ref<uint32_t>(*static_cast<uint32_t *>(p)).store(v,
	    std::memory_order_relaxed);
}

} // namespace

bool node_read(mmf_t *m, uint64_t off, mmf_node_header_t *n)
{
	if (off < m->shared_info->first_alloc_offset || off >= cur(m) ||
	    cur(m) - off < MMF_NODE_HEADER_BYTES)
		return false;
	void *p = map_range(m, off, MMF_NODE_HEADER_BYTES, false);
	if (p == nullptr)
		return false;
	memcpy(n, p, sizeof(*n));
	return true;
}

void node_write(mmf_t *m, uint64_t off, const mmf_node_header_t *n)
{
	void *p = map_range(m, off, MMF_NODE_HEADER_BYTES, true);
	memcpy(p, n, sizeof(*n));
}

void node_set_len(mmf_t *m, uint64_t off, uint32_t len)
{
	store32(m, off, offsetof(mmf_node_header_t, len), len);
}

void node_set_flags(mmf_t *m, uint64_t off, uint32_t flags)
{
	store32(m, off, offsetof(mmf_node_header_t, flags), flags);
}

bool trailer_read(mmf_t *m, uint64_t node_off, uint32_t len,
    mmf_node_trailer_t *t)
{
	if (len < MMF_NODE_BYTES || node_off + len > cur(m))
		return false;
	void *p = map_range(m, node_off + len - MMF_NODE_TRAILER_BYTES,
	    MMF_NODE_TRAILER_BYTES, false);
	if (p == nullptr)
		return false;
	memcpy(t, p, sizeof(*t));
	return true;
}

void trailer_write(mmf_t *m, uint64_t node_off, uint32_t len)
{
	mmf_node_trailer_t t = {MMF_TRAILER_PATTERN, len};
	void *p = map_range(m, node_off + len - MMF_NODE_TRAILER_BYTES,
	    MMF_NODE_TRAILER_BYTES, true);
	memcpy(p, &t, sizeof(t));
}

void node_lay(mmf_t *m, uint64_t off, uint32_t len, uint32_t flags)
{
	trailer_write(m, off, len);
	mmf_node_header_t n = {};
	n.offset = off;
	n.pattern = MMF_HEADER_PATTERN;
	n.flags = flags;
	n.len = len;
	n.user_offset = off + MMF_NODE_HEADER_BYTES;
	node_write(m, off, &n);
}

/* One reading of the checks; returns the failed expression or null. */
static const char *node_fault(mmf_t *m, uint64_t off, mmf_node_header_t *n)
{
	if (off >= cur(m))
		return "offset < si->current_bytes";
	if (!node_read(m, off, n))
		return "node mapped";
	if (n->offset != off)
		return "n->offset == offset";
	if (n->pattern != MMF_HEADER_PATTERN)
		return "n->pattern == MMF_HEADER_PATTERN";
	if ((n->flags & ~MMF_FLAG_ALL) != 0)
		return "(n->flags & ~MMF_FLAG_ALL) == 0";
	if (n->len < MMF_NODE_BYTES)
		return "n->len >= mmf_node_bytes";
	if (off + n->len > cur(m))
		return "offset + n->len <= si->current_bytes";
	if (n->prev_offset >= cur(m))
		return "n->prev_offset < si->current_bytes";
	if (n->next_offset >= cur(m))
		return "n->next_offset < si->current_bytes";
	mmf_node_trailer_t t;
	if (!trailer_read(m, off, n->len, &t))
		return "trailer mapped";
	if (t.pattern != MMF_TRAILER_PATTERN)
		return "t->pattern == MMF_TRAILER_PATTERN";
	if (t.len != n->len)
		return "t->len == n->len";
	return nullptr;
}

bool node_valid(mmf_t *m, uint64_t off, mmf_node_header_t *n, bool fatal,
    const char **fault_out)
{
	const char *fault = node_fault(m, off, n);
	if (fault == nullptr)
		return true;
	/* Another process may be writing the node: read it once more. */
	fault = node_fault(m, off, n);
	if (fault == nullptr)
		return true;
	if (fault_out != nullptr)
		*fault_out = fault;
	if (fatal && m->assert_on_bad)
		throw mmf_damage{fault, __FILE__, __LINE__};
	return false;
}

void note_damage(mmf_t *m, const char *func, const mmf_damage &d)
{
	bool first = !m->corrupt;
	m->corrupt = true;
	if (!first)
		return;
	log_event("MMF_CORRUPT", func, d.line, "%s: \"%s\" failed (%s:%d); "
	    "this process stops writing to the store", m->name, d.expr, d.file,
	    d.line);
	meminfo_refresh(m);
}

uint32_t class_of(const mmf_shared_info_t *si, uint32_t len)
{
	uint32_t n = si->num_alloc_sizes;
	if (n > MMF_MAX_CLASSES)
		n = MMF_MAX_CLASSES;
	for (uint32_t i = n; i-- > 1;)
		if (len >= si->alloc_sizes[i])
			return i;
	return 0;
}

void list_push(mmf_t *m, uint64_t off)
{
	mmf_shared_info_t *si = m->shared_info;
	mmf_node_header_t n;
	MMF_CHECK_FILE(node_read(m, off, &n));
	uint32_t c = class_of(si, n.len);
	uint64_t head = si->free_heads[c];
	if (head != 0) {
		mmf_node_header_t h;
		MMF_CHECK_FILE(node_read(m, head, &h));
		MMF_CHECK_FILE(h.offset == head && h.prev_offset == 0);
		h.prev_offset = off;
		node_write(m, head, &h);
	}
	n.prev_offset = 0;
	n.next_offset = head;
	node_write(m, off, &n);
	si->free_heads[c] = off;
}

/* Every neighbour is read and checked before the first write, so that
 * damage found here leaves the lists as they were. */
void list_remove(mmf_t *m, uint64_t off)
{
	mmf_shared_info_t *si = m->shared_info;
	mmf_node_header_t n, p, x;
	MMF_CHECK_FILE(node_read(m, off, &n));
	uint32_t c = class_of(si, n.len);
	if (n.prev_offset == 0) {
		MMF_CHECK_FILE(si->free_heads[c] == off);
	} else {
		MMF_CHECK_FILE(node_read(m, n.prev_offset, &p));
		MMF_CHECK_FILE(p.offset == n.prev_offset);
		MMF_CHECK_FILE(p.next_offset == off);
	}
	if (n.next_offset != 0) {
		MMF_CHECK_FILE(node_read(m, n.next_offset, &x));
		MMF_CHECK_FILE(x.offset == n.next_offset);
		MMF_CHECK_FILE(x.prev_offset == off);
	}
	if (n.prev_offset == 0) {
		si->free_heads[c] = n.next_offset;
	} else {
		p.next_offset = n.next_offset;
		node_write(m, n.prev_offset, &p);
	}
	if (n.next_offset != 0) {
		MMF_CHECK_FILE(node_read(m, n.next_offset, &x));
		x.prev_offset = n.prev_offset;
		node_write(m, n.next_offset, &x);
	}
	MMF_CHECK_FILE(node_read(m, off, &n));
	n.prev_offset = 0;
	n.next_offset = 0;
	node_write(m, off, &n);
}

void set_allocation_info(mmf_shared_info_t *si, uint32_t n,
    const uint32_t *sizes)
{
	MMF_ASSERT(n != 0 && n != 255);
	if (n > MMF_MAX_USER_CLASSES)
		n = MMF_MAX_USER_CLASSES;
	uint32_t c[MMF_MAX_CLASSES];
	memcpy(c, sizes, n * sizeof(uint32_t));
	std::sort(c, c + n);
	c[n] = c[n - 1] + 1;
	for (uint32_t i = 0; i <= n; i++) {
		c[i] += MMF_NODE_BYTES;
		if (i > 0)
			MMF_ASSERT(c[i] > c[i - 1]);
	}
	memcpy(si->alloc_sizes, c, (n + 1) * sizeof(uint32_t));
	si->num_alloc_sizes = static_cast<uint8_t>(n + 1);
}

/*
 * Carve [from, to) into free nodes from the end toward the start.  A
 * remainder too small for a node is folded into the piece at the end, so
 * that the nodes still tile the whole range.
 */
static void lay_free_bytes(mmf_t *m, uint64_t from, uint64_t to,
    std::vector<uint64_t> *laid)
{
	uint64_t end = to;
	while (end > from && end - from >= MMF_NODE_BYTES) {
		uint64_t rem = end - from;
		uint64_t piece = rem % MMF_MAX_NODE_LEN;
		if (piece == 0)
			piece = MMF_MAX_NODE_LEN;
		if (piece < MMF_NODE_BYTES && rem > piece)
			piece += 64;
		node_lay(m, end - piece, static_cast<uint32_t>(piece),
		    MMF_FLAG_FREE);
		laid->push_back(end - piece);
		end -= piece;
	}
}

void add_free_bytes(mmf_t *m, uint64_t from, uint64_t to)
{
	if (!m->allocs_allowed)
		return;
	std::vector<uint64_t> laid;
	lay_free_bytes(m, from, to, &laid);
	for (uint64_t off : laid)
		list_push(m, off);
}

/*
 * Grow the area to new_end: the nodes are laid beyond current_bytes
 * first, where no walk looks, then current_bytes is published by one
 * store, and only then are the nodes linked.
 */
void extend_area(mmf_t *m, uint64_t new_end)
{
	mmf_shared_info_t *si = m->shared_info;
	uint64_t old_end = si->current_bytes;
	std::vector<uint64_t> laid;
	if (m->allocs_allowed)
		lay_free_bytes(m, old_end, new_end, &laid);
	/* One 8-byte store (the field is only 4-aligned, so no atomic_ref):
	 * a holder killed around it leaves the old or the new size. */
	si->current_bytes = new_end;
	for (uint64_t off : laid)
		list_push(m, off);
}

/*
 * The free lists repeat what the nodes' flags say.  A list that does not
 * (a wild link, a node twice, a free node missing) is rebuilt from the
 * flags, which loses nothing.
 */
bool lists_consistent(mmf_t *m, uint64_t *used)
{
	mmf_shared_info_t *si = m->shared_info;
	uint64_t free_nodes = 0, listed = 0;
	*used = 0;
	for (uint64_t off = si->first_alloc_offset; off < si->current_bytes;) {
		mmf_node_header_t n;
		if (!node_read(m, off, &n) || n.len < MMF_NODE_BYTES)
			return false;
		if (n.flags & MMF_FLAG_FREE)
			free_nodes++;
		else
			*used += n.len;
		off += n.len;
	}
	uint32_t classes = std::min<uint32_t>(si->num_alloc_sizes,
	    MMF_MAX_CLASSES);
	for (uint32_t i = 0; i < MMF_MAX_CLASSES; i++) {
		uint64_t prev = 0;
		for (uint64_t off = si->free_heads[i]; off != 0;) {
			mmf_node_header_t n;
			if (i >= classes || ++listed > free_nodes ||
			    !node_valid(m, off, &n, false) ||
			    !(n.flags & MMF_FLAG_FREE) || n.prev_offset != prev ||
			    class_of(si, n.len) != i)
				return false;
			prev = off;
			off = n.next_offset;
		}
	}
	return listed == free_nodes;
}

bool repair_after_dead_holder(mmf_t *m)
{
	mmf_shared_info_t *si = m->shared_info;
	if (!m->allocs_allowed || si->magic != MMF_MAGIC_READY)
		return true;
	std::vector<uint64_t> free_nodes;
	uint64_t allocated = 0, off = si->first_alloc_offset;
	uint32_t trailers = 0;
	while (off < si->current_bytes) {
		mmf_node_header_t n;
		if (!node_read(m, off, &n) || n.offset != off ||
		    n.pattern != MMF_HEADER_PATTERN ||
		    (n.flags & ~MMF_FLAG_ALL) != 0 || n.len < MMF_NODE_BYTES ||
		    off + n.len > si->current_bytes) {
			m->corrupt = true;
			log_event("MMF_CORRUPT", __func__, __LINE__,
			    "%s: node at %llu damaged, lists left as found",
			    m->name, static_cast<unsigned long long>(off));
			return false;
		}
		mmf_node_trailer_t t;
		if (!trailer_read(m, off, n.len, &t) ||
		    t.pattern != MMF_TRAILER_PATTERN || t.len != n.len) {
			trailer_write(m, off, n.len);
			trailers++;
		}
		if (n.flags & MMF_FLAG_FREE)
			free_nodes.push_back(off);
		else
			allocated += n.len;
		off += n.len;
	}
	for (uint32_t i = 0; i < MMF_MAX_CLASSES; i++)
		si->free_heads[i] = 0;
	for (auto it = free_nodes.rbegin(); it != free_nodes.rend(); ++it)
		list_push(m, *it);
	si->allocated_bytes = allocated;
	return true;
}

} // namespace mmf_impl
