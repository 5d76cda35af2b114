#include "RE_image_reader.h"

#include "RE_image_reset.h"
#include "RE_image_save.h"
#include "RE_record_flag.h"
#include "RE_sequence.h"
#include "RE_stat_error.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>

namespace {

constexpr int not_there = -1;

// The fields of an identity that the interface reads one by one.
enum identity_field : unsigned int
{
    field_header = 1,
    field_so_header = 2,
    field_time = 4,
    field_peer_id = 8,
};

float milliseconds_a_message(long long microseconds, long long messages)
{
    return messages > 0 ? static_cast<float>(static_cast<double>(microseconds) / static_cast<double>(messages) / 1000.0)
                        : 0.0F;
}

constexpr std::uint64_t cursor_bits = 0x7fffffff;

int cursor_of(std::uint64_t entry_number)
{
    return static_cast<int>(entry_number & cursor_bits);
}

// Returns the number of the oldest entry in the log, or the log's end when the log is empty.
std::uint64_t oldest_nack(const RE_stat_image& image, std::uint64_t end)
{
    const std::uint64_t logged = std::max(load_acquire(&image.header->nacks_logged), end);
    const std::uint64_t kept = logged > image.nacks.rows ? logged - image.nacks.rows : 0;
    return std::max(kept, load_relaxed(&image.header->nacks_reset));
}

} // namespace

void RE_image_reader::begin(const RE_stat_image& image)
{
    m_image = image;
    m_peer = {image, image.peers, &image.header->peer_slots_used};
    m_conn = {image, image.conns, &image.header->conn_slots_used};
    m_patience = image.b_saved ? RE_patience() : RE_patience::with_engine();
    m_nacks_end = load_acquire(&image.header->nacks_logged);
}

void RE_image_reader::end()
{
    m_image = {};
    m_peer = {};
    m_conn = {};
    m_bypass_copy.reset();
}

RE_stat_config_param* RE_image_reader::get_config_param()
{
    if (m_image.config.rows == 0 || !copy_row(&m_image.config[0], m_config, m_patience) || m_config.b_present == 0) {
        return nullptr;
    }
    RE_stat_config_param& config = m_config.config;
    for (bool* const flag : {&config.m_b_rep_accl_mode, &config.m_b_partial_lookup_on, &config.m_lz_adaptive,
                             &config.m_lz_adaptive_use_entropy, &config.m_big_msg_checksum, &config.m_b_plz_enabled}) {
        *flag = is_set(*flag);
    }
    return &config;
}

int RE_image_reader::read_global_stat(int id, long long& value)
{
    value = 0;
    if (!is_open() || !is_id(id, RE_STAT_GLOBAL_ID_MAX)) {
        return not_there;
    }
    value = m_image.global_stats.read(0, id);
    return 0;
}

int RE_image_reader::read_global_conn_stat(int id, long long& value)
{
    value = 0;
    if (!is_open() || !is_id(id, RE_STAT_CONN_ID_MAX)) {
        return not_there;
    }
    value = m_image.global_conn_stats.read(0, id);
    return 0;
}

int RE_image_reader::read_global_active_conn_count()
{
    return is_open() ? static_cast<int>(m_image.global_active_conns.read(0, 0)) : 0;
}

int RE_image_reader::get_max_peer_slots()
{
    return m_peer.slots_to_scan();
}

bool RE_image_reader::is_peer_valid(int peer_slot)
{
    return m_peer.take(peer_slot, m_patience);
}

int RE_image_reader::read_peer_header(int peer_slot, RE_stat_peer_header& hdr)
{
    if (!fetch_peer(peer_slot, field_header)) {
        hdr = {};
        return not_there;
    }
    hdr = m_peer.copy().header;
    return 0;
}

int RE_image_reader::read_peer_id(int peer_slot, int& peer_id)
{
    const bool b_valid = fetch_peer(peer_slot, field_peer_id);
    peer_id = b_valid ? m_peer.copy().peer_id : -1;
    return b_valid ? 0 : not_there;
}

int RE_image_reader::read_peer_counter(int peer_slot, const RE_image_counters& counters, int id, long long& value)
{
    value = 0;
    return fetch_peer(peer_slot, 0) && m_peer.read_counter(counters, id, value) ? 0 : not_there;
}

