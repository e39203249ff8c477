/*
 * mmcq: a message queue from any number of sender processes to one
 * receiver, through a ring in a mapped heap file /mfs/var/mmcq/<name>,
 * with a wakeup FIFO /var/tmp/mmcq_<name>.  Messages stay in the file
 * across restarts of either side, and a sender never needs the receiver.
 *
 * Senders serialise on the heap lock; the receiver takes no lock.  The
 * ring grows, up to max_bytes, when it fills.  A sender killed in any
 * window (a send, a move of the ring) leaves a ring that the next process
 * reads or finishes; bad bytes in the file are dropped with an event.
 */
#ifndef MMF_MMCQ_H
#define MMF_MMCQ_H

#include <stdbool.h>
#include <stdint.h>

#include "mmf/mm_ev.h"
#include "mmf/mmcq_format.h"
#include "platform/ev.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct mmcq mmcq_t;

enum mmcq_status {
	MMCQ_SUCCESS = 0,
	MMCQ_Q_EMPTY = 1,
	MMCQ_Q_FULL = 2,
	MMCQ_SEND_DISABLED = 3,
	MMCQ_MEM_FAILURE = 4,
	MMCQ_FAIL = 5,
	MMCQ_ERRNO = 6,
	MMCQ_Q_INIT_FAILED = 7,
	MMCQ_BAD_PARAMETER = 8,
	MMCQ_BUFFER_TOO_SMALL = 9,
};

/* Debug flags. */
#define MMCQ_DEBUG_POLL		0x01	/* poll every 50 ms, no wakeups */
#define MMCQ_DEBUG_PRINTF	0x10
#define MMCQ_DEBUG_MORE		0x20
#define MMCQ_DEBUG_STATUS	0x40

#define MMCQ_DIR		"/mfs/var/mmcq/"
#define MMCQ_FIFO_PREFIX	"/var/tmp/mmcq_"
#define MMCQ_DUPE_LOG		"/var/tmp/dupe_mmcq.log"

typedef void (*mmcq_receive_cb_t)(mmcq_t *q, void *user_arg);
typedef void (*mmcq_status_cb_t)(mmcq_t *q, bool connected);

mmcq_t *mmcq_receiver_create(const char *name, evContext *ev_ctx,
    mmcq_receive_cb_t receive_cb, uint32_t max_msg_bytes,
    uint32_t default_bytes, uint32_t max_bytes, uint32_t max_map_region_bytes,
    uint32_t flags, void *user_arg);
mmcq_t *mmcq_sender_create(const char *name, evContext *ev_ctx,
    uint32_t max_msg_bytes, uint32_t default_bytes, uint32_t max_bytes,
    uint32_t max_map_region_bytes, uint32_t flags,
    mmcq_status_cb_t receiver_status_change_cb, bool *created);
mmcq_t *mmcq_receiver_create_task(const char *name,
    mmcq_receive_cb_t receive_cb, uint32_t max_msg_bytes,
    uint32_t default_bytes, uint32_t max_bytes, uint32_t max_map_region_bytes,
    uint32_t flags, void *user_arg);
mmcq_t *mmcq_sender_create_task(const char *name, uint32_t max_msg_bytes,
    uint32_t default_bytes, uint32_t max_bytes, uint32_t max_map_region_bytes,
    uint32_t flags, mmcq_status_cb_t receiver_status_change_cb, bool *created);

int mmcq_send(mmcq_t *q, const void *msg, uint32_t len);
/* *len: the buffer's size on entry, the message's on return. */
int mmcq_receive(mmcq_t *q, void *buf, uint32_t *len);
/* *peek_len != 0: copy at most that many bytes and leave the message. */
int mmcq_peek(mmcq_t *q, uint32_t *peek_len, void *buf, uint32_t *len);

/* Closing twice is harmless; a close inside receive_cb ends its loop. */
void mmcq_close(mmcq_t *q);
void mmcq_delete(mmcq_t *q);
void mmcq_reset(mmcq_t *q);
void mmcq_disable_send(mmcq_t *q);
void mmcq_enable_send(mmcq_t *q);
void mmcq_notify_receiver(mmcq_t *q);
/* out: header word 0x60 (bad entries dropped), high water, messages sent,
 * messages received. */
void mmcq_get_stats(mmcq_t *q, uint32_t out[4]);
bool mmcq_is_valid(mmcq_t *q);
void mmcq_quiesce(mmcq_t *q);
void mmcq_set_status_cb(mmcq_t *q, evContext *ev_ctx, mmcq_status_cb_t cb);
void mmcq_claim_receiver(mmcq_t *q);
/* Whether the receiver word names a live process that maps the file. */
bool mmcq_receiver_alive(mmcq_t *q);
/* The FIFO's descriptor, for hosts that poll it themselves. */
int mmcq_fifo_fd(mmcq_t *q);
/* Run the receiver's wakeup handling once (FIFO readable or timer). */
void mmcq_receiver_receive(mmcq_t *q);

const char *mmcq_status_text(int status);

/*
 * Whether a header copied out of a queue file of current_bytes holds
 * together; NULL when it does, else what is wrong.  For tools that read
 * a file without opening the queue.
 */
const char *mmcq_header_fault(const mmcq_header_t *h, uint64_t current_bytes);

/* Liveness of a pid as a partner of the file that fd opens. */
bool mmcq_pid_alive_on(uint32_t pid, int fd);

#ifdef __cplusplus
}
#endif

#endif
