/*
 * Units of the database environment: codes, the main segment, the
 * semaphores, the state machine, and the locks (with real holders killed).
 * Each test runs in an IPC namespace of its own, below one TOLVAR_ROOT.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <platform/paths.h>
#include <sdb/keel.h>
#include <sdb/sdb.h>
#include <sdb/sdb_bbe.h>
#include <sdb/sdb_db.h>

#include "sdb_impl.h"

namespace fs = std::filesystem;

namespace {

/* The root is read once per process: made before the first test that
 * touches a path, and only then. */
std::string test_root;

void make_root(void)
{
	if (!test_root.empty())
		return;
	char tmpl[] = "/tmp/sdb_env_test.XXXXXX";
	const char *d = mkdtemp(tmpl);
	ASSERT_NE(d, nullptr);
	test_root = d;
	setenv("TOLVAR_ROOT", d, 1);
}

/* The root goes with the process that made it. */
class RootCleanup : public ::testing::Environment {
public:
	void TearDown() override
	{
		std::error_code ec;
		if (!test_root.empty())
			fs::remove_all(test_root, ec);
	}
};
[[maybe_unused]] ::testing::Environment *const root_cleanup =
    ::testing::AddGlobalTestEnvironment(new RootCleanup);

bool logged_event(const std::string &text)
{
	std::ifstream f(tolvar::path("/var/log/events"));
	std::stringstream ss;
	ss << f.rdbuf();
	return ss.str().find(text) != std::string::npos;
}

int sem_value(int n)
{
	int id = semget(SDB_SEM_KEY, SDB_SEM_COUNT, 0);
	return id < 0 ? -1 : semctl(id, n, GETVAL);
}

/* A pid that is certainly dead: a reaped child. */
uint32_t dead_pid(void)
{
	pid_t p = fork();
	if (p == 0)
		_exit(0);
	waitpid(p, nullptr, 0);
	return (uint32_t)p;
}

/* A child that runs take(), tells us whether it succeeded, and holds what
 * it took until it is killed. */
pid_t holder(const std::function<bool()> &take)
{
	int ready[2];
	EXPECT_EQ(pipe(ready), 0);
	pid_t child = fork();
	if (child == 0) {
		char c = take() ? 'y' : 'n';
		(void)!write(ready[1], &c, 1);
		for (;;)
			pause();
	}
	char c = 0;
	EXPECT_EQ(read(ready[0], &c, 1), 1);
	EXPECT_EQ(c, 'y');
	close(ready[0]);
	close(ready[1]);
	return child;
}

void kill_and_reap(pid_t child)
{
	kill(child, SIGKILL);
	waitpid(child, nullptr, 0);
}

class SdbEnv : public ::testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_EQ(unshare(CLONE_NEWIPC), 0) << strerror(errno);
		make_root();
		std::error_code ec;
		fs::remove_all(test_root + "/mfs", ec);
		fs::remove(test_root + "/var/log/events", ec);
		saved_name_ = program_invocation_short_name;
		sdb_set_mastership(false);
		sdb_keel_recovering = false;
		h_ = keel_handle{};
		h_.fd = -1;
	}
	void TearDown() override
	{
		sdb_close_internal(true);
		program_invocation_short_name = saved_name_;
		sdb_sem_set_semop([](int id, struct sembuf *ops, size_t n) {
			return semop(id, ops, n);
		});
	}
	/* keel's order: segment and semaphores, environment, tables. */
	void open_as_keel(void)
	{
		ASSERT_EQ(sdb_open_internal(true), 0);
		ASSERT_EQ(sdb_db_init(&h_, true), 0);
		ASSERT_EQ(sdb_db_secondary_init(true, false), 0);
	}
	keel_handle h_{};
	char *saved_name_ = nullptr;
};

