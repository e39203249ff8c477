/*
 * The long-term store: heads in sdb.lts.data hashed through the rows of
 * sdb.head, and the sections of each session.
 *
 * Crash rule: a writer may be killed at any instruction while it holds a
 * bucket, and the next holder goes on with what it finds.  So every change
 * that others can see is one store of one instruction: a chain link or a
 * row word is one 8-byte store, a section descriptor one 16-byte store.
 * A section is never rewritten where it lies: the new value goes to a new
 * place, the descriptor moves to it, and only then is the old place given
 * back.  A kill between two steps loses at most some bytes of the heap,
 * never a value or a link.
 */
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <emmintrin.h>
#include <unistd.h>

#include "mmf/mmf.h"
#include "mmf/mmf_format.h"
#include "platform/crashpoint.h"
#include "sdb/sdb_lts.h"
#include "sdb_impl.h"

#if !defined(__x86_64__)
#error "the single-instruction stores below assume x86-64"
#endif

namespace {

using head_t = sdb_lts_head;

/* Crash-atomic stores: one instruction each (see the file comment). */
inline void put64(void *p, uint64_t v)
{
	_mm_storel_epi64(static_cast<__m128i *>(p), _mm_cvtsi64_si128((long long)v));
}
inline uint64_t get64(const void *p)
{
	uint64_t v;
	memcpy(&v, p, 8);
	return v;
}
inline void put_desc(sdb_lts_desc *d, uint64_t off, uint32_t len,
    uint32_t cap)
{
	__m128i v = _mm_set_epi32((int)cap, (int)len, (int)(uint32_t)(off >> 32),
	    (int)(uint32_t)off);
	_mm_storeu_si128(reinterpret_cast<__m128i *>(d), v);
}

uint32_t bucket_of(uint64_t sid)
{
	return (uint32_t)(sid % sdb_lts_bucket_count());
}

sdb_lts_bucket *row(uint32_t b)
{
	return sdb_lts_bucket_ptr(b);
}

/* Longest section of each kind, by descriptor index (the same order). */
uint32_t *max_seen_word(int idx)
{
	return &sdb_lts_header_ptr()->max_client + idx;
}

/* Descriptor index of a table and blob; -1 for a bad pair. */
int desc_index(uint32_t table, uint32_t blob)
{
	if (table < SDB_TABLE_APP)
		return (int)table;
	if (table == SDB_TABLE_APP && blob >= 1 && blob <= SDB_APP_BLOB_MAX)
		return SDB_TABLE_APP + (int)blob;
	return -1;
}

volatile int lts_corrupt_line;

/*
 * A damaged chain or head.  Stopping would stop every process that walks
 * the bucket, over and over: mark the store damaged, refuse the bucket,
 * and leave the naming of the damage to the check.
 */
int damaged(int line, uint32_t bucket, uint64_t sid, const char *why)
{
	lts_corrupt_line = line;
	sdb_event(2, "LIBSDB_LTS_CORRUPTION",
	    "LIBSDB_LTS_CORRUPTION: LTS bucket %u session %llu damaged: %s "
	    "(line %d)", bucket, (unsigned long long)sid, why, line);
	return SDB_ERR_CORRUPT;
}
#define DAMAGED(b, sid, why) damaged(__LINE__, (b), (sid), (why))

/* Whether an offset read from the store may name a block of len bytes. */
bool plausible(uint64_t off, uint32_t len)
{
	mmf_t *m = sdb_lts_data();
	return off >= mmf_get_first_alloc_offset(m) + MMF_NODE_HEADER_BYTES &&
	    off + len <= mmf_get_current_bytes(m);
}

/* A head at off, or null when off names no head (damage). */
head_t *head_at(uint64_t off)
{
	/* A damaged link may name any byte: a head is never misaligned. */
	if (off % alignof(head_t) != 0 || !plausible(off, SDB_LTS_MAX_RECORD))
		return nullptr;
	auto *h = static_cast<head_t *>(sdb_lts_map(off, SDB_LTS_MAX_RECORD));
	return h->self == off ? h : nullptr;
}

bool in_block(const head_t *h, uint64_t off)
{
	return off >= h->self + SDB_LTS_HEAD_SIZE &&
	    off < h->self + SDB_LTS_MAX_RECORD;
}

bool head_sane(const head_t *h)
{
	return h->cursor >= h->self + SDB_LTS_HEAD_SIZE &&
	    h->cursor <= h->self + SDB_LTS_MAX_RECORD &&
	    h->cursor + h->left == h->self + SDB_LTS_MAX_RECORD &&
	    h->used >= SDB_LTS_HEAD_SIZE && h->used <= SDB_LTS_MAX_RECORD;
}

bool has_section(const head_t *h)
{
	for (const sdb_lts_desc &d : h->desc)
		if (d.offset != 0)
			return true;
	return false;
}

/* The result of a walk: the head (or none) and its predecessor. */
struct found {
	int rc = 0;		/* 0 or -5 for a damaged bucket */
	uint64_t off = 0;
	uint64_t prev = 0;
	int walked = 0;
};

/*
 * Walk a chain for sid.  Repairs what the repair rules mend; what they
 * cannot mend (a link into nowhere, a chain past its bound) refuses the
 * bucket.
 */
found walk(uint64_t sid)
{
	found f;
	uint32_t b = bucket_of(sid);
	for (int round = 0; round < 2; round++) {
		uint64_t off = get64(row(b)->first_head), prev = 0;
		int steps = 0;
		bool repaired = false;
		while (off != 0) {
			head_t *h = head_at(off);
			if (h == nullptr) {
				f.rc = DAMAGED(b, sid, "link to no head");
				return f;
			}
			if (h->sid == sid) {
				f.off = off;
				f.prev = prev;
				f.walked = steps;
				return f;
			}
			uint64_t next = h->next;
			uint64_t cur_sid = h->sid;
			if (next != 0) {
				head_t *n = head_at(next);
				if (n != nullptr && n->sid == cur_sid) {
					sdb_lts_chain_repair(b);
					repaired = true;
					break;
				}
			}
			prev = off;
			off = next;
			if (++steps >= SDB_LTS_CHAIN_MAX) {
				sdb_lts_chain_repair(b);
				repaired = true;
				break;
			}
		}
		if (!repaired) {
			f.walked = steps;
			return f;
		}
	}
	f.rc = DAMAGED(b, sid, "chain beyond its bound after repair");
	return f;
}

/* Unlink a head from its chain: one store.  Its block goes back unless it
 * is the bucket's spare; its heap sections are the caller's. */
void unlink_head(uint32_t b, uint64_t off, uint64_t prev)
{
	head_t *h = head_at(off);
	uint64_t next = h->next;
	if (prev == 0) {
		put64(row(b)->first_head, next);
	} else {
		head_t *p = head_at(prev);
		if (p == nullptr) {
			sdb_trace(SDB_TRACE_ERR,
			    "Failed to remove sid %llu, previous not found",
			    (unsigned long long)h->sid);
			sdb_count(sdb_lts_header_ptr()->chain_remove_failed);
			return;
		}
		put64(&p->next, next);
	}
	TOLVAR_CRASH_POINT("lts.unlink.done");
	if (get64(row(b)->spare_block) != off)
		mmf_free_offset(sdb_lts_data(), off);
}

/* Give back every heap place of a head that is no longer reachable. */
void free_heap_places(uint64_t off)
{
	sdb_lts_desc d[SDB_LTS_DESC_COUNT];
	head_t *h = head_at(off);
	if (h == nullptr)
		return;
	memcpy(d, h->desc, sizeof d);
	uint64_t self = h->self;
	for (const sdb_lts_desc &x : d)
		if (x.offset != 0 && (x.offset < self + SDB_LTS_HEAD_SIZE ||
		    x.offset >= self + SDB_LTS_MAX_RECORD))
			mmf_free_offset(sdb_lts_data(), x.offset);
}

/* The bucket lock as a scope. */
class bucket_hold {
public:
	explicit bucket_hold(uint64_t sid) : sid_(sid)
	{
		rc_ = sdb_sentry_lock_acquire(sid);
	}
	~bucket_hold()
	{
		if (rc_ == 0)
			sdb_sentry_lock_release(sid_);
	}
	bucket_hold(const bucket_hold &) = delete;
	bucket_hold &operator=(const bucket_hold &) = delete;
	int rc() const { return rc_; }

private:
	uint64_t sid_;
	int rc_;
};

/*
 * The bucket of a session held and its head looked up: rc is 0 with the
 * head's offset in f, or the code to give back (-7 for no head).
 */
struct held_session {
	bucket_hold hold;
	found f;
	int rc;
	explicit held_session(uint64_t sid) : hold(sid)
	{
		rc = hold.rc();
		if (rc != 0)
			return;
		f = walk(sid);
		rc = f.rc;
		if (rc == 0 && f.off == 0) {
			sdb_trace(SDB_TRACE_INFO, "cache get %llu, not found",
			    (unsigned long long)sid);
			rc = SDB_ERR_NOT_FOUND;
		}
	}
};

/*
 * The conflict test of a write of the client section (or its delete)
 * against the generation the transaction read.
 */
int conflict_test(sdb_lts_txn *txn, const head_t *h)
{
	if (txn == nullptr || txn->gen_read == 0)
		return 0;
	sdb_lts_header *hd = sdb_lts_header_ptr();
	if (txn->sid_read != h->sid) {
		sdb_count(hd->txn_cross_writes);
		return 0;
	}
	if (txn->gen_read == h->gen &&
	    txn->client_offset_read == h->desc[SDB_TABLE_CLIENT].offset)
		return 0;
	sdb_trace(SDB_TRACE_INFO,
	    "SDB session %llu, client data changed during write, read %d, "
	    "curr %d", (unsigned long long)h->sid, txn->gen_read, h->gen);
	txn->conflict = 1;
	if (h->desc[SDB_TABLE_CLIENT].offset != 0) {
		sdb_count(hd->conflict_client_changed);
		return SDB_ERR_CONFLICT;
	}
	sdb_count(hd->conflict_client_lost);
	return SDB_ERR_NOT_FOUND;
}

/*
 * The generation runs 1 to 255 and skips 0, which means "nothing read":
 * a wrap to 0 would switch the conflict test off for that reader.
 */
void bump_gen(head_t *h)
{
	uint8_t g = (uint8_t)(h->gen + 1);
	h->gen = g == 0 ? 1 : g;
}

/* Write one section of the head at *off: see section_write. */
int write_at(uint64_t off, int idx, const void *src, uint32_t len)
{
	head_t *h = head_at(off);
	if (h == nullptr || !head_sane(h))
		return DAMAGED(bucket_of(h ? h->sid : 0), h ? h->sid : 0,
		    "head out of its block");
	uint32_t *ms = max_seen_word(idx);
	uint32_t max_seen = sdb_word(*ms).load(std::memory_order_relaxed);
	uint32_t want = len;
	if (max_seen > len && max_seen - len <= SDB_LTS_SLACK)
		want = max_seen;
	sdb_lts_desc old = h->desc[idx];
	uint64_t place;
	uint32_t cap;
	if (h->left >= want) {
		/* Carve from the block: cursor and bytes left move in one
		 * 16-byte store with the zero word behind them. */
		place = h->cursor;
		cap = want;
		__m128i v = _mm_set_epi32(0, (int)(h->left - want),
		    (int)(uint32_t)((place + want) >> 32),
		    (int)(uint32_t)(place + want));
		/* Through the header's bytes: the member is packed. */
		_mm_storeu_si128(reinterpret_cast<__m128i *>(
		    reinterpret_cast<char *>(h) + offsetof(head_t, cursor)), v);
		h->used += want;
		memcpy(sdb_lts_map(place, cap), src, len);
		h = head_at(off);
	} else {
		cap = want < SDB_LTS_MIN_ALLOC ? SDB_LTS_MIN_ALLOC : want;
		void *p = mmf_alloc(sdb_lts_data(), cap, &place);
		if (p == nullptr)
			return SDB_ERR_NOMEM;
		memcpy(sdb_lts_map(place, cap), src, len);
		h = head_at(off);
	}
	TOLVAR_CRASH_POINT("lts.section.copied");
	put_desc(&h->desc[idx], place, len, cap);
	TOLVAR_CRASH_POINT("lts.section.stored");
	if (len > max_seen)
		sdb_word(*ms).store(len, std::memory_order_relaxed);
	if (old.offset != 0 && !in_block(h, old.offset))
		mmf_free_offset(sdb_lts_data(), old.offset);
	return 0;
}

/* Section list order of a write record, as descriptor indexes. */
constexpr int list_index(int i)
{
	constexpr int first[5] = {SDB_TABLE_CLIENT, SDB_TABLE_SERVICE,
	    SDB_TABLE_DYNAMIC, SDB_TABLE_AUTH_REQ, SDB_TABLE_AUTH_RESP};
	return i < 5 ? first[i] : SDB_TABLE_APP + (i - 4);
}

sdb_lts_wrec *queued(sdb_lts_txn *txn, uint64_t sid)
{
	for (sdb_lts_wrec *r = txn->records; r != nullptr; r = r->next)
		if (r->sid == sid)
			return r;
	return nullptr;
}

int slot_of(uint32_t table, uint32_t blob)
{
	constexpr int by_table[5] = {0, 1, 3, 4, 2};
	if (table < SDB_TABLE_APP)
		return by_table[table];
	if (table == SDB_TABLE_APP && blob >= 1 && blob <= SDB_APP_BLOB_MAX)
		return 4 + (int)blob;
	return -1;
}

bool ready(void)
{
	if (sdb_lts_header_ptr() != nullptr && sdb_lts_data() != nullptr)
		return true;
	sdb_trace(SDB_TRACE_ERR, "Please init API before calling");
	return false;
}

} // namespace

