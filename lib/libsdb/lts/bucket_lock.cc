/*
 * Bucket locks of the long-term store and the per-process lock beside them.
 *
 * Invariants:
 * - A bucket's owner word is 0 or the pid of the process that holds it.
 * - Within a process, only the thread that holds sdb_process_lock may own
 *   buckets; sdb_process_lock is taken before the owner word and given
 *   back after it is cleared.  So the own pid in an owner word always
 *   means "this thread".
 * - A dead owner is found by the next waiter: after 500 failed attempts it
 *   reads the clock and, at once and then every 2 seconds, asks whether
 *   the owner lives and maps sdb.head.
 * - The own pid in an owner word that this process did not take is a dead
 *   owner's pid, reused: the buckets this process holds are kept in
 *   `owned`.  A process clears such words when it maps sdb.head, so a
 *   waiter never takes it for the owner, and never kills it.
 */
#include <atomic>
#include <ctime>
#include <unistd.h>
#include <unordered_set>

#include "platform/timescale.h"
#include "sdb_impl.h"

namespace {

struct process_lock {
	std::atomic<uint32_t> tid{0};
	uint32_t cnt = 0;
	uint64_t lock_total = 0;
	uint64_t wait_total = 0;
	uint64_t wait_usecs = 0;
} sdb_process_lock;

/* The buckets this process holds; changed by the process lock's holder. */
std::unordered_set<uint32_t> owned;

uint32_t bucket_of(uint64_t sid)
{
	return (uint32_t)(sid % sdb_lts_bucket_count());
}

std::atomic<bool> lts_frozen{false};
std::atomic<uint32_t> lts_frozen_thread{0};
std::atomic<uint32_t> failed_mappings{0};

constexpr uint32_t clock_after_attempts = 500;

void sleep_ms(long ms)
{
	struct timespec ts = {ms / 1000, (ms % 1000) * 1000000};
	nanosleep(&ts, nullptr);
}

std::atomic_ref<uint32_t> owner_word(uint64_t sid)
{
	return sdb_word(sdb_lts_bucket_ptr(bucket_of(sid))->owner_pid);
}

/*
 * The slow path of the wait, from the 500th failed attempt on: at once
 * and then every 2 seconds ask whether the owner lives, and take the
 * bucket from a dead one.  An owner that keeps the bucket for 60 seconds is hung: it is
 * killed and then treated like any dead owner, so the waiter lives on.
 * Only an owner that survives its kill for another 60 seconds stops the
 * process.  The minute is counted per owner: a bucket that changes hands
 * is busy, not hung.
 */
struct slow_wait {
	uint32_t watched = 0;
	uint64_t since_us = 0;
	uint64_t next_check_us = 0;
	bool killed = false;

	void tick(std::atomic_ref<uint32_t> owner, sdb_lts_header *h)
	{
		uint64_t now = sdb_now_usecs();
		uint32_t pid = owner.load();
		if (since_us == 0 || pid != watched) {
			/* The first test comes at once: an owner killed
			 * before we came is replaced without delay. */
			if (since_us == 0)
				next_check_us = now;
			watched = pid;
			since_us = now;
			killed = false;
		} else if (pid != 0 && now - since_us >= hang_limit()) {
			if (killed)
				sdb_lts_assert_fail("bucket owner survived its kill",
				    __FILE__, __LINE__);
			sdb_kill_lock_holder("lts", pid);
			killed = true;
			since_us = now;
			next_check_us = now;
		}
		if (now < next_check_us)
			return;
		next_check_us = now + check_interval();
		if (pid == 0 || sdb_lts_owner_alive(pid))
			return;
		sdb_count(h->bucket_owner_dead);
		uint32_t expect = pid;
		owner.compare_exchange_strong(expect, 0);
	}
	static uint64_t check_interval(void)
	{
		return (uint64_t)tolvar_scaled_ms(2) * 1000;
	}
	static uint64_t hang_limit(void)
	{
		return (uint64_t)tolvar_scaled_ms(60) * 1000;
	}
};

} // namespace

/* After a failed mapping the process is on its way out: no new bucket. */
void sdb_lts_note_mapping_failure(void)
{
	failed_mappings++;
}

