/*
 * Places in the open and close order for stores that are built on top of
 * the environment: the statistics databases.  Each one succeeds without
 * touching shared memory; the module that owns the store replaces its
 * entry here.
 */
#include "sdb_impl.h"

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
