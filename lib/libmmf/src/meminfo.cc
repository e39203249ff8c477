/*
 * The memory information table.  Rows lie one after another from 0xD0 to
 * next_free and never move; each type's rows are also chained by their
 * next offsets.  All changes are made under the heap lock of the table's
 * file; a reader copies the bytes in use and walks the copy at leisure.
 *
 * Nothing read from the table is trusted: a row is followed only when it
 * lies wholly below next_free with a sane size and type.
 */
#include "mmf/meminfo.h"
#include "mmf_impl.h"
#include "platform/crashpoint.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

using namespace mmf_impl;

namespace {

std::mutex open_mu;
bool open_tried;
mmf_t *heap;
uint8_t *table_base;
uint32_t table_len;

constexpr uint64_t kDone = UINT64_MAX;
/* Set while this thread opens the table's own heap, which has no row. */
thread_local bool opening_table;

meminfo_header_t *hdr()
{
	return reinterpret_cast<meminfo_header_t *>(table_base);
}

const meminfo_row_header_t *row_at(uint64_t off)
{
	const meminfo_header_t *h = hdr();
	uint64_t end = std::min<uint64_t>(h->next_free, table_len);
	if (off < MEMINFO_HEADER_BYTES || off > end ||
	    end - off < sizeof(meminfo_row_header_t))
		return nullptr;
	auto *r = reinterpret_cast<const meminfo_row_header_t *>(table_base + off);
	if (r->total_bytes < MEMINFO_MIN_ROW_BYTES || r->total_bytes > end - off ||
	    r->type >= MEMINFO_TYPES)
		return nullptr;
	return r;
}

const char *row_name(const meminfo_row_header_t *r)
{
	return reinterpret_cast<const char *>(r + 1);
}

void reset(uint32_t reason)
{
	meminfo_header_t *h = hdr();
	uint32_t gen = h->generation;
	decltype(h->history) history;
	memcpy(history, h->history, sizeof(history));
	memset(table_base, 0, MEMINFO_HEADER_BYTES);
	h->version = MEMINFO_VERSION;
	h->file_bytes = MEMINFO_FILE_BYTES;
	h->header_bytes = MEMINFO_HEADER_BYTES;
	h->common_bytes = table_len;
	h->table_bytes = table_len;
	h->free_bytes = table_len - MEMINFO_HEADER_BYTES;
	h->next_free = MEMINFO_HEADER_BYTES;
	memcpy(h->history, history, sizeof(history));
	h->generation = gen + 1;
	if (gen < MEMINFO_HISTORY) {
		h->history[gen].reason = reason;
		h->history[gen].pid = static_cast<uint32_t>(mmf_getpid());
	}
}

bool first_row_short()
{
	const meminfo_header_t *h = hdr();
	if (h->next_free < MEMINFO_HEADER_BYTES + sizeof(meminfo_row_header_t) ||
	    h->next_free > table_len)
		return true;
	auto *r = reinterpret_cast<const meminfo_row_header_t *>(table_base +
	    MEMINFO_HEADER_BYTES);
	return r->total_bytes < MEMINFO_MIN_ROW_BYTES;
}

bool table_sane()
{
	const meminfo_header_t *h = hdr();
	if (h->header_bytes != MEMINFO_HEADER_BYTES ||
	    h->next_free < MEMINFO_HEADER_BYTES || h->next_free > table_len ||
	    h->table_bytes > h->common_bytes || h->table_bytes > table_len ||
	    h->free_bytes > h->table_bytes - MEMINFO_HEADER_BYTES)
		return false;
	for (uint64_t off = MEMINFO_HEADER_BYTES; off < h->next_free;) {
		const meminfo_row_header_t *r = row_at(off);
		if (r == nullptr || (r->next >> 32) != 0 ||
		    r->next >= h->next_free || row_name(r)[0] == '\0')
			return false;
		off += r->total_bytes;
	}
	for (const auto &t : h->type_list)
		if (t.first >= h->next_free || t.last >= h->next_free)
			return false;
	return true;
}

meminfo_row_header_t *row_rw(uint64_t off)
{
	return const_cast<meminfo_row_header_t *>(row_at(off));
}

/* Put the row at off at the end of its type's chain. */
void chain(uint32_t type, uint64_t off)
{
	meminfo_header_t *h = hdr();
	meminfo_row_header_t *last = row_rw(h->type_list[type].last);
	if (last != nullptr && h->type_list[type].first != 0 &&
	    h->type_list[type].last != off)
		last->next = off;
	else
		h->type_list[type].first = off;
	TOLVAR_CRASH_POINT("meminfo.row_linked");
	h->type_list[type].last = off;
}

/*
 * Chain the rows a writer took in but died before chaining.  Rows lie in
 * the order they were added, so the rows after a type's last are the
 * unchained ones, each chained in turn.
 */
void chain_orphans()
{
	meminfo_header_t *h = hdr();
	for (uint64_t off = MEMINFO_HEADER_BYTES; off < h->next_free;) {
		const meminfo_row_header_t *r = row_at(off);
		if (r == nullptr)
			return;
		uint32_t type = r->type;
		if (type < MEMINFO_TYPES && off > h->type_list[type].last &&
		    r->next == 0) {
			const meminfo_row_header_t *last =
			    row_at(h->type_list[type].last);
			if (last == nullptr || last->next != off)
				chain(type, off);
			else
				h->type_list[type].last = off;
		}
		off += r->total_bytes;
	}
}

/* Open the table once per process; absent for good if that fails. */
bool table_open()
{
	std::lock_guard<std::mutex> g(open_mu);
	if (open_tried)
		return heap != nullptr;
	open_tried = true;
	mmf_mkdir_path(MEMINFO_DIR);
	const uint32_t sizes[1] = {64};
	opening_table = true;
	mmf_t *h = mmf_create(MEMINFO_PATH, MEMINFO_FILE_BYTES,
	    MEMINFO_FILE_BYTES, MEMINFO_FILE_BYTES, true, MEMINFO_FILE_BYTES, 1,
	    1, sizes, 0, nullptr);
	opening_table = false;
	if (h == nullptr)
		return false;
	h->no_meminfo = true;
	uint32_t len = static_cast<uint32_t>((MEMINFO_FILE_BYTES -
	    MMF_NODE_BYTES - mmf_get_first_alloc_offset(h)) & ~31ull);
	uint64_t off;
	mmf_lock(h);
	bool fresh = mmf_get_shared_info(h)->common_offset == 0;
	uint32_t got = len;
	void *p = mmf_alloc_common(h, &got, &off);
	if (p == nullptr || got < MEMINFO_HEADER_BYTES + MEMINFO_MIN_ROW_BYTES) {
		mmf_unlock(h);
		mmf_close(h);
		return false;
	}
	heap = h;
	table_base = static_cast<uint8_t *>(p);
	table_len = got;
	const meminfo_header_t *t = hdr();
	if (fresh || t->version != MEMINFO_VERSION ||
	    t->header_bytes != MEMINFO_HEADER_BYTES)
		reset(MEMINFO_RESET_OPEN);
	else if (t->next_free > MEMINFO_HEADER_BYTES && !table_sane())
		reset(MEMINFO_RESET_CHECK);
	else
		chain_orphans();
	mmf_unlock(h);
	return true;
}

struct table_lock {
	table_lock() { mmf_lock(heap); }
	~table_lock() { mmf_unlock(heap); }
};

uint64_t find_row(uint32_t type, const char *name, uint32_t total,
    const uint64_t *index)
{
	if (index != nullptr && *index != 0) {
		const meminfo_row_header_t *r = row_at(*index);
		if (r != nullptr && r->type == type && r->total_bytes == total &&
		    strncmp(row_name(r), name, MEMINFO_NAME_BYTES) == 0)
			return *index;
	}
	for (uint64_t off = MEMINFO_HEADER_BYTES; off < hdr()->next_free;) {
		const meminfo_row_header_t *r = row_at(off);
		if (r == nullptr)
			break;
		if (r->type == type &&
		    strncmp(row_name(r), name, MEMINFO_NAME_BYTES) == 0)
			return off;
		off += r->total_bytes;
	}
	return 0;
}

void write_row(uint32_t type, const void *data, uint32_t size,
    uint64_t *index)
{
	if (!table_open())
		return;
	uint8_t buf[sizeof(meminfo_mmdb_t)];
	memcpy(buf, data, size);
	auto *c = reinterpret_cast<meminfo_common_t *>(buf);
	size_t nl = strnlen(c->name, MEMINFO_NAME_BYTES - 1);
	memset(c->name + nl, 0, MEMINFO_NAME_BYTES - nl);
	c->flags &= ~MEMINFO_FLAG_REFRESH;
	uint32_t total = size + sizeof(meminfo_row_header_t);

	table_lock l;
	meminfo_header_t *h = hdr();
	if (c->flags & MEMINFO_FLAG_CORRUPT)
		h->flags |= MEMINFO_TABLE_CORRUPT;
	if (first_row_short())
		reset(MEMINFO_RESET_UPDATE);
	uint64_t off = find_row(type, c->name, total, index);
	/* A full table drops new rows only: rows it holds stay current. */
	if (off == 0 && h->free_bytes < total)
		return;
	if (off != 0) {
		uint8_t *dst = table_base + off + sizeof(meminfo_row_header_t);
		uint32_t n = std::min<uint32_t>(size,
		    row_at(off)->total_bytes - sizeof(meminfo_row_header_t));
		if (memcmp(dst, buf, n) != 0) {
			memcpy(dst, buf, n);
			h->change_count++;
		}
	} else {
		/*
		 * A writer killed at any point must leave a table that
		 * passes the check, or the next opener wipes it: the row is
		 * written beyond next_free, next_free then takes it in, and
		 * only then is it chained, from the row before it to the
		 * type's last.  A row taken in but not chained yet is
		 * chained by the next open.
		 */
		off = h->next_free;
		auto *r = reinterpret_cast<meminfo_row_header_t *>(table_base + off);
		memcpy(r + 1, buf, size);
		r->type = type;
		r->next = 0;
		r->total_bytes = total;
		TOLVAR_CRASH_POINT("meminfo.row_written");
		h->free_bytes -= total;
		h->next_free += total;
		h->rows++;
		TOLVAR_CRASH_POINT("meminfo.row_counted");
		chain(type, off);
		h->change_count++;
	}
	if (index != nullptr)
		*index = off;
}

template <typename T>
bool reader_next(meminfo_reader_t *r, uint32_t type, T *out)
{
	uint64_t off = r->cursor[type];
	if (off == 0 && r->size >= MEMINFO_HEADER_BYTES)
		off = r->table->type_list[type].first;
	if (off == 0 || off == kDone || off < MEMINFO_HEADER_BYTES ||
	    off > r->size || r->size - off < sizeof(meminfo_row_header_t)) {
		r->cursor[type] = kDone;
		return false;
	}
	meminfo_row_header_t rh;
	memcpy(&rh, r->buffer + off, sizeof(rh));
	if (rh.type != type || rh.total_bytes < MEMINFO_MIN_ROW_BYTES ||
	    rh.total_bytes > r->size - off) {
		r->cursor[type] = kDone;
		return false;
	}
	memset(out, 0, sizeof(*out));
	memcpy(out, r->buffer + off + sizeof(rh), std::min<size_t>(sizeof(*out),
	    rh.total_bytes - sizeof(rh)));
	out->c.name[MEMINFO_NAME_BYTES - 1] = '\0';
	/* Rows are appended, so a list only runs forward: a next offset
	 * inside or before this row ends the list instead of looping. */
	r->cursor[type] = rh.next >= off + rh.total_bytes ? rh.next : kDone;
	return true;
}

struct common_box {
	meminfo_common_t c;
};

} // namespace

