#include "support/small_engine.h"

#include <cstring>
#include <stdexcept>

namespace {

constexpr std::uint32_t web_server = 0xc6336414;      // 198.51.100.20
constexpr std::uint32_t file_server = 0xc6336415;     // 198.51.100.21
constexpr std::uint32_t poor_server = 0xc633641e;     // 198.51.100.30
constexpr std::uint32_t excluded_server = 0xc633641f; // 198.51.100.31
constexpr std::uint32_t first_client = 0xc000020a;    // 192.0.2.10

template <typename Id>
struct figure
{
    Id id;
    long long value;
};

} // namespace

std::time_t five_days_ago()
{
    return std::time(nullptr) - 5 * day - 3 * hour - hour / 2;
}

std::time_t forty_five_days_ago()
{
    return std::time(nullptr) - 45 * day - hour;
}

RE_stat_conn_header conn_ends(int conn_id, std::uint32_t client_ip, std::uint16_t client_port, std::uint32_t server_ip,
                              std::uint16_t server_port)
{
    RE_stat_conn_header header{};
    header.m_conn_id = conn_id;
    header.m_client_ip = client_ip;
    header.m_client_port = client_port;
    header.m_server_ip = server_ip;
    header.m_server_port = server_port;
    return header;
}

SO_stat_conn_header transport(unsigned int comp_type)
{
    SO_stat_conn_header header{};
    header.m_comp_type = static_cast<std::uint8_t>(comp_type & 0xfU);
    return header;
}

RE_kav_peer_id peer_identity(int number)
{
    static constexpr RE_kav_peer_id_t first{
        {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x0a, 0x0b, 0x0c, 0x0d}};
    static constexpr RE_kav_peer_id_t second{{0x00, 0x11, 0x22, 0x33, 0x44, 0x66}};
    return number == 1 ? first : second;
}

small_engine::small_engine(unsigned int mode)
{
    RE_stat_limits limits;
    limits.peers = 4;
    limits.connections = 16;
    limits.applications = 4;
    limits.nacks = 8;
    if (m_writer.create(limits, once_upon_a_time, mode) != 0) {
        throw std::runtime_error("no segment to be had");
    }
    publish_config();
    publish_globals();
    publish_peers();
    publish_conns();
    publish_rest();
    m_writer.publish();
}

void small_engine::publish_config()
{
    RE_stat_config_param config{};
    std::memcpy(config.m_own_mac_id.m_data, peer_identity(1).data(), sizeof config.m_own_mac_id);
    config.m_own_mac_id.m_data[5] = 0xff;
    std::memcpy(config.m_local_kav_peer_id.m_data, peer_identity(1).data(), sizeof config.m_local_kav_peer_id);
    config.m_b_rep_accl_mode = true;
    config.m_comp_type = 3;
    config.m_max_con_cur_connection = 4000;
    config.m_max_fan_out = 50;
    config.m_worker_threads_num = 8;
    config.m_total_kav_diskspace_in_MB = 2000;
    config.m_total_kav_memory_in_MB = 512;
    config.m_hash_table_memory_in_MB = 64;
    config.m_PLZ_memory_in_MB = 32;
    config.m_PLZ_buffer_q_size = 16;
    config.m_total_WEQ_buffer_size_in_MB = 128;
    config.m_cache_data_version = 7;
    config.m_ack_q_WEQ_cap_in_MB = 21;
    config.m_ack_q_disk_cap_in_MB = 22;
    config.m_wait_q_cap_in_MB = 23;
    config.m_max_data_unit_num = 24;
    config.m_sig_read_pool_size = 25;
    config.m_data_read_pool_size = 26;
    config.m_anchor_distance = 27;
    config.m_section_size = 28;
    config.m_avg_chunk_size = 256;
    config.m_min_chunk_size = 64;
    config.m_b_partial_lookup_on = false;
    config.m_write_tshld = 65535;
    config.m_cold_pass_tshld = 40000;
    std::strcpy(config.m_lz_algorithm, "zlib");
    config.m_lz_comprsLevel = 6;
    config.m_lz_adaptive = true;
    config.m_lz_adaptive_thres = 10;
    config.m_lz_adaptive_use_entropy = false;
    config.m_big_msg_checksum = true;
    config.m_plz_high_watermark = 90;
    config.m_plz_low_watermark = 70;
    config.m_b_plz_enabled = false;
    config.m_iov_block_size = 4096;
    config.m_kav_auto_bypass_threshold = 5;
    m_writer.set_config(config);
}

