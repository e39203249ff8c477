/*
 * Layouts shared between the processes of one routing engine: the main
 * System V segment, the status block inside it, the header of the
 * secondary tables object and the header and bucket rows of sdb.head.
 * These are formats: every offset is checked at compile time.  All words
 * are in the host order of the routing engine.
 */
#ifndef SDB_SDB_DB_H
#define SDB_SDB_DB_H

#include <stddef.h>
#include <stdint.h>

#include "sdb/sdb.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Store names, resolved below the root. */
#define SDB_SHMEM_DIR		"/mfs/var/sdb/shmem"
#define SDB_TMP_DIR		"/mfs/var/tmp"
#define SDB_TOP_DIR		"/mfs/var/sdb"
#define SDB_SHM_KEY_FILE	"/mfs/var/tmp/sdb_shmem"
#define SDB_SHM_PROJECT		8888
#define SDB_MAILBOX_PROJECT	8889
#define SDB_HEAD_FILE		"/mfs/var/sdb/shmem/sdb.head"
#define SDB_LTS_DATA_FILE	"/mfs/var/sdb/shmem/sdb.lts.data"
#define SDB_STS_DATA_FILE	"/mfs/var/sdb/shmem/sdb_sts_data"
#define SDB_INTF_FILE		"/mfs/var/sdb/shmem/sdb_intf.db"
#define SDB_INTF_AD_FILE	"/mfs/var/sdb/shmem/sdb_intf.ad.db"

/*
 * Main segment.  L is 0 on the ordinary class and 204000 on the large
 * id-space class; everything from the summary counters on moves by L.
 */
#define SDB_SEG_LARGE_EXTRA	204000u
#define SDB_SEG_SIZE		1098760u
#define SDB_SEG_ID_WORD		0u
#define SDB_SEG_UNIT_POOL0	16u
#define SDB_SEG_UNIT_POOL0_UNITS 0x3FFFFu
#define SDB_SEG_UNIT_POOL1	0x10001Cu
#define SDB_SEG_UNIT_POOL1_UNITS 9000u
#define SDB_SEG_UNIT_POOL1_UNITS_LARGE 60000u
#define SDB_SEG_TAIL		1084620u	/* + L */

#define SDB_SUMMARY_COUNTERS	38
struct sdb_summary_counters {
	uint32_t counter[SDB_SUMMARY_COUNTERS];
};

#define SDB_STATUS_ROWS		4
#define SDB_STATUS_TEXT_LEN	256
#define SDB_SYNC_STATE_RUNNING	2
/* 332 bytes; the block lies 8-aligned in the segment, but the layout
 * around it only promises 4, hence the packing. */
struct __attribute__((packed, aligned(4))) sdb_status_block {
	uint8_t init_flag;
	uint8_t pad0[3];
	uint32_t sync_state;	/* only the low byte is used */
	struct __attribute__((packed, aligned(4))) {
		uint64_t done;
		uint64_t total;
	} progress[SDB_STATUS_ROWS];
	uint8_t sync_flag;
	char sync_text[SDB_STATUS_TEXT_LEN];
	uint8_t pad1[3];
};

/* Everything from SDB_SEG_TAIL + L to the end of the segment. */
struct sdb_seg_tail {
	struct sdb_summary_counters counters;
	uint8_t reserved0[20];
	uint32_t recovery_status;
	uint8_t limit_rows40[256 * 40];
	uint8_t limit_flag;
	uint8_t limit_rows13[255 * 13];
	uint8_t limit_head[16];
	struct sdb_status_block status;
	uint8_t limit_tail[60];
};

#define SDB_RECOVERY_OPENED	1
#define SDB_RECOVERY_REBUILDING	2
#define SDB_RECOVERY_DONE	3

/*
 * Header of the secondary tables object sdb_intf.db: the first 408 bytes.
 */
