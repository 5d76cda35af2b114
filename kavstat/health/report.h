// The report of `kavstat health`, as text for monitors and people, and as JSON.
#pragma once

#include "format/output.h"
#include "health/evaluation.h"

#include <optional>
#include <string>
#include <vector>

namespace kavstat {

// The exit statuses of monitoring plugins.
enum HealthStatus : int
{
    HEALTH_OK = 0,
    HEALTH_WARNING = 1,
    HEALTH_CRITICAL = 2,
    HEALTH_UNKNOWN = 3, // without an engine, or after an error
};

// "OK", "WARNING", "CRITICAL", "UNKNOWN"
const char* word_of(HealthStatus status);

struct HealthReport
{
    std::vector<Finding> findings;
    std::string unknown; // why the rules could not be evaluated; empty if they were
    std::string source;  // "the running engine", or the file's name

    // What the rules were evaluated for.
    int rules = 0; // enabled ones
    int peers = 0;
    int applications = 0;
    int connections = 0; // open ones
    std::time_t engine_start_time = 0;
    std::time_t capture_time = 0;
    std::optional<double> seconds; // between the two moments; empty if there was one
    bool b_restarted = false;      // the engine was restarted between the two
    bool b_past = false;           // the figures are saved or recorded ones

    HealthStatus status() const;
};

// Evaluates the moments and makes the report. moments.now: not null.
HealthReport health_report(const RuleSet& rules, const HealthMoments& moments, std::string source);
// Makes the report of what a live view found at its last update. now: what it was updated with.
HealthReport health_report(const HealthWatch& watch, const Snapshot& now, std::string source);
// Makes the report if the rules cannot be evaluated. b_no_engine: because no engine is running.
HealthReport unknown_health(const RuleSet& rules, std::string reason, std::string source, bool b_no_engine);

// Writes the report. The first line is the status line of a monitoring plugin. b_all: without it, ten findings per
// rule.
void write_health_text(const HealthReport& report, bool b_all, Output& output);
void write_health_json(const HealthReport& report, Output& output);
// Returns a finding as JSON, on one line.
std::string json_of_finding(const Finding& finding);
// Returns the JSON Schema of write_health_json().
std::string health_json_schema();

// The member "kavstat_health" of the document. It increases when a key is removed or changes its meaning.
constexpr int health_json_version = 1;

} // namespace kavstat
