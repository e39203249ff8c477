/*
 * Address texts.  Families are the platform's numbers: 2 for IPv4 and 28
 * for IPv6, which is not Linux's AF_INET6.  platform_af_to_host() is the
 * one place where the two meet.
 */
#ifndef PLATFORM_ADDR_H
#define PLATFORM_ADDR_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PLATFORM_AF_INET	2
#define PLATFORM_AF_INET6	28
#define PLATFORM_MAC_TEXT_LEN	18	/* "xx:xx:xx:xx:xx:xx" and NUL */

/* The host's family for a platform family, -1 for an unknown one. */
int platform_af_to_host(int family);
int platform_af_from_host(int host_family);

/*
 * Text of an address of `family` (4 or 16 bytes), with "/prefix" when
 * prefix >= 0.  buf, or null when the family is unknown or buf is short.
 */
char *format_ipaddr(int family, const void *addr, int prefix, char *buf,
    size_t size);
/*
 * "a.b.c.d[/n]" or an IPv6 text with an optional "/n".  0 with *family,
 * the address (16 bytes of room) and *prefix (-1 when absent); -1 on a
 * text that is not an address or a prefix beyond the family's width.
 */
int parse_ipaddr(const char *text, int *family, void *addr, int *prefix);
/* "xx:xx:xx:xx:xx:xx"; buf, or null when buf is short. */
char *format_mac_addr(const uint8_t mac[6], char *buf, size_t size);

#ifdef __cplusplus
}
#endif

#endif