void small_engine::publish_globals()
{
    const figure<RE_stat_global_id> figures[] = {
        {RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE},
        {RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE, 2000},
        {RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_DISK_USAGE, 300},
        {RE_STAT_GLOBAL_ID_TOT_DATAUINT_DISK_USAGE, 700},
        {RE_STAT_GLOBAL_ID_TOTAL_CACHE_RAM_SIZE, 64},
        {RE_STAT_GLOBAL_ID_MAX_HASH_TABLE_ENTRY, 8000},
        {RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_HT_USAGE, 1000},
        {RE_STAT_GLOBAL_ID_TOT_SECBLOCK_HT_USAGE, 3500},
        {RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_AGE, five_days_ago()},
        {RE_STAT_GLOBAL_ID_CACHE_DATAUNIT_AGE, forty_five_days_ago()},
        {RE_STAT_GLOBAL_ID_CACHE_CREATION_TIME, once_upon_a_time},
        {RE_STAT_GLOBAL_ID_DATA_FIFO_IN_LOAD_CACHE, 100},
        {RE_STAT_GLOBAL_ID_NUM_SIGBLOCK_FIFO_IN_LAST_HOUR, 12},
        {RE_STAT_GLOBAL_ID_NUM_SIGBLOCK_FIFO_SECTION_IN_LAST_HOUR, 120},
        {RE_STAT_GLOBAL_ID_NUM_DATAUNIT_FIFO_IN_LAST_HOUR, 34},
        {RE_STAT_GLOBAL_ID_NUM_DATAUNIT_FIFO_SECTION_IN_LAST_HOUR, 340},
        {RE_STAT_GLOBAL_ID_SIGBLOCK_PADDING_CNT, 1},
        {RE_STAT_GLOBAL_ID_SIGBLOCK_PADDING_SIZE, 4096},
        {RE_STAT_GLOBAL_ID_SECBLOCK_PADDING_CNT, 2},
        {RE_STAT_GLOBAL_ID_SECBLOCK_PADDING_SIZE, 8192},
        {RE_STAT_GLOBAL_ID_SEGMENT_PADDING_CNT, 3},
        {RE_STAT_GLOBAL_ID_SEGMENT_PADDING_SIZE, 204800},
        {RE_STAT_GLOBAL_ID_FIFO_HEAD_CLOCK, 5000},
        {RE_STAT_GLOBAL_ID_FIFO_TAIL_CLOCK, 4000},
        {RE_STAT_GLOBAL_ID_AVG_READ_LATENCY, 7999},
        {RE_STAT_GLOBAL_ID_NUM_READ, 21},
        {RE_STAT_GLOBAL_ID_AVG_DISK_READ_LATENCY, 12000},
        {RE_STAT_GLOBAL_ID_NUM_DISK_READ, 20},
        {RE_STAT_GLOBAL_ID_NUM_HASH_TABLE_FULL, 1},
        {RE_STAT_GLOBAL_ID_NUM_HASH_TABLE_SECTION_SIG_COLLISION, 2},
        {RE_STAT_GLOBAL_ID_HASH_TABLE_SELF_CLEAN_CNT, 3},
        {RE_STAT_GLOBAL_ID_HASH_TABLE_FULL_CLEAN_CNT, 4},
        {RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_CHUNK_CNT, 1000},
        {RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_SECTION_CNT, 100},
        {RE_STAT_GLOBAL_ID_CACHE_SECBLOCK_CHUNK_CNT, 3500},
        {RE_STAT_GLOBAL_ID_CACHE_SECBLOCK_SECTION_CNT, 350},
        {RE_STAT_GLOBAL_ID_TOT_ANCHOR, 900},
        {RE_STAT_GLOBAL_ID_TOT_MATCHED_ANCHOR_COUNT, 600},
        {RE_STAT_GLOBAL_ID_TOT_MATCHED_MORE_THAN_ONCE_COUNT, 300},
        {RE_STAT_GLOBAL_ID_ACK_Q_SIZE, 1500},
        {RE_STAT_GLOBAL_ID_ACK_Q_USED_DISK_SIZE, 2500},
        {RE_STAT_GLOBAL_ID_WAIT_Q_SIZE, 3500},
        {RE_STAT_GLOBAL_ID_ACK_Q_TOT_DISK_WRITE_SIZE, 4500},
        {RE_STAT_GLOBAL_ID_ACK_Q_DROP_SIZE, 5500},
        {RE_STAT_GLOBAL_ID_ACK_Q_OBJ_SIZE, 6500},
        {RE_STAT_GLOBAL_ID_ACK_Q_OBJ_NUM, 65},
        {RE_STAT_GLOBAL_ID_LOWMEM_OPEN_ERROR, 1},
        {RE_STAT_GLOBAL_ID_LOWMEM_DECODE_ERROR, 2},
        {RE_STAT_GLOBAL_ID_LOWMEM_MALLOC_ERROR, 3},
        {RE_STAT_GLOBAL_ID_LOWMEM_PLZ_OFF, 4},
        {RE_STAT_GLOBAL_ID_LOWMEM_LOWEST_RESERVE, 5},
        {RE_STAT_GLOBAL_ID_AGG_NODE_BYTES, 7500},
        {RE_STAT_GLOBAL_ID_TWIN_POOL_BIG_USED, 11},
        {RE_STAT_GLOBAL_ID_TWIN_POOL_BIG_FREE, 12},
        {RE_STAT_GLOBAL_ID_TWIN_POOL_SMALL_USED, 13},
        {RE_STAT_GLOBAL_ID_TWIN_POOL_SMALL_FREE, 14},
        {RE_STAT_GLOBAL_ID_TWIN_POOL_DEFRAGMENT_CNT, 15},
        {RE_STAT_GLOBAL_ID_PLZ_ENCODE_ON_CONN_COUNT, 21},
        {RE_STAT_GLOBAL_ID_PLZ_ENCODE_ON_AVG_MSG_SIZE, 22000},
        {RE_STAT_GLOBAL_ID_PLZ_ENCODE_OFF_CONN_COUNT, 23},
        {RE_STAT_GLOBAL_ID_PLZ_DECODE_READ_DISK_NUM, 31},
        {RE_STAT_GLOBAL_ID_PLZ_DECODE_WRITE_DISK_NUM, 32},
        {RE_STAT_GLOBAL_ID_PLZ_DECODE_ON_CONN_COUNT, 33},
        {RE_STAT_GLOBAL_ID_PLZ_DECODE_NODE_IN_DISK_NUM, 34},
        {RE_STAT_GLOBAL_ID_PLZ_DECODE_OFF_CONN_COUNT, 35},
        {RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_SUCCESS_COUNT, 3},
        {RE_STAT_GLOBAL_ID_TOP_APP_UPDATE_FAILURE_COUNT, 1},
        {RE_STAT_GLOBAL_ID_NUM_CONNECTED_PEER, 2},
        {RE_STAT_GLOBAL_ID_MAX_NUM_CONNECTED_PEER, 3},
        {RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_SIG_BLOCK, 4},
        {RE_STAT_GLOBAL_ID_MAX_NUM_DEGRADED_PEER_DUE_WRITE_SIG_BLOCK, 5},
        {RE_STAT_GLOBAL_ID_NUM_DEGRADED_PEER_DUE_WRITE_DATA_UNIT, 6},
        {RE_STAT_GLOBAL_ID_MAX_NUM_DEGRADED_PEER_DUE_WRITE_DATA_UNIT, 7},
        {RE_STAT_GLOBAL_ID_NUM_PEER_WITH_WRITE_SIG_BLOCK, 8},
        {RE_STAT_GLOBAL_ID_MAX_NUM_PEER_WITH_WRITE_SIG_BLOCK, 9},
        {RE_STAT_GLOBAL_ID_NUM_PEER_WITH_WRITE_DATA_UNIT, 10},
        {RE_STAT_GLOBAL_ID_MAX_NUM_PEER_WITH_WRITE_DATA_UNIT, 11},
    };
    for (const auto& [id, value] : figures) {
        m_writer.set_global(id, value);
    }
}

