#include "documents/diff.h"

#include "format/text.h"
#include "model/change.h"
#include "model/counter_names.h"
#include "model/record_fields.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <map>

namespace kavstat {

namespace {

constexpr std::size_t diff_columns = 7;
using DiffLine = std::array<std::string, diff_columns>;

constexpr const char* mark_restarted = "since the restart";
constexpr const char* mark_went_back = "went back: reset";
constexpr const char* state_gone = "gone";

std::string with_sign(long long value)
{
    return (value > 0 ? "+" : "") + std::to_string(value);
}

std::string per_second_text(double per_second)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.2f", per_second);
    return text;
}

// A counter that is shown.
struct DiffRow
{
    std::string key;
    RE_stat_unit unit;
    RE_stat_kind kind;
    long long before;
    long long after;
    Change change;
};

// What one engine, peer or application counts. about: in JSON, what is counted.
struct DiffSection
{
    std::string title;
    nlohmann::ordered_json about;
    std::vector<DiffRow> rows;
};

// Two moments, and what is to be shown of them.
struct DiffContext
{
    const DiffSide& before;
    const DiffSide& after;
    const DiffChoice& choice;
    bool b_restarted;
    double seconds; // that rates are over

    DiffContext(const DiffSide& earlier, const DiffSide& later, const DiffChoice& what)
        : before(earlier), after(later), choice(what), b_restarted(is_restarted(earlier, later))
    {
        const std::time_t from = b_restarted ? after.snapshot.engine_start_time : before.snapshot.capture_time;
        seconds = static_cast<double>(after.snapshot.capture_time) - static_cast<double>(from);
    }

    // Between the two moments. Through the change of a counter, as times in a file may be any.
    long long seconds_between() const
    {
        return change_of(RE_stat_kind::current, before.snapshot.capture_time, after.snapshot.capture_time, false).by;
    }
    // Empty when the rate is unknown or the counter is not a running total.
    std::optional<double> rate(const DiffRow& row) const
    {
        const bool b_known = row.kind == RE_stat_kind::total && seconds > 0 && row.change.kind != ChangeKind::went_back;
        return b_known ? std::optional(rate_of(row.change, seconds)) : std::nullopt;
    }
};

// Gathers the rows of one section.
class SectionRows
{
public:
    SectionRows(const DiffContext& context, bool b_all) : m_context(context), m_b_all(b_all) {}

    // The fields that are quantities.
    template <typename Record>
    void add(Fields<Record> fields, const Record& before, const Record& after)
    {
        for (const Field<Record>& field : fields) {
            const FieldValue value = field.value(before);
            if (const auto* const quantity = std::get_if<long long>(&value); quantity != nullptr && field.unit) {
                const auto now = std::get<long long>(field.value(after));
                add(field.key, field.meaning, *field.unit, RE_stat_kind::current, *quantity, now,
                    change(RE_stat_kind::current, *quantity, now));
            }
        }
    }
    template <typename Figures>
    void add(CounterScope scope, const Figures& before, const Figures& after)
    {
        for (const NamedCounter& counter : counters_of(scope)) {
            for (int id = counter.id(); id <= counter.info.last_id; ++id) {
                const auto at = static_cast<std::size_t>(id);
                const std::string key =
                    counter.is_range() ? counter.key + "[" + std::to_string(id - counter.id()) + "]" : counter.key;
                add(key, counter.info.meaning, counter.info.unit, counter.info.kind, before[at], after[at],
                    change(counter.info.kind, before[at], after[at]));
            }
        }
    }
    std::vector<DiffRow> take() { return std::move(m_rows); }

private:
    Change change(RE_stat_kind kind, long long before, long long after) const
    {
        return change_of(kind, before, after, m_context.b_restarted);
    }
    Change change(RE_stat_kind kind, std::uint32_t before, std::uint32_t after) const
    {
        return change_of_32(kind, before, after, m_context.b_restarted);
    }
    void add(const std::string& key, const char* meaning, RE_stat_unit unit, RE_stat_kind kind, long long before,
             long long after, const Change& change)
    {
        const std::string part = lower_case(m_context.choice.search);
        const bool b_wanted =
            lower_case(key).find(part) != std::string::npos || lower_case(meaning).find(part) != std::string::npos;
        if (b_wanted && (m_b_all || change.kind != ChangeKind::none)) {
            m_rows.push_back({key, unit, kind, before, after, change});
        }
    }

