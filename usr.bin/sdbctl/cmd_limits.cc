/*
 * sdbctl limits show [--json] | check | set LEVEL KEY LIMIT |
 * count LEVEL KEY COUNT | dump: the subscriber limit records.
 *
 * LEVEL is chassis, fpc, pic, port or channel.  KEY is either the record's
 * key as show and dump print it, or TYPE[/FPC[/PIC[/PORT[/CHANNEL]]]] with
 * as many numbers as the level needs; TYPE is pppoe, dhcp, l2tp, any or
 * 1 to 4, and a port of an lt interface is written "lt-PORT".
 */
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <sdb/sdb.h>
#include <sdb/sdb_limits.h>

#include "attach.h"
#include "sdbctl.h"

namespace {

int usage(void)
{
	fprintf(stderr, "usage: sdbctl limits show [--json]\n"
	    "       sdbctl limits check\n"
	    "       sdbctl limits set LEVEL KEY LIMIT\n"
	    "       sdbctl limits count LEVEL KEY COUNT\n"
	    "       sdbctl limits dump\n"
	    "LEVEL: chassis, fpc, pic, port or channel\n"
	    "KEY: a key number, or TYPE[/FPC[/PIC[/PORT[/CHANNEL]]]]\n");
	return SDBCTL_EXIT_USAGE;
}

bool number(const char *s, uint64_t max, uint64_t *out)
{
	char *end;
	if (s == nullptr || *s < '0' || *s > '9')
		return false;
	unsigned long long v = strtoull(s, &end, 10);
	if (*end != '\0' || v > max)
		return false;
	*out = v;
	return true;
}

int level_of(const char *s)
{
	for (int l = SDB_LEVEL_CHASSIS; l <= SDB_LEVEL_CHANNEL; l++)
		if (strcmp(s, sdb_limit_level_name((sdb_limit_level)l)) == 0)
			return l;
	return -1;
}

int type_of(const char *s)
{
	static const char *names[] = {"pppoe", "dhcp", "l2tp", "any"};
	for (int i = 0; i < 4; i++)
		if (strcasecmp(s, names[i]) == 0)
			return i + 1;
	uint64_t v;
	return number(s, 4, &v) && v >= 1 ? (int)v : -1;
}

/* The key of KEY at LEVEL; false when it does not fit. */
bool parse_key(int level, const char *text, uint64_t *key)
{
	uint64_t v;
	if (number(text, UINT64_MAX, &v) && v > 4) {
		*key = v;
		return (int)sdb_sub_limit_key_level(v) == level &&
		    ((v >> 28) & 1) != 0;
	}
	std::vector<std::string> parts;
	std::string s = text;
	for (size_t at = 0;;) {
		size_t slash = s.find('/', at);
		parts.push_back(s.substr(at, slash - at));
		if (slash == std::string::npos)
			break;
		at = slash + 1;
	}
	if ((int)parts.size() != level + 1)
		return false;
	int type = type_of(parts[0].c_str());
	if (type < 0)
		return false;
	uint32_t f[4] = {SDB_KEY_FPC_ANY, SDB_KEY_PIC_ANY, SDB_KEY_PORT_ANY,
	    SDB_KEY_CHAN_ANY};
	uint64_t max[4] = {2046, 14, 254, 30};
	uint32_t lt = 0;
	for (size_t i = 1; i < parts.size(); i++) {
		const char *p = parts[i].c_str();
		if (i == 3 && strncmp(p, "lt-", 3) == 0) {
			lt = 1;
			p += 3;
		}
		if (!number(p, max[i - 1], &v))
			return false;
		f[i - 1] = (uint32_t)v;
	}
	return sdb_populate_key_sub_limit_record((uint32_t)type, f[0], f[1],
	    f[2], f[3], lt, key) == 0;
}

std::string field(uint32_t v, uint32_t wildcard)
{
	return v == wildcard ? "*" : std::to_string(v);
}

struct row {
	uint32_t index;
	sdb_sub_limit_record r;
	uint32_t type, fpc, pic, port, chan, lt;
	sdb_limit_level level;
};

std::vector<row> rows(void)
{
	std::vector<row> out;
	sdb_sub_limit_list *list = nullptr;
	if (sdb_populate_sorted_sub_limit_list(&list) != 0)
		return out;
	for (auto *l = list; l != nullptr; l = l->next) {
		row x{l->index, l->rec, 0, 0, 0, 0, 0, 0,
		    sdb_sub_limit_key_level(l->rec.key)};
		sdb_sub_limit_key_fields(l->rec.key, &x.type, &x.fpc, &x.pic,
		    &x.port, &x.chan, &x.lt);
		out.push_back(x);
	}
	sdb_free_sub_limit_list(list);
	return out;
}

int show(bool json)
{
	sdb_sub_limit_hdr *h = sdb_sub_limit_hdr_ptr();
	int holder = sdb_limit_table_lock_holder();
	std::vector<row> all = rows();
	if (json) {
		printf("{\"max_records\": %d, \"current_usage\": %d, "
		    "\"table_lock_holder\": %d, \"records\": [", h->max_records,
		    h->current_usage, holder);
		const char *sep = "";
		for (const row &x : all) {
			printf("%s\n  {\"index\": %u, \"key\": %" PRIu64 ", "
			    "\"level\": \"%s\", \"client_type\": \"%s\", "
			    "\"fpc\": %u, \"pic\": %u, \"port\": %u, "
			    "\"channel\": %u, \"lt\": %u, \"limit\": %u, "
			    "\"count\": %u, \"denied\": %u, \"exceeded\": %u, "
			    "\"nominal\": %u, \"parent\": %u, "
			    "\"client_allowed\": %u, \"sched_map\": %s}", sep,
			    x.index, x.r.key, sdb_limit_level_name(x.level),
			    sdb_client_type_name(x.type), x.fpc, x.pic, x.port,
			    x.chan, x.lt, x.r.configured_limit,
			    x.r.current_count, x.r.denied_count,
			    x.r.exceeded_count, x.r.nominal_count,
			    x.r.parent_offset, x.r.client_allowed,
			    x.r.used_for_sched_map == SDB_LIMIT_SCHED_MAP ?
			    "true" : "false");
			sep = ",";
		}
		printf("\n]}\n");
		return 0;
	}
	printf("records in use: %d of %d\n", h->current_usage, h->max_records);
	if (holder > 0)
		printf("table lock: held by pid %d\n", holder);
	else
		printf("table lock: %s\n", holder == 0 ? "free" : "unknown");
	printf("%-5s %-8s %-6s %5s %3s %4s %4s %8s %8s %8s %8s %8s %6s\n",
	    "index", "level", "type", "fpc", "pic", "port", "chan", "limit",
	    "count", "denied", "exceeded", "nominal", "parent");
	for (const row &x : all)
		printf("%-5u %-8s %-6s %5s %3s %4s %4s %8u %8u %8u %8u %8u %6u%s\n",
		    x.index, sdb_limit_level_name(x.level),
		    sdb_client_type_name(x.type),
		    field(x.fpc, SDB_KEY_FPC_ANY).c_str(),
		    field(x.pic, SDB_KEY_PIC_ANY).c_str(),
		    (x.lt ? "lt-" + field(x.port, SDB_KEY_PORT_ANY) :
		    field(x.port, SDB_KEY_PORT_ANY)).c_str(),
		    field(x.chan, SDB_KEY_CHAN_ANY).c_str(),
		    x.r.configured_limit, x.r.current_count, x.r.denied_count,
		    x.r.exceeded_count, x.r.nominal_count, x.r.parent_offset,
		    x.r.used_for_sched_map == SDB_LIMIT_SCHED_MAP ? " mapped" :
		    "");
	return 0;
}

/*
 * A record counts each subscriber below it once: at least as many as its
 * busiest child, and no more than all its children together (a bundle
 * with two members under one record counts once there).  A process killed
 * between two levels leaves one record outside these bounds.
 */
int check(void)
{
	std::vector<row> all = rows();
	std::map<uint64_t, const row *> by_key;
	for (const row &x : all)
		by_key[x.r.key] = &x;
	std::map<uint64_t, std::pair<uint64_t, uint32_t>> children;
	for (const row &x : all) {
		if (x.level == SDB_LEVEL_CHASSIS)
			continue;
		uint64_t pk = x.r.key;
		uint32_t t = x.type;
		uint32_t f[4] = {x.fpc, x.pic, x.port, x.chan};
		int l = x.level;
		static constexpr uint32_t any[4] = {SDB_KEY_FPC_ANY,
		    SDB_KEY_PIC_ANY, SDB_KEY_PORT_ANY, SDB_KEY_CHAN_ANY};
		f[l - 1] = any[l - 1];
		sdb_populate_key_sub_limit_record(t, f[0], f[1], f[2], f[3],
		    l == SDB_LEVEL_CHANNEL ? x.lt : 0, &pk);
		auto &c = children[pk];
		c.first += x.r.current_count;
		c.second = std::max(c.second, x.r.current_count);
	}
	int bad = 0;
	for (const row &x : all) {
		auto it = children.find(x.r.key);
		if (it == children.end() || x.level == SDB_LEVEL_PORT)
			continue;	/* ports count bundles of their own */
		uint32_t n = x.r.current_count;
		if (n < it->second.second || n > it->second.first) {
			printf("record %u (%s %s %s/%s/%s): count %u, children "
			    "%" PRIu64 " together, %u at most\n", x.index,
			    sdb_limit_level_name(x.level),
			    sdb_client_type_name(x.type),
			    field(x.fpc, SDB_KEY_FPC_ANY).c_str(),
			    field(x.pic, SDB_KEY_PIC_ANY).c_str(),
			    field(x.port, SDB_KEY_PORT_ANY).c_str(), n,
			    it->second.first, it->second.second);
			bad++;
		}
	}
	if (bad != 0) {
		fprintf(stderr, "sdbctl limits check: %d records out of step\n",
		    bad);
		return SDBCTL_EXIT_FAIL;
	}
	printf("%zu records, consistent\n", all.size());
	return 0;
}

int write_value(const char *what, int argc, char **argv)
{
	if (argc != 5)
		return usage();
	int level = level_of(argv[2]);
	uint64_t key, value;
	if (level < 0 || !parse_key(level, argv[3], &key) ||
	    !number(argv[4], UINT32_MAX, &value))
		return usage();
	keel_handle *h = sdbctl_attach("limits");
	if (h == nullptr)
		return SDBCTL_EXIT_FAIL;
	int rc = strcmp(what, "set") == 0 ?
	    sdb_sub_limit_set(key, (uint32_t)value) :
	    sdb_sub_limit_count_set(key, (uint32_t)value);
	if (rc != 0)
		fprintf(stderr, "sdbctl limits %s: %s (%d)\n", what,
		    sdb_strerror(rc), rc);
	else
		printf("%" PRIu64 "\n", key);
	sdbctl_detach(h);
	return rc == 0 ? 0 : SDBCTL_EXIT_FAIL;
}

} // namespace

