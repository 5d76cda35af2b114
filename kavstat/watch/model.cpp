#include "watch/model.h"

#include "format/text.h"
#include "format/units.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <utility>

namespace kavstat {

namespace {

double total_rate(long long before, long long after, double seconds)
{
    return rate_of(change_of(RE_stat_kind::total, before, after, false), seconds);
}

// Both are the growth of totals in the same time.
double milliseconds_a_message(double microseconds, double messages)
{
    return messages > 0 ? microseconds / messages / 1000 : std::numeric_limits<double>::quiet_NaN();
}

TrafficRates rates_between(const ConnectionFigures& before, const ConnectionFigures& after, double seconds)
{
    const auto rate = [&](RE_stat_conn_id id) {
        return total_rate(before[static_cast<std::size_t>(id)], after[static_cast<std::size_t>(id)], seconds);
    };
    const double encoded = rate(RE_STAT_CONN_ID_ENCODE_NUM_MSGS);
    const double decoded = rate(RE_STAT_CONN_ID_DECODE_NUM_MSGS);
    TrafficRates rates;
    rates.encode_in = rate(RE_STAT_CONN_ID_ENCODE_IN_BYTES);
    rates.encode_out = rate(RE_STAT_CONN_ID_ENCODE_OUT_BYTES);
    rates.decode_in = rate(RE_STAT_CONN_ID_DECODE_IN_BYTES);
    rates.decode_out = rate(RE_STAT_CONN_ID_DECODE_OUT_BYTES);
    rates.messages = encoded + decoded;
    rates.nacks = rate(RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS);
    rates.retransmissions = rate(RE_STAT_CONN_ID_NUM_TOTAL_RTX_MSGS);
    rates.encode_latency = milliseconds_a_message(rate(RE_STAT_CONN_ID_TOT_ENCODE_SPEED), encoded);
    rates.decode_latency = milliseconds_a_message(rate(RE_STAT_CONN_ID_TOT_DECODE_SPEED), decoded);
    return rates;
}

TrafficRates rates_between(const RE_stat_app_struct& before, const RE_stat_app_struct& after, double seconds)
{
    constexpr double bytes_per_kilobyte = 1024;
    const auto rate = [&](RE_stat_app_id id) {
        return rate_of(change_of_32(RE_stat_kind::total, before.m_id_array[id], after.m_id_array[id], false), seconds);
    };
    TrafficRates rates;
    rates.encode_in = rate(RE_STAT_APP_ID_ENCODE_IN_KBYTES) * bytes_per_kilobyte;
    rates.encode_out = rate(RE_STAT_APP_ID_ENCODE_OUT_KBYTES) * bytes_per_kilobyte;
    rates.decode_in = rate(RE_STAT_APP_ID_DECODE_IN_KBYTES) * bytes_per_kilobyte;
    rates.decode_out = rate(RE_STAT_APP_ID_DECODE_OUT_KBYTES) * bytes_per_kilobyte;
    rates.messages = rate(RE_STAT_APP_ID_ENCODE_NUM_MSGS) + rate(RE_STAT_APP_ID_DECODE_NUM_MSGS);
    return rates;
}

// Whether the finding is about this peer or connection.
bool is_about(const Finding& finding, const WatchSubject& subject)
{
    if (finding.rule->scope == RuleScope::peer) {
        return subject.kind == SubjectKind::peer && finding.peer_slot == subject.slot &&
               finding.peer_number == subject.number;
    }
    const PendingConnection& conn = finding.connection;
    return finding.rule->scope == RuleScope::connection && subject.kind == SubjectKind::connection &&
           conn.slot == subject.slot && conn.header.m_conn_id == subject.number && conn.open_time == subject.identity;
}

bool is_same_peer(const SnapshotPeer& left, const SnapshotPeer& right)
{
    return left.number == right.number &&
           std::to_array(left.header.m_kav_peer_id.m_data) == std::to_array(right.header.m_kav_peer_id.m_data);
}

} // namespace

WatchSubject subject_of(const SnapshotPeer& peer)
{
    const std::string_view id(reinterpret_cast<const char*>(peer.header.m_kav_peer_id.m_data),
                              sizeof peer.header.m_kav_peer_id.m_data);
    return {SubjectKind::peer, peer.slot, peer.number, static_cast<std::int64_t>(std::hash<std::string_view>()(id))};
}

WatchSubject subject_of(const SnapshotApp& app)
{
    const RE_stat_app_header& header = app.app.m_header;
    return {SubjectKind::application, app.slot, static_cast<std::int64_t>(header.m_server_port), header.hash_u32()};
}

WatchSubject subject_of(const SnapshotConn& conn)
{
    return {SubjectKind::connection, conn.slot, conn.header.m_conn_id, conn.open_time};
}

std::string saved_text(double encode_in, double encode_out, double decode_in, double decode_out)
{
    const bool b_encoded = encode_in > 0 || encode_out > 0;
    const bool b_decoded = decode_in > 0 || decode_out > 0;
    const std::string encoded = percent_text(saved_percent(encode_in, encode_out));
    const std::string decoded = percent_text(saved_percent(decode_out, decode_in));
    if (b_encoded && b_decoded) {
        return encoded == decoded ? encoded : "e" + encoded + " d" + decoded;
    }
    return b_encoded ? "e" + encoded : b_decoded ? "d" + decoded : no_figure;
}

double cache_percent(const Snapshot& now)
{
    const auto figure = [&](RE_stat_global_id id) {
        return static_cast<double>(now.engine[static_cast<std::size_t>(id)]);
    };
    const double size = figure(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE);
    const double used =
        figure(RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_DISK_USAGE) + figure(RE_STAT_GLOBAL_ID_TOT_DATAUINT_DISK_USAGE);
    return size > 0 ? used * 100 / size : 0;
}

void TrafficHistory::add(const TrafficRates& rates)
{
    encode_in.add(rates.encode_in);
    encode_out.add(rates.encode_out);
    decode_in.add(rates.decode_in);
    decode_out.add(rates.decode_out);
    nacks.add(rates.nacks + rates.retransmissions);
}

void TrafficHistory::mark_restart()
{
    for (History* const history : {&encode_in, &encode_out, &decode_in, &decode_out, &nacks}) {
        history->mark_restart();
    }
}

std::vector<float> TrafficHistory::before() const
{
    return combined(encode_in.last(), decode_out.last(), [](float a, float b) { return a + b; });
}

std::vector<float> TrafficHistory::after() const
{
    return combined(encode_out.last(), decode_in.last(), [](float a, float b) { return a + b; });
}

double WatchModel::rate(long long before, long long now) const
{
    return total_rate(before, now, m_seconds);
}

double WatchModel::rate_32(std::uint32_t before, std::uint32_t now) const
{
    return rate_of(change_of_32(RE_stat_kind::total, before, now, false), m_seconds);
}

void WatchModel::lose(int error, clock::time_point at)
{
    m_health.lose(at);
    m_next_judgement.reset();
    m_worst_of_peers.clear();
    m_worst_of_conns.clear();
    m_error = error;
    m_seconds = 0;
    m_b_conns = false;
}

void WatchModel::update(RE_image_reader& reader, const WatchNeeds& needs, bool b_same_engine, std::time_t now,
                        clock::time_point at)
{
    std::swap(m_before, m_now);
    m_now = take_snapshot(reader, now);
    const bool b_restarted = m_b_filled && (!b_same_engine || m_before.engine_start_time != m_now.engine_start_time);
    // Figures of another engine, or from before a restart, cannot give rates.
    const bool b_rates = m_b_filled && m_error == 0 && !b_restarted;
    m_seconds = b_rates ? std::chrono::duration<double>(at - m_at).count() : 0;
    m_at = at;
    m_error = 0;
    m_b_filled = true;
    if (b_restarted) {
        for (History* const history : {&m_encode_latency_history, &m_decode_latency_history, &m_disk_latency_history,
                                       &m_cache_history, &m_connection_history}) {
            history->mark_restart();
        }
        m_history.mark_restart();
        m_conns.clear();
        m_nacks.clear();
        m_nack_cursor = -1;
        m_b_nacks = false;
    }
    follow_engine();
    follow_peers(b_restarted);
    follow_apps();
    if (!m_next_judgement || at >= *m_next_judgement) {
        judge(reader, at);
    }
    m_b_conns = m_b_conns && needs.b_connections;
    m_b_nacks = m_b_nacks && needs.b_nacks;
    for (FollowedThing& thing : m_followed) {
        if (b_restarted) {
            thing.history.mark_restart();
        }
        update_followed(reader, thing);
    }
    read(reader, needs, at);
}

void WatchModel::read(RE_image_reader& reader, const WatchNeeds& needs, clock::time_point at)
{
    if (needs.b_connections) {
        read_connections(reader, at);
    }
    if (needs.b_nacks) {
        read_nacks(reader);
    }
    if (needs.b_bypass) {
        m_bypass = read_bypass(reader);
    }
    if (needs.b_config) {
        const RE_stat_config_param* const config = reader.get_config_param();
        m_config = config != nullptr ? std::optional(*config) : std::nullopt;
    }
    if (needs.subject.has_page()) {
        follow(reader, needs.subject);
    }
}

void WatchModel::judge(RE_image_reader& reader, clock::time_point at)
{
    const clock::time_point start = clock::now();
    m_health.update(reader, m_now, at);
    m_worst_of_peers.clear();
    m_worst_of_conns.clear();
    // The most severe findings come first.
    for (const Finding& finding : m_health.findings()) {
        if (finding.rule->scope == RuleScope::peer) {
            m_worst_of_peers.emplace(finding.peer_slot, &finding);
        } else if (finding.rule->scope == RuleScope::connection) {
            m_worst_of_conns.emplace(finding.connection.slot, &finding);
        }
    }
    // Readings happen a little before or after their time.
    constexpr std::chrono::milliseconds early(500);
    m_next_judgement = at + std::max<clock::duration>(health_interval, 100 * (clock::now() - start)) - early;
}

std::optional<Severity> WatchModel::worst_about(const WatchSubject& subject) const
{
    if (subject.kind == SubjectKind::application) {
        const std::vector<const Finding*> about = findings_about(subject);
        return about.empty() ? std::nullopt : std::optional(about.front()->severity);
    }
    const auto& worst = subject.kind == SubjectKind::peer ? m_worst_of_peers : m_worst_of_conns;
    const auto found = worst.find(subject.slot);
    return found != worst.end() && is_about(*found->second, subject) ? std::optional(found->second->severity)
                                                                     : std::nullopt;
}

void WatchModel::follow_engine()
{
    m_rates = rates_between(m_before.connections, m_now.connections, m_seconds);
    if (has_rates()) {
        m_history.add(m_rates);
        m_encode_latency_history.add(m_rates.encode_latency);
        m_decode_latency_history.add(m_rates.decode_latency);
        m_disk_latency_history.add(static_cast<double>(m_now.engine[RE_STAT_GLOBAL_ID_AVG_DISK_READ_LATENCY]));
        m_cache_history.add(cache_percent(m_now));
        m_connection_history.add(m_now.active_connections);
    }
}

void WatchModel::follow_peers(bool b_restarted)
{
    std::vector<WatchPeer> earlier = std::move(m_peers);
    m_peers.clear();
    m_peers.reserve(m_now.peers.size());
    // Peers keep their slots while the engine runs, so both lists are compared in parallel. After a restart, peers are
    // found by their identity.
    std::map<std::pair<int, std::string>, WatchPeer*> by_name;
    const auto name_of = [](const SnapshotPeer& peer) {
        return std::pair(peer.number, peer.header.m_kav_peer_id.getString());
    };
    if (b_restarted) {
        for (std::size_t at = 0; at < earlier.size(); ++at) {
            by_name.emplace(name_of(m_before.peers[at]), &earlier[at]);
        }
    }
    std::size_t at = 0;
    for (const SnapshotPeer& peer : m_now.peers) {
        WatchPeer next;
        next.now = &peer;
        if (b_restarted) {
            if (const auto found = by_name.find(name_of(peer)); found != by_name.end()) {
                next.history = std::move(found->second->history);
                next.history.mark_restart();
                by_name.erase(found);
            }
        } else {
            while (at < earlier.size() && m_before.peers[at].slot < peer.slot) {
                ++at;
            }
            if (at < earlier.size() && m_before.peers[at].slot == peer.slot && is_same_peer(m_before.peers[at], peer)) {
                next.history = std::move(earlier[at].history);
                if (has_rates()) {
                    next.before = &m_before.peers[at];
                    next.rates = rates_between(next.before->connections, peer.connections, m_seconds);
                    next.history.add(next.rates);
                }
            }
        }
        m_peers.push_back(std::move(next));
    }
}

void WatchModel::follow_apps()
{
    m_apps.clear();
    m_apps.reserve(m_now.apps.size());
    std::size_t at = 0;
    for (const SnapshotApp& app : m_now.apps) {
        WatchApp next;
        next.now = &app;
        while (has_rates() && at < m_before.apps.size() && m_before.apps[at].slot < app.slot) {
            ++at;
        }
        if (has_rates() && at < m_before.apps.size() && m_before.apps[at].slot == app.slot &&
            m_before.apps[at].app.m_header == app.app.m_header) {
            next.before = &m_before.apps[at];
            next.rates = rates_between(next.before->app, app.app, m_seconds);
        }
        m_apps.push_back(next);
    }
}

std::size_t WatchModel::looks_for_all_connections() const
{
    return (m_conns.size() + connections_per_look - 1) / connections_per_look;
}

void WatchModel::read_connections(RE_stat_reader& reader, clock::time_point at)
{
    const int slots = reader.get_max_conn_slots();
    m_conns.resize(static_cast<std::size_t>(std::max(slots, 0)));
    m_conn_read_at.resize(looks_for_all_connections(), at);
    // Reads all of them if they were not read for a while, so that no old data is shown.
    const int to_read = m_b_conns ? std::min(slots, connections_per_look) : slots;
    m_next_conn = m_b_conns && m_next_conn < slots ? m_next_conn : 0;
    const int last = m_next_conn + to_read;
    while (m_next_conn < std::min(last, slots)) {
        const auto part = static_cast<std::size_t>(m_next_conn / connections_per_look);
        const int end = std::min(m_next_conn + connections_per_look, slots);
        read_connection_slots(reader, m_next_conn, end,
                              std::chrono::duration<double>(at - m_conn_read_at[part]).count());
        m_conn_read_at[part] = at;
        m_next_conn = end;
    }
    m_b_conns = true;
}

void WatchModel::read_connection_slots(RE_stat_reader& reader, int first, int end, double seconds)
{
    for (int slot = first; slot < end; ++slot) {
        WatchConn& earlier = m_conns[static_cast<std::size_t>(slot)];
        WatchConn conn;
        std::time_t close_time = 0;
        conn.b_there = reader.is_conn_valid(slot) && reader.read_conn_header(slot, conn.header) == 0 &&
                       reader.read_conn_time(slot, conn.open_time, close_time) == 0 &&
                       reader.read_conn_peer_id(slot, conn.peer_number) == 0;
        for (std::size_t id = 0; conn.b_there && id < conn.bytes.size(); ++id) {
            conn.b_there = reader.read_conn_stat(slot, static_cast<int>(id), conn.bytes[id]) == 0;
        }
        conn.b_open = close_time <= 0;
        conn.b_rates = conn.b_there && earlier.b_there && seconds > 0 &&
                       earlier.header.m_conn_id == conn.header.m_conn_id && earlier.open_time == conn.open_time;
        for (std::size_t id = 0; conn.b_rates && id < conn.bytes.size(); ++id) {
            conn.rates[id] = static_cast<float>(total_rate(earlier.bytes[id], conn.bytes[id], seconds));
        }
        earlier = conn;
    }
}

void WatchModel::read_nacks(RE_stat_reader& reader)
{
    for (WatchNack& nack : m_nacks) {
        nack.b_new = false;
    }
    // Called each time, because it also returns the end of the iteration.
    const int first = reader.get_first_nack();
    if (first < 0) {
        m_nacks.clear();
        return;
    }
    int cursor = m_nack_cursor >= 0 ? m_nack_cursor : first;
    RE_stat_nack_header nack{};
    for (int next = reader.get_next_nack(cursor, nack); next >= 0; next = reader.get_next_nack(cursor, nack)) {
        cursor = next;
        m_nacks.push_back({nack, m_b_nacks});
        if (m_nacks.size() > most_nacks) {
            m_nacks.pop_front();
        }
    }
    m_nack_cursor = cursor;
    m_b_nacks = true;
}

void WatchModel::follow(RE_stat_reader& reader, const WatchSubject& subject)
{
    if (subject.kind == SubjectKind::peer) {
        return; // all places are in use
    }
    const auto found = std::find_if(m_followed.begin(), m_followed.end(),
                                    [&](const FollowedThing& thing) { return thing.subject == subject; });
    if (found != m_followed.end()) {
        std::rotate(m_followed.begin(), found, found + 1);
        return;
    }
    FollowedThing thing;
    thing.subject = subject;
    update_followed(reader, thing);
    m_followed.push_front(std::move(thing));
    if (m_followed.size() > most_followed) {
        m_followed.pop_back();
    }
}

void WatchModel::update_followed(RE_stat_reader& reader, FollowedThing& thing)
{
    if (thing.subject.kind == SubjectKind::application) {
        const WatchApp* const app = find_app(thing.subject);
        thing.b_there = app != nullptr;
        thing.rates = app != nullptr ? app->rates : TrafficRates();
        if (app != nullptr && app->before != nullptr) {
            thing.history.add(thing.rates);
        }
        return;
    }
    const bool b_before = thing.b_there && has_rates();
    SnapshotConn now;
    const bool b_there = read_connection(reader, thing.subject.slot, now) && kavstat::subject_of(now) == thing.subject;
    thing.before.reset();
    thing.rates = {};
    if (b_before && b_there) {
        thing.before = thing.now;
        thing.rates = rates_between(thing.before->figures, now.figures, m_seconds);
        thing.history.add(thing.rates);
    }
    thing.b_there = b_there;
    if (b_there) {
        thing.now = now;
    }
}

const WatchPeer* WatchModel::find_peer(const WatchSubject& subject) const
{
    const auto found = std::find_if(m_peers.begin(), m_peers.end(), [&](const WatchPeer& peer) {
        return peer.now->slot == subject.slot && kavstat::subject_of(*peer.now) == subject;
    });
    return found != m_peers.end() ? &*found : nullptr;
}

const WatchApp* WatchModel::find_app(const WatchSubject& subject) const
{
    const auto found = std::find_if(m_apps.begin(), m_apps.end(), [&](const WatchApp& app) {
        return app.now->slot == subject.slot && kavstat::subject_of(*app.now) == subject;
    });
    return found != m_apps.end() ? &*found : nullptr;
}

const FollowedThing* WatchModel::find_followed(const WatchSubject& subject) const
{
    const auto found = std::find_if(m_followed.begin(), m_followed.end(),
                                    [&](const FollowedThing& thing) { return thing.subject == subject; });
    return found != m_followed.end() ? &*found : nullptr;
}

WatchSubject WatchModel::subject_of(const Finding& finding) const
{
    switch (finding.rule->scope) {
    case RuleScope::peer:
        for (const WatchPeer& peer : m_peers) {
            if (peer.now->slot == finding.peer_slot && peer.now->number == finding.peer_number) {
                return kavstat::subject_of(*peer.now);
            }
        }
        break;
    case RuleScope::application:
        for (const WatchApp& app : m_apps) {
            if (app.now->peer_number == finding.peer_number &&
                application_label(app.now->app.m_header) == finding.application &&
                app.now->app.m_header.m_kav_peer_id.getString() == finding.kav_peer_id) {
                return kavstat::subject_of(*app.now);
            }
        }
        break;
    case RuleScope::connection: {
        const PendingConnection& conn = finding.connection;
        return {SubjectKind::connection, conn.slot, conn.header.m_conn_id, conn.open_time};
    }
    case RuleScope::engine:
        break;
    }
    return {};
}

std::vector<const Finding*> WatchModel::findings_about(const WatchSubject& subject) const
{
    std::string application;
    std::string identity;
    if (const WatchApp* const app = subject.kind == SubjectKind::application ? find_app(subject) : nullptr) {
        application = application_label(app->now->app.m_header);
        identity = app->now->app.m_header.m_kav_peer_id.getString();
    }
    std::vector<const Finding*> about;
    for (const Finding& finding : findings()) {
        const bool b_of_application = finding.rule->scope == RuleScope::application &&
                                      finding.application == application && finding.kav_peer_id == identity;
        if (b_of_application || is_about(finding, subject)) {
            about.push_back(&finding);
        }
    }
    return about;
}

std::size_t WatchModel::rules_applied() const
{
    const std::vector<RuleSetting>& settings = m_health.rules().settings;
    return static_cast<std::size_t>(
        std::count_if(settings.begin(), settings.end(), [](const RuleSetting& setting) { return setting.b_enabled; }));
}

std::string WatchModel::host_of(int peer_number) const
{
    const auto found = std::find_if(m_peers.begin(), m_peers.end(),
                                    [&](const WatchPeer& peer) { return peer.now->number == peer_number; });
    return found != m_peers.end() ? plain_text(text_in(found->now->header.m_peer_host_name)) : "";
}

} // namespace kavstat
