/*
 * The short-term store: the working copy of sessions in the shared file
 * "sdb_sts_data".  One region: the entry table (76 bytes an entry, the
 * last 30 entries the overflow area), the heap control block (104 bytes)
 * and the heap.  Each entry owns one heap block, its slot, in which the
 * session's sections are addressed by 16-bit offsets from the slot's
 * start.  Everything here is a format shared by processes and kept across
 * their restarts: offsets are checked at compile time, nothing holds a
 * pointer, words are in host order.
 */
#ifndef SDB_SDB_STS_H
#define SDB_SDB_STS_H

#include <stddef.h>
#include <stdint.h>

#include "sdb/sdb_session.h"

#ifdef __cplusplus
extern "C" {
#endif

#define SDB_STS_ENTRY_SIZE	76
#define SDB_STS_HEAP_CTL_SIZE	104
#define SDB_STS_OVERFLOW_ENTRIES 30
#define SDB_STS_NO_LINK		0xFFFFu
#define SDB_STS_SLOT_MIN	4096u
#define SDB_STS_SLOT_MAX	40960u
#define SDB_STS_BINS		11
#define SDB_STS_HDR_MAGIC	0xd00db00fu
#define SDB_STS_TRL_MAGIC	0x77778888u
#define SDB_STS_HDR_SIZE	24
#define SDB_STS_TRL_SIZE	8

/*
 * Entries lie 76 bytes apart, so an odd entry's u64 fields sit at 4 mod 8
 * and some of them cross a cache line.  None of them is changed by an
 * atomic instruction: Linux may refuse or trap a split lock.  The only
 * word of a compare-and-swap is the u32 lock_pid; every u64 is written by
 * the holder of the entry's lock, and read by others only under it.
 */
struct __attribute__((packed, aligned(4))) sdb_sts_entry {
	uint64_t lock_thread;		/* upper half written 0 */
	uint32_t lock_pid;		/* 0 when free */
	uint16_t lock_count;
	uint16_t lock_line;
	uint64_t session_id;		/* 0: empty */
	uint64_t dynamic_session;
	uint64_t client_session;
	uint16_t free_list_offset;
	uint16_t client_offset;
	uint16_t dynamic_offset;
	uint16_t auth_req_offset;
	uint16_t auth_rep_offset;
	uint16_t app_data_offset;
	uint16_t service_session_ids_count;
	uint16_t service_session_ids_offset;
	uint16_t service_list_bytes;	/* 112 or 8816 */
	uint8_t pad0[2];
	uint32_t data_start_offset;	/* of the slot, from the region start */
	uint32_t slot_size;
	uint16_t next;			/* overflow chain; 0xFFFF none */
	uint16_t prev;
	uint8_t dirty_flags;
	uint8_t pad1[3];
};

/*
 * The counters at 72 to 88 are u64 at an offset that is 4 mod 8 whenever
 * the entry count is odd: they are counted as two u32 halves with a carry
 * (see sdb_count64), never with a 64-bit atomic.
 */
struct __attribute__((packed, aligned(4))) sdb_sts_heap_ctl {
	uint64_t lock_thread;
	uint32_t lock_pid;
	uint16_t lock_count;
	uint16_t defrag_running;
	uint32_t bins[SDB_STS_BINS];
	uint32_t defrag_pid;
	uint64_t defrag_thread;
	uint32_t entry_locks[2];
	uint32_t entry_lock_waits[2];
	uint32_t entry_lock_wait_time[2];
	uint32_t defrag_count;
	uint16_t lock_line;
	uint8_t pad[2];
};

/* Header of a free heap block; an allocated block has none. */
struct __attribute__((packed, aligned(4))) sdb_sts_block_hdr {
	uint32_t offset;	/* of the block, from the region start */
	uint32_t magic;
	uint32_t flags;		/* bit 0: free */
	uint32_t size;		/* header and trailer included */
	uint32_t prev;		/* in the bin; 0 first */
	uint32_t next;		/* 0 last */
};
struct __attribute__((packed, aligned(4))) sdb_sts_block_trl {
	uint32_t magic;
	uint32_t size;
};

/* Inside a slot. */
#define SDB_STS_ATTR_TABLE_SIZE	1186
#define SDB_STS_HASH_BUCKETS	101
#define SDB_STS_HASH_SIZE	204
#define SDB_STS_DYN_NODE_SIZE	22
#define SDB_STS_AUTH_NODE_SIZE	10
#define SDB_STS_APP_TABLE_SIZE	172
#define SDB_STS_SERVICE_LIST_SMALL 112
#define SDB_STS_SERVICE_LIST_LARGE 8816
#define SDB_STS_DYN_CHAIN_MAX	999
#define SDB_STS_DYN_LOOP_MAX	10000

struct __attribute__((packed)) sdb_sts_free_node {
	uint16_t len;
	uint16_t next;
};
struct __attribute__((packed)) sdb_sts_attr_table {
	uint16_t offset[SDB_ATTR_TABLE_SIZE];
	uint16_t count;
	uint16_t numbers[SDB_ATTR_TABLE_SIZE];
};
struct __attribute__((packed)) sdb_sts_value_block {
	uint16_t len;
	uint16_t alloc_len;
	/* the value bytes follow */
};
struct __attribute__((packed)) sdb_sts_hash {
	uint16_t bucket[SDB_STS_HASH_BUCKETS];
	uint16_t count;
};
struct __attribute__((packed)) sdb_sts_dyn_node {
	uint16_t bkt;
	uint16_t klen;
	uint16_t koff;
	uint16_t vlen;
	uint16_t dao;
	uint16_t voff;
	uint8_t flg;
	uint8_t et;
	uint16_t noff;
	uint16_t npoff;
	uint16_t nioff;
	uint16_t nmoff;
};
#define SDB_STS_DYN_HEAD	0x01
struct __attribute__((packed)) sdb_sts_auth_node {
	uint16_t attr;
	uint16_t len;
	uint16_t alloc_len;
	uint16_t voff;
	uint16_t next;
};
struct __attribute__((packed)) sdb_sts_app_rec {
	uint16_t reserved;
	uint16_t len;
	uint16_t alloc_len;
	uint16_t voff;
};
struct __attribute__((packed)) sdb_sts_app_table {
	uint32_t deleted;	/* bit n: blob n deleted, not yet flushed */
	struct sdb_sts_app_rec rec[SDB_APP_BLOB_MAX + 1];
};

#ifdef __cplusplus
static_assert(sizeof(sdb_sts_entry) == SDB_STS_ENTRY_SIZE);
static_assert(offsetof(sdb_sts_entry, lock_pid) == 8);
static_assert(offsetof(sdb_sts_entry, lock_count) == 12);
static_assert(offsetof(sdb_sts_entry, lock_line) == 14);
static_assert(offsetof(sdb_sts_entry, session_id) == 16);
static_assert(offsetof(sdb_sts_entry, dynamic_session) == 24);
static_assert(offsetof(sdb_sts_entry, client_session) == 32);
static_assert(offsetof(sdb_sts_entry, free_list_offset) == 40);
static_assert(offsetof(sdb_sts_entry, client_offset) == 42);
static_assert(offsetof(sdb_sts_entry, dynamic_offset) == 44);
static_assert(offsetof(sdb_sts_entry, auth_req_offset) == 46);
static_assert(offsetof(sdb_sts_entry, auth_rep_offset) == 48);
static_assert(offsetof(sdb_sts_entry, app_data_offset) == 50);
static_assert(offsetof(sdb_sts_entry, service_session_ids_count) == 52);
static_assert(offsetof(sdb_sts_entry, service_session_ids_offset) == 54);
static_assert(offsetof(sdb_sts_entry, service_list_bytes) == 56);
static_assert(offsetof(sdb_sts_entry, data_start_offset) == 60);
static_assert(offsetof(sdb_sts_entry, slot_size) == 64);
static_assert(offsetof(sdb_sts_entry, next) == 68);
static_assert(offsetof(sdb_sts_entry, prev) == 70);
static_assert(offsetof(sdb_sts_entry, dirty_flags) == 72);
static_assert(sizeof(sdb_sts_heap_ctl) == SDB_STS_HEAP_CTL_SIZE);
static_assert(offsetof(sdb_sts_heap_ctl, lock_pid) == 8);
static_assert(offsetof(sdb_sts_heap_ctl, lock_count) == 12);
static_assert(offsetof(sdb_sts_heap_ctl, defrag_running) == 14);
static_assert(offsetof(sdb_sts_heap_ctl, bins) == 16);
static_assert(offsetof(sdb_sts_heap_ctl, defrag_pid) == 60);
static_assert(offsetof(sdb_sts_heap_ctl, defrag_thread) == 64);
static_assert(offsetof(sdb_sts_heap_ctl, entry_locks) == 72);
static_assert(offsetof(sdb_sts_heap_ctl, entry_lock_waits) == 80);
static_assert(offsetof(sdb_sts_heap_ctl, entry_lock_wait_time) == 88);
static_assert(offsetof(sdb_sts_heap_ctl, defrag_count) == 96);
static_assert(offsetof(sdb_sts_heap_ctl, lock_line) == 100);
static_assert(sizeof(sdb_sts_block_hdr) == SDB_STS_HDR_SIZE);
static_assert(sizeof(sdb_sts_block_trl) == SDB_STS_TRL_SIZE);
static_assert(sizeof(sdb_sts_free_node) == 4);
static_assert(sizeof(sdb_sts_attr_table) == SDB_STS_ATTR_TABLE_SIZE);
static_assert(offsetof(sdb_sts_attr_table, count) == 592);
static_assert(offsetof(sdb_sts_attr_table, numbers) == 594);
static_assert(sizeof(sdb_sts_value_block) == 4);
static_assert(sizeof(sdb_sts_hash) == SDB_STS_HASH_SIZE);
static_assert(offsetof(sdb_sts_hash, count) == 202);
static_assert(sizeof(sdb_sts_dyn_node) == SDB_STS_DYN_NODE_SIZE);
static_assert(offsetof(sdb_sts_dyn_node, flg) == 12);
static_assert(offsetof(sdb_sts_dyn_node, et) == 13);
static_assert(offsetof(sdb_sts_dyn_node, noff) == 14);
static_assert(offsetof(sdb_sts_dyn_node, nioff) == 18);
static_assert(offsetof(sdb_sts_dyn_node, nmoff) == 20);
static_assert(sizeof(sdb_sts_auth_node) == SDB_STS_AUTH_NODE_SIZE);
static_assert(sizeof(sdb_sts_app_table) == SDB_STS_APP_TABLE_SIZE);
static_assert(offsetof(sdb_sts_app_table, rec) == 4);
static_assert(SDB_STS_SERVICE_LIST_SMALL == 14 * 8 &&
    SDB_STS_SERVICE_LIST_LARGE == 1102 * 8);
#endif

/* Per-process view of the region. */
struct sdb_sts_geometry {
	uint32_t max_bytes;
	uint32_t alloc_bytes;
	uint32_t total_entries;
	uint32_t home_count;
	uint32_t heap_ctl_offset;	/* total_entries * 76 */
	uint32_t heap_start;		/* heap_ctl_offset + 104 */
};
/* Sizes of a region of about `bytes` cut in units of `unit_bytes`. */
int sdb_sts_geometry_for(uint64_t bytes, uint32_t unit_bytes,
    struct sdb_sts_geometry *g);

/* Attach or create the region; 0 or -2.  Nothing when already open. */
int sdb_sts_init(uint64_t bytes, uint32_t unit_bytes);
void sdb_sts_close(void);
void sdb_sts_quiesce(void);
int sdb_sts_is_open(void);
const struct sdb_sts_geometry *sdb_sts_geometry_get(void);
uint8_t *sdb_sts_base(void);

/* Entries.  An entry is returned locked; release it when done. */
struct sdb_sts_entry *sdb_sts_entry_create(uint64_t sid);
struct sdb_sts_entry *sdb_sts_entry_find(uint64_t sid);
struct sdb_sts_entry *sdb_sts_entry_get(uint64_t sid);
struct sdb_sts_entry *sdb_sts_entry_get_by_index(uint32_t index);
void sdb_sts_entry_release(struct sdb_sts_entry *e);
int sdb_sts_entry_remove(uint64_t sid);
int sdb_sts_entry_clear_session(uint64_t sid);
uint32_t sdb_sts_entry_index(const struct sdb_sts_entry *e);
/* Who may evict a resident session: writes it to the long-term store.
 * Without one, a home entry that holds another session is not taken. */
typedef int (*sdb_sts_flush_fn)(struct sdb_sts_entry *e);
void sdb_sts_set_flush_fn(sdb_sts_flush_fn fn);

/* Allocation. */
uint32_t sdb_sts_heap_alloc(uint32_t size);	/* block offset or 0 */
void sdb_sts_heap_free(uint32_t offset, uint32_t size);
/* A piece of the slot, or 0; *grew set when the slot moved. */
uint16_t sdb_sts_entry_alloc(struct sdb_sts_entry *e, uint32_t size,
    int *grew);
void sdb_sts_entry_free(struct sdb_sts_entry *e, uint16_t piece,
    uint32_t size);
void sdb_sts_heap_defragment(struct sdb_sts_entry *e, int *released);
/* Bytes of the slot in use (allocated pieces and the 4 bytes at 0). */
uint32_t sdb_sts_entry_used_bytes(const struct sdb_sts_entry *e);

/*
 * A private copy of a resident session: its 76 entry bytes, then its slot
 * cut after the last piece in use (the slot size of the copy says how
 * much).  get_entry_and_len: *len in is the room of buf, out 76 + the
 * used bytes; -2 when buf is too small, -7 when the session is not in the
 * store.  entry_copy: the same into malloc'd memory the caller frees.
 */
int sdb_sts_get_entry_and_len(uint64_t sid, uint32_t *len, void *buf);
struct sdb_sts_entry *sdb_sts_entry_copy(uint64_t sid);

/* Slot bytes of an entry, in the mapping or behind a private copy. */
uint8_t *sdb_sts_slot(const struct sdb_sts_entry *e);

/* Sections. */
int sdb_sts_entry_get_attr(struct sdb_sts_entry *e, uint32_t attr,
    uint32_t *len, void *buf);
int sdb_sts_entry_put_attr(struct sdb_sts_entry *e, uint32_t attr,
    uint32_t len, const void *value);
int sdb_sts_entry_del_attr(struct sdb_sts_entry *e, uint32_t attr);
/* Visits each attribute in list order; a non-zero result stops. */
int sdb_sts_entry_walk_attrs(const struct sdb_sts_entry *e,
    int (*fn)(void *arg, uint16_t attr, const void *value, uint16_t len),
    void *arg);

int sdb_sts_entry_put_dynamic_attr_common(struct sdb_sts_entry *e,
    uint16_t head, uint16_t inst, const void *key, uint32_t klen,
    const void *value, uint32_t vlen, uint32_t kind, uint32_t flags,
    int *created, uint16_t *node);
int sdb_sts_entry_put_dyn_general(struct sdb_sts_entry *e, const char *name,
    const void *value, uint32_t vlen);
int sdb_sts_entry_put_dyn_prefix(struct sdb_sts_entry *e, const char *name,
    const void *value, uint32_t vlen);
/* Ident: array `name`, instance told by `value`; *inst gets the instance
 * node for the members that follow.  head 0: find or make the head. */
int sdb_sts_entry_put_dyn_ident(struct sdb_sts_entry *e, uint16_t head,
    const char *name, const void *value, uint32_t vlen, uint16_t *inst);
int sdb_sts_entry_put_dyn_member(struct sdb_sts_entry *e, uint16_t inst,
    const char *name, const void *value, uint32_t vlen);
int sdb_sts_entry_get_dyn_general(struct sdb_sts_entry *e, const char *name,
    uint32_t *len, void *buf);
int sdb_sts_entry_del_dyn(struct sdb_sts_entry *e, const char *name,
    uint32_t kind);
/* Every dynamic value as the flat entries of the stored form: visits
 * (name, kind, value) in bucket order, heads before their instances. */
int sdb_sts_entry_walk_dyn(const struct sdb_sts_entry *e,
    int (*fn)(void *arg, const char *name, uint32_t nlen, uint32_t kind,
        const void *value, uint32_t vlen),
    void *arg);

#define SDB_STS_AUTH_REQ	0
#define SDB_STS_AUTH_RESP	1
int sdb_sts_entry_put_auth(struct sdb_sts_entry *e, int which, uint16_t attr,
    const void *value, uint32_t len);
/* Add a node at the end of its chain, never looking for the number:
 * the order of a loaded section is kept. */
int sdb_sts_entry_append_auth(struct sdb_sts_entry *e, int which,
    uint16_t attr, const void *value, uint32_t len);
int sdb_sts_entry_del_auth(struct sdb_sts_entry *e, int which, uint16_t attr,
    const void *value, uint32_t len);
int sdb_sts_entry_del_all_auth(struct sdb_sts_entry *e, int which);
int sdb_sts_entry_walk_auth(const struct sdb_sts_entry *e, int which,
    int (*fn)(void *arg, uint16_t attr, const void *value, uint16_t len),
    void *arg);

int sdb_sts_entry_put_app(struct sdb_sts_entry *e, uint32_t blob,
    const void *value, uint32_t len);
int sdb_sts_entry_get_app(struct sdb_sts_entry *e, uint32_t blob,
    uint32_t *len, void *buf);
int sdb_sts_entry_del_app(struct sdb_sts_entry *e, uint32_t blob);

int sdb_sts_entry_add_service_id(struct sdb_sts_entry *e, uint64_t id,
    uint32_t type);
int sdb_sts_entry_remove_service_id(struct sdb_sts_entry *e, uint64_t id);
int sdb_sts_entry_get_service_ids(const struct sdb_sts_entry *e,
    uint64_t *ids, uint32_t *count);
int sdb_sts_entry_set_service_ids(struct sdb_sts_entry *e,
    const uint64_t *ids, uint32_t count, int business);

/*
 * Checking a region image (a copy of the file or the live mapping): the
 * entry table, every slot's free list and sections, and the heap's blocks
 * and bins.  No pointer of the image is followed unchecked.
 */
struct sdb_sts_check_report {
	uint32_t total_entries;
	uint32_t home_count;
	uint32_t sessions;
	uint32_t overflow_sessions;
	uint32_t locked_entries;
	uint32_t dirty_entries;
	uint64_t slot_bytes;
	uint64_t free_bytes;
	uint32_t free_blocks;
	uint32_t defrag_count;
	uint32_t problems;
	char first_problem[256];
};
int sdb_sts_check_image(const void *image, size_t size,
    struct sdb_sts_check_report *rep);
/* The same, with every problem handed to fn as it is found. */
int sdb_sts_check_image_each(const void *image, size_t size,
    struct sdb_sts_check_report *rep,
    void (*fn)(void *arg, const char *problem), void *arg);

#ifdef __cplusplus
}
#endif

#endif
