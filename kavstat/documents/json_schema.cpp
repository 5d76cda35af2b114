// The schema of the JSON document: the places by hand, the counters from their table. `kavstat schema` prints it, and
// docs/kavstat.schema.json is that text.
#include "documents/statistics_json.h"
#include "model/counter_names.h"
#include "model/record_fields.h"

#include <nlohmann/json.hpp>

#include <limits>
#include <type_traits>

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

ordered_json boolean(const std::string& description)
{
    return {{"type", "boolean"}, {"description", description}};
}

ordered_json pattern(const std::string& expression, const std::string& description)
{
    return {{"type", "string"}, {"pattern", expression}, {"description", description}};
}

ordered_json address(const std::string& description)
{
    return pattern("^[0-9]{1,3}(\\.[0-9]{1,3}){3}$", description);
}

ordered_json identity(const std::string& description)
{
    return pattern("^([0-9a-f]{2}:){5}[0-9a-f]{2}-[0-9a-f]{12}-[0-9a-f]{8}$", description);
}

ordered_json mac(const std::string& description)
{
    return pattern("^([0-9a-f]{2}:){5}[0-9a-f]{2}$", description);
}

ordered_json port(const std::string& description)
{
    ordered_json schema = integer(description);
    schema["minimum"] = 0;
    schema["maximum"] = 65535;
    return schema;
}

ordered_json word_of_list(const auto& words, const std::string& description)
{
    ordered_json list = ordered_json::array();
    for (const char* const word : words) {
        list.push_back(word);
    }
    if (list.front() != "unknown") {
        list.push_back("unknown");
    }
    return {{"enum", list}, {"description", description}};
}

// An object with just these members, all of them there.
ordered_json object(const ordered_json& members, const std::string& description)
{
    ordered_json required = ordered_json::array();
    for (const auto& member : members.items()) {
        required.push_back(member.key());
    }
    return {{"type", "object"},
            {"description", description},
            {"properties", members},
            {"required", required},
            {"additionalProperties", false}};
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
    return object(members, description);
}

// The members of a record, by the types of its fields.
class schema_visitor
{
public:
    explicit schema_visitor(ordered_json& members) : m_members(members) {}

    template <typename Value>
    void operator()(const char* key, const Value&) const
    {
        if constexpr (std::is_same_v<Value, bool>) {
            m_members[key] = {{"type", "boolean"}};
        } else if constexpr (std::is_integral_v<Value>) {
            m_members[key] = {{"type", "integer"}};
        } else {
            m_members[key] = {{"type", "string"}};
        }
    }

private:
    ordered_json& m_members;
};

ordered_json global_schema()
{
    return object({{"active_connections", integer("connections open now")},
                   {"counters", reference("engine_counters")},
                   {"connection_counters", reference("connection_counters")}},
                  "the engine as a whole; connection_counters are sums over all connections, closed ones included");
}

ordered_json peer_schema()
{
    return object({{"slot", integer("storage place, from 0")},
                   {"number", integer("the peer's number, Peer-No in reports")},
                   {"context", integer("the context's number, 0 to 65535")},
                   {"mac_id", mac("the peer device's MAC address")},
                   {"kav_peer_id", identity("the peer engine's identity")},
                   {"kav_peer_hash", integer("the number in brackets behind the identity in reports, 0 to 65535")},
                   {"ip", address("address that the peer reported; 0.0.0.0 when it did not")},
                   {"host_name", text("as the peer sent it; empty when not known")},
                   {"outdated", boolean("the peer's record is outdated")},
                   {"update_from_active_conn", boolean("the record came from an active connection")},
                   {"active_connections", integer("connections open with the peer now")},
                   {"counters", reference("peer_counters")},
                   {"connection_counters", reference("connection_counters")}},
                  "one peer; connection_counters are sums over its connections");
}

