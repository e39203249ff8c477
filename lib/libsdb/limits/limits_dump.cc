/*
 * Display of the limit records and dumps of the record and ae tables to
 * files under /var/log.
 */
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <glob.h>
#include <new>
#include <unistd.h>
#include <vector>

#include "limits_impl.h"
#include "platform/paths.h"

using namespace sdb_limits;

namespace {

/* Counts what is written and flushes each further 4096 bytes. */
class dump_file {
public:
	explicit dump_file(const char *name)
	{
		std::string dir = sdb_store_path("/var/log/");
		tolvar_mkdirs(dir.c_str(), 0755);
		std::string pattern = dir + name + "*.log";
		glob_t g;
		if (glob(pattern.c_str(), 0, nullptr, &g) == 0) {
			for (size_t i = 0; i < g.gl_pathc; i++)
				unlink(g.gl_pathv[i]);
			globfree(&g);
		}
		path_ = dir + name + "0.log";
		f_ = fopen(path_.c_str(), "we");
		if (f_ == nullptr)
			sdb_event(3, "LIBSDB_RSMON_FILE_OPEN_FAILED",
			    "LIBSDB_RSMON_FILE_OPEN_FAILED: %s:%d %s: %s",
			    __func__, __LINE__, path_.c_str(), strerror(errno));
	}
	~dump_file()
	{
		if (f_ != nullptr)
			fclose(f_);
	}
	dump_file(const dump_file &) = delete;
	dump_file &operator=(const dump_file &) = delete;
	bool ok(void) const { return f_ != nullptr; }
	void put(const char *fmt, ...) __attribute__((format(printf, 2, 3)))
	{
		va_list ap;
		va_start(ap, fmt);
		int n = vfprintf(f_, fmt, ap);
		va_end(ap);
		uint64_t before = total_;
		total_ += (n > 0 ? (uint64_t)n : 0) + 1;
		if (total_ / 4096 != before / 4096)
			fflush(f_);
	}

private:
	std::string path_;
	FILE *f_ = nullptr;
	uint64_t total_ = 0;
};

/* Wildcards sort after every real value; chassis-wide records first. */
uint64_t sort_key(uint64_t key)
{
	uint32_t ct, fpc, pic, port, chan, lt;
	sdb_sub_limit_key_fields(key, &ct, &fpc, &pic, &port, &chan, &lt);
	bool chassis = sdb_sub_limit_key_level(key) == SDB_LEVEL_CHASSIS;
	return (uint64_t)(chassis ? 0 : 1) << 40 | (uint64_t)fpc << 24 |
	    (uint64_t)pic << 16 | (uint64_t)port << 8 | (uint64_t)chan << 3 |
	    ct;
}

} // namespace

extern "C" int sdb_populate_sorted_sub_limit_list(sdb_sub_limit_list **list)
{
	attach_guard attached;
	*list = nullptr;
	auto recs = records();
	if (recs.empty())
		return SDB_ERR_NOT_STARTED;
	std::vector<sdb_sub_limit_list *> rows;
	try {
		rows.reserve(recs.size());	/* push_back never allocates */
	} catch (...) {
		return SDB_ERR_NOMEM;
	}
	for (uint32_t i = 0; i < recs.size(); i++) {
		sdb_sub_limit_record &r = recs[i];
		uint64_t key = word(r.key).load();
		if (word(r.is_record_in_use).load() != SDB_LIMIT_IN_USE ||
		    key == 0 || (key & (1ull << 29)))
			continue;
		auto *row = new (std::nothrow) sdb_sub_limit_list{};
		if (row == nullptr) {
			for (auto *p : rows)
				delete p;
			return SDB_ERR_NOMEM;
		}
		row->index = i;
		memcpy((void *)&row->rec, (const void *)&r, sizeof(r));
		rows.push_back(row);
	}
	std::stable_sort(rows.begin(), rows.end(), [](auto *a, auto *b) {
		return sort_key(a->rec.key) < sort_key(b->rec.key);
	});
	for (size_t i = rows.size(); i-- > 0;) {
		rows[i]->next = *list;
		*list = rows[i];
	}
	return 0;
}

extern "C" void sdb_free_sub_limit_list(sdb_sub_limit_list *list)
{
	while (list != nullptr) {
		sdb_sub_limit_list *next = list->next;
		delete list;
		list = next;
	}
}

