#include "RE_path.h"

#include <algorithm>

namespace {

// This many messages bypass an overloaded receiver before it has to read again.
constexpr std::uint32_t overload_pause = 8;

} // namespace

RE_path::RE_path(const RE_chunk_sizes& chunk_sizes, std::uint64_t encoder_capacity,
                 const RE_decoder_settings& decoder_settings, RE_lz& lz)
    : m_encoder(chunk_sizes, encoder_capacity, decoder_settings.signature_bits, lz), m_decoder(decoder_settings, lz)
{}

RE_bypass_cause RE_path::next_bypass_cause()
{
    if (!m_b_receiver_ready) {
        return RE_bypass_cause::remote_cache_not_ready;
    }
    if (m_messages_to_spare > 0) {
        --m_messages_to_spare;
        return RE_bypass_cause::remote_disk_overloaded;
    }
    return RE_bypass_cause::none;
}

void RE_path::on_answer(const RE_answer& answer, std::uint32_t message_size, std::int64_t round_trip_ns)
{
    m_b_receiver_ready = answer.b_cache_ready;
    m_receiver_head_clock = answer.head_clock;
    m_receiver_tail_clock = answer.tail_clock;
    m_longest_round_trip_ns = std::max(m_longest_round_trip_ns, round_trip_ns);
    m_round_trip_ns.add(static_cast<double>(round_trip_ns));
    if (answer.reason == RE_nack_reason::none) {
        m_unacknowledged_bytes -= message_size;
        return;
    }
    m_encoder.learn_from_nack(answer);
    if (answer.reason == RE_nack_reason::disk_overloaded) {
        m_messages_to_spare = overload_pause;
    }
    if (answer.reason == RE_nack_reason::cache_not_ready) {
        ++m_out_of_sync_count;
    }
}
