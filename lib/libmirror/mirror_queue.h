/*
 * The data queues of the mirror link: what the queue, receive and resync
 * modules share, and what the tests look at.
 *
 * An item is never copied when it is queued.  A queue entry points at the
 * application's node and holds one lock on it (the class's lock function)
 * for as long as the entry has the node; the item is encoded only when
 * there is room in the send buffer, so a later update of a queued item
 * simply goes out with the newest content.
 *
 * Invariants:
 *  - node->mdn_queue_entry is the entry whose mirq_data is node, or null.
 *    Every entry with a node holds exactly one lock on it.
 *  - mirror_q.len counts the entries of the two run queues (MIRRORQ_ACK and
 *    MIRRORQ_DATA); MIRRORQ_ACK_WAIT is a waiting list and does not count.
 *  - An entry is on MIRRORQ_ACK_WAIT exactly when its state is
 *    MIRQ_ACK_WAIT, and then its handle is in mirror_q.handles, mapping to
 *    it.  Its node may be gone (unlinked); the acknowledgement then finds
 *    nobody to tell.
 *  - With no connection all three queues are empty and the handle table
 *    holds nothing: the close path answers every waiting entry first.
 */
#ifndef MIRROR_QUEUE_H
#define MIRROR_QUEUE_H

#include "mirror_host.h"
#include "mirror_itable.h"

#include <orx/mirror_data.h>

#include <cstdint>

#define MIRRORQ_ACK		0	/* acknowledgements going back */
#define MIRRORQ_DATA		1	/* items, resync items, end-of-database */
#define MIRRORQ_ACK_WAIT	2	/* sent; waiting for the peer's answer */
#define MIRRORQ_MAX		3
#define MIRRORQ_NONE		0xFFFF	/* on no queue */

#define MIRQ_ACK_NONE		0
#define MIRQ_ACK_REQ		1
#define MIRQ_ACK_WAIT		2

/* Per encoding run and per turn of the event loop. */
#define MIRROR_Q_FLUSH_LIMIT	1000
#define MIRROR_RESYNC_LIMIT	1000
#define MIRROR_DECODE_LIMIT	100

struct mirror_q_entry {
	mirror_q_entry	*mirq_next;	/* mirq_thread */
	mirror_q_entry	*mirq_prev;
	mirror_data_node *mirq_data;
	uint16_t	mirq_queue;
	uint16_t	mirq_refcount;
	uint8_t		mirq_ack_state;
	uint8_t		mirq_has_handle;
	uint32_t	mirq_handle;	/* while on MIRRORQ_ACK_WAIT */
};

struct mirror_q_list {
	mirror_q_entry	*head;
	mirror_q_entry	*tail;
	uint32_t	mirq_n_queued;
};

/* The library's end-of-database item, from the pool "end_of_db". */
struct mirror_eod_node {
	mirror_data_node node;
	uint32_t	ref_count;
	uint32_t	data_id;	/* the class that was sent */
	uint32_t	count;
};

/* An acknowledgement going back, from the pool "mirror_ack_data". */
struct mirror_ack_node {
	mirror_data_node node;
	uint16_t	acked_data_id;
	uint8_t		handle_len;
	uint8_t		handle[MIRROR_DATA_HANDLE_LEN];
	uint8_t		acked_op;	/* operation of the acknowledged record */
	uint32_t	ack_refcount;
};

/* What the library keeps of a data class (mirror_reg_internal). */
struct mirror_reg_internal {
	mirror_job	*resync_job;
	mirror_data_node *resume;	/* locked between resync runs */
	uint32_t	count;		/* items walked by this resync */
	uint8_t		resync_requested;
	uint8_t		resync_pending;
	uint8_t		request_owed;	/* no room for our request yet */
};

struct mirror_queues {
	mirror_q_list	q[MIRRORQ_MAX];
	uint32_t	len;		/* mirror_queue_len */
	void		*entry_pool;
	void		*eod_pool;
	void		*ack_pool;
	void		*recvd_pool;
	mirror_job	*flush_job;
	mirror_job	*decode_job;
	mirror_reg_internal *reg;	/* MIRROR_DATA_LAST entries */
	mirror::itable32 *handles;	/* mirror_ack_handle_itable */
	/* Received records, oldest first (mirror_recvd_data_list). */
	mirror_recvd_data *rx_head;
	mirror_recvd_data *rx_tail;
	uint32_t	rx_count;
	uint64_t	rx_bytes;
	uint8_t		rx_backlogged;	/* reading is off until decode catches up */
};

extern mirror_queues mirror_q;

/* Undecoded records above which the socket is not read. */
#define MIRROR_RX_BACKLOG_RECORDS	20000
#define MIRROR_RX_BACKLOG_BYTES		(8u << 20)

/* Shared by the modules of the queues. */
mirror_reg_entry *mirror_registry(uint32_t data_id);
bool mirror_is_sender(const mirror_reg_entry *entry);
mirror_q_entry *mirror_q_entry_new(mirror_data_node *node, uint8_t ack_state);
void mirror_enqueue(mirror_q_entry *mqp, uint16_t queue_num);
void mirror_dequeue(mirror_q_entry *mqp, bool unlock);
void mirror_post_ack(mirror_q_entry *mqp, int reason);
void mirror_q_schedule();			/* the send scheduler */
void mirror_q_flush_stop();
void mirror_send_eod(uint32_t data_id, uint32_t count);
void mirror_resync_decision(uint32_t data_id);
void mirror_resync_retry_owed();
void mirror_data_resync(uint32_t data_id);
void mirror_recv_stop();			/* drop records, stop decoding */
bool mirror_queue_is_run_queue(uint16_t queue_num);

/* Library classes. */
void mirror_eod_decode(mirror_recvd_data *rd);

#endif
