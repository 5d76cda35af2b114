#include "RE_top_app_post_process.h"
#include "RE_top_app_tally.h"
#include "support/top_app_records.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace {

using totals_array = std::array<std::uint64_t, RE_STAT_APP_ID_MAX>;

RE_stat_app_struct record_of_traffic(std::uint32_t encode_in, std::uint32_t decode_out)
{
    return port_record(0,
                       {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, encode_in}, {RE_STAT_APP_ID_DECODE_OUT_KBYTES, decode_out}});
}

RE_stat_app_struct record_with_all_counters(std::uint16_t port, std::uint32_t first)
{
    RE_stat_app_struct record{};
    record.m_header.m_server_port = port;
    for (std::uint32_t k = 0; k < RE_STAT_APP_ID_MAX; ++k) {
        record.m_id_array[k] = first + k;
    }
    return record;
}

bool same(const RE_stat_app_struct& a, const RE_stat_app_struct& b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

} // namespace

TEST(top_app_order, traffic_is_what_the_local_network_saw_in_both_directions)
{
    const TrafficComparatorClass before;
    EXPECT_TRUE(before(record_of_traffic(10, 11), record_of_traffic(20, 0)));
    EXPECT_FALSE(before(record_of_traffic(20, 0), record_of_traffic(10, 11)));
    // Other counters are not traffic.
    EXPECT_FALSE(before(port_record(0, {{RE_STAT_APP_ID_DECODE_IN_KBYTES, 100}}), record_of_traffic(0, 0)));
    EXPECT_FALSE(before(port_record(0, {{RE_STAT_APP_ID_ENCODE_OUT_KBYTES, 100}}), record_of_traffic(0, 0)));
}

TEST(top_app_order, traffic_is_compared_without_a_sign)
{
    EXPECT_TRUE(TrafficComparatorClass{}(record_of_traffic(0x80000000U, 0), record_of_traffic(0x7fffffffU, 0)));
}

TEST(top_app_order, traffic_beyond_32_bits_wraps_and_sorts_as_small)
{
    EXPECT_FALSE(TrafficComparatorClass{}(record_of_traffic(0xffffffffU, 2), record_of_traffic(2, 0)));
    EXPECT_TRUE(TrafficComparatorClass{}(record_of_traffic(2, 0), record_of_traffic(0xffffffffU, 2)));
}

TEST(top_app_order, ports_ascend_without_a_sign)
{
    const PortComparatorClass before;
    EXPECT_TRUE(before(port_record(1, {}), port_record(65535, {})));
    EXPECT_FALSE(before(port_record(65535, {}), port_record(1, {})));
    EXPECT_TRUE(before(port_record(32767, {}), port_record(32768, {})));
}

TEST(top_app_order, handles_ascend)
{
    const ClassifierComparatorClass before;
    EXPECT_TRUE(before(handle_record(511, 0), handle_record(512, 0)));
    EXPECT_FALSE(before(handle_record(1023, 0), handle_record(0, 0)));
}

TEST(top_app_order, handles_that_differ_only_above_the_tenth_bit_are_equal)
{
    RE_stat_app_struct a = handle_record(5, 1);
    RE_stat_app_struct b = handle_record(5, 2);
    b.m_header.m_reserve_not_used = 0x3fffff;
    EXPECT_FALSE(ClassifierComparatorClass{}(a, b));
    EXPECT_FALSE(ClassifierComparatorClass{}(b, a));

    std::vector<RE_stat_app_struct> records{a, b};
    std::vector<RE_stat_app_struct> rows;
    totals_array totals{};
    aggregate_classifier_sorted_vector(records, rows, totals.data());
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(rows[0].m_id_array[RE_STAT_APP_ID_ENCODE_IN_KBYTES], 3U);
}

TEST(top_app_order, no_order_breaks_ties)
{
    const RE_stat_app_struct a = port_record(80, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 5}});
    const RE_stat_app_struct b = port_record(80, {{RE_STAT_APP_ID_DECODE_OUT_KBYTES, 5}});
    EXPECT_FALSE(TrafficComparatorClass{}(a, b) || TrafficComparatorClass{}(b, a));
    EXPECT_FALSE(PortComparatorClass{}(a, b) || PortComparatorClass{}(b, a));
    EXPECT_FALSE(ClassifierComparatorClass{}(a, b) || ClassifierComparatorClass{}(b, a));
}

TEST(top_app_aggregation, a_single_record_is_its_own_row_and_the_totals)
{
    std::vector<RE_stat_app_struct> records{record_with_all_counters(80, 100)};
    std::vector<RE_stat_app_struct> rows;
    totals_array totals{};
    aggregate_port_sorted_vector(records, rows, totals.data());
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_TRUE(same(rows[0], records[0]));
    EXPECT_EQ(totals,
              (totals_array{100, 101, 102, 103, 104, 105, 106, 107, 108, 109, 110, 111, 112, 113, 114, 115, 116, 117}));
}

