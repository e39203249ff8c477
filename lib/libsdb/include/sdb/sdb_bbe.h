/*
 * The application event channel between the subscriber-management
 * daemons and the replication server.  So far: the mailbox, one page of
 * System V shared memory of which the first word is used.
 */
#ifndef SDB_SDB_BBE_H
#define SDB_SDB_BBE_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SDB_BBE_MAILBOX_PROJECT	8889
#define SDB_BBE_MAILBOX_BYTES	4096
#define SDB_BBE_MAILBOX_NAME	"sdb_bbe_rep_mailbox"

/* 0, or -1 with a trace; create makes a missing segment (keel does). */
int sdb_bbe_mailbox_attach(bool create);
void sdb_bbe_mailbox_set(uint8_t value);
/* The mailbox word; 1 when there is no mailbox. */
uint8_t sdb_bbe_mailbox_get(void);

#ifdef __cplusplus
}
#endif

#endif
