/*
 * Limit records: the key, finding and making a record, the chain of
 * parents from a port up to the chassis, and the counters of one record.
 *
 * Invariants:
 * - A record is free (no in-use mark, no count, no limit, no map), in use
 *   (marked 0xABAB) or mapped (used_for_sched_map).  A record is made
 *   only under the table lock: a maker finds again under the lock before
 *   it claims, so two processes never make two records for one key.  The
 *   claim itself is a compare-and-swap on the in-use word, and the key is
 *   written last, so a reader never matches a half-made record.
 * - Key 0 is no key (the chassis bit is set in every real key): a record
 *   marked in use with key 0 was claimed by a process that died before it
 *   wrote the key, and is free again.
 * - Counts move by atomic add and subtract and never fall below 0.
 */
#include <cstring>

#include "limits_impl.h"
#include "platform/crashpoint.h"

using namespace sdb_limits;

namespace {

constexpr uint64_t chassis_bit = 1ull << 28;
constexpr uint64_t lt_bit = 1ull << 29;

struct key_fields {
	uint32_t port, pic, fpc, ctype, lt, chan;
};

key_fields split(uint64_t k)
{
	return {(uint32_t)(k & 0xff), (uint32_t)((k >> 8) & 0xf),
	    (uint32_t)((k >> 12) & 0x7ff), (uint32_t)((k >> 23) & 0x1f),
	    (uint32_t)((k >> 29) & 1), (uint32_t)((k >> 30) & 0x1f)};
}

bool record_live(const sdb_sub_limit_record &r)
{
	auto &m = const_cast<sdb_sub_limit_record &>(r);
	return word(m.is_record_in_use).load() == SDB_LIMIT_IN_USE ||
	    word(m.current_count).load() != 0 ||
	    m.used_for_sched_map == SDB_LIMIT_SCHED_MAP;
}

/* Linear scan; stops after current_usage marked records unless full. */
int scan(uint64_t key, uint32_t *index, bool full)
{
	auto recs = records();
	sdb_sub_limit_hdr *h = header();
	if (recs.empty() || h == nullptr)
		return SDB_ERR_NOT_FOUND;
	int32_t usage = word(h->current_usage).load();
	int32_t seen = 0;
	for (uint32_t i = 0; i < recs.size(); i++) {
		sdb_sub_limit_record &r = recs[i];
		bool marked = word(r.is_record_in_use).load() == SDB_LIMIT_IN_USE;
		if (word(r.key).load(std::memory_order_acquire) == key &&
		    record_live(r)) {
			*index = i;
			return 0;
		}
		if (marked && ++seen >= usage && !full)
			break;
	}
	return SDB_ERR_NOT_FOUND;
}

bool is_free(sdb_sub_limit_record &r)
{
	uint16_t mark = word(r.is_record_in_use).load();
	return (mark != SDB_LIMIT_IN_USE || word(r.key).load() == 0) &&
	    word(r.current_count).load() == 0 &&
	    word(r.configured_limit).load() == 0 &&
	    r.used_for_sched_map != SDB_LIMIT_SCHED_MAP;
}

/* Fill a claimed record; the key goes last. */
void fill(sdb_sub_limit_record &r, uint64_t key, bool set_parent,
    uint16_t parent)
{
	r.denied_count = 0;
	r.client_allowed = 1;
	r.threshold_state = 0;
	r.parent_offset = set_parent ? parent : SDB_LIMIT_NO_PARENT;
	word(r.key).store(key, std::memory_order_release);
}

bool real_port(uint64_t key)
{
	key_fields f = split(key);
	return f.fpc != SDB_KEY_FPC_ANY && f.pic != SDB_KEY_PIC_ANY &&
	    f.port != SDB_KEY_PORT_ANY;
}

/* Under the table lock. */
int claim(uint64_t key, uint32_t *index, bool set_parent, uint16_t parent)
{
	auto recs = records();
	sdb_sub_limit_hdr *h = header();
	if (recs.empty() || h == nullptr)
		return SDB_ERR_NOMEM;
	for (uint32_t i = 0; i < recs.size(); i++) {
		sdb_sub_limit_record &r = recs[i];
		if (!is_free(r))
			continue;
		/*
		 * The usage rises before the mark: a maker killed between
		 * the two leaves the usage one high, which only makes a scan
		 * look further, never one that stops short of a record.
		 */
		uint16_t mark = word(r.is_record_in_use).load();
		bool fresh = mark != SDB_LIMIT_IN_USE;
		if (fresh)
			word(h->current_usage).fetch_add(1);
		if (!word(r.is_record_in_use).compare_exchange_strong(mark,
		    SDB_LIMIT_IN_USE)) {
			if (fresh)
				word(h->current_usage).fetch_sub(1);
			continue;
		}
		TOLVAR_CRASH_POINT("limits.claimed");
		fill(r, key, set_parent, parent);
		*index = i;
		return 0;
	}
	sdb_event(3, "LIBSDB_RSMON_NO_FREE_RECORDS",
	    "LIBSDB_RSMON_NO_FREE_RECORDS: %s:%d no free limit record for "
	    "key %llu", __func__, __LINE__, (unsigned long long)key);
	/* Take over a port or channel record that nobody counts on. */
	for (uint32_t i = 0; i < recs.size(); i++) {
		sdb_sub_limit_record &r = recs[i];
		if (word(r.current_count).load() != 0 ||
		    word(r.configured_limit).load() != 0 ||
		    r.used_for_sched_map == SDB_LIMIT_SCHED_MAP ||
		    !real_port(word(r.key).load()))
			continue;
		fill(r, key, set_parent, parent);
		*index = i;
		return 0;
	}
	return SDB_ERR_NOMEM;
}

const char *level_event[] = {
	"LIBSDB_CHSSSIS_LEVEL_MAX_SUB_REACHED",
	"LIBSDB_FPC_LEVEL_MAX_SUB_REACHED",
	"LIBSDB_PIC_LEVEL_MAX_SUB_REACHED",
	"LIBSDB_PORT_LEVEL_MAX_SUB_REACHED",
};

void max_reached(uint64_t key, uint32_t limit)
{
	key_fields f = split(key);
	const char *ct = sdb_client_type_name(f.ctype);
	switch (sdb_sub_limit_key_level(key)) {
	case SDB_LEVEL_CHASSIS:
		sdb_event(4, level_event[0], "LIBSDB_CHSSSIS_LEVEL_MAX_SUB_REACHED: "
		    "Subscriber limit has reached max(%d) for client-type(%s)",
		    (int)limit, ct);
		break;
	case SDB_LEVEL_FPC:
		sdb_event(4, level_event[1], "LIBSDB_FPC_LEVEL_MAX_SUB_REACHED: "
		    "Subscriber limit has reached max(%d) for client-type(%s), "
		    "fpc(%d)", (int)limit, ct, (int)f.fpc);
		break;
	case SDB_LEVEL_PIC:
		sdb_event(4, level_event[2], "LIBSDB_PIC_LEVEL_MAX_SUB_REACHED: "
		    "Subscriber limit has reached max(%d) for client-type(%s), "
		    "fpc(%d), pic(%d)", (int)limit, ct, (int)f.fpc, (int)f.pic);
		break;
	default:	/* limits are set on ports and above */
		sdb_event(4, level_event[3], "LIBSDB_PORT_LEVEL_MAX_SUB_REACHED: "
		    "Subscriber limit has reached max(%d) for client-type(%s), "
		    "fpc(%d), pic(%d), port(%d)", (int)limit, ct, (int)f.fpc,
		    (int)f.pic, (int)f.port);
		break;
	}
}

/* Makes the chain from the chassis down to key's own level. */
int populate(uint64_t key, uint32_t *index)
{
	key_fields f = split(key);
	enum sdb_limit_level level = sdb_sub_limit_key_level(key);
	uint64_t k[5] = {
		make_key(f.ctype, SDB_KEY_FPC_ANY, SDB_KEY_PIC_ANY,
		    SDB_KEY_PORT_ANY, SDB_KEY_CHAN_ANY, 0),
		make_key(f.ctype, f.fpc, SDB_KEY_PIC_ANY, SDB_KEY_PORT_ANY,
		    SDB_KEY_CHAN_ANY, 0),
		make_key(f.ctype, f.fpc, f.pic, SDB_KEY_PORT_ANY,
		    SDB_KEY_CHAN_ANY, 0),
		make_key(f.ctype, f.fpc, f.pic, f.port, SDB_KEY_CHAN_ANY, f.lt),
		key,
	};
	uint32_t idx = 0;
	uint16_t parent = SDB_LIMIT_NO_PARENT;
	for (int l = SDB_LEVEL_CHASSIS; l <= (int)level; l++) {
		int rc = find_or_create(k[l], &idx, true, parent);
		if (rc != 0)
			return rc;
		parent = (uint16_t)idx;
	}
	*index = idx;
	return 0;
}

int valid_index(uint32_t index)
{
	sdb_sub_limit_hdr *h = header();
	if (h == nullptr || records().empty()) {
		sdb_event(3, "LIBSDB_RSMON_LIMIT_TABLE_HEADERS_NULL",
		    "LIBSDB_RSMON_LIMIT_TABLE_HEADERS_NULL: %s:%d "
		    "rsmon_sub_limit_hdr or rsmon_sub_limit_record is NULL.",
		    __func__, __LINE__);
		return SDB_ERR_NOT_STARTED;
	}
	int32_t max = h->max_records;
	if (max < 1 || max > SDB_LIMIT_MAX_RECORDS || index >= (uint32_t)max)
		return SDB_ERR_PARAM;
	return 0;
}

} // namespace

