/*
 * Address texts for the stores' readers and dumps.
 */
#include "platform/addr.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>

static_assert(PLATFORM_AF_INET6 != AF_INET6,
    "the platform's IPv6 number differs from the host's: map it");

extern "C" int platform_af_to_host(int family)
{
	switch (family) {
	case PLATFORM_AF_INET:
		return AF_INET;
	case PLATFORM_AF_INET6:
		return AF_INET6;
	default:
		return -1;
	}
}

extern "C" int platform_af_from_host(int host_family)
{
	switch (host_family) {
	case AF_INET:
		return PLATFORM_AF_INET;
	case AF_INET6:
		return PLATFORM_AF_INET6;
	default:
		return -1;
	}
}

extern "C" char *format_ipaddr(int family, const void *addr, int prefix,
    char *buf, size_t size)
{
	int af = platform_af_to_host(family);
	char text[INET6_ADDRSTRLEN];
	if (af < 0 || addr == nullptr || buf == nullptr ||
	    inet_ntop(af, addr, text, sizeof text) == nullptr)
		return nullptr;
	int n = prefix >= 0 ? snprintf(buf, size, "%s/%d", text, prefix) :
	    snprintf(buf, size, "%s", text);
	return n >= 0 && (size_t)n < size ? buf : nullptr;
}

extern "C" int parse_ipaddr(const char *text, int *family, void *addr,
    int *prefix)
{
	if (text == nullptr)
		return -1;
	char copy[INET6_ADDRSTRLEN + 8];
	size_t len = strlen(text);
	if (len >= sizeof copy)
		return -1;
	memcpy(copy, text, len + 1);
	int pfx = -1;
	if (char *slash = strchr(copy, '/')) {
		*slash = '\0';
		char *end;
		errno = 0;
		long v = strtol(slash + 1, &end, 10);
		if (slash[1] == '\0' || *end != '\0' || errno != 0 || v < 0 ||
		    v > 128)
			return -1;
		pfx = (int)v;
	}
	uint8_t raw[16] = {};
	int fam;
	if (inet_pton(AF_INET, copy, raw) == 1)
		fam = PLATFORM_AF_INET;
	else if (inet_pton(AF_INET6, copy, raw) == 1)
		fam = PLATFORM_AF_INET6;
	else
		return -1;
	if (fam == PLATFORM_AF_INET && pfx > 32)
		return -1;
	memcpy(addr, raw, fam == PLATFORM_AF_INET ? 4 : 16);
	*family = fam;
	*prefix = pfx;
	return 0;
}

extern "C" char *format_mac_addr(const uint8_t mac[6], char *buf, size_t size)
{
	if (mac == nullptr || buf == nullptr || size < PLATFORM_MAC_TEXT_LEN)
		return nullptr;
	snprintf(buf, size, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1],
	    mac[2], mac[3], mac[4], mac[5]);
	return buf;
}
