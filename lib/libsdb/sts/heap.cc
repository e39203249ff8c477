/*
 * The heap of the short-term store and the allocator inside a slot.
 *
 * Heap: blocks from the end of the heap control block to the end of the
 * region.  A free block has a header and a trailer and lies in one of 11
 * bins by size; an allocated block is a slot and its size is known only to
 * its entry.  A free block is recognised by its header magic, its own
 * offset in the header and the free flag: slot bytes may hold the magic by
 * chance, but never the slot's own offset in its first word, which is the
 * slot's unused head.
 *
 * Slot: a free list in ascending order of 4-byte nodes (length, next).
 */
#include <algorithm>
#include <syslog.h>
#include <vector>

#include "sts/sts_impl.h"

using namespace sts;

namespace {

constexpr uint32_t page = 4096;

sdb_sts_block_hdr *hdr(uint32_t off)
{
	return at<sdb_sts_block_hdr>(R.base, off);
}
sdb_sts_block_trl *trl_of(uint32_t off, uint32_t size)
{
	return at<sdb_sts_block_trl>(R.base, off + size - SDB_STS_TRL_SIZE);
}

/* A well-formed free block at off, within the heap. */
bool is_free_block(uint32_t off)
{
	if (off < R.g.heap_start || off > R.g.max_bytes - SDB_STS_HDR_SIZE)
		return false;
	const sdb_sts_block_hdr *h = hdr(off);
	if (h->magic != SDB_STS_HDR_MAGIC || h->offset != off || h->flags != 1)
		return false;
	if (h->size < SDB_STS_HDR_SIZE + SDB_STS_TRL_SIZE ||
	    h->size > R.g.max_bytes - off)
		return false;
	const sdb_sts_block_trl *t = trl_of(off, h->size);
	return t->magic == SDB_STS_TRL_MAGIC && t->size == h->size;
}

void bin_insert(uint32_t off)
{
	sdb_sts_heap_ctl *c = heap_ctl();
	sdb_sts_block_hdr *h = hdr(off);
	uint32_t b = bin_of_size(h->size);
	h->prev = 0;
	h->next = c->bins[b];
	if (h->next != 0) {
		sdb_sts_assert_corruption(is_free_block(h->next));
		hdr(h->next)->prev = off;
	}
	c->bins[b] = off;
}

void bin_unlink(uint32_t off)
{
	sdb_sts_heap_ctl *c = heap_ctl();
	sdb_sts_block_hdr *h = hdr(off);
	if (h->prev != 0) {
		sdb_sts_assert_corruption(is_free_block(h->prev));
		hdr(h->prev)->next = h->next;
	} else {
		uint32_t b = bin_of_size(h->size);
		sdb_sts_assert_corruption(c->bins[b] == off);
		c->bins[b] = h->next;
	}
	if (h->next != 0) {
		sdb_sts_assert_corruption(is_free_block(h->next));
		hdr(h->next)->prev = h->prev;
	}
	h->prev = h->next = 0;
}

void write_free(uint32_t off, uint32_t size)
{
	sdb_sts_block_hdr *h = hdr(off);
	h->offset = off;
	h->magic = SDB_STS_HDR_MAGIC;
	h->flags = 1;
	h->size = size;
	h->prev = h->next = 0;
	sdb_sts_block_trl *t = trl_of(off, size);
	t->magic = SDB_STS_TRL_MAGIC;
	t->size = size;
}

/* lo and hi are free and touch: one block. */
uint32_t merge(uint32_t lo, uint32_t hi)
{
	uint32_t lsize = hdr(lo)->size, hsize = hdr(hi)->size;
	sdb_sts_assert_corruption(lo + lsize == hi);
	bin_unlink(lo);
	bin_unlink(hi);
	memset(trl_of(lo, lsize), 0, SDB_STS_TRL_SIZE);
	memset(hdr(hi), 0, SDB_STS_HDR_SIZE);
	write_free(lo, lsize + hsize);
	bin_insert(lo);
	return lo;
}

/* First block of a bin that holds size bytes, walking at most the bin. */
uint32_t first_fit(uint32_t b, uint32_t size)
{
	uint32_t n = 0, limit = R.g.max_bytes / page + 1;
	for (uint32_t off = heap_ctl()->bins[b]; off != 0;
	    off = hdr(off)->next) {
		sdb_sts_assert_corruption(is_free_block(off) && ++n <= limit);
		if (hdr(off)->size >= size)
			return off;
	}
	return 0;
}

uint32_t find_block(uint32_t size)
{
	sdb_sts_heap_ctl *c = heap_ctl();
	uint32_t want = bin_wanted(size);
	if (want == SDB_STS_BINS - 1)
		return first_fit(want, size);
	if (c->bins[want] != 0) {
		uint32_t off = c->bins[want];
		sdb_sts_assert_corruption(is_free_block(off) &&
		    hdr(off)->size >= size);
		return off;
	}
	if (uint32_t off = first_fit(SDB_STS_BINS - 1, size))
		return off;
	for (uint32_t b = want + 1; b < SDB_STS_BINS - 1; b++)
		if (c->bins[b] != 0) {
			uint32_t off = c->bins[b];
			sdb_sts_assert_corruption(is_free_block(off) &&
			    hdr(off)->size >= size);
			return off;
		}
	return 0;
}

/* The slot's free list, checked as it is walked. */
sdb_sts_free_node *node(uint8_t *slot, uint16_t off)
{
	return at<sdb_sts_free_node>(slot, off);
}

void check_node(const sdb_sts_entry *e, uint8_t *slot, uint16_t off)
{
	sdb_sts_assert_corruption(off >= 4 && off + 4u <= e->slot_size);
	const sdb_sts_free_node *n = node(slot, off);
	sdb_sts_assert_corruption(n->len >= 4 && off + n->len <= e->slot_size);
	sdb_sts_assert_corruption(n->next == 0 ||
	    (n->next >= off + n->len && n->next < e->slot_size));
}

/*
 * Pieces are whole words: the slot starts its list at 4 and every size is
 * rounded up to a multiple of 4, both when it is taken and when it comes
 * back.  So a remainder is never 1 to 3 bytes, no crumb is handed out with
 * a piece and lost when the owner gives back what it asked for, and all
 * pieces lie 4-aligned.
 */
uint32_t piece_bytes(uint32_t size)
{
	return (std::max<uint32_t>(size, 4) + 3) & ~3u;
}

uint16_t slot_alloc(sdb_sts_entry *e, uint32_t size)
{
	uint8_t *slot = sdb_sts_slot(e);
	size = piece_bytes(size);
	uint16_t prev = 0;
	for (uint16_t off = e->free_list_offset; off != 0;) {
		check_node(e, slot, off);
		sdb_sts_free_node *n = node(slot, off);
		if (n->len < size) {
			prev = off;
			off = n->next;
			continue;
		}
		uint16_t next;
		if (n->len - size < 4) {
			next = n->next;
		} else {
			next = (uint16_t)(off + size);
			sdb_sts_free_node rest = {(uint16_t)(n->len - size),
			    n->next};
			memcpy(node(slot, next), &rest, sizeof rest);
		}
		if (prev == 0)
			e->free_list_offset = next;
		else
			node(slot, prev)->next = next;
		memset(slot + off, 0, size);
		return off;
	}
	return 0;
}

bool memory_failure(const sdb_sts_entry *e, uint32_t ask, uint32_t req)
{
	sdb_event(LOG_ERR, "LIBSDB_STS_MEM_FAILURE",
	    "LIBSDB_STS_MEM_FAILURE: SDB STS MEM FAILURE sid:%llu ASK= %d REQ %d "
	    "Max %d", (unsigned long long)e->session_id, (int)ask, (int)req,
	    (int)SDB_STS_SLOT_MAX);
	return false;
}

/* A bigger slot for e, its bytes moved along; false when none. */
bool grow_slot(sdb_sts_entry *e, uint32_t request)
{
	uint32_t old_size = e->slot_size;
	uint32_t want = (old_size + request) / page * page + page;
	if (want > SDB_STS_SLOT_MAX)
		return memory_failure(e, want, request);
	uint32_t blk = sdb_sts_heap_alloc(want);
	if (blk == 0) {
		int released = 0;
		sdb_sts_heap_defragment(e, &released);
		blk = sdb_sts_heap_alloc(want);
	}
	if (blk == 0) {
		/*
		 * The defragmentation left the heap in one piece: another
		 * try finds no more unless another process frees, and no
		 * other writer runs beside this one.
		 */
		return memory_failure(e, want, request);
	}
	uint32_t old = e->data_start_offset;
	memcpy(R.base + blk, R.base + old, old_size);
	sdb_sts_heap_free(old, old_size);
	e->data_start_offset = blk;
	e->slot_size = want;
	sdb_sts_entry_free(e, (uint16_t)old_size, want - old_size);
	return true;
}

} // namespace

