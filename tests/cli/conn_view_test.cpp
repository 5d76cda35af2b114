// The connection listing.
#include "RE_conn_blocks.h"
#include "RE_conn_view.h"
#include "RE_statistics.h"
#include "support/contains.h"
#include "support/fake_reader.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

const std::string head = "\nConn  Peer       Client-ip:port       Server-ip:port   Encode-in/   Status\n"
                         " Id    No                                             Decode-out   (A-Active) \n"
                         "                                                                  (C-Closed)\n";
const std::string rule = "------------------------------------------------------------------------------\n";

// The arguments of a listing. By default, nothing is filtered.
struct request
{
    unsigned int client_ip = 0;
    unsigned int server_ip = 0;
    unsigned short client_port = 0;
    unsigned short server_port = 0;
    int conn_id = -1;
    int peer_id = -1;
    RE_show_type type = RE_SHOW_INFO;
    bool b_active = false;
    bool b_last = false;
};

class conn_view : public view_test
{
protected:
    // Adds an open connection with this id. Its bytes to encode are its slot number.
    fake_conn& add(int id)
    {
        fake_conn conn;
        conn.header = {id, 0x0a000001U, 0x0a000002U, 1000, 80};
        conn.so_header.m_comp_type = 3;
        conn.peer_id = 3;
        conn.open_time = now - 60;
        conn.stats = {{RE_STAT_CONN_ID_ENCODE_IN_BYTES, static_cast<long long>(reader.conns.size())},
                      {RE_STAT_CONN_ID_DECODE_OUT_BYTES, 10}};
        reader.conns.push_back(conn);
        return reader.conns.back();
    }

    // Records every address that is written among the reader's calls.
    void write_down_addresses()
    {
        fake_engine::ip_text = [this](unsigned int ip) {
            const std::string text = ip == 0x0a000001U ? "10.0.0.1" : "10.0.0.2";
            reader.calls.push_back("ip_to_string " + text);
            return text;
        };
    }

    static std::string listing(const request& r = {})
    {
        return output_of([&r] {
            show_conn(r.client_ip, r.server_ip, r.client_port, r.server_port, r.conn_id, r.peer_id, r.type, r.b_active,
                      r.b_last);
        });
    }
    static std::string rows(const request& r = {})
    {
        const std::string output = listing(r);
        EXPECT_EQ(output.substr(0, head.size()), head);
        return output.size() < head.size() ? "" : output.substr(head.size());
    }
};

std::string info_of(int slot)
{
    return output_of([slot] { show_conn_info(RE_conn_conn_slot(slot)); });
}

std::string detail_of(int slot)
{
    return output_of([slot] { show_conn_detail(RE_conn_conn_slot(slot)); });
}

// Returns the ids in a listing of either form, in order.
std::vector<int> ids_in(const std::string& output)
{
    std::vector<int> ids;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        int id = 0;
        int peer = 0;
        const bool b_row = !line.starts_with(' ') && std::sscanf(line.c_str(), "%d %d ", &id, &peer) == 2;
        if (b_row || std::sscanf(line.c_str(), "Conn-ID: %d", &id) == 1) {
            ids.push_back(id);
        }
    }
    return ids;
}

bool is_table(const std::string& output)
{
    return output.starts_with(head);
}

bool is_blocks(const std::string& output)
{
    return output.starts_with("\nConn-ID: ");
}

} // namespace

TEST_F(conn_view, prints_nothing_without_connections)
{
    EXPECT_EQ(listing(), "");
    EXPECT_EQ(listing({.b_last = true}), "");
    EXPECT_EQ(listing({.type = RE_SHOW_DETAIL}), "");
    EXPECT_EQ(listing({.type = RE_SHOW_NACK}), "");
}

TEST_F(conn_view, prints_nothing_when_no_connection_matches)
{
    add(5);
    EXPECT_EQ(listing({.server_port = 81}), "");
    EXPECT_EQ(listing({.client_port = 81}), "");
    EXPECT_EQ(listing({.peer_id = 4, .b_last = true}), "");
}

TEST_F(conn_view, prints_head_and_row_to_the_blank)
{
    add(9);
    EXPECT_EQ(listing(), head + "9       3        10.0.0.1:1000        10.0.0.2:80        0B/  10B  A\n");
}

