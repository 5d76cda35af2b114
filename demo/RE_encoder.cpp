#include "RE_encoder.h"

#include "RE_clock.h"

#include <algorithm>

RE_encoder::RE_encoder(const RE_chunk_sizes& chunk_sizes, std::uint64_t capacity, unsigned int signature_bits,
                       RE_lz& lz)
    : m_chunker(chunk_sizes), m_index(capacity, chunk_sizes.min), m_signature_bits(signature_bits), m_lz(lz)
{}

RE_encode_result RE_encoder::encode(RE_byte_view message, RE_frame_header& header, RE_byte_buffer& frame)
{
    const std::int64_t start = monotonic_ns();
    RE_encode_result result;
    result.bypass_cause = header.bypass_cause;
    result.in_bytes = static_cast<std::uint32_t>(message.size());

    RE_byte_view stage = message;
    header.b_chunk_records = header.bypass_cause == RE_bypass_cause::none && !header.b_retransmission;
    if (header.b_chunk_records) {
        eliminate_redundancy(message, result);
        stage = m_records;
    }

    frame.assign(RE_frame_header::size, 0);
    const std::int64_t lz_start = monotonic_ns();
    const bool b_try_lz = header.bypass_cause != RE_bypass_cause::low_compression && stage.size() >= lz_min_size;
    header.b_deflated = b_try_lz && m_lz.compress(stage, frame);
    if (header.b_deflated) {
        result.b_deflated = true;
        result.lz_in_bytes = static_cast<std::uint32_t>(stage.size());
        result.lz_out_bytes = static_cast<std::uint32_t>(frame.size() - RE_frame_header::size);
        result.zlib_ns = m_lz.last_zlib_ns();
        result.lz_ns = monotonic_ns() - lz_start;
    } else {
        append_bytes(frame, stage);
    }

    result.out_bytes = static_cast<std::uint32_t>(frame.size() - RE_frame_header::size);
    header.message_size = result.in_bytes;
    header.inflated_size = static_cast<std::uint32_t>(stage.size());
    header.payload_size = result.out_bytes;
    header.checksum = checksum_of(message);
    write_frame_header(header, frame);
    take_longer(m_delay_ns);
    result.total_ns = monotonic_ns() - start;
    return result;
}

void RE_encoder::eliminate_redundancy(RE_byte_view message, RE_encode_result& result)
{
    const std::time_t now = wall_seconds();
    const std::size_t width = signature_width(m_signature_bits);
    m_records.clear();
    m_sections.clear();
    bool b_in_range = false;
    while (!message.empty()) {
        const RE_chunk_cut cut = m_chunker.cut(message);
        const RE_byte_view chunk = message.first(cut.size);
        message = message.subspan(cut.size);
        result.anchor_cuts += cut.cause == RE_cut_cause::anchor ? 1U : 0U;
        result.forced_cuts += cut.cause == RE_cut_cause::forced ? 1U : 0U;
        if (cut.size < m_chunker.sizes().min) {
            ++result.partial_chunks;
            result.partial_bytes += cut.size;
            append_chunk_record(m_records, RE_chunk_record::plain, cut.size);
            append_bytes(m_records, chunk);
            continue;
        }
        ++result.chunks;
        const RE_signature signature = signature_of(chunk, m_signature_bits);
        RE_known_chunk* const known = m_index.find(signature);
        if (known == nullptr) {
            m_index.insert(signature, cut.size, now);
            append_chunk_record(m_records, RE_chunk_record::fresh, cut.size);
            append_bytes(m_records, chunk);
            b_in_range = false;
            continue;
        }
        ++result.matches;
        result.repeat_matches += known->matches > 0 ? 1U : 0U;
        ++known->matches;
        result.ranges += b_in_range ? 0U : 1U;
        b_in_range = true;
        m_sections.push_back(known->section);
        append_chunk_record(m_records, RE_chunk_record::reference, cut.size);
        append_number(m_records, signature, width);
    }
    m_index.end_section();
    std::sort(m_sections.begin(), m_sections.end());
    const auto distinct_end = std::unique(m_sections.begin(), m_sections.end());
    result.sections = static_cast<std::uint32_t>(distinct_end - m_sections.begin());
    result.re_out_bytes = static_cast<std::uint32_t>(m_records.size());
}

void RE_encoder::learn_from_nack(const RE_answer& nack)
{
    switch (nack.reason) {
    case RE_nack_reason::chunk_missed: {
        // The peer drops its oldest chunks first, so the chunks before a missing one are gone as well.
        std::uint64_t newest_missing = 0;
        bool b_known = false;
        for (const RE_signature suspect : nack.suspects) {
            if (const RE_known_chunk* const chunk = m_index.find(suspect)) {
                newest_missing = std::max(newest_missing, chunk->position);
                b_known = true;
            }
        }
        if (b_known) {
            m_index.forget_up_to(newest_missing, wall_seconds());
        }
        break;
    }
    case RE_nack_reason::checksum_collision:
        for (const RE_signature suspect : nack.suspects) {
            m_index.forget(suspect);
        }
        break;
    case RE_nack_reason::cache_not_ready:
        m_index.clear();
        break;
    case RE_nack_reason::disk_overloaded:
    case RE_nack_reason::none:
        break;
    }
}
