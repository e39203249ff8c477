/*
 * The mapped queue in one process: the edges of the ring, bad bytes in
 * the file, closes, and the acknowledgement groups.  Kills and moves of
 * the ring are tested with real processes (tests/system/test_mmcq.py).
 */
#include "mmf/aack.h"
#include "mmf/mmcq.h"
#include "test_root.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

/* One fixed ring of 60 KiB that never grows. */
constexpr uint32_t kBytes = 64 << 10;
constexpr uint32_t kMaxMsg = 1024;
constexpr uint32_t kHdr = 0x624;	/* the queue header in the file */

class Mmcq : public ::testing::Test {
protected:
	void SetUp() override
	{
		test_root();
		name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
		mmf_unlink(("/mfs/var/mmcq/" + name).c_str());
		__evCreate(&ev);
		rx = mmcq_receiver_create(name.c_str(), &ev, nullptr, kMaxMsg,
		    kBytes, kBytes, 0, 0, nullptr);
		tx = mmcq_sender_create(name.c_str(), &ev, kMaxMsg, kBytes,
		    kBytes, 0, 0, nullptr, nullptr);
		ASSERT_NE(rx, nullptr);
		ASSERT_NE(tx, nullptr);
	}
	void TearDown() override
	{
		mmcq_close(tx);
		mmcq_close(rx);
		__evDestroy(ev);
	}
	/* A copy of the header as the file holds it. */
	mmcq_header_t header()
	{
		mmcq_header_t h;
		int fd = open(tolvar::path("/mfs/var/mmcq/" + name).c_str(), O_RDONLY);
		EXPECT_EQ(pread(fd, &h, sizeof(h), kHdr), ssize_t(sizeof(h)));
		close(fd);
		return h;
	}
	void poke(uint64_t off, uint32_t value)
	{
		int fd = open(tolvar::path("/mfs/var/mmcq/" + name).c_str(), O_RDWR);
		EXPECT_EQ(pwrite(fd, &value, 4, off), 4);
		close(fd);
	}
	int send(uint32_t len, uint8_t fillc = 0x5A)
	{
		std::vector<uint8_t> m(len, fillc);
		return mmcq_send(tx, m.data(), len);
	}
	int take(uint32_t *len, uint8_t *buf)
	{
		*len = kMaxMsg;
		return mmcq_receive(rx, buf, len);
	}
	/* Move put and take to `at` bytes before the end of the ring. */
	void advance_to_end_minus(uint32_t at)
	{
		mmcq_header_t h = header();
		uint32_t room = h.max_data_offset - h.put_offset - at;
		uint8_t buf[kMaxMsg];
		uint32_t len;
		while (room > 0) {
			uint32_t n = std::min<uint32_t>(room, kMaxMsg + 4);
			if (room - n != 0 && room - n < 5)
				n -= 5;
			ASSERT_EQ(send(n - 4), MMCQ_SUCCESS);
			ASSERT_EQ(take(&len, buf), MMCQ_SUCCESS);
			room -= n;
		}
	}
	std::string name;
	evContext ev;
	mmcq_t *rx = nullptr, *tx = nullptr;
};

TEST_F(Mmcq, MessageEndingAtTheEndWrapsPutWithoutAMarker)
{
	advance_to_end_minus(100);
	mmcq_header_t h = header();
	ASSERT_EQ(send(96), MMCQ_SUCCESS);
	EXPECT_EQ(header().put_offset, h.min_data_offset);
	uint8_t buf[kMaxMsg];
	uint32_t len;
	ASSERT_EQ(take(&len, buf), MMCQ_SUCCESS);
	EXPECT_EQ(len, 96u);
	EXPECT_EQ(header().take_offset, h.min_data_offset);
	EXPECT_EQ(take(&len, buf), MMCQ_Q_EMPTY);
}

TEST_F(Mmcq, TailTooShortForAMarkerIsSkippedByTheReader)
{
	advance_to_end_minus(3);
	ASSERT_EQ(send(50, 0x11), MMCQ_SUCCESS);
	uint8_t buf[kMaxMsg];
	uint32_t len;
	ASSERT_EQ(take(&len, buf), MMCQ_SUCCESS);
	EXPECT_EQ(len, 50u);
	EXPECT_EQ(buf[49], 0x11);
	EXPECT_EQ(header().dropped_entries, 0u);
}

TEST_F(Mmcq, ARingIsNeverFilledEntirely)
{
	/* A message that would leave no byte unused is refused. */
	mmcq_header_t h = header();
	uint32_t ring = h.max_data_bytes, used = 0;
	while (ring - used > kMaxMsg + 4 + 4) {
		ASSERT_EQ(send(kMaxMsg), MMCQ_SUCCESS);
		used += kMaxMsg + 4;
	}
	uint32_t exact = ring - used - 4;
	EXPECT_EQ(send(exact), MMCQ_Q_FULL);
	EXPECT_EQ(send(exact - 1), MMCQ_SUCCESS);
	EXPECT_EQ(send(1), MMCQ_Q_FULL);
}

TEST_F(Mmcq, PeekLeavesTheMessageAndTooSmallABufferMovesNothing)
{
	ASSERT_EQ(send(40, 7), MMCQ_SUCCESS);
	uint8_t buf[kMaxMsg] = {};
	uint32_t peek = 8, len = sizeof(buf);
	ASSERT_EQ(mmcq_peek(rx, &peek, buf, &len), MMCQ_SUCCESS);
	EXPECT_EQ(peek, 8u);
	len = 10;
	EXPECT_EQ(mmcq_receive(rx, buf, &len), MMCQ_BUFFER_TOO_SMALL);
	EXPECT_EQ(len, 40u);
	peek = 0;	/* a take, not a peek */
	len = sizeof(buf);
	ASSERT_EQ(mmcq_peek(rx, &peek, buf, &len), MMCQ_SUCCESS);
	EXPECT_EQ(len, 40u);
	EXPECT_EQ(take(&len, buf), MMCQ_Q_EMPTY);
}

