// The report on the engine's peers.
#include "RE_conn_blocks.h"
#include "RE_nack_view.h"
#include "RE_peer_view.h"
#include "RE_statistics.h"
#include "support/contains.h"
#include "support/fake_reader.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

const std::string no_counters = "\nCurrent number of peers with active connections:           0\n"
                                "Maximum number of peers with active connections:           0\n"
                                "Current number of degraded peers due to writing sig-block: 0\n"
                                "Maximum number of degraded peers due to writing sig-block: 0\n"
                                "Current number of degraded peers due to writing data-unit: 0\n"
                                "Maximum number of degraded peers due to writing data-unit: 0\n";
const std::string no_writing_counters = "Current number of peers with writing sig-block:            0\n"
                                        "Maximum number of peers with writing sig-block:            0\n"
                                        "Current number of peers with writing data-unit:            0\n"
                                        "Maximum number of peers with writing data-unit:            0\n";
const std::string title = "\nActive peer details:\n";
const std::string rule = "------------------------------------------------------------------------------\n";
const std::string empty_info = "\nCache:  Used disk: Sigblock      0 MB, Age: 0s\n"
                               "                   Dataunit      0 MB, Age: 0s\n"
                               "Peer version:  0.0\n"
                               "Ack-queue size:       0 B\n"
                               "Buffer surge control:\n"
                               "   Delay:   avg-size          0 B, conn:          0, flush:          0\n"
                               "   Agg-ft:  avg-size          0 B, conn:          0, flush:          0\n"
                               "            remote low-buff:  0, received flush:          0\n";
const std::string empty_detail = "Cache details:\n"
                                 "  Usable cache size:      0 MB, Usable cache age: 0s\n"
                                 "  Evicted cache:      0 B\n"
                                 "  4.4.1 Sync-clock: remote-head 0 (safe: 0)\n"
                                 "  Pre 4.4.1 Cache: Sigblock 0 MB, Data unit 0 MB\n"
                                 "  Pre 4.4.1 Sync-clock: local-head 0, local-tail 0, remote-head 0 (safe: 0)\n"
                                 "  RTT: max 0 ms,   avg 0 ms (remote: 0 ms)\n"
                                 "  Per connection decode throughput: kav:      0 B/s,   bypass:      0 B/s\n"
                                 "  Current bypass ratio: 0 %\n"
                                 "  Out of sync: 0, Nacks:  0,  R-tx: 0\n"
                                 "  Allocated write sig-block: 0\n"
                                 "  Allocated write data-unit: 0\n";

class peer_view : public view_test
{
protected:
    fake_peer& add_peer(int number)
    {
        reader.peers.emplace_back();
        reader.peers.back().peer_id = number;
        return reader.peers.back();
    }

    static std::string report(RE_show_type type = RE_SHOW_INFO)
    {
        return output_of([type] { show_peer(nullptr, 0, -1, -1, type); });
    }
    static std::string info(int slot = 0)
    {
        return output_of([slot] { show_peer_info(slot); });
    }
    static std::string detail(int slot = 0)
    {
        return output_of([slot] { show_peer_detail(slot); });
    }
    int reads_of(int id) const { return reader.count("read_peer_stat 0 " + std::to_string(id)); }
};

// Returns the peer numbers in a report, in order.
std::vector<int> numbers_in(const std::string& report)
{
    static const std::string mark = "\nPeer-No : ";
    std::vector<int> numbers;
    for (std::size_t at = report.find(mark); at != std::string::npos; at = report.find(mark, at + 1)) {
        numbers.push_back(std::atoi(report.c_str() + at + mark.size()));
    }
    return numbers;
}

} // namespace

TEST_F(peer_view, prints_counters_and_title_alone_without_peer_slots)
{
    EXPECT_EQ(report(), no_counters + title);
    EXPECT_EQ(report(RE_SHOW_NACK), no_counters + title);
    EXPECT_EQ(report(RE_SHOW_DETAIL), no_counters + no_writing_counters + title);
}

