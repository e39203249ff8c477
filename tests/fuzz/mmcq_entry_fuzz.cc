/*
 * The reader of a mapped queue meets a ring it did not write: whatever
 * the bytes of the ring and the offsets in its header, receive hands out
 * whole messages no longer than the largest, drops the rest with a count,
 * and the queue goes on taking messages - never a crash or a hang.
 *
 * Input: u32 put, u32 take, u32 max_msg_bytes, u8 wrap, then the ring.
 */
#include "mmf/mmcq.h"
#include "mmf/mmf.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

constexpr uint32_t kBytes = 64 << 10;
constexpr uint32_t kMaxMsg = 512;
constexpr uint32_t kHdr = 0x624;

struct queue {
	std::string dir, file;
	evContext ev;
	mmcq_t *rx, *tx;
};

queue &the_queue()
{
	static queue q = [] {
		queue q;
		char tmpl[] = "/tmp/mmcq-entry-fuzz-XXXXXX";
		q.dir = mkdtemp(tmpl);
		setenv("TOLVAR_ROOT", q.dir.c_str(), 1);
		setenv("TOLVAR_NO_GCORE", "1", 1);
		q.file = q.dir + "/mfs/var/mmcq/fuzz";
		__evCreate(&q.ev);
		q.rx = mmcq_receiver_create("fuzz", &q.ev, nullptr, kMaxMsg,
		    kBytes, kBytes, 0, 0, nullptr);
		q.tx = mmcq_sender_create("fuzz", &q.ev, kMaxMsg, kBytes, kBytes,
		    0, 0, nullptr, nullptr);
		if (q.rx == nullptr || q.tx == nullptr)
			abort();
		return q;
	}();
	return q;
}

void put_word(int fd, uint32_t field, uint32_t v)
{
	if (pwrite(fd, &v, 4, kHdr + field) != 4)
		abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	queue &q = the_queue();
	if (size < 13 || size > 8192)
		return 0;
	uint32_t put, take, max_msg;
	memcpy(&put, data, 4);
	memcpy(&take, data + 4, 4);
	memcpy(&max_msg, data + 8, 4);
	uint8_t wrap = data[12];
	int fd = open(q.file.c_str(), O_RDWR);
	if (fd < 0)
		abort();
	mmcq_header_t h;
	if (pread(fd, &h, sizeof(h), kHdr) != ssize_t(sizeof(h)))
		abort();
	uint32_t min = h.min_data_offset, span = h.max_data_offset - min;
	/* Mostly offsets inside the ring, sometimes raw ones. */
	if (!(wrap & 0x80)) {
		put = min + put % span;
		take = min + take % span;
		max_msg = h.max_msg_bytes;
	}
	/* The ring bytes go at take, or end one byte short of the end;
	 * never past the end of the file. */
	uint32_t len = static_cast<uint32_t>(size - 13);
	uint32_t at = (wrap & 1) ? h.max_data_offset - len - 1 :
	    min + (take - min) % span;
	if (at + len > h.max_data_offset)
		at = h.max_data_offset - len;
	if (pwrite(fd, data + 13, len, at) < 0)
		abort();
	put_word(fd, offsetof(mmcq_header_t, put_offset), put);
	put_word(fd, offsetof(mmcq_header_t, take_offset), take);
	put_word(fd, offsetof(mmcq_header_t, max_msg_bytes), max_msg);
	close(fd);

	uint8_t buf[kMaxMsg];
	int st = MMCQ_SUCCESS;
	for (int i = 0; i < 20000 && st != MMCQ_Q_EMPTY; i++) {
		len = sizeof(buf);
		st = mmcq_receive(q.rx, buf, &len);
		if (st == MMCQ_SUCCESS && len > kMaxMsg)
			abort();
		if (st == MMCQ_BUFFER_TOO_SMALL || st == MMCQ_FAIL)
			break;
	}
	/* Whatever was there, the queue still carries a message. */
	mmcq_reset(q.tx);
	static const char msg[] = "after";
	if (mmcq_send(q.tx, msg, sizeof(msg)) != MMCQ_SUCCESS)
		abort();
	len = sizeof(buf);
	if (mmcq_receive(q.rx, buf, &len) != MMCQ_SUCCESS || len != sizeof(msg) ||
	    memcmp(buf, msg, len) != 0)
		abort();
	unlink((q.dir + "/var/log/events").c_str());
	return 0;
}
