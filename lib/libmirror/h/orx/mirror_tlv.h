/*
 * The mirror link's byte stream.
 *
 * The stream between two mirror peers is a plain sequence of main TLVs with
 * no other framing and no checksum.  Every multi-byte field is big-endian,
 * except the acknowledgement handle, which is returned byte for byte.
 *
 * A TLV header is 4 bytes: a 12-bit type and a 20-bit length of the value.
 * A TLV occupies its header, its value and pad bytes up to the next multiple
 * of 4; pad bytes carry no meaning and are not zeroed.  A reader of main
 * TLVs and of control sub-TLVs steps by the padded size; a reader of the
 * TLVs inside a data main TLV steps by length + 4 unpadded, so the sender
 * makes every inner length a multiple of 4.
 *
 * The structures below are the wire layouts; their offsets are checked at
 * compile time and must never change.
 */
#ifndef ORX_MIRROR_TLV_H
#define ORX_MIRROR_TLV_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define RPC_TLV20NS_SIZE	4
#define RPC_MAX_TLV20_TYPE	0xFFF
#define RPC_MAX_TLV20_LEN	0xFFFFF

/* _rpc_tlv20ns_set() what bits. */
#define RPC_TLV20NS_SET_TYPE	1
#define RPC_TLV20NS_SET_LEN	2

typedef struct rpc_tlv20ns {
	uint8_t	b[RPC_TLV20NS_SIZE];
} rpc_tlv20ns;

/* Main TLV types. */
#define MAIN_TLV_CNTRL		0
#define MAIN_TLV_DATA_MIRROR	1
#define MAIN_TLV_CNTRL2		2
#define MAIN_TLV_KEEPALIVE	3

/* Sub-TLVs of MAIN_TLV_CNTRL2, in the order they are written. */
#define MIRROR_CNTRL2_STATE	0
#define MIRROR_CNTRL2_SW_VERSION 1
#define MIRROR_CNTRL2_DB_DESC	2
#define MIRROR_CNTRL2_KEEPALIVE	3
#define MIRROR_CNTRL2_BUF_SIZE	4

/* TLVs inside MAIN_TLV_DATA_MIRROR. */
#define MIRROR_DATA_DEF_TLV	0	/* mirror_data_def_tlv */
#define MIRROR_DATA_TLV		1	/* mirror_data_tlv */
#define MIRROR_DB_RESYNC_REQ_TLV 2	/* mirror_db_resync_req_tlv */

/* Acknowledgement modes of a data definition. */
#define MIRROR_ACK_NONE		0
#define MIRROR_ACK_WANTED	1
#define MIRROR_ACK_REPLY	2

#define MDD_MAGIC			0xFEEDFACEu
#define MIRROR_DATA_DEF_OVERHEAD	12
#define MIRROR_DATA_HANDLE_LEN		4
#define MIRROR_DB_RESYNC_REQ_OVERHEAD	4
#define MIRROR_CNTRL_VERSION		1
#define MIRROR_CNTRL_LEN		8
#define MIRROR_CNTRL_FLAGS_MAX		1
#define MIRROR_EOD_TLV_LEN		12

#define MIRROR_READ_BUFF_SIZE		0x20001	/* ring; holds 0x20000 */
#define MIRROR_TX_BUFF_SIZE		0x20000
#define MIRROR_TX_BUFF_ALLOC		(MIRROR_TX_BUFF_SIZE + 4)
#define MIRROR_EFFECTIVE_TX_BUFF_MIN	0x10000
#define MIRROR_EFFECTIVE_TX_BUFF_MAX	0x20000
#define MIRROR_REDZONE_PATTERN		0xDEADBEEFu

/* What this side announces. */
#define MIRROR_KEEPALIVE_TIME		60	/* seconds, the peer's expiry */
#define MIRROR_KEEPALIVE_SEND_PERIOD	10	/* seconds of idleness */
#define MIRROR_DB_DESC_LIMIT		4096	/* bytes of descriptions */

/* MAIN_TLV_CNTRL value. */
typedef struct mirror_cntrl_msg {
	uint32_t	mc_version;	/* MIRROR_CNTRL_VERSION */
	uint8_t		mc_flags;
	uint8_t		mc_reserved[3];
} mirror_cntrl_msg;

