// Reads the fields of a file one after another, as one read(2) per field would, but with one system call per buffer.
#pragma once

#include <cstddef>
#include <cstring>
#include <span>

class RE_descriptor_reader
{
public:
    // No field is larger.
    static constexpr std::size_t largest_field = 128;

    // Borrows the descriptor, at its present offset, and the buffer, which has 2 * largest_field bytes or many more.
    // The system writes to the part after the first largest_field bytes. This part should start at a page boundary: a
    // few bytes after one, the system copies half as fast.
    RE_descriptor_reader(int fd, std::span<unsigned char> buffer) : m_fd(fd), m_buffer(buffer) {}

    // Reads the next field. Returns what read(2) of a regular file would return for this field alone: its size; less
    // when the file ends within the field or cannot be read any further there; 0 at the file's end; -1, with errno,
    // when the file cannot be read at the field's start. `field` is written only when it is complete. Waits for the
    // rest of a field that comes through a pipe in pieces.
    template <typename field_type>
    int read_field(field_type& field)
    {
        static_assert(sizeof field <= largest_field);
        if (m_end - m_next < sizeof field) {
            const int available = fill(sizeof field);
            if (available < static_cast<int>(sizeof field)) {
                return available;
            }
        }
        std::memcpy(&field, m_buffer.data() + m_next, sizeof field);
        m_next += sizeof field;
        return static_cast<int>(sizeof field);
    }

    // The bytes that have been read ahead, from the next field on. take() removes as many as its caller has used.
    std::span<const unsigned char> read_ahead() const { return m_buffer.subspan(m_next, m_end - m_next); }
    void take(std::size_t size) { m_next += size; }

    // Continues at the file's start. Returns 0, or -1 with errno when the file cannot be rewound.
    int rewind();

    // From now on a read that a signal interrupts fails with EINTR instead of being repeated.
    void fail_when_interrupted() { m_b_retry = false; }

private:
    int fill(std::size_t field_size);

    int m_fd;
    std::span<unsigned char> m_buffer;
    std::size_t m_next = 0; // the bytes from m_next to m_end are buffered and not yet taken
    std::size_t m_end = 0;
    bool m_b_retry = true;
};