extern "C" int sdb_populate_ps_ifd_list(sdb_ps_ifd_list **list)
{
	attach_guard attached;
	*list = nullptr;
	sdb_ps_record *recs = sdb_ps_records();
	if (recs == nullptr)
		return SDB_ERR_NOT_STARTED;
	sdb_ps_ifd_list **tail = list;
	for (uint32_t i = 0; i < SDB_PS_MAX_RECORDS; i++) {
		sdb_ps_record r = recs[i];
		if (r.anchor_kind == SDB_PS_ANCHOR_FREE)
			continue;
		auto *row = new (std::nothrow) sdb_ps_ifd_list{};
		if (row == nullptr)
			return SDB_ERR_NOMEM;
		snprintf(row->name, sizeof(row->name), "ps%u", r.ps_num);
		row->current_count = r.current_count;
		ps_anchor(row->name, row->anchor, sizeof(row->anchor));
		if (r.anchor_kind == SDB_PS_ANCHOR_RLT) {
			sdb_ifd_member m[SDB_RLT_TABLE_ENTRIES];
			uint32_t n = 0;
			if (sdb_get_rlt_ifd_members(row->anchor, m,
			    SDB_RLT_TABLE_ENTRIES, &n) == 0) {
				n = std::min<uint32_t>(n, 8);
				std::copy(m, m + n, row->members);
				row->member_count = n;
			}
		}
		*tail = row;
		tail = &row->next;
	}
	return 0;
}

extern "C" void sdb_free_ps_ifd_list(sdb_ps_ifd_list *list)
{
	while (list != nullptr) {
		sdb_ps_ifd_list *next = list->next;
		delete list;
		list = next;
	}
}

extern "C" int sdb_rsmon_dump_limit_table(void)
{
	attach_guard attached;
	sdb_sub_limit_hdr *h = header();
	if (h == nullptr) {
		sdb_event(3, "LIBSDB_RSMON_LIMIT_TABLE_HEADERS_NULL",
		    "LIBSDB_RSMON_LIMIT_TABLE_HEADERS_NULL: %s:%d "
		    "rsmon_sub_limit_hdr or rsmon_sub_limit_record is NULL.",
		    __func__, __LINE__);
		return SDB_ERR_NOT_STARTED;
	}
	dump_file out("def-rsmon-limit-table");
	if (!out.ok())
		return SDB_ERR_FATAL;
	out.put("Header:\n Max_records=%d, current_usage=%d \n\n",
	    h->max_records, h->current_usage);
	auto recs = records();
	for (uint32_t i = 0; i < recs.size(); i++) {
		sdb_sub_limit_record r;
		memcpy((void *)&r, (const void *)&recs[i], sizeof(r));
		if (r.is_record_in_use != SDB_LIMIT_IN_USE)
			continue;
		uint32_t ct, fpc, pic, port, chan, lt;
		sdb_sub_limit_key_fields(r.key, &ct, &fpc, &pic, &port, &chan,
		    &lt);
		r.intf_name[SDB_LIMIT_IFNAME_LEN - 1] = '\0';
		out.put("%d entry : \n    key = %llu (chassis=%d, lt-intf=%d, "
		    "client-type=%s, fpc=%d, pic=%d, port=%d, chan=%d)\n", (int)i,
		    (unsigned long long)r.key, (int)((r.key >> 28) & 1), (int)lt,
		    sdb_client_type_name(ct), (int)fpc, (int)pic, (int)port,
		    (int)chan);
		out.put("    configured_limit=%d \n    current_count=%d \n    "
		    "denied_count=%d \n    flags=%d \n    is_record_in_use=%d \n"
		    "    parent_offset=%d \n    fpc_num=%d \n    pfe_num=%d \n"
		    "    sched_num=%d \n    client_allowed=%d \n"
		    "    used_for_sched_map=%d \n    interface=%s \n\n",
		    (int)r.configured_limit, (int)r.current_count,
		    (int)r.denied_count, (int)r.flags, (int)r.is_record_in_use,
		    (int)r.parent_offset, (int)r.fpc_num, (int)r.pfe_num,
		    (int)r.sched_num, (int)r.client_allowed,
		    (int)r.used_for_sched_map, r.intf_name);
	}
	return 0;
}

extern "C" int sdb_rsmon_dump_ae_table(void)
{
	attach_guard attached;
	uint32_t *tab = sdb_ae_table_ptr();
	if (tab == nullptr)
		return SDB_ERR_NOT_STARTED;
	dump_file out("def-rsmon-ae-table");
	if (!out.ok())
		return SDB_ERR_FATAL;
	for (uint32_t i = 0; i < SDB_AE_TABLE_ENTRIES; i++) {
		uint32_t e = word(tab[i]).load();
		if (e & SDB_TABLE_HEAD)
			out.put("%u: ae%u members=%u\n", i, e & 0x1ff,
			    (e >> 9) & 0x7f);
		else if (e != 0)
			out.put("%u:   fpc=%u pic=%u port=%u chan=%u same-fpc=%d "
			    "same-pic=%d\n", i, (e >> 12) & 0x7ff, (e >> 8) & 0xf,
			    e & 0xff, (e >> 23) & 0x1f,
			    (e & SDB_TABLE_SAME_FPC) != 0,
			    (e & SDB_TABLE_SAME_PIC) != 0);
	}
	return 0;
}
