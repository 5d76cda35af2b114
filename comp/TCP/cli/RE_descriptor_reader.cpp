#include "RE_descriptor_reader.h"

#include <unistd.h>

#include <cerrno>

// Buffers at least field_size bytes if the file has them. Returns the number of buffered bytes, at most field_size, or
// -1 when there are none because the file cannot be read.
int RE_descriptor_reader::fill(std::size_t field_size)
{
    const std::size_t begun = m_end - m_next; // bytes of a field that has been read only in part
    std::memmove(m_buffer.data() + largest_field - begun, m_buffer.data() + m_next, begun);
    m_next = largest_field - begun;
    m_end = largest_field;
    while (m_end - m_next < field_size) {
        const ssize_t count = read(m_fd, m_buffer.data() + m_end, m_buffer.size() - m_end);
        if (count > 0) {
            m_end += static_cast<std::size_t>(count);
        } else if (count < 0 && errno == EINTR && m_b_retry) {
            continue;
        } else if (count < 0 && m_end == m_next) {
            return -1;
        } else {
            return static_cast<int>(m_end - m_next);
        }
    }
    return static_cast<int>(field_size);
}

int RE_descriptor_reader::rewind()
{
    m_next = 0;
    m_end = 0;
    off_t offset = 0;
    do {
        offset = lseek(m_fd, 0, SEEK_SET);
    } while (offset < 0 && errno == EINTR);
    return offset < 0 ? -1 : 0;
}