void mmf_impl::meminfo_forget()
{
	std::lock_guard<std::mutex> g(open_mu);
	if (heap != nullptr)
		mmf_close(heap);
	heap = nullptr;
	table_base = nullptr;
	open_tried = false;
}

extern "C" void meminfo_update_mmf(const meminfo_mmf_t *d, uint64_t *index)
{
	write_row(MEMINFO_TYPE_MMF, d, sizeof(*d), index);
}

extern "C" void meminfo_update_mmdb(const meminfo_mmdb_t *d, uint64_t *index)
{
	write_row(MEMINFO_TYPE_MMDB, d, sizeof(*d), index);
}

extern "C" void meminfo_update_shm(const meminfo_shm_t *d, uint64_t *index)
{
	write_row(MEMINFO_TYPE_SHM, d, sizeof(*d), index);
}

extern "C" void meminfo_update_spare1(const meminfo_spare_t *d,
    uint64_t *index)
{
	write_row(MEMINFO_TYPE_SPARE1, d, sizeof(*d), index);
}

extern "C" void meminfo_update_spare2(const meminfo_spare_t *d,
    uint64_t *index)
{
	write_row(MEMINFO_TYPE_SPARE2, d, sizeof(*d), index);
}

extern "C" bool meminfo_refresh_wanted(const char *name, uint64_t index)
{
	if (index == 0 || !table_open())
		return false;
	table_lock l;
	const meminfo_row_header_t *r = row_at(index);
	if (r == nullptr)
		return false;
	auto *c = reinterpret_cast<const meminfo_common_t *>(r + 1);
	return (c->flags & MEMINFO_FLAG_REFRESH) != 0 &&
	    strncmp(c->name, name, MEMINFO_NAME_BYTES - 1) == 0;
}

