/*
 * The session catalogue and the short-term store: sizes, the creation
 * rule, the heap and the slot allocator against models, every section
 * kind, the check of an image, and the section codec with vectors written
 * by hand from the record formats.
 */
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <platform/paths.h>
#include <sdb/sdb.h>
#include <sdb/sdb_db.h>
#include <sdb/sdb_rep.h>
#include <sdb/sdb_session.h>
#include <sdb/sdb_sts.h>

void sdb_sts_set_format_hook(void (*fn)(void));

namespace fs = std::filesystem;

namespace {

constexpr uint32_t unit = 5 * 4096;
constexpr uint64_t small_store = 250 * 4096;	/* 50 entries, 20 home */

std::string root = [] {
	char tmpl[] = "/tmp/sdb_sts_test.XXXXXX";
	std::string r = mkdtemp(tmpl);
	setenv("TOLVAR_ROOT", r.c_str(), 1);
	return r;
}();

std::string store_path()
{
	return tolvar::path(SDB_STS_DATA_FILE);
}

std::vector<uint8_t> file_image()
{
	std::ifstream f(store_path(), std::ios::binary);
	return {std::istreambuf_iterator<char>(f), {}};
}

sdb_sts_check_report check_now()
{
	sdb_sts_check_report rep;
	const sdb_sts_geometry *g = sdb_sts_geometry_get();
	sdb_sts_check_image(sdb_sts_base(), g->max_bytes, &rep);
	return rep;
}

class Store : public ::testing::Test {
protected:
	void SetUp() override
	{
		sdb_sts_close();
		fs::remove(store_path());
		ASSERT_EQ(sdb_sts_init(small_store, unit), 0);
	}
	void TearDown() override
	{
		sdb_sts_close();
	}
	void expect_clean()
	{
		sdb_sts_check_report rep = check_now();
		EXPECT_EQ(rep.problems, 0u) << rep.first_problem;
	}
};

/* A private entry with a slot of `slot` bytes. */
struct private_entry {
	std::vector<uint8_t> buf;
	sdb_sts_entry *e;
	explicit private_entry(uint32_t slot = SDB_STS_SLOT_MAX, uint64_t sid = 7)
	    : buf(SDB_STS_ENTRY_SIZE + slot)
	{
		e = sdb_sts_entry_init_private(buf.data(), buf.size(), sid);
	}
};

uint32_t in_deleted(const sdb_sts_entry *e)
{
	uint32_t d;
	memcpy(&d, sdb_sts_slot(e) + e->app_data_offset, 4);
	return d;
}

} // namespace

TEST(Catalogue, NamesAndVariableIds)
{
	EXPECT_STREQ(sdb_attr_name(SESSION_STATE), "SESSION_STATE");
	EXPECT_STREQ(sdb_attr_name(9), "unknown");
	EXPECT_STREQ(sdb_attr_name(268), "unknown");
	EXPECT_STREQ(sdb_attr_name(70000), "unknown");
	EXPECT_EQ(sdb_attr_max_len(INTERFACE_NAME), 60u);
	EXPECT_EQ(sdb_attr_max_len(USER_NAME), 0u);
	EXPECT_TRUE(sdb_attr_is_indexed(INTERFACE_SVLAN));
	EXPECT_FALSE(sdb_attr_is_indexed(SESSION_STATE));

	const char *n = "orvia-interface-unit";
	EXPECT_EQ(sdb_dyn_var_id(n, strlen(n)), DYN_CONF_VAR_ORVIA_INTERFACE_UNIT);
	EXPECT_EQ(sdb_dyn_var_id(n, 5), 0);	/* a prefix of a name is none */
	EXPECT_EQ(sdb_dyn_var_name(0), nullptr);
	EXPECT_EQ(sdb_dyn_var_name(107), nullptr);
	EXPECT_STREQ(sdb_dyn_var_name(56), "orvia-interface-set-name");
	EXPECT_STREQ(sdb_section_name(0x40), "dynamic_session");
	EXPECT_STREQ(sdb_action_name(SDB_ACTION_SELECT), "select");
	EXPECT_FALSE(sdb_action_valid(SDB_TARGET_ATTR, SDB_ACTION_SET_BITS));
	EXPECT_TRUE(sdb_action_valid(SDB_TARGET_BITS_SERVICE,
	    SDB_ACTION_CLEAR_BITS));
	EXPECT_FALSE(sdb_action_valid(SDB_TARGET_DYNAMIC, 7));
	EXPECT_EQ(sdb_dyn_var_hash("ab", 2), (uint32_t)('a' * 3 + 'b'));
	EXPECT_EQ(sdb_dyn_var_hash(nullptr, 0), 0u);

	std::vector<std::string> lines;
	sdb_dyn_var_print_table([](void *a, const char *l) {
		static_cast<std::vector<std::string> *>(a)->push_back(l);
	}, &lines);
	ASSERT_GE(lines.size(), 4u);
	EXPECT_EQ(lines[0], "DYN_CONF VID to String Hash Table");
	EXPECT_EQ(lines.back().rfind("Max entries per location: ", 0), 0u);
}