TEST(SdbStatus, TextsTableBoundsAndErrnoMapping)
{
	const struct {
		int code;
		const char *text;
	} texts[] = {
		{0, "success"},
		{-19, "session database has not started yet"},
		{-39, "Lock type requested/held is invalid"},
		{-40, "sdb error code exceeds table size"},
		{1, "sdb error code exceeds table size"},
		{-18, "sdb error code exceeds table size"},
	};
	for (const auto &t : texts)
		EXPECT_STREQ(sdb_strerror(t.code), t.text) << t.code;

	EXPECT_EQ(sdb_map_error(ENOMEM), SDB_ERR_NOMEM);
	EXPECT_EQ(sdb_map_error(SDB_ERR_CONFLICT), SDB_ERR_CONFLICT);
	EXPECT_EQ(sdb_map_error(EPIPE), SDB_ERR_FATAL);
	/* A refused write is read-only on a standby, fatal on the master. */
	sdb_set_mastership(false);
	EXPECT_EQ(sdb_map_error(EACCES), SDB_ERR_READ_ONLY);
	sdb_set_mastership(true);
	EXPECT_EQ(sdb_map_error(EACCES), SDB_ERR_FATAL);
	sdb_set_mastership(false);
}

TEST_F(SdbEnv, ClientBeforeKeelFailsAndCreatesNothing)
{
	EXPECT_EQ(sdb_open_internal(false), SDB_ERR_FATAL);
	EXPECT_EQ(sdb_sem_init(false), SDB_ERR_FATAL);
	EXPECT_EQ(sdb_lts_init(false), SDB_ERR_NOMEM);
	EXPECT_EQ(sdb_main_segment(), nullptr);
	EXPECT_EQ(semget(SDB_SEM_KEY, SDB_SEM_COUNT, 0), -1);
	EXPECT_FALSE(fs::exists(tolvar::path(SDB_SHM_KEY_FILE)));
	EXPECT_FALSE(fs::exists(tolvar::path(SDB_HEAD_FILE)));
}

TEST_F(SdbEnv, KeelCreatesEveryStoreAndAClientAttaches)
{
	open_as_keel();
	EXPECT_EQ(sdb_main_segment_size(), SDB_SEG_SIZE);
	uint32_t rs = 0;
	ASSERT_EQ(sdb_recovery_status_get(&rs), 0);
	EXPECT_EQ(rs, (uint32_t)SDB_RECOVERY_OPENED);
	for (int i = 0; i < SDB_SEM_COUNT; i++)
		EXPECT_EQ(sem_value(i), i == SDB_SEM_SECONDARY ? 5 : 1);
	EXPECT_EQ(sdb_lts_header_ptr()->magic, SDB_LTS_MAGIC);
	EXPECT_EQ(fs::file_size(tolvar::path(SDB_HEAD_FILE)),
	    (uintmax_t)sdb_lts_bucket_count() * 20 + 256);
	sdb_db_info *info = sdb_db_info_ptr();
	ASSERT_NE(info, nullptr);
	EXPECT_EQ(info->initialized, 1u);
	EXPECT_EQ(info->next_offset, SDB_DB_INFO_SIZE);
	EXPECT_EQ(info->lock_type, -1);

	*sdb_id_word() = 77;
	EXPECT_EQ(sdb_bbe_mailbox_get(), 0);
	sdb_bbe_mailbox_set(5);
	ASSERT_EQ(sdb_close_internal(true), 0);
	EXPECT_EQ(sdb_main_segment(), nullptr);
	EXPECT_EQ(sdb_bbe_mailbox_get(), 1);	/* none attached */

	/* A client finds all of it, and its close removes nothing. */
	ASSERT_EQ(sdb_open_internal(false), 0);
	EXPECT_EQ(*sdb_id_word(), 77u);
	ASSERT_EQ(sdb_db_init(&h_, false), 0);
	EXPECT_EQ(sdb_bbe_mailbox_get(), 5);
	ASSERT_EQ(sdb_db_secondary_init(false, false), 0);
	EXPECT_EQ(sdb_lts_header_ptr()->client_attaches, 1u);
	EXPECT_EQ(sdb_db_env_state(), SDB_STATE_UP);
	ASSERT_EQ(sdb_close_internal(false), 0);
	EXPECT_TRUE(fs::exists(tolvar::path(SDB_HEAD_FILE)));
	EXPECT_TRUE(fs::exists(tolvar::path(SDB_INTF_FILE)));
	std::string key = tolvar::path(SDB_SHM_KEY_FILE);
	EXPECT_GE(shmget(ftok(key.c_str(), SDB_SHM_PROJECT), 0, 0), 0);
	/* The mailbox is root's alone. */
	int mb = shmget(ftok(key.c_str(), SDB_BBE_MAILBOX_PROJECT), 0, 0);
	struct shmid_ds ds;
	ASSERT_EQ(shmctl(mb, IPC_STAT, &ds), 0);
	EXPECT_EQ(ds.shm_perm.mode & 0777, 0600u);
}

