#include "documents/metrics.h"

#include "format/text.h"
#include "model/metric_names.h"

#include <algorithm>
#include <charconv>
#include <span>
#include <tuple>

namespace kavstat {

namespace {

// Much less than a piece of a document.
constexpr std::size_t series_at_once = 32;

// Where metrics are written to, and in which form.
struct MetricsOutput
{
    Output& output;
    MetricsFormat format;
    long long created = 0; // the time from which counters count, seconds since the epoch; 0 when it is not shown
};

std::string without_ending(const std::string& name, std::string_view ending)
{
    return name.ends_with(ending) ? name.substr(0, name.size() - ending.size()) : name;
}

// The lines before a metric's samples. In OpenMetrics they name the family: without "_total" and "_info".
std::string head_of(MetricsFormat format, const std::string& name, const std::string& help, MetricType type)
{
    if (format == MetricsFormat::prometheus) {
        return "# HELP " + name + " " + help + "\n# TYPE " + name + " " + word_of(type) + "\n";
    }
    const bool b_info = name.ends_with("_info");
    const std::string family = without_ending(name, b_info ? "_info" : "_total");
    const std::string_view unit = base_unit_in(name);
    std::string head = "# TYPE " + family + " " + (b_info ? "info" : word_of(type)) + "\n";
    if (!unit.empty()) {
        head.append("# UNIT ").append(family).append(" ").append(unit).append("\n");
    }
    // Quotation marks are escaped as in labels.
    return head + "# HELP " + family + " " + escaped_label(help) + "\n";
}

void add_gauge(const MetricsOutput& to, const char* name, const char* help, long long value)
{
    write_metric(to.output, to.format, MetricType::gauge, name, help, std::to_string(value));
}

enum class LineValue
{
    counter,
    bucket,
    sum,
    count,
    created,
};

// The parts of a metric's text that are the same in every exposition.
struct MetricText
{
    struct Line
    {
        std::string beginning; // up to the value, or up to the labels of the peer or application
        LineValue value;
        std::size_t id; // the counter's; for a count, and for the time from which a histogram counts, 0
    };

    std::string head;
    MetricType type;
    RE_stat_unit unit;
    std::vector<Line> lines; // of one thing
};

LineValue line_value_of(SeriesValue value)
{
    switch (value) {
    case SeriesValue::counter:
        return LineValue::counter;
    case SeriesValue::bucket:
        return LineValue::bucket;
    case SeriesValue::sum:
        return LineValue::sum;
    case SeriesValue::count:
        break;
    }
    return LineValue::count;
}

// b_things: whether the metrics also have labels of peers or applications. b_created: whether there are lines for the
// time from which each counter counts.
std::vector<MetricText> texts_of(CounterScope scope, const std::string& prefix, bool b_things, MetricsFormat format,
                                 bool b_created)
{
    std::vector<MetricText> texts;
    for (const Metric& metric : metrics_of(scope)) {
        texts.push_back(
            {head_of(format, prefix + metric.name, metric.help, metric.type), metric.type, metric.unit, {}});
        const std::string family = without_ending(prefix + metric.name, "_total");
        for (const MetricSeries& series : metric.series) {
            std::string labels;
            if (b_things) {
                labels = "{" + series.labels + (series.labels.empty() ? "" : ",");
            } else {
                labels = series.labels.empty() ? " " : "{" + series.labels + "} ";
            }
            const LineValue value = line_value_of(series.value);
            const std::size_t id = value == LineValue::count ? 0 : static_cast<std::size_t>(series.id);
            std::vector<MetricText::Line>& lines = texts.back().lines;
            lines.push_back({std::string(prefix).append(series.name).append(labels), value, id});
            const bool b_last =
                metric.type == MetricType::histogram ? value == LineValue::count : metric.type == MetricType::counter;
            if (b_created && b_last) {
                lines.push_back({std::string(family).append("_created").append(labels), LineValue::created, id});
            }
        }
    }
    return texts;
}

// All metrics with names and labels from the table of counters, in one form.
struct MetricTexts
{
    MetricTexts(MetricsFormat format, bool b_created)
        : engine(texts_of(CounterScope::engine, engine_prefix, false, format, b_created)),
          connections(texts_of(CounterScope::connection, connections_prefix, false, format, b_created)),
          peers(texts_of(CounterScope::peer, peer_prefix, true, format, b_created)),
          peer_connections(texts_of(CounterScope::connection, peer_connections_prefix, true, format, b_created)),
          applications(texts_of(CounterScope::application, application_prefix, true, format, b_created))
    {}

