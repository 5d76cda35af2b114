#include "health_edges.h"

#include "RE_bypass_table.h"

using namespace kavstat;

two_moments::two_moments()
{
    before.engine_start_time = now.engine_start_time = start;
    before.capture_time = start + day;
    now.capture_time = before.capture_time + 10;
    before.peers.resize(1);
    now.peers.resize(1);
    for (Snapshot* const snapshot : {&before, &now}) {
        snapshot->peers[0].slot = 2;
        snapshot->peers[0].number = 3;
        snapshot->peers[0].active_connections = 5;
        snapshot->peers[0].header.m_b_update_from_active_conn = 1;
        std::strcpy(snapshot->peers[0].header.m_peer_host_name, "branch-3");
        snapshot->active_connections = 5;
        SnapshotApp app;
        app.slot = 1;
        app.peer_number = 3;
        app.app.m_header.m_server_port = 443;
        snapshot->apps.push_back(app);
    }
    engine(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE);
    engine(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE, 1000);
    engine(RE_STAT_GLOBAL_ID_USED_CACHE_SIZE, 500);
    engine(RE_STAT_GLOBAL_ID_MAX_HASH_TABLE_ENTRY, 1000);
    engine(RE_STAT_GLOBAL_ID_LOWMEM_LOWEST_RESERVE, 500);
    connections(RE_STAT_CONN_ID_ENCODE_NUM_MSGS, 50000, 60000);
    connections(RE_STAT_CONN_ID_DECODE_NUM_MSGS, 50000, 60000);
    connections(RE_STAT_CONN_ID_ENCODE_IN_BYTES, 100000000, 110000000);
    connections(RE_STAT_CONN_ID_ENCODE_OUT_BYTES, 40000000, 44000000);
    connections(RE_STAT_CONN_ID_DECODE_IN_BYTES, 40000000, 44000000);
    connections(RE_STAT_CONN_ID_DECODE_OUT_BYTES, 100000000, 110000000);
    connections(SO_STAT_RECV_ACK_FRAME_NUM, 50000, 60000);
    engine(RE_STAT_GLOBAL_ID_NUM_READ, 100, 200);
    engine(RE_STAT_GLOBAL_ID_NUM_DISK_READ, 100, 200);
}

namespace {

edge grows(const char* rule, RE_stat_global_id id)
{
    return {rule, [id](two_moments& m) { m.engine(id, 7); }, [id](two_moments& m) { m.engine(id, 7, 8); }};
}

edge average(const char* rule, RE_stat_global_id id, long long microseconds)
{
    return {rule, [=](two_moments& m) { m.engine(id, microseconds); },
            [=](two_moments& m) { m.engine(id, microseconds + 1); }};
}

// 10,000 messages were encoded.
edge bypass(const char* rule, RE_stat_conn_id id)
{
    return {rule, [id](two_moments& m) { m.connections(id, 1000, 1500); },
            [id](two_moments& m) { m.connections(id, 1000, 1501); }};
}

edge bypass_error(const char* rule, RE_stat_conn_id id)
{
    return {rule, [id](two_moments& m) { m.connections(id, 1000, 1000); },
            [id](two_moments& m) { m.connections(id, 1000, 1001); }};
}

void cache_full_since(two_moments& moments, RE_stat_global_id id, std::time_t seconds)
{
    moments.engine(RE_STAT_GLOBAL_ID_USED_CACHE_SIZE, 950);
    moments.engine(id, moments.before.capture_time - seconds, moments.now.capture_time - seconds);
}

} // namespace

