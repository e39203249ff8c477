#include <gtest/gtest.h>

#include <sys/socket.h>

#include "platform/addr.h"

TEST(Addr, FamiliesMapBothWays)
{
	EXPECT_EQ(platform_af_to_host(PLATFORM_AF_INET6), AF_INET6);
	EXPECT_EQ(platform_af_from_host(AF_INET6), PLATFORM_AF_INET6);
	EXPECT_EQ(platform_af_to_host(AF_INET6), -1);	/* 10 is not ours */
	EXPECT_EQ(platform_af_to_host(PLATFORM_AF_INET), AF_INET);
}

TEST(Addr, FormatAndParseRoundTrip)
{
	char buf[64];
	const uint8_t v4[4] = {192, 0, 2, 7};
	EXPECT_STREQ(format_ipaddr(PLATFORM_AF_INET, v4, -1, buf, sizeof buf),
	    "192.0.2.7");
	uint8_t v6[16] = {0x20, 0x01, 0x0d, 0xb8};
	v6[15] = 1;
	EXPECT_STREQ(format_ipaddr(PLATFORM_AF_INET6, v6, 64, buf, sizeof buf),
	    "2001:db8::1/64");
	EXPECT_EQ(format_ipaddr(10, v6, -1, buf, sizeof buf), nullptr);
	EXPECT_EQ(format_ipaddr(PLATFORM_AF_INET6, v6, 64, buf, 8), nullptr);

	uint8_t out[16];
	int fam, pfx;
	ASSERT_EQ(parse_ipaddr("2001:db8::1/64", &fam, out, &pfx), 0);
	EXPECT_EQ(fam, PLATFORM_AF_INET6);
	EXPECT_EQ(pfx, 64);
	EXPECT_EQ(memcmp(out, v6, 16), 0);
	ASSERT_EQ(parse_ipaddr("192.0.2.7", &fam, out, &pfx), 0);
	EXPECT_EQ(fam, PLATFORM_AF_INET);
	EXPECT_EQ(pfx, -1);
	for (const char *bad : {"", "192.0.2.7/33", "::1/129", "::1/", "x",
	    "1.2.3.4/8x"})
		EXPECT_EQ(parse_ipaddr(bad, &fam, out, &pfx), -1) << bad;
}

TEST(Addr, MacText)
{
	const uint8_t mac[6] = {0, 0x1b, 0x2c, 0xff, 0x0a, 1};
	char buf[PLATFORM_MAC_TEXT_LEN];
	EXPECT_STREQ(format_mac_addr(mac, buf, sizeof buf), "00:1b:2c:ff:0a:01");
	EXPECT_EQ(format_mac_addr(mac, buf, 10), nullptr);
}
