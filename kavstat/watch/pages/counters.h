// Tables of counters: of the engine, or of one peer, connection or application.
#pragma once

#include "model/counter_areas.h"
#include "watch/page.h"

#include <cmath>
#include <ctime>
#include <vector>

namespace kavstat {

struct CounterRow
{
    const NamedCounter* counter = nullptr;
    CounterScope scope = CounterScope::engine;
    int id = 0;
    const char* of = ""; // "engine", "connections"
    long long value = 0;
    double rate = 0; // per second, of a running total; NaN if unknown
};

// Adds the counters of a scope. rate: returns the rate of an id; called only for running totals. Of a range, only
// members that are not 0 are added, or the last one if all are 0.
template <typename Figures, typename Rate>
void add_counters(std::vector<CounterRow>& rows, CounterScope scope, const char* of, const Figures& figures,
                  const Rate& rate)
{
    for (const NamedCounter& counter : counters_of(scope)) {
        bool b_any = false;
        for (int id = counter.id(); id <= counter.info.last_id; ++id) {
            const auto value = static_cast<long long>(figures[static_cast<std::size_t>(id)]);
            if (counter.is_range() && value == 0 && (b_any || id != counter.info.last_id)) {
                continue;
            }
            b_any = true;
            const double grows = counter.is_total() ? rate(static_cast<std::size_t>(id)) : std::nan("");
            rows.push_back({&counter, scope, id, of, value, grows});
        }
    }
}

// Returns the rows grouped by area. capture_time: the moment for which ages are computed, in seconds since the epoch.
WatchTable table_of_counters(std::vector<CounterRow> counters, std::time_t capture_time, const WatchFrame& frame);

} // namespace kavstat