    const DiffContext& m_context;
    bool m_b_all;
    std::vector<DiffRow> m_rows;
};

std::string peer_title(const SnapshotPeer& peer)
{
    const std::string host = plain_text(text_in(peer.header.m_peer_host_name));
    return "peer " + std::to_string(peer.number) + (host.empty() ? "" : " " + host);
}

// The identity of a peer, independent of its slot.
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

std::string app_title(const SnapshotApp& app)
{
    return "application " + application_label(app.app.m_header) + " with peer " +
           (app.peer_number >= 0 ? std::to_string(app.peer_number) : app.app.m_header.m_kav_peer_id.getString());
}

nlohmann::ordered_json about(const char* scope, const SnapshotPeer& peer)
{
    return {{"scope", scope},
            {"peer", peer.number},
            {"host_name", clean_text(text_in(peer.header.m_peer_host_name))},
            {"kav_peer_id", peer.header.m_kav_peer_id.getString()}};
}

nlohmann::ordered_json about(const SnapshotApp& app)
{
    return {{"scope", "application"},
            {"application", application_label(app.app.m_header)},
            {"peer", app.peer_number},
            {"kav_peer_id", app.app.m_header.m_kav_peer_id.getString()}};
}

// Goes through both moments and calls `take` with each section, also with those that have no rows.
class Walk
{
public:
    Walk(const DiffContext& context, const std::function<void(const DiffSection&)>& take)
        : m_context(context), m_take(take)
    {}

    void go()
    {
        const DiffChoice& choice = m_context.choice;
        const Snapshot& before = m_context.before.snapshot;
        const Snapshot& after = m_context.after.snapshot;
        if (choice.b_engine) {
            SectionRows rows(m_context, choice.b_all);
            rows.add(engine_fields, before, after);
            rows.add(CounterScope::engine, before.engine, after.engine);
            m_take({"engine", {{"scope", "engine"}}, rows.take()});
        }
        if (choice.b_connections) {
            SectionRows rows(m_context, choice.b_all);
            rows.add(CounterScope::connection, before.connections, after.connections);
            m_take({"all connections", {{"scope", "connections"}}, rows.take()});
        }
        if (choice.b_peers) {
            go_through(
                before.peers, after.peers,
                [&](const SnapshotPeer* earlier, const SnapshotPeer& peer) { take_peer(earlier, peer); },
                [&](const SnapshotPeer& peer) { take_gone(peer_title(peer), about("peer", peer)); });
        }
        if (choice.b_applications) {
            go_through(
                before.apps, after.apps,
                [&](const SnapshotApp* earlier, const SnapshotApp& app) { take_application(earlier, app); },
                [&](const SnapshotApp& app) { take_gone(app_title(app), about(app)); });
        }
    }

private:
    // there: called with what a thing was before, or null, and what it is. gone: with what was.
    template <typename Thing, typename There, typename Gone>
    void go_through(const std::vector<Thing>& earlier, const std::vector<Thing>& later, const There& there,
                    const Gone& gone)
    {
        const auto before = by_key(earlier);
        const auto after = by_key(later);
        for (const auto& [key, thing] : after) {
            const auto found = before.find(key);
            there(found != before.end() ? found->second : nullptr, *thing);
        }
        for (const auto& [key, thing] : before) {
            if (!after.contains(key)) {
                gone(*thing);
            }
        }
    }

    void take_peer(const SnapshotPeer* before, const SnapshotPeer& peer)
    {
        static const SnapshotPeer nobody;
        const SnapshotPeer& earlier = before != nullptr ? *before : nobody;
        SectionRows figures(m_context, m_context.choice.b_all || before == nullptr);
        figures.add(peer_fields, earlier, peer);
        figures.add(CounterScope::peer, earlier.figures, peer.figures);
        take(peer_title(peer), before == nullptr, about("peer", peer), figures);
        SectionRows connections(m_context, m_context.choice.b_all);
        connections.add(CounterScope::connection, earlier.connections, peer.connections);
        take(peer_title(peer) + ", connections", false, about("peer_connections", peer), connections);
    }

    void take_application(const SnapshotApp* before, const SnapshotApp& app)
    {
        static const SnapshotApp nothing;
        SectionRows rows(m_context, m_context.choice.b_all);
        rows.add(CounterScope::application, (before != nullptr ? *before : nothing).app.m_id_array, app.app.m_id_array);
        take(app_title(app), before == nullptr, about(app), rows);
    }

    void take(const std::string& title, bool b_new, nlohmann::ordered_json about, SectionRows& rows)
    {
        if (b_new) {
            about["state"] = "new";
        }
        m_take({title + (b_new ? ", new" : ""), std::move(about), rows.take()});
    }

    // A search is for counters, and a gone one has none.
    void take_gone(const std::string& title, nlohmann::ordered_json about)
    {
        if (m_context.choice.search.empty()) {
            about["state"] = state_gone;
            m_take({title + ", gone", std::move(about), {}});
        }
    }

