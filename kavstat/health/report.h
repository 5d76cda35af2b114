// What `kavstat health` says, as text that monitors and people read, and as JSON.
#pragma once

#include "format/output.h"
#include "health/evaluation.h"

#include <optional>
#include <string>
#include <vector>

namespace kavstat {

// The exit status, as monitoring plugins have it.
enum HealthStatus : int
{
    HEALTH_OK = 0,
    HEALTH_WARNING = 1,
    HEALTH_CRITICAL = 2,
    HEALTH_UNKNOWN = 3, // there is no engine, or it could not be judged
};

// "OK", "WARNING", "CRITICAL", "UNKNOWN"
const char* word_of(HealthStatus status);

struct HealthReport
{
    std::vector<Finding> findings;
    std::string unknown; // why nothing could be judged; empty when it could
    std::string source;  // "the running engine", or the file's name

    // What was looked at.
    int rules = 0; // that are enabled
    int peers = 0;
    int applications = 0;
    int connections = 0; // open ones
    std::time_t engine_start_time = 0;
    std::time_t capture_time = 0;
    std::optional<double> seconds; // between the two moments; nothing when there was one
    bool b_restarted = false;      // the engine was started anew between the two

    HealthStatus status() const;
};

// Judges the moments and says what was looked at. moments.now: not null.
HealthReport health_report(const RuleSet& rules, const HealthMoments& moments, std::string source);
// Nothing could be judged. b_no_engine: because no engine is running.
HealthReport unknown_health(const RuleSet& rules, std::string reason, std::string source, bool b_no_engine);

// The first line is a monitoring plugin's status line. b_all: also all findings of a rule that has many.
void write_health_text(const HealthReport& report, bool b_all, Output& output);
void write_health_json(const HealthReport& report, Output& output);
// One of its findings, on one line.
std::string json_of_finding(const Finding& finding);
// The JSON Schema of it.
std::string health_json_schema();

// Version of the document's form, its "kavstat_health" member: goes up when a key changes its meaning or goes away.
constexpr int health_json_version = 1;

} // namespace kavstat