ordered_json connection_schema()
{
    ordered_json transport = ordered_json::object();
    visit_transport(SO_stat_conn_header{}, schema_visitor(transport));
    return object({{"slot", integer("storage place, from 0")},
                   {"id", integer("the connection's id")},
                   {"peer", integer("number of the connection's peer, -1 when there is none")},
                   {"client_ip", address("the client's address")},
                   {"client_port", port("the client's port")},
                   {"server_ip", address("the server's address")},
                   {"server_port", port("the server's port")},
                   {"open", boolean("the connection is open")},
                   {"open_time", integer("seconds since the epoch")},
                   {"close_time", integer("seconds since the epoch, 0 or less while it is open")},
                   {"transport",
                    object(transport, "the connection as the transport optimizer sees it; states are bytes of flags")},
                   {"counters", reference("connection_counters")}},
                  "one connection that the engine still lists, open or closed");
}

ordered_json app_schema()
{
    return object({{"slot", integer("storage place, from 0")},
                   {"peer", integer("number of the peer with this identity, -1 when there is none")},
                   {"kav_peer_id", identity("the peer engine's identity")},
                   {"port", port("the application's port")},
                   {"is_source_port", boolean("the port is the client's, not the server's")},
                   {"policy_engine_handler", integer("handle of the application's names, 0 to 1023")},
                   {"opened", integer("connections opened, wraps at 2^23")},
                   {"closed", integer("connections closed, wraps at 2^24")},
                   {"counters", reference("application_counters")}},
                  "one application's traffic with one peer");
}

ordered_json nack_schema()
{
    return object({{"time", integer("seconds since the epoch")},
                   {"type", integer("0 this engine sent the NACK, otherwise it was told and sent the message again")},
                   {"type_word", {{"enum", {"nack", "rtx"}}}},
                   {"reason", integer("the reason's code")},
                   {"reason_word", word_of_list(nack_reason_words, "the reason")},
                   {"peer", integer("the peer's number")},
                   {"connection", integer("the connection's id")},
                   {"message", integer("the message's sequence number")}},
                  "one entry of the NACK log, oldest first");
}

ordered_json config_schema()
{
    ordered_json members = ordered_json::object();
    visit_config(RE_stat_config_param{}, schema_visitor(members));
    members["mac_id"] = mac("the device's MAC address");
    members["kav_peer_id"] = identity("the engine's identity");
    members["comp_type_word"] = word_of_list(comp_type_words, "comp_type in words");
    ordered_json schema = object(members, "the engine's configuration; null when it has published none");
    schema["type"] = {"object", "null"};
    return schema;
}

ordered_json bypass_schema()
{
    const ordered_json entry =
        object({{"server_ip", address("the server's address")},
                {"server_port", port("the server's port")},
                {"reason", integer("the reason's code")},
                {"reason_word", word_of_list(bypass_reason_words, "why the server is bypassed")},
                {"since", integer("seconds since the epoch")},
                {"next_attempt", integer("when it is tried again, seconds since the epoch; 0 for never")},
                {"bytes", integer("gone around the engine")},
                {"connections", integer("gone around the engine")}},
               "one server whose traffic goes around the engine");
    ordered_json schema = array_of(entry, "the auto-bypass table; null when there is none");
    schema["type"] = {"array", "null"};
    return schema;
}

} // namespace

std::string statistics_json_schema()
{
    ordered_json members = {
        {"kavstat_json", {{"const", json_version}, {"description", "version of this document's form"}}},
        {"kavstat_version", text("version of the program that wrote the document")},
        {"source", {{"enum", {"live", "file"}}, {"description", "the running engine or a saved file"}}},
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
    members["nacks"] = array_of(nack_schema(), "the NACK log");
    members["config"] = config_schema();
    members["bypass"] = bypass_schema();

    const ordered_json schema = {
        {"$schema", "https://json-schema.org/draft/2020-12/schema"},
        {"title", "Statistics of the KAV engine, as kavstat json and kavstat serve give them"},
        {"description", "Counters are integers of 64 bits in the unit that their description names; a reader that "
                        "keeps numbers as doubles loses digits above 2^53. Sections outside the scope asked for are "
                        "missing. Bytes that are no UTF-8 have been replaced by U+FFFD."},
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