extern "C" void sdb_lts_process_lock(void)
{
	uint32_t me = sdb_thread_id();
	while (lts_frozen.load() && lts_frozen_thread.load() != me)
		sleep_ms(10);	/* the process is going down */
	sdb_process_lock.lock_total++;
	if (sdb_process_lock.tid.load() == me) {
		sdb_process_lock.cnt++;
		return;
	}
	uint32_t attempts = 0;
	uint64_t waited = 0;
	for (;;) {
		uint32_t expect = 0;
		if (sdb_process_lock.tid.compare_exchange_weak(expect, me))
			break;
		if (expect != 0)
			waited += sdb_lock_backoff(++attempts);
	}
	sdb_process_lock.cnt = 1;
	sdb_process_lock.lock_total++;
	sdb_process_lock.wait_total += attempts;
	sdb_process_lock.wait_usecs += waited;
}

extern "C" void sdb_lts_process_unlock(void)
{
	uint32_t tid = sdb_thread_id();
	sdb_lts_assert(sdb_process_lock.tid == (u_int32_t) tid);
	sdb_lts_assert(sdb_process_lock.cnt);
	if (--sdb_process_lock.cnt != 0)
		return;
	uint64_t waited = 0;
	for (uint32_t attempts = 1;; attempts++) {
		uint32_t expect = tid;
		if (sdb_process_lock.tid.compare_exchange_strong(expect, 0))
			return;
		waited += sdb_lock_backoff(attempts);
		sdb_lts_assert(waited <= 20u * 1000000u);
	}
}

extern "C" int sdb_sentry_lock_acquire(uint64_t sid)
{
	sdb_lts_header *h = sdb_lts_header_ptr();
	if (failed_mappings.load() != 0 || h == nullptr) {
		sdb_event(3, "LIBSDB_LOCKING_FAILED_MAPPING_FAILURE",
		    "LIBSDB_LOCKING_FAILED_MAPPING_FAILURE: %s:%d not locking "
		    "session %llu due to mapping failure", __func__, __LINE__,
		    (unsigned long long)sid);
		return SDB_ERR_NOMEM;
	}
	while (lts_frozen.load())
		sleep_ms(10);
	auto owner = owner_word(sid);
	uint32_t me = (uint32_t)getpid();
	sdb_lts_process_lock();
	slow_wait slow;
	for (uint32_t attempts = 0;; attempts++) {
		uint32_t expect = 0;
		bool won = owner.compare_exchange_strong(expect, me);
		if (!won && expect == me && owned.count(bucket_of(sid)) == 0) {
			/* A word with our pid that we never took was left by
			 * a dead process of the same pid: it is ours now. */
			sdb_count(h->bucket_owner_dead);
			won = true;
		}
		if (won) {
			owned.insert(bucket_of(sid));
			if (attempts != 0)
				sdb_count64(h->bucket_locks_contended, 1);
			sdb_count64(h->bucket_locks_taken, 1);
			return 0;
		}
		if (expect == me) {
			/*
			 * This thread holds the bucket already (another
			 * session on the same bucket, or the same one).  The
			 * lock is not recursive, and waiting for oneself
			 * would end in the 60-second kill: refuse instead.
			 */
			sdb_lts_process_unlock();
			return SDB_ERR_LOCK_TYPE;
		}
		if (attempts >= clock_after_attempts)
			slow.tick(owner, h);
		if (owner.load() != 0) {
			sdb_count(h->bucket_waits);
			sdb_count64(h->bucket_wait_usecs,
			    sdb_lock_backoff(attempts + 1));
		}
	}
}

/*
 * The owner word is cleared before the per-process lock is given back:
 * the other order would let another thread of this process find its own
 * pid in the word and take the bucket for its own.
 */
extern "C" int sdb_sentry_lock_release(uint64_t sid)
{
	sdb_lts_header *h = sdb_lts_header_ptr();
	sdb_lts_assert(h != nullptr);
	auto owner = owner_word(sid);
	uint32_t me = (uint32_t)getpid();
	sdb_lts_assert(owner.load() == me);
	owned.erase(bucket_of(sid));
	for (uint32_t attempts = 1;; attempts++) {
		uint32_t expect = me;
		if (owner.compare_exchange_strong(expect, 0))
			break;
		sdb_count(h->bucket_release_retries);
		sdb_lock_backoff(attempts);
	}
	sdb_lts_process_unlock();
	return 0;
}

