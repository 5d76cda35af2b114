#include "health/evaluation.h"

#include "format/text.h"
#include "model/change.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace kavstat {

namespace {

bool compares(Comparison comparison, double value, double limit)
{
    switch (comparison) {
    case Comparison::above:
        return value > limit;
    case Comparison::at_least:
        return value >= limit;
    case Comparison::below:
        return value < limit;
    case Comparison::equal:
        return value == limit;
    case Comparison::not_equal:
        break;
    }
    return value != limit;
}

// Finds the earlier record of each thing, null for those that are new. Both lists are in ascending order of slots.
template <typename Thing, typename Same>
std::vector<const Thing*> earlier_of(const std::vector<Thing>* before, const std::vector<Thing>& now, const Same& same)
{
    std::vector<const Thing*> earlier(now.size(), nullptr);
    if (before == nullptr) {
        return earlier;
    }
    auto candidate = before->begin();
    for (std::size_t at = 0; at < now.size(); ++at) {
        while (candidate != before->end() && candidate->slot < now[at].slot) {
            ++candidate;
        }
        if (candidate != before->end() && candidate->slot == now[at].slot && same(*candidate, now[at])) {
            earlier[at] = &*candidate;
        }
    }
    return earlier;
}

// One engine, peer or application at both moments.
struct Subject
{
    const SnapshotPeer* peer = nullptr;
    const SnapshotPeer* peer_before = nullptr;
    const SnapshotApp* app = nullptr;
    const SnapshotApp* app_before = nullptr;
};

// The subjects of a rule that have the largest values. Others are only counted. Rules with a lower limit have the scope
// engine, which is a single subject.
class WorstOf
{
public:
    struct Entry
    {
        double value = 0;
        std::size_t index = 0;
        bool b_held = false; // the condition also held at the moment before
    };

    void add(const Entry& entry)
    {
        ++m_count;
        m_entries.push_back(entry);
        if (m_entries.size() == 2 * most_findings_of_rule) {
            shorten();
        }
    }
    // Returns the worst first; equal ones in the order of their indexes.
    const std::vector<Entry>& sorted()
    {
        shorten();
        std::sort(m_entries.begin(), m_entries.end(), is_worse);
        return m_entries;
    }
    std::size_t others() const { return m_count - m_entries.size(); }

private:
    static bool is_worse(const Entry& one, const Entry& other)
    {
        return one.value != other.value ? one.value > other.value : one.index < other.index;
    }
    void shorten()
    {
        if (m_entries.size() > most_findings_of_rule) {
            const auto end = m_entries.begin() + static_cast<std::ptrdiff_t>(most_findings_of_rule);
            std::nth_element(m_entries.begin(), end, m_entries.end(), is_worse);
            m_entries.erase(end, m_entries.end());
        }
    }

    std::size_t m_count = 0;
    std::vector<Entry> m_entries;
};

class Evaluation
{
public:
    Evaluation(const RuleSet& rules, const HealthMoments& moments)
        : m_rules(rules), m_moments(moments), m_before(moments.before), m_now(*moments.now)
    {
        m_b_restarted = m_before != nullptr && m_before->engine_start_time != m_now.engine_start_time;
        m_seconds = m_b_restarted
                        ? static_cast<double>(m_now.capture_time) - static_cast<double>(m_now.engine_start_time)
                        : moments.seconds;
        if (m_seconds <= 0) {
            m_before = nullptr;
        }
    }

    std::vector<Finding> run()
    {
        m_peers_before =
            earlier_of(m_before != nullptr ? &m_before->peers : nullptr, m_now.peers,
                       [](const SnapshotPeer& one, const SnapshotPeer& other) {
                           return one.number == other.number && one.header.m_kav_peer_id == other.header.m_kav_peer_id;
                       });
        m_apps_before = earlier_of(
            m_before != nullptr ? &m_before->apps : nullptr, m_now.apps,
            [](const SnapshotApp& one, const SnapshotApp& other) { return one.app.m_header == other.app.m_header; });
        for (const RuleSetting& setting : m_rules.settings) {
            if (setting.b_enabled && (m_before != nullptr || !setting.rule->needs_two_moments())) {
                judge(setting);
            }
        }
        return std::move(m_findings);
    }

private:
    enum class Moment
    {
        before,
        now,
    };

