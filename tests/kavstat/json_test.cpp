// Statistics as JSON.
#include "kavstat_fixture.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <limits>
#include <numeric>
#include <regex>
#include <span>

using namespace kavstat;

namespace {

class json_document : public kavstat_test
{
};

// A range is an array; every other counter is a number.
template <typename Figure>
void expect_figures(const nlohmann::json& members, CounterScope scope, const Figure& figure)
{
    EXPECT_EQ(members.size(), counters_of(scope).size());
    for (const NamedCounter& counter : counters_of(scope)) {
        ASSERT_TRUE(members.contains(counter.key)) << counter.key;
        const nlohmann::json& value = members[counter.key];
        ASSERT_EQ(value.is_array(), counter.is_range()) << counter.key;
        if (!counter.is_range()) {
            EXPECT_EQ(value.get<long long>(), figure(counter.id())) << counter.key;
            continue;
        }
        ASSERT_EQ(value.size(), static_cast<std::size_t>(counter.size())) << counter.key;
        for (int at = 0; at < counter.size(); ++at) {
            EXPECT_EQ(value[static_cast<std::size_t>(at)].get<long long>(), figure(counter.id() + at));
        }
    }
}

// Returns one line for each object of a schema, such as "peers[]: slot number". Counters are references and have no
// line.
std::string keys_below(const std::string& path, const nlohmann::ordered_json& schema)
{
    if (schema.contains("items")) {
        return keys_below(path + "[]", schema["items"]);
    }
    if (!schema.contains("properties")) {
        return "";
    }
    std::string keys = path.empty() ? "" : path + ":";
    std::string below;
    for (const auto& [key, member] : schema["properties"].items()) {
        keys += (keys.empty() ? "" : " ") + key;
        below += keys_below((path.empty() ? "" : path + ".") + key, member);
    }
    return keys + "\n" + below;
}

} // namespace

TEST_F(json_document, holds_every_counter_of_the_engine)
{
    start();
    fill();
    const nlohmann::json global = json()["global"];
    expect_figures(global["counters"], CounterScope::engine,
                   [&](int id) { return engine.get_global(RE_stat_global_id{id}); });
    EXPECT_EQ(global["counters"]["cache_dataunit_age"], 9000000063LL);
    // Ten connections were opened, one closed and two released. The counter is 1000 * slot + id - 50, summed over ten
    // slots.
    EXPECT_EQ(global["connection_counters"]["encode_in_bytes"], 45000 - 500);
    EXPECT_EQ(global["active_connections"], 7);
}

TEST_F(json_document, holds_every_counter_of_every_peer)
{
    start();
    fill();
    const nlohmann::json peers = json()["peers"];
    ASSERT_EQ(peers.size(), 3U); // one of four was removed
    EXPECT_EQ(peers[1]["slot"], 2);
    EXPECT_EQ(peers[1]["number"], 42);
    for (const nlohmann::json& peer : peers) {
        const int slot = peer["slot"];
        expect_figures(peer["counters"], CounterScope::peer,
                       [&](int id) { return engine.get_peer_stat(slot, RE_stat_peer_id{id}); });
    }
    // The connections in slots 1, 3, 5, 7 and 9 belong to the last peer.
    EXPECT_EQ(peers[2]["connection_counters"]["decode_in_bytes"], 25000 + 5 * (1 - 50));
}

TEST_F(json_document, holds_every_counter_of_every_connection_and_application)
{
    start();
    fill();
    const nlohmann::json document = json();
    ASSERT_EQ(document["connections"].size(), 8U);
    for (const nlohmann::json& conn : document["connections"]) {
        const int slot = conn["slot"];
        expect_figures(conn["counters"], CounterScope::connection,
                       [&](int id) { return engine.get_conn_stat(slot, RE_stat_conn_id{id}); });
        EXPECT_EQ(conn["open"].get<bool>(), slot != 2) << slot;
        EXPECT_EQ(conn["close_time"], slot == 2 ? 6000 : 0);
        EXPECT_EQ(conn["open_time"], 5000 + slot);
        EXPECT_EQ(conn["peer"], slot % 2 == 0 ? 40 : 43);
    }
    ASSERT_EQ(document["apps"].size(), 3U);
    for (const nlohmann::json& app : document["apps"]) {
        const int slot = app["slot"];
        expect_figures(app["counters"], CounterScope::application, [&](int id) { return slot * 100 + id; });
        EXPECT_EQ(app["opened"], slot + 3);
        EXPECT_EQ(app["closed"], slot + 2);
        EXPECT_EQ(app["port"], slot + 60);
    }
}

