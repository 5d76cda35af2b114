// The report on the engine as a whole.
#include "RE_conn_blocks.h"
#include "RE_global_view.h"
#include "RE_statistics.h"
#include "RE_viewer_reader.h"
#include "support/contains.h"
#include "support/fake_reader.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

namespace {

class global_view : public view_test
{
protected:
    void set(int id, long long value) { reader.global_stats[id] = value; }
    void set_all(long long value)
    {
        for (int id = 0; id < RE_STAT_GLOBAL_ID_MAX; ++id) {
            set(id, value);
        }
    }
    int reads_of(int id) const { return reader.count("read_global_stat " + std::to_string(id)); }

    std::string info() const { return output_of(show_global_info); }
    std::string detail() const { return output_of(show_global_detail); }
    std::string report(bool b_detail) const
    {
        return output_of([b_detail] { show_global(b_detail); });
    }

    void set_summary_counters();
    void set_detail_counters();
};

void global_view::set_summary_counters()
{
    set(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE);
    set(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE, 20000);
    set(RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_DISK_USAGE, 1500);
    set(RE_STAT_GLOBAL_ID_TOT_DATAUINT_DISK_USAGE, 3500);
    set(RE_STAT_GLOBAL_ID_TOTAL_CACHE_RAM_SIZE, 640);
    set(RE_STAT_GLOBAL_ID_MAX_HASH_TABLE_ENTRY, 4000);
    set(RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_HT_USAGE, 500);
    set(RE_STAT_GLOBAL_ID_TOT_SECBLOCK_HT_USAGE, 700);
    set(RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_AGE, now - 7384);
    set(RE_STAT_GLOBAL_ID_CACHE_DATAUNIT_AGE, now - 100000);
}

constexpr const char* summary = R"(
Cache:
    Status: Usable
    Total usable disk size:  20000 MB,  Used: 25.00%
      Hash table RAM  size:    640 MB,  Used: 30.00%
    Sigblock usage:  disk:   1500 MB, memory: 12.50% age: 2h3m4s
   Data unit usage:  disk:   3500 MB, memory: 17.50% age: 1d3h
)";