TEST_F(SdbEnv, SegmentOfTheOtherIdSpaceClassIsRefused)
{
	ASSERT_EQ(sdb_open_internal(true), 0);
	ASSERT_EQ(sdb_close_internal(true), 0);
	std::string key = tolvar::path(SDB_SHM_KEY_FILE);
	int id = shmget(ftok(key.c_str(), SDB_SHM_PROJECT), 0, 0);
	ASSERT_GE(id, 0);
	ASSERT_EQ(shmctl(id, IPC_RMID, nullptr), 0);
	ASSERT_GE(shmget(ftok(key.c_str(), SDB_SHM_PROJECT),
	    SDB_SEG_SIZE + SDB_SEG_LARGE_EXTRA, IPC_CREAT | 0666), 0);
	EXPECT_EQ(sdb_open_internal(false), SDB_ERR_FATAL);
	EXPECT_EQ(sdb_open_internal(true), SDB_ERR_FATAL);
	EXPECT_EQ(sdb_main_segment(), nullptr);
}

TEST_F(SdbEnv, KeelReadiesASetItsCreatorLeftUnsetButLeavesAHeldOneAlone)
{
	/* A creator that died between semget and SETVAL. */
	ASSERT_GE(semget(SDB_SEM_KEY, SDB_SEM_COUNT, IPC_CREAT | 0666), 0);
	EXPECT_EQ(sdb_sem_init(false), SDB_ERR_FATAL);
	ASSERT_EQ(sdb_sem_init(true), 0);
	EXPECT_EQ(sem_value(0), 1);
	EXPECT_EQ(sem_value(2), 5);
	EXPECT_EQ(sem_value(3), 1);

	ASSERT_EQ(sdb_sem_lock(SDB_SEM_ID_GEN, true), 0);
	sdb_sem_forget();
	ASSERT_EQ(sdb_sem_init(true), 0);
	EXPECT_EQ(sem_value(SDB_SEM_ID_GEN), 0);	/* still held */
	ASSERT_EQ(sdb_sem_unlock(SDB_SEM_ID_GEN, true), 0);
}

std::atomic<int> eintr_left;
int eintr_then_semop(int id, struct sembuf *ops, size_t n)
{
	if (eintr_left.fetch_sub(1) > 0) {
		errno = EINTR;
		return -1;
	}
	return semop(id, ops, n);
}

TEST_F(SdbEnv, SemopRepeatsOnEintrUpToAThousandCalls)
{
	open_as_keel();
	sdb_sem_set_semop(eintr_then_semop);
	eintr_left = 999;
	EXPECT_EQ(sdb_sem_lock(SDB_SEM_UNIT_POOL, true), 0);
	EXPECT_EQ(sem_value(SDB_SEM_UNIT_POOL), 0);
	eintr_left = 999;
	EXPECT_EQ(sdb_sem_unlock(SDB_SEM_UNIT_POOL, true), 0);
	EXPECT_EQ(sem_value(SDB_SEM_UNIT_POOL), 1);

	eintr_left = 1000;
	EXPECT_EQ(sdb_sem_lock(SDB_SEM_UNIT_POOL, true), SDB_ERR_DEADLOCK);
	eintr_left = 1000;
	EXPECT_EQ(sdb_sem_unlock(SDB_SEM_UNIT_POOL, true), SDB_ERR_DEADLOCK);
	EXPECT_TRUE(logged_event("LIBSDB_SDB_LOCK_RELEASE_FAILED"));
	EXPECT_EQ(sem_value(SDB_SEM_UNIT_POOL), 1);

	/* Other failures: a set gone is fatal, the rest is a deadlock. */
	sdb_sem_set_semop([](int, struct sembuf *, size_t) {
		errno = EINVAL;
		return -1;
	});
	EXPECT_EQ(sdb_sem_unlock(SDB_SEM_ID_GEN, true), SDB_ERR_FATAL);
	sdb_sem_set_semop([](int, struct sembuf *, size_t) {
		errno = ENOSPC;
		return -1;
	});
	EXPECT_EQ(sdb_sem_unlock(SDB_SEM_ID_GEN, true), SDB_ERR_DEADLOCK);
	EXPECT_EQ(sdb_sem_lock(SDB_SEM_COUNT, true), SDB_ERR_DEADLOCK);
}

