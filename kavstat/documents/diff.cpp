#include "documents/diff.h"

#include "format/text.h"
#include "model/change.h"
#include "model/counter_names.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>

namespace kavstat {

namespace {

constexpr std::size_t diff_columns = 7;
using diff_row = std::array<std::string, diff_columns>;

constexpr const char* mark_restarted = "since the restart";
constexpr const char* mark_went_back = "went back: reset";

std::string date_and_time(std::time_t moment)
{
    char text[64];
    std::tm local{};
    if (localtime_r(&moment, &local) == nullptr || std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local) == 0) {
        std::snprintf(text, sizeof text, "%lld", static_cast<long long>(moment));
    }
    return text;
}

std::string with_sign(long long value)
{
    return (value > 0 ? "+" : "") + std::to_string(value);
}

std::string rate_text(double per_second)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.2f", per_second);
    return text;
}

// Gathers the rows of one section and prints them, aligned, when there are any.
class section
{
public:
    section(std::string title, bool b_restarted, double seconds, bool b_all)
        : m_title(std::move(title)), m_b_restarted(b_restarted), m_seconds(seconds), m_b_all(b_all)
    {}

    void add(const std::string& key, RE_stat_unit unit, RE_stat_kind kind, long long before, long long after)
    {
        add(key, unit, kind, before, after, change_of(kind, before, after, m_b_restarted));
    }
    void add_32(const std::string& key, RE_stat_unit unit, RE_stat_kind kind, std::uint32_t before, std::uint32_t after)
    {
        add(key, unit, kind, before, after, change_of_32(kind, before, after, m_b_restarted));
    }

    void print(Output& output) const
    {
        if (m_rows.size() == 1) {
            return;
        }
        std::array<std::size_t, diff_columns> widths{};
        for (const diff_row& one : m_rows) {
            for (std::size_t column = 0; column < diff_columns; ++column) {
                widths[column] = std::max(widths[column], one[column].size());
            }
        }
        output.add('\n');
        output.add(m_title);
        output.add('\n');
        for (const diff_row& one : m_rows) {
            std::string line;
            for (std::size_t column = 0; column < diff_columns; ++column) {
                const std::string blanks(widths[column] - one[column].size(), ' ');
                const bool b_left = column <= 1 || column == diff_columns - 1;
                line += "  " + (b_left ? one[column] + blanks : blanks + one[column]);
            }
            line.resize(line.find_last_not_of(' ') + 1);
            output.add(line);
            output.add('\n');
        }
    }

private:
    void add(const std::string& key, RE_stat_unit unit, RE_stat_kind kind, long long before, long long after,
             const Change& change)
    {
        if (change.kind == ChangeKind::none && !m_b_all) {
            return;
        }
        std::string by = with_sign(change.by);
        std::string rate;
        if (kind == RE_stat_kind::total && m_seconds > 0) {
            rate = rate_text(rate_of(change, m_seconds)) + "/s";
        }
        if (change.kind == ChangeKind::went_back) {
            by = rate = "-";
        }
        const bool b_restarted = change.kind == ChangeKind::restarted;
        const bool b_back = change.kind == ChangeKind::went_back;
        const std::string mark = b_restarted ? mark_restarted : b_back ? mark_went_back : "";
        m_rows.push_back(
            {key, get_stat_unit_word(unit), std::to_string(before), std::to_string(after), by, rate, mark});
    }

    std::string m_title;
    bool m_b_restarted;
    double m_seconds;
    bool m_b_all;
    std::vector<diff_row> m_rows{{"counter", "unit", "before", "after", "change", "rate", ""}};
};

template <typename Figures>
void add_figures(section& rows, CounterScope scope, const Figures& before, const Figures& after)
{
    for (const NamedCounter& counter : counters_of(scope)) {
        for (int id = counter.id(); id <= counter.info.last_id; ++id) {
            const auto at = static_cast<std::size_t>(id);
            const std::string key =
                counter.is_range() ? counter.key + "[" + std::to_string(id - counter.id()) + "]" : counter.key;
            rows.add(key, counter.info.unit, counter.info.kind, before[at], after[at]);
        }
    }
}

std::string peer_title(const SnapshotPeer& peer)
{
    const std::string host = plain_text(text_in(peer.header.m_peer_host_name));
    return "peer " + std::to_string(peer.number) + (host.empty() ? "" : " " + host);
}

// Who a peer is, whatever slot it has.
using peer_key = std::pair<int, std::string>;

peer_key key_of(const SnapshotPeer& peer)
{
    return {peer.number, peer.header.m_kav_peer_id.getString()};
}

using app_key = std::pair<std::string, std::string>;

app_key key_of(const SnapshotApp& app)
{
    return {application_label(app.app.m_header), app.app.m_header.m_kav_peer_id.getString()};
}

// The things of one moment by who they are. The first of several that claim to be the same counts.
template <typename Thing>
auto by_key(const std::vector<Thing>& things)
{
    std::map<decltype(key_of(things.front())), const Thing*> map;
    for (const Thing& thing : things) {
        map.emplace(key_of(thing), &thing);
    }
    return map;
}

class report
{
public:
    report(const DiffSide& before, const DiffSide& after, bool b_all, Output& output)
        : m_before(before), m_after(after), m_b_all(b_all), m_b_restarted(is_restarted(before, after)), m_output(output)
    {
        const std::time_t from = m_b_restarted ? after.snapshot.engine_start_time : before.snapshot.capture_time;
        m_seconds = static_cast<double>(after.snapshot.capture_time) - static_cast<double>(from);
    }

