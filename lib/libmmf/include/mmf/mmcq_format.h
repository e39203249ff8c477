/*
 * Layout of a mapped queue file.  The queue header lives in the common
 * area of a raw heap (at offset 0x624 of the file); the ring runs from
 * min_data_offset to max_data_offset.  Every process that maps the file
 * and the next run of every daemon read it, so each offset is fixed.
 *
 * Ring message: u32 bytes (this word included), then bytes - 4 bytes of
 * payload, unaligned.  bytes == 0 is a wrap marker; fewer than 5 bytes
 * left before max_data_offset are skipped by the reader.
 */
#ifndef MMF_MMCQ_FORMAT_H
#define MMF_MMCQ_FORMAT_H

#include <stddef.h>
#include <stdint.h>

#define MMCQ_VERSION		0x0B
#define MMCQ_HEADER_BYTES	0x84
#define MMCQ_STATE_INIT		0x33334444u
#define MMCQ_STATE_READY	0x55557777u

typedef struct mmcq_header {
	uint32_t version;
	uint32_t size;
	uint32_t state;
	uint32_t creator;
	uint32_t receiver;
	/*
	 * Reserved words given a private meaning: a move of the ring in
	 * flight, so that the next process can finish it (ext_take: the
	 * take offset when the move began, 0 when none; ext_done: lowest
	 * source offset copied so far).
	 */
	uint32_t ext_take;
	uint8_t no_wakeups;
	uint8_t rnw;
	uint8_t send_disabled;
	uint8_t reserved1;
	uint32_t wakeups_written;
	uint32_t wakeup_bytes_written;
	uint32_t wakeup_reads;
	uint32_t wakeup_bytes_read;
	uint32_t max_msg_bytes;
	uint32_t max_data_bytes;
	uint32_t min_data_offset;
	uint32_t max_data_offset;
	uint32_t put_offset;
	uint32_t take_offset;
	uint32_t extender;
	uint32_t receiver_parked;
	/* From here on the counters repeat in the local handle. */
	uint32_t msgs_sent;
	uint32_t bytes_sent;
	uint32_t msgs_received;
	uint32_t bytes_received;
	uint32_t high_water;
	uint32_t dropped_entries;	/* bad entries skipped by the reader */
	uint32_t msg_map_failures;
	uint32_t wrap_map_failures;
	uint32_t extensions_tried;
	uint32_t ext_done;
	uint32_t fifo_closures;
	uint32_t opens_not_ready;
	uint32_t opens_gave_up;
	uint32_t opens_reinit;
} mmcq_header_t;

#ifdef __cplusplus
#define MMCQ_AT(field, off) \
	static_assert(offsetof(mmcq_header_t, field) == (off), #field)
MMCQ_AT(version, 0x00);
MMCQ_AT(size, 0x04);
MMCQ_AT(state, 0x08);
MMCQ_AT(creator, 0x0C);
MMCQ_AT(receiver, 0x10);
MMCQ_AT(ext_take, 0x14);
MMCQ_AT(no_wakeups, 0x18);
MMCQ_AT(rnw, 0x19);
MMCQ_AT(send_disabled, 0x1A);
MMCQ_AT(reserved1, 0x1B);
MMCQ_AT(wakeups_written, 0x1C);
MMCQ_AT(wakeup_bytes_written, 0x20);
MMCQ_AT(wakeup_reads, 0x24);
MMCQ_AT(wakeup_bytes_read, 0x28);
MMCQ_AT(max_msg_bytes, 0x2C);
MMCQ_AT(max_data_bytes, 0x30);
MMCQ_AT(min_data_offset, 0x34);
MMCQ_AT(max_data_offset, 0x38);
MMCQ_AT(put_offset, 0x3C);
MMCQ_AT(take_offset, 0x40);
MMCQ_AT(extender, 0x44);
MMCQ_AT(receiver_parked, 0x48);
MMCQ_AT(msgs_sent, 0x4C);
MMCQ_AT(bytes_sent, 0x50);
MMCQ_AT(msgs_received, 0x54);
MMCQ_AT(bytes_received, 0x58);
MMCQ_AT(high_water, 0x5C);
MMCQ_AT(dropped_entries, 0x60);
MMCQ_AT(msg_map_failures, 0x64);
MMCQ_AT(wrap_map_failures, 0x68);
MMCQ_AT(extensions_tried, 0x6C);
MMCQ_AT(ext_done, 0x70);
MMCQ_AT(fifo_closures, 0x74);
MMCQ_AT(opens_not_ready, 0x78);
MMCQ_AT(opens_gave_up, 0x7C);
MMCQ_AT(opens_reinit, 0x80);
static_assert(sizeof(mmcq_header_t) == MMCQ_HEADER_BYTES);
#undef MMCQ_AT
#endif

#endif
