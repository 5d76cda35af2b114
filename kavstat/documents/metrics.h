// Statistics as metrics: in the text format that Prometheus scrapes and node_exporter's textfile collector reads, or in
// OpenMetrics. Only for engine, peers and applications: a series for every connection would overload a time series
// database.
#pragma once

#include "RE_stat_counters.h"
#include "format/document.h"
#include "format/output.h"
#include "model/metric_names.h"
#include "model/snapshot.h"
#include "model/words.h"

#include <bitset>
#include <functional>
#include <string_view>
#include <vector>

namespace kavstat {

enum class MetricsFormat
{
    prometheus,  // the text format, version 0.0.4
    openmetrics, // OpenMetrics 1.0
};

// The parts of an exposition. Each can be left out.
enum class Collector
{
    engine,
    connections,      // sums over all connections
    peers,            // each peer's own counters
    peer_connections, // sums over each peer's connections
    applications,
    process, // the program that serves metrics
    created, // in OpenMetrics, the time from which each counter counts
};
inline constexpr std::array collector_names{"engine",       "connections", "peers",  "peer_connections",
                                            "applications", "process",     "created"};
using CollectorSet = std::bitset<collector_names.size()>;

struct MetricsChoice
{
    MetricsFormat format = MetricsFormat::prometheus;
    CollectorSet collectors = CollectorSet().set();
    // The maximum number of series of engine, peers and applications; 0 for no bound. The engine is always shown, then
    // peers and then applications in the order of their slots, each with all its series or with none.
    std::size_t max_series = 0;
    // Writes metrics of the program itself at the end; may be empty.
    std::function<void(Output&)> write_own;

    bool has(Collector collector) const { return collectors.test(static_cast<std::size_t>(collector)); }
};

// Writes a metric of one series without labels. value: its text.
void write_metric(Output& output, MetricsFormat format, MetricType type, const char* name, const char* help,
                  std::string_view value);

using BypassServers = std::array<int, bypass_reason_words.size()>;

// The exposition of a running engine. Peers with the same number, and applications with the same labels, would be two
// series of one name, which scrapers refuse. The first one is shown, and the others are counted in
// kavstat_skipped_peers and kavstat_skipped_applications.
class Exposition
{
public:
    // reader: the one that the snapshot was taken from. snapshot: outlives this object.
    Exposition(RE_image_reader& reader, const Snapshot& snapshot);

    // The longest time, in seconds, for which an open connection with data pending has moved no byte. It is known only
    // after repeated reads of the connections. Without this call, the metric is left out.
    void set_longest_silence(double seconds) { m_longest_silence = seconds; }

    // The text, for `output`. Both this object and the output outlive it.
    Document document(Output& output, const MetricsChoice& choice = {}) const;

private:
    const Snapshot& m_snapshot;
    std::vector<const SnapshotPeer*> m_peers;
    std::vector<const SnapshotApp*> m_apps;
    // The auto-bypass table by the codes of bypass_reason_words; nothing without a table.
    std::optional<BypassServers> m_bypass_servers;
    std::optional<double> m_longest_silence; // seconds
};

// The exposition without an engine: kav_up 0.
void write_metrics_without_engine(Output& output, const MetricsChoice& choice = {});

// Reads an open reader and writes the exposition. When the statistics are truncated during the read, writes the
// exposition without an engine instead.
void write_metrics_of(RE_image_reader& reader, std::time_t now, Output& output, const MetricsChoice& choice = {});

// The value in the metric's base unit, with all its digits: 25000 microseconds are "0.025".
void add_metric_value(Output& output, RE_stat_unit unit, long long value);

} // namespace kavstat
