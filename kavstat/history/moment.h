// The statistics of one sample, as plain values: what the recorder stores and the reader gives back.
#pragma once

#include "RE_bypass_table.h"
#include "model/snapshot.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace kavstat {

// A row of the table "sample".
struct HistorySample
{
    long long id = 0; // in the order of recording, whatever the clock said
    std::time_t time = 0;
    long long engine_start = 0;             // a row of the table of that name
    std::optional<double> elapsed;          // seconds since the sample before; none when that is not known
    std::optional<long long> configuration; // likewise
    long long base = 0;                     // the sample from which on rows make up this one
    long long first_nack = 0;               // the numbers of the NACKs that the log held, without the last
    long long end_nack = 0;
    bool b_bypass_table = false;
};

// Something that has an identity of its own and rows of figures.
template <typename Record>
struct Recorded
{
    long long identity = 0; // a row of the table of identities
    Record record{};
};

struct RecordedMoment
{
    HistorySample sample;
    std::time_t engine_start_time = 0;
    int app_slots = 0; // how many applications the engine has room for
    std::optional<RE_stat_config_param> config;
    int active_connections = 0;
    EngineFigures engine{};
    ConnectionFigures connections{};
    std::vector<Recorded<SnapshotPeer>> peers; // in ascending order of slots
    std::vector<Recorded<SnapshotApp>> apps;   // in ascending order of slots
    std::vector<Recorded<RE_bypass_entry>> bypass;
    std::vector<SnapshotConn> conns; // those that moved
    std::vector<RE_stat_nack_header> nacks;
};

} // namespace kavstat
