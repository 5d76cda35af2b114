#include "RE_global_view.h"

#include "RE_conn_blocks.h"
#include "RE_value_format.h"
#include "RE_viewer_reader.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <initializer_list>
#include <iterator>
#include <string>

namespace {

// Indexed by RE_CACHE_INIT_STATE.
constexpr const char* g_s_cache_state[] = {"Not Usable", "Initializing", "Usable", "Temporarily Failed", "Failed"};
static_assert(std::size(g_s_cache_state) == RE_CACHE_FAILED + 1);

const char* cache_state_str(int state)
{
    const bool b_known = state >= RE_CACHE_INACTIVE && state <= RE_CACHE_FAILED;
    return b_known ? g_s_cache_state[state] : "Unknown";
}

// Formats a global counter of bytes.
std::string size_of(int id)
{
    return get_data_size_str(GLOB(id));
}

double percent_used(long long part, long long whole)
{
    return whole > 0 ? static_cast<double>(part) * 100.0 / static_cast<double>(whole) : 0.0;
}

long long kilobytes_to_bytes(long long kilobytes)
{
    return static_cast<long long>(static_cast<unsigned long long>(kilobytes) << 10U);
}

void show_read_latencies()
{
    std::printf("  Total read speed (disk + kernel-cache): %6lld ms in %lld reads\n"
                "  Disk read speed                       : %6lld ms in %lld reads\n",
                GLOB(RE_STAT_GLOBAL_ID_AVG_READ_LATENCY) / 1000, GLOB(RE_STAT_GLOBAL_ID_NUM_READ),
                GLOB(RE_STAT_GLOBAL_ID_AVG_DISK_READ_LATENCY) / 1000, GLOB(RE_STAT_GLOBAL_ID_NUM_DISK_READ));
}

void show_index_table()
{
    std::printf("  Index table full events:  %lld\n", GLOB(RE_STAT_GLOBAL_ID_NUM_HASH_TABLE_FULL));
    std::printf("  Index table sig events:  %lld\n", GLOB(RE_STAT_GLOBAL_ID_NUM_HASH_TABLE_SECTION_SIG_COLLISION));
    std::printf("  Index table type 2 events:  %lld\n", GLOB(RE_STAT_GLOBAL_ID_HASH_TABLE_SELF_CLEAN_CNT));
    std::printf("  Index table type 3 events:  %lld\n", GLOB(RE_STAT_GLOBAL_ID_HASH_TABLE_FULL_CLEAN_CNT));
    std::printf("  Sigblock: Total %lld chunks stored in %lld sections\n",
                GLOB(RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_CHUNK_CNT), GLOB(RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_SECTION_CNT));
    std::printf("  Secblock: Total %lld chunks stored in %lld sections\n",
                GLOB(RE_STAT_GLOBAL_ID_CACHE_SECBLOCK_CHUNK_CNT), GLOB(RE_STAT_GLOBAL_ID_CACHE_SECBLOCK_SECTION_CNT));
    // The blank before the line break is part of the format.
    std::printf("  Total anchor seen: %lld, total matches seen: %lld, matched more than once: %lld \n",
                GLOB(RE_STAT_GLOBAL_ID_TOT_ANCHOR), GLOB(RE_STAT_GLOBAL_ID_TOT_MATCHED_ANCHOR_COUNT),
                GLOB(RE_STAT_GLOBAL_ID_TOT_MATCHED_MORE_THAN_ONCE_COUNT));
}

void show_cache_internals()
{
    std::puts("\nCache details:");
    if (low32(GLOB(RE_STAT_GLOBAL_ID_CACHE_CREATION_TIME)) != 0) {
        std::printf("  Cache created at: %s\n", get_time_str(low32(GLOB(RE_STAT_GLOBAL_ID_CACHE_CREATION_TIME))));
    }
    std::printf("  Evicted cache in loading cache: %s\n",
                get_data_size_str(kilobytes_to_bytes(GLOB(RE_STAT_GLOBAL_ID_DATA_FIFO_IN_LOAD_CACHE))).c_str());
    std::printf("  Sigblock replaced(last hour): size %6lld MB, sections %lld\n",
                GLOB(RE_STAT_GLOBAL_ID_NUM_SIGBLOCK_FIFO_IN_LAST_HOUR),
                GLOB(RE_STAT_GLOBAL_ID_NUM_SIGBLOCK_FIFO_SECTION_IN_LAST_HOUR));
    std::printf("  Data units replaced(last hour): size %6lld MB, sections %lld\n",
                GLOB(RE_STAT_GLOBAL_ID_NUM_DATAUNIT_FIFO_IN_LAST_HOUR),
                GLOB(RE_STAT_GLOBAL_ID_NUM_DATAUNIT_FIFO_SECTION_IN_LAST_HOUR));
    std::printf("  Cache write padding events:\n"
                "  Sigblock: cnt %lld, size %s\n"
                "  Dataunit: secblock cnt %lld, size %s, segment cnt %lld, size %s\n",
                GLOB(RE_STAT_GLOBAL_ID_SIGBLOCK_PADDING_CNT), size_of(RE_STAT_GLOBAL_ID_SIGBLOCK_PADDING_SIZE).c_str(),
                GLOB(RE_STAT_GLOBAL_ID_SECBLOCK_PADDING_CNT), size_of(RE_STAT_GLOBAL_ID_SECBLOCK_PADDING_SIZE).c_str(),
                GLOB(RE_STAT_GLOBAL_ID_SEGMENT_PADDING_CNT), size_of(RE_STAT_GLOBAL_ID_SEGMENT_PADDING_SIZE).c_str());
    std::printf("  NG clock head %lld, NG clock tail %lld\n", GLOB(RE_STAT_GLOBAL_ID_FIFO_HEAD_CLOCK),
                GLOB(RE_STAT_GLOBAL_ID_FIFO_TAIL_CLOCK));
    show_read_latencies();
    show_index_table();
}

void show_queues_and_memory()
{
    // Operators know the queue's drop counter as its optimized size.
    std::printf("\nAck Queue: %s  Used Disk: %s      Wait Queue: %s\n"
                "Ack Queue: Total disk write: %s   Optimized size: %s\n"
                "Ack Queue: Object buffer size: %s Numbers: %lld\n",
                size_of(RE_STAT_GLOBAL_ID_ACK_Q_SIZE).c_str(), size_of(RE_STAT_GLOBAL_ID_ACK_Q_USED_DISK_SIZE).c_str(),
                size_of(RE_STAT_GLOBAL_ID_WAIT_Q_SIZE).c_str(),
                size_of(RE_STAT_GLOBAL_ID_ACK_Q_TOT_DISK_WRITE_SIZE).c_str(),
                size_of(RE_STAT_GLOBAL_ID_ACK_Q_DROP_SIZE).c_str(), size_of(RE_STAT_GLOBAL_ID_ACK_Q_OBJ_SIZE).c_str(),
                GLOB(RE_STAT_GLOBAL_ID_ACK_Q_OBJ_NUM));
    std::printf("Lowmem Errors:  Open: %8lld,    Decode: %8lld,    Malloc: %8lld\n"
                "                PLZ-off : %8lld,    MinRes: %8lld\n",
                GLOB(RE_STAT_GLOBAL_ID_LOWMEM_OPEN_ERROR), GLOB(RE_STAT_GLOBAL_ID_LOWMEM_DECODE_ERROR),
                GLOB(RE_STAT_GLOBAL_ID_LOWMEM_MALLOC_ERROR), GLOB(RE_STAT_GLOBAL_ID_LOWMEM_PLZ_OFF),
                GLOB(RE_STAT_GLOBAL_ID_LOWMEM_LOWEST_RESERVE));
    std::printf("\nChunk aggregation node memory consumption: %s\n", size_of(RE_STAT_GLOBAL_ID_AGG_NODE_BYTES).c_str());
}

void show_persistent_lz()
{
    std::puts("\nPersistent LZ:");
    std::printf("Twin pool stats: big-used=%8lld, big-free=%8lld, small-used=%8lld, small-free=%8lld, "
                "defragment=%lld\n",
                GLOB(RE_STAT_GLOBAL_ID_TWIN_POOL_BIG_USED), GLOB(RE_STAT_GLOBAL_ID_TWIN_POOL_BIG_FREE),
                GLOB(RE_STAT_GLOBAL_ID_TWIN_POOL_SMALL_USED), GLOB(RE_STAT_GLOBAL_ID_TWIN_POOL_SMALL_FREE),
                GLOB(RE_STAT_GLOBAL_ID_TWIN_POOL_DEFRAGMENT_CNT));
    std::puts("Encode:");
    std::printf("  PLZ-ON  connections: num=%8lld, avg-msg-size=%s\n"
                "  PLZ-OFF connections: num=%8lld\n",
                GLOB(RE_STAT_GLOBAL_ID_PLZ_ENCODE_ON_CONN_COUNT),
                size_of(RE_STAT_GLOBAL_ID_PLZ_ENCODE_ON_AVG_MSG_SIZE).c_str(),
                GLOB(RE_STAT_GLOBAL_ID_PLZ_ENCODE_OFF_CONN_COUNT));
    std::printf("Decode:\n"
                "  Total disk read: %8lld, disk write: %8lld\n",
                GLOB(RE_STAT_GLOBAL_ID_PLZ_DECODE_READ_DISK_NUM), GLOB(RE_STAT_GLOBAL_ID_PLZ_DECODE_WRITE_DISK_NUM));
    std::printf("  PLZ-ON  connections: num=%8lld, num-in-disk=%lld\n"
                "  PLZ-OFF connections: num=%8lld\n",
                GLOB(RE_STAT_GLOBAL_ID_PLZ_DECODE_ON_CONN_COUNT), GLOB(RE_STAT_GLOBAL_ID_PLZ_DECODE_NODE_IN_DISK_NUM),
                GLOB(RE_STAT_GLOBAL_ID_PLZ_DECODE_OFF_CONN_COUNT));
}

void show_top_app_updates()
{
    const long long succeed = GLOB(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_SUCCESS_COUNT);
    const long long fail = GLOB(RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_FAILURE_COUNT);
    const long long total = wrapping_sum(succeed, fail);
    // The guards differ on purpose: if corrupt counts add up to 0, the share of failures is infinite and not 0.
    const float fail_percent = fail != 0 ? percentage(fail, total) : 0.0F;
    const float succeed_percent = total != 0 ? percentage(succeed, total) : 0.0F;
    std::printf("\nTop Application:\n"
                "  Update: Succeed %8lld (%4.2f%%), Fail %8lld (%4.2f%%)\n",
                succeed, static_cast<double>(succeed_percent), fail, static_cast<double>(fail_percent));
}

} // namespace

