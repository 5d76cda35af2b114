#include "RE_lz.h"

#include "RE_clock.h"

namespace {

// zlib declares its input as writable but does not change it.
Bytef* zlib_input(RE_byte_view in)
{
    return const_cast<Bytef*>(in.data());
}

} // namespace

RE_lz::RE_lz(int level)
{
    // A negative window size selects raw data without zlib's header and checksum, because frames have their own.
    if (deflateInit2(&m_deflate, level, Z_DEFLATED, -window_bits, memory_level, Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::runtime_error("zlib cannot compress");
    }
    if (inflateInit2(&m_inflate, -window_bits) != Z_OK) {
        deflateEnd(&m_deflate);
        throw std::runtime_error("zlib cannot expand");
    }
}

RE_lz::~RE_lz()
{
    deflateEnd(&m_deflate);
    inflateEnd(&m_inflate);
}

bool RE_lz::compress(RE_byte_view in, RE_byte_buffer& out)
{
    m_last_zlib_ns = 0;
    if (in.empty()) {
        return false;
    }
    const std::size_t before = out.size();
    // The result has less room than the input, so zlib stops as soon as nothing can be gained.
    out.resize(before + in.size() - 1);
    const std::int64_t start = monotonic_ns();
    deflateReset(&m_deflate);
    m_deflate.next_in = zlib_input(in);
    m_deflate.avail_in = static_cast<uInt>(in.size());
    m_deflate.next_out = out.data() + before;
    m_deflate.avail_out = static_cast<uInt>(in.size() - 1);
    const bool b_smaller = deflate(&m_deflate, Z_FINISH) == Z_STREAM_END;
    m_last_zlib_ns = monotonic_ns() - start;
    out.resize(b_smaller ? before + m_deflate.total_out : before);
    return b_smaller;
}

void RE_lz::expand(RE_byte_view in, std::size_t size, RE_byte_buffer& out)
{
    const std::size_t before = out.size();
    out.resize(before + size);
    const std::int64_t start = monotonic_ns();
    inflateReset(&m_inflate);
    m_inflate.next_in = zlib_input(in);
    m_inflate.avail_in = static_cast<uInt>(in.size());
    m_inflate.next_out = out.data() + before;
    m_inflate.avail_out = static_cast<uInt>(size);
    const int result = inflate(&m_inflate, Z_FINISH);
    m_last_zlib_ns = monotonic_ns() - start;
    if (result != Z_STREAM_END || m_inflate.total_out != size || m_inflate.avail_in != 0) {
        throw std::runtime_error("a compressed message does not expand to its size");
    }
}