TEST(Catalogue, DumpFormOfValues)
{
	char buf[512];
	const uint8_t mac[6] = {0, 0x11, 0x22, 0x33, 0x44, 0xff};
	sdb_attr_format(USER_MAC_ADDRESS, mac, 6, buf, sizeof buf);
	EXPECT_STREQ(buf, "00:11:22:33:44:ff");
	const uint8_t ip[4] = {10, 0, 0, 1};
	sdb_attr_format(USER_IP_ADDRESS, ip, 4, buf, sizeof buf);
	EXPECT_STREQ(buf, "10.0.0.1");
	uint16_t two = 7;	/* a counter written by the version conversion */
	sdb_attr_format(SDB_NUM_DYN_PROF_SERVICE_SESSIONS, &two, 2, buf,
	    sizeof buf);
	EXPECT_STREQ(buf, "         7");
	std::vector<uint8_t> opts(300, 0xab);
	EXPECT_EQ(sdb_attr_format(DHCP_OPTIONS, opts.data(), opts.size(), buf,
	    sizeof buf), 399u);	/* " ab" per byte, to at most 400 */
}

TEST(Geometry, ScaleClasses)
{
	struct {
		uint64_t bytes;
		uint32_t entries, home;
	} rows[] = {
		{250 * 4096, 50, 20},
		{12500ull * 4096 / 16, 157, 127},
		{12500ull * 4096 / 8, 313, 283},
		{12500ull * 4096, 2500, 2470},
	};
	for (auto r : rows) {
		sdb_sts_geometry g;
		ASSERT_EQ(sdb_sts_geometry_for(r.bytes, unit, &g), 0);
		EXPECT_EQ(g.total_entries, r.entries);
		EXPECT_EQ(g.home_count, r.home);
		EXPECT_EQ(g.max_bytes % unit, 0u);
		EXPECT_EQ(g.heap_start, r.entries * 76 + 104);
	}
}

TEST_F(Store, FormatIsCompleteAndEveryEntryHasASlot)
{
	expect_clean();
	sdb_sts_check_report rep = check_now();
	EXPECT_EQ(rep.total_entries, 50u);
	EXPECT_EQ(rep.home_count, 20u);
	EXPECT_EQ(rep.slot_bytes, 50u * 4096);
	EXPECT_EQ(rep.sessions, 0u);
	/* A second open in this process is a no-op; after a close the file
	 * is found complete and kept. */
	sdb_sts_entry *e = sdb_sts_entry_create(3);
	ASSERT_NE(e, nullptr);
	ASSERT_EQ(sdb_sts_entry_put_attr(e, USER_NAME, 3, "bob"), 0);
	sdb_sts_entry_release(e);
	sdb_sts_close();
	ASSERT_EQ(sdb_sts_init(small_store, unit), 0);
	e = sdb_sts_entry_find(3);
	ASSERT_NE(e, nullptr);
	char buf[8];
	uint32_t len = sizeof buf;
	EXPECT_EQ(sdb_sts_entry_get_attr(e, USER_NAME, &len, buf), 0);
	EXPECT_STREQ(buf, "bob");
	sdb_sts_entry_release(e);
}