TEST_F(conn_view, lists_any_order_of_slots_by_descending_id_and_equal_ids_by_slot)
{
    const std::vector<std::vector<int>> orders = {{1, 2, 3, 4, 5}, {5, 4, 3, 2, 1}, {3, 3, 3},
                                                  {1, 1, 2, 2},    {2, 1, 2, 1},    {INT_MIN, INT_MAX, 0, -1, 1}};
    for (const std::vector<int>& ids : orders) {
        reader.conns.clear();
        std::vector<std::pair<int, long long>> expected;
        for (const int id : ids) {
            expected.emplace_back(id, static_cast<long long>(expected.size()));
            add(id);
        }
        std::stable_sort(expected.begin(), expected.end(),
                         [](const auto& a, const auto& b) { return a.first > b.first; });
        std::string text;
        for (const auto& [id, slot] : expected) {
            char row[100];
            std::snprintf(row, sizeof row, "%-5d   3        10.0.0.1:1000        10.0.0.2:80     %4dB/  10B  A\n", id,
                          static_cast<int>(slot));
            text += row;
        }
        EXPECT_EQ(rows(), text);
    }
}

TEST_F(conn_view, orders_by_descending_id_alone)
{
    const RE_conn_slot_id_compare compare;
    EXPECT_TRUE(compare({2, 0}, {1, 1}));
    EXPECT_FALSE(compare({1, 1}, {2, 0}));
    EXPECT_FALSE(compare({1, 0}, {1, 1}));
    EXPECT_FALSE(compare({1, 1}, {1, 0}));
    EXPECT_TRUE(compare({0, 0}, {-1, 0}));
    EXPECT_TRUE(compare({INT_MAX, 0}, {INT_MIN, 0}));
}

TEST_F(conn_view, repeats_the_head_before_every_30_rows)
{
    for (int id = 0; id < 91; ++id) {
        add(id);
        std::string expected;
        for (int row = 0; row <= id; ++row) {
            char text[100];
            std::snprintf(text, sizeof text, "%-5d   3        10.0.0.1:1000        10.0.0.2:80     %4dB/  10B  A\n",
                          id - row, id - row);
            expected += (row == 0 || row == 30 || row == 60 || row == 90 ? head : "") + text;
        }
        ASSERT_EQ(listing(), expected) << id + 1 << " connections";
    }
}

TEST_F(conn_view, never_cuts_a_wide_value)
{
    fake_conn& conn = add(INT_MIN);
    conn.header = {INT_MIN, 0xffffffffU, 0xc0a8fefdU, 65535, 65535};
    conn.peer_id = INT_MIN;
    conn.stats = {{0, -(1LL << 31)}, {3, LLONG_MAX}};
    EXPECT_EQ(rows(), "-2147483648 -2147483648 255.255.255.255:65535192.168.254.253:65535  -2147483648B/  -1GB  A\n");
    conn.header = {123456, 0, 0, 0, 0};
    conn.peer_id = 1000;
    conn.stats = {{0, 1025}, {3, 1LL << 30}};
    EXPECT_EQ(rows(), "123456 1000         0.0.0.0:0            0.0.0.0:0         1KB/1024MB  A\n");
}

TEST_F(conn_view, ends_a_closed_row_with_the_age_since_closing)
{
    add(1).close_time = now - (2 * 3600 + 5 * 60 + 7);
    EXPECT_EQ(rows(), "1       3        10.0.0.1:1000        10.0.0.2:80        0B/  10B  C(2h5m7s)\n");
    reader.conns[0].close_time = now - 45 * 86400;
    EXPECT_EQ(rows(), "1       3        10.0.0.1:1000        10.0.0.2:80        0B/  10B  C(45d)\n");
    reader.conns[0].close_time = now + 1;
    EXPECT_EQ(rows(), "1       3        10.0.0.1:1000        10.0.0.2:80        0B/  10B"
                      "  C(unknown (system clock has been changed))\n");
}

TEST_F(conn_view, takes_a_close_time_of_0_or_less_for_open)
{
    add(1).close_time = 0;
    add(2).close_time = -1;
    EXPECT_EQ(rows(), "2       3        10.0.0.1:1000        10.0.0.2:80        1B/  10B  A\n"
                      "1       3        10.0.0.1:1000        10.0.0.2:80        0B/  10B  A\n");
    EXPECT_EQ(ids_in(listing({.b_active = true})), (std::vector<int>{2, 1}));
}

