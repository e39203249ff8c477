/*
 * Allocation, freeing and growth of a heap.  Every change of the node
 * area happens under the lock word and in the order that node.cc relies
 * on: a node's length changes by one store, after the pieces carved from
 * it are laid.
 */
#include "mmf_impl.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

using namespace mmf_impl;

namespace {

struct locked {
	mmf_t *m;
	explicit locked(mmf_t *mm) : m(mm) { mmf_lock(m); }
	~locked() { mmf_unlock(m); }
	locked(const locked &) = delete;
	locked &operator=(const locked &) = delete;
};

/*
 * The first node of at least need bytes.  A class whose lower bound is
 * at least need gives its head; a head that is still too short (a small
 * remainder of a grow sits in class 0) sends us searching that list, so
 * that no caller gets fewer bytes than asked.
 */
uint64_t find_fit(mmf_t *m, uint32_t need)
{
	mmf_shared_info_t *si = m->shared_info;
	uint32_t last = si->num_alloc_sizes - 1u;
	for (uint32_t i = 0; i <= last; i++) {
		if (i < last && si->alloc_sizes[i] < need)
			continue;
		uint64_t off = si->free_heads[i];
		uint64_t walked = 0;
		while (off != 0) {
			mmf_node_header_t n;
			node_valid(m, off, &n, true);
			if (n.len >= need)
				return off;
			off = n.next_offset;
			MMF_CHECK_FILE(++walked < MMF_VALID_MAX_ITERS);
		}
	}
	return 0;
}

uint64_t grow_target(mmf_t *m)
{
	uint64_t cur = m->shared_info->current_bytes;
	if (cur < m->default_bytes)
		return m->default_bytes;
	if (cur + m->grow_by_bytes <= m->max_bytes && m->grow_by_bytes != 0)
		return cur + m->grow_by_bytes;
	if (cur < m->max_bytes)
		return m->max_bytes;
	return 0;
}

/* Join the free node at lo with the free node after it, at hi. */
bool coalesce(mmf_t *m, uint64_t lo, uint64_t hi)
{
	mmf_node_header_t a, b;
	if (!node_valid(m, lo, &a, true) || !node_valid(m, hi, &b, true))
		return false;
	if (!(a.flags & MMF_FLAG_FREE) || !(b.flags & MMF_FLAG_FREE) ||
	    a.offset + a.len != hi ||
	    uint64_t(a.len) + b.len > MMF_MAX_NODE_LEN)
		return false;
	list_remove(m, lo);
	list_remove(m, hi);
	uint32_t len = a.len + b.len;
	node_set_len(m, lo, len);
	trailer_write(m, lo, len);
	list_push(m, lo);
	return true;
}

} // namespace

static bool grow(mmf_t *m)
{
	bool grown = false;
	{
		locked l(m);
		mmf_shared_info_t *si = m->shared_info;
		uint64_t target = grow_target(m);
		target = m->whole_mapped ?
		    (target + m->page_size - 1) / m->page_size * m->page_size :
		    (target + m->region_map_bytes - 1) / m->region_map_bytes *
		    m->region_map_bytes;
		uint64_t cur = si->current_bytes;
		if (target > cur && target <= std::max(m->max_bytes, cur) &&
		    ftruncate(m->fd, static_cast<off_t>(target)) == 0) {
			if (m->whole_mapped && !remap_whole(m))
				return false;
			si = m->shared_info;
			MMF_BUMP(m, grow_count);
			si->grown_bytes += target - cur;
			m->stats.grown_bytes += target - cur;
			extend_area(m, target);
			grown = true;
		}
	}
	if (grown)
		meminfo_refresh(m);
	return grown;
}

extern "C" bool mmf_grow(mmf_t *m)
{
	if (m->corrupt)
		return false;
	try {
		return grow(m);
	} catch (const mmf_damage &d) {
		note_damage(m, __func__, d);
		return false;
	}
}

extern "C" bool mmf_try_grow(mmf_t *m)
{
	if (m->shared_info->current_bytes + m->grow_by_bytes > m->max_bytes)
		return false;
	return mmf_grow(m);
}

