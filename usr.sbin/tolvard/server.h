/*
 * The local client server: connections and the ACK copies that wait on
 * record channel entries.
 *
 * Cross links: an entry that carries a barrier points at its connection
 * (entry->conn) and sits on the connection's waiting list; the client's
 * ACKs hang off the entry.  Both sides clear the links when they let go,
 * tolvard_conn_terminate() from the connection's side and
 * tolvard_ack_release() from the channel's, so neither ever follows a
 * pointer to something freed.
 */
#ifndef TOLVARD_SERVER_H
#define TOLVARD_SERVER_H

#include "tolvard.h"
#include "tolvard_local.h"

#include <span>

/* A client's ACK, byte for byte, waiting for the standby's acknowledgement. */
struct tolvard_ack_copy {
	TAILQ_ENTRY(tolvard_ack_copy) links;
	size_t size;
	uint8_t msg[];
};

struct tolvard_conn {
	TAILQ_ENTRY(tolvard_conn) links;
	struct tolvard_entry_list waiting;	/* through wait_links */
	int fd;
	evFileID read_id;
	bool selected;			/* read_id is registered */
	/*
	 * A connection may be ended from inside its own read, by a failed
	 * send or by a link event the channel delivers meanwhile.  While the
	 * walk runs the block is only marked dead and freed after it.
	 */
	bool in_walk;
	bool dead;
	uint32_t pid;
	char name[TOLVARD_LOCAL_NAME_MAX];
	uint32_t flags;
};

bool tolvard_conn_send_ack(struct tolvard_conn *conn,
    std::span<const uint8_t> msg);
void tolvard_conn_terminate(struct tolvard_conn *conn);
void tolvard_conn_read(evContext ctx, void *arg, int fd, int mask);
void tolvard_server_listen(evContext ctx, void *arg, int fd, const void *la,
    int lalen, const void *ra, int ralen);

#endif
