/*
 * A section from the long-term store or the other engine is outside
 * bytes: the decoder refuses what the store cannot hold and never stops
 * the process.  What it accepts, encoded and decoded once more, gives the
 * same bytes again.
 */
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "sdb/sdb_rep.h"

namespace {

std::vector<uint8_t> slot_buf()
{
	return std::vector<uint8_t>(SDB_STS_ENTRY_SIZE + SDB_STS_SLOT_MAX);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	if (size < 2)
		return 0;
	int section = data[0] % 5;
	uint8_t filter_len = data[1] % 4;
	data += 2;
	size -= 2;
	const uint8_t *filter = size >= filter_len ? data : nullptr;
	std::vector<uint8_t> a = slot_buf();
	sdb_sts_entry *e = sdb_sts_entry_init_private(a.data(), a.size(), 1);
	int rc = sdb_rep_decode_section(e, section, data, size,
	    filter_len ? filter : nullptr, filter_len);
	if (rc != 0)
		return 0;
	std::vector<uint8_t> once(1 << 18), twice(1 << 18);
	size_t n1 = 0, n2 = 0;
	if (sdb_rep_encode_section(e, section, once.data(), once.size(), &n1) != 0)
		return 0;	/* an empty auth or dynamic section */
	std::vector<uint8_t> b = slot_buf();
	sdb_sts_entry *f = sdb_sts_entry_init_private(b.data(), b.size(), 1);
	if (sdb_rep_decode_section(f, section, once.data(), n1, nullptr, 0) != 0)
		__builtin_trap();
	std::vector<uint8_t> c = slot_buf();
	sdb_sts_entry *g = sdb_sts_entry_init_private(c.data(), c.size(), 1);
	if (sdb_rep_decode_section(g, section, once.data(), n1, nullptr, 0) != 0 ||
	    sdb_rep_encode_section(f, section, twice.data(), twice.size(),
		&n2) != 0 || n1 != n2 || memcmp(once.data(), twice.data(), n1) != 0)
		__builtin_trap();
	return 0;
}
