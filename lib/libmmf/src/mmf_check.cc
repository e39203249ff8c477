/*
 * Read-only check of a heap file image.  Nothing here trusts a byte of the
 * image: every offset is bounded before it is read, every list walk is
 * bounded by the number of nodes, and nothing is written.
 */
#include "mmf/mmf_check.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unordered_set>

namespace {

constexpr const char *kStatusText[] = {
	"valid",
	"file shorter than a heap header",
	"not a ready heap (bad magic)",
	"wrong version or header size",
	"reserved sanity word damaged",
	"current_bytes does not match the file size",
	"size classes damaged",
	"layout damaged (first allocation offset or common area)",
	"node header or trailer damaged",
	"nodes do not tile the area",
	"free list damaged",
	"allocated bytes disagree with the nodes",
};

mmf_check_status fail(mmf_check_report *r, mmf_check_status s, uint64_t at,
    const char *fmt, ...)
{
	r->status = s;
	r->bad_offset = at;
	va_list ap;
	va_start(ap, fmt);
	vsnprintf(r->detail, sizeof(r->detail), fmt, ap);
	va_end(ap);
	return s;
}

template <typename T>
T load(const uint8_t *image, uint64_t off)
{
	T v;
	memcpy(&v, image + off, sizeof(v));
	return v;
}

uint32_t class_of(const mmf_shared_info_t &si, uint32_t len)
{
	for (uint32_t i = si.num_alloc_sizes; i-- > 1;)
		if (len >= si.alloc_sizes[i])
			return i;
	return 0;
}

} // namespace

extern "C" const char *mmf_check_status_text(enum mmf_check_status s)
{
	size_t i = static_cast<size_t>(s);
	if (i >= sizeof(kStatusText) / sizeof(kStatusText[0]))
		return "unknown status";
	return kStatusText[i];
}

extern "C" enum mmf_check_status mmf_check_header(const void *image,
    size_t image_bytes, uint64_t file_bytes, struct mmf_check_report *r)
{
	memset(r, 0, sizeof(*r));
	if (image_bytes < MMF_HEADER_BYTES || file_bytes < MMF_HEADER_BYTES)
		return fail(r, MMF_CHECK_SHORT, 0, "%llu bytes",
		    static_cast<unsigned long long>(file_bytes));
	mmf_shared_info_t si;
	memcpy(&si, image, sizeof(si));
	if (si.magic != MMF_MAGIC_READY)
		return fail(r, MMF_CHECK_MAGIC, 0x20, "magic 0x%08x", si.magic);
	if (si.version != MMF_VERSION || si.header_bytes != MMF_HEADER_BYTES)
		return fail(r, MMF_CHECK_VERSION, 0x18,
		    "version %u, header bytes %u", si.version, si.header_bytes);
	if (si.sanity == si.magic || si.sanity > 50)
		return fail(r, MMF_CHECK_SANITY, 0x0C, "sanity word %u",
		    si.sanity);
	if (si.num_alloc_sizes < 2 || si.num_alloc_sizes > MMF_MAX_CLASSES ||
	    si.alloc_sizes[0] < MMF_NODE_BYTES)
		return fail(r, MMF_CHECK_CLASSES, 0x2C, "%u size classes",
		    si.num_alloc_sizes);
	for (uint32_t i = 1; i < si.num_alloc_sizes; i++)
		if (si.alloc_sizes[i] <= si.alloc_sizes[i - 1])
			return fail(r, MMF_CHECK_CLASSES, 0x44 + 4 * i,
			    "class %u not ascending", i);
	uint64_t foa = si.first_alloc_offset;
	if (foa < MMF_HEADER_BYTES || foa % 4096 != 0 || foa > (1u << 20) ||
	    si.current_bytes < foa)
		return fail(r, MMF_CHECK_LAYOUT, 0x550,
		    "first allocation offset %llu, current bytes %llu",
		    static_cast<unsigned long long>(foa),
		    static_cast<unsigned long long>(si.current_bytes));
	if (si.common_offset != 0 && (si.common_offset < MMF_HEADER_BYTES ||
	    si.common_offset > si.current_bytes ||
	    si.common_len > si.current_bytes - si.common_offset))
		return fail(r, MMF_CHECK_LAYOUT, 0x544,
		    "common area at %llu of %u bytes",
		    static_cast<unsigned long long>(si.common_offset),
		    si.common_len);
	if (si.current_bytes != file_bytes)
		return fail(r, MMF_CHECK_SIZE, 0x24,
		    "current bytes %llu, file %llu bytes",
		    static_cast<unsigned long long>(si.current_bytes),
		    static_cast<unsigned long long>(file_bytes));
	return MMF_CHECK_OK;
}

