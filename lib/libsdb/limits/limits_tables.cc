/*
 * The ae, rlt and ps tables, which resolve bundles and pseudo interfaces
 * to the ports that carry the limits.
 *
 * An ae or rlt table is a run of heads, each followed directly by its
 * members; the count in each head is kept current as members are added,
 * so the place to append is found by walking the heads.  A restarted
 * writer, or a second one, thus appends where the last one stopped
 * instead of overwriting the table from a position of its own.  Writers
 * take the table lock.
 */
#include <cstdio>
#include <cstring>

#include "limits_impl.h"

using namespace sdb_limits;

namespace {

constexpr uint32_t num_mask = 0x1ff;
constexpr uint32_t count_shift = 9;
constexpr uint32_t count_mask = 0x7f;

struct bundle_table {
	const char *prefix;	/* "ae" or "rlt" */
	uint32_t *(*ptr)(void);
	uint32_t entries;
	const char *legs_tag;
	bool lt_members;
	const char *ptr_tag;
};

const bundle_table ae_table = {"ae", sdb_ae_table_ptr, SDB_AE_TABLE_ENTRIES,
    "LIBSDB_RSMON_AE_LEGS_OUT_OF_RANGE", false,
    "LIBSDB_RSMON_AE_TABLE_PTR_FAILURE"};
const bundle_table rlt_table = {"rlt", sdb_rlt_table_ptr,
    SDB_RLT_TABLE_ENTRIES, "LIBSDB_RSMON_RLT_LEGS_OUT_OF_RANGE", true,
    "LIBSDB_RSMON_RLT_TABLE_PTR_FAILURE"};

std::span<uint32_t> table(const bundle_table &t)
{
	uint32_t *p = t.ptr();
	if (p == nullptr) {
		sdb_event(3, t.ptr_tag, "%s: %s:%d table is not attached",
		    t.ptr_tag, __func__, __LINE__);
		return {};
	}
	return {p, t.entries};
}

uint32_t head_count(uint32_t head)
{
	return (head >> count_shift) & count_mask;
}

/* The first place after the last head's members. */
uint32_t end_of(std::span<uint32_t> tab)
{
	uint32_t pos = 0;
	while (pos < tab.size()) {
		uint32_t e = word(tab[pos]).load();
		if (!(e & SDB_TABLE_HEAD))
			break;
		pos += 1 + head_count(e);
	}
	return pos < tab.size() ? pos : (uint32_t)tab.size();
}

/* The place of the head with this number, or -1. */
int32_t find_head(std::span<uint32_t> tab, uint32_t num)
{
	uint32_t pos = 0;
	int32_t found = -1;
	while (pos < tab.size()) {
		uint32_t e = word(tab[pos]).load();
		if (!(e & SDB_TABLE_HEAD))
			break;
		if ((e & num_mask) == num)
			found = (int32_t)pos;	/* the last one counts */
		pos += 1 + head_count(e);
	}
	return found;
}

int bundle_number(const bundle_table &t, const char *name, uint32_t *num)
{
	interface_info info;
	int want = t.lt_members ? INTERFACE_RLT : INTERFACE_AE;
	if (name == nullptr || parse_interface(name, &info) != 0 ||
	    info.kind != want)
		return SDB_ERR_PARAM;
	if (info.number < 0 || (uint32_t)info.number > num_mask) {
		sdb_event(3, "LIBSDB_RSMON_INTF_NUM_OUT_OF_RANGE",
		    "LIBSDB_RSMON_INTF_NUM_OUT_OF_RANGE: %s:%d %s", __func__,
		    __LINE__, name);
		return SDB_ERR_PARAM;
	}
	*num = (uint32_t)info.number;
	return 0;
}

int table_init(const bundle_table &t)
{
	auto tab = table(t);
	if (tab.empty())
		return SDB_ERR_NOT_STARTED;
	table_guard lock;
	if (!lock.ok())
		return lock.rc();
	for (uint32_t &e : tab)
		word(e).store(0);
	return 0;
}

int add_head(const bundle_table &t, const char *name)
{
	uint32_t num;
	int rc = bundle_number(t, name, &num);
	if (rc != 0)
		return rc;
	auto tab = table(t);
	if (tab.empty())
		return SDB_ERR_NOT_STARTED;
	table_guard lock;
	if (!lock.ok())
		return lock.rc();
	uint32_t end = end_of(tab);
	if (end >= tab.size()) {
		sdb_event(3, t.legs_tag, "%s: %s:%d table full at %s",
		    t.legs_tag, __func__, __LINE__, name);
		return SDB_ERR_NOMEM;
	}
	word(tab[end]).store(SDB_TABLE_HEAD | num);
	return 0;
}

int add_leg(const bundle_table &t, const char *name, const char *leg)
{
	uint32_t num, member;
	int rc = bundle_number(t, name, &num);
	if (rc != 0)
		return rc;
	if (sdb_rsmon_convert_intf_name_to_num(leg, &member) != 0)
		return SDB_ERR_PARAM;
	if (t.lt_members)
		member &= 0x7fffff;	/* no channel on an lt member */
	auto tab = table(t);
	if (tab.empty())
		return SDB_ERR_NOT_STARTED;
	table_guard lock;
	if (!lock.ok())
		return lock.rc();
	int32_t head = find_head(tab, num);
	uint32_t end = end_of(tab);
	if (head < 0)
		return SDB_ERR_NOT_FOUND;
	uint32_t h = word(tab[head]).load();
	/* Members follow their head directly: only the last head grows. */
	if ((uint32_t)head + 1 + head_count(h) != end)
		return SDB_ERR_PARAM;
	if (end >= tab.size() || head_count(h) == count_mask) {
		sdb_event(3, t.legs_tag, "%s: %s:%d no room for %s in %s",
		    t.legs_tag, __func__, __LINE__, leg, name);
		return SDB_ERR_NOMEM;
	}
	if (!t.lt_members) {
		for (uint32_t i = (uint32_t)head + 1; i < end; i++) {
			uint32_t m = word(tab[i]).load();
			if (((m >> 12) & 0x7ff) != ((member >> 12) & 0x7ff))
				continue;
			member |= SDB_TABLE_SAME_FPC;
			if (((m >> 8) & 0xf) == ((member >> 8) & 0xf))
				member |= SDB_TABLE_SAME_PIC;
		}
	}
	word(tab[end]).store(member);
	word(tab[head]).store(h + (1u << count_shift));
	return 0;
}

int update_total(const bundle_table &t, const char *name, uint32_t legs)
{
	uint32_t num;
	int rc = bundle_number(t, name, &num);
	if (rc != 0)
		return rc;
	auto tab = table(t);
	if (tab.empty())
		return SDB_ERR_NOT_STARTED;
	table_guard lock;
	if (!lock.ok())
		return lock.rc();
	int32_t head = find_head(tab, num);
	if (head < 0)
		return SDB_ERR_NOT_FOUND;
	uint32_t h = word(tab[head]).load();
	/* The count is kept as members come; a total that disagrees is the
	 * writer's mistake and must not move the members of the next head. */
	if (head_count(h) != (legs & count_mask)) {
		sdb_trace(SDB_TRACE_ERR, "%s: %s has %u members, not %u",
		    __func__, name, head_count(h), legs);
		return SDB_ERR_PARAM;
	}
	return 0;
}

int get_members(const bundle_table &t, const char *name, sdb_ifd_member *out,
    uint32_t capacity, uint32_t *count)
{
	uint32_t num;
	*count = 0;
	int rc = bundle_number(t, name, &num);
	if (rc != 0)
		return rc;
	auto tab = table(t);
	if (tab.empty())
		return SDB_ERR_NOT_STARTED;
	int32_t head = find_head(tab, num);
	if (head < 0)
		return 0;	/* no members */
	uint32_t n = head_count(word(tab[head]).load());
	if ((uint32_t)head + 1 + n > tab.size() || n > capacity) {
		sdb_event(3, t.legs_tag, "%s: %s:%d %s has %u members",
		    t.legs_tag, __func__, __LINE__, name, n);
		return SDB_ERR_PARAM;
	}
	for (uint32_t i = 0; i < n; i++) {
		uint32_t m = word(tab[head + 1 + i]).load();
		uint32_t port = m & 0xff, pic = (m >> 8) & 0xf,
		    fpc = (m >> 12) & 0x7ff, chan = (m >> 23) & 0x1f;
		sdb_ifd_member &o = out[i];
		if (t.lt_members)
			snprintf(o.name, sizeof(o.name), "lt-%u/%u/%u", fpc, pic,
			    port);
		else if (chan == SDB_KEY_CHAN_ANY)
			snprintf(o.name, sizeof(o.name), "ge-%u/%u/%u", fpc, pic,
			    port);
		else
			snprintf(o.name, sizeof(o.name), "xe-%u/%u/%u:%u", fpc,
			    pic, port, chan);
		o.same_fpc = (m & SDB_TABLE_SAME_FPC) != 0;
		o.same_pic = (m & SDB_TABLE_SAME_PIC) != 0;
	}
	*count = n;
	return 0;
}

std::span<sdb_ps_record> ps_records(void)
{
	sdb_ps_record *r = sdb_ps_records();
	if (r == nullptr) {
		sdb_event(3, "LIBSDB_RSMON_PS_TABLE_PTR_FAILURE",
		    "LIBSDB_RSMON_PS_TABLE_PTR_FAILURE: %s:%d ps table is not "
		    "attached", __func__, __LINE__);
		return {};
	}
	return {r, SDB_PS_MAX_RECORDS};
}

void ps_release(sdb_ps_record &r)
{
	if (r.anchor_kind == SDB_PS_ANCHOR_FREE)
		return;
	r.anchor_kind = SDB_PS_ANCHOR_FREE;
	r.ps_num = 0;
	r.anchor = 0;
	r.flags = 0;
	word(r.current_count).store(0);
	auto usage = word(sdb_ps_table_hdr_ptr()->current_usage);
	int32_t old = usage.load();
	while (old > 0 && !usage.compare_exchange_weak(old, old - 1))
		;
}

int ps_get_free(uint32_t ps_num, uint32_t *index)
{
	auto recs = ps_records();
	if (recs.empty())
		return SDB_ERR_NOT_STARTED;
	sdb_ps_table_hdr *h = sdb_ps_table_hdr_ptr();
	int32_t free_at = -1;
	for (uint32_t i = 0; i < recs.size(); i++) {
		sdb_ps_record &r = recs[i];
		if (r.anchor_kind == SDB_PS_ANCHOR_FREE) {
			if (free_at < 0)
				free_at = (int32_t)i;
			continue;
		}
		if (r.ps_num == ps_num) {
			r.flags &= ~1u;
			*index = i;
			return 0;
		}
	}
	if (word(h->current_usage).load() >= h->max_records || free_at < 0) {
		sdb_event(3, "LIBSDB_RSMON_NO_FREE_RECORDS",
		    "LIBSDB_RSMON_NO_FREE_RECORDS: %s:%d ps table is full",
		    __func__, __LINE__);
		return SDB_ERR_FATAL;
	}
	sdb_ps_record &r = recs[free_at];
	r.ps_num = (uint16_t)ps_num;
	r.anchor = 0;
	r.anchor_kind = SDB_PS_ANCHOR_LT;	/* taken; the caller sets it */
	r.flags = 0;
	word(r.current_count).store(0);
	word(h->current_usage).fetch_add(1);
	*index = (uint32_t)free_at;
	return 0;
}

} // namespace

