// Text from peers must not control the terminal.
#include "RE_terminal_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

std::string filtered(const std::string& text, std::size_t piece = 1000)
{
    RE_terminal_filter filter;
    std::string result(text.size(), '\0');
    for (std::size_t at = 0; at < text.size(); at += piece) {
        filter.copy(text.data() + at, std::min(piece, text.size() - at), result.data() + at);
    }
    return result;
}

TEST(terminal_filter, leaves_text_as_it_is)
{
    EXPECT_EQ(filtered("Peer-No : 1\n\tbranch~\n"), "Peer-No : 1\n\tbranch~\n");
    // Characters of two, three and four bytes. The last bytes of the second and third look like control characters.
    const std::string characters = "\u00e9 \u011b \u26db \U0001f41b";
    EXPECT_EQ(filtered(characters), characters);
    EXPECT_EQ(filtered(characters, 1), characters) << "a byte at a time";
}

TEST(terminal_filter, shows_control_characters_as_question_marks)
{
    EXPECT_EQ(filtered("\x1b]0;title\x07"), "?]0;title?");
    EXPECT_EQ(filtered("a\rb\bc\x7f"), "a?b?c?");
    EXPECT_EQ(filtered(std::string(1, '\0')), "?");
}

TEST(terminal_filter, knows_the_upper_control_characters_in_either_form)
{
    EXPECT_EQ(filtered("\xc2\x9b"
                       "31m"),
              "\xc2?31m");
    EXPECT_EQ(filtered("\xc2\x9b"
                       "31m",
                       1),
              "\xc2?31m");
    EXPECT_EQ(filtered("\x9b"
                       "31m\x80\x9f\xa0"),
              "?31m??\xa0");
    EXPECT_EQ(filtered("\xc3\x1b\x9b"), "\xc3??") << "behind an unfinished character";
    EXPECT_EQ(filtered("\xe0\x82\x9b"), "\xe0??") << "written longer than it is";
    EXPECT_EQ(filtered("\xf0\x80\x82\x9b"), "\xf0???");
    EXPECT_EQ(filtered("\xc0\x9b\xf5\x9b"), "\xc0?\xf5?") << "behind what begins no character";
    EXPECT_EQ(filtered("\xe2\x9b\x9b\x9b"), "\xe2\x9b\x9b?") << "one more than the character has";
}

} // namespace