int RE_image_reader::read_peer_stat(int peer_slot, int id, long long& value)
{
    value = 0;
    return is_id(id, RE_STAT_PEER_ID_MAX) ? read_peer_counter(peer_slot, m_image.peer_stats, id, value) : not_there;
}

int RE_image_reader::read_peer_conn_stat(int peer_slot, int id, long long& value)
{
    value = 0;
    return is_id(id, RE_STAT_CONN_ID_MAX) ? read_peer_counter(peer_slot, m_image.peer_conn_stats, id, value)
                                          : not_there;
}

int RE_image_reader::read_peer_active_conn_count(int peer_slot)
{
    long long count = 0;
    read_peer_counter(peer_slot, m_image.peer_active_conns, 0, count);
    return static_cast<int>(count);
}

int RE_image_reader::get_max_app_slots()
{
    return static_cast<int>(m_image.apps.slots);
}

std::uint32_t RE_image_reader::get_app_slot_shared_memory_header_size()
{
    return is_open() ? m_image.app_rows_in_reach() : 0;
}

// Copies the slot's record, so that the caller's record does not change and every counter in it is read atomically.
// Counters that the image does not contain are 0.
bool RE_image_reader::fetch_app(int app_slot)
{
    if (app_slot < 0 || static_cast<std::uint32_t>(app_slot) >= get_app_slot_shared_memory_header_size()) {
        return false;
    }
    const auto row = static_cast<std::size_t>(app_slot);
    const std::uint32_t* const stats = m_image.app_stats(row);
    const std::uint32_t count = std::min<std::uint32_t>(m_image.counts.app, RE_STAT_APP_ID_MAX);
    for (std::uint32_t id = 0; id < count; ++id) {
        m_app.m_id_array[id] = load_relaxed(stats + id);
    }
    std::fill(m_app.m_id_array + count, std::end(m_app.m_id_array), 0U);
    // The header ends at a multiple of 8 bytes; four bytes precede its first 64-bit word.
    RE_stat_app_header* const header = m_image.app_header(row);
    const std::uint32_t first = load_relaxed(reinterpret_cast<const std::uint32_t*>(header));
    auto* const copy = reinterpret_cast<unsigned char*>(&m_app.m_header);
    std::memcpy(copy, &first, sizeof first);
    load_words(RE_image_app_word(header), copy + sizeof first, sizeof m_app.m_header - sizeof first);
    return true;
}

int RE_image_reader::read_app_slot(int app_slot, RE_stat_app_struct*& p)
{
    const bool b_there = fetch_app(app_slot);
    p = b_there ? &m_app : nullptr;
    return b_there ? 0 : not_there;
}

int RE_image_reader::read_app_header(int app_slot, RE_stat_app_header& hdr)
{
    if (!fetch_app(app_slot)) {
        hdr = {};
        return not_there;
    }
    hdr = m_app.m_header;
    return 0;
}

int RE_image_reader::read_app_stat(int app_slot, int id, long& value)
{
    value = 0;
    if (!is_id(id, RE_STAT_APP_ID_MAX) || !fetch_app(app_slot)) {
        return not_there;
    }
    value = m_app.m_id_array[id];
    return 0;
}

const std::uint32_t* RE_image_reader::get_app_id_array(int app_slot)
{
    return fetch_app(app_slot) ? m_app.m_id_array : nullptr;
}

int RE_image_reader::get_max_conn_slots()
{
    return m_conn.slots_to_scan();
}

bool RE_image_reader::is_conn_valid(int conn_slot)
{
    return m_conn.take(conn_slot, m_patience);
}

int RE_image_reader::read_conn_header(int conn_slot, RE_stat_conn_header& hdr)
{
    if (!fetch_conn(conn_slot, field_header)) {
        hdr = {};
        return not_there;
    }
    hdr = m_conn.copy().header;
    return 0;
}

int RE_image_reader::read_conn_so_header(int conn_slot, SO_stat_conn_header& hdr)
{
    if (!fetch_conn(conn_slot, field_so_header)) {
        hdr = {};
        return not_there;
    }
    hdr = m_conn.copy().so_header;
    return 0;
}

