// Sizes, ratios, ages, times and the message-size histogram, as every report shows them.
#include "RE_value_format.h"
#include "cli/fake_reader.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace {

// Ages count from 2001-09-09 01:46:40 UTC.
constexpr std::time_t now = 1'000'000'000;

class age_text : public testing::Test
{
protected:
    void SetUp() override { fake_engine::now = now; }
    void TearDown() override { fake_engine::reset(); }
    static std::string ago(long long seconds) { return get_age_str(now - seconds); }
};

class time_text : public testing::Test
{
protected:
    void SetUp() override { use_zone("UTC0"); }
    void TearDown() override
    {
        unsetenv("TZ");
        tzset();
    }
    static void use_zone(const char* zone)
    {
        setenv("TZ", zone, 1);
        tzset();
    }
};

// The histogram of six counters from id 117 on.
std::string histogram(long long a, long long b, long long c, long long d, long long e, long long f)
{
    fake_reader reader;
    const reader_in_place in_place(reader);
    reader.global_conn_stats = {{117, a}, {118, b}, {119, c}, {120, d}, {121, e}, {122, f}};
    return output_of([] { show_msg_size_dist(RE_global_conn_slot(), 117); });
}

} // namespace

TEST(data_size, up_to_100_KB_is_in_bytes)
{
    EXPECT_EQ(get_data_size_str(0LL), "     0 B");
    EXPECT_EQ(get_data_size_str(1LL), "     1 B");
    EXPECT_EQ(get_data_size_str(102400LL), "102400 B");
}

TEST(data_size, above_100_KB_is_in_KB_cut)
{
    EXPECT_EQ(get_data_size_str(102401LL), "   100 KB");
    EXPECT_EQ(get_data_size_str(103423LL), "   100 KB");
    EXPECT_EQ(get_data_size_str(103424LL), "   101 KB");
    EXPECT_EQ(get_data_size_str(104857600LL), "102400 KB");
}

TEST(data_size, above_100_MB_is_in_MB_cut)
{
    EXPECT_EQ(get_data_size_str(104857601LL), "   100 MB");
    EXPECT_EQ(get_data_size_str(105906175LL), "   100 MB");
    EXPECT_EQ(get_data_size_str(105906176LL), "   101 MB");
    EXPECT_EQ(get_data_size_str(1099511627776LL), "1048576 MB");
}

TEST(data_size, negative_is_in_bytes)
{
    EXPECT_EQ(get_data_size_str(-1LL), "    -1 B");
    EXPECT_EQ(get_data_size_str(-200000LL), "-200000 B");
}

TEST(data_size, every_band_shows_the_low_32_bits)
{
    EXPECT_EQ(get_data_size_str(-4294967296LL - 5), "    -5 B");
    EXPECT_EQ(get_data_size_str(LLONG_MIN), "     0 B");
    EXPECT_EQ(get_data_size_str(LLONG_MAX), "    -1 MB");
    EXPECT_EQ(get_data_size_str(1LL << 51), "-2147483648 MB");
}

TEST(data_size, of_kilobytes_up_to_100_MB_is_in_KB)
{
    EXPECT_EQ(get_data_size_str(0ULL), "     0 KB");
    EXPECT_EQ(get_data_size_str(102400ULL), "102400 KB");
}

TEST(data_size, of_kilobytes_above_100_MB_is_in_MB_cut)
{
    EXPECT_EQ(get_data_size_str(102401ULL), "   100 MB");
    EXPECT_EQ(get_data_size_str(104857600ULL), "102400 MB");
}

TEST(data_size, of_kilobytes_above_100_GB_is_in_GB_cut)
{
    EXPECT_EQ(get_data_size_str(104857601ULL), "   100 GB");
    EXPECT_EQ(get_data_size_str(ULLONG_MAX), "17592186044415 GB");
    EXPECT_EQ(get_data_size_str(1ULL << 63), "8796093022208 GB");
}