namespace sdb_limits {

uint64_t make_key(uint32_t ctype, uint32_t fpc, uint32_t pic, uint32_t port,
    uint32_t chan, uint32_t lt)
{
	return (uint64_t)(port & 0xff) | (uint64_t)(pic & 0xf) << 8 |
	    (uint64_t)(fpc & 0x7ff) << 12 | (uint64_t)(ctype & 0x1f) << 23 |
	    chassis_bit | (lt ? lt_bit : 0) | (uint64_t)(chan & 0x1f) << 30;
}

uint64_t key_with_type(uint64_t key, uint32_t ctype)
{
	return (key & ~(0x1full << 23)) | (uint64_t)(ctype & 0x1f) << 23;
}

bool parent_key(uint64_t key, uint64_t *parent)
{
	key_fields f = split(key);
	switch (sdb_sub_limit_key_level(key)) {
	case SDB_LEVEL_CHANNEL:
		f.chan = SDB_KEY_CHAN_ANY;
		break;
	case SDB_LEVEL_PORT:
		f.port = SDB_KEY_PORT_ANY;
		f.lt = 0;
		break;
	case SDB_LEVEL_PIC:
		f.pic = SDB_KEY_PIC_ANY;
		break;
	case SDB_LEVEL_FPC:
		f.fpc = SDB_KEY_FPC_ANY;
		break;
	case SDB_LEVEL_CHASSIS:
		return false;
	}
	*parent = make_key(f.ctype, f.fpc, f.pic, f.port, f.chan, f.lt);
	return true;
}

int find_or_create(uint64_t key, uint32_t *index, bool set_parent,
    uint16_t parent)
{
	int rc = scan(key, index, false);
	if (rc != 0) {
		table_guard lock;
		if (!lock.ok())
			return lock.rc();
		rc = scan(key, index, true);
		if (rc != 0)
			rc = claim(key, index, set_parent, parent);
		if (rc != 0) {
			sdb_event(3, "LIBSDB_RSMON_FREE_RECORD_NOT_PRESENT",
			    "LIBSDB_RSMON_FREE_RECORD_NOT_PRESENT: %s:%d no "
			    "record for key %llu", __func__, __LINE__,
			    (unsigned long long)key);
			return rc;
		}
	}
	if (set_parent)
		word(records()[*index].parent_offset).store(parent);
	return 0;
}

int parent_of(uint32_t index, uint32_t *parent)
{
	auto recs = records();
	if (index >= recs.size())
		return SDB_ERR_PARAM;
	sdb_sub_limit_record &r = recs[index];
	uint64_t want;
	if (!parent_key(word(r.key).load(), &want))
		return SDB_ERR_PARAM;
	uint16_t p = word(r.parent_offset).load();
	if (p < recs.size() && word(recs[p].key).load() == want &&
	    record_live(recs[p])) {
		*parent = p;
		return 0;
	}
	if (p != SDB_LIMIT_NO_PARENT)
		sdb_event(3, "LIBSDB_RSMON_INVALID_PARENT_OFFSET",
		    "LIBSDB_RSMON_INVALID_PARENT_OFFSET: Key(%llu) points to "
		    "incorrect parent key(%llu).",
		    (unsigned long long)word(r.key).load(),
		    p < recs.size() ? (unsigned long long)word(recs[p].key).load()
		    : 0ull);
	/*
	 * The link was cut by a decrement to 0 while this process was on its
	 * way up, or the parent was taken over.  Stopping here would lose
	 * this count at every level above; find the parent by its key.
	 */
	uint32_t found;
	int rc = populate(want, &found);
	if (rc != 0)
		return p == SDB_LIMIT_NO_PARENT ? rc : SDB_ERR_CORRUPT;
	word(r.parent_offset).store((uint16_t)found);
	*parent = found;
	return 0;
}

void increment(uint32_t index)
{
	sdb_sub_limit_record &r = records()[index];
	uint32_t now = word(r.current_count).fetch_add(1) + 1;
	uint32_t limit = word(r.configured_limit).load();
	if (now == limit)
		max_reached(word(r.key).load(), limit);
}

void decrement(uint32_t index)
{
	sdb_sub_limit_record &r = records()[index];
	auto count = word(r.current_count);
	uint32_t old = count.load();
	do {
		if (old == 0)
			return;
	} while (!count.compare_exchange_weak(old, old - 1));
	if (old == 1 && word(r.configured_limit).load() == 0 &&
	    word(r.is_record_in_use).load() == SDB_LIMIT_IN_USE &&
	    r.used_for_sched_map != SDB_LIMIT_SCHED_MAP) {
		word(r.denied_count).store(0);
		word(r.parent_offset).store(SDB_LIMIT_NO_PARENT);
	}
}

} // namespace sdb_limits

