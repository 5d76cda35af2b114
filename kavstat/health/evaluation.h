// Evaluates the table of rules: once for two moments, or repeatedly for a live view.
#pragma once

#include "health/rules.h"
#include "model/snapshot.h"

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kavstat {

// A rule names at most this many peers, applications or connections, the worst of all.
constexpr std::size_t most_findings_of_rule = 1000;

// A connection with data pending that moves no byte.
struct PendingConnection
{
    int slot = 0;
    int peer_number = -1;
    RE_stat_conn_header header{};
    std::time_t open_time = 0;
    double silent = 0; // seconds, as far as is known
};

// Follows the open connections that have data pending. An engine may have a million connections: they are read only
// while the engine's sums say that some of them have any, and a few bytes of each are kept.
class PendingConnections
{
public:
    // Reads the open connections. seconds: since the last time.
    void update(RE_stat_reader& reader, const Snapshot& now, double seconds);

    // How many have data pending.
    std::size_t size() const { return m_followed.size(); }
    // The seconds without any movement of each of them, in ascending order of slots.
    std::vector<double> silences() const;
    // The maximum of silences(); 0 without connections.
    double longest_silence() const { return m_most_silent.empty() ? 0 : m_most_silent.front().silent; }
    // Those with the longest silence above 0, at most most_findings_of_rule. The longest silence comes first.
    const std::vector<PendingConnection>& most_silent() const { return m_most_silent; }

private:
    struct Followed
    {
        int slot = 0;
        int conn_id = 0;
        std::time_t open_time = 0;
        unsigned long long moved = 0; // bytes in all directions, wraps
        double silent = 0;            // seconds
    };

    static bool read(RE_stat_reader& reader, int slot, Followed& connection);

    std::vector<Followed> m_followed; // in ascending order of slots
    std::vector<PendingConnection> m_most_silent;
};

// Follows the connections of the running engine from one look to the next, however often a program looks, and starts
// again when the engine restarts.
class PendingWatch
{
public:
    using clock = std::chrono::steady_clock;

    // Reads the connections unless it has read them less than `apart` ago.
    const PendingConnections& update(RE_stat_reader& reader, const Snapshot& now, clock::time_point at,
                                     clock::duration apart);

private:
    PendingConnections m_pending;
    std::time_t m_engine_start_time = 0;
    std::optional<clock::time_point> m_at;
};

// Input of rules in addition to the snapshot.
struct HealthExtras
{
    int bypass_servers = 0;
    int bypass_servers_with_nacks = 0;
    const PendingConnections* pending = nullptr; // without it, connections are not evaluated
};
// Reads the auto-bypass table.
HealthExtras read_extras(RE_image_reader& reader, const PendingConnections* pending);

// Two moments of one engine.
struct HealthMoments
{
    const Snapshot* before = nullptr; // without it, rules that need two moments are not evaluated
    const Snapshot* now = nullptr;    // null: no engine
    double seconds = 0;               // between the two
    HealthExtras extras;              // of now
};

// Since when a condition has held, as far as is known.
struct Since
{
    enum class Kind
    {
        moment,   // only the present moment is known
        at_least, // for at least `seconds`
        interval, // it happened during the last `seconds`
        time,     // exactly since `time`
    };
    Kind kind = Kind::moment;
    double seconds = 0;
    std::time_t time = 0; // seconds since the epoch
};
// Returns "since 2023-11-14 22:13:20", "for at least 2 s", "in the last 2 s", or an empty text.
std::string text_of(const Since& since);

struct Finding
{
    const Rule* rule = nullptr;
    Severity severity = Severity::warning;
    double value = 0;     // in base units
    double threshold = 0; // in base units
    Since since;
    // The subject, as far as the scope has these members.
    int peer_slot = -1;
    int peer_number = -1;
    std::string host_name;   // as the peer sent it: any bytes
    std::string kav_peer_id; // of a peer or of an application's peer
    std::string application; // its application_label()
    PendingConnection connection;
    // Set in the last finding of a rule: how many more are left out, none of them worse.
    std::size_t others = 0;

    // Returns "peer 3 branch-3.example.net", in printable ASCII characters.
    std::string subject() const;
    // Returns "messages nacked 1.20% (should be at most 0.10%)".
    std::string figure_text() const;
};

// Returns the findings: critical ones first, then in the order of the table, then the worst first.
std::vector<Finding> findings(const RuleSet& rules, const HealthMoments& moments);

// Evaluates the rules repeatedly, for live views. Rates are computed over some seconds, however short the interval is.
// Remembers since when each finding has been there.
class HealthWatch
{
public:
    using clock = std::chrono::steady_clock;
    explicit HealthWatch(RuleSet rules = {}) : m_rules(std::move(rules)) {}

    // Evaluates the current statistics. reader: open; the snapshot was taken from it.
    // kept: the same snapshot, from a caller that shares it; otherwise some of the snapshots are copied.
    const std::vector<Finding>& update(RE_image_reader& reader, const Snapshot& now, clock::time_point at,
                                       std::shared_ptr<const Snapshot> kept = nullptr);
    // Forgets the moments that an update at this time does not need. For a caller that shares its snapshots: then one
    // older snapshot is left.
    void forget_old(clock::time_point at);
    // No engine is running.
    const std::vector<Finding>& lose(clock::time_point at);

    const std::vector<Finding>& findings() const { return m_findings; }
    const RuleSet& rules() const { return m_rules; }
    // The time that rates were taken over; nothing when there was one moment.
    std::optional<double> seconds() const { return m_seconds; }

private:
    struct Moment
    {
        std::shared_ptr<const Snapshot> snapshot;
        clock::time_point at;
    };

    void remember_since(clock::time_point at);

    RuleSet m_rules;
    std::deque<Moment> m_moments; // some seconds apart
    PendingWatch m_pending;
    std::optional<double> m_seconds;
    std::map<std::string, clock::time_point> m_since; // by rule and subject
    std::vector<Finding> m_findings;
};

} // namespace kavstat
