/*
 * The sections of a session inside its slot: attributes, dynamic values,
 * the two authentication sections, application blobs and the service
 * list.  Everything is addressed by offsets from the slot's start; an
 * allocation may move the slot, so no pointer is kept across one: the
 * helpers below take the entry and an offset and give the current address.
 *
 * A put takes its new pieces before it gives the old ones back, so that a
 * failing allocation leaves the section as it was.
 */
#include <algorithm>
#include <string_view>
#include <syslog.h>

#include "sts/sts_impl.h"

using namespace sts;

namespace {

template <class T> T *in(const sdb_sts_entry *e, uint16_t off)
{
	return reinterpret_cast<T *>(sdb_sts_slot(e) + off);
}
uint8_t *bytes(const sdb_sts_entry *e, uint16_t off)
{
	return sdb_sts_slot(e) + off;
}
void check_piece(const sdb_sts_entry *e, uint32_t off, uint32_t len)
{
	sdb_sts_assert_corruption(off >= 4 && off + len <= e->slot_size);
}
uint32_t piece_size(uint32_t len)
{
	return std::max<uint32_t>(len, 4);
}
uint16_t alloc(sdb_sts_entry *e, uint32_t len)
{
	return sdb_sts_entry_alloc(e, piece_size(len), nullptr);
}
void release(sdb_sts_entry *e, uint16_t off, uint32_t len)
{
	if (off != 0)
		sdb_sts_entry_free(e, off, piece_size(len));
}

/* A u16 link inside a slot, at any alignment. */
struct link16 {
	uint8_t *p;
	operator uint16_t() const
	{
		uint16_t v;
		memcpy(&v, p, 2);
		return v;
	}
	link16 &operator=(uint16_t v)
	{
		memcpy(p, &v, 2);
		return *this;
	}
};
#define LINK(obj, type, field) \
	link16{reinterpret_cast<uint8_t *>(obj) + offsetof(type, field)}
link16 bucket_link(void *table, uint16_t b)
{
	return link16{static_cast<uint8_t *>(table) + 2u * b};
}

/* A section's table, taken at its first use. */
uint16_t table(sdb_sts_entry *e, uint16_t have, uint32_t size)
{
	return have != 0 ? have : alloc(e, size);
}

/* Misses of get_attr by number; the last row counts the rest. */
uint32_t attr_misses[SDB_ATTR_TABLE_SIZE + 1];

/* ------------------------------------------------------------------ */
/* Attributes */

sdb_sts_attr_table *attr_table(const sdb_sts_entry *e)
{
	check_piece(e, e->client_offset, SDB_STS_ATTR_TABLE_SIZE);
	return in<sdb_sts_attr_table>(e, e->client_offset);
}

/* ------------------------------------------------------------------ */
/* Dynamic values */

uint16_t key_bucket(const void *key, uint32_t klen)
{
	uint16_t sum = 0;
	for (uint32_t i = 0; i < klen; i++)
		sum = (uint16_t)(sum + static_cast<const uint8_t *>(key)[i]);
	return sum % SDB_STS_HASH_BUCKETS;
}

sdb_sts_dyn_node *dnode(const sdb_sts_entry *e, uint16_t off)
{
	check_piece(e, off, SDB_STS_DYN_NODE_SIZE);
	return in<sdb_sts_dyn_node>(e, off);
}
sdb_sts_hash *dyn_hash(const sdb_sts_entry *e)
{
	check_piece(e, e->dynamic_offset, SDB_STS_HASH_SIZE);
	return in<sdb_sts_hash>(e, e->dynamic_offset);
}

bool key_equal(const sdb_sts_entry *e, uint16_t n, const void *key,
    uint32_t klen)
{
	const sdb_sts_dyn_node *d = dnode(e, n);
	if (d->klen != klen)
		return false;
	check_piece(e, d->koff, klen);
	return memcmp(bytes(e, d->koff), key, klen) == 0;
}
bool value_equal(const sdb_sts_entry *e, uint16_t n, const void *v,
    uint32_t vlen)
{
	const sdb_sts_dyn_node *d = dnode(e, n);
	if (d->vlen != vlen)
		return false;
	if (vlen == 0)
		return true;
	check_piece(e, d->voff, vlen);
	return memcmp(bytes(e, d->voff), v, vlen) == 0;
}

/* Values of names the library writes end in a NUL. */
struct dyn_value {
	const void *p;
	uint32_t len;
	uint8_t buf[SDB_ATTR_VALUE_MAX + 1];
};
bool wants_nul(const void *key, uint32_t klen)
{
	return klen >= 5 && memcmp(key, "orvia", 5) == 0;
}

void dyn_free_node(sdb_sts_entry *e, uint16_t n)
{
	sdb_sts_dyn_node d = *dnode(e, n);
	if (d.vlen != 0)
		release(e, d.voff, d.dao);
	release(e, d.koff, d.klen);
	release(e, n, SDB_STS_DYN_NODE_SIZE);
}

/* Take n out of its bucket and free it. */
void dyn_delete_node(sdb_sts_entry *e, uint16_t n)
{
	sdb_sts_hash *h = dyn_hash(e);
	uint16_t b = dnode(e, n)->bkt;
	sdb_sts_assert_corruption(b < SDB_STS_HASH_BUCKETS);
	link16 link = bucket_link(h, b);
	unsigned steps = 0;
	while (link != n) {
		sdb_sts_assert_corruption(link != 0 &&
		    ++steps <= SDB_STS_DYN_LOOP_MAX);
		link = LINK(dnode(e, link), sdb_sts_dyn_node, noff);
	}
	link = dnode(e, n)->noff;
	h->count--;
	dyn_free_node(e, n);
	e->dirty_flags |= SDB_DIRTY_DYNAMIC;
}

/* Append n at the end of the chain that starts at from's field. */
void chain_append(sdb_sts_entry *e, uint16_t from, bool instances,
    uint16_t n)
{
	uint16_t at_ = from;
	for (int i = 0;; i++) {
		sdb_sts_assert_corruption(i <= SDB_STS_DYN_CHAIN_MAX);
		sdb_sts_dyn_node *d = dnode(e, at_);
		uint16_t next = instances ? d->nioff : d->nmoff;
		if (next == 0) {
			if (instances)
				d->nioff = n;
			else
				d->nmoff = n;
			return;
		}
		at_ = next;
	}
}

/* ------------------------------------------------------------------ */
/* Authentication */

uint16_t auth_offset(const sdb_sts_entry *e, int which)
{
	return which == SDB_STS_AUTH_REQ ? e->auth_req_offset :
	    e->auth_rep_offset;
}
void set_auth_offset(sdb_sts_entry *e, int which, uint16_t off)
{
	if (which == SDB_STS_AUTH_REQ)
		e->auth_req_offset = off;
	else
		e->auth_rep_offset = off;
}
uint8_t auth_dirty(int which)
{
	return which == SDB_STS_AUTH_REQ ? SDB_DIRTY_AUTH_REQ :
	    SDB_DIRTY_AUTH_RESP;
}
sdb_sts_hash *auth_hash(const sdb_sts_entry *e, uint16_t off)
{
	check_piece(e, off, SDB_STS_HASH_SIZE);
	return in<sdb_sts_hash>(e, off);
}
sdb_sts_auth_node *anode(const sdb_sts_entry *e, uint16_t off)
{
	check_piece(e, off, SDB_STS_AUTH_NODE_SIZE);
	return in<sdb_sts_auth_node>(e, off);
}
constexpr uint16_t response_bucket = 4;

/* The node that `link` names, out of its chain and freed. */
void auth_drop(sdb_sts_entry *e, uint16_t t, link16 link)
{
	sdb_sts_auth_node a = *anode(e, link);
	uint16_t n = link;
	link = a.next;
	release(e, a.voff, a.alloc_len);
	release(e, n, SDB_STS_AUTH_NODE_SIZE);
	auth_hash(e, t)->count--;
}

/* ------------------------------------------------------------------ */
/* Application data */

sdb_sts_app_table *app_table(const sdb_sts_entry *e)
{
	check_piece(e, e->app_data_offset, SDB_STS_APP_TABLE_SIZE);
	return in<sdb_sts_app_table>(e, e->app_data_offset);
}

/* ------------------------------------------------------------------ */
/* Service list */

int read_count(sdb_sts_entry *e, uint32_t attr, uint32_t *v, bool *present)
{
	uint8_t buf[8] = {};
	uint32_t len = sizeof buf;
	int rc = sdb_sts_entry_get_attr(e, attr, &len, buf);
	*present = rc == 0;
	*v = 0;
	if (rc == SDB_ERR_NOT_FOUND)
		return 0;
	if (rc != 0)
		return SDB_ERR_BLOCKED;
	memcpy(v, buf, std::min<uint32_t>(len, 4));
	return 0;
}

/* The list into a block of `bytes`; the old block goes back after. */
int service_list_resize(sdb_sts_entry *e, uint16_t size)
{
	uint16_t nb = alloc(e, size);
	if (nb == 0)
		return SDB_ERR_NOMEM;
	uint16_t old = e->service_session_ids_offset;
	if (old != 0) {
		uint32_t keep = std::min<uint32_t>(
		    e->service_session_ids_count * 8u, size);
		check_piece(e, old, keep);
		memcpy(bytes(e, nb), bytes(e, old), keep);
		release(e, old, e->service_list_bytes);
	}
	e->service_session_ids_offset = nb;
	e->service_list_bytes = size;
	return 0;
}

} // namespace

