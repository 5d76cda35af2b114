// Makes text from an image or from a peer safe for its destination. An image may contain any bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

namespace kavstat {

// The text in a fixed array: up to its NUL, or the array's end when it has none.
template <std::size_t Size>
std::string_view text_in(const char (&array)[Size])
{
    const std::string_view all(array, Size);
    return all.substr(0, all.find('\0'));
}

// Returns valid UTF-8 without control characters: every byte that is not part of a character, every control character
// and every character that reorders or hides others on a screen is replaced by U+FFFD.
std::string clean_text(std::string_view text);

// Returns printable ASCII only, one column per byte, for screens and tables; other bytes are replaced by "?".
std::string plain_text(std::string_view text);

// Returns the text with the backslashes that a double-quoted label value needs.
std::string escaped_label(std::string_view text);

// With the letters A to Z in lower case.
std::string lower_case(std::string text);

// The dotted text of an address in host order. Unlike ip_to_string it may be called from several threads at once.
std::string ip_text(std::uint32_t ip);

// "2023-11-14 22:13:20" in the time zone of the environment; seconds since the epoch when there is no such date.
std::string date_and_time(std::time_t moment);

} // namespace kavstat
