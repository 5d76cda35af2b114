#include "format/text.h"

#include <arpa/inet.h>
#include <cstdio>

namespace kavstat {

namespace {

constexpr std::string_view replacement = "\xEF\xBF\xBD";

bool is_continuation(unsigned char byte)
{
    return (byte & 0xC0U) == 0x80U;
}

struct character
{
    std::size_t length; // 0 when the bytes are not a character
    std::uint32_t code;
};

// The character that the text starts with. text: not empty.
character first_character(std::string_view text)
{
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) {
        return {1, lead};
    }
    std::size_t length = 0;
    std::uint32_t code = 0;
    std::uint32_t least = 0; // a lower code has a shorter encoding, so that this one is invalid
    if ((lead & 0xE0U) == 0xC0U) {
        length = 2;
        code = lead & 0x1FU;
        least = 0x80;
    } else if ((lead & 0xF0U) == 0xE0U) {
        length = 3;
        code = lead & 0x0FU;
        least = 0x800;
    } else if ((lead & 0xF8U) == 0xF0U) {
        length = 4;
        code = lead & 0x07U;
        least = 0x10000;
    }
    if (length == 0 || text.size() < length) {
        return {0, 0};
    }
    for (std::size_t at = 1; at < length; ++at) {
        if (!is_continuation(byte(at))) {
            return {0, 0};
        }
        code = code << 6U | (byte(at) & 0x3FU);
    }
    const bool b_surrogate = code >= 0xD800 && code <= 0xDFFF;
    return code < least || code > 0x10FFFF || b_surrogate ? character{0, 0} : character{length, code};
}

bool is_harmless(std::uint32_t code)
{
    const bool b_control = code < 0x20 || (code >= 0x7F && code < 0xA0);
    const bool b_line_break = code == 0x2028 || code == 0x2029;
    const bool b_direction = code == 0x061C || (code >= 0x200B && code <= 0x200F) ||
                             (code >= 0x202A && code <= 0x202E) || (code >= 0x2060 && code <= 0x206F) || code == 0xFEFF;
    return !b_control && !b_line_break && !b_direction;
}

} // namespace

std::string clean_text(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        const character next = first_character(text);
        if (next.length != 0 && is_harmless(next.code)) {
            result += text.substr(0, next.length);
        } else {
            result += replacement;
        }
        text.remove_prefix(next.length != 0 ? next.length : 1);
    }
    return result;
}

std::string plain_text(std::string_view text)
{
    std::string result(text);
    for (char& letter : result) {
        if (letter < ' ' || letter > '~') {
            letter = '?';
        }
    }
    return result;
}

std::string escaped_label(std::string_view text)
{
    std::string result;
    for (const char letter : text) {
        if (letter == '\n') {
            result += "\\n";
            continue;
        }
        if (letter == '\\' || letter == '"') {
            result += '\\';
        }
        result += letter;
    }
    return result;
}

std::string lower_case(std::string text)
{
    for (char& letter : text) {
        if (letter >= 'A' && letter <= 'Z') {
            letter = static_cast<char>(letter - 'A' + 'a');
        }
    }
    return text;
}

std::string ip_text(std::uint32_t ip)
{
    char text[INET_ADDRSTRLEN] = "";
    const in_addr address{htonl(ip)};
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

std::string date_and_time(std::time_t moment)
{
    char text[64];
    std::tm local{};
    if (localtime_r(&moment, &local) == nullptr || std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local) == 0) {
        std::snprintf(text, sizeof text, "%lld", static_cast<long long>(moment));
    }
    return text;
}

} // namespace kavstat
