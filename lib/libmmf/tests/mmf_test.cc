/*
 * The heap in one process (and its forked children): allocation rules,
 * mappings, growth, the common area, damage detection and the repair a
 * dead lock holder triggers.
 */
#include "mmf/mmf.h"
#include "mmf/mmf_check.h"
#include "../src/mmf_impl.h"
#include "test_root.h"
#include "platform/crashpoint.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <thread>
#include <sstream>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

const uint32_t kSizes[] = {128, 512, 4096};

mmf_t *open_whole(const std::string &name, uint64_t bytes = 1 << 20,
    const uint32_t *sizes = kSizes, uint8_t n = 3, uint32_t flags = 0)
{
	return mmf_create(name.c_str(), bytes, bytes, bytes, true, 0, 1, n,
	    sizes, flags, nullptr);
}

mmf_t *open_regions(const std::string &name, uint64_t max, uint64_t def,
    uint64_t region, uint32_t maxreg)
{
	return mmf_create(name.c_str(), max, def, region, false, region, maxreg,
	    3, kSizes, 0, nullptr);
}

std::vector<uint8_t> read_file(const std::string &name)
{
	std::ifstream f(tolvar::path(name), std::ios::binary);
	return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), {});
}

void write_at(const std::string &name, uint64_t off, const void *p, size_t n)
{
	int fd = open(tolvar::path(name).c_str(), O_WRONLY);
	ASSERT_GE(fd, 0);
	ASSERT_EQ(pwrite(fd, p, n, static_cast<off_t>(off)), ssize_t(n));
	close(fd);
}

mmf_check_status check_file(const std::string &name)
{
	std::vector<uint8_t> img = read_file(name);
	mmf_check_report rep;
	return mmf_check_image(img.data(), img.size(), &rep);
}

std::string events()
{
	std::ifstream f(tolvar::path("/var/log/events"));
	std::stringstream ss;
	ss << f.rdbuf();
	return ss.str();
}

} // namespace

TEST(MmfAlloc, SmallRequestsGetTheSmallestClassAndSplitOnlyWhenWorthIt)
{
	std::string name = store_name("classes");
	mmf_t *m = open_whole(name);
	ASSERT_NE(m, nullptr);
	uint64_t off;
	ASSERT_NE(mmf_alloc(m, 0, &off), nullptr);
	EXPECT_GE(mmf_get_user_usable_len(m, off), 128u);
	uint64_t off1;
	ASSERT_NE(mmf_alloc(m, 1, &off1), nullptr);
	EXPECT_EQ(mmf_get_user_usable_len(m, off1), 128u);
	EXPECT_EQ(mmf_get_allocated_bytes(m), 2u * (128 + 52));

	/*
	 * A free node of exactly smallest + 104 + user size is handed out
	 * whole.  Classes (node bytes) are 180, 564 and 4148: a request of
	 * 512 needs 564, the lower bound of class 1, whose head is the
	 * freed node of 180 + 104 + 512 bytes.
	 */
	mmf_reset(m);
	uint64_t a, b, c;
	ASSERT_NE(mmf_alloc(m, 744, &a), nullptr);
	ASSERT_NE(mmf_alloc(m, 64, &b), nullptr);	/* keeps a apart */
	mmf_free_offset(m, a);
	ASSERT_NE(mmf_alloc(m, 512, &c), nullptr);
	EXPECT_EQ(c, a);
	EXPECT_EQ(mmf_get_user_usable_len(m, c), 744u);
	/* Eight bytes less, and the rest is worth a node of its own. */
	mmf_free_offset(m, c);
	ASSERT_NE(mmf_alloc(m, 504, &c), nullptr);
	EXPECT_EQ(c, a);
	EXPECT_EQ(mmf_get_user_usable_len(m, c), 504u);
	EXPECT_TRUE(mmf_valid(m, true));
	mmf_delete(m);
}