TEST_F(conn_view, keeps_the_table_for_filters_by_server_peer_and_activity)
{
    add(5);
    EXPECT_TRUE(is_table(listing()));
    EXPECT_TRUE(is_table(listing({.server_port = 80})));
    EXPECT_TRUE(is_table(listing({.server_ip = 0x0a000002U})));
    EXPECT_TRUE(is_table(listing({.peer_id = 3})));
    EXPECT_TRUE(is_table(listing({.b_active = true})));
    EXPECT_TRUE(is_table(listing({.conn_id = INT_MIN})));
}

TEST_F(conn_view, prints_blocks_for_a_narrow_request_or_more_than_the_summary)
{
    add(0);
    EXPECT_TRUE(is_blocks(listing({.client_port = 1000})));
    EXPECT_TRUE(is_blocks(listing({.client_ip = 0x0a000001U})));
    EXPECT_TRUE(is_blocks(listing({.conn_id = 0})));
    EXPECT_TRUE(is_blocks(listing({.b_last = true})));
    EXPECT_TRUE(is_blocks(listing({.type = RE_SHOW_DETAIL})));
    EXPECT_TRUE(is_blocks(listing({.type = RE_SHOW_NACK})));
}

TEST_F(conn_view, prints_the_block_of_an_open_connection)
{
    add(5).open_time = 1299506709;
    EXPECT_EQ(listing({.conn_id = 5}), "\nConn-ID: 5 10.0.0.1:1000 -- 10.0.0.2:80  Peer No:  3 Status: Active\n" +
                                           rule + "Open at 03/07/2011 14:05:09, Still active\n" + info_of(0));
}

TEST_F(conn_view, prints_the_block_of_a_closed_connection)
{
    fake_conn& conn = add(5);
    conn.open_time = 1299506709;
    conn.close_time = 1299506710;
    EXPECT_EQ(listing({.conn_id = 5}), "\nConn-ID: 5 10.0.0.1:1000 -- 10.0.0.2:80  Peer No:  3 Status: Closed\n" +
                                           rule +
                                           "Open at 03/07/2011 14:05:09, Close at 03/07/2011 14:05:10, "
                                           "Duration: 1 secs\n" +
                                           info_of(0));
}

TEST_F(conn_view, adds_the_detail_behind_each_summary)
{
    add(5).open_time = 1299506709;
    add(6).open_time = 1299506709;
    const std::string open_at = rule + "Open at 03/07/2011 14:05:09, Still active\n";
    EXPECT_EQ(listing({.type = RE_SHOW_DETAIL}),
              "\nConn-ID: 6 10.0.0.1:1000 -- 10.0.0.2:80  Peer No:  3 Status: Active\n" + open_at + info_of(1) +
                  detail_of(1) + "\nConn-ID: 5 10.0.0.1:1000 -- 10.0.0.2:80  Peer No:  3 Status: Active\n" + open_at +
                  info_of(0) + detail_of(0));
}

TEST_F(conn_view, has_a_rule_of_78_dashes)
{
    EXPECT_EQ(rule, std::string(78, '-') + "\n");
}

TEST_F(conn_view, prints_a_connections_nack_log_in_place_of_its_figures)
{
    add(5);
    reader.nacks = {{0, 0, 0, 9, 5, 10}, {0, 0, 0, 3, 6, 11}, {0, 1, 2, 3, 5, 12}};
    EXPECT_EQ(listing({.type = RE_SHOW_NACK}),
              "\nConn-ID: 5 10.0.0.1:1000 -- 10.0.0.2:80  Peer No:  3 Status: Active\n" + rule +
                  "\nTime                  Peer-No  Conn-ID     Msg-No Type Reason\n" + rule.substr(0, 78) + "-\n" +
                  "01/01/1970 00:00:00         9        5         10 Nack None\n"
                  "01/01/1970 00:00:00         3        5         12 R-Tx Checksum collision\n");
    EXPECT_EQ(reader.count("read_conn_stat 0 0"), 0);
}

