#include "RE_statistics_json.h"

#include "RE_counter_names.h"
#include "RE_json_writer.h"
#include "RE_record_fields.h"
#include "RE_snapshot.h"
#include "RE_text.h"

#include <span>
#include <type_traits>

namespace {

struct scope_word
{
    std::string_view word;
    bool RE_json_scopes::*flag;
};
constexpr scope_word scope_words[] = {
    {"global", &RE_json_scopes::b_global}, {"connections", &RE_json_scopes::b_connections},
    {"peers", &RE_json_scopes::b_peers},   {"apps", &RE_json_scopes::b_apps},
    {"nacks", &RE_json_scopes::b_nacks},   {"config", &RE_json_scopes::b_config},
    {"bypass", &RE_json_scopes::b_bypass},
};

// Writes a record's fields as members.
class member_visitor
{
public:
    explicit member_visitor(RE_json_writer& json) : m_json(json) {}

    template <typename Value>
    void operator()(std::string_view key, const Value& value) const
    {
        if constexpr (std::is_same_v<Value, bool>) {
            m_json.member_boolean(key, value);
        } else if constexpr (std::is_integral_v<Value>) {
            m_json.member(key, value);
        } else {
            m_json.member_text(key, value);
        }
    }

private:
    RE_json_writer& m_json;
};

// A range of counters is an array, as its members have no names of their own.
template <typename Value>
void write_figures(RE_json_writer& json, std::string_view key, RE_counter_scope scope, std::span<const Value> figures)
{
    json.key(key);
    json.begin_object();
    for (const RE_named_counter& counter : counters_of(scope)) {
        json.key(counter.key);
        if (counter.is_range()) {
            json.begin_array();
        }
        for (int id = counter.id(); id <= counter.info.last_id; ++id) {
            json.number(static_cast<long long>(figures[static_cast<std::size_t>(id)]));
        }
        if (counter.is_range()) {
            json.end_array();
        }
    }
    json.end_object();
}

void write_head(RE_json_writer& json, RE_source& source, const RE_snapshot& snapshot)
{
    json.member("kavstat_json", RE_json_version);
    json.member_text("kavstat_version", KAV_VERSION);
    json.member_text("source", source.is_live() ? "live" : "file");
    json.key("file");
    if (source.is_live()) {
        json.null();
    } else {
        json.text(source.name());
    }
    json.member("engine_start_time", snapshot.engine_start_time);
    json.member("capture_time", snapshot.capture_time);
}

void write_global(RE_json_writer& json, const RE_snapshot& snapshot)
{
    json.key("global");
    json.begin_object();
    json.member("active_connections", snapshot.active_connections);
    write_figures(json, "counters", RE_counter_scope::engine, std::span<const long long>(snapshot.engine));
    write_figures(json, "connection_counters", RE_counter_scope::connection,
                  std::span<const long long>(snapshot.connections));
    json.end_object();
}

void write_peers(RE_json_writer& json, const RE_snapshot& snapshot)
{
    json.key("peers");
    json.begin_array();
    for (const RE_snapshot_peer& peer : snapshot.peers) {
        const RE_stat_peer_header& header = peer.header;
        json.begin_object();
        json.member("slot", peer.slot);
        json.member("number", peer.number);
        json.member("context", header.m_context_id.context_number());
        json.member_text("mac_id", header.m_peer_mac_id.getString());
        json.member_text("kav_peer_id", header.m_kav_peer_id.getString());
        json.member("kav_peer_hash", header.m_kav_peer_id.hash_u16());
        json.member_text("ip", ip_text(header.m_peer_ip));
        json.member_text("host_name", text_in(header.m_peer_host_name));
        json.member_boolean("outdated", header.m_b_outdated != 0);
        json.member_boolean("update_from_active_conn", header.m_b_update_from_active_conn != 0);
        json.member("active_connections", peer.active_connections);
        write_figures(json, "counters", RE_counter_scope::peer, std::span<const long long>(peer.figures));
        write_figures(json, "connection_counters", RE_counter_scope::connection,
                      std::span<const long long>(peer.connections));
        json.end_object();
    }
    json.end_array();
}

void write_connections(RE_json_writer& json, RE_stat_reader& reader, const RE_output& output)
{
    json.key("connections");
    json.begin_array();
    const int slots = reader.get_max_conn_slots();
    RE_snapshot_conn conn;
    for (int slot = 0; slot < slots && output.is_ok(); ++slot) {
        if (!read_connection(reader, slot, conn)) {
            continue;
        }
        json.begin_object();
        json.member("slot", conn.slot);
        json.member("id", conn.header.m_conn_id);
        json.member("peer", conn.peer_number);
        json.member_text("client_ip", ip_text(conn.header.m_client_ip));
        json.member("client_port", conn.header.m_client_port);
        json.member_text("server_ip", ip_text(conn.header.m_server_ip));
        json.member("server_port", conn.header.m_server_port);
        json.member_boolean("open", conn.is_open());
        json.member("open_time", conn.open_time);
        json.member("close_time", conn.close_time);
        json.key("transport");
        json.begin_object();
        visit_transport(conn.transport, member_visitor(json));
        json.end_object();
        write_figures(json, "counters", RE_counter_scope::connection, std::span<const long long>(conn.figures));
        json.end_object();
    }
    json.end_array();
}

void write_apps(RE_json_writer& json, const RE_snapshot& snapshot)
{
    const RE_peer_numbers peers(snapshot);
    json.key("apps");
    json.begin_array();
    for (const auto& [slot, app] : snapshot.apps) {
        const RE_stat_app_header& header = app.m_header;
        json.begin_object();
        json.member("slot", slot);
        json.member("peer", peers.number_of(header.m_kav_peer_id));
        json.member_text("kav_peer_id", header.m_kav_peer_id.getString());
        json.member("port", static_cast<long long>(header.m_server_port));
        json.member_boolean("is_source_port", header.m_b_src_port != 0);
        json.member("policy_engine_handler", static_cast<long long>(header.m_policy_engine_handler));
        json.member("opened", static_cast<long long>(header.m_open_cnt));
        json.member("closed", static_cast<long long>(header.m_close_cnt));
        write_figures(json, "counters", RE_counter_scope::application, std::span<const std::uint32_t>(app.m_id_array));
        json.end_object();
    }
    json.end_array();
}

void write_nacks(RE_json_writer& json, RE_stat_reader& reader)
{
    json.key("nacks");
    json.begin_array();
    for (const RE_stat_nack_header& nack : read_nacks(reader)) {
        json.begin_object();
        json.member("time", nack.m_time);
        json.member("type", nack.m_type);
        json.member_text("type_word", nack.m_type == RE_STAT_NACK_AT_RECEIVER ? "nack" : "rtx");
        json.member("reason", nack.m_reason);
        json.member_text("reason_word", word_for(nack_reason_words, nack.m_reason));
        json.member("peer", nack.m_peer_id);
        json.member("connection", nack.m_conn_id);
        json.member("message", nack.m_msg_seq_no);
        json.end_object();
    }
    json.end_array();
}

void write_config(RE_json_writer& json, RE_stat_reader& reader)
{
    json.key("config");
    const RE_stat_config_param* const config = reader.get_config_param();
    if (config == nullptr) {
        json.null();
        return;
    }
    json.begin_object();
    visit_config(*config, member_visitor(json));
    json.end_object();
}

void write_bypass(RE_json_writer& json, RE_stat_reader& reader)
{
    json.key("bypass");
    const std::optional<std::vector<RE_bypass_entry>> entries = read_bypass(reader);
    if (!entries) {
        json.null();
        return;
    }
    json.begin_array();
    for (const RE_bypass_entry& entry : *entries) {
        json.begin_object();
        json.member_text("server_ip", ip_text(entry.server_ip));
        json.member("server_port", entry.server_port);
        json.member("reason", static_cast<long long>(entry.reason));
        json.member_text("reason_word", word_for(bypass_reason_words, static_cast<long long>(entry.reason)));
        json.member("since", entry.since);
        json.member("next_attempt", entry.next_attempt);
        json.key("bytes");
        json.number(entry.bytes);
        json.key("connections");
        json.number(entry.connections);
        json.end_object();
    }
    json.end_array();
}

} // namespace