/* ================================================================== */

extern "C" int sdb_sts_entry_put_attr(sdb_sts_entry *e, uint32_t attr,
    uint32_t len, const void *value)
{
	sdb_sts_assert(attr <= SDB_ATTR_NUM_MAX);
	if (len > 0 && value == nullptr)
		return SDB_ERR_PARAM;
	uint32_t max = sdb_attr_max_len(attr);
	if (max != 0 && len > max) {
		sdb_event(LOG_ERR, "LIBSDB_INVALID_LENGTH",
		    "LIBSDB_INVALID_LENGTH: %s:%d attribute %s length %u above %u",
		    __func__, __LINE__, sdb_attr_name(attr), len, max);
		return SDB_ERR_PARAM;
	}
	if (len + 4 >= SDB_STS_SLOT_MAX)
		return SDB_ERR_NOMEM;
	uint16_t table_off = table(e, e->client_offset, SDB_STS_ATTR_TABLE_SIZE);
	if (table_off == 0)
		return SDB_ERR_NOMEM;
	e->client_offset = table_off;
	uint16_t cur = attr_table(e)->offset[attr];
	if (cur != 0) {
		check_piece(e, cur, 4);
		auto *vb = in<sdb_sts_value_block>(e, cur);
		if (vb->len >= len) {
			memcpy(bytes(e, cur + 4), value, len);
			vb->len = (uint16_t)len;
			e->dirty_flags |= SDB_DIRTY_CLIENT_ATTRS;
			return 0;
		}
	}
	uint16_t nb = alloc(e, len + 4);
	if (nb == 0)
		return SDB_ERR_NOMEM;
	auto *vb = in<sdb_sts_value_block>(e, nb);
	vb->len = (uint16_t)len;
	vb->alloc_len = (uint16_t)(len + 4);
	memcpy(bytes(e, nb + 4), value, len);
	sdb_sts_attr_table *t = attr_table(e);
	if (cur != 0) {
		release(e, cur, in<sdb_sts_value_block>(e, cur)->alloc_len);
		t = attr_table(e);
	} else {
		sdb_sts_assert_corruption(t->count < SDB_ATTR_TABLE_SIZE);
		t->numbers[t->count++] = (uint16_t)attr;
	}
	t->offset[attr] = nb;
	e->dirty_flags |= SDB_DIRTY_CLIENT_ATTRS;
	return 0;
}

