// The fields and rows of long tables, compared with the output of printf.
#include "RE_row_writer.h"
#include "RE_value_format.h"
#include "support/fake_reader.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace {

// Returns what `put` writes. It must start at the given place and not change the bytes before it.
template <typename Put>
std::string put_by(Put put)
{
    std::vector<char> memory(200, '#');
    char* const start = memory.data() + 50;
    const char* const end = put(start);
    EXPECT_EQ(std::string(memory.data(), 50), std::string(50, '#'));
    return std::string(static_cast<const char*>(start), end);
}

template <typename... Values>
std::string printed(const char* format, Values... values)
{
    char text[200];
// All formats of these tests are literals in this file.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::snprintf(text, sizeof text, format, values...);
#pragma GCC diagnostic pop
    return text;
}

std::vector<int> telling_numbers()
{
    std::vector<int> numbers = {0, -1, INT_MAX, INT_MIN, INT_MIN + 1};
    for (int power = 1; power <= 100000000; power *= 10) {
        for (const int number : {power - 1, power, power + 1}) {
            numbers.push_back(number);
            numbers.push_back(-number);
        }
    }
    std::mt19937 random(3);
    for (int round = 0; round < 20000; ++round) {
        const auto bits = static_cast<int>(random());
        numbers.push_back(bits >> (random() % 32));
    }
    return numbers;
}

} // namespace

TEST(row_field, puts_a_number_at_the_left_as_printf_does)
{
    for (const int number : telling_numbers()) {
        for (const int width : {0, 1, 5, 16}) {
            ASSERT_EQ(put_by([&](char* at) { return put_number_left(at, number, static_cast<std::size_t>(width)); }),
                      printed("%-*d", width, number));
        }
    }
}

TEST(row_field, puts_a_number_at_the_right_as_printf_does)
{
    for (const int number : telling_numbers()) {
        for (const int width : {0, 3, 4, 16}) {
            ASSERT_EQ(put_by([&](char* at) { return put_number_right(at, number, static_cast<std::size_t>(width)); }),
                      printed("%*d", width, number));
        }
    }
}

TEST(row_field, puts_an_unsigned_number_as_printf_does)
{
    std::mt19937_64 random(4);
    for (int round = 0; round < 20000; ++round) {
        const unsigned long long number = random() >> (random() % 64);
        ASSERT_EQ(put_by([number](char* at) { return put_unsigned(at, number); }), printed("%llu", number));
        for (const int width : {0, 6, 10, 16}) {
            ASSERT_EQ(put_by([&](char* at) { return put_unsigned_right(at, number, static_cast<std::size_t>(width)); }),
                      printed("%*llu", width, number));
        }
    }
    EXPECT_EQ(put_by([](char* at) { return put_unsigned(at, 18446744073709551615ULL); }), "18446744073709551615");
    EXPECT_EQ(put_by([](char* at) { return put_unsigned_right(at, 99999999, 10); }), "  99999999");
    EXPECT_EQ(put_by([](char* at) { return put_unsigned_right(at, 100000000, 10); }), " 100000000");
}

TEST(row_field, puts_any_ratio_as_printf_does)
{
    std::mt19937_64 random(6);
    for (int round = 0; round < 200000; ++round) {
        const unsigned long long large = (random() >> (random() % 64)) + 1;
        const unsigned long long small = large - random() % large;
        const float ratio = static_cast<float>(large - small) * 100.0F / static_cast<float>(large);
        const std::string expected =
            ratio > 0.0F && ratio < 0.0001F ? "<0.01%" : printed("%6.2f%%", static_cast<double>(ratio));
        ASSERT_EQ(put_by([&](char* at) { return put_in_out_ratio(at, large, small, true); }), expected)
            << large << " " << small;
    }
}

TEST(row_field, puts_text_at_the_left_as_printf_does)
{
    for (std::size_t length = 0; length < 40; ++length) {
        const std::string text(length, 'x');
        for (const int width : {0, 1, 15, 20}) {
            ASSERT_EQ(put_by([&](char* at) { return put_text_left(at, text, static_cast<std::size_t>(width)); }),
                      printed("%-*s", width, text.c_str()));
        }
    }
}

TEST(row_field, puts_text_at_the_right_as_printf_does)
{
    for (std::size_t length = 0; length < 40; ++length) {
        const std::string text(length, 'x');
        for (const int width : {0, 1, 15, 16}) {
            ASSERT_EQ(put_by([&](char* at) { return put_text_right(at, text, static_cast<std::size_t>(width)); }),
                      printed("%*s", width, text.c_str()));
        }
    }
}