TEST_F(Store, CreatorKilledMidFormatLeavesAStoreTheNextOpenerFormats)
{
	sdb_sts_close();
	fs::remove(store_path());
	pid_t pid = fork();
	if (pid == 0) {
		sdb_sts_set_format_hook([] { raise(SIGKILL); });
		sdb_sts_init(small_store, unit);
		_exit(3);
	}
	int st;
	ASSERT_EQ(waitpid(pid, &st, 0), pid);
	ASSERT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL);
	std::vector<uint8_t> half = file_image();
	sdb_sts_check_report rep;
	EXPECT_NE(sdb_sts_check_image(half.data(), half.size(), &rep), 0);
	EXPECT_STREQ(rep.first_problem, "the format was never completed");
	/* The kernel dropped the creator's flock: no wait, a new format. */
	ASSERT_EQ(sdb_sts_init(small_store, unit), 0);
	expect_clean();
}

TEST_F(Store, AnEntryHeldByAKilledProcessIsTakenOver)
{
	int ready[2];
	ASSERT_EQ(pipe(ready), 0);
	pid_t pid = fork();
	if (pid == 0) {
		sdb_sts_entry *e = sdb_sts_entry_create(4);
		if (e == nullptr || sdb_sts_entry_put_attr(e, USER_NAME, 2,
		    "kd") != 0)
			_exit(1);
		(void)!write(ready[1], "x", 1);
		pause();	/* holding the entry */
		_exit(0);
	}
	char c;
	ASSERT_EQ(read(ready[0], &c, 1), 1);
	sdb_sts_entry *raw = sdb_sts_entry_get_by_index(3);
	EXPECT_EQ(raw, nullptr);	/* a live holder: not ours */
	kill(pid, SIGKILL);
	int st;
	waitpid(pid, &st, 0);
	sdb_sts_entry *e = sdb_sts_entry_find(4);
	ASSERT_NE(e, nullptr);
	EXPECT_EQ(e->lock_pid, (uint32_t)getpid());
	EXPECT_EQ(e->lock_count, 1);
	char buf[4];
	uint32_t len = sizeof buf;
	EXPECT_EQ(sdb_sts_entry_get_attr(e, USER_NAME, &len, buf), 0);
	sdb_sts_entry_release(e);
	EXPECT_EQ(e->lock_pid, 0u);
	close(ready[0]);
	close(ready[1]);
}

TEST_F(Store, WrongSizeIsRefusedNotFormattedAway)
{
	sdb_sts_close();
	EXPECT_EQ(sdb_sts_init(small_store * 4, unit), SDB_ERR_NOMEM);
	EXPECT_EQ(fs::file_size(store_path()), small_store);
}

TEST_F(Store, HomeEntriesAndABusyHome)
{
	sdb_sts_entry *a = sdb_sts_entry_create(1);
	ASSERT_NE(a, nullptr);
	EXPECT_EQ(sdb_sts_entry_index(a), 0u);
	/* The same thread takes it again (recursive), another session of
	 * the same home is refused while nothing can flush the first. */
	EXPECT_EQ(sdb_sts_entry_find(1), a);
	sdb_sts_entry_release(a);
	sdb_sts_entry_release(a);
	EXPECT_EQ(sdb_sts_entry_create(21), nullptr);
	EXPECT_EQ(sdb_sts_entry_find(21), nullptr);
	ASSERT_EQ(sdb_sts_entry_remove(1), 0);
	a = sdb_sts_entry_create(21);
	ASSERT_NE(a, nullptr);
	EXPECT_EQ(sdb_sts_entry_index(a), 0u);
	sdb_sts_entry_release(a);
	EXPECT_EQ(sdb_sts_entry_remove(1), SDB_ERR_NOT_FOUND);
}