/* Set by the replication client, which writes on a standby. */
bool sdb_lts_replica_writes;

extern "C" void *sdb_lts_map(uint64_t offset, uint32_t len)
{
	if (offset == 0)
		return nullptr;
	void *p = mmf_ensure_mapped(sdb_lts_data(), offset, len);
	if (p != nullptr)
		return p;
	/*
	 * No way on without the mapping.  _exit, not exit: atexit handlers
	 * would run while other threads of this process hold locks.
	 */
	sdb_lts_note_mapping_failure();
	sdb_lts_release_own_buckets();
	sdb_quiesce();
	sdb_event(3, "LIBSDB_LTS_MMAP_FAILED",
	    "LIBSDB_LTS_MMAP_FAILED: LTS could not mmap offset %llu bytes %u. "
	    "Exiting", (unsigned long long)offset, len);
	_exit(0);
}

extern "C" sdb_lts_head *sdb_lts_find(uint64_t sid, int *walked,
    uint64_t *prev)
{
	found f = walk(sid);
	if (walked != nullptr)
		*walked = f.walked;
	if (prev != nullptr)
		*prev = f.prev;
	return f.off != 0 ? head_at(f.off) : nullptr;
}

extern "C" sdb_lts_head *sdb_lts_chain_repair(uint32_t bucket)
{
	uint64_t seen[SDB_LTS_CHAIN_MAX];
	int nseen = 0;
	auto in_seen = [&](uint64_t o) {
		for (int i = 0; i < nseen; i++)
			if (seen[i] == o)
				return true;
		return false;
	};
	uint64_t poff = get64(row(bucket)->first_head);
	head_t *p = head_at(poff);
	if (p == nullptr)
		return nullptr;
	for (int steps = 0; steps < SDB_LTS_CHAIN_MAX; steps++) {
		seen[nseen++] = poff;
		uint64_t noff = p->next;
		if (noff == 0)
			return nullptr;
		head_t *n = head_at(noff);
		if (n == nullptr) {
			put64(&head_at(poff)->next, 0);
			DAMAGED(bucket, 0, "link to no head cut");
			return head_at(poff);
		}
		uint64_t nsid = n->sid, nnext = n->next;
		uint8_t ngen = n->gen;
		p = head_at(poff);
		if (nsid == p->sid) {
			sdb_event(4, "LIBSDB_DUPLICATE_ID_ENTRIES",
			    "LIBSDB_DUPLICATE_ID_ENTRIES: LTS dup %llu detected "
			    "ver %d and %d", (unsigned long long)nsid, p->gen, ngen);
			if (p->gen < ngen && poff == get64(row(bucket)->first_head)) {
				put64(row(bucket)->first_head, noff);
				return head_at(noff);
			}
			put64(&p->next, nnext == noff || nnext == poff ? 0 : nnext);
			return head_at(poff);
		}
		if (nnext == poff) {
			sdb_event(4, "LIBSDB_LTS_ADJ_CIRCULARITY",
			    "LIBSDB_LTS_ADJ_CIRCULARITY: LTS adjacent circularity "
			    "session %llu idx %d", (unsigned long long)nsid,
			    (int)bucket);
			put64(&head_at(noff)->next, 0);
			return head_at(noff);
		}
		if (in_seen(nnext)) {
			sdb_event(4, "LIBSDB_LTS_NON_ADJ_CIRCULARITY",
			    "LIBSDB_LTS_NON_ADJ_CIRCULARITY: LTS non-adjacent "
			    "circularity session %llu idx %d",
			    (unsigned long long)nsid, (int)bucket);
			put64(&head_at(noff)->next, 0);
			return head_at(noff);
		}
		if (in_seen(noff)) {
			sdb_event(4, "LIBSDB_LTS_DUPLICATE_OFFSET",
			    "LIBSDB_LTS_DUPLICATE_OFFSET: LTS dup offset %llu at "
			    "session %llu idx %d", (unsigned long long)noff,
			    (unsigned long long)nsid, (int)bucket);
			put64(&head_at(poff)->next, nnext);
			return head_at(poff);
		}
		poff = noff;
		p = head_at(poff);
	}
	DAMAGED(bucket, 0, "chain of more than 1000 heads");
	return nullptr;
}

