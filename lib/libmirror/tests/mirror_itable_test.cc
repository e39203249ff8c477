/*
 * The acknowledgement handle table: the order in which handles are handed
 * out, reuse once entries are removed, and lookups of handles never given.
 */
#include "mirror_itable.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <algorithm>
#include <iterator>
#include <set>

using mirror::itable16;
using mirror::itable32;

namespace {

void *
tag(uintptr_t v)
{
	return reinterpret_cast<void *>(v + 1);
}

} // namespace

TEST(MirrorItable, HandlesRiseFromZeroAndRestartWhenEmpty)
{
	itable32 t;
	uint32_t h;
	for (uint32_t i = 0; i < 5; i++) {
		ASSERT_EQ(t.alloc(tag(i), &h), 0);
		EXPECT_EQ(h, i);
	}
	EXPECT_EQ(t.get(3), tag(3));
	EXPECT_EQ(t.get(5), nullptr);
	EXPECT_EQ(t.get(0xDEAD0000), nullptr);
	/* A hole below the mark is not reused while the mark can rise. */
	EXPECT_EQ(t.remove(1), tag(1));
	ASSERT_EQ(t.alloc(tag(9), &h), 0);
	EXPECT_EQ(h, 5u);
	/* Removing the highest moves the mark down past the hole. */
	EXPECT_EQ(t.remove(5), tag(9));
	EXPECT_EQ(t.remove(4), tag(4));
	ASSERT_EQ(t.alloc(tag(4), &h), 0);
	EXPECT_EQ(h, 4u);
	for (uint32_t i : {0u, 2u, 3u, 4u})
		EXPECT_NE(t.remove(i), nullptr);
	EXPECT_EQ(t.count(), 0u);
	EXPECT_EQ(t.remove(2), nullptr);	/* twice: nothing */
	ASSERT_EQ(t.alloc(tag(0), &h), 0);
	EXPECT_EQ(h, 0u);
}

TEST(MirrorItable, LowerTableMarkAndScan)
{
	itable16 t;
	uint32_t i;
	/* The mark skips empty blocks on its way down. */
	ASSERT_TRUE(t.put(7, tag(7)));
	ASSERT_TRUE(t.put(40000, tag(40000)));
	EXPECT_EQ(t.mark(), 40001u);
	EXPECT_EQ(t.remove(40000), tag(40000));
	EXPECT_EQ(t.mark(), 8u);
	EXPECT_FALSE(t.put(7, tag(1)));		/* taken */
	EXPECT_FALSE(t.put(0x10000, tag(1)));	/* out of range */
	/* With the mark at the top, the lowest free slots come next. */
	ASSERT_TRUE(t.put(0xFFFF, tag(0)));
	ASSERT_TRUE(t.put(3, tag(0)));
	for (uint32_t want : {0u, 1u, 2u, 4u}) {
		ASSERT_TRUE(t.alloc(tag(1), &i));
		EXPECT_EQ(i, want);
	}
	EXPECT_EQ(t.count(), 7u);
}

TEST(MirrorItable, FullLowerTableScansThenMovesUp)
{
	itable32 t;
	uint32_t h;
	for (uint32_t i = 0; i < 0x10000; i++) {
		ASSERT_EQ(t.alloc(tag(i), &h), 0);
		ASSERT_EQ(h, i);
	}
	/* The lower table is full: the next upper index takes over. */
	ASSERT_EQ(t.alloc(tag(0x10000), &h), 0);
	EXPECT_EQ(h, 0x10000u);
	/* Holes in the first table do not pull the cursor back. */
	EXPECT_EQ(t.remove(100), tag(100));
	EXPECT_EQ(t.remove(5000), tag(5000));
	ASSERT_EQ(t.alloc(tag(1), &h), 0);
	EXPECT_EQ(h, 0x10001u);
	/* The second table empties and goes; its index starts from 0 again. */
	EXPECT_NE(t.remove(0x10000), nullptr);
	EXPECT_NE(t.remove(0x10001), nullptr);
	EXPECT_EQ(t.get(0x10000), nullptr);
	ASSERT_EQ(t.alloc(tag(1), &h), 0);
	EXPECT_EQ(h, 0x10000u);
	EXPECT_EQ(t.count(), 0x10000u - 2 + 1);
	EXPECT_EQ(t.get(99), tag(99));
	EXPECT_EQ(t.get(100), nullptr);
}

TEST(MirrorItable, RandomWorkloadAgreesWithAModel)
{
	itable32 t;
	std::set<uint32_t> live;
	uint32_t seed = 12345;
	auto rnd = [&seed] {
		seed = seed * 1103515245 + 12345;
		return seed >> 8;
	};
	for (int step = 0; step < 200000; step++) {
		if (live.empty() || rnd() % 3 != 0) {
			uint32_t h;
			ASSERT_EQ(t.alloc(tag(step), &h), 0);
			ASSERT_TRUE(live.insert(h).second) << "handle " << h << " given twice";
		} else {
			auto it = live.begin();
			std::advance(it, rnd() % std::min<size_t>(live.size(), 16));
			ASSERT_NE(t.remove(*it), nullptr);
			live.erase(it);
		}
		ASSERT_EQ(t.count(), live.size());
	}
	for (uint32_t h : live)
		ASSERT_NE(t.remove(h), nullptr);
	uint32_t h;
	ASSERT_EQ(t.alloc(tag(0), &h), 0);
	EXPECT_EQ(h, 0u);
}