TEST_F(Store, APrivateCopyHoldsTheUsedBytesAndReadsTheSame)
{
	sdb_sts_entry *e = sdb_sts_entry_create(6);
	ASSERT_EQ(sdb_sts_entry_put_attr(e, USER_NAME, 4, "carl"), 0);
	ASSERT_EQ(sdb_sts_entry_put_app(e, 2, "blob", 4), 0);
	ASSERT_EQ(sdb_sts_entry_put_dyn_general(e, "x", "y", 1), 0);
	sdb_sts_entry_release(e);
	uint32_t len = 100;
	std::vector<uint8_t> buf(100);
	ASSERT_EQ(sdb_sts_get_entry_and_len(6, &len, buf.data()), SDB_ERR_NOMEM);
	EXPECT_LT(len, 76u + 4096);
	buf.resize(len);
	ASSERT_EQ(sdb_sts_get_entry_and_len(6, &len, buf.data()), 0);
	auto *c = reinterpret_cast<sdb_sts_entry *>(buf.data());
	EXPECT_EQ(c->slot_size + 76, len);
	EXPECT_EQ(c->lock_pid, 0u);
	char v[8];
	uint32_t vl = sizeof v;
	ASSERT_EQ(sdb_sts_entry_get_attr(c, USER_NAME, &vl, v), 0);
	EXPECT_STREQ(v, "carl");
	vl = sizeof v;
	ASSERT_EQ(sdb_sts_entry_get_app(c, 2, &vl, v), 0);
	/* The copy's slot is full: it cannot grow, a put fails cleanly. */
	EXPECT_EQ(sdb_sts_entry_put_attr(c, PROFILE_NAME, 9, "123456789"),
	    SDB_ERR_NOMEM);
	sdb_sts_entry *m = sdb_sts_entry_copy(6);
	ASSERT_NE(m, nullptr);
	EXPECT_EQ(memcmp(m, c, len), 0);
	free(m);
	EXPECT_EQ(sdb_sts_entry_copy(7), nullptr);
}

TEST_F(Store, HeapAgainstAModel)
{
	/* Blocks of slot sizes taken and given back at random: never two
	 * blocks overlap, and once all are back the heap is one block. */
	std::mt19937 rng(5);
	std::map<uint32_t, uint32_t> held;
	const sdb_sts_geometry *g = sdb_sts_geometry_get();
	sdb_sts_check_report before = check_now();
	for (int i = 0; i < 4000; i++) {
		if (held.empty() || rng() % 3 != 0) {
			uint32_t size = 4096 * (1 + rng() % 10);
			uint32_t off = sdb_sts_heap_alloc(size);
			if (off == 0)
				continue;
			ASSERT_GE(off, g->heap_start);
			auto next = held.lower_bound(off);
			if (next != held.end()) {
				ASSERT_LE(off + size, next->first);
			}
			if (next != held.begin()) {
				ASSERT_LE(std::prev(next)->first +
				    std::prev(next)->second, off);
			}
			held[off] = size;
			memset(sdb_sts_base() + off, 0x5a, size);
		} else {
			auto it = std::next(held.begin(), rng() % held.size());
			sdb_sts_heap_free(it->first, it->second);
			held.erase(it);
		}
	}
	for (auto [off, size] : held)
		sdb_sts_heap_free(off, size);
	expect_clean();
	sdb_sts_check_report after = check_now();
	/* One block again; the heap's odd tail may have gone with the last
	 * block there, too small to be a block of its own. */
	EXPECT_EQ(after.free_blocks, before.free_blocks);
	EXPECT_LT(before.free_bytes - after.free_bytes, 4096u);
}

TEST_F(Store, DoubleFreeChangesNothing)
{
	uint32_t off = sdb_sts_heap_alloc(8192);
	ASSERT_NE(off, 0u);
	sdb_sts_heap_free(off, 8192);
	sdb_sts_check_report once = check_now();
	sdb_sts_heap_free(off, 8192);
	sdb_sts_heap_free(off, 4096);
	sdb_sts_check_report twice = check_now();
	EXPECT_EQ(twice.problems, 0u) << twice.first_problem;
	EXPECT_EQ(twice.free_bytes, once.free_bytes);
}

TEST(Slot, AllocatorAgainstAModel)
{
	/* Pieces hold their own pattern: a piece handed out twice, or a free
	 * that merges wrongly, overwrites another's bytes. */
	private_entry p(8192);
	std::mt19937 rng(11);
	std::map<uint16_t, std::pair<uint32_t, uint8_t>> held;
	for (int i = 0; i < 20000; i++) {
		if (held.empty() || rng() % 2 == 0) {
			uint32_t size = 4 + rng() % 300;
			uint16_t off = sdb_sts_entry_alloc(p.e, size, nullptr);
			if (off == 0)
				continue;
			uint8_t mark = (uint8_t)rng();
			memset(sdb_sts_slot(p.e) + off, mark, size);
			ASSERT_TRUE(held.emplace(off,
			    std::make_pair(size, mark)).second);
		} else {
			auto it = std::next(held.begin(), rng() % held.size());
			const uint8_t *b = sdb_sts_slot(p.e) + it->first;
			for (uint32_t k = 0; k < it->second.first; k++)
				ASSERT_EQ(b[k], it->second.second) << it->first;
			sdb_sts_entry_free(p.e, it->first, it->second.first);
			held.erase(it);
		}
	}
	for (auto &[off, v] : held)
		sdb_sts_entry_free(p.e, off, v.first);
	/* Everything back, crumbs included: one piece again. */
	EXPECT_EQ(p.e->free_list_offset, 4);
	EXPECT_EQ(sdb_sts_entry_used_bytes(p.e), 4u);
}

