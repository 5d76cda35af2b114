#include "history/times.h"

#include <charconv>
#include <limits>

namespace kavstat {

namespace {

// Removes a whole number from the text's beginning. Empty without digits, or when the number is too large.
std::optional<long long> take_number(std::string_view& text)
{
    long long number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || text.front() == '-') {
        return std::nullopt;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return number;
}

bool take(std::string_view& text, char letter)
{
    if (text.empty() || text.front() != letter) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

// Exactly so many digits.
std::optional<int> take_digits(std::string_view& text, std::size_t count)
{
    int number = 0;
    if (text.size() < count) {
        return std::nullopt;
    }
    for (std::size_t at = 0; at < count; ++at) {
        if (text[at] < '0' || text[at] > '9') {
            return std::nullopt;
        }
        number = number * 10 + (text[at] - '0');
    }
    text.remove_prefix(count);
    return number;
}

// "14:30" or "14:30:15", all that is left of the text.
bool read_time_of_day(std::string_view text, std::tm& date)
{
    const std::optional<int> hour = take_digits(text, text.find(':') == 1 ? 1 : 2);
    const std::optional<int> minute = hour && take(text, ':') ? take_digits(text, 2) : std::nullopt;
    std::optional<int> second = 0;
    if (minute && !text.empty()) {
        second = take(text, ':') ? take_digits(text, 2) : std::nullopt;
    }
    if (!minute || !second || !text.empty() || *hour > 23 || *minute > 59 || *second > 59) {
        return false;
    }
    date.tm_hour = *hour;
    date.tm_min = *minute;
    date.tm_sec = *second;
    return true;
}

// Empty when the day does not exist. A time that daylight saving time skips becomes the time an hour later or earlier.
std::optional<std::time_t> moment_of(std::tm date)
{
    const std::tm wanted = date;
    date.tm_isdst = -1;
    const std::time_t moment = std::mktime(&date);
    const bool b_same_day = date.tm_mday == wanted.tm_mday && date.tm_mon == wanted.tm_mon;
    return moment != -1 && b_same_day ? std::optional(moment) : std::nullopt;
}

std::optional<std::time_t> last_time_of_day(std::string_view text, std::time_t now)
{
    std::tm date{};
    if (localtime_r(&now, &date) == nullptr || !read_time_of_day(text, date)) {
        return std::nullopt;
    }
    const std::optional<std::time_t> today = moment_of(date);
    if (!today || *today <= now) {
        return today;
    }
    --date.tm_mday;
    date.tm_isdst = -1;
    const std::time_t yesterday = std::mktime(&date);
    return yesterday != -1 ? std::optional(yesterday) : std::nullopt;
}

std::optional<std::time_t> date_of(std::string_view text)
{
    std::tm date{};
    const std::optional<int> year = take_digits(text, 4);
    const std::optional<int> month = year && take(text, '-') ? take_digits(text, 2) : std::nullopt;
    const std::optional<int> day = month && take(text, '-') ? take_digits(text, 2) : std::nullopt;
    if (!day || *month < 1 || *month > 12 || *day < 1) {
        return std::nullopt;
    }
    date.tm_year = *year - 1900;
    date.tm_mon = *month - 1;
    date.tm_mday = *day;
    if (!text.empty() && ((!take(text, ' ') && !take(text, 'T')) || !read_time_of_day(text, date))) {
        return std::nullopt;
    }
    return moment_of(date);
}

} // namespace

std::optional<std::time_t> parse_moment(std::string_view text, std::time_t now)
{
    if (text == "now") {
        return now;
    }
    if (!text.empty() && text.front() == '-') {
        const std::optional<long long> ago = parse_duration(text.substr(1));
        return ago ? std::optional(now - *ago) : std::nullopt;
    }
    std::string_view rest = text;
    if (const std::optional<long long> number = take_number(rest); number && rest.empty()) {
        return *number;
    }
    return text.find('-') != std::string_view::npos ? date_of(text) : last_time_of_day(text, now);
}

std::optional<long long> parse_duration(std::string_view text)
{
    constexpr long long longest = 1000LL * 365 * 86400;
    long long seconds = 0;
    do {
        const std::optional<long long> number = take_number(text);
        long long unit = 0;
        switch (!number || text.empty() ? '\0' : text.front()) {
        case 's':
            unit = 1;
            break;
        case 'm':
            unit = 60;
            break;
        case 'h':
            unit = 3600;
            break;
        case 'd':
            unit = 86400;
            break;
        case 'w':
            unit = 7LL * 86400;
            break;
        case 'y':
            unit = 365LL * 86400;
            break;
        default:
            return std::nullopt;
        }
        if (*number > longest / unit) {
            return std::nullopt;
        }
        seconds += *number * unit;
        text.remove_prefix(1);
    } while (!text.empty());
    return seconds > 0 && seconds <= longest ? std::optional(seconds) : std::nullopt;
}

std::optional<long long> parse_size(std::string_view text)
{
    constexpr std::string_view units = "KMGT";
    const std::optional<long long> number = take_number(text);
    std::size_t shift = 0;
    if (const std::size_t unit = text.empty() ? std::string_view::npos : units.find(text.front());
        unit != std::string_view::npos) {
        shift = 10 * (unit + 1);
        text.remove_prefix(1);
    }
    if (!number || !text.empty() || *number > std::numeric_limits<long long>::max() >> shift) {
        return std::nullopt;
    }
    return *number << shift;
}

} // namespace kavstat
