#include "model/snapshot.h"

#include "RE_auto_bypass.h"
#include "RE_bypass_table.h"
#include "RE_sequence.h"

#include <algorithm>
#include <map>

namespace kavstat {

namespace {

// False when the slot is empty, or was reused during the call.
bool read_peer(RE_stat_reader& reader, int slot, SnapshotPeer& peer)
{
    if (!reader.is_peer_valid(slot) || reader.read_peer_header(slot, peer.header) < 0 ||
        reader.read_peer_id(slot, peer.number) < 0) {
        return false;
    }
    peer.slot = slot;
    for (int id = 0; id < RE_STAT_PEER_ID_MAX; ++id) {
        if (reader.read_peer_stat(slot, id, peer.figures[static_cast<std::size_t>(id)]) < 0) {
            return false;
        }
    }
    for (int id = 0; id < RE_STAT_CONN_ID_MAX; ++id) {
        if (reader.read_peer_conn_stat(slot, id, peer.connections[static_cast<std::size_t>(id)]) < 0) {
            return false;
        }
    }
    peer.active_connections = reader.read_peer_active_conn_count(slot);
    return true;
}

// A slot whose tenant changes while it is read is read again once. If it changes again, the report can do without that
// tenant.
constexpr int tries = 3;

} // namespace

Snapshot take_snapshot(RE_image_reader& reader, std::time_t now)
{
    Snapshot snapshot;
    snapshot.engine_start_time = reader.engine_start_time();
    snapshot.capture_time = reader.capture_time() != 0 ? reader.capture_time() : now;
    snapshot.active_connections = reader.read_global_active_conn_count();
    for (int id = 0; id < RE_STAT_GLOBAL_ID_MAX; ++id) {
        reader.read_global_stat(id, snapshot.engine[static_cast<std::size_t>(id)]);
    }
    for (int id = 0; id < RE_STAT_CONN_ID_MAX; ++id) {
        reader.read_global_conn_stat(id, snapshot.connections[static_cast<std::size_t>(id)]);
    }

    const int peer_slots = reader.get_max_peer_slots();
    snapshot.peers.reserve(static_cast<std::size_t>(peer_slots));
    SnapshotPeer peer;
    for (int slot = 0; slot < peer_slots; ++slot) {
        for (int attempt = 0; attempt < tries; ++attempt) {
            if (read_peer(reader, slot, peer)) {
                snapshot.peers.push_back(peer);
                break;
            }
        }
    }

    // An application stores only the identity of its peer.
    std::map<std::array<unsigned char, sizeof(RE_kav_peer_id)>, int> numbers;
    for (const SnapshotPeer& known : snapshot.peers) {
        numbers.emplace(std::to_array(known.header.m_kav_peer_id.m_data), known.number);
    }
    const auto app_slots = static_cast<int>(reader.get_app_slot_shared_memory_header_size());
    snapshot.apps.reserve(static_cast<std::size_t>(app_slots));
    for (int slot = 0; slot < app_slots; ++slot) {
        RE_stat_app_struct* app = nullptr;
        if (reader.read_app_slot(slot, app) < 0 || app == nullptr) {
            break;
        }
        const auto found = numbers.find(std::to_array(app->m_header.m_kav_peer_id.m_data));
        snapshot.apps.push_back({slot, found != numbers.end() ? found->second : -1, *app});
    }
    return snapshot;
}

std::optional<std::vector<RE_bypass_entry>> read_bypass(RE_image_reader& reader)
{
    const void* const memory = reader.get_re_auto_bypass_memory_ptr(static_cast<int>(RE_auto_bypass::get_shm_size()));
    const auto* const table = static_cast<const RE_bypass_table*>(memory);
    if (table == nullptr || load_relaxed(&table->magic) != RE_bypass_magic) {
        return std::nullopt;
    }
    std::vector<RE_bypass_entry> entries;
    const std::uint32_t rows = std::min(load_acquire(&table->rows_used), RE_bypass_capacity);
    for (std::uint32_t at = 0; at < rows; ++at) {
        RE_bypass_row row{};
        if (copy_row(&table->rows[at], row, reader.patience()) && row.b_in_use != 0) {
            entries.push_back(row.entry);
        }
    }
    return entries;
}

std::string application_label(const RE_stat_app_header& header)
{
    std::string text = std::to_string(header.m_server_port);
    if (header.m_b_src_port != 0) {
        text += "-source";
    }
    if (header.m_policy_engine_handler != 0) {
        text += "-handle" + std::to_string(header.m_policy_engine_handler);
    }
    return text;
}

bool read_connection(RE_stat_reader& reader, int slot, SnapshotConn& conn)
{
    if (!reader.is_conn_valid(slot) || reader.read_conn_header(slot, conn.header) < 0 ||
        reader.read_conn_so_header(slot, conn.transport) < 0 ||
        reader.read_conn_time(slot, conn.open_time, conn.close_time) < 0 ||
        reader.read_conn_peer_id(slot, conn.peer_number) < 0) {
        return false;
    }
    conn.slot = slot;
    for (int id = 0; id < RE_STAT_CONN_ID_MAX; ++id) {
        if (reader.read_conn_stat(slot, id, conn.figures[static_cast<std::size_t>(id)]) < 0) {
            return false;
        }
    }
    return true;
}

} // namespace kavstat