static void *alloc_node(mmf_t *m, uint32_t bytes, uint64_t *offset)
{
	uint32_t usize = (bytes + 7u) & ~7u;
	locked l(m);
	mmf_shared_info_t *si = m->shared_info;
	usize = std::max(usize, si->alloc_sizes[0] - MMF_NODE_BYTES);
	uint32_t need = usize + MMF_NODE_BYTES;

	uint64_t off = find_fit(m, need);
	if (off == 0 && mmf_grow(m)) {
		si = m->shared_info;
		off = find_fit(m, need);
	}
	if (off == 0)
		return nullptr;

	mmf_node_header_t n;
	node_valid(m, off, &n, true);
	MMF_CHECK_FILE(n.flags & MMF_FLAG_FREE);
	m->own_allocs++;
	MMF_BUMP(m, alloc_count);
	MMF_BUMP(m, allocs_by_class[class_of(si, n.len)]);
	list_remove(m, off);

	/*
	 * The node stays free while it is split and is marked allocated by
	 * the last store: a holder killed before it leaves free nodes off
	 * their lists, which the takeover lists again, not a node in use by
	 * nobody.
	 */
	uint32_t len = n.len;
	if (len > si->alloc_sizes[0] + 104 + usize) {
		uint32_t rest = len - need;
		node_lay(m, off + need, rest, MMF_FLAG_FREE);
		trailer_write(m, off, need);
		node_set_len(m, off, need);
		list_push(m, off + need);
		len = need;
	}
	node_set_flags(m, off, 0);
	si->allocated_bytes += len;
	*offset = off + MMF_NODE_HEADER_BYTES;
	return map_range(m, *offset, usize, true);
}

extern "C" void *mmf_alloc(mmf_t *m, uint32_t bytes, uint64_t *offset)
{
	MMF_ASSERT(m->allocs_allowed);
	*offset = 0;
	if (m->corrupt || m->read_only || bytes > MMF_MAX_NODE_LEN - 64)
		return nullptr;
	try {
		return alloc_node(m, bytes, offset);
	} catch (const mmf_damage &d) {
		note_damage(m, __func__, d);
		*offset = 0;
		return nullptr;
	}
}

static void free_node(mmf_t *m, uint64_t offset)
{
	locked l(m);
	mmf_shared_info_t *si = m->shared_info;
	MMF_ASSERT(offset >= si->first_alloc_offset + MMF_NODE_HEADER_BYTES);
	uint64_t off = offset - MMF_NODE_HEADER_BYTES;
	mmf_node_header_t n;
	node_valid(m, off, &n, true);
	MMF_ASSERT((n.flags & MMF_FLAG_FREE) == 0);
	m->own_frees++;
	MMF_BUMP(m, free_count);
	MMF_BUMP(m, frees_by_class[class_of(si, n.len)]);
	si->allocated_bytes -= n.len;
	node_set_flags(m, off, MMF_FLAG_FREE);
	list_push(m, off);

	if (off > si->first_alloc_offset) {
		mmf_node_trailer_t t;
		void *p = map_range(m, off - MMF_NODE_TRAILER_BYTES,
		    MMF_NODE_TRAILER_BYTES, true);
		memcpy(&t, p, sizeof(t));
		MMF_CHECK_FILE(t.len >= MMF_NODE_BYTES);
		MMF_CHECK_FILE(off - t.len >= si->first_alloc_offset);
		uint64_t prev = off - t.len;
		if (coalesce(m, prev, off))
			off = prev;
	}
	mmf_node_header_t cur;
	node_valid(m, off, &cur, true);
	if (off + cur.len < si->current_bytes)
		coalesce(m, off, off + cur.len);
}

extern "C" void mmf_free_offset(mmf_t *m, uint64_t offset)
{
	if (m->corrupt || m->read_only)
		return;
	try {
		free_node(m, offset);
	} catch (const mmf_damage &d) {
		/* The block stays allocated: a leak, where a guess could hand
		 * the bytes out twice. */
		note_damage(m, __func__, d);
	}
}

extern "C" void *mmf_ensure_mapped(mmf_t *m, uint64_t offset, uint32_t len)
{
	MMF_BUMP(m, ensure_mapped_calls);
	if (!m->whole_mapped) {
		MMF_ASSERT(len < 2 * m->region_map_bytes);
		MMF_ASSERT(offset + len <= m->max_bytes);
	}
	return map_range(m, offset, len, false);
}

extern "C" void *mmf_offset_to_ptr(mmf_t *m, uint64_t user_offset,
    uint32_t len)
{
	MMF_BUMP(m, offset_to_ptr_calls);
	if (!mmf_validate_user_offset(m, user_offset, false))
		return nullptr;
	return map_range(m, user_offset, len, false);
}

