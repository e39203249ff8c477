/*
 * lts-bench: a session's sections written, read and deleted through the
 * long-term store, against LMDB with the same records on the same tmpfs.
 *
 * A session is a 600-byte client section, a 300-byte dynamic section and
 * a 200-byte application blob.  One operation writes (one transaction of
 * the store; one LMDB write transaction, MDB_NOSYNC), reads or deletes
 * all three sections of one session.  The store runs in the largest scale
 * class, so chains stay short.  Reported as time per operation and as the
 * ratio to LMDB measured in the same run.
 */
#include <lmdb.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <sdb/sdb.h>
#include <sdb/sdb_db.h>
#include <sdb/sdb_lts.h>
#include <sdb/sdb_session.h>

namespace {

constexpr int kSessions = 20000;
constexpr int kRounds = 3;
struct part {
	uint32_t table, blob, len;
};
constexpr part kParts[] = {{SDB_TABLE_CLIENT, 0, 600},
    {SDB_TABLE_DYNAMIC, 0, 300}, {SDB_TABLE_APP, 1, 200}};

double now_s()
{
	timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return ts.tv_sec + ts.tv_nsec / 1e9;
}

std::string value(uint64_t sid, const part &p)
{
	return std::string(p.len, (char)('a' + (sid + p.table) % 26));
}

int enc(const void *v, uint8_t *buf, uint32_t room)
{
	auto *s = static_cast<const std::string *>(v);
	if (s->size() <= room)
		memcpy(buf, s->data(), s->size());
	return (int)s->size();
}

int dec(void *h, const uint8_t *b, uint32_t len, void **, void *, uint32_t)
{
	*static_cast<size_t *>(h) += b[0] + len;
	return (int)len;
}

struct times {
	double write = 0, read = 0, del = 0;
};

bool lts_round(times &t)
{
	std::vector<std::string> vals;
	double t0 = now_s();
	for (uint64_t sid = 1; sid <= kSessions; sid++) {
		sdb_lts_txn txn{};
		vals.clear();
		vals.reserve(3);
		for (const part &p : kParts) {
			vals.push_back(value(sid, p));
			if (sdb_lts_section_store(sid, &txn, p.table, p.blob,
			    &vals.back(), enc) != 0)
				return false;
		}
		if (sdb_lts_txn_commit(&txn) != 0)
			return false;
	}
	double t1 = now_s();
	size_t sum = 0;
	for (uint64_t sid = 1; sid <= kSessions; sid++)
		for (const part &p : kParts)
			if (sdb_lts_section_read(sid, nullptr, &sum, nullptr,
			    p.table, p.blob, dec, nullptr, 0) != 0)
				return false;
	double t2 = now_s();
	for (uint64_t sid = 1; sid <= kSessions; sid++)
		if (sdb_lts_session_delete(sid, nullptr) != 0)
			return false;
	double t3 = now_s();
	t.write += t1 - t0;
	t.read += t2 - t1;
	t.del += t3 - t2;
	return sum != 0;
}

struct lmdb_key {
	uint64_t sid;
	uint32_t table, blob;
};

bool lmdb_round(MDB_env *env, MDB_dbi dbi, times &t)
{
	double t0 = now_s();
	for (uint64_t sid = 1; sid <= kSessions; sid++) {
		MDB_txn *txn;
		if (mdb_txn_begin(env, nullptr, 0, &txn) != 0)
			return false;
		for (const part &p : kParts) {
			std::string v = value(sid, p);
			lmdb_key k{sid, p.table, p.blob};
			MDB_val kv{sizeof k, &k}, vv{v.size(), v.data()};
			if (mdb_put(txn, dbi, &kv, &vv, 0) != 0)
				return false;
		}
		if (mdb_txn_commit(txn) != 0)
			return false;
	}
	double t1 = now_s();
	size_t sum = 0;
	for (uint64_t sid = 1; sid <= kSessions; sid++) {
		MDB_txn *txn;
		if (mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn) != 0)
			return false;
		for (const part &p : kParts) {
			lmdb_key k{sid, p.table, p.blob};
			MDB_val kv{sizeof k, &k}, vv;
			if (mdb_get(txn, dbi, &kv, &vv) != 0)
				return false;
			/* the same work as the store's reader: a copy */
			std::string copy(static_cast<char *>(vv.mv_data),
			    vv.mv_size);
			sum += (uint8_t)copy[0] + copy.size();
		}
		mdb_txn_abort(txn);
	}
	double t2 = now_s();
	for (uint64_t sid = 1; sid <= kSessions; sid++) {
		MDB_txn *txn;
		if (mdb_txn_begin(env, nullptr, 0, &txn) != 0)
			return false;
		for (const part &p : kParts) {
			lmdb_key k{sid, p.table, p.blob};
			MDB_val kv{sizeof k, &k};
			if (mdb_del(txn, dbi, &kv, nullptr) != 0)
				return false;
		}
		if (mdb_txn_commit(txn) != 0)
			return false;
	}
	double t3 = now_s();
	t.write += t1 - t0;
	t.read += t2 - t1;
	t.del += t3 - t2;
	return sum != 0;
}

} // namespace

