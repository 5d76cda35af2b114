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

// Its words are 0x04d3c2b1, 0x0b0a0908, 0x4f4e4d4c and 0xaaaaaaaa. Their exclusive or is 0xea3d2c5f.
constexpr unsigned char mixed_bytes[16] = {0xb1, 0xc2, 0xd3, 0x04, 0x08, 0x09, 0x0a, 0x0b,
                                           0x4c, 0x4d, 0x4e, 0x4f, 0xaa, 0xaa, 0xaa, 0xaa};

RE_kav_peer_id mixed_peer()
{
    RE_kav_peer_id id;
    std::memcpy(id.m_data, mixed_bytes, sizeof mixed_bytes);
    return id;
}

} // namespace

TEST(top_app_filter, refuses_a_text_form_that_differs_in_any_one_character)
{
    const std::string text = "b1:c2:d3:04:08:09-0a0b4c4d4e4f-aaaaaaaa";
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::string other = text;
        other[i] = other[i] == 'x' ? 'y' : 'x';
        EXPECT_FALSE(is_matched(mixed_peer(), other)) << other;
    }
}

TEST(top_app_filter, matches_as_in_this_table)
{
    RE_kav_peer_id letters;
    std::memcpy(letters.m_data, "zbcdefghijklmnop", 16);
    const struct
    {
        RE_kav_peer_id peer;
        std::string text;
        bool b_matched;
    } cases[] = {
        // The text form matches only in lower case and as a whole.
        {mixed_peer(), "b1:c2:d3:04:08:09-0a0b4c4d4e4f-aaaaaaaa", true},
        {mixed_peer(), "B1:C2:D3:04:08:09-0A0B4C4D4E4F-AAAAAAAA", false},
        {mixed_peer(), "b1:c2:d3:04:08:09-0a0b4c4d4e4f-aaaaaaaa ", false},
        {mixed_peer(), "b1:c2:d3:04:08:09-0a0b4c4d4e4f-aaaaaaa", false},
        // In upper case, its leading digits are the hash 12.
        {peer_of_hash(12), "12:C2:D3:04:08:09-0A0B4C4D4E4F-AAAAAAAA", true},
        {peer_of_hash(13), "12:C2:D3:04:08:09-0A0B4C4D4E4F-AAAAAAAA", false},
        // Sixteen characters are the raw bytes.
        {letters, "zbcdefghijklmnop", true},
        {letters, "zbcdefghijklmnoP", false},
        {mixed_peer(), std::string(reinterpret_cast<const char*>(mixed_bytes), 16), true},
        // The 16-bit hash, 0x2c5f, and the 32-bit hash, 0xea3d2c5f
        {mixed_peer(), "11359", true},
        {mixed_peer(), "11360", false},
        {mixed_peer(), "3929877599", true},
        // Any number whose low bits are the 16-bit hash
        {peer_of_hash(4464), "70000", true},
        {peer_of_hash(70000), "70000", true},
        {peer_of_hash(70000), "4464", true},
        {peer_of_hash(4465), "70000", false},
        // Text that is not a number is hash 0.
        {peer_of_hash(0), "abc", true},
        {peer_of_hash(0x50000), "abc", true},
        {peer_of_hash(1), "abc", false},
        // A number of any length
        {peer_of_hash(7), "0000000000000007", true},
        {peer_of_hash(7), "000000000000000000000000000000000000007", true},
        {peer_of_hash(7), "  +7 and more", true},
        // Numbers are decimal.
        {peer_of_hash(10), "010", true},
        {peer_of_hash(8), "010", false},
        {peer_of_hash(0), "0x10", true},
        {peer_of_hash(16), "0x10", false},
        // Only the low bits of negative and saturated numbers are used.
        {peer_of_hash(0xffff), "-1", true},
        {peer_of_hash(0xffffffffU), "-1", true},
        {peer_of_hash(0xffffffffU), "99999999999999999999999", true},
        {peer_of_hash(0x10000), "-99999999999999999999999", true},
    };
    for (const auto& [peer, text, b_matched] : cases) {
        EXPECT_EQ(is_matched(peer, text), b_matched) << text;
    }
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
