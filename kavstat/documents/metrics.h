// Statistics in the text format that Prometheus scrapes and node_exporter's textfile collector picks up. Engine, peers
// and applications only: a series for every connection that ever was would be the end of any time series database.
#pragma once

#include "RE_stat_counters.h"
#include "format/document.h"
#include "format/output.h"
#include "model/snapshot.h"
#include "model/words.h"

#include <vector>

namespace kavstat {

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
    Document document(Output& output) const;

private:
    void write_engine(Output& output) const;
    void add_peers(Document& document, Output& output) const;
    void add_applications(Document& document, Output& output) const;

    const Snapshot& m_snapshot;
    std::vector<const SnapshotPeer*> m_peers;
    std::vector<const SnapshotApp*> m_apps;
    // In the auto-bypass table, by the codes of bypass_reason_words; nothing when there is none.
    std::optional<std::array<int, bypass_reason_words.size()>> m_bypass_servers;
    std::optional<double> m_longest_silence; // seconds
};

// The exposition without an engine: kav_up 0.
void write_metrics_without_engine(Output& output);

// Reads an open reader and writes the exposition; the one without an engine when the statistics were cut short
// meanwhile.
void write_metrics_of(RE_image_reader& reader, std::time_t now, Output& output);

// The value in the metric's base unit, with all its digits: 25000 microseconds are "0.025".
void add_metric_value(Output& output, RE_stat_unit unit, long long value);

} // namespace kavstat
