#include "watch/model.h"

#include "model/counter_names.h"

#include <unordered_map>

namespace kavstat {

namespace {

double total_rate(long long before, long long after, double seconds)
{
    return rate_of(change_of(RE_stat_kind::total, before, after, false), seconds);
}

TrafficRates rates_between(const ConnectionFigures& before, const ConnectionFigures& after, double seconds)
{
    const auto rate = [&](RE_stat_conn_id id) {
        return total_rate(before[static_cast<std::size_t>(id)], after[static_cast<std::size_t>(id)], seconds);
    };
    TrafficRates rates;
    rates.encode_in = rate(RE_STAT_CONN_ID_ENCODE_IN_BYTES);
    rates.encode_out = rate(RE_STAT_CONN_ID_ENCODE_OUT_BYTES);
    rates.decode_in = rate(RE_STAT_CONN_ID_DECODE_IN_BYTES);
    rates.decode_out = rate(RE_STAT_CONN_ID_DECODE_OUT_BYTES);
    rates.messages = rate(RE_STAT_CONN_ID_ENCODE_NUM_MSGS) + rate(RE_STAT_CONN_ID_DECODE_NUM_MSGS);
    rates.nacks = rate(RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS) + rate(RE_STAT_CONN_ID_NUM_TOTAL_RTX_MSGS);
    return rates;
}

template <typename Figures>
std::vector<double> figure_rates(CounterScope scope, const Figures& before, const Figures& after, double seconds)
{
    std::vector<double> rates(after.size());
    for (const NamedCounter& counter : counters_of(scope)) {
        for (int id = counter.id(); id <= counter.info.last_id && counter.is_total(); ++id) {
            const auto at = static_cast<std::size_t>(id);
            rates[at] = total_rate(before[at], after[at], seconds);
        }
    }
    return rates;
}

constexpr double bytes_per_kilobyte = 1024;

} // namespace

double saved_percent(double in, double out)
{
    return in > 0 && out < in ? (in - out) * 100 / in : 0;
}

void WatchModel::lose(int error)
{
    m_error = error;
    m_b_rates = false;
    m_b_filled = false;
    m_b_conns = false;
}

void WatchModel::update(RE_image_reader& reader, bool b_connections, std::time_t now, clock::time_point at)
{
    Snapshot before = std::move(m_now);
    m_now = take_snapshot(reader, now);
    // Figures of another engine, or of another life of this one, say nothing about the last second.
    const bool b_same = m_b_filled && before.engine_start_time == m_now.engine_start_time;
    const double seconds = b_same ? std::chrono::duration<double>(at - m_at).count() : 0;
    m_error = 0;
    m_b_filled = true;
    m_b_rates = seconds > 0;
    m_at = at;
    if (!b_same) {
        m_b_conns = false;
    }
    follow_engine(before, seconds);
    follow_peers(m_now, seconds);
    follow_apps(m_now, seconds);
    if (b_connections) {
        read_connections(reader, m_b_conns ? std::chrono::duration<double>(at - m_conns_at).count() : 0);
        m_conns_at = at;
        m_b_conns = true;
    }
}

void WatchModel::follow_engine(const Snapshot& before, double seconds)
{
    m_engine_rates = figure_rates(CounterScope::engine, before.engine, m_now.engine, seconds);
    m_connection_rates = figure_rates(CounterScope::connection, before.connections, m_now.connections, seconds);
    m_rates = rates_between(before.connections, m_now.connections, seconds);
    if (m_b_rates) {
        m_encode_history.add(m_rates.encode_in);
        m_decode_history.add(m_rates.decode_out);
        m_saved_history.add(saved_percent(m_rates.encode_in, m_rates.encode_out));
        m_nack_history.add(m_rates.nacks);
    }
    m_connection_history.add(m_now.active_connections);
}

void WatchModel::follow_peers(const Snapshot& now, double seconds)
{
    std::map<std::pair<int, std::string>, WatchPeer*> before;
    for (WatchPeer& peer : m_peers) {
        before.emplace(std::pair(peer.now.number, peer.now.header.m_kav_peer_id.getString()), &peer);
    }
    std::vector<WatchPeer> peers;
    for (const SnapshotPeer& peer : now.peers) {
        WatchPeer next{peer, {}, {}};
        const auto found = before.find({peer.number, peer.header.m_kav_peer_id.getString()});
        if (found != before.end()) {
            next.history = std::move(found->second->history);
            if (m_b_rates) {
                next.rates = rates_between(found->second->now.connections, peer.connections, seconds);
                next.history.add(next.rates.encode_in + next.rates.decode_out);
            }
            before.erase(found);
        }
        peers.push_back(std::move(next));
    }
    m_peers = std::move(peers);
}

void WatchModel::follow_apps(const Snapshot& now, double seconds)
{
    std::map<int, SnapshotApp> before; // applications keep their slots as long as the engine lives
    for (const WatchApp& app : m_apps) {
        before.emplace(app.now.slot, app.now);
    }
    m_apps.clear();
    for (const SnapshotApp& app : now.apps) {
        WatchApp next{app, {}};
        const auto found = before.find(app.slot);
        if (m_b_rates && found != before.end() && found->second.app.m_header == app.app.m_header) {
            const auto rate = [&](RE_stat_app_id id) {
                return rate_of(
                    change_of_32(RE_stat_kind::total, found->second.app.m_id_array[id], app.app.m_id_array[id], false),
                    seconds);
            };
            next.rates.encode_in = rate(RE_STAT_APP_ID_ENCODE_IN_KBYTES) * bytes_per_kilobyte;
            next.rates.encode_out = rate(RE_STAT_APP_ID_ENCODE_OUT_KBYTES) * bytes_per_kilobyte;
            next.rates.decode_in = rate(RE_STAT_APP_ID_DECODE_IN_KBYTES) * bytes_per_kilobyte;
            next.rates.decode_out = rate(RE_STAT_APP_ID_DECODE_OUT_KBYTES) * bytes_per_kilobyte;
            next.rates.messages = rate(RE_STAT_APP_ID_ENCODE_NUM_MSGS) + rate(RE_STAT_APP_ID_DECODE_NUM_MSGS);
        }
        m_apps.push_back(next);
    }
}

void WatchModel::read_connections(RE_stat_reader& reader, double seconds)
{
    std::unordered_map<int, WatchConn> before;
    if (seconds > 0) {
        for (const WatchConn& conn : m_conns) {
            before.emplace(conn.slot, conn);
        }
    }
    m_conns.clear();
    const int slots = reader.get_max_conn_slots();
    for (int slot = 0; slot < slots; ++slot) {
        WatchConn conn;
        std::time_t close_time = 0;
        if (!reader.is_conn_valid(slot) || reader.read_conn_header(slot, conn.header) < 0 ||
            reader.read_conn_time(slot, conn.open_time, close_time) < 0 ||
            reader.read_conn_peer_id(slot, conn.peer_number) < 0 ||
            reader.read_conn_stat(slot, RE_STAT_CONN_ID_ENCODE_IN_BYTES, conn.encode_in) < 0 ||
            reader.read_conn_stat(slot, RE_STAT_CONN_ID_ENCODE_OUT_BYTES, conn.encode_out) < 0 ||
            reader.read_conn_stat(slot, RE_STAT_CONN_ID_DECODE_IN_BYTES, conn.decode_in) < 0 ||
            reader.read_conn_stat(slot, RE_STAT_CONN_ID_DECODE_OUT_BYTES, conn.decode_out) < 0) {
            continue;
        }
        conn.slot = slot;
        conn.b_open = close_time <= 0;
        const auto found = before.find(slot);
        if (found != before.end() && found->second.header.m_conn_id == conn.header.m_conn_id &&
            found->second.open_time == conn.open_time) {
            const WatchConn& earlier = found->second;
            conn.rates.encode_in = total_rate(earlier.encode_in, conn.encode_in, seconds);
            conn.rates.encode_out = total_rate(earlier.encode_out, conn.encode_out, seconds);
            conn.rates.decode_in = total_rate(earlier.decode_in, conn.decode_in, seconds);
            conn.rates.decode_out = total_rate(earlier.decode_out, conn.decode_out, seconds);
        }
        m_conns.push_back(conn);
    }
}

} // namespace kavstat
