#include "health/report.h"

#include "format/text.h"
#include "format/units.h"

#include <algorithm>

namespace kavstat {

namespace {

// Per rule. A lost peer can leave thousands of connections stuck.
constexpr int most_findings_shown = 10;
constexpr std::size_t most_findings_in_status_line = 3;

const char* upper_word(Severity severity)
{
    return severity == Severity::critical ? "CRITICAL" : "WARNING";
}

// For monitors, a bar starts the performance data.
std::string one_line(const std::string& text)
{
    std::string line = plain_text(text);
    std::replace(line.begin(), line.end(), '|', '/');
    return line;
}

std::string looked_at(const HealthReport& report)
{
    const std::string rates = report.seconds ? "rates over " + shown_value(Form::seconds, *report.seconds)
                                             : "levels only, as rates take two moments";
    return plural_text(report.rules, "rule") + ", " + plural_text(report.peers, "peer") + ", " +
           plural_text(report.applications, "application") + ", " + plural_text(report.connections, "open connection") +
           "; " + rates + (report.b_past ? "; figures of " + date_and_time(report.capture_time) : "");
}

std::string status_line(const HealthReport& report)
{
    std::string line = std::string("KAV ") + word_of(report.status()) + ": ";
    if (!report.unknown.empty()) {
        return line + report.unknown;
    }
    if (report.findings.empty()) {
        return line + "healthy - " + looked_at(report);
    }
    std::size_t problems = report.findings.size();
    for (const Finding& finding : report.findings) {
        problems += finding.others;
    }
    line += plural_text(problems, "problem") + " - ";
    for (std::size_t at = 0; at < report.findings.size(); ++at) {
        if (at == most_findings_in_status_line) {
            return line + "; ...";
        }
        const Finding& finding = report.findings[at];
        line += (at > 0 ? "; " : "") + finding.subject() + ": " + finding.rule->name;
    }
    return line;
}

std::string status_line_of(const Finding& finding)
{
    std::string line =
        std::string(upper_word(finding.severity)) + " " + finding.subject() + ": " + finding.figure_text();
    const std::string since = text_of(finding.since);
    return line + (since.empty() ? "" : ", " + since) + " [" + finding.rule->name + "]";
}

// What was looked at, without what was found.
HealthReport looked_at_report(const RuleSet& rules, const Snapshot& now, std::string source)
{
    HealthReport report;
    report.source = std::move(source);
    report.rules = static_cast<int>(std::count_if(rules.settings.begin(), rules.settings.end(),
                                                  [](const RuleSetting& setting) { return setting.b_enabled; }));
    report.peers = static_cast<int>(now.peers.size());
    report.applications = static_cast<int>(now.apps.size());
    report.connections = now.active_connections;
    report.engine_start_time = now.engine_start_time;
    report.capture_time = now.capture_time;
    return report;
}

void add_line(Output& output, const std::string& line)
{
    output.add(one_line(line));
    output.add('\n');
}

} // namespace

const char* word_of(HealthStatus status)
{
    switch (status) {
    case HEALTH_OK:
        return "OK";
    case HEALTH_WARNING:
        return "WARNING";
    case HEALTH_CRITICAL:
        return "CRITICAL";
    case HEALTH_UNKNOWN:
        break;
    }
    return "UNKNOWN";
}

HealthStatus HealthReport::status() const
{
    if (!unknown.empty()) {
        return HEALTH_UNKNOWN;
    }
    if (findings.empty()) {
        return HEALTH_OK;
    }
    return findings.front().severity == Severity::critical ? HEALTH_CRITICAL : HEALTH_WARNING;
}

HealthReport health_report(const RuleSet& rules, const HealthMoments& moments, std::string source)
{
    HealthReport report = looked_at_report(rules, *moments.now, std::move(source));
    report.findings = findings(rules, moments);
    if (moments.before != nullptr && moments.seconds > 0) {
        report.seconds = moments.seconds;
        report.b_restarted = moments.before->engine_start_time != moments.now->engine_start_time;
    }
    return report;
}

HealthReport health_report(const HealthWatch& watch, const Snapshot& now, std::string source)
{
    HealthReport report = looked_at_report(watch.rules(), now, std::move(source));
    report.findings = watch.findings();
    report.seconds = watch.seconds();
    return report;
}

HealthReport unknown_health(const RuleSet& rules, std::string reason, std::string source, bool b_no_engine)
{
    HealthReport report;
    report.unknown = std::move(reason);
    report.source = std::move(source);
    if (b_no_engine) {
        report.findings = findings(rules, {});
    }
    return report;
}

void write_health_text(const HealthReport& report, bool b_all, Output& output)
{
    add_line(output, status_line(report));
    const Rule* rule = nullptr;
    int shown = 0;
    std::size_t left_out = 0; // that --all lists
    std::size_t others = 0;   // that are only counted
    const auto say_left_out = [&] {
        if (left_out + others > 0) {
            const std::string more = plural_text(left_out + others, "more " + std::string(word_of(rule->scope)));
            add_line(output, "... and " + more + " [" + rule->name + "]" +
                                 (left_out == 0 ? ""
                                  : others == 0 ? "; --all lists them"
                                                : "; --all lists the worst"));
        }
    };
    for (const Finding& finding : report.findings) {
        if (finding.rule != rule) {
            say_left_out();
            rule = finding.rule;
            shown = 0;
            left_out = others = 0;
        }
        others += finding.others;
        if (shown == most_findings_shown && !b_all) {
            ++left_out;
            continue;
        }
        ++shown;
        add_line(output, status_line_of(finding));
        // The findings of a rule share one text.
        if (shown == 1) {
            add_line(output, std::string("    ") + finding.rule->meaning + " " + finding.rule->remedy);
        }
    }
    say_left_out();
    if (report.b_restarted) {
        add_line(output, "The engine was started anew between the two moments; rates count from that start.");
    }
    if (!report.findings.empty() && report.unknown.empty()) {
        add_line(output, "Looked at: " + looked_at(report));
    }
}

} // namespace kavstat