TEST_F(conn_view, filters_no_nacks_by_a_negative_connection_id)
{
    add(-5);
    reader.nacks = {{0, 0, 0, 9, 5, 10}, {0, 0, 0, 3, 6, 11}};
    EXPECT_TRUE(listing({.type = RE_SHOW_NACK})
                    .ends_with("01/01/1970 00:00:00         9        5         10 Nack None\n"
                               "01/01/1970 00:00:00         3        6         11 Nack None\n"));
}

TEST_F(conn_view, never_lists_a_connection_without_compression_type)
{
    add(5).so_header.m_comp_type = 0;
    reader.conns[0].so_header.m_conn_type = 15;
    EXPECT_EQ(listing(), "");
    EXPECT_EQ(listing({.client_ip = 0x0a000001U}), "");
    EXPECT_EQ(listing({.conn_id = 5}), "");
    EXPECT_EQ(listing({.server_port = 80, .peer_id = 3, .type = RE_SHOW_DETAIL}), "");
    EXPECT_EQ(listing({.b_active = true, .b_last = true}), "");
    reader.conns[0].so_header.m_comp_type = 15;
    EXPECT_NE(listing(), "");
}

TEST_F(conn_view, drops_closed_connections_in_both_forms_when_asked_for_active_ones)
{
    add(1).close_time = 1;
    add(2);
    EXPECT_EQ(ids_in(listing({.b_active = true})), std::vector<int>{2});
    EXPECT_EQ(ids_in(listing({.client_port = 1000, .b_active = true})), std::vector<int>{2});
    EXPECT_EQ(ids_in(listing({.b_active = true, .b_last = true})), std::vector<int>{2});
}

TEST_F(conn_view, takes_connection_and_peer_0_for_filters)
{
    add(0).peer_id = 0;
    add(1).peer_id = 1;
    EXPECT_EQ(ids_in(listing({.conn_id = 0})), std::vector<int>{0});
    EXPECT_EQ(ids_in(listing({.peer_id = 0})), std::vector<int>{0});
    EXPECT_EQ(ids_in(listing({.conn_id = -7, .peer_id = -7})), (std::vector<int>{1, 0}));
}

// The 128 connections have all combinations of two values of each filtered trait. Every set of filters, each alone and
// in pairs with others, must list the connections that have the second value of each trait in the set, in its own form
// and order.
TEST_F(conn_view, lists_what_passes_every_filter_alone_and_together)
{
    constexpr int client_ip_bit = 1;
    constexpr int server_ip_bit = 2;
    constexpr int client_port_bit = 4;
    constexpr int server_port_bit = 8;
    constexpr int conn_id_bit = 16;
    constexpr int peer_bit = 32;
    constexpr int active_bit = 64;
    constexpr int mixtures = 128;
    const auto has = [](int traits, int bit) { return (traits & bit) != 0; };
    for (int traits = 0; traits < mixtures; ++traits) {
        fake_conn& conn = add(has(traits, conn_id_bit) ? 20 : 10);
        conn.header.m_client_ip = has(traits, client_ip_bit) ? 2 : 1;
        conn.header.m_server_ip = has(traits, server_ip_bit) ? 2 : 1;
        conn.header.m_client_port = has(traits, client_port_bit) ? 2 : 1;
        conn.header.m_server_port = has(traits, server_port_bit) ? 2 : 1;
        conn.peer_id = has(traits, peer_bit) ? 2 : 1;
        conn.close_time = has(traits, active_bit) ? 0 : now;
    }
    for (int filters = 0; filters < mixtures; ++filters) {
        const bool b_table = !has(filters, client_ip_bit | client_port_bit | conn_id_bit);
        std::string expected;
        int row = 0;
        for (const int id : {20, 10}) {
            for (int traits = 0; traits < mixtures; ++traits) {
                if (has(traits, conn_id_bit) != (id == 20) || (traits & filters) != filters) {
                    continue;
                }
                const int client_ip = has(traits, client_ip_bit) ? 2 : 1;
                const int server_ip = has(traits, server_ip_bit) ? 2 : 1;
                const int client_port = has(traits, client_port_bit) ? 2 : 1;
                const int server_port = has(traits, server_port_bit) ? 2 : 1;
                const int peer = has(traits, peer_bit) ? 2 : 1;
                char text[300];
                if (b_table) {
                    std::snprintf(text, sizeof text,
                                  "%-5d   %d         0.0.0.%d:%d            0.0.0.%d:%d      %4dB/  10B  %s\n", id,
                                  peer, client_ip, client_port, server_ip, server_port, traits,
                                  has(traits, active_bit) ? "A" : "C(0s)");
                    expected += (row++ % 30 == 0 ? head : "") + text;
                } else {
                    std::snprintf(text, sizeof text,
                                  "\nConn-ID: %d 0.0.0.%d:%d -- 0.0.0.%d:%d  Peer No:  %d Status: %s\n", id, client_ip,
                                  client_port, server_ip, server_port, peer,
                                  has(traits, active_bit) ? "Active" : "Closed");
                    expected += text + rule + "Open at 09/09/2001 01:45:40," +
                                (has(traits, active_bit) ? " Still active\n"
                                                         : " Close at 09/09/2001 01:46:40, Duration: 60 secs\n") +
                                info_of(traits);
                }
            }
        }
        request r;
        r.client_ip = has(filters, client_ip_bit) ? 2 : 0;
        r.server_ip = has(filters, server_ip_bit) ? 2 : 0;
        r.client_port = has(filters, client_port_bit) ? 2 : 0;
        r.server_port = has(filters, server_port_bit) ? 2 : 0;
        r.conn_id = has(filters, conn_id_bit) ? 20 : -1;
        r.peer_id = has(filters, peer_bit) ? 2 : -1;
        r.b_active = has(filters, active_bit);
        ASSERT_EQ(listing(r), expected) << "filters " << filters;
    }
}