TEST(MmfAlloc, FreeingEverythingCoalescesBackToOneNode)
{
	std::string name = store_name("coalesce");
	mmf_t *m = open_whole(name);
	ASSERT_NE(m, nullptr);
	std::vector<uint64_t> offs;
	std::set<uint64_t> seen;
	for (uint32_t i = 0; i < 500; i++) {
		uint64_t off;
		void *p = mmf_alloc(m, (i * 37) % 3000, &off);
		ASSERT_NE(p, nullptr);
		memset(p, 0xA5, (i * 37) % 3000);
		EXPECT_TRUE(seen.insert(off).second);
		offs.push_back(off);
	}
	EXPECT_EQ(check_file(name), MMF_CHECK_OK);
	for (size_t i = 0; i < offs.size(); i += 2)
		mmf_free_offset(m, offs[i]);
	for (size_t i = 1; i < offs.size(); i += 2)
		mmf_free_offset(m, offs[i]);
	EXPECT_EQ(mmf_get_allocated_bytes(m), 0u);
	EXPECT_TRUE(mmf_valid(m, true));
	std::vector<uint8_t> img = read_file(name);
	mmf_check_report rep;
	ASSERT_EQ(mmf_check_image(img.data(), img.size(), &rep), MMF_CHECK_OK)
	    << rep.detail;
	EXPECT_EQ(rep.nodes, 1u);
	EXPECT_EQ(mmf_get_shared_info(m)->alloc_count, 500u);
	EXPECT_EQ(mmf_get_shared_info(m)->free_count, 500u);
	mmf_delete(m);
}

TEST(MmfAlloc, FullStoreGivesNullAndDoubleFreeStops)
{
	std::string name = store_name("full");
	mmf_t *m = open_whole(name, 64 << 10);
	ASSERT_NE(m, nullptr);
	uint64_t off, first = 0;
	int n = 0;
	while (mmf_alloc(m, 4000, &off) != nullptr) {
		if (first == 0)
			first = off;
		n++;
	}
	EXPECT_GT(n, 5);
	EXPECT_EQ(off, 0u);
	EXPECT_EQ(mmf_get_current_bytes(m), uint64_t(64 << 10));
	mmf_free_offset(m, first);
	EXPECT_DEATH(mmf_free_offset(m, first),
	    "\\(n.flags & MMF_FLAG_FREE\\) == 0");
	mmf_delete(m);
}

TEST(MmfRegions, CrossingRangeMapsTwoAndOldestMappingGoesFirst)
{
	std::string name = store_name("regions");
	const uint64_t R = 64 << 10;
	mmf_t *m = open_regions(name, 16 * R, 2 * R, R, 1);
	ASSERT_NE(m, nullptr);
	EXPECT_EQ(mmf_get_current_bytes(m), 2 * R);
	auto *p1 = static_cast<uint8_t *>(mmf_ensure_mapped(m, R - 16, 32));
	ASSERT_NE(p1, nullptr);
	memcpy(p1, "0123456789abcdefFEDCBA9876543210", 32);
	EXPECT_EQ(m->mapped_bytes, 2 * R - mmf_get_first_alloc_offset(m));
	/* The second half of the double mapping is a hit of its own. */
	uint64_t calls = mmf_get_shared_info(m)->mmap_calls;
	ASSERT_NE(mmf_ensure_mapped(m, R + 100, 8), nullptr);
	EXPECT_EQ(mmf_get_shared_info(m)->mmap_calls, calls);
	/* One mapping allowed: a range in region 2 replaces it. */
	ASSERT_NE(mmf_ensure_mapped(m, 2 * R + 100, 8), nullptr);
	EXPECT_EQ(mmf_get_shared_info(m)->mmap_calls, calls + 1);
	EXPECT_EQ(m->mapped_list, m->mapped_list_tail);
	EXPECT_EQ(m->region_table[0].ptr, nullptr);
	EXPECT_EQ(m->region_table[1].ptr, nullptr);
	EXPECT_NE(m->region_table[2].ptr, nullptr);
	p1 = static_cast<uint8_t *>(mmf_ensure_mapped(m, R - 16, 32));
	EXPECT_EQ(memcmp(p1, "0123456789abcdefFEDCBA9876543210", 32), 0);
	EXPECT_DEATH(mmf_ensure_mapped(m, R, static_cast<uint32_t>(2 * R)),
	    "len < 2 \\* m->region_map_bytes");

	/* Growth by regions, allocations across them, then full. */
	std::set<uint64_t> seen;
	uint64_t off;
	while (mmf_alloc(m, 9000, &off) != nullptr)
		EXPECT_TRUE(seen.insert(off).second);
	EXPECT_EQ(mmf_get_current_bytes(m), 16 * R);
	EXPECT_GT(mmf_get_shared_info(m)->grow_count, 0u);
	EXPECT_TRUE(mmf_valid(m, true));
	EXPECT_EQ(check_file(name), MMF_CHECK_OK);
	mmf_delete(m);
}

