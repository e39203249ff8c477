/*
 * Line card admission.  The resource monitor writes a state per line card
 * into the main segment; a login or a service request asks here first.
 * The answer also depends on a throttled test of free memory (per process)
 * and on the scheduler mapping of the port's limit record.
 *
 * The free memory tests: Linux overcommits, so allocating and freeing a
 * large block proves nothing.  The heap test compares the memory that the
 * kernel counts as available with the test total instead, and the shared
 * memory test asks the file system of the stores for room before it makes
 * (and removes) a mapped file of the test size.
 */
#include <atomic>
#include <cstring>
#include <ctime>
#include <sys/statvfs.h>

#include <mmf/mmf.h>

#include "limits_impl.h"
#include "platform/timescale.h"
#include "sdb/sdb_db.h"
#include "sdb/sdb_fpc.h"

using namespace sdb_limits;

static_assert(sizeof(sdb_seg_tail::limit_rows40) ==
    SDB_FPC_SLOTS * sizeof(sdb_fpc_entry));
static_assert(sizeof(sdb_seg_tail::limit_rows13) ==
    SDB_SCHED_ROWS * sizeof(sdb_sched_row));
static_assert(sizeof(sdb_seg_tail::limit_head) == sizeof(sdb_fpc_counters));
static_assert(offsetof(sdb_seg_tail, limit_rows40) % 4 == 0 &&
    SDB_SEG_TAIL % 4 == 0, "the line card table is 4-aligned in place");

