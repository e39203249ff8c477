/*
 * The client's view of the database environment, bound to the library's
 * environment functions.
 */
#include "keel_env.h"

#include <sdb/keel.h>
#include <sdb/sdb.h>

namespace {

/*
 * The ready callback gets a value that is not null while the environment
 * is usable and null when it is lost; daemons keep it and never read
 * through it.
 */
char env_token;

int
open_internal(int is_keel)
{
	return sdb_open_internal(is_keel != 0);
}

int
close_internal(int is_keel)
{
	return sdb_close_internal(is_keel != 0);
}

int
db_init(keel_handle *h, int is_keel)
{
	return sdb_db_init(h, is_keel != 0);
}

int
secondary_init(int is_keel, int is_locked)
{
	return sdb_db_secondary_init(is_keel != 0, is_locked != 0);
}

void *
env_value(void)
{
	return &env_token;
}

int
platform_supported(void)
{
	return sdb_platform_supported() ? 1 : 0;
}

int
is_master(void)
{
	return sdb_is_master ? 1 : 0;
}

void
set_mastership(int master)
{
	sdb_set_mastership(master != 0);
}

void
set_recovering(void)
{
	sdb_keel_recovering = true;
}

uint32_t
recovery_status(void)
{
	uint32_t status = 0;
	return sdb_recovery_status_get(&status) == 0 ? status : 0;
}

int
register_setup(void)
{
	return 0;
}

void
trace(keel_handle *h, int level, const char *fmt, va_list ap)
{
	if (sdb_trace_fn != nullptr)
		sdb_trace_fn(h, level, fmt, ap);
}

} // namespace

const keel_env_ops keel_env_default = {
	open_internal,
	close_internal,
	db_init,
	secondary_init,
	sdb_db_secondary_recover,
	sdb_db_env_check,
	env_value,
	platform_supported,
	is_master,
	set_mastership,
	set_recovering,
	recovery_status,
	register_setup,
	trace,
};