TEST_F(Store, SlotGrowsInStepsAndStopsAtItsLimit)
{
	sdb_sts_entry *e = sdb_sts_entry_create(2);
	ASSERT_NE(e, nullptr);
	int grew = 0;
	ASSERT_NE(sdb_sts_entry_alloc(e, 4092, &grew), 0);	/* full */
	EXPECT_EQ(grew, 0);
	uint32_t before = e->data_start_offset;
	ASSERT_NE(sdb_sts_entry_alloc(e, 100, &grew), 0);
	EXPECT_EQ(grew, 1);
	EXPECT_EQ(e->slot_size, 8192u);
	EXPECT_NE(e->data_start_offset, before);
	sdb_sts_entry_release(e);

	e = sdb_sts_entry_create(3);
	ASSERT_NE(sdb_sts_entry_alloc(e, 4092, &grew), 0);
	ASSERT_NE(sdb_sts_entry_alloc(e, 5000, &grew), 0);
	EXPECT_EQ(e->slot_size, 12288u);
	/* Past 40960: refused, the slot as it was. */
	std::vector<uint8_t> blob(16384, 1);
	ASSERT_EQ(sdb_sts_entry_put_app(e, 1, blob.data(), 16384), 0);
	uint32_t size = e->slot_size;
	EXPECT_EQ(size, 32768u);
	EXPECT_EQ(sdb_sts_entry_put_app(e, 2, blob.data(), 16384),
	    SDB_ERR_NOMEM);
	EXPECT_EQ(e->slot_size, size);
	uint32_t len = 0;
	EXPECT_EQ(sdb_sts_entry_get_app(e, 2, &len, nullptr), SDB_ERR_NOT_FOUND);
	sdb_sts_entry_release(e);
	/* A large slot goes back when its session is removed. */
	ASSERT_EQ(sdb_sts_entry_remove(3), 0);
	e = sdb_sts_entry_create(3);
	EXPECT_EQ(e->slot_size, 4096u);
	sdb_sts_entry_release(e);
	expect_clean();
}

TEST_F(Store, DefragmentationKeepsEverySession)
{
	std::vector<uint8_t> blob(12000);
	for (uint64_t sid = 1; sid <= 20; sid++) {
		sdb_sts_entry *e = sdb_sts_entry_create(sid);
		ASSERT_NE(e, nullptr);
		memset(blob.data(), (int)sid, blob.size());
		ASSERT_EQ(sdb_sts_entry_put_app(e, 1, blob.data(), 12000), 0);
		sdb_sts_entry_release(e);
	}
	for (uint64_t sid = 2; sid <= 20; sid += 2)
		ASSERT_EQ(sdb_sts_entry_remove(sid), 0);
	sdb_sts_check_report rep = check_now();
	ASSERT_GT(rep.free_blocks, 1u);
	uint32_t defrags = rep.defrag_count;
	sdb_sts_entry *caller = sdb_sts_entry_find(1);
	int released = 1;
	sdb_sts_heap_defragment(caller, &released);
	EXPECT_EQ(released, 0);
	sdb_sts_entry_release(caller);
	rep = check_now();
	EXPECT_EQ(rep.problems, 0u) << rep.first_problem;
	EXPECT_EQ(rep.defrag_count, defrags + 1);
	EXPECT_EQ(rep.free_blocks, 1u);
	for (uint64_t sid = 1; sid <= 20; sid += 2) {
		sdb_sts_entry *e = sdb_sts_entry_find(sid);
		ASSERT_NE(e, nullptr);
		uint32_t len = blob.size();
		ASSERT_EQ(sdb_sts_entry_get_app(e, 1, &len, blob.data()), 0);
		EXPECT_EQ(len, 12000u);
		EXPECT_EQ(blob[11999], sid);
		sdb_sts_entry_release(e);
	}
}

