/*
 * Subscriber limits: the limit records per chassis, FPC, PIC, port and
 * channel and client type, the ae, rlt and ps tables that resolve bundles
 * to member ports, and the admission of logins per line card.
 *
 * The records and the three tables live in four System V segments that
 * keel creates and zeroes; every process of the session database attaches
 * them in sdb_open_internal.  The line card table and its counters live in
 * the main segment.  All layouts below are formats shared between
 * processes and are checked at compile time.
 */
#ifndef SDB_SDB_LIMITS_H
#define SDB_SDB_LIMITS_H

#include <stddef.h>
#include <stdint.h>

#include "sdb/sdb.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The four segments: key file and ftok project. */
#define SDB_RSMON_KEY_FILE	"/mfs/var/tmp/sdb_rsmon_shmem"
#define SDB_AE_KEY_FILE		"/mfs/var/tmp/sdb_ae_table_shmem"
#define SDB_PS_KEY_FILE		"/mfs/var/tmp/sdb_ps_table_shmem"
#define SDB_RLT_KEY_FILE	"/mfs/var/tmp/sdb_rlt_table_shmem"
#define SDB_RSMON_PROJECT	8899
#define SDB_AE_PROJECT		8900
#define SDB_PS_PROJECT		8901
#define SDB_RLT_PROJECT		8902

#define SDB_LIMIT_MAX_RECORDS	2560
#define SDB_LIMIT_IN_USE	0xABAB
#define SDB_LIMIT_NO_PARENT	65535
#define SDB_LIMIT_SCHED_MAP	0xAF
#define SDB_LIMIT_FLAG_DELETE	0x1
#define SDB_LIMIT_OVER		1	/* threshold state: over the limit */
#define SDB_LIMIT_NOMINAL	2	/* threshold state: back to nominal */
#define SDB_LIMIT_IFNAME_LEN	60

struct sdb_sub_limit_hdr {
	int32_t max_records;
	int32_t current_usage;
};

struct sdb_sub_limit_record {
	uint64_t key;
	uint32_t configured_limit;	/* 0: no limit */
	uint32_t current_count;
	uint32_t denied_count;
	uint32_t exceeded_count;
	uint32_t nominal_count;
	uint32_t flags;			/* bit 0: marked for deletion */
	uint16_t is_record_in_use;	/* SDB_LIMIT_IN_USE when in use */
	uint16_t parent_offset;		/* index of the next level up */
	uint16_t fpc_num;
	uint8_t pfe_num;
	uint8_t sched_num;
	uint8_t client_allowed;
	uint8_t threshold_state;
	uint8_t used_for_sched_map;
	char intf_name[SDB_LIMIT_IFNAME_LEN];
	uint8_t pad;
};

#define SDB_RSMON_SEG_SIZE \
	(sizeof(struct sdb_sub_limit_hdr) + \
	 SDB_LIMIT_MAX_RECORDS * sizeof(struct sdb_sub_limit_record))

/* Key fields and their wildcards. */
#define SDB_KEY_PORT_ANY	255
#define SDB_KEY_PIC_ANY		15
#define SDB_KEY_FPC_ANY		2047
#define SDB_KEY_CHAN_ANY	31
#define SDB_CLIENT_PPPOE	1
#define SDB_CLIENT_DHCP		2
#define SDB_CLIENT_L2TP		3
#define SDB_CLIENT_ANY		4

enum sdb_limit_level {
	SDB_LEVEL_CHASSIS = 0,
	SDB_LEVEL_FPC = 1,
	SDB_LEVEL_PIC = 2,
	SDB_LEVEL_PORT = 3,
	SDB_LEVEL_CHANNEL = 4,
};

/* ae and rlt tables: u32 arrays of heads, each followed by its members. */
#define SDB_AE_TABLE_ENTRIES	1024
#define SDB_RLT_TABLE_ENTRIES	256
#define SDB_TABLE_HEAD		0x80000000u
#define SDB_TABLE_SAME_FPC	0x10000000u
#define SDB_TABLE_SAME_PIC	0x20000000u

/* ps table. */
#define SDB_PS_MAX_RECORDS	18000
#define SDB_PS_ANCHOR_FREE	0
#define SDB_PS_ANCHOR_LT	1
#define SDB_PS_ANCHOR_RLT	2
struct sdb_ps_record {
	uint32_t current_count;
	uint16_t ps_num;
	uint8_t anchor_kind;
	uint8_t flags;		/* bit 0: marked for deletion */
	uint32_t anchor;
};
struct sdb_ps_table_hdr {
	int32_t max_records;
	int32_t current_usage;
};
#define SDB_PS_SEG_SIZE \
	(sizeof(struct sdb_ps_table_hdr) + \
	 SDB_PS_MAX_RECORDS * sizeof(struct sdb_ps_record))