TEST_F(peer_view, prints_the_engines_peer_counters_in_order)
{
    reader.global_stats = {{55, 1}, {56, 2}, {57, 7}, {58, 8}, {59, 9}, {60, 10}, {61, 3}, {62, 4}, {63, 5}, {64, -6}};
    EXPECT_EQ(report(RE_SHOW_DETAIL), "\nCurrent number of peers with active connections:           1\n"
                                      "Maximum number of peers with active connections:           2\n"
                                      "Current number of degraded peers due to writing sig-block: 3\n"
                                      "Maximum number of degraded peers due to writing sig-block: 4\n"
                                      "Current number of degraded peers due to writing data-unit: 5\n"
                                      "Maximum number of degraded peers due to writing data-unit: -6\n"
                                      "Current number of peers with writing sig-block:            7\n"
                                      "Maximum number of peers with writing sig-block:            8\n"
                                      "Current number of peers with writing data-unit:            9\n"
                                      "Maximum number of peers with writing data-unit:            10\n"
                                      "\nActive peer details:\n");
}

TEST_F(peer_view, reads_the_writing_counters_for_the_detail_alone)
{
    report(RE_SHOW_INFO);
    report(RE_SHOW_NACK);
    EXPECT_EQ(reader.count("read_global_stat 57"), 0);
    report(RE_SHOW_DETAIL);
    EXPECT_EQ(reader.count("read_global_stat 57"), 1);
}

TEST_F(peer_view, ends_the_peer_line_with_a_blank_when_not_outdated)
{
    add_peer(3);
    EXPECT_EQ(report(), no_counters + title +
                            "\nPeer-No : 3                    Context: 0 \n"
                            "Peer-ID : 00:00:00:00:00:00\n"
                            "KAV-peer-id : 00:00:00:00:00:00-000000000000-00000000 (0)\n"
                            "Hostname: not available\n" +
                            rule + empty_info);
}

TEST_F(peer_view, marks_an_outdated_peer_behind_its_context)
{
    fake_peer& peer = add_peer(123456789);
    peer.header.m_b_outdated = 1;
    // The words 0x0102 and 0x0304 in little-endian order. Their exclusive or is 0x0206.
    peer.header.m_context_id.m_data[0] = 0x02;
    peer.header.m_context_id.m_data[1] = 0x01;
    peer.header.m_context_id.m_data[18] = 0x04;
    peer.header.m_context_id.m_data[19] = 0x03;
    EXPECT_TRUE(contains(report(), "\nPeer-No : 123456789            Context: 518 (outdated)\n"));
}

TEST_F(peer_view, is_not_outdated_by_the_flag_beside_it)
{
    add_peer(1).header.m_b_update_from_active_conn = 1;
    EXPECT_TRUE(contains(report(), "Context: 0 \n"));
}

TEST_F(peer_view, prints_who_a_peer_is)
{
    fake_peer& peer = add_peer(7);
    const unsigned char mac[] = {0x00, 0x1a, 0xB2, 0x03, 0xff, 0x10};
    std::memcpy(peer.header.m_peer_mac_id.m_data, mac, sizeof mac);
    for (int at = 0; at < 16; ++at) {
        peer.header.m_kav_peer_id.m_data[at] = static_cast<unsigned char>(0x11 * at);
    }
    peer.header.m_kav_peer_id.m_data[12] = 0xcd; // 0x00^0x44^0x88^0xcd = 0x01, 0x11^0x55^0x99^0xdd = 0x00
    std::strcpy(peer.header.m_peer_host_name, "edge-7.example 100%s");
    peer.header.m_peer_ip = 0x0a000107U;
    const std::string identity = "Peer-ID : 00:1a:b2:03:ff:10\n"
                                 "KAV-peer-id : 00:11:22:33:44:55-66778899aabb-cdddeeff (1)\n"
                                 "Hostname: edge-7.example 100%s\n";
    EXPECT_TRUE(contains(report(RE_SHOW_INFO), identity + rule));
    EXPECT_TRUE(contains(report(RE_SHOW_NACK), identity + rule));
    EXPECT_TRUE(contains(report(RE_SHOW_DETAIL), identity + "IP reported from peer: 10.0.1.7\n" + rule));
}

TEST_F(peer_view, prints_an_identitys_hash_without_a_sign)
{
    RE_kav_peer_id& id = add_peer(7).header.m_kav_peer_id;
    id.m_data[1] = 0x80;
    EXPECT_TRUE(contains(report(), "\nKAV-peer-id : 00:80:00:00:00:00-000000000000-00000000 (32768)\n"));
    id.m_data[0] = 0xff;
    id.m_data[1] = 0xff;
    EXPECT_TRUE(contains(report(), "\nKAV-peer-id : ff:ff:00:00:00:00-000000000000-00000000 (65535)\n"));
}

