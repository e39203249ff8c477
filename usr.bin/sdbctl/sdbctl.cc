#include "sdbctl.h"

#include <cstdio>
#include <cstring>

/*
 * Subcommands, one line each.  Add a command by defining its run function
 * in a file of its own and listing it here.
 */
int sdbctl_status(int argc, char **argv);
int sdbctl_strerror(int argc, char **argv);
int sdbctl_meminfo(int argc, char **argv);
int sdbctl_heap(int argc, char **argv);
int sdbctl_id(int argc, char **argv);
int sdbctl_unit(int argc, char **argv);
int sdbctl_barrier(int argc, char **argv);
int sdbctl_lts(int argc, char **argv);

static const sdbctl_command commands[] = {
	{"status", "", sdbctl_status},
	{"strerror", "code", sdbctl_strerror},
	{"meminfo", "", sdbctl_meminfo},
	{"heap", "file", sdbctl_heap},
	{"id", "show | generate [count]", sdbctl_id},
	{"unit", "alloc type | release type number | dump type", sdbctl_unit},
	{"barrier", "[-t seconds] [word ...]", sdbctl_barrier},
	{"lts", "stats [--json] | get SID [--raw] | check", sdbctl_lts},
	{nullptr, nullptr, nullptr},
};

static void usage(void)
{
	fprintf(stderr, "usage: sdbctl command [arguments]\n");
	for (const sdbctl_command *c = commands; c->name != nullptr; c++)
		fprintf(stderr, "       sdbctl %s %s\n", c->name, c->usage);
}

int main(int argc, char **argv)
{
	if (argc < 2) {
		usage();
		return SDBCTL_EXIT_USAGE;
	}
	for (const sdbctl_command *c = commands; c->name != nullptr; c++)
		if (strcmp(c->name, argv[1]) == 0)
			return c->run(argc - 1, argv + 1);
	fprintf(stderr, "sdbctl: unknown command \"%s\"\n", argv[1]);
	usage();
	return SDBCTL_EXIT_USAGE;
}