extern "C" sdb_lts_head *sdb_lts_head_create(uint64_t sid)
{
	uint32_t b = bucket_of(sid);
	uint64_t first = get64(row(b)->first_head);
	uint64_t off = 0;
	if (first == 0) {
		off = get64(row(b)->spare_block);
		if (off == 0) {
			if (mmf_alloc(sdb_lts_data(), SDB_LTS_MAX_RECORD, &off) ==
			    nullptr)
				off = 0;
			else
				put64(row(b)->spare_block, off);
		}
	} else {
		found f = walk(sid);
		if (f.rc != 0)
			return nullptr;
		if (f.off != 0)
			return head_at(f.off);
		if (mmf_alloc(sdb_lts_data(), SDB_LTS_MAX_RECORD, &off) == nullptr)
			off = 0;
		first = get64(row(b)->first_head);
	}
	if (off == 0) {
		sdb_trace(SDB_TRACE_ERR, "cache add failed, no mem");
		return nullptr;
	}
	auto *h = static_cast<head_t *>(sdb_lts_map(off, SDB_LTS_MAX_RECORD));
	memset(h, 0, SDB_LTS_HEAD_SIZE);
	h->sid = sid;
	h->self = off;
	h->cursor = off + SDB_LTS_HEAD_SIZE;
	h->left = SDB_LTS_MAX_RECORD - SDB_LTS_HEAD_SIZE;
	h->used = SDB_LTS_HEAD_SIZE;
	h->next = first;
	sdb_trace(SDB_TRACE_INFO, "cache add id %llu", (unsigned long long)sid);
	TOLVAR_CRASH_POINT("lts.head.made");
	/* The head is complete before the row points at it. */
	put64(row(b)->first_head, off);
	return h;
}

