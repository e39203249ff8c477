/*
 * The session id word for the in-process tests that script the keel
 * client instead of linking the session database: a word of this process,
 * with the generator's rules (bit 63 never stored, raise never lowers).
 */
#include <sdb/sdb_id.h>

namespace {
uint64_t word;
}

extern "C" uint64_t sdb_id_get(void)
{
	return word;
}

extern "C" int sdb_id_set(uint64_t id)
{
	word = id & SDB_ID_MAX;
	return 0;
}

extern "C" int sdb_id_raise(uint64_t id)
{
	if ((id & SDB_ID_MAX) > word)
		word = id & SDB_ID_MAX;
	return 0;
}
