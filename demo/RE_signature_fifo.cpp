#include "RE_signature_fifo.h"

#include <algorithm>

RE_signature_fifo::RE_signature_fifo(std::uint64_t capacity, std::uint32_t smallest_chunk)
    : m_configured{capacity, static_cast<std::size_t>(capacity / smallest_chunk)}, m_limit(m_configured)
{}

RE_known_chunk* RE_signature_fifo::find(RE_signature signature)
{
    const auto found = m_chunks.find(signature);
    return found == m_chunks.end() ? nullptr : &found->second;
}

std::uint64_t RE_signature_fifo::insert(RE_signature signature, std::uint32_t size, std::time_t now)
{
    const std::uint64_t position = m_head;
    m_head += size;
    evict_beyond_capacity(now);
    if (m_chunks.size() >= m_limit.chunks) {
        ++m_times_full;
        while (m_chunks.size() >= m_limit.chunks) {
            evict_oldest(now);
        }
    }
    m_chunks[signature] = {position, size, m_section, 0};
    m_order.push_back({signature, position, now, size, m_section});
    return position;
}

void RE_signature_fifo::end_section()
{
    if (!m_order.empty() && m_order.back().section == m_section) {
        ++m_section;
    }
}

void RE_signature_fifo::forget(RE_signature signature)
{
    m_chunks.erase(signature);
}

void RE_signature_fifo::forget_up_to(std::uint64_t position, std::time_t now)
{
    while (!m_order.empty() && m_order.front().position <= position) {
        evict_oldest(now);
    }
}

void RE_signature_fifo::clear()
{
    m_chunks.clear();
    m_order.clear();
}

void RE_signature_fifo::limit(const RE_fifo_limit& limit, std::time_t now)
{
    m_limit.capacity = std::min(limit.capacity, m_configured.capacity);
    m_limit.chunks = std::min(limit.chunks, m_configured.chunks);
    evict_beyond_capacity(now);
    while (m_chunks.size() > m_limit.chunks) {
        evict_oldest(now);
    }
}

std::size_t RE_signature_fifo::section_count() const
{
    if (m_order.empty()) {
        return 0;
    }
    const std::uint32_t newer_sections = m_order.back().section - m_order.front().section;
    return std::size_t{newer_sections} + 1;
}

std::size_t RE_signature_fifo::bytes_per_chunk()
{
    // A node of the map with its link and its place in the table, and the chunk's entry in the order of arrival.
    return sizeof(std::pair<const RE_signature, RE_known_chunk>) + 2 * sizeof(void*) + sizeof(arrival);
}

void RE_signature_fifo::evict_beyond_capacity(std::time_t now)
{
    while (!m_order.empty() && m_order.front().position + m_limit.capacity < m_head) {
        evict_oldest(now);
    }
}

void RE_signature_fifo::evict_oldest(std::time_t now)
{
    const arrival oldest = m_order.front();
    m_order.pop_front();
    // The signature may now belong to a newer chunk.
    const auto known = m_chunks.find(oldest.signature);
    if (known != m_chunks.end() && known->second.position == oldest.position) {
        m_chunks.erase(known);
    }
    m_evicted_chunks.add(now, 1);
    m_evicted_bytes.add(now, oldest.size);
    if (m_order.empty() || m_order.front().section != oldest.section) {
        m_evicted_sections.add(now, 1);
    }
}