namespace sdb_limits {

int members(const char *name, sdb_ifd_member *out, uint32_t capacity,
    uint32_t *count)
{
	if (strncmp(name, "rlt", 3) == 0)
		return get_members(rlt_table, name, out, capacity, count);
	return get_members(ae_table, name, out, capacity, count);
}

sdb_ps_record *ps_find(uint32_t ps_num, uint32_t *index)
{
	auto recs = ps_records();
	for (uint32_t i = 0; i < recs.size(); i++) {
		if (recs[i].anchor_kind != SDB_PS_ANCHOR_FREE &&
		    recs[i].ps_num == ps_num) {
			*index = i;
			return &recs[i];
		}
	}
	return nullptr;
}

int ps_anchor(const char *ps_name, char *anchor, size_t size)
{
	interface_info info;
	if (ps_name == nullptr || parse_interface(ps_name, &info) != 0 ||
	    info.kind != INTERFACE_PS)
		return SDB_ERR_PARAM;
	uint32_t idx;
	sdb_ps_record *r = ps_find((uint32_t)info.number, &idx);
	if (r == nullptr)
		return SDB_ERR_NOT_FOUND;
	uint32_t a = r->anchor;
	if (r->anchor_kind == SDB_PS_ANCHOR_RLT)
		snprintf(anchor, size, "rlt%u", a);
	else
		snprintf(anchor, size, "lt-%u/%u/%u", (a >> 12) & 0x7ff,
		    (a >> 8) & 0xf, a & 0xff);
	return 0;
}

} // namespace sdb_limits

