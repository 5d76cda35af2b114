// The schema of the JSON document, from the tables of fields and counters.
#include "documents/statistics_json.h"
#include "format/schema_object.h"
#include "model/counter_names.h"
#include "model/record_fields.h"

#include <nlohmann/json.hpp>

#include <limits>

namespace kavstat {

namespace {

using ordered_json = nlohmann::ordered_json;

ordered_json integer(const std::string& description)
{
    return {{"type", "integer"}, {"description", description}};
}

ordered_json text(const std::string& description)
{
    return {{"type", "string"}, {"description", description}};
}

ordered_json pattern(const char* expression)
{
    return {{"type", "string"}, {"pattern", expression}};
}

// The schema of the alternative that FieldValue holds.
struct ValueSchema
{
    ordered_json operator()(bool) const { return {{"type", "boolean"}}; }
    ordered_json operator()(long long) const { return {{"type", "integer"}}; }
    ordered_json operator()(std::uint64_t) const { return {{"type", "integer"}, {"minimum", 0}}; }
    ordered_json operator()(Port) const { return {{"type", "integer"}, {"minimum", 0}, {"maximum", 65535}}; }
    ordered_json operator()(IpAddress) const { return pattern("^[0-9]{1,3}(\\.[0-9]{1,3}){3}$"); }
    ordered_json operator()(const RE_mac_id&) const { return pattern("^([0-9a-f]{2}:){5}[0-9a-f]{2}$"); }
    ordered_json operator()(const RE_kav_peer_id&) const
    {
        return pattern("^([0-9a-f]{2}:){5}[0-9a-f]{2}-[0-9a-f]{12}-[0-9a-f]{8}$");
    }
    ordered_json operator()(const Word& word) const
    {
        ordered_json words = word.words;
        if (!word.b_closed && words.front() != "unknown") {
            words.push_back("unknown");
        }
        return {{"enum", words}};
    }
    ordered_json operator()(std::string_view) const { return {{"type", "string"}}; }
};

// A record's fields as members of an object.
template <typename Record>
ordered_json members_of(Fields<Record> fields)
{
    ordered_json members = ordered_json::object();
    const Record record{};
    for (const Field<Record>& field : fields) {
        ordered_json schema = std::visit(ValueSchema{}, field.value(record));
        const std::string unit = field.unit ? std::string(" (") + get_stat_unit_word(*field.unit) + ")" : "";
        schema["description"] = field.meaning + unit;
        members[field.key] = schema;
    }
    return members;
}

ordered_json array_of(const ordered_json& items, const std::string& description)
{
    return {{"type", "array"}, {"description", description}, {"items", items}};
}

ordered_json reference(const std::string& name)
{
    return {{"$ref", "#/$defs/" + name}};
}

ordered_json counters(CounterScope scope, const std::string& description)
{
    ordered_json members = ordered_json::object();
    for (const NamedCounter& counter : counters_of(scope)) {
        const RE_stat_counter_info& info = counter.info;
        const std::string meaning = std::string(info.meaning) + " (" + get_stat_unit_word(info.unit) + ", " +
                                    get_stat_kind_word(info.kind) + ", " + info.name + ")";
        ordered_json schema = integer(meaning);
        if (scope == CounterScope::application) {
            schema["minimum"] = 0;
            schema["maximum"] = std::numeric_limits<std::uint32_t>::max();
        }
        if (counter.is_range()) {
            schema = array_of({{"type", "integer"}}, meaning);
            schema["minItems"] = counter.size();
            schema["maxItems"] = counter.size();
        }
        members[counter.key] = schema;
    }
    return closed_object(members, description);
}

ordered_json global_schema()
{
    ordered_json members = members_of(engine_fields);
    members["counters"] = reference("engine_counters");
    members["connection_counters"] = reference("connection_counters");
    return closed_object(
        members, "the engine as a whole; connection_counters are sums over all connections, closed ones included");
}

ordered_json peer_schema()
{
    ordered_json members = members_of(peer_fields);
    members["counters"] = reference("peer_counters");
    members["connection_counters"] = reference("connection_counters");
    return closed_object(members, "one peer; connection_counters are sums over its connections");
}

ordered_json connection_schema()
{
    ordered_json members = members_of(connection_fields);
    members["transport"] =
        closed_object(members_of(transport_fields), "the connection as the transport optimizer sees it");
    members["counters"] = reference("connection_counters");
    return closed_object(members, "one connection that the engine still lists, open or closed");
}

ordered_json app_schema()
{
    ordered_json members = members_of(app_fields);
    members["counters"] = reference("application_counters");
    return closed_object(members, "one application's traffic with one peer");
}

ordered_json or_null(ordered_json schema)
{
    schema["type"] = {schema["type"], "null"};
    return schema;
}

} // namespace

std::string statistics_json_schema()
{
    ordered_json members = {
        {"kavstat_json", {{"const", json_version}, {"description", "version of this document's form"}}},
        {"kavstat_version", text("version of the program that wrote the document")},
        {"source",
         {{"enum", {"live", "file", "history"}},
          {"description", "the running engine, a saved file or a recorded moment"}}},
        {"file", {{"type", {"string", "null"}}, {"description", "the saved file's name"}}},
        {"engine_start_time", integer("when the engine was started, seconds since the epoch")},
        {"capture_time", integer("when the figures were true, seconds since the epoch")},
    };
    ordered_json required = ordered_json::array();
    for (const auto& member : members.items()) {
        required.push_back(member.key());
    }
    members["global"] = global_schema();
    members["peers"] = array_of(peer_schema(), "the peers in ascending order of slots");
    members["connections"] = array_of(connection_schema(), "the connections in ascending order of slots");
    members["apps"] = array_of(app_schema(), "the applications in ascending order of slots");
    members["nacks"] =
        array_of(closed_object(members_of(nack_fields), "one entry"), "the NACK log, oldest entry first");
    members["config"] = or_null(
        closed_object(members_of(config_fields), "the engine's configuration; null when it has published none"));
    members["bypass"] =
        or_null(array_of(closed_object(members_of(bypass_fields), "one server whose traffic goes around the engine"),
                         "the auto-bypass table; null when there is none"));

    const ordered_json schema = {
        {"$schema", "https://json-schema.org/draft/2020-12/schema"},
        {"title", "Statistics of the KAV engine, as kavstat json and kavstat serve give them"},
        {"description", "Counters are integers of 64 bits in the unit that their description names; a reader that "
                        "keeps numbers as doubles loses digits above 2^53. Sections outside the scope asked for are "
                        "missing. Bytes that are not UTF-8 are replaced by U+FFFD."},
        {"type", "object"},
        {"properties", members},
        {"required", required},
        {"additionalProperties", false},
        {"$defs",
         {{"engine_counters", counters(CounterScope::engine, "counters of the engine as a whole")},
          {"peer_counters", counters(CounterScope::peer, "counters of one peer")},
          {"connection_counters", counters(CounterScope::connection, "counters of connections")},
          {"application_counters",
           counters(CounterScope::application, "counters of one application with one peer, wrap at 2^32")}}}};
    return schema.dump(2) + "\n";
}

} // namespace kavstat
