/*
 * The admission check of a login against the limits, and the counting of
 * subscribers that come and go, at every level from the channel up.
 *
 * Neither takes a lock: counts are atomic, so they stay exact, and two
 * processes that check at once may both admit the last place.
 */
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "limits_impl.h"
#include "platform/crashpoint.h"
#include "sdb/sdb_fpc.h"

using namespace sdb_limits;

namespace {

std::atomic<uint32_t> cos_refusals{0};
std::atomic<uint32_t> limit_refusals{0};

bool starts(const char *name, const char *prefix)
{
	return strncmp(name, prefix, strlen(prefix)) == 0;
}

uint32_t channel_of(const interface_info &info)
{
	return (info.channel < 0 || info.channel > 30) ? SDB_KEY_CHAN_ANY :
	    (uint32_t)info.channel;
}

/* The key of a physical interface's own record. */
int name_key(const interface_info &info, uint32_t ctype, uint64_t *key)
{
	if (info.fpc < 0 || info.pic < 0 || info.port < 0)
		return SDB_ERR_PARAM;
	return sdb_populate_key_sub_limit_record(ctype, (uint32_t)info.fpc,
	    (uint32_t)info.pic, (uint32_t)info.port, channel_of(info),
	    strcmp(info.media, "lt") == 0, key);
}

/* Each member must pass; no members admits. */
int check_members(const char *name, uint32_t flags)
{
	std::unique_ptr<sdb_ifd_member[]> m(
	    new (std::nothrow) sdb_ifd_member[SDB_AE_TABLE_ENTRIES]);
	uint32_t n = 0;
	if (m == nullptr)
		return 0;
	if (members(name, m.get(), SDB_AE_TABLE_ENTRIES, &n) != 0)
		return 1;
	for (uint32_t i = 0; i < n; i++)
		if (check_limit(m[i].name, flags) == 0)
			return 0;
	return 1;
}

void refused(uint32_t index, uint32_t ctype, const char *name)
{
	sdb_sub_limit_denied_counter_increment(index);
	sdb_sub_limit_exceeded_counter_increment(index);
	if (ctype != SDB_CLIENT_ANY) {
		uint32_t any;
		uint64_t k = key_with_type(word(records()[index].key).load(),
		    SDB_CLIENT_ANY);
		if (sdb_sub_limit_find_record(k, &any) == 0)
			sdb_sub_limit_exceeded_counter_increment(any);
	}
	if (limit_refusals.fetch_add(1) % 1000 == 0)
		sdb_event(3, "LIBSDB_RSMON_CLIENT_COUNT_EXCEEDED",
		    "LIBSDB_RSMON_CLIENT_COUNT_EXCEEDED: %s:%d Client count "
		    "exceeded the configured limit, intf_name=(et/%s)", __func__,
		    __LINE__, name);
}

/*
 * Up the chain from a physical record, for that many levels.  The parent
 * is found before the record is counted: a decrement to 0 cuts the
 * record's link upwards, and must not make this walk repair it.
 */
int walk_update(uint32_t index, int levels, bool up)
{
	for (int l = 0; l < levels; l++) {
		uint32_t next = 0;
		int rc = l + 1 < levels ? parent_of(index, &next) : 0;
		if (up)
			increment(index);
		else
			decrement(index);
		if (rc != 0)
			return rc;
		if (l + 1 < levels)
			TOLVAR_CRASH_POINT("limits.between_levels");
		index = next;
	}
	return 0;
}

int update_physical(const interface_info &info, uint32_t ctype, bool up,
    bool skip_fpc, bool skip_pic)
{
	uint64_t key;
	int rc = name_key(info, ctype, &key);
	if (rc != 0)
		return rc;
	bool chan = channel_of(info) != SDB_KEY_CHAN_ANY;
	int levels = skip_fpc ? (skip_pic ? 1 : 2) : 3;
	if (chan)
		levels++;
	uint32_t idx;
	rc = sdb_limit_check_and_update_all_level_records(key, &idx, 1);
	if (rc == 0)
		rc = walk_update(idx, levels, up);
	if (rc != 0)
		sdb_event(3, "LIBSDB_RSMON_SUBS_UPDATE_FAILED",
		    "LIBSDB_RSMON_SUBS_UPDATE_FAILED: %s:%d key %llu: %d",
		    __func__, __LINE__, (unsigned long long)key, rc);
	return rc;
}

int update_chassis(uint32_t ctype, bool up)
{
	uint64_t key = make_key(ctype, SDB_KEY_FPC_ANY, SDB_KEY_PIC_ANY,
	    SDB_KEY_PORT_ANY, SDB_KEY_CHAN_ANY, 0);
	uint32_t idx;
	int rc = find_or_create(key, &idx, true, SDB_LIMIT_NO_PARENT);
	if (rc != 0)
		return rc;
	if (up)
		increment(idx);
	else
		decrement(idx);
	return 0;
}

} // namespace

