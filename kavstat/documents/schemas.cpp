#include "documents/schemas.h"

#include "documents/diff.h"
#include "documents/statistics_json.h"
#include "format/schema_object.h"
#include "health/report.h"

#include <nlohmann/json.hpp>

namespace kavstat {

namespace {

using ordered_json = nlohmann::ordered_json;

ordered_json described(const ordered_json& type, const char* description)
{
    return {{"type", type}, {"description", description}};
}

ordered_json map_of(const ordered_json& values, const char* description)
{
    return {{"type", "object"}, {"description", description}, {"additionalProperties", values}};
}

ordered_json list_of(const ordered_json& items, const char* description)
{
    return {{"type", "array"}, {"description", description}, {"items", items}};
}

ordered_json version_of_form(int version)
{
    return {{"const", version}, {"description", "version of this document's form"}};
}

ordered_json titled(const char* title, const ordered_json& schema)
{
    ordered_json document = {{"$schema", "https://json-schema.org/draft/2020-12/schema"}, {"title", title}};
    document.update(schema);
    return document;
}

ordered_json epoch_seconds()
{
    return described("integer", "seconds since the epoch");
}

ordered_json statistics_line_schema()
{
    ordered_json statistics = ordered_json::parse(statistics_json_schema());
    ordered_json definitions = statistics.at("$defs");
    statistics.erase("$defs");
    statistics.erase("$schema");
    definitions["statistics"] = statistics;
    const ordered_json error = closed_object({{"kavstat_json", version_of_form(json_version)},
                                              {"capture_time", epoch_seconds()},
                                              {"error", described("string", "why there are no statistics")}},
                                             "a line without statistics");
    return titled("A line of kavstat json --interval",
                  {{"oneOf", {{{"$ref", "#/$defs/statistics"}}, error}}, {"$defs", definitions}});
}

ordered_json diff_schema()
{
    const auto side = [](const char* description) {
        return closed_object({{"name", described("string", "the file's name, or the running engine")},
                              {"capture_time", epoch_seconds()},
                              {"engine_start_time", epoch_seconds()}},
                             description);
    };
    const ordered_json counter = closed_object(
        {{"unit", described("string", "the unit of before, after and change")},
         {"before", described("integer", "the value at the earlier moment")},
         {"after", described("integer", "the value at the later moment")},
         {"change", described({"integer", "null"}, "what it changed by; null for a total that went back")},
         {"per_second", described("number", "the rate of a total; left out when it cannot be known")},
         {"note", {{"enum", {"went_back", "since_restart"}}, {"description", "how the change must be read"}}}},
        "one counter", {"per_second", "note"});
    const ordered_json section =
        closed_object({{"scope", described("string", "what is counted")},
                       {"peer", described("integer", "the peer's number, -1 when it is gone")},
                       {"host_name", described("string", "the peer's name, as it sent it")},
                       {"kav_peer_id", described("string", "the peer engine's identity")},
                       {"application", described("string", "the application's port, as in the live view")},
                       {"state", {{"enum", {"new", "gone"}}, {"description", "when it was there at one moment only"}}},
                       {"counters", map_of(counter, "by the counters' keys")}},
                      "an engine, all connections, a peer or an application",
                      {"peer", "host_name", "kav_peer_id", "application", "state"});
    return titled("What changed between two moments, as kavstat diff --json gives it",
                  closed_object({{"kavstat_diff", version_of_form(diff_json_version)},
                                 {"before", side("the earlier moment")},
                                 {"after", side("the later moment")},
                                 {"seconds", described("integer", "between the two")},
                                 {"restarted", described("boolean", "the engine was restarted between the two")},
                                 {"sections", list_of(section, "what has changed")}},
                                "Totals and rates."));
}

ordered_json watch_schema()
{
    const ordered_json page = described("string", "the page's name");
    ordered_json finding = ordered_json::parse(health_json_schema()).at("properties").at("findings").at("items");
    const ordered_json cell = {{"type", {"string", "number", "boolean", "null"}}};
    const ordered_json figures =
        closed_object({{"kavstat_watch", version_of_form(1)},
                       {"page", page},
                       {"capture_time", epoch_seconds()},
                       {"engine_start_time", epoch_seconds()},
                       {"figures", map_of({{"type", {"number", "null"}}},
                                          "the overview's figures, the unit is in the key; null when unknown")},
                       {"health", list_of(finding, "what is wrong, the most severe first")},
                       {"rows", list_of(map_of(cell, "a row by the columns of --sort"), "the page's rows")}},
                      "a line with figures");
    const ordered_json error = closed_object({{"kavstat_watch", version_of_form(1)},
                                              {"page", page},
                                              {"error", described("string", "why there are no figures")}},
                                             "a line without figures");
    return titled("A line of kavstat watch --json", {{"oneOf", {figures, error}}});
}

} // namespace

const std::vector<std::string>& schema_words()
{
    static const std::vector<std::string> words = {"statistics", "statistics-line", "health", "watch", "diff"};
    return words;
}

std::string schema_of(const std::string& word)
{
    if (word == "health") {
        return health_json_schema();
    }
    if (word == "statistics-line") {
        return statistics_line_schema().dump(2) + "\n";
    }
    if (word == "watch") {
        return watch_schema().dump(2) + "\n";
    }
    if (word == "diff") {
        return diff_schema().dump(2) + "\n";
    }
    return statistics_json_schema();
}

} // namespace kavstat
