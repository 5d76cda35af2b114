#include "RE_top_app_names.h"
#include "RE_top_app_post_process.h"
#include "support/contains.h"
#include "support/fake_reader.h"
#include "support/top_app_records.h"

#include <gtest/gtest.h>

namespace {

// Port 80, a hash with 12345 as its low 16 bits (0x13039), and all counters set.
RE_stat_app_struct busy_record()
{
    RE_stat_app_struct record = port_record(80, {{RE_STAT_APP_ID_ENCODE_NUM_MSGS, 10},
                                                 {RE_STAT_APP_ID_ENCODE_IN_KBYTES, 1000},
                                                 {RE_STAT_APP_ID_ENCODE_OUT_KBYTES, 250},
                                                 {RE_STAT_APP_ID_RE_ENCODE_NUM_MSGS, 8},
                                                 {RE_STAT_APP_ID_RE_ENCODE_IN_KBYTES, 900},
                                                 {RE_STAT_APP_ID_RE_ENCODE_OUT_KBYTES, 300},
                                                 {RE_STAT_APP_ID_LZ_ENCODE_NUM_MSGS, 5},
                                                 {RE_STAT_APP_ID_LZ_ENCODE_IN_KBYTES, 300},
                                                 {RE_STAT_APP_ID_LZ_ENCODE_OUT_KBYTES, 250},
                                                 {RE_STAT_APP_ID_DECODE_NUM_MSGS, 20},
                                                 {RE_STAT_APP_ID_DECODE_IN_KBYTES, 100},
                                                 {RE_STAT_APP_ID_DECODE_OUT_KBYTES, 400},
                                                 {RE_STAT_APP_ID_RE_DECODE_NUM_MSGS, 18},
                                                 {RE_STAT_APP_ID_RE_DECODE_IN_KBYTES, 150},
                                                 {RE_STAT_APP_ID_RE_DECODE_OUT_KBYTES, 400},
                                                 {RE_STAT_APP_ID_LZ_DECODE_NUM_MSGS, 7},
                                                 {RE_STAT_APP_ID_LZ_DECODE_IN_KBYTES, 100},
                                                 {RE_STAT_APP_ID_LZ_DECODE_OUT_KBYTES, 150}});
    record.m_header.m_open_cnt = 8388607;
    record.m_header.m_close_cnt = 16777215;
    record.m_header.m_kav_peer_id = peer_of_hash(0x13039);
    return record;
}

const char* const busy_traffic = "Encode:\n"
                                 "   Overall: msg:         10, in:   1000 KB, out:    250 KB, ratio:  75.00%\n"
                                 "       KAV: msg:          8, in:    900 KB, out:    300 KB, ratio:  66.67%\n"
                                 "        LZ: msg:          5, in:    300 KB, out:    250 KB, ratio:  16.67%\n"
                                 "Decode:\n"
                                 "   Overall: msg:         20, in:    100 KB, out:    400 KB, ratio:  75.00%\n"
                                 "       KAV: msg:         18, in:    150 KB, out:    400 KB, ratio:  62.50%\n"
                                 "        LZ: msg:          7, in:    100 KB, out:    150 KB, ratio:  33.33%\n"
                                 "\n";

std::string entry_of(RE_stat_app_struct record, int slot = 0)
{
    return printed([&](FILE* out) { print_top_app_entry(out, slot, record); });
}

std::string report_of(std::vector<RE_stat_app_struct> records, int top, bool detail)
{
    return printed([&](FILE* out) { process_top_app_vector(out, records, top, detail); });
}

// Has three quarters of the traffic of the two-port report.
RE_stat_app_struct port_80()
{
    RE_stat_app_struct record = port_record(80, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 1000},
                                                 {RE_STAT_APP_ID_DECODE_OUT_KBYTES, 500},
                                                 {RE_STAT_APP_ID_RE_DECODE_OUT_KBYTES, 400},
                                                 {RE_STAT_APP_ID_RE_ENCODE_IN_KBYTES, 600},
                                                 {RE_STAT_APP_ID_RE_DECODE_IN_KBYTES, 100},
                                                 {RE_STAT_APP_ID_RE_ENCODE_OUT_KBYTES, 150},
                                                 {RE_STAT_APP_ID_LZ_DECODE_OUT_KBYTES, 60},
                                                 {RE_STAT_APP_ID_LZ_ENCODE_IN_KBYTES, 40},
                                                 {RE_STAT_APP_ID_LZ_DECODE_IN_KBYTES, 30},
                                                 {RE_STAT_APP_ID_LZ_ENCODE_OUT_KBYTES, 20}});
    record.m_header.m_open_cnt = 7;
    record.m_header.m_close_cnt = 5;
    return record;
}