/* Software version sub-TLV value. */
typedef struct mirror_sw_version_tlv {
	uint16_t	msv_minor;
	uint16_t	msv_last;	/* the last 16-bit field of sw_version */
	uint16_t	msv_revision;
	uint8_t		msv_major;
	uint8_t		msv_letter;	/* release letter, ASCII */
} mirror_sw_version_tlv;

/* mirror_data_def_tlv value; the handle is present with modes 1 and 2. */
typedef struct mirror_data_def_tlv {
	uint16_t	mdd_data_id;
	uint8_t		mdd_op;
	uint8_t		mdd_ack;
	uint32_t	mdd_len;	/* client data, unpadded; 0 for an ack */
	uint32_t	mdd_magic;	/* MDD_MAGIC */
	uint8_t		mdd_handle[MIRROR_DATA_HANDLE_LEN];
} mirror_data_def_tlv;

typedef struct mirror_db_resync_req_tlv {
	uint16_t	mrr_data_id;
	uint8_t		mrr_reserved[2];
} mirror_db_resync_req_tlv;

/* Client data of the end-of-database record: itself one TLV. */
typedef struct mirror_eod_tlv {
	rpc_tlv20ns	meo_hdr;	/* type 0, length 8 */
	uint16_t	meo_data_id;
	uint16_t	meo_zero;
	uint32_t	meo_count;
} mirror_eod_tlv;

#ifdef __cplusplus
static_assert(sizeof(rpc_tlv20ns) == 4);
static_assert(sizeof(mirror_cntrl_msg) == MIRROR_CNTRL_LEN);
static_assert(offsetof(mirror_cntrl_msg, mc_flags) == 4);
static_assert(sizeof(mirror_sw_version_tlv) == 8);
static_assert(offsetof(mirror_sw_version_tlv, msv_last) == 2);
static_assert(offsetof(mirror_sw_version_tlv, msv_revision) == 4);
static_assert(offsetof(mirror_sw_version_tlv, msv_major) == 6);
static_assert(offsetof(mirror_sw_version_tlv, msv_letter) == 7);
static_assert(offsetof(mirror_data_def_tlv, mdd_op) == 2);
static_assert(offsetof(mirror_data_def_tlv, mdd_ack) == 3);
static_assert(offsetof(mirror_data_def_tlv, mdd_len) == 4);
static_assert(offsetof(mirror_data_def_tlv, mdd_magic) == 8);
static_assert(offsetof(mirror_data_def_tlv, mdd_handle) == MIRROR_DATA_DEF_OVERHEAD);
static_assert(sizeof(mirror_data_def_tlv) == MIRROR_DATA_DEF_OVERHEAD + 4);
static_assert(sizeof(mirror_db_resync_req_tlv) == MIRROR_DB_RESYNC_REQ_OVERHEAD);
static_assert(offsetof(mirror_eod_tlv, meo_data_id) == 4);
static_assert(offsetof(mirror_eod_tlv, meo_zero) == 6);
static_assert(offsetof(mirror_eod_tlv, meo_count) == 8);
static_assert(sizeof(mirror_eod_tlv) == MIRROR_EOD_TLV_LEN);
#else
_Static_assert(sizeof(mirror_data_def_tlv) == 16, "mirror_data_def_tlv");
#endif

/* The whole size of a TLV of value length len: header, value and pad. */
static inline size_t
rpc_tlv20ns_padded(size_t len)
{
	return (len + RPC_TLV20NS_SIZE + 3) & ~(size_t)3;
}

static inline unsigned
rpc_tlv20ns_type(const rpc_tlv20ns *tlv)
{
	return ((unsigned)(tlv->b[0] & 0x0F) << 8) | tlv->b[1];
}

static inline unsigned
rpc_tlv20ns_len(const rpc_tlv20ns *tlv)
{
	return ((unsigned)(tlv->b[0] >> 4) << 16) | ((unsigned)tlv->b[2] << 8) |
	    tlv->b[3];
}

/*
 * Store type and/or length.  tlv_len is the whole TLV size, header included;
 * the field holds tlv_len - 4.  A field that what does not name keeps its
 * bits.
 */
void _rpc_tlv20ns_set(rpc_tlv20ns *tlv, int what, unsigned type,
    unsigned tlv_len);

#ifdef __cplusplus
}
#endif

#endif
