#include "RE_chunk_store.h"

#include "RE_clock.h"

namespace {

// Even a section under way holds only so much memory.
constexpr std::size_t most_unwritten_bytes = 256 * 1024;

} // namespace

RE_chunk_store::RE_chunk_store(const std::string& folder, std::uint64_t capacity, std::uint32_t smallest_chunk)
    : m_file(folder, capacity), m_index(capacity, smallest_chunk)
{}

void RE_chunk_store::insert(RE_signature signature, RE_byte_view chunk, std::time_t now)
{
    const std::uint64_t position = m_index.insert(signature, static_cast<std::uint32_t>(chunk.size()), now);
    if (m_unwritten.empty()) {
        m_unwritten_position = position;
    }
    append_bytes(m_unwritten, chunk);
    if (m_unwritten.size() >= most_unwritten_bytes) {
        write_out();
    }
}

bool RE_chunk_store::read(RE_signature signature, RE_byte_buffer& out)
{
    const RE_known_chunk* const chunk = m_index.find(signature);
    if (chunk == nullptr) {
        return false;
    }
    if (!m_unwritten.empty() && chunk->position >= m_unwritten_position) {
        const RE_byte_view unwritten(m_unwritten);
        append_bytes(out, unwritten.subspan(chunk->position - m_unwritten_position, chunk->size));
        return true;
    }
    const std::int64_t start = monotonic_ns();
    m_file.read(chunk->position, chunk->size, out);
    const std::int64_t spent = monotonic_ns() - start;
    ++m_work.reads;
    m_work.read_ns += spent;
    m_work.time_ns += spent;
    return true;
}

std::uint32_t RE_chunk_store::size_of(RE_signature signature)
{
    const RE_known_chunk* const chunk = m_index.find(signature);
    return chunk == nullptr ? 0 : chunk->size;
}

void RE_chunk_store::end_section()
{
    write_out();
    m_index.end_section();
}

void RE_chunk_store::write_out()
{
    if (m_unwritten.empty()) {
        return;
    }
    const std::int64_t start = monotonic_ns();
    m_file.write(m_unwritten_position, m_unwritten);
    m_work.time_ns += monotonic_ns() - start;
    ++m_work.writes;
    m_work.written_bytes += m_unwritten.size();
    m_unwritten.clear();
}
