/*
 * The value of a second-generation control message, as the peer sends it:
 * sub-TLVs of any type and length.  A round trip of what was understood
 * must encode and parse back to the same.
 */
#include "mirror_wire.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

using namespace mirror::wire;

extern "C" int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	cntrl2_in in;
	if (parse_cntrl2(std::span(data, size), in) != error::none)
		return 0;

	/* Encode what came in and read it back. */
	std::vector<std::string> names;
	std::vector<mirror_db_entry> table;
	for (const peer_db &d : in.dbs)
		names.push_back(d.name.substr(0, d.name.find('\0')));
	for (size_t i = 0; i < in.dbs.size(); i++)
		table.push_back(mirror_db_entry{in.dbs[i].data_id, names[i].c_str()});
	table.push_back(mirror_db_entry{0, nullptr});
	cntrl_out c;
	c.flags = in.flags;
	c.version = in.version;
	c.dbs = table.data();
	c.keepalive = in.keepalive;
	c.buf_size = in.buf_size;
	std::vector<uint8_t> buf(8192 + 64);
	size_t n = put_cntrl2(buf, c);
	if (n == 0)
		abort();
	cntrl2_in back;
	if (parse_cntrl2(std::span(buf).subspan(4, n - 4), back) != error::none)
		abort();
	if (back.keepalive != in.keepalive || back.buf_size != in.buf_size ||
	    back.dbs.size() > in.dbs.size())
		abort();
	return 0;
}