// The values are 201 and up in the order of the report, so that confused counters are noticed.
void global_view::set_detail_counters()
{
    set(RE_STAT_GLOBAL_ID_CACHE_CREATION_TIME, 1299506709);
    set(RE_STAT_GLOBAL_ID_DATA_FIFO_IN_LOAD_CACHE, 7);
    set(RE_STAT_GLOBAL_ID_NUM_SIGBLOCK_FIFO_IN_LAST_HOUR, 201);
    set(RE_STAT_GLOBAL_ID_NUM_SIGBLOCK_FIFO_SECTION_IN_LAST_HOUR, 202);
    set(RE_STAT_GLOBAL_ID_NUM_DATAUNIT_FIFO_IN_LAST_HOUR, 203);
    set(RE_STAT_GLOBAL_ID_NUM_DATAUNIT_FIFO_SECTION_IN_LAST_HOUR, 204);
    set(RE_STAT_GLOBAL_ID_SIGBLOCK_PADDING_CNT, 205);
    set(RE_STAT_GLOBAL_ID_SIGBLOCK_PADDING_SIZE, 206);
    set(RE_STAT_GLOBAL_ID_SECBLOCK_PADDING_CNT, 207);
    set(RE_STAT_GLOBAL_ID_SECBLOCK_PADDING_SIZE, 208);
    set(RE_STAT_GLOBAL_ID_SEGMENT_PADDING_CNT, 209);
    set(RE_STAT_GLOBAL_ID_SEGMENT_PADDING_SIZE, 210);
    set(RE_STAT_GLOBAL_ID_FIFO_HEAD_CLOCK, 211);
    set(RE_STAT_GLOBAL_ID_FIFO_TAIL_CLOCK, 212);
    set(RE_STAT_GLOBAL_ID_AVG_READ_LATENCY, 213999);
    set(RE_STAT_GLOBAL_ID_NUM_READ, 214);
    set(RE_STAT_GLOBAL_ID_AVG_DISK_READ_LATENCY, 215001);
    set(RE_STAT_GLOBAL_ID_NUM_DISK_READ, 216);
    set(RE_STAT_GLOBAL_ID_NUM_HASH_TABLE_FULL, 217);
    set(RE_STAT_GLOBAL_ID_NUM_HASH_TABLE_SECTION_SIG_COLLISION, 218);
    set(RE_STAT_GLOBAL_ID_HASH_TABLE_SELF_CLEAN_CNT, 219);
    set(RE_STAT_GLOBAL_ID_HASH_TABLE_FULL_CLEAN_CNT, 220);
    set(RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_CHUNK_CNT, 221);
    set(RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_SECTION_CNT, 222);
    set(RE_STAT_GLOBAL_ID_CACHE_SECBLOCK_CHUNK_CNT, 223);
    set(RE_STAT_GLOBAL_ID_CACHE_SECBLOCK_SECTION_CNT, 224);
    set(RE_STAT_GLOBAL_ID_TOT_ANCHOR, 225);
    set(RE_STAT_GLOBAL_ID_TOT_MATCHED_ANCHOR_COUNT, 226);
    set(RE_STAT_GLOBAL_ID_TOT_MATCHED_MORE_THAN_ONCE_COUNT, 227);
    set(RE_STAT_GLOBAL_ID_ACK_Q_SIZE, 228);
    set(RE_STAT_GLOBAL_ID_ACK_Q_USED_DISK_SIZE, 229);
    set(RE_STAT_GLOBAL_ID_WAIT_Q_SIZE, 230);
    set(RE_STAT_GLOBAL_ID_ACK_Q_TOT_DISK_WRITE_SIZE, 231);
    set(RE_STAT_GLOBAL_ID_ACK_Q_DROP_SIZE, 232);
    set(RE_STAT_GLOBAL_ID_ACK_Q_OBJ_SIZE, 233);
    set(RE_STAT_GLOBAL_ID_ACK_Q_OBJ_NUM, 234);
    set(RE_STAT_GLOBAL_ID_LOWMEM_OPEN_ERROR, 235);
    set(RE_STAT_GLOBAL_ID_LOWMEM_DECODE_ERROR, 236);
    set(RE_STAT_GLOBAL_ID_LOWMEM_MALLOC_ERROR, 237);
    set(RE_STAT_GLOBAL_ID_LOWMEM_PLZ_OFF, 238);
    set(RE_STAT_GLOBAL_ID_LOWMEM_LOWEST_RESERVE, 239);
    set(RE_STAT_GLOBAL_ID_AGG_NODE_BYTES, 240);
    set(RE_STAT_GLOBAL_ID_TWIN_POOL_BIG_USED, 241);
    set(RE_STAT_GLOBAL_ID_TWIN_POOL_BIG_FREE, 242);
    set(RE_STAT_GLOBAL_ID_TWIN_POOL_SMALL_USED, 243);
    set(RE_STAT_GLOBAL_ID_TWIN_POOL_SMALL_FREE, 244);
    set(RE_STAT_GLOBAL_ID_TWIN_POOL_DEFRAGMENT_CNT, 245);
    set(RE_STAT_GLOBAL_ID_PLZ_ENCODE_ON_CONN_COUNT, 246);
    set(RE_STAT_GLOBAL_ID_PLZ_ENCODE_ON_AVG_MSG_SIZE, 247);
    set(RE_STAT_GLOBAL_ID_PLZ_ENCODE_OFF_CONN_COUNT, 248);
    set(RE_STAT_GLOBAL_ID_PLZ_DECODE_READ_DISK_NUM, 249);
    set(RE_STAT_GLOBAL_ID_PLZ_DECODE_WRITE_DISK_NUM, 250);
    set(RE_STAT_GLOBAL_ID_PLZ_DECODE_ON_CONN_COUNT, 251);
    set(RE_STAT_GLOBAL_ID_PLZ_DECODE_NODE_IN_DISK_NUM, 252);
    set(RE_STAT_GLOBAL_ID_PLZ_DECODE_OFF_CONN_COUNT, 253);
    set(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_SUCCESS_COUNT, 3);
    set(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_FAILURE_COUNT, 1);
}