TEST_F(SdbEnv, StatusBlock)
{
	EXPECT_EQ(sdb_status_block_state_set(2), SDB_ERR_NOT_STARTED);
	EXPECT_EQ(sdb_status_block_get(nullptr, nullptr, nullptr, 0, nullptr),
	    SDB_ERR_NOT_STARTED);

	open_as_keel();
	char text[300];
	ASSERT_EQ(sdb_status_block_get(nullptr, nullptr, text, sizeof(text),
	    nullptr), 0);
	EXPECT_STREQ(text, "Unknown");
	*sdb_id_word() = 200;
	ASSERT_EQ(sdb_status_block_progress_set(2, 5, 5), 0);
	ASSERT_EQ(sdb_status_block_state_set(2), 0);
	uint8_t st = 9, flag = 0;
	uint32_t pct = 99;
	ASSERT_EQ(sdb_status_block_get(&st, &flag, text, sizeof(text), &pct), 0);
	EXPECT_EQ(st, 2);
	EXPECT_EQ(pct, 0u);	/* rows cleared; total 200, nothing done */
	EXPECT_EQ(sdb_seg_tail_ptr()->status.progress[0].total, 200u);

	EXPECT_EQ(sdb_status_block_progress_set(0, 50, 0), 0);	/* ignored */
	EXPECT_EQ(sdb_seg_tail_ptr()->status.progress[0].done, 0u);
	EXPECT_EQ(sdb_status_block_progress_set(0, 50, 100), 0);
	EXPECT_EQ(sdb_status_block_progress_set(1, 30, 10), 0);	/* done wins */
	sdb_status_block_get(nullptr, nullptr, nullptr, 0, &pct);
	EXPECT_EQ(pct, 100u * 80 / 130);
	EXPECT_EQ(sdb_status_block_progress_set(4, 1, 1), SDB_ERR_PARAM);
	ASSERT_EQ(sdb_status_block_state_set(1), 0);
	sdb_status_block_get(nullptr, nullptr, nullptr, 0, &pct);
	EXPECT_EQ(pct, 0u);

	std::string longtext(400, 'a');
	ASSERT_EQ(sdb_status_block_text_set(longtext.c_str()), 0);
	ASSERT_EQ(sdb_status_block_flag_set(7), 0);
	sdb_status_block_get(nullptr, &flag, text, sizeof(text), nullptr);
	EXPECT_EQ(strlen(text), (size_t)SDB_STATUS_TEXT_LEN - 1);
	EXPECT_EQ(flag, 7);
	/* A text without terminator (another process's bytes) is bounded. */
	memset(sdb_seg_tail_ptr()->status.sync_text, 'b', SDB_STATUS_TEXT_LEN);
	sdb_status_block_get(nullptr, nullptr, text, sizeof(text), nullptr);
	EXPECT_EQ(strlen(text), (size_t)SDB_STATUS_TEXT_LEN - 1);
}