uint32_t sts::bin_of_size(uint32_t size)
{
	if (size < page)
		return 0;
	if (size > SDB_STS_SLOT_MAX)
		return SDB_STS_BINS - 1;
	return (size - page) / page;
}

uint32_t sts::bin_wanted(uint32_t r)
{
	r = std::max<uint32_t>((r + 7) & ~7u, page);
	return std::min<uint32_t>((r - page + page - 1) / page, SDB_STS_BINS - 1);
}

void sts::heap_reset(void)
{
	sdb_sts_heap_ctl *c = heap_ctl();
	memset(c->bins, 0, sizeof c->bins);
	uint32_t size = R.g.max_bytes - R.g.heap_start;
	write_free(R.g.heap_start, size);
	bin_insert(R.g.heap_start);
}

extern "C" uint32_t sdb_sts_heap_alloc(uint32_t size)
{
	if (R.base == nullptr || size == 0)
		return 0;
	size = std::max<uint32_t>((size + 7) & ~7u, page);
	uint32_t off = find_block(size);
	if (off == 0)
		return 0;
	bin_unlink(off);
	uint32_t have = hdr(off)->size;
	hdr(off)->flags = 0;
	if (have - size >= page) {
		write_free(off + size, have - size);
		bin_insert(off + size);
		have = size;
	}
	memset(hdr(off), 0, SDB_STS_HDR_SIZE);
	memset(trl_of(off, have), 0, SDB_STS_TRL_SIZE);
	return off;
}