extern "C" int sdb_ae_table_init(void) { return table_init(ae_table); }
extern "C" int sdb_rlt_table_init(void) { return table_init(rlt_table); }

extern "C" int sdb_add_ae_num_entry(const char *name)
{
	return add_head(ae_table, name);
}

extern "C" int sdb_add_rlt_num_entry(const char *name)
{
	return add_head(rlt_table, name);
}

extern "C" int sdb_add_ae_leg_intf_entry(const char *name, const char *leg)
{
	return add_leg(ae_table, name, leg);
}

extern "C" int sdb_add_rlt_leg_intf_entry(const char *name, const char *leg)
{
	return add_leg(rlt_table, name, leg);
}

extern "C" int sdb_update_ae_total_leg_num(const char *name, uint32_t legs)
{
	return update_total(ae_table, name, legs);
}

extern "C" int sdb_update_rlt_total_leg_num(const char *name, uint32_t legs)
{
	return update_total(rlt_table, name, legs);
}

extern "C" int sdb_get_ae_ifd_members(const char *name, sdb_ifd_member *out,
    uint32_t capacity, uint32_t *count)
{
	return get_members(ae_table, name, out, capacity, count);
}

extern "C" int sdb_get_rlt_ifd_members(const char *name, sdb_ifd_member *out,
    uint32_t capacity, uint32_t *count)
{
	return get_members(rlt_table, name, out, capacity, count);
}

