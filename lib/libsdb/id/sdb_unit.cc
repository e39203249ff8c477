/*
 * The unit pools: queues of free numbers in the main segment, one link
 * word per unit (see sdb/sdb_id.h for the layout).
 *
 * Invariants, under semaphore 1:
 *  - head and tail are both SDB_UNIT_END, or both valid indexes;
 *  - following link words from head reaches tail, whose word is
 *    SDB_UNIT_END; every unit on that path is free, every other unit is
 *    allocated and has the word SDB_UNIT_END.
 * The tail's word is the same as an allocated unit's, so "is this unit
 * free" is "its word is a link, or it is the tail".
 *
 * A holder that dies halfway leaves at worst a unit off the list (it
 * leaks) or a tail that lags behind the real end of the list; the next
 * holder, allocating or releasing, moves the tail on first.  Words are written
 * in an order that never puts one unit on the list twice.
 */
#include <algorithm>
#include <atomic>
#include <cstdio>

#include "platform/crashpoint.h"
#include "sdb/sdb_id.h"
#include "sdb_impl.h"

namespace {

struct pool_place {
	uint32_t offset;
	uint32_t first;
};
constexpr pool_place places[SDB_UNIT_TYPES] = {
	{SDB_SEG_UNIT_POOL0, SDB_UNIT_IFL_FIRST},
	{SDB_SEG_UNIT_POOL1, SDB_UNIT_UID_FIRST},
};
static_assert(SDB_SEG_UNIT_POOL0 % 4 == 0 && SDB_SEG_UNIT_POOL1 % 4 == 0);

sdb_unit_pool *pools[SDB_UNIT_TYPES];
/* sdb_unit_clear ran in this process since the last rebuild. */
bool cleared[SDB_UNIT_TYPES];

bool type_ok(int type)
{
	return type >= 0 && type < SDB_UNIT_TYPES;
}

/* Another process changes these words: every access is atomic. */
std::atomic_ref<uint32_t> w(uint32_t &word)
{
	return std::atomic_ref<uint32_t>(word);
}
uint32_t get(uint32_t &word)
{
	return w(word).load(std::memory_order_relaxed);
}
void put(uint32_t &word, uint32_t v)
{
	w(word).store(v, std::memory_order_relaxed);
}

/* The room of a pool in the segment. */
uint32_t room(int type)
{
	return type == SDB_UNIT_IFL ? SDB_SEG_UNIT_POOL0_UNITS :
	    (sdb_main_segment_size() > SDB_SEG_SIZE ?
	    SDB_SEG_UNIT_POOL1_UNITS_LARGE : SDB_SEG_UNIT_POOL1_UNITS);
}

/* The capacity as the pool says, bounded by its room in the segment. */
uint32_t capacity(int type, sdb_unit_pool *p)
{
	return std::min(get(p->max_units), room(type));
}

bool valid(uint32_t index, uint32_t cap)
{
	return index < cap;
}

sdb_unit_pool *pool_or_log(const char *fn, int type)
{
	if (!type_ok(type)) {
		sdb_trace(SDB_TRACE_ERR, "%s: type=%d out of range", fn, type);
		return nullptr;
	}
	if (pools[type] == nullptr)
		sdb_trace(SDB_TRACE_ERR, "%s: unit_allocator[%d] is NULL", fn,
		    type);
	return pools[type];
}

class pool_lock {
public:
	pool_lock() : rc_(sdb_sem_lock(SDB_SEM_UNIT_POOL, true)) {}
	~pool_lock()
	{
		if (rc_ == 0)
			sdb_sem_unlock(SDB_SEM_UNIT_POOL, true);
	}
	pool_lock(const pool_lock &) = delete;
	pool_lock &operator=(const pool_lock &) = delete;
	bool held(void) const { return rc_ == 0; }

private:
	int rc_;
};

/*
 * The true tail: the tail word may lag behind the end of the list when a
 * releaser died between linking a unit and recording it as the tail, and
 * may be missing while head is set.  Walk on from it (or from head) to
 * the unit whose word ends the list.  Bounded by the capacity, so a
 * damaged cycle cannot hold the lock for ever.
 */
uint32_t true_tail(sdb_unit_pool *p, uint32_t cap)
{
	uint32_t head = get(p->head);
	if (!valid(head, cap))
		return SDB_UNIT_END;
	uint32_t t = get(p->tail);
	if (!valid(t, cap))
		t = head;
	for (uint32_t steps = 0; steps < cap; steps++) {
		uint32_t next = get(p->link[t]);
		if (!valid(next, cap))
			break;
		t = next;
	}
	if (t != get(p->tail))
		put(p->tail, t);
	return t;
}

/* Is index on the free list?  Its word is a link, or it is the tail. */
bool is_free(sdb_unit_pool *p, uint32_t index, uint32_t tail)
{
	return get(p->link[index]) != SDB_UNIT_END || index == tail;
}

/* A fresh or cleared pool: every unit free, in ascending order. */
void link_ascending(sdb_unit_pool *p, uint32_t cap)
{
	if (cap == 0) {
		put(p->head, SDB_UNIT_END);
		put(p->tail, SDB_UNIT_END);
		return;
	}
	for (uint32_t i = 0; i + 1 < cap; i++) {
		put(p->link[i], i + 1);
		if (i == cap / 2)
			TOLVAR_CRASH_POINT("unit.fill");
	}
	put(p->link[cap - 1], SDB_UNIT_END);
	put(p->tail, cap - 1);
	put(p->head, 0);
}

void dump(FILE *out, sdb_unit_pool *p, uint32_t cap)
{
	uint32_t tail = get(p->tail);
	fprintf(out, "unit number allocator {\n");
	fprintf(out, "max unit number = %d\n", (int)get(p->max_units));
	fprintf(out, "available unit number(s) = %d\n", (int)get(p->available));
	fprintf(out, "head = %d\n", (int)get(p->head));
	fprintf(out, "tail = %d\n", (int)tail);
	fprintf(out, "master = %d\n", (int)sdb_is_master);
	fprintf(out, "allocated = {\n");
	for (uint32_t i = 0; i < cap; i++)
		if (get(p->link[i]) == SDB_UNIT_END && i != tail)
			fprintf(out, "%d\n", (int)i);
	fprintf(out, "}\n");
	fprintf(out, "}\n");
}

} // namespace

