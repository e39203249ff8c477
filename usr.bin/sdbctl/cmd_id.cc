/*
 * sdbctl id show | generate [count]: the session id generator of the main
 * segment.  "show" prints the last id handed out; "generate" hands out
 * count new ids (1 by default), one per line, as a session create would.
 */
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sdb/sdb.h>
#include <sdb/sdb_id.h>

#include "attach.h"
#include "engine.h"
#include "sdbctl.h"

namespace {

int usage(void)
{
	fprintf(stderr, "usage: sdbctl id show\n"
	    "       sdbctl id generate [--force] [count]\n");
	return SDBCTL_EXIT_USAGE;
}

/* A count of 1 to 10000000; 0 for anything else. */
unsigned long parse_count(const char *s)
{
	char *end = nullptr;
	if (s[0] < '0' || s[0] > '9')
		return 0;
	unsigned long n = strtoul(s, &end, 10);
	if (*end != '\0' || n > 10000000)
		return 0;
	return n;
}

int generate(unsigned long count)
{
	for (unsigned long i = 0; i < count; i++) {
		uint64_t id = 0;
		int rc = sdb_id_generate(&id);
		if (rc != 0) {
			fprintf(stderr, "sdbctl id generate: %s (%d)\n",
			    sdb_strerror(rc), rc);
			return SDBCTL_EXIT_FAIL;
		}
		printf("%" PRIu64 "\n", id);
	}
	return 0;
}

} // namespace

int sdbctl_id(int argc, char **argv)
{
	unsigned long count = 1;
	bool force = sdbctl_take_flag(&argc, argv, "--force");
	if (argc < 2)
		return usage();
	bool show = strcmp(argv[1], "show") == 0;
	if (show) {
		if (argc != 2 || force)
			return usage();
	} else if (strcmp(argv[1], "generate") == 0) {
		int rc = sdbctl_may_hand_out("id generate", force);
		if (rc != 0)
			return rc;
		if (argc > 3)
			return usage();
		if (argc == 3 && (count = parse_count(argv[2])) == 0)
			return usage();
	} else {
		return usage();
	}
	keel_handle *h = sdbctl_attach("id");
	if (h == nullptr)
		return SDBCTL_EXIT_FAIL;
	int rc = 0;
	if (show)
		printf("%" PRIu64 "\n", sdb_id_get());
	else
		rc = generate(count);
	fflush(stdout);
	sdbctl_detach(h);
	return rc;
}
