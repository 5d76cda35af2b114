// One direction between this engine and a peer: the encoder at one end, the decoder at the other, and what the sender
// has learned from the receiver's answers.
#pragma once

#include "RE_decoder.h"
#include "RE_encoder.h"
#include "RE_recent_average.h"

class RE_path
{
public:
    // encoder_capacity: bytes of chunks that the sender assumes the receiver to have.
    RE_path(const RE_chunk_sizes& chunk_sizes, std::uint64_t encoder_capacity,
            const RE_decoder_settings& decoder_settings, RE_lz& lz);

    RE_encoder& encoder() { return m_encoder; }
    RE_decoder& decoder() { return m_decoder; }
    const RE_encoder& encoder() const { return m_encoder; }
    const RE_decoder& decoder() const { return m_decoder; }

    // Whether the next message must bypass redundancy elimination to relieve the receiver, and why.
    RE_bypass_cause next_bypass_cause();
    // From now on, a message of this size waits for its answer.
    void on_sent(std::uint32_t message_size) { m_unacknowledged_bytes += message_size; }
    // An answer arrived, this long after the message was sent.
    void on_answer(const RE_answer& answer, std::uint32_t message_size, std::int64_t round_trip_ns);

    // Bytes of the messages that have been sent and are not acknowledged yet.
    std::uint64_t unacknowledged_bytes() const { return m_unacknowledged_bytes; }
    std::int64_t longest_round_trip_ns() const { return m_longest_round_trip_ns; }
    std::int64_t average_round_trip_ns() const { return static_cast<std::int64_t>(m_round_trip_ns.value()); }
    // The receiver's clocks from its last answer.
    std::uint64_t receiver_head_clock() const { return m_receiver_head_clock; }
    std::uint64_t receiver_tail_clock() const { return m_receiver_tail_clock; }
    // How often the sender had to forget everything that it assumed the receiver to have.
    std::uint64_t out_of_sync_count() const { return m_out_of_sync_count; }

private:
    RE_encoder m_encoder;
    RE_decoder m_decoder;
    bool m_b_receiver_ready = true;
    std::uint32_t m_messages_to_spare = 0; // that still bypass an overloaded receiver
    std::uint64_t m_unacknowledged_bytes = 0;
    std::int64_t m_longest_round_trip_ns = 0;
    RE_recent_average<64> m_round_trip_ns;
    std::uint64_t m_receiver_head_clock = 0;
    std::uint64_t m_receiver_tail_clock = 0;
    std::uint64_t m_out_of_sync_count = 0;
};