int sdbctl_limits(int argc, char **argv)
{
	if (argc < 2)
		return usage();
	const char *op = argv[1];
	if (strcmp(op, "set") == 0 || strcmp(op, "count") == 0)
		return write_value(op, argc, argv);
	bool json = argc == 3 && strcmp(argv[2], "--json") == 0;
	if (strcmp(op, "show") == 0 ? (argc != 2 && !json) : argc != 2)
		return usage();
	if (strcmp(op, "show") != 0 && strcmp(op, "check") != 0 &&
	    strcmp(op, "dump") != 0)
		return usage();
	keel_handle *h = sdbctl_attach("limits");
	if (h == nullptr)
		return SDBCTL_EXIT_FAIL;
	int rc = 0;
	if (strcmp(op, "show") == 0) {
		rc = show(json);
	} else if (strcmp(op, "check") == 0) {
		rc = check();
	} else {
		int a = sdb_rsmon_dump_limit_table();
		int b = sdb_rsmon_dump_ae_table();
		if (a != 0 || b != 0) {
			fprintf(stderr, "sdbctl limits dump: %s\n",
			    sdb_strerror(a != 0 ? a : b));
			rc = SDBCTL_EXIT_FAIL;
		} else {
			printf("/var/log/def-rsmon-limit-table0.log\n"
			    "/var/log/def-rsmon-ae-table0.log\n");
		}
	}
	fflush(stdout);
	sdbctl_detach(h);
	return rc;
}
