#include "watch/pages/counters.h"

#include "format/units.h"
#include "model/words.h"
#include "watch/pages/pages.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace kavstat {

namespace {

// Bytes per unit; 0 for units that are not sizes.
double bytes_in(RE_stat_unit unit)
{
    switch (unit) {
    case RE_stat_unit::bytes:
    case RE_stat_unit::bytes_per_second:
        return 1;
    case RE_stat_unit::kilobytes:
        return 1024;
    case RE_stat_unit::megabytes:
        return 1024.0 * 1024;
    default:
        return 0;
    }
}

// Formats a number in a counter's unit for people.
std::string readable(RE_stat_unit unit, double number)
{
    if (bytes_in(unit) > 0) {
        return size_text(number * bytes_in(unit)) + (unit == RE_stat_unit::bytes_per_second ? "/s" : "");
    }
    if (unit == RE_stat_unit::microseconds) {
        return latency_text(number / 1000);
    }
    return count_text(number) + (unit == RE_stat_unit::percent ? "%" : "");
}

std::string now_text(const CounterRow& row, std::time_t capture_time)
{
    const RE_stat_unit unit = row.counter->info.unit;
    if (unit == RE_stat_unit::seconds_since_epoch) {
        const Change age = change_of(RE_stat_kind::current, row.value, capture_time, false);
        return row.value != 0 ? age_text(age.by) + " ago" : no_figure;
    }
    if (row.scope == CounterScope::engine && row.id == RE_STAT_GLOBAL_ID_CACHE_STATE) {
        return word_for(cache_state_words, row.value);
    }
    return readable(unit, static_cast<double>(row.value));
}

std::string rate_of_row(const CounterRow& row)
{
    if (!row.counter->is_total()) {
        return "";
    }
    return row.rate > 0 ? readable(row.counter->info.unit, row.rate) + "/s" : no_figure;
}

std::string name_of(const CounterRow& row)
{
    const NamedCounter& counter = *row.counter;
    return counter.is_range() ? counter.key + "[" + std::to_string(row.id - counter.id()) + "]" : counter.key;
}

// Groups the rows by area, in the order in which the areas first occur.
void group_by_area(std::vector<CounterRow>& rows)
{
    std::vector<std::string_view> areas;
    const auto place = [&](const CounterRow& row) {
        const std::string_view area = area_of(row.scope, row.id);
        const auto found = std::find(areas.begin(), areas.end(), area);
        if (found == areas.end()) {
            areas.push_back(area);
            return areas.size() - 1;
        }
        return static_cast<std::size_t>(found - areas.begin());
    };
    std::vector<std::pair<std::size_t, CounterRow>> placed;
    placed.reserve(rows.size());
    for (const CounterRow& row : rows) {
        placed.emplace_back(place(row), row);
    }
    std::stable_sort(placed.begin(), placed.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::transform(placed.begin(), placed.end(), rows.begin(), [](const auto& one) { return one.second; });
}

} // namespace

WatchTable table_of_counters(std::vector<CounterRow> counters, std::time_t capture_time, const WatchFrame& frame)
{
    constexpr std::size_t longest_name = 41;
    constexpr std::size_t narrow = 80;
    const std::size_t name_width = frame.width < narrow ? 26 : longest_name;
    group_by_area(counters);
    const auto shared = std::make_shared<std::vector<CounterRow>>(std::move(counters));
    const std::vector<CounterRow>& rows = *shared;
    using Row = CounterRow;
    WatchTable table;
    table.rows = rows.size();
    WatchColumn area = text_column("area", "AREA", 11, 2, rows, [](const Row& r) { return area_of(r.scope, r.id); });
    area.order = [](std::size_t row) { return static_cast<double>(row); };
    WatchColumn now = number_column(
        "now", "NOW", 11, 1, rows, [](const Row& r) { return r.value; }, [](long long) { return ""; });
    now.text = [&rows, capture_time](std::size_t row, std::size_t) { return now_text(rows[row], capture_time); };
    now.b_number = false;
    WatchColumn rate = number_column(
        "per_second", "PER SECOND", 12, 1, rows, [](const Row& r) { return r.rate; }, [](double) { return ""; });
    rate.text = [&rows](std::size_t row, std::size_t) { return rate_of_row(rows[row]); };
    table.columns = {
        area,
        text_column("counter", "COUNTER", name_width, 0, rows, name_of),
        now,
        rate,
        number_column(
            "value", "VALUE", 20, 3, rows, [](const Row& r) { return r.value; }, whole_text),
        text_column("unit", "UNIT", 19, 4, rows, [](const Row& r) { return get_stat_unit_word(r.counter->info.unit); }),
        text_column("of", "OF", 11, 3, rows, [](const Row& r) { return r.of; }),
        text_column("meaning", "MEANING", 30, 2, rows, [](const Row& r) { return r.counter->info.meaning; }),
    };
    table.subject = [&rows](std::size_t row) {
        return WatchSubject{SubjectKind::row, static_cast<int>(rows[row].scope), rows[row].id, 0};
    };
    table.search = [shared](std::size_t row) {
        const Row& r = (*shared)[row];
        return std::string(area_of(r.scope, r.id)) + " " + name_of(r) + " " + r.of + " " +
               get_stat_unit_word(r.counter->info.unit) + " " + r.counter->info.meaning;
    };
    table.mark = [&rows](std::size_t row) {
        const Row& r = rows[row];
        const bool b_moves = r.rate > 0 && counts_errors(r.scope, r.id);
        return b_moves ? WatchMark{'!', WatchStyle::warning} : WatchMark();
    };
    return table;
}

WatchTable counters_table(const WatchModel& model, const WatchFrame& frame)
{
    const Snapshot& now = model.now();
    const Snapshot& before = model.before();
    std::vector<CounterRow> rows;
    add_counters(rows, CounterScope::engine, "engine", now.engine,
                 [&](std::size_t id) { return model.rate(before.engine[id], now.engine[id]); });
    add_counters(rows, CounterScope::connection, "connections", now.connections,
                 [&](std::size_t id) { return model.rate(before.connections[id], now.connections[id]); });
    return table_of_counters(std::move(rows), now.capture_time, frame);
}

} // namespace kavstat