extern "C" void sdb_sts_heap_free(uint32_t off, uint32_t size)
{
	sdb_sts_assert(R.base != nullptr && off >= R.g.heap_start &&
	    size >= SDB_STS_HDR_SIZE + SDB_STS_TRL_SIZE &&
	    size <= R.g.max_bytes - off);
	if (is_free_block(off)) {
		/* Given back twice: say so, and leave the bins as they are. */
		uint32_t had = hdr(off)->size;
		if (had == size)
			sdb_event(LOG_ERR, "LIBSDB_STS_DOUBLE_FREE",
			    "LIBSDB_STS_DOUBLE_FREE: SDB STS double free attempt "
			    "offset %d length %d", (int)off, (int)size);
		else
			sdb_event(LOG_ERR, "LIBSDB_STS_DOUBLE_FREE_EXISTING_BLOCK",
			    "LIBSDB_STS_DOUBLE_FREE_EXISTING_BLOCK: SDB STS double "
			    "free attempt offset %d length freed %d length of "
			    "existing block %d", (int)off, (int)size, (int)had);
		return;
	}
	write_free(off, size);
	bin_insert(off);
	if (off >= R.g.heap_start + SDB_STS_TRL_SIZE) {
		const sdb_sts_block_trl *t = at<sdb_sts_block_trl>(R.base,
		    off - SDB_STS_TRL_SIZE);
		if (t->magic == SDB_STS_TRL_MAGIC && t->size <= off &&
		    off - t->size >= R.g.heap_start &&
		    is_free_block(off - t->size) &&
		    hdr(off - t->size)->size == t->size)
			off = merge(off - t->size, off);
	}
	uint32_t end = off + hdr(off)->size;
	if (end < R.g.max_bytes && is_free_block(end))
		merge(off, end);
}

extern "C" uint16_t sdb_sts_entry_alloc(sdb_sts_entry *e, uint32_t size,
    int *grew)
{
	if (grew != nullptr)
		*grew = 0;
	if (size == 0 || size >= SDB_STS_SLOT_MAX)
		return 0;
	if (uint16_t off = slot_alloc(e, size))
		return off;
	if (!in_mapping(e) || !grow_slot(e, size))
		return 0;
	if (grew != nullptr)
		*grew = 1;
	return slot_alloc(e, size);
}

