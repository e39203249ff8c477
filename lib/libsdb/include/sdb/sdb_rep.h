/*
 * The bytes of a session's sections as the long-term store holds them and
 * as replication carries them, and the head of a replication message.
 * All integers in host order, no padding, no alignment assumed.
 */
#ifndef SDB_SDB_REP_H
#define SDB_SDB_REP_H

#include <stddef.h>
#include <stdint.h>

#include "sdb/sdb_sts.h"

#ifdef __cplusplus
extern "C" {
#endif

struct __attribute__((packed)) sdb_rep_msg_head {
	uint8_t version;	/* 0 */
	uint8_t type;		/* 1: application records */
	uint16_t record_count;
};
struct __attribute__((packed)) sdb_rep_session_head {
	uint64_t session_id;
	uint16_t flags;		/* bit 1: a service session */
	uint16_t tag_count;	/* 0: the session is deleted */
};
struct __attribute__((packed)) sdb_rep_tag_head {
	uint16_t tag;
	uint16_t sub_type;	/* application blob number, else 0 */
	uint32_t length;	/* of the data; never 0 */
};
struct __attribute__((packed)) sdb_rep_app_head {
	uint16_t table_id;
	uint16_t stamp;
	uint16_t key_length;
	uint16_t value_length;	/* 0: deleted */
};
#define SDB_REP_FLAG_IDS	0x0001
#define SDB_REP_FLAG_SERVICE	0x0002
#define SDB_REP_MSG_APP		1

/* Tags: the section tables of the long-term store. */
#define SDB_REP_TAG_CLIENT	0
#define SDB_REP_TAG_SERVICE	1
#define SDB_REP_TAG_AUTH_REQ	2
#define SDB_REP_TAG_AUTH_RESP	3
#define SDB_REP_TAG_DYNAMIC	4
#define SDB_REP_TAG_APP		5

/* Section encodings: u16 record version, then blocks (u32 type, u32 length). */
#define SDB_REP_RECORD_VERSION	1
#define SDB_REP_BLOCK_CLIENT_ATTRS	0
#define SDB_REP_BLOCK_SERVICE_IDS	1
#define SDB_REP_BLOCK_SERVICE_ATTRS	2
#define SDB_REP_BLOCK_PARENT_ID		3
#define SDB_REP_BLOCK_AUTH_ATTRS	4
#define SDB_REP_BLOCK_DYNAMIC		5
#define SDB_REP_BLOCK_DYNAMIC_ID	6
#define SDB_REP_BLOCK_CONFIG_BITS	7
#define SDB_REP_BLOCK_HEAD_SIZE		8
#define SDB_REP_SERVICE_IDS_MAX		1102

enum sdb_rep_section {
	SDB_REP_SECTION_CLIENT = 0,	/* client record */
	SDB_REP_SECTION_SERVICE = 1,	/* service record */
	SDB_REP_SECTION_AUTH_REQ = 2,	/* attribute record */
	SDB_REP_SECTION_AUTH_RESP = 3,	/* attribute record */
	SDB_REP_SECTION_DYNAMIC = 4,	/* dynamic record */
};

/*
 * Encode one section of a locked entry into buf.  0 with *used set; -37
 * when buf is too small (nothing useful written); -7 when the entry has
 * no such section (auth and dynamic records only).
 */
int sdb_rep_encode_section(const struct sdb_sts_entry *e, int section,
    uint8_t *buf, size_t size, size_t *used);

/*
 * Decode a section into an entry (a slot of the store, or a private
 * entry).  Returns 0; -1 on a malformed section; -5 when a block this
 * kind of record does not know cuts it short; -20 when config_filter is
 * given and shares no bit with the section's configuration bits; -2 when
 * the slot has no room; -6 for a value the store refuses.  The entry's
 * dirty bits are left as they were: the section is what the store holds.
 */
int sdb_rep_decode_section(struct sdb_sts_entry *e, int section,
    const uint8_t *data, size_t len, const uint8_t *config_filter,
    uint16_t filter_len);

/* A private entry of `size` bytes (76 + slot), empty, for decoding and
 * copies: its slot cannot grow. */
struct sdb_sts_entry *sdb_sts_entry_init_private(void *buf, size_t size,
    uint64_t sid);

#ifdef __cplusplus
static_assert(sizeof(sdb_rep_msg_head) == 4);
static_assert(sizeof(sdb_rep_session_head) == 12);
static_assert(offsetof(sdb_rep_session_head, flags) == 8);
static_assert(offsetof(sdb_rep_session_head, tag_count) == 10);
static_assert(sizeof(sdb_rep_tag_head) == 8);
static_assert(offsetof(sdb_rep_tag_head, sub_type) == 2);
static_assert(offsetof(sdb_rep_tag_head, length) == 4);
static_assert(sizeof(sdb_rep_app_head) == 8);
static_assert(offsetof(sdb_rep_app_head, key_length) == 4);
static_assert(offsetof(sdb_rep_app_head, value_length) == 6);
#endif

#ifdef __cplusplus
}
#endif

#endif
