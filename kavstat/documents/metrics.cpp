#include "documents/metrics.h"

#include "format/text.h"

#include <algorithm>
#include <charconv>
#include <span>
#include <tuple>

namespace kavstat {

namespace {

constexpr const char* engine_prefix = "kav_";
constexpr const char* connections_prefix = "kav_connections_";
constexpr const char* peer_prefix = "kav_peer_";
constexpr const char* peer_connections_prefix = "kav_peer_connections_";
constexpr const char* application_prefix = "kav_application_";

// Far less than a piece of a document that a client holds.
constexpr std::size_t series_at_once = 32;

void add_head(Output& output, const std::string& name, std::string_view meaning, bool b_total)
{
    output.add("# HELP ");
    output.add(name);
    output.add(' ');
    output.add(meaning);
    output.add("\n# TYPE ");
    output.add(name);
    output.add(b_total ? " counter\n" : " gauge\n");
}

void add_gauge(Output& output, const std::string& name, std::string_view meaning, long long value)
{
    add_head(output, name, meaning, false);
    output.add(name);
    output.add(' ');
    output.add_number(value);
    output.add('\n');
}

// Counters without labels of their own, the members of a range apart.
void add_figures(Document& document, Output& output, const char* prefix, CounterScope scope,
                 std::span<const long long> figures)
{
    const std::vector<NamedCounter>& counters = counters_of(scope);
    document.add_each(counters.size(), [&, prefix, figures](std::size_t at) {
        const NamedCounter& counter = counters[at];
        const std::string name = prefix + metric_name_of(counter);
        add_head(output, name, counter.info.meaning, counter.is_total());
        for (int id = counter.id(); id <= counter.info.last_id; ++id) {
            output.add(name);
            if (counter.is_range()) {
                output.add("{index=\"");
                output.add_number(id - counter.id());
                output.add("\"}");
            }
            output.add(' ');
            add_metric_value(output, counter.info.unit, figures[static_cast<std::size_t>(id)]);
            output.add('\n');
        }
    });
}

std::string label(const char* name, std::string_view value)
{
    return std::string(name) + "=\"" + escaped_label(clean_text(value)) + "\"";
}

void add_labels(Output& output, const SnapshotPeer& peer)
{
    output.add("{peer=\"");
    output.add_number(peer.number);
    output.add("\"} ");
}

void add_labels(Output& output, const SnapshotApp& app)
{
    output.add("{application=\"");
    output.add(application_label(app.app.m_header));
    output.add("\",peer=\"");
    if (app.peer_number >= 0) {
        output.add_number(app.peer_number);
    }
    // The identity as well, as an application may outlive its peer's record, and with it the number.
    output.add("\",kav_peer_id=\"");
    output.add(app.app.m_header.m_kav_peer_id.getString());
    output.add("\"} ");
}

// A metric for every counter, and in it a series for every thing. figure: the thing's value of a counter's id.
template <typename Thing, typename Figure>
void add_families(Document& document, Output& output, const char* prefix, CounterScope scope,
                  const std::vector<const Thing*>& things, const Figure& figure)
{
    if (things.empty()) {
        return;
    }
    document.add([&output, &things, &counters = counters_of(scope), prefix, figure, name = std::string(),
                  family = std::size_t{0}, next = std::size_t{0}]() mutable {
        const NamedCounter& counter = counters[family];
        if (next == 0) {
            name = prefix + metric_name_of(counter);
            add_head(output, name, counter.info.meaning, counter.is_total());
        }
        const std::size_t end = std::min(next + series_at_once, things.size());
        for (; next < end; ++next) {
            output.add(name);
            add_labels(output, *things[next]);
            add_metric_value(output, counter.info.unit, figure(*things[next], static_cast<std::size_t>(counter.id())));
            output.add('\n');
        }
        if (next == things.size()) {
            next = 0;
            ++family;
        }
        return family < counters.size();
    });
}

// A metric of one more value that things have.
template <typename Thing, typename Value>
void add_family(Document& document, Output& output, const char* name, const char* meaning, bool b_total,
                const std::vector<const Thing*>& things, const Value& value)
{
    document.add_each(things.size(), [&, name, meaning, b_total, value](std::size_t at) {
        if (at == 0) {
            add_head(output, name, meaning, b_total);
        }
        output.add(name);
        add_labels(output, *things[at]);
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
        return std::make_tuple(header.m_server_port, header.m_b_src_port, header.m_policy_engine_handler,
                               std::to_array(header.m_kav_peer_id.m_data));
    };
    return key(one) < key(other);
}

void add_program(Output& output, bool b_up)
{
    add_gauge(output, "kav_up", "1 when the engine's statistics could be read", b_up ? 1 : 0);
    add_head(output, "kavstat_info", "the program that made these metrics; always 1", false);
    output.add("kavstat_info{" + label("version", KAV_VERSION) + "} 1\n");
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
    switch (unit) {
    case RE_stat_unit::kilobytes:
        add_multiple(output, value, 1LL << 10U);
        break;
    case RE_stat_unit::megabytes:
        add_multiple(output, value, 1LL << 20U);
        break;
    case RE_stat_unit::microseconds:
        add_fraction(output, value, 6);
        break;
    case RE_stat_unit::percent:
        add_fraction(output, value, 2);
        break;
    default:
        output.add_number(value);
    }
}

std::string application_label(const RE_stat_app_header& header)
{
    std::string text = std::to_string(header.m_server_port);
    if (header.m_b_src_port != 0) {
        text += "-source";
    }
    if (header.m_policy_engine_handler != 0) {
        text += "-handle" + std::to_string(header.m_policy_engine_handler);
    }
    return text;
}

std::vector<std::string> metrics_of(CounterScope scope, const NamedCounter& counter)
{
    const std::string name = metric_name_of(counter);
    switch (scope) {
    case CounterScope::engine:
        return {engine_prefix + name};
    case CounterScope::peer:
        return {peer_prefix + name};
    case CounterScope::connection:
        return {connections_prefix + name, peer_connections_prefix + name};
    case CounterScope::application:
        break;
    }
    return {application_prefix + name};
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
        m_bypass_servers = static_cast<int>(bypass->size());
    }
}

Document Exposition::document(Output& output) const
{
    Document document;
    document.add_once([this, &output] { write_engine(output); });
    add_figures(document, output, engine_prefix, CounterScope::engine, m_snapshot.engine);
    add_figures(document, output, connections_prefix, CounterScope::connection, m_snapshot.connections);
    add_peers(document, output);
    add_applications(document, output);
    return document;
}

void Exposition::write_engine(Output& output) const
{
    add_program(output, true);
    add_gauge(output, "kav_engine_start_time_seconds", "when the engine was started, seconds since the epoch",
              m_snapshot.engine_start_time);
    add_gauge(output, "kav_active_connections", "connections open now", m_snapshot.active_connections);
    if (m_bypass_servers >= 0) {
        add_gauge(output, "kav_bypass_servers", "servers in the auto-bypass table", m_bypass_servers);
    }
}

void Exposition::add_peers(Document& document, Output& output) const
{
    document.add_once([this, &output] {
        add_gauge(output, "kavstat_skipped_peers", "peers left out because another one has the same number",
                  static_cast<long long>(m_snapshot.peers.size() - m_peers.size()));
        if (!m_peers.empty()) {
            add_head(output, "kav_peer_info", "who the peer is; always 1", false);
        }
    });
    document.add_each(m_peers.size(), [this, &output](std::size_t at) { add_peer_info(output, *m_peers[at]); });
    add_family(document, output, "kav_peer_outdated", "1 when the peer's record is outdated", false, m_peers,
               [](const SnapshotPeer& peer) { return peer.header.m_b_outdated != 0 ? 1 : 0; });
    add_family(document, output, "kav_peer_active_connections", "connections open with the peer now", false, m_peers,
               [](const SnapshotPeer& peer) { return peer.active_connections; });
    add_families(document, output, peer_prefix, CounterScope::peer, m_peers,
                 [](const SnapshotPeer& peer, std::size_t id) { return peer.figures[id]; });
    add_families(document, output, peer_connections_prefix, CounterScope::connection, m_peers,
                 [](const SnapshotPeer& peer, std::size_t id) { return peer.connections[id]; });
}

void Exposition::add_applications(Document& document, Output& output) const
{
    document.add_once([this, &output] {
        add_gauge(output, "kavstat_skipped_applications",
                  "applications left out because another one has the same labels",
                  static_cast<long long>(m_snapshot.apps.size() - m_apps.size()));
    });
    add_family(document, output, "kav_application_opened_total", "connections of the application opened, wraps at 2^23",
               true, m_apps,
               [](const SnapshotApp& app) { return static_cast<long long>(app.app.m_header.m_open_cnt); });
    add_family(document, output, "kav_application_closed_total", "connections of the application closed, wraps at 2^24",
               true, m_apps,
               [](const SnapshotApp& app) { return static_cast<long long>(app.app.m_header.m_close_cnt); });
    add_families(document, output, application_prefix, CounterScope::application, m_apps,
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