TEST_F(json_document, keeps_all_digits_of_64_bits)
{
    start();
    engine.set_global(RE_stat_global_id{0}, std::numeric_limits<long long>::max());
    engine.set_global(RE_stat_global_id{1}, std::numeric_limits<long long>::min());
    Source source;
    const std::string text = json_text(source);
    EXPECT_NE(text.find("\"cache_state\":9223372036854775807,"), std::string::npos);
    EXPECT_NE(text.find("\"total_cache_size\":-9223372036854775808,"), std::string::npos);
}

TEST_F(json_document, names_of_the_far_side_can_break_nothing)
{
    start();
    RE_stat_peer_header header{};
    std::memset(header.m_peer_host_name, '\xFF', sizeof header.m_peer_host_name); // without a NUL
    const char nasty[] = "a\"b\\c\n\x1B[2J</script>\x7F\xC2\x9B\xE2\x82\xAC";
    std::memcpy(header.m_peer_host_name, nasty, sizeof nasty);
    engine.add_peer(1, header);
    std::memset(header.m_peer_host_name, '\xFF', sizeof header.m_peer_host_name);
    engine.add_peer(2, header);

    Source source;
    const std::string text = json_text(source);
    for (const char letter : text) {
        EXPECT_TRUE(letter == '\n' || (letter >= ' ' && letter <= '~')) << int{letter};
    }
    const nlohmann::json peers = nlohmann::json::parse(text)["peers"];
    EXPECT_EQ(peers[0]["host_name"], "a\"b\\c\n\x1B[2J</script>\x7F\xC2\x9B\xE2\x82\xAC");
    std::string replaced;
    for (int at = 0; at < 257; ++at) {
        replaced += "\xEF\xBF\xBD";
    }
    EXPECT_EQ(peers[1]["host_name"], replaced);
}

TEST_F(json_document, shows_addresses_identities_and_codes_as_text)
{
    start();
    RE_stat_peer_header header{};
    header.m_peer_mac_id = RE_mac_id("00:11:22:33:44:55");
    header.m_kav_peer_id.m_data[0] = 0xab;
    header.m_peer_ip = 0xcb007101;
    header.m_b_outdated = 1;
    engine.add_peer(7, header);
    engine.add_nack({1300000000, 1, 2, 7, 12, 41});
    engine.add_nack({1300000001, 0, -3, 7, 12, 42});
    engine.set_bypass({0xc633641e, 443, RE_bypass_reason::repeated_nacks, 5, 0, 18446744073709551615ULL, 7});

    const nlohmann::json document = json();
    const nlohmann::json& peer = document["peers"][0];
    EXPECT_EQ(peer["mac_id"], "00:11:22:33:44:55");
    EXPECT_EQ(peer["kav_peer_id"], "ab:00:00:00:00:00-000000000000-00000000");
    EXPECT_EQ(peer["ip"], "203.0.113.1");
    EXPECT_EQ(peer["host_name"], "");
    EXPECT_EQ(peer["outdated"], true);
    EXPECT_EQ(document["nacks"][0], nlohmann::json::parse(R"({"time":1300000000,"type":1,"type_word":"rtx","reason":2,
                  "reason_word":"checksum_collision","peer":7,"connection":12,"message":41})"));
    EXPECT_EQ(document["nacks"][1]["reason_word"], "unknown");
    EXPECT_EQ(document["bypass"][0], nlohmann::json::parse(R"({"server_ip":"198.51.100.30","server_port":443,"reason":3,
                  "reason_word":"repeated_nacks","since":5,"next_attempt":0,"bytes":18446744073709551615,
                  "connections":7})"));
    EXPECT_TRUE(document["config"].is_null());
}