extern "C" int sdb_ps_table_init(void)
{
	auto recs = ps_records();
	if (recs.empty())
		return SDB_ERR_NOT_STARTED;
	table_guard lock;
	if (!lock.ok())
		return lock.rc();
	memset((void *)recs.data(), 0, recs.size_bytes());
	word(sdb_ps_table_hdr_ptr()->current_usage).store(0);
	return 0;
}

extern "C" int sdb_ps_table_get_free_record(uint32_t ps_num, uint32_t *index)
{
	table_guard lock;
	if (!lock.ok())
		return lock.rc();
	return ps_get_free(ps_num, index);
}

extern "C" int sdb_ps_table_relase_record(uint32_t index)
{
	auto recs = ps_records();
	if (index >= recs.size())
		return SDB_ERR_PARAM;
	table_guard lock;
	if (!lock.ok())
		return lock.rc();
	ps_release(recs[index]);
	return 0;
}

extern "C" int sdb_add_ps_anchor_intf_entry(const char *ps_name,
    const char *anchor)
{
	interface_info ps, a;
	if (ps_name == nullptr || anchor == nullptr ||
	    parse_interface(ps_name, &ps) != 0 || ps.kind != INTERFACE_PS ||
	    ps.number >= interface_info_get_max_ps_devices())
		return SDB_ERR_PARAM;
	table_guard lock;
	if (!lock.ok())
		return lock.rc();
	uint32_t idx;
	int rc = ps_get_free((uint32_t)ps.number, &idx);
	if (rc != 0)
		return rc;
	sdb_ps_record &r = ps_records()[idx];
	bool ok = parse_interface(anchor, &a) == 0;
	if (ok && a.kind == INTERFACE_RLT && strncmp(anchor, "rlt", 3) == 0) {
		r.anchor = (uint32_t)a.number;
		r.anchor_kind = SDB_PS_ANCHOR_RLT;
		return 0;
	}
	uint32_t num;
	if (ok && a.kind == INTERFACE_PHYSICAL && strncmp(anchor, "lt", 2) == 0 &&
	    sdb_rsmon_convert_intf_name_to_num(anchor, &num) == 0) {
		r.anchor = num & 0x7fffff;
		r.anchor_kind = SDB_PS_ANCHOR_LT;
		return 0;
	}
	sdb_event(3, "LIBSDB_RSMON_INVALID_INTERFACE_NAME",
	    "LIBSDB_RSMON_INVALID_INTERFACE_NAME: %s:%d anchor %s of %s is "
	    "neither rlt nor lt", __func__, __LINE__, anchor, ps_name);
	ps_release(r);
	return SDB_ERR_PARAM;
}

extern "C" int sdb_get_ps_interface_table_record(uint32_t ps_num,
    sdb_ps_record *out, uint32_t *index)
{
	uint32_t idx;
	sdb_ps_record *r = ps_find(ps_num, &idx);
	if (r == nullptr)
		return SDB_ERR_NOT_FOUND;
	if (out != nullptr)
		*out = *r;
	if (index != nullptr)
		*index = idx;
	return 0;
}

extern "C" int sdb_get_anchor_intf_name(const char *ps_name, char *anchor,
    size_t size)
{
	return ps_anchor(ps_name, anchor, size);
}

extern "C" void sdb_ps_table_mark_delete_all_nodes(void)
{
	table_guard lock;
	if (!lock.ok())
		return;
	for (sdb_ps_record &r : ps_records())
		if (r.anchor_kind != SDB_PS_ANCHOR_FREE)
			r.flags |= 1;
}

extern "C" void sdb_delete_all_marked_ps_table_nodes(void)
{
	table_guard lock;
	if (!lock.ok())
		return;
	for (sdb_ps_record &r : ps_records())
		if ((r.flags & 1) && word(r.current_count).load() == 0)
			ps_release(r);
}