TEST_F(peer_view, has_a_rule_of_78_dashes)
{
    add_peer(1);
    EXPECT_TRUE(contains(report(), "\n" + std::string(78, '-') + "\n"));
}

TEST_F(peer_view, says_when_a_peer_reported_no_address)
{
    add_peer(1);
    EXPECT_TRUE(contains(report(RE_SHOW_DETAIL), "Hostname: not available\nIP reported from peer: not available\n"));
}

TEST_F(peer_view, ends_a_host_name_without_a_nul_at_its_arrays_end)
{
    fake_peer& peer = add_peer(1);
    std::memset(peer.header.m_peer_host_name, 'h', sizeof peer.header.m_peer_host_name);
    peer.header.m_b_update_from_active_conn = 1; // the bytes after the name
    peer.header.m_pad = 0x3f;
    EXPECT_TRUE(contains(report(), "\nHostname: " + std::string(257, 'h') + "\n"));
}

TEST_F(peer_view, prints_the_whole_detail_in_order)
{
    fake_peer& peer = add_peer(2);
    peer.stats = {{9, 12}, {10, 5}, {11, 3}};
    peer.active_conns = 4;
    peer.conn_stats = {{0, 1000}, {2, 250}};
    const std::string blocks = output_of([] {
        show_conn_info(RE_peer_conn_slot(0));
        show_conn_detail(RE_peer_conn_slot(0));
    });
    EXPECT_EQ(report(RE_SHOW_DETAIL), no_counters + no_writing_counters + title +
                                          "\nPeer-No : 2                    Context: 0 \n"
                                          "Peer-ID : 00:00:00:00:00:00\n"
                                          "KAV-peer-id : 00:00:00:00:00:00-000000000000-00000000 (0)\n"
                                          "Hostname: not available\n"
                                          "IP reported from peer: not available\n" +
                                          rule + empty_info + empty_detail +
                                          "\nConnections:   Total (cumulative): 12,  Active: 4\n"
                                          "Concurrent Connections (Last 2 min): max 5, avg 3\n\n" +
                                          blocks);
}

TEST_F(peer_view, prints_the_summary_of_connections_without_the_detail)
{
    fake_peer& peer = add_peer(2);
    peer.stats = {{9, 1}};
    const std::string block = output_of([] { show_conn_info(RE_peer_conn_slot(0)); });
    EXPECT_TRUE(report().ends_with(empty_info +
                                   "\nConnections:   Total (cumulative): 1,  Active: 0\n"
                                   "Concurrent Connections (Last 2 min): max 0, avg 0\n\n" +
                                   block));
}

TEST_F(peer_view, prints_no_connections_of_a_peer_that_never_had_any)
{
    add_peer(2).stats = {{9, 0}, {10, 5}, {11, 3}};
    reader.peers[0].active_conns = 4;
    for (const RE_show_type type : {RE_SHOW_INFO, RE_SHOW_DETAIL, RE_SHOW_NACK}) {
        EXPECT_FALSE(contains(report(type), "onnections:   Total"));
        EXPECT_FALSE(contains(report(type), "Concurrent"));
    }
    EXPECT_TRUE(report(RE_SHOW_INFO).ends_with(empty_info));
    EXPECT_TRUE(report(RE_SHOW_DETAIL).ends_with(empty_detail));
    EXPECT_EQ(reader.count("read_peer_active_conn_count 0"), 0);
}

TEST_F(peer_view, prints_the_connections_of_a_negative_total)
{
    add_peer(2).stats = {{9, -1}};
    EXPECT_TRUE(contains(report(), "\nConnections:   Total (cumulative): -1,  Active: 0\n"
                                   "Concurrent Connections (Last 2 min): max 0, avg 0\n\n"
                                   "Encode: "));
}

TEST_F(peer_view, counts_the_slots_before_it_reads_a_counter)
{
    add_peer(1);
    report(RE_SHOW_NACK);
    ASSERT_EQ(reader.calls.size(), 11U);
    EXPECT_EQ(reader.calls.front(), "get_max_peer_slots");
    EXPECT_EQ(std::vector<std::string>(reader.calls.begin() + 7, reader.calls.end()),
              (std::vector<std::string>{"is_peer_valid 0", "read_peer_header 0", "read_peer_id 0", "get_first_nack"}));
}