extern "C" void meminfo_mark_all(void)
{
	if (!table_open())
		return;
	table_lock l;
	if (first_row_short()) {
		reset(MEMINFO_RESET_MARK_ALL);
		return;
	}
	for (uint64_t off = MEMINFO_HEADER_BYTES; off < hdr()->next_free;) {
		const meminfo_row_header_t *r = row_at(off);
		if (r == nullptr)
			break;
		auto *c = reinterpret_cast<meminfo_common_t *>(table_base + off +
		    sizeof(*r));
		c->flags |= MEMINFO_FLAG_REFRESH;
		off += r->total_bytes;
	}
}

extern "C" meminfo_reader_t *meminfo_reader_create(void)
{
	if (!table_open())
		return nullptr;
	auto *r = static_cast<meminfo_reader_t *>(calloc(1,
	    sizeof(meminfo_reader_t)));
	if (r == nullptr)
		return nullptr;
	{
		table_lock l;
		size_t n = std::min<size_t>(hdr()->next_free, table_len);
		n = std::max<size_t>(n, MEMINFO_HEADER_BYTES);
		r->buffer = static_cast<uint8_t *>(malloc(n));
		if (r->buffer != nullptr) {
			memcpy(r->buffer, table_base, n);
			r->size = n;
		}
	}
	if (r->buffer == nullptr) {
		free(r);
		return nullptr;
	}
	r->self = r;
	r->table = reinterpret_cast<const meminfo_header_t *>(r->buffer);
	r->owned = true;
	return r;
}

