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
    long long id = 0; // in the order of recording, also when the clock was set back
    std::time_t time = 0;
    long long engine_start = 0;             // a row of the table "engine_start"
    std::optional<double> elapsed;          // seconds since the sample before, when known
    std::optional<long long> configuration; // a row of the table "configuration"
    long long base = 0;                     // the first sample whose rows this one consists of
    long long first_nack = 0;               // of the NACKs in the log; end_nack is the number after the last
    long long end_nack = 0;
    bool b_bypass_table = false;
};

// An entry with a row in a table of identities.
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
    std::vector<SnapshotConn> conns; // those that changed
    std::vector<RE_stat_nack_header> nacks;
};

} // namespace kavstat