TEST_F(peer_view, reads_the_total_of_connections_for_the_test_and_for_the_line)
{
    add_peer(2).stats = {{9, 1}};
    reader.on_read = [this] {
        reader.peers[0].stats[9] += reader.calls.back() == "read_peer_active_conn_count 0" ? 1 : 0;
    };
    EXPECT_TRUE(contains(report(), "Total (cumulative): 2,  Active: 0\n"));
    EXPECT_EQ(reads_of(9), 2);
}

TEST_F(peer_view, prints_a_peers_nack_log_in_place_of_its_figures)
{
    add_peer(5).stats = {{9, 1}};
    add_peer(6);
    reader.nacks = {{0, 0, 0, 5, 1, 10}, {0, 0, 0, 6, 1, 11}, {0, 0, 0, 5, 2, 12}};
    const std::string head =
        "\nTime                  Peer-No  Conn-ID     Msg-No Type Reason\n" + rule.substr(0, 78) + "-\n";
    const std::string identity = "Peer-ID : 00:00:00:00:00:00\n"
                                 "KAV-peer-id : 00:00:00:00:00:00-000000000000-00000000 (0)\n"
                                 "Hostname: not available\n";
    EXPECT_EQ(report(RE_SHOW_NACK), no_counters + title + "\nPeer-No : 5                    Context: 0 \n" + identity +
                                        rule + head +
                                        "01/01/1970 00:00:00         5        1         10 Nack None\n"
                                        "01/01/1970 00:00:00         5        2         12 Nack None\n" +
                                        "\nPeer-No : 6                    Context: 0 \n" + identity + rule + head +
                                        "01/01/1970 00:00:00         6        1         11 Nack None\n");
    EXPECT_EQ(reads_of(9), 0);
}

TEST_F(peer_view, lists_the_whole_nack_log_for_a_peer_without_a_number)
{
    add_peer(-1);
    reader.nacks = {{0, 0, 0, 5, 1, 10}, {0, 0, 0, 6, 1, 11}};
    EXPECT_TRUE(report(RE_SHOW_NACK)
                    .ends_with("01/01/1970 00:00:00         5        1         10 Nack None\n"
                               "01/01/1970 00:00:00         6        1         11 Nack None\n"));
}

TEST_F(peer_view, passes_over_slots_without_a_peer)
{
    add_peer(1);
    add_peer(2).b_valid = false;
    add_peer(3);
    EXPECT_EQ(numbers_in(report()), (std::vector<int>{1, 3}));
    EXPECT_EQ(reader.count("read_peer_header 1"), 0);
    EXPECT_EQ(reader.count("is_peer_valid 2"), 1);
    EXPECT_EQ(reader.count("is_peer_valid 3"), 0); // that slot does not exist
}

TEST_F(peer_view, shows_zeros_and_number_minus_1_for_a_peer_that_cannot_be_read)
{
    add_peer(4).stats = {{9, 1}};
    reader.peers[0].header.m_peer_host_name[0] = 'x';
    reader.b_failing = true;
    EXPECT_EQ(report(), no_counters + title +
                            "\nPeer-No : -1                   Context: 0 \n"
                            "Peer-ID : 00:00:00:00:00:00\n"
                            "KAV-peer-id : 00:00:00:00:00:00-000000000000-00000000 (0)\n"
                            "Hostname: not available\n" +
                            rule + empty_info);
}

TEST_F(peer_view, does_not_carry_one_peers_identity_over_to_the_next)
{
    std::strcpy(add_peer(4).header.m_peer_host_name, "first");
    add_peer(5);
    reader.on_read = [this] { reader.b_failing = reader.calls.back() == "read_peer_header 1"; };
    EXPECT_TRUE(contains(report(), "\nPeer-No : 5                    Context: 0 \n"
                                   "Peer-ID : 00:00:00:00:00:00\n"
                                   "KAV-peer-id : 00:00:00:00:00:00-000000000000-00000000 (0)\n"
                                   "Hostname: not available\n"));
}

