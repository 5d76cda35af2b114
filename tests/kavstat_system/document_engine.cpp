#include "document_engine.h"

#include "RE_ip.h"
#include "model/counter_names.h"

#include <cstring>
#include <map>
#include <stdexcept>

using namespace kavstat;

namespace {

RE_kav_peer_id identity_of(const std::string& text)
{
    RE_kav_peer_id identity{};
    std::size_t at = 0;
    for (std::size_t digit = 0; digit < text.size(); ++digit) {
        if (text[digit] != ':' && text[digit] != '-') {
            identity.m_data[at++] = static_cast<unsigned char>(std::stoi(text.substr(digit++, 2), nullptr, 16));
        }
    }
    return identity;
}

// Calls `set` with the id and value of every counter in a document's members.
template <typename Set>
void for_each_figure(const nlohmann::json& members, CounterScope scope, const Set& set)
{
    for (const NamedCounter& counter : counters_of(scope)) {
        const nlohmann::json& value = members.at(counter.key);
        for (int at = 0; at < counter.size(); ++at) {
            set(counter.id() + at,
                (counter.is_range() ? value.at(static_cast<std::size_t>(at)) : value).get<long long>());
        }
    }
}

void publish_config(const nlohmann::json& json, RE_stat_writer& writer)
{
    RE_stat_config_param config{};
    config.m_comp_type = json.at("comp_type");
    config.m_max_fan_out = json.at("max_fan_out");
    config.m_b_plz_enabled = json.at("plz_enabled");
    std::strcpy(config.m_lz_algorithm, json.at("lz_algorithm").get<std::string>().c_str());
    const RE_kav_peer_id own = identity_of(json.at("kav_peer_id").get<std::string>());
    std::memcpy(config.m_local_kav_peer_id.m_data, own.m_data, sizeof own.m_data);
    writer.set_config(config);
}

} // namespace

void publish_document(const nlohmann::json& document, RE_stat_writer& writer)
{
    if (writer.create({8, 32, 8, 16}, 1700000000) != 0) {
        throw std::runtime_error("no segment to be had");
    }
    publish_config(document.at("config"), writer);
    std::map<int, int> slot_of_peer;
    for (const nlohmann::json& peer : document.at("peers")) {
        RE_stat_peer_header header{};
        header.m_kav_peer_id = identity_of(peer.at("kav_peer_id").get<std::string>());
        header.m_peer_mac_id = RE_mac_id(peer.at("mac_id").get<std::string>().c_str());
        header.m_context_id.m_data[0] = static_cast<unsigned char>(peer.at("context").get<int>());
        header.m_peer_ip = string_to_ip(peer.at("ip").get<std::string>().c_str());
        std::strcpy(header.m_peer_host_name, peer.at("host_name").get<std::string>().c_str());
        header.m_b_outdated = peer.at("outdated").get<bool>() ? 1 : 0;
        slot_of_peer[peer.at("number")] = writer.add_peer(peer.at("number"), header);
    }
    for (const nlohmann::json& conn : document.at("connections")) {
        RE_stat_conn_header header{};
        header.m_conn_id = conn.at("id");
        header.m_client_ip = string_to_ip(conn.at("client_ip").get<std::string>().c_str());
        header.m_client_port = conn.at("client_port");
        header.m_server_ip = string_to_ip(conn.at("server_ip").get<std::string>().c_str());
        header.m_server_port = conn.at("server_port");
        SO_stat_conn_header transport{};
        transport.m_comp_type =
            static_cast<std::uint8_t>(conn.at("transport").at("comp_type").get<unsigned int>() & 15U);
        const int slot = writer.open_conn(slot_of_peer.at(conn.at("peer")), header, transport, conn.at("open_time"));
        for_each_figure(conn.at("counters"), CounterScope::connection,
                        [&](int id, long long value) { writer.add_conn_stat(slot, id, value); });
        if (!conn.at("open").get<bool>()) {
            writer.close_conn(slot, conn.at("close_time"));
        }
    }
    for_each_figure(document.at("global").at("counters"), CounterScope::engine,
                    [&](int id, long long value) { writer.set_global(id, value); });
    for (const nlohmann::json& peer : document.at("peers")) {
        for_each_figure(peer.at("counters"), CounterScope::peer, [&](int id, long long value) {
            writer.set_peer_stat(slot_of_peer.at(peer.at("number")), id, value);
        });
    }
    for (const nlohmann::json& app : document.at("apps")) {
        RE_stat_app_header header{};
        header.set(identity_of(app.at("kav_peer_id").get<std::string>()), app.at("port"), app.at("is_source_port"));
        const int slot = writer.find_or_add_app(header);
        for_each_figure(app.at("counters"), CounterScope::application, [&](int id, long long value) {
            writer.add_app_stat(slot, id, static_cast<std::uint32_t>(value));
        });
        writer.add_app_conns(slot, app.at("opened"), app.at("closed"));
    }
    for (const nlohmann::json& nack : document.at("nacks")) {
        writer.add_nack({nack.at("time"), nack.at("type"), nack.at("reason"), nack.at("peer"), nack.at("connection"),
                         nack.at("message")});
    }
    for (const nlohmann::json& entry : document.at("bypass")) {
        writer.set_bypass({string_to_ip(entry.at("server_ip").get<std::string>().c_str()), entry.at("server_port"),
                           static_cast<RE_bypass_reason>(entry.at("reason").get<std::uint32_t>()), entry.at("since"),
                           entry.at("next_attempt"), entry.at("bytes"), entry.at("connections")});
    }
    writer.publish();
}
