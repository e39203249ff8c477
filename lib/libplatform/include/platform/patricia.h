/*
 * Ordered key tree with intrusive nodes.  A node lives inside the caller's
 * structure; its key lies key_offset bytes after the node (or, for a tree
 * made with is_ptr, a pointer to the key lies there).  Keys compare byte by
 * byte, a shorter key before a longer one it prefixes.  The tree is a treap
 * with priorities derived from the node address, so no call allocates.
 */
#ifndef PLATFORM_PATRICIA_H
#define PLATFORM_PATRICIA_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct patnode {
	struct patnode *left;
	struct patnode *right;
	uint16_t length;	/* key bytes; 0 takes the tree's default */
} patnode;

typedef struct patroot {
	patnode *root;
	uint16_t key_bytes;	/* default key length */
	uint8_t key_offset;	/* from the node to the key */
	uint8_t is_ptr;		/* the key field holds a pointer to the key */
	uint32_t count;
} patroot;

patroot *patricia_root_init(patroot *root, int is_ptr, uint16_t key_bytes,
                            uint8_t key_offset);
/* The tree must be empty. */
void patricia_root_delete(patroot *root);
void patricia_node_init_length(patnode *node, uint16_t key_bytes);
/* 1 on success, 0 when a node with the same key is present. */
int patricia_add(patroot *root, patnode *node);
/* 1 on success, 0 when the node is not in the tree. */
int patricia_delete(patroot *root, patnode *node);
patnode *patricia_get(patroot *root, uint16_t key_bytes, const void *key);
/* patricia_get() with the tree's default length. */
patnode *patricia_lookup(patroot *root, const void *key);
/* The node after node in key order; the first node for NULL. */
patnode *patricia_find_next(patroot *root, patnode *node);
/* The first node whose key is not below key (key_bytes long). */
patnode *patricia_find_ge(patroot *root, uint16_t key_bytes, const void *key);
const uint8_t *patricia_key(const patroot *root, const patnode *node);
uint32_t patricia_count(const patroot *root);

#ifdef __cplusplus
}
#endif

#endif
