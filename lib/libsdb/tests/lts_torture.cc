/*
 * A writer of the long-term store for the crash torture (tests/system).
 *
 *	lts-torture init
 *	lts-torture writer ID K SEED [check]
 *	lts-torture check K
 *
 * Writer ID owns the sessions ID + K * j over a few shared buckets, so
 * that its chains mix with the other writers'.  Before each change it
 * appends its intent to its shadow log, after it a commit mark.  When it
 * starts it first verifies every section it owns against the log (the
 * last committed value, or the one being written at its death), prints
 * "verified" and then writes, rewrites and deletes at random until it is
 * killed.  Exit status 2 is a violation, printed on stderr.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include <sdb/sdb.h>
#include <sdb/sdb_db.h>
#include <sdb/sdb_lts.h>
#include <sdb/sdb_session.h>

namespace {

constexpr int buckets_used = 8;
constexpr int per_bucket = 3;		/* sessions of a writer per bucket */
constexpr int idx_used[] = {0, 1, 4, 6, 7};

struct ver {
	uint32_t v = 0, len = 0;	/* len 0: absent */
	bool operator==(const ver &o) const { return v == o.v && len == o.len; }
};
using key = std::pair<uint64_t, int>;

std::string value_of(uint64_t sid, int idx, ver x)
{
	std::string s(x.len, '\0');
	uint32_t h = (uint32_t)(sid * 2654435761u) ^ (uint32_t)(idx * 40503) ^
	    (x.v * 97u);
	for (uint32_t i = 0; i < x.len; i++)
		s[i] = (char)(h + i * 131u);
	return s;
}

uint32_t table_of(int idx) { return idx < 5 ? (uint32_t)idx : 5; }
uint32_t blob_of(int idx) { return idx < 5 ? 0 : (uint32_t)(idx - 5); }

int enc(const void *v, uint8_t *buf, uint32_t room)
{
	auto *s = static_cast<const std::string *>(v);
	if (s->size() <= room)
		memcpy(buf, s->data(), s->size());
	return (int)s->size();
}

int dec(void *, const uint8_t *b, uint32_t len, void **out, void *, uint32_t)
{
	*out = new std::string(reinterpret_cast<const char *>(b), len);
	return (int)len;
}

/* The section as stored: its bytes, or empty when absent. */
bool read_now(uint64_t sid, int idx, std::string *out)
{
	void *p = nullptr;
	int rc = sdb_lts_section_read(sid, nullptr, nullptr, &p, table_of(idx),
	    blob_of(idx), dec, nullptr, 0);
	if (rc == SDB_ERR_NOT_FOUND) {
		out->clear();
		return true;
	}
	if (rc != 0)
		return false;
	*out = *static_cast<std::string *>(p);
	delete static_cast<std::string *>(p);
	return true;
}

std::vector<uint64_t> sessions_of(int id, int k)
{
	uint32_t n = sdb_lts_bucket_count();
	std::vector<uint64_t> v;
	for (int b = 0; b < buckets_used; b++)
		for (int j = 0; j < per_bucket; j++)
			v.push_back(1 + (uint64_t)b +
			    (uint64_t)n * (1 + (uint64_t)id + (uint64_t)k * j));
	return v;
}

struct shadow {
	std::map<key, ver> done;
	std::map<key, ver> pending;
	std::string path;

	void load()
	{
		std::ifstream f(path);
		std::string line;
		while (std::getline(f, line)) {
			std::istringstream is(line);
			char op;
			is >> op;
			if (op == 'C') {
				for (auto &[k, v] : pending)
					done[k] = v;
				pending.clear();
			} else if (op == 'I') {
				uint64_t sid;
				int idx;
				ver x;
				if (is >> sid >> idx >> x.v >> x.len)
					pending[{sid, idx}] = x;
			}
		}
	}
	/* Settle a pending change by what the store holds, then start a
	 * fresh log of the state. */
	void rewrite()
	{
		std::string tmp = path + ".new";
		FILE *f = fopen(tmp.c_str(), "w");
		for (auto &[k, v] : done)
			fprintf(f, "I %llu %d %u %u\n", (unsigned long long)k.first,
			    k.second, v.v, v.len);
		fprintf(f, "C\n");
		fclose(f);
		rename(tmp.c_str(), path.c_str());
	}
	int fd = -1;
	void append(const std::string &s)
	{
		if (write(fd, s.data(), s.size()) != (ssize_t)s.size())
			_exit(4);
	}
};