extern "C" int sdb_sts_entry_get_attr(sdb_sts_entry *e, uint32_t attr,
    uint32_t *len, void *buf)
{
	sdb_sts_assert(attr <= SDB_ATTR_NUM_MAX);
	uint16_t cur = e->client_offset != 0 ? attr_table(e)->offset[attr] : 0;
	if (cur == 0) {
		attr_misses[std::min<uint32_t>(attr, SDB_ATTR_TABLE_SIZE)]++;
		return SDB_ERR_NOT_FOUND;
	}
	check_piece(e, cur, 4);
	const auto *vb = in<sdb_sts_value_block>(e, cur);
	check_piece(e, cur, 4u + vb->len);
	if (*len < vb->len) {
		attr_misses[std::min<uint32_t>(attr, SDB_ATTR_TABLE_SIZE)]++;
		*len = 0;
		return SDB_ERR_NOMEM;
	}
	memcpy(buf, bytes(e, cur + 4), vb->len);
	if (*len > vb->len)
		static_cast<uint8_t *>(buf)[vb->len] = 0;
	*len = vb->len;
	return 0;
}

extern "C" int sdb_sts_entry_del_attr(sdb_sts_entry *e, uint32_t attr)
{
	sdb_sts_assert(attr <= SDB_ATTR_NUM_MAX);
	uint16_t cur = e->client_offset != 0 ? attr_table(e)->offset[attr] : 0;
	if (cur == 0)
		return SDB_ERR_NOT_FOUND;
	check_piece(e, cur, 4);
	release(e, cur, in<sdb_sts_value_block>(e, cur)->alloc_len);
	sdb_sts_attr_table *t = attr_table(e);
	t->offset[attr] = 0;
	uint16_t i = 0;
	while (i < t->count && t->numbers[i] != attr)
		i++;
	sdb_sts_assert_corruption(i < t->count);
	t->numbers[i] = t->numbers[t->count - 1];
	t->numbers[--t->count] = 0;
	e->dirty_flags |= SDB_DIRTY_CLIENT_ATTRS;
	return 0;
}

extern "C" int sdb_sts_entry_walk_attrs(const sdb_sts_entry *e,
    int (*fn)(void *, uint16_t, const void *, uint16_t), void *arg)
{
	if (e->client_offset == 0)
		return 0;
	const sdb_sts_attr_table *t = attr_table(e);
	sdb_sts_assert_corruption(t->count <= SDB_ATTR_TABLE_SIZE);
	for (uint16_t i = 0; i < t->count; i++) {
		uint16_t a = t->numbers[i];
		sdb_sts_assert_corruption(a < SDB_ATTR_TABLE_SIZE);
		uint16_t off = t->offset[a];
		check_piece(e, off, 4);
		const auto *vb = in<sdb_sts_value_block>(e, off);
		check_piece(e, off, 4u + vb->len);
		if (int rc = fn(arg, a, bytes(e, off + 4), vb->len))
			return rc;
	}
	return 0;
}

/* ------------------------------------------------------------------ */

