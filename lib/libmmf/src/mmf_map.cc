/*
 * Mappings of the node area.  In whole mode the file is one mapping.  In
 * region mode the file is cut into regions of region_map_bytes; a range
 * maps its region, or, when it crosses into the next, both from the start
 * of the first.  At most max_mapped_regions × region_map_bytes are mapped;
 * the oldest mapping goes first, and a hit does not refresh it.
 */
#include "mmf_impl.h"

#include <cstdlib>
#include <sys/mman.h>

namespace mmf_impl {

namespace {

uint64_t region_start(mmf_t *m, uint64_t r)
{
	return r == 0 ? m->shared_info->first_alloc_offset :
	    r * m->region_map_bytes;
}

void list_append(mmf_t *m, mmf_mapped_entry *e)
{
	e->next = nullptr;
	e->prev = m->mapped_list_tail;
	if (m->mapped_list_tail != nullptr)
		m->mapped_list_tail->next = e;
	else
		m->mapped_list = e;
	m->mapped_list_tail = e;
}

void list_unlink(mmf_t *m, mmf_mapped_entry *e)
{
	if (e->prev != nullptr)
		e->prev->next = e->next;
	else
		m->mapped_list = e->next;
	if (e->next != nullptr)
		e->next->prev = e->prev;
	else
		m->mapped_list_tail = e->prev;
	e->prev = nullptr;
	e->next = m->mapped_list_free;
	m->mapped_list_free = e;
}

/* Remove the mapping that owner made, both halves when it is double. */
void unmap_owner(mmf_t *m, int64_t owner)
{
	mmf_region *r = &m->region_table[owner];
	if (r->ptr == nullptr)
		return;
	bool twice = static_cast<uint64_t>(owner) + 1 < m->regions &&
	    m->region_table[owner + 1].owner == owner &&
	    m->region_table[owner + 1].ptr != nullptr;
	MMF_BUMP(m, munmap_calls);
	if (munmap(r->ptr, r->bytes) == 0) {
		MMF_BUMP(m, munmap_ok);
		if (twice)
			MMF_BUMP(m, half_unmap_ok);
		else
			MMF_BUMP(m, region_unmap_ok);
	} else {
		MMF_BUMP(m, munmap_failed);
		if (twice)
			MMF_BUMP(m, half_unmap_failed);
		else
			MMF_BUMP(m, region_unmap_failed);
	}
	m->shared_info->last_unmapper = static_cast<uint32_t>(mmf_getpid());
	m->mapped_bytes -= r->bytes;
	if (r->entry != nullptr)
		list_unlink(m, r->entry);
	if (twice) {
		m->region_table[owner + 1] = {nullptr, 0, -1, nullptr};
		MMF_BUMP(m, double_split);
	}
	*r = {nullptr, 0, -1, nullptr};
}

void unmap_region(mmf_t *m, uint64_t r)
{
	if (m->region_table[r].ptr != nullptr)
		unmap_owner(m, m->region_table[r].owner);
}

void *map_regions(mmf_t *m, uint64_t r1, bool twice)
{
	uint64_t R = m->region_map_bytes;
	uint64_t start = region_start(m, r1);
	uint64_t bytes = (r1 + (twice ? 2 : 1)) * R - start;
	uint64_t cap = static_cast<uint64_t>(m->max_mapped_regions) * R;
	/* Oldest first, as many as the new mapping needs: one more double
	 * mapping would otherwise pass the bound on the bytes mapped. */
	while (m->mapped_list != nullptr &&
	    (m->mapped_bytes + bytes > cap || m->mapped_list_free == nullptr))
		unmap_owner(m, m->mapped_list->mapping);
	if (m->mapped_list_free == nullptr)
		return nullptr;
	int prot = m->read_only ? PROT_READ : PROT_READ | PROT_WRITE;
	MMF_BUMP(m, mmap_calls);
	void *p = mmap(nullptr, bytes, prot, MAP_SHARED, m->fd,
	    static_cast<off_t>(start));
	if (p == MAP_FAILED) {
		MMF_BUMP(m, mmap_failed);
		return nullptr;
	}
	m->shared_info->last_mapper = static_cast<uint32_t>(mmf_getpid());
	mmf_mapped_entry *e = m->mapped_list_free;
	m->mapped_list_free = e->next;
	e->mapping = static_cast<int64_t>(r1);
	list_append(m, e);
	m->mapped_bytes += bytes;
	uint8_t *base = static_cast<uint8_t *>(p);
	m->region_table[r1] = {base, bytes, static_cast<int64_t>(r1), e};
	if (twice)
		m->region_table[r1 + 1] = {base + (R * (r1 + 1) - start), R,
		    static_cast<int64_t>(r1), nullptr};
	return p;
}

} // namespace

void *map_range(mmf_t *m, uint64_t offset, uint64_t len, bool fatal)
{
	if (len == 0)
		len = 1;
	if (m->whole_mapped) {
		if (offset + len > m->whole_bytes || offset + len < offset) {
			if (fatal)
				MMF_CHECK_FILE(offset + len <= m->whole_bytes);
			return nullptr;
		}
		return m->whole_base + offset;
	}
	uint64_t R = m->region_map_bytes;
	uint64_t foa = m->shared_info->first_alloc_offset;
	bool ok = len < 2 * R && offset + len <= m->max_bytes &&
	    offset + len > offset && offset >= foa;
	if (!ok) {
		if (fatal) {
			MMF_CHECK_FILE(len < 2 * m->region_map_bytes);
			MMF_CHECK_FILE(offset + len <= m->max_bytes);
			MMF_CHECK_FILE(offset >= m->shared_info->first_alloc_offset);
		}
		return nullptr;
	}
	/* Threads of one process share the table; a pointer handed out
	 * still lives only until the next mapping call. */
	std::lock_guard<std::mutex> g(m->map_mu);
	MMF_BUMP(m, region_map_calls);
	uint64_t r1 = offset / R, r2 = (offset + len - 1) / R;
	mmf_region *e = &m->region_table[r1];
	if (r1 == r2 && e->ptr != nullptr)
		return e->ptr + (offset - region_start(m, r1));
	if (r1 != r2 && e->ptr != nullptr && e->owner == static_cast<int64_t>(r1) &&
	    m->region_table[r2].owner == static_cast<int64_t>(r1))
		return e->ptr + (offset - region_start(m, r1));
	unmap_region(m, r1);
	if (r1 != r2)
		unmap_region(m, r2);
	uint8_t *base = static_cast<uint8_t *>(map_regions(m, r1, r1 != r2));
	if (base == nullptr) {
		if (fatal)
			MMF_ASSERT(base != nullptr);
		return nullptr;
	}
	return base + (offset - region_start(m, r1));
}

bool alloc_region_table(mmf_t *m)
{
	if (m->whole_mapped)
		return true;
	free_region_table(m);
	m->region_table = static_cast<mmf_region *>(calloc(m->regions,
	    sizeof(mmf_region)));
	m->mapped_entries = static_cast<mmf_mapped_entry *>(calloc(
	    m->max_mapped_regions, sizeof(mmf_mapped_entry)));
	if (m->region_table == nullptr || m->mapped_entries == nullptr)
		return false;
	for (uint64_t i = 0; i < m->regions; i++)
		m->region_table[i].owner = -1;
	m->mapped_list = m->mapped_list_tail = nullptr;
	m->mapped_list_free = nullptr;
	for (uint32_t i = m->max_mapped_regions; i-- > 0;) {
		m->mapped_entries[i].next = m->mapped_list_free;
		m->mapped_list_free = &m->mapped_entries[i];
	}
	return true;
}

void drop_regions(mmf_t *m)
{
	if (m->whole_mapped || m->region_table == nullptr)
		return;
	while (m->mapped_list != nullptr)
		unmap_owner(m, m->mapped_list->mapping);
}

void free_region_table(mmf_t *m)
{
	drop_regions(m);
	free(m->region_table);
	free(m->mapped_entries);
	m->region_table = nullptr;
	m->mapped_entries = nullptr;
	m->mapped_list = m->mapped_list_tail = m->mapped_list_free = nullptr;
}

bool remap_whole(mmf_t *m)
{
	uint64_t bytes = m->max_bytes;
	if (bytes <= m->whole_bytes)
		return true;
	int prot = PROT_READ | PROT_WRITE;
	void *p = mmap(nullptr, bytes, prot, MAP_SHARED, m->fd, 0);
	MMF_BUMP(m, mmap_calls);
	if (p == MAP_FAILED) {
		MMF_BUMP(m, mmap_failed);
		return false;
	}
	munmap(m->whole_base, m->whole_bytes);
	m->whole_base = static_cast<uint8_t *>(p);
	m->whole_bytes = bytes;
	m->shared_info = reinterpret_cast<mmf_shared_info_t *>(p);
	m->mapped_bytes = bytes;
	if (m->read_only)
		mprotect(m->whole_base + m->shared_info->first_alloc_offset,
		    bytes - m->shared_info->first_alloc_offset, PROT_READ);
	return true;
}

} // namespace mmf_impl
