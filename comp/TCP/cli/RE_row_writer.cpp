#include "RE_row_writer.h"

#include <cstdio>

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