    void judge(const RuleSetting& setting)
    {
        switch (setting.rule->scope) {
        case RuleScope::engine:
            judge(setting, 1, [](std::size_t) { return Subject{}; });
            break;
        case RuleScope::peer:
            judge(setting, m_now.peers.size(),
                  [&](std::size_t at) { return Subject{.peer = &m_now.peers[at], .peer_before = m_peers_before[at]}; });
            break;
        case RuleScope::application:
            judge(setting, m_now.apps.size(),
                  [&](std::size_t at) { return Subject{.app = &m_now.apps[at], .app_before = m_apps_before[at]}; });
            break;
        case RuleScope::connection:
            judge_connections(setting);
            break;
        }
    }

    // subject_at: returns the subject with an index below `subjects`.
    template <typename SubjectAt>
    void judge(const RuleSetting& setting, std::size_t subjects, const SubjectAt& subject_at)
    {
        WorstOf worst;
        for (std::size_t at = 0; at < subjects; ++at) {
            judge(setting, subject_at(at), at, worst);
        }
        for (const WorstOf::Entry& entry : worst.sorted()) {
            m_findings.push_back(finding(setting, subject_at(entry.index), entry));
        }
        add_others(worst.others());
    }

    void judge(const RuleSetting& setting, const Subject& subject, std::size_t index, WorstOf& worst) const
    {
        const std::optional<double> value = holds(setting, subject, Moment::now);
        if (!value) {
            return;
        }
        // The time before a restart says nothing about the present engine.
        const bool b_knows_before = m_before != nullptr && !m_b_restarted;
        const bool b_held = b_knows_before && holds(setting, subject, Moment::before);
        if (setting.rule->hold == 0 || !b_knows_before || b_held) {
            worst.add({*value, index, b_held});
        }
    }

    Finding finding(const RuleSetting& setting, const Subject& subject, const WorstOf::Entry& entry) const
    {
        Finding found = finding(setting, entry.value);
        found.since = since(setting.rule->term, entry.b_held);
        if (subject.peer != nullptr) {
            found.peer_slot = subject.peer->slot;
            found.peer_number = subject.peer->number;
            found.host_name = text_in(subject.peer->header.m_peer_host_name);
            found.kav_peer_id = subject.peer->header.m_kav_peer_id.getString();
        }
        if (subject.app != nullptr) {
            found.peer_number = subject.app->peer_number;
            found.kav_peer_id = subject.app->app.m_header.m_kav_peer_id.getString();
            found.application = application_label(subject.app->app.m_header);
        }
        return found;
    }

    // Sets the number in the last finding.
    void add_others(std::size_t others)
    {
        if (others > 0) {
            m_findings.back().others = others;
        }
    }

    void judge_connections(const RuleSetting& setting)
    {
        const PendingConnections* const pending = m_moments.extras.pending;
        if (pending == nullptr) {
            return;
        }
        const auto is_stuck = [&](double silent) {
            return silent > 0 && compares(setting.rule->term.comparison, silent, setting.threshold);
        };
        const std::vector<double> silences = pending->silences();
        auto others = static_cast<std::size_t>(std::count_if(silences.begin(), silences.end(), is_stuck));
        for (const PendingConnection& connection : pending->most_silent()) {
            if (is_stuck(connection.silent)) {
                Finding found = finding(setting, connection.silent);
                found.since = {Since::Kind::at_least, connection.silent, 0};
                found.peer_number = connection.peer_number;
                found.connection = connection;
                m_findings.push_back(std::move(found));
                --others;
            }
        }
        add_others(others);
    }

