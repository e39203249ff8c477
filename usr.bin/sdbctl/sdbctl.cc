#include "sdbctl.h"

#include <platform/process.h>

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
int sdbctl_sts(int argc, char **argv);
int sdbctl_limits(int argc, char **argv);
int sdbctl_fpc(int argc, char **argv);
int sdbctl_mmcq(int argc, char **argv);
int sdbctl_lts(int argc, char **argv);

static const sdbctl_command commands[] = {
	{"status", "[--json]", sdbctl_status},
	{"strerror", "code", sdbctl_strerror},
	{"meminfo", "", sdbctl_meminfo},
	{"heap", "file", sdbctl_heap},
	{"id", "show | generate [--force] [count]", sdbctl_id},
	{"unit", "alloc [--force] type | release [--force] type number | "
	    "dump type", sdbctl_unit},
	{"barrier", "[-t seconds] [word ...]", sdbctl_barrier},
	{"sts", "status | check | show SID [--json]", sdbctl_sts},
	{"limits", "show [--json] | check | set LEVEL KEY LIMIT | "
	    "count LEVEL KEY COUNT | dump", sdbctl_limits},
	{"fpc", "show [--json] [SLOT] | set SLOT FIELD VALUE", sdbctl_fpc},
	{"mmcq", "name [--json]", sdbctl_mmcq},
	{"lts", "stats [--json] | get SID [--raw] | check", sdbctl_lts},
	{nullptr, nullptr, nullptr},
};

static void usage(FILE *to)
{
	fprintf(to, "usage: sdbctl command [arguments]\n");
	for (const sdbctl_command *c = commands; c->name != nullptr; c++)
		fprintf(to, "       sdbctl %s %s\n", c->name, c->usage);
	fprintf(to, "       sdbctl command --help\n"
	    "       sdbctl --version\n");
}

static bool is_help(const char *arg)
{
	return strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0;
}

int main(int argc, char **argv)
{
	if (argc < 2) {
		usage(stderr);
		return SDBCTL_EXIT_USAGE;
	}
	if (argc == 2 && is_help(argv[1])) {
		usage(stdout);
		return 0;
	}
	if (argc == 2 && strcmp(argv[1], "--version") == 0) {
		show_daemon_version(1, 1, 0);
		return 0;
	}
	for (const sdbctl_command *c = commands; c->name != nullptr; c++) {
		if (strcmp(c->name, argv[1]) != 0)
			continue;
		/* Help is the same for every command: its line of the table. */
		if (argc == 3 && is_help(argv[2])) {
			printf("usage: sdbctl %s %s\n", c->name, c->usage);
			return 0;
		}
		return c->run(argc - 1, argv + 1);
	}
	fprintf(stderr, "sdbctl: unknown command \"%s\"\n", argv[1]);
	usage(stderr);
	return SDBCTL_EXIT_USAGE;
}