TEST_F(peer_view, takes_peer_number_0_for_a_filter_and_negative_ones_for_none)
{
    add_peer(0);
    add_peer(1);
    const auto numbers = [](int filter) {
        return numbers_in(output_of([filter] { show_peer(nullptr, 0, filter, -1, RE_SHOW_INFO); }));
    };
    EXPECT_EQ(numbers(0), std::vector<int>{0});
    EXPECT_EQ(numbers(1), std::vector<int>{1});
    EXPECT_EQ(numbers(2), std::vector<int>{});
    EXPECT_EQ(numbers(-1), (std::vector<int>{0, 1}));
    EXPECT_EQ(numbers(INT_MIN), (std::vector<int>{0, 1}));
}

TEST_F(peer_view, takes_address_0_for_no_filter)
{
    add_peer(0).header.m_peer_ip = 0;
    add_peer(1).header.m_peer_ip = 0xffffffffU;
    const auto numbers = [](unsigned int ip) {
        return numbers_in(output_of([ip] { show_peer(nullptr, ip, -1, -1, RE_SHOW_INFO); }));
    };
    EXPECT_EQ(numbers(0), (std::vector<int>{0, 1}));
    EXPECT_EQ(numbers(0xffffffffU), std::vector<int>{1});
}

TEST_F(peer_view, takes_context_0_for_a_filter_and_negative_ones_for_none)
{
    fake_peer& even = add_peer(1); // equal words cancel each other out
    even.header.m_context_id.m_data[0] = 0xab;
    even.header.m_context_id.m_data[2] = 0xab;
    add_peer(2).header.m_context_id.m_data[1] = 0xff;
    const auto numbers = [](int ctx) {
        return numbers_in(output_of([ctx] { show_peer(nullptr, 0, -1, ctx, RE_SHOW_INFO); }));
    };
    EXPECT_EQ(numbers(0), std::vector<int>{1});
    EXPECT_EQ(numbers(0xff00), std::vector<int>{2});
    EXPECT_EQ(numbers(0xff00 + 65536), std::vector<int>{});
    EXPECT_EQ(numbers(-1), (std::vector<int>{1, 2}));
}

TEST_F(peer_view, says_nothing_when_no_peer_passes_the_filters)
{
    add_peer(1);
    EXPECT_EQ(output_of([] { show_peer(nullptr, 1, -1, -1, RE_SHOW_INFO); }), no_counters + title);
}

// The sixteen peers have all combinations of two MAC addresses, two IP addresses, two numbers and two contexts. Every
// set of filters, each alone and in pairs with others, must select the peers that have the second value of each trait
// in the set.
TEST_F(peer_view, lists_what_passes_every_filter_alone_and_together)
{
    constexpr int mac_bit = 1;
    constexpr int ip_bit = 2;
    constexpr int number_bit = 4;
    constexpr int ctx_bit = 8;
    for (int traits = 0; traits < 16; ++traits) {
        fake_peer& peer = add_peer((traits & number_bit) != 0 ? 20 : 10);
        peer.header.m_peer_mac_id.m_data[5] = (traits & mac_bit) != 0 ? 2 : 1;
        peer.header.m_peer_ip = (traits & ip_bit) != 0 ? 2 : 1;
        peer.header.m_context_id.m_data[0] = (traits & ctx_bit) != 0 ? 2 : 1;
        std::snprintf(peer.header.m_peer_host_name, sizeof peer.header.m_peer_host_name, "p%d", traits);
    }
    RE_mac_id mac{};
    mac.m_data[5] = 2;
    for (int filters = 0; filters < 16; ++filters) {
        std::string expected;
        for (int traits = 0; traits < 16; ++traits) {
            expected += (traits & filters) == filters ? " p" + std::to_string(traits) : "";
        }
        const std::string output = output_of([&] {
            show_peer((filters & mac_bit) != 0 ? &mac : nullptr, (filters & ip_bit) != 0 ? 2 : 0,
                      (filters & number_bit) != 0 ? 20 : -1, (filters & ctx_bit) != 0 ? 2 : -1, RE_SHOW_INFO);
        });
        std::string listed;
        static const std::string mark = "Hostname: ";
        for (std::size_t at = output.find(mark); at != std::string::npos; at = output.find(mark, at + 1)) {
            const std::size_t name = at + mark.size();
            listed += " " + output.substr(name, output.find('\n', name) - name);
        }
        EXPECT_EQ(listed, expected) << "filters " << filters;
    }
}