    static Finding finding(const RuleSetting& setting, double value)
    {
        Finding found;
        found.rule = setting.rule;
        found.severity = setting.severity;
        found.value = value;
        found.threshold = setting.threshold;
        return found;
    }

    Since since(const Term& term, bool b_held) const
    {
        if (term.kind == Term::Kind::age && term.part.figures().front().kind == Figure::Kind::engine_start_time) {
            return {Since::Kind::time, 0, m_now.engine_start_time};
        }
        if (term.needs_two_moments()) {
            return {Since::Kind::interval, m_seconds, 0};
        }
        return b_held ? Since{Since::Kind::at_least, m_seconds, 0} : Since{};
    }

    // Returns the value that is shown if the condition holds. The growth between the two moments counts for both.
    std::optional<double> holds(const RuleSetting& setting, const Subject& subject, Moment moment) const
    {
        const Rule& rule = *setting.rule;
        const std::optional<double> value = value_of(rule.term, subject, moment);
        if (!value || !compares(rule.term.comparison, *value, setting.threshold)) {
            return std::nullopt;
        }
        for (const std::optional<Term>& term : rule.also) {
            if (!term) {
                continue;
            }
            const std::optional<double> other = value_of(*term, subject, moment);
            if (!other || !compares(term->comparison, *other, term->limit)) {
                return std::nullopt;
            }
        }
        return value;
    }

    // Returns an empty value if it is unknown, or too little was counted.
    std::optional<double> value_of(const Term& term, const Subject& subject, Moment moment) const
    {
        switch (term.kind) {
        case Term::Kind::level:
            return level_of(term.part, subject, moment);
        case Term::Kind::ratio: {
            const auto part = level_of(term.part, subject, moment);
            const auto whole = level_of(term.whole, subject, moment);
            return part && whole && *whole > 0 ? std::optional(*part / *whole) : std::nullopt;
        }
        case Term::Kind::rate: {
            const auto grown = growth_of(term.part, subject);
            return grown ? std::optional(*grown / m_seconds) : std::nullopt;
        }
        case Term::Kind::share: {
            const auto part = growth_of(term.part, subject);
            const auto whole = growth_of(term.whole, subject);
            const bool b_enough = part && whole && *part >= term.least_part && *whole >= term.least_whole && *whole > 0;
            return b_enough ? std::optional(*part / *whole) : std::nullopt;
        }
        case Term::Kind::age:
            return age_of(term.part, subject, moment);
        case Term::Kind::savings:
            return savings_of(term, subject);
        case Term::Kind::silence:
        case Term::Kind::engine_is_missing:
            break;
        }
        return std::nullopt;
    }

    // Returns the seconds since the time; empty if it is in the future.
    std::optional<double> age_of(const Sum& moment_figure, const Subject& subject, Moment moment) const
    {
        const auto since = level_of(moment_figure, subject, moment);
        if (!since || *since <= 0) {
            return std::nullopt;
        }
        const double age = static_cast<double>(snapshot_at(moment).capture_time) - *since;
        return age >= 0 ? std::optional(age) : std::nullopt;
    }

    // Returns the savings between the two moments divided by the savings since the start of the counters.
    std::optional<double> savings_of(const Term& term, const Subject& subject) const
    {
        if (m_b_restarted) {
            return std::nullopt;
        }
        const auto out = growth_of(term.part, subject);
        const auto in = growth_of(term.whole, subject);
        const auto out_before = level_of(term.part, subject, Moment::before);
        const auto in_before = level_of(term.whole, subject, Moment::before);
        // The time before must be long enough for a comparison.
        if (!out || !in || !out_before || !in_before || *in <= 0 || *in < term.least_whole || *in_before < 10 * *in) {
            return std::nullopt;
        }
        double saved = saved_of({*in, *out});
        const double saved_before = 1 - *out_before / *in_before;
        if (m_seconds < term.least_seconds && saved < saved_before) {
            // In a few seconds, a large file that does not compress can be most of the traffic of one application.
            const Traffic others = traffic_without_largest_application();
            if (others.in <= 0 || others.in < term.least_whole) {
                return std::nullopt;
            }
            saved = std::max(saved, saved_of(others));
        }
        return saved_before >= term.least_part ? std::optional(saved / saved_before) : std::nullopt;
    }

