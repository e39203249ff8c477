/*
 * The id generator and the unit pools on a real main segment and real
 * semaphores.  The binary runs in an IPC namespace of its own (the keys
 * are fixed), below a root of its own; it opens the stores as keel does.
 */
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "platform/crashpoint.h"
#include "platform/paths.h"
#include "sdb/sdb.h"
#include "sdb/sdb_db.h"
#include "sdb/sdb_id.h"
#include "sdb_impl.h"

namespace {

class environment : public ::testing::Environment {
public:
	void SetUp() override
	{
		char tmpl[] = "/tmp/sdb-id-test-XXXXXX";
		ASSERT_NE(mkdtemp(tmpl), nullptr);
		setenv("TOLVAR_ROOT", tmpl, 1);
		root = tmpl;
		ASSERT_EQ(sdb_open_internal(true), 0);
	}
	void TearDown() override
	{
		sdb_close_internal(true);
		std::string cmd = "rm -rf " + root;
		(void)system(cmd.c_str());
	}
	std::string root;
};

using units = std::vector<uint32_t>;

/* A pool of cap units, as keel makes it in a new segment. */
sdb_unit_pool *fresh_pool(int type, uint32_t cap)
{
	sdb_unit_pool *p = reinterpret_cast<sdb_unit_pool *>(
	    sdb_main_segment() + (type == 0 ? SDB_SEG_UNIT_POOL0 :
	    SDB_SEG_UNIT_POOL1));
	memset(p, 0, 16 + (size_t)cap * 4);
	EXPECT_EQ(sdb_unit_init(cap, true, type), 0);
	EXPECT_EQ(sdb_unit_pool_ptr(type), p);
	return p;
}

units allocate_all(int type = SDB_UNIT_UID)
{
	units got;
	uint32_t n;
	while (sdb_unit_allocate(&n, type) == 0)
		got.push_back(n);
	return got;
}

void release(const units &us)
{
	for (uint32_t u : us)
		ASSERT_EQ(sdb_unit_release(u, SDB_UNIT_UID), 0) << u;
}

int sem_value(int number)
{
	int id = semget(SDB_SEM_KEY, SDB_SEM_COUNT, 0);
	return semctl(id, number, GETVAL);
}

void reap_killed(pid_t pid)
{
	int status = 0;
	ASSERT_EQ(waitpid(pid, &status, 0), pid);
	ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

/* A child that takes the semaphore and waits there to be killed. */
void kill_a_holder_of(int sem)
{
	int fds[2];
	ASSERT_EQ(pipe(fds), 0);
	pid_t pid = fork();
	if (pid == 0) {
		sdb_sem_lock(sem, true);
		(void)!write(fds[1], "r", 1);
		for (;;)
			pause();
	}
	char c;
	ASSERT_EQ(read(fds[0], &c, 1), 1);
	close(fds[0]);
	close(fds[1]);
	EXPECT_EQ(sem_value(sem), 0);
	kill(pid, SIGKILL);
	reap_killed(pid);
	EXPECT_EQ(sem_value(sem), 1);
}

/* A child that runs op and is killed between its change and the
 * give-back of the semaphore. */
void kill_before_give_back(const std::function<void()> &op, int sem)
{
	pid_t pid = fork();
	ASSERT_GE(pid, 0);
	if (pid == 0) {
		sdb_sem_set_semop([](int id, struct sembuf *ops, size_t n) {
			if (ops[0].sem_op > 0)
				raise(SIGKILL);
			return semop(id, ops, n);
		});
		op();
		_exit(0);
	}
	reap_killed(pid);
	EXPECT_EQ(sem_value(sem), 1);
}

} // namespace

TEST(SessionId, GrowsByOneWrapsToOneAndNeverStoresBit63)
{
	ASSERT_EQ(sdb_id_set(41), 0);
	uint64_t id = 0;
	ASSERT_EQ(sdb_id_generate(&id), 0);
	EXPECT_EQ(id, 42u);
	EXPECT_EQ(sdb_id_get(), 42u);

	ASSERT_EQ(sdb_id_set(SDB_ID_MAX - 1), 0);
	ASSERT_EQ(sdb_id_generate(&id), 0);
	EXPECT_EQ(id, SDB_ID_MAX);
	ASSERT_EQ(sdb_id_generate(&id), 0);
	EXPECT_EQ(id, 1u);
	EXPECT_EQ(*sdb_id_word(), 1u);

	ASSERT_EQ(sdb_id_set(0x8000000000000005ULL), 0);
	EXPECT_EQ(sdb_id_get(), 5u);
	ASSERT_EQ(sdb_id_raise(3), 0);	/* raise only raises */
	EXPECT_EQ(sdb_id_get(), 5u);
	ASSERT_EQ(sdb_id_raise(900), 0);
	EXPECT_EQ(sdb_id_get(), 900u);
}

TEST(SessionId, ConcurrentProcessesNeverShareAnId)
{
	constexpr int procs = 4, each = 3000;
	ASSERT_EQ(sdb_id_set(1000), 0);
	/* Each child fills its own slice of a shared map. */
	size_t bytes = sizeof(uint64_t) * procs * each;
	auto *ids = static_cast<uint64_t *>(mmap(nullptr, bytes,
	    PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
	ASSERT_NE(ids, MAP_FAILED);
	std::vector<pid_t> kids;
	for (int k = 0; k < procs; k++) {
		pid_t pid = fork();
		ASSERT_GE(pid, 0);
		if (pid == 0) {
			for (int i = 0; i < each; i++)
				if (sdb_id_generate(&ids[k * each + i]) != 0)
					_exit(1);
			_exit(0);
		}
		kids.push_back(pid);
	}
	for (pid_t pid : kids) {
		int status = 0;
		ASSERT_EQ(waitpid(pid, &status, 0), pid);
		EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
	}
	std::set<uint64_t> unique(ids, ids + procs * each);
	munmap(ids, bytes);
	EXPECT_EQ(unique.size(), (size_t)procs * each);
	EXPECT_EQ(*unique.begin(), 1001u);
	EXPECT_EQ(*unique.rbegin(), 1000u + procs * each);
	EXPECT_EQ(sdb_id_get(), 1000u + procs * each);
}

TEST(SessionId, HoldersKilledBySigkillDoNotBlock)
{
	kill_a_holder_of(SDB_SEM_ID_GEN);
	ASSERT_EQ(sdb_id_set(500), 0);
	kill_before_give_back([] {
		uint64_t id;
		sdb_id_generate(&id);
	}, SDB_SEM_ID_GEN);
	uint64_t id = 0;
	ASSERT_EQ(sdb_id_generate(&id), 0);
	EXPECT_EQ(id, 502u) << "501 went to the dead process";
}

TEST(UnitPool, HoldersKilledBySigkillDoNotBlock)
{
	fresh_pool(SDB_UNIT_UID, 4);
	kill_a_holder_of(SDB_SEM_UNIT_POOL);
	uint32_t n = 0;
	ASSERT_EQ(sdb_unit_allocate(&n, SDB_UNIT_UID), 0);
	EXPECT_EQ(n, 1000u);
	kill_before_give_back([] {
		uint32_t u;
		sdb_unit_allocate(&u, SDB_UNIT_UID);
	}, SDB_SEM_UNIT_POOL);
	ASSERT_EQ(sdb_unit_allocate(&n, SDB_UNIT_UID), 0);
	EXPECT_EQ(n, 1002u) << "1001 went to the dead process";
}

TEST(UnitPool, FreshPoolsGiveAscendingNumbersAndAReopenChangesNothing)
{
	fresh_pool(SDB_UNIT_UID, 16);
	units got = allocate_all();
	ASSERT_EQ(got.size(), 16u);
	for (uint32_t i = 0; i < 16; i++)
		EXPECT_EQ(got[i], SDB_UNIT_UID_FIRST + i);

	sdb_unit_pool *p0 = fresh_pool(SDB_UNIT_IFL, SDB_SEG_UNIT_POOL0_UNITS);
	uint32_t n = 0;
	ASSERT_EQ(sdb_unit_allocate(&n, SDB_UNIT_IFL), 0);
	EXPECT_EQ(n, 0x40000000u);
	ASSERT_EQ(sdb_unit_allocate(&n, SDB_UNIT_IFL), 0);
	EXPECT_EQ(n, 0x40000001u);
	EXPECT_EQ(sdb_unit_init(10, true, SDB_UNIT_IFL), 0);
	EXPECT_EQ(p0->max_units, SDB_SEG_UNIT_POOL0_UNITS);
	EXPECT_EQ(p0->available, SDB_SEG_UNIT_POOL0_UNITS - 2);
}

/* keel killed inside the fill of a new pool, and at its last word: the
 * next start fills the pool again, and no unit comes out twice. */
TEST(UnitPool, AFillCutShortByAKillIsDoneAgain)
{
	for (const char *point : {"unit.fill", "unit.fill_done"}) {
		sdb_unit_pool *p = reinterpret_cast<sdb_unit_pool *>(
		    sdb_main_segment() + SDB_SEG_UNIT_POOL1);
		memset(p, 0, 16 + (size_t)SDB_SEG_UNIT_POOL1_UNITS * 4);
		pid_t pid = fork();
		ASSERT_GE(pid, 0);
		if (pid == 0) {
			tolvar_crash_point_arm(point, 1, TOLVAR_CRASH_KILL);
			sdb_unit_init(SDB_SEG_UNIT_POOL1_UNITS, true,
			    SDB_UNIT_UID);
			_exit(0);
		}
		reap_killed(pid);
		ASSERT_EQ(sdb_unit_init(SDB_SEG_UNIT_POOL1_UNITS, true,
		    SDB_UNIT_UID), 0);
		units got = allocate_all();
		std::set<uint32_t> distinct(got.begin(), got.end());
		EXPECT_EQ(distinct.size(), got.size()) << point;
		EXPECT_EQ(got.size(), (size_t)SDB_SEG_UNIT_POOL1_UNITS) << point;
		EXPECT_EQ(p->available, 0u) << point;
	}
}

TEST(UnitPool, ReleasedUnitsComeBackInFifoOrder)
{
	fresh_pool(SDB_UNIT_UID, 8);
	ASSERT_EQ(allocate_all().size(), 8u);
	release({1003, 1001, 1006});
	EXPECT_EQ(allocate_all(), (units{1003, 1001, 1006}));
	/* A released number goes behind the ones already free. */
	fresh_pool(SDB_UNIT_UID, 4);
	uint32_t n = 0;
	ASSERT_EQ(sdb_unit_allocate(&n, SDB_UNIT_UID), 0);
	release({n});
	EXPECT_EQ(allocate_all(), (units{1001, 1002, 1003, 1000}));
}

TEST(UnitPool, ExhaustionAndOneRelease)
{
	sdb_unit_pool *p = fresh_pool(SDB_UNIT_UID, 5);
	ASSERT_EQ(allocate_all().size(), 5u);
	uint32_t n = 77;
	EXPECT_EQ(sdb_unit_allocate(&n, SDB_UNIT_UID), SDB_UNIT_ERR_EMPTY);
	EXPECT_EQ(n, 77u);
	EXPECT_EQ(p->head, 0xffffffffu);
	EXPECT_EQ(p->tail, 0xffffffffu);
	release({1002});
	EXPECT_EQ(p->head, 2u);
	EXPECT_EQ(p->tail, 2u);
	EXPECT_EQ(p->available, 1u);
	EXPECT_EQ(allocate_all(), (units{1002}));
}

TEST(UnitPool, DoubleReleaseIsRefusedTailIncluded)
{
	sdb_unit_pool *p = fresh_pool(SDB_UNIT_UID, 6);
	ASSERT_EQ(allocate_all().size(), 6u);
	release({1001, 1004});
	ASSERT_EQ(p->tail, 4u);
	/* 1001 is inside the list, 1004 is its tail: both refused. */
	EXPECT_EQ(sdb_unit_release(1001, SDB_UNIT_UID), SDB_UNIT_ERR_FREE);
	EXPECT_EQ(sdb_unit_release(1004, SDB_UNIT_UID), SDB_UNIT_ERR_FREE);
	EXPECT_EQ(p->available, 2u);
	/* The only free unit is head and tail at once. */
	uint32_t n;
	ASSERT_EQ(sdb_unit_allocate(&n, SDB_UNIT_UID), 0);
	EXPECT_EQ(sdb_unit_release(1004, SDB_UNIT_UID), SDB_UNIT_ERR_FREE);
	EXPECT_EQ(allocate_all(), (units{1004})) << "nothing went out twice";
	/* Untouched units of a fresh pool are free too, its tail first. */
	fresh_pool(SDB_UNIT_UID, 3);
	EXPECT_EQ(sdb_unit_release(1002, SDB_UNIT_UID), SDB_UNIT_ERR_FREE);
	EXPECT_EQ(sdb_unit_release(1000, SDB_UNIT_UID), SDB_UNIT_ERR_FREE);
	EXPECT_EQ(allocate_all().size(), 3u);
}

TEST(UnitPool, ATailLeftBehindByADeadReleaserIsFollowed)
{
	sdb_unit_pool *p = fresh_pool(SDB_UNIT_UID, 6);
	allocate_all();
	release({1001});
	/* A releaser of 1003 that died after linking it, before moving the
	 * tail. */
	p->link[1] = 3;
	ASSERT_EQ(sdb_unit_release(1003, SDB_UNIT_UID), SDB_UNIT_ERR_FREE);
	release({1005});
	EXPECT_EQ(allocate_all(), (units{1001, 1003, 1005}));
}

/* The same lagging tail, handed out before anything is released: the
 * next release must not link behind a unit in use. */
TEST(UnitPool, ALaggingTailHandedOutIsNotLinkedBehind)
{
	sdb_unit_pool *p = fresh_pool(SDB_UNIT_UID, 6);
	allocate_all();
	release({1001});
	p->link[1] = 3;
	uint32_t n = 0;
	ASSERT_EQ(sdb_unit_allocate(&n, SDB_UNIT_UID), 0);
	EXPECT_EQ(n, 1001u);
	release({1005});
	EXPECT_EQ(sdb_unit_release(1001, SDB_UNIT_UID), 0) << "1001 is in use";
	EXPECT_EQ(allocate_all(), (units{1003, 1005, 1001}));
}

TEST(UnitPool, BadArgumentsHaveTheirCodes)
{
	fresh_pool(SDB_UNIT_UID, 4);
	uint32_t n;
	EXPECT_EQ(sdb_unit_allocate(&n, 2), SDB_UNIT_ERR_POOL);
	EXPECT_EQ(sdb_unit_allocate(&n, -1), SDB_UNIT_ERR_POOL);
	EXPECT_EQ(sdb_unit_release(1000, 2), SDB_UNIT_ERR_TYPE);
	EXPECT_EQ(sdb_unit_release(999, SDB_UNIT_UID), SDB_UNIT_ERR_POOL);
	EXPECT_EQ(sdb_unit_release(1004, SDB_UNIT_UID), SDB_UNIT_ERR_POOL);
	EXPECT_EQ(sdb_unit_recover(1004, SDB_UNIT_UID), SDB_UNIT_ERR_POOL);
	EXPECT_EQ(sdb_unit_recover(5, SDB_UNIT_UID), SDB_UNIT_ERR_POOL);
	EXPECT_EQ(sdb_dump_pool(5), SDB_UNIT_ERR_POOL);
	sdb_unit_forget(SDB_UNIT_UID);
	EXPECT_EQ(sdb_unit_allocate(&n, SDB_UNIT_UID), SDB_UNIT_ERR_POOL);
	EXPECT_EQ(sdb_unit_release(1000, SDB_UNIT_UID), SDB_UNIT_ERR_POOL);
	EXPECT_EQ(sdb_unit_init(4, false, SDB_UNIT_UID), 0);
	EXPECT_EQ(sdb_unit_allocate(&n, SDB_UNIT_UID), 0);
}

TEST(UnitPool, RecoveryReusesNumbersInAscendingOrder)
{
	sdb_unit_pool *p = fresh_pool(SDB_UNIT_UID, 10);
	/* Scramble the list first: recovery must not depend on it. */
	allocate_all();
	release({1007, 1002, 1009, 1000});
	ASSERT_EQ(sdb_unit_clear(SDB_UNIT_UID), 0);
	for (uint32_t u : {1001u, 1004u, 1005u, 1009u})
		ASSERT_EQ(sdb_unit_recover(u, SDB_UNIT_UID), 0);
	ASSERT_EQ(sdb_unit_recovered(SDB_UNIT_UID), 0);
	EXPECT_EQ(p->head, 0u);
	EXPECT_EQ(p->tail, 8u);
	EXPECT_EQ(allocate_all(), (units{1000, 1002, 1003, 1006, 1007, 1008}));
	/* The recovered units are allocated: each can be released once. */
	EXPECT_EQ(sdb_unit_release(1004, SDB_UNIT_UID), 0);
	EXPECT_EQ(sdb_unit_release(1004, SDB_UNIT_UID), SDB_UNIT_ERR_FREE);

	/* Everything in use: an empty list, though the cleared pool's tail
	 * word names unit 0. */
	fresh_pool(SDB_UNIT_UID, 3);
	sdb_unit_clear(SDB_UNIT_UID);
	for (uint32_t u : {1000u, 1001u, 1002u})
		sdb_unit_recover(u, SDB_UNIT_UID);
	sdb_unit_recovered(SDB_UNIT_UID);
	EXPECT_EQ(p->head, 0xffffffffu);
	EXPECT_EQ(p->tail, 0xffffffffu);
	EXPECT_EQ(allocate_all(), units{});
}

TEST(UnitPool, RebuildOverALivePoolKeepsEveryFreeUnit)
{
	sdb_unit_pool *p = fresh_pool(SDB_UNIT_UID, 6);
	allocate_all();
	release({1004, 1001, 1003});
	ASSERT_EQ(p->tail, 3u);
	/* The tables were whole: no clear, no marks. */
	ASSERT_EQ(sdb_unit_recovered(SDB_UNIT_UID), 0);
	EXPECT_EQ(allocate_all(), (units{1001, 1003, 1004}));
}

TEST(UnitPool, DumpListsAllocatedUnitsButNotTheTail)
{
	fresh_pool(SDB_UNIT_UID, 4);
	uint32_t n;
	sdb_unit_allocate(&n, SDB_UNIT_UID);
	sdb_unit_allocate(&n, SDB_UNIT_UID);
	testing::internal::CaptureStdout();
	ASSERT_EQ(sdb_dump_pool(SDB_UNIT_UID), 0);
	EXPECT_EQ(testing::internal::GetCapturedStdout(),
	    "unit number allocator {\n"
	    "max unit number = 4\n"
	    "available unit number(s) = 2\n"
	    "head = 2\n"
	    "tail = 3\n"
	    "master = 0\n"
	    "allocated = {\n"
	    "0\n"
	    "1\n"
	    "}\n"
	    "}\n");
}

TEST(UnitPool, RecoveryLogHasTheRowsAndThePools)
{
	std::string dir = tolvar::path("/var/log");
	ASSERT_EQ(tolvar_mkdirs(dir.c_str(), 0755), 0);
	std::string file = tolvar::path("/var/log/sdb.recover");
	unlink(file.c_str());
	/* Off: nothing is written. */
	sdb_recover_log_set(false);
	EXPECT_EQ(sdb_recover_log_begin(), 0);
	sdb_recover_log_session(1, 0, 0, 0);
	sdb_recover_log_end();
	EXPECT_NE(access(file.c_str(), F_OK), 0);

	fresh_pool(SDB_UNIT_IFL, 2);
	fresh_pool(SDB_UNIT_UID, 2);
	sdb_recover_log_set(true);
	ASSERT_EQ(sdb_recover_log_begin(), 0);
	sdb_recover_log_session(17, 2, 3, htonl(0x0a000001));
	sdb_recover_log_service(18, 1);
	sdb_recover_log_service_failed(19);
	sdb_recover_log_end();
	sdb_recover_log_set(false);
	std::ifstream in(file);
	std::stringstream ss;
	ss << in.rdbuf();
	std::string text = ss.str();
	EXPECT_EQ(text.rfind("--== Recover start at ", 0), 0u);
	EXPECT_NE(text.find(" ==--\nId\tservice\tstate\tIP\n--\t-------\t-----\t--\n"
	    "17\t2\t3\t10.0.0.1\n\tService id 18, State 1\n"
	    "\tService id 19, Failed to get service session snapshot\n"
	    "unit number allocator {\n"), std::string::npos);
	EXPECT_NE(text.find("--== Recover completed at "), std::string::npos);
	size_t pools = 0;
	for (size_t at = 0; (at = text.find("unit number allocator", at)) !=
	    std::string::npos; at++)
		pools++;
	EXPECT_EQ(pools, 2u);
}

TEST(UnitNumber, ParsesLeadingDigits)
{
	EXPECT_EQ(sdb_unit_number_parse("1073741824x"), 0x40000000u);
	EXPECT_EQ(sdb_unit_number_parse("0"), 0u);
	EXPECT_EQ(sdb_unit_number_parse("12 34"), 12u);
	EXPECT_EQ(sdb_unit_number_parse("4294967295"), 0xffffffffu);
	for (const char *bad : {(const char *)nullptr, "", "x12", " 12", "-1",
	    "4294967296", "99999999999999999999999"})
		EXPECT_EQ(sdb_unit_number_parse(bad), SDB_UNIT_INVALID)
		    << (bad ? bad : "(null)");
}

int main(int argc, char **argv)
{
	::testing::InitGoogleTest(&argc, argv);
	::testing::AddGlobalTestEnvironment(new environment);
	return RUN_ALL_TESTS();
}
