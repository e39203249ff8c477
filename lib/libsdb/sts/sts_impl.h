/*
 * Inside the short-term store: the fatal stops, the region's view of this
 * process and typed access to the bytes of the region and of a slot.
 */
#ifndef SDB_STS_IMPL_H
#define SDB_STS_IMPL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "sdb/sdb_sts.h"
#include "sdb_impl.h"

/* Bad arguments, and a damaged structure (also recorded as an event). */
[[noreturn]] void sdb_sts_assert_fail(const char *expr, const char *file,
    int line);
[[noreturn]] void sdb_sts_corruption_fail(const char *expr, const char *file,
    int line);
#define sdb_sts_assert(e) \
	((e) ? (void)0 : sdb_sts_assert_fail(#e, __FILE__, __LINE__))
#define sdb_sts_assert_corruption(e) \
	((e) ? (void)0 : sdb_sts_corruption_fail(#e, __FILE__, __LINE__))

/* Whether the holder of a lock word of the store still lives. */
bool sdb_sts_owner_alive(uint32_t pid);

namespace sts {

/* The mapping of this process; base null when closed. */
struct region {
	sdb_sts_geometry g{};
	uint8_t *base = nullptr;
	int fd = -1;
};
extern region R;

inline sdb_sts_heap_ctl *heap_ctl()
{
	return reinterpret_cast<sdb_sts_heap_ctl *>(R.base + R.g.heap_ctl_offset);
}
inline sdb_sts_entry *entry_at(uint32_t i)
{
	return reinterpret_cast<sdb_sts_entry *>(R.base +
	    (size_t)i * SDB_STS_ENTRY_SIZE);
}
inline bool in_mapping(const sdb_sts_entry *e)
{
	auto p = reinterpret_cast<const uint8_t *>(e);
	return R.base != nullptr && p >= R.base &&
	    p < R.base + R.g.heap_ctl_offset;
}
/* A u32 of the region that processes change atomically: 4-aligned, so it
 * never crosses a cache line. */
inline std::atomic_ref<uint32_t> shared_word(void *obj, size_t off)
{
	return std::atomic_ref<uint32_t>(*reinterpret_cast<uint32_t *>(
	    static_cast<uint8_t *>(obj) + off));
}
#define STS_WORD(p, type, field) \
	sts::shared_word((p), offsetof(type, field))

template <class T> inline T *at(uint8_t *base, uint32_t off)
{
	return reinterpret_cast<T *>(base + off);
}
template <class T> inline const T *at(const uint8_t *base, uint32_t off)
{
	return reinterpret_cast<const T *>(base + off);
}

/* Entry back to empty: slot kept, free list one piece, links none. */
void entry_reinit(sdb_sts_entry *e);
/* Heap formatting: every bin empty and the whole heap one free block. */
void heap_reset(void);
uint32_t bin_of_size(uint32_t size);
uint32_t bin_wanted(uint32_t request);

} // namespace sts

#endif
