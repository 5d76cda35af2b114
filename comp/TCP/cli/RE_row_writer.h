// Writes the rows of a long table to standard output, in a fraction of the time that printf takes for a row.
//
// A row is put together field by field. Each put_... function takes the place where its field begins and returns the
// place after it. The caller keeps the place in a local variable, so it stays in a register; this saves most of the
// time. Fields have the same form as with printf: a width is a minimum, a wider value is not truncated, and a sign
// counts.
#pragma once

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

// The largest width of a field. Padding is written at this width first, and the excess is overwritten: copying a fixed
// size is faster than computing how much to copy.
inline constexpr std::size_t max_field_width = 16;

inline constexpr std::size_t max_digits = 11; // "-2147483648"
inline constexpr std::size_t max_unsigned_digits = 20;

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

// "%-20s" for a width of 20.
inline char* put_text_left(char* at, std::string_view s, std::size_t width)
{
    char* const end = put_text(at, s);
    if (s.size() >= width) {
        return end;
    }
    std::memset(end, ' ', width - s.size());
    return at + width;
}

// "%15s" for a width of 15.
inline char* put_text_right(char* at, std::string_view s, std::size_t width)
{
    if (s.size() > width) {
        return put_text(at, s);
    }
    std::memset(at, ' ', max_field_width);
    std::memcpy(at + width - s.size(), s.data(), s.size());
    return at + width;
}

// The digits of a number below 100,000,000, one per byte, and how many of the eight are leading zeros. All steps are
// arithmetic on whole words without branches, because a processor cannot predict the length of a number in a row.
class packed_digits
{
public:
    static constexpr unsigned int end_of_range = 100'000'000;

    explicit packed_digits(unsigned int number)
    {
        // In every step, each part of the word is split into its first half and its second half.
        std::uint64_t parts = number / 10'000 | std::uint64_t{number % 10'000} << 32U;
        std::uint64_t heads = ((parts * 10'486) >> 20U) & 0x0000'007f'0000'007fU; // hundredths of up to 9,999
        parts = heads | (parts - 100 * heads) << 16U;
        heads = ((parts * 103) >> 10U) & 0x000f'000f'000f'000fU; // tenths of up to 99
        m_digits = heads | (parts - 10 * heads) << 8U;
        constexpr std::uint64_t last_digit = std::uint64_t{1} << 56U; // "0" has one digit
        m_zeros = static_cast<unsigned int>(std::countr_zero(m_digits | last_digit)) / 8;
    }

    std::size_t length() const { return 8 - m_zeros; }

    // Writes 8 bytes, but only the first length() of them count.
    void put(char* at) const
    {
        const std::uint64_t text = (m_digits | 0x3030'3030'3030'3030U) >> (8 * m_zeros);
        std::memcpy(at, &text, sizeof text);
    }

private:
    static_assert(std::endian::native == std::endian::little, "the first digit is the lowest byte");

    std::uint64_t m_digits;
    unsigned int m_zeros;
};

// "%d"
inline char* put_number(char* at, int number)
{
    if (static_cast<unsigned int>(number) >= packed_digits::end_of_range) {
        return std::to_chars(at, at + max_digits, number).ptr;
    }
    const packed_digits digits(static_cast<unsigned int>(number));
    digits.put(at);
    return at + digits.length();
}

// "%-5d" for a width of 5.
inline char* put_number_left(char* at, int number, std::size_t width)
{
    char* const end = put_number(at, number);
    std::memset(end, ' ', max_field_width);
    return std::max(end, at + width);
}

// put_unsigned_right for a number with more than eight digits.
char* put_long_unsigned_right(char* at, unsigned long long number, std::size_t width);

// "%llu"
inline char* put_unsigned(char* at, unsigned long long number)
{
    if (number >= packed_digits::end_of_range) {
        return std::to_chars(at, at + max_unsigned_digits, number).ptr;
    }
    const packed_digits digits(static_cast<unsigned int>(number));
    digits.put(at);
    return at + digits.length();
}

// "%10llu" for a width of 10.
inline char* put_unsigned_right(char* at, unsigned long long number, std::size_t width)
{
    if (number >= packed_digits::end_of_range) {
        return put_long_unsigned_right(at, number, width);
    }
    const packed_digits digits(static_cast<unsigned int>(number));
    std::memset(at, ' ', max_field_width);
    at += width - std::min(width, digits.length());
    digits.put(at);
    return at + digits.length();
}

// put_number_right for a number that is negative or has more than four digits.
char* put_long_number_right(char* at, int number, std::size_t width);

// "%3d" for a width of 3.
inline char* put_number_right(char* at, int number, std::size_t width)
{
    constexpr std::size_t usual_digits = 4;
    if (static_cast<unsigned int>(number) >= 10'000) {
        return put_long_number_right(at, number, width);
    }
    // As in packed_digits, but for four digits and with blanks for leading zeros.
    auto parts = static_cast<std::uint32_t>(number);
    std::uint32_t heads = (parts * 10'486) >> 20U;
    parts = heads | (parts - 100 * heads) << 16U;
    heads = ((parts * 103) >> 10U) & 0x000f'000fU;
    parts = heads | (parts - 10 * heads) << 8U;
    const auto zeros = static_cast<unsigned int>(std::countr_zero(parts | 1U << 24U)) / 8;
    std::uint32_t text = (parts | 0x3030'3030U) ^ (0x1010'1010U & ((1U << (8 * zeros)) - 1));

    if (width >= usual_digits) {
        std::memset(at, ' ', max_field_width);
        std::memcpy(at + width - usual_digits, &text, sizeof text);
        return at + width;
    }
    const std::size_t length = std::max(usual_digits - zeros, width);
    text >>= 8 * (usual_digits - length);
    std::memcpy(at, &text, sizeof text);
    return at + length;
}

// Collects rows and passes them to stdout in large pieces, the last one in its destructor. Nothing else may be printed
// in between. A write error shows on stdout, as with printf. Only one writer may exist at a time, because all use the
// same memory.
class RE_row_writer
{
public:
    // The size that all fields of a row may have together, including max_field_width for the padding of the last field.
    static constexpr std::size_t max_row = 1024;
    // A longer text is printed directly and does not count.
    static constexpr std::size_t longest_text = 128;

    RE_row_writer() = default;
    ~RE_row_writer() { flush(); }
    RE_row_writer(const RE_row_writer&) = delete;
    RE_row_writer& operator=(const RE_row_writer&) = delete;

    // Returns where the next row begins, with room for max_row bytes. end_row takes the place after its last field.
    char* begin_row();
    void end_row(const char* end) { m_length = static_cast<std::size_t>(end - m_buffer); }

    // Like put_text_right, for a text of any length. `at` is the place after the row's fields so far.
    char* put_any_text_right(char* at, std::string_view s, std::size_t width)
    {
        return s.size() <= longest_text ? put_text_right(at, s, width) : print_long_text(at, s);
    }

private:
    char* print_long_text(const char* at, std::string_view s);
    void flush();

    alignas(4096) static char m_buffer[std::size_t{64} << 10]; // not on the stack, which may be this small
    std::size_t m_length = 0;
};