namespace sdb_limits {

int parse_name(const char *name, interface_info *info)
{
	if (parse_interface(name, info) != 0) {
		sdb_event(7, "LIBSDB_RSMON_PARSE_INTF_FAILED",
		    "LIBSDB_RSMON_PARSE_INTF_FAILED: %s:%d cannot parse "
		    "interface name %s", __func__, __LINE__, name);
		return SDB_ERR_PARAM;
	}
	return 0;
}

int check_limit(const char *name, uint32_t flags)
{
	if (name == nullptr || name[0] == '\0' || starts(name, "pp0"))
		return 1;
	uint32_t ctype = sdb_client_type_from_flags(flags);
	if (starts(name, "rlt") || starts(name, "ae"))
		return check_members(name, flags);
	if (starts(name, "ps"))
		return check_limit_ps(name, flags);
	if (sdb_check_cos_queue_usage(name) == 0) {
		if (cos_refusals.fetch_add(1) % 1000 == 0)
			sdb_event(3, "LIBSDB_COS_QUEUE_USAGE_EXCEEDED",
			    "LIBSDB_COS_QUEUE_USAGE_EXCEEDED: "
			    "sdb_check_cos_queue_usage failed, intf_name=%s",
			    name);
		return 0;
	}
	interface_info info;
	if (parse_name(name, &info) != 0)
		return 1;
	uint64_t key;
	uint32_t idx;
	int rc = name_key(info, ctype, &key);
	if (rc == 0)
		rc = sdb_limit_check_and_update_all_level_records(key, &idx, 0);
	if (rc == 0 && channel_of(info) != SDB_KEY_CHAN_ANY)
		rc = parent_of(idx, &idx);	/* limits sit on ports and up */
	if (rc != 0) {
		sdb_event(3, "LIBSDB_RSMON_LIMIT_CHECK_FAILED",
		    "LIBSDB_RSMON_LIMIT_CHECK_FAILED: %s:%d limit check of %s "
		    "failed: %d", __func__, __LINE__, name, rc);
		return 0;
	}
	for (int level = 0; level < 4; level++) {
		sdb_sub_limit_record &r = records()[idx];
		uint32_t limit = word(r.configured_limit).load();
		if (word(r.is_record_in_use).load() == SDB_LIMIT_IN_USE &&
		    limit != 0) {
			if (word(r.current_count).load() >= limit) {
				refused(idx, ctype, name);
				return 0;
			}
			sdb_sub_limit_nominal_counter_increment(idx);
			uint32_t any;
			if (ctype != SDB_CLIENT_ANY &&
			    sdb_sub_limit_find_record(key_with_type(
			    word(r.key).load(), SDB_CLIENT_ANY), &any) == 0)
				sdb_sub_limit_nominal_counter_increment(any);
		}
		if (level == 3 || parent_of(idx, &idx) != 0)
			break;
	}
	return 1;
}

int check_limit_ps(const char *name, uint32_t flags)
{
	char anchor[SDB_LIMIT_IFNAME_LEN];
	int rc = ps_anchor(name, anchor, sizeof(anchor));
	if (rc != 0) {
		sdb_trace(SDB_TRACE_ERR, "%s: sdb_get_anchor_intf_name failed "
		    "for %s, ret=%d : %d", __func__, name, rc, 0);
		return 1;
	}
	if (starts(anchor, "rlt"))
		return check_members(anchor, flags);
	return check_limit(anchor, flags);
}

int counter_update(const char *name, uint32_t flags, bool up, bool member,
    bool skip_fpc, bool skip_pic)
{
	if (name == nullptr || name[0] == '\0')
		return 0;
	bool ae = starts(name, "ae"), ps = starts(name, "ps"),
	    rlt = starts(name, "rlt");
	interface_info info;
	if (!ae && !ps && !rlt && parse_name(name, &info) != 0)
		return 0;
	uint32_t ctype = sdb_client_type_from_flags(flags);
	if (!member) {
		if (ps) {
			uint32_t num = 0, idx;
			sscanf(name, "ps%u", &num);
			sdb_ps_record *r = ps_find(num, &idx);
			if (r != nullptr) {
				auto c = word(r->current_count);
				if (up) {
					c.fetch_add(1);
				} else {
					uint32_t old = c.load();
					while (old != 0 &&
					    !c.compare_exchange_weak(old, old - 1))
						;
				}
			}
		}
		int rc = update_chassis(ctype, up);
		if (rc == 0 && ctype != SDB_CLIENT_ANY)
			rc = update_chassis(SDB_CLIENT_ANY, up);
		if (rc != 0)
			return rc;
	}
	if (ae || rlt) {
		std::unique_ptr<sdb_ifd_member[]> m(
		    new (std::nothrow) sdb_ifd_member[SDB_AE_TABLE_ENTRIES]);
		if (m == nullptr)
			return SDB_ERR_NOMEM;
		uint32_t n = 0;
		int rc = members(name, m.get(), SDB_AE_TABLE_ENTRIES, &n);
		for (uint32_t i = 0; rc == 0 && i < n; i++)
			rc = counter_update(m[i].name, flags, up, true,
			    ae && m[i].same_fpc, ae && m[i].same_pic);
		return rc;
	}
	if (ps) {
		char anchor[SDB_LIMIT_IFNAME_LEN];
		if (ps_anchor(name, anchor, sizeof(anchor)) != 0)
			return 0;
		return counter_update(anchor, flags, up, true, false, false);
	}
	int rc = update_physical(info, ctype, up, skip_fpc, skip_pic);
	if (rc == 0 && ctype != SDB_CLIENT_ANY)
		rc = update_physical(info, SDB_CLIENT_ANY, up, skip_fpc,
		    skip_pic);
	return rc;
}

} // namespace sdb_limits

