#include "RE_conn_blocks.h"

#include "RE_value_format.h"
#include "RE_viewer_reader.h"

#include <algorithm>
#include <cstdio>
#include <string>

// A counter that is used twice, in a guard and in a value or in two values, is read twice. With a running engine the
// second value may differ from the first, so a divisor is checked again after the guard.

namespace {

std::string size_of(const RE_conn_slot& c, int id)
{
    return get_data_size_str(c.get(id));
}

const char* encode_ratio(const RE_conn_slot& c, int in_id, int out_id)
{
    return get_in_out_ratio_str(c.get(in_id), c.get(out_id), true);
}

const char* decode_ratio(const RE_conn_slot& c, int in_id, int out_id)
{
    return get_in_out_ratio_str(c.get(in_id), c.get(out_id), false);
}

double quotient(long long numerator, long long divisor)
{
    return divisor == 0 ? 0.0 : static_cast<double>(numerator) / static_cast<double>(divisor);
}

// Milliseconds per message from a running total of microseconds; 0 without messages.
double latency(const RE_conn_slot& c, int total_id, int num_msgs_id)
{
    return c.get(num_msgs_id) > 0 ? quotient(c.get(total_id), c.get(num_msgs_id)) / 1000.0 : 0.0;
}

// Bytes per message, truncated; 0 without messages.
std::string average_size(const RE_conn_slot& c, int bytes_id, int num_msgs_id)
{
    long long average = 0;
    if (c.get(num_msgs_id) > 0) {
        const long long bytes = c.get(bytes_id);
        const long long num_msgs = c.get(num_msgs_id);
        average = num_msgs == 0 ? 0 : wrapping_quotient(bytes, num_msgs);
    }
    return get_data_size_str(average);
}

// Search cost per message or per range. Unlike the number of messages in latency(), the divisor may be negative.
double search_cost(const RE_conn_slot& c, int total_id, int divisor_id)
{
    return c.get(divisor_id) != 0 ? quotient(c.get(total_id), c.get(divisor_id)) : 0.0;
}

long long num_lz_bypass(const RE_conn_slot& c, int num_msgs_id, int num_lz_msgs_id)
{
    return std::max(0LL, wrapping_difference(c.get(num_msgs_id), c.get(num_lz_msgs_id)));
}

// Size of the data that reached the encoder's LZ stage, bypassed or reduced before, but did not go through it.
std::string encode_lz_bypass_size(const RE_conn_slot& c)
{
    const long long offered =
        wrapping_sum(c.get(RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_BYTES), c.get(RE_STAT_CONN_ID_RE_ENCODE_OUT_BYTES));
    return get_data_size_str(std::max(0LL, wrapping_difference(offered, c.get(RE_STAT_CONN_ID_LZ_ENCODE_IN_BYTES))));
}

// Not the counterpart of the encoder's size: all bytes that arrived, less those that went through LZ.
std::string decode_lz_bypass_size(const RE_conn_slot& c)
{
    return get_data_size_str(std::max(
        0LL, wrapping_difference(c.get(RE_STAT_CONN_ID_DECODE_IN_BYTES), c.get(RE_STAT_CONN_ID_LZ_DECODE_IN_BYTES))));
}

void show_encode_info(const RE_conn_slot& c)
{
    std::printf("Encode: ");
    // The engine has only one cache, so the age is the same for every slot.
    std::printf("Sigblock oldest data (age): %s\n", get_age_str(GLOB(RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_AGE)));
    std::printf("   Overall: msg: %10lld, %s\n", c.get(RE_STAT_CONN_ID_ENCODE_NUM_MSGS),
                encode_ratio(c, RE_STAT_CONN_ID_ENCODE_IN_BYTES, RE_STAT_CONN_ID_ENCODE_OUT_BYTES));
    std::printf("       KAV: msg: %10lld, %s\n", c.get(RE_STAT_CONN_ID_RE_ENCODE_NUM_MSGS),
                encode_ratio(c, RE_STAT_CONN_ID_RE_ENCODE_IN_BYTES, RE_STAT_CONN_ID_RE_ENCODE_OUT_BYTES));
    std::printf("KAV Bypass: msg: %10lld, in: %s\n", c.get(RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_NUM),
                size_of(c, RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_BYTES).c_str());
    std::printf("        LZ: msg: %10lld, %s\n", c.get(RE_STAT_CONN_ID_LZ_ENCODE_NUM_MSGS),
                encode_ratio(c, RE_STAT_CONN_ID_LZ_ENCODE_IN_BYTES, RE_STAT_CONN_ID_LZ_ENCODE_OUT_BYTES));
    std::printf(" LZ Bypass: msg: %10lld, in: %s\n",
                num_lz_bypass(c, RE_STAT_CONN_ID_ENCODE_NUM_MSGS, RE_STAT_CONN_ID_LZ_ENCODE_NUM_MSGS),
                encode_lz_bypass_size(c).c_str());
    std::printf("    Avg latency: %10.3f ms  disk latency: %10.3f ms  Delayed msg: %10lld\n",
                latency(c, RE_STAT_CONN_ID_TOT_ENCODE_SPEED, RE_STAT_CONN_ID_ENCODE_NUM_MSGS),
                latency(c, RE_STAT_CONN_ID_TOT_ENCODE_DISK_SPEED, RE_STAT_CONN_ID_ENCODE_NUM_MSGS),
                c.get(RE_STAT_CONN_ID_DELAYED_DATA_NUM));
    std::printf(" Average message size: %s\n",
                average_size(c, RE_STAT_CONN_ID_ENCODE_IN_BYTES, RE_STAT_CONN_ID_ENCODE_NUM_MSGS).c_str());
    show_msg_size_dist(c, RE_STAT_CONN_ID_ENCODE_X);
}

void show_decode_info(const RE_conn_slot& c)
{
    std::printf("Decode: ");
    std::printf("Data unit oldest data (age): %s\n", get_age_str(GLOB(RE_STAT_GLOBAL_ID_CACHE_DATAUNIT_AGE)));
    std::printf("   Overall: msg: %10lld, %s\n", c.get(RE_STAT_CONN_ID_DECODE_NUM_MSGS),
                decode_ratio(c, RE_STAT_CONN_ID_DECODE_IN_BYTES, RE_STAT_CONN_ID_DECODE_OUT_BYTES));
    std::printf("       KAV: msg: %10lld, %s\n", c.get(RE_STAT_CONN_ID_RE_DECODE_NUM_MSGS),
                decode_ratio(c, RE_STAT_CONN_ID_RE_DECODE_IN_BYTES, RE_STAT_CONN_ID_RE_DECODE_OUT_BYTES));
    std::printf("KAV Bypass: msg: %10lld, in: %s\n", c.get(RE_STAT_CONN_ID_DECODE_BYPASS_TOTAL_NUM),
                size_of(c, RE_STAT_CONN_ID_DECODE_BYPASS_TOTAL_BYTES).c_str());
    std::printf("        LZ: msg: %10lld, %s\n", c.get(RE_STAT_CONN_ID_LZ_DECODE_NUM_MSGS),
                decode_ratio(c, RE_STAT_CONN_ID_LZ_DECODE_IN_BYTES, RE_STAT_CONN_ID_LZ_DECODE_OUT_BYTES));
    std::printf(" LZ Bypass: msg: %10lld, in: %s\n",
                num_lz_bypass(c, RE_STAT_CONN_ID_DECODE_NUM_MSGS, RE_STAT_CONN_ID_LZ_DECODE_NUM_MSGS),
                decode_lz_bypass_size(c).c_str());
    // Only the encoder delays messages, so the decoder has no such count.
    std::printf("    Avg latency: %10.3f ms  disk latency: %10.3f ms\n",
                latency(c, RE_STAT_CONN_ID_TOT_DECODE_SPEED, RE_STAT_CONN_ID_DECODE_NUM_MSGS),
                latency(c, RE_STAT_CONN_ID_TOT_DECODE_DISK_SPEED, RE_STAT_CONN_ID_DECODE_NUM_MSGS));
    // The decoder's uncompressed side is its output; the encoder's is its input.
    std::printf(" Average message size: %s\n",
                average_size(c, RE_STAT_CONN_ID_DECODE_OUT_BYTES, RE_STAT_CONN_ID_DECODE_NUM_MSGS).c_str());
    show_msg_size_dist(c, RE_STAT_CONN_ID_DECODE_X);
}

void show_search_costs(const RE_conn_slot& c)
{
    std::printf("      num_used_block per msg for encode: %lf\n"
                "      num_read_block per msg for encode: %lf\n"
                "      encode search list length per msg: %lf\n"
                "      number of section used for encode per msg: %lf\n"
                "      number of ranges used for encode per msg: %lf\n"
                "      average matched range chunk cnt: %lf\n",
                search_cost(c, RE_STAT_CONN_ID_ENCODE_TOT_MSG_BLOCKS, RE_STAT_CONN_ID_RE_ENCODE_NUM_MSGS),
                search_cost(c, RE_STAT_CONN_ID_ENCODE_TOT_READ_BLOCKS, RE_STAT_CONN_ID_RE_ENCODE_NUM_MSGS),
                search_cost(c, RE_STAT_CONN_ID_ENCODE_TOT_SEARCH_BLOCKS, RE_STAT_CONN_ID_RE_ENCODE_NUM_MSGS),
                search_cost(c, RE_STAT_CONN_ID_ENCODE_TOT_NUM_SECTIONS, RE_STAT_CONN_ID_RE_ENCODE_NUM_MSGS),
                search_cost(c, RE_STAT_CONN_ID_ENCODE_TOT_RANGE_CNT, RE_STAT_CONN_ID_RE_ENCODE_NUM_MSGS),
                search_cost(c, RE_STAT_CONN_ID_ENCODE_TOT_RANGE_CHUNK_CNT, RE_STAT_CONN_ID_ENCODE_TOT_RANGE_CNT));
}

struct bypass_cause
{
    const char* cause_str;
    int num_id;
    int byte_id;
    bool b_msg;
};

// In the order of the report, which differs from the order of the identifiers.
constexpr bypass_cause encode_bypass_causes[] = {
    {"low memory", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_LOWMEM, RE_STAT_CONN_ID_ENCODE_BYPASS_LOWMEM_BYTES, true},
    {"out of sync cache", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_OUT_OF_SYNC,
     RE_STAT_CONN_ID_ENCODE_BYPASS_OUT_OF_SYNC_BYTES, true},
    {"cache initialization", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_CACHE_NOT_READY,
     RE_STAT_CONN_ID_ENCODE_BYPASS_CACHE_NOT_READY_BYTES, true},
    {"remote cache initialization", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_CACHE_NOT_READY,
     RE_STAT_CONN_ID_ENCODE_BYPASS_REM_CACHE_NOT_READY_BYTES, true},
    {"peer info stored locally is incorrect", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_INFO_INCORRECT,
     RE_STAT_CONN_ID_ENCODE_BYPASS_REM_INFO_INCORRECT_BYTES, true},
    {"remote cache not compatible", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_CACHE_NOT_COMPATIBLE,
     RE_STAT_CONN_ID_ENCODE_BYPASS_CACHE_NOT_COMPATIBLE_BYTES, true},
    {"exceed ack-Q cap", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_ACKQ_CAP_EXCEED,
     RE_STAT_CONN_ID_ENCODE_BYPASS_ACKQ_CAP_EXCEED_BYTES, true},
    {"remote wait-Q due to nack", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REMOTE_WAITQ,
     RE_STAT_CONN_ID_ENCODE_BYPASS_REMOTE_WAITQ_BYTES, true},
    {"local disk overload", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_DISK_OVERLD,
     RE_STAT_CONN_ID_ENCODE_BYPASS_DISK_OVERLD_BYTES, true},
    {"remote disk overload", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_DISK_OVERLD,
     RE_STAT_CONN_ID_ENCODE_BYPASS_REM_DISK_OVERLD_BYTES, true},
    {"local disk IO error", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_DISK_IO_ERR,
     RE_STAT_CONN_ID_ENCODE_BYPASS_DISK_IO_ERR_BYTES, true},
    {"remote disk IO error", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_DISK_IO_ERR,
     RE_STAT_CONN_ID_ENCODE_BYPASS_REM_DISK_IO_ERR_BYTES, true},
    {"non KAV compression type", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_NON_KAV_COMP_TYPE,
     RE_STAT_CONN_ID_ENCODE_BYPASS_NON_KAV_COMP_TYPE_BYTES, true},
    {"last partial chunk", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_CHUNK, RE_STAT_CONN_ID_ENCODE_BYPASS_CHUNK_BYTES, false},
    {"skipped frame header", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_SKIP, RE_STAT_CONN_ID_ENCODE_BYPASS_SKIP_BYTES, true},
    {"KAV low compression auto bypass", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_LOW_COMP,
     RE_STAT_CONN_ID_ENCODE_BYPASS_LOW_COMP_BYTES, true},
};

void show_encode_bypass_causes(const RE_conn_slot& c)
{
    // Partial chunks are not part of the total, so they are tested separately.
    if (c.get(RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_BYTES) > 0 || c.get(RE_STAT_CONN_ID_ENCODE_BYPASS_CHUNK_BYTES) > 0) {
        std::puts("  Encode bypass due to:");
        for (const bypass_cause& cause : encode_bypass_causes) {
            print_bypass_cause(c, cause.cause_str, cause.num_id, cause.byte_id, cause.b_msg);
        }
    }
}

void print_if_any(const RE_conn_slot& c, const char* what, int id)
{
    if (c.get(id) > 0) {
        std::printf(" %s %lld", what, c.get(id));
    }
}

void show_nacks_and_retransmissions(const RE_conn_slot& c)
{
    std::printf("  Nacks: total %lld", c.get(RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS));
    print_if_any(c, "collision", RE_STAT_CONN_ID_NUM_COL_NACK_MSGS);
    print_if_any(c, "chunk-miss", RE_STAT_CONN_ID_NUM_MISS_NACK_MSGS);
    print_if_any(c, "cache-not-ready", RE_STAT_CONN_ID_NUM_CACHE_NOT_READY_NACK_MSGS);
    std::printf("\n");

    std::printf("  R-tx: total %lld", c.get(RE_STAT_CONN_ID_NUM_TOTAL_RTX_MSGS));
    print_if_any(c, "collision", RE_STAT_CONN_ID_NUM_COL_RTX_MSGS);
    print_if_any(c, "chunk-miss", RE_STAT_CONN_ID_NUM_MISS_RTX_MSGS);
    print_if_any(c, "cache-not-ready", RE_STAT_CONN_ID_NUM_CACHE_NOT_READY_RTX_MSGS);
    std::printf("\n");
}

void show_invalid_sections(const RE_conn_slot& c)
{
    if (c.get(RE_STAT_CONN_ID_NUM_INVALID_SECTIONS) > 0) {
        const long long all = c.get(RE_STAT_CONN_ID_NUM_INVALID_SECTIONS);
        // If any section was converted, the conversion is shown as the cause of all. The number of converted sections
        // is never shown, on purpose.
        const long long converted =
            c.get(RE_STAT_CONN_ID_NUM_CONVERT_INVALID_SECTIONS) > 0 ? c.get(RE_STAT_CONN_ID_NUM_INVALID_SECTIONS) : 0;
        // The blank before the line break is part of the format.
        std::printf("  Invalidated %lld sections (%lld due to converted cache) \n", all, converted);
    }
}

void show_lz_latencies(const RE_conn_slot& c)
{
    std::printf("  Encode LZ latency: %6.3f ms per msg, zlib latency: %6.3f ms, average message size: %s\n",
                latency(c, RE_STAT_CONN_ID_TOT_ENCODE_LZ_SPEED, RE_STAT_CONN_ID_LZ_ENCODE_NUM_MSGS),
                latency(c, RE_STAT_CONN_ID_TOT_ENCODE_ZLIB_SPEED, RE_STAT_CONN_ID_LZ_ENCODE_NUM_MSGS),
                average_size(c, RE_STAT_CONN_ID_LZ_ENCODE_IN_BYTES, RE_STAT_CONN_ID_LZ_ENCODE_NUM_MSGS).c_str());
    std::printf("  Decode LZ latency: %6.3f ms per msg, zlib latency: %6.3f ms, average message size: %s\n",
                latency(c, RE_STAT_CONN_ID_TOT_DECODE_LZ_SPEED, RE_STAT_CONN_ID_LZ_DECODE_NUM_MSGS),
                latency(c, RE_STAT_CONN_ID_TOT_DECODE_ZLIB_SPEED, RE_STAT_CONN_ID_LZ_DECODE_NUM_MSGS),
                average_size(c, RE_STAT_CONN_ID_LZ_DECODE_OUT_BYTES, RE_STAT_CONN_ID_LZ_DECODE_NUM_MSGS).c_str());
}

void show_cache_writes(const RE_conn_slot& c)
{
    std::puts("\n  Cache write detail:");
    // The line on data units shows the SECBLOCK counters.
    std::printf("  Section written:\n"
                "  Sigblock: cnt: %lld, size: %s, new size: %s\n"
                "  Dataunit: cnt: %lld, size: %s, new size: %s\n",
                c.get(RE_STAT_CONN_ID_SIGBLOCK_SECTION_WRITTEN_CNT),
                size_of(c, RE_STAT_CONN_ID_SIGBLOCK_SECTION_WRITTEN_BYTES).c_str(),
                size_of(c, RE_STAT_CONN_ID_SIGBLOCK_SECTION_WRITTEN_NEW_CHUNK_BYTES).c_str(),
                c.get(RE_STAT_CONN_ID_SECBLOCK_SECTION_WRITTEN_CNT),
                size_of(c, RE_STAT_CONN_ID_SECBLOCK_SECTION_WRITTEN_BYTES).c_str(),
                size_of(c, RE_STAT_CONN_ID_SECBLOCK_SECTION_WRITTEN_NEW_CHUNK_BYTES).c_str());
    std::printf("  Disk size saving due to data single instance: %s\n",
                size_of(c, RE_STAT_CONN_ID_DATA_SINGLE_INSTANCE_SAVING_SIZE).c_str());
    std::printf("  Disk size saving due to unidirectional mode: %s\n",
                size_of(c, RE_STAT_CONN_ID_UNIDIRECITIONAL_SAVING_SIZE).c_str());
    std::printf("  Disk size saving due to data unit deduplication: %s\n",
                size_of(c, RE_STAT_CONN_ID_DATA_DEDUPLICATION_SAVING_SIZE).c_str());
}

// Aggregation has only one level, but the report shows its number.
constexpr int only_level = 0;

void show_aggregation(const RE_conn_slot& c)
{
    std::puts("\n  Aggregation encode:");
    std::printf("      level %d: chunks: %8lld  hits: %8lld miss: %8lld\n", only_level,
                c.get(RE_STAT_CONN_ID_AGG_CHNK_SND_L0), c.get(RE_STAT_CONN_ID_AGG_HITS_SND_L0),
                c.get(RE_STAT_CONN_ID_AGG_MISS_SND_L0));
    std::puts("  Aggregation decode:");
    std::printf("      level %d: chunks: %8lld  hits: %8lld miss: %8lld\n", only_level,
                c.get(RE_STAT_CONN_ID_AGG_CHNK_RCV_L0), c.get(RE_STAT_CONN_ID_AGG_HITS_RCV_L0),
                c.get(RE_STAT_CONN_ID_AGG_MISS_RCV_L0));
    std::printf("  Aggregation stack memory usage: Sender: %s  Receiver: %s\n",
                size_of(c, RE_STAT_CONN_ID_AGG_STACK_SND).c_str(), size_of(c, RE_STAT_CONN_ID_AGG_STACK_RCV).c_str());
    std::printf("  Noise filter: Chunks: %lld, Bytes: %s\n", c.get(RE_STAT_CONN_ID_AGG_NF_CHNKS),
                size_of(c, RE_STAT_CONN_ID_AGG_NF_BYTES).c_str());
}

} // namespace