    // Bytes between the two moments, in both directions.
    struct Traffic
    {
        double in = 0;  // before encoding
        double out = 0; // after it
    };

    static double saved_of(const Traffic& traffic) { return std::max(1 - traffic.out / traffic.in, 0.0); }

    // Returns the traffic of all applications except the largest, each summed over all peers.
    Traffic traffic_without_largest_application() const
    {
        constexpr double kilobyte = 1024;
        std::map<std::pair<int, bool>, Traffic> by_port;
        for (std::size_t at = 0; at < m_now.apps.size(); ++at) {
            if (m_apps_before[at] == nullptr) {
                continue;
            }
            const RE_stat_app_struct& now = m_now.apps[at].app;
            const RE_stat_app_struct& before = m_apps_before[at]->app;
            // Counters of 32 bits, which wrap.
            const auto grown = [&](RE_stat_app_id id) {
                return kilobyte * (now.m_id_array[id] - before.m_id_array[id]);
            };
            Traffic& traffic = by_port[{now.m_header.m_server_port, now.m_header.m_b_src_port != 0}];
            traffic.in += grown(RE_STAT_APP_ID_ENCODE_IN_KBYTES) + grown(RE_STAT_APP_ID_DECODE_OUT_KBYTES);
            traffic.out += grown(RE_STAT_APP_ID_ENCODE_OUT_KBYTES) + grown(RE_STAT_APP_ID_DECODE_IN_KBYTES);
        }
        Traffic all;
        Traffic largest;
        for (const auto& [port, traffic] : by_port) {
            all.in += traffic.in;
            all.out += traffic.out;
            largest = traffic.in > largest.in ? traffic : largest;
        }
        return {all.in - largest.in, all.out - largest.out};
    }

    const Snapshot& snapshot_at(Moment moment) const { return moment == Moment::now ? m_now : *m_before; }

    std::optional<double> level_of(const Sum& sum, const Subject& subject, Moment moment) const
    {
        double total = 0;
        for (const Figure& figure : sum.figures()) {
            const std::optional<long long> value = value_of(figure, subject, moment);
            if (!value) {
                return std::nullopt;
            }
            total += static_cast<double>(*value) * figure.unit;
        }
        return total;
    }

    // Returns an empty value if a counter was reset in between, or if the subject is new.
    std::optional<double> growth_of(const Sum& sum, const Subject& subject) const
    {
        double total = 0;
        for (const Figure& figure : sum.figures()) {
            const auto before = value_of(figure, subject, Moment::before);
            const auto now = value_of(figure, subject, Moment::now);
            if (!before || !now) {
                return std::nullopt;
            }
            const Change change = figure.kind == Figure::Kind::application
                                      ? change_of_32(RE_stat_kind::total, static_cast<std::uint32_t>(*before),
                                                     static_cast<std::uint32_t>(*now), m_b_restarted)
                                      : change_of(RE_stat_kind::total, *before, *now, m_b_restarted);
            if (change.kind == ChangeKind::went_back) {
                return std::nullopt;
            }
            total += static_cast<double>(change.by) * figure.unit;
        }
        return total;
    }

    std::optional<long long> value_of(const Figure& figure, const Subject& subject, Moment moment) const
    {
        const bool b_now = moment == Moment::now;
        if (subject.peer != nullptr) {
            const SnapshotPeer* const peer = b_now ? subject.peer : subject.peer_before;
            return peer != nullptr ? std::optional(value_of(figure, *peer, moment)) : std::nullopt;
        }
        if (subject.app != nullptr) {
            const SnapshotApp* const app = b_now ? subject.app : subject.app_before;
            return app != nullptr ? std::optional(value_of(figure, *app, moment)) : std::nullopt;
        }
        return value_of(figure, moment);
    }

