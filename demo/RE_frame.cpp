#include "RE_frame.h"

#include <algorithm>

namespace {

constexpr std::uint8_t flag_chunk_records = 1;
constexpr std::uint8_t flag_deflated = 2;
constexpr std::uint8_t flag_retransmission = 4;
constexpr unsigned int chunk_size_bits = 14;

} // namespace

void write_frame_header(const RE_frame_header& header, RE_byte_buffer& frame)
{
    RE_byte_buffer bytes;
    bytes.reserve(RE_frame_header::size);
    const unsigned int flags = (header.b_chunk_records ? flag_chunk_records : 0U) |
                               (header.b_deflated ? flag_deflated : 0U) |
                               (header.b_retransmission ? flag_retransmission : 0U);
    append_number(bytes, flags, 1);
    append_number(bytes, static_cast<std::uint8_t>(header.bypass_cause), 1);
    append_number(bytes, 0, 2);
    append_number(bytes, header.conn_id, 4);
    append_number(bytes, header.sequence, 4);
    append_number(bytes, header.message_size, 4);
    append_number(bytes, header.inflated_size, 4);
    append_number(bytes, header.payload_size, 4);
    append_number(bytes, header.checksum, 8);
    std::copy(bytes.begin(), bytes.end(), frame.begin());
}

RE_frame_header read_frame_header(RE_byte_view frame)
{
    RE_byte_reader reader(frame);
    RE_frame_header header;
    const std::uint64_t flags = reader.take_number(1);
    header.b_chunk_records = (flags & flag_chunk_records) != 0;
    header.b_deflated = (flags & flag_deflated) != 0;
    header.b_retransmission = (flags & flag_retransmission) != 0;
    header.bypass_cause = static_cast<RE_bypass_cause>(reader.take_number(1));
    reader.take_bytes(2);
    header.conn_id = static_cast<std::uint32_t>(reader.take_number(4));
    header.sequence = static_cast<std::uint32_t>(reader.take_number(4));
    header.message_size = static_cast<std::uint32_t>(reader.take_number(4));
    header.inflated_size = static_cast<std::uint32_t>(reader.take_number(4));
    header.payload_size = static_cast<std::uint32_t>(reader.take_number(4));
    header.checksum = reader.take_number(8);
    reader.take_bytes(header.payload_size);
    return header;
}

RE_byte_view frame_payload(RE_byte_view frame)
{
    return frame.subspan(RE_frame_header::size);
}

RE_byte_buffer write_answer(const RE_answer& answer)
{
    RE_byte_buffer bytes;
    append_number(bytes, answer.conn_id, 4);
    append_number(bytes, answer.sequence, 4);
    append_number(bytes, static_cast<std::uint8_t>(answer.reason), 1);
    append_number(bytes, answer.b_cache_ready ? 1 : 0, 1);
    append_number(bytes, answer.head_clock, 8);
    append_number(bytes, answer.tail_clock, 8);
    for (const RE_signature suspect : answer.suspects) {
        append_number(bytes, suspect, 8);
    }
    return bytes;
}

RE_answer read_answer(RE_byte_view bytes)
{
    RE_byte_reader reader(bytes);
    RE_answer answer;
    answer.conn_id = static_cast<std::uint32_t>(reader.take_number(4));
    answer.sequence = static_cast<std::uint32_t>(reader.take_number(4));
    answer.reason = static_cast<RE_nack_reason>(reader.take_number(1));
    answer.b_cache_ready = reader.take_number(1) != 0;
    answer.head_clock = reader.take_number(8);
    answer.tail_clock = reader.take_number(8);
    while (!reader.is_at_end()) {
        answer.suspects.push_back(reader.take_number(8));
    }
    return answer;
}

void append_chunk_record(RE_byte_buffer& out, RE_chunk_record kind, std::uint32_t chunk_size)
{
    append_number(out, static_cast<unsigned int>(kind) << chunk_size_bits | chunk_size, 2);
}

RE_chunk_record_head take_chunk_record(RE_byte_reader& reader)
{
    const std::uint64_t word = reader.take_number(2);
    return {static_cast<RE_chunk_record>(word >> chunk_size_bits),
            static_cast<std::uint32_t>(word & ((1U << chunk_size_bits) - 1))};
}