TEST_F(conn_view, shows_the_larger_id_of_two_opened_last_in_one_second_as_a_block)
{
    add(7).open_time = 1299506709;
    add(9).open_time = 1299506709;
    add(8).open_time = 1299506709;
    add(99).open_time = 1299506708;
    EXPECT_EQ(listing({.b_last = true}), "\nConn-ID: 9 10.0.0.1:1000 -- 10.0.0.2:80  Peer No:  3 Status: Active\n" +
                                             rule + "Open at 03/07/2011 14:05:09, Still active\n" + info_of(1));
}

TEST_F(conn_view, finds_the_last_among_those_that_pass_the_filters)
{
    add(1).open_time = 100;
    add(2).open_time = 200;
    add(3).open_time = 300;
    reader.conns[2].header.m_server_port = 81;
    EXPECT_EQ(ids_in(listing({.server_port = 80, .b_last = true})), std::vector<int>{2});
    EXPECT_EQ(ids_in(listing({.type = RE_SHOW_DETAIL, .b_last = true})), std::vector<int>{3});
}

TEST_F(conn_view, keeps_the_first_slot_of_equal_ids_and_times_as_the_last)
{
    add(4).open_time = 100;
    add(4).open_time = 100;
    reader.conns[0].peer_id = 1;
    reader.conns[1].peer_id = 2;
    EXPECT_TRUE(listing({.b_last = true}).find("Peer No:  1 ") != std::string::npos);
}

TEST_F(conn_view, can_take_an_open_time_of_0_but_never_a_negative_one_for_the_last)
{
    add(4).open_time = -1;
    EXPECT_EQ(listing({.b_last = true}), "");
    add(-1).open_time = 0; // the id must be larger than -1, the id of no connection
    EXPECT_EQ(listing({.b_last = true}), "");
    add(0).open_time = 0;
    EXPECT_EQ(ids_in(listing({.b_last = true})), std::vector<int>{0});
}

TEST_F(conn_view, keeps_the_time_of_the_last_in_32_bits)
{
    // 2^31 is stored as -2^31, so the time of every later slot is larger.
    add(1).open_time = 1LL << 31;
    add(2).open_time = 5;
    EXPECT_EQ(ids_in(listing({.b_last = true})), std::vector<int>{2});
    // 2^32 + 7 is stored as 7.
    reader.conns.clear();
    add(1).open_time = (1LL << 32) + 7;
    add(2).open_time = 7;
    add(3).open_time = 6;
    EXPECT_EQ(ids_in(listing({.b_last = true})), std::vector<int>{2});
}

