#include "charts/chart_rows.h"

#include "format/json_writer.h"
#include "model/change.h"

#include <algorithm>
#include <cmath>

namespace kavstat {

namespace {

constexpr double milliseconds_in_second = 1000;

// Computes values of one series.
class SeriesValues
{
public:
    SeriesValues(const ChartSeries& series, const ChartRows& rows)
        : m_series(series), m_rows(rows.rows), m_b_short(has_short_counters(rows.scope)),
          m_part(places_of(series.part, rows.scope)), m_whole(places_of(series.whole, rows.scope)),
          m_longest_step(longest_step(rows.rows))
    {}

    std::optional<double> at(std::size_t row) const
    {
        switch (m_series.kind) {
        case SeriesKind::level:
            return scaled(sum(m_part, row));
        case SeriesKind::fill:
            return ratio(sum(m_part, row), sum(m_whole, row), 100);
        case SeriesKind::age:
            return age(row);
        default:
            return is_continuous(row) ? change(row) : std::nullopt;
        }
    }

private:
    using Places = std::vector<std::size_t>;

    static Places places_of(const ChartColumns& sum, ChartScope scope)
    {
        const std::vector<ChartColumn>& all = chart_columns_of(scope);
        Places places;
        for (const ChartColumn& column : sum.columns()) {
            places.push_back(static_cast<std::size_t>(std::find(all.begin(), all.end(), column) - all.begin()));
        }
        return places;
    }

    // Whether growth since the row before means anything.
    bool is_continuous(std::size_t row) const
    {
        return row > 0 && m_rows[row].engine_start_time == m_rows[row - 1].engine_start_time &&
               m_rows[row].time > m_rows[row - 1].time && m_rows[row].time - m_rows[row - 1].time <= m_longest_step;
    }

    std::optional<double> change(std::size_t row) const
    {
        const double seconds = static_cast<double>(m_rows[row].time - m_rows[row - 1].time) / milliseconds_in_second;
        const std::optional<double> part = growth(m_part, row);
        if (m_series.kind == SeriesKind::rate) {
            return part ? scaled(*part / seconds) : std::nullopt;
        }
        const std::optional<double> whole = growth(m_whole, row);
        if (!part || !whole) {
            return std::nullopt;
        }
        switch (m_series.kind) {
        case SeriesKind::rest_rate:
            return scaled(std::max(*whole - *part, 0.0) / seconds);
        case SeriesKind::saved:
            return *whole > 0 ? std::optional(saved_percent(*whole, *part)) : std::nullopt;
        default:
            return ratio(part, whole, m_series.scale);
        }
    }

    std::optional<double> growth(const Places& places, std::size_t row) const
    {
        double total = 0;
        for (const std::size_t place : places) {
            const auto before = m_rows[row - 1].values[place];
            const auto after = m_rows[row].values[place];
            if (!before || !after) {
                return std::nullopt;
            }
            const Change change = m_b_short ? change_of_32(RE_stat_kind::total, static_cast<std::uint32_t>(*before),
                                                           static_cast<std::uint32_t>(*after), false)
                                            : change_of(RE_stat_kind::total, *before, *after, false);
            if (change.kind == ChangeKind::went_back) {
                return std::nullopt;
            }
            total += static_cast<double>(change.by);
        }
        return total;
    }

    std::optional<double> sum(const Places& places, std::size_t row) const
    {
        double total = 0;
        for (const std::size_t place : places) {
            const auto value = m_rows[row].values[place];
            if (!value) {
                return std::nullopt;
            }
            total += static_cast<double>(*value);
        }
        return total;
    }

    std::optional<double> age(std::size_t row) const
    {
        const auto moment = sum(m_part, row);
        const double now = static_cast<double>(m_rows[row].time) / milliseconds_in_second;
        return moment && *moment > 0 && *moment <= now ? std::optional(now - *moment) : std::nullopt;
    }

    std::optional<double> scaled(std::optional<double> value) const
    {
        return value ? std::optional(*value * m_series.scale) : std::nullopt;
    }

    static std::optional<double> ratio(std::optional<double> part, std::optional<double> whole, double scale)
    {
        return part && whole && *whole > 0 ? std::optional(*part / *whole * scale) : std::nullopt;
    }

