#include "model/metric_names.h"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace kavstat {

namespace {

constexpr std::string_view bucket_ending = "_bucket";
constexpr std::string_view total_ending = "_total";

// A series of the table in its parts.
struct Parts
{
    std::string_view name;
    std::string_view labels; // without the braces
};

constexpr Parts parts_of(std::string_view metric)
{
    const std::size_t brace = metric.find('{');
    if (brace == std::string_view::npos) {
        return {metric, {}};
    }
    return {metric.substr(0, brace), metric.substr(brace + 1, metric.size() - brace - 2)};
}

constexpr std::string_view without_ending(std::string_view name, std::string_view ending)
{
    return name.ends_with(ending) ? name.substr(0, name.size() - ending.size()) : name;
}

constexpr bool is_bucket(const RE_stat_counter_info& counter)
{
    return parts_of(counter.metric).name.ends_with(bucket_ending);
}

// The name of the metric that the counter belongs to.
constexpr std::string_view metric_name_of(const RE_stat_counter_info& counter)
{
    return without_ending(parts_of(counter.metric).name, bucket_ending);
}

// A bucket's labels without the bound, which is the last one.
constexpr std::string_view labels_without_bound(std::string_view labels)
{
    return labels.substr(0, labels.rfind(",le=\""));
}

constexpr bool is_last_bucket(std::string_view labels)
{
    return labels.ends_with(",le=\"+Inf\"");
}

// The help text in the table of metrics, or null.
constexpr const char* help_in_table(std::string_view name)
{
    for (const RE_stat_metric_info& metric : re_stat_metrics) {
        if (name == metric.name) {
            return metric.help;
        }
    }
    return nullptr;
}

constexpr const RE_stat_sum_info* sum_of(std::string_view histogram, std::string_view labels)
{
    for (const RE_stat_sum_info& sum : re_stat_conn_sums) {
        const Parts parts = parts_of(sum.metric);
        if (parts.name.ends_with("_sum") && without_ending(parts.name, "_sum") == histogram && parts.labels == labels) {
            return &sum;
        }
    }
    return nullptr;
}

// ---- Rules of the table that are checked at compile time.

constexpr bool is_identifier(std::string_view text)
{
    for (const char letter : text) {
        if ((letter < 'a' || letter > 'z') && (letter < '0' || letter > '9') && letter != '_') {
            return false;
        }
    }
    return !text.empty() && text[0] >= 'a' && text[0] <= 'z' && !text.ends_with('_');
}

constexpr bool are_labels(std::string_view labels)
{
    while (true) {
        const std::size_t value = labels.find("=\"");
        if (value == std::string_view::npos || !is_identifier(labels.substr(0, value))) {
            return false;
        }
        const std::size_t end = labels.find('"', value + 2);
        if (end == std::string_view::npos || end == value + 2 ||
            labels.substr(value + 2, end - value - 2).find_first_of("\\\n") != std::string_view::npos) {
            return false;
        }
        if (end + 1 == labels.size()) {
            return true;
        }
        if (labels[end + 1] != ',') {
            return false;
        }
        labels.remove_prefix(end + 2);
    }
}

constexpr bool is_series(const RE_stat_counter_info& counter)
{
    const std::string_view metric = counter.metric;
    const auto [name, labels] = parts_of(metric);
    if (!is_identifier(name) || (metric.size() != name.size() && !metric.ends_with('}'))) {
        return false;
    }
    if (counter.last_id != counter.id) {
        return is_identifier(labels);
    }
    return metric.size() == name.size() || are_labels(labels);
}

// The ending of a name in this unit; empty for counts.
constexpr std::string_view unit_ending_of(RE_stat_unit unit)
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

constexpr std::string_view unit_ending_in(std::string_view name)
{
    for (const std::string_view ending : {"_bytes", "_bytes_per_second", "_timestamp_seconds", "_seconds", "_ratio"}) {
        if (name.ends_with(ending)) {
            return ending;
        }
    }
    return "";
}

constexpr bool contains(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}

constexpr bool is_named_by_the_book(const RE_stat_counter_info& counter)
{
    const auto [name, labels] = parts_of(counter.metric);
    if (is_bucket(counter)) {
        return counter.kind == RE_stat_kind::total && contains(labels, ",le=\"") &&
               sum_of(metric_name_of(counter), labels_without_bound(labels)) != nullptr;
    }
    for (const std::string_view word : {"num_", "tot_", "total_", "_num", "_cnt", "_count", "_sum", "_info"}) {
        if (name.starts_with(word) || name.ends_with(word)) {
            return false;
        }
    }
    return name.ends_with(total_ending) == (counter.kind == RE_stat_kind::total) &&
           (name.ends_with("_max") || contains(name, "_max_")) == (counter.kind == RE_stat_kind::maximum) &&
           (name.ends_with("_min") || contains(name, "_min_")) == (counter.kind == RE_stat_kind::minimum) &&
           unit_ending_in(without_ending(name, total_ending)) == unit_ending_of(counter.unit);
}

// The counters of a metric with labels have several meanings, so the metric needs its own help text.
constexpr bool has_help(const RE_stat_counter_info& counter)
{
    return !contains(counter.metric, "=") || help_in_table(metric_name_of(counter)) != nullptr;
}

// One assertion for each counter, so that the compiler's message names it.
#define RE_STAT_CHECK_RANGE(first, last, enumerator, unit, kind, metric, meaning)                                      \
    static_assert(is_series({first, last, #enumerator, RE_stat_unit::unit, RE_stat_kind::kind, metric, meaning}),      \
                  "the metric of " #enumerator " is not written as a name and labels");                                \
    static_assert(                                                                                                     \
        is_named_by_the_book({first, last, #enumerator, RE_stat_unit::unit, RE_stat_kind::kind, metric, meaning}),     \
        "the metric of " #enumerator " breaks a naming rule of docs/kavstat.md, \"Metrics\"");                         \
    static_assert(has_help({first, last, #enumerator, RE_stat_unit::unit, RE_stat_kind::kind, metric, meaning}),       \
                  "the metric of " #enumerator " has labels and needs a RE_STAT_METRIC in RE_stat_counters.def");
#define RE_STAT_CHECK(value, ...) RE_STAT_CHECK_RANGE(value, value, __VA_ARGS__)
#define RE_STAT_GLOBAL(...) RE_STAT_CHECK(__VA_ARGS__)
#define RE_STAT_GLOBAL_RANGE(...) RE_STAT_CHECK_RANGE(__VA_ARGS__)
#define RE_STAT_PEER(...) RE_STAT_CHECK(__VA_ARGS__)
#define RE_STAT_CONN(...) RE_STAT_CHECK(__VA_ARGS__)
#define RE_STAT_APP(...) RE_STAT_CHECK(__VA_ARGS__)
#include "RE_stat_counters.def"
#undef RE_STAT_CHECK
#undef RE_STAT_CHECK_RANGE

// ---- The metrics.

MetricType type_of(const RE_stat_counter_info& counter)
{
    if (is_bucket(counter)) {
        return MetricType::histogram;
    }
    return counter.kind == RE_stat_kind::total ? MetricType::counter : MetricType::gauge;
}

// The unit of a histogram is that of its sum.
RE_stat_unit unit_of(const RE_stat_counter_info& counter)
{
    if (!is_bucket(counter)) {
        return counter.unit;
    }
    const Parts parts = parts_of(counter.metric);
    const RE_stat_sum_info* const sum = sum_of(metric_name_of(counter), labels_without_bound(parts.labels));
    return re_stat_conn_counters[sum->id].unit;
}

Metric& find_or_add(std::vector<Metric>& metrics, const RE_stat_counter_info& counter)
{
    const std::string_view name = metric_name_of(counter);
    const auto found =
        std::find_if(metrics.begin(), metrics.end(), [&](const Metric& metric) { return metric.name == name; });
    if (found != metrics.end()) {
        return *found;
    }
    const char* const help = help_in_table(name);
    metrics.push_back(
        {std::string(name), help != nullptr ? help : counter.meaning, type_of(counter), unit_of(counter), {}});
    return metrics.back();
}

// Adds the sum and the count of the buckets before them.
void add_end_of_histogram(Metric& metric, std::string_view labels)
{
    const RE_stat_sum_info& sum = *sum_of(metric.name, labels);
    metric.series.push_back({metric.name + "_sum", std::string(labels), SeriesValue::sum, sum.id});
    metric.series.push_back({metric.name + "_count", std::string(labels), SeriesValue::count, -1});
}

void add_series(Metric& metric, const RE_stat_counter_info& counter)
{
    const auto [name, labels] = parts_of(counter.metric);
    if (counter.last_id != counter.id) {
        for (int id = counter.id; id <= counter.last_id; ++id) {
            std::string label = std::string(labels) + "=\"" + std::to_string(id - counter.id) + "\"";
            metric.series.push_back({std::string(name), std::move(label), SeriesValue::counter, id});
        }
        return;
    }
    const SeriesValue value = is_bucket(counter) ? SeriesValue::bucket : SeriesValue::counter;
    metric.series.push_back({std::string(name), std::string(labels), value, counter.id});
    if (value == SeriesValue::bucket && is_last_bucket(labels)) {
        add_end_of_histogram(metric, labels_without_bound(labels));
    }
}

std::vector<Metric> make_metrics(CounterScope scope)
{
    std::vector<Metric> metrics;
    for (const NamedCounter& counter : counters_of(scope)) {
        add_series(find_or_add(metrics, counter.info), counter.info);
    }
    return metrics;
}

} // namespace

const char* word_of(MetricType type)
{
    switch (type) {
    case MetricType::counter:
        return "counter";
    case MetricType::gauge:
        return "gauge";
    case MetricType::histogram:
        break;
    }
    return "histogram";
}

std::string_view base_unit_in(std::string_view name)
{
    const std::string_view ending = unit_ending_in(without_ending(name, total_ending));
    return ending == "_timestamp_seconds" ? "seconds" : ending.substr(ending.empty() ? 0 : 1);
}

const std::vector<Metric>& metrics_of(CounterScope scope)
{
    static const std::array metrics{make_metrics(CounterScope::engine), make_metrics(CounterScope::peer),
                                    make_metrics(CounterScope::connection), make_metrics(CounterScope::application)};
    return metrics[index_of(scope)];
}

std::span<const char* const> metric_prefixes_of(CounterScope scope)
{
    using prefixes = std::span<const char* const>;
    static constexpr const char* engine[] = {engine_prefix};
    static constexpr const char* peer[] = {peer_prefix};
    static constexpr const char* connection[] = {connections_prefix, peer_connections_prefix};
    static constexpr const char* application[] = {application_prefix};
    static constexpr std::array all{prefixes(engine), prefixes(peer), prefixes(connection), prefixes(application)};
    return all[index_of(scope)];
}

CounterMetric metric_of(CounterScope scope, int id)
{
    for (const Metric& metric : metrics_of(scope)) {
        for (const MetricSeries& series : metric.series) {
            if (series.id == id && series.value != SeriesValue::sum) {
                return {metric, series};
            }
        }
    }
    throw std::out_of_range("no such counter");
}

std::vector<std::string> selectors_of(CounterScope scope, const NamedCounter& counter)
{
    const auto [name, labels] = parts_of(counter.info.metric);
    const std::string matchers = std::string(labels) + (counter.is_range() ? "=~\".+\"" : "");
    std::vector<std::string> selectors;
    for (const char* const prefix : metric_prefixes_of(scope)) {
        selectors.push_back(prefix + std::string(name) + (matchers.empty() ? "" : "{" + matchers + "}"));
    }
    return selectors;
}

} // namespace kavstat
