#include "RE_image_reader.h"

#include "RE_image_reset.h"
#include "RE_image_save.h"
#include "RE_record_flag.h"
#include "RE_sequence.h"
#include "RE_stat_error.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {

constexpr int not_there = -1;

// The fields of an identity that the interface asks for one by one.
enum identity_field : unsigned int
{
    field_header = 1,
    field_so_header = 2,
    field_time = 4,
    field_peer_id = 8,
};

bool is_id_in_range(int id, int count)
{
    return id >= 0 && id < count;
}

// Finds the row of a slot among rows of which a live image has one for each slot and a saved one only those in use.
// last_row: where the previous search ended; scans go upwards, so the row looked for is mostly the next one.
template <typename Row>
bool find_row(const Row* rows, std::uint32_t count, bool b_saved, int slot, std::uint32_t last_row, std::uint32_t& row)
{
    if (slot < 0) {
        return false;
    }
    const auto wanted = static_cast<std::uint32_t>(slot);
    if (!b_saved) {
        row = wanted;
        return wanted < count;
    }
    const Row* start = rows;
    if (last_row < count && rows[last_row].slot < wanted) {
        start = rows + last_row + 1;
        if (start < rows + count && start->slot >= wanted) {
            row = last_row + 1;
            return start->slot == wanted;
        }
    }
    const Row* const found = std::lower_bound(
        start, rows + count, wanted, [](const Row& candidate, std::uint32_t value) { return candidate.slot < value; });
    row = static_cast<std::uint32_t>(found - rows);
    return found != rows + count && found->slot == wanted;
}

// One above the highest slot that a scan has to visit. count: rows that hold anything.
template <typename Row>
int slots_to_scan(const Row* rows, std::uint32_t count, bool b_saved)
{
    return static_cast<int>(b_saved && count != 0 ? rows[count - 1].slot + 1 : count);
}

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

// The oldest entry that the log still has, or its end when it has none.
std::uint64_t oldest_nack(const RE_stat_image& image, std::uint64_t end)
{
    const std::uint64_t logged = std::max(load_acquire(&image.header->nacks_logged), end);
    const std::uint64_t kept = logged > image.nack_rows ? logged - image.nack_rows : 0;
    return std::max(kept, load_relaxed(&image.header->nacks_reset));
}

} // namespace

void RE_image_reader::begin(const RE_stat_image& image)
{
    m_image = image;
    m_peer = {};
    m_conn = {};
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
    if (m_image.config == nullptr || !copy_row(m_image.config, m_config, m_patience) || m_config.b_present == 0) {
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
    if (!is_open() || !is_id_in_range(id, RE_STAT_GLOBAL_ID_MAX)) {
        return not_there;
    }
    value = load_relaxed(&m_image.global->stats[id]);
    return 0;
}

int RE_image_reader::read_global_conn_stat(int id, long long& value)
{
    value = 0;
    if (!is_open() || !is_id_in_range(id, RE_STAT_CONN_ID_MAX)) {
        return not_there;
    }
    value = load_relaxed(&m_image.global->conn_stats[id]);
    return 0;
}

int RE_image_reader::read_global_active_conn_count()
{
    return is_open() ? static_cast<int>(load_relaxed(&m_image.global->active_conns)) : 0;
}

int RE_image_reader::get_max_peer_slots()
{
    return is_open() ? slots_to_scan(m_image.peers, m_image.peer_rows_in_reach(), m_image.b_saved) : 0;
}

bool RE_image_reader::take_peer(int peer_slot)
{
    const std::uint32_t last_row = m_peer.row;
    m_peer.slot = peer_slot;
    m_peer.fields_given = 0;
    m_peer.b_valid =
        is_open() &&
        find_row(m_image.peers, m_image.peer_rows_in_reach(), m_image.b_saved, peer_slot, last_row, m_peer.row) &&
        load_relaxed(&m_image.peers[m_peer.row].b_in_use) != 0 &&
        copy_row(&m_image.peers[m_peer.row], m_peer.copy, m_patience) && m_peer.copy.b_in_use != 0;
    return m_peer.b_valid;
}

bool RE_image_reader::has_peer(int peer_slot, unsigned int field)
{
    if (m_peer.slot != peer_slot || (m_peer.fields_given & field) != 0) {
        take_peer(peer_slot);
    }
    m_peer.fields_given |= field;
    return m_peer.b_valid;
}

bool RE_image_reader::is_peer_valid(int peer_slot)
{
    return take_peer(peer_slot);
}

int RE_image_reader::read_peer_header(int peer_slot, RE_stat_peer_header& hdr)
{
    if (!has_peer(peer_slot, field_header)) {
        hdr = {};
        return not_there;
    }
    hdr = m_peer.copy.header;
    return 0;
}

int RE_image_reader::read_peer_id(int peer_slot, int& peer_id)
{
    const bool b_valid = has_peer(peer_slot, field_peer_id);
    peer_id = b_valid ? m_peer.copy.peer_id : -1;
    return b_valid ? 0 : not_there;
}

int RE_image_reader::read_peer_counter(int peer_slot, std::size_t offset, long long& value)
{
    value = 0;
    if (!has_peer(peer_slot, 0)) {
        return not_there;
    }
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&m_image.peer_counters[m_peer.row]);
    const long long counter = load_acquire(reinterpret_cast<const std::int64_t*>(bytes + offset));
    if (load_relaxed(&m_image.peers[m_peer.row].generation) != m_peer.copy.generation) {
        return not_there;
    }
    value = counter;
    return 0;
}

