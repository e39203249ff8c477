/*
 * Status codes: texts and the mapping from operating system errors.
 */
#include <cerrno>

#include "sdb_impl.h"

namespace {

/* Indexed by the complement of the code: row 0 is -1. */
constexpr const char *status_text[] = {
	"SDB unexpected fatal error",
	"SDB out of memory",
	"SDB contains invalid data",
	"SDB deadlock",
	"SDB data corrupted",
	"SDB invalid parameter",
	"SDB data not found",
	"SDB attr already exists",
	"SDB attr does not exist",
	"unit number pool run out of unit numbers",
	"SDB is recovering",
	"SDB is unavailable",
	"SDB is read only",
	"SDB internal state is recovering",
	"SDB replication is not supported in current platform",
	"SDB cannot find array",
	"SDB is not supported in current platform",
	"sdb error code exceeds table size",	/* -18 is never given out */
	"session database has not started yet",
	"snapshot handle only; filtered by config bits",
	"session database needs secondary recovery",
	"session database summary counter error",
	"SDB shared mem block already in use",
	"SDB shared mem block too small for data",
	"keel unexpected fatal error",
	"Failed to connect to KEEL",
	"ISSU in progress",
	"SHM db doesn't need to be written out",
	"KEEL throttling session create because of RSMON",
	"SDB no session match",
	"KEEL mastership mismatch",
	"SDB update conflict",
	"subscriber-management recovery in progress",
	"SDB update blocked",
	"Failure sending to the keel daemon",
	"KEEL is purging the SDB",
	"Buffer too small",
	"Too many SDB database clients, try later",
	"Lock type requested/held is invalid",
};
static_assert(std::size(status_text) == -SDB_ERR_LAST);

} // namespace

extern "C" const char *sdb_strerror(int code)
{
	if (code == 0)
		return "success";
	if (code > 0 || code < SDB_ERR_LAST)
		return "sdb error code exceeds table size";
	return status_text[~code];
}

extern "C" int sdb_map_error(int code)
{
	if (code <= 0)
		return code;
	if (code == ENOMEM)
		return SDB_ERR_NOMEM;
	if (code == EACCES && !sdb_is_master)
		return SDB_ERR_READ_ONLY;
	sdb_trace(SDB_TRACE_ERR, "SDB unknown error %d", code);
	return SDB_ERR_FATAL;
}