extern "C" int sdb_lts_section_write(sdb_lts_head **head, const void *src,
    uint32_t len, sdb_lts_desc *desc, uint32_t *max_seen)
{
	(void)max_seen;	/* the header's word of the kind is used */
	uint64_t off = (*head)->self;
	ptrdiff_t idx = desc - (*head)->desc;
	if (idx < 0 || idx >= SDB_LTS_DESC_COUNT)
		return DAMAGED(bucket_of((*head)->sid), (*head)->sid,
		    "descriptor outside its head");
	int rc = write_at(off, (int)idx, src, len);
	*head = head_at(off);
	return rc;
}

extern "C" int sdb_lts_record_write(uint64_t sid,
    const sdb_lts_section list[SDB_LTS_SECTIONS], sdb_lts_txn *txn)
{
	if (!ready())
		return SDB_ERR_FATAL;
	bucket_hold hold(sid);
	if (hold.rc() != 0)
		return hold.rc();
	head_t *h = sdb_lts_head_create(sid);
	if (h == nullptr)
		return SDB_ERR_NOMEM;
	uint64_t off = h->self;
	for (int i = 0; i < SDB_LTS_SECTIONS; i++) {
		const sdb_lts_section &s = list[i];
		if (s.ptr == nullptr || (i >= 5 && s.len == 0))
			continue;
		int idx = list_index(i);
		if (idx == SDB_TABLE_CLIENT) {
			int rc = conflict_test(txn, head_at(off));
			if (rc != 0)
				return rc;
			/* Before the section: a kill in between gives a
			 * reader a needless conflict, never a missed one. */
			bump_gen(head_at(off));
		}
		int rc = write_at(off, idx, s.ptr, s.len);
		if (rc != 0)
			return rc;
	}
	return 0;
}

