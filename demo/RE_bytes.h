// The bytes that the engine passes from stage to stage, and the little-endian numbers in them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <vector>

using RE_byte_view = std::span<const std::uint8_t>;
using RE_byte_buffer = std::vector<std::uint8_t>;

inline void append_bytes(RE_byte_buffer& out, RE_byte_view bytes)
{
    out.insert(out.end(), bytes.begin(), bytes.end());
}

// Appends the low `width` bytes of `value`.
inline void append_number(RE_byte_buffer& out, std::uint64_t value, std::size_t width)
{
    for (std::size_t at = 0; at < width; ++at) {
        out.push_back(static_cast<std::uint8_t>(value >> (8 * at)));
    }
}

// Takes numbers and runs of bytes from the front of a view. Throws when the view ends too early. This can only be a
// bug, because the data that two engines exchange never leaves this process.
class RE_byte_reader
{
public:
    explicit RE_byte_reader(RE_byte_view bytes) : m_rest(bytes) {}

    bool is_at_end() const { return m_rest.empty(); }

    RE_byte_view take_bytes(std::size_t count)
    {
        if (count > m_rest.size()) {
            throw std::runtime_error("a frame ends too early");
        }
        const RE_byte_view taken = m_rest.first(count);
        m_rest = m_rest.subspan(count);
        return taken;
    }

    std::uint64_t take_number(std::size_t width)
    {
        std::uint64_t value = 0;
        std::size_t shift = 0;
        for (const std::uint8_t byte : take_bytes(width)) {
            value |= static_cast<std::uint64_t>(byte) << shift;
            shift += 8;
        }
        return value;
    }

private:
    RE_byte_view m_rest;
};
