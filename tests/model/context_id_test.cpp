#include "RE_context_id.h"

#include "model/fake_syslog.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

namespace {

using bytes = std::vector<int>;

template <std::size_t Size>
bytes bytes_of(const unsigned char (&data)[Size])
{
    return bytes(data, data + Size);
}

// Returns the bytes of the MAC address in `text`, or none when `text` is invalid.
bytes parsed(const char* text)
{
    RE_mac_id id{};
    return id.set(text) ? bytes_of(id.m_data) : bytes{};
}

const RE_mac_id_t sample_mac{{0x00, 0x1b, 0x2c, 0xd3, 0xe4, 0xff}};

const RE_kav_peer_id_t sample_peer_id{
    {0x11, 0x22, 0x33, 0x44, 0x01, 0x00, 0x00, 0x0a, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x04, 0x80}};

const RE_mac_id near_mac(RE_mac_id_t{{0x01, 0x02, 0x03, 0x04, 0x05, 0x06}});
const RE_mac_id far_mac(RE_mac_id_t{{0x10, 0x20, 0x30, 0x40, 0x50, 0x60}});
const RE_param_id sample_param{{0xa1, 0xb2, 0xc3, 0xd4, 0xe5, 0xf6, 0x07, 0x18}};

class mac_id : public testing::Test
{
protected:
    mac_id() { fake_log.clear(); }
};

TEST_F(mac_id, parses_the_usual_text_and_gives_it_back)
{
    RE_mac_id id{};
    EXPECT_TRUE(id.set("aa:bb:cc:dd:ee:ff"));
    EXPECT_EQ(bytes_of(id.m_data), (bytes{0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}));
    EXPECT_EQ(id.getString(), "aa:bb:cc:dd:ee:ff");
    EXPECT_TRUE(fake_log.empty());
}

TEST_F(mac_id, accepts_upper_case_and_prints_lower_case)
{
    RE_mac_id id{};
    EXPECT_TRUE(id.set("0A:1B:2C:3D:4E:5F"));
    EXPECT_EQ(id.getString(), "0a:1b:2c:3d:4e:5f");
}

TEST_F(mac_id, prints_two_digits_for_small_bytes)
{
    EXPECT_EQ(RE_mac_id(sample_mac).getString(), "00:1b:2c:d3:e4:ff");
    EXPECT_EQ(RE_mac_id{}.getString(), "00:00:00:00:00:00");
}

TEST_F(mac_id, does_not_look_behind_the_sixth_group)
{
    EXPECT_EQ(parsed("aa:bb:cc:dd:ee:ff:gg and more"), (bytes{0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}));
    EXPECT_EQ(parsed("aa:bb:cc:dd:ee:ff1"), (bytes{0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}));
}

TEST_F(mac_id, takes_short_groups_when_the_text_is_long_enough)
{
    EXPECT_EQ(parsed("1:2:3:4:5:6 behind"), (bytes{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(parsed("aa:b:cc:d:ee:f   "), (bytes{0xaa, 0x0b, 0xcc, 0x0d, 0xee, 0x0f}));
}

TEST_F(mac_id, takes_blanks_before_a_group)
{
    EXPECT_EQ(parsed(" a: b: c: d: e: f"), (bytes{0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f}));
    EXPECT_EQ(parsed("aa:  bb:\tcc:dd:ee:ff"), (bytes{0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}));
}

TEST_F(mac_id, refuses_blanks_behind_a_group)
{
    EXPECT_EQ(parsed("aa :bb:cc:dd:ee:ff"), bytes{});
}

TEST_F(mac_id, takes_signs_and_keeps_the_low_byte)
{
    EXPECT_EQ(parsed("-1:+2:-3:+4:-a:+f"), (bytes{0xff, 0x02, 0xfd, 0x04, 0xf6, 0x0f}));
}

TEST_F(mac_id, refuses_a_sign_without_a_digit)
{
    EXPECT_EQ(parsed("-:bb:cc:dd:ee:ff:00"), bytes{});
}

TEST_F(mac_id, refuses_groups_of_three_digits)
{
    EXPECT_EQ(parsed("aaa:bb:cc:dd:ee:ff"), bytes{});
}

TEST_F(mac_id, refuses_other_separators)
{
    EXPECT_EQ(parsed("aa-bb-cc-dd-ee-ff"), bytes{});
    EXPECT_EQ(parsed("aabbccddeeff00112"), bytes{});
}

TEST_F(mac_id, refuses_fewer_than_six_groups)
{
    EXPECT_EQ(parsed("aa:bb:cc:dd:ee   "), bytes{});
    EXPECT_EQ(parsed("aa:bb:cc:dd:ee:  "), bytes{});
}

TEST_F(mac_id, reports_a_null_text)
{
    RE_mac_id id(sample_mac);
    EXPECT_FALSE(id.set(static_cast<const char*>(nullptr)));
    EXPECT_EQ(fake_log, (std::vector<fake_log_message>{{"comp/TCP/include/RE_context_id", 81, 1, 3, 690410,
                                                        "Invalid MAC address: NULL pointer for mac id string"}}));
    EXPECT_EQ(bytes_of(id.m_data), bytes_of(sample_mac.m_data)) << "a refused text changes nothing";
}

TEST_F(mac_id, reports_a_text_of_16_characters_by_its_length_without_scanning)
{
    RE_mac_id id(sample_mac);
    EXPECT_FALSE(id.set("a:bb:cc:dd:ee:ff")) << "the scan would take this one";
    EXPECT_EQ(fake_log,
              (std::vector<fake_log_message>{{"comp/TCP/include/RE_context_id", 86, 1, 3, 690410,
                                              "Invalid MAC address: Invalid mac id string:a:bb:cc:dd:ee:ff"}}));
    EXPECT_EQ(bytes_of(id.m_data), bytes_of(sample_mac.m_data));
}

TEST_F(mac_id, reports_an_empty_text_by_its_length)
{
    EXPECT_EQ(parsed(""), bytes{});
    EXPECT_EQ(fake_log, (std::vector<fake_log_message>{{"comp/TCP/include/RE_context_id", 86, 1, 3, 690410,
                                                        "Invalid MAC address: Invalid mac id string:"}}));
}

TEST_F(mac_id, reports_17_characters_with_a_group_that_is_not_hexadecimal_with_a_blank_before_the_text)
{
    RE_mac_id id(sample_mac);
    EXPECT_FALSE(id.set("aa:bb:cc:dd:ee:gg"));
    EXPECT_EQ(fake_log,
              (std::vector<fake_log_message>{{"comp/TCP/include/RE_context_id", 97, 1, 3, 690410,
                                              "Invalid MAC address: Invalid mac id string: aa:bb:cc:dd:ee:gg"}}));
    EXPECT_EQ(bytes_of(id.m_data), bytes_of(sample_mac.m_data)) << "not even the five groups that were read";
}

TEST_F(mac_id, reports_percent_signs_as_they_stand)
{
    EXPECT_EQ(parsed("%s%n%d%s%n%d%s%n%d"), bytes{});
    ASSERT_EQ(fake_log.size(), 1U);
    EXPECT_EQ(fake_log[0].text, "Invalid MAC address: Invalid mac id string: %s%n%d%s%n%d%s%n%d");
}

TEST_F(mac_id, is_made_from_bytes_from_a_record_and_from_text)
{
    const unsigned char raw[] = {0x00, 0x1b, 0x2c, 0xd3, 0xe4, 0xff};
    EXPECT_EQ(RE_mac_id(raw), RE_mac_id(sample_mac));
    EXPECT_EQ(RE_mac_id("00:1B:2C:D3:E4:FF"), RE_mac_id(sample_mac));
}

TEST_F(mac_id, made_from_text_that_is_none_is_zero_and_reported)
{
    EXPECT_EQ(bytes_of(RE_mac_id("no such address at all").m_data), (bytes{0, 0, 0, 0, 0, 0}));
    ASSERT_EQ(fake_log.size(), 1U);
    EXPECT_EQ(fake_log[0].line, 97);
}

TEST_F(mac_id, is_set_from_a_record)
{
    RE_mac_id id{};
    id.set(sample_mac);
    EXPECT_EQ(bytes_of(id.m_data), (bytes{0x00, 0x1b, 0x2c, 0xd3, 0xe4, 0xff}));
    id.set(id);
    EXPECT_EQ(bytes_of(id.m_data), (bytes{0x00, 0x1b, 0x2c, 0xd3, 0xe4, 0xff})) << "set from itself";
}

TEST_F(mac_id, hands_out_its_six_bytes)
{
    const RE_mac_id id(sample_mac);
    unsigned char copy[] = {9, 9, 9, 9, 9, 9, 9};
    id.copy_to(copy);
    EXPECT_EQ(bytes_of(copy), (bytes{0x00, 0x1b, 0x2c, 0xd3, 0xe4, 0xff, 9}));
    EXPECT_EQ(id.data(), id.m_data);
}

TEST_F(mac_id, compares_byte_by_byte_without_sign)
{
    const RE_mac_id low(RE_mac_id_t{{0, 0, 0, 0, 0, 0x7f}});
    const RE_mac_id high(RE_mac_id_t{{0, 0, 0, 0, 0, 0x80}});
    const RE_mac_id first_byte(RE_mac_id_t{{1, 0, 0, 0, 0, 0}});
    EXPECT_LT(low.compare(high), 0);
    EXPECT_GT(high.compare(low), 0);
    EXPECT_GT(first_byte.compare(high), 0);
    EXPECT_EQ(high.compare(high), 0);
    EXPECT_TRUE(high == RE_mac_id(high));
    EXPECT_FALSE(high == low);
}

TEST(kav_peer_id, prints_39_characters)
{
    const std::string text = RE_kav_peer_id(sample_peer_id).getString();
    EXPECT_EQ(text, "11:22:33:44:01:00-000a00020000-00000480");
    EXPECT_EQ(text.size(), 39U);
}

TEST(kav_peer_id, prints_lower_case)
{
    RE_kav_peer_id id{};
    std::memset(id.m_data, 0xAB, sizeof id.m_data);
    EXPECT_EQ(id.getString(), "ab:ab:ab:ab:ab:ab-abababababab-abababab");
}

// 44332211 ^ 0a000001 ^ 00000200 ^ 80040000 = ce372010
TEST(kav_peer_id, hashes_by_exclusive_or_of_its_little_endian_words)
{
    const RE_kav_peer_id id(sample_peer_id);
    EXPECT_EQ(id.hash_u32(), 0xce372010U);
    EXPECT_EQ(id.hash_u16(), 0x2010);
    EXPECT_EQ(RE_kav_peer_id{}.hash_u32(), 0U);
}

TEST(kav_peer_id, compares_byte_by_byte_without_sign)
{
    RE_kav_peer_id low{};
    RE_kav_peer_id high{};
    low.m_data[15] = 0x7f;
    high.m_data[15] = 0x80;
    EXPECT_LT(low.compare(high), 0);
    EXPECT_GT(high.compare(low), 0);
    EXPECT_EQ(low.compare(low), 0);
    EXPECT_TRUE(low == RE_kav_peer_id(low));
    EXPECT_FALSE(low == high);
    EXPECT_TRUE(low != high);
    EXPECT_FALSE(low != RE_kav_peer_id(low));
}

TEST(kav_peer_id, hands_out_its_sixteen_bytes)
{
    const RE_kav_peer_id id(sample_peer_id);
    unsigned char copy[17] = {};
    copy[16] = 9;
    id.copy_to(copy);
    EXPECT_EQ(bytes_of(copy), (bytes{0x11, 0x22, 0x33, 0x44, 0x01, 0x00, 0x00, 0x0a, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00,
                                     0x04, 0x80, 9}));
    EXPECT_EQ(id.data(), id.m_data);
}

TEST(context_id, holds_both_addresses_and_the_parameter)
{
    const RE_context_id context(near_mac, far_mac, sample_param);
    EXPECT_EQ(bytes_of(context.m_data), (bytes{0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x10, 0x20, 0x30, 0x40,
                                               0x50, 0x60, 0xa1, 0xb2, 0xc3, 0xd4, 0xe5, 0xf6, 0x07, 0x18}));
}

TEST(context_id, is_equal_only_in_every_byte)
{
    const RE_context_id context(near_mac, far_mac, sample_param);
    for (std::size_t at = 0; at < sizeof context.m_data; ++at) {
        RE_context_id other = context;
        EXPECT_TRUE(context == other);
        other.m_data[at] ^= 1U;
        EXPECT_FALSE(context == other) << "byte " << at;
    }
}

// 0201 ^ 0403 ^ 0605 ^ 2010 ^ 4030 ^ 6050 ^ b2a1 ^ d4c3 ^ f6e5 ^ 1807 = 88f7
TEST(context_id, has_the_exclusive_or_of_ten_words_as_its_number)
{
    const RE_context_id context(near_mac, far_mac, sample_param);
    EXPECT_EQ(context.hash(), 0x88f7);
    EXPECT_EQ(context.context_number(), 35063);
}

TEST(context_id, has_numbers_from_0_to_65535)
{
    RE_context_id context{};
    EXPECT_EQ(context.context_number(), 0);
    context.m_data[18] = 0xff;
    EXPECT_EQ(context.context_number(), 255);
    context.m_data[19] = 0xff;
    EXPECT_EQ(context.context_number(), 65535);
    context.m_data[0] = 0xff;
    context.m_data[1] = 0xff;
    EXPECT_EQ(context.context_number(), 0) << "equal words cancel each other";
}

// 04030201 ^ 20100605 ^ 60504030 ^ d4c3b2a1 ^ 1807f6e5 = 88870070
TEST(context_id, hashes_to_32_bits_by_exclusive_or_of_five_words)
{
    const RE_context_id context(near_mac, far_mac, sample_param);
    EXPECT_EQ(context.hash32(), 0x88870070U);
    EXPECT_EQ(RE_context_id{}.hash32(), 0U);
}

TEST(context_id, gives_the_other_address_of_a_known_one)
{
    const RE_context_id context(near_mac, far_mac, sample_param);
    RE_mac_id other{};
    EXPECT_TRUE(context.extract_mac_id(near_mac, other));
    EXPECT_EQ(other, far_mac);
    EXPECT_TRUE(context.extract_mac_id(far_mac, other));
    EXPECT_EQ(other, near_mac);
}

TEST(context_id, leaves_the_other_address_alone_when_it_knows_neither)
{
    const RE_context_id context(near_mac, far_mac, sample_param);
    RE_mac_id other(sample_mac);
    EXPECT_FALSE(context.extract_mac_id(RE_mac_id("aa:bb:cc:dd:ee:ff"), other));
    EXPECT_EQ(other, RE_mac_id(sample_mac));
}

TEST(context_id, gives_the_same_address_when_both_are_equal)
{
    const RE_context_id context(near_mac, near_mac, sample_param);
    RE_mac_id other{};
    EXPECT_TRUE(context.extract_mac_id(near_mac, other));
    EXPECT_EQ(other, near_mac);
}

TEST(context_id, may_put_the_other_address_where_the_known_one_was)
{
    const RE_context_id context(near_mac, far_mac, sample_param);
    RE_mac_id address = near_mac;
    EXPECT_TRUE(context.extract_mac_id(address, address));
    EXPECT_EQ(address, far_mac);
}

} // namespace
