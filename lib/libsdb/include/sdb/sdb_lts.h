/*
 * The long-term store: every session as a set of encoded sections under
 * its 64-bit id.  sdb.head (sdb_db.h) holds the hash rows; the heads and
 * the sections live in the mapped heap "sdb.lts.data".  A head is the
 * first 468 bytes of a block of SDB_LTS_MAX_RECORD bytes; the rest of the
 * block is carved for the session's sections before the heap is used.
 *
 * All access to a head and its chain happens under the bucket lock of the
 * session (sdb_sentry_lock_acquire).  Pointers into the heap are valid
 * until the next call that may map; keep offsets.
 */
#ifndef SDB_SDB_LTS_H
#define SDB_SDB_LTS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SDB_LTS_BLOCK_OVERHEAD	52u
#define SDB_LTS_MAX_RECORD	(4096u - SDB_LTS_BLOCK_OVERHEAD)	/* 4044 */
#define SDB_LTS_HEAD_SIZE	468u
#define SDB_LTS_DESC_COUNT	26	/* tables 0-4, then blob n at 5 + n */
#define SDB_LTS_SECTIONS	25	/* in a write record */
#define SDB_LTS_WREC_BYTES	44824u
#define SDB_LTS_CHAIN_MAX	1000
#define SDB_LTS_SLACK		1200u
#define SDB_LTS_MIN_ALLOC	512u
#define SDB_LTS_STATS_BYTES	620u

/* 16 bytes: where a section lies and how much room it has there. */
struct __attribute__((packed, aligned(4))) sdb_lts_desc {
	uint64_t offset;	/* 0: no section */
	uint32_t len;
	uint32_t cap;
};

struct __attribute__((packed, aligned(4))) sdb_lts_head {
	uint64_t sid;
	uint64_t self;		/* offset of this head */
	uint64_t next;		/* next head of the chain, 0 at the end */
	uint64_t cursor;	/* free rest of the block */
	uint32_t left;		/* bytes left in the block */
	uint8_t zero[8];
	/* client, service, auth request, auth response, dynamic, then the
	 * application blob n at index 5 + n (index 5 unused) */
	struct sdb_lts_desc desc[SDB_LTS_DESC_COUNT];
	uint32_t used;		/* bytes used in the block, from 468 */
	uint8_t gen;		/* client write generation */
	uint8_t pad[3];
};

/* A section of a write record. */
struct sdb_lts_section {
	const void *ptr;
	uint32_t len;
};

/*
 * A write record: the sections of one session queued by a transaction,
 * in the order client, service, dynamic, authentication request,
 * authentication response, blobs 1 to 20.
 */
struct sdb_lts_wrec {
	struct sdb_lts_wrec *next;
	uint64_t sid;
	struct sdb_lts_section list[SDB_LTS_SECTIONS];
	uint32_t left;
	uint32_t cursor;
	uint8_t buf[SDB_LTS_WREC_BYTES];
};

/* A transaction, also the iterator of sdb_lts_search.  Zero it first. */
struct sdb_lts_txn {
	uint32_t map_error;
	uint64_t cur_id;
	uint64_t stop_id;
	uint32_t kind;		/* 0 client, 1 service */
	uint8_t gen_read;
	uint8_t conflict;
	uint64_t sid_read;
	struct sdb_lts_wrec *records;
	uint64_t client_offset_read;	/* with gen_read: see the conflict test */
};

/* Encoders give the encoded length (may exceed room: nothing written). */
typedef int (*sdb_lts_encoder)(const void *value, uint8_t *buf,
    uint32_t room);
/* Decoders give the length they consumed, -2 or -20. */
typedef int (*sdb_lts_decoder)(void *handle, const uint8_t *bytes,
    uint32_t len, void **out, void *arg, uint32_t filter);

void *sdb_lts_map(uint64_t offset, uint32_t len);
struct sdb_lts_head *sdb_lts_find(uint64_t sid, int *walked, uint64_t *prev);
struct sdb_lts_head *sdb_lts_chain_repair(uint32_t bucket);
struct sdb_lts_head *sdb_lts_head_create(uint64_t sid);
int sdb_lts_section_write(struct sdb_lts_head **head, const void *src,
    uint32_t len, struct sdb_lts_desc *desc, uint32_t *max_seen);
int sdb_lts_record_write(uint64_t sid,
    const struct sdb_lts_section list[SDB_LTS_SECTIONS],
    struct sdb_lts_txn *txn);
int sdb_lts_section_store(uint64_t sid, struct sdb_lts_txn *txn,
    uint32_t table, uint32_t blob, const void *value, sdb_lts_encoder enc);