void show_global(bool detail)
{
    show_global_info();
    if (detail) {
        show_global_detail();
    }
    if (GLOB(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS) == 0) {
        return;
    }
    const int active = p_statReader->read_global_active_conn_count();
    std::printf("\nConnections:   Total (cumulative): %lld   Active: %d\n\n", GLOB(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS),
                active);
    const RE_global_conn_slot slot;
    show_conn_info(slot);
    if (detail) {
        show_conn_detail(slot);
    }
}

void show_global_info()
{
    std::puts("\nCache:");
    const int state = low32(GLOB(RE_STAT_GLOBAL_ID_CACHE_STATE));
    if (state == RE_CACHE_INIT_IN_PROGRESS) {
        // The figures of a cache that is still being loaded have no meaning yet.
        std::printf("    Status: %s\n", cache_state_str(state));
        return;
    }
    const long long sigblock_age = GLOB(RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_AGE);
    const long long dataunit_age = GLOB(RE_STAT_GLOBAL_ID_CACHE_DATAUNIT_AGE);
    std::printf("    Status: %s\n", cache_state_str(state));

    const long long sigblock_disk = GLOB(RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_DISK_USAGE);
    const long long dataunit_disk = GLOB(RE_STAT_GLOBAL_ID_TOT_DATAUINT_DISK_USAGE);
    const long long max_entries = GLOB(RE_STAT_GLOBAL_ID_MAX_HASH_TABLE_ENTRY);
    const long long sigblock_entries = GLOB(RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_HT_USAGE);
    const long long secblock_entries = GLOB(RE_STAT_GLOBAL_ID_TOT_SECBLOCK_HT_USAGE);

    // The total is read for the guard, for the division and for the column. It may change in between, so the division
    // has its own guard.
    double disk_used = 0.0;
    if (GLOB(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE) > 0) {
        disk_used = percent_used(wrapping_sum(sigblock_disk, dataunit_disk), GLOB(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE));
    }
    std::printf("    Total usable disk size: %6lld MB,  Used: %.2f%%\n", GLOB(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE),
                disk_used);
    // A percentage of the table's entries, not of the megabytes on the same line.
    std::printf("      Hash table RAM  size: %6lld MB,  Used: %.2f%%\n", GLOB(RE_STAT_GLOBAL_ID_TOTAL_CACHE_RAM_SIZE),
                percent_used(wrapping_sum(secblock_entries, sigblock_entries), max_entries));
    // The indents of these two lines differ by one blank on purpose, so that their colons line up.
    std::printf("    Sigblock usage:  disk: %6lld MB, memory: %.2f%% age: %s\n", sigblock_disk,
                percent_used(sigblock_entries, max_entries), get_age_str(sigblock_age));
    std::printf("   Data unit usage:  disk: %6lld MB, memory: %.2f%% age: %s\n", dataunit_disk,
                percent_used(secblock_entries, max_entries), get_age_str(dataunit_age));
}