/* One member of an ae or rlt, as sdb_get_*_ifd_members gives it. */
struct sdb_ifd_member {
	char name[SDB_LIMIT_IFNAME_LEN];
	uint8_t same_fpc;
	uint8_t same_pic;
};

/* What sdb_sub_limit_get_record_data_by_index copies out. */
struct sdb_sub_limit_data {
	uint64_t key;
	uint32_t configured_limit;
	uint32_t current_count;
	uint32_t denied_count;
	uint32_t exceeded_count;
	uint32_t nominal_count;
	uint16_t is_record_in_use;
	uint16_t parent_offset;
	uint8_t client_allowed;
};

/* A copy of one record for display; next is the following one. */
struct sdb_sub_limit_list {
	struct sdb_sub_limit_list *next;
	uint32_t index;
	struct sdb_sub_limit_record rec;
};

/* A ps interface for display. */
struct sdb_ps_ifd_list {
	struct sdb_ps_ifd_list *next;
	char name[SDB_LIMIT_IFNAME_LEN];
	uint32_t current_count;
	char anchor[SDB_LIMIT_IFNAME_LEN];
	uint32_t member_count;
	struct sdb_ifd_member members[8];
};

/* Pointers into this process's attachments; null when not attached. */
struct sdb_sub_limit_hdr *sdb_sub_limit_hdr_ptr(void);
struct sdb_sub_limit_record *sdb_sub_limit_records(void);
uint32_t *sdb_ae_table_ptr(void);
uint32_t *sdb_rlt_table_ptr(void);
struct sdb_ps_table_hdr *sdb_ps_table_hdr_ptr(void);
struct sdb_ps_record *sdb_ps_records(void);

/* Keys. */
int sdb_populate_key_sub_limit_record(uint32_t client_type, uint32_t fpc,
    uint32_t pic, uint32_t port, uint32_t channel, uint32_t lt,
    uint64_t *key);
void sdb_sub_limit_key_fields(uint64_t key, uint32_t *client_type,
    uint32_t *fpc, uint32_t *pic, uint32_t *port, uint32_t *channel,
    uint32_t *lt);
enum sdb_limit_level sdb_sub_limit_key_level(uint64_t key);
const char *sdb_client_type_name(uint32_t client_type);
const char *sdb_limit_level_name(enum sdb_limit_level level);
uint32_t sdb_client_type_from_flags(uint32_t client_flags);

/* Records. */
int sdb_sub_limit_get_record_idx_by_key(uint32_t client_type, uint32_t fpc,
    uint32_t pic, uint32_t port, uint32_t channel, uint32_t lt,
    uint32_t *index, uint8_t set_parent, uint16_t parent);
int sdb_sub_limit_find_record(uint64_t key, uint32_t *index);
int sdb_sub_limit_get_record_by_index(struct sdb_sub_limit_record **rec,
    uint32_t index);
int sdb_sub_limit_get_record_data_by_index(const uint32_t *index,
    struct sdb_sub_limit_data *out, const uint64_t *key);
int sdb_sub_limit_get_free_record(uint32_t key_lo, uint32_t key_hi,
    uint32_t *index, uint8_t set_parent, uint16_t parent);
int sdb_limit_check_and_update_all_level_records(uint64_t key,
    uint32_t *index, int level_source);
int sdb_sub_limit_denied_counter_increment(uint32_t index);
int sdb_sub_limit_exceeded_counter_increment(uint32_t index);
int sdb_sub_limit_nominal_counter_increment(uint32_t index);
void sdb_set_limit_counters_default_values(void);
/* The configuration writer: the limit of one level's record, made when
 * missing (its chain too). */
int sdb_sub_limit_set(uint64_t key, uint32_t limit);
/* The operator's correction of a count that a killed writer left off. */
int sdb_sub_limit_count_set(uint64_t key, uint32_t count);

/* Admission and counting; 1 admit, 0 refuse. */
int sdb_check_subscribers_limit(const char *name, uint32_t client_flags);
int sdb_check_subscribers_limit_PS(const char *name, uint32_t client_flags);
int sdb_subscriber_limit_counter_update(const char *name,
    uint32_t client_flags, uint8_t increment, uint8_t member,
    uint8_t skip_fpc, uint8_t skip_pic);
int sdb_get_subscriber_current_count(const char *name, uint32_t *count);
int sdb_rsmon_convert_intf_name_to_num(const char *name, uint32_t *num);

