// Reads a recorded history.
#pragma once

#include "history/database.h"
#include "history/moment.h"
#include "history/schema.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kavstat {

// A moment or a span of time; empty ends are open.
struct HistorySpan
{
    std::optional<std::time_t> from;
    std::optional<std::time_t> to;
};

// Selects figures over time.
struct SeriesRequest
{
    std::string table = "engine";     // "engine", "peer" or "application", whose columns these are
    std::vector<std::string> columns; // of figures
    // Columns of the identity, and their values as text. The figures of all matching entries are added up.
    std::vector<std::pair<std::string, std::string>> where;
    HistorySpan span;
    std::size_t most_samples = 0; // see HistoryReader::samples()
};

struct Series
{
    std::vector<HistorySample> samples;
    std::vector<std::vector<long long>> values; // by column, then by sample
};

// Opens a history for reading. Returns why it cannot be read, or nothing.
std::string open_history(Database& database, const std::string& path);

class HistoryReader
{
public:
    // database: open, and outlives the reader.
    explicit HistoryReader(Database& database) : m_database(database) {}

    // Why the last call failed; empty when it did not fail.
    const std::string& error() const { return m_error; }

    std::optional<HistorySample> first();
    std::optional<HistorySample> last();
    // The last sample that was taken at the moment or before.
    std::optional<HistorySample> at(std::time_t moment);
    // The neighbours in the order of recording.
    std::optional<HistorySample> before(const HistorySample& sample);
    std::optional<HistorySample> after(const HistorySample& sample);
    // In the order of recording.
    std::vector<HistorySample> samples(const HistorySpan& span);
    // Of more samples than `most`, about so many that are evenly spaced in time, and those on both sides of a start of
    // the engine; all when it is 0.
    std::vector<HistorySample> samples(const HistorySpan& span, std::size_t most);
    // The one with this id.
    std::optional<HistorySample> sample(long long id);

    // Everything that was recorded of a sample.
    std::optional<RecordedMoment> restore(const HistorySample& sample);
    // Fails when a name is unknown.
    std::optional<Series> series(const SeriesRequest& request);

private:
    // An entry whose figures are added up.
    struct Entry
    {
        long long identity;
        long long engine_start;
        long long first_sample;
        long long gone_sample;
        long long sample;              // the last one that was looked at
        std::vector<long long> values; // in that sample
    };

    std::optional<HistorySample> one(const std::string& rest, long long parameter = 0);
    std::vector<HistorySample> all(Statement& statement);
    bool read_engine(RecordedMoment& moment);
    bool read_config(RecordedMoment& moment);
    bool read_nacks(RecordedMoment& moment);
    bool read_conns(RecordedMoment& moment);
    // The columns as SQL; nothing when one is unknown.
    std::optional<std::string> series_columns(const SeriesRequest& request);
    std::optional<std::vector<Entry>> entries_of(const SeriesRequest& request);
    bool read_engine_series(const std::string& columns, Series& series);
    bool read_entry_series(const SeriesRequest& request, const std::string& columns, Series& series);
    template <typename Record>
    bool read_entries(HistoryKind kind, const HistorySample& sample, std::vector<Recorded<Record>>& entries);
    bool fail(const Statement& statement);

    Database& m_database;
    std::string m_error;
};

} // namespace kavstat
