/*
 * The ordered key tree against std::map under a random workload:
 * variable-length keys in byte order (a prefix before the longer keys it
 * starts), duplicate keys refused without damage; and keys reached through
 * a pointer.
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
 * again) against std::map, with the walk compared after every step.  Keys
 * of one to four bytes out of three, so that most are prefixes of others;
 * one byte is 0xff, which must sort last (bytes compare unsigned, as in
 * std::string).
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
			k.push_back("ab\xff"[rng() % 3]);
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
		/* get takes the exact length; find_ge, the first key not below. */
		uint16_t len = static_cast<uint16_t>(k.size());
		found = model.find(k);
		ASSERT_EQ(patricia_get(&root, len, k.data()),
		          found == model.end() ? nullptr : &found->second->node);
		auto ge = model.lower_bound(k);
		ASSERT_EQ(patricia_find_ge(&root, len, k.data()),
		          ge == model.end() ? nullptr : &ge->second->node);
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