void RE_image_reader::walk_counters_to(std::uint32_t row)
{
    constexpr std::int64_t steps_ahead = 6;
    const std::int64_t step = std::int64_t{row} - std::int64_t{m_counters_row};
    const std::int64_t ahead = row + steps_ahead * step;
    if (ahead >= 0 && ahead < std::int64_t{m_conn.rows_in_reach()}) {
        __builtin_prefetch(m_image.conn_stats.of_row(static_cast<std::size_t>(ahead)));
    }
    m_counters_row = row;
}

int RE_image_reader::read_conn_stat(int conn_slot, int id, long long& value)
{
    value = 0;
    if (!is_id(id, RE_STAT_CONN_ID_MAX) || !fetch_conn(conn_slot, 0)) {
        return not_there;
    }
    if (m_conn.row() != m_counters_row) {
        walk_counters_to(m_conn.row());
    }
    return m_conn.read_counter(m_image.conn_stats, id, value) ? 0 : not_there;
}

int RE_image_reader::read_conn_time(int conn_slot, std::time_t& open_time, std::time_t& close_time)
{
    const bool b_valid = fetch_conn(conn_slot, field_time);
    open_time = b_valid ? m_conn.copy().open_time : 0;
    close_time = b_valid ? m_conn.copy().close_time : 0;
    return b_valid ? 0 : not_there;
}

int RE_image_reader::read_conn_peer_id(int conn_slot, int& peer_id)
{
    const bool b_valid = fetch_conn(conn_slot, field_peer_id);
    peer_id = b_valid ? m_conn.copy().peer_id : -1;
    return b_valid ? 0 : not_there;
}

int RE_image_reader::read_conn_stat_for_qlt(RE_stat_conn_handler conn, RE_stat_conn_for_qlt& out)
{
    out = {};
    if (!is_conn_valid(conn)) {
        return not_there;
    }
    const auto stat = [&](int id) {
        long long value = 0;
        read_conn_stat(conn, id, value);
        return value;
    };
    out.re_encode_in_bytes = stat(RE_STAT_CONN_ID_RE_ENCODE_IN_BYTES);
    out.re_decode_in_bytes = stat(RE_STAT_CONN_ID_RE_DECODE_IN_BYTES);
    out.re_encode_out_bytes = stat(RE_STAT_CONN_ID_RE_ENCODE_OUT_BYTES);
    out.re_decode_out_bytes = stat(RE_STAT_CONN_ID_RE_DECODE_OUT_BYTES);
    out.lz_encode_in_bytes = stat(RE_STAT_CONN_ID_LZ_ENCODE_IN_BYTES);
    out.lz_decode_in_bytes = stat(RE_STAT_CONN_ID_LZ_DECODE_IN_BYTES);
    out.lz_encode_out_bytes = stat(RE_STAT_CONN_ID_LZ_ENCODE_OUT_BYTES);
    out.lz_decode_out_bytes = stat(RE_STAT_CONN_ID_LZ_DECODE_OUT_BYTES);
    out.avg_encode_latency =
        milliseconds_a_message(stat(RE_STAT_CONN_ID_TOT_ENCODE_SPEED), stat(RE_STAT_CONN_ID_ENCODE_NUM_MSGS));
    out.avg_decode_latency =
        milliseconds_a_message(stat(RE_STAT_CONN_ID_TOT_DECODE_SPEED), stat(RE_STAT_CONN_ID_DECODE_NUM_MSGS));
    out.avg_encode_lz_latency =
        milliseconds_a_message(stat(RE_STAT_CONN_ID_TOT_ENCODE_LZ_SPEED), stat(RE_STAT_CONN_ID_LZ_ENCODE_NUM_MSGS));
    out.avg_decode_lz_latency =
        milliseconds_a_message(stat(RE_STAT_CONN_ID_TOT_DECODE_LZ_SPEED), stat(RE_STAT_CONN_ID_LZ_DECODE_NUM_MSGS));
    return 0;
}

int RE_image_reader::get_first_nack()
{
    if (!is_open() || m_image.nacks.rows == 0) {
        return not_there;
    }
    m_nacks_end = load_acquire(&m_image.header->nacks_logged);
    const std::uint64_t oldest = oldest_nack(m_image, m_nacks_end);
    return oldest < m_nacks_end ? cursor_of(oldest) : not_there;
}