    long long value_of(const Figure& figure, const SnapshotPeer& peer, Moment moment) const
    {
        const auto id = static_cast<std::size_t>(figure.id);
        switch (figure.kind) {
        case Figure::Kind::peer:
            return peer.figures[id];
        case Figure::Kind::connections:
            return peer.connections[id];
        case Figure::Kind::active_connections:
            return peer.active_connections;
        case Figure::Kind::outdated:
            return peer.header.m_b_outdated;
        case Figure::Kind::connected:
            return peer.header.m_b_update_from_active_conn;
        default:
            return value_of(figure, moment);
        }
    }

    long long value_of(const Figure& figure, const SnapshotApp& app, Moment moment) const
    {
        return figure.kind == Figure::Kind::application ? app.app.m_id_array[figure.id] : value_of(figure, moment);
    }

    // Of the engine.
    long long value_of(const Figure& figure, Moment moment) const
    {
        const Snapshot& snapshot = snapshot_at(moment);
        const auto id = static_cast<std::size_t>(figure.id);
        switch (figure.kind) {
        case Figure::Kind::engine:
            return snapshot.engine[id];
        case Figure::Kind::connections:
            return snapshot.connections[id];
        case Figure::Kind::active_connections:
            return snapshot.active_connections;
        case Figure::Kind::engine_start_time:
            return snapshot.engine_start_time;
        // The auto-bypass table is read only once.
        case Figure::Kind::bypass_servers:
            return m_moments.extras.bypass_servers;
        case Figure::Kind::bypass_servers_with_nacks:
            return m_moments.extras.bypass_servers_with_nacks;
        default:
            return 0; // rules of the engine have no figures of peers or applications
        }
    }

    const RuleSet& m_rules;
    const HealthMoments& m_moments;
    const Snapshot* m_before;
    const Snapshot& m_now;
    bool m_b_restarted = false;
    double m_seconds = 0;
    std::vector<const SnapshotPeer*> m_peers_before; // by the index in m_now.peers
    std::vector<const SnapshotApp*> m_apps_before;
    std::vector<Finding> m_findings;
};

std::vector<Finding> findings_without_engine(const RuleSet& rules)
{
    std::vector<Finding> found;
    for (const RuleSetting& setting : rules.settings) {
        if (setting.b_enabled && setting.rule->term.kind == Term::Kind::engine_is_missing) {
            Finding missing;
            missing.rule = setting.rule;
            missing.severity = setting.severity;
            found.push_back(missing);
        }
    }
    return found;
}

constexpr int pending_ids[] = {SO_STAT_AO_W_PEND_SIZE, SO_STAT_WAN_W_PEND_SIZE, SO_STAT_DEC_PEND_SIZE};
constexpr int moved_ids[] = {SO_STAT_AO_RD_BYTES,
                             SO_STAT_AO_WT_BYTES,
                             SO_STAT_WAN_RD_BYTES,
                             SO_STAT_WAN_WT_BYTES,
                             RE_STAT_CONN_ID_ENCODE_IN_BYTES,
                             RE_STAT_CONN_ID_DECODE_OUT_BYTES};

// Returns false when the slot is empty or was reused during the call.
bool read_details(RE_stat_reader& reader, PendingConnection& connection)
{
    return reader.is_conn_valid(connection.slot) && reader.read_conn_header(connection.slot, connection.header) == 0 &&
           reader.read_conn_peer_id(connection.slot, connection.peer_number) == 0;
}

} // namespace