const std::string cache_details = R"(
Cache details:
  Cache created at: 03/07/2011 14:05:09
  Evicted cache in loading cache:   7168 B
  Sigblock replaced(last hour): size    201 MB, sections 202
  Data units replaced(last hour): size    203 MB, sections 204
  Cache write padding events:
  Sigblock: cnt 205, size    206 B
  Dataunit: secblock cnt 207, size    208 B, segment cnt 209, size    210 B
  NG clock head 211, NG clock tail 212
  Total read speed (disk + kernel-cache):    213 ms in 214 reads
  Disk read speed                       :    215 ms in 216 reads
  Index table full events:  217
  Index table sig events:  218
  Index table type 2 events:  219
  Index table type 3 events:  220
  Sigblock: Total 221 chunks stored in 222 sections
  Secblock: Total 223 chunks stored in 224 sections
)"
                                  // The next line ends with a blank.
                                  "  Total anchor seen: 225, total matches seen: 226, matched more than once: 227 \n"
                                  R"(
Ack Queue:    228 B  Used Disk:    229 B      Wait Queue:    230 B
Ack Queue: Total disk write:    231 B   Optimized size:    232 B
Ack Queue: Object buffer size:    233 B Numbers: 234
Lowmem Errors:  Open:      235,    Decode:      236,    Malloc:      237
                PLZ-off :      238,    MinRes:      239

Chunk aggregation node memory consumption:    240 B

Persistent LZ:
Twin pool stats: big-used=     241, big-free=     242, small-used=     243, small-free=     244, defragment=245
Encode:
  PLZ-ON  connections: num=     246, avg-msg-size=   247 B
  PLZ-OFF connections: num=     248
Decode:
  Total disk read:      249, disk write:      250
  PLZ-ON  connections: num=     251, num-in-disk=252
  PLZ-OFF connections: num=     253

Top Application:
  Update: Succeed        3 (75.00%), Fail        1 (25.00%)
)";

const std::string summary_of_zeros = R"(
Cache:
    Status: Not Usable
    Total usable disk size:      0 MB,  Used: 0.00%
      Hash table RAM  size:      0 MB,  Used: 0.00%
    Sigblock usage:  disk:      0 MB, memory: 0.00% age: 0s
   Data unit usage:  disk:      0 MB, memory: 0.00% age: 0s
)";

const std::string details_of_zeros = R"(
Cache details:
  Evicted cache in loading cache:      0 B
  Sigblock replaced(last hour): size      0 MB, sections 0
  Data units replaced(last hour): size      0 MB, sections 0
  Cache write padding events:
  Sigblock: cnt 0, size      0 B
  Dataunit: secblock cnt 0, size      0 B, segment cnt 0, size      0 B
  NG clock head 0, NG clock tail 0
  Total read speed (disk + kernel-cache):      0 ms in 0 reads
  Disk read speed                       :      0 ms in 0 reads
  Index table full events:  0
  Index table sig events:  0
  Index table type 2 events:  0
  Index table type 3 events:  0
  Sigblock: Total 0 chunks stored in 0 sections
  Secblock: Total 0 chunks stored in 0 sections
)"
                                     // The next line ends with a blank.
                                     "  Total anchor seen: 0, total matches seen: 0, matched more than once: 0 \n"
                                     R"(
Ack Queue:      0 B  Used Disk:      0 B      Wait Queue:      0 B
Ack Queue: Total disk write:      0 B   Optimized size:      0 B
Ack Queue: Object buffer size:      0 B Numbers: 0
Lowmem Errors:  Open:        0,    Decode:        0,    Malloc:        0
                PLZ-off :        0,    MinRes:        0

Chunk aggregation node memory consumption:      0 B

Persistent LZ:
Twin pool stats: big-used=       0, big-free=       0, small-used=       0, small-free=       0, defragment=0
Encode:
  PLZ-ON  connections: num=       0, avg-msg-size=     0 B
  PLZ-OFF connections: num=       0
