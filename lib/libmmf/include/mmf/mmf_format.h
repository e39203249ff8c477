/*
 * On-disk layout of a mapped heap file.  The header and the nodes are read
 * by every process that maps the file and by the next daemon after a
 * restart, so every offset below is fixed; the static assertions keep it
 * so.  All integers are in host order, and 64-bit fields stand on 4-byte
 * boundaries: the structures are packed to 4.
 */
#ifndef MMF_MMF_FORMAT_H
#define MMF_MMF_FORMAT_H

#include <stddef.h>
#include <stdint.h>

#define MMF_VERSION		4
#define MMF_HEADER_BYTES	0x624
#define MMF_MAGIC_NONE		0u
#define MMF_MAGIC_INIT		0xABCD0000u
#define MMF_MAGIC_READY		0xABCD1234u
#define MMF_MAX_CLASSES		64
#define MMF_MAX_USER_CLASSES	63

#define MMF_HEADER_PATTERN	0x11112222u
#define MMF_TRAILER_PATTERN	0x77778888u
#define MMF_FLAG_FREE		1u
#define MMF_FLAG_DATA_OTHER_MMF	2u
#define MMF_FLAG_ALL		3u
#define MMF_NODE_HEADER_BYTES	44
#define MMF_NODE_TRAILER_BYTES	8
#define MMF_NODE_BYTES		52	/* mmf_node_bytes */
#define MMF_MAX_NODE_LEN	0xFFFFFFF0u
#define MMF_CONTENTION_SLOTS	10

#pragma pack(push, 4)

typedef struct mmf_shared_info {
	uint32_t lockerpid;		/* holder's pid; only ever CASed */
	uint32_t reserved1;
	uint32_t reserved2;
	uint32_t sanity;		/* written 0; read back at open */
	uint32_t last_mapper;
	uint32_t last_unmapper;
	uint32_t version;
	uint32_t header_bytes;
	uint32_t magic;
	uint64_t current_bytes;
	uint8_t num_alloc_sizes;
	uint8_t reserved3[3];
	uint32_t initializer;
	uint64_t allocated_bytes;
	uint32_t alloc_count;
	uint32_t free_count;
	uint32_t alloc_sizes[MMF_MAX_CLASSES];
	uint32_t allocs_by_class[MMF_MAX_CLASSES];
	uint32_t frees_by_class[MMF_MAX_CLASSES];
	uint64_t free_heads[MMF_MAX_CLASSES];
	uint64_t common_offset;
	uint32_t common_len;
	uint64_t first_alloc_offset;
	uint8_t raw;
	uint8_t reserved4[3];
	uint32_t bad_header_count;
	uint32_t region_map_calls;
	uint32_t ensure_mapped_calls;
	uint32_t offset_to_ptr_calls;
	uint32_t mmap_calls;
	uint32_t munmap_ok;
	uint32_t munmap_calls;
	uint32_t munmap_failed;
	uint32_t half_unmap_ok;
	uint32_t half_unmap_failed;
	uint32_t region_unmap_ok;
	uint32_t region_unmap_failed;
	uint32_t double_split;
	uint32_t mmap_failed;
	uint32_t create_opens;
	uint32_t grow_count;
	uint64_t grown_bytes;
	uint32_t last_check_iters;
	uint64_t lock_count;
	uint64_t unlock_count;
	uint64_t contended_count;
	uint64_t lock_wait_ns;
	uint32_t nested_count;
	uint32_t deepest_nesting;
	uint32_t contention_hist[MMF_CONTENTION_SLOTS];
	uint32_t most_spins;
	uint32_t dead_holder_takeovers;
	uint32_t relock_at_zero;
	uint32_t relock_in_unlock;
	uint32_t unlock_word_changed;
	uint32_t spins_ended_free;
	uint32_t last_check_secs;
	uint32_t check_timeouts;
	uint32_t timeout_check_iters;
	uint32_t timeout_check_secs;
	uint8_t created;
	uint8_t reserved5[3];
} mmf_shared_info_t;

typedef struct mmf_node_header {
	uint64_t offset;
	uint32_t pattern;
	uint32_t flags;
	uint32_t len;
	uint64_t user_offset;
	uint64_t prev_offset;
	uint64_t next_offset;
} mmf_node_header_t;

typedef struct mmf_node_trailer {
	uint32_t pattern;
	uint32_t len;
} mmf_node_trailer_t;

#pragma pack(pop)