namespace {

constexpr uint32_t test_every_requests = 1000;
constexpr double test_every_secs = 1;
constexpr uint64_t shared_base_bytes = 5242880;
constexpr uint64_t heap_total_bytes = 104857600;
constexpr const char *shared_test_file = "/mfs/var/sdb/shmem/check_free_shared";

struct mem_state {
	std::atomic<uint8_t> heap_ok{1}, shared_ok{1}, mem_ok{1};
	std::atomic<uint64_t> requests{0}, at_test{0}, tests{0};
	std::atomic<int64_t> last_test_ms{-1};
} mem;

std::atomic<uint64_t> local_requests[SDB_FPC_SLOTS];

bool normal(const sdb_fpc_entry &e)
{
	return e.login_ok != 0 && e.service_ok != 0 &&
	    e.fpc_level == SDB_FPC_LEVEL_NORMAL;
}

int64_t uptime_ms(void)
{
	struct timespec ts;
	clock_gettime(CLOCK_BOOTTIME, &ts);
	return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

/* A port that is not mapped to this PFE yet. */
bool needs_mapping(const char *name, uint8_t pfe)
{
	interface_info info;
	if (parse_interface(name, &info) != 0 || info.kind != INTERFACE_PHYSICAL)
		return false;
	uint64_t key;
	uint32_t idx;
	if (sdb_populate_key_sub_limit_record(SDB_CLIENT_ANY, info.fpc, info.pic,
	    info.port, SDB_KEY_CHAN_ANY, strcmp(info.media, "lt") == 0, &key) != 0)
		return false;
	if (sdb_sub_limit_find_record(key, &idx) != 0)
		return true;
	sdb_sub_limit_record &r = records()[idx];
	return r.used_for_sched_map != SDB_LIMIT_SCHED_MAP || r.pfe_num != pfe;
}

void clear_map(sdb_sub_limit_record &r)
{
	r.fpc_num = SDB_KEY_FPC_ANY;
	r.pfe_num = 15;
	r.sched_num = 15;
	r.client_allowed = 1;
	r.used_for_sched_map = 0;
	if (word(r.configured_limit).load() == 0 &&
	    word(r.current_count).load() == 0) {
		word(r.denied_count).store(0);
		word(r.parent_offset).store(SDB_LIMIT_NO_PARENT);
	}
}

/* Visits the mapped records, stopping after current_usage in use. */
template <typename F> void each_mapped(F f)
{
	sdb_sub_limit_hdr *h = header();
	if (h == nullptr)
		return;
	int32_t usage = word(h->current_usage).load(), seen = 0;
	for (sdb_sub_limit_record &r : records()) {
		if (word(r.is_record_in_use).load() != SDB_LIMIT_IN_USE)
			continue;
		if (r.used_for_sched_map == SDB_LIMIT_SCHED_MAP)
			f(r);
		if (++seen >= usage)
			break;
	}
}

int refuse_invalid(uint32_t fpc, const char *what)
{
	sdb_event(3, "LIBSDB_FPC_INVALID_LOGIN_REQUEST",
	    "LIBSDB_FPC_INVALID_LOGIN_REQUEST: %s request received from "
	    "invalid line card %d", what, (int)fpc);
	return 0;
}

} // namespace

extern "C" sdb_fpc_entry *sdb_fpc_table(void)
{
	sdb_seg_tail *t = sdb_seg_tail_ptr();
	return t == nullptr ? nullptr :
	    reinterpret_cast<sdb_fpc_entry *>(t->limit_rows40);
}

extern "C" uint8_t *sdb_fpc_throttle(void)
{
	sdb_seg_tail *t = sdb_seg_tail_ptr();
	return t == nullptr ? nullptr : &t->limit_flag;
}

extern "C" sdb_sched_row *sdb_sched_table(void)
{
	sdb_seg_tail *t = sdb_seg_tail_ptr();
	return t == nullptr ? nullptr :
	    reinterpret_cast<sdb_sched_row *>(t->limit_rows13);
}

extern "C" sdb_fpc_counters *sdb_fpc_counters_ptr(void)
{
	sdb_seg_tail *t = sdb_seg_tail_ptr();
	return t == nullptr ? nullptr :
	    reinterpret_cast<sdb_fpc_counters *>(t->limit_head);
}

/*
 * A fresh main segment is all zero, which would refuse every login: no
 * monitor writes level 0 with both flags 0 on every card at once, so that
 * state means "never initialised".
 */
extern "C" void sdb_fpc_table_init_if_new(void)
{
	sdb_fpc_entry *tab = sdb_fpc_table();
	sdb_sched_row *sched = sdb_sched_table();
	if (tab == nullptr)
		return;
	for (uint32_t i = 0; i < SDB_FPC_SLOTS; i++)
		if (tab[i].fpc_level != 0 || tab[i].login_ok != 0 ||
		    tab[i].service_ok != 0)
			return;
	for (uint32_t i = 0; i < SDB_FPC_SLOTS; i++) {
		tab[i] = sdb_fpc_entry{};
		tab[i].login_ok = 1;
		tab[i].service_ok = 1;
		tab[i].fpc_level = SDB_FPC_LEVEL_NORMAL;
		tab[i].monitor31 = 1;
		tab[i].monitor32 = 1;
	}
	memset(sched, 0xff, SDB_SCHED_ROWS * sizeof(sdb_sched_row));
	*sdb_fpc_throttle() = 0;
}

extern "C" int check_free_shared(void)
{
	uint32_t clients = sdb_client_count();
	uint64_t bytes = shared_base_bytes;
	if (clients < 8000)
		bytes /= 128;
	else if (clients < 48000)
		bytes /= 16;
	else if (clients < 512000)
		bytes /= 4;
	std::string dir = sdb_store_path(SDB_SHMEM_DIR);
	struct statvfs vfs;
	bool ok = statvfs(dir.c_str(), &vfs) == 0 &&
	    (uint64_t)vfs.f_bavail * vfs.f_frsize >= bytes;
	if (ok) {
		const uint32_t sizes[1] = {64};
		mmf_t *m = mmf_create(shared_test_file, bytes, bytes, bytes, true,
		    0, 1, 1, sizes, 0, nullptr);
		ok = m != nullptr;
		if (m != nullptr)
			mmf_delete(m);	/* the test leaves no file behind */
	}
	mem.shared_ok = ok;
	return ok ? 0 : SDB_ERR_NOMEM;
}

extern "C" int sdb_mem_test(void)
{
	uint64_t n = ++mem.requests;
	if (n - mem.at_test.load() < test_every_requests)
		return mem.mem_ok;
	int64_t now = uptime_ms(), last = mem.last_test_ms.load();
	if (last >= 0 && now - last < tolvar_scaled_ms(test_every_secs))
		return mem.mem_ok;
	mem.last_test_ms = now;
	mem.tests++;
	if (check_free_shared() == 0) {
		mem.heap_ok = platform_free_memory_bytes() >= heap_total_bytes;
		mem.mem_ok = mem.heap_ok.load();
	} else {
		mem.mem_ok = 0;
	}
	mem.at_test = n;
	return mem.mem_ok;
}

extern "C" void sdb_mem_test_state_get(sdb_mem_test_state *out)
{
	out->heap_ok = mem.heap_ok;
	out->shared_ok = mem.shared_ok;
	out->mem_ok = mem.mem_ok;
	out->requests = mem.requests;
	out->requests_at_test = mem.at_test;
	out->tests = mem.tests;
}

extern "C" uint64_t sdb_fpc_requests(uint32_t fpc)
{
	return fpc < SDB_FPC_SLOTS ? local_requests[fpc].load() : 0;
}

namespace {

/* Steps shared by the login and the service check after the mapping. */
int admit(uint32_t fpc, uint32_t *reason, bool login)
{
	sdb_fpc_entry *tab = sdb_fpc_table();
	sdb_fpc_counters *g = sdb_fpc_counters_ptr();
	if (tab == nullptr || g == nullptr)
		return 1;	/* no table, nobody to refuse for */
	sdb_fpc_entry &e = tab[fpc];
	uint32_t &refused = login ? e.logins_refused : e.services_refused;
	local_requests[fpc]++;
	bool throttled = word(*sdb_fpc_throttle()).load() != 0;
	int mem_ok = sdb_mem_test();
	if (!throttled && mem_ok)
		return 1;
	if (!mem_ok) {
		sdb_count(refused);
		if (!mem.heap_ok) {
			sdb_count(login ? g->logins_refused_heap :
			    g->services_refused_heap);
			*reason = SDB_FPC_REASON_HEAP;
			return 0;
		}
		if (mem.shared_ok)
			return 0;
		sdb_count(login ? g->logins_refused_shared :
		    g->services_refused_shared);
		*reason = SDB_FPC_REASON_SHARED;
		return 0;
	}
	if (word(login ? e.login_ok : e.service_ok).load() != 0)
		return 1;	/* memory was tested just now and is fine */
	uint8_t r = e.refuse_reason;
	*reason = r != 0 ? r : SDB_FPC_REASON_CARD;
	sdb_count(refused);
	return 0;
}

} // namespace

extern "C" int sdb_fpc_login_check(uint32_t fpc, const char *name,
    uint8_t pfe, uint32_t *reason)
{
	if (fpc >= SDB_FPC_SLOTS)
		return refuse_invalid(fpc, "Login");
	attach_guard attached;
	sdb_fpc_entry *tab = sdb_fpc_table();
	if (tab != nullptr && word(tab[fpc].sched_update_wanted).load() != 0 &&
	    name != nullptr && !records().empty() && needs_mapping(name, pfe)) {
		table_guard lock;
		if (lock.ok() && needs_mapping(name, pfe))
			sdb_sched_mapping_update_shm((uint16_t)fpc, name, pfe);
	}
	uint32_t dummy;
	return admit(fpc, reason != nullptr ? reason : &dummy, true);
}

extern "C" int sdb_fpc_service_check(uint32_t fpc, uint32_t *reason)
{
	if (fpc >= SDB_FPC_SLOTS)
		return refuse_invalid(fpc, "Service");
	attach_guard attached;
	uint32_t dummy;
	return admit(fpc, reason != nullptr ? reason : &dummy, false);
}

extern "C" int sdb_fpc_table_update(const sdb_fpc_entry *in)
{
	sdb_fpc_entry *tab = sdb_fpc_table();
	if (tab == nullptr)
		return SDB_ERR_NOT_STARTED;
	if (in == nullptr)
		return SDB_ERR_PARAM;
	auto throttle = word(*sdb_fpc_throttle());
	bool back = false;
	for (uint32_t i = 0; i < SDB_FPC_SLOTS; i++) {
		sdb_fpc_entry &e = tab[i];
		if (!normal(in[i]))
			throttle.store(1);
		if ((!e.login_ok && in[i].login_ok) ||
		    (!e.service_ok && in[i].service_ok) ||
		    (e.fpc_level != SDB_FPC_LEVEL_NORMAL &&
		    in[i].fpc_level == SDB_FPC_LEVEL_NORMAL))
			back = true;
		e.login_ok = in[i].login_ok;
		e.service_ok = in[i].service_ok;
		e.fpc_level = in[i].fpc_level;
		e.refuse_reason = in[i].refuse_reason;
	}
	if (back) {
		uint8_t any = 0;
		for (uint32_t i = 0; i < SDB_FPC_SLOTS; i++)
			any |= !normal(tab[i]);
		throttle.store(any);
	}
	return 0;
}

extern "C" int sdb_fpc_field_set(uint32_t fpc, const char *field,
    uint32_t value)
{
	sdb_fpc_entry *tab = sdb_fpc_table();
	if (tab == nullptr)
		return SDB_ERR_NOT_STARTED;
	if (fpc >= SDB_FPC_SLOTS || field == nullptr || value > 255)
		return SDB_ERR_PARAM;
	if (strcmp(field, "sched_update_wanted") == 0) {
		tab[fpc].sched_update_wanted = (uint8_t)value;
		return 0;
	}
	sdb_fpc_entry copy[SDB_FPC_SLOTS];
	memcpy(copy, tab, sizeof(copy));
	sdb_fpc_entry &e = copy[fpc];
	if (strcmp(field, "login_ok") == 0)
		e.login_ok = (uint8_t)value;
	else if (strcmp(field, "service_ok") == 0)
		e.service_ok = (uint8_t)value;
	else if (strcmp(field, "fpc_level") == 0)
		e.fpc_level = (uint8_t)value;
	else if (strcmp(field, "refuse_reason") == 0)
		e.refuse_reason = (uint8_t)value;
	else
		return SDB_ERR_PARAM;
	return sdb_fpc_table_update(copy);
}

extern "C" int sdb_check_cos_queue_usage(const char *name)
{
	if (name == nullptr)
		return 250;
	interface_info info;
	if (parse_interface(name, &info) != 0 || info.kind != INTERFACE_PHYSICAL) {
		sdb_event(7, "LIBSDB_RSMON_PARSE_INTF_FAILED",
		    "LIBSDB_RSMON_PARSE_INTF_FAILED: %s:%d cannot parse "
		    "interface name %s", __func__, __LINE__, name);
		return 1;
	}
	uint32_t chan = (info.channel < 0 || info.channel > 30) ?
	    SDB_KEY_CHAN_ANY : (uint32_t)info.channel;
	uint64_t key;
	uint32_t idx;
	if (sdb_populate_key_sub_limit_record(SDB_CLIENT_ANY, info.fpc, info.pic,
	    info.port, chan, strcmp(info.media, "lt") == 0, &key) != 0)
		return 0;
	if (sdb_sub_limit_find_record(key, &idx) != 0 ||
	    records()[idx].client_allowed != 0)
		return 1;
	sdb_fpc_entry *tab = sdb_fpc_table();
	if (tab != nullptr && info.fpc < SDB_FPC_SLOTS)
		sdb_count(tab[info.fpc].logins_refused);
	return 0;
}

extern "C" int sdb_sched_mapping_update_shm(uint16_t fpc, const char *name,
    uint8_t pfe)
{
	uint32_t num, idx;
	interface_info info;
	if (name == nullptr || sdb_rsmon_convert_intf_name_to_num(name, &num) != 0 ||
	    parse_interface(name, &info) != 0) {
		sdb_event(3, "LIBSDB_RSMON_FAILED_CONVERT_INTERFACE_NUM",
		    "LIBSDB_RSMON_FAILED_CONVERT_INTERFACE_NUM: %s:%d %s",
		    __func__, __LINE__, name != nullptr ? name : "(null)");
		return SDB_ERR_PARAM;
	}
	uint64_t key = make_key(SDB_CLIENT_ANY, info.fpc, info.pic, info.port,
	    SDB_KEY_CHAN_ANY, strcmp(info.media, "lt") == 0);
	int rc = sdb_limit_check_and_update_all_level_records(key, &idx, 2);
	if (rc != 0) {
		sdb_event(3, "LIBSDB_RSMON_ADD_PFE_UPDATE_INTF_NODE_FAILURE",
		    "LIBSDB_RSMON_ADD_PFE_UPDATE_INTF_NODE_FAILURE: %s:%d %s: %d",
		    __func__, __LINE__, name, rc);
		return rc;
	}
	sdb_sub_limit_record &r = records()[idx];
	r.fpc_num = fpc;
	r.pfe_num = pfe;
	r.sched_num = 0;
	r.flags = 0;
	memset(r.intf_name, 0, sizeof(r.intf_name));
	strncpy(r.intf_name, name, sizeof(r.intf_name) - 1);
	word(r.used_for_sched_map).store(SDB_LIMIT_SCHED_MAP);
	return 0;
}

extern "C" int sdb_sched_allowed_update(uint16_t fpc, uint8_t pfe,
    uint8_t sched, uint8_t allowed)
{
	attach_guard attached;
	if (records().empty())
		return SDB_ERR_NOT_STARTED;
	each_mapped([&](sdb_sub_limit_record &r) {
		if (r.fpc_num == fpc && r.pfe_num == pfe && r.sched_num == sched)
			word(r.client_allowed).store(allowed);
	});
	return 0;
}

extern "C" void sdb_sched_map_mark_all(void)
{
	attach_guard attached;
	each_mapped([](sdb_sub_limit_record &r) {
		word(r.flags).fetch_or(SDB_LIMIT_FLAG_DELETE);
	});
}

extern "C" void sdb_sched_map_clear_marked(void)
{
	attach_guard attached;
	each_mapped([](sdb_sub_limit_record &r) {
		if (word(r.flags).load() & SDB_LIMIT_FLAG_DELETE)
			clear_map(r);
	});
}

extern "C" void sdb_sched_map_clear_all(void)
{
	attach_guard attached;
	each_mapped([](sdb_sub_limit_record &r) { clear_map(r); });
}

extern "C" int sdb_sched_table_write(uint32_t row, uint32_t column,
    uint32_t code, uint8_t value)
{
	sdb_sched_row *tab = sdb_sched_table();
	if (tab == nullptr)
		return SDB_ERR_NOT_STARTED;
	if (row >= SDB_SCHED_ROWS || column > 3)
		return SDB_ERR_PARAM;
	if (code == 1)
		tab[row].first = value;
	else if (code >= 5 && code <= 7)
		tab[row].group[code - 5][column] = value;
	else
		return SDB_ERR_PARAM;
	return 0;
}

extern "C" int sdb_sched_table_reset(uint32_t row)
{
	sdb_sched_row *tab = sdb_sched_table();
	if (tab == nullptr)
		return SDB_ERR_NOT_STARTED;
	if (row >= SDB_SCHED_ROWS)
		return SDB_ERR_PARAM;
	memset(&tab[row], 0xff, sizeof(tab[row]));
	return 0;
}