Decode:
  Total disk read:        0, disk write:        0
  PLZ-ON  connections: num=       0, num-in-disk=0
  PLZ-OFF connections: num=       0

Top Application:
  Update: Succeed        0 (0.00%), Fail        0 (0.00%)
)";

std::vector<std::string> reads(const std::vector<int>& ids)
{
    std::vector<std::string> calls;
    for (const int id : ids) {
        calls.push_back("read_global_stat " + std::to_string(id));
    }
    return calls;
}

} // namespace

TEST_F(global_view, summary_shows_every_counter_in_its_place)
{
    set_summary_counters();
    EXPECT_EQ(info(), summary);
}

TEST_F(global_view, detail_shows_every_counter_in_its_place)
{
    set_detail_counters();
    EXPECT_EQ(detail(), cache_details);
}

TEST_F(global_view, engine_that_has_done_nothing_shows_zeros)
{
    set_all(0);
    EXPECT_EQ(report(false), summary_of_zeros);
    EXPECT_EQ(report(true), summary_of_zeros + details_of_zeros);
}

TEST_F(global_view, failing_reader_shows_zeros)
{
    set_summary_counters();
    set_detail_counters();
    set(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, 5);
    reader.b_failing = true;
    EXPECT_EQ(report(true), summary_of_zeros + details_of_zeros);
}

TEST_F(global_view, summary_of_an_initializing_cache_is_its_status_alone)
{
    set_summary_counters();
    set(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_INIT_IN_PROGRESS);
    EXPECT_EQ(info(), "\nCache:\n    Status: Initializing\n");
    EXPECT_EQ(reader.calls, reads({RE_STAT_GLOBAL_ID_CACHE_STATE}));
}

TEST_F(global_view, detail_of_an_initializing_cache_is_whole)
{
    set_detail_counters();
    set(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_INIT_IN_PROGRESS);
    EXPECT_EQ(report(true), "\nCache:\n    Status: Initializing\n" + cache_details);
}

TEST_F(global_view, status_names_every_state)
{
    const std::map<int, std::string> words = {
        {0, "Not Usable"}, {1, "Initializing"}, {2, "Usable"}, {3, "Temporarily Failed"}, {4, "Failed"}};
    for (const auto& [state, word] : words) {
        set(RE_STAT_GLOBAL_ID_CACHE_STATE, state);
        EXPECT_EQ(info().rfind("\nCache:\n    Status: " + word + "\n", 0), 0U) << state;
    }
}

TEST_F(global_view, status_of_a_state_that_is_not_one_is_unknown)
{
    for (const long long state : {5LL, -1LL, LLONG_MAX, 1LL << 31}) {
        set(RE_STAT_GLOBAL_ID_CACHE_STATE, state);
        EXPECT_EQ(info().rfind("\nCache:\n    Status: Unknown\n    Total usable", 0), 0U) << state;
    }
}

TEST_F(global_view, status_is_the_low_32_bits)
{
    set(RE_STAT_GLOBAL_ID_CACHE_STATE, (1LL << 32) + 1);
    EXPECT_EQ(info(), "\nCache:\n    Status: Initializing\n");
    set(RE_STAT_GLOBAL_ID_CACHE_STATE, (1LL << 32) + 4);
    EXPECT_EQ(info().rfind("\nCache:\n    Status: Failed\n", 0), 0U);
}

TEST_F(global_view, summary_reads_once_in_order_and_the_cache_size_three_times)
{
    set_summary_counters();
    info();
    EXPECT_EQ(reader.calls, reads({RE_STAT_GLOBAL_ID_CACHE_STATE, RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_AGE,
                                   RE_STAT_GLOBAL_ID_CACHE_DATAUNIT_AGE, RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_DISK_USAGE,
                                   RE_STAT_GLOBAL_ID_TOT_DATAUINT_DISK_USAGE, RE_STAT_GLOBAL_ID_MAX_HASH_TABLE_ENTRY,
                                   RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_HT_USAGE, RE_STAT_GLOBAL_ID_TOT_SECBLOCK_HT_USAGE,
                                   RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE, RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE,
                                   RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE, RE_STAT_GLOBAL_ID_TOTAL_CACHE_RAM_SIZE}));
}

