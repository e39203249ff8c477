/*
 * The timer tree under random operations, against a plain model: which
 * leaves run and when they expire.  After every step the tree must keep its
 * invariants, and every node must run exactly when some leaf below it runs,
 * with the expiry of the earliest of them.
 */
#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <random>
#include <vector>

#include <platform/ev.h>

#include "htimer.h"

namespace {

struct timespec
ts(time_t sec, long nsec = 0)
{
	return __evConsTime(sec, nsec);
}

struct tree {
	/* 0 root; 1, 2 under the root; 3 under 1; 4 under 3. */
	std::array<htimer_t, 5> inner{};
	std::array<int, 5> inner_parent{{-1, 0, 0, 1, 3}};
	std::vector<htimer_t> leaves;
	std::vector<int> leaf_parent;

	explicit tree(size_t n) : leaves(n), leaf_parent(n)
	{
		for (size_t i = 0; i < inner.size(); i++)
			EXPECT_EQ(htimer_init_node(&inner[i], inner_parent[i] < 0 ? nullptr
			                           : &inner[inner_parent[i]]), 0);
		for (size_t i = 0; i < n; i++) {
			leaf_parent[i] = static_cast<int>(i % inner.size());
			EXPECT_EQ(htimer_init_leaf(&leaves[i], &inner[leaf_parent[i]]), 0);
		}
	}

	bool below(int node, int ancestor) const
	{
		for (; node >= 0; node = inner_parent[node])
			if (node == ancestor)
				return true;
		return false;
	}

	/* The earliest running leaf below inner node n, if any. */
	std::optional<struct timespec> earliest(int n) const
	{
		std::optional<struct timespec> best;
		for (size_t i = 0; i < leaves.size(); i++) {
			if (!htimer_running(&leaves[i]) || !below(leaf_parent[i], n))
				continue;
			if (!best || __evCmpTime(leaves[i].ht_expiry, *best) < 0)
				best = leaves[i].ht_expiry;
		}
		return best;
	}

	void check(const std::vector<bool> &model_running,
	           const std::vector<struct timespec> &model_expiry) const
	{
		ASSERT_EQ(htimer_verify(&inner[0]), 0);
		for (size_t i = 0; i < leaves.size(); i++) {
			ASSERT_EQ(htimer_running(&leaves[i]), model_running[i]) << "leaf " << i;
			if (model_running[i]) {
				ASSERT_EQ(__evCmpTime(leaves[i].ht_expiry, model_expiry[i]), 0);
			}
		}
		for (size_t n = 0; n < inner.size(); n++) {
			auto e = earliest(static_cast<int>(n));
			ASSERT_EQ(htimer_running(&inner[n]), e.has_value()) << "node " << n;
			if (e) {
				ASSERT_EQ(__evCmpTime(inner[n].ht_expiry, *e), 0) << "node " << n;
			}
		}
		htimer_t *first = htimer_earliest_leaf(const_cast<htimer_t *>(&inner[0]));
		auto e = earliest(0);
		ASSERT_EQ(first != nullptr, e.has_value());
		if (first != nullptr) {
			ASSERT_EQ(__evCmpTime(first->ht_expiry, *e), 0);
		}
	}
};

TEST(HTimer, RandomOperationsKeepTheTreeInOrder)
{
	for (unsigned seed : {1u, 2u, 3u, 4u}) {
		SCOPED_TRACE(seed);
		std::mt19937 rng(seed);
		tree t(40);
		std::vector<bool> running(40, false);
		std::vector<struct timespec> expiry(40);
		for (int step = 0; step < 3000; step++) {
			size_t i = rng() % t.leaves.size();
			switch (rng() % 8) {
			case 0:
			case 1:
			case 2:
			case 3: {
				/* Few distinct times, so that ties are common. */
				struct timespec when = ts(100 + rng() % 20, (rng() % 2) * 500);
				htimer_set_expiry(&t.leaves[i], when);
				running[i] = true;
				expiry[i] = when;
				break;
			}
			case 4:
			case 5:
				htimer_stop(&t.leaves[i]);
				running[i] = false;
				break;
			case 6: {
				int p = static_cast<int>(rng() % t.inner.size());
				htimer_set_parent(&t.leaves[i], &t.inner[p]);
				t.leaf_parent[i] = p;
				break;
			}
			case 7: {
				if (rng() % 10 != 0)
					break;
				int n = 1 + static_cast<int>(rng() % (t.inner.size() - 1));
				htimer_stop(&t.inner[n]);
				for (size_t k = 0; k < t.leaves.size(); k++)
					if (t.below(t.leaf_parent[k], n))
						running[k] = false;
				break;
			}
			}
			t.check(running, expiry);
			if (::testing::Test::HasFatalFailure())
				return;
		}
	}
}

TEST(HTimer, EqualExpiriesKeepInsertionOrder)
{
	htimer_t root{}, a{}, b{}, c{};
	ASSERT_EQ(htimer_init_node(&root, nullptr), 0);
	for (htimer_t *x : {&a, &b, &c})
		ASSERT_EQ(htimer_init_leaf(x, &root), 0);
	htimer_set_expiry(&b, ts(5));
	htimer_set_expiry(&c, ts(5));
	htimer_set_expiry(&a, ts(9));
	htimer_set_expiry(&a, ts(5));	/* moves: goes behind b and c */
	EXPECT_EQ(htimer_next_child(&root, nullptr), &b);
	EXPECT_EQ(htimer_next_child(&root, &b), &c);
	EXPECT_EQ(htimer_next_child(&root, &c), &a);
	EXPECT_EQ(htimer_next_child(&root, &a), nullptr);
	htimer_stop(&root);
	EXPECT_FALSE(htimer_running(&a));
	EXPECT_EQ(root.ht_first, nullptr);
}

TEST(HTimer, RestartCountsFromTheLastExpiry)
{
	struct timespec now = ts(500);
	ev_clock_set(&now);
	htimer_t root{}, a{};
	ASSERT_EQ(htimer_init_node(&root, nullptr), 0);
	ASSERT_EQ(htimer_init_leaf(&a, &root), 0);
	htimer_start(&a, ts(2, 250000000), 0);
	EXPECT_EQ(__evCmpTime(a.ht_expiry, ts(502, 250000000)), 0);
	ev_clock_advance(ts(7));
	htimer_restart(&a, ts(2, 250000000), 0);
	EXPECT_EQ(__evCmpTime(a.ht_expiry, ts(504, 500000000)), 0);
	EXPECT_EQ(__evCmpTime(root.ht_expiry, a.ht_expiry), 0);
	htimer_remove_parent(&a);
	EXPECT_FALSE(htimer_running(&root));
	EXPECT_TRUE(htimer_running(&a));
	EXPECT_EQ(a.ht_parent, nullptr);
	ev_clock_set(nullptr);
}

TEST(HTimer, InitialisingARunningTimerIsRefused)
{
	htimer_t root{}, a{};
	ASSERT_EQ(htimer_init_node(&root, nullptr), 0);
	ASSERT_EQ(htimer_init_leaf(&a, &root), 0);
	htimer_set_expiry(&a, ts(3));
	EXPECT_EQ(htimer_init_leaf(&a, &root), -1);
	EXPECT_TRUE(htimer_running(&a));
	EXPECT_EQ(htimer_verify(&root), 0);
	htimer_stop(&a);
	EXPECT_EQ(htimer_init_leaf(&a, &root), 0);
}

} // namespace