extern "C" uint32_t mmf_get_user_usable_len(mmf_t *m, uint64_t offset)
{
	mmf_node_header_t n;
	if (offset < MMF_NODE_HEADER_BYTES ||
	    !node_read(m, offset - MMF_NODE_HEADER_BYTES, &n))
		return 0;
	return n.len - MMF_NODE_BYTES;
}

extern "C" bool mmf_validate_user_offset(mmf_t *m, uint64_t offset,
    bool fatal)
{
	if (offset < MMF_NODE_HEADER_BYTES)
		return false;
	uint64_t off = offset - MMF_NODE_HEADER_BYTES;
	mmf_node_header_t n;
	if (!node_read(m, off, &n))
		return true;
	bool ok = n.pattern == MMF_HEADER_PATTERN;
	mmf_node_trailer_t t;
	if (ok && trailer_read(m, off, n.len, &t))
		ok = t.pattern == MMF_TRAILER_PATTERN && t.len == n.len;
	if (fatal) {
		MMF_ASSERT(n.pattern == MMF_HEADER_PATTERN);
		MMF_ASSERT(ok);
	}
	return ok;
}

extern "C" void *mmf_alloc_common(mmf_t *m, uint32_t *len, uint64_t *offset)
{
	mmf_shared_info_t *si = m->shared_info;
	*offset = 0;
	if (si->common_offset == 0 && *len == 0)
		return nullptr;
	locked l(m);
	si = m->shared_info;
	uint64_t foa = si->first_alloc_offset;
	if (si->common_offset == 0) {
		uint64_t at = 0;
		if (MMF_HEADER_BYTES + uint64_t(*len) <= foa) {
			at = MMF_HEADER_BYTES;
		} else if (m->allocs_allowed) {
			if (mmf_alloc(m, *len, &at) == nullptr)
				return nullptr;
			si = m->shared_info;
		} else if (MMF_HEADER_BYTES + uint64_t(*len) <= m->mapped_bytes ||
		    (m->whole_mapped &&
		    MMF_HEADER_BYTES + uint64_t(*len) <= m->whole_bytes)) {
			at = MMF_HEADER_BYTES;
		} else {
			return nullptr;
		}
		si->common_len = *len;
		si->common_offset = at;	/* one store: set last */
	} else if (*len != 0 && *len != si->common_len) {
		uint64_t at = si->common_offset;
		if (at > si->current_bytes) {
			si->common_offset = 0;
			si->common_len = 0;
			return nullptr;
		}
		if (si->alloc_count <= 1 && at + *len <= si->current_bytes &&
		    at + si->common_len <= si->current_bytes) {
			*len = si->common_len;
		} else if ((m->create_flags & MMF_CREATE_COMMON_RESIZE) &&
		    m->whole_mapped && at > foa) {
			/*
			 * A common area that is a node cannot outgrow its node:
			 * the bytes after it belong to other nodes.
			 */
			uint32_t room = m->allocs_allowed ?
			    mmf_get_user_usable_len(m, at) : UINT32_MAX;
			if (*len < si->common_len) {
				*len = si->common_len;
			} else if (m->allocs_allowed) {
				si->common_len = std::min(*len, room);
			} else if (at + *len <= si->current_bytes) {
				si->common_len = *len;
			} else {
				uint64_t end = (at + *len + m->page_size - 1) /
				    m->page_size * m->page_size;
				m->grow_by_bytes = end - m->max_bytes;
				m->max_bytes = end;
				if (!mmf_try_grow(m)) {
					si = m->shared_info;
					*len = static_cast<uint32_t>(
					    si->current_bytes - at);
				}
				si = m->shared_info;
				si->common_len = *len;
			}
		} else {
			MMF_ASSERT_TEXT(*len == m->shared_info->common_len,
			    "*len == mmf->shared_info->common_len");
		}
	}
	si = m->shared_info;
	*len = si->common_len;
	*offset = si->common_offset;
	if (*offset < foa) {
		if (m->whole_mapped)
			return m->whole_base + *offset;
		return reinterpret_cast<uint8_t *>(si) + *offset;
	}
	return map_range(m, *offset, *len, false);
}

