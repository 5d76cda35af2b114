// The report as JSON, and its schema.
#include "health/report.h"

#include "format/schema_object.h"
#include "format/text.h"

#include <nlohmann/json.hpp>

#include <initializer_list>

namespace kavstat {

namespace {

using ordered_json = nlohmann::ordered_json;

ordered_json or_null(bool b_known, ordered_json value)
{
    return b_known ? std::move(value) : ordered_json();
}

ordered_json json_of(const Finding& finding)
{
    const Rule& rule = *finding.rule;
    const Since& since = finding.since;
    return {
        {"rule", rule.name},
        {"scope", word_of(rule.scope)},
        {"severity", word_of(finding.severity)},
        {"subject", finding.subject()},
        {"peer", or_null(rule.scope != RuleScope::engine, finding.peer_number)},
        {"host_name", or_null(rule.scope == RuleScope::peer, clean_text(finding.host_name))},
        {"kav_peer_id", or_null(!finding.kav_peer_id.empty(), finding.kav_peer_id)},
        {"application", or_null(rule.scope == RuleScope::application, finding.application)},
        {"connection", or_null(rule.scope == RuleScope::connection, finding.connection.header.m_conn_id)},
        {"text", finding.figure_text()},
        {"value", or_null(rule.form != Form::flag, finding.value)},
        {"threshold", or_null(rule.has_threshold(), finding.threshold)},
        {"since", or_null(since.kind == Since::Kind::time, since.time)},
        {"for_at_least_seconds", or_null(since.kind == Since::Kind::at_least, since.seconds)},
        {"meaning", rule.meaning},
        {"remedy", rule.remedy},
        {"others", finding.others},
    };
}

ordered_json type(const ordered_json& words, const char* description)
{
    return {{"type", words}, {"description", description}};
}

ordered_json one_of(std::initializer_list<const char*> words, const char* description)
{
    return {{"enum", ordered_json(words)}, {"description", description}};
}

ordered_json or_null_type(const char* word)
{
    return {word, "null"};
}

ordered_json finding_schema()
{
    return closed_object(
        {{"rule", type("string", "the rule's name")},
         {"scope", one_of({"engine", "peer", "application", "connection"}, "what it is about")},
         {"severity", one_of({"warning", "critical"}, "how bad it is")},
         {"subject", type("string", "which engine, peer, application or connection, for people")},
         {"peer", type(or_null_type("integer"), "the peer's number, -1 when it is gone")},
         {"host_name", type(or_null_type("string"), "the peer's name, as it sent it")},
         {"kav_peer_id", type(or_null_type("string"), "the peer engine's identity")},
         {"application", type(or_null_type("string"),
                              "its port, with -source when it is the client's and -handleN when it has names")},
         {"connection", type(or_null_type("integer"), "the connection's id")},
         {"text", type("string", "figure and threshold, for people")},
         {"value", type(or_null_type("number"), "the figure in base units: bytes, seconds, a ratio")},
         {"threshold", type(or_null_type("number"), "what it is compared with, in the same unit")},
         {"since", type(or_null_type("integer"), "seconds since the epoch, when it is known exactly")},
         {"for_at_least_seconds", type(or_null_type("number"), "how long it has been so, as far as is known")},
         {"meaning", type("string", "what it means")},
         {"remedy", type("string", "what to do")},
         {"others",
          type("integer", "how many more findings of the rule are left out after this one, none of them worse")}},
        "one thing that is wrong");
}

} // namespace

std::string json_of_finding(const Finding& finding)
{
    return json_of(finding).dump(-1, ' ', true, ordered_json::error_handler_t::replace);
}

void write_health_json(const HealthReport& report, Output& output)
{
    ordered_json findings = ordered_json::array();
    for (const Finding& finding : report.findings) {
        findings.push_back(json_of(finding));
    }
    const bool b_judged = report.unknown.empty();
    const ordered_json document = {
        {"kavstat_health", health_json_version},
        {"kavstat_version", KAV_VERSION},
        {"status", lower_case(word_of(report.status()))},
        {"exit_status", static_cast<int>(report.status())},
        {"reason", or_null(!b_judged, report.unknown)},
        {"source", report.source},
        {"engine_start_time", or_null(b_judged, report.engine_start_time)},
        {"capture_time", or_null(b_judged, report.capture_time)},
        {"seconds", or_null(report.seconds.has_value(), report.seconds.value_or(0))},
        {"restarted", report.b_restarted},
        {"looked_at",
         {{"rules", report.rules},
          {"peers", report.peers},
          {"applications", report.applications},
          {"connections", report.connections}}},
        {"findings", findings},
    };
    output.add(document.dump(2, ' ', true, ordered_json::error_handler_t::replace));
    output.add('\n');
}

std::string health_json_schema()
{
    const ordered_json count = type("integer", "how many");
    const ordered_json members = {
        {"kavstat_health", {{"const", health_json_version}, {"description", "version of this document's form"}}},
        {"kavstat_version", type("string", "version of the program that wrote the document")},
        {"status", one_of({"ok", "warning", "critical", "unknown"}, "the worst of all findings")},
        {"exit_status", type("integer", "0 ok, 1 warning, 2 critical, 3 unknown")},
        {"reason", type(or_null_type("string"), "why nothing could be judged")},
        {"source", type("string", "the running engine, or the saved file's name")},
        {"engine_start_time", type(or_null_type("integer"), "seconds since the epoch")},
        {"capture_time", type(or_null_type("integer"), "when the figures were true, seconds since the epoch")},
        {"seconds", type(or_null_type("number"), "between the two moments; null when there was one, and no rates")},
        {"restarted", type("boolean", "the engine was started anew between the two moments")},
        {"looked_at",
         closed_object({{"rules", count}, {"peers", count}, {"applications", count}, {"connections", count}},
                       "enabled rules, and what they were judged for; connections are open ones")},
        {"findings",
         {{"type", "array"}, {"description", "what is wrong, critical first"}, {"items", finding_schema()}}},
    };
    ordered_json schema = {{"$schema", "https://json-schema.org/draft/2020-12/schema"},
                           {"title", "Health of the KAV engine, as kavstat health --json gives it"}};
    schema.update(
        closed_object(members, "Figures and thresholds are in base units: bytes, seconds, ratios, per second."));
    return schema.dump(2) + "\n";
}

} // namespace kavstat