TEST(Sections, Attributes)
{
	private_entry p;
	sdb_sts_entry *e = p.e;
	char buf[64];
	uint32_t len = sizeof buf;
	EXPECT_EQ(sdb_sts_entry_get_attr(e, SESSION_VERSION, &len, buf),
	    SDB_ERR_NOT_FOUND);	/* a version 0 record */
	ASSERT_EQ(sdb_sts_entry_put_attr(e, USER_NAME, 5, "alice"), 0);
	EXPECT_EQ(e->dirty_flags, SDB_DIRTY_CLIENT_ATTRS);
	ASSERT_EQ(sdb_sts_entry_put_attr(e, USER_NAME, 3, "bob"), 0);
	len = sizeof buf;
	ASSERT_EQ(sdb_sts_entry_get_attr(e, USER_NAME, &len, buf), 0);
	EXPECT_EQ(len, 3u);
	EXPECT_STREQ(buf, "bob");	/* a NUL behind a shorter value */
	len = 2;
	EXPECT_EQ(sdb_sts_entry_get_attr(e, USER_NAME, &len, buf), SDB_ERR_NOMEM);
	EXPECT_EQ(len, 0u);
	std::string longer(40, 'x');
	ASSERT_EQ(sdb_sts_entry_put_attr(e, USER_NAME, 40, longer.data()), 0);
	std::string name61(61, 'i');
	EXPECT_EQ(sdb_sts_entry_put_attr(e, INTERFACE_NAME, 61, name61.data()),
	    SDB_ERR_PARAM);
	ASSERT_EQ(sdb_sts_entry_put_attr(e, INTERFACE_NAME, 60, name61.data()), 0);
	std::vector<uint16_t> order;
	sdb_sts_entry_walk_attrs(e, [](void *a, uint16_t n, const void *,
	    uint16_t) {
		static_cast<std::vector<uint16_t> *>(a)->push_back(n);
		return 0;
	}, &order);
	EXPECT_EQ(order, (std::vector<uint16_t>{USER_NAME, INTERFACE_NAME}));
	ASSERT_EQ(sdb_sts_entry_del_attr(e, USER_NAME), 0);
	ASSERT_EQ(sdb_sts_entry_del_attr(e, INTERFACE_NAME), 0);
	EXPECT_EQ(sdb_sts_entry_del_attr(e, INTERFACE_NAME), SDB_ERR_NOT_FOUND);
	ASSERT_NE(e->client_offset, 0);	/* the table stays, count 0 */
	EXPECT_EQ(sdb_sts_entry_used_bytes(e), 4u + 1188);	/* whole words */
}

TEST(Sections, AttributeNumberAboveTheTableStops)
{
	private_entry p;
	EXPECT_DEATH(sdb_sts_entry_put_attr(p.e, 296, 1, "x"), "attr <=");
}

