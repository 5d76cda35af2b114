// The receiving side of one direction between two engines: decodes frames to messages with the chunks that it keeps.
#pragma once

#include "RE_chunk_store.h"
#include "RE_frame.h"
#include "RE_lz.h"

#include <string>

// How much a decoder may read from its disk. Every received message adds to the budget, up to a maximum.
struct RE_read_budget
{
    std::uint32_t bytes_per_message = 0; // 0 for no limit
    std::uint32_t most_bytes = 0;
};

struct RE_decoder_settings
{
    std::string folder;         // of the cache file
    std::uint64_t capacity = 0; // bytes of chunks
    std::uint32_t smallest_chunk = 0;
    unsigned int signature_bits = 64;
    std::uint64_t load_step = 0; // bytes of the cache prepared with every message; 0 for all at the start
    RE_read_budget read_budget;
};

// The result of decoding one frame. Sizes in bytes; a stage that the message bypassed has 0 in and out.
struct RE_decode_result
{
    bool b_chunk_records = false; // redundancy elimination was used
    std::uint32_t in_bytes = 0;   // of the frame's payload
    std::uint32_t out_bytes = 0;  // of the message
    std::uint32_t re_in_bytes = 0;
    bool b_inflated = false;
    std::uint32_t lz_in_bytes = 0;
    std::uint32_t lz_out_bytes = 0;

    std::uint32_t chunks = 0;
    std::uint32_t written_sections = 0; // writes to the cache
    std::uint32_t written_bytes = 0;

    std::int64_t total_ns = 0;
    std::int64_t disk_ns = 0;
    std::int64_t lz_ns = 0;
    std::int64_t zlib_ns = 0;
};

class RE_decoder
{
public:
    // lz: used, not owned.
    RE_decoder(const RE_decoder_settings& settings, RE_lz& lz);

    // Decodes a frame into `message` and answers it. The contents of `message` are invalid after a NACK. Throws when a
    // message that bypassed redundancy elimination has the wrong checksum.
    RE_answer decode(RE_byte_view frame, RE_byte_buffer& message, RE_decode_result& result);

    // Sets how much longer decoding takes than the processor needs for it.
    void set_delay(std::int64_t nanoseconds) { m_delay_ns = nanoseconds; }
    RE_chunk_store& store() { return m_store; }
    const RE_chunk_store& store() const { return m_store; }
    // When the cache was created, seconds since the epoch.
    std::time_t creation_time() const { return m_creation_time; }

private:
    RE_nack_reason put_together(RE_byte_view records, RE_byte_buffer& message, RE_answer& answer,
                                RE_decode_result& result);
    bool grant_read(std::uint32_t size);

    RE_decoder_settings m_settings;
    RE_chunk_store m_store;
    RE_lz& m_lz;
    std::int64_t m_delay_ns = 0;
    std::time_t m_creation_time;
    std::uint64_t m_readable_bytes;
    RE_byte_buffer m_records;
};
