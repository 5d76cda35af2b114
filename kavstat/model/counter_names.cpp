#include "model/counter_names.h"

#include <string_view>

namespace kavstat {

namespace {

std::string key_of(std::string_view enumerator)
{
    // The transport optimizer's counters keep a mark, as some have the names of the engine's.
    static constexpr struct
    {
        std::string_view prefix;
        std::string_view mark;
    } families[] = {{"RE_STAT_GLOBAL_ID_", ""},
                    {"RE_STAT_PEER_ID_", ""},
                    {"RE_STAT_CONN_ID_", ""},
                    {"RE_STAT_APP_ID_", ""},
                    {"SO_STAT_", "so_"}};
    std::string key;
    for (const auto& [prefix, mark] : families) {
        if (enumerator.starts_with(prefix)) {
            enumerator.remove_prefix(prefix.size());
            key = mark;
            break;
        }
    }
    for (const char letter : enumerator) {
        key += letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    }
    return key;
}

std::vector<NamedCounter> with_keys(std::span<const RE_stat_counter_info> counters)
{
    std::vector<NamedCounter> named;
    named.reserve(counters.size());
    for (const RE_stat_counter_info& info : counters) {
        named.push_back({info, key_of(info.name)});
    }
    return named;
}

void drop_ending(std::string& name, std::string_view ending)
{
    if (name.size() > ending.size() && std::string_view(name).ends_with(ending)) {
        name.resize(name.size() - ending.size());
    }
}

// What a metric's name says of its unit; counts of things say it by their words alone.
std::string_view unit_ending(RE_stat_unit unit)
{
    switch (unit) {
    case RE_stat_unit::bytes:
    case RE_stat_unit::kilobytes:
    case RE_stat_unit::megabytes:
        return "_bytes";
    case RE_stat_unit::bytes_per_second:
        return "_bytes_per_second";
    case RE_stat_unit::microseconds:
        return "_seconds";
    case RE_stat_unit::seconds_since_epoch:
        return "_timestamp_seconds";
    case RE_stat_unit::percent:
        return "_ratio";
    default:
        return "";
    }
}

} // namespace

const std::vector<NamedCounter>& counters_of(CounterScope scope)
{
    static const std::vector<NamedCounter> engine = with_keys(re_stat_global_counters);
    static const std::vector<NamedCounter> peer = with_keys(re_stat_peer_counters);
    static const std::vector<NamedCounter> connection = with_keys(re_stat_conn_counters);
    static const std::vector<NamedCounter> application = with_keys(re_stat_app_counters);
    switch (scope) {
    case CounterScope::engine:
        return engine;
    case CounterScope::peer:
        return peer;
    case CounterScope::connection:
        return connection;
    case CounterScope::application:
        break;
    }
    return application;
}

const char* word_of(CounterScope scope)
{
    switch (scope) {
    case CounterScope::engine:
        return "engine";
    case CounterScope::peer:
        return "peer";
    case CounterScope::connection:
        return "connection";
    case CounterScope::application:
        break;
    }
    return "application";
}

std::string metric_name_of(const NamedCounter& counter)
{
    std::string name = counter.key;
    // Units that the enumerator tells already, and endings that mean a part of a histogram or a running total to those
    // who read metrics.
    for (const std::string_view ending : {"_kbytes", "_bytes", "_ratio", "_count", "_cnt"}) {
        drop_ending(name, ending);
    }
    // A lone letter reads as a unit's abbreviation.
    if (const std::size_t at = name.find("_b_"); at != std::string::npos) {
        name.replace(at, 3, "_block_");
    }
    name += unit_ending(counter.info.unit);
    if (counter.is_total()) {
        name += "_total";
    }
    return name;
}

} // namespace kavstat
