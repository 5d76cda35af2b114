// Sizes, ratios, ages, times and the message-size histogram, as all reports show them.
#include "RE_value_format.h"
#include "support/fake_reader.h"

#include <climits>
#include <ctime>
#include <string>
#include <vector>

namespace {

// Ages are relative to 2001-09-09 01:46:40 UTC.
class value_format : public view_test
{
protected:
    static std::string ago(long long seconds) { return get_age_str(now - seconds); }

    // Returns the histogram of six counters with the ids 117 and up, without its heading.
    std::string histogram(const std::vector<long long>& counters)
    {
        const std::string heading = "  Message size distribution:\n    ";
        for (int at = 0; at < 6; ++at) {
            reader.global_conn_stats[117 + at] = counters[static_cast<std::size_t>(at)];
        }
        const std::string text = output_of([] { show_msg_size_dist(RE_global_conn_slot(), 117); });
        EXPECT_EQ(text.substr(0, heading.size()), heading);
        return text.size() < heading.size() ? "" : text.substr(heading.size());
    }
};

} // namespace

TEST_F(value_format, bytes_are_cut_to_a_unit_and_their_low_32_bits)
{
    const struct
    {
        long long size;
        const char* text;
    } cases[] = {
        {0, "     0 B"},
        {1, "     1 B"},
        {102400, "102400 B"},
        // Above 100 KB
        {102401, "   100 KB"},
        {103423, "   100 KB"},
        {103424, "   101 KB"},
        {104857600, "102400 KB"},
        // Above 100 MB
        {104857601, "   100 MB"},
        {105906175, "   100 MB"},
        {105906176, "   101 MB"},
        {1099511627776, "1048576 MB"},
        // Negative sizes are shown in bytes.
        {-1, "    -1 B"},
        {-200000, "-200000 B"},
        // Every unit shows the low 32 bits.
        {-4294967296 - 5, "    -5 B"},
        {LLONG_MIN, "     0 B"},
        {LLONG_MAX, "    -1 MB"},
        {1LL << 51, "-2147483648 MB"},
    };
    for (const auto& [size, text] : cases) {
        EXPECT_EQ(get_data_size_str(size), text) << size;
    }
}

TEST_F(value_format, kilobytes_are_cut_to_a_unit)
{
    const struct
    {
        unsigned long long size;
        const char* text;
    } cases[] = {
        {0, "     0 KB"},
        {102400, "102400 KB"},
        {102401, "   100 MB"},
        {104857600, "102400 MB"},
        {104857601, "   100 GB"},
        {ULLONG_MAX, "17592186044415 GB"},
        {1ULL << 63, "8796093022208 GB"},
    };
    for (const auto& [size, text] : cases) {
        EXPECT_EQ(get_data_size_str(size), text) << size;
    }
}

TEST_F(value_format, bytes_of_a_connection_change_units_above_1024_of_the_one_before)
{
    const struct
    {
        long long size;
        const char* text;
    } cases[] = {
        {0, "   0B"},
        {1024, "1024B"},
        {1025, "   1KB"},
        {2047, "   1KB"},
        {2048, "   2KB"},
        {1048576, "1024KB"},
        {1048577, "   1MB"},
        {1073741824, "1024MB"},
        {1073741825, "   1GB"},
        // Negative sizes are shown in bytes, and extreme sizes show their low 32 bits.
        {-1, "  -1B"},
        {-7, "  -7B"},
        {-1025, "-1025B"},
        {LLONG_MIN, "   0B"},
        {LLONG_MIN + 7, "   7B"},
        {LLONG_MAX, "  -1GB"},
        {-(1LL << 31), "-2147483648B"},
    };
    for (const auto& [size, text] : cases) {
        EXPECT_EQ(get_conn_byte_summary(size), text) << size;
    }
}

