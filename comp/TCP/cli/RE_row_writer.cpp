#include "RE_row_writer.h"

#include <cstdio>

char* put_long_number_right(char* at, int number, std::size_t width)
{
    char text[max_field_width];
    return put_text_right(at, {text, static_cast<std::size_t>(put_number(text, number) - text)}, width);
}

char* put_long_unsigned_right(char* at, unsigned long long number, std::size_t width)
{
    char text[max_unsigned_digits];
    return put_text_right(at, {text, static_cast<std::size_t>(put_unsigned(text, number) - text)}, width);
}

alignas(4096) char RE_row_writer::m_buffer[];

char* RE_row_writer::begin_row()
{
    if (sizeof m_buffer - m_length < max_row) {
        flush();
    }
    return m_buffer + m_length;
}

char* RE_row_writer::print_long_text(const char* at, std::string_view s)
{
    end_row(at);
    flush();
    std::fwrite(s.data(), 1, s.size(), stdout);
    return m_buffer;
}

void RE_row_writer::flush()
{
    std::fwrite(m_buffer, 1, m_length, stdout);
    m_length = 0;
}