TEST(MmfGrow, EmptyGrownStoreShrinksAtCheckButNotWhenInUse)
{
	std::string name = store_name("shrink");
	const uint64_t R = 64 << 10;
	mmf_t *m = open_regions(name, 8 * R, R, R, 4);
	ASSERT_NE(m, nullptr);
	std::vector<uint64_t> offs;
	uint64_t off;
	for (int i = 0; i < 30; i++) {
		ASSERT_NE(mmf_alloc(m, 4000, &off), nullptr);
		offs.push_back(off);
	}
	EXPECT_GT(mmf_get_current_bytes(m), R);
	mmf_free_offset(m, offs[1]);
	EXPECT_TRUE(mmf_valid(m, true));
	EXPECT_GT(mmf_get_current_bytes(m), R);	/* still in use */
	for (uint64_t o : offs)
		if (o != offs[1])
			mmf_free_offset(m, o);
	/* One free node spanning the grown area: more than the default. */
	EXPECT_TRUE(mmf_valid(m, true));
	EXPECT_GT(mmf_get_current_bytes(m), R);
	EXPECT_EQ(check_file(name), MMF_CHECK_OK);
	mmf_delete(m);

	/* Grown while empty: the open's check shrinks it, and the open
	 * then takes the file as it is now, not as it was. */
	m = open_regions(name, 8 * R, R, R, 4);
	ASSERT_NE(m, nullptr);
	ASSERT_TRUE(mmf_grow(m));
	EXPECT_EQ(mmf_get_current_bytes(m), 2 * R);
	mmf_close(m);
	m = open_regions(name, 8 * R, R, R, 4);
	ASSERT_NE(m, nullptr);
	EXPECT_EQ(mmf_get_current_bytes(m), R);
	EXPECT_EQ(check_file(name), MMF_CHECK_OK);
	mmf_delete(m);
}

TEST(MmfCommon, SmallRootLivesInTheHeaderPageAndLargeOneIsAllocated)
{
	std::string name = store_name("common");
	mmf_t *m = open_whole(name);
	uint32_t len = 0;
	uint64_t off;
	EXPECT_EQ(mmf_alloc_common(m, &len, &off), nullptr);
	len = 256;
	auto *p = static_cast<char *>(mmf_alloc_common(m, &len, &off));
	ASSERT_NE(p, nullptr);
	EXPECT_EQ(off, uint64_t(MMF_HEADER_BYTES));
	strcpy(p, "root");
	mmf_close(m);
	m = open_whole(name);
	len = 0;
	p = static_cast<char *>(mmf_alloc_common(m, &len, &off));
	ASSERT_NE(p, nullptr);
	EXPECT_EQ(len, 256u);
	EXPECT_STREQ(p, "root");
	mmf_delete(m);

	name = store_name("common-big");
	m = open_whole(name);
	len = 10000;
	ASSERT_NE(mmf_alloc_common(m, &len, &off), nullptr);
	EXPECT_GE(off, mmf_get_first_alloc_offset(m));
	EXPECT_EQ(mmf_get_common_len(m), 10000u);
	mmf_delete(m);

	/* A resizable common area that is a node stays inside its node. */
	name = store_name("common-resize");
	m = mmf_create(name.c_str(), 1 << 20, 1 << 20, 1 << 20, true, 0, 1, 3,
	    kSizes, MMF_CREATE_COMMON_RESIZE, nullptr);
	len = 10000;
	ASSERT_NE(mmf_alloc_common(m, &len, &off), nullptr);
	uint64_t other, other2;
	ASSERT_NE(mmf_alloc(m, 64, &other), nullptr);
	ASSERT_NE(mmf_alloc(m, 64, &other2), nullptr);
	len = 20000;
	auto *q = static_cast<uint8_t *>(mmf_alloc_common(m, &len, &off));
	ASSERT_NE(q, nullptr);
	EXPECT_EQ(len, mmf_get_user_usable_len(m, off));
	memset(q, 0x5A, len);
	len = 4000;
	ASSERT_NE(mmf_alloc_common(m, &len, &off), nullptr);
	EXPECT_EQ(len, mmf_get_user_usable_len(m, off));
	EXPECT_EQ(check_file(name), MMF_CHECK_OK);
	mmf_delete(m);
}

TEST(MmfTwoFiles, ControlNodeLeadsToTheData)
{
	std::string cn = store_name("ctl"), dn = store_name("data");
	mmf_t *c = open_whole(cn), *d = open_whole(dn);
	uint64_t off;
	auto *p = static_cast<char *>(mmf_alloc2(c, d, 100, &off));
	ASSERT_NE(p, nullptr);
	strcpy(p, "in the data file");
	EXPECT_STREQ(static_cast<char *>(mmf_ensure_mapped2(c, d, off, 100)),
	    "in the data file");
	EXPECT_GT(mmf_get_allocated_bytes(d), 0u);
	mmf_free_offset2(c, d, off);
	EXPECT_EQ(mmf_get_allocated_bytes(c), 0u);
	EXPECT_EQ(mmf_get_allocated_bytes(d), 0u);
	mmf_delete(c);
	mmf_delete(d);
}