extern "C" enum mmf_check_status mmf_check_image(const void *image,
    size_t image_bytes, struct mmf_check_report *r)
{
	mmf_check_status s = mmf_check_header(image, image_bytes, image_bytes,
	    r);
	if (s != MMF_CHECK_OK)
		return s;
	const uint8_t *img = static_cast<const uint8_t *>(image);
	mmf_shared_info_t si;
	memcpy(&si, image, sizeof(si));
	const uint64_t cur = si.current_bytes, foa = si.first_alloc_offset;

	/* A store opened without allocations has no nodes, only its
	 * common area. */
	bool heads_empty = true;
	for (uint32_t i = 0; i < MMF_MAX_CLASSES; i++)
		heads_empty = heads_empty && si.free_heads[i] == 0;
	if (cur - foa < MMF_NODE_HEADER_BYTES ||
	    (load<uint32_t>(img, foa + 8) != MMF_HEADER_PATTERN &&
	    heads_empty && si.allocated_bytes == 0))
		return MMF_CHECK_OK;

	std::unordered_set<uint64_t> free_nodes;
	uint64_t off = foa;
	while (off < cur) {
		if (cur - off < MMF_NODE_BYTES)
			return fail(r, MMF_CHECK_TILING, off,
			    "%llu bytes left after the last node",
			    static_cast<unsigned long long>(cur - off));
		mmf_node_header_t n;
		memcpy(&n, img + off, sizeof(n));
		if (n.offset != off || n.pattern != MMF_HEADER_PATTERN ||
		    (n.flags & ~MMF_FLAG_ALL) != 0 || n.len < MMF_NODE_BYTES)
			return fail(r, MMF_CHECK_NODE, off,
			    "node at %llu: offset %llu pattern 0x%x flags 0x%x "
			    "len %u", static_cast<unsigned long long>(off),
			    static_cast<unsigned long long>(n.offset), n.pattern,
			    n.flags, n.len);
		if (n.len > cur - off || n.prev_offset >= cur ||
		    n.next_offset >= cur)
			return fail(r, MMF_CHECK_TILING, off,
			    "node at %llu runs past the end",
			    static_cast<unsigned long long>(off));
		mmf_node_trailer_t t;
		memcpy(&t, img + off + n.len - MMF_NODE_TRAILER_BYTES, sizeof(t));
		if (t.pattern != MMF_TRAILER_PATTERN || t.len != n.len)
			return fail(r, MMF_CHECK_NODE, off,
			    "trailer of node at %llu: pattern 0x%x len %u",
			    static_cast<unsigned long long>(off), t.pattern, t.len);
		r->nodes++;
		if (n.flags & MMF_FLAG_FREE) {
			r->free_nodes++;
			r->free_bytes += n.len;
			free_nodes.insert(off);
		} else {
			r->used_nodes++;
			r->used_bytes += n.len;
		}
		off += n.len;
	}

	uint64_t listed = 0;
	for (uint32_t i = 0; i < si.num_alloc_sizes; i++) {
		uint64_t prev = 0;
		for (uint64_t o = si.free_heads[i]; o != 0;) {
			if (free_nodes.count(o) == 0 || ++listed > r->free_nodes)
				return fail(r, MMF_CHECK_FREE_LIST, o,
				    "class %u: %llu is not a free node once", i,
				    static_cast<unsigned long long>(o));
			mmf_node_header_t n;
			memcpy(&n, img + o, sizeof(n));
			if (n.prev_offset != prev || class_of(si, n.len) != i)
				return fail(r, MMF_CHECK_FREE_LIST, o,
				    "class %u: node %llu misplaced", i,
				    static_cast<unsigned long long>(o));
			prev = o;
			o = n.next_offset;
		}
	}
	if (listed != r->free_nodes)
		return fail(r, MMF_CHECK_FREE_LIST, 0,
		    "%llu free nodes, %llu on the lists",
		    static_cast<unsigned long long>(r->free_nodes),
		    static_cast<unsigned long long>(listed));
	if (r->used_bytes != si.allocated_bytes)
		return fail(r, MMF_CHECK_ACCOUNTING, 0x34,
		    "allocated bytes %llu, nodes in use hold %llu",
		    static_cast<unsigned long long>(si.allocated_bytes),
		    static_cast<unsigned long long>(r->used_bytes));
	return MMF_CHECK_OK;
}