extern "C" uint32_t sdb_unit_first(int type)
{
	return type_ok(type) ? places[type].first : 0;
}

extern "C" struct sdb_unit_pool *sdb_unit_pool_ptr(int type)
{
	return type_ok(type) ? pools[type] : nullptr;
}

/*
 * The creator of an empty pool (capacity 0: the segment was just zeroed)
 * fills it in.  It also links every unit in ascending order: a pool with
 * all link words 0 and head 0 would hand out unit 0 again and again until
 * a recovery rebuilt the list, and an allocation may come first.  The
 * list so made is the one a recovery over no sessions makes.
 */
extern "C" int sdb_unit_init(uint32_t cap, bool creator, int type)
{
	if (!type_ok(type)) {
		sdb_trace(SDB_TRACE_ERR, "%s: type=%d out of range", __func__,
		    type);
		return SDB_UNIT_ERR_POOL;
	}
	uint8_t *seg = sdb_main_segment();
	if (seg == nullptr) {
		sdb_trace(SDB_TRACE_ERR, "%s: unit_allocator[%d] is NULL",
		    __func__, type);
		return SDB_UNIT_ERR_POOL;
	}
	sdb_unit_pool *p = reinterpret_cast<sdb_unit_pool *>(seg +
	    places[type].offset);
	pools[type] = p;
	if (!creator || get(p->max_units) != 0)
		return 0;
	pool_lock lock;
	if (!lock.held())
		return SDB_UNIT_ERR_LOCK;
	if (get(p->max_units) != 0)
		return 0;
	/*
	 * The capacity marks the pool as filled, so it is written last: a
	 * creator that dies inside the fill leaves capacity 0, and the next
	 * start fills the pool again.  Written first, it left a pool whose
	 * links end early and lead back to unit 0, handed out twice.
	 */
	cap = std::min(cap, room(type));
	link_ascending(p, cap);
	put(p->available, cap);
	TOLVAR_CRASH_POINT("unit.fill_done");
	put(p->max_units, cap);
	return 0;
}

extern "C" void sdb_unit_forget(int type)
{
	if (type_ok(type))
		pools[type] = nullptr;
}

/* The environment's open attaches both pools; keel fills them. */
void sdb_unit_pools_init(void)
{
	struct keel_handle *h = sdb_env_handle();
	bool creator = h != nullptr && h->is_keel;
	sdb_unit_init(SDB_SEG_UNIT_POOL0_UNITS, creator, SDB_UNIT_IFL);
	sdb_unit_init(sdb_large_id_space() ? SDB_SEG_UNIT_POOL1_UNITS_LARGE :
	    SDB_SEG_UNIT_POOL1_UNITS, creator, SDB_UNIT_UID);
}

void sdb_unit_pools_forget(void)
{
	for (int t = 0; t < SDB_UNIT_TYPES; t++)
		sdb_unit_forget(t);
}

extern "C" int sdb_unit_allocate(uint32_t *number, int type)
{
	sdb_unit_pool *p = pool_or_log(__func__, type);
	if (p == nullptr)
		return SDB_UNIT_ERR_POOL;
	pool_lock lock;
	if (!lock.held())
		return SDB_UNIT_ERR_LOCK;
	uint32_t cap = capacity(type, p);
	/* A tail left behind by a dead releaser is caught up first: once
	 * its unit is handed out, a release would link behind a unit in
	 * use and lose what it links. */
	true_tail(p, cap);
	uint32_t head = get(p->head);
	if (!valid(head, cap))
		return SDB_UNIT_ERR_EMPTY;
	uint32_t next = get(p->link[head]);
	/* Unhook first, mark second: dying in between leaks this unit but
	 * never gives it out twice. */
	if (!valid(next, cap)) {
		put(p->tail, SDB_UNIT_END);
		next = SDB_UNIT_END;
	}
	put(p->head, next);
	put(p->link[head], SDB_UNIT_END);
	uint32_t avail = get(p->available);
	if (avail > 0)
		put(p->available, avail - 1);
	*number = places[type].first + head;
	return 0;
}

