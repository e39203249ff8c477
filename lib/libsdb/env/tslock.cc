/*
 * sdb_process_thread_safe_lock: a process-local spin lock that keeps the
 * limit readers out while sdb_close_internal detaches the stores.  It
 * dies with the process, so no other process ever waits on it.
 */
#include <atomic>
#include <unistd.h>

#include "sdb_impl.h"

namespace {
std::atomic<uint32_t> thread_safe_lock{0};
std::atomic<uint64_t> lock_count{0};
std::atomic<uint64_t> unlock_count{0};
}

extern "C" void sdb_process_thread_safe_lock_wait(uint32_t count)
{
	usleep(1000);
	uint64_t secs = (uint64_t)count * 1000 / 1000000;
	if (!(secs <= 60))
		sdb_lts_assert_fail("secs <= 60", __FILE__, __LINE__);
}

extern "C" void sdb_process_thread_safe_lock(void)
{
	for (uint32_t tries = 1;; tries++) {
		uint32_t expect = 0;
		if (thread_safe_lock.compare_exchange_strong(expect,
		    SDB_LOCK_LOCK_VALUE))
			break;
		sdb_process_thread_safe_lock_wait(tries);
	}
	lock_count++;
}

extern "C" void sdb_process_thread_safe_unlock(void)
{
	if (thread_safe_lock.load() != SDB_LOCK_LOCK_VALUE)
		sdb_lts_assert_fail("*lock == SDB_LOCK_LOCK_VALUE", __FILE__,
		    __LINE__);
	for (uint32_t tries = 1;; tries++) {
		uint32_t expect = SDB_LOCK_LOCK_VALUE;
		if (thread_safe_lock.compare_exchange_strong(expect, 0))
			break;
		sdb_process_thread_safe_lock_wait(tries);
	}
	unlock_count++;
}
