// The connection summary and detail that the engine, peer and connection reports share.
#include "RE_conn_blocks.h"
#include "RE_statistics.h"
#include "support/contains.h"
#include "support/fake_reader.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <map>
#include <string>

namespace {

class conn_blocks : public view_test
{
protected:
    void set(int id, long long value) { reader.global_conn_stats[id] = value; }
    void set_all(long long value)
    {
        for (int id = 0; id < RE_STAT_CONN_ID_MAX; ++id) {
            set(id, value);
        }
    }
    int reads_of(int id) const { return reader.count("read_global_conn_stat " + std::to_string(id)); }

    std::string info() const
    {
        return output_of([] { show_conn_info(RE_global_conn_slot()); });
    }
    std::string detail() const
    {
        return output_of([] { show_conn_detail(RE_global_conn_slot()); });
    }

    void set_distinct_counters();
};

// Every counter of the blocks has a different text, so that confused counters are noticed.
void conn_blocks::set_distinct_counters()
{
    reader.global_stats[RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_AGE] = now - 7384;
    reader.global_stats[RE_STAT_GLOBAL_ID_CACHE_DATAUNIT_AGE] = now - 100000;

    set(RE_STAT_CONN_ID_ENCODE_NUM_MSGS, 1000);
    set(RE_STAT_CONN_ID_ENCODE_IN_BYTES, 50000);
    set(RE_STAT_CONN_ID_ENCODE_OUT_BYTES, 20000);
    set(RE_STAT_CONN_ID_RE_ENCODE_NUM_MSGS, 900);
    set(RE_STAT_CONN_ID_RE_ENCODE_IN_BYTES, 40000);
    set(RE_STAT_CONN_ID_RE_ENCODE_OUT_BYTES, 30000);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_NUM, 70);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_BYTES, 7100);
    set(RE_STAT_CONN_ID_LZ_ENCODE_NUM_MSGS, 850);
    set(RE_STAT_CONN_ID_LZ_ENCODE_IN_BYTES, 32000);
    set(RE_STAT_CONN_ID_LZ_ENCODE_OUT_BYTES, 28800);
    set(RE_STAT_CONN_ID_TOT_ENCODE_SPEED, 1234000);
    set(RE_STAT_CONN_ID_TOT_ENCODE_DISK_SPEED, 456000);
    set(RE_STAT_CONN_ID_DELAYED_DATA_NUM, 33);
    set(RE_STAT_CONN_ID_ENCODE_X, 1);
    set(RE_STAT_CONN_ID_ENCODE_2X, 2);
    set(RE_STAT_CONN_ID_ENCODE_4X, 3);
    set(RE_STAT_CONN_ID_ENCODE_8X, 4);
    set(RE_STAT_CONN_ID_ENCODE_16X, 10);
    set(RE_STAT_CONN_ID_ENCODE_32X, 30);

    set(RE_STAT_CONN_ID_DECODE_NUM_MSGS, 800);
    set(RE_STAT_CONN_ID_DECODE_IN_BYTES, 16000);
    set(RE_STAT_CONN_ID_DECODE_OUT_BYTES, 64000);
    set(RE_STAT_CONN_ID_RE_DECODE_NUM_MSGS, 790);
    set(RE_STAT_CONN_ID_RE_DECODE_IN_BYTES, 12000);
    set(RE_STAT_CONN_ID_RE_DECODE_OUT_BYTES, 60000);
    set(RE_STAT_CONN_ID_DECODE_BYPASS_TOTAL_NUM, 60);
    set(RE_STAT_CONN_ID_DECODE_BYPASS_TOTAL_BYTES, 6200);
    set(RE_STAT_CONN_ID_LZ_DECODE_NUM_MSGS, 720);
    set(RE_STAT_CONN_ID_LZ_DECODE_IN_BYTES, 9000);
    set(RE_STAT_CONN_ID_LZ_DECODE_OUT_BYTES, 15000);
    set(RE_STAT_CONN_ID_TOT_DECODE_SPEED, 2468000);
    set(RE_STAT_CONN_ID_TOT_DECODE_DISK_SPEED, 988000);
    set(RE_STAT_CONN_ID_DECODE_X, 3);
    set(RE_STAT_CONN_ID_DECODE_2X, 7);
    set(RE_STAT_CONN_ID_DECODE_4X, 11);
    set(RE_STAT_CONN_ID_DECODE_8X, 13);
    set(RE_STAT_CONN_ID_DECODE_16X, 26);
    set(RE_STAT_CONN_ID_DECODE_32X, 40);

    set(RE_STAT_CONN_ID_ENCODE_NUM_CHUNKS, 4001);
    set(RE_STAT_CONN_ID_DECODE_NUM_CHUNKS, 4002);
    set(RE_STAT_CONN_ID_NUM_ANCHOR_CHUNK_COUNT, 4003);
    set(RE_STAT_CONN_ID_NUM_FORCED_ANCHOR_CHUNK_COUNT, 4004);
    set(RE_STAT_CONN_ID_ENCODE_TOT_MSG_BLOCKS, 450);
    set(RE_STAT_CONN_ID_ENCODE_TOT_READ_BLOCKS, 225);
    set(RE_STAT_CONN_ID_ENCODE_TOT_SEARCH_BLOCKS, 1350);
    set(RE_STAT_CONN_ID_ENCODE_TOT_NUM_SECTIONS, 1800);
    set(RE_STAT_CONN_ID_ENCODE_TOT_RANGE_CNT, 3600);
    set(RE_STAT_CONN_ID_ENCODE_TOT_RANGE_CHUNK_CNT, 27000);
    set(RE_STAT_CONN_ID_NUM_ACK_MSGS, 501);
    set(RE_STAT_CONN_ID_ACK_BYTES, 5020);

    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_LOWMEM, 101);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_LOWMEM_BYTES, 201);
    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_OUT_OF_SYNC, 102);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_OUT_OF_SYNC_BYTES, 202);
    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_CACHE_NOT_READY, 103);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_CACHE_NOT_READY_BYTES, 203);
    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_CACHE_NOT_READY, 104);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_REM_CACHE_NOT_READY_BYTES, 204);
    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_INFO_INCORRECT, 105);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_REM_INFO_INCORRECT_BYTES, 205);
    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_CACHE_NOT_COMPATIBLE, 106);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_CACHE_NOT_COMPATIBLE_BYTES, 206);
    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_ACKQ_CAP_EXCEED, 107);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_ACKQ_CAP_EXCEED_BYTES, 207);
    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REMOTE_WAITQ, 108);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_REMOTE_WAITQ_BYTES, 208);
    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_DISK_OVERLD, 109);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_DISK_OVERLD_BYTES, 209);
    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_DISK_OVERLD, 110);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_REM_DISK_OVERLD_BYTES, 210);
    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_DISK_IO_ERR, 111);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_DISK_IO_ERR_BYTES, 211);
    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_DISK_IO_ERR, 112);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_REM_DISK_IO_ERR_BYTES, 212);
    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_NON_KAV_COMP_TYPE, 113);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_NON_KAV_COMP_TYPE_BYTES, 213);
    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_CHUNK, 114);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_CHUNK_BYTES, 214);
    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_SKIP, 115);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_SKIP_BYTES, 215);
    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_LOW_COMP, 116);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_LOW_COMP_BYTES, 216);

    set(RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS, 61);
    set(RE_STAT_CONN_ID_NUM_COL_NACK_MSGS, 62);
    set(RE_STAT_CONN_ID_NUM_MISS_NACK_MSGS, 63);
    set(RE_STAT_CONN_ID_NUM_CACHE_NOT_READY_NACK_MSGS, 64);
    set(RE_STAT_CONN_ID_NUM_TOTAL_RTX_MSGS, 71);
    set(RE_STAT_CONN_ID_NUM_COL_RTX_MSGS, 72);
    set(RE_STAT_CONN_ID_NUM_MISS_RTX_MSGS, 73);
    set(RE_STAT_CONN_ID_NUM_CACHE_NOT_READY_RTX_MSGS, 74);
    set(RE_STAT_CONN_ID_NUM_INVALID_SECTIONS, 5);
    set(RE_STAT_CONN_ID_NUM_CONVERT_INVALID_SECTIONS, 2);

    set(RE_STAT_CONN_ID_TOT_ENCODE_LZ_SPEED, 1703400);
    set(RE_STAT_CONN_ID_TOT_ENCODE_ZLIB_SPEED, 1702550);
    set(RE_STAT_CONN_ID_TOT_DECODE_LZ_SPEED, 3605040);
    set(RE_STAT_CONN_ID_TOT_DECODE_ZLIB_SPEED, 3604320);

    set(RE_STAT_CONN_ID_SIGBLOCK_SECTION_WRITTEN_CNT, 11);
    set(RE_STAT_CONN_ID_SIGBLOCK_SECTION_WRITTEN_BYTES, 1200);
    set(RE_STAT_CONN_ID_SIGBLOCK_SECTION_WRITTEN_NEW_CHUNK_BYTES, 1300);
    set(RE_STAT_CONN_ID_SECBLOCK_SECTION_WRITTEN_CNT, 14);
    set(RE_STAT_CONN_ID_SECBLOCK_SECTION_WRITTEN_BYTES, 1500);
    set(RE_STAT_CONN_ID_SECBLOCK_SECTION_WRITTEN_NEW_CHUNK_BYTES, 1600);
    set(RE_STAT_CONN_ID_DATA_SINGLE_INSTANCE_SAVING_SIZE, 2100);
    set(RE_STAT_CONN_ID_DATA_DEDUPLICATION_SAVING_SIZE, 2200);
    set(RE_STAT_CONN_ID_UNIDIRECITIONAL_SAVING_SIZE, 2300);

    set(RE_STAT_CONN_ID_AGG_CHNK_SND_L0, 31);
    set(RE_STAT_CONN_ID_AGG_HITS_SND_L0, 32);
    set(RE_STAT_CONN_ID_AGG_MISS_SND_L0, 34);
    set(RE_STAT_CONN_ID_AGG_CHNK_RCV_L0, 35);
    set(RE_STAT_CONN_ID_AGG_HITS_RCV_L0, 36);
    set(RE_STAT_CONN_ID_AGG_MISS_RCV_L0, 37);
    set(RE_STAT_CONN_ID_AGG_STACK_SND, 41);
    set(RE_STAT_CONN_ID_AGG_STACK_RCV, 42);
    set(RE_STAT_CONN_ID_AGG_NF_CHNKS, 43);
    set(RE_STAT_CONN_ID_AGG_NF_BYTES, 44);
}