extern "C" int sdb_sts_entry_put_dynamic_attr_common(sdb_sts_entry *e,
    uint16_t head, uint16_t inst, const void *key, uint32_t klen,
    const void *value, uint32_t vlen, uint32_t kind, uint32_t flags,
    int *created, uint16_t *node_out)
{
	sdb_sts_assert_corruption(klen != 0 && klen <= SDB_DYN_VAR_NAME_MAX);
	if (created != nullptr)
		*created = 0;
	if (vlen > 0 && value == nullptr)
		return SDB_ERR_PARAM;
	if (!(flags & SDB_STS_DYN_HEAD) && vlen == 0)
		return 0;
	if (vlen > SDB_ATTR_VALUE_MAX * 8)
		return SDB_ERR_NOMEM;
	/* The value as stored: names of the library's own get a NUL. */
	static thread_local uint8_t vbuf[SDB_ATTR_VALUE_MAX * 8 + 1];
	if (vlen > 0 && wants_nul(key, klen) &&
	    static_cast<const uint8_t *>(value)[vlen - 1] != 0) {
		memcpy(vbuf, value, vlen);
		vbuf[vlen++] = 0;
		value = vbuf;
	}
	uint16_t table_off = table(e, e->dynamic_offset, SDB_STS_HASH_SIZE);
	if (table_off == 0)
		return SDB_ERR_NOMEM;
	e->dynamic_offset = table_off;
	uint16_t bkt = key_bucket(key, klen);
	uint16_t start;
	enum { by_bucket, by_instance, by_member } step = by_bucket;
	if (kind == SDB_DYN_IDENT && head != 0) {
		start = dnode(e, head)->nioff;
		step = by_instance;
	} else if (kind == SDB_DYN_MEMBER) {
		sdb_sts_assert_corruption(inst != 0);
		start = dnode(e, inst)->nmoff;
		step = by_member;
	} else {
		start = dyn_hash(e)->bucket[bkt];
	}
	uint32_t count = 1;
	for (uint16_t n = start; n != 0; count++) {
		if (count > SDB_STS_DYN_LOOP_MAX) {
			sdb_event(LOG_ERR, "LIBSDB_LOOP_EXCEEDED",
			    "LIBSDB_LOOP_EXCEEDED: %s:%d Loop count exceeded "
			    "(times:%u) searching key:%.*s, val:%s, hash:%u",
			    __func__, __LINE__, count, (int)klen,
			    static_cast<const char *>(key), vlen ? "set" : "",
			    bkt);
			return SDB_ERR_CORRUPT;
		}
		sdb_sts_dyn_node *d = dnode(e, n);
		bool match = d->bkt == bkt && d->et == kind &&
		    key_equal(e, n, key, klen);
		if (match && (kind == SDB_DYN_PREFIX || kind == SDB_DYN_IDENT) &&
		    vlen > 0)
			match = value_equal(e, n, value, vlen);
		if (match) {
			if (vlen > 0 && (kind == SDB_DYN_GENERAL ||
			    kind == SDB_DYN_MEMBER)) {
				if (d->dao < vlen) {
					uint16_t nv = alloc(e, vlen);
					if (nv == 0)
						return SDB_ERR_NOMEM;
					d = dnode(e, n);
					if (d->vlen != 0)
						release(e, d->voff, d->dao);
					d = dnode(e, n);
					d->voff = nv;
					d->dao = (uint16_t)piece_size(vlen);
				}
				memcpy(bytes(e, d->voff), value, vlen);
				d->vlen = (uint16_t)vlen;
				e->dirty_flags |= SDB_DIRTY_DYNAMIC;
			}
			if (node_out != nullptr)
				*node_out = n;
			return 0;
		}
		n = step == by_instance ? d->nioff :
		    step == by_member ? d->nmoff : d->noff;
	}
	uint16_t n = alloc(e, SDB_STS_DYN_NODE_SIZE);
	uint16_t k = n != 0 ? alloc(e, klen) : 0;
	uint16_t v = k != 0 && vlen > 0 ? alloc(e, vlen) : 0;
	if (n == 0 || k == 0 || (vlen > 0 && v == 0)) {
		if (k != 0)
			release(e, k, klen);
		if (n != 0)
			release(e, n, SDB_STS_DYN_NODE_SIZE);
		return SDB_ERR_NOMEM;
	}
	memcpy(bytes(e, k), key, klen);
	if (vlen > 0)
		memcpy(bytes(e, v), value, vlen);
	sdb_sts_dyn_node d = {};
	d.bkt = bkt;
	d.klen = (uint16_t)klen;
	d.koff = k;
	d.vlen = (uint16_t)vlen;
	d.dao = vlen > 0 ? (uint16_t)piece_size(vlen) : 0;
	d.voff = v;
	d.flg = (uint8_t)flags;
	d.et = (uint8_t)kind;
	sdb_sts_hash *h = dyn_hash(e);
	d.noff = h->bucket[bkt];
	memcpy(dnode(e, n), &d, sizeof d);
	h->bucket[bkt] = n;
	h->count++;
	e->dirty_flags |= SDB_DIRTY_DYNAMIC;
	if (created != nullptr)
		*created = 1;
	if (node_out != nullptr)
		*node_out = n;
	return 0;
}

extern "C" int sdb_sts_entry_put_dyn_general(sdb_sts_entry *e,
    const char *name, const void *value, uint32_t vlen)
{
	return sdb_sts_entry_put_dynamic_attr_common(e, 0, 0, name,
	    (uint32_t)strlen(name), value, vlen, SDB_DYN_GENERAL, 0, nullptr,
	    nullptr);
}

extern "C" int sdb_sts_entry_put_dyn_prefix(sdb_sts_entry *e,
    const char *name, const void *value, uint32_t vlen)
{
	return sdb_sts_entry_put_dynamic_attr_common(e, 0, 0, name,
	    (uint32_t)strlen(name), value, vlen, SDB_DYN_PREFIX,
	    SDB_STS_DYN_HEAD, nullptr, nullptr);
}

extern "C" int sdb_sts_entry_put_dyn_ident(sdb_sts_entry *e, uint16_t head,
    const char *name, const void *value, uint32_t vlen, uint16_t *inst)
{
	uint32_t nlen = (uint32_t)strlen(name);
	if (vlen == 0)
		return SDB_ERR_PARAM;
	if (head == 0) {
		int rc = sdb_sts_entry_put_dynamic_attr_common(e, 0, 0, name,
		    nlen, nullptr, 0, SDB_DYN_IDENT, SDB_STS_DYN_HEAD, nullptr,
		    &head);
		if (rc != 0)
			return rc;
	}
	int created = 0;
	uint16_t n = 0;
	int rc = sdb_sts_entry_put_dynamic_attr_common(e, head, 0, value, vlen,
	    name, nlen + 1, SDB_DYN_IDENT, 0, &created, &n);
	if (rc != 0)
		return rc;
	if (created)
		chain_append(e, head, true, n);
	if (inst != nullptr)
		*inst = n;
	return 0;
}

extern "C" int sdb_sts_entry_put_dyn_member(sdb_sts_entry *e, uint16_t inst,
    const char *name, const void *value, uint32_t vlen)
{
	if (inst == 0)
		return SDB_ERR_PARAM;
	int created = 0;
	uint16_t n = 0;
	int rc = sdb_sts_entry_put_dynamic_attr_common(e, 0, inst, name,
	    (uint32_t)strlen(name), value, vlen, SDB_DYN_MEMBER, 0, &created,
	    &n);
	if (rc == 0 && created)
		chain_append(e, inst, false, n);
	return rc;
}