    const DiffContext& m_context;
    const std::function<void(const DiffSection&)>& m_take;
};

// As a table whose columns are as wide as their texts.
void print(const DiffSection& section, const DiffContext& context, Output& output)
{
    std::vector<DiffLine> lines{{"counter", "unit", "before", "after", "change", "rate", ""}};
    for (const DiffRow& row : section.rows) {
        const bool b_back = row.change.kind == ChangeKind::went_back;
        const std::optional<double> rate = context.rate(row);
        const bool b_rate = row.kind == RE_stat_kind::total && context.seconds > 0;
        const bool b_restarted = row.change.kind == ChangeKind::restarted;
        lines.push_back({row.key, get_stat_unit_word(row.unit), std::to_string(row.before), std::to_string(row.after),
                         b_back ? "-" : with_sign(row.change.by),
                         rate     ? per_second_text(*rate) + "/s"
                         : b_rate ? "-"
                                  : "",
                         b_restarted ? mark_restarted
                         : b_back    ? mark_went_back
                                     : ""});
    }
    std::array<std::size_t, diff_columns> widths{};
    for (const DiffLine& line : lines) {
        for (std::size_t column = 0; column < diff_columns; ++column) {
            widths[column] = std::max(widths[column], line[column].size());
        }
    }
    for (const DiffLine& one : lines) {
        std::string line;
        for (std::size_t column = 0; column < diff_columns; ++column) {
            const std::string blanks(widths[column] - one[column].size(), ' ');
            const bool b_left = column <= 1 || column == diff_columns - 1;
            line += "  " + (b_left ? one[column] + blanks : blanks + one[column]);
        }
        line.resize(line.find_last_not_of(' ') + 1);
        output.add(line + "\n");
    }
}

std::string json_of(const DiffSection& section, const DiffContext& context)
{
    nlohmann::ordered_json object = section.about;
    nlohmann::ordered_json& counters = object["counters"] = nlohmann::ordered_json::object();
    for (const DiffRow& row : section.rows) {
        nlohmann::ordered_json& counter = counters[row.key];
        counter = {{"unit", get_stat_unit_word(row.unit)}, {"before", row.before}, {"after", row.after}};
        const bool b_back = row.change.kind == ChangeKind::went_back;
        counter["change"] = b_back ? nlohmann::json() : nlohmann::json(row.change.by);
        if (const std::optional<double> rate = context.rate(row)) {
            counter["per_second"] = *rate;
        }
        if (b_back) {
            counter["note"] = "went_back";
        } else if (row.change.kind == ChangeKind::restarted) {
            counter["note"] = "since_restart";
        }
    }
    return object.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

void write_moment(const char* title, const DiffSide& side, Output& output)
{
    output.add(title + date_and_time(side.snapshot.capture_time) + ", engine started " +
               date_and_time(side.snapshot.engine_start_time) + ", " + plain_text(side.name) + "\n");
}

nlohmann::ordered_json moment_of(const DiffSide& side)
{
    return {{"name", side.name},
            {"capture_time", side.snapshot.capture_time},
            {"engine_start_time", side.snapshot.engine_start_time}};
}

struct DiffScope
{
    std::string_view word;
    bool DiffChoice::*member;
};
constexpr DiffScope diff_scopes[] = {{"engine", &DiffChoice::b_engine},
                                     {"connections", &DiffChoice::b_connections},
                                     {"peers", &DiffChoice::b_peers},
                                     {"applications", &DiffChoice::b_applications}};

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

std::string all_diff_scopes()
{
    std::string words;
    for (const DiffScope& scope : diff_scopes) {
        words += (words.empty() ? "" : ",") + std::string(scope.word);
    }
    return words;
}

bool parse_diff_scopes(std::string_view words, DiffChoice& choice, std::string& unknown)
{
    for (const DiffScope& scope : diff_scopes) {
        choice.*scope.member = false;
    }
    while (true) {
        const std::string_view word = words.substr(0, words.find(','));
        const auto* const scope = std::find_if(std::begin(diff_scopes), std::end(diff_scopes),
                                               [&](const DiffScope& known) { return known.word == word; });
        if (scope == std::end(diff_scopes)) {
            unknown = word;
            return false;
        }
        choice.*scope->member = true;
        if (word.size() == words.size()) {
            return true;
        }
        words.remove_prefix(word.size() + 1);
    }
}

void write_diff(const DiffSide& before, const DiffSide& after, const DiffChoice& choice, Output& output)
{
    const DiffContext context(before, after, choice);
    write_moment("before: ", before, output);
    write_moment("after:  ", after, output);
    output.add("between: " + std::to_string(context.seconds_between()) + " s\n");
    if (context.b_restarted) {
        output.add("The engine was started anew in between. Running totals count from that start; their change "
                   "and rate are those since then.\n");
    }
    const auto take = [&](const DiffSection& section) {
        const bool b_gone = section.about.value("state", "") == state_gone;
        if (b_gone || !section.rows.empty()) {
            output.add("\n" + section.title + "\n");
        }
        if (!section.rows.empty()) {
            print(section, context, output);
        }
    };
    Walk(context, take).go();
}

void write_diff_json(const DiffSide& before, const DiffSide& after, const DiffChoice& choice, Output& output)
{
    const DiffContext context(before, after, choice);
    const nlohmann::ordered_json head{{"kavstat_diff", diff_json_version},
                                      {"before", moment_of(before)},
                                      {"after", moment_of(after)},
                                      {"seconds", context.seconds_between()},
                                      {"restarted", context.b_restarted}};
    std::string text = head.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
    text.pop_back();
    output.add(text + ",\n\"sections\":[");
    bool b_first = true;
    const auto take = [&](const DiffSection& section) {
        if (!section.rows.empty() || section.about.contains("state")) {
            output.add(b_first ? "\n" : ",\n");
            output.add(json_of(section, context));
            b_first = false;
        }
    };
    Walk(context, take).go();
    output.add("]}\n");
}

} // namespace kavstat
