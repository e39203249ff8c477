/*
 * The channel's receive loop over a stream of bytes from the socket and
 * the request entries from the queue: a message is handled only when
 * whole, a malformed one ends the stream (the connection would close),
 * and nothing is read past what arrived.
 */
#include "sdb/sdb_bbe.h"

#include <cstdint>
#include <cstdlib>
#include <algorithm>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	/* The socket: the receive buffer filled in pieces of the input. */
	uint8_t buf[SDB_BBE_RECV_BUFFER];
	size_t have = 0, at = 0;
	while (at < size) {
		size_t n = std::min<size_t>(size - at, 1 + data[at] % 97);
		n = std::min(n, sizeof(buf) - have);
		memcpy(buf + have, data + at, n);
		have += n;
		at += n;
		int len;
		while ((len = sdb_bbe_msg_check(buf, have)) > 0) {
			if (size_t(len) > have || len < 4)
				abort();
			memmove(buf, buf + len, have - size_t(len));
			have -= size_t(len);
		}
		if (len < 0)
			break;
		if (have == sizeof(buf))
			abort();	/* a whole buffer is a message or an error */
	}
	/* The queue: the input as one entry. */
	if (sdb_bbe_entry_check(data, size) && size < 4)
		abort();
	return 0;
}