TEST(byte_summary, unit_starts_above_1024_of_the_one_before)
{
    EXPECT_EQ(get_conn_byte_summary(0), "   0B");
    EXPECT_EQ(get_conn_byte_summary(1024), "1024B");
    EXPECT_EQ(get_conn_byte_summary(1025), "   1KB");
    EXPECT_EQ(get_conn_byte_summary(2047), "   1KB");
    EXPECT_EQ(get_conn_byte_summary(2048), "   2KB");
    EXPECT_EQ(get_conn_byte_summary(1048576), "1024KB");
    EXPECT_EQ(get_conn_byte_summary(1048577), "   1MB");
    EXPECT_EQ(get_conn_byte_summary(1073741824), "1024MB");
    EXPECT_EQ(get_conn_byte_summary(1073741825), "   1GB");
}

TEST(byte_summary, negative_is_in_bytes_and_extremes_show_their_low_32_bits)
{
    EXPECT_EQ(get_conn_byte_summary(-7), "  -7B");
    EXPECT_EQ(get_conn_byte_summary(LLONG_MIN), "   0B");
    EXPECT_EQ(get_conn_byte_summary(LLONG_MAX), "  -1GB");
}

TEST(signed_ratio, encoding_is_the_share_of_the_input_that_went)
{
    EXPECT_STREQ(get_in_out_ratio_str(1000LL, 250LL, true), "in:   1000 B, out:    250 B, ratio:  75.00%");
}

TEST(signed_ratio, decoding_is_the_share_of_the_output_that_was_not_sent)
{
    EXPECT_STREQ(get_in_out_ratio_str(250LL, 1000LL, false), "in:    250 B, out:   1000 B, ratio:  75.00%");
}

TEST(signed_ratio, of_sizes_of_1_counts)
{
    EXPECT_STREQ(get_in_out_ratio_str(1LL, 200LL, false), "in:      1 B, out:    200 B, ratio:  99.50%");
    EXPECT_STREQ(get_in_out_ratio_str(200LL, 1LL, true), "in:    200 B, out:      1 B, ratio:  99.50%");
}

TEST(signed_ratio, expansion_is_0)
{
    EXPECT_STREQ(get_in_out_ratio_str(250LL, 1000LL, true), "in:    250 B, out:   1000 B, ratio:   0.00%");
    EXPECT_STREQ(get_in_out_ratio_str(1000LL, 250LL, false), "in:   1000 B, out:    250 B, ratio:   0.00%");
}

TEST(signed_ratio, side_of_0_or_less_is_0)
{
    EXPECT_STREQ(get_in_out_ratio_str(0LL, 250LL, true), "in:      0 B, out:    250 B, ratio:   0.00%");
    EXPECT_STREQ(get_in_out_ratio_str(0LL, 250LL, false), "in:      0 B, out:    250 B, ratio:   0.00%");
    EXPECT_STREQ(get_in_out_ratio_str(1000LL, 0LL, true), "in:   1000 B, out:      0 B, ratio:   0.00%");
    EXPECT_STREQ(get_in_out_ratio_str(1000LL, -1LL, true), "in:   1000 B, out:     -1 B, ratio:   0.00%");
    EXPECT_STREQ(get_in_out_ratio_str(LLONG_MIN, LLONG_MAX, false), "in:      0 B, out:     -1 MB, ratio:   0.00%");
    EXPECT_STREQ(get_in_out_ratio_str(LLONG_MAX, LLONG_MIN, true), "in:     -1 MB, out:      0 B, ratio:   0.00%");
}

TEST(signed_ratio, above_0_and_below_a_ten_thousandth_is_told_as_less_than)
{
    EXPECT_STREQ(get_in_out_ratio_str(100000000LL, 99999950LL, true), "in:  97656 KB, out:  97656 KB, ratio: <0.01%");
    EXPECT_STREQ(get_in_out_ratio_str(99999950LL, 100000000LL, false), "in:  97656 KB, out:  97656 KB, ratio: <0.01%");
}