    void write()
    {
        write_head();
        section engine("engine", m_b_restarted, m_seconds, m_b_all);
        engine.add("active_connections", RE_stat_unit::connections, RE_stat_kind::current,
                   m_before.snapshot.active_connections, m_after.snapshot.active_connections);
        add_figures(engine, CounterScope::engine, m_before.snapshot.engine, m_after.snapshot.engine);
        engine.print(m_output);
        section connections("all connections", m_b_restarted, m_seconds, m_b_all);
        add_figures(connections, CounterScope::connection, m_before.snapshot.connections, m_after.snapshot.connections);
        connections.print(m_output);
        write_peers();
        write_applications();
    }

private:
    void write_head()
    {
        write_moment("before: ", m_before);
        write_moment("after:  ", m_after);
        // Through the change of a counter, as times in a file may be any.
        const Change between =
            change_of(RE_stat_kind::current, m_before.snapshot.capture_time, m_after.snapshot.capture_time, false);
        m_output.add("between: " + std::to_string(between.by) + " s\n");
        if (m_b_restarted) {
            m_output.add("The engine was started anew in between. Running totals count from that start; their change "
                         "and rate are those since then.\n");
        }
    }

    void write_moment(const char* title, const DiffSide& side)
    {
        m_output.add(title + date_and_time(side.snapshot.capture_time) + ", engine started " +
                     date_and_time(side.snapshot.engine_start_time) + ", " + plain_text(side.name) + "\n");
    }

    void write_peers()
    {
        const auto before = by_key(m_before.snapshot.peers);
        const auto after = by_key(m_after.snapshot.peers);
        static const SnapshotPeer nobody;
        for (const auto& [key, peer] : after) {
            const auto found = before.find(key);
            const bool b_new = found == before.end();
            const SnapshotPeer& earlier = b_new ? nobody : *found->second;
            section figures(peer_title(*peer) + (b_new ? ", new" : ""), m_b_restarted, m_seconds, m_b_all || b_new);
            figures.add("active_connections", RE_stat_unit::connections, RE_stat_kind::current,
                        earlier.active_connections, peer->active_connections);
            add_figures(figures, CounterScope::peer, earlier.figures, peer->figures);
            figures.print(m_output);
            section connections(peer_title(*peer) + ", connections", m_b_restarted, m_seconds, m_b_all);
            add_figures(connections, CounterScope::connection, earlier.connections, peer->connections);
            connections.print(m_output);
        }
        for (const auto& [key, peer] : before) {
            if (!after.contains(key)) {
                m_output.add("\n" + peer_title(*peer) + ", gone\n");
            }
        }
    }

    static std::string app_title(const SnapshotApp& app)
    {
        return "application " + application_label(app.app.m_header) + " with peer " +
               (app.peer_number >= 0 ? std::to_string(app.peer_number) : app.app.m_header.m_kav_peer_id.getString());
    }

    void write_applications()
    {
        const auto before = by_key(m_before.snapshot.apps);
        const auto after = by_key(m_after.snapshot.apps);
        static const SnapshotApp nothing;
        for (const auto& [key, app] : after) {
            const auto found = before.find(key);
            const bool b_new = found == before.end();
            const RE_stat_app_struct& earlier = b_new ? nothing.app : found->second->app;
            section figures(app_title(*app) + (b_new ? ", new" : ""), m_b_restarted, m_seconds, m_b_all);
            for (const NamedCounter& counter : counters_of(CounterScope::application)) {
                const auto at = static_cast<std::size_t>(counter.id());
                figures.add_32(counter.key, counter.info.unit, counter.info.kind, earlier.m_id_array[at],
                               app->app.m_id_array[at]);
            }
            figures.print(m_output);
        }
        for (const auto& [key, app] : before) {
            if (!after.contains(key)) {
                m_output.add("\n" + app_title(*app) + ", gone\n");
            }
        }
    }

    const DiffSide& m_before;
    const DiffSide& m_after;
    bool m_b_all;
    bool m_b_restarted;
    double m_seconds = 0;
    Output& m_output;
};

} // namespace

DiffSide take_side(RE_image_reader& reader, const std::string& name, std::time_t now)
{
    DiffSide side{name, take_snapshot(reader, now), std::nullopt};
    if (const RE_stat_config_param* const config = reader.get_config_param()) {
        side.engine = config->m_local_kav_peer_id;
    }
    return side;
}

std::optional<std::string> why_not_comparable(const DiffSide& before, const DiffSide& after)
{
    if (before.engine && after.engine && *before.engine != *after.engine) {
        return before.name + " is of engine " + before.engine->getString() + ", " + after.name + " of engine " +
               after.engine->getString();
    }
    if (after.snapshot.capture_time < before.snapshot.capture_time) {
        return after.name + " is older than " + before.name + "; give the older one first";
    }
    return std::nullopt;
}

bool is_restarted(const DiffSide& before, const DiffSide& after)
{
    return before.snapshot.engine_start_time != after.snapshot.engine_start_time;
}

void write_diff(const DiffSide& before, const DiffSide& after, bool b_all, Output& output)
{
    report(before, after, b_all, output).write();
}

} // namespace kavstat
