/*
 * The long-term store and the scan index: placement, chains, the
 * transaction's conflict test, repair of damaged chains, writers killed
 * at the windows of a rewrite and a delete, and the walk in id order.
 */
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>
#include <sys/wait.h>
#include <unistd.h>

#include <platform/crashpoint.h>
#include <sdb/sdb.h>
#include <sdb/sdb_db.h>
#include <sdb/sdb_lts.h>
#include <sdb/sdb_session.h>

namespace fs = std::filesystem;

namespace {

std::string root = [] {
	char tmpl[] = "/tmp/sdb_lts_test.XXXXXX";
	std::string r = mkdtemp(tmpl);
	setenv("TOLVAR_ROOT", r.c_str(), 1);
	return r;
}();

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

int put(uint64_t sid, uint32_t table, const std::string &v,
    sdb_lts_txn *txn = nullptr, uint32_t blob = 0)
{
	return sdb_lts_section_store(sid, txn, table, blob, &v, enc);
}

std::string get(uint64_t sid, uint32_t table, int *rc = nullptr,
    sdb_lts_txn *txn = nullptr, uint32_t blob = 0)
{
	void *out = nullptr;
	int r = sdb_lts_section_read(sid, txn, nullptr, &out, table, blob, dec,
	    nullptr, 0);
	if (rc != nullptr)
		*rc = r;
	if (r != 0)
		return "<" + std::to_string(r) + ">";
	auto *s = static_cast<std::string *>(out);
	std::string v = *s;
	delete s;
	return v;
}

sdb_lts_desc desc_of(uint64_t sid, int idx)
{
	EXPECT_EQ(sdb_sentry_lock_acquire(sid), 0);
	sdb_lts_head *h = sdb_lts_find(sid, nullptr, nullptr);
	sdb_lts_desc d{};
	if (h != nullptr)
		d = h->desc[idx];
	sdb_sentry_lock_release(sid);
	return d;
}

class Lts : public ::testing::Test {
protected:
	void SetUp() override
	{
		sdb_lts_store_close();
		fs::remove_all(root + "/mfs");
		fs::create_directories(root + "/mfs/var/sdb/shmem");
		sdb_is_master = true;
		ASSERT_EQ(sdb_lts_store_open(1), 0);
		n = sdb_lts_bucket_count();
		ASSERT_GT(n, 2u);
	}
	void TearDown() override
	{
		expect_clean();
		sdb_lts_store_close();
	}
	void expect_clean()
	{
		sdb_lts_check_report rep;
		EXPECT_EQ(sdb_lts_check(&rep, SDB_LTS_CHECK_STILL), 0) << rep.first_problem;
	}
	uint32_t n = 0;
};

TEST_F(Lts, SectionsRoundTripAndIdZeroIsRefused)
{
	EXPECT_EQ(put(0, SDB_TABLE_CLIENT, "x"), SDB_ERR_PARAM);
	EXPECT_EQ(sdb_lts_exists(0), SDB_ERR_NOT_FOUND);
	EXPECT_EQ(sdb_lts_section_delete(0, nullptr, 0, 0), SDB_ERR_PARAM);
	EXPECT_EQ(sdb_lts_exists(7), SDB_ERR_NOT_FOUND);
	ASSERT_EQ(put(7, SDB_TABLE_CLIENT, "client"), 0);
	ASSERT_EQ(put(7, SDB_TABLE_DYNAMIC, "dyn"), 0);
	ASSERT_EQ(put(7, SDB_TABLE_APP, "blob20", nullptr, 20), 0);
	EXPECT_EQ(put(7, SDB_TABLE_APP, "x", nullptr, 21), SDB_ERR_NOT_FOUND);
	EXPECT_EQ(sdb_lts_exists(7), 0);
	EXPECT_EQ(get(7, SDB_TABLE_CLIENT), "client");
	EXPECT_EQ(get(7, SDB_TABLE_APP, nullptr, nullptr, 20), "blob20");
	EXPECT_EQ(get(7, SDB_TABLE_SERVICE), "<-7>");
	EXPECT_EQ(sdb_lts_section_delete(7, nullptr, SDB_TABLE_DYNAMIC, 0), 0);
	EXPECT_EQ(get(7, SDB_TABLE_DYNAMIC), "<-7>");
	EXPECT_EQ(sdb_lts_section_delete(7, nullptr, SDB_TABLE_DYNAMIC, 0),
	    SDB_ERR_NOT_FOUND);
	sdb_is_master = false;
	EXPECT_EQ(put(7, SDB_TABLE_CLIENT, "x"), SDB_ERR_READ_ONLY);
	sdb_is_master = true;
	/* The last section gone, the head leaves its chain. */
	EXPECT_EQ(sdb_lts_section_delete(7, nullptr, SDB_TABLE_CLIENT, 0), 0);
	EXPECT_EQ(sdb_lts_section_delete(7, nullptr, SDB_TABLE_APP, 20), 0);
	EXPECT_EQ(sdb_lts_exists(7), SDB_ERR_NOT_FOUND);
	EXPECT_EQ(sdb_lts_lowest_id(), 0u);
}

TEST_F(Lts, PlacementPrefersTheBlockThenSpillsWithTheSlack)
{
	uint64_t sid = 3;
	ASSERT_EQ(put(sid, SDB_TABLE_CLIENT, std::string(100, 'a')), 0);
	sdb_lts_desc d = desc_of(sid, SDB_TABLE_CLIENT);
	uint64_t head = d.offset - SDB_LTS_HEAD_SIZE;
	EXPECT_EQ(d.cap, 100u);
	/* The longest client section so far is 3000 bytes: one 1000 bytes
	 * shorter reserves 3000, one 2000 bytes shorter only its own. */
	ASSERT_EQ(put(sid, SDB_TABLE_SERVICE, std::string(3000, 's')), 0);
	ASSERT_EQ(put(sid + n, SDB_TABLE_CLIENT, std::string(3000, 'c')), 0);
	ASSERT_EQ(put(sid, SDB_TABLE_CLIENT, std::string(2000, 'b')), 0);
	d = desc_of(sid, SDB_TABLE_CLIENT);
	EXPECT_EQ(d.cap, 3000u);
	EXPECT_FALSE(d.offset > head && d.offset < head + SDB_LTS_MAX_RECORD)
	    << "no room left in the block";
	ASSERT_EQ(put(sid, SDB_TABLE_AUTH_REQ, std::string(20, 'r')), 0);
	d = desc_of(sid, SDB_TABLE_AUTH_REQ);
	EXPECT_TRUE(d.offset > head && d.offset < head + SDB_LTS_MAX_RECORD);
	/* 2000 bytes below the longest: its own size, in the heap. */
	ASSERT_EQ(put(sid, SDB_TABLE_CLIENT, std::string(1000, 'e')), 0);
	EXPECT_EQ(desc_of(sid, SDB_TABLE_CLIENT).cap, 1000u);
	/* No room in the block: at least 512 bytes of the heap. */
	ASSERT_EQ(put(sid, SDB_TABLE_DYNAMIC, std::string(460, 'd')), 0);
	EXPECT_EQ(desc_of(sid, SDB_TABLE_DYNAMIC).cap, SDB_LTS_MIN_ALLOC);
	EXPECT_EQ(get(sid, SDB_TABLE_CLIENT), std::string(1000, 'e'));
	EXPECT_EQ(get(sid, SDB_TABLE_SERVICE), std::string(3000, 's'));
	expect_clean();
	EXPECT_EQ(sdb_lts_session_delete(sid, nullptr), 0);
	EXPECT_EQ(sdb_lts_exists(sid), SDB_ERR_NOT_FOUND);
	EXPECT_EQ(get(sid + n, SDB_TABLE_CLIENT), std::string(3000, 'c'));
}

TEST_F(Lts, SharedChainsPutTheLaterFirstAndKeepTheSpareBlock)
{
	uint64_t a = 5, b = 5 + n, c = 5 + 2 * (uint64_t)n;
	ASSERT_EQ(put(a, SDB_TABLE_CLIENT, "a"), 0);
	sdb_lts_bucket *row = sdb_lts_bucket_ptr(5);
	uint64_t spare;
	memcpy(&spare, row->spare_block, 8);
	EXPECT_EQ(desc_of(a, 0).offset - SDB_LTS_HEAD_SIZE, spare);
	ASSERT_EQ(put(b, SDB_TABLE_SERVICE, "b"), 0);
	ASSERT_EQ(put(c, SDB_TABLE_CLIENT, "c"), 0);
	int walked = 0;
	uint64_t prev = 0;
	ASSERT_EQ(sdb_sentry_lock_acquire(a), 0);
	sdb_lts_head *h = sdb_lts_find(a, &walked, &prev);
	ASSERT_NE(h, nullptr);
	EXPECT_EQ(walked, 2);
	uint64_t first;
	memcpy(&first, row->first_head, 8);
	EXPECT_EQ(static_cast<sdb_lts_head *>(sdb_lts_map(first,
	    SDB_LTS_HEAD_SIZE))->sid, c);
	sdb_sentry_lock_release(a);
	EXPECT_EQ(sdb_lts_session_delete(b, nullptr), 0);
	EXPECT_EQ(sdb_lts_session_delete(a, nullptr), 0);
	EXPECT_EQ(sdb_lts_session_delete(c, nullptr), 0);
	memcpy(&first, row->first_head, 8);
	EXPECT_EQ(first, 0u);
	ASSERT_EQ(put(b, SDB_TABLE_CLIENT, "b2"), 0);
	EXPECT_EQ(desc_of(b, 0).offset - SDB_LTS_HEAD_SIZE, spare);
	EXPECT_EQ(get(b, SDB_TABLE_CLIENT), "b2");
}

TEST_F(Lts, TransactionsSeeRacingWritersThroughTheWrap)
{
	ASSERT_EQ(put(9, SDB_TABLE_CLIENT, "v0"), 0);
	sdb_lts_txn t{};
	EXPECT_EQ(get(9, SDB_TABLE_CLIENT, nullptr, &t), "v0");
	ASSERT_EQ(put(9, SDB_TABLE_CLIENT, "mine", &t), 0);
	ASSERT_EQ(put(9, SDB_TABLE_DYNAMIC, "dyn", &t), 0);
	EXPECT_EQ(get(9, SDB_TABLE_CLIENT, nullptr, &t), "mine")
	    << "a transaction reads its own queued writes";
	EXPECT_EQ(get(9, SDB_TABLE_CLIENT), "v0") << "nothing written yet";
	EXPECT_EQ(sdb_lts_txn_commit(&t), 0);
	EXPECT_EQ(get(9, SDB_TABLE_DYNAMIC), "dyn");

	/* A racer, then one that wraps the generation all the way round. */
	for (int racers : {1, 255, 256}) {
		sdb_lts_txn r{};
		get(9, SDB_TABLE_CLIENT, nullptr, &r);
		EXPECT_NE(r.gen_read, 0);
		for (int i = 0; i < racers; i++)
			ASSERT_EQ(put(9, SDB_TABLE_CLIENT, "racer"), 0);
		ASSERT_EQ(put(9, SDB_TABLE_CLIENT, "late", &r), 0);
		EXPECT_EQ(sdb_lts_txn_commit(&r), SDB_ERR_CONFLICT) << racers;
		EXPECT_EQ(r.conflict, 1);
	}
	sdb_lts_txn lost{};
	get(9, SDB_TABLE_CLIENT, nullptr, &lost);
	ASSERT_EQ(sdb_lts_section_delete(9, nullptr, SDB_TABLE_CLIENT, 0), 0);
	ASSERT_EQ(put(9, SDB_TABLE_CLIENT, "late", &lost), 0);
	EXPECT_EQ(sdb_lts_txn_commit(&lost), SDB_ERR_NOT_FOUND);
	EXPECT_EQ(get(9, SDB_TABLE_CLIENT), "<-7>");
}

TEST_F(Lts, DamagedChainsAreMendedOrRefusedNeverLooped)
{
	uint64_t a = 4, b = 4 + n, c = 4 + 2 * (uint64_t)n;
	for (uint64_t s : {a, b, c})
		ASSERT_EQ(put(s, SDB_TABLE_CLIENT, "v"), 0);
	/* c -> b -> a; make a point back at c: a cycle. */
	uint64_t ca = desc_of(a, 0).offset - SDB_LTS_HEAD_SIZE;
	uint64_t cc = desc_of(c, 0).offset - SDB_LTS_HEAD_SIZE;
	static_cast<sdb_lts_head *>(sdb_lts_map(ca, SDB_LTS_HEAD_SIZE))->next =
	    cc;
	EXPECT_EQ(get(4 + 3 * (uint64_t)n, SDB_TABLE_CLIENT), "<-7>");
	for (uint64_t s : {a, b, c})
		EXPECT_EQ(get(s, SDB_TABLE_CLIENT), "v");
	expect_clean();
	/* A link into nowhere refuses the bucket and the check names it. */
	static_cast<sdb_lts_head *>(sdb_lts_map(ca, SDB_LTS_HEAD_SIZE))->next =
	    ca + 8;
	int rc = 0;
	get(4 + 3 * (uint64_t)n, SDB_TABLE_CLIENT, &rc);
	EXPECT_EQ(rc, SDB_ERR_CORRUPT);
	sdb_lts_check_report rep;
	EXPECT_EQ(sdb_lts_check(&rep, SDB_LTS_CHECK_STILL), SDB_ERR_CORRUPT);
	EXPECT_NE(std::string(rep.first_problem).find("bucket 4"),
	    std::string::npos) << rep.first_problem;
	static_cast<sdb_lts_head *>(sdb_lts_map(ca, SDB_LTS_HEAD_SIZE))->next = 0;
}

/* A writer killed in each window of a rewrite or a delete leaves the old
 * or the new value, a clean store, and a bucket the next writer takes. */
TEST_F(Lts, WritersKilledInEveryWindowLeaveOldOrNew)
{
	const char *points[] = {"lts.section.copied", "lts.section.stored",
	    "lts.head.made", "lts.delete.cleared", "lts.unlink.done",
	    "lts.session.unlinked"};
	uint64_t sid = 11;
	for (const char *p : points) {
		std::string before = get(sid, SDB_TABLE_CLIENT);
		pid_t pid = fork();
		if (pid == 0) {
			tolvar_crash_point_arm(p, 1, TOLVAR_CRASH_KILL);
			std::string big(2500, 'n');
			put(sid, SDB_TABLE_CLIENT, big);
			put(sid + n, SDB_TABLE_CLIENT, big);
			sdb_lts_section_delete(sid, nullptr, SDB_TABLE_CLIENT, 0);
			sdb_lts_session_delete(sid + n, nullptr);
			_exit(3);
		}
		int st = 0;
		ASSERT_EQ(waitpid(pid, &st, 0), pid);
		ASSERT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL) << p;
		std::string after = get(sid, SDB_TABLE_CLIENT);
		EXPECT_TRUE(after == before || after == std::string(2500, 'n') ||
		    after == "<-7>") << p << ": " << after.substr(0, 20);
		expect_clean();
		ASSERT_EQ(put(sid, SDB_TABLE_CLIENT, "w"), 0) << p;
	}
}