TEST(top_app_aggregation, no_records_give_no_rows)
{
    std::vector<RE_stat_app_struct> records;
    std::vector<RE_stat_app_struct> rows;
    totals_array totals{};
    aggregate_port_sorted_vector(records, rows, totals.data());
    aggregate_classifier_sorted_vector(records, rows, totals.data());
    EXPECT_TRUE(rows.empty());
    EXPECT_EQ(totals, totals_array{});
}

TEST(top_app_aggregation, one_port_of_two_peers_and_handles_is_one_row_with_the_first_ones_header)
{
    RE_stat_app_struct first = record_with_all_counters(80, 1);
    first.m_header.set_policy_engine_handler(3);
    first.m_header.m_open_cnt = 10;
    first.m_header.m_close_cnt = 4;
    first.m_header.m_kav_peer_id = peer_of_hash(7);
    RE_stat_app_struct second = record_with_all_counters(80, 1000);
    second.m_header.set_policy_engine_handler(9);
    second.m_header.m_b_src_port = 1;
    second.m_header.m_open_cnt = 100;
    second.m_header.m_close_cnt = 100;
    second.m_header.m_kav_peer_id = peer_of_hash(8);

    std::vector<RE_stat_app_struct> records{first, second};
    std::vector<RE_stat_app_struct> rows;
    totals_array totals{};
    aggregate_port_sorted_vector(records, rows, totals.data());
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(rows[0].m_id_array[0], 1001U);
    EXPECT_EQ(rows[0].m_id_array[17], 1035U);
    EXPECT_EQ(std::memcmp(&rows[0].m_header, &first.m_header, sizeof first.m_header), 0);
    EXPECT_EQ(totals[0], 1001U);
    EXPECT_EQ(totals[17], 1035U);
}

TEST(top_app_aggregation, one_handle_of_two_ports_is_one_row_of_the_classifier_merge_only)
{
    RE_stat_app_struct a = port_record(80, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 1}});
    RE_stat_app_struct b = port_record(443, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 2}});
    std::vector<RE_stat_app_struct> records{a, b};
    totals_array totals{};
    std::vector<RE_stat_app_struct> by_classifier;
    aggregate_classifier_sorted_vector(records, by_classifier, totals.data());
    EXPECT_EQ(by_classifier.size(), 1U);
    std::vector<RE_stat_app_struct> by_port;
    aggregate_port_sorted_vector(records, by_port, totals.data());
    EXPECT_EQ(by_port.size(), 2U);
}

TEST(top_app_aggregation, rows_wrap_at_32_bits_and_totals_do_not)
{
    std::vector<RE_stat_app_struct> records(2, port_record(80, {{RE_STAT_APP_ID_LZ_DECODE_NUM_MSGS, 0xffffffffU}}));
    std::vector<RE_stat_app_struct> rows;
    totals_array totals{};
    aggregate_port_sorted_vector(records, rows, totals.data());
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(rows[0].m_id_array[RE_STAT_APP_ID_LZ_DECODE_NUM_MSGS], 0xfffffffeU);
    EXPECT_EQ(totals[RE_STAT_APP_ID_LZ_DECODE_NUM_MSGS], 0x1fffffffeU);
}

TEST(top_app_aggregation, adds_to_totals_that_are_there)
{
    std::vector<RE_stat_app_struct> records{port_record(80, {{RE_STAT_APP_ID_ENCODE_IN_KBYTES, 5}})};
    std::vector<RE_stat_app_struct> rows;
    totals_array totals{};
    totals[RE_STAT_APP_ID_ENCODE_IN_KBYTES] = 7;
    aggregate_port_sorted_vector(records, rows, totals.data());
    EXPECT_EQ(totals[RE_STAT_APP_ID_ENCODE_IN_KBYTES], 12U);
}

TEST(top_app_tally, gives_the_rows_and_totals_of_sorting_and_merging_all_records)
{
    std::mt19937 random(1);
    for (int round = 0; round < 200; ++round) {
        std::vector<RE_stat_app_struct> records(drawn(random, 300));
        RE_top_app_tally tally;
        for (RE_stat_app_struct& record : records) {
            record = random_record(random);
            if (drawn(random, 4) == 0) {
                record.m_header.set_policy_engine_handler(drawn(random, 1024));
            }
            tally.add(record);
        }
        std::vector<RE_stat_app_struct> rows;
        totals_array totals{};
        std::stable_sort(records.begin(), records.end(), ClassifierComparatorClass{});
        aggregate_classifier_sorted_vector(records, rows, totals.data());

        const std::vector<RE_stat_app_struct> tallied = tally.rows();
        ASSERT_TRUE(std::equal(rows.begin(), rows.end(), tallied.begin(), tallied.end(), same));
        ASSERT_EQ(tally.totals(), totals);
    }
}
