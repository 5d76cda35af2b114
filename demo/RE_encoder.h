// The sending side of one direction between two engines: encodes messages to frames. Data that the peer should already
// have is sent as references, the rest as it is, and all of it goes through the LZ stage.
#pragma once

#include "RE_chunker.h"
#include "RE_frame.h"
#include "RE_lz.h"
#include "RE_signature_fifo.h"

// Messages and stages smaller than this gain nothing from the LZ stage.
constexpr std::uint32_t lz_min_size = 64;

// The result of encoding one message. Sizes in bytes; a stage that the message bypassed has 0 in and out.
struct RE_encode_result
{
    RE_bypass_cause bypass_cause = RE_bypass_cause::none;
    std::uint32_t in_bytes = 0;
    std::uint32_t out_bytes = 0; // of the frame's payload
    std::uint32_t re_out_bytes = 0;
    bool b_deflated = false;
    std::uint32_t lz_in_bytes = 0;
    std::uint32_t lz_out_bytes = 0;

    std::uint32_t chunks = 0;         // chunks to be remembered, fresh or found again
    std::uint32_t anchor_cuts = 0;    // chunks that ended at an anchor
    std::uint32_t forced_cuts = 0;    // chunks that ended at the maximum size
    std::uint32_t matches = 0;        // chunks found again
    std::uint32_t repeat_matches = 0; // of these, chunks that had been found again before
    std::uint32_t ranges = 0;         // runs of chunks found again
    std::uint32_t sections = 0;       // number of messages that the chunks found again came from
    std::uint32_t partial_chunks = 0; // too small to be remembered, at the end of the message
    std::uint32_t partial_bytes = 0;

    std::int64_t total_ns = 0;
    std::int64_t lz_ns = 0;   // of the LZ stage, if it made the data smaller
    std::int64_t zlib_ns = 0; // of that, in zlib
};

class RE_encoder
{
public:
    // capacity: bytes of chunks that the peer is assumed to have. lz: used, not owned.
    RE_encoder(const RE_chunk_sizes& chunk_sizes, std::uint64_t capacity, unsigned int signature_bits, RE_lz& lz);

    // Creates the frame of a message. Uses conn_id, sequence, retransmission flag and bypass cause from `header`, and
    // fills in the rest. A message with a cause, and one that is sent again, bypasses redundancy elimination; one with
    // low compression is not deflated either.
    RE_encode_result encode(RE_byte_view message, RE_frame_header& header, RE_byte_buffer& frame);

    // Evaluates a NACK: chunks that the peer does not have are not referred to again.
    void learn_from_nack(const RE_answer& nack);

    // Sets how much longer encoding takes than the processor needs for it.
    void set_delay(std::int64_t nanoseconds) { m_delay_ns = nanoseconds; }
    void limit(const RE_fifo_limit& limit, std::time_t now) { m_index.limit(limit, now); }
    // From now on refers to nothing that was sent before.
    void start_anew() { m_index.clear(); }
    const RE_signature_fifo& index() const { return m_index; }
    unsigned int signature_bits() const { return m_signature_bits; }

private:
    void eliminate_redundancy(RE_byte_view message, RE_encode_result& result);

    RE_chunker m_chunker;
    RE_signature_fifo m_index;
    unsigned int m_signature_bits;
    RE_lz& m_lz;
    std::int64_t m_delay_ns = 0;
    RE_byte_buffer m_records;
    std::vector<std::uint32_t> m_sections;
};
