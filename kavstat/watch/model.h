// What the live view shows: the statistics of now, those of the look before, and how figures went since the view began.
// All of it has a bound: however long the view runs, it keeps two snapshots, one record for each connection, and the
// histories of the engine, its peers and the few things that were opened last.
#pragma once

#include "health/evaluation.h"
#include "model/change.h"
#include "model/snapshot.h"
#include "watch/history.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace kavstat {

enum class SubjectKind
{
    none,
    row, // of a table, and nothing that has a page of its own
    peer,
    connection,
    application,
};

// Which thing a row is about: the same from look to look, and never that of another thing that got its slot.
struct WatchSubject
{
    SubjectKind kind = SubjectKind::none;
    int slot = -1;
    std::int64_t number = 0;
    std::int64_t identity = 0; // when it was opened, or a hash of who it is

    bool operator==(const WatchSubject&) const = default;
    bool has_page() const { return kind > SubjectKind::row; }
};
WatchSubject subject_of(const SnapshotPeer& peer);
WatchSubject subject_of(const SnapshotApp& app);
WatchSubject subject_of(const SnapshotConn& conn);

// Per second.
struct TrafficRates
{
    double encode_in = 0; // bytes
    double encode_out = 0;
    double decode_in = 0;
    double decode_out = 0;
    double messages = 0; // encoded and decoded
    double nacks = 0;
    double retransmissions = 0;
    // Milliseconds a message; not a number when there was none.
    double encode_latency = std::numeric_limits<double>::quiet_NaN();
    double decode_latency = std::numeric_limits<double>::quiet_NaN();

    double before() const { return encode_in + decode_out; }
    double after() const { return encode_out + decode_in; }
};

// Of the same figures.
struct TrafficHistory
{
    // Enough for four minutes at a look a second; an engine may have 4,096 peers.
    static constexpr std::size_t of_a_peer = 240;

    explicit TrafficHistory(std::size_t capacity = of_a_peer)
        : encode_in(capacity), encode_out(capacity), decode_in(capacity), decode_out(capacity), nacks(capacity)
    {}
    void add(const TrafficRates& rates);
    void mark_restart();
    std::vector<float> before() const;
    std::vector<float> after() const;

    History encode_in;
    History encode_out;
    History decode_in;
    History decode_out;
    History nacks; // and messages sent again
};

// Percent of the larger side that the smaller one is less, and 0 while either is 0: of what came in when encoding, of
// what came out when decoding. exec_show_stats_kav computes its ratio like this.
double saved_percent(double before, double after);
// What both directions saved, as a table shows it: "75.0%", or with "e" for encoding and "d" for decoding where they
// differ, "e75.0% d88.9%", or where only one has any traffic. "-" without any.
std::string saved_text(double encode_in, double encode_out, double decode_in, double decode_out);

// `before` is null for what was not there at the look before.
struct WatchPeer
{
    const SnapshotPeer* now = nullptr;
    const SnapshotPeer* before = nullptr;
    TrafficRates rates;
    TrafficHistory history;
};

struct WatchApp
{
    const SnapshotApp* now = nullptr;
    const SnapshotApp* before = nullptr;
    TrafficRates rates;
};

// What a table of connections shows of one; there is one for every slot.
struct WatchConn
{
    enum figure : std::size_t // their ids
    {
        encode_in = RE_STAT_CONN_ID_ENCODE_IN_BYTES,
        decode_in = RE_STAT_CONN_ID_DECODE_IN_BYTES,
        encode_out = RE_STAT_CONN_ID_ENCODE_OUT_BYTES,
        decode_out = RE_STAT_CONN_ID_DECODE_OUT_BYTES,
    };

    RE_stat_conn_header header{};
    int peer_number = -1;
    bool b_there = false; // a connection has the slot
    bool b_open = false;
    bool b_rates = false;
    std::time_t open_time = 0;
    std::array<long long, 4> bytes{};
    std::array<float, 4> rates{}; // bytes per second

    double rate_before() const
    {
        return static_cast<double>(rates[encode_in]) + static_cast<double>(rates[decode_out]);
    }
};

// A connection or application with a page of its own.
struct FollowedThing
{
    WatchSubject subject;
    bool b_there = false;
    SnapshotConn now;                   // of a connection
    std::optional<SnapshotConn> before; // nothing when it was not there at the look before
    TrafficRates rates;
    TrafficHistory history{History::most_values};
};

struct WatchNack
{
    RE_stat_nack_header nack{};
    bool b_new = false; // since the look before
};

// What a page shows beside the engine, its peers and applications. Nothing else is read.
struct WatchNeeds
{
    bool b_connections = false;
    bool b_nacks = false;
    bool b_bypass = false;
    bool b_config = false;
    WatchSubject subject = {}; // has_page(), or none
};

class WatchModel
{
public:
    using clock = std::chrono::steady_clock;

    // Of many connections a look reads this many, one part after the other.
    static constexpr int connections_per_look = 25000;
    // More than any table of the view has.
    static constexpr std::size_t most_rows = std::size_t{1} << 31U;
    static constexpr std::size_t most_nacks = 1000;
    static constexpr std::size_t most_followed = 8;
    // Rules are applied no more often, as they go by seconds, and less often when that takes more than a hundredth of
    // the time: they may have to look at every connection.
    static constexpr std::chrono::seconds health_interval{2};

