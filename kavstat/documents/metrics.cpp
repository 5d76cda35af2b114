#include "documents/metrics.h"

#include "format/text.h"
#include "model/metric_names.h"

#include <algorithm>
#include <charconv>
#include <span>
#include <tuple>

namespace kavstat {

namespace {

// Far less than a piece of a document that a client holds.
constexpr std::size_t series_at_once = 32;

std::string head_of(const std::string& name, const std::string& help, MetricType type)
{
    return "# HELP " + name + " " + help + "\n# TYPE " + name + " " + word_of(type) + "\n";
}

void add_gauge(Output& output, const std::string& name, const std::string& help, long long value)
{
    output.add(head_of(name, help, MetricType::gauge));
    output.add(name);
    output.add(' ');
    output.add_number(value);
    output.add('\n');
}

// The text of a metric, with everything that is the same in every exposition.
struct MetricText
{
    struct Line
    {
        std::string beginning; // up to the value, or to the labels of the thing that it is the value of
        SeriesValue value;
        std::size_t id;
    };

    std::string head;
    RE_stat_unit unit;
    std::vector<Line> lines; // of one thing
};

// b_things: whether the metrics have labels for peers or applications as well.
std::vector<MetricText> texts_of(CounterScope scope, const std::string& prefix, bool b_things)
{
    std::vector<MetricText> texts;
    for (const Metric& metric : metrics_of(scope)) {
        texts.push_back({head_of(prefix + metric.name, metric.help, metric.type), metric.unit, {}});
        for (const MetricSeries& series : metric.series) {
            std::string beginning = prefix + series.name;
            if (b_things) {
                beginning += "{" + series.labels + (series.labels.empty() ? "" : ",");
            } else {
                beginning += series.labels.empty() ? " " : "{" + series.labels + "} ";
            }
            const std::size_t id = series.value == SeriesValue::count ? 0 : static_cast<std::size_t>(series.id);
            texts.back().lines.push_back({std::move(beginning), series.value, id});
        }
    }
    return texts;
}

// Sums of garbage wrap.
long long sum_of(long long one, long long other)
{
    return static_cast<long long>(static_cast<unsigned long long>(one) + static_cast<unsigned long long>(other));
}

// The metric's lines for one thing. labels: the thing's, or nothing. figure: the value of a counter's id.
template <typename Figure>
void add_lines(Output& output, const MetricText& metric, std::string_view labels, const Figure& figure)
{
    long long observed = 0;
    for (const auto& [beginning, value, id] : metric.lines) {
        output.add(beginning);
        output.add(labels);
        switch (value) {
        case SeriesValue::counter:
        case SeriesValue::sum:
            add_metric_value(output, metric.unit, figure(id));
            break;
        case SeriesValue::bucket:
            observed = sum_of(observed, figure(id));
            output.add_number(observed);
            break;
        case SeriesValue::count:
            output.add_number(observed);
            observed = 0;
            break;
        }
        output.add('\n');
    }
}

// Metrics without things.
void add_metrics(Document& document, Output& output, const std::vector<MetricText>& metrics,
                 std::span<const long long> figures)
{
    document.add_each(metrics.size(), [&output, &metrics, figures](std::size_t at) {
        output.add(metrics[at].head);
        add_lines(output, metrics[at], "", [figures](std::size_t id) { return figures[id]; });
    });
}

std::string label(const char* name, std::string_view value)
{
    return std::string(name) + "=\"" + escaped_label(clean_text(value)) + "\"";
}

// A thing's labels and the end of them all.
void append_labels(std::string& text, const SnapshotPeer& peer)
{
    text += "peer=\"";
    text += std::to_string(peer.number);
    text += "\"} ";
}

void append_labels(std::string& text, const SnapshotApp& app)
{
    const RE_stat_app_header& header = app.app.m_header;
    text += "port=\"";
    text += std::to_string(header.m_server_port);
    text += "\",handle=\"";
    text += std::to_string(header.m_policy_engine_handler);
    text += header.m_b_src_port != 0 ? "\",classifier=\"client_port\"" : "\",classifier=\"server_port\"";
    if (app.peer_number >= 0) {
        text += ",peer=\"";
        text += std::to_string(app.peer_number);
    } else {
        text += ",kav_peer_id=\"";
        text += header.m_kav_peer_id.getString();
    }
    text += "\"} ";
}

// Metrics that have lines for every thing. figure: the thing's value of a counter's id.
template <typename Thing, typename Figure>
void add_metrics(Document& document, Output& output, const std::vector<MetricText>& metrics,
                 const std::vector<const Thing*>& things, const Figure& figure)
{
    if (things.empty()) {
        return;
    }
    document.add([&output, &metrics, &things, figure, labels = std::string(), at = std::size_t{0},
                  next = std::size_t{0}]() mutable {
        const MetricText& metric = metrics[at];
        if (next == 0) {
            output.add(metric.head);
        }
        for (std::size_t series = 0; series < series_at_once && next < things.size(); ++next) {
            const Thing& thing = *things[next];
            labels.clear();
            append_labels(labels, thing);
            add_lines(output, metric, labels, [&](std::size_t id) { return figure(thing, id); });
            series += metric.lines.size();
        }
        if (next == things.size()) {
            next = 0;
            ++at;
        }
        return at < metrics.size();
    });
}

// A metric of one more value that things have.
template <typename Thing, typename Value>
void add_metric(Document& document, Output& output, const char* name, const char* help, MetricType type,
                const std::vector<const Thing*>& things, const Value& value)
{
    document.add_each(things.size(), [&, name, help, type, value](std::size_t at) {
        if (at == 0) {
            output.add(head_of(name, help, type));
        }
        std::string line = std::string(name) + "{";
        append_labels(line, *things[at]);
        output.add(line);
        output.add_number(value(*things[at]));
        output.add('\n');
    });
}

void add_peer_info(Output& output, const SnapshotPeer& peer)
{
    const RE_stat_peer_header& header = peer.header;
    output.add("kav_peer_info{");
    output.add(label("peer", std::to_string(peer.number)) + ",");
    output.add(label("kav_peer_id", header.m_kav_peer_id.getString()) + ",");
    output.add(label("mac_id", header.m_peer_mac_id.getString()) + ",");
    output.add(label("ip", ip_text(header.m_peer_ip)) + ",");
    output.add(label("host_name", text_in(header.m_peer_host_name)));
    output.add("} 1\n");
}

// Of things that compare equal only the first is kept; the order stays.
template <typename Thing, typename Less>
std::vector<const Thing*> first_of_each(const std::vector<Thing>& things, const Less& less)
{
    std::vector<const Thing*> kept;
    kept.reserve(things.size());
    for (const Thing& thing : things) {
        kept.push_back(&thing);
    }
    std::stable_sort(kept.begin(), kept.end(),
                     [&](const Thing* one, const Thing* other) { return less(*one, *other); });
    const auto b_equal = [&](const Thing* one, const Thing* other) { return !less(*one, *other); };
    kept.erase(std::unique(kept.begin(), kept.end(), b_equal), kept.end());
    std::sort(kept.begin(), kept.end());
    return kept;
}

bool has_lesser_number(const SnapshotPeer& one, const SnapshotPeer& other)
{
    return one.number < other.number;
}

// By what the labels show.
bool has_lesser_labels(const SnapshotApp& one, const SnapshotApp& other)
{
    const auto key = [](const SnapshotApp& app) {
        const RE_stat_app_header& header = app.app.m_header;
        const bool b_peer = app.peer_number >= 0;
        const RE_kav_peer_id identity = b_peer ? RE_kav_peer_id{} : header.m_kav_peer_id;
        return std::make_tuple(header.m_server_port, header.m_b_src_port, header.m_policy_engine_handler,
                               b_peer ? app.peer_number : -1, std::to_array(identity.m_data));
    };
    return key(one) < key(other);
}

void add_program(Output& output, bool b_up)
{
    add_gauge(output, "kav_up", "1 when the engine's statistics could be read", b_up ? 1 : 0);
    output.add(head_of("kavstat_build_info", "the program that made these metrics; always 1", MetricType::gauge));
    output.add("kavstat_build_info{" + label("version", KAV_VERSION) + "} 1\n");
}

void add_multiple(Output& output, long long value, long long factor)
{
    long long product = 0;
    if (!__builtin_mul_overflow(value, factor, &product)) {
        output.add_number(product);
        return;
    }
    // Beyond what an engine can count; garbage still has to be a number.
    char digits[64];
    const auto [end, error] =
        std::to_chars(digits, digits + sizeof digits, static_cast<double>(value) * static_cast<double>(factor));
    output.add(std::string_view(digits, static_cast<std::size_t>(end - digits)));
}

// value / 10^decimals without the zeros at its end.
void add_fraction(Output& output, long long value, int decimals)
{
    unsigned long long rest = value < 0 ? 0ULL - static_cast<unsigned long long>(value) //
                                        : static_cast<unsigned long long>(value);
    char text[32];
    char* at = text + sizeof text;
    bool b_significant = false;
    for (int digit = 0; digit < decimals; ++digit, rest /= 10) {
        b_significant |= rest % 10 != 0;
        if (b_significant) {
            *--at = static_cast<char>('0' + rest % 10);
        }
    }
    if (b_significant) {
        *--at = '.';
    }
    do {
        *--at = static_cast<char>('0' + rest % 10);
        rest /= 10;
    } while (rest != 0);
    if (value < 0) {
        *--at = '-';
    }
    output.add(std::string_view(at, static_cast<std::size_t>(text + sizeof text - at)));
}

} // namespace

void add_metric_value(Output& output, RE_stat_unit unit, long long value)
{
    const auto [factor, decimals] = base_unit_of(unit);
    if (decimals != 0) {
        add_fraction(output, value, decimals);
    } else if (factor != 1) {
        add_multiple(output, value, factor);
    } else {
        output.add_number(value);
    }
}

void write_metrics_without_engine(Output& output)
{
    add_program(output, false);
}

Exposition::Exposition(RE_image_reader& reader, const Snapshot& snapshot)
    : m_snapshot(snapshot), m_peers(first_of_each(snapshot.peers, has_lesser_number)),
      m_apps(first_of_each(snapshot.apps, has_lesser_labels))
{
    if (const auto bypass = read_bypass(reader)) {
        m_bypass_servers.emplace();
        for (const RE_bypass_entry& entry : *bypass) {
            const auto reason = static_cast<std::size_t>(entry.reason);
            ++m_bypass_servers->at(reason < m_bypass_servers->size() ? reason : 0);
        }
    }
}

Document Exposition::document(Output& output) const
{
    Document document;
    document.add_once([this, &output] { write_engine(output); });
    static const auto engine = texts_of(CounterScope::engine, engine_prefix, false);
    static const auto connections = texts_of(CounterScope::connection, connections_prefix, false);
    add_metrics(document, output, engine, m_snapshot.engine);
    add_metrics(document, output, connections, m_snapshot.connections);
    add_peers(document, output);
    add_applications(document, output);
    return document;
}

void Exposition::write_engine(Output& output) const
{
    add_program(output, true);
    add_gauge(output, "kav_engine_start_timestamp_seconds", "when the engine was started, seconds since the epoch",
              m_snapshot.engine_start_time);
    add_gauge(output, "kav_active_connections", "connections open now", m_snapshot.active_connections);
    if (m_longest_silence) {
        output.add(head_of("kav_connections_longest_silence_seconds",
                           "longest time without a byte moved on an open connection with data pending",
                           MetricType::gauge));
        output.add("kav_connections_longest_silence_seconds ");
        constexpr double microseconds = 1e6;
        add_metric_value(output, RE_stat_unit::microseconds, static_cast<long long>(*m_longest_silence * microseconds));
        output.add('\n');
    }
    if (!m_bypass_servers) {
        return;
    }
    output.add(head_of("kav_bypass_servers", "servers in the auto-bypass table", MetricType::gauge));
    for (std::size_t reason = 0; reason < m_bypass_servers->size(); ++reason) {
        output.add("kav_bypass_servers{" + label("reason", bypass_reason_words.at(reason)) + "} ");
        output.add_number(m_bypass_servers->at(reason));
        output.add('\n');
    }
}

void Exposition::add_peers(Document& document, Output& output) const
{
    document.add_once([this, &output] {
        add_gauge(output, "kavstat_skipped_peers", "peers left out because another one has the same number",
                  static_cast<long long>(m_snapshot.peers.size() - m_peers.size()));
        if (!m_peers.empty()) {
            output.add(head_of("kav_peer_info", "who the peer is; always 1", MetricType::gauge));
        }
    });
    document.add_each(m_peers.size(), [this, &output](std::size_t at) { add_peer_info(output, *m_peers[at]); });
    add_metric(document, output, "kav_peer_outdated", "1 when the peer's record is outdated", MetricType::gauge,
               m_peers, [](const SnapshotPeer& peer) { return peer.header.m_b_outdated != 0 ? 1 : 0; });
    add_metric(document, output, "kav_peer_connected", "1 when the peer's record comes from an active connection",
               MetricType::gauge, m_peers,
               [](const SnapshotPeer& peer) { return peer.header.m_b_update_from_active_conn != 0 ? 1 : 0; });
    add_metric(document, output, "kav_peer_active_connections", "connections open with the peer now", MetricType::gauge,
               m_peers, [](const SnapshotPeer& peer) { return peer.active_connections; });
    static const auto peer_metrics = texts_of(CounterScope::peer, peer_prefix, true);
    static const auto connection_metrics = texts_of(CounterScope::connection, peer_connections_prefix, true);
    add_metrics(document, output, peer_metrics, m_peers,
                [](const SnapshotPeer& peer, std::size_t id) { return peer.figures[id]; });
    add_metrics(document, output, connection_metrics, m_peers,
                [](const SnapshotPeer& peer, std::size_t id) { return peer.connections[id]; });
}

void Exposition::add_applications(Document& document, Output& output) const
{
    document.add_once([this, &output] {
        add_gauge(output, "kavstat_skipped_applications",
                  "applications left out because another one has the same labels",
                  static_cast<long long>(m_snapshot.apps.size() - m_apps.size()));
    });
    add_metric(document, output, "kav_application_opened_connections_total", "connections opened, wraps at 2^23",
               MetricType::counter, m_apps,
               [](const SnapshotApp& app) { return static_cast<long long>(app.app.m_header.m_open_cnt); });
    add_metric(document, output, "kav_application_closed_connections_total", "connections closed, wraps at 2^24",
               MetricType::counter, m_apps,
               [](const SnapshotApp& app) { return static_cast<long long>(app.app.m_header.m_close_cnt); });
    static const auto metrics = texts_of(CounterScope::application, application_prefix, true);
    add_metrics(document, output, metrics, m_apps,
                [](const SnapshotApp& app, std::size_t id) { return static_cast<long long>(app.app.m_id_array[id]); });
}

void write_metrics_of(RE_image_reader& reader, std::time_t now, Output& output)
{
    const Snapshot snapshot = take_snapshot(reader, now);
    const Exposition exposition(reader, snapshot);
    if (reader.is_cut()) {
        write_metrics_without_engine(output);
        return;
    }
    Document document = exposition.document(output);
    while (document.write_more() && output.is_ok()) {
    }
}

} // namespace kavstat
