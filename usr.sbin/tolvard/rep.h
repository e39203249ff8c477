/*
 * The record channel between the two tolvards: one mirror data class,
 * "TOLVARD session", carrying small typed messages.
 *
 * A record's client data is one or more messages back to back:
 *
 *	offset 0  u8   version (1)
 *	offset 1  u8   type
 *	offset 2  u16  payload length
 *	offset 4       payload
 *
 * in the host order of the routing engines (both run the same machine
 * type).  The sender always puts one message in a record.
 */
#ifndef TOLVARD_REP_H
#define TOLVARD_REP_H

#include "tolvard.h"

#include <cstddef>
#include <cstdint>

#define TOLVARD_MSG_VERSION	1
#define TOLVARD_DATA_ID		2	/* the class's mirror data id */
#define TOLVARD_BARRIER_LEN	8

/* Bits of tolvard_entry.flags. */
#define TOLVARD_ENTRY_INITED	0x01	/* node initialised */
#define TOLVARD_ENTRY_LOCKED	0x02	/* held by the mirror library */
#define TOLVARD_ENTRY_ACK	0x08	/* acknowledgement requested */
#define TOLVARD_ENTRY_SPARE	0x10

struct __attribute__((packed)) tolvard_msg_header {
	uint8_t version;
	uint8_t type;
	uint16_t length;
};
static_assert(offsetof(tolvard_msg_header, version) == 0);
static_assert(offsetof(tolvard_msg_header, type) == 1);
static_assert(offsetof(tolvard_msg_header, length) == 2);
static_assert(sizeof(tolvard_msg_header) == 4);

/* rep_msg.cc: the receive side.  0, or -1 when the record is out of sync. */
int tolvard_msg_decode(const uint8_t *data, uint32_t length);
void tolvard_session_id_recv(const uint8_t *payload, uint32_t length);
void tolvard_info_recv(const uint8_t *payload, uint32_t length);

/* rep.cc: the entry pool and the mirror class's callbacks. */
struct tolvard_entry *tolvard_entry_get(void);
struct tolvard_entry *tolvard_entry_new(void);
void tolvard_entry_free(struct tolvard_entry *entry);
struct tolvard_entry *tolvard_entry_of(mirror_data_node *node);
void tolvard_data_lock(mirror_data_node *node);
void tolvard_data_unlock(mirror_data_node *node);
int tolvard_data_encode(mirror_data_node *node, uint8_t *buf, uint32_t room);
void tolvard_data_decode(mirror_recvd_data *record);
void tolvard_data_ack(mirror_data_node *node, int reason);
extern mirror_reg_entry tolvard_session_class;

#endif