TEST_F(Mmcq, AWrongLengthIsDroppedWithAnEventAndTheQueueGoesOn)
{
	mmcq_header_t h = header();
	ASSERT_EQ(send(30), MMCQ_SUCCESS);
	ASSERT_EQ(send(30), MMCQ_SUCCESS);
	poke(h.take_offset, 0x00FFFFFF);
	uint8_t buf[kMaxMsg];
	uint32_t len;
	EXPECT_EQ(take(&len, buf), MMCQ_Q_EMPTY);
	EXPECT_EQ(header().dropped_entries, 1u);
	ASSERT_EQ(send(30), MMCQ_SUCCESS);
	EXPECT_EQ(take(&len, buf), MMCQ_SUCCESS);
	/* a wrap marker where none can be */
	poke(header().put_offset, 0);
	ASSERT_EQ(send(30), MMCQ_SUCCESS);
	poke(header().take_offset, 0);
	EXPECT_EQ(take(&len, buf), MMCQ_Q_EMPTY);
	EXPECT_EQ(header().dropped_entries, 2u);
}

TEST_F(Mmcq, ADamagedHeaderIsLaidAnew)
{
	ASSERT_EQ(send(30), MMCQ_SUCCESS);
	poke(kHdr + offsetof(mmcq_header_t, put_offset), 7);
	EXPECT_FALSE(mmcq_is_valid(tx));
	ASSERT_EQ(send(20), MMCQ_SUCCESS);
	EXPECT_TRUE(mmcq_is_valid(rx));
	uint8_t buf[kMaxMsg];
	uint32_t len;
	ASSERT_EQ(take(&len, buf), MMCQ_SUCCESS);
	EXPECT_EQ(len, 20u);
}

TEST_F(Mmcq, ARestartedReceiverFindsTheMessagesAndClosesAreHarmless)
{
	ASSERT_EQ(send(10), MMCQ_SUCCESS);
	mmcq_close(rx);
	mmcq_close(rx);
	rx = mmcq_receiver_create(name.c_str(), &ev, nullptr, kMaxMsg, kBytes,
	    kBytes, 0, 0, nullptr);
	uint8_t buf[kMaxMsg];
	uint32_t len;
	ASSERT_EQ(take(&len, buf), MMCQ_SUCCESS);
	EXPECT_EQ(len, 10u);
}

int calls;
void close_in_callback(mmcq_t *q, void *)
{
	calls++;
	uint8_t buf[kMaxMsg];
	uint32_t len = sizeof(buf);
	mmcq_receive(q, buf, &len);
	mmcq_close(q);
}

TEST_F(Mmcq, ACloseInsideTheReadLoopStopsIt)
{
	mmcq_close(rx);
	rx = mmcq_receiver_create(name.c_str(), &ev, close_in_callback, kMaxMsg,
	    kBytes, kBytes, 0, 0, nullptr);
	ASSERT_NE(rx, nullptr);
	ASSERT_EQ(send(10), MMCQ_SUCCESS);
	ASSERT_EQ(send(10), MMCQ_SUCCESS);
	calls = 0;
	mmcq_receiver_receive(rx);
	EXPECT_EQ(calls, 1);
	mmcq_receiver_receive(rx);	/* closed: nothing happens */
	EXPECT_EQ(calls, 1);
	EXPECT_EQ(header().msgs_received, 1u);
}

TEST_F(Mmcq, SendDisabledAndTooLongMessagesAreRefused)
{
	mmcq_disable_send(tx);
	EXPECT_EQ(send(10), MMCQ_SEND_DISABLED);
	mmcq_enable_send(tx);
	EXPECT_EQ(send(kMaxMsg + 1), MMCQ_BAD_PARAMETER);
	EXPECT_STREQ(mmcq_status_text(MMCQ_BUFFER_TOO_SMALL), "BUFFER_TOO_SMALL");
	EXPECT_STREQ(mmcq_status_text(10), "UNKNOWN");
}

TEST(MmcqTask, TheTaskBindingCannotRun)
{
	test_root();
	EXPECT_DEATH(mmcq_sender_create_task("task", 64, kBytes, kBytes, 0, 0,
	    nullptr, nullptr), "no task framework");
}

TEST(Aack, GroupsFinishInOrder)
{
	aack_list_t *l = aack_create();
	aack_id_t *a = aack_id_create(l), *b = aack_id_create(l);
	aack_id_add(b, 3, "xyz");
	EXPECT_FALSE(aack_id_ack(l, b));
	ASSERT_TRUE(aack_id_ack(l, a));
	uint32_t len;
	const void *p;
	EXPECT_EQ(aack_id_get_next(l, a, &len, &p), AACK_NO_MORE);
	EXPECT_EQ(aack_get_first(l), b);
	ASSERT_TRUE(aack_id_ack(l, b));
	ASSERT_EQ(aack_id_get_next(l, b, &len, &p), AACK_SUCCESS);
	EXPECT_EQ(std::string(static_cast<const char *>(p), len), "xyz");
	EXPECT_EQ(aack_id_get_next(l, b, &len, &p), AACK_NO_MORE);
	EXPECT_EQ(aack_get_first(l), nullptr);
	EXPECT_STREQ(aack_status_text(7), "aack status unknown");
	aack_list_delete(&l);
	EXPECT_EQ(l, nullptr);
}

} // namespace