void show_global_detail()
{
    show_cache_internals();
    show_queues_and_memory();
    show_persistent_lz();
    show_top_app_updates();
}

long long show_malloc_stat_for_module(const char* module_name, int first_alloc_stat_id, int first_oper_id,
                                      int first_size_dist_id)
{
    const long long pre_allocated = GLOB(first_alloc_stat_id);
    const long long global = GLOB(first_alloc_stat_id + 1);
    const long long per_context = GLOB(first_alloc_stat_id + 2);
    const long long per_connection = GLOB(first_alloc_stat_id + 3);
    const long long per_message = GLOB(first_alloc_stat_id + 4);
    long long sub_total = 0;
    for (const long long part : {pre_allocated, global, per_context, per_connection, per_message}) {
        sub_total = wrapping_sum(sub_total, part);
    }
    const long long by_stl = GLOB(first_oper_id + 2);
    const long long by_new = GLOB(first_oper_id + 1);
    const long long by_malloc = GLOB(first_oper_id);
    std::printf("  %s memory allocation: %lld\n"
                "      per-context: %10lld, per-connection: %10lld,   per-message: %10lld\n"
                "    pre-allocated: %10lld,         global: %10lld\n"
                "           malloc: %10lld,            new: %10lld, STL container: %10lld\n",
                module_name, sub_total, per_context, per_connection, per_message, pre_allocated, global, by_malloc,
                by_new, by_stl);

    constexpr int bucket_count = 8;
    long long total_count = 0;
    for (int k = 0; k < bucket_count; ++k) {
        total_count = wrapping_sum(total_count, GLOB(first_size_dist_id + k));
    }
    std::array<int, bucket_count> percent{};
    if (total_count != 0) {
        for (int k = bucket_count - 1; k >= 0; --k) {
            percent[static_cast<std::size_t>(k)] = percent_of_total(GLOB(first_size_dist_id + k), total_count);
        }
    }
    std::printf("    allocated buffer size distribution:\n"
                "      0-1K=%d%% 1K-2K=%d%% 2K-4K=%d%% 4K-8K=%d%% 8K-16K=%d%% 16K-32K=%d%% 32K-64K=%d%% >64K=%d%%\n",
                percent[0], percent[1], percent[2], percent[3], percent[4], percent[5], percent[6], percent[7]);
    return sub_total;
}