extern "C" int sdb_populate_key_sub_limit_record(uint32_t client_type,
    uint32_t fpc, uint32_t pic, uint32_t port, uint32_t channel, uint32_t lt,
    uint64_t *key)
{
	if (channel > 31 || client_type > 31 || fpc > 2047 || pic > 15 ||
	    port > 255 || key == nullptr) {
		sdb_event(3, "LIBSDB_RSMON_INVALID_PARAMETER",
		    "LIBSDB_RSMON_INVALID_PARAMETER: %s:%d key field out of range: "
		    "client-type %u fpc %u pic %u port %u chan %u", __func__,
		    __LINE__, client_type, fpc, pic, port, channel);
		return SDB_ERR_PARAM;
	}
	*key = make_key(client_type, fpc, pic, port, channel, lt);
	return 0;
}

extern "C" void sdb_sub_limit_key_fields(uint64_t key, uint32_t *client_type,
    uint32_t *fpc, uint32_t *pic, uint32_t *port, uint32_t *channel,
    uint32_t *lt)
{
	key_fields f = split(key);
	if (client_type) *client_type = f.ctype;
	if (fpc) *fpc = f.fpc;
	if (pic) *pic = f.pic;
	if (port) *port = f.port;
	if (channel) *channel = f.chan;
	if (lt) *lt = f.lt;
}

