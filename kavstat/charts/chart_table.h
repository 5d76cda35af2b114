// The one table of charts: what each shows, of which counters it is made, and how. The page draws them in a browser,
// `kavstat report --svg` as a picture, and the server keeps the last minutes of the counters that they need.
#pragma once

#include "model/counter_names.h"
#include "model/snapshot.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kavstat {

// What a chart is about.
enum class ChartScope
{
    engine,
    peer,
    application, // one application with one peer
};
// "engine", "peer", "application".
const char* word_of(ChartScope scope);
std::optional<ChartScope> chart_scope_of(std::string_view word);

// A figure of which a history holds a value per moment.
struct ChartColumn
{
    enum class Kind
    {
        engine,             // id: an RE_stat_global_id
        peer,               // id: an RE_stat_peer_id
        connections,        // id: an RE_stat_conn_id; the sum of all connections, or of the peer's
        application,        // id: an RE_stat_app_id
        active_connections, // open connections of the engine or of the peer
    };
    Kind kind = Kind::engine;
    int id = 0;

    bool operator==(const ChartColumn&) const = default;
    // As in JSON.
    std::string key() const;
};

// A few columns, whose sum is meant.
class ChartColumns
{
public:
    constexpr ChartColumns() = default;
    template <typename... Columns>
    // NOLINTNEXTLINE(google-explicit-constructor)
    constexpr ChartColumns(ChartColumn first, Columns... others)
        : m_columns{first, others...}, m_size(1 + sizeof...(others))
    {}
    std::span<const ChartColumn> columns() const { return {m_columns.data(), m_size}; }

private:
    std::array<ChartColumn, 4> m_columns{};
    std::size_t m_size = 0;
};

enum class SeriesKind
{
    level,     // part
    rate,      // what part grew by per second
    rest_rate, // what whole grew by per second, less what part did
    mean,      // what part grew by / what whole grew by
    saved,     // percent of what whole grew by that part grew by less
    fill,      // percent of whole that part is
    age,       // seconds since the earliest moment of part; moments that are 0 do not count
};
// "level", "rate", "rest_rate" ...
const char* word_of(SeriesKind kind);

struct ChartSeries
{
    const char* label;
    SeriesKind kind;
    ChartColumns part;
    ChartColumns whole = {};
    double scale = 1; // from the columns' unit to the chart's
};

enum class ChartUnit
{
    bytes,
    bytes_per_second,
    count,
    count_per_second,
    percent,
    seconds, // a latency
    age,     // seconds
};
const char* word_of(ChartUnit unit);

struct Chart
{
    const char* name; // snake_case
    const char* title;
    ChartUnit unit;
    std::span<const ChartSeries> series;
};

// The charts of a scope, in the order in which they are shown.
std::span<const Chart> charts_of(ChartScope scope);
// Null when the scope has none of that name.
const Chart* find_chart(ChartScope scope, std::string_view name);
// All columns of the scope's charts, each once.
const std::vector<ChartColumn>& chart_columns_of(ChartScope scope);

// The values of chart_columns_of(), in their order, appended.
void add_values(const Snapshot& snapshot, std::vector<long long>& values);
void add_values(const SnapshotPeer& peer, std::vector<long long>& values);
void add_values(const SnapshotApp& app, std::vector<long long>& values);

// Counters of applications have 32 bits and wrap.
constexpr bool has_short_counters(ChartScope scope)
{
    return scope == ChartScope::application;
}

} // namespace kavstat