TEST_F(json_document, holds_every_field_of_the_configuration)
{
    start();
    std::int32_t words[52]; // numbers at the positions of the record's fields
    static_assert(sizeof words == sizeof(RE_stat_config_param));
    std::iota(std::begin(words), std::end(words), 0);
    RE_stat_config_param config{};
    std::memcpy(static_cast<void*>(&config), words, sizeof words);
    config.m_b_rep_accl_mode = true;
    config.m_b_partial_lookup_on = false;
    config.m_write_tshld = 60000;
    config.m_cold_pass_tshld = 60001;
    std::memcpy(config.m_lz_algorithm, "zlib", sizeof "zlib");
    config.m_lz_adaptive = true;
    config.m_lz_adaptive_use_entropy = false;
    config.m_big_msg_checksum = true;
    config.m_b_plz_enabled = false;
    engine.set_config(config);
    EXPECT_EQ(json()["config"], nlohmann::json::parse(R"({
        "mac_id": "00:00:00:00:01:00", "kav_peer_id": "00:00:02:00:00:00-030000000400-00000500",
        "rep_accl_mode": true, "comp_type": 6, "comp_type_word": "unknown", "max_peer_slots": 7,
        "max_con_cur_connection": 8, "max_num_conn_slots": 9, "max_fan_out": 10, "worker_threads_num": 11,
        "total_kav_diskspace_in_mb": 12, "total_kav_memory_in_mb": 13, "hash_table_memory_in_mb": 14,
        "plz_memory_in_mb": 15, "plz_buffer_q_size": 16, "total_weq_buffer_size_in_mb": 17, "cache_data_version": 18,
        "ack_q_weq_cap_in_mb": 19, "ack_q_disk_cap_in_mb": 20, "wait_q_cap_in_mb": 21, "max_sig_block_num": 22,
        "max_data_unit_num": 23, "sig_read_pool_size": 24, "data_read_pool_size": 25, "anchor_distance": 26,
        "section_size": 27, "avg_chunk_size": 28, "min_chunk_size": 29, "partial_lookup_on": false,
        "write_tshld": 60000, "cold_pass_tshld": 60001, "lz_algorithm": "zlib", "lz_min_msg_size": 40,
        "lz_mem_level": 41, "lz_windows_bits": 42, "lz_comprs_level": 43, "lz_adaptive": true,
        "lz_adaptive_thres": 45, "lz_adaptive_use_entropy": false, "big_msg_checksum": true, "plz_high_watermark": 47,
        "plz_low_watermark": 48, "plz_enabled": false, "iov_block_size": 50, "auto_bypass_threshold_in_mb": 51})"));
}

TEST_F(json_document, holds_every_field_of_a_connections_transport)
{
    start();
    const unsigned char bytes[] = {0x21, 5,  6,  7, 0x98, 0x01, 0xBA, 0x02, 0xDC, 0x03, 0x79, 14, 15,
                                   16,   17, 18, 0, 0,    0,    19,   0,    0,    0,    20,   0,  0,
                                   0,    0,  0,  0, 0,    21,   0,    0,    0,    0,    0,    0,  0};
    SO_stat_conn_header transport{};
    static_assert(sizeof bytes == sizeof transport);
    std::memcpy(&transport, bytes, sizeof bytes);
    engine.open_conn(engine.add_peer(1, {}), {}, transport, 5000);
    EXPECT_EQ(json()["connections"][0]["transport"], nlohmann::json::parse(R"({
        "conn_type": 1, "comp_type": 2, "eot_state": 5, "ao_net_state": 6, "wan_net_state": 7,
        "local_latency_hint": 8, "local_comp_off_hint": 9, "local_re_mode_hint": 1,
        "remote_latency_hint": 10, "remote_comp_off_hint": 11, "remote_re_mode_hint": 2,
        "active_latency_hint": 12, "active_comp_off_hint": 13, "active_re_mode_hint": 3,
        "local_cfg_kav_mode": 1, "remote_cfg_kav_mode": 2, "applied_kav_mode": 3, "kav_mode_negotiated": true,
        "reset_code": 14, "class_id": 15, "dscp": 16, "wan_insert_ao_type": 17, "wan_fd": 18, "ao_fd": 19,
        "eot_remote_orig_bytes": 20, "eot_local_orig_bytes": 21})"));
}

TEST_F(json_document, says_where_and_when_it_was_taken)
{
    start();
    const nlohmann::json live = json();
    EXPECT_EQ(live["source"], "live");
    EXPECT_TRUE(live["file"].is_null());
    EXPECT_EQ(live["engine_start_time"], 1700000000);
    EXPECT_EQ(live["capture_time"], 1700000900);

    const std::string path = save();
    Source source(path);
    const nlohmann::json saved = nlohmann::json::parse(json_text(source));
    EXPECT_EQ(saved["source"], "file");
    EXPECT_EQ(saved["file"], path);
    EXPECT_EQ(saved["engine_start_time"], 1700000000);
    EXPECT_GT(saved["capture_time"], 1700000900); // from the saver's clock
}

TEST_F(json_document, of_a_saved_file_holds_what_the_live_one_held)
{
    start();
    fill();
    nlohmann::json live = json();
    Source source(save());
    nlohmann::json saved = nlohmann::json::parse(json_text(source));
    for (const char* const key : {"source", "file", "capture_time"}) {
        live.erase(key);
        saved.erase(key);
    }
    EXPECT_EQ(live, saved);
}