TEST(MmfOpen, EmptyStoreAdoptsNewClassesAndReopenKeepsData)
{
	std::string name = store_name("reopen");
	bool created = false;
	mmf_t *m = mmf_create(name.c_str(), 1 << 20, 1 << 20, 1 << 20, true, 0,
	    1, 3, kSizes, 0, &created);
	EXPECT_TRUE(created);
	mmf_close(m);
	const uint32_t other[] = {64, 1000};
	m = mmf_create(name.c_str(), 1 << 20, 1 << 20, 1 << 20, true, 0, 1, 2,
	    other, 0, &created);
	EXPECT_FALSE(created);
	uint32_t got[63];
	ASSERT_EQ(mmf_get_allocation_info(m, got), 2);
	EXPECT_EQ(got[0], 64u);
	EXPECT_EQ(got[1], 1000u);
	uint64_t off;
	strcpy(static_cast<char *>(mmf_alloc(m, 32, &off)), "kept");
	mmf_close(m);
	m = open_whole(name);
	ASSERT_EQ(mmf_get_allocation_info(m, got), 2);	/* in use: kept */
	EXPECT_STREQ(static_cast<char *>(mmf_offset_to_ptr(m, off, 32)), "kept");
	EXPECT_EQ(check_file(name), MMF_CHECK_OK);
	mmf_delete(m);
}

TEST(MmfOpen, UnfinishedGrowIsFinishedNotWiped)
{
	std::string name = store_name("halfgrow");
	const uint64_t R = 64 << 10;
	mmf_t *m = open_regions(name, 8 * R, R, R, 2);
	uint64_t off;
	strcpy(static_cast<char *>(mmf_alloc(m, 64, &off)), "survives");
	mmf_close(m);
	/* A grower died between ftruncate and publishing current_bytes. */
	int fd = open(tolvar::path(name).c_str(), O_RDWR);
	ASSERT_EQ(ftruncate(fd, 3 * R), 0);
	close(fd);
	m = open_regions(name, 8 * R, R, R, 2);
	ASSERT_NE(m, nullptr);
	EXPECT_EQ(mmf_get_current_bytes(m), 3 * R);
	EXPECT_STREQ(static_cast<char *>(mmf_offset_to_ptr(m, off, 64)),
	    "survives");
	EXPECT_EQ(check_file(name), MMF_CHECK_OK);
	EXPECT_NE(events().find("MMF_GROW_FINISHED"), std::string::npos);
	mmf_delete(m);
}

/* Each kind of damage: the open fails with EUCLEAN and an event, and the
 * file is left exactly as it was. */
/* A creator killed between making the creation semaphore and setting
 * it to 1 leaves it at 0; the next creator sets it and goes on. */
TEST(MmfOpen, ACreatorKilledBeforeSettingTheSemaphoreBlocksNoOne)
{
	std::string first = store_name("sem-killed");
	std::string second = store_name("sem-after");
	int id = semget(0xDDD5, 1, 0600);
	if (id >= 0) {
		ASSERT_EQ(semctl(id, 0, IPC_RMID), 0);
	}
	pid_t pid = fork();
	ASSERT_GE(pid, 0);
	if (pid == 0) {
		tolvar_crash_point_arm("mmf.creation_sem", 1, TOLVAR_CRASH_KILL);
		open_whole(first);
		_exit(0);
	}
	int st;
	ASSERT_EQ(waitpid(pid, &st, 0), pid);
	ASSERT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL);
	id = semget(0xDDD5, 1, 0600);
	ASSERT_GE(id, 0);
	EXPECT_EQ(semctl(id, 0, GETVAL), 0);
	mmf_t *m = open_whole(second);
	ASSERT_NE(m, nullptr);
	EXPECT_EQ(semctl(id, 0, GETVAL), 1);
	EXPECT_NE(events().find("MMF_CREATE_SEM_REPAIRED"), std::string::npos);
	mmf_delete(m);
}

/* An opener that reads the header, then the file size, while a grow is
 * published in between, opens the store. */
