// A command's view of a recorded history.
#pragma once

#include "commands/commands.h"
#include "history/reader.h"
#include "model/source.h"

#include <memory>
#include <optional>
#include <string>

namespace kavstat {

class RecordedHistory
{
public:
    // Returns why the file cannot be read, beginning with its name, or nothing.
    std::string open(const std::string& path);

    HistoryReader& reader() { return m_reader; }
    // The last sample up to the moment, or the last one of all. Nothing after an error, such as a moment before the
    // first sample; see error().
    std::optional<HistorySample> find(std::optional<std::time_t> moment);
    // The sample before, of the same engine start.
    std::optional<HistorySample> before(const HistorySample& sample);
    // Its statistics, open. Null after an error.
    std::unique_ptr<Source> source(const HistorySample& sample);
    const std::string& error() const { return m_error; }

private:
    Database m_database;
    HistoryReader m_reader{m_database};
    std::string m_error;
};

// Seconds between two samples: by the recorder's monotonic clock when they are neighbours, otherwise by their times.
double seconds_between(const HistorySample& before, const HistorySample& after, bool b_neighbours);

} // namespace kavstat