namespace {
/* The first node of the bucket with this key and kind, head bit as asked. */
uint16_t dyn_find(const sdb_sts_entry *e, const char *name, uint32_t kind,
    int head)
{
	if (e->dynamic_offset == 0)
		return 0;
	uint32_t klen = (uint32_t)strlen(name);
	uint16_t b = key_bucket(name, klen);
	unsigned steps = 0;
	for (uint16_t n = dyn_hash(e)->bucket[b]; n != 0;
	    n = dnode(e, n)->noff) {
		sdb_sts_assert_corruption(++steps <= SDB_STS_DYN_LOOP_MAX);
		const sdb_sts_dyn_node *d = dnode(e, n);
		if (d->et == kind && (head < 0 || (d->flg & 1) == head) &&
		    key_equal(e, n, name, klen))
			return n;
	}
	return 0;
}
/* The first member of that name, out of its instance's chain too. */
bool del_member(sdb_sts_entry *e, const char *name)
{
	if (e->dynamic_offset == 0)
		return false;
	uint32_t klen = (uint32_t)strlen(name);
	for (int b = 0; b < SDB_STS_HASH_BUCKETS; b++) {
		unsigned steps = 0;
		for (uint16_t n = dyn_hash(e)->bucket[b]; n != 0;
		    n = dnode(e, n)->noff) {
			sdb_sts_assert_corruption(++steps <= SDB_STS_DYN_LOOP_MAX);
			if (dnode(e, n)->et != SDB_DYN_IDENT ||
			    (dnode(e, n)->flg & 1))
				continue;
			link16 link = LINK(dnode(e, n), sdb_sts_dyn_node, nmoff);
			for (int i = 0; link != 0; i++) {
				sdb_sts_assert_corruption(i <= SDB_STS_DYN_CHAIN_MAX);
				uint16_t m = link;
				if (!key_equal(e, m, name, klen)) {
					link = LINK(dnode(e, m), sdb_sts_dyn_node,
					    nmoff);
					continue;
				}
				link = dnode(e, m)->nmoff;
				dyn_delete_node(e, m);
				return true;
			}
		}
	}
	return false;
}
} // namespace

extern "C" int sdb_sts_entry_get_dyn_general(sdb_sts_entry *e,
    const char *name, uint32_t *len, void *buf)
{
	uint16_t n = dyn_find(e, name, SDB_DYN_GENERAL, -1);
	if (n == 0)
		return SDB_ERR_NOT_FOUND;
	const sdb_sts_dyn_node *d = dnode(e, n);
	if (*len < d->vlen) {
		*len = 0;
		return SDB_ERR_NOMEM;
	}
	check_piece(e, d->voff, d->vlen);
	memcpy(buf, bytes(e, d->voff), d->vlen);
	*len = d->vlen;
	return 0;
}

extern "C" int sdb_sts_entry_del_dyn(sdb_sts_entry *e, const char *name,
    uint32_t kind)
{
	int found = 0;
	switch (kind) {
	case SDB_DYN_MEMBER:
		return del_member(e, name) ? 0 : SDB_ERR_NOT_FOUND;
	case SDB_DYN_GENERAL:
	case SDB_DYN_PREFIX:
		/* A prefix goes with all its values. */
		for (uint16_t n; (n = dyn_find(e, name, kind, -1)) != 0;) {
			dyn_delete_node(e, n);
			found = 1;
			if (kind != SDB_DYN_PREFIX)
				break;
		}
		break;
	case SDB_DYN_IDENT: {
		uint16_t head = dyn_find(e, name, SDB_DYN_IDENT, 1);
		if (head == 0)
			break;
		int chain = 0;
		for (uint16_t i = dnode(e, head)->nioff; i != 0;) {
			sdb_sts_assert_corruption(++chain <= SDB_STS_DYN_CHAIN_MAX);
			uint16_t next_i = dnode(e, i)->nioff;
			int members = 0;
			for (uint16_t m = dnode(e, i)->nmoff; m != 0;) {
				sdb_sts_assert_corruption(++members <=
				    SDB_STS_DYN_CHAIN_MAX);
				uint16_t next_m = dnode(e, m)->nmoff;
				dyn_delete_node(e, m);
				m = next_m;
			}
			dyn_delete_node(e, i);
			i = next_i;
		}
		dyn_delete_node(e, head);
		found = 1;
		break;
	}
	default:
		return SDB_ERR_PARAM;
	}
	return found ? 0 : SDB_ERR_NOT_FOUND;
}