extern "C" enum sdb_limit_level sdb_sub_limit_key_level(uint64_t key)
{
	key_fields f = split(key);
	if (f.fpc == SDB_KEY_FPC_ANY)
		return SDB_LEVEL_CHASSIS;
	if (f.pic == SDB_KEY_PIC_ANY)
		return SDB_LEVEL_FPC;
	if (f.port == SDB_KEY_PORT_ANY)
		return SDB_LEVEL_PIC;
	if (f.chan == SDB_KEY_CHAN_ANY)
		return SDB_LEVEL_PORT;
	return SDB_LEVEL_CHANNEL;
}

extern "C" const char *sdb_client_type_name(uint32_t client_type)
{
	static constexpr const char *names[] = {"PPPoE", "DHCP", "L2TP", "Any"};
	if (client_type < 1 || client_type > 4)
		return "Invalid";
	return names[client_type - 1];
}

extern "C" const char *sdb_limit_level_name(enum sdb_limit_level level)
{
	static constexpr const char *names[] = {"chassis", "fpc", "pic", "port",
	    "channel"};
	return (unsigned)level <= SDB_LEVEL_CHANNEL ? names[level] : "invalid";
}

extern "C" uint32_t sdb_client_type_from_flags(uint32_t flags)
{
	switch (flags) {
	case 64:
		return SDB_CLIENT_PPPOE;
	case 128:
		return SDB_CLIENT_L2TP;
	case 1:
		return SDB_CLIENT_DHCP;
	default:
		return SDB_CLIENT_ANY;
	}
}