#ifdef __cplusplus
#define MMF_AT(type, field, off) \
	static_assert(offsetof(type, field) == (off), #field)
MMF_AT(mmf_shared_info_t, lockerpid, 0x000);
MMF_AT(mmf_shared_info_t, sanity, 0x00C);
MMF_AT(mmf_shared_info_t, last_mapper, 0x010);
MMF_AT(mmf_shared_info_t, last_unmapper, 0x014);
MMF_AT(mmf_shared_info_t, version, 0x018);
MMF_AT(mmf_shared_info_t, header_bytes, 0x01C);
MMF_AT(mmf_shared_info_t, magic, 0x020);
MMF_AT(mmf_shared_info_t, current_bytes, 0x024);
MMF_AT(mmf_shared_info_t, num_alloc_sizes, 0x02C);
MMF_AT(mmf_shared_info_t, initializer, 0x030);
MMF_AT(mmf_shared_info_t, allocated_bytes, 0x034);
MMF_AT(mmf_shared_info_t, alloc_count, 0x03C);
MMF_AT(mmf_shared_info_t, free_count, 0x040);
MMF_AT(mmf_shared_info_t, alloc_sizes, 0x044);
MMF_AT(mmf_shared_info_t, allocs_by_class, 0x144);
MMF_AT(mmf_shared_info_t, frees_by_class, 0x244);
MMF_AT(mmf_shared_info_t, free_heads, 0x344);
MMF_AT(mmf_shared_info_t, common_offset, 0x544);
MMF_AT(mmf_shared_info_t, common_len, 0x54C);
MMF_AT(mmf_shared_info_t, first_alloc_offset, 0x550);
MMF_AT(mmf_shared_info_t, raw, 0x558);
MMF_AT(mmf_shared_info_t, bad_header_count, 0x55C);
MMF_AT(mmf_shared_info_t, region_map_calls, 0x560);
MMF_AT(mmf_shared_info_t, ensure_mapped_calls, 0x564);
MMF_AT(mmf_shared_info_t, offset_to_ptr_calls, 0x568);
MMF_AT(mmf_shared_info_t, mmap_calls, 0x56C);
MMF_AT(mmf_shared_info_t, munmap_ok, 0x570);
MMF_AT(mmf_shared_info_t, munmap_calls, 0x574);
MMF_AT(mmf_shared_info_t, munmap_failed, 0x578);
MMF_AT(mmf_shared_info_t, half_unmap_ok, 0x57C);
MMF_AT(mmf_shared_info_t, half_unmap_failed, 0x580);
MMF_AT(mmf_shared_info_t, region_unmap_ok, 0x584);
MMF_AT(mmf_shared_info_t, region_unmap_failed, 0x588);
MMF_AT(mmf_shared_info_t, double_split, 0x58C);
MMF_AT(mmf_shared_info_t, mmap_failed, 0x590);
MMF_AT(mmf_shared_info_t, create_opens, 0x594);
MMF_AT(mmf_shared_info_t, grow_count, 0x598);
MMF_AT(mmf_shared_info_t, grown_bytes, 0x59C);
MMF_AT(mmf_shared_info_t, last_check_iters, 0x5A4);
MMF_AT(mmf_shared_info_t, lock_count, 0x5A8);
MMF_AT(mmf_shared_info_t, unlock_count, 0x5B0);
MMF_AT(mmf_shared_info_t, contended_count, 0x5B8);
MMF_AT(mmf_shared_info_t, lock_wait_ns, 0x5C0);
MMF_AT(mmf_shared_info_t, nested_count, 0x5C8);
MMF_AT(mmf_shared_info_t, deepest_nesting, 0x5CC);
MMF_AT(mmf_shared_info_t, contention_hist, 0x5D0);
MMF_AT(mmf_shared_info_t, most_spins, 0x5F8);
MMF_AT(mmf_shared_info_t, dead_holder_takeovers, 0x5FC);
MMF_AT(mmf_shared_info_t, relock_at_zero, 0x600);
MMF_AT(mmf_shared_info_t, relock_in_unlock, 0x604);
MMF_AT(mmf_shared_info_t, unlock_word_changed, 0x608);
MMF_AT(mmf_shared_info_t, spins_ended_free, 0x60C);
MMF_AT(mmf_shared_info_t, last_check_secs, 0x610);
MMF_AT(mmf_shared_info_t, check_timeouts, 0x614);
MMF_AT(mmf_shared_info_t, timeout_check_iters, 0x618);
MMF_AT(mmf_shared_info_t, timeout_check_secs, 0x61C);
MMF_AT(mmf_shared_info_t, created, 0x620);
static_assert(sizeof(mmf_shared_info_t) == MMF_HEADER_BYTES);

MMF_AT(mmf_node_header_t, offset, 0);
MMF_AT(mmf_node_header_t, pattern, 8);
MMF_AT(mmf_node_header_t, flags, 12);
MMF_AT(mmf_node_header_t, len, 16);
MMF_AT(mmf_node_header_t, user_offset, 20);
MMF_AT(mmf_node_header_t, prev_offset, 28);
MMF_AT(mmf_node_header_t, next_offset, 36);
static_assert(sizeof(mmf_node_header_t) == MMF_NODE_HEADER_BYTES);
static_assert(sizeof(mmf_node_trailer_t) == MMF_NODE_TRAILER_BYTES);
static_assert(MMF_NODE_HEADER_BYTES + MMF_NODE_TRAILER_BYTES == MMF_NODE_BYTES);
#undef MMF_AT
#endif

#endif