TEST_F(value_format, ratio_of_signed_sizes_comes_with_both)
{
    constexpr bool encode = true;
    constexpr bool decode = false;
    const struct
    {
        long long in;
        long long out;
        bool b_encode;
        const char* text;
    } cases[] = {
        // Encoding: the share of the input that was removed. Decoding: the share of the output that was not sent.
        {1000, 250, encode, "in:   1000 B, out:    250 B, ratio:  75.00%"},
        {250, 1000, decode, "in:    250 B, out:   1000 B, ratio:  75.00%"},
        {1, 200, decode, "in:      1 B, out:    200 B, ratio:  99.50%"},
        {200, 1, encode, "in:    200 B, out:      1 B, ratio:  99.50%"},
        {LLONG_MAX, 1, encode, "in:     -1 MB, out:      1 B, ratio: 100.00%"},
        // Expansion
        {250, 1000, encode, "in:    250 B, out:   1000 B, ratio:   0.00%"},
        {1000, 250, decode, "in:   1000 B, out:    250 B, ratio:   0.00%"},
        // One side is 0 or less
        {0, 250, encode, "in:      0 B, out:    250 B, ratio:   0.00%"},
        {0, 250, decode, "in:      0 B, out:    250 B, ratio:   0.00%"},
        {1000, 0, encode, "in:   1000 B, out:      0 B, ratio:   0.00%"},
        {1000, -1, encode, "in:   1000 B, out:     -1 B, ratio:   0.00%"},
        {LLONG_MIN, LLONG_MAX, decode, "in:      0 B, out:     -1 MB, ratio:   0.00%"},
        {LLONG_MAX, LLONG_MIN, encode, "in:     -1 MB, out:      0 B, ratio:   0.00%"},
        // Above 0 and below a ten-thousandth
        {100000000, 99999950, encode, "in:  97656 KB, out:  97656 KB, ratio: <0.01%"},
        {99999950, 100000000, decode, "in:  97656 KB, out:  97656 KB, ratio: <0.01%"},
        // Exactly a ten-thousandth, in single precision
        {1000000, 999999, encode, "in:    976 KB, out:    976 KB, ratio:   0.00%"},
        // 0.004, which rounds to 0 all the same, and 0.006
        {100000, 99996, encode, "in: 100000 B, out:  99996 B, ratio:   0.00%"},
        {100000, 99994, encode, "in: 100000 B, out:  99994 B, ratio:   0.01%"},
        // 0.005 is a little smaller in single precision and a little larger in double precision.
        {100000, 99995, encode, "in: 100000 B, out:  99995 B, ratio:   0.00%"},
    };
    for (const auto& [in, out, b_encode, text] : cases) {
        EXPECT_STREQ(get_in_out_ratio_str(in, out, b_encode), text);
    }
}

TEST_F(value_format, ratio_of_unsigned_sizes_is_the_percentage_alone)
{
    constexpr bool encode = true;
    constexpr bool decode = false;
    const struct
    {
        unsigned long long in;
        unsigned long long out;
        bool b_encode;
        const char* text;
    } cases[] = {
        {1000, 250, encode, " 75.00%"},
        {250, 1000, decode, " 75.00%"},
        // Both sides 0, and one
        {0, 0, encode, "  0.00%"},
        {0, 0, decode, "  0.00%"},
        {0, 250, encode, "100.00%"},
        {250, 0, encode, "100.00%"},
        {0, 250, decode, "100.00%"},
        {250, 0, decode, "100.00%"},
        // Expansion
        {250, 1000, encode, "  0.00%"},
        {1000, 250, decode, "  0.00%"},
        {7, 7, encode, "  0.00%"},
        // Above 0 and below a ten-thousandth, and exactly that
        {100000000, 99999950, encode, "<0.01%"},
        {99999950, 100000000, decode, "<0.01%"},
        {1000000, 999999, encode, "  0.00%"},
        // Single precision
        {100000, 99995, encode, "  0.00%"},
        // Above the signed range
        {ULLONG_MAX, 1ULL << 63, encode, " 50.00%"},
        {1ULL << 62, 1ULL << 63, decode, " 50.00%"},
        {ULLONG_MAX, 1, encode, "100.00%"},
    };
    for (const auto& [in, out, b_encode, text] : cases) {
        EXPECT_EQ(get_in_out_ratio_str(in, out, b_encode), text) << in << ' ' << out;
    }
}

TEST_F(value_format, age_thins_out_as_it_grows)
{
    constexpr long long hour = 3600;
    constexpr long long day = 24 * hour;
    const struct
    {
        long long seconds_ago;
        const char* text;
    } cases[] = {
        {0, "0s"},
        {59, "59s"},
        {60, "1m0s"},
        {3599, "59m59s"},
        // One or two hours are followed by minutes and seconds. Three hours or more are not.
        {hour, "1h0s"},
        {7384, "2h3m4s"},
        {2 * hour + 5 * 60 + 7, "2h5m7s"},
        {10799, "2h59m59s"},
        {10800, "3h"},
        {5 * hour + 59, "5h"},
        {86399, "23h"},
        // After a day, hours end the text, even if there are only one or two.
        {100000, "1d3h"},
        {day + 4 * hour + 59 * 60, "1d4h"},
        {day + hour + 5 * 60, "1d1h"},
        {day + 2 * hour + 59 * 60 + 59, "1d2h"},
        {31 * day - 1, "30d23h"},
        // Days without hours are followed by minutes and seconds.
        {day, "1d0s"},
        {3 * day + 10, "3d10s"},
        {day + 30 * 60 + 5, "1d30m5s"},
        // More than 30 days are shown alone.
        {31 * day, "31d"},
        {45 * day + 86399, "45d"},
        {-1, "unknown (system clock has been changed)"},
        {-day, "unknown (system clock has been changed)"},
        // The difference has 32 bits.
        {100 - (1LL << 32), "1m40s"},
        {100 + (1LL << 32), "0s"}, // before 1970, so unknown
    };
    for (const auto& [seconds_ago, text] : cases) {
        EXPECT_EQ(ago(seconds_ago), text) << seconds_ago;
    }
}