extern "C" int sdb_sts_entry_walk_dyn(const sdb_sts_entry *e,
    int (*fn)(void *, const char *, uint32_t, uint32_t, const void *,
        uint32_t),
    void *arg)
{
	if (e->dynamic_offset == 0)
		return 0;
	const sdb_sts_hash *h = dyn_hash(e);
	auto emit = [&](uint16_t n, bool swap) {
		const sdb_sts_dyn_node *d = dnode(e, n);
		check_piece(e, d->koff, d->klen);
		if (d->vlen != 0)
			check_piece(e, d->voff, d->vlen);
		const void *k = bytes(e, d->koff), *v = bytes(e, d->voff);
		if (!swap)
			return fn(arg, static_cast<const char *>(k), d->klen,
			    d->et, v, d->vlen);
		/* An instance keeps the array's name as its value; the
		 * name given out has no NUL of its own. */
		uint32_t nlen = d->vlen;
		if (nlen > 0 && static_cast<const uint8_t *>(v)[nlen - 1] == 0)
			nlen--;
		return fn(arg, static_cast<const char *>(v), nlen, d->et, k,
		    d->klen);
	};
	uint16_t chain[SDB_STS_SLOT_MAX / SDB_STS_DYN_NODE_SIZE];
	for (int b = 0; b < SDB_STS_HASH_BUCKETS; b++) {
		/* Oldest first: a reader that inserts at the head rebuilds
		 * the same chains. */
		size_t depth = 0;
		for (uint16_t n = h->bucket[b]; n != 0; n = dnode(e, n)->noff) {
			sdb_sts_assert_corruption(depth < std::size(chain));
			chain[depth++] = n;
		}
		while (depth > 0) {
			uint16_t n = chain[--depth];
			const sdb_sts_dyn_node *d = dnode(e, n);
			if (d->et == SDB_DYN_MEMBER ||
			    (d->et == SDB_DYN_IDENT && !(d->flg & 1)))
				continue;
			if (int rc = emit(n, false))
				return rc;
			if (d->et != SDB_DYN_IDENT)
				continue;
			int chain = 0;
			for (uint16_t i = d->nioff; i != 0; i = dnode(e, i)->nioff) {
				sdb_sts_assert_corruption(++chain <=
				    SDB_STS_DYN_CHAIN_MAX);
				if (int rc = emit(i, true))
					return rc;
				int members = 0;
				for (uint16_t m = dnode(e, i)->nmoff; m != 0;
				    m = dnode(e, m)->nmoff) {
					sdb_sts_assert_corruption(++members <=
					    SDB_STS_DYN_CHAIN_MAX);
					if (int rc = emit(m, false))
						return rc;
				}
			}
		}
	}
	return 0;
}

/* ------------------------------------------------------------------ */

extern "C" int sdb_sts_entry_del_auth(sdb_sts_entry *e, int which,
    uint16_t attr, const void *value, uint32_t len)
{
	uint16_t t = auth_offset(e, which);
	if (t == 0)
		return SDB_ERR_NOT_FOUND;
	int found = 0;
	for (uint16_t b : {(uint16_t)(attr % SDB_STS_HASH_BUCKETS),
	    response_bucket}) {
		link16 link = bucket_link(auth_hash(e, t), b);
		unsigned steps = 0;
		while (link != 0) {
			sdb_sts_assert_corruption(++steps <= SDB_STS_DYN_LOOP_MAX);
			uint16_t n = link;
			sdb_sts_auth_node a = *anode(e, n);
			bool hit = a.attr == attr;
			if (hit && len > 0) {
				check_piece(e, a.voff, a.len);
				hit = a.len == len &&
				    memcmp(bytes(e, a.voff), value, len) == 0;
			}
			if (!hit) {
				link = LINK(anode(e, n), sdb_sts_auth_node, next);
				continue;
			}
			auth_drop(e, t, link);
			link = bucket_link(auth_hash(e, t), b);
			found = 1;
			if (len > 0)
				break;
		}
		if (found && len > 0)
			break;
	}
	if (found)
		e->dirty_flags |= auth_dirty(which);
	return found ? 0 : SDB_ERR_NOT_FOUND;
}

namespace {
/* A new node: at the head of its bucket, or at the end of `tail_bucket`. */
int add_auth(sdb_sts_entry *e, int which, uint16_t attr, const void *value,
    uint32_t len, int tail_bucket)
{
	uint16_t table_off = table(e, auth_offset(e, which), SDB_STS_HASH_SIZE);
	if (table_off == 0)
		return SDB_ERR_NOMEM;
	set_auth_offset(e, which, table_off);
	uint16_t n = alloc(e, SDB_STS_AUTH_NODE_SIZE);
	uint16_t v = n != 0 ? alloc(e, len) : 0;
	if (v == 0) {
		release(e, n, SDB_STS_AUTH_NODE_SIZE);
		return SDB_ERR_NOMEM;
	}
	memcpy(bytes(e, v), value, len);
	sdb_sts_auth_node a = {attr, (uint16_t)len,
	    (uint16_t)piece_size(len), v, 0};
	sdb_sts_hash *h = auth_hash(e, auth_offset(e, which));
	uint16_t b = attr % SDB_STS_HASH_BUCKETS;
	if (tail_bucket < 0) {
		a.next = h->bucket[b];
		h->bucket[b] = n;
	} else {
		link16 link = bucket_link(h, (uint16_t)tail_bucket);
		unsigned steps = 0;
		while (link != 0) {
			sdb_sts_assert_corruption(++steps <= SDB_STS_DYN_LOOP_MAX);
			link = LINK(anode(e, link), sdb_sts_auth_node, next);
		}
		link = n;
	}
	memcpy(anode(e, n), &a, sizeof a);
	h->count++;
	e->dirty_flags |= auth_dirty(which);
	return 0;
}
} // namespace