TEST(signed_ratio, from_a_ten_thousandth_on_is_printed_with_two_decimals)
{
    // Exactly a ten-thousandth, in single precision.
    EXPECT_STREQ(get_in_out_ratio_str(1000000LL, 999999LL, true), "in:    976 KB, out:    976 KB, ratio:   0.00%");
    // 0.004, which rounds to nothing all the same.
    EXPECT_STREQ(get_in_out_ratio_str(100000LL, 99996LL, true), "in: 100000 B, out:  99996 B, ratio:   0.00%");
    // 0.006
    EXPECT_STREQ(get_in_out_ratio_str(100000LL, 99994LL, true), "in: 100000 B, out:  99994 B, ratio:   0.01%");
}

TEST(signed_ratio, of_the_largest_counters_is_near_100)
{
    EXPECT_STREQ(get_in_out_ratio_str(LLONG_MAX, 1LL, true), "in:     -1 MB, out:      1 B, ratio: 100.00%");
}

TEST(signed_ratio, is_computed_in_single_precision)
{
    // 0.005, which single precision holds a little below and double precision a little above.
    EXPECT_STREQ(get_in_out_ratio_str(100000LL, 99995LL, true), "in: 100000 B, out:  99995 B, ratio:   0.00%");
}

TEST(unsigned_ratio, is_the_percentage_alone)
{
    EXPECT_EQ(get_in_out_ratio_str(1000ULL, 250ULL, true), " 75.00%");
    EXPECT_EQ(get_in_out_ratio_str(250ULL, 1000ULL, false), " 75.00%");
}

TEST(unsigned_ratio, both_sides_0_is_0)
{
    EXPECT_EQ(get_in_out_ratio_str(0ULL, 0ULL, true), "  0.00%");
    EXPECT_EQ(get_in_out_ratio_str(0ULL, 0ULL, false), "  0.00%");
}

TEST(unsigned_ratio, one_side_0_is_100)
{
    EXPECT_EQ(get_in_out_ratio_str(0ULL, 250ULL, true), "100.00%");
    EXPECT_EQ(get_in_out_ratio_str(250ULL, 0ULL, true), "100.00%");
    EXPECT_EQ(get_in_out_ratio_str(0ULL, 250ULL, false), "100.00%");
    EXPECT_EQ(get_in_out_ratio_str(250ULL, 0ULL, false), "100.00%");
}

TEST(unsigned_ratio, expansion_is_0)
{
    EXPECT_EQ(get_in_out_ratio_str(250ULL, 1000ULL, true), "  0.00%");
    EXPECT_EQ(get_in_out_ratio_str(1000ULL, 250ULL, false), "  0.00%");
    EXPECT_EQ(get_in_out_ratio_str(7ULL, 7ULL, true), "  0.00%");
}

TEST(unsigned_ratio, above_0_and_below_a_ten_thousandth_is_told_as_less_than)
{
    EXPECT_EQ(get_in_out_ratio_str(100000000ULL, 99999950ULL, true), "<0.01%");
    EXPECT_EQ(get_in_out_ratio_str(99999950ULL, 100000000ULL, false), "<0.01%");
    EXPECT_EQ(get_in_out_ratio_str(1000000ULL, 999999ULL, true), "  0.00%");
}

TEST(unsigned_ratio, is_computed_in_single_precision)
{
    EXPECT_EQ(get_in_out_ratio_str(100000ULL, 99995ULL, true), "  0.00%");
}

TEST(unsigned_ratio, holds_above_the_signed_range)
{
    EXPECT_EQ(get_in_out_ratio_str(ULLONG_MAX, 1ULL << 63, true), " 50.00%");
    EXPECT_EQ(get_in_out_ratio_str(1ULL << 62, 1ULL << 63, false), " 50.00%");
    EXPECT_EQ(get_in_out_ratio_str(ULLONG_MAX, 1ULL, true), "100.00%");
}

TEST_F(age_text, under_a_minute_is_seconds_alone)
{
    EXPECT_EQ(ago(0), "0s");
    EXPECT_EQ(ago(59), "59s");
}

TEST_F(age_text, minutes_are_followed_by_seconds)
{
    EXPECT_EQ(ago(60), "1m0s");
    EXPECT_EQ(ago(3599), "59m59s");
}