    explicit WatchModel(RuleSet rules = {}) : m_health(std::move(rules)) {}

    // Takes the statistics of now. b_same_engine: the engine has not been started anew since the look before.
    void update(RE_image_reader& reader, const WatchNeeds& needs, bool b_same_engine, std::time_t now,
                clock::time_point at);
    // Reads what a page needs beside that, when it is turned to between two looks.
    void read(RE_image_reader& reader, const WatchNeeds& needs, clock::time_point at);
    // There are none to be had; error: what opening them returned.
    void lose(int error, clock::time_point at);

    // False when there is no engine; the rest is then that of the last time.
    bool is_up() const { return m_error == 0 && m_b_filled; }
    int error() const { return m_error; }
    // False until there have been two moments to tell rates from.
    bool has_rates() const { return m_seconds > 0; }

    const Snapshot& now() const { return m_now; }
    // What a running total grew by per second since the look before; 0 where that is not known.
    double rate(long long before, long long now) const;
    double rate_32(std::uint32_t before, std::uint32_t now) const;
    // The engine's figures at the look before; rates are between them and those of now.
    const Snapshot& before() const { return m_before; }

    const TrafficRates& rates() const { return m_rates; }
    const TrafficHistory& history() const { return m_history; }
    const History& encode_latency_history() const { return m_encode_latency_history; }
    const History& decode_latency_history() const { return m_decode_latency_history; }
    const History& disk_latency_history() const { return m_disk_latency_history; }
    const History& cache_history() const { return m_cache_history; }           // percent of the cache in use
    const History& connection_history() const { return m_connection_history; } // open connections

    // What is wrong, most severe first.
    const std::vector<Finding>& findings() const { return m_health.findings(); }
    std::vector<const Finding*> findings_about(const WatchSubject& subject) const;
    // How bad the worst of that is; nothing for none.
    std::optional<Severity> worst_about(const WatchSubject& subject) const;
    // What a finding is about; none when that is the engine, or is gone.
    WatchSubject subject_of(const Finding& finding) const;
    std::size_t rules_applied() const;

    const std::vector<WatchPeer>& peers() const { return m_peers; }
    const std::vector<WatchApp>& apps() const { return m_apps; }
    const std::vector<WatchConn>& conns() const { return m_conns; }
    // Looks until every connection has been read again.
    std::size_t looks_for_all_connections() const;
    const std::deque<WatchNack>& nacks() const { return m_nacks; } // oldest first
    const std::optional<std::vector<RE_bypass_entry>>& bypass() const { return m_bypass; }
    const std::optional<RE_stat_config_param>& config() const { return m_config; }

    // Null when it is not there.
    const WatchPeer* find_peer(const WatchSubject& subject) const;
    const WatchApp* find_app(const WatchSubject& subject) const;
    // Null until it has been a need; its b_there says whether it is still there.
    const FollowedThing* find_followed(const WatchSubject& subject) const;
    // The host's name of the peer with this number, as printable text; empty when not known.
    std::string host_of(int peer_number) const;

private:
    void judge(RE_image_reader& reader, clock::time_point at);
    void follow_engine();
    void follow_peers(bool b_restarted);
    void follow_apps();
    void read_connections(RE_stat_reader& reader, clock::time_point at);
    void read_connection_slots(RE_stat_reader& reader, int first, int end, double seconds);
    void read_nacks(RE_stat_reader& reader);
    void follow(RE_stat_reader& reader, const WatchSubject& subject);
    void update_followed(RE_stat_reader& reader, FollowedThing& thing);

    int m_error = 0;
    bool m_b_filled = false;
    double m_seconds = 0; // between the last two looks; 0 when they tell no rates
    clock::time_point m_at;
    Snapshot m_now;
    Snapshot m_before;
    HealthWatch m_health;
    std::optional<clock::time_point> m_next_judgement;
    std::unordered_map<int, const Finding*> m_worst_of_peers; // by slot
    std::unordered_map<int, const Finding*> m_worst_of_conns; // by slot

    TrafficRates m_rates;
    TrafficHistory m_history{History::most_values};
    History m_encode_latency_history;
    History m_decode_latency_history;
    History m_disk_latency_history;
    History m_cache_history;
    History m_connection_history;

    std::vector<WatchPeer> m_peers;
    std::vector<WatchApp> m_apps;
    std::vector<WatchConn> m_conns;                // by slot
    std::vector<clock::time_point> m_conn_read_at; // by part of the slots
    int m_next_conn = 0;
    bool m_b_conns = false; // the look before read connections, too
    std::deque<WatchNack> m_nacks;
    int m_nack_cursor = -1;
    bool m_b_nacks = false;
    std::optional<std::vector<RE_bypass_entry>> m_bypass;
    std::optional<RE_stat_config_param> m_config;
    std::deque<FollowedThing> m_followed; // the one asked for last in front
};

// Percent of the engine's cache that is in use; 0 when it has no size.
double cache_percent(const Snapshot& now);

} // namespace kavstat