TEST_F(json_document, has_the_sections_of_its_scope_alone)
{
    start();
    fill();
    std::string unknown;
    const auto scopes = parse_json_scopes("nacks,global", unknown);
    ASSERT_TRUE(scopes);
    const nlohmann::json document = json(*scopes);
    EXPECT_TRUE(document.contains("global"));
    EXPECT_TRUE(document.contains("nacks"));
    EXPECT_EQ(document.size(), 6U + 2U);
    EXPECT_FALSE(parse_json_scopes("global,peer", unknown));
    EXPECT_EQ(unknown, "peer");
    EXPECT_FALSE(parse_json_scopes("", unknown));
    EXPECT_EQ(unknown, "");
}

// Programs depend on these keys. A change here changes the interface.
TEST(json_schema, has_these_keys_beside_those_of_counters)
{
    EXPECT_EQ(
        keys_below("", nlohmann::ordered_json::parse(statistics_json_schema())),
        "kavstat_json kavstat_version source file engine_start_time capture_time global peers connections apps nacks "
        "config bypass\n"
        "global: active_connections counters connection_counters\n"
        "peers[]: slot number context mac_id kav_peer_id kav_peer_hash ip host_name outdated update_from_active_conn "
        "active_connections counters connection_counters\n"
        "connections[]: slot id peer client_ip client_port server_ip server_port open open_time close_time transport "
        "counters\n"
        "connections[].transport: conn_type comp_type eot_state ao_net_state wan_net_state local_latency_hint "
        "local_comp_off_hint local_re_mode_hint remote_latency_hint remote_comp_off_hint remote_re_mode_hint "
        "active_latency_hint active_comp_off_hint active_re_mode_hint local_cfg_kav_mode remote_cfg_kav_mode "
        "applied_kav_mode kav_mode_negotiated reset_code class_id dscp wan_insert_ao_type wan_fd ao_fd "
        "eot_remote_orig_bytes eot_local_orig_bytes\n"
        "apps[]: slot peer kav_peer_id port is_source_port policy_engine_handler opened closed counters\n"
        "nacks[]: time type type_word reason reason_word peer connection message\n"
        "config: mac_id kav_peer_id rep_accl_mode comp_type comp_type_word max_peer_slots max_con_cur_connection "
        "max_num_conn_slots max_fan_out worker_threads_num total_kav_diskspace_in_mb total_kav_memory_in_mb "
        "hash_table_memory_in_mb plz_memory_in_mb plz_buffer_q_size total_weq_buffer_size_in_mb cache_data_version "
        "ack_q_weq_cap_in_mb ack_q_disk_cap_in_mb wait_q_cap_in_mb max_sig_block_num max_data_unit_num "
        "sig_read_pool_size data_read_pool_size anchor_distance section_size avg_chunk_size min_chunk_size "
        "partial_lookup_on write_tshld cold_pass_tshld lz_algorithm lz_min_msg_size lz_mem_level lz_windows_bits "
        "lz_comprs_level lz_adaptive lz_adaptive_thres lz_adaptive_use_entropy big_msg_checksum plz_high_watermark "
        "plz_low_watermark plz_enabled iov_block_size auto_bypass_threshold_in_mb\n"
        "bypass[]: server_ip server_port reason reason_word since next_attempt bytes connections\n");
}

TEST(json_schema, spells_the_counters_as_their_table_does)
{
    const nlohmann::ordered_json schema = nlohmann::ordered_json::parse(statistics_json_schema());
    const auto expect_keys_of = [&](const char* name, std::span<const RE_stat_counter_info> table) {
        const nlohmann::ordered_json& members = schema.at("$defs").at(name).at("properties");
        ASSERT_EQ(members.size(), table.size()) << name;
        auto member = members.begin();
        for (const RE_stat_counter_info& counter : table) {
            std::string key = std::regex_replace(counter.name, std::regex("^RE_STAT_[A-Z]+_ID_|^(SO_)STAT_"), "$1");
            std::transform(key.begin(), key.end(), key.begin(), [](unsigned char c) { return std::tolower(c); });
            EXPECT_EQ(member.key(), key);
            EXPECT_EQ(member->value("minItems", 1), counter.last_id - counter.id + 1) << key;
            ++member;
        }
    };
    expect_keys_of("engine_counters", re_stat_global_counters);
    expect_keys_of("peer_counters", re_stat_peer_counters);
    expect_keys_of("connection_counters", re_stat_conn_counters);
    expect_keys_of("application_counters", re_stat_app_counters);
}

TEST_F(json_document, goes_no_further_once_its_reader_is_gone)
{
    class full_sink : public Sink
    {
    public:
        bool take(std::string_view) override
        {
            ++offered;
            return false;
        }
        int offered = 0;
    };
    start();
    fill();
    Source source;
    ASSERT_EQ(source.open(), 0);
    full_sink sink;
    Output output(sink);
    write_statistics_json(source, {}, now, output);
    EXPECT_FALSE(output.flush());
    EXPECT_EQ(sink.offered, 1);
}
