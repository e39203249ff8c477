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
	/* Bytes compare unsigned: 0xff comes last. */
	EXPECT_EQ(walk(&root), (std::vector<std::string>{"a", "aa", "ab", "abc", "abd",
	                                                  "b", "ba", "\xff"}));

	/* get needs the exact length: "ab" is not "abc". */
	patnode *n = patricia_get(&root, 2, "abc");
	ASSERT_NE(n, nullptr);
	EXPECT_EQ(key_of(&root, n), "ab");
	EXPECT_EQ(patricia_get(&root, 4, "abcd"), nullptr);

	/* find_ge: the first key not below. */
	n = patricia_find_ge(&root, 3, "abz");
	ASSERT_NE(n, nullptr);
	EXPECT_EQ(key_of(&root, n), "b");
	EXPECT_EQ(patricia_find_ge(&root, 2, "\xff\x01"), nullptr);
	for (auto &it : items)
		ASSERT_EQ(patricia_delete(&root, &it->node), 1);
	patricia_root_delete(&root);
}

TEST(Patricia, KeysReachedThroughAPointer)
{
	struct ref {
		patnode node;
		const char *key;
	} a{{}, "bcd"}, b{{}, "abc"};
	patroot root;
	patricia_root_init(&root, 1, 3, offsetof(ref, key));
	for (ref *r : {&a, &b}) {
		patricia_node_init_length(&r->node, 0);	/* the default, 3 */
		ASSERT_EQ(patricia_add(&root, &r->node), 1);
	}
	EXPECT_EQ(patricia_find_next(&root, nullptr), &b.node);
	EXPECT_EQ(patricia_lookup(&root, "bcd"), &a.node);
	patricia_delete(&root, &a.node);
	patricia_delete(&root, &b.node);
	patricia_root_delete(&root);
}

/*
 * Adds (of new nodes, and of nodes already in), deletes (and deletes
 * again) against std::map, with the walk compared after every step.
 */
TEST(Patricia, RandomWorkloadMatchesAnOrderedMap)
{
	std::mt19937 rng(20261122);
	patroot root;
	patricia_root_init(&root, 0, 1, key_offset);
	std::vector<std::unique_ptr<item>> pool;
	std::map<std::string, item *> model;
	std::vector<std::string> want;
	for (int step = 0; step < 5000; step++) {
		SCOPED_TRACE(step);
		std::string k;
		for (size_t len = 1 + rng() % 4; k.size() < len;)
			k.push_back(static_cast<char>('a' + rng() % 3));
		auto found = model.find(k);
		bool present = found != model.end();
		int op = static_cast<int>(rng() % 4);
		if (op < 2) {
			/* A new node: refused while the key is there. */
			pool.push_back(make_item(k));
			ASSERT_EQ(patricia_add(&root, &pool.back()->node), present ? 0 : 1);
			if (!present)
				model[k] = pool.back().get();
		} else if (present && op == 2) {
			/* The same node again must not lose what hangs below it. */
			ASSERT_EQ(patricia_add(&root, &found->second->node), 0);
		} else if (present) {
			ASSERT_EQ(patricia_delete(&root, &found->second->node), 1);
			ASSERT_EQ(patricia_delete(&root, &found->second->node), 0);
			model.erase(found);
		}
		patnode *n = patricia_get(&root, static_cast<uint16_t>(k.size()), k.data());
		found = model.find(k);
		ASSERT_EQ(n, found == model.end() ? nullptr : &found->second->node);
		want.clear();
		for (auto &e : model)
			want.push_back(e.first);
		ASSERT_EQ(walk(&root), want);
		ASSERT_EQ(patricia_count(&root), model.size());
	}
	for (auto &e : model)
		patricia_delete(&root, &e.second->node);
	patricia_root_delete(&root);
}

} // namespace
