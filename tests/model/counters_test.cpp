#include "RE_stat_counters.h"

#include "model/counter_values.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <type_traits>
#include <utility>

namespace {

// Ids are stored as signed 32-bit numbers, and so are the small enumerations.
static_assert(std::is_same_v<std::underlying_type_t<RE_stat_global_id>, std::int32_t>);
static_assert(std::is_same_v<std::underlying_type_t<RE_stat_peer_id>, std::int32_t>);
static_assert(std::is_same_v<std::underlying_type_t<RE_stat_conn_id>, std::int32_t>);
static_assert(std::is_same_v<std::underlying_type_t<RE_stat_app_id>, std::int32_t>);
static_assert(std::is_same_v<std::underlying_type_t<RE_stat_nack_type>, std::int32_t>);
static_assert(std::is_same_v<std::underlying_type_t<RE_CACHE_INIT_STATE>, std::int32_t>);
static_assert(std::is_same_v<std::underlying_type_t<RE_show_type>, std::int32_t>);
static_assert(std::is_same_v<std::underlying_type_t<RE_stat_top_app_log_version>, std::int32_t>);
static_assert(std::is_same_v<std::underlying_type_t<RE_stat_reader_type>, std::int32_t>);

template <std::size_t Size>
void expect_values(const counter_value (&counters)[Size])
{
    for (const counter_value& counter : counters) {
        EXPECT_EQ(counter.value, counter.expected) << counter.name;
    }
}

// Whether an enumerator is an end mark, which is used for loops and arrays and is not a counter.
bool is_end_mark(const std::string& name)
{
    static const std::set<std::string> marks = {
        "SO_STAT_RC_MAX",      "SO_STAT_HWFQ_BYTES_MAX",        "RE_STAT_GLOBAL_ID_MAX",
        "RE_STAT_PEER_ID_MAX", "RE_STAT_CONN_ID_MAX_LONG_LONG", "RE_STAT_CONN_ID_MAX",
        "RE_STAT_APP_ID_MAX",
    };
    return marks.count(name) != 0;
}

// Expects that the descriptions have the same names and values as `counters`.
template <std::size_t Described, std::size_t Size>
void expect_descriptions(const RE_stat_counter_info (&descriptions)[Described], const counter_value (&counters)[Size])
{
    std::map<std::string, int> described;
    for (const RE_stat_counter_info& description : descriptions) {
        described[description.name] = description.id;
    }
    std::map<std::string, int> expected;
    for (const counter_value& counter : counters) {
        if (!is_end_mark(counter.name)) {
            expected[counter.name] = counter.expected;
        }
    }
    EXPECT_EQ(described, expected);
    EXPECT_EQ(described.size(), Described) << "a name is described twice";
}

template <std::size_t Size>
void expect_readable_meanings(const RE_stat_counter_info (&descriptions)[Size])
{
    for (const RE_stat_counter_info& description : descriptions) {
        const std::string meaning = description.meaning;
        ASSERT_FALSE(meaning.empty()) << description.name;
        for (const char letter : meaning) {
            EXPECT_FALSE(std::isupper(static_cast<unsigned char>(letter))) << description.name << ": " << meaning;
        }
        EXPECT_NE(meaning.back(), '.') << description.name;
    }
}

// Returns unit and kind of a counter, such as "bytes total".
template <std::size_t Size>
std::string sort_of(const RE_stat_counter_info (&descriptions)[Size], int id)
{
    for (const RE_stat_counter_info& description : descriptions) {
        if (id >= description.id && id <= description.last_id) {
            return std::string(get_stat_unit_word(description.unit)) + " " + get_stat_kind_word(description.kind);
        }
    }
    return "not described";
}

TEST(counters, of_the_engine_have_their_values)
{
    expect_values(global_counter_values);
}

TEST(counters, of_a_peer_have_their_values)
{
    expect_values(peer_counter_values);
}

TEST(counters, of_connections_have_their_values)
{
    expect_values(conn_counter_values);
}

TEST(counters, of_an_application_have_their_values)
{
    expect_values(app_counter_values);
}

TEST(small_enumerations, have_their_values)
{
    EXPECT_EQ(RE_STAT_NACK_AT_RECEIVER, 0);
    EXPECT_EQ(RE_STAT_NACK_AT_SENDER, 1);

    EXPECT_EQ(RE_CACHE_INACTIVE, 0);
    EXPECT_EQ(RE_CACHE_INIT_IN_PROGRESS, 1);
    EXPECT_EQ(RE_CACHE_ACTIVE, 2);
    EXPECT_EQ(RE_CACHE_TEMP_FAILED, 3);
    EXPECT_EQ(RE_CACHE_FAILED, 4);

    EXPECT_EQ(RE_SHOW_INFO, 0);
    EXPECT_EQ(RE_SHOW_DETAIL, 1);
    EXPECT_EQ(RE_SHOW_NACK, 2);

    EXPECT_EQ(RE_STAT_TOP_APP_LOG_QUADA, 0);
    EXPECT_EQ(RE_STAT_TOP_APP_LOG_BELVANO, 1);
    EXPECT_EQ(RE_STAT_TOP_APP_LOG_MAX, 2);

    EXPECT_EQ(RE_STAT_READER_SHM, 0);
    EXPECT_EQ(RE_STAT_READER_FILE, 1);
}

TEST(counter_descriptions, name_every_counter_with_its_id)
{
    expect_descriptions(re_stat_global_counters, global_counter_values);
    expect_descriptions(re_stat_peer_counters, peer_counter_values);
    expect_descriptions(re_stat_conn_counters, conn_counter_values);
    expect_descriptions(re_stat_app_counters, app_counter_values);
}

TEST(counter_descriptions, give_ranges_their_last_id)
{
    std::map<std::string, std::pair<int, int>> ranges;
    for (const RE_stat_counter_info& counter : re_stat_global_counters) {
        if (counter.last_id != counter.id) {
            ranges[counter.name] = {counter.id, counter.last_id};
        }
    }
    const std::map<std::string, std::pair<int, int>> expected = {
        {"SO_STAT_RC_NONE", {104, 122}},
        {"SO_STAT_HWFQ_BYTES_DSCP_BASE", {123, 126}},
        {"SO_STAT_HWFQ_BYTES_CLASS_BASE", {127, 382}},
    };
    EXPECT_EQ(ranges, expected);
}

TEST(counter_descriptions, have_meanings_in_lower_case_without_full_stop)
{
    expect_readable_meanings(re_stat_global_counters);
    expect_readable_meanings(re_stat_peer_counters);
    expect_readable_meanings(re_stat_conn_counters);
    expect_readable_meanings(re_stat_app_counters);
}

// The unit of a counter must be the unit in which the reports print it.
TEST(counter_descriptions, agree_with_the_engine_report)
{
    EXPECT_EQ(sort_of(re_stat_global_counters, RE_STAT_GLOBAL_ID_CACHE_STATE), "state current");
    EXPECT_EQ(sort_of(re_stat_global_counters, RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE), "megabytes current");
    EXPECT_EQ(sort_of(re_stat_global_counters, RE_STAT_GLOBAL_ID_TOTAL_CACHE_RAM_SIZE), "megabytes current");
    EXPECT_EQ(sort_of(re_stat_global_counters, RE_STAT_GLOBAL_ID_TOT_DATAUINT_DISK_USAGE), "megabytes current");
    EXPECT_EQ(sort_of(re_stat_global_counters, RE_STAT_GLOBAL_ID_MAX_HASH_TABLE_ENTRY), "entries current");
    EXPECT_EQ(sort_of(re_stat_global_counters, RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_AGE), "seconds_since_epoch current");
    EXPECT_EQ(sort_of(re_stat_global_counters, RE_STAT_GLOBAL_ID_CACHE_CREATION_TIME), "seconds_since_epoch current");
    EXPECT_EQ(sort_of(re_stat_global_counters, RE_STAT_GLOBAL_ID_DATA_FIFO_IN_LOAD_CACHE), "kilobytes total");
    EXPECT_EQ(sort_of(re_stat_global_counters, RE_STAT_GLOBAL_ID_NUM_SIGBLOCK_FIFO_IN_LAST_HOUR), "megabytes current");
    EXPECT_EQ(sort_of(re_stat_global_counters, RE_STAT_GLOBAL_ID_AVG_DISK_READ_LATENCY), "microseconds current");
    EXPECT_EQ(sort_of(re_stat_global_counters, RE_STAT_GLOBAL_ID_SEGMENT_PADDING_SIZE), "bytes total");
    EXPECT_EQ(sort_of(re_stat_global_counters, RE_STAT_GLOBAL_ID_ACK_Q_SIZE), "bytes current");
    EXPECT_EQ(sort_of(re_stat_global_counters, RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS), "connections total");
    EXPECT_EQ(sort_of(re_stat_global_counters, RE_STAT_GLOBAL_ID_MAX_NUM_CONNECTED_PEER), "peers maximum");
    EXPECT_EQ(sort_of(re_stat_global_counters, RE_STAT_GLOBAL_ID_LOWMEM_LOWEST_RESERVE), "megabytes minimum");
    EXPECT_EQ(sort_of(re_stat_global_counters, SO_STAT_HWFQ_BYTES_CLASS_BASE + 255), "bytes total");
    EXPECT_EQ(sort_of(re_stat_global_counters, SO_STAT_HWFQ_BYTES_MAX), "not described");
}

TEST(counter_descriptions, agree_with_the_peer_report)
{
    EXPECT_EQ(sort_of(re_stat_peer_counters, RE_STAT_PEER_ID_SIGBLOCK_DISK_SPACE), "megabytes current");
    EXPECT_EQ(sort_of(re_stat_peer_counters, RE_STAT_PEER_ID_NUM_FIFO_DATA), "bytes total");
    EXPECT_EQ(sort_of(re_stat_peer_counters, RE_STAT_PEER_ID_ACK_Q_MAX_RTT), "microseconds maximum");
    EXPECT_EQ(sort_of(re_stat_peer_counters, RE_STAT_PEER_ID_REMOTE_ACK_Q_AVG_RTT), "microseconds current");
    EXPECT_EQ(sort_of(re_stat_peer_counters, RE_STAT_PEER_ID_REMOTE_HEAD_SYNC_CLK), "clock current");
    EXPECT_EQ(sort_of(re_stat_peer_counters, RE_STAT_PEER_ID_TOT_KAV_DECODE_THRPUT), "bytes_per_second current");
    EXPECT_EQ(sort_of(re_stat_peer_counters, RE_STAT_PEER_ID_BYPASS_RATIO), "percent current");
    EXPECT_EQ(sort_of(re_stat_peer_counters, RE_STAT_PEER_ID_MAJOR_VERSION), "version current");
}

TEST(counter_descriptions, agree_with_the_connection_blocks)
{
    EXPECT_EQ(sort_of(re_stat_conn_counters, RE_STAT_CONN_ID_ENCODE_IN_BYTES), "bytes total");
    EXPECT_EQ(sort_of(re_stat_conn_counters, RE_STAT_CONN_ID_TOT_ENCODE_SPEED), "microseconds total");
    EXPECT_EQ(sort_of(re_stat_conn_counters, RE_STAT_CONN_ID_TOT_DECODE_ZLIB_SPEED), "microseconds total");
    EXPECT_EQ(sort_of(re_stat_conn_counters, RE_STAT_CONN_ID_ENCODE_NUM_MSGS), "messages total");
    EXPECT_EQ(sort_of(re_stat_conn_counters, RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_CHUNK), "chunks total");
    EXPECT_EQ(sort_of(re_stat_conn_counters, RE_STAT_CONN_ID_NUM_INVALID_SECTIONS), "sections total");
    EXPECT_EQ(sort_of(re_stat_conn_counters, RE_STAT_CONN_ID_ENCODE_TOT_RANGE_CNT), "ranges total");
    EXPECT_EQ(sort_of(re_stat_conn_counters, RE_STAT_CONN_ID_AGG_STACK_SND), "bytes current");
    EXPECT_EQ(sort_of(re_stat_conn_counters, SO_STAT_DEC_PEND_MAX), "bytes maximum");
}

TEST(counter_descriptions, agree_with_the_application_report)
{
    for (int id = RE_STAT_APP_ID_ENCODE_IN_KBYTES; id <= RE_STAT_APP_ID_LZ_DECODE_OUT_KBYTES; ++id) {
        EXPECT_EQ(sort_of(re_stat_app_counters, id), "kilobytes total") << id;
    }
    for (int id = RE_STAT_APP_ID_ENCODE_NUM_MSGS; id < RE_STAT_APP_ID_MAX; ++id) {
        EXPECT_EQ(sort_of(re_stat_app_counters, id), "messages total") << id;
    }
}

constexpr RE_stat_counter_info counter_with_ids(int first, int last)
{
    return {first, last, "", RE_stat_unit::events, RE_stat_kind::total, "", ""};
}

TEST(describes_every_id, refuses_gaps_repetitions_and_a_wrong_count)
{
    constexpr RE_stat_counter_info complete[] = {counter_with_ids(0, 0), counter_with_ids(1, 3),
                                                 counter_with_ids(4, 4)};
    EXPECT_TRUE(describes_every_id(complete, 5));
    EXPECT_FALSE(describes_every_id(complete, 4));
    EXPECT_FALSE(describes_every_id(complete, 6));

    constexpr RE_stat_counter_info with_gap[] = {counter_with_ids(0, 0), counter_with_ids(2, 2)};
    EXPECT_FALSE(describes_every_id(with_gap, 3));
    EXPECT_TRUE(describes_every_id(with_gap, 3, 1)) << "the gap is an end mark";
    EXPECT_FALSE(describes_every_id(with_gap, 4, 3)) << "the end mark is elsewhere";

    constexpr RE_stat_counter_info with_repetition[] = {counter_with_ids(0, 1), counter_with_ids(1, 2)};
    EXPECT_FALSE(describes_every_id(with_repetition, 3));

    constexpr RE_stat_counter_info late_start[] = {counter_with_ids(1, 1)};
    EXPECT_FALSE(describes_every_id(late_start, 2));

    constexpr RE_stat_counter_info backwards[] = {counter_with_ids(0, -1)};
    EXPECT_FALSE(describes_every_id(backwards, 0));
}

} // namespace