constexpr const char* info_of_zeros = R"(Encode: Sigblock oldest data (age): 0s
   Overall: msg:          0, in:      0 B, out:      0 B, ratio:   0.00%
       KAV: msg:          0, in:      0 B, out:      0 B, ratio:   0.00%
KAV Bypass: msg:          0, in:      0 B
        LZ: msg:          0, in:      0 B, out:      0 B, ratio:   0.00%
 LZ Bypass: msg:          0, in:      0 B
    Avg latency:      0.000 ms  disk latency:      0.000 ms  Delayed msg:          0
 Average message size:      0 B
  Message size distribution:
    0-1K=0%  1K-5K=0%  5K-15K=0%  15K-25K=0%  25K-40K=0%  >40K=0%
Decode: Data unit oldest data (age): 0s
   Overall: msg:          0, in:      0 B, out:      0 B, ratio:   0.00%
       KAV: msg:          0, in:      0 B, out:      0 B, ratio:   0.00%
KAV Bypass: msg:          0, in:      0 B
        LZ: msg:          0, in:      0 B, out:      0 B, ratio:   0.00%
 LZ Bypass: msg:          0, in:      0 B
    Avg latency:      0.000 ms  disk latency:      0.000 ms
 Average message size:      0 B
  Message size distribution:
    0-1K=0%  1K-5K=0%  5K-15K=0%  15K-25K=0%  25K-40K=0%  >40K=0%
)";