extern "C" int sdb_sub_limit_find_record(uint64_t key, uint32_t *index)
{
	return scan(key, index, false);
}

extern "C" int sdb_sub_limit_get_record_idx_by_key(uint32_t client_type,
    uint32_t fpc, uint32_t pic, uint32_t port, uint32_t channel, uint32_t lt,
    uint32_t *index, uint8_t set_parent, uint16_t parent)
{
	uint64_t key;
	int rc = sdb_populate_key_sub_limit_record(client_type, fpc, pic, port,
	    channel, lt, &key);
	if (rc != 0)
		return rc;
	attach_guard attached;
	if (records().empty())
		return valid_index(0);
	return find_or_create(key, index, set_parent != 0, parent);
}

extern "C" int sdb_sub_limit_get_record_by_index(sdb_sub_limit_record **rec,
    uint32_t index)
{
	int rc = valid_index(index);
	if (rc != 0)
		return rc;
	*rec = &records()[index];
	return 0;
}

extern "C" int sdb_sub_limit_get_record_data_by_index(const uint32_t *index,
    sdb_sub_limit_data *out, const uint64_t *key)
{
	uint32_t idx;
	if (index != nullptr) {
		idx = *index;
	} else if (key == nullptr || scan(*key, &idx, false) != 0) {
		return SDB_ERR_NOT_FOUND;
	}
	int rc = valid_index(idx);
	if (rc != 0)
		return rc;
	sdb_sub_limit_record &r = records()[idx];
	*out = sdb_sub_limit_data{};
	out->key = word(r.key).load();
	out->configured_limit = word(r.configured_limit).load();
	out->current_count = word(r.current_count).load();
	out->denied_count = word(r.denied_count).load();
	out->exceeded_count = word(r.exceeded_count).load();
	out->nominal_count = word(r.nominal_count).load();
	out->is_record_in_use = word(r.is_record_in_use).load();
	out->parent_offset = word(r.parent_offset).load();
	out->client_allowed = r.client_allowed;
	return 0;
}

extern "C" int sdb_sub_limit_get_free_record(uint32_t key_lo, uint32_t key_hi,
    uint32_t *index, uint8_t set_parent, uint16_t parent)
{
	attach_guard attached;
	table_guard lock;
	if (!lock.ok())
		return lock.rc();
	int rc = claim((uint64_t)key_hi << 32 | key_lo, index, set_parent != 0,
	    parent);
	if (rc != 0)
		sdb_event(3, "LIBSDB_RSMON_FREE_INDEX_ERROR",
		    "LIBSDB_RSMON_FREE_INDEX_ERROR: %s:%d no free record",
		    __func__, __LINE__);
	return rc;
}

