/*
 * Bucket locks and reused pids.  The test runs itself again in pid, mount
 * and IPC namespaces of its own, so that it can hand a dead owner's pid
 * to a new process on purpose through ns_last_pid.
 */
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "sdb/sdb.h"
#include "sdb/sdb_db.h"
#include "sdb_impl.h"

namespace {

/* keel's stores below a root of its own; removed at the end. */
struct stores {
	stores()
	{
		char tmpl[] = "/tmp/sdb-bucket-test-XXXXXX";
		if (mkdtemp(tmpl) == nullptr)
			abort();
		setenv("TOLVAR_ROOT", tmpl, 1);
		setenv("TOLVAR_NO_GCORE", "1", 1);
		root = tmpl;
		ok = sdb_open_internal(true) == 0 && sdb_lts_init(true) == 0;
	}
	~stores()
	{
		sdb_lts_close();
		sdb_close_internal(true);
		std::string cmd = "rm -rf " + root;
		(void)!system(cmd.c_str());
	}
	std::string root;
	bool ok;
};

constexpr uint64_t kSid = 7;

uint32_t owner(void)
{
	uint32_t n = sdb_lts_bucket_count();
	return sdb_word(sdb_lts_bucket_ptr((uint32_t)(kSid % n))->owner_pid)
	    .load();
}

/* A process that takes the bucket and dies holding it; its pid. */
pid_t dead_owner(void)
{
	pid_t pid = fork();
	if (pid == 0) {
		if (sdb_sentry_lock_acquire(kSid) == 0)
			raise(SIGKILL);
		_exit(1);
	}
	int st;
	EXPECT_EQ(waitpid(pid, &st, 0), pid);
	EXPECT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL);
	EXPECT_EQ(owner(), (uint32_t)pid);
	return pid;
}

/* The next fork gets pid. */
void reuse_next(pid_t pid)
{
	std::ofstream f("/proc/sys/kernel/ns_last_pid");
	f << pid - 1;
}

int reap(pid_t pid)
{
	int st = 0;
	EXPECT_EQ(waitpid(pid, &st, 0), pid);
	return st;
}

} // namespace

TEST(BucketLock, AReusedPidOfADeadOwnerIsNeitherWaitedForNorKilled)
{
	if (getpid() != 1) {
		/* Run again as the first process of new namespaces. */
		char exe[4096] = {};
		ASSERT_GT(readlink("/proc/self/exe", exe, sizeof(exe) - 1), 0);
		std::string cmd = "unshare --ipc --pid --fork --mount-proc -- " +
		    std::string(exe) + " --gtest_filter=BucketLock.AReusedPidOfADeadOwnerIsNeither"
		    "WaitedForNorKilled >&2";
		EXPECT_EQ(system(cmd.c_str()), 0);
		return;
	}
	stores db;
	ASSERT_TRUE(db.ok);

	/* An idle process that got the dead owner's pid and maps sdb.head:
	 * the waiter takes the bucket at once and the idle one lives on. */
	pid_t dead = dead_owner();
	reuse_next(dead);
	int ready[2];
	ASSERT_EQ(pipe(ready), 0);
	pid_t idle = fork();
	if (idle == 0) {
		sdb_lts_close();
		if (sdb_lts_init(false) != 0)
			_exit(1);
		(void)!write(ready[1], "r", 1);
		for (;;)
			pause();
	}
	ASSERT_EQ(idle, dead) << "the pid was not reused";
	char c;
	ASSERT_EQ(read(ready[0], &c, 1), 1);
	EXPECT_EQ(owner(), 0u) << "the word of the earlier pid was kept";
	EXPECT_EQ(sdb_sentry_lock_acquire(kSid), 0);
	EXPECT_EQ(sdb_sentry_lock_release(kSid), 0);
	EXPECT_EQ(waitpid(idle, nullptr, WNOHANG), 0) << "the idle one died";
	kill(idle, SIGKILL);
	reap(idle);

	/* A process with the dead owner's pid takes the bucket itself. */
	dead = dead_owner();
	reuse_next(dead);
	pid_t heir = fork();
	if (heir == 0)
		_exit(sdb_sentry_lock_acquire(kSid) == 0 &&
		    sdb_sentry_lock_release(kSid) == 0 ? 0 : 1);
	ASSERT_EQ(heir, dead) << "the pid was not reused";
	int st = reap(heir);
	EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
	EXPECT_EQ(owner(), 0u);
}