extern "C" void sdb_lts_release_own_buckets(void)
{
	uint32_t n = sdb_lts_bucket_count();
	uint32_t me = (uint32_t)getpid();
	for (uint32_t b = 0; b < n; b++) {
		auto owner = sdb_word(sdb_lts_bucket_ptr(b)->owner_pid);
		if (owner.load() != me)
			continue;
		if (sdb_process_lock.tid.load() == sdb_thread_id()) {
			sdb_sentry_lock_release(b);
		} else {
			/* Held by another thread of this dying process: that
			 * thread never comes back, so clear the word itself. */
			uint32_t expect = me;
			owner.compare_exchange_strong(expect, 0);
			owned.erase(b);
		}
	}
}

/*
 * Just after sdb.head is mapped: a word with our pid that we did not take
 * belongs to a dead process that had our pid.  Left there, it would make
 * us look like its owner to every waiter, who would wait for us and in
 * the end kill us.
 */
void sdb_lts_clear_stale_own(void)
{
	sdb_lts_header *h = sdb_lts_header_ptr();
	uint32_t n = sdb_lts_bucket_count();
	uint32_t me = (uint32_t)getpid();
	sdb_lts_process_lock();
	for (uint32_t b = 0; b < n; b++) {
		auto owner = sdb_word(sdb_lts_bucket_ptr(b)->owner_pid);
		uint32_t expect = me;
		if (owned.count(b) == 0 && owner.load() == me &&
		    owner.compare_exchange_strong(expect, 0)) {
			sdb_trace(SDB_TRACE_INFO, "Found lock %d of an earlier "
			    "pid %u, releasing", (int)b, me);
			sdb_count(h->bucket_owner_dead);
		}
	}
	sdb_lts_process_unlock();
}

extern "C" void sdb_lts_quiesce(void)
{
	if (sdb_lts_header_ptr() == nullptr)
		return;
	lts_frozen_thread.store(sdb_thread_id());
	lts_frozen.store(true);
	uint32_t n = sdb_lts_bucket_count();
	uint32_t me = (uint32_t)getpid();
	long waited_ms = 0, limit_ms = tolvar_scaled_ms(180);
	for (uint32_t b = 0; b < n; b++) {
		auto owner = sdb_word(sdb_lts_bucket_ptr(b)->owner_pid);
		while (owner.load() == me &&
		    sdb_process_lock.tid.load() != sdb_thread_id()) {
			sleep_ms(10);
			waited_ms += 10;
			if (waited_ms >= limit_ms) {
				sdb_lts_release_own_buckets();
				return;
			}
		}
	}
}

extern "C" int sdb_lts_release_dead(uint32_t pid)
{
	sdb_lts_header *h = sdb_lts_header_ptr();
	if (h == nullptr)
		return SDB_ERR_FATAL;
	if (pid == 0)
		return 0;
	sdb_count(h->dead_client_calls);
	/* A connection can end while its process lives on; what such a
	 * process holds is its own, and waiting for it here would stall
	 * keel and end in the hang limit's kill. */
	if (sdb_lts_owner_alive(pid)) {
		sdb_trace(SDB_TRACE_INFO, "pid %u still lives, nothing released",
		    pid);
		return 0;
	}
	uint32_t expect = pid;
	if (sdb_word(h->sem_owner_pid).load() == pid) {
		sdb_trace(SDB_TRACE_INFO, "Found semaphore lock for pid %d, releasing",
		    (int)pid);
		sdb_count(h->sem_owner_released);
		sdb_word(h->sem_owner_pid).compare_exchange_strong(expect, 0);
	}
	uint32_t n = sdb_lts_bucket_count();
	for (uint32_t b = 0; b < n; b++) {
		if (sdb_word(sdb_lts_bucket_ptr(b)->owner_pid).load() != pid)
			continue;
		sdb_trace(SDB_TRACE_INFO, "Found lock %d, releasing for pid %d",
		    (int)b, (int)pid);
		sdb_count(h->bucket_released_dead_client);
		if (sdb_sentry_lock_acquire(b) == 0)
			sdb_sentry_lock_release(b);
	}
	return 0;
}