TEST_F(SdbEnv, StatesOfAStandbyTolvardAndOfRecovery)
{
	program_invocation_short_name = (char *)"tolvard";
	open_as_keel();		/* as the owner: makes the stores */
	sdb_keel_recovering = true;
	EXPECT_EQ(sdb_close_internal(true), SDB_ERR_FATAL);
	sdb_keel_recovering = false;

	ASSERT_EQ(sdb_open_internal(false), 0);
	ASSERT_EQ(sdb_db_init(&h_, false), 0);
	EXPECT_EQ(sdb_db_env_state(), SDB_STATE_REPLICATION);
	EXPECT_EQ(sdb_db_env_check(), SDB_ERR_NOT_STARTED);
	ASSERT_EQ(sdb_close_internal(false), 0);
	EXPECT_EQ(sdb_db_env_state(), SDB_STATE_CLOSED);

	sdb_set_mastership(true);
	ASSERT_EQ(sdb_open_internal(false), 0);
	ASSERT_EQ(sdb_db_init(&h_, false), 0);
	EXPECT_EQ(sdb_db_env_state(), SDB_STATE_UP);
	EXPECT_EQ(sdb_db_env_check(), 0);

	/* Up again: only the handle changes. */
	keel_handle other{};
	ASSERT_EQ(sdb_db_init(&other, false), 0);
	EXPECT_EQ(sdb_db_env_state(), SDB_STATE_UP);
	other.chassis_issu = KEEL_CHASSIS_DAEMON_SWITCHOVER_PREPARE_DONE;
	EXPECT_EQ(sdb_db_env_check(), SDB_ERR_ISSU);
	other.chassis_issu = 0;

	sdb_db_secondary_needs_recovery();
	EXPECT_EQ(sdb_db_env_state(), SDB_STATE_SECONDARY_RECOVERY);
	EXPECT_EQ(sdb_db_env_check(), SDB_ERR_RECOVERING);
	EXPECT_EQ(sdb_close_internal(false), SDB_ERR_FATAL);
}

TEST_F(SdbEnv, WriteUnlockOfAReadHeldLockIsRefusedAndKeepsIt)
{
	open_as_keel();
	sdb_db_info *info = sdb_db_info_ptr();
	ASSERT_EQ(sdb_db_lock(SDB_LOCK_READ), 0);
	EXPECT_EQ(info->lock_type, SDB_LOCK_READ);
	info->lock_pid = (uint32_t)getpid();
	EXPECT_EQ(sdb_db_unlock(SDB_LOCK_WRITE), SDB_ERR_LOCK_TYPE);
	EXPECT_EQ(sem_value(SDB_SEM_SECONDARY), 4);
	EXPECT_EQ(info->lock_pid, (uint32_t)getpid());

	/* The same with a living stranger's pid: refused, lock kept. */
	pid_t child = holder([] { return true; });
	info->lock_pid = (uint32_t)child;
	EXPECT_EQ(sdb_db_unlock(SDB_LOCK_WRITE), SDB_ERR_PARAM);
	EXPECT_EQ(sem_value(SDB_SEM_SECONDARY), 4);
	kill_and_reap(child);

	info->lock_pid = 0;
	EXPECT_EQ(sdb_db_unlock(SDB_LOCK_READ), 0);
	EXPECT_EQ(sem_value(SDB_SEM_SECONDARY), 5);
	EXPECT_TRUE(logged_event("LIBSDB_SEC_TABLE_LOCK_MISMATCH"));
}

TEST_F(SdbEnv, WriterKilledInsideTheTablesIsSeenByTheNextWriter)
{
	open_as_keel();
	pid_t child = holder([] { return sdb_db_lock(SDB_LOCK_WRITE) == 0; });
	EXPECT_EQ(sem_value(SDB_SEM_SECONDARY), 0);
	kill_and_reap(child);
	EXPECT_EQ(sem_value(SDB_SEM_SECONDARY), 5);
	EXPECT_EQ(sdb_db_info_ptr()->lock_pid, (uint32_t)child);

	/* An attach keeps the evidence for the rebuild. */
	sdb_db_secondary_detach();
	ASSERT_EQ(sdb_db_secondary_init(false, false), 0);
	EXPECT_EQ(sdb_db_info_ptr()->lock_pid, (uint32_t)child);

	ASSERT_EQ(sdb_db_lock(SDB_LOCK_WRITE), 0);
	EXPECT_EQ(sdb_db_info_ptr()->lock_pid, (uint32_t)getpid());
	EXPECT_TRUE(logged_event("LIBSDB_SEC_TABLE_LOCK\t"));
	EXPECT_TRUE(logged_event("held by pid " + std::to_string(child)));
	EXPECT_EQ(sdb_db_unlock(SDB_LOCK_WRITE), 0);
	EXPECT_EQ(sdb_db_info_ptr()->lock_type, -1);
}