TEST_F(global_view, summary_reads_the_ages_before_it_prints_the_status_and_each_line_before_the_next)
{
    set_summary_counters();
    reader.on_read = [this] { std::printf("<%s>", reader.calls.back().c_str() + std::strlen("read_global_stat ")); };
    EXPECT_EQ(info(), R"(
Cache:
<0><7><8>    Status: Usable
<68><69><11><70><71><1><1><1>    Total usable disk size:  20000 MB,  Used: 25.00%
<10>      Hash table RAM  size:    640 MB,  Used: 30.00%
    Sigblock usage:  disk:   1500 MB, memory: 12.50% age: 2h3m4s
   Data unit usage:  disk:   3500 MB, memory: 17.50% age: 1d3h
)");
}

TEST_F(global_view, cache_of_size_0_is_read_for_the_guard_and_the_column)
{
    set_summary_counters();
    set(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE, 0);
    EXPECT_TRUE(contains(info(), "\n    Total usable disk size:      0 MB,  Used: 0.00%\n"));
    EXPECT_EQ(reads_of(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE), 2);
}

TEST_F(global_view, cache_of_negative_size_is_not_used)
{
    set_summary_counters();
    set(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE, -5);
    EXPECT_TRUE(contains(info(), "\n    Total usable disk size:     -5 MB,  Used: 0.00%\n"));
}

// A running engine may empty its cache between the read by the guard and the read by the division.
TEST_F(global_view, cache_that_goes_away_after_the_guard_is_not_used)
{
    set_summary_counters();
    reader.on_read = [this] {
        if (reads_of(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE) == 2) {
            set(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE, 0);
        }
    };
    EXPECT_TRUE(contains(info(), "\n    Total usable disk size:      0 MB,  Used: 0.00%\n"));
}

TEST_F(global_view, hash_table_without_entries_shows_no_use_but_sizes_and_ages)
{
    for (const long long entries : {0LL, -1LL}) {
        set_summary_counters();
        set(RE_STAT_GLOBAL_ID_MAX_HASH_TABLE_ENTRY, entries);
        EXPECT_EQ(info(), R"(
Cache:
    Status: Usable
    Total usable disk size:  20000 MB,  Used: 25.00%
      Hash table RAM  size:    640 MB,  Used: 0.00%
    Sigblock usage:  disk:   1500 MB, memory: 0.00% age: 2h3m4s
   Data unit usage:  disk:   3500 MB, memory: 0.00% age: 1d3h
)");
    }
}

TEST_F(global_view, engine_without_connections_has_no_connection_section)
{
    set_summary_counters();
    set_detail_counters();
    set(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, 0);
    EXPECT_EQ(report(false), summary);
    EXPECT_EQ(report(true), summary + cache_details);
    EXPECT_EQ(reader.count("read_global_active_conn_count"), 0);
    EXPECT_EQ(reads_of(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS), 2); // once per report
}

TEST_F(global_view, negative_total_of_connections_is_shown)
{
    set(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, -1);
    EXPECT_TRUE(contains(report(false), "\nConnections:   Total (cumulative): -1   Active: 0\n\n"));
}

TEST_F(global_view, connections_are_shown_with_their_summary)
{
    set_summary_counters();
    set_detail_counters();
    set(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, 1234567890123);
    reader.global_active_conns = 42;
    reader.global_conn_stats[RE_STAT_CONN_ID_ENCODE_NUM_MSGS] = 17;
    const std::string block = output_of([] { show_conn_info(RE_global_conn_slot()); });
    EXPECT_EQ(report(false),
              std::string(summary) + "\nConnections:   Total (cumulative): 1234567890123   Active: 42\n\n" + block);
}

TEST_F(global_view, connections_are_shown_with_their_summary_and_detail)
{
    set_summary_counters();
    set_detail_counters();
    set(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, -1);
    reader.global_active_conns = -42;
    reader.global_conn_stats[RE_STAT_CONN_ID_ENCODE_NUM_MSGS] = 17;
    const std::string block = output_of([] {
        show_conn_info(RE_global_conn_slot());
        show_conn_detail(RE_global_conn_slot());
    });
    EXPECT_EQ(report(true),
              summary + cache_details + "\nConnections:   Total (cumulative): -1   Active: -42\n\n" + block);
}