// Returns false when the slot does not contain an open connection that has data pending.
bool PendingConnections::read(RE_stat_reader& reader, int slot, Followed& connection)
{
    std::time_t close_time = 0;
    if (!reader.is_conn_valid(slot) || reader.read_conn_time(slot, connection.open_time, close_time) < 0 ||
        close_time > 0) {
        return false;
    }
    const auto figure = [&](int id, bool& b_known) {
        long long value = 0;
        b_known = b_known && reader.read_conn_stat(slot, id, value) == 0;
        return value;
    };
    bool b_known = true;
    const bool b_pending =
        std::any_of(std::begin(pending_ids), std::end(pending_ids), [&](int id) { return figure(id, b_known) > 0; });
    if (!b_pending) {
        return false;
    }
    connection.slot = slot;
    connection.moved = 0;
    for (const int id : moved_ids) {
        connection.moved += static_cast<unsigned long long>(figure(id, b_known));
    }
    RE_stat_conn_header header{};
    b_known = b_known && reader.read_conn_header(slot, header) == 0;
    connection.conn_id = header.m_conn_id;
    return b_known;
}

void PendingConnections::update(RE_stat_reader& reader, const Snapshot& now, double seconds)
{
    std::vector<Followed> followed;
    const bool b_any = std::any_of(std::begin(pending_ids), std::end(pending_ids),
                                   [&](int id) { return now.connections[static_cast<std::size_t>(id)] != 0; });
    const int slots = b_any ? reader.get_max_conn_slots() : 0;
    auto before = m_followed.begin();
    for (int slot = 0; slot < slots; ++slot) {
        Followed connection;
        if (!read(reader, slot, connection)) {
            continue;
        }
        while (before != m_followed.end() && before->slot < slot) {
            ++before;
        }
        if (before != m_followed.end() && before->slot == slot && before->conn_id == connection.conn_id &&
            before->open_time == connection.open_time && before->moved == connection.moved) {
            connection.silent = before->silent + seconds;
        }
        followed.push_back(connection);
    }
    m_followed = std::move(followed);

    WorstOf longest;
    for (std::size_t at = 0; at < m_followed.size(); ++at) {
        if (m_followed[at].silent > 0) {
            longest.add({m_followed[at].silent, at, false});
        }
    }
    m_most_silent.clear();
    for (const WorstOf::Entry& entry : longest.sorted()) {
        PendingConnection connection;
        connection.slot = m_followed[entry.index].slot;
        connection.open_time = m_followed[entry.index].open_time;
        connection.silent = entry.value;
        if (read_details(reader, connection)) {
            m_most_silent.push_back(connection);
        }
    }
}

std::vector<double> PendingConnections::silences() const
{
    std::vector<double> silences(m_followed.size());
    std::transform(m_followed.begin(), m_followed.end(), silences.begin(),
                   [](const Followed& connection) { return connection.silent; });
    return silences;
}

const PendingConnections& PendingWatch::update(RE_stat_reader& reader, const Snapshot& now, clock::time_point at,
                                               clock::duration apart)
{
    if (m_engine_start_time != now.engine_start_time) {
        m_engine_start_time = now.engine_start_time;
        m_pending = {};
        m_at.reset();
    }
    if (!m_at || at - *m_at >= apart) {
        const std::chrono::duration<double> since = m_at ? at - *m_at : clock::duration{};
        m_pending.update(reader, now, since.count());
        m_at = at;
    }
    return m_pending;
}

HealthExtras read_extras(RE_image_reader& reader, const PendingConnections* pending)
{
    HealthExtras extras;
    extras.pending = pending;
    if (const auto entries = read_bypass(reader)) {
        extras.bypass_servers = static_cast<int>(entries->size());
        extras.bypass_servers_with_nacks =
            static_cast<int>(std::count_if(entries->begin(), entries->end(), [](const RE_bypass_entry& entry) {
                return entry.reason == RE_bypass_reason::repeated_nacks;
            }));
    }
    return extras;
}

std::string text_of(const Since& since)
{
    switch (since.kind) {
    case Since::Kind::moment:
        break;
    case Since::Kind::at_least:
        return "for at least " + shown_value(Form::seconds, since.seconds);
    case Since::Kind::interval:
        return "in the last " + shown_value(Form::seconds, since.seconds);
    case Since::Kind::time:
        return "since " + date_and_time(since.time);
    }
    return "";
}