/*
 * The tail's word looks allocated; it is refused like every other free
 * unit, or a second release would link it behind itself and hand it out
 * twice.
 */
extern "C" int sdb_unit_release(uint32_t number, int type)
{
	if (!type_ok(type)) {
		sdb_trace(SDB_TRACE_ERR, "%s: type=%d out of range", __func__,
		    type);
		return SDB_UNIT_ERR_TYPE;
	}
	sdb_unit_pool *p = pool_or_log(__func__, type);
	if (p == nullptr)
		return SDB_UNIT_ERR_POOL;
	uint32_t index = number - places[type].first;
	if (number < places[type].first || !valid(index, capacity(type, p)))
		return SDB_UNIT_ERR_POOL;
	pool_lock lock;
	if (!lock.held())
		return SDB_UNIT_ERR_LOCK;
	uint32_t cap = capacity(type, p);
	uint32_t tail = true_tail(p, cap);
	if (is_free(p, index, tail))
		return SDB_UNIT_ERR_FREE;
	if (valid(tail, cap)) {
		put(p->link[tail], index);
		put(p->tail, index);
	} else {
		/* Head first: with head set and tail not, the next holder
		 * finds the tail by walking from head. */
		put(p->head, index);
		put(p->tail, index);
	}
	put(p->available, get(p->available) + 1);
	return 0;
}

extern "C" int sdb_unit_clear(int type)
{
	sdb_unit_pool *p = pool_or_log(__func__, type);
	if (p == nullptr)
		return SDB_UNIT_ERR_POOL;
	uint32_t cap = capacity(type, p);
	put(p->head, 0);
	put(p->tail, 0);
	for (uint32_t i = 0; i < cap; i++)
		put(p->link[i], 0);
	cleared[type] = true;
	return 0;
}

/* Recovery runs alone: no lock. */
extern "C" int sdb_unit_recover(uint32_t number, int type)
{
	sdb_unit_pool *p = pool_or_log(__func__, type);
	if (p == nullptr)
		return SDB_UNIT_ERR_POOL;
	uint32_t index = number - places[type].first;
	if (number < places[type].first || !valid(index, capacity(type, p)))
		return SDB_UNIT_ERR_POOL;
	put(p->link[index], SDB_UNIT_END);
	return 0;
}

/*
 * Every word that is not SDB_UNIT_END is free: link them in ascending
 * order.  The available count is left as it stands.
 *
 * A rebuild that finds the tables whole runs this on the live pool,
 * without a clear.  There the tail is free although its word reads
 * SDB_UNIT_END; taking the word alone would drop it from the pool at
 * every such start.  After a clear the words are all there is: the tail
 * index then means nothing and may be a unit in use.
 */
extern "C" int sdb_unit_recovered(int type)
{
	sdb_unit_pool *p = pool_or_log(__func__, type);
	if (p == nullptr)
		return SDB_UNIT_ERR_POOL;
	uint32_t cap = capacity(type, p);
	uint32_t live_tail = cleared[type] ? SDB_UNIT_END : true_tail(p, cap);
	cleared[type] = false;
	uint32_t head = SDB_UNIT_END, prev = SDB_UNIT_END;
	for (uint32_t i = 0; i < cap; i++) {
		if (get(p->link[i]) == SDB_UNIT_END && i != live_tail)
			continue;
		put(p->link[i], SDB_UNIT_END);
		if (head == SDB_UNIT_END)
			head = i;
		else
			put(p->link[prev], i);
		prev = i;
	}
	put(p->head, head);
	put(p->tail, prev);
	return 0;
}

void sdb_unit_dump_to(FILE *out, int type)
{
	if (type_ok(type) && pools[type] != nullptr)
		dump(out, pools[type], capacity(type, pools[type]));
}

extern "C" int sdb_dump_pool(int type)
{
	sdb_unit_pool *p = pool_or_log(__func__, type);
	if (p == nullptr)
		return SDB_UNIT_ERR_POOL;
	dump(stdout, p, capacity(type, p));
	fflush(stdout);
	return 0;
}

extern "C" uint32_t sdb_unit_number_parse(const char *s)
{
	if (s == nullptr || *s < '0' || *s > '9')
		return SDB_UNIT_INVALID;
	uint64_t v = 0;
	for (; *s >= '0' && *s <= '9'; s++) {
		v = v * 10 + (uint64_t)(*s - '0');
		/* A number that does not fit is no unit of any pool; cutting it
		 * to 32 bits would name another session's unit. */
		if (v > 0xffffffffu)
			return SDB_UNIT_INVALID;
	}
	return (uint32_t)v;
}
