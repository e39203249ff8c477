/*
 * The timer tree under random operations, against a plain model: which
 * leaves run and when they expire.  After every step the tree must keep its
 * invariants, and every node must run exactly when some leaf below it runs,
 * with the expiry of the earliest of them.
 */
#include <gtest/gtest.h>

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

/* Inner nodes: 0 the root; 1, 2 under the root; 3 under 1; 4 under 3. */
constexpr int inner_parent[] = {-1, 0, 0, 1, 3};
constexpr int n_inner = 5;

bool
below(int node, int ancestor)
{
	for (; node >= 0; node = inner_parent[node])
		if (node == ancestor)
			return true;
	return false;
}

TEST(HTimer, RandomOperationsKeepTheTreeInOrder)
{
	for (unsigned seed : {1u, 2u, 3u, 4u}) {
		SCOPED_TRACE(seed);
		std::mt19937 rng(seed);
		htimer_t inner[n_inner] = {};
		std::vector<htimer_t> leaves(40);
		std::vector<int> parent(40);		/* the model */
		std::vector<bool> running(40, false);
		std::vector<struct timespec> expiry(40);
		for (int n = 0; n < n_inner; n++)
			ASSERT_EQ(htimer_init_node(&inner[n], n == 0 ? nullptr
			                           : &inner[inner_parent[n]]), 0);
		for (size_t i = 0; i < leaves.size(); i++) {
			parent[i] = static_cast<int>(i % n_inner);
			ASSERT_EQ(htimer_init_leaf(&leaves[i], &inner[parent[i]]), 0);
		}
		for (int step = 0; step < 3000; step++) {
			size_t i = rng() % leaves.size();
			int op = static_cast<int>(rng() % 8);
			if (op < 4) {
				/* Few distinct times, so that ties are common. */
				expiry[i] = ts(100 + rng() % 20, (rng() % 2) * 500);
				htimer_set_expiry(&leaves[i], expiry[i]);
				running[i] = true;
			} else if (op < 6) {
				htimer_stop(&leaves[i]);
				running[i] = false;
			} else if (op == 6) {
				parent[i] = static_cast<int>(rng() % n_inner);
				htimer_set_parent(&leaves[i], &inner[parent[i]]);
			} else if (rng() % 10 == 0) {
				int n = 1 + static_cast<int>(rng() % (n_inner - 1));
				htimer_stop(&inner[n]);
				for (size_t k = 0; k < leaves.size(); k++)
					if (below(parent[k], n))
						running[k] = false;
			}

			ASSERT_EQ(htimer_verify(&inner[0]), 0) << step;
			for (size_t k = 0; k < leaves.size(); k++) {
				ASSERT_EQ(htimer_running(&leaves[k]), running[k]) << step;
				ASSERT_TRUE(!running[k] ||
				            __evCmpTime(leaves[k].ht_expiry, expiry[k]) == 0);
			}
			for (int n = 0; n < n_inner; n++) {
				const struct timespec *earliest = nullptr;
				for (size_t k = 0; k < leaves.size(); k++)
					if (running[k] && below(parent[k], n) &&
					    (earliest == nullptr ||
					     __evCmpTime(expiry[k], *earliest) < 0))
						earliest = &expiry[k];
				ASSERT_EQ(htimer_running(&inner[n]), earliest != nullptr) << n;
				ASSERT_TRUE(earliest == nullptr ||
				            __evCmpTime(inner[n].ht_expiry, *earliest) == 0) << n;
			}
		}
	}
}

TEST(HTimer, RunningTimerKeepsItsPlaceUntilStoppedOrDetached)
{
	htimer_t root{}, a{};
	ASSERT_EQ(htimer_init_node(&root, nullptr), 0);
	ASSERT_EQ(htimer_init_leaf(&a, &root), 0);
	htimer_set_expiry(&a, ts(3));
	/* Initialising it again would orphan its siblings' links. */
	EXPECT_EQ(htimer_init_leaf(&a, &root), -1);
	EXPECT_TRUE(htimer_running(&a));
	EXPECT_EQ(htimer_verify(&root), 0);
	/* Detached, it runs on alone and its old parent stops. */
	htimer_remove_parent(&a);
	EXPECT_FALSE(htimer_running(&root));
	EXPECT_TRUE(htimer_running(&a));
	EXPECT_EQ(a.ht_parent, nullptr);
	htimer_stop(&a);
	EXPECT_EQ(htimer_init_leaf(&a, &root), 0);
}

} // namespace
