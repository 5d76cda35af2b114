#include "page/recorded_rows.h"

#include "history/schema.h"

#include <charconv>
#include <map>

namespace kavstat {

namespace {

// The column of a history's tables.
std::string column_name_of(const ChartColumn& column)
{
    return (column.kind == ChartColumn::Kind::connections ? sums_prefix : "") + column.key();
}

// "02:4b:...-5e52c905/443-source-handle7" as values of identity columns.
std::vector<std::pair<std::string, std::string>> identity_of(ChartScope scope, const std::string& key)
{
    const std::size_t slash = key.find('/');
    std::vector<std::pair<std::string, std::string>> identity{{"kav_peer_id", key.substr(0, slash)}};
    if (scope != ChartScope::application) {
        return identity;
    }
    const std::string label = slash != std::string::npos ? key.substr(slash + 1) : "";
    const std::size_t handle = label.find("-handle");
    identity.emplace_back("port", label.substr(0, label.find('-')));
    identity.emplace_back("is_source_port", label.find("-source") != std::string::npos ? "1" : "0");
    identity.emplace_back("policy_engine_handler", handle != std::string::npos
                                                       ? label.substr(handle + std::string_view("-handle").size())
                                                       : "0");
    return identity;
}

} // namespace

std::optional<HistorySpan> RecordedRows::span()
{
    const std::optional<HistorySample> first = m_reader.first();
    const std::optional<HistorySample> last = m_reader.last();
    return first && last ? std::optional(HistorySpan{first->time, last->time}) : std::nullopt;
}

std::optional<ChartRows> RecordedRows::rows(ChartScope scope, const std::string& key, const HistorySpan& span,
                                            std::size_t points, std::string& reason)
{
    SeriesRequest request;
    request.table = word_of(scope);
    for (const ChartColumn& column : chart_columns_of(scope)) {
        request.columns.push_back(column_name_of(column));
    }
    if (scope != ChartScope::engine) {
        request.where = identity_of(scope, key);
    }
    request.span = span;
    request.most_samples = points;
    const std::optional<Series> series = m_reader.series(request);
    if (!series) {
        reason = m_reader.error();
        return std::nullopt;
    }
    ChartRows result{scope, key, {}};
    std::map<long long, long long> start_times;
    for (std::size_t row = 0; row < series->samples.size(); ++row) {
        const HistorySample& sample = series->samples[row];
        const auto [start, b_new] = start_times.try_emplace(sample.engine_start);
        if (b_new) {
            start->second = start_time_of(sample.engine_start);
        }
        // Samples of a clock that was set back would put lines in front of each other.
        constexpr std::int64_t milliseconds_a_second = 1000;
        const std::int64_t time = sample.time * milliseconds_a_second;
        if (!result.rows.empty() && time <= result.rows.back().time) {
            continue;
        }
        ChartRow made{time, static_cast<std::time_t>(start->second), {}};
        for (const std::vector<long long>& column : series->values) {
            made.values.emplace_back(column[row]);
        }
        result.rows.push_back(std::move(made));
    }
    return result;
}

long long RecordedRows::start_time_of(long long engine_start)
{
    return m_database.number("SELECT start_time FROM engine_start WHERE id = " + std::to_string(engine_start))
        .value_or(0);
}

} // namespace kavstat