TEST_F(global_view, connections_are_counted_again_after_the_active_ones)
{
    set(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_INIT_IN_PROGRESS);
    set(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, 5);
    report(false);
    ASSERT_GE(reader.calls.size(), 4U);
    EXPECT_EQ(reader.calls[1], "read_global_stat 12");
    EXPECT_EQ(reader.calls[2], "read_global_active_conn_count");
    EXPECT_EQ(reader.calls[3], "read_global_stat 12");
}

TEST_F(global_view, cache_without_a_creation_time_leaves_its_line_out)
{
    for (const long long moment : {0LL, 1LL << 32}) {
        set_all(0);
        set(RE_STAT_GLOBAL_ID_CACHE_CREATION_TIME, moment);
        EXPECT_EQ(detail(), details_of_zeros);
    }
}

TEST_F(global_view, creation_time_is_the_low_32_bits)
{
    set(RE_STAT_GLOBAL_ID_CACHE_CREATION_TIME, (5LL << 32) + 1299506709);
    EXPECT_TRUE(contains(detail(), "\n  Cache created at: 03/07/2011 14:05:09\n"));
    set(RE_STAT_GLOBAL_ID_CACHE_CREATION_TIME, -1);
    EXPECT_TRUE(contains(detail(), "\n  Cache created at: 12/31/1969 23:59:59\n"));
}

TEST_F(global_view, every_counter_of_the_detail_is_read_once_and_the_creation_time_for_its_test_as_well)
{
    set_detail_counters();
    detail();
    std::map<std::string, int> counts;
    for (const std::string& call : reader.calls) {
        ++counts[call];
    }
    EXPECT_EQ(counts.size(), reader.global_stats.size());
    for (const auto& [call, count] : counts) {
        EXPECT_EQ(count, call == "read_global_stat 9" ? 2 : 1) << call;
    }
    EXPECT_EQ(reader.calls[0], "read_global_stat 9");
    EXPECT_EQ(reader.calls[1], "read_global_stat 9");
}

TEST_F(global_view, creation_time_that_is_not_set_is_read_once)
{
    detail();
    EXPECT_EQ(reads_of(RE_STAT_GLOBAL_ID_CACHE_CREATION_TIME), 1);
}

TEST_F(global_view, evicted_cache_counts_kilobytes)
{
    set(RE_STAT_GLOBAL_ID_DATA_FIFO_IN_LOAD_CACHE, 100);
    EXPECT_TRUE(contains(detail(), "\n  Evicted cache in loading cache: 102400 B\n"));
    set(RE_STAT_GLOBAL_ID_DATA_FIFO_IN_LOAD_CACHE, 101);
    EXPECT_TRUE(contains(detail(), "\n  Evicted cache in loading cache:    101 KB\n"));
    set(RE_STAT_GLOBAL_ID_DATA_FIFO_IN_LOAD_CACHE, -1);
    EXPECT_TRUE(contains(detail(), "\n  Evicted cache in loading cache:  -1024 B\n"));
}

TEST_F(global_view, evicted_cache_wraps_in_bytes)
{
    set(RE_STAT_GLOBAL_ID_DATA_FIFO_IN_LOAD_CACHE, (1LL << 54) + 7);
    EXPECT_TRUE(contains(detail(), "\n  Evicted cache in loading cache:   7168 B\n"));
    set(RE_STAT_GLOBAL_ID_DATA_FIFO_IN_LOAD_CACHE, LLONG_MAX);
    EXPECT_TRUE(contains(detail(), "\n  Evicted cache in loading cache:  -1024 B\n"));
}

TEST_F(global_view, read_latencies_are_cut_toward_0)
{
    set(RE_STAT_GLOBAL_ID_AVG_READ_LATENCY, -1999);
    set(RE_STAT_GLOBAL_ID_AVG_DISK_READ_LATENCY, LLONG_MIN);
    EXPECT_TRUE(contains(detail(), "\n  Total read speed (disk + kernel-cache):     -1 ms in 0 reads\n"
                                   "  Disk read speed                       : -9223372036854775 ms in 0 reads\n"));
}

