/*
 * The meminfo table is outside bytes to its reader: walk every row list of
 * an arbitrary copy, as sdbctl meminfo does.
 */
#include "mmf/meminfo.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	if (size < MEMINFO_HEADER_BYTES)
		return 0;
	auto *r = static_cast<meminfo_reader_t *>(calloc(1, sizeof(meminfo_reader_t)));
	r->self = r;
	r->buffer = static_cast<uint8_t *>(malloc(size));
	memcpy(r->buffer, data, size);
	r->size = size;
	r->table = reinterpret_cast<const meminfo_header_t *>(r->buffer);
	r->owned = true;
	meminfo_mmf_t f;
	meminfo_mmdb_t d;
	meminfo_shm_t s;
	/* Rows of a list never overlap, so no walk is longer than this. */
	size_t most = size / MEMINFO_MIN_ROW_BYTES, n = 0;
	while (meminfo_reader_next_mmf(r, &f))
		if (++n > most)
			__builtin_trap();
	for (n = 0; meminfo_reader_next_mmdb(r, &d);)
		if (++n > most)
			__builtin_trap();
	for (n = 0; meminfo_reader_next_shm(r, &s);)
		if (++n > most)
			__builtin_trap();
	for (n = 0; meminfo_reader_next_spare1(r, &s);)
		if (++n > most)
			__builtin_trap();
	meminfo_reader_delete(r);
	return 0;
}