static void *alloc2(mmf_t *ctrl, mmf_t *data, uint32_t bytes,
    uint64_t *offset)
{
	locked lc(ctrl);
	locked ld(data);
	uint64_t coff, doff;
	if (mmf_alloc(ctrl, 0, &coff) == nullptr)
		return nullptr;
	void *p = mmf_alloc(data, bytes, &doff);
	if (p == nullptr) {
		mmf_free_offset(ctrl, coff);
		return nullptr;
	}
	uint64_t node = coff - MMF_NODE_HEADER_BYTES;
	mmf_node_header_t n;
	node_valid(ctrl, node, &n, true);
	n.user_offset = doff;
	n.flags |= MMF_FLAG_DATA_OTHER_MMF;
	node_write(ctrl, node, &n);
	*offset = coff;
	return map_range(data, doff, bytes, true);
}

static uint64_t data_offset_of(mmf_t *ctrl, uint64_t offset)
{
	mmf_node_header_t n;
	MMF_ASSERT(offset >= MMF_NODE_HEADER_BYTES);
	node_valid(ctrl, offset - MMF_NODE_HEADER_BYTES, &n, true);
	MMF_CHECK_FILE(n.flags & MMF_FLAG_DATA_OTHER_MMF);
	return n.user_offset;
}

extern "C" void *mmf_alloc2(mmf_t *ctrl, mmf_t *data, uint32_t bytes,
    uint64_t *offset)
{
	*offset = 0;
	if (ctrl->corrupt || data->corrupt)
		return nullptr;
	try {
		return alloc2(ctrl, data, bytes, offset);
	} catch (const mmf_damage &d) {
		note_damage(ctrl, __func__, d);
		*offset = 0;
		return nullptr;
	}
}

extern "C" void mmf_free_offset2(mmf_t *ctrl, mmf_t *data, uint64_t offset)
{
	try {
		locked lc(ctrl);
		locked ld(data);
		uint64_t doff = data_offset_of(ctrl, offset);
		mmf_free_offset(data, doff);
		mmf_free_offset(ctrl, offset);
	} catch (const mmf_damage &d) {
		note_damage(ctrl, __func__, d);
	}
}

extern "C" void *mmf_ensure_mapped2(mmf_t *ctrl, mmf_t *data,
    uint64_t offset, uint32_t len)
{
	try {
		locked lc(ctrl);
		locked ld(data);
		return mmf_ensure_mapped(data, data_offset_of(ctrl, offset), len);
	} catch (const mmf_damage &d) {
		note_damage(ctrl, __func__, d);
		return nullptr;
	}
}

static void reset(mmf_t *m)
{
	locked l(m);
	mmf_shared_info_t *si = m->shared_info;
	si->allocated_bytes = 0;
	si->alloc_count = 0;
	si->free_count = 0;
	memset(si->allocs_by_class, 0, sizeof(si->allocs_by_class));
	memset(si->frees_by_class, 0, sizeof(si->frees_by_class));
	memset(si->free_heads, 0, sizeof(si->free_heads));
	add_free_bytes(m, si->first_alloc_offset, si->current_bytes);
}

extern "C" void mmf_reset(mmf_t *m)
{
	try {
		reset(m);
		m->corrupt = false;	/* a fresh store: nothing is damaged */
	} catch (const mmf_damage &d) {
		note_damage(m, __func__, d);
	}
}

extern "C" void mmf_quiesce(mmf_t *m)
{
	m->closing_thread.store(gettid_cached());
	m->closing.store(true);
	mmf_lock(m);
	mmf_unlock(m);
}

extern "C" uint64_t mmf_get_first_alloc_offset(mmf_t *m)
{
	if (m == nullptr)
		return static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
	return m->shared_info->first_alloc_offset;
}

extern "C" uint64_t mmf_get_allocated_bytes(mmf_t *m)
{
	return m->shared_info->allocated_bytes;
}

extern "C" uint64_t mmf_get_current_bytes(mmf_t *m)
{
	return m->shared_info->current_bytes;
}

extern "C" uint32_t mmf_get_common_len(mmf_t *m)
{
	return m->shared_info->common_len;
}

extern "C" uint8_t mmf_get_allocation_info(mmf_t *m, uint32_t *sizes)
{
	const mmf_shared_info_t *si = m->shared_info;
	uint32_t n = si->num_alloc_sizes;
	if (n < 2 || n > MMF_MAX_CLASSES)
		return 0;
	for (uint32_t i = 0; i + 1 < n; i++)
		sizes[i] = si->alloc_sizes[i] - MMF_NODE_BYTES;
	return static_cast<uint8_t>(n - 1);
}

extern "C" const mmf_shared_info_t *mmf_get_shared_info(mmf_t *m)
{
	return m->shared_info;
}
