/*
 * Places in the open and close order for stores that are built on top of
 * the environment: the limit segments, the dynamic variable names, the
 * short-term store and the statistics databases.  Each one succeeds without touching shared
 * memory; the module that owns the store replaces its entry here.
 */
#include "sdb_impl.h"

int sdb_limit_segments_attach(bool)
{
	return 0;
}

void sdb_limit_segments_detach(void)
{
}

void sdb_dyn_var_table_init(void)
{
}

int sdb_sts_init(uint64_t, uint32_t)
{
	return 0;
}

void sdb_sts_close(void)
{
}

void sdb_sts_quiesce(void)
{
}

extern "C" int libstats_init_db(void *)
{
	return 0;
}

extern "C" int libstats_init_mobile_db(void *)
{
	return 0;
}

extern "C" int libstats_close_db(void)
{
	return 0;
}

extern "C" int libstats_close_mobile_db(void)
{
	return 0;
}