constexpr const char* detail_of_zeros = R"(
Connection details:
  Chunks: encoded 0,  decoded 0,  anchor(forced) 0(0)
  Total number of processed messges: 0
      num_used_block per msg for encode: 0.000000
      num_read_block per msg for encode: 0.000000
      encode search list length per msg: 0.000000
      number of section used for encode per msg: 0.000000
      number of ranges used for encode per msg: 0.000000
      average matched range chunk cnt: 0.000000
  Ack: msg 0,  size      0 B
  Nacks: total 0
  R-tx: total 0
  Encode LZ latency:  0.000 ms per msg, zlib latency:  0.000 ms, average message size:      0 B
  Decode LZ latency:  0.000 ms per msg, zlib latency:  0.000 ms, average message size:      0 B

  Cache write detail:
  Section written:
  Sigblock: cnt: 0, size:      0 B, new size:      0 B
  Dataunit: cnt: 0, size:      0 B, new size:      0 B
  Disk size saving due to data single instance:      0 B
  Disk size saving due to unidirectional mode:      0 B
  Disk size saving due to data unit deduplication:      0 B

  Aggregation encode:
      level 0: chunks:        0  hits:        0 miss:        0
  Aggregation decode:
      level 0: chunks:        0  hits:        0 miss:        0
  Aggregation stack memory usage: Sender:      0 B  Receiver:      0 B
  Noise filter: Chunks: 0, Bytes:      0 B
)";

} // namespace

