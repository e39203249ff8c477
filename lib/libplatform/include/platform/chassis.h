/*
 * Chassis and routing engine queries.  They answer from the platform file
 * "<root>/etc/tolvar/platform", read afresh at every query so that a test
 * or the lab can change the role and send SIGHUP.  Lines are "key = value";
 * '#' starts a comment.  Keys and their defaults:
 *
 *   role                  master | standby | none        none
 *   master_reboot_pending 0 | 1                          0
 *   peer_address          address of the other engine    (none)
 *   local_address         own address on the link        (none)
 *   scale_class           100 | 8000 | 48000 | 512000    8000
 *   large_id_space        0 | 1                          0
 *   virtual_chassis       0 | 1                          0
 *   cluster               0 | 1                          0
 *   l3_ha                 0 | 1                          0
 *   redundancy_state      number, 2 is master (l3_ha)    (none: read fails)
 *   enhanced_bbe          0 | 1                          0
 *   session_db            0 | 1 (platform has one)       1
 *   maxsockbuf            bytes                          2097152
 *   installed_mem_512b    0 | 1                          0
 *
 * redundancy_state stands in for the routing socket's redundancy state of
 * an L3 HA system and is read only when l3_ha is set; keel reads role, so
 * the two must agree there.
 */
#ifndef PLATFORM_CHASSIS_H
#define PLATFORM_CHASSIS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PLATFORM_FILE_PATH "/etc/tolvar/platform"

/* Copy the value of key into buf; 0, or -1 when the key is not set. */
int platform_get(const char *key, char *buf, size_t size);
/* Numeric value of key, or dflt when it is missing or not a number. */
long platform_get_long(const char *key, long dflt);

void nmchassis_setup_capabilities(void);
int  nmchassis_cluster_is_enabled(void);
int  nmchassis_is_virtual_chassis(void);
/* True when this engine's role is master. */
int  nmchassis_is_generic_protocol_master(void);
int  mcontrol_re_is_master_reboot_pending(void);
int  mchassis_L3_ha_is_enabled(void);
/*
 * Stand-in for the routing socket's redundancy state query of an L3 HA
 * system: the value of "redundancy_state" into *state; 0, or -1 when the
 * read fails (key missing or not a number).  State 2 means master.
 */
int  platform_redundancy_state(uint32_t *state);
int  router_enhanced_bbe_support(void);

/* Subset of sysctlbyname(3) for the names the system reads:
 * "net.enhanced_bbe_mode", "kern.ipc.maxsockbuf", "hw.512binstalledmem". */
int  platform_sysctlbyname(const char *name, void *oldp, size_t *oldlenp);

/* Name of the other routing engine ("peer_address"), or NULL. */
const char *peer_re_name(void);

/*
 * Address of a routing engine on the internal network: a numeric IPv4
 * address or a host name, resolved through getaddrinfo(3).  Stores the
 * address in network order; 0, or an errno value.
 */
int  iri_gethostbyname(const char *name, uint32_t *addr_net);
/* Attach the internal security association sa_name to a socket.  Linux has
 * none; the call succeeds and does nothing. */
int  iri_set_sa(int fd, const char *sa_name);

#ifdef __cplusplus
}
#endif

#endif
