// The table of health rules. A condition is data, so that the same row is evaluated for two moments (evaluation.h),
// printed as an alerting rule of Prometheus (prometheus_rules.h), and listed in the manual page kav-rules(5). The row
// also contains the texts for people.
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

// A rule is evaluated for each of these.
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

// A value in the statistics of one moment.
struct Figure
{
    enum class Kind
    {
        engine,                    // id: an RE_stat_global_id; rules of every scope may use it
        peer,                      // id: an RE_stat_peer_id
        connections,               // id: an RE_stat_conn_id; the sum of all connections, or of the peer's
        application,               // id: an RE_stat_app_id
        active_connections,        // of the engine or of the peer
        outdated,                  // 1 if the peer's record is outdated
        connected,                 // 1 if the peer's record comes from an active connection
        engine_start_time,         // seconds since the epoch
        bypass_servers,            // in the auto-bypass table, for any reason
        bypass_servers_with_nacks, // in the auto-bypass table for repeated NACKs
    };
    Kind kind = Kind::engine;
    int id = 0;
    double unit = 1; // the value of 1 in base units (bytes, seconds, a ratio)
};

// A sum of figures in base units.
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

// A condition: a value that is computed from sums, and its limit.
struct Term
{
    enum class Kind
    {
        level,             // part
        ratio,             // part / whole; false while whole is 0
        rate,              // growth of part per second
        share,             // growth of part / growth of whole
        age,               // seconds since part, a time; false if that is 0 or in the future
        savings,           // (1 - growth of part / growth of whole) / (the same for the time before)
        silence,           // seconds without a byte moved on a connection that has data pending
        engine_is_missing, // there are no statistics
    };
    Kind kind = Kind::level;
    Sum part = {};
    Sum whole = {};
    Comparison comparison = Comparison::above;
    double limit = 0;
    // Shares and savings of smaller sums are not evaluated, so that three messages do not raise an alarm.
    double least_part = 0;
    double least_whole = 0;
    // Savings over a shorter time must have dropped in the traffic of several applications.
    double least_seconds = 0;

    // Whether the value depends on two moments.
    bool needs_two_moments() const;
};

// How a figure is shown.
enum class Form
{
    state,      // of the cache: "failed"
    flag,       // no value is shown
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
    // The term with the value that is shown and whose limit is the threshold, and further conditions.
    Term term = {};
    std::array<std::optional<Term>, 3> also = {};
    Form form = Form::count;
    // How long the condition must hold before Prometheus raises an alert, in seconds. If it is above 0, the condition
    // must hold at both moments in an evaluation.
    int hold = 0;
    const char* figure = nullptr;  // the name of the value: "messages nacked"
    const char* meaning = nullptr; // complete sentences
    const char* remedy = nullptr;  // complete sentences

    bool needs_two_moments() const;
    // Rules about states and flags have no threshold.
    bool has_threshold() const { return form != Form::state && form != Form::flag; }
};

// All rules, in the order in which findings of one severity are shown.
std::span<const Rule> all_rules();
// Returns null if no rule has this name.
const Rule* find_rule(std::string_view name);

// "engine", "peer", "application", "connection"; "warning", "critical".
const char* word_of(RuleScope scope);
const char* word_of(Severity severity);

// A rule with its settings.
struct RuleSetting
{
    const Rule* rule;
    double threshold; // the limit of the rule's term
    int hold;         // seconds
    Severity severity;
    bool b_enabled = true;
};

// All rules with their settings, in the order of the table.
struct RuleSet
{
    RuleSet(); // the settings of the table

    std::vector<RuleSetting> settings;
    int window = 300; // seconds over which alerting rules compute rates
};

// The content of a file of settings, or its first error. kav-rules(5) describes the format.
struct RuleFileResult
{
    RuleSet rules;
    std::string error; // "FILE:LINE: text"; empty without an error
};
RuleFileResult read_rule_file(const std::string& path);

// Formats a value for people: "1.20%", "12.5 ms", "failed".
std::string shown_value(Form form, double value);
// Returns " (should be at most 0.10%)", or an empty text if the rule has no threshold.
std::string limit_text(const Rule& rule, double threshold);

} // namespace kavstat