TEST_F(conn_blocks, info_without_traffic_shows_zeros_everywhere)
{
    set_all(0);
    EXPECT_EQ(info(), info_of_zeros);
}

TEST_F(conn_blocks, detail_without_traffic_shows_zeros_and_no_conditional_line)
{
    set_all(0);
    EXPECT_EQ(detail(), detail_of_zeros);
}

TEST_F(conn_blocks, failing_reader_shows_zeros)
{
    set_distinct_counters();
    reader.b_failing = true;
    EXPECT_EQ(info(), info_of_zeros);
    EXPECT_EQ(detail(), detail_of_zeros);
}

TEST_F(conn_blocks, info_shows_every_counter_in_its_place)
{
    set_distinct_counters();
    EXPECT_EQ(info(), R"(Encode: Sigblock oldest data (age): 2h3m4s
   Overall: msg:       1000, in:  50000 B, out:  20000 B, ratio:  60.00%
       KAV: msg:        900, in:  40000 B, out:  30000 B, ratio:  25.00%
KAV Bypass: msg:         70, in:   7100 B
        LZ: msg:        850, in:  32000 B, out:  28800 B, ratio:  10.00%
 LZ Bypass: msg:        150, in:   5100 B
    Avg latency:      1.234 ms  disk latency:      0.456 ms  Delayed msg:         33
 Average message size:     50 B
  Message size distribution:
    0-1K=2%  1K-5K=4%  5K-15K=6%  15K-25K=8%  25K-40K=20%  >40K=60%
Decode: Data unit oldest data (age): 1d3h
   Overall: msg:        800, in:  16000 B, out:  64000 B, ratio:  75.00%
       KAV: msg:        790, in:  12000 B, out:  60000 B, ratio:  80.00%
KAV Bypass: msg:         60, in:   6200 B
        LZ: msg:        720, in:   9000 B, out:  15000 B, ratio:  40.00%
 LZ Bypass: msg:         80, in:   7000 B
    Avg latency:      3.085 ms  disk latency:      1.235 ms
 Average message size:     80 B
  Message size distribution:
    0-1K=3%  1K-5K=7%  5K-15K=11%  15K-25K=13%  25K-40K=26%  >40K=40%
)");
}

TEST_F(conn_blocks, detail_shows_every_counter_in_its_place)
{
    set_distinct_counters();
    EXPECT_EQ(detail(),
              R"(
Connection details:
  Chunks: encoded 4001,  decoded 4002,  anchor(forced) 4003(4004)
  Total number of processed messges: 1800
      num_used_block per msg for encode: 0.500000
      num_read_block per msg for encode: 0.250000
      encode search list length per msg: 1.500000
      number of section used for encode per msg: 2.000000
      number of ranges used for encode per msg: 4.000000
      average matched range chunk cnt: 7.500000
  Ack: msg 501,  size   5020 B
  Encode bypass due to:
      low memory: messages: 101,  size:    201 B
      out of sync cache: messages: 102,  size:    202 B
      cache initialization: messages: 103,  size:    203 B
      remote cache initialization: messages: 104,  size:    204 B
      peer info stored locally is incorrect: messages: 105,  size:    205 B
      remote cache not compatible: messages: 106,  size:    206 B
      exceed ack-Q cap: messages: 107,  size:    207 B
      remote wait-Q due to nack: messages: 108,  size:    208 B
      local disk overload: messages: 109,  size:    209 B
      remote disk overload: messages: 110,  size:    210 B
      local disk IO error: messages: 111,  size:    211 B
      remote disk IO error: messages: 112,  size:    212 B
      non KAV compression type: messages: 113,  size:    213 B
      last partial chunk: chunks: 114,  size:    214 B
      skipped frame header: messages: 115,  size:    215 B
      KAV low compression auto bypass: messages: 116,  size:    216 B
  Nacks: total 61 collision 62 chunk-miss 63 cache-not-ready 64
  R-tx: total 71 collision 72 chunk-miss 73 cache-not-ready 74
)"
              // The next line ends with a blank.
              "  Invalidated 5 sections (5 due to converted cache) \n"
              R"(  Encode LZ latency:  2.004 ms per msg, zlib latency:  2.003 ms, average message size:     37 B
  Decode LZ latency:  5.007 ms per msg, zlib latency:  5.006 ms, average message size:     20 B

  Cache write detail:
  Section written:
  Sigblock: cnt: 11, size:   1200 B, new size:   1300 B
  Dataunit: cnt: 14, size:   1500 B, new size:   1600 B
  Disk size saving due to data single instance:   2100 B
  Disk size saving due to unidirectional mode:   2300 B
  Disk size saving due to data unit deduplication:   2200 B

  Aggregation encode:
      level 0: chunks:       31  hits:       32 miss:       34
  Aggregation decode:
      level 0: chunks:       35  hits:       36 miss:       37
  Aggregation stack memory usage: Sender:     41 B  Receiver:     42 B
  Noise filter: Chunks: 43, Bytes:     44 B
)");
}

