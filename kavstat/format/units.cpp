#include "format/units.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace kavstat {

namespace {

std::string fixed(double value, int decimals, const char* ending = "")
{
    char text[400]; // room for the longest double without an exponent
    std::snprintf(text, sizeof text, "%.*f%s", decimals, value, ending);
    return text;
}

bool starts_character(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
}

} // namespace

std::string size_text(double bytes)
{
    static constexpr const char* endings[] = {" KiB", " MiB", " GiB", " TiB", " PiB", " EiB"};
    if (std::abs(bytes) < 1000) {
        return fixed(bytes, 0, " B");
    }
    std::size_t unit = 0;
    bytes /= 1024;
    // A value that would be rounded to 1000.0 gets the next unit.
    while (std::abs(bytes) >= 999.95 && unit + 1 < std::size(endings)) {
        bytes /= 1024;
        ++unit;
    }
    return fixed(bytes, 1, endings[unit]);
}

std::string rate_text(double bytes_per_second)
{
    return bytes_per_second > 0 ? size_text(bytes_per_second) + "/s" : no_figure;
}

std::string count_text(double count)
{
    if (std::abs(count) >= 1e7) {
        char text[32];
        std::snprintf(text, sizeof text, "%.2e", count);
        return text;
    }
    return fixed(count, std::abs(count) < 100 && count != std::floor(count) ? 1 : 0);
}

std::string whole_text(long long number)
{
    return std::to_string(number);
}

std::string percent_text(double percent)
{
    return fixed(percent, 1, "%");
}

std::string latency_text(double milliseconds)
{
    return std::isfinite(milliseconds) ? fixed(milliseconds, 3, " ms") : no_figure;
}

std::string age_text(long long seconds)
{
    static constexpr struct
    {
        long long length;
        char letter;
    } units[] = {{86400, 'd'}, {3600, 'h'}, {60, 'm'}, {1, 's'}};
    std::string text;
    int parts = 0;
    seconds = std::max(seconds, 0LL);
    for (const auto& unit : units) {
        const long long count = seconds / unit.length;
        seconds %= unit.length;
        if (count > 0 && parts < 2) {
            text += std::to_string(count) + unit.letter;
            ++parts;
        }
    }
    return text.empty() ? "0s" : text;
}

std::string time_of_day(std::time_t moment)
{
    char text[32];
    std::tm local{};
    const bool b_told =
        localtime_r(&moment, &local) != nullptr && std::strftime(text, sizeof text, "%H:%M:%S", &local) != 0;
    return b_told ? text : "?";
}

std::size_t width_of(const std::string& text)
{
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), starts_character));
}

std::string cut_to_width(const std::string& text, std::size_t width)
{
    std::size_t at = 0;
    for (std::size_t column = 0; at < text.size(); ++at) {
        if (starts_character(text[at]) && column++ == width) {
            break;
        }
    }
    return text.substr(0, at);
}

std::string padded(const std::string& text, std::size_t width, bool b_left)
{
    const std::string cut = cut_to_width(text, width);
    const std::string blanks(width - width_of(cut), ' ');
    return b_left ? cut + blanks : blanks + cut;
}

std::vector<std::string> wrapped(const std::string& text, std::size_t width)
{
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t end = std::min(at + width, text.size());
        if (end < text.size()) {
            const std::size_t blank = text.rfind(' ', end);
            end = blank != std::string::npos && blank > at ? blank : end;
        }
        lines.push_back(text.substr(at, end - at));
        at = text.find_first_not_of(' ', end);
    }
    return lines;
}

} // namespace kavstat
