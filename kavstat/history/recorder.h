// Records statistics into a history, a sample at a time.
#pragma once

#include "RE_descriptor.h"
#include "history/database.h"
#include "history/entry_store.h"
#include "history/moment.h"
#include "history/space.h"
#include "history/thinning.h"

#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kavstat {

struct RecorderOptions
{
    bool b_connections = false;
    Keep keep;
    long long max_size = 0; // bytes of the database and of the files beside it; 0 for any
    std::function<std::time_t()> clock = [] { return std::time(nullptr); };
};

enum class RecordResult
{
    recorded,
    cut,    // the statistics were cut short while they were read; nothing was recorded
    failed, // see Recorder::error(); nothing was recorded, and the next sample may go well
};

class Recorder
{
public:
    explicit Recorder(RecorderOptions options);
    ~Recorder() { close(); }
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // Opens or creates the file, as its only recorder. Returns why it cannot be used, or nothing.
    std::string open(const std::string& path);
    // Writes what the write-ahead log holds to the file.
    void close();

    // reader: open. b_same: on the same segment as at the last call. seconds: of a clock that is never set.
    RecordResult record(RE_image_reader& reader, bool b_same, double seconds);
    // Thins out what has become old; at most so many samples a call. False after an error.
    bool thin(std::size_t most = 200);

    const std::string& error() const { return m_error; }
    // How many samples had to go before their time because of the size.
    long long removed() const { return m_space.removed(); }

private:
    // What of a sample fits into memory.
    struct Captured
    {
        Snapshot snapshot;
        std::optional<RE_stat_config_param> config;
        std::vector<RE_bypass_entry> bypass;
        std::vector<RE_stat_nack_header> nacks; // those that are not stored yet
        HistorySample sample;
        int app_slots = 0;
    };

    bool fail();
    bool prepare_statements();
    bool sync();
    Captured capture(RE_image_reader& reader);
    void capture_nacks(RE_image_reader& reader, Captured& captured) const;
    bool is_new_start(const Captured& captured, bool b_same) const;
    std::string make_room(RE_image_reader& reader, const Captured& captured);
    bool store(RE_image_reader& reader, Captured& captured, bool b_new_start);
    bool store_start(Captured& captured);
    bool store_config(Captured& captured);
    bool store_sample(const HistorySample& sample);
    bool store_engine(const Captured& captured);
    bool store_nacks(const Captured& captured);
    bool store_conns(RE_image_reader& reader, const HistorySample& sample);

    RecorderOptions m_options;
    RE_descriptor m_lock; // closed after the database, whose locks would go with it
    Database m_database;
    HistorySpace m_space;
    std::string m_error;

    // What the database has; read from it after every error.
    bool m_b_known = false;
    std::optional<HistorySample> m_last;
    std::time_t m_start_time = 0;
    std::optional<RE_stat_config_param> m_config;
    long long m_opened = 0;  // connections, at the last sample
    long long m_last_id = 0; // of a sample, also of one that is gone
    long long m_rows_since_base = 0;
    std::optional<double> m_seconds; // when the last sample was taken; none before the first one of this run
    EntryStore<SnapshotPeer> m_peers{HistoryKind::peer};
    EntryStore<SnapshotApp> m_apps{HistoryKind::application};
    EntryStore<RE_bypass_entry> m_bypass{HistoryKind::bypass};
    std::size_t m_next_conn = 0;      // where the next sample begins, as one may not have room for all
    long long m_most_conns = 0;       // that a sample may have
    std::vector<std::size_t> m_conns; // a hash of each connection by slot; 0 for one that is not known

    Statement m_add_sample;
    Statement m_add_engine;
    Statement m_add_nack;
    Statement m_add_conn;
};

} // namespace kavstat