extern "C" void sdb_sts_entry_free(sdb_sts_entry *e, uint16_t piece,
    uint32_t size)
{
	sdb_sts_assert_corruption(size >= 4);
	size = piece_bytes(size);
	sdb_sts_assert_corruption(piece >= 4 && piece + size <= e->slot_size);
	uint8_t *slot = sdb_sts_slot(e);
	uint16_t prev = 0, cur = e->free_list_offset;
	while (cur != 0 && cur < piece) {
		check_node(e, slot, cur);
		sdb_sts_free_node *n = node(slot, cur);
		sdb_sts_assert_corruption(cur + n->len <= piece);
		if (n->next != 0 && n->next < piece &&
		    n->next - (cur + n->len) < 4) {
			/* A crumb between two pieces: absorbed. */
			sdb_sts_free_node *m = node(slot, n->next);
			n->len = (uint16_t)(n->next + m->len - cur);
			n->next = m->next;
			continue;
		}
		prev = cur;
		cur = n->next;
	}
	if (cur != 0) {
		check_node(e, slot, cur);
		sdb_sts_assert_corruption(piece + size <= cur);
	}
	sdb_sts_free_node fresh = {(uint16_t)size, cur};
	if (cur != 0 && cur - (piece + size) < 4) {
		sdb_sts_free_node *m = node(slot, cur);
		fresh.len = (uint16_t)(cur + m->len - piece);
		fresh.next = m->next;
	}
	if (prev != 0) {
		sdb_sts_free_node *p = node(slot, prev);
		if (piece - (prev + p->len) < 4) {
			p->len = (uint16_t)(piece + fresh.len - prev);
			p->next = fresh.next;
			return;
		}
		p->next = piece;
	} else {
		e->free_list_offset = piece;
	}
	memcpy(node(slot, piece), &fresh, sizeof fresh);
}

extern "C" uint32_t sdb_sts_entry_used_bytes(const sdb_sts_entry *e)
{
	const uint8_t *slot = sdb_sts_slot(e);
	uint32_t free_bytes = 0, n = 0;
	for (uint16_t off = e->free_list_offset; off != 0 && n < 10240; n++) {
		const auto *fn = at<sdb_sts_free_node>(slot, off);
		free_bytes += fn->len;
		off = fn->next;
	}
	return e->slot_size - free_bytes;
}

/*
 * Defragmentation: every slot slides down to the start of the heap, in
 * the order of its offset, and what is left becomes one free block.  The
 * slots keep their sessions and sizes: until evicted sessions can be
 * written to the long-term store, emptying the other entries would lose
 * them.  Slots are relocatable by memcpy since they hold only offsets.
 */
extern "C" void sdb_sts_heap_defragment(sdb_sts_entry *caller, int *released)
{
	(void)caller;
	if (released != nullptr)
		*released = 0;
	sdb_sts_heap_ctl *c = heap_ctl();
	uint32_t me = (uint32_t)getpid(), owner = 0;
	if (!STS_WORD(c, sdb_sts_heap_ctl, defrag_pid).compare_exchange_strong(owner, me)) {
		if (owner == me)
			return;
		if (sdb_sts_owner_alive(owner) ||
		    !STS_WORD(c, sdb_sts_heap_ctl, defrag_pid).compare_exchange_strong(owner, me))
			return;
	}
	sdb_event(LOG_INFO, "LIBSDB_STS_HEAP_DEFRAGMENT_START",
	    "LIBSDB_STS_HEAP_DEFRAGMENT_START: SDB STS HEAP DEFRAGMENT START");
	c->defrag_thread = sdb_thread_id();
	c->defrag_running = 1;
	std::vector<uint32_t> order;
	for (uint32_t i = 0; i < R.g.total_entries; i++)
		if (entry_at(i)->slot_size != 0)
			order.push_back(i);
	std::sort(order.begin(), order.end(), [](uint32_t a, uint32_t b) {
		return entry_at(a)->data_start_offset <
		    entry_at(b)->data_start_offset;
	});
	memset(c->bins, 0, sizeof c->bins);
	uint32_t cursor = R.g.heap_start;
	for (uint32_t i : order) {
		sdb_sts_entry *e = entry_at(i);
		sdb_sts_assert_corruption(e->data_start_offset >= cursor &&
		    e->slot_size <= R.g.max_bytes - e->data_start_offset);
		if (e->data_start_offset != cursor)
			memmove(R.base + cursor, R.base + e->data_start_offset,
			    e->slot_size);
		e->data_start_offset = cursor;
		cursor += e->slot_size;
	}
	/* A tail below a page holds no slot and stays out of the bins. */
	if (R.g.max_bytes - cursor >= page) {
		write_free(cursor, R.g.max_bytes - cursor);
		bin_insert(cursor);
	}
	c->defrag_count++;
	sdb_event(LOG_INFO, "LIBSDB_STS_HEAP_DEFRAGMENT_END",
	    "LIBSDB_STS_HEAP_DEFRAGMENT_END: SDB STS HEAP DEFRAGMENT END");
	c->defrag_thread = 0;
	c->defrag_running = 0;
	STS_WORD(c, sdb_sts_heap_ctl, defrag_pid).store(0);
}