TEST(MmfOpen, AGrowPublishedDuringTheOpenCheckIsNoDamage)
{
	std::string name = store_name("grow-race");
	const uint64_t R = 64 << 10;
	mmf_t *m = open_regions(name, 16 * R, 2 * R, R, 1);
	ASSERT_NE(m, nullptr);
	uint64_t off;
	ASSERT_NE(mmf_alloc(m, 100, &off), nullptr);	/* no shrink */
	pid_t pid = fork();
	ASSERT_GE(pid, 0);
	if (pid == 0) {
		tolvar_crash_point_arm("mmf.open_check", 1, TOLVAR_CRASH_STOP);
		mmf_t *o = open_regions(name, 16 * R, 2 * R, R, 1);
		_exit(o != nullptr && mmf_get_current_bytes(o) == 3 * R ? 0 : 1);
	}
	int st;
	ASSERT_EQ(waitpid(pid, &st, WUNTRACED), pid);
	ASSERT_TRUE(WIFSTOPPED(st));
	ASSERT_TRUE(mmf_grow(m));
	ASSERT_EQ(mmf_get_current_bytes(m), 3 * R);
	kill(pid, SIGCONT);
	ASSERT_EQ(waitpid(pid, &st, 0), pid);
	EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st;
	EXPECT_EQ(events().find("grow-race: current bytes"), std::string::npos);
	mmf_delete(m);
}

/* Allocated bytes that disagree with the nodes: the check calls it
 * repairable, and the open recomputes them with an event. */
TEST(MmfOpen, WrongAllocatedBytesAreRecomputedAtOpen)
{
	std::string name = store_name("accounting");
	mmf_t *m = open_whole(name);
	ASSERT_NE(m, nullptr);
	uint64_t off;
	ASSERT_NE(mmf_alloc(m, 100, &off), nullptr);
	uint64_t right = mmf_get_allocated_bytes(m);
	mmf_close(m);
	uint64_t wrong = right + 4096;
	write_at(name, 0x34, &wrong, 8);
	std::vector<uint8_t> img = read_file(name);
	mmf_check_report rep;
	EXPECT_EQ(mmf_check_image(img.data(), img.size(), &rep),
	    MMF_CHECK_ACCOUNTING);
	EXPECT_TRUE(rep.repairable);
	m = open_whole(name);
	ASSERT_NE(m, nullptr);
	EXPECT_EQ(mmf_get_allocated_bytes(m), right);
	EXPECT_NE(events().find("MMF_COUNTERS_RECOMPUTED"), std::string::npos);
	EXPECT_EQ(check_file(name), MMF_CHECK_OK);
	mmf_delete(m);
}

TEST(MmfDamage, DamagedFilesAreRefusedAndLeftUntouched)
{
	struct damage {
		const char *what;
		void (*apply)(const std::string &name, uint64_t node);
		mmf_check_status status;
	};
	static const damage cases[] = {
		{"magic", [](const std::string &n, uint64_t) {
			uint32_t v = 0xDEADBEEF;
			write_at(n, 0x20, &v, 4);
		}, MMF_CHECK_MAGIC},
		{"version", [](const std::string &n, uint64_t) {
			uint32_t v = 7;
			write_at(n, 0x18, &v, 4);
		}, MMF_CHECK_VERSION},
		{"truncated", [](const std::string &n, uint64_t) {
			int fd = open(tolvar::path(n).c_str(), O_RDWR);
			ASSERT_EQ(ftruncate(fd, 40960), 0);
			close(fd);
		}, MMF_CHECK_SIZE},
		{"stub", [](const std::string &n, uint64_t) {
			int fd = open(tolvar::path(n).c_str(), O_RDWR);
			ASSERT_EQ(ftruncate(fd, 100), 0);
			close(fd);
		}, MMF_CHECK_SHORT},
		{"node pattern", [](const std::string &n, uint64_t node) {
			uint32_t v = 0x12345678;
			write_at(n, node + 8, &v, 4);
		}, MMF_CHECK_NODE},
		{"node length", [](const std::string &n, uint64_t node) {
			uint32_t v = 0x7FFFFFF0;
			write_at(n, node + 16, &v, 4);
		}, MMF_CHECK_TILING},
		{"trailer", [](const std::string &n, uint64_t node) {
			uint32_t v = 0;
			write_at(n, node + 180 - 8, &v, 4);
		}, MMF_CHECK_NODE},
	};
	for (const damage &d : cases) {
		SCOPED_TRACE(d.what);
		std::string name = store_name(std::string("damaged-") + d.what);
		mmf_t *m = open_whole(name);
		ASSERT_NE(m, nullptr);
		uint64_t off;
		ASSERT_NE(mmf_alloc(m, 128, &off), nullptr);
		mmf_close(m);
		d.apply(name, off - MMF_NODE_HEADER_BYTES);
		std::vector<uint8_t> before = read_file(name);
		mmf_check_report rep;
		EXPECT_EQ(mmf_check_image(before.data(), before.size(), &rep),
		    d.status) << rep.detail;
		mmf_errno = 0;
		EXPECT_EQ(open_whole(name), nullptr);
		EXPECT_EQ(mmf_errno, EUCLEAN);
		/* Layout and nodes as they were; only lock counters may move. */
		std::vector<uint8_t> after = read_file(name);
		ASSERT_EQ(after.size(), before.size());
		size_t keep = std::min<size_t>(before.size(), 0x55C);
		EXPECT_TRUE(std::equal(before.begin(), before.begin() + keep,
		    after.begin()));
		if (before.size() > 4096) {
			EXPECT_TRUE(std::equal(before.begin() + 4096, before.end(),
			    after.begin() + 4096));
		}
		EXPECT_NE(events().find("MMF_CORRUPT"), std::string::npos);
		mmf_unlink(name.c_str());
	}
}