TEST_F(peer_view, compares_all_six_bytes_of_a_mac)
{
    add_peer(1);
    for (int at = 0; at < 6; ++at) {
        RE_mac_id mac{};
        mac.m_data[at] = 1;
        EXPECT_EQ(numbers_in(output_of([&mac] { show_peer(&mac, 0, -1, -1, RE_SHOW_INFO); })), std::vector<int>{});
    }
    RE_mac_id zero{};
    EXPECT_EQ(numbers_in(output_of([&zero] { show_peer(&zero, 0, -1, -1, RE_SHOW_INFO); })), std::vector<int>{1});
}

TEST_F(peer_view, prints_the_summary)
{
    add_peer(1).stats = {
        {0, 1234567}, {4, now - 7384}, {1, 42},  {5, now - 45 * 86400}, {31, 4}, {32, 5},  {33, 1}, {17, 102401},
        {34, 1000},   {35, 3},         {36, 77}, {37, -1000},           {38, 3}, {39, 88}, {41, 9}, {40, 123456789}};
    EXPECT_EQ(info(), "\nCache:  Used disk: Sigblock 1234567 MB, Age: 2h3m4s\n"
                      "                   Dataunit     42 MB, Age: 45d\n"
                      "Peer version:  4.5 (ORV)\n"
                      "Ack-queue size:     100 KB\n"
                      "Buffer surge control:\n"
                      "   Delay:   avg-size        333 B, conn:          3, flush:         77\n"
                      "   Agg-ft:  avg-size       -333 B, conn:          3, flush:         88\n"
                      "            remote low-buff:  9, received flush:  123456789\n");
}

TEST_F(peer_view, tags_the_version_for_any_marker_but_0)
{
    add_peer(1).stats = {{31, 4}, {32, 4}, {33, -1}};
    EXPECT_TRUE(contains(info(), "Peer version:  4.4 (ORV)\n"));
    reader.peers[0].stats[33] = 0;
    EXPECT_TRUE(contains(info(), "Peer version:  4.4\n"));
}

TEST_F(peer_view, divides_nothing_by_a_count_of_0)
{
    add_peer(1).stats = {{34, 1000}, {35, 0}, {37, 2000}, {38, 0}};
    EXPECT_TRUE(contains(info(), "   Delay:   avg-size          0 B, conn:          0, flush:          0\n"
                                 "   Agg-ft:  avg-size          0 B, conn:          0, flush:          0\n"));
    EXPECT_EQ(reads_of(35), 2);
}

TEST_F(peer_view, reads_a_count_again_for_the_test_the_division_and_the_line)
{
    add_peer(1).stats = {{34, 1000}, {35, 0}};
    reader.on_read = [this] { reader.peers[0].stats[35] += reader.calls.back() == "read_peer_stat 0 35" ? 1 : 0; };
    // The value is 1 in the test, 2 in the division and 3 in the line.
    EXPECT_TRUE(contains(info(), "   Delay:   avg-size        500 B, conn:          3, flush:          0\n"));
    EXPECT_EQ(reads_of(35), 3);
}

TEST_F(peer_view, survives_a_count_that_becomes_0_between_test_and_division)
{
    add_peer(1).stats = {{34, 1000}, {35, 1}};
    reader.on_read = [this] { reader.peers[0].stats[35] = reads_of(35) == 1 ? 1 : 0; };
    EXPECT_TRUE(contains(info(), "   Delay:   avg-size          0 B, conn:          0, flush:          0\n"));
}

TEST_F(peer_view, divides_the_smallest_number_by_minus_1)
{
    add_peer(1).stats = {{34, LLONG_MIN}, {35, -1}};
    EXPECT_TRUE(contains(info(), "   Delay:   avg-size -9223372036854775808 B, conn:         -1, flush:          0\n"));
}