void small_engine::publish_peers()
{
    RE_stat_peer_header first{};
    first.m_context_id.m_data[0] = 0x34;
    first.m_context_id.m_data[1] = 0x12;
    first.m_context_id.m_data[18] = 0x01;
    first.m_peer_mac_id = RE_mac_id("00:11:22:33:44:55");
    first.m_kav_peer_id = peer_identity(1);
    first.m_peer_ip = 0xcb007101; // 203.0.113.1
    std::strcpy(first.m_peer_host_name, "branch-1.example.net");
    m_writer.add_peer(1, first);
    const figure<RE_stat_peer_id> figures[] = {
        {RE_STAT_PEER_ID_SIGBLOCK_DISK_SPACE, 30},
        {RE_STAT_PEER_ID_DATAUNIT_DISK_SPACE, 70},
        {RE_STAT_PEER_ID_CACHE_SIGBLOCK_AGE, forty_five_days_ago()},
        {RE_STAT_PEER_ID_CACHE_DATAUNIT_AGE, five_days_ago()},
        {RE_STAT_PEER_ID_MAJOR_VERSION, 4},
        {RE_STAT_PEER_ID_MINOR_VERSION, 5},
        {RE_STAT_PEER_ID_ORV, 1},
        {RE_STAT_PEER_ID_ACK_Q_SIZE, 1234},
        {RE_STAT_PEER_ID_DELAY_BUF_SIZE, 1000},
        {RE_STAT_PEER_ID_DELAY_BUF_CNT, 3},
        {RE_STAT_PEER_ID_DELAY_BUF_FLUSH, 2},
        {RE_STAT_PEER_ID_AGG_FT_BUF_SIZE, 500},
        {RE_STAT_PEER_ID_AGG_FT_BUF_FLUSH, 7},
        {RE_STAT_PEER_ID_AGG_FT_BUF_R_FLUSH, 8},
        {RE_STAT_PEER_ID_REMOTE_BUF_LOW, 1},
        {RE_STAT_PEER_ID_NUM_MAX_CONNS, 3},
        {RE_STAT_PEER_ID_NUM_AVG_CONNS, 2},
        {RE_STAT_PEER_ID_USABLE_SIGBLOCK_SIZE, 25},
        {RE_STAT_PEER_ID_USABLE_SIGBLOCK_AGE, forty_five_days_ago()},
        {RE_STAT_PEER_ID_NUM_FIFO_DATA, 3000},
        {RE_STAT_PEER_ID_REMOTE_CACHE_CREATE_TIME, once_upon_a_time + 60},
        {RE_STAT_PEER_ID_REMOTE_HEAD_SYNC_CLK, 700},
        {RE_STAT_PEER_ID_REMOTE_SAFE_HEAD_SYNC_CLK, 650},
        {RE_STAT_PEER_ID_PRE_NG_SIGBLOCK_DISK_SPACE, 5},
        {RE_STAT_PEER_ID_PRE_NG_DATAUNIT_DISK_SPACE, 6},
        {RE_STAT_PEER_ID_PRE_NG_HEAD_SYNC_CLK, 10},
        {RE_STAT_PEER_ID_PRE_NG_TAIL_SYNC_CLK, 9},
        {RE_STAT_PEER_ID_PRE_NG_REMOTE_HEAD_SYNC_CLK, 8},
        {RE_STAT_PEER_ID_ACK_Q_MAX_RTT, 12345},
        {RE_STAT_PEER_ID_ACK_Q_AVG_RTT, 6789},
        {RE_STAT_PEER_ID_REMOTE_ACK_Q_AVG_RTT, 2500},
        {RE_STAT_PEER_ID_TOT_KAV_DECODE_THRPUT, 204800},
        {RE_STAT_PEER_ID_TOT_BYPASS_DECODE_THRPUT, 500},
        {RE_STAT_PEER_ID_BYPASS_RATIO, 17},
        {RE_STAT_PEER_ID_NUM_CTX_OUT_OF_SYNC, 1},
        {RE_STAT_PEER_ID_NUM_RTXS, 4},
        {RE_STAT_PEER_ID_NUM_WRITE_SIG_BLOCK, 2},
        {RE_STAT_PEER_ID_NUM_WRITE_DATA_UNIT, 3},
    };
    for (const auto& [id, value] : figures) {
        m_writer.set_peer_stat(0, id, value);
    }

    RE_stat_peer_header second{};
    second.m_peer_mac_id = RE_mac_id("00:11:22:33:44:66");
    second.m_kav_peer_id = peer_identity(2);
    second.m_b_outdated = 1;
    m_writer.add_peer(2, second);
    m_writer.set_peer_stat(1, RE_STAT_PEER_ID_MAJOR_VERSION, 4);
    m_writer.set_peer_stat(1, RE_STAT_PEER_ID_MINOR_VERSION, 3);
    m_writer.set_peer_stat(1, RE_STAT_PEER_ID_NUM_NACKS, 3);
}