TEST_F(SdbEnv, BucketLockIsNotRecursiveAndARefusalLeaksNothing)
{
	open_as_keel();
	sdb_lts_header *h = sdb_lts_header_ptr();
	uint64_t taken = sdb_lts_counter64(h->bucket_locks_taken);
	ASSERT_EQ(sdb_sentry_lock_acquire(12), 0);
	EXPECT_EQ(sdb_lts_bucket_ptr(12)->owner_pid, (uint32_t)getpid());
	EXPECT_EQ(sdb_lts_counter64(h->bucket_locks_taken), taken + 1);
	/* The same bucket again from the holding thread is refused. */
	uint32_t n = sdb_lts_bucket_count();
	EXPECT_EQ(sdb_sentry_lock_acquire(12 + n), SDB_ERR_LOCK_TYPE);
	ASSERT_EQ(sdb_sentry_lock_release(12), 0);
	EXPECT_EQ(sdb_lts_bucket_ptr(12)->owner_pid, 0u);

	/* The refusal did not leak the process lock. */
	int rc = -1;
	std::thread t([&] {
		rc = sdb_sentry_lock_acquire(3);
		if (rc == 0)
			sdb_sentry_lock_release(3);
	});
	t.join();
	EXPECT_EQ(rc, 0);
	EXPECT_EQ(sdb_lts_counter64(h->bucket_locks_contended), 0u);
}

TEST_F(SdbEnv, BucketHolderKilledBySigkillIsTakenOver)
{
	open_as_keel();
	pid_t child = holder([] { return sdb_sentry_lock_acquire(5) == 0; });
	sdb_lts_header *h = sdb_lts_header_ptr();
	EXPECT_EQ(sdb_lts_bucket_ptr(5)->owner_pid, (uint32_t)child);

	int rc = -1;
	uint32_t owner_seen = 0;
	std::thread waiter([&] {
		rc = sdb_sentry_lock_acquire(5);
		if (rc == 0) {
			owner_seen = sdb_lts_bucket_ptr(5)->owner_pid;
			sdb_sentry_lock_release(5);
		}
	});
	/* The waiter is waiting once it has counted a wait. */
	while (h->bucket_waits == 0)
		usleep(1000);
	kill_and_reap(child);
	waiter.join();
	ASSERT_EQ(rc, 0);
	EXPECT_EQ(owner_seen, (uint32_t)getpid());
	EXPECT_EQ(h->bucket_owner_dead, 1u);
	EXPECT_EQ(sdb_lts_counter64(h->bucket_locks_contended), 1u);
	EXPECT_EQ(sdb_lts_bucket_ptr(5)->owner_pid, 0u);
}

/* An owner word naming a live process that does not map the store (the
 * pid of a dead owner, reused) is stale: taken over, nobody killed. */
TEST_F(SdbEnv, ALiveStrangerInABucketWordIsNotAnOwner)
{
	open_as_keel();
	pid_t stranger = fork();
	if (stranger == 0) {
		execlp("sleep", "sleep", "600", static_cast<char *>(nullptr));
		_exit(127);
	}
	/* Wait until exec has dropped the mappings inherited by fork. */
	char exe[64], target[256] = "";
	snprintf(exe, sizeof(exe), "/proc/%d/exe", stranger);
	while (strstr(target, "sleep") == nullptr) {
		ssize_t n = readlink(exe, target, sizeof(target) - 1);
		target[n > 0 ? n : 0] = '\0';
	}
	sdb_lts_bucket_ptr(6)->owner_pid = (uint32_t)stranger;
	ASSERT_EQ(sdb_sentry_lock_acquire(6), 0);
	EXPECT_EQ(sdb_sentry_lock_release(6), 0);
	EXPECT_EQ(sdb_lts_header_ptr()->bucket_owner_dead, 1u);
	EXPECT_EQ(waitpid(stranger, nullptr, WNOHANG), 0) <<
	    "the stranger was killed";
	kill(stranger, SIGKILL);
	waitpid(stranger, nullptr, 0);
}

