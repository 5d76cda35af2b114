// The one table of what is wrong with an engine, when, and what to do about it. A condition is data, so that one row is
// evaluated over two moments (evaluation.h), printed as an alerting rule of Prometheus (prometheus_rules.h), and
// explained to people.
#pragma once

#include "RE_statistics.h"

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kavstat {

// What a rule is evaluated for, one by one.
enum class RuleScope
{
    engine,
    peer,
    application, // one application with one peer
    connection,
};

enum class Severity
{
    warning,
    critical,
};

// One figure of a moment.
struct Figure
{
    enum class Kind
    {
        engine,                    // id: an RE_stat_global_id; rules of every scope may use it
        peer,                      // id: an RE_stat_peer_id
        connections,               // id: an RE_stat_conn_id; the sum of all connections, or of the peer's
        application,               // id: an RE_stat_app_id
        active_connections,        // of the engine or of the peer
        outdated,                  // 1 when the peer's record is
        connected,                 // 1 when the peer's record comes from an active connection
        engine_start_time,         // seconds since the epoch
        bypass_servers,            // in the auto-bypass table, for any reason
        bypass_servers_with_nacks, // in the auto-bypass table for repeated NACKs
    };
    Kind kind = Kind::engine;
    int id = 0;
    double unit = 1; // what 1 is in base units (bytes, seconds, a ratio)
};

// The sum of some figures in base units.
class Sum
{
public:
    constexpr Sum() = default;
    // NOLINTNEXTLINE(google-explicit-constructor)
    constexpr Sum(const Figure& figure) : m_figures{figure}, m_size(1) {}
    constexpr Sum operator+(const Figure& figure) const
    {
        Sum sum = *this;
        sum.m_figures.at(sum.m_size++) = figure;
        return sum;
    }
    std::span<const Figure> figures() const { return {m_figures.data(), m_size}; }

private:
    std::array<Figure, 4> m_figures{};
    std::size_t m_size = 0;
};

enum class Comparison
{
    above,
    at_least,
    below,
    equal,
    not_equal,
};

// A figure made of sums, and what it is compared with.
struct Term
{
    enum class Kind
    {
        level,             // part
        ratio,             // part / whole; never true while the whole is 0
        rate,              // what part grew by per second
        share,             // what part grew by / what whole grew by
        age,               // seconds since part, a moment; never true when that is 0 or in the future
        savings,           // 1 - what part grew by / what whole grew by, as a share of the same of the time before
        silence,           // seconds in which a connection moved no byte though it has data pending
        engine_is_missing, // there are no statistics
    };
    Kind kind = Kind::level;
    Sum part = {};
    Sum whole = {};
    Comparison comparison = Comparison::above;
    double limit = 0;
    // A share or savings of less than this says nothing: three messages make no alarm.
    double least_part = 0;
    double least_whole = 0;
    // For savings: over a shorter time the drop must be one of several applications.
    double least_seconds = 0;

    // Whether it is about what happened between two moments.
    bool needs_two_moments() const;
};

// How a figure is shown.
enum class Form
{
    state,      // of the cache: "failed"
    flag,       // true, and nothing more to say
    count,      // 17
    percent,    // 1.20%
    seconds,    // 1h5m, 12.5 ms
    bytes,      // 64.0 MiB
    per_second, // 0.50/s
};

struct Rule
{
    const char* name = nullptr; // snake_case
    RuleScope scope = RuleScope::engine;
    Severity severity = Severity::warning;
    // What is shown and compared with the threshold, then what must hold as well.
    Term term = {};
    std::array<std::optional<Term>, 3> also = {};
    Form form = Form::count;
    // Seconds that it must hold before Prometheus raises an alert. Two moments prove no more than the time between
    // them; with a value above 0 it must hold at both.
    int hold = 0;
    const char* figure = nullptr;  // what the figure is: "messages nacked"
    const char* meaning = nullptr; // complete sentences
    const char* remedy = nullptr;  // complete sentences

    bool needs_two_moments() const;
    // States and flags have none.
    bool has_threshold() const { return form != Form::state && form != Form::flag; }
};

// All rules, in the order in which findings of one severity are shown.
std::span<const Rule> all_rules();
// Null when there is none of that name.
const Rule* find_rule(std::string_view name);

// "engine", "peer", "application", "connection"; "warning", "critical".
const char* word_of(RuleScope scope);
const char* word_of(Severity severity);

// A rule as it is to be applied.
struct RuleSetting
{
    const Rule* rule;
    double threshold; // the limit of the rule's term
    int hold;         // seconds
    Severity severity;
    bool b_enabled = true;
};

// All rules with their settings, in the table's order.
struct RuleSet
{
    RuleSet(); // as the table has them

    std::vector<RuleSetting> settings;
    int window = 300; // seconds over which alerting rules take rates
};

// What a file of settings says, or where it is wrong. The format is in kavstat(1).
struct RuleFileResult
{
    RuleSet rules;
    std::string error; // "FILE:LINE: text"; empty when all is well
};
RuleFileResult read_rule_file(const std::string& path);

// The value as people read it: "1.20%", "12.5 ms", "failed".
std::string shown_value(Form form, double value);
// " (at most 0.10%)", or nothing when the rule has no threshold.
std::string limit_text(const Rule& rule, double threshold);

} // namespace kavstat
