/*
 * A record of tolvard's channel, as the peer sends it.  The first byte
 * picks the role the record meets; the rest is the record.  The walk must
 * stay inside the record, and a record counts as one message exactly when
 * it is accepted.
 */
#include "rep.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	if (size == 0 || size > UINT32_MAX)
		return 0;
	tolvard_state.role = data[0] % 3;
	/* No link is set up here: nothing may be sent. */
	tolvard_state.gres_enabled = 0;
	uint32_t msgs = tolvard_state.recv_msgs;
	uint32_t bytes = tolvard_state.recv_bytes;
	uint32_t len = (uint32_t)(size - 1);
	int rc = tolvard_msg_decode(data + 1, len);
	if (rc != 0 && rc != -1)
		abort();
	if (tolvard_state.recv_msgs != msgs + (rc == 0 ? 1 : 0))
		abort();
	if (tolvard_state.recv_bytes != bytes + (rc == 0 ? len : 0))
		abort();
	return 0;
}
