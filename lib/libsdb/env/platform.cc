/*
 * Platform questions and the sizes that the scale class gives the stores.
 * Each answer is computed once: the class must not change under a process
 * that has sized its mappings by it.
 */
#include <cstring>

#include "platform/chassis.h"
#include "platform/logging.h"
#include "platform/paths.h"
#include "platform/process.h"
#include "sdb_impl.h"

namespace {

constexpr uint64_t KiB = 1024, MiB = 1024 * KiB, GiB = 1024 * MiB;
constexpr uint32_t page = 4096;

/* Columns: below 8000, 8000 to 47999, 48000 to 511999, 512000 and more.
 * bucket_count of the smallest class depends on memory, see below. */
constexpr sdb_scale scale_table[] = {
	{50, 64 * MiB, 1 * MiB, 64 * KiB, 2, 16 * MiB, 256 * KiB, 64 * KiB, 4,
	    100 * page / 10, 250 * page},
	{12000, 256 * MiB, 2 * MiB, 64 * KiB, 5, 64 * MiB, 512 * KiB, 64 * KiB,
	    5, 100 * page / 4, 12500ull * page / 16},
	{48000, 1 * GiB, 8 * MiB, 1 * MiB, 10, 256 * MiB, 2 * MiB, 1 * MiB, 5,
	    100 * page, 12500ull * page / 8},
	{384000, 8 * GiB, 64 * MiB, 1 * MiB, 20, 2 * GiB, 16 * MiB, 1 * MiB, 10,
	    100 * page, 12500ull * page},
};

constexpr int scale_row(uint32_t clients)
{
	return clients < 8000 ? 0 : clients < 48000 ? 1 : clients < 512000 ? 2 : 3;
}
static_assert(scale_row(100) == 0 && scale_row(8000) == 1 &&
    scale_row(48000) == 2 && scale_row(512000) == 3);

/* 2 GiB in the 512-byte units of "hw.512binstalledmem". */
constexpr long two_gib_units = (long)(2 * GiB / 512);

bool big_memory(void)
{
	long units = 0;
	size_t len = sizeof(units);
	if (platform_sysctlbyname("hw.512binstalledmem", &units, &len) != 0)
		return false;
	/* The lab's platform file gives a flag (1) or the real count. */
	return units == 1 || units >= two_gib_units;
}

uint32_t compute_client_count(void)
{
	if (sdb_large_id_space())
		return router_enhanced_bbe_support() == 1 ? 512000 : 48000;
	long v = platform_get_long("scale_class", 8000);
	switch (v) {
	case 100:
	case 8000:
	case 48000:
	case 512000:
		return (uint32_t)v;
	default:
		logging_event(LOG_PRI_INTERNAL_INFO,
		    "LIBSDB_CLIENT_COUNT_SUPPORT_SCALING_TYPE", nullptr,
		    "LIBSDB_CLIENT_COUNT_SUPPORT_SCALING_TYPE: Scaling type of "
		    "this platform is %d\n", (int)v);
		return 100;
	}
}

} // namespace

uint32_t sdb_scale_bucket_count(uint32_t clients, bool big_mem)
{
	int row = scale_row(clients);
	if (row == 0)
		return big_mem ? 500 : 50;
	return scale_table[row].bucket_count;
}

const sdb_scale &sdb_scale_get(void)
{
	static const sdb_scale s = [] {
		uint32_t clients = sdb_client_count();
		sdb_scale r = scale_table[scale_row(clients)];
		r.bucket_count = sdb_scale_bucket_count(clients, big_memory());
		return r;
	}();
	return s;
}

extern "C" bool sdb_platform_supported(void)
{
	static const bool v = platform_get_long("session_db", 1) != 0;
	return v;
}

/* The platform file lists no small systems: every platform that has the
 * database can replicate it. */
extern "C" bool sdb_replication_supported(void)
{
	return sdb_platform_supported();
}

extern "C" bool sdb_large_id_space(void)
{
	static const bool v = platform_get_long("large_id_space", 0) != 0;
	return v;
}

extern "C" uint32_t sdb_client_count(void)
{
	static const uint32_t v = compute_client_count();
	return v;
}

namespace {
constexpr const char *daemon_list[] = {
	"tolvard", "tessd", "cairnd", "nimbusd", "keel", "vellumd",
	"lanyardd", "dirgeld", "quillon-clientd", "quillon-serverd",
	"quillond", "tess-statsd", "mmdb_test", "harrowd",
};
}

bool sdb_program_in_daemon_list(const char *name)
{
	for (const char *d : daemon_list)
		if (strcmp(d, name) == 0)
			return true;
	return false;
}

std::string sdb_store_path(const char *abs)
{
	return tolvar::path(abs);
}
