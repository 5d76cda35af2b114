// The statistics of a reader at one moment, as plain values. JSON, metrics, differences and the live view are made from
// them. An engine may have a million connections, so they are read one by one and not kept.
#pragma once

#include "RE_image_reader.h"
#include "RE_stat_writer.h"

#include <array>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace kavstat {

using EngineFigures = std::array<long long, RE_STAT_GLOBAL_ID_MAX>;   // by RE_stat_global_id
using PeerFigures = std::array<long long, RE_STAT_PEER_ID_MAX>;       // by RE_stat_peer_id
using ConnectionFigures = std::array<long long, RE_STAT_CONN_ID_MAX>; // by RE_stat_conn_id

struct SnapshotPeer
{
    int slot = 0;
    int number = -1; // "Peer-No"
    int active_connections = 0;
    RE_stat_peer_header header{};
    PeerFigures figures{};
    ConnectionFigures connections{}; // sums over the peer's connections
};

struct SnapshotApp
{
    int slot = 0;
    int peer_number = -1; // -1 when the peer is gone
    RE_stat_app_struct app{};
};

struct SnapshotConn
{
    int slot = 0;
    int peer_number = -1;
    std::time_t open_time = 0;
    std::time_t close_time = 0; // 0 or less while it is open
    RE_stat_conn_header header{};
    SO_stat_conn_header transport{};
    ConnectionFigures figures{};

    bool is_open() const { return close_time <= 0; }
};

struct Snapshot
{
    std::time_t engine_start_time = 0; // seconds since the epoch
    std::time_t capture_time = 0;      // when the figures were read, or saved
    int active_connections = 0;
    EngineFigures engine{};
    ConnectionFigures connections{}; // sums over all connections
    std::vector<SnapshotPeer> peers; // in ascending order of slots
    std::vector<SnapshotApp> apps;   // in ascending order of slots
};

// Reads everything but connections. reader: open. now: the capture time of live statistics.
Snapshot take_snapshot(RE_image_reader& reader, std::time_t now);

// Returns the used entries of the auto-bypass table, or nothing without a table.
std::optional<std::vector<RE_bypass_entry>> read_bypass(RE_image_reader& reader);

// An application's name in tables: "80", "80-source" for the client's port, "80-handle5" when the engine's policy gave
// it names.
std::string application_label(const RE_stat_app_header& header);

// Reads one connection. Returns false when the slot is empty, or was reused during the call.
bool read_connection(RE_stat_reader& reader, int slot, SnapshotConn& conn);

} // namespace kavstat
