/*
 * The meminfo table: rows found by name and type, change counting, the
 * reset history, and a damaged table that resets rather than misleads.
 */
#include "mmf/meminfo.h"
#include "mmf/mmf.h"
#include "platform/crashpoint.h"
#include "../src/mmf_impl.h"
#include "test_root.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

meminfo_shm_t shm_row(const char *name, uint64_t bytes)
{
	meminfo_shm_t d = {};
	snprintf(d.name, sizeof(d.name), "%s", name);
	d.current_bytes = d.max_bytes = d.mappable_bytes = bytes;
	return d;
}

int count_shm(const char *name, uint64_t *bytes)
{
	meminfo_reader_t *r = meminfo_reader_create();
	EXPECT_NE(r, nullptr);
	int n = 0;
	meminfo_shm_t row;
	while (meminfo_reader_next_shm(r, &row))
		if (strcmp(row.name, name) == 0) {
			n++;
			*bytes = row.current_bytes;
		}
	meminfo_reader_delete(r);
	return n;
}

} // namespace

TEST(Meminfo, OneRowPerNameAcrossProcessesAndQuietWhenUnchanged)
{
	test_root();
	meminfo_shm_t d = shm_row("sdb_bbe_rep_mailbox", 4096);
	uint64_t index = 0;
	meminfo_update_shm(&d, &index);
	EXPECT_NE(index, 0u);
	uint64_t changes = meminfo_change_count();
	meminfo_update_shm(&d, &index);
	EXPECT_EQ(meminfo_change_count(), changes);

	pid_t child = fork();
	if (child == 0) {
		meminfo_shm_t c = shm_row("sdb_bbe_rep_mailbox", 8192);
		meminfo_update_shm(&c, nullptr);	/* found by search */
		_exit(0);
	}
	int st;
	waitpid(child, &st, 0);
	ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
	uint64_t bytes = 0;
	EXPECT_EQ(count_shm("sdb_bbe_rep_mailbox", &bytes), 1);
	EXPECT_EQ(bytes, 8192u);
	EXPECT_GT(meminfo_change_count(), changes);
}

TEST(Meminfo, HeapsRegisterWhenCreatedAndReportDamage)
{
	std::string name = store_name("registered");
	const uint32_t sizes[] = {64};
	bool created;
	mmf_t *m = mmf_create(name.c_str(), 1 << 20, 1 << 20, 1 << 20, true, 0,
	    1, 1, sizes, 0, &created);
	ASSERT_NE(m, nullptr);
	meminfo_reader_t *r = meminfo_reader_create();
	meminfo_mmf_t row;
	bool found = false;
	while (meminfo_reader_next_mmf(r, &row))
		if (name == row.c.name) {
			found = true;
			EXPECT_EQ(row.c.current_bytes, uint64_t(1 << 20));
			EXPECT_EQ(row.c.flags & MEMINFO_FLAG_CORRUPT, 0u);
		}
	meminfo_reader_delete(r);
	EXPECT_TRUE(found);
	mmf_close(m);

	meminfo_corrupt_clear();
	EXPECT_FALSE(meminfo_corrupt_seen());
	uint32_t bad = 0x1;
	int fd = open(tolvar::path(name).c_str(), O_WRONLY);
	ASSERT_EQ(pwrite(fd, &bad, 4, 0x18), 4);
	close(fd);
	EXPECT_EQ(mmf_create(name.c_str(), 1 << 20, 1 << 20, 1 << 20, true, 0,
	    1, 1, sizes, 0, &created), nullptr);
	EXPECT_TRUE(meminfo_corrupt_seen());
	mmf_unlink(name.c_str());
}

TEST(Meminfo, LongNamesAreCutAndMarkAllAsksForRefresh)
{
	test_root();
	std::string longname(120, 'x');
	meminfo_shm_t d = {};
	memcpy(d.name, longname.data(), sizeof(d.name));	/* no NUL */
	uint64_t index = 0;
	meminfo_update_shm(&d, &index);
	uint64_t bytes;
	EXPECT_EQ(count_shm(std::string(95, 'x').c_str(), &bytes), 1);
	EXPECT_FALSE(meminfo_refresh_wanted(std::string(95, 'x').c_str(), index));
	meminfo_mark_all();
	EXPECT_TRUE(meminfo_refresh_wanted(std::string(95, 'x').c_str(), index));
	EXPECT_FALSE(meminfo_refresh_wanted("other", index));
	memset(d.name + 95, 0, 1);
	meminfo_update_shm(&d, &index);	/* a write clears the wish */
	EXPECT_FALSE(meminfo_refresh_wanted(std::string(95, 'x').c_str(), index));
}