int main()
{
	char tmpl[] = "/dev/shm/lts_bench.XXXXXX";
	if (mkdtemp(tmpl) == nullptr) {
		perror("mkdtemp");
		return 1;
	}
	std::string root = tmpl;
	namespace fs = std::filesystem;
	fs::create_directories(root + "/etc/tolvar");
	fs::create_directories(root + "/mfs/var/sdb/shmem");
	fs::create_directories(root + "/lmdb");
	std::ofstream(root + "/etc/tolvar/platform") << "scale_class = 512000\n";
	setenv("TOLVAR_ROOT", root.c_str(), 1);
	sdb_is_master = true;
	int rc = 0;
	times lts, ldb;
	MDB_env *env = nullptr;
	MDB_dbi dbi;
	MDB_txn *txn = nullptr;
	if (sdb_lts_store_open(1) != 0) {
		fprintf(stderr, "lts-bench: cannot make the store\n");
		rc = 1;
		goto out;
	}
	if (mdb_env_create(&env) != 0 ||
	    mdb_env_set_mapsize(env, 1ull << 30) != 0 ||
	    mdb_env_open(env, (root + "/lmdb").c_str(), MDB_NOSYNC, 0644) != 0 ||
	    mdb_txn_begin(env, nullptr, 0, &txn) != 0 ||
	    mdb_dbi_open(txn, nullptr, 0, &dbi) != 0 || mdb_txn_commit(txn) != 0) {
		fprintf(stderr, "lts-bench: cannot open LMDB\n");
		rc = 1;
		goto out;
	}
	for (int r = 0; r < kRounds; r++)
		if (!lts_round(lts) || !lmdb_round(env, dbi, ldb)) {
			fprintf(stderr, "lts-bench: an operation failed\n");
			rc = 1;
			goto out;
		}
	{
		double ops = (double)kSessions * kRounds;
		printf("%d sessions x %d rounds, %u buckets; time per session "
		    "operation (3 sections)\n", kSessions, kRounds,
		    sdb_lts_bucket_count());
		printf("%-8s %12s %12s %10s\n", "op", "lts us", "lmdb us",
		    "lts/lmdb");
		const char *names[] = {"write", "read", "delete"};
		double a[] = {lts.write, lts.read, lts.del};
		double b[] = {ldb.write, ldb.read, ldb.del};
		for (int i = 0; i < 3; i++)
			printf("%-8s %12.2f %12.2f %10.2f\n", names[i],
			    a[i] / ops * 1e6, b[i] / ops * 1e6, a[i] / b[i]);
	}
out:
	if (env != nullptr)
		mdb_env_close(env);
	sdb_lts_store_close();
	fs::remove_all(root);
	return rc;
}
