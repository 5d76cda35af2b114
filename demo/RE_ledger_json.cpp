// The ledger as a JSON text.
#include "RE_ip.h"
#include "RE_ledger.h"
#include "RE_output_file.h"

#include <nlohmann/json.hpp>

namespace {

using ordered_json = nlohmann::ordered_json;

constexpr std::array<const char*, nack_reason_count> reason_names{"none", "chunk_missed", "checksum_collision",
                                                                  "disk_overloaded", "cache_not_ready"};

ordered_json nacks_to_json(const std::array<long long, nack_reason_count>& nacks)
{
    ordered_json json;
    long long total = 0;
    for (std::size_t reason = 1; reason < nacks.size(); ++reason) {
        json[reason_names[reason]] = nacks[reason];
        total += nacks[reason];
    }
    json["total"] = total;
    return json;
}

// nacks_name: a NACK that this engine receives causes a retransmission, one that it sends does not.
ordered_json side_to_json(const RE_ledger_side& side, const char* nacks_name)
{
    return {{"messages", side.messages},
            {"lan_bytes", side.lan_bytes},
            {"wan_bytes", side.wan_bytes},
            {"re_messages", side.re_messages},
            {"re_lan_bytes", side.re_lan_bytes},
            {"re_wan_bytes", side.re_wan_bytes},
            {"bypass_messages", side.bypass_messages},
            {"bypass_bytes", side.bypass_bytes},
            {"lz_messages", side.lz_messages},
            {"lz_lan_bytes", side.lz_lan_bytes},
            {"lz_wan_bytes", side.lz_wan_bytes},
            {"message_sizes", side.message_sizes},
            {"acks", side.acks},
            {"ack_bytes", side.ack_bytes},
            {nacks_name, nacks_to_json(side.nacks)},
            {"wire_bytes", side.wire_bytes}};
}

void add_account(ordered_json& json, const RE_ledger_account& account)
{
    json["connections"] = account.connections;
    json["open_connections"] = account.open_connections;
    json["encode"] = side_to_json(account.encode, "retransmissions");
    json["decode"] = side_to_json(account.decode, "nacks");
}

} // namespace

void RE_ledger::write(const std::string& path, bool b_finished) const
{
    ordered_json json;
    json["finished"] = b_finished;
    json["rounds"] = m_rounds;
    add_account(json["engine"], m_engine);

    json["peers"] = ordered_json::array();
    for (const auto& [number, account] : m_peers) {
        ordered_json peer{{"peer", number}, {"mac_id", account.mac_id}};
        add_account(peer, account);
        json["peers"].push_back(std::move(peer));
    }

    json["applications"] = ordered_json::array();
    for (const auto& [key, account] : m_applications) {
        const RE_application& application = all_applications()[key.handler];
        ordered_json entry{{"handler", key.handler},
                           {"application", application.name},
                           {"classifier", application.classifier},
                           {"server_port", key.server_port},
                           {"peer", key.peer_number}};
        add_account(entry, account);
        json["applications"].push_back(std::move(entry));
    }

    json["connection_details"] = ordered_json::array();
    for (const auto& [conn_id, account] : m_connections) {
        ordered_json connection{{"conn_id", conn_id},
                                {"peer", account.peer_number},
                                {"client_ip", ip_to_string(account.ends.m_client_ip)},
                                {"client_port", account.ends.m_client_port},
                                {"server_ip", ip_to_string(account.ends.m_server_ip)},
                                {"server_port", account.ends.m_server_port}};
        add_account(connection, account);
        json["connection_details"].push_back(std::move(connection));
    }

    json["bypassed_servers"] = ordered_json::array();
    for (const auto& [server, around] : m_around) {
        json["bypassed_servers"].push_back({{"server_ip", ip_to_string(server.ip)},
                                            {"server_port", server.port},
                                            {"messages", around.messages},
                                            {"bytes", around.bytes},
                                            {"connections", around.connections}});
    }
    replace_file(path, json.dump(1, '\t') + '\n');
}