TEST_F(conn_view, shows_durations_below_0_and_times_at_the_ends_of_their_ranges)
{
    fake_conn& conn = add(1);
    conn.open_time = 10;
    conn.close_time = 3;
    EXPECT_TRUE(contains(listing({.conn_id = 1}), "Open at 01/01/1970 00:00:10, Close at 01/01/1970 00:00:03, "
                                                  "Duration: -7 secs\n"));
    conn.open_time = LLONG_MIN;
    conn.close_time = LLONG_MAX; // the difference wraps
    EXPECT_TRUE(contains(listing({.conn_id = 1}), "Open at 01/01/1970 00:00:00, Close at 12/31/1969 23:59:59, "
                                                  "Duration: -1 secs\n"));
    conn.open_time = -1;
    conn.close_time = 1LL << 31; // after 2038
    EXPECT_TRUE(contains(listing({.conn_id = 1}), "Open at 12/31/1969 23:59:59, Close at 12/13/1901 20:45:52, "
                                                  "Duration: 2147483649 secs\n"));
}

TEST_F(conn_view, shows_zeros_and_peer_minus_1_for_a_connection_that_cannot_be_read_any_more)
{
    add(5).close_time = 1;
    reader.on_read = [this] { reader.b_failing = reader.count("read_conn_header 0") > 1; };
    EXPECT_EQ(rows(), "0      -1         0.0.0.0:0            0.0.0.0:0         0B/   0B  A\n");
    reader.calls.clear();
    reader.b_failing = false;
    EXPECT_TRUE(listing({.conn_id = 5})
                    .starts_with("\nConn-ID: 0 0.0.0.0:0 -- 0.0.0.0:0  Peer No: -1 Status: Active\n" + rule));
}

TEST_F(conn_view, lists_nothing_while_every_read_fails)
{
    add(5);
    reader.b_failing = true;
    EXPECT_EQ(listing(), "");
}

TEST_F(conn_view, does_not_carry_one_slots_records_over_to_the_next)
{
    add(5).close_time = 1;
    add(6);
    // Of the second slot, only the transport header can be read.
    reader.on_read = [this] {
        const std::string& call = reader.calls.back();
        reader.b_failing = call.ends_with(" 1") && call != "read_conn_so_header 1";
    };
    EXPECT_EQ(ids_in(listing({.b_active = true})), std::vector<int>{0});
}

TEST_F(conn_view, orders_by_the_scan_and_prints_what_it_reads_again)
{
    add(5);
    add(6);
    reader.on_read = [this] {
        if (reader.calls.back() == "read_conn_time 1" && reader.count("read_conn_time 1") == 1) {
            reader.conns[0].header.m_conn_id = 50;
            reader.conns[1].peer_id = 77;
            reader.conns[1].close_time = now;
        }
    };
    EXPECT_EQ(rows(), "6      77        10.0.0.1:1000        10.0.0.2:80        1B/  10B  C(0s)\n"
                      "50      3        10.0.0.1:1000        10.0.0.2:80        0B/  10B  A\n");
}

TEST_F(conn_view, reads_each_record_of_a_listed_connection_once_in_the_scan_and_once_more_for_its_row)
{
    add(5);
    add(6).b_valid = false;
    write_down_addresses();
    listing();
    EXPECT_EQ(reader.calls, (std::vector<std::string>{
                                "get_max_conn_slots", "is_conn_valid 0", "read_conn_header 0", "read_conn_so_header 0",
                                "read_conn_peer_id 0", "read_conn_time 0", "is_conn_valid 1", "read_conn_header 0",
                                "read_conn_time 0", "read_conn_peer_id 0", "ip_to_string 10.0.0.1",
                                "ip_to_string 10.0.0.2", "read_conn_stat 0 0", "read_conn_stat 0 3"}));
}

TEST_F(conn_view, reads_the_records_of_a_block_again_and_then_prints_both_addresses)
{
    add(5);
    write_down_addresses();
    listing({.conn_id = 5, .type = RE_SHOW_NACK});
    EXPECT_EQ(reader.calls,
              (std::vector<std::string>{"get_max_conn_slots", "is_conn_valid 0", "read_conn_header 0",
                                        "read_conn_so_header 0", "read_conn_peer_id 0", "read_conn_time 0",
                                        "read_conn_header 0", "read_conn_time 0", "read_conn_peer_id 0",
                                        "ip_to_string 10.0.0.1", "ip_to_string 10.0.0.2", "get_first_nack"}));
}

