/*
 * The direct record path: records written straight into the send buffer,
 * without the data queues, for the test driver and the benchmark.  A
 * record goes only to a peer that knows its data id, and is not kept when
 * the link drops.
 */
#ifndef MIRROR_DIRECT_H
#define MIRROR_DIRECT_H

#include <cstdint>

/* fn runs whenever the link is ready and the send buffer has drained. */
void mirror_direct_set_ready(void (*fn)(void));
void mirror_direct_ready();
/* 0; EAGAIN while the buffer is full (fn will run); ENOTCONN, ENOENT,
 * EMSGSIZE. */
int mirror_direct_send(uint16_t data_id, uint8_t op, const void *data, uint32_t len);
/* Write what is buffered: 0 when all of it left, EAGAIN when some waits. */
int mirror_direct_flush();

const char *mirror_task_peer_name();

#endif
