/*
 * sdbctl fpc show [--json] [SLOT] | set SLOT FIELD VALUE: the line card
 * table of the main segment.  set writes a field as the resource monitor
 * would, throttle included.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sdb/sdb.h>
#include <sdb/sdb_fpc.h>

#include "attach.h"
#include "sdbctl.h"

namespace {

const char *const fields[] = {"login_ok", "service_ok", "fpc_level",
    "refuse_reason", "sched_update_wanted"};

int usage(void)
{
	fprintf(stderr, "usage: sdbctl fpc show [--json] [SLOT]\n"
	    "       sdbctl fpc set SLOT FIELD VALUE\n"
	    "SLOT: 0 to 255; FIELD: login_ok, service_ok, fpc_level, "
	    "refuse_reason or sched_update_wanted; VALUE: 0 to 255\n");
	return SDBCTL_EXIT_USAGE;
}

bool number(const char *s, long max, long *out)
{
	char *end;
	if (s == nullptr || *s < '0' || *s > '9')
		return false;
	long v = strtol(s, &end, 10);
	if (*end != '\0' || v > max)
		return false;
	*out = v;
	return true;
}

bool normal(const sdb_fpc_entry &e)
{
	return e.login_ok && e.service_ok &&
	    e.fpc_level == SDB_FPC_LEVEL_NORMAL && e.logins_refused == 0 &&
	    e.services_refused == 0 && e.sched_update_wanted == 0;
}

void json_row(int slot, const sdb_fpc_entry &e, const char *sep)
{
	printf("%s\n  {\"slot\": %d, \"login_ok\": %u, \"service_ok\": %u, "
	    "\"fpc_level\": %u, \"refuse_reason\": %u, "
	    "\"sched_update_wanted\": %u, \"logins_refused\": %u, "
	    "\"services_refused\": %u}", sep, slot, e.login_ok, e.service_ok,
	    e.fpc_level, e.refuse_reason, e.sched_update_wanted,
	    e.logins_refused, e.services_refused);
}

int show(bool json, int only)
{
	sdb_fpc_entry *tab = sdb_fpc_table();
	sdb_fpc_counters *g = sdb_fpc_counters_ptr();
	uint8_t throttle = *sdb_fpc_throttle();
	int first = only >= 0 ? only : 0;
	int last = only >= 0 ? only : SDB_FPC_SLOTS - 1;
	if (json) {
		printf("{\"throttle\": %u, \"logins_refused_heap\": %u, "
		    "\"logins_refused_shared\": %u, \"services_refused_heap\": "
		    "%u, \"services_refused_shared\": %u, \"slots\": [",
		    throttle, g->logins_refused_heap, g->logins_refused_shared,
		    g->services_refused_heap, g->services_refused_shared);
		for (int i = first; i <= last; i++)
			json_row(i, tab[i], i == first ? "" : ",");
		printf("\n]}\n");
		return 0;
	}
	printf("throttle: %u\n", throttle);
	printf("refused for memory: logins %u heap, %u shared; services %u "
	    "heap, %u shared\n", g->logins_refused_heap,
	    g->logins_refused_shared, g->services_refused_heap,
	    g->services_refused_shared);
	printf("%-4s %5s %7s %5s %6s %5s %14s %16s\n", "slot", "login",
	    "service", "level", "reason", "sched", "logins_refused",
	    "services_refused");
	int quiet = 0;
	for (int i = first; i <= last; i++) {
		const sdb_fpc_entry &e = tab[i];
		if (only < 0 && normal(e)) {
			quiet++;
			continue;
		}
		printf("%-4d %5u %7u %5u %6u %5u %14u %16u\n", i, e.login_ok,
		    e.service_ok, e.fpc_level, e.refuse_reason,
		    e.sched_update_wanted, e.logins_refused, e.services_refused);
	}
	if (quiet != 0)
		printf("%d other line cards normal, nothing refused\n", quiet);
	return 0;
}

} // namespace

int sdbctl_fpc(int argc, char **argv)
{
	if (argc < 2)
		return usage();
	bool set = strcmp(argv[1], "set") == 0;
	bool json = false;
	long slot = -1, value = 0;
	if (set) {
		bool known = false;
		for (const char *f : fields)
			known |= argc == 5 && strcmp(argv[3], f) == 0;
		if (!known || !number(argv[2], SDB_FPC_SLOTS - 1, &slot) ||
		    !number(argv[4], 255, &value))
			return usage();
	} else if (strcmp(argv[1], "show") == 0) {
		for (int i = 2; i < argc; i++) {
			if (strcmp(argv[i], "--json") == 0 && !json)
				json = true;
			else if (slot < 0 &&
			    number(argv[i], SDB_FPC_SLOTS - 1, &slot))
				continue;
			else
				return usage();
		}
	} else {
		return usage();
	}
	keel_handle *h = sdbctl_attach("fpc");
	if (h == nullptr)
		return SDBCTL_EXIT_FAIL;
	int rc = 0;
	if (set) {
		int r = sdb_fpc_field_set((uint32_t)slot, argv[3], (uint32_t)value);
		if (r != 0) {
			fprintf(stderr, "sdbctl fpc set: %s (%d)\n",
			    sdb_strerror(r), r);
			rc = SDBCTL_EXIT_FAIL;
		}
	} else {
		rc = show(json, (int)slot);
	}
	fflush(stdout);
	sdbctl_detach(h);
	return rc;
}