TEST_F(Lts, ScanIndexSkipsDeadIdsAndLivesUntilItsLastUser)
{
	for (uint64_t s : {5000000ull, 5000100ull, 9000000ull})
		ASSERT_EQ(put(s, SDB_TABLE_CLIENT, "v"), 0);
	EXPECT_EQ(sdb_lts_scan_index_get(10, 20), nullptr);
	sdb_sii *x = sdb_lts_scan_index_get(0, 9000001);
	ASSERT_NE(x, nullptr);
	EXPECT_EQ(x->level_count, 5u);
	EXPECT_EQ(x->levels[0].unit, 1u);
	EXPECT_EQ(sdb_lts_scan_next(x, 1), 5000000u);
	EXPECT_EQ(sdb_lts_scan_next(x, 5000001), 5000100u);
	EXPECT_EQ(sdb_lts_scan_next(x, 5000101), 9000000u);
	EXPECT_EQ(sdb_lts_scan_next(x, 9000001), x->max_id);
	EXPECT_EQ(sdb_lts_scan_next(nullptr, 77), 77u);
	/* The same instance again; a run of short walks drops it, and it
	 * stays readable while this user holds it. */
	sdb_sii *y = sdb_lts_scan_index_get(0, 9000001);
	EXPECT_EQ(x, y);
	sdb_lts_scan_index_put(y);
	for (int i = 0; i < 10001; i++)
		EXPECT_EQ(sdb_lts_scan_index_get(1, 2), nullptr);
	EXPECT_EQ(sdb_lts_scan_next(x, 1), 5000000u);
	sdb_lts_scan_index_put(x);
	sdb_lts_txn it{};
	uint64_t key = 0;
	std::vector<uint64_t> seen;
	int rc = sdb_lts_search(&it, &key, nullptr, nullptr,
	    SDB_LTS_SEARCH_FIRST);
	while (rc == 0) {
		seen.push_back(key);
		rc = sdb_lts_search(&it, &key, nullptr, nullptr,
		    SDB_LTS_SEARCH_NEXT);
	}
	EXPECT_EQ(rc, SDB_ERR_NOT_FOUND);
	EXPECT_EQ(seen, (std::vector<uint64_t>{5000000, 5000100, 9000000}));
	EXPECT_EQ(sdb_lts_lowest_id(), 5000000u);
}

TEST(LtsClient, FindsNoStoreAndMakesNone)
{
	sdb_lts_store_close();
	fs::remove_all(root + "/mfs");
	EXPECT_EQ(sdb_lts_store_open(0), SDB_ERR_NOMEM);
	EXPECT_FALSE(fs::exists(root + "/mfs/var/sdb/shmem/sdb.lts.data"));
}

} // namespace