TEST_F(peer_view, prints_the_detail)
{
    add_peer(1).stats = {{6, 42},    {7, now - 100000}, {25, 104857601}, {24, 1299506709}, {22, 500},    {23, 400},
                         {2, 11},    {3, 12},           {18, 13},        {19, 14},         {20, 15},     {21, 10},
                         {14, 2999}, {15, 1000},        {16, -1999},     {28, 102400},     {29, 102401}, {30, 75},
                         {8, 16},    {12, 17},          {13, 18},        {26, 19},         {27, 20}};
    EXPECT_EQ(detail(), "Cache details:\n"
                        "  Usable cache size:     42 MB, Usable cache age: 1d3h\n"
                        "  Evicted cache:    100 MB\n"
                        "  Remote cache created at: 03/07/2011 14:05:09\n"
                        "  4.4.1 Sync-clock: remote-head 500 (safe: 400)\n"
                        "  Pre 4.4.1 Cache: Sigblock 11 MB, Data unit 12 MB\n"
                        "  Pre 4.4.1 Sync-clock: local-head 13, local-tail 14, remote-head 15 (safe: 10)\n"
                        "  RTT: max 2 ms,   avg 1 ms (remote: -1 ms)\n"
                        "  Per connection decode throughput: kav: 102400 B/s,   bypass:    100 KB/s\n"
                        "  Current bypass ratio: 75 %\n"
                        "  Out of sync: 16, Nacks:  17,  R-tx: 18\n"
                        "  Allocated write sig-block: 19\n"
                        "  Allocated write data-unit: 20\n");
}

TEST_F(peer_view, shows_the_remote_head_as_safe_when_the_safe_one_is_0_or_below)
{
    for (const long long safe : {0LL, -1LL, LLONG_MIN}) {
        reader.peers.clear();
        add_peer(1).stats = {{22, 500}, {23, safe}, {20, 15}, {21, safe}};
        EXPECT_TRUE(contains(detail(), "  4.4.1 Sync-clock: remote-head 500 (safe: 500)\n"));
        EXPECT_TRUE(contains(detail(), "local-head 0, local-tail 0, remote-head 15 (safe: 15)\n"));
    }
}

TEST_F(peer_view, shows_a_safe_clock_of_1_as_it_is)
{
    add_peer(1).stats = {{22, 500}, {23, 1}, {20, 15}, {21, 1}};
    EXPECT_TRUE(contains(detail(), "  4.4.1 Sync-clock: remote-head 500 (safe: 1)\n"));
    EXPECT_TRUE(contains(detail(), "local-head 0, local-tail 0, remote-head 15 (safe: 1)\n"));
}

TEST_F(peer_view, looks_at_all_bits_of_a_safe_clock)
{
    add_peer(1).stats = {{22, 500}, {23, 1LL << 32}, {20, 15}, {21, 1LL << 31}};
    EXPECT_TRUE(contains(detail(), "  4.4.1 Sync-clock: remote-head 500 (safe: 4294967296)\n"));
    EXPECT_TRUE(contains(detail(), "local-head 0, local-tail 0, remote-head 15 (safe: 2147483648)\n"));
}

TEST_F(peer_view, looks_at_the_low_32_bits_of_the_remote_caches_creation)
{
    add_peer(1).stats = {{24, 1LL << 32}};
    EXPECT_FALSE(contains(detail(), "Remote cache created at"));
    reader.peers[0].stats[24] = (1LL << 32) - 1;
    EXPECT_TRUE(contains(detail(), "  Remote cache created at: 12/31/1969 23:59:59\n"));
    reader.peers[0].stats[24] = (5LL << 32) + 1299506709;
    EXPECT_TRUE(contains(detail(), "  Remote cache created at: 03/07/2011 14:05:09\n"));
}

TEST_F(peer_view, prints_the_low_32_bits_of_the_bypass_ratio)
{
    add_peer(1).stats = {{30, (7LL << 32) + 50}};
    EXPECT_TRUE(contains(detail(), "  Current bypass ratio: 50 %\n"));
    reader.peers[0].stats[30] = 0xffffffffLL;
    EXPECT_TRUE(contains(detail(), "  Current bypass ratio: -1 %\n"));
}

TEST_F(peer_view, prints_figures_at_the_ends_of_their_ranges)
{
    fake_peer& peer = add_peer(INT_MIN);
    for (int id = 0; id < RE_STAT_PEER_ID_MAX; ++id) {
        peer.stats[id] = LLONG_MIN;
    }
    EXPECT_TRUE(contains(report(RE_SHOW_DETAIL), "\nPeer-No : -2147483648          Context: 0 \n"));
    EXPECT_TRUE(contains(detail(), "  RTT: max -9223372036854775 ms,   avg -9223372036854775 ms"));
    for (auto& [id, value] : peer.stats) {
        value = LLONG_MAX;
    }
    EXPECT_TRUE(contains(report(RE_SHOW_DETAIL), "Total (cumulative): 9223372036854775807,  Active: 0\n"));
}
