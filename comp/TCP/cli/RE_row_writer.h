// Writes the rows of a long table to standard output, at a fraction of what printf takes for a row.
//
// A row is put together field by field. Each put_... function takes the place where its field begins and returns the
// place behind it: kept in a variable of the caller, the place stays in a register, and that is most of the gain.
// Fields come out as printf makes them: a width is a least width, a wider value is not cut, and a sign counts.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <string_view>

// The largest width of a field. Padding is laid down at this width first, and what is too much is written over:
// copying a fixed size costs less than finding out how much to copy.
inline constexpr std::size_t max_field_width = 16;

inline constexpr std::size_t max_digits = 11; // "-2147483648"

// "%c"
inline char* put_char(char* at, char c)
{
    *at = c;
    return at + 1;
}

// "%s"
inline char* put_text(char* at, std::string_view s)
{
    std::memcpy(at, s.data(), s.size());
    return at + s.size();
}

// "%15s" for a width of 15.
inline char* put_text_right(char* at, std::string_view s, std::size_t width)
{
    std::memset(at, ' ', max_field_width);
    return put_text(at + width - std::min(width, s.size()), s);
}

// "%-5d" for a width of 5.
inline char* put_number_left(char* at, int number, std::size_t width)
{
    char* const end = std::to_chars(at, at + max_digits, number).ptr;
    std::memset(end, ' ', max_field_width);
    return std::max(end, at + width);
}

// "%5d" for a width of 5.
inline char* put_number_right(char* at, int number, std::size_t width)
{
    char digits[max_field_width] = {};
    const char* const end = std::to_chars(digits, digits + max_digits, number).ptr;
    const auto length = static_cast<std::size_t>(end - digits);
    std::memset(at, ' ', max_field_width);
    at += width - std::min(width, length);
    std::memcpy(at, digits, sizeof digits);
    return at + length;
}

// Gathers rows and hands them to stdout in large pieces, at the latest at its own end; nothing else may be printed in
// between. Whether all of it could be written shows on stdout, as with printf.
class RE_row_writer
{
public:
    // What all fields of a row may take together, and max_field_width more for the padding of the last.
    static constexpr std::size_t max_row = 1024;

    RE_row_writer() = default;
    ~RE_row_writer() { flush(); }
    RE_row_writer(const RE_row_writer&) = delete;
    RE_row_writer& operator=(const RE_row_writer&) = delete;

    // Where the next row begins, with room for max_row bytes. end_row takes the place behind its last field.
    char* begin_row();
    void end_row(const char* end) { m_length = static_cast<std::size_t>(end - m_buffer); }

private:
    void flush();

    std::size_t m_length = 0;
    char m_buffer[std::size_t{64} << 10];
};