TEST_F(conn_blocks, blocks_are_the_same_for_every_kind_of_slot)
{
    set_distinct_counters();
    reader.peers.resize(1);
    reader.peers[0].conn_stats = reader.global_conn_stats;
    reader.conns.resize(1);
    reader.conns[0].stats = reader.global_conn_stats;
    const RE_peer_conn_slot peer(0);
    const RE_conn_conn_slot conn(0);
    EXPECT_EQ(output_of([&] { show_conn_info(peer); }), info());
    EXPECT_EQ(output_of([&] { show_conn_info(conn); }), info());
    EXPECT_EQ(output_of([&] { show_conn_detail(peer); }), detail());
    EXPECT_EQ(output_of([&] { show_conn_detail(conn); }), detail());
}

TEST_F(conn_blocks, lz_bypass_that_would_be_negative_is_0)
{
    set(RE_STAT_CONN_ID_ENCODE_NUM_MSGS, 10);
    set(RE_STAT_CONN_ID_LZ_ENCODE_NUM_MSGS, 12);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_BYTES, 3);
    set(RE_STAT_CONN_ID_RE_ENCODE_OUT_BYTES, 4);
    set(RE_STAT_CONN_ID_LZ_ENCODE_IN_BYTES, 8);
    set(RE_STAT_CONN_ID_DECODE_NUM_MSGS, 20);
    set(RE_STAT_CONN_ID_LZ_DECODE_NUM_MSGS, 21);
    set(RE_STAT_CONN_ID_DECODE_IN_BYTES, 5);
    set(RE_STAT_CONN_ID_LZ_DECODE_IN_BYTES, 6);
    const std::string text = info();
    const std::string line = "\n LZ Bypass: msg:          0, in:      0 B\n";
    const std::size_t encode = text.find(line);
    ASSERT_NE(encode, std::string::npos);
    EXPECT_NE(text.find(line, encode + 1), std::string::npos);
}

TEST_F(conn_blocks, negative_message_count_gives_no_latency_and_no_average)
{
    set_distinct_counters();
    for (const int id : {RE_STAT_CONN_ID_ENCODE_NUM_MSGS, RE_STAT_CONN_ID_DECODE_NUM_MSGS,
                         RE_STAT_CONN_ID_LZ_ENCODE_NUM_MSGS, RE_STAT_CONN_ID_LZ_DECODE_NUM_MSGS}) {
        set(id, -2);
    }
    const std::string summary = info();
    EXPECT_TRUE(contains(summary,
                         "    Avg latency:      0.000 ms  disk latency:      0.000 ms  Delayed msg:         33\n"
                         " Average message size:      0 B\n"));
    EXPECT_TRUE(contains(summary, "    Avg latency:      0.000 ms  disk latency:      0.000 ms\n"
                                  " Average message size:      0 B\n"));
    const std::string rest = detail();
    EXPECT_TRUE(contains(rest, "  Encode LZ latency:  0.000 ms per msg, zlib latency:  0.000 ms, "
                               "average message size:      0 B\n"));
    EXPECT_TRUE(contains(rest, "  Decode LZ latency:  0.000 ms per msg, zlib latency:  0.000 ms, "
                               "average message size:      0 B\n"));
}

