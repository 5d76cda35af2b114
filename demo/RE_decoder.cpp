#include "RE_decoder.h"

#include "RE_clock.h"

#include <algorithm>

RE_decoder::RE_decoder(const RE_decoder_settings& settings, RE_lz& lz)
    : m_settings(settings), m_store(settings.folder, settings.capacity, settings.smallest_chunk), m_lz(lz),
      m_creation_time(wall_seconds()), m_readable_bytes(settings.read_budget.most_bytes)
{
    if (settings.load_step == 0) {
        m_store.prepare(settings.capacity);
    }
}

RE_answer RE_decoder::decode(RE_byte_view frame, RE_byte_buffer& message, RE_decode_result& result)
{
    const std::int64_t start = monotonic_ns();
    const std::int64_t disk_before = m_store.disk_work().time_ns;
    const std::uint64_t writes_before = m_store.disk_work().writes;
    const std::uint64_t written_before = m_store.disk_work().written_bytes;
    m_readable_bytes = std::min<std::uint64_t>(m_readable_bytes + m_settings.read_budget.bytes_per_message,
                                               m_settings.read_budget.most_bytes);
    const bool b_ready_before = m_store.is_ready();
    m_store.prepare(m_settings.load_step);

    const RE_frame_header header = read_frame_header(frame);
    RE_answer answer;
    answer.conn_id = header.conn_id;
    answer.sequence = header.sequence;

    RE_byte_view stage = frame_payload(frame);
    result.in_bytes = header.payload_size;
    m_records.clear();
    if (header.b_deflated) {
        const std::int64_t lz_start = monotonic_ns();
        m_lz.expand(stage, header.inflated_size, m_records);
        stage = m_records;
        result.b_inflated = true;
        result.lz_in_bytes = header.payload_size;
        result.lz_out_bytes = header.inflated_size;
        result.zlib_ns = m_lz.last_zlib_ns();
        result.lz_ns = monotonic_ns() - lz_start;
    }

    message.clear();
    result.b_chunk_records = header.b_chunk_records;
    if (!header.b_chunk_records) {
        append_bytes(message, stage);
    } else if (!b_ready_before) {
        answer.reason = RE_nack_reason::cache_not_ready;
    } else {
        result.re_in_bytes = header.inflated_size;
        answer.reason = put_together(stage, message, answer, result);
    }
    if (answer.reason == RE_nack_reason::none && checksum_of(message) != header.checksum) {
        if (!header.b_chunk_records) {
            throw std::runtime_error("a message arrived damaged");
        }
        answer.reason = RE_nack_reason::checksum_collision;
    }
    if (answer.reason == RE_nack_reason::none || answer.reason == RE_nack_reason::disk_overloaded) {
        answer.suspects.clear();
    }

    answer.b_cache_ready = m_store.is_ready();
    answer.head_clock = m_store.index().head_clock();
    answer.tail_clock = m_store.index().tail_clock();
    result.out_bytes = static_cast<std::uint32_t>(message.size());
    result.disk_ns = m_store.disk_work().time_ns - disk_before;
    result.written_sections = static_cast<std::uint32_t>(m_store.disk_work().writes - writes_before);
    result.written_bytes = static_cast<std::uint32_t>(m_store.disk_work().written_bytes - written_before);
    take_longer(m_delay_ns);
    result.total_ns = monotonic_ns() - start;
    return answer;
}

// Fresh chunks are stored even when the message itself fails, because later messages refer to them. The suspects are
// the missing signatures or, when none is missing, all signatures that were referred to.
RE_nack_reason RE_decoder::put_together(RE_byte_view records, RE_byte_buffer& message, RE_answer& answer,
                                        RE_decode_result& result)
{
    const std::time_t now = wall_seconds();
    const std::size_t width = signature_width(m_settings.signature_bits);
    std::vector<RE_signature> missing;
    bool b_overloaded = false;
    RE_byte_reader reader(records);
    while (!reader.is_at_end()) {
        const RE_chunk_record_head record = take_chunk_record(reader);
        if (record.kind == RE_chunk_record::reference) {
            ++result.chunks;
            const RE_signature signature = reader.take_number(width);
            answer.suspects.push_back(signature);
            const std::uint32_t size = m_store.size_of(signature);
            if (size == 0) {
                missing.push_back(signature);
            } else if (b_overloaded || !grant_read(size)) {
                b_overloaded = true;
            } else {
                m_store.read(signature, message);
            }
            continue;
        }
        const RE_byte_view chunk = reader.take_bytes(record.chunk_size);
        append_bytes(message, chunk);
        if (record.kind == RE_chunk_record::fresh) {
            ++result.chunks;
            m_store.insert(signature_of(chunk, m_settings.signature_bits), chunk, now);
        }
    }
    m_store.end_section();
    if (!missing.empty()) {
        answer.suspects = std::move(missing);
        return RE_nack_reason::chunk_missed;
    }
    return b_overloaded ? RE_nack_reason::disk_overloaded : RE_nack_reason::none;
}

bool RE_decoder::grant_read(std::uint32_t size)
{
    if (m_settings.read_budget.bytes_per_message == 0) {
        return true;
    }
    if (size > m_readable_bytes) {
        return false;
    }
    m_readable_bytes -= size;
    return true;
}
