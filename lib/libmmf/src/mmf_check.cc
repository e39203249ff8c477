/*
 * Read-only check of a heap file image.  Nothing here trusts a byte of the
 * image: every offset is bounded before it is read, every list walk is
 * bounded by the number of nodes, and nothing is written.
 */
#include "mmf/mmf_check.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <algorithm>
#include <vector>

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

uint32_t class_of(const mmf_shared_info_t &si, uint32_t len)
{
	for (uint32_t i = si.num_alloc_sizes; i-- > 1;)
		if (len >= si.alloc_sizes[i])
			return i;
	return 0;
}

/*
 * The bytes under check: an image in memory, or a file read through a
 * window of at most kWindow bytes, so that a check of a store of several
 * GiB holds only that much.
 */
class source {
public:
	source(const uint8_t *image, uint64_t bytes) : image_(image),
	    bytes_(bytes) {}
	source(mmf_check_read_fn fn, void *ctx, uint64_t bytes) : fn_(fn),
	    ctx_(ctx), bytes_(bytes) {}

	/* Copy len bytes at off; false when they lie outside. */
	bool read(uint64_t off, void *out, size_t len)
	{
		if (off > bytes_ || bytes_ - off < len)
			return false;
		if (image_ != nullptr) {
			memcpy(out, image_ + off, len);
			return true;
		}
		if (off < win_off_ || off - win_off_ > win_.size() ||
		    win_.size() - (off - win_off_) < len) {
			size_t want = static_cast<size_t>(std::min<uint64_t>(
			    std::max<size_t>(len, kWindow), bytes_ - off));
			win_.resize(want);
			if (fn_(ctx_, off, win_.data(), want) != want) {
				win_.clear();
				return false;
			}
			win_off_ = off;
		}
		memcpy(out, win_.data() + (off - win_off_), len);
		return true;
	}
	template <typename T>
	bool get(uint64_t off, T *v) { return read(off, v, sizeof(*v)); }

private:
	static constexpr size_t kWindow = 1 << 20;
	const uint8_t *image_ = nullptr;
	mmf_check_read_fn fn_ = nullptr;
	void *ctx_ = nullptr;
	uint64_t bytes_;
	std::vector<uint8_t> win_;
	uint64_t win_off_ = 0;
};

/*
 * A state the opener repairs by itself: the header is good, the nodes
 * tile, and only the free lists, the allocated bytes or an unfinished
 * grow disagree.
 */
void note_repairable(mmf_check_report *r)
{
	r->repairable = r->repairable || r->status == MMF_CHECK_FREE_LIST ||
	    r->status == MMF_CHECK_ACCOUNTING;
}

mmf_check_status check(source &src, uint64_t file_bytes,
    mmf_check_report *r)
{
	mmf_shared_info_t si;
	if (!src.get(0, &si))
		return fail(r, MMF_CHECK_SHORT, 0, "%llu bytes",
		    static_cast<unsigned long long>(file_bytes));
	mmf_check_status s = mmf_check_header(&si, sizeof(si), file_bytes, r);
	/* A file longer than current_bytes is a grow that stopped before
	 * it was published: the nodes up to current_bytes are checked. */
	bool grow = s == MMF_CHECK_SIZE && file_bytes > si.current_bytes;
	mmf_check_report grow_report = *r;
	if (s != MMF_CHECK_OK && !grow)
		return s;
	memset(r, 0, sizeof(*r));
	/* The grow's finding, with the counts of the nodes walked. */
	auto as_grow = [&] {
		r->status = grow_report.status;
		r->bad_offset = grow_report.bad_offset;
		memcpy(r->detail, grow_report.detail, sizeof(r->detail));
		r->repairable = true;
		return r->status;
	};
	const uint64_t cur = si.current_bytes, foa = si.first_alloc_offset;

	/* A store opened without allocations has no nodes, only its
	 * common area. */
	bool heads_empty = true;
	for (uint32_t i = 0; i < MMF_MAX_CLASSES; i++)
		heads_empty = heads_empty && si.free_heads[i] == 0;
	uint32_t first_pattern = 0;
	if (cur - foa < MMF_NODE_HEADER_BYTES ||
	    (src.get(foa + 8, &first_pattern) &&
	    first_pattern != MMF_HEADER_PATTERN && heads_empty &&
	    si.allocated_bytes == 0)) {
		return grow ? as_grow() : r->status;
	}

	/* Offsets of the free nodes, ascending as the walk finds them. */
	std::vector<uint64_t> free_nodes;
	uint64_t off = foa;
	while (off < cur) {
		if (cur - off < MMF_NODE_BYTES)
			return fail(r, MMF_CHECK_TILING, off,
			    "%llu bytes left after the last node",
			    static_cast<unsigned long long>(cur - off));
		mmf_node_header_t n{};
		if (!src.get(off, &n))
			return fail(r, MMF_CHECK_TILING, off,
			    "node at %llu cannot be read",
			    static_cast<unsigned long long>(off));
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
		mmf_node_trailer_t t{};
		if (!src.get(off + n.len - MMF_NODE_TRAILER_BYTES, &t) ||
		    t.pattern != MMF_TRAILER_PATTERN || t.len != n.len)
			return fail(r, MMF_CHECK_NODE, off,
			    "trailer of node at %llu: pattern 0x%x len %u",
			    static_cast<unsigned long long>(off), t.pattern, t.len);
		r->nodes++;
		if (n.flags & MMF_FLAG_FREE) {
			r->free_nodes++;
			r->free_bytes += n.len;
			free_nodes.push_back(off);
		} else {
			r->used_nodes++;
			r->used_bytes += n.len;
		}
		off += n.len;
	}
	if (grow)
		return as_grow();

	uint64_t listed = 0;
	for (uint32_t i = 0; i < si.num_alloc_sizes; i++) {
		uint64_t prev = 0;
		for (uint64_t o = si.free_heads[i]; o != 0;) {
			mmf_node_header_t n{};
			if (!std::binary_search(free_nodes.begin(),
			    free_nodes.end(), o) || ++listed > r->free_nodes ||
			    !src.get(o, &n))
				return fail(r, MMF_CHECK_FREE_LIST, o,
				    "class %u: %llu is not a free node once", i,
				    static_cast<unsigned long long>(o));
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
	memset(r, 0, sizeof(*r));
	source src(static_cast<const uint8_t *>(image), image_bytes);
	check(src, image_bytes, r);
	note_repairable(r);
	return r->status;
}

extern "C" enum mmf_check_status mmf_check_file(mmf_check_read_fn read,
    void *ctx, uint64_t file_bytes, struct mmf_check_report *r)
{
	memset(r, 0, sizeof(*r));
	source src(read, ctx, file_bytes);
	check(src, file_bytes, r);
	note_repairable(r);
	return r->status;
}