TEST_F(conn_blocks, negative_divisor_counts_in_the_search_costs)
{
    set(RE_STAT_CONN_ID_RE_ENCODE_NUM_MSGS, -2);
    set(RE_STAT_CONN_ID_ENCODE_TOT_MSG_BLOCKS, 5);
    set(RE_STAT_CONN_ID_ENCODE_TOT_RANGE_CNT, -4);
    set(RE_STAT_CONN_ID_ENCODE_TOT_RANGE_CHUNK_CNT, 1);
    const std::string text = detail();
    EXPECT_TRUE(contains(text, "num_used_block per msg for encode: -2.500000\n"));
    EXPECT_TRUE(contains(text, "number of ranges used for encode per msg: 2.000000\n"));
    EXPECT_TRUE(contains(text, "average matched range chunk cnt: -0.250000\n"));
}

TEST_F(conn_blocks, negative_average_is_cut_toward_0)
{
    set(RE_STAT_CONN_ID_ENCODE_NUM_MSGS, 2);
    set(RE_STAT_CONN_ID_ENCODE_IN_BYTES, -5);
    EXPECT_TRUE(contains(info(), " Average message size:     -2 B\n"));
}

TEST_F(conn_blocks, bypassed_chunks_alone_head_the_causes)
{
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_BYTES, 0);
    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_CHUNK, 3);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_CHUNK_BYTES, 99);
    EXPECT_TRUE(contains(detail(), "  Ack: msg 0,  size      0 B\n"
                                   "  Encode bypass due to:\n"
                                   "      last partial chunk: chunks: 3,  size:     99 B\n"
                                   "  Nacks: total 0\n"));
}

TEST_F(conn_blocks, causes_without_bytes_in_total_stay_hidden)
{
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_BYTES, 0);
    set(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_LOWMEM, 3);
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_LOWMEM_BYTES, 99);
    EXPECT_EQ(detail(), detail_of_zeros);
}

TEST_F(conn_blocks, heading_of_the_causes_may_stand_alone)
{
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_BYTES, 1);
    EXPECT_TRUE(contains(detail(), "  Encode bypass due to:\n  Nacks: total 0\n"));
}

TEST_F(conn_blocks, cause_with_messages_but_no_bytes_is_hidden)
{
    set(1, 7);
    set(2, 0);
    EXPECT_EQ(output_of([] { print_bypass_cause(RE_global_conn_slot(), "moonlight", 1, 2, true); }), "");
    set(2, -1);
    EXPECT_EQ(output_of([] { print_bypass_cause(RE_global_conn_slot(), "moonlight", 1, 2, true); }), "");
}

TEST_F(conn_blocks, cause_counts_messages_or_chunks)
{
    set(1, -7);
    set(2, 102401);
    EXPECT_EQ(output_of([] { print_bypass_cause(RE_global_conn_slot(), "moonlight", 1, 2, true); }),
              "      moonlight: messages: -7,  size:    100 KB\n");
    EXPECT_EQ(output_of([] { print_bypass_cause(RE_global_conn_slot(), "moonlight", 1, 2, false); }),
              "      moonlight: chunks: -7,  size:    100 KB\n");
}

TEST_F(conn_blocks, nack_causes_without_messages_are_left_out)
{
    set(RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS, 9);
    set(RE_STAT_CONN_ID_NUM_MISS_NACK_MSGS, 8);
    set(RE_STAT_CONN_ID_NUM_COL_NACK_MSGS, -1);
    set(RE_STAT_CONN_ID_NUM_CACHE_NOT_READY_RTX_MSGS, 6);
    EXPECT_TRUE(contains(detail(), "\n  Nacks: total 9 chunk-miss 8\n  R-tx: total 0 cache-not-ready 6\n"));
}

TEST_F(conn_blocks, any_converted_section_blames_conversion_for_all_invalid_ones)
{
    set(RE_STAT_CONN_ID_NUM_INVALID_SECTIONS, 5);
    set(RE_STAT_CONN_ID_NUM_CONVERT_INVALID_SECTIONS, 1);
    EXPECT_TRUE(contains(detail(), "\n  Invalidated 5 sections (5 due to converted cache) \n"));
}