TEST(MmfDamage, FatalCheckStopsWithTheFailedExpression)
{
	std::string name = store_name("fatal");
	mmf_t *m = open_whole(name);
	uint64_t off;
	ASSERT_NE(mmf_alloc(m, 128, &off), nullptr);
	uint32_t v = 0;
	write_at(name, off - MMF_NODE_HEADER_BYTES + 8, &v, 4);
	EXPECT_FALSE(mmf_valid(m, false));
	EXPECT_DEATH(mmf_valid(m, true), "n->pattern == MMF_HEADER_PATTERN");
	mmf_close(m);
	mmf_unlink(name.c_str());
}

/* Damage met by a running process ends its writing to the store, with an
 * event and a corrupt row, not the process. */
TEST(MmfDamage, DamageFoundWhileRunningStopsWritesNotTheProcess)
{
	std::string name = store_name("runtime");
	mmf_t *m = open_whole(name);
	uint64_t a, b, c;
	ASSERT_NE(mmf_alloc(m, 300, &a), nullptr);
	ASSERT_NE(mmf_alloc(m, 300, &b), nullptr);
	ASSERT_NE(mmf_alloc(m, 300, &c), nullptr);
	mmf_free_offset(m, a);
	/* The free node's list link now leads into the middle of b. */
	uint64_t wild = b + 7;
	write_at(name, a - MMF_NODE_HEADER_BYTES + 36, &wild, 8);
	std::vector<uint64_t> got;
	uint64_t off;
	while (mmf_alloc(m, 128, &off) != nullptr)
		got.push_back(off);
	EXPECT_TRUE(m->corrupt);
	EXPECT_TRUE(got.empty());
	uint64_t before = mmf_get_allocated_bytes(m);
	mmf_free_offset(m, c);	/* refused: nothing changes */
	EXPECT_EQ(mmf_get_allocated_bytes(m), before);
	EXPECT_NE(events().find("MMF_CORRUPT"), std::string::npos);
	mmf_close(m);
	/* The nodes still tile: the next opener rebuilds the lists from the
	 * nodes' flags and goes on with every block where it was. */
	EXPECT_NE(check_file(name), MMF_CHECK_OK);
	m = open_whole(name);
	ASSERT_NE(m, nullptr);
	EXPECT_NE(events().find("MMF_LISTS_REBUILT"), std::string::npos);
	EXPECT_EQ(check_file(name), MMF_CHECK_OK);
	EXPECT_EQ(mmf_get_allocated_bytes(m), before);
	ASSERT_NE(mmf_alloc(m, 128, &off), nullptr);
	EXPECT_EQ(off, a);
	mmf_delete(m);
}

/*
 * A child holds the lock and dies by SIGKILL halfway through an operation
 * (two free nodes taken off their lists, the length of the merged node
 * stored, its trailer not yet).  The next locker takes the lock over,
 * counts it, and leaves lists, trailers and totals whole.
 */
