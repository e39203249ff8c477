/*
 * mirrorlib_helper: the daemon's socket address helpers, which the mirror
 * link library is built with.
 *
 * The scratch ring: 2048 bytes allocated once, handed out in multiples of
 * 4 and aligned for a sockaddr_in6; an allocation that would run past the
 * end starts again at the beginning.  A result lives until the ring wraps.
 */
#include <orx/mirror_addr.h>

#include "mirror_host.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>

namespace {

constexpr size_t scratch_size = 2048;
alignas(16) unsigned char scratch[scratch_size];
size_t scratch_pos;

void *
scratch_alloc(size_t n)
{
	n = (n + 15) & ~static_cast<size_t>(15);	/* keeps every result aligned */
	mirror_assert(n <= scratch_size);
	if (scratch_pos + n > scratch_size)
		scratch_pos = 0;
	void *p = scratch + scratch_pos;
	scratch_pos += n;
	std::memset(p, 0, n);
	return p;
}

constexpr int print_slots = 10;
constexpr size_t print_len = 512;
char print_buf[print_slots][print_len];
int print_next;

} // namespace

extern "C" struct sockaddr *
sock2unix(const mirror_addr *addr, socklen_t *len)
{
	if (addr->ma_kind == MIRROR_ADDR_INET) {
		auto *sin = static_cast<struct sockaddr_in *>(scratch_alloc(sizeof(sockaddr_in)));
		sin->sin_family = AF_INET;
		sin->sin_port = addr->ma_port;
		sin->sin_addr.s_addr = addr->ma_addr4;
		*len = sizeof(*sin);
		return reinterpret_cast<struct sockaddr *>(sin);
	}
	/* Only our own code makes mirror_addrs: another kind is a bug. */
	mirror_assert(addr->ma_kind == MIRROR_ADDR_INET6);
	auto *sin6 = static_cast<struct sockaddr_in6 *>(scratch_alloc(sizeof(sockaddr_in6)));
	sin6->sin6_family = AF_INET6;
	sin6->sin6_port = addr->ma_port;
	sin6->sin6_scope_id = addr->ma_addr4;
	sin6->sin6_flowinfo = addr->ma_flowinfo;
	std::memcpy(&sin6->sin6_addr, addr->ma_addr6, 16);
	*len = sizeof(*sin6);
	return reinterpret_cast<struct sockaddr *>(sin6);
}

extern "C" mirror_addr *
sock2bfdd(const struct sockaddr *sa, socklen_t len)
{
	auto *a = static_cast<mirror_addr *>(scratch_alloc(sizeof(mirror_addr)));
	if (sa == nullptr || len < static_cast<socklen_t>(sizeof(sa_family_t)))
		return a;
	if (sa->sa_family == AF_INET) {
		struct sockaddr_in sin = {};
		std::memcpy(&sin, sa, std::min<size_t>(len, sizeof(sin)));
		a->ma_len = MIRROR_ADDR_LEN_INET;
		a->ma_kind = MIRROR_ADDR_INET;
		a->ma_port = sin.sin_port;
		a->ma_addr4 = sin.sin_addr.s_addr;
	} else if (sa->sa_family == AF_INET6) {
		struct sockaddr_in6 sin6 = {};
		std::memcpy(&sin6, sa, std::min<size_t>(len, sizeof(sin6)));
		a->ma_len = MIRROR_ADDR_LEN_INET6;
		a->ma_kind = MIRROR_ADDR_INET6;
		a->ma_port = sin6.sin6_port;
		a->ma_addr4 = sin6.sin6_scope_id;
		a->ma_flowinfo = sin6.sin6_flowinfo;
		std::memcpy(a->ma_addr6, &sin6.sin6_addr, 16);
	}
	return a;
}

extern "C" int
sockaddrcmp(const mirror_addr *a, const mirror_addr *b)
{
	if (a->ma_kind != b->ma_kind)
		return 0;
	switch (a->ma_kind) {
	case MIRROR_ADDR_INET:
		return a->ma_addr4 == b->ma_addr4;
	case MIRROR_ADDR_INET6:
		return std::memcmp(a->ma_addr6, b->ma_addr6, 16) == 0;
	case MIRROR_ADDR_TEXT:
		return std::strcmp(reinterpret_cast<const char *>(a) + 2,
		    reinterpret_cast<const char *>(b) + 2) == 0;
	}
	return 0;
}

extern "C" void
setsockport(mirror_addr *addr, uint16_t port_net)
{
	addr->ma_port = port_net;
}

extern "C" const char *
mirror_addr_print(const mirror_addr *addr)
{
	char *buf = print_buf[print_next];
	print_next = (print_next + 1) % print_slots;
	if (addr == nullptr) {
		snprintf(buf, print_len, "(null)");
		return buf;
	}
	char text[INET6_ADDRSTRLEN];
	switch (addr->ma_kind) {
	case MIRROR_ADDR_INET:
		inet_ntop(AF_INET, &addr->ma_addr4, text, sizeof(text));
		snprintf(buf, print_len, "%s.%u", text, ntohs(addr->ma_port));
		break;
	case MIRROR_ADDR_INET6:
		inet_ntop(AF_INET6, addr->ma_addr6, text, sizeof(text));
		snprintf(buf, print_len, "%s.%u", text, ntohs(addr->ma_port));
		break;
	case MIRROR_ADDR_TEXT:
		snprintf(buf, print_len, "%s", reinterpret_cast<const char *>(addr) + 2);
		break;
	case 0:
		snprintf(buf, print_len, "(invalid sockaddr)");
		break;
	default:
		snprintf(buf, print_len, "(unknown socktype)");
		break;
	}
	return buf;
}

extern "C" mirror_addr *
mirror_addr_v4(uint16_t port_net, uint32_t addr_net)
{
	auto *a = static_cast<mirror_addr *>(calloc(1, sizeof(mirror_addr)));
	if (a == nullptr)
		return nullptr;
	a->ma_len = MIRROR_ADDR_LEN_INET;
	a->ma_kind = MIRROR_ADDR_INET;
	a->ma_port = port_net;
	a->ma_addr4 = addr_net;
	return a;
}

extern "C" mirror_addr *
mirror_addr_text(const char *text)
{
	size_t n = std::min<size_t>(strlen(text), 255 - 3);
	/* Never smaller than a mirror_addr, so that every field can be read. */
	auto *a = static_cast<mirror_addr *>(calloc(1, std::max(sizeof(mirror_addr), n + 3)));
	if (a == nullptr)
		return nullptr;
	a->ma_len = static_cast<uint8_t>(n + 3);
	a->ma_kind = MIRROR_ADDR_TEXT;
	std::memcpy(reinterpret_cast<char *>(a) + 2, text, n);
	return a;
}

extern "C" mirror_addr *
mirror_addr_copy(const mirror_addr *addr)
{
	if (addr == nullptr)
		return nullptr;
	size_t n = std::max<size_t>(addr->ma_len, sizeof(mirror_addr));
	auto *a = static_cast<mirror_addr *>(calloc(1, n));
	if (a != nullptr)
		std::memcpy(a, addr, std::min<size_t>(addr->ma_len, n));
	return a;
}