TEST_F(conn_blocks, invalid_sections_without_conversion_blame_none_on_it)
{
    set(RE_STAT_CONN_ID_NUM_INVALID_SECTIONS, 5);
    EXPECT_TRUE(contains(detail(), "\n  Invalidated 5 sections (0 due to converted cache) \n"));
}

TEST_F(conn_blocks, converted_sections_alone_are_not_shown)
{
    set(RE_STAT_CONN_ID_NUM_CONVERT_INVALID_SECTIONS, 2);
    EXPECT_EQ(detail(), detail_of_zeros);
}

TEST_F(conn_blocks, guards_and_values_are_read_apart)
{
    set_distinct_counters();
    info();
    // Overall, LZ bypass, and one guard and one division in each of both latencies and the average.
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_ENCODE_NUM_MSGS), 8);
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_DECODE_NUM_MSGS), 8);
    // The ratio and the average.
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_ENCODE_IN_BYTES), 2);
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_DECODE_OUT_BYTES), 2);
    // The ratio and the LZ bypass.
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_RE_ENCODE_OUT_BYTES), 2);
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_DECODE_IN_BYTES), 2);
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_ENCODE_X), 2);
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_DELAYED_DATA_NUM), 1);

    reader.calls.clear();
    detail();
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_ENCODE_BYPASS_LOWMEM_BYTES), 2);
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_LOWMEM), 1);
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_NUM_COL_NACK_MSGS), 2);
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS), 1);
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_NUM_INVALID_SECTIONS), 3);
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_NUM_CONVERT_INVALID_SECTIONS), 1);
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_RE_ENCODE_NUM_MSGS), 10);
    // Its own share, and the guard and the division of the average range.
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_ENCODE_TOT_RANGE_CNT), 3);
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_LZ_ENCODE_NUM_MSGS), 6);
}

TEST_F(conn_blocks, total_that_opens_the_causes_spares_the_reading_of_the_chunks)
{
    set(RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_BYTES, 1);
    detail();
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_BYTES), 1);
    EXPECT_EQ(reads_of(RE_STAT_CONN_ID_ENCODE_BYPASS_CHUNK_BYTES), 1);
}

TEST_F(conn_blocks, ages_are_the_engines_whatever_the_slot)
{
    set_distinct_counters();
    info();
    EXPECT_EQ(reader.count("read_global_stat " + std::to_string(RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_AGE)), 1);
    EXPECT_EQ(reader.count("read_global_stat " + std::to_string(RE_STAT_GLOBAL_ID_CACHE_DATAUNIT_AGE)), 1);
}

// A running engine may reset a counter between the read by the guard and the read by the division.
TEST_F(conn_blocks, divisor_that_drops_to_0_after_its_guard_gives_0)
{
    for (const bool b_first : {true, false}) {
        set_all(700);
        set(RE_STAT_CONN_ID_ENCODE_BYPASS_REM_INFO_INCORRECT_BYTES, 0); // the text of its cause contains "info"
        std::map<int, bool> there;
        reader.on_read = [&] {
            for (const int id : {RE_STAT_CONN_ID_ENCODE_NUM_MSGS, RE_STAT_CONN_ID_DECODE_NUM_MSGS,
                                 RE_STAT_CONN_ID_RE_ENCODE_NUM_MSGS, RE_STAT_CONN_ID_LZ_ENCODE_NUM_MSGS,
                                 RE_STAT_CONN_ID_LZ_DECODE_NUM_MSGS, RE_STAT_CONN_ID_ENCODE_TOT_RANGE_CNT}) {
                if (reader.calls.back() == "read_global_conn_stat " + std::to_string(id)) {
                    bool& b_there = there.try_emplace(id, !b_first).first->second;
                    b_there = !b_there;
                    set(id, b_there ? 1 : 0);
                }
            }
        };
        const std::string text = info() + detail();
        EXPECT_FALSE(contains(text, "inf")) << text;
        EXPECT_FALSE(contains(text, "nan")) << text;
    }
}