#define SDB_APP_TABLES		10
#define SDB_STRING_BUCKETS	6
struct sdb_db_info {
	uint32_t initialized;
	uint32_t intf_count;
	uint32_t intf_bytes;
	uint32_t session_count;
	uint32_t session_bytes;
	uint32_t app_def_count[SDB_APP_TABLES];
	uint32_t app_def_bytes[SDB_APP_TABLES];
	uint32_t app_def_max[SDB_APP_TABLES];
	uint32_t app_def_replaced[SDB_APP_TABLES];
	uint32_t app_def_created[SDB_APP_TABLES];
	uint32_t app_def_rewritten[SDB_APP_TABLES];
	uint32_t app_def_deleted[SDB_APP_TABLES];
	uint32_t intf_free_list_head;
	uint32_t session_free_list_head;
	uint32_t ls_free_list_head;
	uint32_t ri_free_list_head;
	uint32_t parent_free_list_head;
	uint32_t child_free_list_head;
	uint32_t app_def_free_list_head;
	uint32_t app_def_free_list_head12;
	uint32_t uid_free_list_head;
	uint32_t bucket_free_list_head[SDB_STRING_BUCKETS];
	uint32_t intf_root;
	uint32_t uid_root;
	uint32_t ls_root;
	uint32_t ri_root;
	uint32_t parent_root;
	uint32_t app_def_root;
	uint32_t app_def_total;
	uint32_t grow_step;
	uint32_t lock_pid;
	uint32_t global_size;
	uint32_t next_offset;
	int32_t lock_type;	/* 1 write, 0 read, -1 none */
};
#define SDB_DB_INFO_SIZE	408u

/*
 * sdb.head: a 256-byte header and one 20-byte row per bucket.  The u64
 * fields of the header and the rows lie on 4-byte boundaries only, so
 * they are kept as {low, high} word pairs in host (little-endian) order.
 */
#define SDB_LTS_MAGIC		14408448u
#define SDB_LTS_HEADER_SIZE	256u
#define SDB_LTS_BUCKET_SIZE	20u
struct sdb_lts_header {
	uint32_t magic;
	uint32_t master_time;
	uint32_t sem_owner_pid;
	uint32_t max_client;
	uint32_t max_service;
	uint32_t max_auth_request;
	uint32_t max_auth_response;
	uint32_t max_dynamic;
	uint32_t max_app[21];
	uint32_t txn_queued;
	uint32_t txn_failed;
	uint32_t txn_committed;
	uint8_t reserved0[12];
	uint32_t chain_remove_failed;
	uint32_t rep_records_read;
	uint32_t rep_records_applied;
	uint32_t bucket_waits;
	uint32_t bucket_owner_dead;
	uint32_t bucket_released_dead_client;
	uint32_t bucket_released_keel_start;
	uint32_t sem_owner_released;
	uint32_t bucket_release_retries;
	uint8_t reserved1[20];
	uint32_t keel_attaches;
	uint32_t client_attaches;
	uint32_t dead_client_calls;
	uint32_t reserved2;
	uint32_t conflict_client_lost;
	uint32_t conflict_client_changed;
	uint32_t txn_cross_writes;
	uint32_t subrecord_read_failed;
	uint32_t bucket_locks_taken[2];
	uint32_t bucket_locks_contended[2];
	uint32_t bucket_wait_usecs[2];
	uint32_t reserved3;
};

struct sdb_lts_bucket {
	uint32_t spare_block[2];
	uint32_t first_head[2];
	uint32_t owner_pid;
};

/* Pointers into this process's mappings; null when not attached. */
uint8_t *sdb_main_segment(void);
uint32_t sdb_main_segment_size(void);
volatile uint64_t *sdb_id_word(void);
struct sdb_seg_tail *sdb_seg_tail_ptr(void);
struct sdb_db_info *sdb_db_info_ptr(void);
struct sdb_lts_header *sdb_lts_header_ptr(void);
struct sdb_lts_bucket *sdb_lts_bucket_ptr(uint32_t bucket);
uint32_t sdb_lts_bucket_count(void);
uint64_t sdb_lts_counter64(const uint32_t pair[2]);

#ifdef __cplusplus
}

static_assert(sizeof(sdb_summary_counters) == 152);
static_assert(offsetof(sdb_status_block, sync_state) == 4);
static_assert(offsetof(sdb_status_block, progress) == 8);
static_assert(offsetof(sdb_status_block, sync_flag) == 72);
static_assert(offsetof(sdb_status_block, sync_text) == 73);
static_assert(sizeof(sdb_status_block) == 332);
static_assert(offsetof(sdb_seg_tail, reserved0) == 1084772 - SDB_SEG_TAIL);
static_assert(offsetof(sdb_seg_tail, recovery_status) == 1084792 - SDB_SEG_TAIL);
static_assert(offsetof(sdb_seg_tail, limit_rows40) == 1084796 - SDB_SEG_TAIL);
static_assert(offsetof(sdb_seg_tail, limit_flag) == 1095036 - SDB_SEG_TAIL);
static_assert(offsetof(sdb_seg_tail, limit_rows13) == 1095037 - SDB_SEG_TAIL);
static_assert(offsetof(sdb_seg_tail, limit_head) == 1098352 - SDB_SEG_TAIL);
static_assert(offsetof(sdb_seg_tail, status) == 1098368 - SDB_SEG_TAIL);
static_assert(offsetof(sdb_seg_tail, limit_tail) == 1098700 - SDB_SEG_TAIL);
static_assert(sizeof(sdb_seg_tail) == SDB_SEG_SIZE - SDB_SEG_TAIL);
static_assert(alignof(sdb_seg_tail) <= 4, "the tail starts on a 4-byte boundary");
static_assert(SDB_SEG_UNIT_POOL0 + 16 + SDB_SEG_UNIT_POOL0_UNITS * 4 ==
    SDB_SEG_UNIT_POOL1);