// Has one quarter, on a client's port.
RE_stat_app_struct port_443()
{
    RE_stat_app_struct record = port_record(443, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 500}});
    record.m_header.m_b_src_port = 1;
    record.m_header.m_open_cnt = 1;
    return record;
}

std::string column_heads()
{
    return "Overall,  ratio,  open-cnt, close-cnt, Encode-In, Decode-Out,  KAV LAN,  KAV WAN,  ratio,   LZ LAN,   "
           "LZ WAN,  ratio\n";
}

} // namespace

TEST(top_app_entry, prints_a_record_by_its_port)
{
    EXPECT_EQ(entry_of(busy_record(), 12),
              std::string("App-Slot: 12, KAV_peer_id: 39:30:01:00:00:00-000000000000-00000000 (12345), Port: 80, "
                          "Open-cnt: 8388607, Close-cnt: 16777215\n") +
                  busy_traffic);
}

TEST(top_app_entry, prints_the_identity_in_bytes_and_marks_a_source_port)
{
    RE_stat_app_struct record = busy_record();
    for (unsigned char i = 0; i < 16; ++i) {
        record.m_header.m_kav_peer_id.m_data[i] = static_cast<unsigned char>(0xa0 + i);
    }
    // a0^a4^a8^ac is 0, and so are the other three bytes.
    record.m_header.m_server_port = 65535;
    record.m_header.m_b_src_port = 1;
    record.m_header.m_open_cnt = 0;
    record.m_header.m_close_cnt = 1;
    EXPECT_EQ(entry_of(record, 0),
              std::string("App-Slot: 0, KAV_peer_id: a0:a1:a2:a3:a4:a5-a6a7a8a9aaab-acadaeaf (0), Port: 65535*, "
                          "Open-cnt: 0, Close-cnt: 1\n") +
                  busy_traffic);
}

TEST(top_app_entry, prints_an_identitys_hash_without_a_sign)
{
    RE_stat_app_struct record{};
    record.m_header.m_kav_peer_id = peer_of_hash(0x8000);
    EXPECT_TRUE(contains(entry_of(record), "KAV_peer_id: 00:80:00:00:00:00-000000000000-00000000 (32768), Port: 0,"));
}

TEST(top_app_entry, prints_the_slot_number_without_a_sign)
{
    EXPECT_EQ(entry_of(busy_record(), -1).substr(0, 22), "App-Slot: 4294967295, ");
}

TEST(top_app_entry, prints_the_names_of_a_known_handle)
{
    const names_in_place names({names_of("Web", "HTTP"), names_of("Mail", "SMTP")});
    RE_stat_app_struct record = busy_record();
    record.m_header.set_policy_engine_handler(1);
    EXPECT_EQ(entry_of(record, 12),
              std::string("App-Slot: 12, KAV_peer_id: 39:30:01:00:00:00-000000000000-00000000 (12345), Port: 80, "
                          "Open-cnt: 8388607, Close-cnt: 16777215\n"
                          "Classifier: Mail, Application: SMTP\n") +
                  busy_traffic);
}

TEST(top_app_entry, has_no_names_line_for_an_unknown_handle)
{
    const names_in_place names({names_of("Web", "HTTP")});
    RE_stat_app_struct record = busy_record();
    record.m_header.set_policy_engine_handler(1);
    EXPECT_FALSE(contains(entry_of(record), "Classifier"));
}

TEST(top_app_entry, ends_a_name_without_a_nul_at_its_arrays_end)
{
    const std::string classifier(41, 'c');
    const std::string application(41, 'a');
    const names_in_place names({names_of(classifier, application)});
    EXPECT_TRUE(
        contains(entry_of(busy_record()), "\nClassifier: " + classifier + ", Application: " + application + "\n"));
}

TEST(top_app_entry, prints_counters_up_to_their_ends)
{
    RE_stat_app_struct record = port_record(
        80, {{RE_STAT_APP_ID_ENCODE_NUM_MSGS, 0xffffffffU}, {RE_STAT_APP_ID_ENCODE_IN_KBYTES, 0xffffffffU}});
    EXPECT_TRUE(
        contains(entry_of(record), "   Overall: msg: 4294967295, in:   4095 GB, out:      0 KB, ratio: 100.00%\n"));
}