int verify(shadow &sh, const std::vector<uint64_t> &sids)
{
	int bad = 0;
	for (uint64_t sid : sids)
		for (int idx : idx_used) {
			key k{sid, idx};
			std::string now;
			if (!read_now(sid, idx, &now)) {
				fprintf(stderr, "violation: session %llu idx %d "
				    "unreadable\n", (unsigned long long)sid, idx);
				bad++;
				continue;
			}
			ver d = sh.done.count(k) ? sh.done[k] : ver{};
			if (now == value_of(sid, idx, d))
				continue;
			auto p = sh.pending.find(k);
			if (p != sh.pending.end() &&
			    now == value_of(sid, idx, p->second)) {
				sh.done[k] = p->second;
				continue;
			}
			fprintf(stderr, "violation: session %llu idx %d holds %zu "
			    "bytes, neither committed (v%u, %u bytes) nor being "
			    "written\n", (unsigned long long)sid, idx, now.size(),
			    d.v, d.len);
			bad++;
		}
	sh.pending.clear();
	return bad;
}

int store_check(unsigned flags)
{
	sdb_lts_check_report rep;
	if (sdb_lts_check(&rep, flags) != 0) {
		fprintf(stderr, "violation: store check: %s (%u problems)\n",
		    rep.first_problem, rep.problems);
		return 1;
	}
	return 0;
}

std::string log_path(int id)
{
	const char *dir = getenv("LTS_TORTURE_DIR");
	return std::string(dir ? dir : ".") + "/shadow." + std::to_string(id);
}

int writer(int id, int k, unsigned seed, bool check)
{
	if (sdb_lts_store_open(0) != 0) {
		fprintf(stderr, "cannot open the store\n");
		return 1;
	}
	std::vector<uint64_t> sids = sessions_of(id, k);
	shadow sh;
	sh.path = log_path(id);
	sh.load();
	if (verify(sh, sids) != 0 || (check && store_check(0) != 0))
		return 2;
	sh.rewrite();
	sh.fd = open(sh.path.c_str(), O_WRONLY | O_APPEND);
	printf("verified\n");
	fflush(stdout);
	std::mt19937 rng(seed);
	auto pick = [&](uint32_t n) { return (uint32_t)(rng() % n); };
	char line[96];
	for (uint32_t round = 1;; round++) {
		uint64_t sid = sids[pick((uint32_t)sids.size())];
		uint32_t what = pick(10);
		if (what < 7) {
			sdb_lts_txn t{};
			std::vector<std::string> keep;
			uint32_t parts = 1 + pick(3);
			for (uint32_t i = 0; i < parts; i++) {
				int idx = idx_used[pick(std::size(idx_used))];
				/* sizes that fit the block, spill and move */
				ver x{round * 8 + i, 1 + pick(pick(4) == 0 ?
				    6000 : 900)};
				snprintf(line, sizeof line, "I %llu %d %u %u\n",
				    (unsigned long long)sid, idx, x.v, x.len);
				sh.append(line);
				keep.push_back(value_of(sid, idx, x));
				sdb_lts_section_store(sid, &t, table_of(idx),
				    blob_of(idx), &keep.back(), enc);
			}
			if (sdb_lts_txn_commit(&t) != 0) {
				fprintf(stderr, "commit failed\n");
				return 1;
			}
		} else if (what < 9) {
			int idx = idx_used[pick(std::size(idx_used))];
			snprintf(line, sizeof line, "I %llu %d 0 0\n",
			    (unsigned long long)sid, idx);
			sh.append(line);
			sdb_lts_section_delete(sid, nullptr, table_of(idx),
			    blob_of(idx));
		} else {
			for (int idx : idx_used) {
				snprintf(line, sizeof line, "I %llu %d 0 0\n",
				    (unsigned long long)sid, idx);
				sh.append(line);
			}
			sdb_lts_session_delete(sid, nullptr);
		}
		sh.append("C\n");
	}
}

int check_all(int k)
{
	if (sdb_lts_store_open(0) != 0)
		return 1;
	int bad = store_check(SDB_LTS_CHECK_STILL);
	for (int id = 0; id < k; id++) {
		shadow sh;
		sh.path = log_path(id);
		sh.load();
		bad += verify(sh, sessions_of(id, k));
	}
	printf("checked %d writers\n", k);
	return bad ? 2 : 0;
}

} // namespace

int main(int argc, char **argv)
{
	sdb_is_master = true;
	std::string mode = argc > 1 ? argv[1] : "";
	if (mode == "init")
		return sdb_lts_store_open(1) == 0 ? 0 : 1;
	if (mode == "writer" && argc >= 5)
		return writer(atoi(argv[2]), atoi(argv[3]),
		    (unsigned)strtoul(argv[4], nullptr, 0),
		    argc > 5 && strcmp(argv[5], "check") == 0);
	if (mode == "check" && argc >= 3)
		return check_all(atoi(argv[2]));
	fprintf(stderr, "usage: lts-torture init | writer ID K SEED [check] | "
	    "check K\n");
	return 1;
}