void small_engine::publish_conns()
{
    m_encoding_conn =
        m_writer.open_conn(0, conn_ends(12, first_client, 50000, web_server, 80), transport(3), once_upon_a_time);
    publish_encoding(m_encoding_conn);
    const int closed = m_writer.open_conn(0, conn_ends(10, first_client + 2, 50002, web_server, 80), transport(3),
                                          forty_five_days_ago() - hour);
    m_writer.close_conn(closed, forty_five_days_ago());
    const int decoding = m_writer.open_conn(1, conn_ends(9, first_client + 1, 50001, file_server, 445), transport(3),
                                            once_upon_a_time + 120);
    publish_decoding(decoding);
    // Not processed by the engine, so no list of connections shows it.
    m_writer.open_conn(0, conn_ends(8, first_client, 50003, poor_server, 443), transport(0), once_upon_a_time);
}

void small_engine::publish_encoding(int conn)
{
    const figure<RE_stat_conn_id> figures[] = {
        {RE_STAT_CONN_ID_ENCODE_NUM_MSGS, 10},
        {RE_STAT_CONN_ID_ENCODE_IN_BYTES, 1000000},
        {RE_STAT_CONN_ID_ENCODE_OUT_BYTES, 250000},
        {RE_STAT_CONN_ID_RE_ENCODE_NUM_MSGS, 8},
        {RE_STAT_CONN_ID_RE_ENCODE_IN_BYTES, 800000},
        {RE_STAT_CONN_ID_RE_ENCODE_OUT_BYTES, 300000},
        {RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_NUM, 2},
        {RE_STAT_CONN_ID_ENCODE_BYPASS_TOTAL_BYTES, 200000},
        {RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_LOWMEM, 1},
        {RE_STAT_CONN_ID_ENCODE_BYPASS_LOWMEM_BYTES, 50000},
        {RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_CHUNK, 5},
        {RE_STAT_CONN_ID_ENCODE_BYPASS_CHUNK_BYTES, 3000},
        {RE_STAT_CONN_ID_NUM_ENCODE_BYPASS_LOW_COMP, 1},
        {RE_STAT_CONN_ID_ENCODE_BYPASS_LOW_COMP_BYTES, 150000},
        {RE_STAT_CONN_ID_LZ_ENCODE_NUM_MSGS, 6},
        {RE_STAT_CONN_ID_LZ_ENCODE_IN_BYTES, 400000},
        {RE_STAT_CONN_ID_LZ_ENCODE_OUT_BYTES, 100000},
        {RE_STAT_CONN_ID_TOT_ENCODE_SPEED, 25000},
        {RE_STAT_CONN_ID_TOT_ENCODE_DISK_SPEED, 5000},
        {RE_STAT_CONN_ID_TOT_ENCODE_LZ_SPEED, 12000},
        {RE_STAT_CONN_ID_TOT_ENCODE_ZLIB_SPEED, 9000},
        {RE_STAT_CONN_ID_DELAYED_DATA_NUM, 3},
        {RE_STAT_CONN_ID_ENCODE_X, 1},
        {RE_STAT_CONN_ID_ENCODE_2X, 2},
        {RE_STAT_CONN_ID_ENCODE_4X, 3},
        {RE_STAT_CONN_ID_ENCODE_8X, 4},
        {RE_STAT_CONN_ID_ENCODE_NUM_CHUNKS, 500},
        {RE_STAT_CONN_ID_NUM_ANCHOR_CHUNK_COUNT, 450},
        {RE_STAT_CONN_ID_NUM_FORCED_ANCHOR_CHUNK_COUNT, 50},
        {RE_STAT_CONN_ID_ENCODE_TOT_MSG_BLOCKS, 16},
        {RE_STAT_CONN_ID_ENCODE_TOT_READ_BLOCKS, 4},
        {RE_STAT_CONN_ID_ENCODE_TOT_SEARCH_BLOCKS, 12},
        {RE_STAT_CONN_ID_ENCODE_TOT_NUM_SECTIONS, 10},
        {RE_STAT_CONN_ID_ENCODE_TOT_RANGE_CNT, 20},
        {RE_STAT_CONN_ID_ENCODE_TOT_RANGE_CHUNK_CNT, 55},
        {RE_STAT_CONN_ID_NUM_ACK_MSGS, 10},
        {RE_STAT_CONN_ID_ACK_BYTES, 160},
        {RE_STAT_CONN_ID_NUM_TOTAL_RTX_MSGS, 4},
        {RE_STAT_CONN_ID_NUM_CACHE_NOT_READY_RTX_MSGS, 4},
        {RE_STAT_CONN_ID_NUM_INVALID_SECTIONS, 5},
        {RE_STAT_CONN_ID_NUM_CONVERT_INVALID_SECTIONS, 2},
        {RE_STAT_CONN_ID_SIGBLOCK_SECTION_WRITTEN_CNT, 7},
        {RE_STAT_CONN_ID_SIGBLOCK_SECTION_WRITTEN_BYTES, 3500},
        {RE_STAT_CONN_ID_SIGBLOCK_SECTION_WRITTEN_NEW_CHUNK_BYTES, 3400},
        {RE_STAT_CONN_ID_DATA_SINGLE_INSTANCE_SAVING_SIZE, 11111},
        {RE_STAT_CONN_ID_UNIDIRECITIONAL_SAVING_SIZE, 22222},
        {RE_STAT_CONN_ID_DATA_DEDUPLICATION_SAVING_SIZE, 33333},
        {RE_STAT_CONN_ID_AGG_CHNK_SND_L0, 100},
        {RE_STAT_CONN_ID_AGG_HITS_SND_L0, 60},
        {RE_STAT_CONN_ID_AGG_MISS_SND_L0, 40},
        {RE_STAT_CONN_ID_AGG_STACK_SND, 2048},
        {RE_STAT_CONN_ID_AGG_NF_CHNKS, 6},
        {RE_STAT_CONN_ID_AGG_NF_BYTES, 600},
    };
    for (const auto& [id, value] : figures) {
        m_writer.add_conn_stat(conn, id, value);
    }
}

