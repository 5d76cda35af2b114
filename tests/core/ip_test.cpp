#include "RE_ip.h"

#include <gtest/gtest.h>

#include <string>

#include <arpa/inet.h>

namespace {

TEST(ip, an_address_survives_both_ways)
{
    EXPECT_EQ(string_to_ip("1.2.3.4"), 0x01020304U);
    EXPECT_STREQ(ip_to_string(0x01020304U), "1.2.3.4");
    EXPECT_EQ(string_to_ip("255.255.255.255"), 0xffffffffU);
    EXPECT_STREQ(ip_to_string(0xffffffffU), "255.255.255.255");
    EXPECT_EQ(string_to_ip("0.0.0.0"), 0U);
    EXPECT_STREQ(ip_to_string(0), "0.0.0.0");
    EXPECT_EQ(string_to_ip("192.168.0.10"), 0xc0a8000aU);
    EXPECT_STREQ(ip_to_string(0xc0a8000aU), "192.168.0.10");
}

TEST(ip, what_is_no_address_gives_0)
{
    for (const char* const text :
         {"",          " ",         "1",        "1.2",      "1.2.3",  "1.2.3.",    "1.2.3.4.",
          "1.2.3.4.5", "1.2.3.256", "1.2.3.-4", "+1.2.3.4", "1..2.3", ".1.2.3",    " 1.2.3.4",
          "1.2.3.4 ",  "0x1.2.3.4", "a.b.c.d",  "16909060", "::1",    "1.2.3.4\n", "1111111111.2.3.4",
          "1,2,3,4"}) {
        EXPECT_EQ(string_to_ip(text), 0U) << '"' << text << '"';
    }
    EXPECT_EQ(string_to_ip(nullptr), 0U);
    EXPECT_EQ(string_to_ip(std::string(100000, '1').c_str()), 0U);
}

TEST(ip, two_texts_may_be_used_at_once)
{
    const std::string both = std::string(ip_to_string(1)) + ip_to_string(2);
    const char* const first = ip_to_string(0x0a000001);
    const char* const second = ip_to_string(0x0a000002);
    EXPECT_STREQ(first, "10.0.0.1");
    EXPECT_STREQ(second, "10.0.0.2");
    EXPECT_EQ(both, "0.0.0.10.0.0.2");
}

bool is_martian(const char* text, int flag)
{
    return is_ip_martian(htonl(string_to_ip(text)), flag);
}

TEST(ip, addresses_that_no_host_has_are_martian)
{
    for (const int flag : {0, 1}) {
        for (const char* const text : {"0.0.0.0", "0.0.0.1", "0.255.255.255", "224.0.0.0", "224.0.0.1",
                                       "239.255.255.255", "240.0.0.1", "255.0.0.0", "255.255.255.255"}) {
            EXPECT_TRUE(is_martian(text, flag)) << text;
        }
        for (const char* const text : {"1.0.0.0", "1.2.3.4", "10.0.0.1", "126.255.255.255", "128.0.0.1", "169.254.1.1",
                                       "172.16.0.1", "192.168.1.1", "223.255.255.255"}) {
            EXPECT_FALSE(is_martian(text, flag)) << text;
        }
    }
}

TEST(ip, loopback_is_martian_when_a_user_typed_it)
{
    EXPECT_TRUE(is_martian("127.0.0.1", 1));
    EXPECT_TRUE(is_martian("127.255.255.255", 1));
    EXPECT_FALSE(is_martian("127.0.0.1", 0));
}

} // namespace
