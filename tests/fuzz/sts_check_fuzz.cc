/*
 * A short-term store file is read by sdbctl as outside bytes: the check
 * must describe any image without reading outside it or looping.  The
 * input is laid over a freshly formatted image, so that it reaches past
 * the size and format tests.
 */
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "sdb/sdb_sts.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	constexpr size_t image = 250 * 4096;
	static std::vector<uint8_t> base;
	if (base.empty()) {
		/* 50 entries of 4096-byte slots and one free block. */
		base.assign(image, 0);
		sdb_sts_geometry g;
		sdb_sts_geometry_for(image, 5 * 4096, &g);
		uint32_t off = g.heap_start;
		for (uint32_t i = 0; i < g.total_entries; i++, off += 4096) {
			sdb_sts_entry e{};
			e.data_start_offset = off;
			e.slot_size = 4096;
			e.free_list_offset = 4;
			e.next = e.prev = SDB_STS_NO_LINK;
			memcpy(&base[i * SDB_STS_ENTRY_SIZE], &e, sizeof e);
			sdb_sts_free_node n = {4092, 0};
			memcpy(&base[off + 4], &n, sizeof n);
		}
		sdb_sts_block_hdr h = {off, SDB_STS_HDR_MAGIC, 1,
		    (uint32_t)(image - off), 0, 0};
		memcpy(&base[off], &h, sizeof h);
		sdb_sts_block_trl t = {SDB_STS_TRL_MAGIC, h.size};
		memcpy(&base[image - 8], &t, sizeof t);
		memcpy(&base[g.heap_ctl_offset + 16], &off, 4);
	}
	std::vector<uint8_t> img = base;
	/* Pairs of (4-byte offset, 4 bytes) written over the image. */
	for (size_t i = 0; i + 8 <= size; i += 8) {
		uint32_t at;
		memcpy(&at, data + i, 4);
		at %= image - 4;
		memcpy(&img[at], data + i + 4, 4);
	}
	sdb_sts_check_report rep;
	sdb_sts_check_image(img.data(), img.size(), &rep);
	sdb_sts_check_image(data, size, &rep);
	return 0;
}