TEST_F(global_view, top_application_shares_are_of_all_updates)
{
    set(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_SUCCESS_COUNT, 3);
    set(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_FAILURE_COUNT, 1);
    EXPECT_TRUE(contains(detail(), "\n  Update: Succeed        3 (75.00%), Fail        1 (25.00%)\n"));
    set(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_SUCCESS_COUNT, 5);
    set(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_FAILURE_COUNT, 0);
    EXPECT_TRUE(contains(detail(), "\n  Update: Succeed        5 (100.00%), Fail        0 (0.00%)\n"));
    set(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_SUCCESS_COUNT, 0);
    EXPECT_TRUE(contains(detail(), "\n  Update: Succeed        0 (0.00%), Fail        0 (0.00%)\n"));
}

TEST_F(global_view, top_application_shares_are_in_single_precision)
{
    // 0.005 percent is a little smaller in single precision and a little larger in double precision.
    set(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_SUCCESS_COUNT, 99995);
    set(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_FAILURE_COUNT, 5);
    EXPECT_TRUE(contains(detail(), ", Fail        5 (0.00%)\n"));
    // The shares are 43.8749992 and 56.1250008 percent. If only the result were converted to single precision, they
    // would round to 43.875 and 56.125. With 24 bits from the start, 16968677 becomes 16968676 and 21706371 becomes
    // 21706372. 100 times these are 1696867584 and 2170637312, and the shares are 43.8749962 and 56.1250038.
    set(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_SUCCESS_COUNT, 21706371);
    set(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_FAILURE_COUNT, 16968677);
    EXPECT_TRUE(contains(detail(), "\n  Update: Succeed 21706371 (56.13%), Fail 16968677 (43.87%)\n"));
}

TEST_F(global_view, top_application_shares_of_negative_counts_are_shown)
{
    set(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_SUCCESS_COUNT, 5);
    set(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_FAILURE_COUNT, -1);
    EXPECT_TRUE(contains(detail(), "\n  Update: Succeed        5 (125.00%), Fail       -1 (-25.00%)\n"));
    set(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_SUCCESS_COUNT, -3);
    EXPECT_TRUE(contains(detail(), "\n  Update: Succeed       -3 (75.00%), Fail       -1 (25.00%)\n"));
}

TEST_F(global_view, top_application_counts_that_cancel_out_guard_success_and_not_failure)
{
    set(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_SUCCESS_COUNT, -3);
    set(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_FAILURE_COUNT, 3);
    EXPECT_TRUE(contains(detail(), "\n  Update: Succeed       -3 (0.00%), Fail        3 ( inf%)\n"));
}

TEST_F(global_view, largest_counters_wrap)
{
    set_all(LLONG_MAX);
    EXPECT_EQ(info(), R"(
Cache:
    Status: Unknown
    Total usable disk size: 9223372036854775807 MB,  Used: -0.00%
      Hash table RAM  size: 9223372036854775807 MB,  Used: -0.00%
    Sigblock usage:  disk: 9223372036854775807 MB, memory: 100.00% age: 11574d
   Data unit usage:  disk: 9223372036854775807 MB, memory: 100.00% age: 11574d
)");
    // The sum wraps to -2. A hundred times 2^63, divided by -2, is -25 times 2^64.
    EXPECT_TRUE(contains(detail(), "\n  Update: Succeed 9223372036854775807 (-461168601842738790400.00%), "
                                   "Fail 9223372036854775807 (-461168601842738790400.00%)\n"));
}

TEST_F(global_view, smallest_counters_wrap)
{
    set_all(LLONG_MIN);
    EXPECT_EQ(info(), R"(
Cache:
    Status: Not Usable
    Total usable disk size: -9223372036854775808 MB,  Used: 0.00%
      Hash table RAM  size: -9223372036854775808 MB,  Used: 0.00%
    Sigblock usage:  disk: -9223372036854775808 MB, memory: 0.00% age: 0s
   Data unit usage:  disk: -9223372036854775808 MB, memory: 0.00% age: 0s
)");
    EXPECT_TRUE(contains(detail(), "\n  Evicted cache in loading cache:      0 B\n"));
}

