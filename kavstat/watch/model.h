// What the live view shows: the statistics of now, what they grow by per second, and how that went in the last minutes.
#pragma once

#include "model/change.h"
#include "model/snapshot.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <string>
#include <vector>

namespace kavstat {

// The values of the last minutes, oldest first.
class History
{
public:
    // Enough for the widest line that anybody has, and ten minutes at a value a second.
    static constexpr std::size_t capacity = 600;

    void add(double value)
    {
        m_values.push_back(value);
        if (m_values.size() > capacity) {
            m_values.pop_front();
        }
    }
    double last() const { return m_values.empty() ? 0 : m_values.back(); }
    const std::deque<double>& values() const { return m_values; }

private:
    std::deque<double> m_values;
};

// Per second.
struct TrafficRates
{
    double encode_in = 0; // bytes
    double encode_out = 0;
    double decode_in = 0;
    double decode_out = 0;
    double messages = 0; // encoded and decoded
    double nacks = 0;    // sent, and messages sent again
};

struct WatchPeer
{
    SnapshotPeer now;
    TrafficRates rates;
    History history; // bytes per second before encoding and after decoding
};

struct WatchApp
{
    SnapshotApp now;
    TrafficRates rates;
};

// What a table of connections shows of one.
struct WatchConn
{
    int slot = 0;
    RE_stat_conn_header header{};
    int peer_number = -1;
    std::time_t open_time = 0;
    bool b_open = false;
    long long encode_in = 0; // bytes
    long long encode_out = 0;
    long long decode_in = 0;
    long long decode_out = 0;
    TrafficRates rates;
};

class WatchModel
{
public:
    using clock = std::chrono::steady_clock;

    // Takes the statistics of now. b_connections: read connections too. error: what opening the statistics returned.
    void update(RE_image_reader& reader, bool b_connections, std::time_t now, clock::time_point at);
    // There are none to be had; error: what opening them returned.
    void lose(int error);

    // False when there is no engine; the rest is then that of the last time.
    bool is_up() const { return m_error == 0 && m_b_filled; }
    int error() const { return m_error; }
    // False until there have been two moments to tell rates from.
    bool has_rates() const { return m_b_rates; }

    const Snapshot& now() const { return m_now; }
    // Per second, by id; totals only.
    const std::vector<double>& engine_rates() const { return m_engine_rates; }
    const std::vector<double>& connection_rates() const { return m_connection_rates; }
    const TrafficRates& rates() const { return m_rates; }
    const History& encode_history() const { return m_encode_history; }
    const History& decode_history() const { return m_decode_history; }
    const History& saved_history() const { return m_saved_history; } // percent of bytes before encoding
    const History& nack_history() const { return m_nack_history; }
    const History& connection_history() const { return m_connection_history; } // open connections
    const std::vector<WatchPeer>& peers() const { return m_peers; }
    const std::vector<WatchApp>& apps() const { return m_apps; }
    const std::vector<WatchConn>& conns() const { return m_conns; }

private:
    void read_connections(RE_stat_reader& reader, double seconds);
    void follow_engine(const Snapshot& before, double seconds);
    void follow_peers(const Snapshot& now, double seconds);
    void follow_apps(const Snapshot& now, double seconds);

    int m_error = 0;
    bool m_b_filled = false;
    bool m_b_rates = false;
    clock::time_point m_at;
    Snapshot m_now;
    std::vector<double> m_engine_rates;
    std::vector<double> m_connection_rates;
    TrafficRates m_rates;
    History m_encode_history;
    History m_decode_history;
    History m_saved_history;
    History m_nack_history;
    History m_connection_history;
    std::vector<WatchPeer> m_peers;
    std::vector<WatchApp> m_apps;
    std::vector<WatchConn> m_conns;
    clock::time_point m_conns_at;
    bool m_b_conns = false; // m_conns is of the running engine
};

// Percent of the bytes before encoding that encoding removed; 0 when there were none, or more came out than went in.
double saved_percent(double in, double out);

} // namespace kavstat
