// The data that two engines exchange: messages, acknowledgements and NACKs.
//
// A message's frame is a header of 32 bytes and the payload. The payload is the message itself or its chunk records
// from redundancy elimination, deflated or not.
#pragma once

#include "RE_signature.h"

// Why a message bypasses redundancy elimination.
enum class RE_bypass_cause : std::uint8_t
{
    none = 0,                   // not bypassed
    low_compression = 1,        // its server's traffic does not compress
    remote_cache_not_ready = 2, // the peer's cache is still loading
    remote_disk_overloaded = 3, // the peer's disk is overloaded
    // No part of this engine sets these; only RE_illness::bypass does.
    low_memory,
    out_of_sync,
    remote_cache_not_compatible,
    ack_queue_full,
    remote_wait_queue,
    disk_overloaded,
    disk_error,
    remote_disk_error,
    cache_not_ready,
    peer_information_incorrect,
    no_redundancy_elimination,
};

struct RE_frame_header
{
    static constexpr std::size_t size = 32; // bytes on the wire

    bool b_chunk_records = false;  // the payload is chunk records, not the message itself
    bool b_deflated = false;       // the payload is deflated
    bool b_retransmission = false; // sent again after a NACK
    RE_bypass_cause bypass_cause = RE_bypass_cause::none;
    std::uint32_t conn_id = 0;
    std::uint32_t sequence = 0;      // number of the message in its connection, from 1
    std::uint32_t message_size = 0;  // before the sender encoded it
    std::uint32_t inflated_size = 0; // of the payload before it was deflated
    std::uint32_t payload_size = 0;
    std::uint64_t checksum = 0; // of the message
};

// Writes the header to the first RE_frame_header::size bytes of `frame`, which must already exist.
void write_frame_header(const RE_frame_header& header, RE_byte_buffer& frame);
// Throws when `frame` is too short for its header and payload.
RE_frame_header read_frame_header(RE_byte_view frame);
RE_byte_view frame_payload(RE_byte_view frame);

// Why a message could not be decoded; the numbers are those of the NACK log.
enum class RE_nack_reason : std::uint8_t
{
    none = 0,
    chunk_missed = 1,
    checksum_collision = 2,
    disk_overloaded = 3,
    cache_not_ready = 4,
};
constexpr std::size_t nack_reason_count = 5;

// The answer to a message: delivered (reason none) or not.
struct RE_answer
{
    std::uint32_t conn_id = 0;
    std::uint32_t sequence = 0;
    RE_nack_reason reason = RE_nack_reason::none;
    bool b_cache_ready = true;          // messages may refer to the receiver's cache
    std::uint64_t head_clock = 0;       // of the receiver's cache
    std::uint64_t tail_clock = 0;       // of the receiver's cache
    std::vector<RE_signature> suspects; // in a NACK: signatures that are missing or had the wrong data
};

RE_byte_buffer write_answer(const RE_answer& answer);
RE_answer read_answer(RE_byte_view bytes);

// One chunk of a message in the output of redundancy elimination: two bytes, then a signature or the chunk's bytes.
enum class RE_chunk_record : std::uint8_t
{
    plain = 0,     // bytes that neither side remembers
    fresh = 1,     // bytes that both sides remember from now on
    reference = 2, // the signature of a remembered chunk
};

void append_chunk_record(RE_byte_buffer& out, RE_chunk_record kind, std::uint32_t chunk_size);

struct RE_chunk_record_head
{
    RE_chunk_record kind;
    std::uint32_t chunk_size;
};
RE_chunk_record_head take_chunk_record(RE_byte_reader& reader);
