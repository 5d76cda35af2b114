// The counters of RE_stat_counters.def with their keys in JSON and in tables. Keys are derived from the enumerators.
// The names in Prometheus are in metric_names.h.
#pragma once

#include "RE_stat_counters.h"

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace kavstat {

// The kind of thing that a counter belongs to.
enum class CounterScope
{
    engine,      // RE_stat_global_id
    peer,        // RE_stat_peer_id
    connection,  // RE_stat_conn_id: one connection, or the sum of a peer's or of all
    application, // RE_stat_app_id
};

// A counter, or a range of counters that shares one name.
struct NamedCounter
{
    RE_stat_counter_info info;
    std::string key; // "cache_state": the enumerator without its family's prefix, in lower case

    int id() const { return info.id; }
    // 1 for a counter alone.
    int size() const { return info.last_id - info.id + 1; }
    bool is_range() const { return info.last_id != info.id; }
    bool is_total() const { return info.kind == RE_stat_kind::total; }
};

// Returns all counters of a scope in the order of their ids. They are made by the first call and live as long as the
// program.
const std::vector<NamedCounter>& counters_of(CounterScope scope);

// "engine", "peer", "connection" or "application".
const char* word_of(CounterScope scope);

// The place of a scope in arrays that have one element per scope, in the order of the enumerators.
constexpr std::size_t index_of(CounterScope scope)
{
    return static_cast<std::size_t>(scope);
}

inline constexpr CounterScope all_counter_scopes[] = {CounterScope::engine, CounterScope::peer,
                                                      CounterScope::connection, CounterScope::application};

} // namespace kavstat