extern "C" int sdb_sts_entry_put_auth(sdb_sts_entry *e, int which,
    uint16_t attr, const void *value, uint32_t len)
{
	if (len == 0)
		return 0;
	if (value == nullptr || len > 10000)
		return SDB_ERR_PARAM;
	if (which != SDB_STS_AUTH_REQ)	/* kept in order of arrival */
		return add_auth(e, which, attr, value, len, response_bucket);
	uint16_t t = auth_offset(e, which);
	uint16_t b = attr % SDB_STS_HASH_BUCKETS;
	unsigned steps = 0;
	for (uint16_t n = t != 0 ? auth_hash(e, t)->bucket[b] : 0; n != 0;
	    n = anode(e, n)->next) {
		sdb_sts_assert_corruption(++steps <= SDB_STS_DYN_LOOP_MAX);
		sdb_sts_auth_node *a = anode(e, n);
		if (a->attr != attr)
			continue;
		if (a->alloc_len >= len) {
			check_piece(e, a->voff, len);
			memcpy(bytes(e, a->voff), value, len);
			a->len = (uint16_t)len;
			e->dirty_flags |= auth_dirty(which);
			return 0;
		}
		break;
	}
	/* The new node first, so that a failure keeps the old value. */
	uint8_t dirty = e->dirty_flags;
	if (int rc = add_auth(e, which, attr, value, len, -1))
		return rc;
	/* Drop the older nodes of the number: the new one is first. */
	t = auth_offset(e, which);
	uint16_t first = auth_hash(e, t)->bucket[b];
	link16 link = LINK(anode(e, first), sdb_sts_auth_node, next);
	steps = 0;
	while (link != 0) {
		sdb_sts_assert_corruption(++steps <= SDB_STS_DYN_LOOP_MAX);
		uint16_t n = link;
		sdb_sts_auth_node a = *anode(e, n);
		if (a.attr != attr) {
			link = LINK(anode(e, n), sdb_sts_auth_node, next);
			continue;
		}
		auth_drop(e, t, link);
	}
	e->dirty_flags = dirty | auth_dirty(which);
	return 0;
}

extern "C" int sdb_sts_entry_append_auth(sdb_sts_entry *e, int which,
    uint16_t attr, const void *value, uint32_t len)
{
	if (len == 0 || value == nullptr || len > 10000)
		return SDB_ERR_PARAM;
	return add_auth(e, which, attr, value, len,
	    which == SDB_STS_AUTH_REQ ? attr % SDB_STS_HASH_BUCKETS :
	    response_bucket);
}

extern "C" int sdb_sts_entry_del_all_auth(sdb_sts_entry *e, int which)
{
	uint16_t t = auth_offset(e, which);
	if (t == 0)
		return 0;
	for (int b = 0; b < SDB_STS_HASH_BUCKETS; b++) {
		unsigned steps = 0;
		for (uint16_t n = auth_hash(e, t)->bucket[b]; n != 0;) {
			sdb_sts_assert_corruption(++steps <= SDB_STS_DYN_LOOP_MAX);
			sdb_sts_auth_node a = *anode(e, n);
			release(e, a.voff, a.alloc_len);
			release(e, n, SDB_STS_AUTH_NODE_SIZE);
			n = a.next;
		}
	}
	release(e, t, SDB_STS_HASH_SIZE);
	set_auth_offset(e, which, 0);
	e->dirty_flags |= auth_dirty(which);
	return 0;
}

extern "C" int sdb_sts_entry_walk_auth(const sdb_sts_entry *e, int which,
    int (*fn)(void *, uint16_t, const void *, uint16_t), void *arg)
{
	uint16_t t = which == SDB_STS_AUTH_REQ ? e->auth_req_offset :
	    e->auth_rep_offset;
	if (t == 0)
		return 0;
	for (int b = 0; b < SDB_STS_HASH_BUCKETS; b++) {
		unsigned steps = 0;
		for (uint16_t n = auth_hash(e, t)->bucket[b]; n != 0;
		    n = anode(e, n)->next) {
			sdb_sts_assert_corruption(++steps <= SDB_STS_DYN_LOOP_MAX);
			const sdb_sts_auth_node *a = anode(e, n);
			check_piece(e, a->voff, a->len);
			if (int rc = fn(arg, a->attr, bytes(e, a->voff), a->len))
				return rc;
		}
	}
	return 0;
}

/* ------------------------------------------------------------------ */

extern "C" int sdb_sts_entry_put_app(sdb_sts_entry *e, uint32_t blob,
    const void *value, uint32_t len)
{
	if (blob > SDB_APP_BLOB_MAX)
		return SDB_ERR_PARAM;
	if (len > SDB_APP_BLOB_BYTES) {
		sdb_event(LOG_ERR, "LIBSDB_STS_MEM_ERROR",
		    "LIBSDB_STS_MEM_ERROR: SDB STS MEM FAILURE sid:%llu ASK= %d "
		    "Max %d", (unsigned long long)e->session_id, (int)len,
		    SDB_APP_BLOB_BYTES);
		return SDB_ERR_NOMEM;
	}
	if (len == 0)
		return 0;
	if (value == nullptr)
		return SDB_ERR_PARAM;
	uint16_t table_off = table(e, e->app_data_offset, SDB_STS_APP_TABLE_SIZE);
	if (table_off == 0)
		return SDB_ERR_NOMEM;
	e->app_data_offset = table_off;
	sdb_sts_app_rec r = app_table(e)->rec[blob];
	if (r.voff != 0 && r.len == len) {
		check_piece(e, r.voff, len);
		memcpy(bytes(e, r.voff), value, len);
	} else {
		uint16_t v = alloc(e, len);
		if (v == 0)
			return SDB_ERR_NOMEM;
		memcpy(bytes(e, v), value, len);
		if (r.voff != 0)
			release(e, r.voff, r.alloc_len);
		r = {0, (uint16_t)len, (uint16_t)piece_size(len), v};
		app_table(e)->rec[blob] = r;
	}
	app_table(e)->deleted &= ~(1u << blob);
	e->dirty_flags |= SDB_DIRTY_APP_DATA;
	return 0;
}