int sdb_lts_txn_commit(struct sdb_lts_txn *txn);
void sdb_lts_txn_abort(struct sdb_lts_txn *txn);
int sdb_lts_section_read(uint64_t sid, struct sdb_lts_txn *txn, void *handle,
    void **value, uint32_t table, uint32_t blob, sdb_lts_decoder dec,
    void *arg, uint32_t filter);
int sdb_lts_section_delete(uint64_t sid, struct sdb_lts_txn *txn,
    uint32_t table, uint32_t blob);
int sdb_lts_session_delete(uint64_t sid, struct sdb_lts_txn *txn);
int sdb_lts_exists(uint64_t sid);
int sdb_lts_client_apply(uint64_t sid, void *arg,
    int (*fn)(void *arg, const uint8_t *bytes, uint32_t len));
#define SDB_LTS_SEARCH_FIRST	1
#define SDB_LTS_SEARCH_NEXT	2
#define SDB_LTS_SEARCH_EXACT	4
int sdb_lts_search(struct sdb_lts_txn *it, uint64_t *key, void **value,
    uint32_t *value_len, uint32_t flags);
uint64_t sdb_lts_lowest_id(void);
struct sdb_session_search_info {
	uint64_t count;
	uint64_t lowest;
	uint64_t highest;
};
int sdb_get_session_search_info(uint64_t sid,
    struct sdb_session_search_info *out);
int sdb_lts_stats_get(uint8_t *buf);

/* Opens sdb.head and the data file only (tools and tests). */
int sdb_lts_store_open(int is_keel);
void sdb_lts_store_close(void);

/*
 * The whole-store check of the chains, the heads and the heap.  Each
 * bucket is checked under its lock; a place used twice is looked for
 * within a bucket, and across buckets only with SDB_LTS_CHECK_STILL (no
 * writer runs: a live writer may free a place and another take it between
 * the visits of their buckets).
 */
#define SDB_LTS_CHECK_STILL	1
struct sdb_lts_check_report {
	uint64_t heads;
	uint64_t sections;
	uint64_t heap_sections;
	uint32_t longest_chain;
	uint32_t problems;
	char first_problem[160];
};
int sdb_lts_check(struct sdb_lts_check_report *rep, unsigned flags);

/* The session id scan index: a process-local hint of the used ids. */
#define SDB_SII_LEVELS		5
struct sdb_sii_level {
	uint64_t unit;
	uint32_t unit_shift;
	uint64_t span;
	uint32_t span_shift;
	uint32_t bits_set;
	uint32_t words_used;
	uint32_t word_count;
	uint64_t *words;
};
struct sdb_sii {
	uint64_t max_id;
	uint64_t lowest_id;
	uint64_t highest_id;
	uint32_t ids_seen;
	uint64_t build_secs;
	uint32_t build_usecs;
	uint32_t lookups;
	uint32_t word_bits;
	uint32_t level_count;
	struct sdb_sii_level levels[SDB_SII_LEVELS];
	uint32_t users;		/* freed when the last user gives it back */
	uint8_t dropped;
};
struct sdb_sii *sdb_lts_scan_index_get(uint64_t first, uint64_t last);
void sdb_lts_scan_index_put(struct sdb_sii *sii);
void sdb_lts_scan_index_drop(void);
uint64_t sdb_lts_scan_next(struct sdb_sii *sii, uint64_t id);
/* Flush steps of the short-term store that the walks call. */
int sdb_sts_flush_all_to_lts(void);
int sdb_sts_flush_client_and_services(uint64_t sid);

#ifdef __cplusplus
}

/* Set by the replication client, which writes on a standby. */
extern bool sdb_lts_replica_writes;

static_assert(sizeof(sdb_lts_desc) == 16);
static_assert(offsetof(sdb_lts_desc, len) == 8);
static_assert(offsetof(sdb_lts_desc, cap) == 12);
static_assert(offsetof(sdb_lts_head, self) == 8);
static_assert(offsetof(sdb_lts_head, next) == 16);
static_assert(offsetof(sdb_lts_head, cursor) == 24);
static_assert(offsetof(sdb_lts_head, left) == 32);
static_assert(offsetof(sdb_lts_head, zero) == 36);
static_assert(offsetof(sdb_lts_head, desc) == 44);
static_assert(offsetof(sdb_lts_head, desc[1]) == 60);
static_assert(offsetof(sdb_lts_head, desc[2]) == 76);
static_assert(offsetof(sdb_lts_head, desc[3]) == 92);
static_assert(offsetof(sdb_lts_head, desc[4]) == 108);
static_assert(offsetof(sdb_lts_head, desc[5]) == 124);
static_assert(offsetof(sdb_lts_head, used) == 460);
static_assert(offsetof(sdb_lts_head, gen) == 464);
static_assert(sizeof(sdb_lts_head) == SDB_LTS_HEAD_SIZE);
#endif

#endif
