// Figures as texts of few columns, and columns of text. Sizes are in powers of 1024 everywhere.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

namespace kavstat {

// Shown in place of an unknown figure.
inline constexpr const char* no_figure = "-";

// "999 B", "1.5 KiB": nine columns at most.
std::string size_text(double bytes);
// The same with "/s"; "-" for nothing.
std::string rate_text(double bytes_per_second);
// All digits up to seven of them, then "1.23e+07"; one decimal below 100 unless the number is whole.
std::string count_text(double count);
std::string whole_text(long long number);
std::string percent_text(double percent);
// Milliseconds: "1.234 ms"; "-" when it is not a number.
std::string latency_text(double milliseconds);
// The two largest units: "3d10s", "2h5m".
std::string age_text(long long seconds);
// "1 peer", "2 peers".
template <typename Count>
std::string plural_text(Count count, const std::string& thing)
{
    return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}
// "22:13:20"; "?" for a moment that no calendar holds.
std::string time_of_day(std::time_t moment);

// Columns that a text takes whose characters take one each.
std::size_t width_of(const std::string& text);
// The first `width` columns of it.
std::string cut_to_width(const std::string& text, std::size_t width);
// The same, filled up with blanks at the right or, with b_left false, at the left.
std::string padded(const std::string& text, std::size_t width, bool b_left = true);
// Lines of at most `width` columns, broken at blanks; nothing for an empty text. width: 1 at least.
std::vector<std::string> wrapped(const std::string& text, std::size_t width);

} // namespace kavstat