// A connection is read completely before any filter is applied.
TEST_F(conn_view, reads_all_of_a_connection_that_is_not_listed)
{
    add(5).close_time = now;
    const std::vector<std::string> whole_scan = {"get_max_conn_slots",    "is_conn_valid 0",     "read_conn_header 0",
                                                 "read_conn_so_header 0", "read_conn_peer_id 0", "read_conn_time 0"};
    const request failing[] = {{.client_ip = 1}, {.server_ip = 1}, {.client_port = 1}, {.server_port = 1},
                               {.conn_id = 6},   {.peer_id = 4},   {.b_active = true}};
    for (request r : failing) {
        for (const bool b_last : {false, true}) {
            r.b_last = b_last;
            reader.calls.clear();
            EXPECT_EQ(listing(r), "");
            EXPECT_EQ(reader.calls, whole_scan);
        }
    }
    reader.conns[0].so_header.m_comp_type = 0;
    reader.calls.clear();
    EXPECT_EQ(listing(), "");
    EXPECT_EQ(reader.calls, whole_scan);
}

TEST_F(conn_view, prints_addresses_as_the_engine_library_writes_them_in_both_forms)
{
    add(5);
    fake_engine::ip_text = [](unsigned int ip) { return ip == 0x0a000001U ? "<client>" : "<the server's side>"; };
    EXPECT_EQ(rows(), "5       3        <client>:1000 <the server's side>:80        0B/  10B  A\n");
    EXPECT_TRUE(listing({.conn_id = 5})
                    .starts_with("\nConn-ID: 5 <client>:1000 -- <the server's side>:80  Peer No:  3 Status: Active\n"));
    fake_engine::ip_text = [](unsigned int ip) { return std::string(ip == 0x0a000001U ? 0 : 100000, 's'); };
    EXPECT_EQ(rows(), "5       3                :1000 " + std::string(100000, 's') + ":80        0B/  10B  A\n");
}

namespace {

// An engine that reports any number of connection slots but has only one connection, in slot 2.
class boastful_reader : public fake_reader
{
public:
    int claimed = 0;

    int get_max_conn_slots() override { return claimed; }
    bool is_conn_valid(int conn_slot) override { return conn_slot == 2; }
};

} // namespace

TEST_F(conn_view, prints_nothing_of_an_engine_with_no_or_fewer_slots)
{
    boastful_reader boaster;
    const reader_in_place in_place(boaster);
    for (const int claimed : {0, -1, INT_MIN}) {
        boaster.claimed = claimed;
        EXPECT_EQ(listing(), "");
        EXPECT_EQ(listing({.b_last = true}), "");
    }
}

TEST_F(conn_view, lists_the_connections_of_an_engine_that_claims_more_slots_than_memory_can_be_had_for)
{
#ifdef KAV_SANITIZED
    GTEST_SKIP() << "the sanitizers need the memory that this test denies";
#endif
    const char* const preloaded = std::getenv("LD_PRELOAD");
    if (preloaded != nullptr && std::strstr(preloaded, "vgpreload") != nullptr) {
        GTEST_SKIP() << "memcheck keeps memory of its own, which no limit of ours denies";
    }
    for (const int id : {1, 2, 3}) {
        add(id);
    }
    boastful_reader boaster;
    boaster.conns = reader.conns;
    boaster.claimed = 20'000'000; // 160 MB
    const reader_in_place in_place(boaster);
    const auto list_in_little_memory = [] {
        long pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        const auto limit = static_cast<rlim_t>(pages * sysconf(_SC_PAGESIZE)) + (rlim_t{100} << 20);
        const rlimit little = {limit, limit};
        const bool b_denied =
            setrlimit(RLIMIT_AS, &little) == 0 &&
            mmap(nullptr, std::size_t{160} << 20, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == MAP_FAILED;
        const bool b_listed =
            listing() == head + "3       3        10.0.0.1:1000        10.0.0.2:80        2B/  10B  A\n";
        std::_Exit(b_denied && b_listed ? 0 : 1);
    };
    EXPECT_EXIT(list_in_little_memory(), testing::ExitedWithCode(0), "");
}
