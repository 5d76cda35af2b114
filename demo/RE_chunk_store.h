// The chunks that a decoder keeps, so that its peer can refer to them: signatures in memory, data in a cache file. The
// chunks of one message are written together when the message ends.
#pragma once

#include "RE_cache_file.h"
#include "RE_recent_average.h"
#include "RE_signature_fifo.h"

// The work of the store's disk since the beginning.
struct RE_disk_work
{
    std::int64_t time_ns = 0; // of reads and writes together
    RE_recent_average<64> read_ns;
    std::uint64_t reads = 0;
    // Of the reads while the disk is slow. All other reads are served by the system's cache.
    RE_recent_average<64> slow_read_ns;
    std::uint64_t slow_reads = 0;
    std::uint64_t writes = 0;
    std::uint64_t written_bytes = 0;
};

class RE_chunk_store
{
public:
    // capacity: bytes of chunk data, more than the largest chunk. Chunks cannot be stored before is_ready().
    RE_chunk_store(const std::string& folder, std::uint64_t capacity, std::uint32_t smallest_chunk);

    // Allocates `bytes` more of the disk space that the store needs, and checks whether a failed disk works again.
    void prepare(std::uint64_t bytes);
    bool is_ready() const { return m_file.is_prepared() && m_b_in_use && !m_b_failed; }
    // Whether a write to the disk failed. All chunks are lost then.
    bool is_failed() const { return m_b_failed; }

    // A store that is not in use is not ready. It is empty when it is used again.
    void set_in_use(bool b_in_use);
    void set_disk_full(bool b_full);
    // Sets how much longer a read takes than the system needs for it.
    void set_disk_delay(std::int64_t nanoseconds);
    void limit(const RE_fifo_limit& limit, std::time_t now) { m_index.limit(limit, now); }

    const RE_signature_fifo& index() const { return m_index; }
    const RE_disk_work& disk_work() const { return m_work; }

    void insert(RE_signature signature, RE_byte_view chunk, std::time_t now);
    // Appends the chunk's data to `out`. Returns false when the store does not have the chunk.
    bool read(RE_signature signature, RE_byte_buffer& out);
    // Returns the size of a chunk; 0 when the store has none with this signature.
    std::uint32_t size_of(RE_signature signature);
    // Writes the chunks inserted since the last call.
    void end_section();

private:
    void write_out();
    void lose_all();

    RE_cache_file m_file;
    RE_signature_fifo m_index;
    RE_disk_work m_work;
    bool m_b_in_use = true;
    bool m_b_failed = false;
    std::int64_t m_disk_delay_ns = 0;
    RE_byte_buffer m_unwritten; // data of the unfinished section
    std::uint64_t m_unwritten_position = 0;
};