// The largest counter as a size is 2^43 - 1 MB. A size shows its low 32 bits.
TEST_F(conn_blocks, largest_counters_wrap)
{
    set_all(LLONG_MAX);
    EXPECT_EQ(info(), R"(Encode: Sigblock oldest data (age): 0s
   Overall: msg: 9223372036854775807, in:     -1 MB, out:     -1 MB, ratio:   0.00%
       KAV: msg: 9223372036854775807, in:     -1 MB, out:     -1 MB, ratio:   0.00%
KAV Bypass: msg: 9223372036854775807, in:     -1 MB
        LZ: msg: 9223372036854775807, in:     -1 MB, out:     -1 MB, ratio:   0.00%
 LZ Bypass: msg:          0, in:     -1 MB
    Avg latency:      0.001 ms  disk latency:      0.001 ms  Delayed msg: 9223372036854775807
 Average message size:      1 B
  Message size distribution:
    0-1K=16%  1K-5K=16%  5K-15K=16%  15K-25K=16%  25K-40K=16%  >40K=16%
Decode: Data unit oldest data (age): 0s
   Overall: msg: 9223372036854775807, in:     -1 MB, out:     -1 MB, ratio:   0.00%
       KAV: msg: 9223372036854775807, in:     -1 MB, out:     -1 MB, ratio:   0.00%
KAV Bypass: msg: 9223372036854775807, in:     -1 MB
        LZ: msg: 9223372036854775807, in:     -1 MB, out:     -1 MB, ratio:   0.00%
 LZ Bypass: msg:          0, in:      0 B
    Avg latency:      0.001 ms  disk latency:      0.001 ms
 Average message size:      1 B
  Message size distribution:
    0-1K=16%  1K-5K=16%  5K-15K=16%  15K-25K=16%  25K-40K=16%  >40K=16%
)");
    const std::string text = detail();
    EXPECT_TRUE(contains(text, "  Total number of processed messges: -2\n"));
    EXPECT_TRUE(
        contains(text, "  Invalidated 9223372036854775807 sections (9223372036854775807 due to converted cache) \n"));
    EXPECT_TRUE(contains(text, "      average matched range chunk cnt: 1.000000\n"));
}

TEST_F(conn_blocks, smallest_counters_wrap)
{
    set_all(LLONG_MIN);
    EXPECT_EQ(detail(), R"(
Connection details:
  Chunks: encoded -9223372036854775808,  decoded -9223372036854775808,  anchor(forced) -9223372036854775808(-9223372036854775808)
  Total number of processed messges: 0
      num_used_block per msg for encode: 1.000000
      num_read_block per msg for encode: 1.000000
      encode search list length per msg: 1.000000
      number of section used for encode per msg: 1.000000
      number of ranges used for encode per msg: 1.000000
      average matched range chunk cnt: 1.000000
  Ack: msg -9223372036854775808,  size      0 B
  Nacks: total -9223372036854775808
  R-tx: total -9223372036854775808
  Encode LZ latency:  0.000 ms per msg, zlib latency:  0.000 ms, average message size:      0 B
  Decode LZ latency:  0.000 ms per msg, zlib latency:  0.000 ms, average message size:      0 B

  Cache write detail:
  Section written:
  Sigblock: cnt: -9223372036854775808, size:      0 B, new size:      0 B
  Dataunit: cnt: -9223372036854775808, size:      0 B, new size:      0 B
  Disk size saving due to data single instance:      0 B
  Disk size saving due to unidirectional mode:      0 B
  Disk size saving due to data unit deduplication:      0 B

  Aggregation encode:
      level 0: chunks: -9223372036854775808  hits: -9223372036854775808 miss: -9223372036854775808
  Aggregation decode:
      level 0: chunks: -9223372036854775808  hits: -9223372036854775808 miss: -9223372036854775808
  Aggregation stack memory usage: Sender:      0 B  Receiver:      0 B
  Noise filter: Chunks: -9223372036854775808, Bytes:      0 B
)");
    // The sum of bypassed bytes and KAV output wraps to 0. Minus the LZ input, it is the smallest number, which is
    // clamped.
    EXPECT_TRUE(contains(info(), " LZ Bypass: msg:          0, in:      0 B\n"));
}

TEST_F(conn_blocks, difference_of_messages_wraps_before_it_clamps)
{
    set(RE_STAT_CONN_ID_ENCODE_NUM_MSGS, LLONG_MIN);
    set(RE_STAT_CONN_ID_LZ_ENCODE_NUM_MSGS, 1);
    EXPECT_TRUE(contains(info(), " LZ Bypass: msg: 9223372036854775807, in:      0 B\n"));
}