TEST_F(SdbEnv, ThreadsOfOneProcessTakeTurnsOnTheBuckets)
{
	open_as_keel();
	uint64_t shared = 0;	/* guarded by the bucket locks */
	constexpr int threads = 4, rounds = 2000;
	std::vector<std::thread> ts;
	std::atomic<int> failures{0};
	for (int t = 0; t < threads; t++)
		ts.emplace_back([&, t] {
			for (int i = 0; i < rounds; i++) {
				/* Different sessions, one per thread at a time. */
				uint64_t sid = (uint64_t)(t * 7 + i % 3);
				if (sdb_sentry_lock_acquire(sid) != 0) {
					failures++;
					continue;
				}
				shared++;
				sdb_sentry_lock_release(sid);
			}
		});
	for (auto &t : ts)
		t.join();
	EXPECT_EQ(failures.load(), 0);
	EXPECT_EQ(shared, (uint64_t)threads * rounds);
	for (uint32_t b = 0; b < sdb_lts_bucket_count(); b++)
		ASSERT_EQ(sdb_lts_bucket_ptr(b)->owner_pid, 0u);
}

TEST_F(SdbEnv, MisuseStops)
{
	open_as_keel();
	EXPECT_DEATH({
		sdb_lts_note_mapping_failure();
		fprintf(stderr, "acquire %d\n", sdb_sentry_lock_acquire(1));
		abort();
	}, "acquire -2");
	EXPECT_EQ(sdb_sentry_lock_acquire(1), 0);	/* this process is fine */
	EXPECT_EQ(sdb_sentry_lock_release(1), 0);
	EXPECT_DEATH(sdb_sentry_lock_release(4), "owner.load\\(\\) == me");
	sdb_process_thread_safe_lock();
	sdb_process_thread_safe_unlock();
	EXPECT_DEATH(sdb_process_thread_safe_unlock(),
	    "\\*lock == SDB_LOCK_LOCK_VALUE");
}

TEST(SdbWait, AnUnreapedDeadHolderIsDead)
{
	pid_t child = fork();
	if (child == 0)
		_exit(0);
	/* Until the parent reaps it the child is a zombie: it holds
	 * nothing, though kill(pid, 0) still finds it. */
	bool dead = false;
	for (int i = 0; i < 5000 && !dead; i++) {
		dead = !sdb_pid_alive((uint32_t)child);
		if (!dead)
			usleep(1000);
	}
	EXPECT_TRUE(dead);
	EXPECT_EQ(kill(child, 0), 0);
	waitpid(child, nullptr, 0);
	EXPECT_FALSE(sdb_pid_alive((uint32_t)child));
	EXPECT_TRUE(sdb_pid_alive((uint32_t)getpid()));
	EXPECT_FALSE(sdb_pid_alive(0));
}

TEST_F(SdbEnv, DeadClientAndKeelStartReleaseBuckets)
{
	open_as_keel();
	sdb_lts_header *h = sdb_lts_header_ptr();
	uint32_t dead = dead_pid();
	sdb_lts_bucket_ptr(8)->owner_pid = dead;
	h->sem_owner_pid = dead;
	ASSERT_EQ(sdb_lts_release_dead(dead), 0);
	EXPECT_EQ(sdb_lts_bucket_ptr(8)->owner_pid, 0u);
	EXPECT_EQ(h->sem_owner_pid, 0u);
	EXPECT_EQ(h->sem_owner_released, 1u);
	EXPECT_EQ(h->bucket_released_dead_client, 1u);
	EXPECT_EQ(sdb_lts_release_dead(0), 0);

	/* A keel that starts takes back what dead owners left. */
	sdb_lts_bucket_ptr(9)->owner_pid = dead_pid();
	ASSERT_EQ(sdb_close_internal(true), 0);
	open_as_keel();
	h = sdb_lts_header_ptr();
	EXPECT_EQ(sdb_lts_bucket_ptr(9)->owner_pid, 0u);
	EXPECT_EQ(h->bucket_released_keel_start, 1u);
}