extern "C" int sdb_lts_section_store(uint64_t sid, sdb_lts_txn *txn,
    uint32_t table, uint32_t blob, const void *value, sdb_lts_encoder enc)
{
	if (sid == 0)
		return SDB_ERR_PARAM;
	if (!ready())
		return SDB_ERR_FATAL;
	if (!sdb_is_master && !sdb_lts_replica_writes)
		return SDB_ERR_READ_ONLY;
	if (table == SDB_TABLE_APP && blob > SDB_APP_BLOB_MAX)
		return SDB_ERR_NOT_FOUND;
	int slot = slot_of(table, blob);
	if (slot < 0)
		return SDB_ERR_FATAL;
	sdb_lts_wrec *r = txn != nullptr ? queued(txn, sid) : nullptr;
	bool fresh = r == nullptr;
	if (fresh) {
		r = static_cast<sdb_lts_wrec *>(calloc(1, sizeof *r));
		if (r == nullptr)
			return SDB_ERR_NOMEM;
		r->sid = sid;
		r->left = SDB_LTS_WREC_BYTES;
	}
	int n = enc(value, r->buf + r->cursor, r->left);
	if (n < 0 || (uint32_t)n > r->left) {
		sdb_trace(SDB_TRACE_ERR, "Failed to encode db type %d, len %d, "
		    "avail %d", (int)table, n, (int)r->left);
		r->list[slot] = {};
		if (fresh)
			free(r);
		return SDB_ERR_NOMEM;
	}
	r->list[slot] = {r->buf + r->cursor, (uint32_t)n};
	r->cursor += (uint32_t)n;
	r->left -= (uint32_t)n;
	if (txn != nullptr) {
		if (fresh) {
			r->next = txn->records;
			txn->records = r;
			sdb_count(sdb_lts_header_ptr()->txn_queued);
		}
		return 0;
	}
	int rc = sdb_lts_record_write(sid, r->list, nullptr);
	free(r);
	return rc;
}