void small_engine::publish_decoding(int conn)
{
    const figure<RE_stat_conn_id> figures[] = {
        {RE_STAT_CONN_ID_DECODE_NUM_MSGS, 4},
        {RE_STAT_CONN_ID_DECODE_IN_BYTES, 1000},
        {RE_STAT_CONN_ID_DECODE_OUT_BYTES, 4000},
        {RE_STAT_CONN_ID_RE_DECODE_NUM_MSGS, 3},
        {RE_STAT_CONN_ID_RE_DECODE_IN_BYTES, 900},
        {RE_STAT_CONN_ID_RE_DECODE_OUT_BYTES, 3000},
        {RE_STAT_CONN_ID_DECODE_BYPASS_TOTAL_NUM, 1},
        {RE_STAT_CONN_ID_DECODE_BYPASS_TOTAL_BYTES, 1000},
        {RE_STAT_CONN_ID_LZ_DECODE_NUM_MSGS, 2},
        {RE_STAT_CONN_ID_LZ_DECODE_IN_BYTES, 600},
        {RE_STAT_CONN_ID_LZ_DECODE_OUT_BYTES, 1200},
        {RE_STAT_CONN_ID_TOT_DECODE_SPEED, 6000},
        {RE_STAT_CONN_ID_TOT_DECODE_DISK_SPEED, 1000},
        {RE_STAT_CONN_ID_TOT_DECODE_LZ_SPEED, 3000},
        {RE_STAT_CONN_ID_TOT_DECODE_ZLIB_SPEED, 1000},
        {RE_STAT_CONN_ID_DECODE_X, 1},
        {RE_STAT_CONN_ID_DECODE_2X, 1},
        {RE_STAT_CONN_ID_DECODE_4X, 1},
        {RE_STAT_CONN_ID_DECODE_32X, 1},
        {RE_STAT_CONN_ID_DECODE_NUM_CHUNKS, 70},
        {RE_STAT_CONN_ID_NUM_ACK_MSGS, 4},
        {RE_STAT_CONN_ID_ACK_BYTES, 64},
        {RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS, 3},
        {RE_STAT_CONN_ID_NUM_COL_NACK_MSGS, 1},
        {RE_STAT_CONN_ID_NUM_MISS_NACK_MSGS, 2},
        {RE_STAT_CONN_ID_SECBLOCK_SECTION_WRITTEN_CNT, 9},
        {RE_STAT_CONN_ID_SECBLOCK_SECTION_WRITTEN_BYTES, 4500},
        {RE_STAT_CONN_ID_SECBLOCK_SECTION_WRITTEN_NEW_CHUNK_BYTES, 4400},
        {RE_STAT_CONN_ID_AGG_CHNK_RCV_L0, 30},
        {RE_STAT_CONN_ID_AGG_HITS_RCV_L0, 20},
        {RE_STAT_CONN_ID_AGG_MISS_RCV_L0, 10},
        {RE_STAT_CONN_ID_AGG_STACK_RCV, 1024},
    };
    for (const auto& [id, value] : figures) {
        m_writer.add_conn_stat(conn, id, value);
    }
}

