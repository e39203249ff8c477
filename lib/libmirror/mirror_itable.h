/*
 * mirror_ack_handle_itable: the sparse index table that turns the 4-byte
 * handle of an acknowledgement back into the queue entry that waits for it.
 *
 * A 32-bit index is split in two 16-bit halves.  The upper half selects a
 * lower table, the lower half a slot in it.  Each 16-bit level is a tree:
 * 16 top slots, each leading to a block of 64 pointers to blocks of 64
 * pointers, all allocated zeroed on demand.  A top slot counts its used
 * entries and gives its blocks back when the count reaches 0, so an idle
 * table holds no memory beyond its top slots.
 *
 * Handing out.  A lower table gives the index above its highest used one;
 * once that reaches 0x10000 it scans for the lowest free slot.  When a
 * lower table is full the next upper index is tried, wrapping around.
 * Removing the highest used index moves the mark down to the next used
 * one, so handles rise from 0 and start from 0 again once the table has
 * emptied.
 *
 * Invariants:
 *  - top[t].used is the number of non-null slots under top slot t, and
 *    top[t].mid is null exactly when used is 0.
 *  - mark is one above the highest used index, 0 when the table is empty.
 *  - A lower table is in the upper table exactly while it holds an entry.
 */
#ifndef MIRROR_ITABLE_H
#define MIRROR_ITABLE_H

#include <cstdint>

namespace mirror {

/* One 16-bit level: index to pointer. */
class itable16 {
public:
	static constexpr uint32_t slots = 0x10000;

	itable16() = default;
	itable16(const itable16 &) = delete;
	itable16 &operator=(const itable16 &) = delete;
	~itable16();

	void *get(uint32_t index) const;
	/* Store p (not null) at a free index; false when full or out of memory. */
	bool alloc(void *p, uint32_t *index);
	/* Store p (not null) at index, which must be free; false without memory. */
	bool put(uint32_t index, void *p);
	/* Clear index and return what it held (null when it was free). */
	void *remove(uint32_t index);
	uint32_t count() const { return used_; }
	uint32_t mark() const { return mark_; }

private:
	struct leaf {
		void	*slot[64];
	};
	struct mid {
		leaf	*leaves[64];
	};
	struct top {
		mid	*blocks = nullptr;
		uint32_t used = 0;
	};

	bool lowest_free(uint32_t *index) const;
	uint32_t highest_used_below(uint32_t limit) const;
	void release(top &t);

	top	top_[16];
	uint32_t used_ = 0;
	uint32_t mark_ = 0;
};

/* The two levels together: a 32-bit handle to pointer. */
class itable32 {
public:
	itable32() = default;
	itable32(const itable32 &) = delete;
	itable32 &operator=(const itable32 &) = delete;
	~itable32();

	/* 0, ENOSPC when all 2^32 handles are taken, ENOMEM. */
	int alloc(void *p, uint32_t *handle);
	void *get(uint32_t handle) const;
	void *remove(uint32_t handle);
	uint64_t count() const { return count_; }

private:
	itable16 upper_;	/* lower tables by upper half */
	uint32_t cursor_ = 0;	/* upper half that hands out now */
	uint64_t count_ = 0;
};

} // namespace mirror

#endif