TEST(MmfDeadHolder, TakeoverRepairsAHalfDoneMerge)
{
	std::string name = store_name("deadmerge");
	mmf_t *m = open_whole(name);
	uint64_t a, b, c;
	mmf_alloc(m, 200, &a);
	mmf_alloc(m, 200, &b);
	mmf_alloc(m, 200, &c);
	mmf_free_offset(m, a);
	pid_t child = fork();
	if (child == 0) {
		mmf_lock(m);
		uint64_t lo = a - 44, hi = b - 44;
		mmf_impl::list_remove(m, lo);
		m->shared_info->allocated_bytes -= 252;
		mmf_impl::node_set_flags(m, hi, MMF_FLAG_FREE);
		mmf_impl::node_set_len(m, lo, 504);
		raise(SIGKILL);
	}
	int st;
	ASSERT_EQ(waitpid(child, &st, 0), child);
	ASSERT_TRUE(WIFSIGNALED(st));
	EXPECT_EQ(mmf_get_shared_info(m)->lockerpid, uint32_t(child));
	EXPECT_NE(check_file(name), MMF_CHECK_OK);
	mmf_lock(m);
	mmf_unlock(m);
	EXPECT_EQ(mmf_get_shared_info(m)->dead_holder_takeovers, 1u);
	EXPECT_EQ(check_file(name), MMF_CHECK_OK);
	EXPECT_TRUE(mmf_valid(m, true));
	EXPECT_EQ(mmf_get_allocated_bytes(m), 252u);
	mmf_free_offset(m, c);
	EXPECT_EQ(mmf_get_allocated_bytes(m), 0u);
	EXPECT_EQ(check_file(name), MMF_CHECK_OK);
	EXPECT_NE(events().find("MMF_LOCK_HOLDER_DEAD"), std::string::npos);
	mmf_delete(m);
}

/*
 * A child dies by SIGKILL inside mmf_alloc at its first store into the
 * free node it splits (its last page is read-only to the child alone).
 * The node it took must come back free, not stay allocated for nobody.
 */
TEST(MmfDeadHolder, AnAllocatorKilledMidSplitLeaksNothing)
{
	std::string name = store_name("deadsplit");
	mmf_t *m = open_whole(name);
	uint64_t a;
	ASSERT_NE(mmf_alloc(m, 200, &a), nullptr);
	uint64_t before = mmf_get_allocated_bytes(m);
	pid_t child = fork();
	if (child == 0) {
		long page = sysconf(_SC_PAGESIZE);
		uint64_t end = mmf_get_current_bytes(m);
		mprotect(m->whole_base + end - page, page, PROT_READ);
		signal(SIGSEGV, [](int) { raise(SIGKILL); });
		uint64_t b;
		mmf_alloc(m, 200, &b);
		_exit(0);
	}
	int st;
	ASSERT_EQ(waitpid(child, &st, 0), child);
	ASSERT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL);
	mmf_lock(m);
	mmf_unlock(m);
	EXPECT_EQ(mmf_get_shared_info(m)->dead_holder_takeovers, 1u);
	EXPECT_EQ(check_file(name), MMF_CHECK_OK);
	EXPECT_EQ(mmf_get_allocated_bytes(m), before);
	mmf_free_offset(m, a);
	EXPECT_EQ(mmf_get_allocated_bytes(m), 0u);
	mmf_delete(m);
}

/* A lock word naming a live process that does not map the file (a reused
 * pid, or damage) is stale: it is taken over, and nobody is killed. */
TEST(MmfDeadHolder, LiveStrangerInTheLockWordIsNotAHolder)
{
	std::string name = store_name("stranger");
	mmf_t *m = open_whole(name);
	pid_t stranger = fork();
	if (stranger == 0) {
		execlp("sleep", "sleep", "60", static_cast<char *>(nullptr));
		_exit(127);
	}
	/* Wait until exec has dropped the mappings inherited by fork. */
	char exe[64], target[256] = "";
	snprintf(exe, sizeof(exe), "/proc/%d/exe", stranger);
	for (int i = 0; i < 1000; i++) {
		ssize_t n = readlink(exe, target, sizeof(target) - 1);
		target[n > 0 ? n : 0] = '\0';
		if (strstr(target, "sleep") != nullptr)
			break;
		usleep(10000);
	}
	uint32_t word = static_cast<uint32_t>(stranger);
	write_at(name, 0, &word, 4);
	mmf_lock(m);
	mmf_unlock(m);
	EXPECT_EQ(mmf_get_shared_info(m)->dead_holder_takeovers, 1u);
	EXPECT_TRUE(mmf_pid_alive(stranger));
	kill(stranger, SIGKILL);
	waitpid(stranger, nullptr, 0);

	/* Our own pid, left by a dead process that had it before us: no
	 * handle of ours holds the lock, so it is stale too. */
	word = static_cast<uint32_t>(getpid());
	write_at(name, 0, &word, 4);
	mmf_lock(m);
	mmf_unlock(m);
	EXPECT_EQ(mmf_get_shared_info(m)->dead_holder_takeovers, 2u);
	mmf_delete(m);
}

