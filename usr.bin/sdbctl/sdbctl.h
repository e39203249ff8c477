/*
 * sdbctl: the operator's tool.  Each subcommand lives in its own file and
 * registers itself in the table of sdbctl.cc.
 */
#ifndef SDBCTL_H
#define SDBCTL_H

struct sdbctl_command {
	const char *name;
	const char *usage;	/* arguments, for the usage text */
	int (*run)(int argc, char **argv);	/* argv[0] is the subcommand */
};

/* Exit codes: 0 success, 1 failure of the operation, 2 bad usage. */
#define SDBCTL_EXIT_FAIL 1
#define SDBCTL_EXIT_USAGE 2
/* The barrier's other outcomes: answered without a standby, link lost. */
#define SDBCTL_EXIT_NO_STANDBY 3
#define SDBCTL_EXIT_LINK_LOST 4

#endif
