// Tables of counters: of the engine, or of one thing.
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
    const char* of = ""; // whose it is: "engine", "connections"
    long long value = 0;
    double rate = 0; // per second, of a running total; not a number where it is not known
};

// Adds the counters of a scope. rate: of an id; called for running totals alone. Of a range only those members are
// added that are not 0, or the last when all are.
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

// Grouped by area. capture_time: ages are told from it.
WatchTable table_of_counters(std::vector<CounterRow> counters, std::time_t capture_time, const WatchFrame& frame);

} // namespace kavstat
