/*
 * sdbctl lts stats [--json] | get SID [--raw] | check: the long-term
 * store.  "stats" prints the counters of sdb.head; "get" the sections of
 * one session, each with its place and whether the section codec decodes
 * it (--raw adds the bytes in hex); "check" walks every chain and every
 * descriptor against the heap and exits 1 on damage.
 */
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <sdb/sdb.h>
#include <sdb/sdb_db.h>
#include <sdb/sdb_lts.h>
#include <sdb/sdb_rep.h>
#include <sdb/sdb_sts.h>

#include "sdbctl.h"

namespace {

int usage(void)
{
	fprintf(stderr, "usage: sdbctl lts stats [--json]\n"
	    "       sdbctl lts get SID [--raw]\n"
	    "       sdbctl lts check\n");
	return SDBCTL_EXIT_USAGE;
}

struct counter {
	const char *name;
	uint64_t (*get)(const sdb_lts_header *h);
};
#define C32(n, f) {n, [](const sdb_lts_header *h) -> uint64_t { return h->f; }}
#define C64(n, f) {n, [](const sdb_lts_header *h) -> uint64_t { \
	return sdb_lts_counter64(h->f); }}
constexpr counter counters[] = {
	C64("bucket_locks_taken", bucket_locks_taken),
	C64("bucket_locks_contended", bucket_locks_contended),
	C64("bucket_wait_usecs", bucket_wait_usecs),
	C32("bucket_waits", bucket_waits),
	C32("bucket_owner_dead", bucket_owner_dead),
	C32("bucket_released_dead_client", bucket_released_dead_client),
	C32("bucket_released_keel_start", bucket_released_keel_start),
	C32("bucket_release_retries", bucket_release_retries),
	C32("txn_queued", txn_queued),
	C32("txn_failed", txn_failed),
	C32("txn_committed", txn_committed),
	C32("conflict_client_lost", conflict_client_lost),
	C32("conflict_client_changed", conflict_client_changed),
	C32("txn_cross_writes", txn_cross_writes),
	C32("subrecord_read_failed", subrecord_read_failed),
	C32("chain_remove_failed", chain_remove_failed),
	C32("keel_attaches", keel_attaches),
	C32("client_attaches", client_attaches),
	C32("max_client", max_client),
	C32("max_service", max_service),
	C32("max_dynamic", max_dynamic),
};

int stats(bool json)
{
	const sdb_lts_header *h = sdb_lts_header_ptr();
	if (json)
		printf("{\"buckets\": %u", sdb_lts_bucket_count());
	else
		printf("%-30s %u\n", "buckets", sdb_lts_bucket_count());
	for (const counter &c : counters) {
		if (json)
			printf(", \"%s\": %" PRIu64, c.name, c.get(h));
		else
			printf("%-30s %" PRIu64 "\n", c.name, c.get(h));
	}
	if (json)
		printf("}\n");
	return 0;
}

const char *section_name(int idx)
{
	static const char *names[] = {"client", "service", "auth-request",
	    "auth-response", "dynamic"};
	return idx < 5 ? names[idx] : "app";
}

int get(uint64_t sid, bool raw)
{
	if (sdb_sentry_lock_acquire(sid) != 0)
		return SDBCTL_EXIT_FAIL;
	sdb_lts_head *h = sdb_lts_find(sid, nullptr, nullptr);
	if (h == nullptr) {
		sdb_sentry_lock_release(sid);
		fprintf(stderr, "sdbctl lts get: session %" PRIu64
		    " not found\n", sid);
		return SDBCTL_EXIT_FAIL;
	}
	sdb_lts_head copy = *h;
	struct sec {
		int idx;
		sdb_lts_desc d;
		std::vector<uint8_t> bytes;
	};
	std::vector<sec> secs;
	for (int i = 0; i < SDB_LTS_DESC_COUNT; i++) {
		sdb_lts_desc d = copy.desc[i];
		if (d.offset == 0 || d.len > d.cap)
			continue;
		auto *p = static_cast<const uint8_t *>(sdb_lts_map(d.offset,
		    d.len));
		secs.push_back({i, d, std::vector<uint8_t>(p, p + d.len)});
	}
	sdb_sentry_lock_release(sid);
	printf("session %" PRIu64 " head %" PRIu64 " generation %u used %u\n",
	    sid, copy.self, copy.gen, copy.used);
	std::vector<uint8_t> buf(SDB_STS_ENTRY_SIZE + SDB_STS_SLOT_MAX);
	for (const sec &s : secs) {
		bool inside = s.d.offset > copy.self &&
		    s.d.offset < copy.self + SDB_LTS_MAX_RECORD;
		printf("  %-14s", section_name(s.idx));
		if (s.idx > 5)
			printf(" blob %-2d", s.idx - 5);
		printf(" len %u cap %u %s", s.d.len, s.d.cap,
		    inside ? "in block" : "in heap");
		if (s.idx < 5) {
			sdb_sts_entry *e = sdb_sts_entry_init_private(buf.data(),
			    buf.size(), sid);
			int rc = sdb_rep_decode_section(e, s.idx, s.bytes.data(),
			    s.bytes.size(), nullptr, 0);
			printf(" decodes: %s", rc == 0 ? "yes" : sdb_strerror(rc));
		}
		printf("\n");
		if (raw) {
			for (size_t i = 0; i < s.bytes.size(); i++)
				printf("%s%02x", i % 32 == 0 ? "    " : "",
				    s.bytes[i]);
			printf("\n");
		}
	}
	return 0;
}

int check(void)
{
	sdb_lts_check_report rep;
	int rc = sdb_lts_check(&rep, 0);
	printf("heads %" PRIu64 " sections %" PRIu64 " in heap %" PRIu64
	    " longest chain %u problems %u\n", rep.heads, rep.sections,
	    rep.heap_sections, rep.longest_chain, rep.problems);
	if (rep.problems != 0)
		printf("first problem: %s\n", rep.first_problem);
	return rc == 0 ? 0 : SDBCTL_EXIT_FAIL;
}

} // namespace

int sdbctl_lts(int argc, char **argv)
{
	if (argc < 2)
		return usage();
	bool json = false, raw = false;
	uint64_t sid = 0;
	const char *what = argv[1];
	if (strcmp(what, "stats") == 0) {
		if (argc > 3 || (argc == 3 && strcmp(argv[2], "--json") != 0))
			return usage();
		json = argc == 3;
	} else if (strcmp(what, "get") == 0) {
		char *end = nullptr;
		if (argc < 3 || argc > 4 || argv[2][0] < '0' || argv[2][0] > '9')
			return usage();
		sid = strtoull(argv[2], &end, 10);
		if (*end != '\0' || sid == 0)
			return usage();
		if (argc == 4 && strcmp(argv[3], "--raw") != 0)
			return usage();
		raw = argc == 4;
	} else if (strcmp(what, "check") == 0) {
		if (argc != 2)
			return usage();
	} else {
		return usage();
	}
	if (sdb_lts_store_open(0) != 0) {
		fprintf(stderr, "sdbctl lts: the long-term store is not there\n");
		return SDBCTL_EXIT_FAIL;
	}
	int rc = what[0] == 's' ? stats(json) : what[0] == 'g' ? get(sid, raw) :
	    check();
	fflush(stdout);
	sdb_lts_store_close();
	return rc;
}