int RE_image_reader::read_peer_stat(int peer_slot, int id, long long& value)
{
    value = 0;
    if (!is_id_in_range(id, RE_STAT_PEER_ID_MAX)) {
        return not_there;
    }
    return read_peer_counter(peer_slot, offsetof(RE_image_peer_counters, stats) + static_cast<std::size_t>(id) * 8,
                             value);
}

int RE_image_reader::read_peer_conn_stat(int peer_slot, int id, long long& value)
{
    value = 0;
    if (!is_id_in_range(id, RE_STAT_CONN_ID_MAX)) {
        return not_there;
    }
    return read_peer_counter(peer_slot, offsetof(RE_image_peer_counters, conn_stats) + static_cast<std::size_t>(id) * 8,
                             value);
}

int RE_image_reader::read_peer_active_conn_count(int peer_slot)
{
    long long count = 0;
    read_peer_counter(peer_slot, offsetof(RE_image_peer_counters, active_conns), count);
    return static_cast<int>(count);
}

int RE_image_reader::get_max_app_slots()
{
    return static_cast<int>(m_image.app_slots);
}

std::uint32_t RE_image_reader::get_app_slot_shared_memory_header_size()
{
    return is_open() ? m_image.app_rows_in_reach() : 0;
}

// Copies the slot's record, so that what the caller gets stands still and every counter in it is whole.
bool RE_image_reader::has_app(int app_slot)
{
    if (app_slot < 0 || static_cast<std::uint32_t>(app_slot) >= get_app_slot_shared_memory_header_size()) {
        return false;
    }
    const RE_stat_app_struct& app = m_image.apps[app_slot].app;
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&app);
    auto* const copy = reinterpret_cast<unsigned char*>(&m_app);
    for (std::size_t at = 0; at < sizeof app; at += sizeof(std::uint32_t)) {
        const std::uint32_t word = load_relaxed(reinterpret_cast<const std::uint32_t*>(bytes + at));
        std::memcpy(copy + at, &word, sizeof word);
    }
    // Both connection counts lie in one 64-bit word and change in it.
    constexpr std::size_t counts_at = offsetof(RE_stat_app_struct, m_header) + 4;
    const std::uint64_t counts = load_relaxed(reinterpret_cast<const std::uint64_t*>(bytes + counts_at));
    std::memcpy(copy + counts_at, &counts, sizeof counts);
    return true;
}

int RE_image_reader::read_app_slot(int app_slot, RE_stat_app_struct*& p)
{
    const bool b_there = has_app(app_slot);
    p = b_there ? &m_app : nullptr;
    return b_there ? 0 : not_there;
}

int RE_image_reader::read_app_header(int app_slot, RE_stat_app_header& hdr)
{
    if (!has_app(app_slot)) {
        hdr = {};
        return not_there;
    }
    hdr = m_app.m_header;
    return 0;
}

int RE_image_reader::read_app_stat(int app_slot, int id, long& value)
{
    value = 0;
    if (!is_id_in_range(id, RE_STAT_APP_ID_MAX) || !has_app(app_slot)) {
        return not_there;
    }
    value = m_app.m_id_array[id];
    return 0;
}

const std::uint32_t* RE_image_reader::get_app_id_array(int app_slot)
{
    return has_app(app_slot) ? m_app.m_id_array : nullptr;
}

int RE_image_reader::get_max_conn_slots()
{
    return is_open() ? slots_to_scan(m_image.conns, m_image.conn_rows_in_reach(), m_image.b_saved) : 0;
}

bool RE_image_reader::take_conn(int conn_slot)
{
    const std::uint32_t last_row = m_conn.row;
    m_conn.slot = conn_slot;
    m_conn.fields_given = 0;
    m_conn.b_valid =
        is_open() &&
        find_row(m_image.conns, m_image.conn_rows_in_reach(), m_image.b_saved, conn_slot, last_row, m_conn.row) &&
        load_relaxed(&m_image.conns[m_conn.row].b_in_use) != 0 &&
        copy_row(&m_image.conns[m_conn.row], m_conn.copy, m_patience) && m_conn.copy.b_in_use != 0;
    return m_conn.b_valid;
}

