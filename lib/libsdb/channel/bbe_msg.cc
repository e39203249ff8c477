/*
 * The checks of what crosses the channel from another process: socket
 * messages and request queue entries.  Nothing here trusts a length.
 */
#include "sdb/sdb_bbe.h"

#include <cstring>

namespace {

uint16_t u16(const uint8_t *p)
{
	uint16_t v;
	memcpy(&v, p, 2);
	return v;
}

uint32_t u32(const uint8_t *p)
{
	uint32_t v;
	memcpy(&v, p, 4);
	return v;
}

/* A notification or its reply: subtype 0 is two words; subtype 1 a key,
 * which a reply pads to 88 bytes in all. */
bool notify_ok(const uint8_t *m, uint16_t len, bool reply)
{
	if (len < 12)
		return false;
	uint32_t subtype = u32(m + 4);
	if (subtype == 0)
		return len == 20;
	if (subtype != 1 || len < 16)
		return false;
	uint16_t keylen = u16(m + 14);
	if (keylen > SDB_BBE_KEY_MAX || 16u + keylen > len)
		return false;
	return !reply || len == 88;
}

} // namespace

extern "C" int sdb_bbe_msg_check(const uint8_t *buf, size_t avail)
{
	if (avail < 4)
		return 0;
	uint16_t len = u16(buf), type = u16(buf + 2);
	if (len < 4 || len > SDB_BBE_RECV_BUFFER)
		return -1;
	if (avail < len)
		return 0;
	bool ok = false;
	switch (type) {
	case SDB_BBE_MSG_REG:
		ok = len == SDB_BBE_REG_BYTES;
		break;
	case SDB_BBE_MSG_ACK:
		ok = len >= 8 && uint64_t(u32(buf + 4)) * SDB_BBE_ACK_ROW_BYTES +
		    8 == len;
		break;
	case SDB_BBE_MSG_NOTIFY:
		ok = notify_ok(buf, len, false);
		break;
	case SDB_BBE_MSG_NOTIFY_REPLY:
		ok = notify_ok(buf, len, true);
		break;
	case SDB_BBE_MSG_KEEPALIVE:
		ok = len == 4;
		break;
	}
	return ok ? len : -1;
}

extern "C" bool sdb_bbe_entry_check(const uint8_t *e, size_t len)
{
	if (len < 4 || len > SDB_BBE_QUEUE_ENTRY_MAX_TOTAL_BYTES)
		return false;
	uint16_t type = u16(e), payload = u16(e + 2);
	if (4u + payload != len)
		return false;
	switch (type) {
	case SDB_BBE_REQ_SESSION:
		return payload == 24;
	case SDB_BBE_REQ_DELETE:
		return payload == 8;
	case SDB_BBE_REQ_APP_DEF:
		return payload >= 4 && u16(e + 6) <= SDB_BBE_KEY_MAX &&
		    4u + u16(e + 6) == payload;
	default:
		return false;
	}
}