TEST(Sections, DynamicValuesAndArrays)
{
	private_entry p;
	sdb_sts_entry *e = p.e;
	char buf[64];
	uint32_t len = sizeof buf;
	ASSERT_EQ(sdb_sts_entry_put_dyn_general(e, "orvia-vlan-id", "12", 2), 0);
	ASSERT_EQ(sdb_sts_entry_get_dyn_general(e, "orvia-vlan-id", &len, buf), 0);
	EXPECT_EQ(len, 3u);	/* the library's own names end in a NUL */
	EXPECT_STREQ(buf, "12");
	ASSERT_EQ(sdb_sts_entry_put_dyn_general(e, "orvia-vlan-id", "4000", 4), 0);
	ASSERT_EQ(sdb_sts_entry_put_dyn_general(e, "site-var", "v", 1), 0);
	len = sizeof buf;
	ASSERT_EQ(sdb_sts_entry_get_dyn_general(e, "site-var", &len, buf), 0);
	EXPECT_EQ(len, 1u);	/* others are stored as given */
	ASSERT_EQ(sdb_sts_entry_put_dyn_prefix(e, "p", "a", 1), 0);
	ASSERT_EQ(sdb_sts_entry_put_dyn_prefix(e, "p", "b", 1), 0);
	ASSERT_EQ(sdb_sts_entry_put_dyn_prefix(e, "p", "a", 1), 0); /* same */
	uint16_t i1, i2, again;
	ASSERT_EQ(sdb_sts_entry_put_dyn_ident(e, 0, "routes", "10.0.0.0/8", 10,
	    &i1), 0);
	ASSERT_EQ(sdb_sts_entry_put_dyn_member(e, i1, "cost", "5", 1), 0);
	ASSERT_EQ(sdb_sts_entry_put_dyn_member(e, i1, "cost", "6", 1), 0);
	ASSERT_EQ(sdb_sts_entry_put_dyn_ident(e, 0, "routes", "10.1.0.0/16", 11,
	    &i2), 0);
	ASSERT_EQ(sdb_sts_entry_put_dyn_ident(e, 0, "routes", "10.0.0.0/8", 10,
	    &again), 0);
	EXPECT_EQ(again, i1);
	std::vector<std::string> seen;
	sdb_sts_entry_walk_dyn(e, [](void *a, const char *n, uint32_t nl,
	    uint32_t k, const void *v, uint32_t vl) {
		static_cast<std::vector<std::string> *>(a)->push_back(
		    std::string(n, nl) + "/" + std::to_string(k) + "=" +
		    std::string(static_cast<const char *>(v), vl));
		return 0;
	}, &seen);
	auto has = [&](const std::string &s) {
		return std::find(seen.begin(), seen.end(), s) != seen.end();
	};
	EXPECT_EQ(seen.size(), 8u);
	EXPECT_TRUE(has(std::string("orvia-vlan-id/0=4000") + '\0'));
	EXPECT_TRUE(has("routes/2=10.0.0.0/8"));
	EXPECT_TRUE(has("cost/3=6"));
	ASSERT_EQ(sdb_sts_entry_del_dyn(e, "p", SDB_DYN_PREFIX), 0);
	ASSERT_EQ(sdb_sts_entry_del_dyn(e, "cost", SDB_DYN_MEMBER), 0);
	ASSERT_EQ(sdb_sts_entry_del_dyn(e, "routes", SDB_DYN_IDENT), 0);
	EXPECT_EQ(sdb_sts_entry_del_dyn(e, "routes", SDB_DYN_IDENT),
	    SDB_ERR_NOT_FOUND);
	ASSERT_EQ(sdb_sts_entry_del_dyn(e, "orvia-vlan-id", SDB_DYN_GENERAL), 0);
	ASSERT_EQ(sdb_sts_entry_del_dyn(e, "site-var", SDB_DYN_GENERAL), 0);
	EXPECT_EQ(sdb_sts_entry_used_bytes(e), 4u + SDB_STS_HASH_SIZE);
}

TEST(Sections, AuthenticationKeepsTheResponseInOrder)
{
	private_entry p;
	sdb_sts_entry *e = p.e;
	ASSERT_EQ(sdb_sts_entry_put_auth(e, SDB_STS_AUTH_REQ, 1, "user", 4), 0);
	ASSERT_EQ(sdb_sts_entry_put_auth(e, SDB_STS_AUTH_REQ, 1, "longer-user",
	    11), 0);	/* overwritten, one node */
	ASSERT_EQ(sdb_sts_entry_put_auth(e, SDB_STS_AUTH_REQ, 102, "x", 1), 0);
	for (uint16_t a : {200, 3, 90, 3})
		ASSERT_EQ(sdb_sts_entry_put_auth(e, SDB_STS_AUTH_RESP, a, "v", 1), 0);
	using seen_t = std::vector<std::pair<uint16_t, std::string>>;
	auto walk = [&](int which) {
		seen_t s;
		sdb_sts_entry_walk_auth(e, which, [](void *a, uint16_t n,
		    const void *v, uint16_t l) {
			static_cast<seen_t *>(a)->emplace_back(n,
			    std::string(static_cast<const char *>(v), l));
			return 0;
		}, &s);
		return s;
	};
	EXPECT_EQ(walk(SDB_STS_AUTH_REQ),
	    (seen_t{{102, "x"}, {1, "longer-user"}}));	/* 102 mod 101 = 1 */
	seen_t resp = walk(SDB_STS_AUTH_RESP);
	ASSERT_EQ(resp.size(), 4u);
	EXPECT_EQ(resp[0].first, 200);
	EXPECT_EQ(resp[3].first, 3);
	EXPECT_EQ(e->dirty_flags, SDB_DIRTY_AUTH_REQ | SDB_DIRTY_AUTH_RESP);
	ASSERT_EQ(sdb_sts_entry_del_auth(e, SDB_STS_AUTH_RESP, 3, nullptr, 0), 0);
	EXPECT_EQ(walk(SDB_STS_AUTH_RESP).size(), 2u);
	EXPECT_EQ(sdb_sts_entry_put_auth(e, SDB_STS_AUTH_REQ, 5,
	    std::string(10001, 'x').data(), 10001), SDB_ERR_PARAM);
	ASSERT_EQ(sdb_sts_entry_del_all_auth(e, SDB_STS_AUTH_REQ), 0);
	ASSERT_EQ(sdb_sts_entry_del_all_auth(e, SDB_STS_AUTH_RESP), 0);
	EXPECT_EQ(sdb_sts_entry_used_bytes(e), 4u);
}

