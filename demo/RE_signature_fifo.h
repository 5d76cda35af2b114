// A bounded set of chunks, stored by signature. The oldest chunks are dropped when all chunks exceed a number of bytes.
//
// Every chunk has a position: the number of bytes inserted before it since the beginning. The position of the newest
// end (head) and that of the oldest chunk still stored (tail) are the cache's clocks. An encoder has such a set of the
// chunks that its peer should have, and a chunk store has one of the chunks that it really has.
#pragma once

#include "RE_recent_sum.h"
#include "RE_signature.h"

#include <deque>
#include <limits>
#include <unordered_map>

struct RE_known_chunk
{
    std::uint64_t position; // of its first byte
    std::uint32_t size;
    std::uint32_t section; // chunks of one message share a section
    std::uint32_t matches; // how often it was found again
};

struct RE_fifo_limit
{
    std::uint64_t capacity = std::numeric_limits<std::uint64_t>::max(); // bytes of chunks
    std::size_t chunks = std::numeric_limits<std::size_t>::max();
};

class RE_signature_fifo
{
public:
    // capacity: bytes of chunks, more than the largest chunk. smallest_chunk limits the number of chunks.
    RE_signature_fifo(std::uint64_t capacity, std::uint32_t smallest_chunk);

    // Returns null when the chunk is not stored. The result is valid until the next call that changes something.
    RE_known_chunk* find(RE_signature signature);
    // Inserts a chunk at the head and returns its position. From now on the signature belongs to this chunk only.
    std::uint64_t insert(RE_signature signature, std::uint32_t size, std::time_t now);
    // Ends a section: the next chunk belongs to another message.
    void end_section();
    void forget(RE_signature signature);
    // Forgets every chunk from the tail up to and including this position.
    void forget_up_to(std::uint64_t position, std::time_t now);
    void clear();
    // Sets new limits, at most those of the constructor. Chunks above the limits are dropped at once.
    void limit(const RE_fifo_limit& limit, std::time_t now);

    std::uint64_t capacity() const { return m_limit.capacity; }
    std::uint64_t head_clock() const { return m_head; }
    std::uint64_t tail_clock() const { return m_order.empty() ? m_head : m_order.front().position; }
    std::uint64_t used_bytes() const { return m_head - tail_clock(); }
    std::size_t chunk_count() const { return m_chunks.size(); }
    std::size_t section_count() const;
    // The maximum of chunk_count().
    std::size_t max_chunk_count() const { return m_limit.chunks; }
    // How often a chunk was inserted when the maximum number of chunks was stored.
    std::uint64_t times_full() const { return m_times_full; }
    // Bytes of memory per chunk.
    static std::size_t bytes_per_chunk();
    // When the oldest chunk was inserted, in seconds since the epoch; 0 when there is none.
    std::time_t oldest_time() const { return m_order.empty() ? 0 : m_order.front().time; }

    // Chunks that were dropped in the last hour to make room.
    long long chunks_evicted_in_last_hour(std::time_t now) const { return m_evicted_chunks.sum(now); }
    long long bytes_evicted_in_last_hour(std::time_t now) const { return m_evicted_bytes.sum(now); }
    long long sections_evicted_in_last_hour(std::time_t now) const { return m_evicted_sections.sum(now); }

private:
    struct arrival
    {
        RE_signature signature;
        std::uint64_t position;
        std::time_t time;
        std::uint32_t size;
        std::uint32_t section;
    };

    void evict_oldest(std::time_t now);
    void evict_beyond_capacity(std::time_t now);

    RE_fifo_limit m_configured;
    RE_fifo_limit m_limit;
    std::uint64_t m_head = 0;
    std::uint32_t m_section = 0;
    std::uint64_t m_times_full = 0;
    std::unordered_map<RE_signature, RE_known_chunk> m_chunks;
    std::deque<arrival> m_order; // oldest first; includes chunks that were forgotten since
    RE_last_hour m_evicted_chunks;
    RE_last_hour m_evicted_bytes;
    RE_last_hour m_evicted_sections;
};