void small_engine::publish_rest()
{
    constexpr auto stamp = static_cast<std::int32_t>(once_upon_a_time);
    m_writer.add_nack({stamp, RE_STAT_NACK_AT_RECEIVER, 1, 2, 9, 41});
    m_writer.add_nack({stamp + 60, RE_STAT_NACK_AT_SENDER, 4, 1, 12, 42});
    m_writer.add_nack({stamp + 120, RE_STAT_NACK_AT_RECEIVER, 2, 2, 9, 43});

    RE_stat_app_header web{};
    web.set(peer_identity(1), 80, false);
    const int web_slot = m_writer.find_or_add_app(web);
    m_writer.add_app_stat(web_slot, RE_STAT_APP_ID_ENCODE_NUM_MSGS, 10);
    m_writer.add_app_stat(web_slot, RE_STAT_APP_ID_ENCODE_IN_KBYTES, 976);
    m_writer.add_app_stat(web_slot, RE_STAT_APP_ID_ENCODE_OUT_KBYTES, 244);
    m_writer.add_app_stat(web_slot, RE_STAT_APP_ID_RE_ENCODE_NUM_MSGS, 8);
    m_writer.add_app_stat(web_slot, RE_STAT_APP_ID_RE_ENCODE_IN_KBYTES, 781);
    m_writer.add_app_stat(web_slot, RE_STAT_APP_ID_RE_ENCODE_OUT_KBYTES, 292);
    m_writer.add_app_stat(web_slot, RE_STAT_APP_ID_LZ_ENCODE_NUM_MSGS, 6);
    m_writer.add_app_stat(web_slot, RE_STAT_APP_ID_LZ_ENCODE_IN_KBYTES, 390);
    m_writer.add_app_stat(web_slot, RE_STAT_APP_ID_LZ_ENCODE_OUT_KBYTES, 97);
    m_writer.add_app_conns(web_slot, 2, 1);

    RE_stat_app_header files{};
    files.set(peer_identity(2), 445, false);
    const int files_slot = m_writer.find_or_add_app(files);
    m_writer.add_app_stat(files_slot, RE_STAT_APP_ID_DECODE_NUM_MSGS, 4);
    m_writer.add_app_stat(files_slot, RE_STAT_APP_ID_DECODE_IN_KBYTES, 100);
    m_writer.add_app_stat(files_slot, RE_STAT_APP_ID_DECODE_OUT_KBYTES, 400);
    m_writer.add_app_stat(files_slot, RE_STAT_APP_ID_RE_DECODE_NUM_MSGS, 3);
    m_writer.add_app_stat(files_slot, RE_STAT_APP_ID_RE_DECODE_IN_KBYTES, 90);
    m_writer.add_app_stat(files_slot, RE_STAT_APP_ID_RE_DECODE_OUT_KBYTES, 300);
    m_writer.add_app_stat(files_slot, RE_STAT_APP_ID_LZ_DECODE_NUM_MSGS, 2);
    m_writer.add_app_stat(files_slot, RE_STAT_APP_ID_LZ_DECODE_IN_KBYTES, 60);
    m_writer.add_app_stat(files_slot, RE_STAT_APP_ID_LZ_DECODE_OUT_KBYTES, 120);
    m_writer.add_app_conns(files_slot, 1, 0);

    m_writer.set_bypass(
        {poor_server, 443, RE_bypass_reason::low_compression, once_upon_a_time, once_upon_a_time + 600, 123456, 7});
    m_writer.set_bypass({excluded_server, 22, RE_bypass_reason::configured, once_upon_a_time + 60, 0, 99, 1});
}