TEST(top_app_entry_total, prints_the_sums_with_all_their_bits)
{
    unsigned long long totals[RE_STAT_APP_ID_MAX]{};
    totals[RE_STAT_APP_ID_ENCODE_NUM_MSGS] = 10000000000ULL;
    totals[RE_STAT_APP_ID_ENCODE_IN_KBYTES] = 1ULL << 40U;
    totals[RE_STAT_APP_ID_ENCODE_OUT_KBYTES] = 1ULL << 39U;
    totals[RE_STAT_APP_ID_LZ_DECODE_NUM_MSGS] = 7;
    totals[RE_STAT_APP_ID_LZ_DECODE_IN_KBYTES] = 100;
    totals[RE_STAT_APP_ID_LZ_DECODE_OUT_KBYTES] = 150;
    EXPECT_EQ(printed([&](FILE* out) { print_top_app_entry_total(out, totals); }),
              "Total:\n"
              "Encode:\n"
              "   Overall: msg: 10000000000, in: 1048576 GB, out: 524288 GB, ratio:  50.00%\n"
              "       KAV: msg:          0, in:      0 KB, out:      0 KB, ratio:   0.00%\n"
              "        LZ: msg:          0, in:      0 KB, out:      0 KB, ratio:   0.00%\n"
              "Decode:\n"
              "   Overall: msg:          0, in:      0 KB, out:      0 KB, ratio:   0.00%\n"
              "       KAV: msg:          0, in:      0 KB, out:      0 KB, ratio:   0.00%\n"
              "        LZ: msg:          7, in:    100 KB, out:    150 KB, ratio:  33.33%\n"
              "\n");
}

TEST(top_app_table, prints_ports_by_traffic_under_the_total)
{
    EXPECT_EQ(report_of({port_443(), port_80()}, 0, false),
              "Top Application Summary:\n"
              "\n"
              " Port,   " +
                  column_heads() +
                  "Total    2000 KB 100.00%        N/A        N/A    1500 KB      500 KB   1000 KB    250 KB  75.00%"
                  "    100 KB     50 KB  50.00%\n"
                  "   80    1500 KB  75.00%          7          5    1000 KB      500 KB   1000 KB    250 KB  75.00%"
                  "    100 KB     50 KB  50.00%\n"
                  "  443*    500 KB  25.00%          1          0     500 KB        0 KB      0 KB      0 KB   0.00%"
                  "      0 KB      0 KB   0.00%\n"
                  "\n");
}

TEST(top_app_table, prints_the_sums_first_in_detail)
{
    RE_stat_app_struct record = busy_record();
    const std::string report = report_of({record}, 0, true);
    const std::string sums = std::string("Total:\n") + busy_traffic;
    EXPECT_EQ(report.substr(0, sums.size()), sums);
    EXPECT_EQ(report.substr(sums.size()), report_of({record}, 0, false));
}

TEST(top_app_table, prints_nothing_without_records)
{
    EXPECT_EQ(report_of({}, 0, false), "");
    EXPECT_EQ(report_of({}, 5, true), "");
    std::vector<RE_stat_app_struct> rows;
    unsigned long long totals[RE_STAT_APP_ID_MAX]{};
    EXPECT_EQ(printed([&](FILE* out) { print_aggregated_vector(out, rows, 0, totals); }), "");
}

TEST(top_app_table, with_top_1_of_five_rows_prints_the_row_of_most_traffic_and_the_total_of_all)
{
    std::vector<RE_stat_app_struct> records;
    for (std::uint16_t port = 1; port <= 5; ++port) {
        // Port 4 has 40 KB and the others have 10 KB, all from the local network.
        records.push_back(port_record(port, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, port == 4 ? 40 : 10}}));
    }
    EXPECT_EQ(report_of(records, 1, false),
              "Top Application Summary:\n"
              "\n"
              " Port,   " +
                  column_heads() +
                  "Total      80 KB 100.00%        N/A        N/A      80 KB        0 KB      0 KB      0 KB   0.00%"
                  "      0 KB      0 KB   0.00%\n"
                  "    4      40 KB  50.00%          0          0      40 KB        0 KB      0 KB      0 KB   0.00%"
                  "      0 KB      0 KB   0.00%\n"
                  "\n");
}

