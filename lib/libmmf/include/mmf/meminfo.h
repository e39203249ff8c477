/*
 * meminfo: the shared table of memory use of the storage family.  Every
 * store writes its own row and refreshes it now and then; a tool reads a
 * private copy at any time.  The table is the common area of the heap
 * "/mfs/var/meminfo/meminfo".  Rows are appended and never move.
 */
#ifndef MMF_MEMINFO_H
#define MMF_MEMINFO_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#define MEMINFO_DIR		"/mfs/var/meminfo"
#define MEMINFO_PATH		"/mfs/var/meminfo/meminfo"
#define MEMINFO_FILE_BYTES	0x8000
#define MEMINFO_VERSION		1
#define MEMINFO_HEADER_BYTES	0xD0
#define MEMINFO_TYPES		5
#define MEMINFO_HISTORY		10
#define MEMINFO_NAME_BYTES	96
#define MEMINFO_MIN_ROW_BYTES	0xA4

#define MEMINFO_TYPE_MMF	0
#define MEMINFO_TYPE_SPARE1	1
#define MEMINFO_TYPE_SPARE2	2
#define MEMINFO_TYPE_MMDB	3
#define MEMINFO_TYPE_SHM	4

#define MEMINFO_FLAG_REFRESH	0x1	/* row flags */
#define MEMINFO_FLAG_CORRUPT	0x2
#define MEMINFO_TABLE_CORRUPT	0x2	/* table flags: a row was corrupt */

/* Reasons of a reset, kept in the history. */
#define MEMINFO_RESET_OPEN	1
#define MEMINFO_RESET_CHECK	2
#define MEMINFO_RESET_UPDATE	3
#define MEMINFO_RESET_MARK_ALL	4

#pragma pack(push, 4)

typedef struct meminfo_header {
	uint32_t version;
	uint32_t file_bytes;
	uint32_t header_bytes;
	uint32_t common_bytes;		/* as first computed */
	uint32_t table_bytes;
	uint32_t free_bytes;
	uint32_t next_free;
	uint32_t generation;
	struct {
		uint32_t reason;
		uint32_t pid;
	} history[MEMINFO_HISTORY];
	uint32_t rows;
	uint64_t change_count;
	uint32_t flags;
	struct {
		uint64_t first;
		uint64_t last;
	} type_list[MEMINFO_TYPES];
} meminfo_header_t;

typedef struct meminfo_row_header {
	uint32_t total_bytes;
	uint32_t type;
	uint64_t next;
} meminfo_row_header_t;

/* The start shared by every row's data (types 1, 2 and 4 are only this). */
typedef struct meminfo_common {
	char name[MEMINFO_NAME_BYTES];
	uint64_t current_bytes;
	uint64_t max_bytes;
	uint64_t mappable_bytes;
	uint64_t lock_count;
	uint64_t lock_contended;
	uint64_t lock_wait_us;
	uint32_t flags;
} meminfo_common_t;

typedef struct meminfo_mmf {
	meminfo_common_t c;
	uint32_t mmap_calls;
	uint32_t reserved;
} meminfo_mmf_t;

typedef struct meminfo_mmdb {
	meminfo_common_t c;
	uint32_t buckets;
	uint64_t thread_lock_count;
	uint64_t thread_lock_contended;
	uint64_t thread_lock_wait_us;
} meminfo_mmdb_t;

typedef meminfo_common_t meminfo_shm_t;
typedef meminfo_common_t meminfo_spare_t;

#pragma pack(pop)

#ifdef __cplusplus
static_assert(sizeof(meminfo_header_t) == MEMINFO_HEADER_BYTES);
static_assert(offsetof(meminfo_header_t, history) == 0x20);
static_assert(offsetof(meminfo_header_t, rows) == 0x70);
static_assert(offsetof(meminfo_header_t, change_count) == 0x74);
static_assert(offsetof(meminfo_header_t, flags) == 0x7C);
static_assert(offsetof(meminfo_header_t, type_list) == 0x80);
static_assert(sizeof(meminfo_row_header_t) == 16);
static_assert(offsetof(meminfo_common_t, current_bytes) == 96);
static_assert(offsetof(meminfo_common_t, lock_count) == 120);
static_assert(offsetof(meminfo_common_t, flags) == 0x90);
static_assert(sizeof(meminfo_common_t) == 148);
static_assert(sizeof(meminfo_mmf_t) == 156);
static_assert(offsetof(meminfo_mmdb_t, buckets) == 148);
static_assert(offsetof(meminfo_mmdb_t, thread_lock_count) == 152);
static_assert(sizeof(meminfo_mmdb_t) == 176);
static_assert(sizeof(meminfo_row_header_t) + sizeof(meminfo_common_t) ==
    MEMINFO_MIN_ROW_BYTES);
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct meminfo_reader {
	struct meminfo_reader *self;
	uint8_t *buffer;
	size_t size;
	const meminfo_header_t *table;
	bool owned;
	uint64_t cursor[MEMINFO_TYPES];
} meminfo_reader_t;

/* Write a row; *index (may be null) keeps the row's offset between calls. */
void meminfo_update_mmf(const meminfo_mmf_t *data, uint64_t *index);
void meminfo_update_mmdb(const meminfo_mmdb_t *data, uint64_t *index);
void meminfo_update_shm(const meminfo_shm_t *data, uint64_t *index);
void meminfo_update_spare1(const meminfo_spare_t *data, uint64_t *index);
void meminfo_update_spare2(const meminfo_spare_t *data, uint64_t *index);

bool meminfo_refresh_wanted(const char *name, uint64_t index);
void meminfo_mark_all(void);

meminfo_reader_t *meminfo_reader_create(void);
bool meminfo_reader_next_mmf(meminfo_reader_t *r, meminfo_mmf_t *out);
bool meminfo_reader_next_spare1(meminfo_reader_t *r, meminfo_spare_t *out);
bool meminfo_reader_next_spare2(meminfo_reader_t *r, meminfo_spare_t *out);
bool meminfo_reader_next_mmdb(meminfo_reader_t *r, meminfo_mmdb_t *out);
bool meminfo_reader_next_shm(meminfo_reader_t *r, meminfo_shm_t *out);
/* The table header of the copy. */
const meminfo_header_t *meminfo_reader_header(const meminfo_reader_t *r);
void meminfo_reader_delete(meminfo_reader_t *r);

bool meminfo_corrupt_seen(void);
void meminfo_corrupt_clear(void);
uint64_t meminfo_change_count(void);

#ifdef __cplusplus
}
#endif

#endif