extern "C" bool meminfo_reader_next_mmf(meminfo_reader_t *r, meminfo_mmf_t *out)
{
	return reader_next(r, MEMINFO_TYPE_MMF, out);
}

extern "C" bool meminfo_reader_next_mmdb(meminfo_reader_t *r,
    meminfo_mmdb_t *out)
{
	return reader_next(r, MEMINFO_TYPE_MMDB, out);
}

static bool next_common(meminfo_reader_t *r, uint32_t type,
    meminfo_common_t *out)
{
	common_box box;
	if (!reader_next(r, type, &box))
		return false;
	*out = box.c;
	return true;
}

extern "C" bool meminfo_reader_next_shm(meminfo_reader_t *r, meminfo_shm_t *out)
{
	return next_common(r, MEMINFO_TYPE_SHM, out);
}

extern "C" bool meminfo_reader_next_spare1(meminfo_reader_t *r,
    meminfo_spare_t *out)
{
	return next_common(r, MEMINFO_TYPE_SPARE1, out);
}

extern "C" bool meminfo_reader_next_spare2(meminfo_reader_t *r,
    meminfo_spare_t *out)
{
	return next_common(r, MEMINFO_TYPE_SPARE2, out);
}

extern "C" const meminfo_header_t *meminfo_reader_header(
    const meminfo_reader_t *r)
{
	return r->table;
}

extern "C" void meminfo_reader_delete(meminfo_reader_t *r)
{
	if (r == nullptr)
		return;
	MMF_ASSERT(r == r->self);
	if (r->owned)
		free(r->buffer);
	r->self = nullptr;
	free(r);
}

extern "C" bool meminfo_corrupt_seen(void)
{
	if (!table_open())
		return false;
	table_lock l;
	return (hdr()->flags & MEMINFO_TABLE_CORRUPT) != 0;
}

extern "C" void meminfo_corrupt_clear(void)
{
	if (!table_open())
		return;
	table_lock l;
	hdr()->flags &= ~MEMINFO_TABLE_CORRUPT;
}

extern "C" uint64_t meminfo_change_count(void)
{
	if (!table_open())
		return 0;
	table_lock l;
	return hdr()->change_count;
}

namespace mmf_impl {

void meminfo_refresh(mmf_t *m)
{
	if (m->no_meminfo || opening_table)
		return;
	meminfo_mmf_t d = {};
	snprintf(d.c.name, sizeof(d.c.name), "%.95s", m->name);
	const mmf_shared_info_t *si = m->shared_info;
	if (si != nullptr) {
		d.c.current_bytes = si->current_bytes;
		d.c.lock_count = si->lock_count;
		d.c.lock_contended = si->contended_count;
		d.c.lock_wait_us = si->lock_wait_ns / 1000;
		d.mmap_calls = si->mmap_calls;
	}
	d.c.max_bytes = m->max_bytes;
	d.c.mappable_bytes = m->whole_mapped ? d.c.current_bytes :
	    uint64_t(m->max_mapped_regions) * m->region_map_bytes;
	if (m->corrupt)
		d.c.flags |= MEMINFO_FLAG_CORRUPT;
	meminfo_update_mmf(&d, &m->meminfo_index);
}

bool meminfo_refresh_wanted_mmf(mmf_t *m)
{
	return m->meminfo_index != 0 &&
	    meminfo_refresh_wanted(m->name, m->meminfo_index);
}

} // namespace mmf_impl