TEST(top_app_table, prints_all_rows_unless_top_is_above_zero_and_below_their_number)
{
    const std::vector<RE_stat_app_struct> records{port_80(), port_443()};
    const std::string whole = report_of(records, 0, false);
    EXPECT_EQ(report_of(records, -1, false), whole);
    EXPECT_EQ(report_of(records, 2, false), whole);
    EXPECT_EQ(report_of(records, 3, false), whole);
    EXPECT_EQ(report_of(records, 0x7fffffff, false), whole);
    EXPECT_NE(report_of(records, 1, false), whole);
}

TEST(top_app_table, of_idle_rows_has_shares_of_zero_under_a_total_of_a_hundred)
{
    EXPECT_EQ(report_of({port_record(7, {})}, 0, false),
              "Top Application Summary:\n"
              "\n"
              " Port,   " +
                  column_heads() +
                  "Total       0 KB 100.00%        N/A        N/A       0 KB        0 KB      0 KB      0 KB   0.00%"
                  "      0 KB      0 KB   0.00%\n"
                  "    7       0 KB   0.00%          0          0       0 KB        0 KB      0 KB      0 KB   0.00%"
                  "      0 KB      0 KB   0.00%\n"
                  "\n");
}

// There are more rows than an unstable sort keeps in order.
TEST(top_app_table, prints_rows_of_equal_traffic_in_order_of_their_ports)
{
    std::vector<RE_stat_app_struct> records;
    for (std::uint16_t port = 60; port > 0; --port) {
        records.push_back(port_record(port, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 5}}));
    }
    const std::string report = report_of(records, 0, false);
    std::size_t at = 0;
    for (int port = 1; port <= 60; ++port) {
        char label[20];
        std::snprintf(label, sizeof label, "\n%5d  ", port);
        at = report.find(label, at);
        ASSERT_NE(at, std::string::npos) << port;
    }
}

// Of the records with the same key, the first one counts.
TEST(top_app_table, keeps_the_counts_of_the_first_of_many_records)
{
    std::vector<RE_stat_app_struct> records;
    for (unsigned number = 0; number < 300; ++number) {
        RE_stat_app_struct record = handle_record(2 - number % 3, 1 + number % 3);
        record.m_header.m_server_port = static_cast<std::uint16_t>(9 - number % 3);
        record.m_header.m_open_cnt = number & 0x7fffffU;
        records.push_back(record);
    }
    const std::string by_port = report_of(records, 0, false);
    EXPECT_TRUE(contains(by_port, "\n    9     100 KB  16.67%          0 ")) << by_port;
    EXPECT_TRUE(contains(by_port, "\n    8     200 KB  33.33%          1 "));
    EXPECT_TRUE(contains(by_port, "\n    7     300 KB  50.00%          2 "));
    const names_in_place names({names_of("zero", ""), names_of("one", ""), names_of("two", "")});
    const std::string by_classifier = report_of(records, 0, false);
    EXPECT_TRUE(contains(by_classifier, "\n            two    100 KB  16.67%          0 ")) << by_classifier;
    EXPECT_TRUE(contains(by_classifier, "\n            one    200 KB  33.33%          1 "));
    EXPECT_TRUE(contains(by_classifier, "\n           zero    300 KB  50.00%          2 "));
}

TEST(top_app_table, keeps_the_open_and_close_counts_of_the_first_record_gathered)
{
    RE_stat_app_struct second = port_80();
    second.m_header.m_open_cnt = 9999;
    second.m_header.m_close_cnt = 8888;
    second.m_header.m_b_src_port = 1;
    EXPECT_TRUE(contains(report_of({port_80(), second}, 0, false),
                         "\n   80    3000 KB 100.00%          7          5    2000 KB     1000 KB "));
    EXPECT_TRUE(contains(report_of({second, port_80()}, 0, false),
                         "\n   80*   3000 KB 100.00%       9999       8888    2000 KB     1000 KB "));
}

