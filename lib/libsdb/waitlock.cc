/*
 * Helpers for waiting on a lock whose holder may have died: backoff, the
 * liveness test of a holder and the last resort against a hung one.
 */
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "sdb_impl.h"

/*
 * A short spin first, then sleeps that grow to 10 ms: the holder of a
 * bucket lock normally gives it back within microseconds.
 */
uint64_t sdb_lock_backoff(uint32_t attempts)
{
	if (attempts < 16) {
		sched_yield();
		return 0;
	}
	uint64_t us = attempts < 100 ? 100 : attempts < 400 ? 1000 : 10000;
	struct timespec ts = {0, (long)us * 1000};
	nanosleep(&ts, nullptr);
	return us;
}

/*
 * A holder is alive while its pid exists and is not a zombie: a killed
 * process whose parent has not reaped it yet holds nothing any more.
 */
bool sdb_pid_alive(uint32_t pid)
{
	if (pid == 0)
		return false;
	if (kill((pid_t)pid, 0) != 0 && errno == ESRCH)
		return false;
	char path[64];
	snprintf(path, sizeof(path), "/proc/%u/stat", pid);
	FILE *f = fopen(path, "r");
	if (f == nullptr)
		return errno != ENOENT;
	char buf[512];
	size_t n = fread(buf, 1, sizeof(buf) - 1, f);
	fclose(f);
	buf[n] = '\0';
	/* The state follows the last ')' of the command name. */
	const char *p = nullptr;
	for (size_t i = 0; i < n; i++)
		if (buf[i] == ')')
			p = buf + i;
	if (p == nullptr || p[1] == '\0' || p[2] == '\0')
		return true;
	return p[2] != 'Z' && p[2] != 'X';
}

/*
 * A holder that kept a lock for a minute is hung.  Its core is more use
 * than its life: gcore it if the tool is there, then kill it.
 */
void sdb_kill_lock_holder(const char *what, uint32_t pid)
{
	if (pid == 0 || pid == (uint32_t)getpid())
		return;
	sdb_trace(SDB_TRACE_ERR, "%s lock held by pid %u too long, killing it",
	    what, pid);
	char cmd[128];
	snprintf(cmd, sizeof(cmd), "gcore %u >/dev/null 2>&1", pid);
	if (access("/usr/bin/gcore", X_OK) == 0 && system(cmd) != 0)
		sdb_trace(SDB_TRACE_ERR, "gcore of pid %u failed", pid);
	kill((pid_t)pid, SIGKILL);
}

uint32_t sdb_thread_id(void)
{
	static thread_local uint32_t tid = (uint32_t)syscall(SYS_gettid);
	return tid;
}

uint64_t sdb_now_usecs(void)
{
	struct timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return (uint64_t)ts.tv_sec * 1000000u + (uint64_t)ts.tv_nsec / 1000u;
}
