/*
 * Until the database environment is in the library, the client runs on
 * this stand-in: every open step succeeds, mastership is a process-local
 * flag and the platform file says whether there is a database.
 */
#include "keel_env.h"

#include <platform/chassis.h>
#include <sdb/keel.h>

namespace {

char env_token;
int master_flag;

int ok1(int) { return 0; }
int ok2(int, int) { return 0; }
int db_init(keel_handle *, int) { return 0; }
int check(void) { return 0; }
void *env_value(void) { return &env_token; }
int platform_supported(void) { return platform_get_long("session_db", 1) != 0; }
int is_master(void) { return master_flag; }
void set_mastership(int m) { master_flag = m != 0; }
void set_recovering(void) {}
uint32_t recovery_status(void) { return 3; }
int register_setup(void) { return 0; }
void trace(keel_handle *, int, const char *, va_list) {}

} // namespace

const keel_env_ops keel_env_default = {
	ok1, ok1, db_init, ok2, ok2, check, env_value, platform_supported,
	is_master, set_mastership, set_recovering, recovery_status,
	register_setup, trace,
};

extern "C" const char *
sdb_strerror(int code)
{
	static const char *const text[] = {
		"success", "SDB unexpected fatal error", "SDB out of memory",
		"SDB contains invalid data", "SDB deadlock",
		"SDB data corrupted", "SDB invalid parameter",
		"SDB data not found", "SDB attr already exists",
		"SDB attr does not exist",
		"unit number pool run out of unit numbers",
		"SDB is recovering", "SDB is unavailable", "SDB is read only",
		"SDB internal state is recovering",
		"SDB replication is not supported in current platform",
		"SDB cannot find array",
		"SDB is not supported in current platform",
		"sdb error code exceeds table size",
		"session database has not started yet",
		"snapshot handle only; filtered by config bits",
		"session database needs secondary recovery",
		"session database summary counter error",
		"SDB shared mem block already in use",
		"SDB shared mem block too small for data",
		"keel unexpected fatal error", "Failed to connect to KEEL",
		"ISSU in progress", "SHM db doesn't need to be written out",
		"KEEL throttling session create because of RSMON",
		"SDB no session match", "KEEL mastership mismatch",
		"SDB update conflict",
		"subscriber-management recovery in progress",
		"SDB update blocked", "Failure sending to the keel daemon",
		"KEEL is purging the SDB", "Buffer too small",
		"Too many SDB database clients, try later",
		"Lock type requested/held is invalid",
	};
	if (code > 0 || code < -39)
		return "sdb error code exceeds table size";
	return text[-code];
}
