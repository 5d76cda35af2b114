// The data of the live view: the current statistics, those of the reading before, and the history of figures since the
// view started. Its size is bounded: it keeps two snapshots, one record for each connection slot, and the histories of
// the engine, its peers, and the few connections and applications that were opened last.
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
    row, // of a table whose rows have no page of their own
    peer,
    connection,
    application,
};

// Identifies the subject of a row from one reading to the next. Another subject that reuses the slot is not equal.
struct WatchSubject
{
    SubjectKind kind = SubjectKind::none;
    int slot = -1;
    std::int64_t number = 0;
    std::int64_t identity = 0; // the time it was opened, or a hash of its identity

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
    // Milliseconds per message; NaN if there was none.
    double encode_latency = std::numeric_limits<double>::quiet_NaN();
    double decode_latency = std::numeric_limits<double>::quiet_NaN();

    double before() const { return encode_in + decode_out; }
    double after() const { return encode_out + decode_in; }
};

// The history of WatchRates.
struct TrafficHistory
{
    // Four minutes at one reading per second. An engine may have 4,096 peers, so it is short.
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
    History nacks; // and retransmissions
};

// Returns the savings of both directions for a table: "75.0%" if they are equal, "e75.0% d88.9%" (encoding, decoding)
// if they differ, one of the two if only one direction has traffic, and "-" without traffic.
std::string saved_text(double encode_in, double encode_out, double decode_in, double decode_out);

// `before` is null if it did not exist at the reading before.
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

// The data of a connection for the table of connections, one per slot.
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
    bool b_there = false; // the slot contains a connection
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
    std::optional<SnapshotConn> before; // empty if it did not exist at the reading before
    TrafficRates rates;
    TrafficHistory history{History::most_values};
};

struct WatchNack
{
    RE_stat_nack_header nack{};
    bool b_new = false; // since the reading before
};

// The additional data that a page needs besides the engine, its peers and applications. Only this is read.
struct WatchNeeds
{
    bool b_connections = false;
    bool b_nacks = false;
    bool b_bypass = false;
    bool b_config = false;
    WatchSubject subject = {}; // has_page() is true, or it is empty
};

class WatchModel
{
public:
    using clock = std::chrono::steady_clock;

    // One reading reads this many connections. The next reading continues with the following ones.
    static constexpr int connections_per_look = 25000;
    // More rows than any table of the view has.
    static constexpr std::size_t most_rows = std::size_t{1} << 31U;
    static constexpr std::size_t most_nacks = 1000;
    static constexpr std::size_t most_followed = 8;
    // The shortest time between two evaluations of the rules. It is longer if they take more than a hundredth of the
    // time, because they may have to read every connection.
    static constexpr std::chrono::seconds health_interval{2};

    explicit WatchModel(RuleSet rules = {}) : m_health(std::move(rules)) {}

    // Reads the current statistics. b_same_engine: the engine was not restarted since the reading before.
    void update(RE_image_reader& reader, const WatchNeeds& needs, bool b_same_engine, std::time_t now,
                clock::time_point at);
    // Reads the additional data of a page that is opened between two readings.
    void read(RE_image_reader& reader, const WatchNeeds& needs, clock::time_point at);
    // The statistics could not be opened. error: the error code of opening.
    void lose(int error, clock::time_point at);

    // False without an engine. All other functions then return the data of the last reading.
    bool is_up() const { return m_error == 0 && m_b_filled; }
    int error() const { return m_error; }
    // False until there are two readings, which rates need.
    bool has_rates() const { return m_seconds > 0; }

    const Snapshot& now() const { return m_now; }
    // Returns the rate of a running total since the reading before, per second; 0 if unknown.
    double rate(long long before, long long now) const;
    double rate_32(std::uint32_t before, std::uint32_t now) const;
    // The engine's figures at the reading before, the start of the interval for rates.
    const Snapshot& before() const { return m_before; }

    const TrafficRates& rates() const { return m_rates; }
    const TrafficHistory& history() const { return m_history; }
    const History& encode_latency_history() const { return m_encode_latency_history; }
    const History& decode_latency_history() const { return m_decode_latency_history; }
    const History& disk_latency_history() const { return m_disk_latency_history; }
    const History& cache_history() const { return m_cache_history; }           // percent of the cache in use
    const History& connection_history() const { return m_connection_history; } // open connections

    // The findings of the rules, the most severe first.
    const std::vector<Finding>& findings() const { return m_health.findings(); }
    std::vector<const Finding*> findings_about(const WatchSubject& subject) const;
    // Returns the highest severity of the findings about a subject; empty without findings.
    std::optional<Severity> worst_about(const WatchSubject& subject) const;
    // Returns the subject of a finding; an empty subject for the engine, or if it no longer exists.
    WatchSubject subject_of(const Finding& finding) const;
    std::size_t rules_applied() const;

    const std::vector<WatchPeer>& peers() const { return m_peers; }
    const std::vector<WatchApp>& apps() const { return m_apps; }
    const std::vector<WatchConn>& conns() const { return m_conns; }
    // The number of readings until every connection has been read again.
    std::size_t looks_for_all_connections() const;
    const std::deque<WatchNack>& nacks() const { return m_nacks; } // oldest first
    const std::optional<std::vector<RE_bypass_entry>>& bypass() const { return m_bypass; }
    const std::optional<RE_stat_config_param>& config() const { return m_config; }

    // Returns null if it does not exist.
    const WatchPeer* find_peer(const WatchSubject& subject) const;
    const WatchApp* find_app(const WatchSubject& subject) const;
    // Returns null unless a page needed it. Its b_there is false if it no longer exists.
    const FollowedThing* find_followed(const WatchSubject& subject) const;
    // Returns the host name of the peer with this number as printable text; empty if unknown.
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
    double m_seconds = 0; // between the last two readings; 0 if there are no rates
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
    bool m_b_conns = false; // the reading before included connections
    std::deque<WatchNack> m_nacks;
    int m_nack_cursor = -1;
    bool m_b_nacks = false;
    std::optional<std::vector<RE_bypass_entry>> m_bypass;
    std::optional<RE_stat_config_param> m_config;
    std::deque<FollowedThing> m_followed; // the most recently requested one first
};

// Returns the used share of the engine's cache in percent; 0 if its size is 0.
double cache_percent(const Snapshot& now);

} // namespace kavstat