extern "C" int sdb_lts_txn_commit(sdb_lts_txn *txn)
{
	int result = 0;
	sdb_lts_header *hd = sdb_lts_header_ptr();
	while (txn->records != nullptr) {
		sdb_lts_wrec *r = txn->records;
		txn->records = r->next;
		int rc = sdb_lts_record_write(r->sid, r->list, txn);
		if (rc != 0) {
			sdb_count(hd->txn_failed);
			result = rc;
		} else {
			sdb_count(hd->txn_committed);
		}
		free(r);
	}
	if (result != 0)
		sdb_trace(SDB_TRACE_ERR, "Failed to end txn: %s\n",
		    sdb_strerror(result));
	return result;
}

extern "C" void sdb_lts_txn_abort(sdb_lts_txn *txn)
{
	while (txn->records != nullptr) {
		sdb_lts_wrec *r = txn->records;
		txn->records = r->next;
		free(r);
	}
}

extern "C" int sdb_lts_section_read(uint64_t sid, sdb_lts_txn *txn,
    void *handle, void **value, uint32_t table, uint32_t blob,
    sdb_lts_decoder dec, void *arg, uint32_t filter)
{
	if (sid == 0)
		return SDB_ERR_PARAM;
	if (!ready())
		return SDB_ERR_FATAL;
	int idx = desc_index(table, blob);
	if (idx < 0)
		return SDB_ERR_NOT_FOUND;
	uint8_t *copy = nullptr;
	uint32_t len = 0;
	sdb_lts_wrec *r = txn != nullptr && table < SDB_TABLE_APP ?
	    queued(txn, sid) : nullptr;
	int slot = slot_of(table, blob);
	if (r != nullptr && r->list[slot].ptr != nullptr) {
		len = r->list[slot].len;
		copy = static_cast<uint8_t *>(malloc(len ? len : 1));
		if (copy == nullptr)
			return SDB_ERR_NOMEM;
		memcpy(copy, r->list[slot].ptr, len);
	} else {
		held_session hs(sid);
		if (hs.rc != 0)
			return hs.rc;
		const found &f = hs.f;
		head_t *h = head_at(f.off);
		sdb_lts_desc d = h->desc[idx];
		if (txn != nullptr && idx == SDB_TABLE_CLIENT &&
		    txn->gen_read == 0) {
			txn->gen_read = h->gen;
			txn->sid_read = sid;
			txn->client_offset_read = d.offset;
		}
		if (d.offset == 0 || d.len == 0)
			return SDB_ERR_NOT_FOUND;
		if (d.len > d.cap || !plausible(d.offset, d.cap))
			return DAMAGED(bucket_of(sid), sid,
			    "section beyond its place");
		len = d.len;
		copy = static_cast<uint8_t *>(malloc(len));
		if (copy == nullptr)
			return SDB_ERR_NOMEM;
		memcpy(copy, sdb_lts_map(d.offset, d.len), len);
	}
	int n = dec(handle, copy, len, value, arg, filter);
	free(copy);
	if (n == (int)len)
		return 0;
	if (n == SDB_ERR_NOMEM || n == SDB_ERR_FILTERED)
		return n;
	sdb_count(sdb_lts_header_ptr()->subrecord_read_failed);
	return SDB_ERR_CORRUPT;
}

