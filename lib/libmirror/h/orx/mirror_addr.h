/*
 * Socket addresses as the mirror library keeps them, and their conversion
 * to and from system addresses.  The conversions are the daemon's
 * (usr.sbin/tolvard/mirrorlib_helper.cc), built into the mirror library.
 *
 * A mirror_addr starts with its total length and its kind; the port is in
 * network order.  Results of sock2unix() and sock2bfdd() live in a
 * 2048-byte scratch ring and stay valid only until it wraps: use them
 * at once or copy them.  The others are allocated and freed with free().
 */
#ifndef ORX_MIRROR_ADDR_H
#define ORX_MIRROR_ADDR_H

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#ifdef __cplusplus
extern "C" {
#endif

#define MIRROR_ADDR_INET	1
#define MIRROR_ADDR_INET6	6
#define MIRROR_ADDR_TEXT	50

typedef struct mirror_addr {
	uint8_t		ma_len;		/* total length */
	uint8_t		ma_kind;
	uint16_t	ma_port;	/* network order */
	uint32_t	ma_addr4;	/* IPv4 address; IPv6 scope id */
	uint32_t	ma_flowinfo;	/* IPv6 */
	uint8_t		ma_addr6[16];	/* IPv6 */
} mirror_addr;

#define MIRROR_ADDR_LEN_INET	8
#define MIRROR_ADDR_LEN_INET6	28

#ifdef __cplusplus
static_assert(offsetof(mirror_addr, ma_kind) == 1);
static_assert(offsetof(mirror_addr, ma_port) == 2);
static_assert(offsetof(mirror_addr, ma_addr4) == 4);
static_assert(offsetof(mirror_addr, ma_flowinfo) == 8);
static_assert(offsetof(mirror_addr, ma_addr6) == 12);
static_assert(sizeof(mirror_addr) == MIRROR_ADDR_LEN_INET6);
#endif

/* A system address in the scratch ring; NULL for a kind it cannot hold. */
struct sockaddr *sock2unix(const mirror_addr *addr, socklen_t *len);
/* A mirror_addr in the scratch ring, from as much of sa as len covers. */
mirror_addr *sock2bfdd(const struct sockaddr *sa, socklen_t len);
/* True when kind and address are equal; ports do not count. */
int sockaddrcmp(const mirror_addr *a, const mirror_addr *b);
void setsockport(mirror_addr *addr, uint16_t port_net);
/* Text in one of 10 rotating buffers. */
const char *mirror_addr_print(const mirror_addr *addr);
mirror_addr *mirror_addr_v4(uint16_t port_net, uint32_t addr_net);
mirror_addr *mirror_addr_text(const char *text);
mirror_addr *mirror_addr_copy(const mirror_addr *addr);

#ifdef __cplusplus
}
#endif

#endif
