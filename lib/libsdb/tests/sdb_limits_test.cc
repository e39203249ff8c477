/*
 * Subscriber limits and line card admission on real segments.  The binary
 * runs in an IPC namespace of its own, below a root of its own, and opens
 * the stores as keel does; each test starts from zeroed tables.
 */
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/crashpoint.h"
#include "platform/paths.h"
#include "sdb/sdb.h"
#include "sdb/sdb_fpc.h"
#include "sdb/sdb_limits.h"
#include "sdb_impl.h"

namespace {

std::string root;

class environment : public ::testing::Environment {
public:
	void SetUp() override
	{
		char tmpl[] = "/tmp/sdb-limits-test-XXXXXX";
		ASSERT_NE(mkdtemp(tmpl), nullptr);
		setenv("TOLVAR_ROOT", tmpl, 1);
		root = tmpl;
		ASSERT_EQ(sdb_open_internal(true), 0);
	}
	void TearDown() override
	{
		sdb_close_internal(true);
		std::string cmd = "rm -rf " + root;
		(void)system(cmd.c_str());
	}
};

std::string slurp(const std::string &rel)
{
	std::ifstream f(root + rel);
	std::stringstream ss;
	ss << f.rdbuf();
	return ss.str();
}

size_t count_of(const std::string &text, const std::string &what)
{
	size_t n = 0;
	for (size_t at = text.find(what); at != std::string::npos;
	    at = text.find(what, at + 1))
		n++;
	return n;
}

uint64_t key(uint32_t ct, uint32_t fpc, uint32_t pic, uint32_t port,
    uint32_t chan = SDB_KEY_CHAN_ANY, uint32_t lt = 0)
{
	uint64_t k = 0;
	EXPECT_EQ(sdb_populate_key_sub_limit_record(ct, fpc, pic, port, chan, lt,
	    &k), 0);
	return k;
}

/* The record of a key; a missing one reads as all zero. */
sdb_sub_limit_data rec(uint64_t k)
{
	sdb_sub_limit_data d{};
	sdb_sub_limit_get_record_data_by_index(nullptr, &d, &k);
	return d;
}

uint32_t count(uint64_t k) { return rec(k).current_count; }

constexpr uint32_t ANY = SDB_CLIENT_ANY, PPPOE = SDB_CLIENT_PPPOE;
constexpr uint32_t W = 255, P = 15, F = 2047;

void platform(const std::string &text)
{
	std::ofstream(root + "/etc/tolvar/platform") << text;
}

class limits : public ::testing::Test {
protected:
	void SetUp() override
	{
		memset(sdb_sub_limit_records(), 0,
		    SDB_LIMIT_MAX_RECORDS * sizeof(sdb_sub_limit_record));
		sdb_sub_limit_hdr_ptr()->current_usage = 0;
		ASSERT_EQ(sdb_ae_table_init(), 0);
		ASSERT_EQ(sdb_rlt_table_init(), 0);
		ASSERT_EQ(sdb_ps_table_init(), 0);
		std::string p = root + "/etc/tolvar";
		tolvar_mkdirs(p.c_str(), 0755);
		platform("");
		unlink((root + "/var/log/events").c_str());
	}
	std::string events() { return slurp("/var/log/events"); }
	int login(const char *name, uint32_t flags = 0)
	{
		int ok = sdb_check_subscribers_limit(name, flags);
		if (ok) {
			EXPECT_EQ(sdb_subscriber_limit_counter_update(name, flags,
			    1, 0, 0, 0), 0);
		}
		return ok;
	}
	void logout(const char *name, uint32_t flags = 0)
	{
		EXPECT_EQ(sdb_subscriber_limit_counter_update(name, flags, 0, 0,
		    0, 0), 0);
	}
	/* In-use records share no key. */
	void expect_unique_keys()
	{
		std::set<uint64_t> seen;
		sdb_sub_limit_record *r = sdb_sub_limit_records();
		for (int i = 0; i < SDB_LIMIT_MAX_RECORDS; i++)
			if (r[i].is_record_in_use == SDB_LIMIT_IN_USE && r[i].key) {
				EXPECT_TRUE(seen.insert(r[i].key).second) << i;
			}
	}
};

TEST_F(limits, key_fields_levels_and_ranges)
{
	uint64_t k = key(PPPOE, 1, 2, 3, 4, 1);
	EXPECT_EQ(k, 3ull | 2 << 8 | 1 << 12 | 1ull << 23 | 1ull << 28 |
	    1ull << 29 | 4ull << 30);
	EXPECT_EQ(sdb_sub_limit_key_level(k), SDB_LEVEL_CHANNEL);
	EXPECT_EQ(sdb_sub_limit_key_level(key(ANY, 1, 2, 3)), SDB_LEVEL_PORT);
	EXPECT_EQ(sdb_sub_limit_key_level(key(ANY, 1, 2, W)), SDB_LEVEL_PIC);
	EXPECT_EQ(sdb_sub_limit_key_level(key(ANY, 1, P, W)), SDB_LEVEL_FPC);
	EXPECT_EQ(sdb_sub_limit_key_level(key(ANY, F, P, W)), SDB_LEVEL_CHASSIS);
	uint64_t out;
	for (auto f : {std::array<uint32_t, 5>{32, 1, 1, 1, 1},
	    {1, 2048, 1, 1, 1}, {1, 1, 16, 1, 1}, {1, 1, 1, 256, 1},
	    {1, 1, 1, 1, 32}})
		EXPECT_EQ(sdb_populate_key_sub_limit_record(f[0], f[1], f[2],
		    f[3], f[4], 0, &out), SDB_ERR_PARAM);
	EXPECT_NE(events().find("LIBSDB_RSMON_INVALID_PARAMETER"),
	    std::string::npos);
	EXPECT_STREQ(sdb_client_type_name(2), "DHCP");
	EXPECT_STREQ(sdb_client_type_name(5), "Invalid");
	EXPECT_EQ(sdb_client_type_from_flags(64), PPPOE);
	EXPECT_EQ(sdb_client_type_from_flags(128), SDB_CLIENT_L2TP);
	EXPECT_EQ(sdb_client_type_from_flags(1), SDB_CLIENT_DHCP);
	EXPECT_EQ(sdb_client_type_from_flags(65), ANY);
}

TEST_F(limits, tenth_login_warns_and_eleventh_is_refused)
{
	uint64_t port = key(ANY, 1, 0, 5);
	ASSERT_EQ(sdb_sub_limit_set(port, 10), 0);
	for (int i = 0; i < 10; i++) {
		ASSERT_EQ(login("ge-1/0/5"), 1) << i;
		EXPECT_EQ(count_of(events(), "LIBSDB_PORT_LEVEL_MAX_SUB_REACHED:"),
		    i == 9 ? 1u : 0u);
	}
	EXPECT_NE(events().find("LIBSDB_PORT_LEVEL_MAX_SUB_REACHED: Subscriber "
	    "limit has reached max(10) for client-type(Any), fpc(1), pic(0), "
	    "port(5)"), std::string::npos);
	EXPECT_EQ(login("ge-1/0/5"), 0);
	EXPECT_EQ(login("ge-1/0/5"), 0);
	sdb_sub_limit_data d = rec(port);
	EXPECT_EQ(d.current_count, 10u);
	EXPECT_EQ(d.denied_count, 2u);
	EXPECT_EQ(d.exceeded_count, 1u);	/* a run of refusals counts once */
	/* The first refusal of a thousand is told. */
	EXPECT_EQ(count_of(events(), "LIBSDB_RSMON_CLIENT_COUNT_EXCEEDED:"), 1u);
	EXPECT_NE(events().find("intf_name=(et/ge-1/0/5)"), std::string::npos);

	logout("ge-1/0/5");
	EXPECT_EQ(login("ge-1/0/5"), 1);
	EXPECT_EQ(rec(port).nominal_count, 1u);
	EXPECT_EQ(login("ge-1/0/5"), 0);
	EXPECT_EQ(rec(port).exceeded_count, 2u);

	/* Other ports, and a limit of 0, are not held back; pp0 is not even
	 * looked at. */
	EXPECT_EQ(login("ge-1/0/6"), 1);
	EXPECT_EQ(rec(key(ANY, 1, 0, 6)).configured_limit, 0u);
	EXPECT_EQ(sdb_check_subscribers_limit("pp0.1073741824", 0), 1);
	EXPECT_EQ(sdb_check_subscribers_limit("", 0), 1);
	/* A name that cannot be parsed is admitted. */
	EXPECT_EQ(sdb_check_subscribers_limit("bogus", 0), 1);
	expect_unique_keys();
}

TEST_F(limits, limits_above_the_port_and_per_client_type)
{
	ASSERT_EQ(sdb_sub_limit_set(key(PPPOE, 2, 1, W), 2), 0);	/* PIC */
	EXPECT_EQ(login("xe-2/1/0:3", 64), 1);
	EXPECT_EQ(login("xe-2/1/7", 64), 1);
	EXPECT_NE(events().find("LIBSDB_PIC_LEVEL_MAX_SUB_REACHED: Subscriber "
	    "limit has reached max(2) for client-type(PPPoE), fpc(2), pic(1)"),
	    std::string::npos);
	EXPECT_EQ(login("xe-2/1/1", 64), 0);
	EXPECT_EQ(login("xe-2/1/1", 1), 1);	/* DHCP has no limit */
	/* The channel counts at its own level, and every level above. */
	EXPECT_EQ(count(key(PPPOE, 2, 1, 0, 3)), 1u);
	EXPECT_EQ(count(key(PPPOE, 2, 1, 0)), 1u);
	EXPECT_EQ(count(key(PPPOE, 2, 1, W)), 2u);
	EXPECT_EQ(count(key(PPPOE, 2, P, W)), 2u);
	EXPECT_EQ(count(key(PPPOE, F, P, W)), 2u);
	EXPECT_EQ(count(key(ANY, 2, 1, W)), 3u);
	EXPECT_EQ(count(key(ANY, F, P, W)), 3u);
	EXPECT_EQ(rec(key(ANY, 2, 1, W)).exceeded_count, 1u);
	logout("xe-2/1/0:3", 64);
	logout("xe-2/1/7", 64);
	logout("xe-2/1/1", 1);
	EXPECT_EQ(count(key(ANY, F, P, W)), 0u);
	/* A limitless port record with no count lets go of its parent. */
	EXPECT_EQ(rec(key(ANY, 2, 1, 1)).parent_offset, SDB_LIMIT_NO_PARENT);
	logout("xe-2/1/1", 1);	/* never below 0 */
	EXPECT_EQ(count(key(ANY, 2, 1, 1)), 0u);
	EXPECT_EQ(login("xe-2/1/1", 1), 1);
	EXPECT_EQ(count(key(ANY, 2, 1, W)), 1u);
	expect_unique_keys();
}

TEST_F(limits, bundles_resolve_to_their_ports)
{
	EXPECT_EQ(sdb_check_subscribers_limit("ae0", 0), 1);	/* no members */
	ASSERT_EQ(sdb_add_ae_num_entry("ae1"), 0);
	ASSERT_EQ(sdb_add_ae_leg_intf_entry("ae1", "ge-3/0/0"), 0);
	ASSERT_EQ(sdb_add_ae_num_entry("ae2"), 0);
	ASSERT_EQ(sdb_add_ae_leg_intf_entry("ae2", "ge-3/0/1"), 0);
	ASSERT_EQ(sdb_add_ae_leg_intf_entry("ae2", "ge-3/0/2"), 0);
	ASSERT_EQ(sdb_add_ae_leg_intf_entry("ae2", "xe-3/1/2:1"), 0);
	EXPECT_EQ(sdb_update_ae_total_leg_num("ae2", 3), 0);
	EXPECT_EQ(sdb_update_ae_total_leg_num("ae2", 5), SDB_ERR_PARAM);
	/* Only the last head grows: its members follow it directly. */
	EXPECT_EQ(sdb_add_ae_leg_intf_entry("ae1", "ge-3/0/3"), SDB_ERR_PARAM);
	uint32_t *t = sdb_ae_table_ptr();
	EXPECT_EQ(t[0], SDB_TABLE_HEAD | 1 | 1 << 9);
	EXPECT_EQ(t[2], SDB_TABLE_HEAD | 2 | 3 << 9);
	EXPECT_EQ(t[4], 2u | 3 << 12 | 31 << 23 | SDB_TABLE_SAME_FPC |
	    SDB_TABLE_SAME_PIC);
	EXPECT_EQ(t[5], 2u | 1 << 8 | 3 << 12 | 1 << 23 | SDB_TABLE_SAME_FPC);
	sdb_ifd_member m[4];
	uint32_t n = 0;
	ASSERT_EQ(sdb_get_ae_ifd_members("ae2", m, 4, &n), 0);
	ASSERT_EQ(n, 3u);
	EXPECT_STREQ(m[0].name, "ge-3/0/1");
	EXPECT_STREQ(m[2].name, "xe-3/1/2:1");
	EXPECT_EQ(m[1].same_pic, 1);
	EXPECT_EQ(sdb_get_ae_ifd_members("ae2", m, 2, &n), SDB_ERR_PARAM);

	/* Both ports count; PIC and FPC once per subscriber. */
	EXPECT_EQ(login("ae2"), 1);
	EXPECT_EQ(count(key(ANY, 3, 0, 1)), 1u);
	EXPECT_EQ(count(key(ANY, 3, 0, 2)), 1u);
	EXPECT_EQ(count(key(ANY, 3, 1, 2, 1)), 1u);
	EXPECT_EQ(count(key(ANY, 3, 0, W)), 1u);
	EXPECT_EQ(count(key(ANY, 3, 1, W)), 1u);
	EXPECT_EQ(count(key(ANY, 3, P, W)), 1u);
	EXPECT_EQ(count(key(ANY, F, P, W)), 1u);
	/* A bundle is refused when one member is full. */
	ASSERT_EQ(sdb_sub_limit_set(key(ANY, 3, 0, 2), 1), 0);
	EXPECT_EQ(sdb_check_subscribers_limit("ae2", 0), 0);
	logout("ae2");
	EXPECT_EQ(count(key(ANY, 3, P, W)), 0u);

	/* ps on an rlt of two lt interfaces, and ps on an lt. */
	ASSERT_EQ(sdb_add_rlt_num_entry("rlt0"), 0);
	ASSERT_EQ(sdb_add_rlt_leg_intf_entry("rlt0", "lt-0/0/0"), 0);
	ASSERT_EQ(sdb_add_rlt_leg_intf_entry("rlt0", "lt-1/0/0"), 0);
	ASSERT_EQ(sdb_add_ps_anchor_intf_entry("ps3", "rlt0"), 0);
	ASSERT_EQ(sdb_add_ps_anchor_intf_entry("ps4", "lt-0/0/0"), 0);
	EXPECT_EQ(sdb_add_ps_anchor_intf_entry("ps5", "ge-0/0/0"), SDB_ERR_PARAM);
	EXPECT_NE(events().find("LIBSDB_RSMON_INVALID_INTERFACE_NAME"),
	    std::string::npos);
	EXPECT_EQ(sdb_ps_table_hdr_ptr()->current_usage, 2);
	platform("max_ps_devices = 4\n");
	EXPECT_EQ(sdb_add_ps_anchor_intf_entry("ps4", "lt-0/0/0"), SDB_ERR_PARAM);
	EXPECT_EQ(login("ps3.0"), 1);
	EXPECT_EQ(login("ps4"), 1);
	uint32_t c = 0;
	EXPECT_EQ(sdb_get_subscriber_current_count("ps3", &c), 0);
	EXPECT_EQ(c, 1u);
	EXPECT_EQ(count(key(ANY, 0, 0, 0, SDB_KEY_CHAN_ANY, 1)), 2u);
	EXPECT_EQ(count(key(ANY, 1, 0, 0, SDB_KEY_CHAN_ANY, 1)), 1u);
	ASSERT_EQ(sdb_sub_limit_set(key(ANY, 1, 0, 0, SDB_KEY_CHAN_ANY, 1), 1),
	    0);
	EXPECT_EQ(sdb_check_subscribers_limit("ps3", 0), 0);
	EXPECT_EQ(sdb_check_subscribers_limit("ps4", 0), 1);
	/* A rebuild keeps ps records that still count. */
	logout("ps4");
	sdb_ps_table_mark_delete_all_nodes();
	sdb_delete_all_marked_ps_table_nodes();
	EXPECT_EQ(sdb_get_ps_interface_table_record(3, nullptr, nullptr), 0);
	EXPECT_EQ(sdb_get_ps_interface_table_record(4, nullptr, nullptr),
	    SDB_ERR_NOT_FOUND);
	/* A ps whose anchor is unknown is admitted. */
	EXPECT_EQ(sdb_check_subscribers_limit("ps9", 0), 1);
}

/* Fork n children that run fn(i); all must exit 0. */
template <typename F> void in_children(int n, F fn)
{
	std::vector<pid_t> kids;
	for (int i = 0; i < n; i++) {
		pid_t p = fork();
		ASSERT_GE(p, 0);
		if (p == 0)
			_exit(fn(i));
		kids.push_back(p);
	}
	for (pid_t p : kids) {
		int st = 0;
		ASSERT_EQ(waitpid(p, &st, 0), p);
		EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st;
	}
}

/* Run fn in one child; its wait status. */
template <typename F> int child_status(F fn)
{
	pid_t p = fork();
	if (p == 0)
		_exit(fn());
	int st = 0;
	waitpid(p, &st, 0);
	return st;
}

bool killed(int st)
{
	return WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL;
}

TEST_F(limits, two_processes_count_exactly_at_every_level)
{
	constexpr int rounds = 3000;
	const char *names[] = {"xe-4/1/2:3", "ge-4/1/3", "ge-4/2/0"};
	in_children(2, [&](int) {
		for (int i = 0; i < rounds; i++) {
			const char *nm = names[i % 3];
			if (sdb_subscriber_limit_counter_update(nm, 64, 1, 0, 0,
			    0) != 0)
				return 1;
			/* Every other one leaves again, so counts touch 0. */
			if (i % 2 == 0 && sdb_subscriber_limit_counter_update(nm,
			    64, 0, 0, 0, 0) != 0)
				return 1;
		}
		return 0;
	});
	/* Each child leaves rounds/2 subscribers, rounds/6 per name. */
	for (uint32_t ct : {PPPOE, ANY}) {
		uint32_t per = 2 * rounds / 6;
		EXPECT_EQ(count(key(ct, 4, 1, 2, 3)), per);
		EXPECT_EQ(count(key(ct, 4, 1, 2)), per);
		EXPECT_EQ(count(key(ct, 4, 1, 3)), per);
		EXPECT_EQ(count(key(ct, 4, 1, W)), 2 * per);
		EXPECT_EQ(count(key(ct, 4, 2, W)), per);
		EXPECT_EQ(count(key(ct, 4, P, W)), 3 * per);
		EXPECT_EQ(count(key(ct, F, P, W)), 3 * per);
	}
	expect_unique_keys();
}

TEST_F(limits, killed_between_levels_is_off_by_that_one_operation)
{
	ASSERT_EQ(login("ge-5/0/0"), 1);
	EXPECT_TRUE(killed(child_status([] {
		/* Passes: 1 before the PIC, 2 before the FPC. */
		tolvar_crash_point_arm("limits.between_levels", 2,
		    TOLVAR_CRASH_KILL);
		sdb_subscriber_limit_counter_update("ge-5/0/0", 0, 1, 0, 0, 0);
		return 0;
	})));
	EXPECT_EQ(count(key(ANY, F, P, W)), 2u);
	EXPECT_EQ(count(key(ANY, 5, 0, 0)), 2u);
	EXPECT_EQ(count(key(ANY, 5, 0, W)), 2u);
	EXPECT_EQ(count(key(ANY, 5, P, W)), 1u);	/* one short */
	/* The operator's correction. */
	ASSERT_EQ(sdb_sub_limit_count_set(key(ANY, 5, P, W), 2), 0);
	logout("ge-5/0/0");
	logout("ge-5/0/0");
	EXPECT_EQ(count(key(ANY, 5, P, W)), 0u);
	EXPECT_EQ(count(key(ANY, F, P, W)), 0u);
}

TEST_F(limits, a_maker_killed_under_the_table_lock_blocks_nobody)
{
	EXPECT_TRUE(killed(child_status([] {
		tolvar_crash_point_arm("limits.claimed", 1, TOLVAR_CRASH_KILL);
		sdb_subscriber_limit_counter_update("ge-6/0/0", 0, 1, 0, 0, 0);
		return 0;
	})));
	/* The kernel gave the lock back; the half-made record is reused. */
	EXPECT_EQ(sdb_limit_table_lock_holder(), 0);
	EXPECT_EQ(login("ge-6/0/0"), 1);
	EXPECT_EQ(count(key(ANY, 6, 0, 0)), 1u);
	EXPECT_EQ(count(key(ANY, F, P, W)), 1u);
	EXPECT_EQ(sdb_sub_limit_records()[0].key, key(ANY, F, P, W));
	expect_unique_keys();
}

TEST_F(limits, full_table_takes_over_idle_ports)
{
	/* Fill every record with idle port records of type Any. */
	for (uint32_t i = 0; i < SDB_LIMIT_MAX_RECORDS; i++) {
		sdb_sub_limit_record &r = sdb_sub_limit_records()[i];
		r.key = key(ANY, 7, i / 256 % 16, i % 256);
		r.is_record_in_use = SDB_LIMIT_IN_USE;
	}
	sdb_sub_limit_hdr_ptr()->current_usage = SDB_LIMIT_MAX_RECORDS;
	ASSERT_EQ(sdb_sub_limit_set(key(ANY, 7, 0, 0), 1), 0);
	EXPECT_EQ(login("ge-8/0/0"), 1);
	EXPECT_NE(events().find("LIBSDB_RSMON_NO_FREE_RECORDS"),
	    std::string::npos);
	EXPECT_EQ(count(key(ANY, 8, 0, 0)), 1u);
	EXPECT_EQ(rec(key(ANY, 7, 0, 0)).configured_limit, 1u);	/* kept */
	expect_unique_keys();
}

TEST_F(limits, defaults_dump_and_sorted_list)
{
	ASSERT_EQ(sdb_sub_limit_set(key(ANY, 1, 0, 1), 5), 0);
	ASSERT_EQ(sdb_sub_limit_set(key(ANY, 1, 0, 2), 5), 0);
	ASSERT_EQ(login("ge-1/0/1"), 1);
	sdb_set_limit_counters_default_values();
	EXPECT_EQ(rec(key(ANY, 1, 0, 1)).configured_limit, 0u);
	EXPECT_EQ(rec(key(ANY, 1, 0, 1)).current_count, 1u);
	EXPECT_EQ(rec(key(ANY, 1, 0, 2)).parent_offset, SDB_LIMIT_NO_PARENT);

	ASSERT_EQ(sdb_rsmon_dump_limit_table(), 0);
	std::string d = slurp("/var/log/def-rsmon-limit-table0.log");
	EXPECT_EQ(d.rfind("Header:\n Max_records=2560, current_usage=5 \n\n", 0),
	    0u) << d;
	EXPECT_NE(d.find("0 entry : \n    key = " +
	    std::to_string(key(ANY, F, P, W)) + " (chassis=1, lt-intf=0, "
	    "client-type=Any, fpc=2047, pic=15, port=255, chan=31)\n"
	    "    configured_limit=0 \n    current_count=1 \n"), std::string::npos);

	sdb_sub_limit_list *list = nullptr;
	ASSERT_EQ(sdb_populate_sorted_sub_limit_list(&list), 0);
	std::vector<uint64_t> keys;
	for (auto *l = list; l != nullptr; l = l->next)
		keys.push_back(l->rec.key);
	sdb_free_sub_limit_list(list);
	EXPECT_EQ(keys, (std::vector<uint64_t>{key(ANY, F, P, W),
	    key(ANY, 1, 0, 1), key(ANY, 1, 0, 2), key(ANY, 1, 0, W),
	    key(ANY, 1, P, W)}));
}

/* Line card admission. */
class fpc : public limits {
protected:
	void SetUp() override
	{
		limits::SetUp();
		sdb_fpc_entry *t = sdb_fpc_table();
		memset(t, 0, SDB_FPC_SLOTS * sizeof(*t));
		sdb_fpc_table_init_if_new();
		memset(sdb_fpc_counters_ptr(), 0, sizeof(sdb_fpc_counters));
	}
};

TEST_F(fpc, invalid_card_and_throttle)
{
	uint32_t reason = 0;
	EXPECT_EQ(sdb_fpc_login_check(256, nullptr, 0, &reason), 0);
	EXPECT_NE(events().find("LIBSDB_FPC_INVALID_LOGIN_REQUEST: Login request "
	    "received from invalid line card 256"), std::string::npos);
	EXPECT_EQ(sdb_fpc_service_check(300, &reason), 0);
	EXPECT_EQ(*sdb_fpc_throttle(), 0);
	EXPECT_EQ(sdb_fpc_login_check(3, nullptr, 0, &reason), 1);

	ASSERT_EQ(sdb_fpc_field_set(3, "login_ok", 0), 0);
	ASSERT_EQ(sdb_fpc_field_set(4, "fpc_level", 7), 0);
	EXPECT_EQ(*sdb_fpc_throttle(), 1);
	EXPECT_EQ(sdb_fpc_login_check(3, nullptr, 0, &reason), 0);
	EXPECT_EQ(reason, (uint32_t)SDB_FPC_REASON_CARD);
	EXPECT_EQ(sdb_fpc_service_check(3, &reason), 1);
	ASSERT_EQ(sdb_fpc_field_set(3, "refuse_reason", 9), 0);
	EXPECT_EQ(sdb_fpc_login_check(3, nullptr, 0, &reason), 0);
	EXPECT_EQ(reason, 9u);
	EXPECT_EQ(sdb_fpc_table()[3].logins_refused, 2u);
	EXPECT_EQ(sdb_fpc_login_check(5, nullptr, 0, &reason), 1);
	/* Back to normal: the throttle clears only with every card normal. */
	ASSERT_EQ(sdb_fpc_field_set(3, "login_ok", 1), 0);
	EXPECT_EQ(*sdb_fpc_throttle(), 1);
	ASSERT_EQ(sdb_fpc_field_set(4, "fpc_level", 10), 0);
	EXPECT_EQ(*sdb_fpc_throttle(), 0);
	EXPECT_EQ(sdb_fpc_field_set(4, "no_such_field", 1), SDB_ERR_PARAM);
}

TEST_F(fpc, memory_test_runs_once_per_thousand_requests)
{
	in_children(1, [](int) {
		platform("free_memory_bytes = 1000\n");
		uint32_t reason = 0;
		sdb_mem_test_state st;
		sdb_mem_test_state_get(&st);
		/* This process may have asked before: the test comes on the
		 * 1000th request after the last one. */
		uint64_t before = 999 - (st.requests - st.requests_at_test);
		for (uint64_t i = 0; i < before; i++)
			if (sdb_fpc_login_check(1, nullptr, 0, &reason) != 1)
				return 1;
		sdb_mem_test_state_get(&st);
		if (st.tests != 0)
			return 2;
		if (sdb_fpc_login_check(1, nullptr, 0, &reason) != 0 ||
		    reason != SDB_FPC_REASON_HEAP)
			return 3;
		platform("");
		for (int i = 0; i < 999; i++)
			if (sdb_fpc_login_check(1, nullptr, 0, &reason) != 0)
				return 4;
		sdb_mem_test_state_get(&st);
		if (st.tests != 1 || sdb_fpc_counters_ptr()->logins_refused_heap
		    != 1000 || sdb_fpc_table()[1].logins_refused != 1000)
			return 5;
		return 0;
	});
	/* The shared memory test leaves no file. */
	EXPECT_NE(access((root + "/mfs/var/sdb/shmem").c_str(), F_OK), -1);
	EXPECT_EQ(access((root + "/mfs/var/sdb/shmem/check_free_shared").c_str(),
	    F_OK), -1);
}

TEST_F(fpc, full_scheduler_refuses_its_port)
{
	uint32_t reason = 0;
	ASSERT_EQ(sdb_fpc_field_set(2, "sched_update_wanted", 1), 0);
	EXPECT_EQ(sdb_fpc_login_check(2, "ge-2/0/4", 1, &reason), 1);
	sdb_sub_limit_data d = rec(key(ANY, 2, 0, 4));
	ASSERT_EQ(d.is_record_in_use, SDB_LIMIT_IN_USE);
	sdb_sub_limit_record *r;
	uint32_t idx;
	ASSERT_EQ(sdb_sub_limit_find_record(key(ANY, 2, 0, 4), &idx), 0);
	ASSERT_EQ(sdb_sub_limit_get_record_by_index(&r, idx), 0);
	EXPECT_EQ(r->used_for_sched_map, SDB_LIMIT_SCHED_MAP);
	EXPECT_EQ(r->pfe_num, 1);
	EXPECT_STREQ(r->intf_name, "ge-2/0/4");

	ASSERT_EQ(sdb_sched_allowed_update(2, 1, 0, 0), 0);
	EXPECT_EQ(sdb_check_subscribers_limit("ge-2/0/4", 0), 0);
	EXPECT_NE(events().find("LIBSDB_COS_QUEUE_USAGE_EXCEEDED: "
	    "sdb_check_cos_queue_usage failed, intf_name=ge-2/0/4"),
	    std::string::npos);
	EXPECT_EQ(sdb_fpc_table()[2].logins_refused, 1u);
	EXPECT_EQ(sdb_check_subscribers_limit("ge-2/0/5", 0), 1);
	EXPECT_EQ(sdb_check_cos_queue_usage(nullptr), 250);

	sdb_sched_map_mark_all();
	sdb_sched_map_clear_marked();
	EXPECT_EQ(r->used_for_sched_map, 0);
	EXPECT_EQ(r->client_allowed, 1);
	EXPECT_EQ(sdb_check_subscribers_limit("ge-2/0/4", 0), 1);
}

} // namespace

testing::Environment *const env =
    testing::AddGlobalTestEnvironment(new environment);