    const ChartSeries& m_series;
    const std::vector<ChartRow>& m_rows;
    bool m_b_short;
    Places m_part;
    Places m_whole;
    std::int64_t m_longest_step;
};

void write_keys(JsonWriter& json, const char* key, const ChartColumns& columns)
{
    json.key(key);
    json.begin_array();
    for (const ChartColumn& column : columns.columns()) {
        json.text(column.key());
    }
    json.end_array();
}

void write_chart(JsonWriter& json, const Chart& chart)
{
    json.begin_object();
    json.member_text("name", chart.name);
    json.member_text("title", chart.title);
    json.member_text("unit", word_of(chart.unit));
    json.key("series");
    json.begin_array();
    for (const ChartSeries& series : chart.series) {
        json.begin_object();
        json.member_text("label", series.label);
        json.member_text("kind", word_of(series.kind));
        write_keys(json, "part", series.part);
        write_keys(json, "whole", series.whole);
        json.key("scale");
        json.real(series.scale);
        json.end_object();
    }
    json.end_array();
    json.end_object();
}

} // namespace

void thin(std::vector<ChartRow>& rows, std::size_t points)
{
    if (rows.size() <= std::max<std::size_t>(points, 2)) {
        return;
    }
    const auto first = static_cast<double>(rows.front().time);
    const double length = static_cast<double>(rows.back().time) - first + 1;
    const auto part_of = [&](const ChartRow& row) {
        return std::floor((static_cast<double>(row.time) - first) * static_cast<double>(points) / length);
    };
    std::vector<ChartRow> kept;
    for (std::size_t at = 0; at < rows.size(); ++at) {
        const bool b_end = at == 0 || at + 1 == rows.size();
        const bool b_start = !b_end && rows[at].engine_start_time != rows[at - 1].engine_start_time;
        if (b_end || b_start || part_of(rows[at]) != part_of(rows[at + 1]) ||
            rows[at].engine_start_time != rows[at + 1].engine_start_time) {
            kept.push_back(std::move(rows[at]));
            // The next row is still compared with this one.
            rows[at].engine_start_time = kept.back().engine_start_time;
        }
    }
    rows = std::move(kept);
}

std::vector<std::optional<double>> values_of(const ChartSeries& series, const ChartRows& rows)
{
    const SeriesValues computed(series, rows);
    std::vector<std::optional<double>> values;
    values.reserve(rows.rows.size());
    for (std::size_t row = 0; row < rows.rows.size(); ++row) {
        values.push_back(computed.at(row));
    }
    return values;
}

std::int64_t longest_step(const std::vector<ChartRow>& rows)
{
    std::vector<std::int64_t> steps;
    for (std::size_t row = 1; row < rows.size(); ++row) {
        steps.push_back(rows[row].time - rows[row - 1].time);
    }
    if (steps.empty()) {
        return 0;
    }
    const auto middle = steps.begin() + static_cast<std::ptrdiff_t>(steps.size() / 2);
    std::nth_element(steps.begin(), middle, steps.end());
    constexpr std::int64_t times = 3;
    return times * *middle;
}

void write_chart_rows(const ChartRows& rows, Output& output)
{
    JsonWriter json(output);
    json.begin_object();
    json.member("kavstat_history", history_json_version);
    json.member_text("scope", word_of(rows.scope));
    json.member_text("key", rows.key);
    json.member_boolean("short_counters", has_short_counters(rows.scope));
    json.key("columns");
    json.begin_array();
    json.text("time");
    json.text("engine_start_time");
    for (const ChartColumn& column : chart_columns_of(rows.scope)) {
        json.text(column.key());
    }
    json.end_array();
    json.key("rows");
    json.begin_array();
    for (const ChartRow& row : rows.rows) {
        json.begin_array();
        json.real(static_cast<double>(row.time) / milliseconds_in_second);
        json.number(static_cast<long long>(row.engine_start_time));
        for (const std::optional<long long>& value : row.values) {
            if (value) {
                json.number(*value);
            } else {
                json.null();
            }
        }
        json.end_array();
    }
    json.end_array();
    json.end_object();
}

void write_charts(const ChartPast& past, Output& output)
{
    JsonWriter json(output);
    json.begin_object();
    json.member("kavstat_charts", charts_json_version);
    json.member_text("kavstat_version", KAV_VERSION);
    json.member("live_seconds", past.live_seconds);
    json.key("recorded");
    if (past.recorded_from && past.recorded_to) {
        json.begin_object();
        json.member("from", static_cast<long long>(*past.recorded_from));
        json.member("to", static_cast<long long>(*past.recorded_to));
        json.end_object();
    } else {
        json.null();
    }
    for (const ChartScope scope : {ChartScope::engine, ChartScope::peer, ChartScope::application}) {
        json.key(word_of(scope));
        json.begin_array();
        for (const Chart& chart : charts_of(scope)) {
            write_chart(json, chart);
        }
        json.end_array();
    }
    json.end_object();
}

} // namespace kavstat