/* keel's release of a client whose connection ended leaves the buckets
 * of a client that still lives alone: they are its own, not a dead one's. */
TEST_F(SdbEnv, ReleaseOfALiveClientTakesNothing)
{
	open_as_keel();
	pid_t child = holder([] { return sdb_sentry_lock_acquire(5) == 0; });
	ASSERT_EQ(sdb_lts_release_dead((uint32_t)child), 0);
	EXPECT_EQ(sdb_lts_bucket_ptr(5)->owner_pid, (uint32_t)child);
	EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0) << "the client was killed";
	EXPECT_EQ(sdb_lts_header_ptr()->bucket_released_dead_client, 0u);
	kill_and_reap(child);
}

TEST_F(SdbEnv, RemoveFiles)
{
	EXPECT_EQ(sdb_db_remove_files(true, 3), 0);	/* nothing there */
	open_as_keel();
	ASSERT_EQ(sdb_close_internal(true), 0);
	std::string plain = tolvar::path("/mfs/var/sdb/leftover");
	std::ofstream(plain) << "x";
	EXPECT_EQ(sdb_db_remove_files(false, 3), 0);
	EXPECT_TRUE(fs::exists(tolvar::path(SDB_HEAD_FILE)));

	EXPECT_EQ(sdb_db_remove_files(true, 2), 0);
	EXPECT_FALSE(fs::exists(plain));
	EXPECT_TRUE(fs::exists(tolvar::path(SDB_HEAD_FILE)));

	EXPECT_EQ(sdb_db_remove_files(true, 1), 0);
	EXPECT_FALSE(fs::exists(tolvar::path(SDB_HEAD_FILE)));
	EXPECT_FALSE(fs::exists(tolvar::path(SDB_INTF_FILE)));
	EXPECT_FALSE(fs::exists(tolvar::path(SDB_SHM_KEY_FILE)));
	EXPECT_TRUE(logged_event("LIBSDB_FILE_SEGMENT_REMOVED"));
}

TEST_F(SdbEnv, ClientRefusesAHeaderThatIsNotWhole)
{
	open_as_keel();
	ASSERT_EQ(sdb_close_internal(true), 0);
	std::string head = tolvar::path(SDB_HEAD_FILE);
	/* A keel that died before writing the magic. */
	{
		std::fstream f(head, std::ios::in | std::ios::out |
		    std::ios::binary);
		uint32_t zero = 0;
		f.write(reinterpret_cast<char *>(&zero), sizeof(zero));
	}
	EXPECT_EQ(sdb_lts_init(false), SDB_ERR_NOMEM);
	/* A short one would fault when mapped. */
	fs::resize_file(head, 100);
	EXPECT_EQ(sdb_lts_init(false), SDB_ERR_NOMEM);
	/* keel keeps the damaged one aside and makes it again. */
	EXPECT_EQ(sdb_lts_init(true), 0);
	EXPECT_TRUE(logged_event("LIBSDB_STORE_DAMAGED"));
	int kept = 0;
	fs::path dir = fs::path(head).parent_path();
	for (const auto &e : fs::directory_iterator(dir))
		if (e.path().filename().string().starts_with(
		    "sdb.head.damaged.")) {
			EXPECT_EQ(fs::file_size(e.path()), 100u);
			kept++;
		}
	EXPECT_EQ(kept, 1);
	sdb_lts_close();
	EXPECT_EQ(sdb_lts_init(false), 0);
	sdb_lts_close();
}

TEST(SdbAppTable, TableIdOutOfRange)
{
	EXPECT_EQ(sdb_app_table_size_set(10, 12), SDB_ERR_PARAM);
	EXPECT_EQ(sdb_app_table_size_set(-1, 12), SDB_ERR_PARAM);
	EXPECT_EQ(sdb_app_table_size_set(9, 12), 0);
}

} // namespace