extern "C" int sdb_lts_section_delete(uint64_t sid, sdb_lts_txn *txn,
    uint32_t table, uint32_t blob)
{
	if (sid == 0)
		return SDB_ERR_PARAM;
	if (!ready())
		return SDB_ERR_FATAL;
	int idx = desc_index(table, blob);
	if (idx < 0)
		return SDB_ERR_NOT_FOUND;
	held_session hs(sid);
	if (hs.rc != 0)
		return hs.rc;
	const found &f = hs.f;
	head_t *h = head_at(f.off);
	sdb_lts_desc old = h->desc[idx];
	if (old.offset == 0)
		return SDB_ERR_NOT_FOUND;
	if (idx == SDB_TABLE_CLIENT) {
		int rc = conflict_test(txn, h);
		if (rc != 0) {
			sdb_trace(SDB_TRACE_ERR,
			    "SDB session %llu, could not delete, write conflict",
			    (unsigned long long)sid);
			return rc;
		}
	}
	put_desc(&h->desc[idx], 0, 0, 0);
	if (idx == SDB_TABLE_CLIENT)
		h->gen = 0;
	TOLVAR_CRASH_POINT("lts.delete.cleared");
	bool last = !has_section(h);
	if (!in_block(h, old.offset))
		mmf_free_offset(sdb_lts_data(), old.offset);
	if (last)
		unlink_head(bucket_of(sid), f.off, f.prev);
	return 0;
}

/*
 * A whole session goes under one hold of its bucket, and the head leaves
 * its chain first, in one store: a writer killed part-way leaves either
 * the whole session or none of it (and some lost heap bytes).
 */
extern "C" int sdb_lts_session_delete(uint64_t sid, sdb_lts_txn *txn)
{
	if (sid == 0)
		return SDB_ERR_PARAM;
	if (!ready())
		return SDB_ERR_FATAL;
	held_session hs(sid);
	if (hs.rc != 0)
		return hs.rc;
	const found &f = hs.f;
	int rc = conflict_test(txn, head_at(f.off));
	if (rc != 0)
		return rc;
	uint32_t b = bucket_of(sid);
	head_t *h = head_at(f.off);
	uint64_t next = h->next;
	if (f.prev == 0)
		put64(row(b)->first_head, next);
	else
		put64(&head_at(f.prev)->next, next);
	TOLVAR_CRASH_POINT("lts.session.unlinked");
	free_heap_places(f.off);
	if (get64(row(b)->spare_block) != f.off)
		mmf_free_offset(sdb_lts_data(), f.off);
	return 0;
}

extern "C" int sdb_lts_exists(uint64_t sid)
{
	if (sid == 0 || !ready())
		return SDB_ERR_NOT_FOUND;
	bucket_hold hold(sid);
	if (hold.rc() != 0)
		return hold.rc();
	found f = walk(sid);
	if (f.rc != 0)
		return f.rc;
	return f.off != 0 && has_section(head_at(f.off)) ? 0 :
	    SDB_ERR_NOT_FOUND;
}

extern "C" int sdb_lts_client_apply(uint64_t sid, void *arg,
    int (*fn)(void *arg, const uint8_t *bytes, uint32_t len))
{
	if (sid == 0)
		return SDB_ERR_PARAM;
	if (!ready())
		return SDB_ERR_FATAL;
	held_session hs(sid);
	if (hs.rc != 0)
		return hs.rc;
	const found &f = hs.f;
	sdb_lts_desc d = head_at(f.off)->desc[SDB_TABLE_CLIENT];
	if (d.offset == 0)
		return SDB_ERR_NOT_FOUND;
	if (d.len > d.cap || !plausible(d.offset, d.cap))
		return DAMAGED(bucket_of(sid), sid, "section beyond its place");
	return fn(arg, static_cast<const uint8_t *>(sdb_lts_map(d.offset,
	    d.len)), d.len);
}

/* Visit every head of every bucket under its lock; fn false stops. */
template <typename F>
static int each_head(F fn)
{
	uint32_t n = sdb_lts_bucket_count();
	for (uint32_t b = 0; b < n; b++) {
		bucket_hold hold(b);
		if (hold.rc() != 0)
			return hold.rc();
		uint64_t off = get64(row(b)->first_head);
		for (int steps = 0; off != 0; steps++) {
			head_t *h = head_at(off);
			if (h == nullptr || steps >= SDB_LTS_CHAIN_MAX) {
				DAMAGED(b, 0, "chain walk refused");
				break;
			}
			if (!fn(h))
				return 0;
			off = head_at(off)->next;
		}
	}
	return 0;
}

extern "C" uint64_t sdb_lts_lowest_id(void)
{
	if (!ready())
		return 1;
	uint64_t low = 0;
	int rc = each_head([&](head_t *h) {
		if (has_section(h) && (low == 0 || h->sid < low))
			low = h->sid;
		return true;
	});
	return rc != 0 ? 1 : low;
}