int RE_image_reader::get_next_nack(int cursor, RE_stat_nack_header& hdr)
{
    hdr = {};
    if (!is_open() || m_image.nacks.rows == 0 || cursor < 0) {
        return not_there;
    }
    // A cursor is the low 31 bits of its entry's number. The entry is less than 2^31 entries before the end of the
    // walk.
    const std::uint64_t to_end = (m_nacks_end - static_cast<std::uint64_t>(cursor)) & cursor_bits;
    if (to_end > m_nacks_end) {
        return not_there;
    }
    // Entries that were overwritten in the meantime are lost. The walk continues with the oldest entry that still
    // exists.
    for (std::uint64_t entry = std::max(m_nacks_end - to_end, oldest_nack(m_image, m_nacks_end)); entry < m_nacks_end;
         ++entry) {
        const RE_image_nack_row* const row = &m_image.nacks[entry % m_image.nacks.rows];
        RE_image_nack_row copy{};
        if (load_acquire(&row->sequence) == RE_nack_sequence(entry)) {
            load_words(row, copy);
            if (load_relaxed(&row->sequence) == RE_nack_sequence(entry)) {
                hdr = copy.nack;
                return cursor_of(entry + 1);
            }
        }
    }
    return not_there;
}

void RE_image_reader::reset_all()
{
    if (const auto target = open_writable()) {
        reset_global(target->image, RE_reset_extent::totals);
        reset_peers(target->image, RE_reset_extent::totals);
        reset_conns(target->image, RE_reset_extent::totals);
        reset_apps(target->image);
        reset_nacks(target->image);
    }
}

void RE_image_reader::reset_global_stat()
{
    if (const auto target = open_writable()) {
        reset_global(target->image, RE_reset_extent::totals);
    }
}

void RE_image_reader::reset_peer_stat(int peer_slot)
{
    const auto target = is_peer_valid(peer_slot) ? open_writable() : nullptr;
    if (target && m_peer.row() < target->image.peers.rows) {
        reset_peer(target->image, m_peer.row(), RE_reset_extent::totals);
    }
}

void RE_image_reader::reset_all_peers()
{
    if (const auto target = open_writable()) {
        reset_peers(target->image, RE_reset_extent::totals);
    }
}

void RE_image_reader::reset_all_apps()
{
    if (const auto target = open_writable()) {
        reset_apps(target->image);
    }
}

void RE_image_reader::reset_conn_stat(int conn_slot)
{
    const auto target = is_conn_valid(conn_slot) ? open_writable() : nullptr;
    if (target && m_conn.row() < target->image.conns.rows) {
        reset_conn(target->image, m_conn.row(), RE_reset_extent::totals);
    }
}

void RE_image_reader::reset_all_conns()
{
    if (const auto target = open_writable()) {
        reset_conns(target->image, RE_reset_extent::totals);
    }
}

void RE_image_reader::reset_all_nacks()
{
    if (const auto target = open_writable()) {
        reset_nacks(target->image);
    }
}

void RE_image_reader::clear_all()
{
    if (const auto target = open_writable()) {
        reset_global(target->image, RE_reset_extent::everything);
        reset_peers(target->image, RE_reset_extent::everything);
        reset_conns(target->image, RE_reset_extent::everything);
        reset_apps(target->image);
        reset_nacks(target->image);
    }
}

int RE_image_reader::save_stats_binary(const char* path)
{
    if (!is_open()) {
        return RE_STAT_ERR_NOT_OPEN;
    }
    return path != nullptr ? save_image(m_image, path) : RE_STAT_ERR_TARGET;
}

void* RE_image_reader::get_re_auto_bypass_memory_ptr(int size)
{
    if (!is_open() || size <= 0 || static_cast<std::uint32_t>(size) != m_image.bypass.slots) {
        return nullptr;
    }
    if (m_image.bypass.rows == m_image.bypass.slots) {
        return m_image.bypass.base;
    }
    // A saved table ends with its last entry in use; the rest is empty.
    if (m_bypass_copy == nullptr) {
        m_bypass_copy.reset(new (std::nothrow) unsigned char[m_image.bypass.slots]());
        if (m_bypass_copy != nullptr) {
            std::memcpy(m_bypass_copy.get(), m_image.bypass.base, m_image.bypass.rows);
        }
    }
    return m_bypass_copy.get();
}
