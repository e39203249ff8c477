/* Address conversions of the mirror link. */
#include <orx/mirror_addr.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <string>

TEST(MirrorAddr, Ipv4RoundTrip)
{
	struct sockaddr_in sin = {};
	sin.sin_family = AF_INET;
	sin.sin_port = htons(32006);
	inet_pton(AF_INET, "10.99.0.2", &sin.sin_addr);
	mirror_addr *a = sock2bfdd(reinterpret_cast<struct sockaddr *>(&sin), sizeof(sin));
	EXPECT_EQ(a->ma_kind, MIRROR_ADDR_INET);
	EXPECT_EQ(a->ma_len, MIRROR_ADDR_LEN_INET);
	/* Two texts in one statement: each has its own buffer. */
	mirror_addr *b = mirror_addr_v4(htons(1), htonl(0x0A000001));
	const char *pa = mirror_addr_print(a);
	EXPECT_STREQ(mirror_addr_print(b), "10.0.0.1.1");
	EXPECT_STREQ(pa, "10.99.0.2.32006");
	free(b);

	socklen_t len;
	auto *back = reinterpret_cast<struct sockaddr_in *>(sock2unix(a, &len));
	ASSERT_EQ(len, sizeof(sin));
	EXPECT_EQ(back->sin_family, AF_INET);
	EXPECT_EQ(back->sin_port, sin.sin_port);
	EXPECT_EQ(back->sin_addr.s_addr, sin.sin_addr.s_addr);
	EXPECT_EQ(reinterpret_cast<uintptr_t>(back) % alignof(struct sockaddr_in6), 0u);
}

TEST(MirrorAddr, Ipv6AndComparison)
{
	struct sockaddr_in6 sin6 = {};
	sin6.sin6_family = AF_INET6;
	sin6.sin6_port = htons(1);
	sin6.sin6_scope_id = 3;
	inet_pton(AF_INET6, "fe80::1", &sin6.sin6_addr);
	mirror_addr *a = mirror_addr_copy(
	    sock2bfdd(reinterpret_cast<struct sockaddr *>(&sin6), sizeof(sin6)));
	EXPECT_EQ(a->ma_kind, MIRROR_ADDR_INET6);
	EXPECT_EQ(a->ma_addr4, 3u);
	EXPECT_STREQ(mirror_addr_print(a), "fe80::1.1");

	mirror_addr *b = mirror_addr_copy(a);
	setsockport(b, htons(2));
	EXPECT_TRUE(sockaddrcmp(a, b));	/* ports do not count */
	b->ma_addr6[15] = 2;
	EXPECT_FALSE(sockaddrcmp(a, b));

	mirror_addr *v4 = mirror_addr_v4(htons(1), htonl(INADDR_LOOPBACK));
	EXPECT_FALSE(sockaddrcmp(a, v4));
	free(a);
	free(b);
	free(v4);
}

TEST(MirrorAddr, TextsForOddAddresses)
{
	EXPECT_STREQ(mirror_addr_print(nullptr), "(null)");
	mirror_addr zero = {};
	EXPECT_STREQ(mirror_addr_print(&zero), "(invalid sockaddr)");
	zero.ma_kind = 77;
	EXPECT_STREQ(mirror_addr_print(&zero), "(unknown socktype)");
	mirror_addr *t = mirror_addr_text("local");
	EXPECT_STREQ(mirror_addr_print(t), "local");
	free(t);
	/* A family the helpers do not know gives an empty address, not a crash. */
	struct sockaddr sa = {};
	sa.sa_family = AF_UNIX;
	EXPECT_EQ(sock2bfdd(&sa, sizeof(sa))->ma_kind, 0);
	EXPECT_EQ(sock2bfdd(&sa, 1)->ma_kind, 0);
}