inline bool RE_image_reader::has_conn(int conn_slot, unsigned int field)
{
    if (m_conn.slot != conn_slot || (m_conn.fields_given & field) != 0) {
        take_conn(conn_slot);
    }
    m_conn.fields_given |= field;
    return m_conn.b_valid;
}

bool RE_image_reader::is_conn_valid(int conn_slot)
{
    return take_conn(conn_slot);
}

int RE_image_reader::read_conn_header(int conn_slot, RE_stat_conn_header& hdr)
{
    if (!has_conn(conn_slot, field_header)) {
        hdr = {};
        return not_there;
    }
    hdr = m_conn.copy.header;
    return 0;
}

int RE_image_reader::read_conn_so_header(int conn_slot, SO_stat_conn_header& hdr)
{
    if (!has_conn(conn_slot, field_so_header)) {
        hdr = {};
        return not_there;
    }
    hdr = m_conn.copy.so_header;
    return 0;
}

void RE_image_reader::walk_counters_to(std::uint32_t row)
{
    constexpr std::int64_t steps_ahead = 6;
    const std::int64_t step = std::int64_t{row} - std::int64_t{m_counters_row};
    const std::int64_t ahead = row + steps_ahead * step;
    if (ahead >= 0 && ahead < std::int64_t{m_image.conn_rows_in_reach()}) {
        __builtin_prefetch(m_image.conn_counters[ahead].stats);
    }
    m_counters_row = row;
}

int RE_image_reader::read_conn_stat(int conn_slot, int id, long long& value)
{
    value = 0;
    if (!is_id_in_range(id, RE_STAT_CONN_ID_MAX) || !has_conn(conn_slot, 0)) {
        return not_there;
    }
    if (m_conn.row != m_counters_row) {
        walk_counters_to(m_conn.row);
    }
    const long long counter = load_acquire(&m_image.conn_counters[m_conn.row].stats[id]);
    if (load_relaxed(&m_image.conns[m_conn.row].generation) != m_conn.copy.generation) {
        return not_there;
    }
    value = counter;
    return 0;
}

int RE_image_reader::read_conn_time(int conn_slot, std::time_t& open_time, std::time_t& close_time)
{
    const bool b_valid = has_conn(conn_slot, field_time);
    open_time = b_valid ? m_conn.copy.open_time : 0;
    close_time = b_valid ? m_conn.copy.close_time : 0;
    return b_valid ? 0 : not_there;
}

int RE_image_reader::read_conn_peer_id(int conn_slot, int& peer_id)
{
    const bool b_valid = has_conn(conn_slot, field_peer_id);
    peer_id = b_valid ? m_conn.copy.peer_id : -1;
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
    if (!is_open() || m_image.nack_rows == 0) {
        return not_there;
    }
    m_nacks_end = load_acquire(&m_image.header->nacks_logged);
    const std::uint64_t oldest = oldest_nack(m_image, m_nacks_end);
    return oldest < m_nacks_end ? cursor_of(oldest) : not_there;
}

int RE_image_reader::get_next_nack(int cursor, RE_stat_nack_header& hdr)
{
    hdr = {};
    if (!is_open() || m_image.nack_rows == 0 || cursor < 0) {
        return not_there;
    }
    // A cursor is the low 31 bits of its entry's number, and lies within that distance of the walk's end.
    const std::uint64_t to_end = (m_nacks_end - static_cast<std::uint64_t>(cursor)) & cursor_bits;
    if (to_end > m_nacks_end) {
        return not_there;
    }
    // What was overwritten meanwhile is gone; the walk goes on with the oldest entry that is still there.
    for (std::uint64_t entry = std::max(m_nacks_end - to_end, oldest_nack(m_image, m_nacks_end)); entry < m_nacks_end;
         ++entry) {
        const RE_image_nack_row* const row = &m_image.nacks[entry % m_image.nack_rows];
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
    if (target) {
        reset_peer(target->image, m_peer.row, RE_reset_extent::totals);
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
    if (target) {
        reset_conn(target->image, m_conn.row, RE_reset_extent::totals);
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
    if (!is_open() || size <= 0 || static_cast<std::uint32_t>(size) != m_image.bypass_room) {
        return nullptr;
    }
    if (m_image.bypass_size == m_image.bypass_room) {
        return m_image.bypass;
    }
    // A saved table ends with its last entry in use; the rest is empty.
    if (m_bypass_copy == nullptr) {
        m_bypass_copy.reset(new (std::nothrow) unsigned char[m_image.bypass_room]());
        if (m_bypass_copy != nullptr) {
            std::memcpy(m_bypass_copy.get(), m_image.bypass, m_image.bypass_size);
        }
    }
    return m_bypass_copy.get();
}