const std::vector<edge>& edges()
{
    static const std::vector<edge> list = {
        {"engine_restarted",
         [](two_moments& m) { m.before.engine_start_time = m.now.engine_start_time = m.now.capture_time - 300; },
         [](two_moments& m) { m.before.engine_start_time = m.now.engine_start_time = m.now.capture_time - 299; }},
        {"cache_not_usable", [](two_moments& m) { m.engine(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE); },
         [](two_moments& m) { m.engine(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_INACTIVE); }},
        {"cache_failed", [](two_moments& m) { m.engine(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE); },
         [](two_moments& m) { m.engine(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_FAILED); }},
        {"cache_temporarily_failed", [](two_moments& m) { m.engine(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE); },
         [](two_moments& m) { m.engine(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_TEMP_FAILED); }},
        {"cache_initializing_long",
         [](two_moments& m) {
             m.engine(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_INIT_IN_PROGRESS);
             m.before.engine_start_time = m.now.engine_start_time = m.now.capture_time - 900;
         },
         [](two_moments& m) {
             m.engine(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_INIT_IN_PROGRESS);
             m.before.engine_start_time = m.now.engine_start_time = m.now.capture_time - 901;
         }},
        {"cache_too_small_for_encoding",
         [](two_moments& m) { cache_full_since(m, RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_AGE, 3600); },
         [](two_moments& m) { cache_full_since(m, RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_AGE, 3599); }},
        {"cache_too_small_for_decoding",
         [](two_moments& m) { cache_full_since(m, RE_STAT_GLOBAL_ID_CACHE_DATAUNIT_AGE, 3600); },
         [](two_moments& m) { cache_full_since(m, RE_STAT_GLOBAL_ID_CACHE_DATAUNIT_AGE, 3599); }},
        grows("index_table_full", RE_STAT_GLOBAL_ID_NUM_HASH_TABLE_FULL),
        {"index_table_nearly_full",
         [](two_moments& m) {
             m.engine(RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_HT_USAGE, 480);
             m.engine(RE_STAT_GLOBAL_ID_TOT_SECBLOCK_HT_USAGE, 500);
         },
         [](two_moments& m) {
             m.engine(RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_HT_USAGE, 480);
             m.engine(RE_STAT_GLOBAL_ID_TOT_SECBLOCK_HT_USAGE, 501);
         }},
        average("cache_reads_slow", RE_STAT_GLOBAL_ID_AVG_READ_LATENCY, 10000),
        average("disk_reads_slow", RE_STAT_GLOBAL_ID_AVG_DISK_READ_LATENCY, 15000),
        grows("low_memory_errors", RE_STAT_GLOBAL_ID_LOWMEM_OPEN_ERROR),
        grows("low_memory_errors", RE_STAT_GLOBAL_ID_LOWMEM_DECODE_ERROR),
        grows("low_memory_errors", RE_STAT_GLOBAL_ID_LOWMEM_MALLOC_ERROR),
        grows("plz_turned_off", RE_STAT_GLOBAL_ID_LOWMEM_PLZ_OFF),
        {"memory_reserve_low", [](two_moments& m) { m.engine(RE_STAT_GLOBAL_ID_LOWMEM_LOWEST_RESERVE, 64); },
         [](two_moments& m) { m.engine(RE_STAT_GLOBAL_ID_LOWMEM_LOWEST_RESERVE, 63); }},
        // 10 ms for each of 10,000 messages.
        {"encoding_slow", [](two_moments& m) { m.connections(RE_STAT_CONN_ID_TOT_ENCODE_SPEED, 5000, 100005000); },
         [](two_moments& m) { m.connections(RE_STAT_CONN_ID_TOT_ENCODE_SPEED, 5000, 100006000); }},
        {"decoding_slow", [](two_moments& m) { m.connections(RE_STAT_CONN_ID_TOT_DECODE_SPEED, 5000, 100005000); },
         [](two_moments& m) { m.connections(RE_STAT_CONN_ID_TOT_DECODE_SPEED, 5000, 100006000); }},
        bypass("bypass_low_memory", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_LOWMEM),
        bypass_error("bypass_disk_error", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_DISK_IO_ERR),
        bypass("bypass_disk_overloaded", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_DISK_OVERLD),
        bypass("bypass_cache_not_ready", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_CACHE_NOT_READY),
        bypass("bypass_out_of_sync", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_OUT_OF_SYNC),
        bypass("bypass_peer_not_compatible", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_CACHE_NOT_COMPATIBLE),
        bypass("bypass_ack_queue", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_ACKQ_CAP_EXCEED),
        bypass("bypass_peer_waits", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REMOTE_WAITQ),
        bypass("bypass_peer_disk_overloaded", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_DISK_OVERLD),
        bypass_error("bypass_peer_disk_error", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_DISK_IO_ERR),
        bypass("bypass_peer_cache_not_ready", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_CACHE_NOT_READY),
        bypass("bypass_peer_info_incorrect", RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_REM_INFO_INCORRECT),
        // 10 of 10,001, and 11 of 10,000.
        {"nacks_frequent",
         [](two_moments& m) {
             m.connections(RE_STAT_CONN_ID_DECODE_NUM_MSGS, 50000, 59991);
             m.peer(RE_STAT_PEER_ID_NUM_NACKS, 100, 110);
         },
         [](two_moments& m) {
             m.connections(RE_STAT_CONN_ID_DECODE_NUM_MSGS, 50000, 59989);
             m.peer(RE_STAT_PEER_ID_NUM_NACKS, 100, 111);
         }},
        {"retransmissions_frequent", [](two_moments& m) { m.peer(RE_STAT_PEER_ID_NUM_RTXS, 100, 110); },
         [](two_moments& m) { m.peer(RE_STAT_PEER_ID_NUM_RTXS, 100, 111); }},
        {"wait_queue_stays", [](two_moments& m) { m.engine(RE_STAT_GLOBAL_ID_WAIT_Q_SIZE, 0); },
         [](two_moments& m) { m.engine(RE_STAT_GLOBAL_ID_WAIT_Q_SIZE, 1); }},
        {"peers_degraded_signatures",
         [](two_moments& m) {
             m.peer(RE_STAT_PEER_ID_NUM_WRITE_SIG_BLOCK, 1);
             m.engine(RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_SIG_BLOCK, 0);
         },
         [](two_moments& m) {
             m.peer(RE_STAT_PEER_ID_NUM_WRITE_SIG_BLOCK, 1);
             m.engine(RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_SIG_BLOCK, 1);
         }},
        {"peers_degraded_data",
         [](two_moments& m) {
             m.peer(RE_STAT_PEER_ID_NUM_WRITE_DATA_UNIT, 1);
             m.engine(RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_DATA_UNIT, 0);
         },
         [](two_moments& m) {
             m.peer(RE_STAT_PEER_ID_NUM_WRITE_DATA_UNIT, 1);
             m.engine(RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_DATA_UNIT, 1);
         }},
        {"peer_degraded_signatures",
         [](two_moments& m) {
             m.engine(RE_STAT_GLOBAL_ID_NUM_PEER_WITH_WRITE_SIG_BLOCK, 1);
             m.peer(RE_STAT_PEER_ID_NUM_WRITE_SIG_BLOCK, 0);
         },
         [](two_moments& m) {
             m.engine(RE_STAT_GLOBAL_ID_NUM_PEER_WITH_WRITE_SIG_BLOCK, 1);
             m.engine(RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_SIG_BLOCK, 1);
         }},
        {"peer_degraded_data",
         [](two_moments& m) {
             m.engine(RE_STAT_GLOBAL_ID_NUM_PEER_WITH_WRITE_DATA_UNIT, 1);
             m.peer(RE_STAT_PEER_ID_NUM_WRITE_DATA_UNIT, 0);
         },
         [](two_moments& m) {
             m.engine(RE_STAT_GLOBAL_ID_NUM_PEER_WITH_WRITE_DATA_UNIT, 1);
             m.engine(RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_DATA_UNIT, 1);
         }},
        {"peer_disconnected",
         [](two_moments& m) {
             m.disconnected();
             m.nobody_connected();
         },
         [](two_moments& m) { m.disconnected(); }},
        {"peer_not_acknowledging",
         [](two_moments& m) {
             m.peer(RE_STAT_PEER_ID_ACK_Q_SIZE, 4097);
             m.connections(SO_STAT_RECV_ACK_FRAME_NUM, 500, 501);
         },
         [](two_moments& m) {
             m.peer(RE_STAT_PEER_ID_ACK_Q_SIZE, 4097);
             m.connections(SO_STAT_RECV_ACK_FRAME_NUM, 500, 500);
         }},
        {"peer_not_acknowledging",
         [](two_moments& m) {
             m.peer(RE_STAT_PEER_ID_ACK_Q_SIZE, 4096);
             m.connections(SO_STAT_RECV_ACK_FRAME_NUM, 500, 500);
         },
         [](two_moments& m) {
             m.peer(RE_STAT_PEER_ID_ACK_Q_SIZE, 4097);
             m.connections(SO_STAT_RECV_ACK_FRAME_NUM, 500, 500);
         }},
        {"bypass_low_compression",
         [](two_moments& m) { m.connections(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_LOW_COMP, 1000, 10000); },
         [](two_moments& m) { m.connections(RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_LOW_COMP, 1000, 10001); }},
        {"peer_out_of_sync", [](two_moments& m) { m.peer(RE_STAT_PEER_ID_NUM_CTX_OUT_OF_SYNC, 4, 4); },
         [](two_moments& m) { m.peer(RE_STAT_PEER_ID_NUM_CTX_OUT_OF_SYNC, 4, 5); }},
        {"peer_outdated",
         [](two_moments& m) {
             m.outdated();
             m.nobody_connected();
         },
         [](two_moments& m) { m.outdated(); }},
        {"peer_low_on_buffers", [](two_moments& m) { m.peer(RE_STAT_PEER_ID_REMOTE_BUF_LOW, 0); },
         [](two_moments& m) { m.peer(RE_STAT_PEER_ID_REMOTE_BUF_LOW, 1); }},
        {"peer_slow", [](two_moments& m) { m.peer(RE_STAT_PEER_ID_ACK_Q_AVG_RTT, 500000); },
         [](two_moments& m) { m.peer(RE_STAT_PEER_ID_ACK_Q_AVG_RTT, 500001); }},
        {"ack_queue_stops_connections", [](two_moments& m) { m.engine(SO_STAT_ACK_Q_CURR_STOP, 0); },
         [](two_moments& m) { m.engine(SO_STAT_ACK_Q_CURR_STOP, 1); }},
        // 60 % was saved before, so 15 % is a quarter of it. The hour that Prometheus compares with contains a few
        // minutes with the lower savings.
        {"savings_dropped",
         [](two_moments& m) {
             m.seconds = 60;
             m.connections(RE_STAT_CONN_ID_ENCODE_OUT_BYTES, 40000000, 48500000);
             m.connections(RE_STAT_CONN_ID_DECODE_IN_BYTES, 40000000, 48500000);
         },
         [](two_moments& m) {
             m.seconds = 60;
             m.connections(RE_STAT_CONN_ID_ENCODE_OUT_BYTES, 40000000, 48550000);
             m.connections(RE_STAT_CONN_ID_DECODE_IN_BYTES, 40000000, 48550000);
         }},
        {"bypass_servers_after_nacks", [](two_moments& m) { m.extras.bypass_servers = 1; },
         [](two_moments& m) { m.extras.bypass_servers_with_nacks = 1; }},
        {"bypass_table_nearly_full", [](two_moments& m) { m.extras.bypass_servers = RE_bypass_capacity * 9 / 10; },
         [](two_moments& m) { m.extras.bypass_servers = RE_bypass_capacity * 9 / 10 + 1; }},
        grows("application_table_full", RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_FAILURE_COUNT),
        {"application_grows",
         [](two_moments& m) {
             m.application(RE_STAT_APP_ID_ENCODE_IN_KBYTES, 10000, 20000);
             m.application(RE_STAT_APP_ID_ENCODE_OUT_KBYTES, 10000, 21000);
         },
         [](two_moments& m) {
             m.application(RE_STAT_APP_ID_ENCODE_IN_KBYTES, 10000, 20000);
             m.application(RE_STAT_APP_ID_ENCODE_OUT_KBYTES, 10000, 21001);
         }},
    };
    return list;
}