TEST(MmfLock, RecursivePerThreadAndCounted)
{
	std::string name = store_name("recursive");
	mmf_t *m = open_whole(name);
	uint64_t locks = mmf_get_shared_info(m)->lock_count;
	mmf_lock(m);
	mmf_lock(m);
	mmf_lock(m);
	EXPECT_EQ(m->locker_cnt.load(), 3u);
	mmf_unlock(m);
	mmf_unlock(m);
	mmf_unlock(m);
	EXPECT_EQ(mmf_get_shared_info(m)->lockerpid, 0u);
	EXPECT_EQ(mmf_get_shared_info(m)->lock_count, locks + 1);
	EXPECT_EQ(mmf_get_shared_info(m)->deepest_nesting, 3u);
	EXPECT_DEATH(mmf_unlock(m), "lock_word\\(m\\).load\\(\\) == self");
	mmf_delete(m);
}

/* Threads of one process share a handle: the lock is theirs as much as
 * other processes', and no block goes to two of them. */
TEST(MmfLock, ThreadsOfOneProcessShareAHandle)
{
	std::string name = store_name("threads");
	const uint64_t R = 256 << 10;
	/* Up to ~13 MiB live at once: room enough that only a fault fills it. */
	mmf_t *m = open_regions(name, 128 * R, 2 * R, R, 4);
	ASSERT_NE(m, nullptr);
	std::atomic<int> bad{0}, full{0};
	std::vector<std::thread> threads;
	for (int t = 0; t < 4; t++)
		threads.emplace_back([&, t] {
			std::vector<std::pair<uint64_t, uint32_t>> live;
			for (uint32_t i = 0; i < 5000; i++) {
				uint64_t off;
				uint32_t tag = (uint32_t(t) << 24) | i;
				if (mmf_alloc(m, 16 + (i * 7) % 2000, &off) == nullptr) {
					full++;
					break;
				}
				mmf_lock(m);	/* nested: stamps under the lock */
				memcpy(mmf_ensure_mapped(m, off, 4), &tag, 4);
				mmf_unlock(m);
				live.push_back({off, tag});
				if (i % 3 == 2) {
					auto [o, want] = live[i % live.size()];
					uint32_t got;
					mmf_lock(m);
					memcpy(&got, mmf_ensure_mapped(m, o, 4), 4);
					mmf_unlock(m);
					if (got != want)
						bad++;
					mmf_free_offset(m, o);
					live[i % live.size()] = live.back();
					live.pop_back();
				}
			}
			for (auto [o, tag] : live)
				mmf_free_offset(m, o);
		});
	for (auto &t : threads)
		t.join();
	EXPECT_EQ(bad.load(), 0) << "a block was handed to two threads";
	EXPECT_EQ(full.load(), 0) << "the store filled up";
	EXPECT_EQ(mmf_get_allocated_bytes(m), 0u);
	EXPECT_EQ(mmf_get_shared_info(m)->lockerpid, 0u);
	EXPECT_TRUE(mmf_valid(m, true));
	EXPECT_EQ(check_file(name), MMF_CHECK_OK);
	mmf_delete(m);
}

TEST(MmfShow, ListsFreeNodesByClassAndAllNodes)
{
	std::string name = store_name("show");
	mmf_t *m = open_whole(name, 64 << 10);
	uint64_t a, b;
	mmf_alloc(m, 100, &a);
	mmf_alloc(m, 100, &b);
	mmf_free_offset(m, a);
	testing::internal::CaptureStdout();
	mmf_show("store", m);
	std::string out = testing::internal::GetCapturedStdout();
	EXPECT_EQ(out.rfind("store\n", 0), 0u);
	EXPECT_NE(out.find(" free i 0 (  180): c         1 b       180\n"),
	    std::string::npos) << out;
	EXPECT_NE(out.find("============= showing all nodes\n"), std::string::npos);
	EXPECT_NE(out.find("total bytes = 65536\n"), std::string::npos);
	EXPECT_EQ(out.find("!= current bytes"), std::string::npos);
	mmf_delete(m);
}

TEST(MmfUtil, PidLivenessAndMemoryDivisor)
{
	EXPECT_TRUE(mmf_pid_alive(getpid()));
	pid_t child = fork();
	if (child == 0)
		_exit(0);
	/* A zombie cannot release anything: it counts as dead. */
	for (int i = 0; i < 500 && mmf_pid_alive(child); i++)
		usleep(10000);
	EXPECT_FALSE(mmf_pid_alive(child));
	waitpid(child, nullptr, 0);
	EXPECT_FALSE(mmf_pid_alive(child));
	uint64_t bytes;
	EXPECT_EQ(mmf_memory_divisor(&bytes), 1u);	/* unknown memory */
	EXPECT_EQ(mmf_get_first_alloc_offset(nullptr),
	    uint64_t(sysconf(_SC_PAGESIZE)));
}
