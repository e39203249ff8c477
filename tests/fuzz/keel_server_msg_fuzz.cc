/*
 * Bytes from a client, as keel's server takes them: split into reads at
 * points the input chooses, they must end in answers or a closed
 * connection, never a crash.
 */
#include "keel_server_internal.h"

#include <cstddef>
#include <cstdint>
#include <sys/socket.h>
#include <unistd.h>

extern "C" int
LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	if (size == 0)
		return 0;
	(void)keel_server_check(data + 1, size - 1, data[0] & 1);

	int sv[2];
	if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0)
		return 0;
	keel_server_set_ready(data[0] & 2);
	keel_conn *c = keel_server_adopt(sv[0]);
	if (c == nullptr) {
		close(sv[0]);
		close(sv[1]);
		return 0;
	}
	/* The first byte picks the read size: 1 to 256 bytes at a time. */
	size_t step = static_cast<size_t>(data[0]) + 1;
	bool open = true;
	for (size_t off = 1; open && off < size; off += step) {
		size_t n = size - off < step ? size - off : step;
		open = keel_server_feed(c, data + off, n);
	}
	if (open)
		keel_server_drop(c);
	close(sv[1]);
	return 0;
}
