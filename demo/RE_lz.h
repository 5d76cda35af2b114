// The LZ stage: each message is deflated on its own, so that no message depends on a lost one.
#pragma once

#include "RE_bytes.h"

#include <zlib.h>

// Throws std::runtime_error when zlib fails. Two threads must not use one object at the same time.
class RE_lz
{
public:
    static constexpr int window_bits = 15;
    static constexpr int memory_level = 8;

    // level: 1 (fast) to 9 (small).
    explicit RE_lz(int level);
    ~RE_lz();
    RE_lz(const RE_lz&) = delete;
    RE_lz& operator=(const RE_lz&) = delete;

    // Appends the compressed form of `in` to `out` and returns true. If that is not smaller, leaves `out` as it was and
    // returns false.
    bool compress(RE_byte_view in, RE_byte_buffer& out);
    // Appends the original form of `in` to `out`. size: the exact size of the original form.
    void expand(RE_byte_view in, std::size_t size, RE_byte_buffer& out);

    // Time that the last compress() or expand() spent in zlib, in nanoseconds.
    std::int64_t last_zlib_ns() const { return m_last_zlib_ns; }

private:
    z_stream m_deflate{};
    z_stream m_inflate{};
    std::int64_t m_last_zlib_ns = 0;
};
