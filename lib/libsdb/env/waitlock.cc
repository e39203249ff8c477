/*
 * Helpers for waiting on a lock whose holder may have died: backoff, the
 * liveness test of a holder and the last resort against a hung one.
 */
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

#include <mmf/mmf.h>

#include "sdb_impl.h"

/* The storage family's backoff: short sleeps that grow with the count. */
uint64_t sdb_lock_backoff(uint32_t attempts)
{
	return mmf_lock_backoff(attempts) / 1000;
}

/* A holder is alive while its pid exists and is not a zombie: a killed
 * process whose parent has not reaped it yet holds nothing any more. */
bool sdb_pid_alive(uint32_t pid)
{
	return pid != 0 && mmf_pid_alive((pid_t)pid);
}

/* A holder that kept a lock for a minute is hung: its core is written and
 * it is killed, by one waiter of all. */
void sdb_kill_lock_holder(const char *what, uint32_t pid)
{
	if (pid == 0 || pid == (uint32_t)getpid())
		return;
	sdb_trace(SDB_TRACE_ERR, "%s lock held by pid %u too long, killing it",
	    what, pid);
	mmf_kill_lock_holder(what, (pid_t)pid);
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