TEST(top_app_table, prints_classifiers_once_names_are_known)
{
    const names_in_place names({names_of("Web", "HTTP"), names_of("A-Classifier-Longer-Than-15", "X")});
    std::vector<RE_stat_app_struct> records{port_80(), port_443()};
    records[1].m_header.set_policy_engine_handler(1);
    EXPECT_EQ(report_of(records, 0, false),
              "Top Application Summary:\n"
              "\n"
              "     Classifier,  " +
                  column_heads() +
                  "          Total   2000 KB 100.00%        N/A        N/A    1500 KB      500 KB   1000 KB    250 KB"
                  "  75.00%    100 KB     50 KB  50.00%\n"
                  "            Web   1500 KB  75.00%          7          5    1000 KB      500 KB   1000 KB    250 KB"
                  "  75.00%    100 KB     50 KB  50.00%\n"
                  "A-Classifier-Longer-Than-15    500 KB  25.00%          1          0     500 KB        0 KB      0 KB"
                  "      0 KB   0.00%      0 KB      0 KB   0.00%\n"
                  "\n");
}

TEST(top_app_table, ends_a_classifier_without_a_nul_at_its_arrays_end)
{
    const names_in_place names({names_of(std::string(41, 'c'), std::string(41, 'a'))});
    EXPECT_TRUE(contains(report_of({port_80()}, 0, false), "\n" + std::string(41, 'c') + "   1500 KB "));
}

TEST(top_app_table, labels_a_row_without_names_by_its_port_among_classifiers)
{
    const names_in_place names({names_of("Web", "HTTP")});
    RE_stat_app_struct unnamed = port_443();
    unnamed.m_header.set_policy_engine_handler(5);
    const std::string report = report_of({port_80(), unnamed}, 0, false);
    EXPECT_TRUE(contains(report, "\n     Classifier,  Overall,"));
    EXPECT_TRUE(contains(report, "\n  443*    500 KB  25.00% "));
}

TEST(top_app_table, merges_by_handle_only_once_names_are_known)
{
    const std::vector<RE_stat_app_struct> records{port_80(), port_443()}; // both with handle 0
    EXPECT_TRUE(contains(report_of(records, 0, false), "\n  443* "));
    const names_in_place names({names_of("Web", "HTTP")});
    EXPECT_TRUE(contains(report_of(records, 0, false), "\n            Web   2000 KB 100.00% "));
    EXPECT_FALSE(contains(report_of(records, 0, false), "443"));
}

TEST(top_app_table, wraps_a_rows_sums_at_32_bits_and_the_totals_not)
{
    // 2^32 - 1 + 3 is 2 in a row. In the totals it is 2^32 + 2, which is 4096 GB.
    const RE_stat_app_struct record = port_record(80, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 0xffffffffU},
                                                       {RE_STAT_APP_ID_DECODE_OUT_KBYTES, 3},
                                                       {RE_STAT_APP_ID_RE_ENCODE_IN_KBYTES, 0xffffffffU},
                                                       {RE_STAT_APP_ID_RE_DECODE_OUT_KBYTES, 3},
                                                       {RE_STAT_APP_ID_LZ_ENCODE_OUT_KBYTES, 0xffffffffU},
                                                       {RE_STAT_APP_ID_LZ_DECODE_IN_KBYTES, 3}});
    const std::string report = report_of({record}, 0, false);
    EXPECT_TRUE(contains(report,
                         "Total    4096 GB 100.00%        N/A        N/A    4095 GB        3 KB   4096 GB      0 KB "
                         "100.00%      0 KB   4096 GB 100.00%\n"))
        << report;
    EXPECT_TRUE(contains(report,
                         "   80       2 KB   0.00%          0          0    4095 GB        3 KB      2 KB      0 KB "
                         "100.00%      0 KB      2 KB 100.00%\n"))
        << report;
}

TEST(top_app_table, computes_shares_in_single_precision)
{
    // 16777217 does not fit into the 24 bits of a float. It becomes 16777216, a third of 50331648.
    const std::string report = report_of({port_record(1, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 16777217}}),
                                          port_record(2, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 33554431}})},
                                         0, false);
    EXPECT_TRUE(contains(report, "    1   16384 MB  33.33% ")) << report;
    EXPECT_TRUE(contains(report, "    2   32767 MB  66.67% ")) << report;
}

TEST(top_app_collector, keeps_a_copy_and_prints_only_in_detail)
{
    std::vector<RE_stat_app_struct> kept;
    RE_stat_app_struct record = busy_record();
    EXPECT_EQ(output_of([&] { push_back_to_collector_and_print(kept, record, 4, false); }), "");
    EXPECT_EQ(output_of([&] { push_back_to_collector_and_print(kept, record, 4, true); }), entry_of(record, 4));
    ASSERT_EQ(kept.size(), 2U);
    EXPECT_EQ(kept[0].m_header.m_server_port, 80U);
}
