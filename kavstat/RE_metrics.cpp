#include "RE_metrics.h"

#include "RE_text.h"

#include <charconv>
#include <set>
#include <span>

namespace {

constexpr const char* engine_prefix = "kav_";
constexpr const char* connections_prefix = "kav_connections_";
constexpr const char* peer_prefix = "kav_peer_";
constexpr const char* peer_connections_prefix = "kav_peer_connections_";
constexpr const char* application_prefix = "kav_application_";

// One of several things that a metric has a series for.
template <typename Thing>
struct labelled
{
    const Thing* thing;
    std::string labels; // {peer="1"}
};

void add_head(RE_output& output, const std::string& name, std::string_view meaning, bool b_total)
{
    output.add("# HELP ");
    output.add(name);
    output.add(' ');
    output.add(meaning);
    output.add("\n# TYPE ");
    output.add(name);
    output.add(b_total ? " counter\n" : " gauge\n");
}

void add_gauge(RE_output& output, const std::string& name, std::string_view meaning, long long value)
{
    add_head(output, name, meaning, false);
    output.add(name);
    output.add(' ');
    output.add_number(value);
    output.add('\n');
}

// Counters without labels of their own, the members of a range apart.
void add_figures(RE_output& output, const char* prefix, RE_counter_scope scope, std::span<const long long> figures)
{
    for (const RE_named_counter& counter : counters_of(scope)) {
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
    }
}

// A metric for every counter, and in it a series for every thing. figure: the thing's value of a counter's id.
template <typename Thing, typename Figure>
void add_families(RE_output& output, const char* prefix, RE_counter_scope scope,
                  const std::vector<labelled<Thing>>& things, const Figure& figure)
{
    if (things.empty()) {
        return;
    }
    for (const RE_named_counter& counter : counters_of(scope)) {
        const std::string name = prefix + metric_name_of(counter);
        add_head(output, name, counter.info.meaning, counter.is_total());
        for (const labelled<Thing>& one : things) {
            output.add(name);
            output.add(one.labels);
            add_metric_value(output, counter.info.unit, figure(*one.thing, static_cast<std::size_t>(counter.id())));
            output.add('\n');
        }
        if (!output.is_ok()) {
            return;
        }
    }
}

// A metric of one more value that things have.
template <typename Thing, typename Value>
void add_family(RE_output& output, const std::string& name, std::string_view meaning, bool b_total,
                const std::vector<labelled<Thing>>& things, const Value& value)
{
    if (things.empty()) {
        return;
    }
    add_head(output, name, meaning, b_total);
    for (const labelled<Thing>& one : things) {
        output.add(name);
        output.add(one.labels);
        output.add_number(value(*one.thing));
        output.add('\n');
    }
}

std::string label(const char* name, std::string_view value)
{
    return std::string(name) + "=\"" + escaped_label(clean_text(value)) + "\"";
}

void add_peers(RE_output& output, const RE_snapshot& snapshot)
{
    std::vector<labelled<RE_snapshot_peer>> peers;
    std::set<int> numbers;
    for (const RE_snapshot_peer& peer : snapshot.peers) {
        if (numbers.insert(peer.number).second) {
            peers.push_back({&peer, "{peer=\"" + std::to_string(peer.number) + "\"} "});
        }
    }
    add_gauge(output, "kavstat_skipped_peers", "peers left out because another one has the same number",
              static_cast<long long>(snapshot.peers.size() - peers.size()));
    if (!peers.empty()) {
        add_head(output, "kav_peer_info", "who the peer is; always 1", false);
    }
    for (const labelled<RE_snapshot_peer>& one : peers) {
        const RE_stat_peer_header& header = one.thing->header;
        output.add("kav_peer_info{");
        output.add(label("peer", std::to_string(one.thing->number)) + ",");
        output.add(label("kav_peer_id", header.m_kav_peer_id.getString()) + ",");
        output.add(label("mac_id", header.m_peer_mac_id.getString()) + ",");
        output.add(label("ip", ip_text(header.m_peer_ip)) + ",");
        output.add(label("host_name", text_in(header.m_peer_host_name)));
        output.add("} 1\n");
    }
    add_family(output, "kav_peer_outdated", "1 when the peer's record is outdated", false, peers,
               [](const RE_snapshot_peer& peer) { return peer.header.m_b_outdated != 0 ? 1 : 0; });
    add_family(output, "kav_peer_active_connections", "connections open with the peer now", false, peers,
               [](const RE_snapshot_peer& peer) { return peer.active_connections; });
    add_families(output, peer_prefix, RE_counter_scope::peer, peers,
                 [](const RE_snapshot_peer& peer, std::size_t id) { return peer.figures[id]; });
    add_families(output, peer_connections_prefix, RE_counter_scope::connection, peers,
                 [](const RE_snapshot_peer& peer, std::size_t id) { return peer.connections[id]; });
}

void add_applications(RE_output& output, const RE_snapshot& snapshot)
{
    const RE_peer_numbers peers(snapshot);
    std::vector<labelled<RE_snapshot_app>> apps;
    std::set<std::string> seen;
    for (const RE_snapshot_app& app : snapshot.apps) {
        const RE_stat_app_header& header = app.app.m_header;
        const int peer = peers.number_of(header.m_kav_peer_id);
        // The identity as well, as an application may outlive its peer's record, and with it the number.
        std::string labels = "{" + label("application", application_label(header)) + "," +
                             label("peer", peer >= 0 ? std::to_string(peer) : "") + "," +
                             label("kav_peer_id", header.m_kav_peer_id.getString()) + "} ";
        if (seen.insert(labels).second) {
            apps.push_back({&app, std::move(labels)});
        }
    }
    add_gauge(output, "kavstat_skipped_applications", "applications left out because another one has the same labels",
              static_cast<long long>(snapshot.apps.size() - apps.size()));
    add_family(output, "kav_application_opened_total", "connections of the application opened, wraps at 2^23", true,
               apps, [](const RE_snapshot_app& app) { return static_cast<long long>(app.app.m_header.m_open_cnt); });
    add_family(output, "kav_application_closed_total", "connections of the application closed, wraps at 2^24", true,
               apps, [](const RE_snapshot_app& app) { return static_cast<long long>(app.app.m_header.m_close_cnt); });
    add_families(
        output, application_prefix, RE_counter_scope::application, apps,
        [](const RE_snapshot_app& app, std::size_t id) { return static_cast<long long>(app.app.m_id_array[id]); });
}

void add_program(RE_output& output, bool b_up)
{
    add_gauge(output, "kav_up", "1 when the engine's statistics could be read", b_up ? 1 : 0);
    add_head(output, "kavstat_info", "the program that made these metrics; always 1", false);
    output.add("kavstat_info{" + label("version", KAV_VERSION) + "} 1\n");
}

void add_multiple(RE_output& output, long long value, long long factor)
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
void add_fraction(RE_output& output, long long value, int decimals)
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

void add_metric_value(RE_output& output, RE_stat_unit unit, long long value)
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

std::vector<std::string> metrics_of(RE_counter_scope scope, const RE_named_counter& counter)
{
    const std::string name = metric_name_of(counter);
    switch (scope) {
    case RE_counter_scope::engine:
        return {engine_prefix + name};
    case RE_counter_scope::peer:
        return {peer_prefix + name};
    case RE_counter_scope::connection:
        return {connections_prefix + name, peer_connections_prefix + name};
    case RE_counter_scope::application:
        break;
    }
    return {application_prefix + name};
}

void write_metrics(const RE_snapshot& snapshot, const RE_metrics_extra& extra, RE_output& output)
{
    add_program(output, true);
    add_gauge(output, "kav_engine_start_time_seconds", "when the engine was started, seconds since the epoch",
              snapshot.engine_start_time);
    add_gauge(output, "kav_active_connections", "connections open now", snapshot.active_connections);
    if (extra.bypass_servers >= 0) {
        add_gauge(output, "kav_bypass_servers", "servers in the auto-bypass table", extra.bypass_servers);
    }
    add_figures(output, engine_prefix, RE_counter_scope::engine, snapshot.engine);
    add_figures(output, connections_prefix, RE_counter_scope::connection, snapshot.connections);
    add_peers(output, snapshot);
    add_applications(output, snapshot);
}

void write_metrics_without_engine(RE_output& output)
{
    add_program(output, false);
}

void write_metrics_of(RE_image_reader& reader, std::time_t now, RE_output& output)
{
    RE_metrics_extra extra;
    if (const auto bypass = read_bypass(reader)) {
        extra.bypass_servers = static_cast<int>(bypass->size());
    }
    const RE_snapshot snapshot = take_snapshot(reader, now);
    if (reader.is_cut()) {
        write_metrics_without_engine(output);
        return;
    }
    write_metrics(snapshot, extra, output);
}