TEST_F(global_view, GLOB_reads_afresh_and_gives_0_for_a_counter_that_is_not_there)
{
    set(7, 70);
    EXPECT_EQ(GLOB(7), 70);
    EXPECT_EQ(GLOB(7), 70);
    EXPECT_EQ(GLOB(8), 0);
    EXPECT_EQ(reader.calls, reads({7, 7, 8}));
}

TEST_F(global_view, module_memory_shows_every_counter_in_its_place)
{
    reader.global_stats = {{10, 1001}, {11, 1002}, {12, 1003}, {13, 1004}, {14, 1005}, {20, 2001},
                           {21, 2002}, {22, 2003}, {30, 1},    {31, 2},    {32, 3},    {33, 4},
                           {34, 5},    {35, 15},   {36, 30},   {37, 40}};
    long long total = 0;
    const std::string text = output_of([&total] { total = show_malloc_stat_for_module("KAV_CORE", 10, 20, 30); });
    EXPECT_EQ(total, 5015);
    EXPECT_EQ(text, R"(  KAV_CORE memory allocation: 5015
      per-context:       1003, per-connection:       1004,   per-message:       1005
    pre-allocated:       1001,         global:       1002
           malloc:       2001,            new:       2002, STL container:       2003
    allocated buffer size distribution:
      0-1K=1% 1K-2K=2% 2K-4K=3% 4K-8K=4% 8K-16K=5% 16K-32K=15% 32K-64K=30% >64K=40%
)");
}

TEST_F(global_view, module_memory_reads_its_shares_backwards)
{
    set(30, 1);
    output_of([] { show_malloc_stat_for_module("KAV_LZ", 10, 20, 30); });
    EXPECT_EQ(reader.calls,
              reads({10, 11, 12, 13, 14, 22, 21, 20, 30, 31, 32, 33, 34, 35, 36, 37, 37, 36, 35, 34, 33, 32, 31, 30}));
}

TEST_F(global_view, module_memory_without_buffers_shows_zeros)
{
    const std::string text = output_of([] { EXPECT_EQ(show_malloc_stat_for_module("KAV_LZ", 10, 20, 30), 0); });
    EXPECT_EQ(text, R"(  KAV_LZ memory allocation: 0
      per-context:          0, per-connection:          0,   per-message:          0
    pre-allocated:          0,         global:          0
           malloc:          0,            new:          0, STL container:          0
    allocated buffer size distribution:
      0-1K=0% 1K-2K=0% 2K-4K=0% 4K-8K=0% 8K-16K=0% 16K-32K=0% 32K-64K=0% >64K=0%
)");
    EXPECT_EQ(reader.calls.size(), 16U);
}

TEST_F(global_view, module_memory_shares_are_cut_and_need_not_add_up)
{
    for (int id = 30; id < 33; ++id) {
        set(id, 1);
    }
    EXPECT_TRUE(contains(output_of([] { show_malloc_stat_for_module("KAV_LZ", 10, 20, 30); }),
                         "      0-1K=33% 1K-2K=33% 2K-4K=33% 4K-8K=0% 8K-16K=0% 16K-32K=0% 32K-64K=0% >64K=0%\n"));
}

TEST_F(global_view, module_memory_sums_wrap)
{
    set_all(LLONG_MAX);
    long long total = 0;
    // Five and eight times the largest counter wrap to 2^63 - 5 and -8. A hundred times it wraps to -100.
    const std::string text = output_of([&total] { total = show_malloc_stat_for_module("KAV_LZ", 10, 20, 30); });
    EXPECT_EQ(total, LLONG_MAX - 4);
    EXPECT_TRUE(
        contains(text, "      0-1K=12% 1K-2K=12% 2K-4K=12% 4K-8K=12% 8K-16K=12% 16K-32K=12% 32K-64K=12% >64K=12%\n"));
}