void show_conn_info(const RE_conn_slot& c)
{
    show_encode_info(c);
    show_decode_info(c);
}

void print_bypass_cause(const RE_conn_slot& c, const char* cause_str, int num_id, int byte_id, bool b_msg)
{
    if (c.get(byte_id) > 0) {
        std::printf("      %s: %s: %lld,  size: %s\n", cause_str, b_msg ? "messages" : "chunks", c.get(num_id),
                    size_of(c, byte_id).c_str());
    }
}

void show_conn_detail(const RE_conn_slot& c)
{
    std::puts("\nConnection details:");
    std::printf("  Chunks: encoded %lld,  decoded %lld,  anchor(forced) %lld(%lld)\n",
                c.get(RE_STAT_CONN_ID_ENCODE_NUM_CHUNKS), c.get(RE_STAT_CONN_ID_DECODE_NUM_CHUNKS),
                c.get(RE_STAT_CONN_ID_NUM_ANCHOR_CHUNK_COUNT), c.get(RE_STAT_CONN_ID_NUM_FORCED_ANCHOR_CHUNK_COUNT));
    // Scripts rely on the spelling "messges".
    std::printf("  Total number of processed messges: %lld\n",
                wrapping_sum(c.get(RE_STAT_CONN_ID_ENCODE_NUM_MSGS), c.get(RE_STAT_CONN_ID_DECODE_NUM_MSGS)));
    show_search_costs(c);
    std::printf("  Ack: msg %lld,  size %s\n", c.get(RE_STAT_CONN_ID_NUM_ACK_MSGS),
                size_of(c, RE_STAT_CONN_ID_ACK_BYTES).c_str());
    show_encode_bypass_causes(c);
    show_nacks_and_retransmissions(c);
    show_invalid_sections(c);
    show_lz_latencies(c);
    show_cache_writes(c);
    show_aggregation(c);
}
