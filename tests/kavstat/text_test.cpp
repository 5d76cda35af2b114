// Text from peers, cleaned for JSON, labels and screens.
#include "format/text.h"

#include <gtest/gtest.h>

using namespace kavstat;

using namespace std::string_literals;

TEST(text, a_fixed_array_ends_at_its_nul_or_at_its_end)
{
    const char with_nul[8] = {'a', 'b', '\0', 'c'};
    const char without[3] = {'a', 'b', 'c'};
    EXPECT_EQ(text_in(with_nul), "ab");
    EXPECT_EQ(text_in(without), "abc");
}

TEST(text, sound_text_stays_as_it_is)
{
    EXPECT_EQ(clean_text("branch-1.example.net"), "branch-1.example.net");
    EXPECT_EQ(clean_text("Zürich \xE2\x82\xAC \xF0\x9F\x98\x80"), "Zürich \xE2\x82\xAC \xF0\x9F\x98\x80");
}

TEST(text, control_characters_are_replaced)
{
    EXPECT_EQ(clean_text("a\x1B[2Jb"), "a\xEF\xBF\xBD[2Jb");
    EXPECT_EQ(clean_text("a\nb\x7F"), "a\xEF\xBF\xBD"
                                      "b\xEF\xBF\xBD");
    EXPECT_EQ(clean_text("\xC2\x9B"
                         "2J"),
              "\xEF\xBF\xBD"
              "2J"); // the single-character form of ESC [
    EXPECT_EQ(clean_text("a\xE2\x80\xAE"
                         "b"),
              "a\xEF\xBF\xBD"
              "b"); // right-to-left override
}

TEST(text, broken_utf_8_is_replaced_byte_by_byte)
{
    EXPECT_EQ(clean_text("\xFF"), "\xEF\xBF\xBD");
    EXPECT_EQ(clean_text("\xC3"), "\xEF\xBF\xBD");
    EXPECT_EQ(clean_text("\xC0\xAF"), "\xEF\xBF\xBD\xEF\xBF\xBD");                 // an overlong form of "/"
    EXPECT_EQ(clean_text("\xED\xA0\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"); // half a surrogate pair
    EXPECT_EQ(clean_text("\xF4\x90\x80\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(clean_text("\xE2\x82"
                         "a"),
              "\xEF\xBF\xBD\xEF\xBF\xBD"
              "a");
}

TEST(text, plain_text_has_one_printable_byte_for_each_byte)
{
    EXPECT_EQ(plain_text("a\x1B[2J\xC3\xBC~"), "a?[2J??~");
    EXPECT_EQ(plain_text("\0x"s), "?x");
}

TEST(text, labels_are_escaped)
{
    EXPECT_EQ(escaped_label("a\"b\\c\nd"), "a\\\"b\\\\c\\nd");
}