extern "C" int sdb_limit_check_and_update_all_level_records(uint64_t key,
    uint32_t *index, int level_source)
{
	if (records().empty())
		return valid_index(0);
	uint32_t idx;
	if (scan(key, &idx, false) != 0) {
		sdb_event(6, "LIBSDB_RSMON_IFD_LEVEL_RECORD_NOT_FOUND",
		    "LIBSDB_RSMON_IFD_LEVEL_RECORD_NOT_FOUND: %s:%d no record "
		    "for key %llu (from %d), populating", __func__, __LINE__,
		    (unsigned long long)key, level_source);
		int rc = populate(key, &idx);
		if (rc != 0)
			return rc;
	}
	/* A record without count may hang under a chain that was taken
	 * over or cut: renew it. */
	if (word(records()[idx].current_count).load() == 0) {
		int rc = populate(key, &idx);
		if (rc != 0)
			return rc;
	}
	*index = idx;
	return 0;
}

extern "C" int sdb_sub_limit_denied_counter_increment(uint32_t index)
{
	int rc = valid_index(index);
	if (rc == 0)
		word(records()[index].denied_count).fetch_add(1);
	return rc;
}

extern "C" int sdb_sub_limit_exceeded_counter_increment(uint32_t index)
{
	int rc = valid_index(index);
	if (rc != 0)
		return rc;
	sdb_sub_limit_record &r = records()[index];
	uint8_t st = word(r.threshold_state).load();
	if (st != SDB_LIMIT_OVER &&
	    word(r.threshold_state).compare_exchange_strong(st, SDB_LIMIT_OVER))
		word(r.exceeded_count).fetch_add(1);
	return 0;
}

extern "C" int sdb_sub_limit_nominal_counter_increment(uint32_t index)
{
	int rc = valid_index(index);
	if (rc != 0)
		return rc;
	sdb_sub_limit_record &r = records()[index];
	uint8_t st = SDB_LIMIT_OVER;
	if (word(r.threshold_state).compare_exchange_strong(st,
	    SDB_LIMIT_NOMINAL))
		word(r.nominal_count).fetch_add(1);
	return 0;
}

extern "C" void sdb_set_limit_counters_default_values(void)
{
	attach_guard attached;
	sdb_sub_limit_hdr *h = header();
	if (h == nullptr || h->max_records < 1 ||
	    h->max_records > SDB_LIMIT_MAX_RECORDS)
		return;
	for (sdb_sub_limit_record &r : records().first(h->max_records)) {
		if (word(r.is_record_in_use).load() != SDB_LIMIT_IN_USE ||
		    word(r.configured_limit).load() == 0)
			continue;
		word(r.configured_limit).store(0);
		if (word(r.current_count).load() != 0 ||
		    r.used_for_sched_map == SDB_LIMIT_SCHED_MAP)
			continue;
		word(r.parent_offset).store(SDB_LIMIT_NO_PARENT);
		r.fpc_num = SDB_KEY_FPC_ANY;
		r.pfe_num = 15;
		r.sched_num = 15;
		r.client_allowed = 1;
		r.used_for_sched_map = 0;
	}
}

extern "C" int sdb_sub_limit_set(uint64_t key, uint32_t limit)
{
	attach_guard attached;
	if (records().empty())
		return valid_index(0);
	uint32_t idx;
	int rc = populate(key, &idx);
	if (rc == 0)
		word(records()[idx].configured_limit).store(limit);
	return rc;
}

extern "C" int sdb_sub_limit_count_set(uint64_t key, uint32_t count)
{
	attach_guard attached;
	if (records().empty())
		return valid_index(0);
	uint32_t idx;
	int rc = populate(key, &idx);
	if (rc == 0)
		word(records()[idx].current_count).store(count);
	return rc;
}