    std::vector<MetricText> engine;
    std::vector<MetricText> connections;
    std::vector<MetricText> peers;
    std::vector<MetricText> peer_connections;
    std::vector<MetricText> applications;
};

const MetricTexts& texts_for(const MetricsOutput& to)
{
    if (to.format == MetricsFormat::prometheus) {
        static const MetricTexts texts(MetricsFormat::prometheus, false);
        return texts;
    }
    if (to.created == 0) {
        static const MetricTexts texts(MetricsFormat::openmetrics, false);
        return texts;
    }
    static const MetricTexts texts(MetricsFormat::openmetrics, true);
    return texts;
}

std::size_t count_of_lines(const std::vector<MetricText>& metrics)
{
    std::size_t count = 0;
    for (const MetricText& metric : metrics) {
        count += metric.lines.size();
    }
    return count;
}

// Wraps: invalid figures may have any value.
long long sum_of(long long one, long long other)
{
    return static_cast<long long>(static_cast<unsigned long long>(one) + static_cast<unsigned long long>(other));
}

// Whether the figures are valid: invalid ones may be negative, or their sum may overflow.
template <typename Figure>
bool is_histogram(const MetricText& metric, const Figure& figure)
{
    long long observed = 0;
    for (const auto& [beginning, value, id] : metric.lines) {
        if (value == LineValue::bucket || value == LineValue::sum) {
            if (figure(id) < 0 ||
                (value == LineValue::bucket && __builtin_add_overflow(observed, figure(id), &observed))) {
                return false;
            }
        } else if (value == LineValue::count) {
            observed = 0;
        }
    }
    return true;
}

// Adds the metric's lines for one peer or application. labels: its labels, or nothing. figure: returns the value of a
// counter's id. OpenMetrics allows no negative counts, and a parser may refuse all metrics because of one, so invalid
// figures are left out there.
template <typename Figure>
void add_lines(const MetricsOutput& to, const MetricText& metric, std::string_view labels, const Figure& figure)
{
    const bool b_open = to.format == MetricsFormat::openmetrics;
    if (b_open && metric.type == MetricType::histogram && !is_histogram(metric, figure)) {
        return;
    }
    const bool b_counts = b_open && metric.type == MetricType::counter;
    Output& output = to.output;
    long long observed = 0;
    for (const auto& [beginning, value, id] : metric.lines) {
        if (b_counts && figure(id) < 0) {
            continue;
        }
        output.add(beginning);
        output.add(labels);
        switch (value) {
        case LineValue::counter:
        case LineValue::sum:
            add_metric_value(output, metric.unit, figure(id));
            break;
        case LineValue::bucket:
            observed = sum_of(observed, figure(id));
            output.add_number(observed);
            break;
        case LineValue::count:
            output.add_number(observed);
            observed = 0;
            break;
        case LineValue::created:
            output.add_number(to.created);
            break;
        }
        output.add('\n');
    }
}

// Metrics without things.
void add_metrics(Document& document, const MetricsOutput& to, const std::vector<MetricText>& metrics,
                 std::span<const long long> figures)
{
    document.add_each(metrics.size(), [to, &metrics, figures](std::size_t at) {
        to.output.add(metrics[at].head);
        add_lines(to, metrics[at], "", [figures](std::size_t id) { return figures[id]; });
    });
}

std::string label(const char* name, std::string_view value)
{
    return std::string(name) + "=\"" + escaped_label(clean_text(value)) + "\"";
}

// Appends the labels of a peer or an application, and the closing brace.
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

template <typename Thing>
using Things = std::span<const Thing* const>;

// Metrics with lines for every peer or application. figure: returns its value of a counter's id.
template <typename Thing, typename Figure>
void add_metrics(Document& document, const MetricsOutput& to, const std::vector<MetricText>& metrics,
                 Things<Thing> things, const Figure& figure)
{
    if (things.empty()) {
        return;
    }
    document.add(
        [to, &metrics, things, figure, labels = std::string(), at = std::size_t{0}, next = std::size_t{0}]() mutable {
            const MetricText& metric = metrics[at];
            if (next == 0) {
                to.output.add(metric.head);
            }
            for (std::size_t series = 0; series < series_at_once && next < things.size(); ++next) {
                const Thing& thing = *things[next];
                labels.clear();
                append_labels(labels, thing);
                add_lines(to, metric, labels, [&](std::size_t id) { return figure(thing, id); });
                series += metric.lines.size();
            }
            if (next == things.size()) {
                next = 0;
                ++at;
            }
            return at < metrics.size();
        });
}

// A metric with one line for every peer or application.
template <typename Thing, typename Value>
void add_metric(Document& document, const MetricsOutput& to, const char* name, const char* help, MetricType type,
                Things<Thing> things, const Value& value)
{
    document.add_each(things.size(), [to, name, help, type, things, value](std::size_t at) {
        if (at == 0) {
            to.output.add(head_of(to.format, name, help, type));
        }
        const auto add_line = [&](const std::string& series, long long number) {
            std::string line = series + "{";
            append_labels(line, *things[at]);
            to.output.add(line);
            to.output.add_number(number);
            to.output.add('\n');
        };
        add_line(name, value(*things[at]));
        if (type == MetricType::counter && to.created != 0) {
            add_line(without_ending(name, "_total") + "_created", to.created);
        }
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

// Keeps only the first of equal elements; the order does not change.
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

// Compares the values that become labels.
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

void add_program(const MetricsOutput& to, bool b_up)
{
    add_gauge(to, "kav_up", "1 when the engine's statistics could be read", b_up ? 1 : 0);
    to.output.add(
        head_of(to.format, "kavstat_build_info", "the program that made these metrics; always 1", MetricType::gauge));
    to.output.add("kavstat_build_info{" + label("version", KAV_VERSION) + "} 1\n");
}

void add_end(const MetricsOutput& to, const MetricsChoice& choice)
{
    if (choice.write_own && choice.has(Collector::process)) {
        choice.write_own(to.output);
    }
    if (to.format == MetricsFormat::openmetrics) {
        to.output.add("# EOF\n");
    }
}

// The number of peers and applications that are shown, and the number of series of the others.
struct SeriesCut
{
    std::size_t peers;
    std::size_t apps;
    std::size_t dropped = 0;

    // Returns how many of `count` elements fit.
    static std::size_t take(std::size_t& room, std::size_t count, std::size_t series_of_each, std::size_t& dropped)
    {
        const std::size_t shown = series_of_each == 0 ? count : std::min(count, room / series_of_each);
        // Everything after the first element that does not fit is left out.
        room = shown < count ? 0 : room - shown * series_of_each;
        dropped += (count - shown) * series_of_each;
        return shown;
    }
};

void add_multiple(Output& output, long long value, long long factor)
{
    long long product = 0;
    if (!__builtin_mul_overflow(value, factor, &product)) {
        output.add_number(product);
        return;
    }
    // More than an engine can count; invalid figures still have to be numbers.
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

void write_metric(Output& output, MetricsFormat format, MetricType type, const char* name, const char* help,
                  std::string_view value)
{
    output.add(head_of(format, name, help, type));
    output.add(name);
    output.add(' ');
    output.add(value);
    output.add('\n');
}

void write_metrics_without_engine(Output& output, const MetricsChoice& choice)
{
    const MetricsOutput to{output, choice.format};
    add_program(to, false);
    add_end(to, choice);
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

namespace {

void write_engine(const MetricsOutput& to, const Snapshot& snapshot, const std::optional<BypassServers>& bypass)
{
    add_gauge(to, "kav_engine_start_timestamp_seconds", "when the engine was started, seconds since the epoch",
              snapshot.engine_start_time);
    add_gauge(to, "kav_active_connections", "connections open now", snapshot.active_connections);
    if (!bypass) {
        return;
    }
    to.output.add(head_of(to.format, "kav_bypass_servers", "servers in the auto-bypass table", MetricType::gauge));
    for (std::size_t reason = 0; reason < bypass->size(); ++reason) {
        to.output.add("kav_bypass_servers{" + label("reason", bypass_reason_words.at(reason)) + "} ");
        to.output.add_number(bypass->at(reason));
        to.output.add('\n');
    }
}

// Series of the engine in addition to those of counters.
std::size_t series_of_engine(const std::optional<BypassServers>& bypass)
{
    return 2 + (bypass ? bypass->size() : 0);
}

void write_silence(const MetricsOutput& to, double seconds)
{
    to.output.add(head_of(to.format, "kav_connections_longest_silence_seconds",
                          "longest time without a byte moved on an open connection with data pending",
                          MetricType::gauge));
    to.output.add("kav_connections_longest_silence_seconds ");
    constexpr double microseconds = 1e6;
    add_metric_value(to.output, RE_stat_unit::microseconds, static_cast<long long>(seconds * microseconds));
    to.output.add('\n');
}

// Series of one peer in addition to those of counters.
constexpr std::size_t series_of_peer = 4;

void add_peers(Document& document, const MetricsOutput& to, Things<SnapshotPeer> peers)
{
    document.add_once([to, peers] {
        if (!peers.empty()) {
            to.output.add(head_of(to.format, "kav_peer_info", "who the peer is; always 1", MetricType::gauge));
        }
    });
    document.add_each(peers.size(), [to, peers](std::size_t at) { add_peer_info(to.output, *peers[at]); });
    add_metric(document, to, "kav_peer_outdated", "1 when the peer's record is outdated", MetricType::gauge, peers,
               [](const SnapshotPeer& peer) { return peer.header.m_b_outdated != 0 ? 1 : 0; });
    add_metric(document, to, "kav_peer_connected", "1 when the peer's record comes from an active connection",
               MetricType::gauge, peers,
               [](const SnapshotPeer& peer) { return peer.header.m_b_update_from_active_conn != 0 ? 1 : 0; });
    add_metric(document, to, "kav_peer_active_connections", "connections open with the peer now", MetricType::gauge,
               peers, [](const SnapshotPeer& peer) { return peer.active_connections; });
    add_metrics(document, to, texts_for(to).peers, peers,
                [](const SnapshotPeer& peer, std::size_t id) { return peer.figures[id]; });
}

// Series of one application in addition to those of m_id_array: two counters, and the times from which they count.
std::size_t series_of_application(const MetricsOutput& to)
{
    return to.created != 0 ? 4 : 2;
}

void add_applications(Document& document, const MetricsOutput& to, Things<SnapshotApp> apps)
{
    add_metric(document, to, "kav_application_opened_connections_total", "connections opened, wraps at 2^23",
               MetricType::counter, apps,
               [](const SnapshotApp& app) { return static_cast<long long>(app.app.m_header.m_open_cnt); });
    add_metric(document, to, "kav_application_closed_connections_total", "connections closed, wraps at 2^24",
               MetricType::counter, apps,
               [](const SnapshotApp& app) { return static_cast<long long>(app.app.m_header.m_close_cnt); });
    add_metrics(document, to, texts_for(to).applications, apps,
                [](const SnapshotApp& app, std::size_t id) { return static_cast<long long>(app.app.m_id_array[id]); });
}

} // namespace

Document Exposition::document(Output& output, const MetricsChoice& choice) const
{
    const bool b_created = choice.format == MetricsFormat::openmetrics && choice.has(Collector::created);
    const long long created = b_created && m_snapshot.engine_start_time > 0 ? m_snapshot.engine_start_time : 0;
    const MetricsOutput to{output, choice.format, created};
    const MetricTexts& texts = texts_for(to);

    const bool b_peers = choice.has(Collector::peers);
    const bool b_peer_connections = choice.has(Collector::peer_connections);
    const bool b_apps = choice.has(Collector::applications);
    const std::size_t of_engine =
        (choice.has(Collector::engine) ? series_of_engine(m_bypass_servers) + count_of_lines(texts.engine) : 0) +
        (choice.has(Collector::connections) ? (m_longest_silence ? 1 : 0) + count_of_lines(texts.connections) : 0);
    const std::size_t of_peer = (b_peers ? series_of_peer + count_of_lines(texts.peers) : 0) +
                                (b_peer_connections ? count_of_lines(texts.peer_connections) : 0);
    const std::size_t of_app = b_apps ? series_of_application(to) + count_of_lines(texts.applications) : 0;
    SeriesCut cut{m_peers.size(), m_apps.size()};
    if (choice.max_series != 0) {
        std::size_t room = choice.max_series - std::min(choice.max_series, of_engine);
        cut.peers = SeriesCut::take(room, m_peers.size(), of_peer, cut.dropped);
        cut.apps = SeriesCut::take(room, m_apps.size(), of_app, cut.dropped);
    }
    const auto peers = Things<SnapshotPeer>(m_peers).first(cut.peers);
    const auto apps = Things<SnapshotApp>(m_apps).first(cut.apps);

    Document document;
    document.add_once([to] { add_program(to, true); });
    if (choice.has(Collector::engine)) {
        document.add_once([this, to] { write_engine(to, m_snapshot, m_bypass_servers); });
        add_metrics(document, to, texts.engine, m_snapshot.engine);
    }
    if (choice.has(Collector::connections)) {
        if (m_longest_silence) {
            document.add_once([this, to] { write_silence(to, *m_longest_silence); });
        }
        add_metrics(document, to, texts.connections, m_snapshot.connections);
    }
    if (b_peers) {
        document.add_once([this, to] {
            add_gauge(to, "kavstat_skipped_peers", "peers left out because another one has the same number",
                      static_cast<long long>(m_snapshot.peers.size() - m_peers.size()));
        });
        add_peers(document, to, peers);
    }
    if (b_peer_connections) {
        add_metrics(document, to, texts.peer_connections, peers,
                    [](const SnapshotPeer& peer, std::size_t id) { return peer.connections[id]; });
    }
    if (b_apps) {
        document.add_once([this, to] {
            add_gauge(to, "kavstat_skipped_applications",
                      "applications left out because another one has the same labels",
                      static_cast<long long>(m_snapshot.apps.size() - m_apps.size()));
        });
        add_applications(document, to, apps);
    }
    document.add_once([to, choice, dropped = cut.dropped] {
        if (choice.max_series != 0) {
            add_gauge(to, "kavstat_series_dropped", "series of peers and applications beyond the bound on series",
                      static_cast<long long>(dropped));
        }
        add_end(to, choice);
    });
    return document;
}

void write_metrics_of(RE_image_reader& reader, std::time_t now, Output& output, const MetricsChoice& choice)
{
    const Snapshot snapshot = take_snapshot(reader, now);
    const Exposition exposition(reader, snapshot);
    if (reader.is_cut()) {
        write_metrics_without_engine(output, choice);
        return;
    }
    Document document = exposition.document(output, choice);
    while (document.write_more() && output.is_ok()) {
    }
}

} // namespace kavstat
