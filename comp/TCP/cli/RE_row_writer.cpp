#include "RE_row_writer.h"

#include <cstdio>

char* put_long_number_right(char* at, int number, std::size_t width)
{
    char text[max_field_width];
    const auto length = static_cast<std::size_t>(put_number(text, number) - text);
    std::memset(at, ' ', max_field_width);
    return put_text(at + width - std::min(width, length), {text, length});
}

char* RE_row_writer::begin_row()
{
    if (sizeof m_buffer - m_length < max_row) {
        flush();
    }
    return m_buffer + m_length;
}

void RE_row_writer::flush()
{
    std::fwrite(m_buffer, 1, m_length, stdout);
    m_length = 0;
}
