// Moments and lengths of time as operators write them.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace kavstat {

// "-1h", "-1h30m" (before `now`), "now", "14:30" and "14:30:15" (the last time of day before `now`), "2026-11-20",
// "2026-11-20 14:30" and with seconds, also with "T" between, and seconds since the epoch. In the time zone of the
// environment.
std::optional<std::time_t> parse_moment(std::string_view text, std::time_t now);

// The forms of a moment, for error messages.
constexpr const char* moment_forms = "\"-1h\", \"14:30\", \"2026-11-20 14:30\" or seconds since the epoch";

// "90s", "1h30m", "2y": whole numbers with s, m (minutes), h, d, w and y (365 days). In seconds, more than 0.
std::optional<long long> parse_duration(std::string_view text);

// "500M", "2G": bytes, with K, M, G or T in powers of 1024.
std::optional<long long> parse_size(std::string_view text);

} // namespace kavstat
