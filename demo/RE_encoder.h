// The sending side of one direction between two engines: makes frames of messages. What the peer should hold already
// goes as a reference, the rest as it is, and the whole through the LZ stage.
#pragma once

#include "RE_chunker.h"
#include "RE_frame.h"
#include "RE_lz.h"
#include "RE_signature_fifo.h"

// Messages and stages smaller than this gain nothing from the LZ stage.
constexpr std::uint32_t lz_min_size = 64;

// What became of one message. Sizes in bytes; a stage that the message went around has 0 in and out.
struct RE_encode_result
{
    RE_bypass_cause bypass_cause = RE_bypass_cause::none;
    std::uint32_t in_bytes = 0;
    std::uint32_t out_bytes = 0; // of the frame's payload
    std::uint32_t re_out_bytes = 0;
    bool b_deflated = false;
    std::uint32_t lz_in_bytes = 0;
    std::uint32_t lz_out_bytes = 0;

    std::uint32_t chunks = 0;         // remembered ones, fresh or found again
    std::uint32_t anchor_cuts = 0;    // chunks that ended where their content asked for it
    std::uint32_t forced_cuts = 0;    // chunks that ended at the maximum size
    std::uint32_t matches = 0;        // chunks found again
    std::uint32_t repeat_matches = 0; // of these, found again before
    std::uint32_t ranges = 0;         // runs of chunks found again
    std::uint32_t sections = 0;       // messages that the chunks found again came from
    std::uint32_t partial_chunks = 0; // too small to be remembered, at the message's end
    std::uint32_t partial_bytes = 0;

    std::int64_t total_ns = 0;
    std::int64_t lz_ns = 0;   // of the LZ stage, when it was of use
    std::int64_t zlib_ns = 0; // of that, in zlib
};

class RE_encoder
{
public:
    // capacity: bytes of chunks that the peer is believed to hold. lz: used, not owned.
    RE_encoder(const RE_chunk_sizes& chunk_sizes, std::uint64_t capacity, unsigned int signature_bits, RE_lz& lz);

    // Makes the frame of a message; conn_id, sequence, retransmission flag and bypass cause are taken from `header`,
    // the rest is filled in. A message with a cause, or one that is sent again, goes around redundancy elimination; one
    // with low compression is not deflated either.
    RE_encode_result encode(RE_byte_view message, RE_frame_header& header, RE_byte_buffer& frame);

    // Draws the conclusions from a NACK: what the peer does not hold is not referred to again.
    void learn_from_nack(const RE_answer& nack);

    // What encoding takes longer than the processor needs for it.
    void set_delay(std::int64_t nanoseconds) { m_delay_ns = nanoseconds; }
    void limit(const RE_fifo_limit& limit, std::time_t now) { m_index.limit(limit, now); }
    // Refers to nothing that was sent before.
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
