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
    std::function<bool()> is_stopped = [] { return false; }; // asked during long work, which then ends early
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
    // Writes the pages of the write-ahead log to the file.
    void close();
    bool is_open() const { return m_lock.is_open(); }
    // Whether the open file still has its name: it may have been removed or replaced.
    bool is_in_place() const;

    // reader: open. b_same: on the same segment as at the last call. seconds: of a monotonic clock.
    RecordResult record(RE_image_reader& reader, bool b_same, double seconds);
    // See HistorySpace::thin().
    using Thinning = HistorySpace::Thinning;
    Thinning thin(const std::function<bool()>& is_over = [] { return false; });

    const std::string& error() const { return m_error; }
    // How many samples were removed early because of the size.
    long long removed() const { return m_space.removed(); }

private:
    // A sample without its connections, which are read one by one.
    struct Captured
    {
        Snapshot snapshot;
        std::optional<RE_stat_config_param> config;
        std::vector<RE_bypass_entry> bypass;
        std::vector<RE_stat_nack_header> nacks; // the whole log
        HistorySample sample;
        int app_slots = 0;
    };

    bool fail();
    bool prepare_statements();
    bool sync();
    Captured capture(RE_image_reader& reader);
    static void keep_last_nacks(Captured& captured, long long most);
    static void capture_nacks(RE_image_reader& reader, Captured& captured);
    bool is_new_start(const Captured& captured, bool b_same) const;
    std::string make_room(RE_image_reader& reader, Captured& captured);
    bool store(RE_image_reader& reader, Captured& captured, bool b_new_start);
    bool store_start(Captured& captured);
    bool store_config(Captured& captured);
    bool store_sample(const HistorySample& sample);
    bool store_engine(const Captured& captured);
    bool store_nacks(const Captured& captured);
    bool store_conns(RE_image_reader& reader, const HistorySample& sample);

    RecorderOptions m_options;
    RE_descriptor m_lock; // closed after the database, as closing a file releases SQLite's locks on it
    Database m_database;
    HistorySpace m_space;
    std::string m_error;

    // The last sample in the database. Read from it after every error.
    bool m_b_known = false;
    std::optional<HistorySample> m_last;
    std::time_t m_start_time = 0;
    std::optional<RE_stat_config_param> m_config;
    long long m_opened = 0;  // connections, at the last sample
    long long m_last_id = 0; // of a sample, which may have been removed
    long long m_rows_since_base = 0;
    std::optional<double> m_seconds; // when the last sample of this run was taken
    EntryStore<SnapshotPeer> m_peers{HistoryKind::peer};
    EntryStore<SnapshotApp> m_apps{HistoryKind::application};
    EntryStore<RE_bypass_entry> m_bypass{HistoryKind::bypass};
    std::size_t m_next_conn = 0;      // the slot where the next sample begins, as one may not have room for all
    long long m_most_conns = 0;       // the most that a sample may have
    std::vector<std::size_t> m_conns; // a hash of each connection by slot; 0 for a new one

    Statement m_add_sample;
    Statement m_add_engine;
    Statement m_add_nack;
    Statement m_add_conn;
};

} // namespace kavstat