TEST_F(age_text, one_or_two_hours_are_followed_by_minutes_and_seconds)
{
    EXPECT_EQ(ago(3600), "1h0s");
    EXPECT_EQ(ago(7384), "2h3m4s");
    EXPECT_EQ(ago(2 * 3600 + 5 * 60 + 7), "2h5m7s");
    EXPECT_EQ(ago(10799), "2h59m59s");
}

TEST_F(age_text, three_hours_and_more_stand_alone)
{
    EXPECT_EQ(ago(10800), "3h");
    EXPECT_EQ(ago(5 * 3600 + 59), "5h");
    EXPECT_EQ(ago(86399), "23h");
}

TEST_F(age_text, days_are_followed_by_hours_when_there_are_any)
{
    EXPECT_EQ(ago(100000), "1d3h");
    EXPECT_EQ(ago(86400 + 4 * 3600 + 59 * 60), "1d4h");
    // One or two hours alone go on with minutes; behind a day, even a single one, they end the text.
    EXPECT_EQ(ago(86400 + 3600 + 5 * 60), "1d1h");
    EXPECT_EQ(ago(86400 + 2 * 3600 + 59 * 60 + 59), "1d2h");
    EXPECT_EQ(ago(31 * 86400 - 1), "30d23h");
}

TEST_F(age_text, days_without_an_hour_are_followed_by_minutes_and_seconds)
{
    EXPECT_EQ(ago(86400), "1d0s");
    EXPECT_EQ(ago(3 * 86400 + 10), "3d10s");
    EXPECT_EQ(ago(86400 + 30 * 60 + 5), "1d30m5s");
}

TEST_F(age_text, more_than_30_days_stand_alone)
{
    EXPECT_EQ(ago(31 * 86400), "31d");
    EXPECT_EQ(ago(45 * 86400 + 86399), "45d");
}

TEST_F(age_text, moment_that_is_not_known_is_0s)
{
    EXPECT_STREQ(get_age_str(0), "0s");
    EXPECT_STREQ(get_age_str(-1), "0s");
    EXPECT_STREQ(get_age_str(LLONG_MIN), "0s");
}

TEST_F(age_text, moment_in_the_future_is_unknown)
{
    EXPECT_EQ(ago(-1), "unknown (system clock has been changed)");
    EXPECT_EQ(ago(-86400), "unknown (system clock has been changed)");
}

TEST_F(age_text, subtracts_in_32_bits)
{
    EXPECT_EQ(ago(100 - (1LL << 32)), "1m40s");
    EXPECT_EQ(ago(100 + (1LL << 32)), "0s"); // before 1970, so not known
    // The low 32 bits are -1: now + 1 seconds ago.
    EXPECT_STREQ(get_age_str(LLONG_MAX), "11574d");
}

TEST_F(age_text, holds_across_the_end_of_32_bit_time)
{
    fake_engine::now = 2147483650;
    EXPECT_STREQ(get_age_str(2147483645), "5s");
    fake_engine::now = 3000000000;
    EXPECT_STREQ(get_age_str(1), "unknown (system clock has been changed)");
}

TEST_F(age_text, next_call_takes_the_same_buffer)
{
    const char* first = get_age_str(now - 45LL * 86400);
    EXPECT_EQ(get_age_str(now - 5), first);
    EXPECT_STREQ(first, "5s");
}

TEST_F(time_text, is_date_and_time_of_day)
{
    EXPECT_STREQ(get_time_str(1299506709), "03/07/2011 14:05:09");
    EXPECT_STREQ(get_time_str(0), "01/01/1970 00:00:00");
}

TEST_F(time_text, negative_moment_is_before_1970)
{
    EXPECT_STREQ(get_time_str(-1), "12/31/1969 23:59:59");
    EXPECT_STREQ(get_time_str(INT_MIN), "12/13/1901 20:45:52");
}

TEST_F(time_text, last_moment_of_32_bits_is_in_2038)
{
    EXPECT_STREQ(get_time_str(INT_MAX), "01/19/2038 03:14:07");
}

