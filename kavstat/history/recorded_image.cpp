#include "history/recorded_image.h"

#include "RE_bypass_table.h"

#include <algorithm>
#include <cstring>

namespace kavstat {

namespace {

// A section whose rows are in this vector. slots: how many rows the engine has room for.
template <typename Row>
void place_rows(RE_image_view& view, std::vector<Row>& rows, std::size_t slots)
{
    view = {reinterpret_cast<unsigned char*>(rows.data()), sizeof(Row), static_cast<std::uint32_t>(rows.size()),
            static_cast<std::uint32_t>(slots)};
}

// Slots are counted from 0, so that this is how many there must be.
template <typename Row>
std::size_t slots_of(const std::vector<Row>& rows)
{
    return rows.empty() ? 0 : rows.back().slot + std::size_t{1};
}

template <std::size_t Size, typename Figures>
void copy_figures(std::int64_t (&counters)[Size], const Figures& figures)
{
    std::copy(figures.begin(), figures.end(), std::begin(counters));
}

} // namespace

RecordedReader::RecordedReader(const RecordedMoment& moment)
{
    std::memcpy(m_header.magic, RE_image_magic, sizeof m_header.magic);
    m_header.byte_order = RE_image_byte_order;
    m_header.layout_version = RE_image_layout_version;
    m_header.state = RE_IMAGE_SAVED;
    m_header.engine_start_time = moment.engine_start_time;
    m_header.capture_time = moment.sample.time;
    m_header.set_counts(RE_image_counts_of_this_build);
    m_moment.header = &m_header;
    m_moment.counts = RE_image_counts_of_this_build;
    m_moment.b_saved = true;
    add_engine(moment);
    add_peers(moment);
    add_conns(moment);
    add_apps(moment);
    add_nacks(moment);
    add_bypass(moment);
    m_moment.place_counters();
}

int RecordedReader::open()
{
    begin(m_moment);
    return 0;
}

int RecordedReader::close()
{
    end();
    return 0;
}

void RecordedReader::add_engine(const RecordedMoment& moment)
{
    m_config.b_present = moment.config.has_value() ? 1 : 0;
    if (moment.config) {
        std::memcpy(static_cast<void*>(&m_config.config), &*moment.config, sizeof m_config.config);
    }
    static_cast<RE_image_view&>(m_moment.config) = {reinterpret_cast<unsigned char*>(&m_config), sizeof m_config, 1, 1};
    copy_figures(m_global.stats, moment.engine);
    copy_figures(m_global.conn_stats, moment.connections);
    m_global.active_conns = moment.active_connections;
    m_moment.global = {reinterpret_cast<unsigned char*>(&m_global), sizeof m_global, 1, 1};
}

void RecordedReader::add_peers(const RecordedMoment& moment)
{
    for (const auto& [identity, peer] : moment.peers) {
        RE_image_peer_row& row = m_peers.emplace_back();
        row.slot = static_cast<std::uint32_t>(peer.slot);
        row.b_in_use = 1;
        row.peer_id = peer.number;
        row.header = peer.header;
        RE_image_peer_counters& counters = m_peer_counters.emplace_back();
        copy_figures(counters.stats, peer.figures);
        copy_figures(counters.conn_stats, peer.connections);
        counters.active_conns = peer.active_connections;
    }
    place_rows(m_moment.peers, m_peers, slots_of(m_peers));
    place_rows(m_moment.peer_counters, m_peer_counters, slots_of(m_peers));
}

void RecordedReader::add_conns(const RecordedMoment& moment)
{
    for (const SnapshotConn& conn : moment.conns) {
        RE_image_conn_row& row = m_conns.emplace_back();
        row.slot = static_cast<std::uint32_t>(conn.slot);
        row.b_in_use = 1;
        row.peer_id = conn.peer_number;
        row.header = conn.header;
        row.so_header = conn.transport;
        row.open_time = conn.open_time;
        row.close_time = conn.close_time;
        copy_figures(m_conn_counters.emplace_back().stats, conn.figures);
    }
    place_rows(m_moment.conns, m_conns, slots_of(m_conns));
    place_rows(m_moment.conn_counters, m_conn_counters, slots_of(m_conns));
}

// The row of an application is its slot.
void RecordedReader::add_apps(const RecordedMoment& moment)
{
    m_apps.resize(moment.apps.empty() ? 0 : static_cast<std::size_t>(moment.apps.back().record.slot) + 1);
    for (const auto& [identity, app] : moment.apps) {
        RE_image_app_row& row = m_apps[static_cast<std::size_t>(app.slot)];
        std::copy(std::begin(app.app.m_id_array), std::end(app.app.m_id_array), std::begin(row.stats));
        row.header = app.app.m_header;
    }
    place_rows(m_moment.apps, m_apps, std::max(m_apps.size(), static_cast<std::size_t>(moment.app_slots)));
}

void RecordedReader::add_nacks(const RecordedMoment& moment)
{
    for (const RE_stat_nack_header& nack : moment.nacks) {
        const std::uint64_t number = m_nacks.size();
        m_nacks.push_back({RE_nack_sequence(number), nack});
    }
    m_header.nacks_logged = m_nacks.size();
    place_rows(m_moment.nacks, m_nacks, m_nacks.size());
}

void RecordedReader::add_bypass(const RecordedMoment& moment)
{
    m_bypass = std::make_unique<RE_bypass_table>();
    if (moment.sample.b_bypass_table) {
        m_bypass->magic = RE_bypass_magic;
        m_bypass->capacity = RE_bypass_capacity;
    }
    for (const auto& [identity, entry] : moment.bypass) {
        if (m_bypass->rows_used < RE_bypass_capacity) {
            RE_bypass_row& row = m_bypass->rows[m_bypass->rows_used++];
            row.b_in_use = 1;
            row.entry = entry;
        }
    }
    m_moment.bypass = {reinterpret_cast<unsigned char*>(m_bypass.get()), 1, sizeof(RE_bypass_table),
                       sizeof(RE_bypass_table)};
}

} // namespace kavstat