/* ae and rlt tables.  Writers take the table lock; the append position is
 * found in the table itself. */
int sdb_ae_table_init(void);
int sdb_add_ae_num_entry(const char *ae_name);
int sdb_add_ae_leg_intf_entry(const char *ae_name, const char *leg_name);
int sdb_update_ae_total_leg_num(const char *ae_name, uint32_t legs);
int sdb_get_ae_ifd_members(const char *ae_name, struct sdb_ifd_member *out,
    uint32_t capacity, uint32_t *count);
int sdb_rlt_table_init(void);
int sdb_add_rlt_num_entry(const char *rlt_name);
int sdb_add_rlt_leg_intf_entry(const char *rlt_name, const char *lt_name);
int sdb_update_rlt_total_leg_num(const char *rlt_name, uint32_t legs);
int sdb_get_rlt_ifd_members(const char *rlt_name,
    struct sdb_ifd_member *out, uint32_t capacity, uint32_t *count);

/* ps table. */
int sdb_ps_table_init(void);
int sdb_add_ps_anchor_intf_entry(const char *ps_name, const char *anchor);
int sdb_ps_table_get_free_record(uint32_t ps_num, uint32_t *index);
int sdb_ps_table_relase_record(uint32_t index);
int sdb_get_ps_interface_table_record(uint32_t ps_num,
    struct sdb_ps_record *out, uint32_t *index);
int sdb_get_anchor_intf_name(const char *ps_name, char *anchor,
    size_t size);
void sdb_ps_table_mark_delete_all_nodes(void);
void sdb_delete_all_marked_ps_table_nodes(void);

/* Display and dumps.  Lists are freed with the matching free. */
int sdb_populate_sorted_sub_limit_list(struct sdb_sub_limit_list **list);
void sdb_free_sub_limit_list(struct sdb_sub_limit_list *list);
int sdb_populate_ps_ifd_list(struct sdb_ps_ifd_list **list);
void sdb_free_ps_ifd_list(struct sdb_ps_ifd_list *list);
int sdb_rsmon_dump_limit_table(void);
int sdb_rsmon_dump_ae_table(void);

/* The table lock: serialises writers of the tables and the makers of
 * records across processes.  It is an flock(2) on the record segment's
 * key file, so the kernel gives it back when its holder dies.  0, or -4
 * when it could not be had within a minute. */
int sdb_limit_table_lock(void);
void sdb_limit_table_unlock(void);
/* Pid that holds the table lock, 0 when free, -1 when unknown. */
int sdb_limit_table_lock_holder(void);

#ifdef __cplusplus
}

static_assert(sizeof(sdb_sub_limit_hdr) == 8);
static_assert(offsetof(sdb_sub_limit_record, configured_limit) == 8);
static_assert(offsetof(sdb_sub_limit_record, current_count) == 12);
static_assert(offsetof(sdb_sub_limit_record, denied_count) == 16);
static_assert(offsetof(sdb_sub_limit_record, exceeded_count) == 20);
static_assert(offsetof(sdb_sub_limit_record, nominal_count) == 24);
static_assert(offsetof(sdb_sub_limit_record, flags) == 28);
static_assert(offsetof(sdb_sub_limit_record, is_record_in_use) == 32);
static_assert(offsetof(sdb_sub_limit_record, parent_offset) == 34);
static_assert(offsetof(sdb_sub_limit_record, fpc_num) == 36);
static_assert(offsetof(sdb_sub_limit_record, pfe_num) == 38);
static_assert(offsetof(sdb_sub_limit_record, sched_num) == 39);
static_assert(offsetof(sdb_sub_limit_record, client_allowed) == 40);
static_assert(offsetof(sdb_sub_limit_record, threshold_state) == 41);
static_assert(offsetof(sdb_sub_limit_record, used_for_sched_map) == 42);
static_assert(offsetof(sdb_sub_limit_record, intf_name) == 43);
static_assert(sizeof(sdb_sub_limit_record) == 104);
static_assert(SDB_RSMON_SEG_SIZE == 266248);
static_assert(offsetof(sdb_ps_record, ps_num) == 4);
static_assert(offsetof(sdb_ps_record, anchor_kind) == 6);
static_assert(offsetof(sdb_ps_record, flags) == 7);
static_assert(offsetof(sdb_ps_record, anchor) == 8);
static_assert(sizeof(sdb_ps_record) == 12);
static_assert(SDB_PS_SEG_SIZE == 216008);
static_assert(sizeof(sdb_ifd_member) == 62);
#endif

#endif