TEST(Sections, ApplicationBlobs)
{
	private_entry p;
	sdb_sts_entry *e = p.e;
	std::vector<uint8_t> big(16385, 2);
	EXPECT_EQ(sdb_sts_entry_put_app(e, 21, "x", 1), SDB_ERR_PARAM);
	EXPECT_EQ(sdb_sts_entry_put_app(e, 1, big.data(), 16385), SDB_ERR_NOMEM);
	EXPECT_EQ(sdb_sts_entry_put_app(e, 1, big.data(), 0), 0);
	EXPECT_EQ(e->app_data_offset, 0);
	ASSERT_EQ(sdb_sts_entry_put_app(e, 20, "abc", 3), 0);
	ASSERT_EQ(sdb_sts_entry_del_app(e, 20), 0);
	EXPECT_EQ(in_deleted(e), 1u << 20);
	ASSERT_EQ(sdb_sts_entry_put_app(e, 20, "abcd", 4), 0);
	EXPECT_EQ(in_deleted(e), 0u);
	char buf[8];
	uint32_t len = 2;
	EXPECT_EQ(sdb_sts_entry_get_app(e, 20, &len, buf), SDB_ERR_NOMEM);
	len = sizeof buf;
	ASSERT_EQ(sdb_sts_entry_get_app(e, 20, &len, buf), 0);
	EXPECT_EQ(std::string(buf, len), "abcd");
}

TEST(Sections, ServiceListLimitsAndBusinessServices)
{
	private_entry p;
	sdb_sts_entry *e = p.e;
	uint32_t dyn = 12;
	ASSERT_EQ(sdb_sts_entry_put_attr(e, SDB_NUM_DYN_PROF_SERVICE_SESSIONS, 4,
	    &dyn), 0);
	EXPECT_EQ(sdb_sts_entry_add_service_id(e, 100, SDB_SERVICE_DYN_PROFILE),
	    SDB_ERR_PARAM);	/* 12 dynamic-profile services already */
	for (uint64_t id = 1; id <= 14; id++)
		ASSERT_EQ(sdb_sts_entry_add_service_id(e, id, SDB_SERVICE_LI), 0);
	EXPECT_EQ(e->service_list_bytes, SDB_STS_SERVICE_LIST_SMALL);
	EXPECT_EQ(sdb_sts_entry_add_service_id(e, 15, SDB_SERVICE_LI),
	    SDB_ERR_PARAM);
	/* The first business service moves the list to its large block. */
	ASSERT_EQ(sdb_sts_entry_add_service_id(e, 15, SDB_SERVICE_BUSINESS), 0);
	EXPECT_EQ(e->service_list_bytes, SDB_STS_SERVICE_LIST_LARGE);
	ASSERT_EQ(sdb_sts_entry_remove_service_id(e, 1), 0);
	EXPECT_EQ(sdb_sts_entry_remove_service_id(e, 1), SDB_ERR_NOT_FOUND);
	uint64_t ids[20];
	uint32_t n = 20;
	ASSERT_EQ(sdb_sts_entry_get_service_ids(e, ids, &n), 0);
	ASSERT_EQ(n, 14u);
	EXPECT_EQ(ids[0], 15u);	/* the last took the removed one's place */
}