static_assert(SDB_SEG_UNIT_POOL1 + 16 + SDB_SEG_UNIT_POOL1_UNITS * 4 ==
    SDB_SEG_TAIL);
static_assert((SDB_SEG_UNIT_POOL1_UNITS_LARGE - SDB_SEG_UNIT_POOL1_UNITS) * 4 ==
    SDB_SEG_LARGE_EXTRA);
static_assert((SDB_SEG_TAIL + offsetof(sdb_seg_tail, status)) % 8 == 0 &&
    SDB_SEG_LARGE_EXTRA % 8 == 0, "progress words are 8-aligned in place");

static_assert(offsetof(sdb_db_info, app_def_count) == 20);
static_assert(offsetof(sdb_db_info, app_def_deleted) == 260);
static_assert(offsetof(sdb_db_info, intf_free_list_head) == 300);
static_assert(offsetof(sdb_db_info, uid_free_list_head) == 332);
static_assert(offsetof(sdb_db_info, bucket_free_list_head) == 336);
static_assert(offsetof(sdb_db_info, intf_root) == 360);
static_assert(offsetof(sdb_db_info, app_def_root) == 380);
static_assert(offsetof(sdb_db_info, app_def_total) == 384);
static_assert(offsetof(sdb_db_info, grow_step) == 388);
static_assert(offsetof(sdb_db_info, lock_pid) == 392);
static_assert(offsetof(sdb_db_info, global_size) == 396);
static_assert(offsetof(sdb_db_info, next_offset) == 400);
static_assert(offsetof(sdb_db_info, lock_type) == 404);
static_assert(sizeof(sdb_db_info) == SDB_DB_INFO_SIZE);

static_assert(offsetof(sdb_lts_header, sem_owner_pid) == 8);
static_assert(offsetof(sdb_lts_header, max_app) == 32);
static_assert(offsetof(sdb_lts_header, txn_queued) == 116);
static_assert(offsetof(sdb_lts_header, reserved0) == 128);
static_assert(offsetof(sdb_lts_header, chain_remove_failed) == 140);
static_assert(offsetof(sdb_lts_header, bucket_waits) == 152);
static_assert(offsetof(sdb_lts_header, bucket_owner_dead) == 156);
static_assert(offsetof(sdb_lts_header, bucket_released_dead_client) == 160);
static_assert(offsetof(sdb_lts_header, bucket_released_keel_start) == 164);
static_assert(offsetof(sdb_lts_header, sem_owner_released) == 168);
static_assert(offsetof(sdb_lts_header, bucket_release_retries) == 172);
static_assert(offsetof(sdb_lts_header, keel_attaches) == 196);
static_assert(offsetof(sdb_lts_header, client_attaches) == 200);
static_assert(offsetof(sdb_lts_header, dead_client_calls) == 204);
static_assert(offsetof(sdb_lts_header, conflict_client_lost) == 212);
static_assert(offsetof(sdb_lts_header, subrecord_read_failed) == 224);
static_assert(offsetof(sdb_lts_header, bucket_locks_taken) == 228);
static_assert(offsetof(sdb_lts_header, bucket_locks_contended) == 236);
static_assert(offsetof(sdb_lts_header, bucket_wait_usecs) == 244);
static_assert(offsetof(sdb_lts_header, reserved3) == 252);
static_assert(sizeof(sdb_lts_header) == SDB_LTS_HEADER_SIZE);
static_assert(offsetof(sdb_lts_bucket, first_head) == 8);
static_assert(offsetof(sdb_lts_bucket, owner_pid) == 16);
static_assert(sizeof(sdb_lts_bucket) == SDB_LTS_BUCKET_SIZE);
#endif

#endif
