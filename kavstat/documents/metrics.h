// Statistics as metrics: in the text format that Prometheus scrapes and node_exporter's textfile collector picks up, or
// in OpenMetrics. Engine, peers and applications only: a series for every connection that ever was would be the end of
// any time series database.
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
    // At most so many series of engine, peers and applications; 0 for no bound. Those of the engine are always shown,
    // then the peers and then the applications in the order of their slots, each with all its series or with none.
    std::size_t max_series = 0;
    // Writes metrics of the program itself at the end; may be empty.
    std::function<void(Output&)> write_own;

    bool has(Collector collector) const { return collectors.test(static_cast<std::size_t>(collector)); }
};

// Writes a metric of one series without labels. value: as it is shown.
void write_metric(Output& output, MetricsFormat format, MetricType type, const char* name, const char* help,
                  std::string_view value);

using BypassServers = std::array<int, bypass_reason_words.size()>;

// The exposition of an engine that is up. Peers that share a number, and applications that share all labels, would be
// two series of one name, which no scraper takes; the first one is shown and the others are counted in
// kavstat_skipped_peers and kavstat_skipped_applications.
class Exposition
{
public:
    // reader: what the snapshot was taken from. snapshot: outlives this object.
    Exposition(RE_image_reader& reader, const Snapshot& snapshot);

    // The longest time, in seconds, for which an open connection with data pending has moved no byte. Only a program
    // that has read the connections before can know it; without this call, the metric is left out.
    void set_longest_silence(double seconds) { m_longest_silence = seconds; }

    // The text, for `output`. Both this object and the output outlive it.
    Document document(Output& output, const MetricsChoice& choice = {}) const;

private:
    const Snapshot& m_snapshot;
    std::vector<const SnapshotPeer*> m_peers;
    std::vector<const SnapshotApp*> m_apps;
    // In the auto-bypass table, by the codes of bypass_reason_words; nothing when there is none.
    std::optional<BypassServers> m_bypass_servers;
    std::optional<double> m_longest_silence; // seconds
};

// The exposition without an engine: kav_up 0.
void write_metrics_without_engine(Output& output, const MetricsChoice& choice = {});

// Reads an open reader and writes the exposition. When the statistics are cut short during the read, writes the
// exposition without an engine instead.
void write_metrics_of(RE_image_reader& reader, std::time_t now, Output& output, const MetricsChoice& choice = {});

// The value in the metric's base unit, with all its digits: 25000 microseconds are "0.025".
void add_metric_value(Output& output, RE_stat_unit unit, long long value);

} // namespace kavstat
