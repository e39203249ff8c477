#include "platform/patricia.h"

#include <cassert>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_set>

namespace {

struct key_view {
	const uint8_t *bytes;
	uint16_t len;
};

key_view node_key(const patroot *root, const patnode *node)
{
	const uint8_t *field = reinterpret_cast<const uint8_t *>(node) + root->key_offset;
	const uint8_t *bytes = field;
	if (root->is_ptr)
		std::memcpy(&bytes, field, sizeof(bytes));
	uint16_t len = node->length ? node->length : root->key_bytes;
	return {bytes, len};
}

int compare(key_view a, key_view b)
{
	uint16_t n = a.len < b.len ? a.len : b.len;
	int c = n ? std::memcmp(a.bytes, b.bytes, n) : 0;
	if (c != 0)
		return c;
	return (a.len > b.len) - (a.len < b.len);
}

/* Heap priority from the node's address: stable and allocation-free. */
uint32_t priority(const patnode *node)
{
	uint64_t x = reinterpret_cast<uintptr_t>(node);
	x ^= x >> 33;
	x *= 0xff51afd7ed558ccdULL;
	x ^= x >> 33;
	return static_cast<uint32_t>(x);
}

patnode *rotate_right(patnode *n)
{
	patnode *l = n->left;
	n->left = l->right;
	l->right = n;
	return l;
}

patnode *rotate_left(patnode *n)
{
	patnode *r = n->right;
	n->right = r->left;
	r->left = n;
	return r;
}

patnode *insert(patroot *root, patnode *t, patnode *node, bool *dup)
{
	if (t == nullptr)
		return node;
	int c = compare(node_key(root, node), node_key(root, t));
	if (c == 0) {
		*dup = true;
		return t;
	}
	if (c < 0) {
		t->left = insert(root, t->left, node, dup);
		if (t->left != nullptr && priority(t->left) > priority(t))
			t = rotate_right(t);
	} else {
		t->right = insert(root, t->right, node, dup);
		if (t->right != nullptr && priority(t->right) > priority(t))
			t = rotate_left(t);
	}
	return t;
}

patnode *join(patnode *a, patnode *b)
{
	if (a == nullptr)
		return b;
	if (b == nullptr)
		return a;
	if (priority(a) > priority(b)) {
		a->right = join(a->right, b);
		return a;
	}
	b->left = join(a, b->left);
	return b;
}

patnode *remove(patroot *root, patnode *t, patnode *node, bool *found)
{
	if (t == nullptr)
		return nullptr;
	if (t == node) {
		*found = true;
		return join(t->left, t->right);
	}
	int c = compare(node_key(root, node), node_key(root, t));
	if (c < 0)
		t->left = remove(root, t->left, node, found);
	else if (c > 0)
		t->right = remove(root, t->right, node, found);
	return t;
}

/* Smallest node whose key is above (strict) or not below k. */
patnode *lower_bound(patroot *root, key_view k, bool strict)
{
	patnode *best = nullptr;
	for (patnode *t = root->root; t != nullptr;) {
		int c = compare(node_key(root, t), k);
		if (c > 0 || (c == 0 && !strict)) {
			best = t;
			t = t->left;
		} else {
			t = t->right;
		}
	}
	return best;
}

/* Roots that patricia_root_init() allocated, so that patricia_root_delete()
 * frees those and only those. */
std::mutex allocated_lock;
std::unordered_set<patroot *> &allocated_roots()
{
	static std::unordered_set<patroot *> roots;
	return roots;
}

patnode *lower_bound_eq(patroot *root, key_view k)
{
	patnode *n = lower_bound(root, k, false);
	if (n != nullptr && compare(node_key(root, n), k) == 0)
		return n;
	return nullptr;
}

} // namespace

extern "C" {

patroot *patricia_root_init(patroot *root, int is_ptr, uint16_t key_bytes,
                            uint8_t key_offset)
{
	if (root == nullptr) {
		root = new (std::nothrow) patroot;
		if (root == nullptr)
			return nullptr;
		std::lock_guard<std::mutex> guard(allocated_lock);
		allocated_roots().insert(root);
	}
	root->root = nullptr;
	root->key_bytes = key_bytes;
	root->key_offset = key_offset;
	root->is_ptr = is_ptr ? 1 : 0;
	root->count = 0;
	return root;
}

void patricia_root_delete(patroot *root)
{
	assert(root->root == nullptr);
	root->root = nullptr;
	std::lock_guard<std::mutex> guard(allocated_lock);
	if (allocated_roots().erase(root) != 0)
		delete root;
}

void patricia_node_init_length(patnode *node, uint16_t key_bytes)
{
	node->left = node->right = nullptr;
	node->length = key_bytes;
}

int patricia_add(patroot *root, patnode *node)
{
	bool dup = false;
	/* A node already in the tree (added twice) must keep its links: look
	 * for the key before clearing anything. */
	if (lower_bound_eq(root, node_key(root, node)) != nullptr)
		return 0;
	node->left = node->right = nullptr;
	root->root = insert(root, root->root, node, &dup);
	if (dup)
		return 0;
	root->count++;
	return 1;
}

int patricia_delete(patroot *root, patnode *node)
{
	bool found = false;
	root->root = remove(root, root->root, node, &found);
	if (!found)
		return 0;
	root->count--;
	node->left = node->right = nullptr;
	return 1;
}

patnode *patricia_get(patroot *root, uint16_t key_bytes, const void *key)
{
	return lower_bound_eq(root, {static_cast<const uint8_t *>(key), key_bytes});
}

patnode *patricia_lookup(patroot *root, const void *key)
{
	return patricia_get(root, root->key_bytes, key);
}

patnode *patricia_find_next(patroot *root, patnode *node)
{
	if (node == nullptr) {
		patnode *t = root->root;
		while (t != nullptr && t->left != nullptr)
			t = t->left;
		return t;
	}
	return lower_bound(root, node_key(root, node), true);
}

patnode *patricia_find_ge(patroot *root, uint16_t key_bytes, const void *key)
{
	return lower_bound(root, {static_cast<const uint8_t *>(key), key_bytes}, false);
}

const uint8_t *patricia_key(const patroot *root, const patnode *node)
{
	return node_key(root, node).bytes;
}

uint32_t patricia_count(const patroot *root)
{
	return root->count;
}

} // extern "C"
