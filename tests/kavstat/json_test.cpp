// Statistics as JSON.
#include "kavstat_fixture.h"

#include <cstring>
#include <limits>

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

} // namespace

TEST_F(json_document, holds_every_counter_of_the_engine)
{
    start();
    fill();
    const nlohmann::json global = json()["global"];
    expect_figures(global["counters"], CounterScope::engine,
                   [&](int id) { return engine.get_global(RE_stat_global_id{id}); });
    EXPECT_EQ(global["counters"]["cache_dataunit_age"], 9000000063LL);
    // Ten connections opened, one closed, two released: of 1000 * slot + id - 50, summed over ten slots.
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
    // The connections in slots 1, 3, 5, 7 and 9 are the last peer's.
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
    EXPECT_GT(saved["capture_time"], 1700000900); // the saver's clock
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

TEST_F(json_document, is_described_by_the_schema_in_the_documents)
{
    EXPECT_EQ(bytes_of_file(KAV_DOCS "/kavstat.schema.json"), statistics_json_schema());
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
