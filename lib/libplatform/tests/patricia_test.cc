/*
 * The ordered key tree: variable-length keys in byte order (a prefix before
 * the longer keys it starts), duplicate keys refused, and a random workload
 * against std::map.
 */
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <platform/patricia.h>

namespace {

struct item {
	patnode node;
	uint8_t key[16];
};

constexpr uint8_t key_offset = offsetof(item, key);

std::unique_ptr<item>
make_item(const std::string &key)
{
	auto it = std::make_unique<item>();
	std::memcpy(it->key, key.data(), key.size());
	patricia_node_init_length(&it->node, static_cast<uint16_t>(key.size()));
	return it;
}

std::string
key_of(const patroot *root, const patnode *n)
{
	uint16_t len = n->length ? n->length : root->key_bytes;
	return std::string(reinterpret_cast<const char *>(patricia_key(root, n)), len);
}

std::vector<std::string>
walk(patroot *root)
{
	std::vector<std::string> keys;
	for (patnode *n = patricia_find_next(root, nullptr); n != nullptr;
	     n = patricia_find_next(root, n))
		keys.push_back(key_of(root, n));
	return keys;
}

TEST(Patricia, VariableLengthKeysComeInByteOrder)
{
	patroot root;
	ASSERT_EQ(patricia_root_init(&root, 0, 4, key_offset), &root);
	std::vector<std::unique_ptr<item>> items;
	for (const char *k : {"b", "abc", "a", "ab", "abd", "\xff", "ba", "aa"}) {
		items.push_back(make_item(k));
		ASSERT_EQ(patricia_add(&root, &items.back()->node), 1) << k;
	}
	EXPECT_EQ(patricia_count(&root), 8u);
	EXPECT_EQ(walk(&root), (std::vector<std::string>{"a", "aa", "ab", "abc", "abd",
	                                                  "b", "ba", "\xff"}));

	/* get needs the exact length: "ab" is not "abc". */
	patnode *n = patricia_get(&root, 2, "abc");
	ASSERT_NE(n, nullptr);
	EXPECT_EQ(key_of(&root, n), "ab");
	EXPECT_EQ(patricia_get(&root, 2, "ac"), nullptr);
	EXPECT_EQ(patricia_get(&root, 4, "abcd"), nullptr);

	/* find_ge: the first key not below. */
	n = patricia_find_ge(&root, 3, "abz");
	ASSERT_NE(n, nullptr);
	EXPECT_EQ(key_of(&root, n), "b");
	EXPECT_EQ(patricia_find_ge(&root, 2, "\xff\x01"), nullptr);

	/* Delete from the middle; the walk closes up. */
	ASSERT_EQ(patricia_delete(&root, &items[1]->node), 1);	/* "abc" */
	EXPECT_EQ(patricia_delete(&root, &items[1]->node), 0);
	EXPECT_EQ(patricia_get(&root, 3, "abc"), nullptr);
	EXPECT_EQ(walk(&root), (std::vector<std::string>{"a", "aa", "ab", "abd", "b",
	                                                  "ba", "\xff"}));
	for (auto &it : items)
		patricia_delete(&root, &it->node);
	EXPECT_EQ(patricia_count(&root), 0u);
	patricia_root_delete(&root);
}

TEST(Patricia, DuplicateKeysAreRefusedAndTheTreeStaysWhole)
{
	patroot *root = patricia_root_init(nullptr, 0, 4, key_offset);
	ASSERT_NE(root, nullptr);
	std::vector<std::unique_ptr<item>> items;
	for (int i = 0; i < 64; i++) {
		char k[5];
		std::snprintf(k, sizeof(k), "%04d", i * 7 % 64);
		items.push_back(make_item(k));
		patricia_node_init_length(&items.back()->node, 0);	/* default 4 */
		ASSERT_EQ(patricia_add(root, &items.back()->node), 1);
	}
	auto before = walk(root);

	/* Another node with a present key. */
	auto dup = make_item("0007");
	patricia_node_init_length(&dup->node, 0);
	EXPECT_EQ(patricia_add(root, &dup->node), 0);
	/* The same node added twice must not lose what hangs below it. */
	for (auto &it : items)
		EXPECT_EQ(patricia_add(root, &it->node), 0);
	EXPECT_EQ(walk(root), before);
	EXPECT_EQ(patricia_count(root), 64u);

	patnode *n = patricia_lookup(root, "0042");
	ASSERT_NE(n, nullptr);
	EXPECT_EQ(key_of(root, n), "0042");
	EXPECT_EQ(patricia_lookup(root, "0064"), nullptr);

	for (auto &it : items)
		ASSERT_EQ(patricia_delete(root, &it->node), 1);
	patricia_root_delete(root);	/* frees the root it allocated */
}

TEST(Patricia, KeysReachedThroughAPointer)
{
	struct ref {
		patnode node;
		const char *key;
	};
	patroot root;
	patricia_root_init(&root, 1, 3, offsetof(ref, key));
	ref a{{}, "bcd"}, b{{}, "abc"};
	patricia_node_init_length(&a.node, 0);
	patricia_node_init_length(&b.node, 0);
	ASSERT_EQ(patricia_add(&root, &a.node), 1);
	ASSERT_EQ(patricia_add(&root, &b.node), 1);
	EXPECT_EQ(patricia_find_next(&root, nullptr), &b.node);
	EXPECT_EQ(patricia_find_next(&root, &b.node), &a.node);
	EXPECT_EQ(patricia_lookup(&root, "bcd"), &a.node);
	patricia_delete(&root, &a.node);
	patricia_delete(&root, &b.node);
	patricia_root_delete(&root);
}

TEST(Patricia, RandomWorkloadMatchesAnOrderedMap)
{
	std::mt19937 rng(20261122);
	patroot root;
	patricia_root_init(&root, 0, 1, key_offset);
	std::vector<std::unique_ptr<item>> pool;
	std::map<std::string, item *> model;
	for (int step = 0; step < 5000; step++) {
		std::string k;
		size_t len = 1 + rng() % 4;
		for (size_t i = 0; i < len; i++)
			k.push_back(static_cast<char>('a' + rng() % 3));
		auto found = model.find(k);
		if (rng() % 3 != 0) {
			auto it = make_item(k);
			int added = patricia_add(&root, &it->node);
			ASSERT_EQ(added, found == model.end() ? 1 : 0) << k;
			if (added) {
				model[k] = it.get();
				pool.push_back(std::move(it));
			}
		} else if (found != model.end()) {
			ASSERT_EQ(patricia_delete(&root, &found->second->node), 1);
			model.erase(found);
		}
		patnode *n = patricia_get(&root, static_cast<uint16_t>(k.size()), k.data());
		auto m = model.find(k);
		ASSERT_EQ(n, m == model.end() ? nullptr : &m->second->node);
		if (step % 500 == 0) {
			std::vector<std::string> want;
			for (auto &e : model)
				want.push_back(e.first);
			ASSERT_EQ(walk(&root), want);
			ASSERT_EQ(patricia_count(&root), model.size());
		}
	}
	for (auto &e : model)
		patricia_delete(&root, &e.second->node);
	patricia_root_delete(&root);
}

} // namespace
