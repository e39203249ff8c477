/*
 * The lock word of a heap file: one spin lock with sleeps, shared by the
 * threads of every process that maps the file, recursive per thread.
 *
 * Invariants:
 *  - the word holds 0 or the pid of the holding process, and changes only
 *    by compare-and-swap;
 *  - locker_cnt > 0 exactly while locker_thread holds it in this process;
 *  - a dead holder is replaced only at the word: the waiter takes the word
 *    from the dead pid, repairs what a half-done operation may have left,
 *    and releases it for the normal contest.
 */
#include "mmf_impl.h"

#include <sched.h>

using namespace mmf_impl;

namespace {

std::atomic_ref<uint32_t> lock_word(mmf_t *m)
{
	return std::atomic_ref<uint32_t>(m->shared_info->lockerpid);
}

void note_won(mmf_t *m, pid_t tid, uint32_t spins, uint64_t slept)
{
	m->locker_thread.store(tid);
	MMF_ASSERT(m->locker_cnt.load() == 0);
	m->locker_cnt.store(1);
	mmf_shared_info_t *si = m->shared_info;
	if (spins > si->most_spins)
		si->most_spins = spins;
	if (spins > m->stats.most_spins)
		m->stats.most_spins = spins;
	if (spins > 0) {
		uint32_t slot = spins < MMF_CONTENTION_SLOTS - 1 ? spins :
		    MMF_CONTENTION_SLOTS - 1;
		MMF_BUMP(m, contention_hist[slot]);
		MMF_BUMP(m, contended_count);
		si->lock_wait_ns += slept;
		m->stats.lock_wait_ns += slept;
	}
	MMF_BUMP(m, lock_count);
}

/*
 * The holder died inside the lock.  Take the word from it (only one
 * waiter wins the swap), repair, and give the word back.
 */
void take_from_dead(mmf_t *m, uint32_t dead, pid_t tid)
{
	uint32_t expected = dead;
	if (!lock_word(m).compare_exchange_strong(expected,
	    static_cast<uint32_t>(mmf_getpid())))
		return;
	m->locker_thread.store(tid);
	m->locker_cnt.store(1);
	MMF_BUMP(m, dead_holder_takeovers);
	log_event("MMF_LOCK_HOLDER_DEAD", __func__, __LINE__,
	    "lock of %s taken from dead pid %u", m->name, dead);
	try {
		repair_after_dead_holder(m);
	} catch (const mmf_damage &d) {
		note_damage(m, __func__, d);
	}
	mmf_unlock(m);
}

} // namespace

extern "C" void mmf_lock(mmf_t *m)
{
	pid_t tid = gettid_cached();
	uint32_t self = static_cast<uint32_t>(mmf_getpid());

	while (m->closing.load() && m->closing_thread.load() != tid)
		sleep_ns(10000000);

	if (m->locker_cnt.load() > 0 && lock_word(m).load() == self &&
	    m->locker_thread.load() == tid) {
		uint32_t depth = m->locker_cnt.fetch_add(1) + 1;
		MMF_BUMP(m, nested_count);
		if (depth > m->shared_info->deepest_nesting)
			m->shared_info->deepest_nesting = depth;
		if (depth > m->stats.deepest_nesting)
			m->stats.deepest_nesting = depth;
		return;
	}
	if (m->locker_cnt.load() == 0 && lock_word(m).load() == self) {
		uint32_t n = m->unlock_in_progress_cnt.load();
		bool in_unlock = n > 0 && n <= MMF_MAX_UNLOCK_IN_PROGRESS &&
		    m->unlock_in_progress[n - 1].load() == tid;
		if (m->locker_thread.load() == tid || in_unlock) {
			m->locker_cnt.store(1);
			m->locker_thread.store(tid);
			if (in_unlock)
				MMF_BUMP(m, relock_in_unlock);
			else
				MMF_BUMP(m, relock_at_zero);
			return;
		}
	}

	uint32_t spins = 0;
	uint64_t slept = 0;
	uint64_t clock_start = 0, last_alive_check = 0;
	uint32_t watched = 0;
	bool killed = false, stale_self_seen = false;
	for (;;) {
		uint32_t expected = 0;
		if (lock_word(m).compare_exchange_weak(expected, self))
			break;
		spins++;
		if (spins >= 500) {
			uint64_t now = now_ns();
			uint32_t holder = expected;
			/*
			 * The first liveness test comes at once, not two
			 * seconds on: a holder killed before we came is
			 * replaced without delay.
			 */
			if (holder != 0 && (last_alive_check == 0 ||
			    now - last_alive_check >= scaled_ns(2))) {
				last_alive_check = now;
				/*
				 * Our own pid with no handle of ours holding is a
				 * word left by a dead process of the same pid; it
				 * must be seen twice, two seconds apart, since a
				 * thread of ours may be between winning the word
				 * and recording it.
				 */
				bool dead = !holder_alive(m, holder);
				if (dead && holder == self && !stale_self_seen) {
					stale_self_seen = true;
					dead = false;
				}
				if (dead) {
					take_from_dead(m, holder, tid);
					continue;
				}
			}
			if (holder != watched) {
				/* Sixty seconds are counted per holder: a busy
				 * lock that changes hands is not a hung one. */
				watched = holder;
				clock_start = now;
				killed = false;
			} else if (holder != 0 &&
			    now - clock_start >= scaled_ns(60)) {
				/*
				 * The holder is killed and its lock then taken
				 * over as from any dead holder; we stop only
				 * when a killed holder still holds it.
				 */
				if (killed)
					mmf_detected_fatal_problem(60,
					    "lock holder did not die", __FILE__,
					    __LINE__);
				mmf_kill_lock_holder("mmf",
				    static_cast<pid_t>(holder));
				killed = true;
				clock_start = now_ns();
				last_alive_check = 0;
				continue;
			}
		}
		if (lock_word(m).load() == 0) {
			MMF_BUMP(m, spins_ended_free);
			continue;
		}
		if (spins < 50)
			sched_yield();
		else
			slept += mmf_lock_backoff(spins);
	}
	note_won(m, tid, spins, slept);

	uint64_t n = m->shared_info->lock_count;
	if (!m->no_meminfo && (n % 1000000 == 0 ||
	    (n % 1000 == 0 && meminfo_refresh_wanted_mmf(m))))
		meminfo_refresh(m);
}

extern "C" void mmf_unlock(mmf_t *m)
{
	pid_t tid = gettid_cached();
	uint32_t self = static_cast<uint32_t>(mmf_getpid());

	MMF_ASSERT(lock_word(m).load() == self);
	MMF_ASSERT(m->locker_thread.load() == tid);
	MMF_ASSERT(m->locker_cnt.load() > 0);
	MMF_ASSERT(m->unlock_in_progress_cnt.load() < MMF_MAX_UNLOCK_IN_PROGRESS);
	if (m->locker_cnt.fetch_sub(1) - 1 > 0)
		return;
	uint32_t slot = m->unlock_in_progress_cnt.fetch_add(1);
	if (slot < MMF_MAX_UNLOCK_IN_PROGRESS)
		m->unlock_in_progress[slot].store(tid);
	m->locker_thread.store(0);
	uint32_t expected = self;
	if (lock_word(m).compare_exchange_strong(expected, 0))
		MMF_BUMP(m, unlock_count);
	else
		MMF_BUMP(m, unlock_word_changed);
	if (slot < MMF_MAX_UNLOCK_IN_PROGRESS)
		m->unlock_in_progress[slot].store(0);
	m->unlock_in_progress_cnt.fetch_sub(1);
}
