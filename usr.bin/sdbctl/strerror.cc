/*
 * sdbctl strerror CODE: the text of a library status code.
 */
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <sdb/sdb.h>

#include "sdbctl.h"

int sdbctl_strerror(int argc, char **argv)
{
	if (argc != 2) {
		fprintf(stderr, "usage: sdbctl strerror code\n");
		return SDBCTL_EXIT_USAGE;
	}
	char *end;
	errno = 0;
	long code = strtol(argv[1], &end, 10);
	if (errno != 0 || end == argv[1] || *end != '\0' || code < -2147483647L ||
	    code > 2147483647L) {
		fprintf(stderr, "sdbctl: not a status code: \"%s\"\n", argv[1]);
		return SDBCTL_EXIT_USAGE;
	}
	printf("%s\n", sdb_strerror((int)code));
	return 0;
}
