/*
 * The application event channel between the subscriber-management
 * daemons and the replication server.  So far: the mailbox, one page of
 * System V shared memory of which the first word is used, and the checks
 * of the bytes that cross the socket and the request queue.
 */
#ifndef SDB_SDB_BBE_H
#define SDB_SDB_BBE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SDB_BBE_MAILBOX_PROJECT	8889
#define SDB_BBE_MAILBOX_BYTES	4096
#define SDB_BBE_MAILBOX_NAME	"sdb_bbe_rep_mailbox"

/* Socket messages: u16 total length (header included), u16 type, body;
 * host order, unaligned. */
#define SDB_BBE_MSG_REG			0
#define SDB_BBE_MSG_ACK			1
#define SDB_BBE_MSG_NOTIFY		4
#define SDB_BBE_MSG_NOTIFY_REPLY	5
#define SDB_BBE_MSG_KEEPALIVE		6
#define SDB_BBE_RECV_BUFFER		4096
#define SDB_BBE_REG_BYTES		80
#define SDB_BBE_ACK_ROW_BYTES		24
#define SDB_BBE_KEY_MAX			70

/* Request queue entries: u16 type, u16 payload bytes, payload. */
#define SDB_BBE_REQ_SESSION		1
#define SDB_BBE_REQ_DELETE		2
#define SDB_BBE_REQ_APP_DEF		3
#define SDB_BBE_QUEUE_ENTRY_MAX_TOTAL_BYTES 1000

/*
 * The message at the head of buf: its length when it is whole and well
 * formed, 0 when more bytes are needed, -1 when it is malformed (a length
 * below 4 or above the receive buffer, a length that does not fit its
 * type, an unknown type or notification subtype): the connection must
 * then be closed.
 */
int sdb_bbe_msg_check(const uint8_t *buf, size_t avail);
/* A request queue entry of len bytes: true when its type and lengths
 * agree. */
bool sdb_bbe_entry_check(const uint8_t *entry, size_t len);

/* 0, or -1 with a trace; create makes a missing segment (keel does). */
int sdb_bbe_mailbox_attach(bool create);
void sdb_bbe_mailbox_set(uint8_t value);
/* The mailbox word; 1 when there is no mailbox. */
uint8_t sdb_bbe_mailbox_get(void);

#ifdef __cplusplus
}
#endif

#endif
