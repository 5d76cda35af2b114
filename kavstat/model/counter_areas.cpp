#include "model/counter_areas.h"

#include "RE_statistics.h"

#include <algorithm>

namespace kavstat {

namespace {

struct Area
{
    CounterScope scope;
    int first_id; // up to that of the next area
    const char* name;
};

constexpr Area areas[] = {
    {CounterScope::engine, RE_STAT_GLOBAL_ID_CACHE_STATE, "cache"},
    {CounterScope::engine, RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, "connections"},
    {CounterScope::engine, RE_STAT_GLOBAL_ID_ACK_Q_SIZE, "queues"},
    {CounterScope::engine, RE_STAT_GLOBAL_ID_NUM_SIGBLOCK_FIFO_IN_LAST_HOUR, "replacement"},
    {CounterScope::engine, RE_STAT_GLOBAL_ID_AVG_DISK_READ_LATENCY, "cache reads"},
    {CounterScope::engine, RE_STAT_GLOBAL_ID_TWIN_POOL_BIG_USED, "persistent lz"},
    {CounterScope::engine, RE_STAT_GLOBAL_ID_AGG_NODE_BYTES, "memory"},
    {CounterScope::engine, RE_STAT_GLOBAL_ID_NUM_CONNECTED_PEER, "peers"},
    {CounterScope::engine, RE_STAT_GLOBAL_ID_TOT_ANCHOR, "matching"},
    {CounterScope::engine, SO_STAT_JOB_NUM_F_IO, "transport"},

    {CounterScope::peer, RE_STAT_PEER_ID_SIGBLOCK_DISK_SPACE, "cache"},
    {CounterScope::peer, RE_STAT_PEER_ID_NUM_TOTAL_CONNS, "connections"},
    {CounterScope::peer, RE_STAT_PEER_ID_ACK_Q_MAX_RTT, "queues"},
    {CounterScope::peer, RE_STAT_PEER_ID_PRE_NG_HEAD_SYNC_CLK, "sync"},
    {CounterScope::peer, RE_STAT_PEER_ID_TOT_KAV_DECODE_THRPUT, "throughput"},
    {CounterScope::peer, RE_STAT_PEER_ID_MAJOR_VERSION, "version"},
    {CounterScope::peer, RE_STAT_PEER_ID_DELAY_BUF_SIZE, "buffers"},

    {CounterScope::connection, RE_STAT_CONN_ID_ENCODE_IN_BYTES, "volumes"},
    {CounterScope::connection, RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_BYTES, "bypass"},
    {CounterScope::connection, RE_STAT_CONN_ID_TOT_ENCODE_SPEED, "time"},
    {CounterScope::connection, RE_STAT_CONN_ID_SIGBLOCK_SECTION_WRITTEN_CNT, "cache"},
    {CounterScope::connection, RE_STAT_CONN_ID_AGG_NF_CHNKS, "aggregation"},
    {CounterScope::connection, SO_STAT_AO_RD_BYTES, "transport"},
    {CounterScope::connection, RE_STAT_CONN_ID_ENCODE_NUM_MSGS, "messages"},
    {CounterScope::connection, RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_NUM, "bypass"},
    {CounterScope::connection, RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS, "nacks"},
    {CounterScope::connection, RE_STAT_CONN_ID_ENCODE_X, "messages"},
    {CounterScope::connection, RE_STAT_CONN_ID_AGG_STACK_SND, "aggregation"},
    {CounterScope::connection, RE_STAT_CONN_ID_ENCODE_TOT_MSG_BLOCKS, "matching"},
    {CounterScope::connection, SO_STAT_AO_RD_NUM, "transport"},

    {CounterScope::application, RE_STAT_APP_ID_ENCODE_IN_KBYTES, "volumes"},
    {CounterScope::application, RE_STAT_APP_ID_ENCODE_NUM_MSGS, "messages"},
};

struct IdRange
{
    CounterScope scope;
    int first;
    int last;
};

constexpr IdRange error_ids[] = {
    {CounterScope::engine, RE_STAT_GLOBAL_ID_NUM_HASH_TABLE_FULL, RE_STAT_GLOBAL_ID_NUM_HASH_TABLE_FULL},
    {CounterScope::engine, RE_STAT_GLOBAL_ID_LOWMEM_OPEN_ERROR, RE_STAT_GLOBAL_ID_LOWMEM_PLZ_OFF},
    {CounterScope::engine, RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_FAILURE_COUNT,
     RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_FAILURE_COUNT},
    {CounterScope::engine, SO_STAT_ACK_Q_TOT_STOP, SO_STAT_ACK_Q_TOT_STOP},
    {CounterScope::engine, SO_STAT_RESET_CONN_NUM, SO_STAT_RESET_CONN_NUM},
    {CounterScope::engine, SO_STAT_RC_NONE + 1, SO_STAT_HWFQ_BYTES_DSCP_BASE - 1}, // all causes but none
    {CounterScope::peer, RE_STAT_PEER_ID_NUM_CTX_OUT_OF_SYNC, RE_STAT_PEER_ID_NUM_CTX_OUT_OF_SYNC},
    {CounterScope::peer, RE_STAT_PEER_ID_NUM_NACKS, RE_STAT_PEER_ID_NUM_RTXS},
    {CounterScope::connection, RE_STAT_CONN_ID_ENCODE_BYPASS_LOWMEM_BYTES,
     RE_STAT_CONN_ID_ENCODE_BYPASS_REM_INFO_INCORRECT_BYTES},
    {CounterScope::connection, RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_LOWMEM,
     RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_INFO_INCORRECT},
    {CounterScope::connection, RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS, RE_STAT_CONN_ID_NUM_INVALID_SECTIONS},
};

} // namespace

const char* area_of(CounterScope scope, int id)
{
    const char* name = "";
    for (const Area& one : areas) {
        if (one.scope == scope && one.first_id <= id) {
            name = one.name;
        }
    }
    return name;
}

bool counts_errors(CounterScope scope, int id)
{
    return std::any_of(std::begin(error_ids), std::end(error_ids), [&](const IdRange& range) {
        return range.scope == scope && range.first <= id && id <= range.last;
    });
}

} // namespace kavstat
