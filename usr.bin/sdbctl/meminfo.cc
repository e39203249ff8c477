/*
 * sdbctl meminfo: the memory information table, read through a private
 * copy, one line per row.
 */
#include "sdbctl.h"

#include "mmf/meminfo.h"
#include "platform/paths.h"

#include <cinttypes>
#include <cstdio>
#include <sys/stat.h>

namespace {

void print_flags(uint32_t flags)
{
	printf("%s%s%s\n", flags & MEMINFO_FLAG_CORRUPT ? "corrupt" : "",
	    (flags & MEMINFO_FLAG_CORRUPT) && (flags & MEMINFO_FLAG_REFRESH) ?
	    "," : "", flags & MEMINFO_FLAG_REFRESH ? "refresh" :
	    (flags & MEMINFO_FLAG_CORRUPT) ? "" : "-");
}

void print_common(const char *type, const meminfo_common_t &c)
{
	printf("%-5s %-40s %12" PRIu64 " %12" PRIu64 " %12" PRIu64 " %10" PRIu64
	    " %9" PRIu64 " %10" PRIu64 " ", type, c.name, c.current_bytes,
	    c.max_bytes, c.mappable_bytes, c.lock_count, c.lock_contended,
	    c.lock_wait_us);
	print_flags(c.flags);
}

} // namespace

int sdbctl_meminfo(int argc, char **argv)
{
	(void)argv;
	if (argc != 1) {
		fprintf(stderr, "usage: sdbctl meminfo\n");
		return SDBCTL_EXIT_USAGE;
	}
	struct stat st;
	if (stat(tolvar::path(MEMINFO_PATH).c_str(), &st) != 0) {
		fprintf(stderr, "sdbctl: meminfo: no memory information table "
		    "(%s)\n", MEMINFO_PATH);
		return SDBCTL_EXIT_FAIL;
	}
	meminfo_reader_t *r = meminfo_reader_create();
	if (r == nullptr) {
		fprintf(stderr, "sdbctl: meminfo: cannot read the memory "
		    "information table\n");
		return SDBCTL_EXIT_FAIL;
	}
	const meminfo_header_t *h = meminfo_reader_header(r);
	printf("generation %u, %u rows, %" PRIu64 " changes, %u of %u bytes "
	    "free%s\n", h->generation, h->rows, h->change_count, h->free_bytes,
	    h->table_bytes, h->flags & MEMINFO_TABLE_CORRUPT ?
	    ", a store reported corruption" : "");
	printf("%-5s %-40s %12s %12s %12s %10s %9s %10s %s\n", "TYPE", "NAME",
	    "CURRENT", "MAX", "MAPPABLE", "LOCKS", "CONTENDED", "WAIT_US",
	    "FLAGS");
	meminfo_mmf_t f;
	while (meminfo_reader_next_mmf(r, &f))
		print_common("mmf", f.c);
	meminfo_mmdb_t d;
	while (meminfo_reader_next_mmdb(r, &d))
		print_common("mmdb", d.c);
	meminfo_shm_t s;
	while (meminfo_reader_next_shm(r, &s))
		print_common("shm", s);
	while (meminfo_reader_next_spare1(r, &s))
		print_common("type1", s);
	while (meminfo_reader_next_spare2(r, &s))
		print_common("type2", s);
	meminfo_reader_delete(r);
	return 0;
}