extern "C" int sdb_check_subscribers_limit(const char *name, uint32_t flags)
{
	attach_guard attached;
	return check_limit(name, flags);
}

extern "C" int sdb_check_subscribers_limit_PS(const char *name,
    uint32_t flags)
{
	attach_guard attached;
	return check_limit_ps(name, flags);
}

extern "C" int sdb_subscriber_limit_counter_update(const char *name,
    uint32_t flags, uint8_t increment, uint8_t member, uint8_t skip_fpc,
    uint8_t skip_pic)
{
	attach_guard attached;
	if (records().empty())
		return SDB_ERR_NOT_STARTED;
	return counter_update(name, flags, increment != 0, member != 0,
	    skip_fpc != 0, skip_pic != 0);
}

extern "C" int sdb_get_subscriber_current_count(const char *name,
    uint32_t *count)
{
	attach_guard attached;
	if (name == nullptr || count == nullptr)
		return SDB_ERR_PARAM;
	if (starts(name, "ps")) {
		uint32_t num = 0, idx;
		if (sscanf(name, "ps%u", &num) != 1)
			return SDB_ERR_PARAM;
		sdb_ps_record *r = ps_find(num, &idx);
		if (r == nullptr)
			return SDB_ERR_NOT_FOUND;
		*count = word(r->current_count).load();
		return 0;
	}
	interface_info info;
	uint64_t key;
	if (parse_name(name, &info) != 0 ||
	    name_key(info, SDB_CLIENT_ANY, &key) != 0)
		return SDB_ERR_PARAM;
	sdb_sub_limit_data d;
	int rc = sdb_sub_limit_get_record_data_by_index(nullptr, &d, &key);
	if (rc == 0)
		*count = d.current_count;
	return rc;
}

extern "C" int sdb_rsmon_convert_intf_name_to_num(const char *name,
    uint32_t *num)
{
	interface_info info;
	if (name == nullptr || parse_interface(name, &info) != 0 ||
	    info.kind != INTERFACE_PHYSICAL || info.fpc > 2047 ||
	    info.pic > 15 || info.port > 255)
		return SDB_ERR_PARAM;
	*num = (uint32_t)info.port | (uint32_t)info.pic << 8 |
	    (uint32_t)info.fpc << 12 | channel_of(info) << 23;
	return 0;
}