extern "C" int sdb_get_session_search_info(uint64_t sid,
    sdb_session_search_info *out)
{
	if (out == nullptr)
		return SDB_ERR_PARAM;
	if (!ready())
		return SDB_ERR_FATAL;
	*out = {};
	sdb_sts_flush_all_to_lts();
	return each_head([&](head_t *h) {
		if (h->desc[SDB_TABLE_CLIENT].offset != 0 && h->sid >= sid) {
			out->count++;
			if (out->lowest == 0 || h->sid < out->lowest)
				out->lowest = h->sid;
			if (h->sid > out->highest)
				out->highest = h->sid;
		}
		return true;
	});
}

extern "C" int sdb_lts_stats_get(uint8_t *buf)
{
	if (buf == nullptr)
		return SDB_ERR_PARAM;
	if (sdb_lts_header_ptr() == nullptr)
		return SDB_ERR_FATAL;
	memset(buf, 0, SDB_LTS_STATS_BYTES);
	buf[0] = sdb_is_master ? 1 : 0;
	memcpy(buf + 4, reinterpret_cast<uint8_t *>(sdb_lts_header_ptr()) + 12,
	    216);
	return 0;
}

extern "C" int sdb_lts_search(sdb_lts_txn *it, uint64_t *key, void **value,
    uint32_t *value_len, uint32_t flags)
{
	if (!ready() || it == nullptr)
		return SDB_ERR_FATAL;
	uint64_t start = key != nullptr && *key != 0 ? *key : it->cur_id;
	int want = it->kind == 1 ? SDB_TABLE_SERVICE : SDB_TABLE_CLIENT;
	auto accept = [&](uint64_t id) -> int {
		bucket_hold hold(id);
		if (hold.rc() != 0)
			return hold.rc();
		found f = walk(id);
		if (f.rc != 0 || f.off == 0)
			return SDB_ERR_NOT_FOUND;
		sdb_lts_desc d = head_at(f.off)->desc[want];
		if (d.offset == 0)
			return SDB_ERR_NOT_FOUND;
		if (value != nullptr) {
			void *copy = malloc(d.len ? d.len : 1);
			if (copy == nullptr)
				return SDB_ERR_NOMEM;
			memcpy(copy, sdb_lts_map(d.offset, d.len), d.len);
			*value = copy;
			if (value_len != nullptr)
				*value_len = d.len;
		}
		if (key != nullptr)
			*key = id;
		it->cur_id = id;
		return 0;
	};
	if (flags == SDB_LTS_SEARCH_EXACT)
		return accept(start);
	if (flags != SDB_LTS_SEARCH_FIRST && flags != SDB_LTS_SEARCH_NEXT) {
		sdb_trace(SDB_TRACE_ERR, "Search flags %d, not supported",
		    (int)flags);
		return SDB_ERR_FATAL;
	}
	uint64_t next_sid = sdb_lts_next_session_id();
	uint64_t id = flags == SDB_LTS_SEARCH_FIRST ? 0 : start + 1;
	sdb_sii *sii = sdb_lts_scan_index_get(id, next_sid);
	int rc = SDB_ERR_NOT_FOUND;
	while (id <= next_sid) {
		id = sdb_lts_scan_next(sii, id);
		if (id > next_sid)
			break;
		if (it->stop_id != 0 && id > it->stop_id) {
			sdb_trace(SDB_TRACE_INFO,
			    "search not found, at %llu, looking for %llu",
			    (unsigned long long)id,
			    (unsigned long long)it->stop_id);
			break;
		}
		if (id != 0) {
			rc = accept(id);
			if (rc != SDB_ERR_NOT_FOUND)
				break;
		}
		id++;
	}
	sdb_lts_scan_index_put(sii);
	if (rc == SDB_ERR_NOT_FOUND)
		sdb_trace(SDB_TRACE_INFO, "search not found");
	return rc;
}

uint64_t sdb_lts_next_session_id(void)
{
	volatile uint64_t *w = sdb_id_word();
	if (w != nullptr)
		return *w;
	uint64_t high = 0;
	each_head([&](head_t *h) {
		if (h->sid > high)
			high = h->sid;
		return true;
	});
	return high + 1;
}

/* Walks of the scan index: every head, by bucket, under its lock. */
int sdb_lts_each_head(void (*fn)(void *arg, uint64_t sid), void *arg)
{
	return each_head([&](head_t *h) {
		fn(arg, h->sid);
		return true;
	});
}