extern "C" int sdb_sts_entry_get_app(sdb_sts_entry *e, uint32_t blob,
    uint32_t *len, void *buf)
{
	if (blob > SDB_APP_BLOB_MAX)
		return SDB_ERR_PARAM;
	if (e->app_data_offset == 0 || app_table(e)->rec[blob].voff == 0)
		return SDB_ERR_NOT_FOUND;
	sdb_sts_app_rec r = app_table(e)->rec[blob];
	if (*len < r.len) {
		*len = r.len;
		return SDB_ERR_NOMEM;
	}
	check_piece(e, r.voff, r.len);
	memcpy(buf, bytes(e, r.voff), r.len);
	*len = r.len;
	return 0;
}

extern "C" int sdb_sts_entry_del_app(sdb_sts_entry *e, uint32_t blob)
{
	if (blob > SDB_APP_BLOB_MAX)
		return SDB_ERR_PARAM;
	if (e->app_data_offset == 0 || app_table(e)->rec[blob].voff == 0)
		return SDB_ERR_NOT_FOUND;
	sdb_sts_app_rec r = app_table(e)->rec[blob];
	release(e, r.voff, r.alloc_len);
	app_table(e)->rec[blob] = {};
	app_table(e)->deleted |= 1u << blob;
	e->dirty_flags |= SDB_DIRTY_APP_DATA;
	return 0;
}

/* ------------------------------------------------------------------ */

extern "C" int sdb_sts_entry_add_service_id(sdb_sts_entry *e, uint64_t id,
    uint32_t type)
{
	uint32_t business, dyn;
	bool has_business, has_dyn;
	if (read_count(e, SDB_NUM_EXTENSIBLE_SERVICE_SESSIONS, &business,
	    &has_business) != 0 ||
	    read_count(e, SDB_NUM_DYN_PROF_SERVICE_SESSIONS, &dyn, &has_dyn) != 0)
		return SDB_ERR_BLOCKED;
	uint32_t count = e->service_session_ids_count;
	if (type == SDB_SERVICE_BUSINESS && !has_business) {
		uint32_t zero = 0;
		if (int rc = sdb_sts_entry_put_attr(e,
		    SDB_NUM_EXTENSIBLE_SERVICE_SESSIONS, 4, &zero))
			return rc;
		has_business = true;
		if (e->service_list_bytes != SDB_STS_SERVICE_LIST_LARGE &&
		    service_list_resize(e, SDB_STS_SERVICE_LIST_LARGE) != 0)
			return SDB_ERR_NOMEM;
	}
	if (!has_business) {
		if ((type == SDB_SERVICE_DYN_PROFILE && dyn >= 12) ||
		    count >= SDB_STS_SERVICE_LIST_SMALL / 8)
			return SDB_ERR_PARAM;
	} else if (count >= SDB_STS_SERVICE_LIST_LARGE / 8) {
		return SDB_ERR_PARAM;
	}
	if (e->service_session_ids_offset == 0 &&
	    service_list_resize(e, has_business ? SDB_STS_SERVICE_LIST_LARGE :
	    SDB_STS_SERVICE_LIST_SMALL) != 0)
		return SDB_ERR_NOMEM;
	sdb_sts_assert_corruption(count < e->service_list_bytes / 8u);
	check_piece(e, e->service_session_ids_offset, e->service_list_bytes);
	memcpy(bytes(e, (uint16_t)(e->service_session_ids_offset + count * 8)),
	    &id, 8);
	e->service_session_ids_count = (uint16_t)(count + 1);
	e->dirty_flags |= SDB_DIRTY_SERVICE_LIST;
	return 0;
}

extern "C" int sdb_sts_entry_remove_service_id(sdb_sts_entry *e, uint64_t id)
{
	uint32_t count = e->service_session_ids_count;
	if (count == 0)
		return SDB_ERR_NOT_FOUND;
	check_piece(e, e->service_session_ids_offset, count * 8);
	uint8_t *list = bytes(e, e->service_session_ids_offset);
	for (uint32_t i = 0; i < count; i++) {
		uint64_t v;
		memcpy(&v, list + i * 8, 8);
		if (v != id)
			continue;
		memmove(list + i * 8, list + (count - 1) * 8, 8);
		memset(list + (count - 1) * 8, 0, 8);
		e->service_session_ids_count = (uint16_t)(count - 1);
		e->dirty_flags |= SDB_DIRTY_SERVICE_LIST;
		return 0;
	}
	return SDB_ERR_NOT_FOUND;
}

extern "C" int sdb_sts_entry_get_service_ids(const sdb_sts_entry *e,
    uint64_t *ids, uint32_t *count)
{
	uint32_t n = e->service_session_ids_count;
	if (n > *count) {
		*count = n;
		return SDB_ERR_NOMEM;
	}
	if (n > 0) {
		check_piece(e, e->service_session_ids_offset, n * 8);
		memcpy(ids, bytes(e, e->service_session_ids_offset), n * 8);
	}
	*count = n;
	return 0;
}

extern "C" int sdb_sts_entry_set_service_ids(sdb_sts_entry *e,
    const uint64_t *ids, uint32_t count, int business)
{
	uint16_t want = business ? SDB_STS_SERVICE_LIST_LARGE :
	    SDB_STS_SERVICE_LIST_SMALL;
	if (count > want / 8u)
		return SDB_ERR_PARAM;
	if (e->service_session_ids_offset == 0 || e->service_list_bytes != want) {
		e->service_session_ids_count = 0;
		if (service_list_resize(e, want) != 0)
			return SDB_ERR_NOMEM;
	}
	memset(bytes(e, e->service_session_ids_offset), 0, want);
	if (count > 0)
		memcpy(bytes(e, e->service_session_ids_offset), ids, count * 8);
	e->service_session_ids_count = (uint16_t)count;
	e->dirty_flags |= SDB_DIRTY_SERVICE_LIST;
	return 0;
}