std::string Finding::subject() const
{
    std::string text;
    switch (rule->scope) {
    case RuleScope::engine:
        return "engine";
    case RuleScope::peer:
        text = "peer " + std::to_string(peer_number);
        return host_name.empty() ? text : text + " " + plain_text(host_name);
    case RuleScope::application:
        return "application " + application + " of peer " +
               (peer_number >= 0 ? std::to_string(peer_number) : kav_peer_id);
    case RuleScope::connection:
        break;
    }
    const RE_stat_conn_header& ends = connection.header;
    return "connection " + std::to_string(ends.m_conn_id) + " " + ip_text(ends.m_client_ip) + ":" +
           std::to_string(ends.m_client_port) + " - " + ip_text(ends.m_server_ip) + ":" +
           std::to_string(ends.m_server_port) + " of peer " + std::to_string(peer_number);
}

std::string Finding::figure_text() const
{
    const std::string shown = shown_value(rule->form, value);
    return rule->figure + (shown.empty() ? "" : " " + shown) + limit_text(*rule, threshold);
}

std::vector<Finding> findings(const RuleSet& rules, const HealthMoments& moments)
{
    std::vector<Finding> found =
        moments.now == nullptr ? findings_without_engine(rules) : Evaluation(rules, moments).run();
    std::stable_sort(found.begin(), found.end(),
                     [](const Finding& one, const Finding& other) { return one.severity > other.severity; });
    return found;
}

// Rates are computed over one to two times this time, and connections are read this often.
constexpr std::chrono::seconds moments_apart(5);

const std::vector<Finding>& HealthWatch::update(RE_image_reader& reader, const Snapshot& now, clock::time_point at,
                                                std::shared_ptr<const Snapshot> kept)
{
    using seconds = std::chrono::duration<double>;
    if (!m_moments.empty() && m_moments.back().snapshot->engine_start_time != now.engine_start_time) {
        m_moments.clear();
    }
    forget_old(at);
    HealthMoments moments;
    m_seconds.reset();
    if (!m_moments.empty() && at > m_moments.front().at) {
        moments.before = m_moments.front().snapshot.get();
        moments.seconds = seconds(at - m_moments.front().at).count();
        m_seconds = moments.seconds;
    }
    moments.now = &now;
    moments.extras = read_extras(reader, &m_pending.update(reader, now, at, moments_apart));
    m_findings = kavstat::findings(m_rules, moments);
    remember_since(at);

    if (m_moments.empty() || at - m_moments.back().at >= moments_apart) {
        m_moments.push_back({kept != nullptr ? std::move(kept) : std::make_shared<Snapshot>(now), at});
    }
    return m_findings;
}

void HealthWatch::forget_old(clock::time_point at)
{
    while (m_moments.size() > 1 && at - m_moments[1].at >= moments_apart) {
        m_moments.pop_front();
    }
}

const std::vector<Finding>& HealthWatch::lose(clock::time_point at)
{
    m_moments.clear();
    m_pending = {};
    m_seconds.reset();
    m_findings = kavstat::findings(m_rules, {});
    remember_since(at);
    return m_findings;
}

void HealthWatch::remember_since(clock::time_point at)
{
    std::map<std::string, clock::time_point> since;
    for (Finding& found : m_findings) {
        const std::string key = std::string(found.rule->name) + " " + found.subject();
        const auto earlier = m_since.find(key);
        const clock::time_point first = earlier != m_since.end() ? earlier->second : at;
        since.emplace(key, first);
        const double seconds = std::chrono::duration<double>(at - first).count();
        if (found.since.kind != Since::Kind::time && seconds > found.since.seconds) {
            found.since = {Since::Kind::at_least, seconds, 0};
        }
    }
    m_since = std::move(since);
}

} // namespace kavstat
