/*
 * The lock of the secondary tables: semaphore 2 with the bookkeeping in
 * sdb_db_info.  lock_pid names the writer, so the next writer can see
 * that an earlier one died inside the tables (the kernel has already
 * given its tokens back) and the tables need a rebuild.
 */
#include <atomic>
#include <csignal>
#include <unistd.h>

#include "platform/process.h"
#include "sdb_impl.h"

namespace {
std::atomic<bool> sec_frozen{false};
std::atomic<uint32_t> sec_frozen_thread{0};
}

extern "C" int sdb_db_lock(int type)
{
	sdb_db_info *info = sdb_db_info_ptr();
	if (info == nullptr)
		return SDB_ERR_NOT_STARTED;
	uint32_t me_thread = sdb_thread_id();
	for (uint32_t n = 1; sec_frozen.load() &&
	    sec_frozen_thread.load() != me_thread; n++)
		sdb_lock_backoff(n);
	bool write = type == SDB_LOCK_WRITE;
	uint32_t me = (uint32_t)getpid();
	int rc = sdb_sem_lock(SDB_SEM_SECONDARY, write);
	if (rc != 0) {
		sdb_event(3, "LIBSDB_SEC_TABLE_LOCK_FAILED",
		    "LIBSDB_SEC_TABLE_LOCK_FAILED: %s:%d failed to lock secondary "
		    "table for name: %s, pid:%u, err:%d", __func__, __LINE__,
		    platform_progname(), me, rc);
		return rc;
	}
	auto lock_pid = sdb_word(info->lock_pid);
	auto lock_type = std::atomic_ref<int32_t>(info->lock_type);
	if (write) {
		uint32_t stale = lock_pid.load();
		if (stale != 0) {
			sdb_trace(SDB_TRACE_ERR,
			    "%s: LOCK type (%d) was still open by pid %u",
			    __func__, (int)lock_type.load(), stale);
			sdb_event(4, "LIBSDB_SEC_TABLE_LOCK",
			    "LIBSDB_SEC_TABLE_LOCK: %s:%d Secondary table lock "
			    "type (%d) held by pid %u, my name: %s - pid: %u",
			    __func__, __LINE__, (int)lock_type.load(), stale,
			    platform_progname(), me);
		} else if (lock_type.load() == SDB_LOCK_WRITE) {
			sdb_trace(SDB_TRACE_ERR,
			    "%s: Secondary table lock type still set to WRITE",
			    __func__);
			sdb_event(4, "LIBSDB_SEC_TABLE_LOCK_WRITE",
			    "LIBSDB_SEC_TABLE_LOCK_WRITE: %s: Secondary table lock "
			    "type still set to WRITE, my name: %s - pid: %u",
			    __func__, platform_progname(), me);
		}
		lock_pid.store(me);
	}
	lock_type.store(type);
	return 0;
}

static bool pid_is_alive(uint32_t pid)
{
	return sdb_pid_alive(pid);
}

extern "C" int sdb_db_unlock(int type)
{
	sdb_db_info *info = sdb_db_info_ptr();
	bool write = type == SDB_LOCK_WRITE;
	uint32_t me = (uint32_t)getpid();
	if (info == nullptr) {
		sdb_event(3, "LIBSDB_SEC_MEM_UNINITIALIZED",
		    "LIBSDB_SEC_MEM_UNINITIALIZED: %s:%d SDB secondary memory not "
		    "initialized for pid:%u", __func__, __LINE__, me);
	} else {
		auto lock_pid = sdb_word(info->lock_pid);
		auto lock_type = std::atomic_ref<int32_t>(info->lock_type);
		uint32_t holder = lock_pid.load();
		int32_t held = lock_type.load();
		if (write && held != SDB_LOCK_WRITE && holder != 0) {
			sdb_event(3, "LIBSDB_SEC_TABLE_LOCK_MISMATCH",
			    "LIBSDB_SEC_TABLE_LOCK_MISMATCH: %s:%d Secondary "
			    "table lock mismatch, held:%d, req:%u lock_pid: %u, "
			    "detected by name: %s, pid:%u", __func__, __LINE__,
			    (int)held, (unsigned)type, holder,
			    platform_progname(), me);
			if (holder == me && held == SDB_LOCK_READ)
				return SDB_ERR_LOCK_TYPE;
			if (pid_is_alive(holder))
				return SDB_ERR_PARAM;
		}
		if (write) {
			lock_pid.store(0);
			lock_type.store(-1);
		}
	}
	int rc = sdb_sem_unlock(SDB_SEM_SECONDARY, write);
	if (rc != 0)
		sdb_event(3, "LIBSDB_SEC_TABLE_UNLOCK_FAILED",
		    "LIBSDB_SEC_TABLE_UNLOCK_FAILED: %s:%d failed to unlock "
		    "secondary table for name: %s, pid:%u, err:%d", __func__,
		    __LINE__, platform_progname(), me, rc);
	return rc;
}

extern "C" void sdb_db_quiesce(void)
{
	sec_frozen_thread.store(sdb_thread_id());
	sec_frozen.store(true);
	if (sdb_db_lock(SDB_LOCK_WRITE) == 0)
		sdb_db_unlock(SDB_LOCK_WRITE);
}
