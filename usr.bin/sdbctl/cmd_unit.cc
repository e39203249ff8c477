/*
 * sdbctl unit alloc type | release type number | dump type: the unit
 * pools of the main segment.  The type is 0 or "ifl" (logical interface
 * units) or 1 or "uid" (uids of the secondary tables).  A number is read
 * as UNIT_NUMBER is: its leading decimal digits.
 */
#include <cstdio>
#include <cstring>

#include <sdb/sdb.h>
#include <sdb/sdb_id.h>

#include "attach.h"
#include "engine.h"
#include "sdbctl.h"

namespace {

int usage(void)
{
	fprintf(stderr, "usage: sdbctl unit alloc [--force] type\n"
	    "       sdbctl unit release [--force] type number\n"
	    "       sdbctl unit dump type\n"
	    "type: 0 or ifl, 1 or uid\n");
	return SDBCTL_EXIT_USAGE;
}

int parse_type(const char *s)
{
	if (strcmp(s, "0") == 0 || strcmp(s, "ifl") == 0)
		return SDB_UNIT_IFL;
	if (strcmp(s, "1") == 0 || strcmp(s, "uid") == 0)
		return SDB_UNIT_UID;
	return -1;
}

/* The texts a session writer gives for the pool's codes. */
int report(const char *op, int rc)
{
	switch (rc) {
	case SDB_UNIT_ERR_EMPTY:
		fprintf(stderr, "sdbctl unit %s: Ran out of unit numbers\n", op);
		break;
	case SDB_UNIT_ERR_LOCK:
		fprintf(stderr, "sdbctl unit %s: Unit number lock failure\n", op);
		break;
	case SDB_UNIT_ERR_FREE:
		fprintf(stderr, "sdbctl unit %s: unit is not allocated\n", op);
		break;
	default:
		fprintf(stderr, "sdbctl unit %s: Unit pool error %d\n", op, rc);
		break;
	}
	return SDBCTL_EXIT_FAIL;
}

int run(const char *op, int type, const char *number)
{
	if (strcmp(op, "dump") == 0) {
		int rc = sdb_dump_pool(type);
		return rc == 0 ? 0 : report(op, rc);
	}
	if (strcmp(op, "alloc") == 0) {
		uint32_t n = 0;
		int rc = sdb_unit_allocate(&n, type);
		if (rc != 0)
			return report(op, rc);
		printf("%u\n", n);
		return 0;
	}
	uint32_t n = sdb_unit_number_parse(number);
	int rc = sdb_unit_release(n, type);
	return rc == 0 ? 0 : report(op, rc);
}

} // namespace

int sdbctl_unit(int argc, char **argv)
{
	bool force = sdbctl_take_flag(&argc, argv, "--force");
	if (argc < 3)
		return usage();
	const char *op = argv[1];
	bool release = strcmp(op, "release") == 0;
	if (!release && strcmp(op, "alloc") != 0 && strcmp(op, "dump") != 0)
		return usage();
	if (force && strcmp(op, "dump") == 0)
		return usage();
	if (argc != (release ? 4 : 3))
		return usage();
	int type = parse_type(argv[2]);
	if (type < 0)
		return usage();
	if (release && sdb_unit_number_parse(argv[3]) == SDB_UNIT_INVALID) {
		fprintf(stderr, "sdbctl unit release: not a unit number: %s\n",
		    argv[3]);
		return SDBCTL_EXIT_USAGE;
	}
	if (strcmp(op, "dump") != 0) {
		int rc = sdbctl_may_hand_out(release ? "unit release"
		    : "unit alloc", force);
		if (rc != 0)
			return rc;
	}
	keel_handle *h = sdbctl_attach("unit");
	if (h == nullptr)
		return SDBCTL_EXIT_FAIL;
	int rc = run(op, type, release ? argv[3] : nullptr);
	fflush(stdout);
	sdbctl_detach(h);
	return rc;
}