TEST(row_field, never_cuts_what_is_wider_than_its_field)
{
    EXPECT_EQ(put_by([](char* at) { return put_number_left(at, -123456, 5); }), "-123456");
    EXPECT_EQ(put_by([](char* at) { return put_number_right(at, 1234, 3); }), "1234");
    EXPECT_EQ(put_by([](char* at) { return put_number_right(at, 12345, 3); }), "12345");
    EXPECT_EQ(put_by([](char* at) { return put_text_left(at, "12/31/2026 23:59:59", 10); }), "12/31/2026 23:59:59");
}

TEST(row_field, puts_characters_and_text_as_they_are)
{
    EXPECT_EQ(put_by([](char* at) { return put_char(at, ':'); }), ":");
    EXPECT_EQ(put_by([](char* at) { return put_text(at, "  C("); }), "  C(");
    EXPECT_EQ(put_by([](char* at) { return put_text(at, ""); }), "");
}

TEST(row_field, puts_any_byte_count_as_printf_does)
{
    std::mt19937_64 random(5);
    for (int round = 0; round < 100000; ++round) {
        const auto size = static_cast<long long>(random()) >> (random() % 64);
        const auto low = [](long long value) { return static_cast<int>(static_cast<unsigned int>(value)); };
        const std::string expected = size > 1073741824 ? printed("%4dGB", low(size / 1073741824))
                                     : size > 1048576  ? printed("%4dMB", low(size / 1048576))
                                     : size > 1024     ? printed("%4dKB", low(size / 1024))
                                                       : printed("%4dB", low(size));
        ASSERT_EQ(put_by([size](char* at) { return put_conn_byte_summary(at, size); }), expected) << size;
    }
}

TEST(row_writer, prints_its_rows_in_order_between_what_is_printed_before_and_after)
{
    const std::string output = output_of([] {
        std::printf("before\n");
        {
            RE_row_writer rows;
            rows.end_row(put_text(rows.begin_row(), "first\n"));
            rows.end_row(put_text(rows.begin_row(), "second\n"));
        }
        std::printf("after\n");
    });
    EXPECT_EQ(output, "before\nfirst\nsecond\nafter\n");
}

TEST(row_writer, prints_nothing_without_rows)
{
    EXPECT_EQ(output_of([] { [[maybe_unused]] RE_row_writer rows; }), "");
}

TEST(row_writer, keeps_every_row_whole_when_its_buffer_has_filled)
{
    constexpr int count = 20000;
    std::string expected;
    for (int row = 0; row < count; ++row) {
        expected += printed("%-5d|%7d|\n", row, -row);
    }
    const std::string output = output_of([] {
        RE_row_writer rows;
        for (int row = 0; row < count; ++row) {
            char* at = put_number_left(rows.begin_row(), row, 5);
            at = put_char(at, '|');
            at = put_number_right(at, -row, 7);
            rows.end_row(put_text(at, "|\n"));
        }
    });
    EXPECT_EQ(output, expected);
}

TEST(row_writer, has_room_for_the_longest_rows_one_behind_the_other)
{
    constexpr int count = 500;
    const std::string row(RE_row_writer::max_row - 1, 'r');
    std::string expected;
    for (int at = 0; at < count; ++at) {
        expected += row + "\n";
    }
    const std::string output = output_of([&row] {
        RE_row_writer rows;
        for (int at = 0; at < count; ++at) {
            rows.end_row(put_char(put_text(rows.begin_row(), row), '\n'));
        }
    });
    EXPECT_EQ(output, expected);
}

TEST(row_writer, takes_a_text_of_any_length_as_a_field_at_the_right)
{
    for (const std::size_t length : {std::size_t{0}, std::size_t{15}, std::size_t{16}, RE_row_writer::longest_text,
                                     RE_row_writer::longest_text + 1, std::size_t{1000000}}) {
        const std::string text(length, 't');
        const std::string field = length < 15 ? std::string(15 - length, ' ') + text : text;
        const std::string output = output_of([&text] {
            RE_row_writer rows;
            rows.end_row(put_text(rows.begin_row(), "before\n"));
            char* at = put_char(rows.begin_row(), '[');
            at = rows.put_any_text_right(at, text, 15);
            at = put_char(at, ':');
            at = rows.put_any_text_right(at, text, 15);
            rows.end_row(put_text(at, "]\n"));
            rows.end_row(put_text(rows.begin_row(), "after\n"));
        });
        ASSERT_EQ(output, "before\n[" + field + ":" + field + "]\nafter\n") << length;
    }
}
