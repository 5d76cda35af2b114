// Rows for charts, and whole moments, from a recorded history.
#pragma once

#include "charts/chart_rows.h"
#include "history/reader.h"

#include <optional>
#include <string>

namespace kavstat {

// See Database::set_patience(). All clients of a server wait.
constexpr std::chrono::milliseconds server_patience{20};

class RecordedRows
{
public:
    void set_patience(std::chrono::milliseconds patience) { m_database.set_patience(patience); }
    // Returns why the file cannot be read, or nothing.
    std::string open(const std::string& path) { return open_history(m_database, path); }

    // The times of the first and of the last sample; nothing when there is none.
    std::optional<HistorySpan> span();
    // At most about `points` rows. Nothing, with a reason, when they cannot be read.
    std::optional<ChartRows> rows(ChartScope scope, const std::string& key, const HistorySpan& span, std::size_t points,
                                  std::string& reason);
    HistoryReader& reader() { return m_reader; }

private:
    long long start_time_of(long long engine_start);

    Database m_database;
    HistoryReader m_reader{m_database};
};

} // namespace kavstat