TEST_F(time_text, is_local_time)
{
    use_zone("EST5");
    EXPECT_STREQ(get_time_str(1299506709), "03/07/2011 09:05:09");
}

TEST(size_histogram, shares_are_cut_and_need_not_add_up)
{
    EXPECT_EQ(histogram(1, 1, 1, 0, 0, 0), "  Message size distribution:\n"
                                           "    0-1K=33%  1K-5K=33%  5K-15K=33%  15K-25K=0%  25K-40K=0%  >40K=0%\n");
}

TEST(size_histogram, shows_the_six_counters_in_order)
{
    EXPECT_EQ(histogram(1, 2, 3, 4, 10, 30), "  Message size distribution:\n"
                                             "    0-1K=2%  1K-5K=4%  5K-15K=6%  15K-25K=8%  25K-40K=20%  >40K=60%\n");
}

TEST(size_histogram, total_of_0_is_six_zeros)
{
    EXPECT_EQ(histogram(0, 0, 0, 0, 0, 0), "  Message size distribution:\n"
                                           "    0-1K=0%  1K-5K=0%  5K-15K=0%  15K-25K=0%  25K-40K=0%  >40K=0%\n");
    EXPECT_EQ(histogram(5, -5, 0, 0, 0, 0), "  Message size distribution:\n"
                                            "    0-1K=0%  1K-5K=0%  5K-15K=0%  15K-25K=0%  25K-40K=0%  >40K=0%\n");
}

TEST(size_histogram, negative_counters_divide_toward_0)
{
    // In a total of 2: 300/2, -100/2.
    EXPECT_EQ(histogram(3, -1, 0, 0, 0, 0), "  Message size distribution:\n"
                                            "    0-1K=150%  1K-5K=-50%  5K-15K=0%  15K-25K=0%  25K-40K=0%  >40K=0%\n");
    // In a total of -3: 100/-3, -400/-3.
    EXPECT_EQ(histogram(1, -4, 0, 0, 0, 0), "  Message size distribution:\n"
                                            "    0-1K=-33%  1K-5K=133%  5K-15K=0%  15K-25K=0%  25K-40K=0%  >40K=0%\n");
}

TEST(size_histogram, sums_and_products_wrap)
{
    // Six times the largest counter is -6, a hundred times it -100.
    EXPECT_EQ(histogram(LLONG_MAX, LLONG_MAX, LLONG_MAX, LLONG_MAX, LLONG_MAX, LLONG_MAX),
              "  Message size distribution:\n"
              "    0-1K=16%  1K-5K=16%  5K-15K=16%  15K-25K=16%  25K-40K=16%  >40K=16%\n");
    // A total of -1; a hundred times 2^61 is the smallest number, whose quotient by -1 does not fit.
    EXPECT_EQ(histogram(1LL << 61, -1 - (1LL << 61), 0, 0, 0, 0),
              "  Message size distribution:\n"
              "    0-1K=0%  1K-5K=100%  5K-15K=0%  15K-25K=0%  25K-40K=0%  >40K=0%\n");
}

TEST(size_histogram, reads_every_counter_for_the_total_and_again_for_its_share)
{
    fake_reader reader;
    const reader_in_place in_place(reader);
    reader.global_conn_stats[20] = 1;
    output_of([] { show_msg_size_dist(RE_global_conn_slot(), 20); });
    const std::vector<std::string> once = {"read_global_conn_stat 20", "read_global_conn_stat 21",
                                           "read_global_conn_stat 22", "read_global_conn_stat 23",
                                           "read_global_conn_stat 24", "read_global_conn_stat 25"};
    std::vector<std::string> twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    EXPECT_EQ(reader.calls, twice);
}

TEST(size_histogram, reads_once_when_the_total_is_0)
{
    fake_reader reader;
    const reader_in_place in_place(reader);
    output_of([] { show_msg_size_dist(RE_global_conn_slot(), 20); });
    EXPECT_EQ(reader.calls.size(), 6U);
}
