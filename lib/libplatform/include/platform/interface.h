/*
 * Interface names and memory of the platform.
 *
 * parse_interface() splits a physical interface name into its FPC, PIC,
 * port and optional channel: "<media>-<fpc>/<pic>/<port>[:<channel>]
 * [.<unit>]", for example "xe-1/2/3:4", "ge-0/0/7", "lt-2/0/0".  Bundles
 * and pseudo interfaces, "ae<n>", "rlt<n>" and "ps<n>" (with an optional
 * ".<unit>"), give their number instead.
 *
 * The platform file (see chassis.h) may set:
 *
 *   max_ps_devices      highest ps interface number + 1     4096
 *   free_memory_bytes   free memory the kernel reports      (MemAvailable)
 */
#ifndef PLATFORM_INTERFACE_H
#define PLATFORM_INTERFACE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define INTERFACE_NO_CHANNEL	-1

enum interface_kind {
	INTERFACE_PHYSICAL = 0,	/* fpc, pic, port, channel */
	INTERFACE_AE = 1,	/* number */
	INTERFACE_RLT = 2,
	INTERFACE_PS = 3,
};

struct interface_info {
	int kind;
	int fpc;
	int pic;
	int port;
	int channel;		/* INTERFACE_NO_CHANNEL when none */
	int number;		/* ae, rlt and ps */
	char media[8];		/* "xe", "ge", "lt", ... */
};

/* 0, or -1 for a name of no known shape. */
int parse_interface(const char *name, struct interface_info *info);
/* Number of ps devices the platform supports. */
int interface_info_get_max_ps_devices(void);
/* Free memory of the system in bytes, as the kernel counts it. */
uint64_t platform_free_memory_bytes(void);

#ifdef __cplusplus
}
#endif

#endif
