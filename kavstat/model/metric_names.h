// The counters of RE_stat_counters.def as metrics of Prometheus. The table contains the name and the labels of each
// counter. Here the names get the prefix of their scope, and counters with one name become one metric.
#pragma once

#include "model/counter_names.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kavstat {

enum class MetricType
{
    counter,
    gauge,
    histogram,
};

// "counter", "gauge" or "histogram".
const char* word_of(MetricType type);

// The value of a series.
enum class SeriesValue
{
    counter, // the counter's value
    bucket,  // the sum of this counter and those of the buckets before it
    sum,     // the counter's value: the sum of the observations in the buckets before it
    count,   // the sum of the buckets before it
};

struct MetricSeries
{
    std::string name;   // "bypass_bytes_total", "message_size_bytes_bucket"
    std::string labels; // "direction=\"encode\",cause=\"low_memory\""; empty when there are none
    SeriesValue value;
    int id; // the counter's; -1 for a count
};

// Everything that has one HELP and one TYPE.
struct Metric
{
    std::string name; // after the prefix; a histogram's without "_bucket"
    const char* help;
    MetricType type;
    RE_stat_unit unit; // unit of the counters, or of a histogram's sum; see base_unit_of()
    std::vector<MetricSeries> series;
};

// Returns the metrics of a scope, in the order of their first counters. They are made by the first call and live as
// long as the program.
const std::vector<Metric>& metrics_of(CounterScope scope);

// The prefixes of a scope's metrics. Connections have two: for all connections, and for those of a peer.
std::span<const char* const> metric_prefixes_of(CounterScope scope);

inline constexpr const char* engine_prefix = "kav_";
inline constexpr const char* peer_prefix = "kav_peer_";
inline constexpr const char* connections_prefix = "kav_connections_";
inline constexpr const char* peer_connections_prefix = "kav_peer_connections_";
inline constexpr const char* application_prefix = "kav_application_";

// The metric of a counter and its series in it. id: of the scope's enumeration.
struct CounterMetric
{
    const Metric& metric;
    const MetricSeries& series;
};
CounterMetric metric_of(CounterScope scope, int id);

// The series of a counter as PromQL selects them, one for each prefix: "kav_queue_bytes{queue=\"ack\"}". That of a
// range selects all its members.
std::vector<std::string> selectors_of(CounterScope scope, const NamedCounter& counter);

// The base unit that a metric's name ends in, before "_total": "bytes", "seconds". Empty for counts of things.
std::string_view base_unit_in(std::string_view name);

// Converts a counter's unit to the base unit of its metric: value * factor / 10^decimals.
struct BaseUnit
{
    long long factor = 1;
    int decimals = 0;
};
constexpr BaseUnit base_unit_of(RE_stat_unit unit)
{
    switch (unit) {
    case RE_stat_unit::kilobytes:
        return {1LL << 10U, 0};
    case RE_stat_unit::megabytes:
        return {1LL << 20U, 0};
    case RE_stat_unit::microseconds:
        return {1, 6};
    case RE_stat_unit::percent:
        return {1, 2};
    default:
        return {};
    }
}

} // namespace kavstat
