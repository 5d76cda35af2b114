#include "RE_chunk_store.h"

#include "RE_clock.h"

#include <system_error>

namespace {

// Limits the memory that an unfinished section uses.
constexpr std::size_t most_unwritten_bytes = 256 * 1024;

} // namespace

RE_chunk_store::RE_chunk_store(const std::string& folder, std::uint64_t capacity, std::uint32_t smallest_chunk)
    : m_file(folder, capacity), m_index(capacity, smallest_chunk)
{}

void RE_chunk_store::prepare(std::uint64_t bytes)
{
    m_file.prepare(bytes);
    m_b_failed = m_b_failed && !m_file.is_writable();
}

void RE_chunk_store::set_in_use(bool b_in_use)
{
    if (m_b_in_use && !b_in_use) {
        lose_all();
    }
    m_b_in_use = b_in_use;
}

void RE_chunk_store::set_disk_full(bool b_full)
{
    if (b_full == m_file.is_disk_full()) {
        return;
    }
    m_file.set_disk_full(b_full);
    m_b_failed = !m_file.is_writable();
    if (m_b_failed) {
        lose_all();
    }
}

void RE_chunk_store::set_disk_delay(std::int64_t nanoseconds)
{
    m_disk_delay_ns = nanoseconds;
    if (nanoseconds == 0) {
        m_work.slow_read_ns = {};
    }
}

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
    take_longer(m_disk_delay_ns);
    const std::int64_t spent = monotonic_ns() - start;
    ++m_work.reads;
    m_work.read_ns.add(static_cast<double>(spent));
    m_work.time_ns += spent;
    if (m_disk_delay_ns > 0) {
        ++m_work.slow_reads;
        m_work.slow_read_ns.add(static_cast<double>(spent));
    }
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
    try {
        m_file.write(m_unwritten_position, m_unwritten);
    } catch (const std::system_error&) {
        m_b_failed = true;
        lose_all();
        return;
    }
    m_work.time_ns += monotonic_ns() - start;
    ++m_work.writes;
    m_work.written_bytes += m_unwritten.size();
    m_unwritten.clear();
}

void RE_chunk_store::lose_all()
{
    m_index.clear();
    m_unwritten.clear();
}
