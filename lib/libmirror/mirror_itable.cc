/*
 * The acknowledgement handle table (mirror_itable.h).
 */
#include "mirror_itable.h"

#include <cerrno>
#include <new>

namespace mirror {

namespace {

constexpr uint32_t per_top = 4096;

constexpr uint32_t
top_of(uint32_t i)
{
	return i >> 12;
}

constexpr uint32_t
mid_of(uint32_t i)
{
	return (i >> 6) & 63;
}

constexpr uint32_t
leaf_of(uint32_t i)
{
	return i & 63;
}

static_assert(16 * per_top == itable16::slots);

} // namespace

itable16::~itable16()
{
	for (top &t : top_)
		release(t);
}

void
itable16::release(top &t)
{
	if (t.blocks == nullptr)
		return;
	for (leaf *l : t.blocks->leaves)
		delete l;
	delete t.blocks;
	t.blocks = nullptr;
	t.used = 0;
}

void *
itable16::get(uint32_t index) const
{
	if (index >= slots)
		return nullptr;
	const top &t = top_[top_of(index)];
	if (t.blocks == nullptr)
		return nullptr;
	const leaf *l = t.blocks->leaves[mid_of(index)];
	return l == nullptr ? nullptr : l->slot[leaf_of(index)];
}

bool
itable16::put(uint32_t index, void *p)
{
	if (index >= slots || p == nullptr)
		return false;
	top &t = top_[top_of(index)];
	if (t.blocks == nullptr) {
		t.blocks = new (std::nothrow) mid();
		if (t.blocks == nullptr)
			return false;
	}
	leaf *&l = t.blocks->leaves[mid_of(index)];
	if (l == nullptr) {
		l = new (std::nothrow) leaf();
		if (l == nullptr) {
			if (t.used == 0)
				release(t);
			return false;
		}
	}
	if (l->slot[leaf_of(index)] != nullptr)
		return false;
	l->slot[leaf_of(index)] = p;
	t.used++;
	used_++;
	if (index + 1 > mark_)
		mark_ = index + 1;
	return true;
}

bool
itable16::lowest_free(uint32_t *index) const
{
	for (uint32_t ti = 0; ti < 16; ti++) {
		const top &t = top_[ti];
		if (t.used == per_top)
			continue;
		for (uint32_t mi = 0; mi < 64; mi++) {
			const leaf *l = t.blocks == nullptr ? nullptr : t.blocks->leaves[mi];
			for (uint32_t li = 0; li < 64; li++) {
				if (l == nullptr || l->slot[li] == nullptr) {
					*index = (ti << 12) | (mi << 6) | li;
					return true;
				}
			}
		}
	}
	return false;
}

bool
itable16::alloc(void *p, uint32_t *index)
{
	if (used_ == slots)
		return false;
	uint32_t i = mark_;
	if (i == slots && !lowest_free(&i))
		return false;
	if (!put(i, p))
		return false;
	*index = i;
	return true;
}

/* One above the highest used index below limit; 0 when there is none. */
uint32_t
itable16::highest_used_below(uint32_t limit) const
{
	uint32_t i = limit;
	while (i > 0) {
		uint32_t probe = i - 1;
		const top &t = top_[top_of(probe)];
		if (t.used == 0) {
			i = top_of(probe) << 12;	/* skip the whole top slot */
			continue;
		}
		const leaf *l = t.blocks->leaves[mid_of(probe)];
		if (l == nullptr) {
			i = probe & ~63u;		/* skip the empty block */
			continue;
		}
		if (l->slot[leaf_of(probe)] != nullptr)
			return probe + 1;
		i = probe;
	}
	return 0;
}

void *
itable16::remove(uint32_t index)
{
	if (index >= slots)
		return nullptr;
	top &t = top_[top_of(index)];
	if (t.blocks == nullptr)
		return nullptr;
	leaf *l = t.blocks->leaves[mid_of(index)];
	if (l == nullptr || l->slot[leaf_of(index)] == nullptr)
		return nullptr;
	void *p = l->slot[leaf_of(index)];
	l->slot[leaf_of(index)] = nullptr;
	used_--;
	if (--t.used == 0)
		release(t);
	if (index + 1 == mark_)
		mark_ = highest_used_below(index);
	return p;
}

itable32::~itable32()
{
	for (uint32_t u = 0; upper_.count() > 0 && u < itable16::slots; u++)
		delete static_cast<itable16 *>(upper_.remove(u));
}

int
itable32::alloc(void *p, uint32_t *handle)
{
	for (uint32_t tries = 0; tries < itable16::slots; tries++) {
		uint32_t u = (cursor_ + tries) % itable16::slots;
		auto *lower = static_cast<itable16 *>(upper_.get(u));
		bool fresh = false;
		if (lower == nullptr) {
			lower = new (std::nothrow) itable16();
			if (lower == nullptr || !upper_.put(u, lower)) {
				delete lower;
				return ENOMEM;
			}
			fresh = true;
		}
		uint32_t i;
		if (lower->alloc(p, &i)) {
			cursor_ = u;
			count_++;
			*handle = (u << 16) | i;
			return 0;
		}
		if (fresh) {
			/* A new table that cannot take one entry: memory is out. */
			upper_.remove(u);
			delete lower;
			return ENOMEM;
		}
	}
	return ENOSPC;
}

void *
itable32::get(uint32_t handle) const
{
	auto *lower = static_cast<const itable16 *>(upper_.get(handle >> 16));
	return lower == nullptr ? nullptr : lower->get(handle & 0xFFFF);
}

void *
itable32::remove(uint32_t handle)
{
	uint32_t u = handle >> 16;
	auto *lower = static_cast<itable16 *>(upper_.get(u));
	if (lower == nullptr)
		return nullptr;
	void *p = lower->remove(handle & 0xFFFF);
	if (p == nullptr)
		return nullptr;
	count_--;
	if (lower->count() == 0) {
		upper_.remove(u);
		delete lower;
		if (upper_.count() == 0)
			cursor_ = 0;
	}
	return p;
}

} // namespace mirror
