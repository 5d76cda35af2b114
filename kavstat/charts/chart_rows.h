// The past of an engine, a peer or an application as rows of counter values, and what charts make of them.
#pragma once

#include "charts/chart_table.h"
#include "format/output.h"

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace kavstat {

struct ChartRow
{
    std::int64_t time = 0; // milliseconds since the epoch
    std::time_t engine_start_time = 0;
    std::vector<std::optional<long long>> values; // of chart_columns_of(); nothing where none was kept
};

struct ChartRows
{
    ChartScope scope = ChartScope::engine;
    std::string key;            // of a peer or an application, see entity_key(); empty for the engine
    std::vector<ChartRow> rows; // in the order of their times
};

// Keeps at most about `points` rows: of rows that lie close together the last one, which loses nothing of running
// totals, and the rows on both sides of a start of the engine.
void thin(std::vector<ChartRow>& rows, std::size_t points);

// A line of a chart: a value for each row, nothing where there is none to be had. A value that takes two rows belongs
// to the later one.
std::vector<std::optional<double>> values_of(const ChartSeries& series, const ChartRows& rows);

// The longest time between two rows across which a line is drawn, in milliseconds: some times what lies between most.
std::int64_t longest_step(const std::vector<ChartRow>& rows);

// {"kavstat_history": 1, "scope": ..., "columns": [...], "rows": [[...], ...]}; docs/kavstat.md describes it.
void write_chart_rows(const ChartRows& rows, Output& output);
constexpr int history_json_version = 1;

// Which past there is to draw.
struct ChartPast
{
    long long live_seconds = 0; // kept in memory
    std::optional<std::time_t> recorded_from;
    std::optional<std::time_t> recorded_to;
};
// The table of charts, for programs that draw them.
void write_charts(const ChartPast& past, Output& output);
constexpr int charts_json_version = 1;

} // namespace kavstat
