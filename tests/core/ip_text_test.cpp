// Addresses as text.
#include "RE_ip.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

std::string reference(unsigned int ip)
{
    return std::to_string(ip >> 24U) + "." + std::to_string((ip >> 16U) & 255U) + "." +
           std::to_string((ip >> 8U) & 255U) + "." + std::to_string(ip & 255U);
}

} // namespace

TEST(ip_text, is_dotted_with_the_first_octet_most_significant)
{
    EXPECT_STREQ(ip_to_string(0x0a000102U), "10.0.1.2");
    EXPECT_STREQ(ip_to_string(0U), "0.0.0.0");
    EXPECT_STREQ(ip_to_string(0xffffffffU), "255.255.255.255");
}

TEST(ip_text, is_right_for_every_octet_in_every_place)
{
    for (unsigned int octet = 0; octet < 256; ++octet) {
        for (unsigned int shift = 0; shift < 32; shift += 8) {
            EXPECT_EQ(ip_to_string(octet << shift), reference(octet << shift));
        }
    }
}

TEST(ip_text, is_right_for_any_address)
{
    std::mt19937 random(7);
    for (int round = 0; round < 100000; ++round) {
        const auto ip = static_cast<unsigned int>(random());
        ASSERT_EQ(ip_to_string(ip), reference(ip));
    }
}

TEST(ip_text, of_two_addresses_may_stand_in_one_call)
{
    const char* const client = ip_to_string(0x0a000001U);
    const char* const server = ip_to_string(0xc0a8fefdU);
    EXPECT_STREQ(client, "10.0.0.1");
    EXPECT_STREQ(server, "192.168.254.253");
}