TEST(Meminfo, ReaderDeleteInsistsOnItsOwnReader)
{
	test_root();
	meminfo_reader_t *r = meminfo_reader_create();
	ASSERT_NE(r, nullptr);
	meminfo_reader_t copy = *r;
	EXPECT_DEATH(meminfo_reader_delete(&copy), "r == r->self");
	meminfo_reader_delete(r);
}

/* A first row of impossible size resets the table at the next update;
 * after twelve resets the history keeps its first ten. */
TEST(Meminfo, DamagedTableResetsAndHistoryKeepsTheFirstTen)
{
	test_root();
	meminfo_reader_t *r = meminfo_reader_create();
	uint32_t gen0 = meminfo_reader_header(r)->generation;
	meminfo_reader_delete(r);
	ASSERT_LT(gen0, 10u);
	std::string path = tolvar::path(MEMINFO_PATH);
	for (int i = 0; i < 12; i++) {
		int fd = open(path.c_str(), O_RDWR);
		ASSERT_GE(fd, 0);
		uint32_t tiny = 8;
		uint64_t common = 0;
		ASSERT_EQ(pread(fd, &common, 8, 0x544), 8);
		ASSERT_EQ(pwrite(fd, &tiny, 4,
		    static_cast<off_t>(common + 0xD0)), 4);
		close(fd);
		meminfo_shm_t d = shm_row("after-damage", 1);
		meminfo_update_shm(&d, nullptr);
	}
	r = meminfo_reader_create();
	const meminfo_header_t *h = meminfo_reader_header(r);
	EXPECT_EQ(h->generation, gen0 + 12);
	for (uint32_t g = gen0; g < MEMINFO_HISTORY; g++) {
		EXPECT_EQ(h->history[g].reason, uint32_t(MEMINFO_RESET_UPDATE));
		EXPECT_EQ(h->history[g].pid, uint32_t(getpid()));
	}
	EXPECT_EQ(h->rows, 1u);
	uint64_t bytes;
	EXPECT_EQ(count_shm("after-damage", &bytes), 1);
	meminfo_reader_delete(r);
}

/* A writer killed anywhere in an append leaves a table that the next
 * opener accepts: nothing is reset, and a row taken in is chained. */
TEST(Meminfo, AWriterKilledInAnAppendLosesNoRow)
{
	test_root();
	meminfo_shm_t base = shm_row("before-append", 1);
	meminfo_update_shm(&base, nullptr);
	for (const char *point : {"meminfo.row_written", "meminfo.row_counted",
	    "meminfo.row_linked"}) {
		SCOPED_TRACE(point);
		meminfo_reader_t *r = meminfo_reader_create();
		uint32_t gen = meminfo_reader_header(r)->generation;
		meminfo_reader_delete(r);
		/* New names at every run: an append, not an update. */
		static int run;
		std::string name = std::string("append-") + point + "-" +
		    std::to_string(run++);
		pid_t child = fork();
		if (child == 0) {
			tolvar_crash_point_arm(point, 1, TOLVAR_CRASH_KILL);
			meminfo_shm_t d = shm_row(name.c_str(), 2);
			meminfo_update_shm(&d, nullptr);
			_exit(0);
		}
		int st;
		ASSERT_EQ(waitpid(child, &st, 0), child);
		ASSERT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL);
		/* The next opener, as a new process finds the table. */
		child = fork();
		if (child == 0) {
			mmf_impl::meminfo_forget();
			meminfo_shm_t d = shm_row(("opened-after-" +
			    name).c_str(), 3);
			meminfo_update_shm(&d, nullptr);
			_exit(0);
		}
		ASSERT_EQ(waitpid(child, &st, 0), child);
		ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
		r = meminfo_reader_create();
		EXPECT_EQ(meminfo_reader_header(r)->generation, gen);
		meminfo_reader_delete(r);
		uint64_t bytes;
		EXPECT_EQ(count_shm("before-append", &bytes), 1);
		EXPECT_EQ(count_shm(("opened-after-" + name).c_str(), &bytes), 1);
		bool taken_in = strcmp(point, "meminfo.row_written") != 0;
		EXPECT_EQ(count_shm(name.c_str(), &bytes), taken_in ? 1 : 0);
	}
}
