// Figures in the units that people read.
#include "format/units.h"

#include <gtest/gtest.h>

#include <limits>

using namespace kavstat;

TEST(units, sizes_are_in_powers_of_1024)
{
    EXPECT_EQ(size_text(0), "0 B");
    EXPECT_EQ(size_text(999), "999 B");
    EXPECT_EQ(size_text(1000), "1.0 KiB");
    EXPECT_EQ(size_text(1536), "1.5 KiB");
    EXPECT_EQ(size_text(5.0 * 1024 * 1024), "5.0 MiB");
    EXPECT_EQ(size_text(-2048), "-2.0 KiB");
    EXPECT_EQ(rate_text(2048), "2.0 KiB/s");
    EXPECT_EQ(rate_text(0), "-");
}

TEST(units, a_size_never_takes_more_than_nine_columns)
{
    EXPECT_EQ(size_text(999.9 * 1024), "999.9 KiB");
    EXPECT_EQ(size_text(999.96 * 1024), "1.0 MiB"); // not 1000.0 KiB
    EXPECT_EQ(size_text(9223372036854775807.0), "8.0 EiB");
}

TEST(units, counts_have_all_digits_as_long_as_they_are_few)
{
    EXPECT_EQ(count_text(0), "0");
    EXPECT_EQ(count_text(0.5), "0.5");
    EXPECT_EQ(count_text(99.95), "100.0");
    EXPECT_EQ(count_text(1234.56), "1235");
    EXPECT_EQ(count_text(9999999), "9999999");
    EXPECT_EQ(count_text(12345678), "1.23e+07");
    EXPECT_EQ(whole_text(std::numeric_limits<long long>::min()), "-9223372036854775808");
}

TEST(units, latencies_and_percent_are_as_in_the_reports)
{
    EXPECT_EQ(latency_text(1.2345), "1.234 ms"); // the binary fraction is a little smaller
    EXPECT_EQ(latency_text(std::numeric_limits<double>::quiet_NaN()), "-");
    EXPECT_EQ(percent_text(88.94), "88.9%");
}

TEST(units, ages_are_told_in_the_two_largest_units)
{
    EXPECT_EQ(age_text(0), "0s");
    EXPECT_EQ(age_text(59), "59s");
    EXPECT_EQ(age_text(11520), "3h12m");
    EXPECT_EQ(age_text(100000), "1d3h");
    EXPECT_EQ(age_text(3 * 86400 + 10), "3d10s");
    EXPECT_EQ(age_text(-5), "0s");
}

TEST(units, columns_are_characters_and_not_bytes)
{
    EXPECT_EQ(width_of("ab▁▂"), 4U);
    EXPECT_EQ(cut_to_width("ab▁▂▃", 4), "ab▁▂");
    EXPECT_EQ(cut_to_width("ab", 4), "ab");
    EXPECT_EQ(cut_to_width("▁", 0), "");
    EXPECT_EQ(padded("▁▂", 3), "▁▂ ");
    EXPECT_EQ(padded("12", 4, false), "  12");
    EXPECT_EQ(padded("12345", 4), "1234");
}

TEST(units, long_texts_are_broken_at_blanks)
{
    EXPECT_EQ(wrapped("look at the disk", 8), (std::vector<std::string>{"look at", "the disk"}));
    EXPECT_EQ(wrapped("look at the disk", 100), std::vector<std::string>{"look at the disk"});
    EXPECT_EQ(wrapped("exceptionally", 5), (std::vector<std::string>{"excep", "tiona", "lly"}));
    EXPECT_EQ(wrapped("", 5), std::vector<std::string>{});
    EXPECT_EQ(wrapped("ab cd", 2), (std::vector<std::string>{"ab", "cd"}));
}
