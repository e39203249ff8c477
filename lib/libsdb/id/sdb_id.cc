/*
 * The session id generator: one u64 at offset 0 of the main segment, the
 * last id handed out.
 *
 * Invariants: bit 63 of the word is never set; the word changes only
 * under semaphore 0; every change is one aligned 64-bit store, so an
 * unlocked reader (the replication poll, sdb_id_get) sees the old or the
 * new value, never half of each.  A holder that dies in the critical
 * region has either stored or not, and SEM_UNDO gives the semaphore
 * back.
 */
#include <atomic>

#include "sdb/sdb_id.h"
#include "sdb_impl.h"

namespace {

uint64_t *id_word;

std::atomic_ref<uint64_t> word(void)
{
	return std::atomic_ref<uint64_t>(*id_word);
}

/* Runs fn(old) under semaphore 0 and stores what it gives. */
template <typename Fn>
int id_update(Fn fn, uint64_t *result)
{
	if (id_word == nullptr)
		return SDB_ERR_FATAL;
	int rc = sdb_sem_lock(SDB_SEM_ID_GEN, true);
	if (rc != 0)
		return rc;
	uint64_t v = fn(word().load(std::memory_order_relaxed));
	word().store(v, std::memory_order_release);
	if (result != nullptr)
		*result = v;
	if (sdb_sem_unlock(SDB_SEM_ID_GEN, true) != 0)
		return SDB_ERR_FATAL;
	return 0;
}

} // namespace

extern "C" int sdb_id_init(bool creator)
{
	/* The segment's creator zeroed it: 0 is "no id yet", nothing to do. */
	(void)creator;
	volatile uint64_t *w = sdb_id_word();
	if (w == nullptr) {
		sdb_trace(SDB_TRACE_ERR, "%s: no shared memory", __func__);
		return SDB_ERR_FATAL;
	}
	id_word = const_cast<uint64_t *>(w);
	static_assert(SDB_SEG_ID_WORD % alignof(uint64_t) == 0,
	    "the id word is stored in one access");
	return 0;
}

extern "C" void sdb_id_forget(void)
{
	id_word = nullptr;
}

extern "C" int sdb_id_generate(uint64_t *id)
{
	return id_update([](uint64_t last) {
		uint64_t next = (last + 1) & SDB_ID_MAX;
		return next == 0 ? uint64_t{1} : next;
	}, id);
}

extern "C" uint64_t sdb_id_get(void)
{
	if (id_word == nullptr)
		return 0;
	return word().load(std::memory_order_acquire);
}

extern "C" int sdb_id_set(uint64_t id)
{
	/* Bit 63 is never stored: a peer's word with it set is cut like a
	 * generated one, so the next id is still positive. */
	int rc = id_update([id](uint64_t) { return id & SDB_ID_MAX; },
	    nullptr);
	return rc == 0 ? 0 : SDB_ERR_FATAL;
}

extern "C" int sdb_id_raise(uint64_t id)
{
	int rc = id_update([id](uint64_t last) {
		uint64_t v = id & SDB_ID_MAX;
		return v > last ? v : last;
	}, nullptr);
	return rc == 0 ? 0 : SDB_ERR_FATAL;
}
