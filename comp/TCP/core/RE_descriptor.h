// A file descriptor that closes itself.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <utility>

class RE_descriptor
{
public:
    RE_descriptor() = default;
    // Owns the descriptor `number`. A negative number means no descriptor.
    explicit RE_descriptor(int number) : m_number(number) {}
    ~RE_descriptor() { close(); }
    RE_descriptor(RE_descriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    RE_descriptor& operator=(RE_descriptor&& other) noexcept
    {
        std::swap(m_number, other.m_number);
        return *this;
    }
    RE_descriptor(const RE_descriptor&) = delete;
    RE_descriptor& operator=(const RE_descriptor&) = delete;

    int number() const { return m_number; }
    bool is_open() const { return m_number >= 0; }
    // Returns false and sets errno when written data may be lost. The descriptor is closed in any case.
    bool close()
    {
        const int number = std::exchange(m_number, -1);
        return number < 0 || ::close(number) == 0;
    }

private:
    int m_number = -1;
};

// Writes all `size` bytes, however long that takes. written: receives the number of bytes written, also after an error.
// Returns 0 or an errno.
int write_all(int descriptor, const void* bytes, std::size_t size, std::size_t& written);