std::string all_json_scopes()
{
    std::string words;
    for (const scope_word& scope : scope_words) {
        words += (words.empty() ? "" : ",") + std::string(scope.word);
    }
    return words;
}

std::optional<RE_json_scopes> parse_json_scopes(std::string_view words, std::string& unknown)
{
    RE_json_scopes scopes{false, false, false, false, false, false, false};
    for (;;) {
        const std::size_t end = words.find(',');
        const std::string_view word = words.substr(0, end);
        bool b_known = false;
        for (const scope_word& scope : scope_words) {
            if (scope.word == word) {
                scopes.*scope.flag = true;
                b_known = true;
            }
        }
        if (!b_known) {
            unknown = word;
            return std::nullopt;
        }
        if (end == std::string_view::npos) {
            return scopes;
        }
        words.remove_prefix(end + 1);
    }
}

void write_statistics_json(RE_source& source, const RE_json_scopes& scopes, std::time_t now, RE_output& output)
{
    RE_image_reader& reader = source.reader();
    const RE_snapshot snapshot = take_snapshot(reader, now);
    RE_json_writer json(output);
    json.begin_object();
    write_head(json, source, snapshot);
    if (scopes.b_global) {
        write_global(json, snapshot);
    }
    if (scopes.b_peers) {
        write_peers(json, snapshot);
    }
    if (scopes.b_connections) {
        write_connections(json, reader, output);
    }
    if (scopes.b_apps) {
        write_apps(json, snapshot);
    }
    if (scopes.b_nacks) {
        write_nacks(json, reader);
    }
    if (scopes.b_config) {
        write_config(json, reader);
    }
    if (scopes.b_bypass) {
        write_bypass(json, reader);
    }
    json.end_object();
    if (reader.is_cut()) {
        output.give_up();
    }
}
