#include "RE_value_format.h"

#include "RE_local_time.h"
#include "RE_row_writer.h"
#include "RE_viewer_reader.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

// The bounds of both get_data_size_str functions: a unit is used up to 100 of the next one.
constexpr long long bound_of_second_unit = 100LL << 10;
constexpr long long bound_of_third_unit = 100LL << 20;

// A ratio above 0 but below this is printed as "less than". The text says 0.01 anyway, and scripts rely on it.
constexpr float smallest_ratio = 0.0001F;

bool is_nearly_zero(float ratio)
{
    return ratio > 0.0F && ratio < smallest_ratio;
}

float reduction(long long in_bytes, long long out_bytes, bool b_encode)
{
    if (out_bytes <= 0 || in_bytes <= 0) {
        return 0.0F;
    }
    const float ratio = b_encode ? percentage(wrapping_difference(in_bytes, out_bytes), in_bytes)
                                 : percentage(wrapping_difference(out_bytes, in_bytes), out_bytes);
    return ratio < 0.0F ? 0.0F : ratio;
}

// Unlike the function above, one side of 0 gives a full reduction and not 0.
float reduction(unsigned long long in_bytes, unsigned long long out_bytes, bool b_encode)
{
    if (in_bytes == 0 && out_bytes == 0) {
        return 0.0F;
    }
    if (in_bytes == 0 || out_bytes == 0) {
        return 100.0F;
    }
    const unsigned long long large = b_encode ? in_bytes : out_bytes;
    const unsigned long long small = b_encode ? out_bytes : in_bytes;
    return large < small ? 0.0F : percentage(large - small, large);
}

constexpr int MIN_SEC = 60;
constexpr int HOUR_SEC = 60 * MIN_SEC;
constexpr int DAY_SEC = 24 * HOUR_SEC;

// Seconds from cache_time to now, in 32 bits like the engine's clocks. The difference is also correct after 2038.
int age_in_32_bits(long long cache_time)
{
    const auto now = static_cast<unsigned int>(std::time(nullptr));
    return static_cast<int>(now - static_cast<unsigned int>(cache_time));
}

} // namespace

std::string get_data_size_str(long long size)
{
    char buf[32];
    if (size > bound_of_third_unit) {
        std::snprintf(buf, sizeof buf, "%6d MB", low32(size >> 20));
    } else if (size > bound_of_second_unit) {
        std::snprintf(buf, sizeof buf, "%6d KB", low32(size >> 10));
    } else {
        std::snprintf(buf, sizeof buf, "%6d B", low32(size));
    }
    return buf;
}

std::string get_data_size_str(unsigned long long size_in_KB)
{
    char buf[32];
    return {buf, put_data_size(buf, size_in_KB)};
}

char* put_data_size(char* at, unsigned long long size_in_KB)
{
    const int unit = (size_in_KB > static_cast<unsigned long long>(bound_of_second_unit)) +
                     (size_in_KB > static_cast<unsigned long long>(bound_of_third_unit));
    at = put_unsigned_right(at, size_in_KB >> (10 * unit), 6);
    std::memcpy(at, &" KB MB GB"[3 * unit], 3);
    return at + 3;
}

std::string get_conn_byte_summary(long long size)
{
    char buf[32];
    return {buf, put_conn_byte_summary(buf, size)};
}

char* put_conn_byte_summary(char* at, long long size)
{
    // A processor cannot predict which unit a connection's bytes need, so there is no branch on it.
    const int unit = (size > 1LL << 10) + (size > 1LL << 20) + (size > 1LL << 30);
    at = put_number_right(at, low32(size >> (10 * unit)), 4);
    std::memcpy(at, &"B KBMBGB"[2 * unit], 2);
    return at + (unit == 0 ? 1 : 2);
}

const char* get_in_out_ratio_str(long long in_bytes, long long out_bytes, bool b_encode)
{
    static char buf[256];
    const float ratio = reduction(in_bytes, out_bytes, b_encode);
    const std::string in = get_data_size_str(in_bytes);
    const std::string out = get_data_size_str(out_bytes);
    if (is_nearly_zero(ratio)) {
        std::snprintf(buf, sizeof buf, "in: %s, out: %s, ratio: <0.01%%", in.c_str(), out.c_str());
    } else {
        std::snprintf(buf, sizeof buf, "in: %s, out: %s, ratio: %6.2f%%", in.c_str(), out.c_str(),
                      static_cast<double>(ratio));
    }
    return buf;
}