TEST_F(value_format, age_of_a_moment_that_is_not_known_is_0s)
{
    EXPECT_STREQ(get_age_str(0), "0s");
    EXPECT_STREQ(get_age_str(-1), "0s");
    EXPECT_STREQ(get_age_str(LLONG_MIN), "0s");
}

TEST_F(value_format, age_holds_across_the_end_of_32_bit_time)
{
    EXPECT_STREQ(get_age_str(LLONG_MAX), "11574d"); // its low 32 bits are -1: now + 1 seconds ago
    fake_engine::now = 2147483650;
    EXPECT_STREQ(get_age_str(2147483645), "5s");
    fake_engine::now = 3000000000;
    EXPECT_STREQ(get_age_str(1), "unknown (system clock has been changed)");
}

TEST_F(value_format, next_age_takes_the_same_buffer)
{
    const char* first = get_age_str(now - 45LL * 86400);
    EXPECT_EQ(get_age_str(now - 5), first);
    EXPECT_STREQ(first, "5s");
}

TEST_F(value_format, time_is_local_date_and_time_of_day_from_1901_to_2038)
{
    EXPECT_STREQ(get_time_str(1299506709), "03/07/2011 14:05:09");
    EXPECT_STREQ(get_time_str(0), "01/01/1970 00:00:00");
    EXPECT_STREQ(get_time_str(-1), "12/31/1969 23:59:59");
    EXPECT_STREQ(get_time_str(INT_MIN), "12/13/1901 20:45:52");
    EXPECT_STREQ(get_time_str(INT_MAX), "01/19/2038 03:14:07");
    use_zone("EST5");
    EXPECT_STREQ(get_time_str(1299506709), "03/07/2011 09:05:09");
}

TEST_F(value_format, histogram_shows_shares_cut_toward_0)
{
    const struct
    {
        std::vector<long long> counters;
        const char* text;
    } cases[] = {
        {{1, 2, 3, 4, 10, 30}, "0-1K=2%  1K-5K=4%  5K-15K=6%  15K-25K=8%  25K-40K=20%  >40K=60%\n"},
        // The shares need not add up to 100%.
        {{1, 1, 1, 0, 0, 0}, "0-1K=33%  1K-5K=33%  5K-15K=33%  15K-25K=0%  25K-40K=0%  >40K=0%\n"},
        // A total of 0
        {{0, 0, 0, 0, 0, 0}, "0-1K=0%  1K-5K=0%  5K-15K=0%  15K-25K=0%  25K-40K=0%  >40K=0%\n"},
        {{5, -5, 0, 0, 0, 0}, "0-1K=0%  1K-5K=0%  5K-15K=0%  15K-25K=0%  25K-40K=0%  >40K=0%\n"},
        // In a total of 2: 300/2, -100/2. In a total of -3: 100/-3, -400/-3.
        {{3, -1, 0, 0, 0, 0}, "0-1K=150%  1K-5K=-50%  5K-15K=0%  15K-25K=0%  25K-40K=0%  >40K=0%\n"},
        {{1, -4, 0, 0, 0, 0}, "0-1K=-33%  1K-5K=133%  5K-15K=0%  15K-25K=0%  25K-40K=0%  >40K=0%\n"},
        // Sums and products wrap: six times the largest counter is -6, and a hundred times it is -100.
        {{LLONG_MAX, LLONG_MAX, LLONG_MAX, LLONG_MAX, LLONG_MAX, LLONG_MAX},
         "0-1K=16%  1K-5K=16%  5K-15K=16%  15K-25K=16%  25K-40K=16%  >40K=16%\n"},
        // A total of -1. A hundred times 2^61 is the smallest number. Divided by -1, it does not fit.
        {{1LL << 61, -1 - (1LL << 61), 0, 0, 0, 0},
         "0-1K=0%  1K-5K=100%  5K-15K=0%  15K-25K=0%  25K-40K=0%  >40K=0%\n"},
    };
    for (const auto& [counters, text] : cases) {
        EXPECT_EQ(histogram(counters), text);
    }
}

TEST_F(value_format, histogram_reads_every_counter_for_the_total_and_again_for_its_share)
{
    reader.global_conn_stats[20] = 1;
    output_of([] { show_msg_size_dist(RE_global_conn_slot(), 20); });
    const std::vector<std::string> once = {"read_global_conn_stat 20", "read_global_conn_stat 21",
                                           "read_global_conn_stat 22", "read_global_conn_stat 23",
                                           "read_global_conn_stat 24", "read_global_conn_stat 25"};
    std::vector<std::string> twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    EXPECT_EQ(reader.calls, twice);
}

TEST_F(value_format, histogram_reads_once_when_the_total_is_0)
{
    output_of([] { show_msg_size_dist(RE_global_conn_slot(), 20); });
    EXPECT_EQ(reader.calls.size(), 6U);
}
