#include "RE_top_app_post_process.h"
#include "support/fake_reader.h"
#include "support/top_app_records.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

RE_stat_app_struct record_of(const RE_kav_peer_id& peer)
{
    RE_stat_app_struct record{};
    record.m_header.m_kav_peer_id = peer;
    return record;
}

bool is_matched(const RE_kav_peer_id& peer, std::string text)
{
    RE_stat_app_struct record = record_of(peer);
    return is_kav_peer_id_string_matched(record, text.data());
}

// Its words are 0x04d3c2b1, 0x0b0a0908, 0x4f4e4d4c and 0xaaaaaaaa; their exclusive-or is 0xea3d2c5f.
constexpr unsigned char mixed_bytes[16] = {0xb1, 0xc2, 0xd3, 0x04, 0x08, 0x09, 0x0a, 0x0b,
                                           0x4c, 0x4d, 0x4e, 0x4f, 0xaa, 0xaa, 0xaa, 0xaa};

RE_kav_peer_id mixed_peer()
{
    RE_kav_peer_id id;
    std::memcpy(id.m_data, mixed_bytes, sizeof mixed_bytes);
    return id;
}

} // namespace

TEST(top_app_filter, takes_the_text_form_in_lower_case)
{
    EXPECT_TRUE(is_matched(mixed_peer(), "b1:c2:d3:04:08:09-0a0b4c4d4e4f-aaaaaaaa"));
}

TEST(top_app_filter, refuses_a_text_form_that_differs_in_any_one_character)
{
    const std::string text = "b1:c2:d3:04:08:09-0a0b4c4d4e4f-aaaaaaaa";
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::string other = text;
        other[i] = other[i] == 'x' ? 'y' : 'x';
        EXPECT_FALSE(is_matched(mixed_peer(), other)) << other;
    }
}

TEST(top_app_filter, refuses_the_text_form_in_upper_case)
{
    EXPECT_FALSE(is_matched(mixed_peer(), "B1:C2:D3:04:08:09-0A0B4C4D4E4F-AAAAAAAA"));
}

TEST(top_app_filter, takes_the_leading_digits_of_a_text_form_in_upper_case_for_a_hash)
{
    // 32-bit hash 12, identity 0c:00:...; the text is another peer's.
    EXPECT_TRUE(is_matched(peer_of_hash(12), "12:C2:D3:04:08:09-0A0B4C4D4E4F-AAAAAAAA"));
    EXPECT_FALSE(is_matched(peer_of_hash(13), "12:C2:D3:04:08:09-0A0B4C4D4E4F-AAAAAAAA"));
}

TEST(top_app_filter, refuses_the_text_form_with_more_or_less_behind_it)
{
    EXPECT_FALSE(is_matched(mixed_peer(), "b1:c2:d3:04:08:09-0a0b4c4d4e4f-aaaaaaaa "));
    EXPECT_FALSE(is_matched(mixed_peer(), "b1:c2:d3:04:08:09-0a0b4c4d4e4f-aaaaaaa"));
}

TEST(top_app_filter, takes_sixteen_characters_for_the_raw_bytes)
{
    RE_kav_peer_id id;
    std::memcpy(id.m_data, "zbcdefghijklmnop", 16);
    EXPECT_TRUE(is_matched(id, "zbcdefghijklmnop"));
    EXPECT_FALSE(is_matched(id, "zbcdefghijklmnoP"));
    EXPECT_TRUE(is_matched(mixed_peer(), std::string(reinterpret_cast<const char*>(mixed_bytes), 16)));
}

TEST(top_app_filter, takes_the_sixteen_bit_hash)
{
    // 0x2c5f
    EXPECT_TRUE(is_matched(mixed_peer(), "11359"));
    EXPECT_FALSE(is_matched(mixed_peer(), "11360"));
}

TEST(top_app_filter, takes_the_thirty_two_bit_hash)
{
    // 0xea3d2c5f
    EXPECT_TRUE(is_matched(mixed_peer(), "3929877599"));
}

TEST(top_app_filter, takes_any_number_whose_low_bits_are_the_sixteen_bit_hash)
{
    EXPECT_TRUE(is_matched(peer_of_hash(4464), "70000"));
    EXPECT_TRUE(is_matched(peer_of_hash(70000), "70000"));
    EXPECT_TRUE(is_matched(peer_of_hash(70000), "4464"));
    EXPECT_FALSE(is_matched(peer_of_hash(4465), "70000"));
}

TEST(top_app_filter, takes_text_that_is_no_number_for_hash_zero)
{
    EXPECT_TRUE(is_matched(peer_of_hash(0), "abc"));
    EXPECT_TRUE(is_matched(peer_of_hash(0x50000), "abc"));
    EXPECT_FALSE(is_matched(peer_of_hash(1), "abc"));
}

TEST(top_app_filter, looks_at_the_number_whatever_the_length)
{
    EXPECT_TRUE(is_matched(peer_of_hash(7), "0000000000000007"));
    EXPECT_TRUE(is_matched(peer_of_hash(7), "000000000000000000000000000000000000007"));
    EXPECT_TRUE(is_matched(peer_of_hash(7), "  +7 and more"));
}

TEST(top_app_filter, takes_decimal_digits_alone)
{
    EXPECT_TRUE(is_matched(peer_of_hash(10), "010"));
    EXPECT_FALSE(is_matched(peer_of_hash(8), "010"));
    EXPECT_TRUE(is_matched(peer_of_hash(0), "0x10"));
    EXPECT_FALSE(is_matched(peer_of_hash(16), "0x10"));
}

TEST(top_app_filter, cuts_negative_and_saturated_numbers_to_their_low_bits)
{
    EXPECT_TRUE(is_matched(peer_of_hash(0xffff), "-1"));
    EXPECT_TRUE(is_matched(peer_of_hash(0xffffffffU), "-1"));
    EXPECT_TRUE(is_matched(peer_of_hash(0xffffffffU), "99999999999999999999999"));
    EXPECT_TRUE(is_matched(peer_of_hash(0x10000), "-99999999999999999999999"));
}

TEST(top_app_filter, keeps_every_record_without_a_text)
{
    std::vector<RE_stat_app_struct> kept;
    RE_stat_app_struct record = record_of(mixed_peer());
    char empty[] = "";
    EXPECT_EQ(output_of([&] { check_kav_peer_id_string_match_and_push_back(kept, record, empty, 3, false); }), "");
    EXPECT_EQ(kept.size(), 1U);
    EXPECT_EQ(std::memcmp(&kept[0], &record, sizeof record), 0);
}

TEST(top_app_filter, drops_other_peers_without_a_word_and_prints_kept_ones_with_their_own_number)
{
    std::vector<RE_stat_app_struct> kept;
    RE_stat_app_struct record = record_of(peer_of_hash(5));
    char text[] = "5";
    char other[] = "6";
    EXPECT_EQ(output_of([&] { check_kav_peer_id_string_match_and_push_back(kept, record, other, 3, true); }), "");
    EXPECT_TRUE(kept.empty());
    const std::string block =
        output_of([&] { check_kav_peer_id_string_match_and_push_back(kept, record, text, 3, true); });
    EXPECT_EQ(block.substr(0, 64), "App-Slot: 3, KAV_peer_id: 05:00:00:00:00:00-000000000000-0000000");
    EXPECT_EQ(kept.size(), 1U);
}