std::string get_in_out_ratio_str(unsigned long long in_bytes, unsigned long long out_bytes, bool b_encode)
{
    char buf[32];
    return {buf, put_in_out_ratio(buf, in_bytes, out_bytes, b_encode)};
}

// "%6.2f%%" of a ratio from 0 to 100. A single-precision number times a hundred is exact in double precision, so
// rounding it gives the same result as printf.
char* put_in_out_ratio(char* at, unsigned long long in_bytes, unsigned long long out_bytes, bool b_encode)
{
    const float ratio = reduction(in_bytes, out_bytes, b_encode);
    if (is_nearly_zero(ratio)) {
        return put_text(at, "<0.01%");
    }
    const auto hundredths = static_cast<int>(std::lrint(static_cast<double>(ratio) * 100.0));
    at = put_number_right(at, hundredths / 100, 3);
    at = put_char(at, '.');
    at = put_char(at, static_cast<char>('0' + hundredths / 10 % 10));
    at = put_char(at, static_cast<char>('0' + hundredths % 10));
    return put_char(at, '%');
}

const char* get_age_str(long long cache_time)
{
    static char buf[256];
    *put_age(buf, cache_time) = '\0';
    return buf;
}

char* put_age(char* at, long long cache_time)
{
    const auto append = [&at](int value, char unit) { at = put_char(put_number(at, value), unit); };

    int age_in_sec = cache_time > 0 ? age_in_32_bits(cache_time) : 0;
    if (age_in_sec < 0) {
        return put_text(at, "unknown (system clock has been changed)");
    }

    // The older the age, the fewer units it has, irregularly on purpose: "31d", "1d4h" and "5h" end there, but "2h5m7s"
    // and "1d30m5s" continue to seconds.
    int days = 0;
    if (age_in_sec >= DAY_SEC) {
        days = age_in_sec / DAY_SEC;
        append(days, 'd');
        if (days > 30) {
            return at;
        }
        age_in_sec %= DAY_SEC;
    }
    if (age_in_sec >= HOUR_SEC) {
        const int hours = age_in_sec / HOUR_SEC;
        append(hours, 'h');
        if (hours > 2 || days > 0) {
            return at;
        }
        age_in_sec %= HOUR_SEC;
    }
    if (age_in_sec >= MIN_SEC) {
        const int mins = age_in_sec / MIN_SEC;
        append(mins, 'm');
        age_in_sec %= MIN_SEC;
    }
    append(age_in_sec, 's');
    return at;
}

const char* get_time_str(int t)
{
    static char time_str[256];
    *put_time(time_str, t) = '\0';
    return time_str;
}

char* put_time(char* at, int t)
{
    std::tm local{};
    RE_local_time(t, local);
    // "%02d" of a field of the date or time.
    const auto put_two = [](char* to, int value) {
        return put_char(put_char(to, static_cast<char>('0' + value / 10)), static_cast<char>('0' + value % 10));
    };
    at = put_char(put_two(at, local.tm_mon + 1), '/');
    at = put_char(put_two(at, local.tm_mday), '/');
    at = put_char(put_number(at, local.tm_year + 1900), ' '); // 1901 to 2038, in any zone
    at = put_char(put_two(at, local.tm_hour), ':');
    at = put_char(put_two(at, local.tm_min), ':');
    return put_two(at, local.tm_sec);
}

void show_msg_size_dist(const RE_conn_slot& c, int first_id)
{
    constexpr int bucket_count = 6;
    long long total = 0;
    for (int k = 0; k < bucket_count; ++k) {
        total = wrapping_sum(total, c.get(first_id + k));
    }

    std::array<int, bucket_count> percent{};
    if (total != 0) {
        for (int k = 0; k < bucket_count; ++k) {
            percent[static_cast<std::size_t>(k)] = percent_of_total(c.get(first_id + k), total);
        }
    }
    std::printf("  Message size distribution:\n"
                "    0-1K=%d%%  1K-5K=%d%%  5K-15K=%d%%  15K-25K=%d%%  25K-40K=%d%%  >40K=%d%%\n",
                percent[0], percent[1], percent[2], percent[3], percent[4], percent[5]);
}
