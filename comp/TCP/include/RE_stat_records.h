// The fixed-layout records that the engine and every viewer of its statistics share. They are stored unconverted in
// shared memory and in files, so offset, width, signedness and size of every field are a contract: little-endian, and
// without padding except where the assertions below show it. Text fields are NUL-terminated when there is room for the
// NUL; a reader never reads beyond the end of the array.
#pragma once

#include "RE_context_id.h"
#include "RE_stat_ids.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

// How much of a peer or connection a view prints.
enum RE_show_type : int
{
    RE_SHOW_INFO = 0,   // the summary
    RE_SHOW_DETAIL = 1, // the summary and the detail
    RE_SHOW_NACK = 2,   // the NACK log instead of both
};

// Which side of a NACK this engine was.
enum RE_stat_nack_type : int
{
    RE_STAT_NACK_AT_RECEIVER = 0, // this engine could not decode and sent the NACK
    RE_STAT_NACK_AT_SENDER = 1,   // this engine received the NACK and sends the message again
};

// State of the engine's cache, the value of RE_STAT_GLOBAL_ID_CACHE_STATE.
enum RE_CACHE_INIT_STATE : int
{
    RE_CACHE_INACTIVE = 0,
    RE_CACHE_INIT_IN_PROGRESS = 1,
    RE_CACHE_ACTIVE = 2,
    RE_CACHE_TEMP_FAILED = 3,
    RE_CACHE_FAILED = 4,
};

// Layout of a top-application log file.
enum RE_stat_top_app_log_version : int
{
    RE_STAT_TOP_APP_LOG_QUADA = 0,   // records only, as written by v4.4.1
    RE_STAT_TOP_APP_LOG_BELVANO = 1, // sections of names and records, as written by v4.4.3
    RE_STAT_TOP_APP_LOG_MAX = 2,     // the first unknown version
};

// The slot of a connection, counted from 0.
using RE_stat_conn_handler = int;

// Number that stands for an application's names within a log section or one run of the viewer. Records store its low 10
// bits.
using RE_stat_policy_engine_handler = std::uint32_t;

// The identity of a peer.
struct RE_stat_peer_header
{
    RE_context_id m_context_id;
    RE_mac_id m_peer_mac_id;
    RE_kav_peer_id m_kav_peer_id;
    std::uint32_t m_peer_ip;    // host order, as the peer reported it; 0 when it did not
    char m_peer_host_name[257]; // empty when not known
    std::uint8_t m_b_update_from_active_conn : 1;
    std::uint8_t m_b_outdated : 1;
    std::uint8_t m_pad : 6;
};
static_assert(offsetof(RE_stat_peer_header, m_context_id) == 0);
static_assert(offsetof(RE_stat_peer_header, m_peer_mac_id) == 20);
static_assert(offsetof(RE_stat_peer_header, m_kav_peer_id) == 26);
static_assert(offsetof(RE_stat_peer_header, m_peer_ip) == 44);
static_assert(offsetof(RE_stat_peer_header, m_peer_host_name) == 48);
static_assert(sizeof(RE_stat_peer_header) == 308);

// The identity of a connection: the engine's id for it and its two ends. Addresses and ports are in host order.
struct RE_stat_conn_header
{
    std::int32_t m_conn_id;
    std::uint32_t m_client_ip;
    std::uint32_t m_server_ip;
    std::uint16_t m_client_port;
    std::uint16_t m_server_port;
};
static_assert(offsetof(RE_stat_conn_header, m_conn_id) == 0);
static_assert(offsetof(RE_stat_conn_header, m_client_ip) == 4);
static_assert(offsetof(RE_stat_conn_header, m_server_ip) == 8);
static_assert(offsetof(RE_stat_conn_header, m_client_port) == 12);
static_assert(offsetof(RE_stat_conn_header, m_server_port) == 14);
static_assert(sizeof(RE_stat_conn_header) == 16);

#pragma pack(push, 1)

// How far the two sides have progressed in ending a connection: end of traffic, and end of traffic of a single side
// (ss).
struct SO_stat_eot_state
{
    std::uint8_t m_req_send : 1;
    std::uint8_t m_req_recv : 1;
    std::uint8_t m_ack_send : 1;
    std::uint8_t m_ack_recv : 1;
    std::uint8_t m_ss_req_send : 1;
    std::uint8_t m_ss_req_recv : 1;
    std::uint8_t m_ss_ack_send : 1;
    std::uint8_t m_ss_ack_recv : 1;
};
static_assert(sizeof(SO_stat_eot_state) == 1);

// State of one of a connection's two sockets.
struct SO_stat_net_state
{
    std::uint8_t m_rd_shut : 1;
    std::uint8_t m_wt_shut : 1;
    std::uint8_t m_close : 1;
    std::uint8_t m_peer_choke_on : 1;
    std::uint8_t m_rd_in_kq : 1;
    std::uint8_t m_wt_in_kq : 1;
    std::uint8_t m_envoy : 1;
    std::uint8_t unused : 1;
};
static_assert(sizeof(SO_stat_net_state) == 1);

// What one side requests from the engine for a connection.
struct SO_stat_kav_hints
{
    std::uint16_t m_latency : 4;
    std::uint16_t m_comp_off : 4;
    std::uint16_t m_re_mode_hint : 2;
    std::uint16_t unused : 6;
};
static_assert(sizeof(SO_stat_kav_hints) == 2);

// A connection as the transport optimizer sees it.
struct SO_stat_conn_header
{
    std::uint8_t m_conn_type : 4;
    std::uint8_t m_comp_type : 4; // 0: the engine does not work on this connection
    SO_stat_eot_state m_eot_state;
    SO_stat_net_state m_ao_net_state;
    SO_stat_net_state m_wan_net_state;
    SO_stat_kav_hints m_local_hints;
    SO_stat_kav_hints m_remote_hints;
    SO_stat_kav_hints m_active_hints;
    std::uint8_t m_local_cfg_kav_mode : 2;
    std::uint8_t m_remote_cfg_kav_mode : 2;
    std::uint8_t m_applied_kav_mode : 2;
    std::uint8_t m_kav_mode_negotiated : 1;
    std::uint8_t m_pad : 1;
    std::uint8_t m_reset_code;
    std::uint8_t m_class_id;
    std::uint8_t m_dscp;
    std::uint8_t m_wan_insert_ao_type;
    std::int32_t m_wan_fd;
    std::int32_t m_ao_fd;
    std::int64_t m_eot_remote_orig_bytes;
    std::int64_t m_eot_local_orig_bytes;
};
static_assert(offsetof(SO_stat_conn_header, m_eot_state) == 1);
static_assert(offsetof(SO_stat_conn_header, m_ao_net_state) == 2);
static_assert(offsetof(SO_stat_conn_header, m_wan_net_state) == 3);
static_assert(offsetof(SO_stat_conn_header, m_local_hints) == 4);
static_assert(offsetof(SO_stat_conn_header, m_remote_hints) == 6);
static_assert(offsetof(SO_stat_conn_header, m_active_hints) == 8);
static_assert(offsetof(SO_stat_conn_header, m_reset_code) == 11);
static_assert(offsetof(SO_stat_conn_header, m_class_id) == 12);
static_assert(offsetof(SO_stat_conn_header, m_dscp) == 13);
static_assert(offsetof(SO_stat_conn_header, m_wan_insert_ao_type) == 14);
static_assert(offsetof(SO_stat_conn_header, m_wan_fd) == 15);
static_assert(offsetof(SO_stat_conn_header, m_ao_fd) == 19);
static_assert(offsetof(SO_stat_conn_header, m_eot_remote_orig_bytes) == 23);
static_assert(offsetof(SO_stat_conn_header, m_eot_local_orig_bytes) == 31);
static_assert(sizeof(SO_stat_conn_header) == 39);

#pragma pack(pop)

// One entry of the NACK log.
struct RE_stat_nack_header
{
    std::int32_t m_time;    // seconds since the epoch
    std::int16_t m_type;    // an RE_stat_nack_type
    std::int16_t m_reason;  // 0 none, 1 chunk missed, 2 checksum collision, 3 disk overloaded, 4 cache is not ready
    std::int32_t m_peer_id; // the peer's number
    std::int32_t m_conn_id;
    std::int32_t m_msg_seq_no;
};
static_assert(offsetof(RE_stat_nack_header, m_time) == 0);
static_assert(offsetof(RE_stat_nack_header, m_type) == 4);
static_assert(offsetof(RE_stat_nack_header, m_reason) == 6);
static_assert(offsetof(RE_stat_nack_header, m_peer_id) == 8);
static_assert(offsetof(RE_stat_nack_header, m_conn_id) == 12);
static_assert(offsetof(RE_stat_nack_header, m_msg_seq_no) == 16);
static_assert(sizeof(RE_stat_nack_header) == 20);

// The engine's configuration. A field is in the unit that its name ends in; without a unit, it is in bytes or a plain
// count.
struct RE_stat_config_param
{
    RE_mac_id_t m_own_mac_id;
    RE_kav_peer_id_t m_local_kav_peer_id;
    bool m_b_rep_accl_mode;
    std::int32_t m_comp_type; // 0 invalid, 1 redundancy elimination only, 2 LZ only, 3 both, 4 none
    std::int32_t m_max_peer_slots;
    std::int32_t m_max_con_cur_connection;
    std::int32_t m_max_num_conn_slots;
    std::int32_t m_max_fan_out;
    std::int32_t m_worker_threads_num;
    std::int32_t m_total_kav_diskspace_in_MB;
    std::int32_t m_total_kav_memory_in_MB;
    std::int32_t m_hash_table_memory_in_MB;
    std::int32_t m_PLZ_memory_in_MB;
    std::int32_t m_PLZ_buffer_q_size;
    std::int32_t m_total_WEQ_buffer_size_in_MB;
    std::int32_t m_cache_data_version;
    std::int32_t m_ack_q_WEQ_cap_in_MB;
    std::int32_t m_ack_q_disk_cap_in_MB;
    std::int32_t m_wait_q_cap_in_MB;
    std::int32_t m_max_sig_block_num;
    std::int32_t m_max_data_unit_num;
    std::int32_t m_sig_read_pool_size;
    std::int32_t m_data_read_pool_size;
    std::int32_t m_anchor_distance;
    std::int32_t m_section_size;
    std::int32_t m_avg_chunk_size;
    std::int32_t m_min_chunk_size;
    bool m_b_partial_lookup_on;
    std::uint16_t m_write_tshld;
    std::uint16_t m_cold_pass_tshld;
    char m_lz_algorithm[32];
    std::int32_t m_lz_min_msg_size;
    std::int32_t m_lz_memLevel;
    std::int32_t m_lz_windowsBits;
    std::int32_t m_lz_comprsLevel;
    bool m_lz_adaptive;
    std::int32_t m_lz_adaptive_thres;
    bool m_lz_adaptive_use_entropy;
    bool m_big_msg_checksum;
    std::int32_t m_plz_high_watermark;
    std::int32_t m_plz_low_watermark;
    bool m_b_plz_enabled;
    std::int32_t m_iov_block_size;
    std::int32_t m_kav_auto_bypass_threshold; // MB
};
static_assert(sizeof(bool) == 1);
static_assert(offsetof(RE_stat_config_param, m_own_mac_id) == 0);
static_assert(offsetof(RE_stat_config_param, m_local_kav_peer_id) == 6);
static_assert(offsetof(RE_stat_config_param, m_b_rep_accl_mode) == 22);
static_assert(offsetof(RE_stat_config_param, m_comp_type) == 24);
static_assert(offsetof(RE_stat_config_param, m_max_peer_slots) == 28);
static_assert(offsetof(RE_stat_config_param, m_max_con_cur_connection) == 32);
static_assert(offsetof(RE_stat_config_param, m_max_num_conn_slots) == 36);
static_assert(offsetof(RE_stat_config_param, m_max_fan_out) == 40);
static_assert(offsetof(RE_stat_config_param, m_worker_threads_num) == 44);
static_assert(offsetof(RE_stat_config_param, m_total_kav_diskspace_in_MB) == 48);
static_assert(offsetof(RE_stat_config_param, m_total_kav_memory_in_MB) == 52);
static_assert(offsetof(RE_stat_config_param, m_hash_table_memory_in_MB) == 56);
static_assert(offsetof(RE_stat_config_param, m_PLZ_memory_in_MB) == 60);
static_assert(offsetof(RE_stat_config_param, m_PLZ_buffer_q_size) == 64);
static_assert(offsetof(RE_stat_config_param, m_total_WEQ_buffer_size_in_MB) == 68);
static_assert(offsetof(RE_stat_config_param, m_cache_data_version) == 72);
static_assert(offsetof(RE_stat_config_param, m_ack_q_WEQ_cap_in_MB) == 76);
static_assert(offsetof(RE_stat_config_param, m_ack_q_disk_cap_in_MB) == 80);
static_assert(offsetof(RE_stat_config_param, m_wait_q_cap_in_MB) == 84);
static_assert(offsetof(RE_stat_config_param, m_max_sig_block_num) == 88);
static_assert(offsetof(RE_stat_config_param, m_max_data_unit_num) == 92);
static_assert(offsetof(RE_stat_config_param, m_sig_read_pool_size) == 96);
static_assert(offsetof(RE_stat_config_param, m_data_read_pool_size) == 100);
static_assert(offsetof(RE_stat_config_param, m_anchor_distance) == 104);
static_assert(offsetof(RE_stat_config_param, m_section_size) == 108);
static_assert(offsetof(RE_stat_config_param, m_avg_chunk_size) == 112);
static_assert(offsetof(RE_stat_config_param, m_min_chunk_size) == 116);
static_assert(offsetof(RE_stat_config_param, m_b_partial_lookup_on) == 120);
static_assert(offsetof(RE_stat_config_param, m_write_tshld) == 122);
static_assert(offsetof(RE_stat_config_param, m_cold_pass_tshld) == 124);
static_assert(offsetof(RE_stat_config_param, m_lz_algorithm) == 126);
static_assert(offsetof(RE_stat_config_param, m_lz_min_msg_size) == 160);
static_assert(offsetof(RE_stat_config_param, m_lz_memLevel) == 164);
static_assert(offsetof(RE_stat_config_param, m_lz_windowsBits) == 168);
static_assert(offsetof(RE_stat_config_param, m_lz_comprsLevel) == 172);
static_assert(offsetof(RE_stat_config_param, m_lz_adaptive) == 176);
static_assert(offsetof(RE_stat_config_param, m_lz_adaptive_thres) == 180);
static_assert(offsetof(RE_stat_config_param, m_lz_adaptive_use_entropy) == 184);
static_assert(offsetof(RE_stat_config_param, m_big_msg_checksum) == 185);
static_assert(offsetof(RE_stat_config_param, m_plz_high_watermark) == 188);
static_assert(offsetof(RE_stat_config_param, m_plz_low_watermark) == 192);
static_assert(offsetof(RE_stat_config_param, m_b_plz_enabled) == 196);
static_assert(offsetof(RE_stat_config_param, m_iov_block_size) == 200);
static_assert(offsetof(RE_stat_config_param, m_kav_auto_bypass_threshold) == 204);
static_assert(sizeof(RE_stat_config_param) == 208);

#pragma pack(push, 1)

// The application that a record counts: the handle of its names, its server port and the peer. The first twelve bytes
// are bit fields without gaps: m_open_cnt occupies the upper seven bits of byte 6 and all of bytes 7 and 8, so it spans
// two 64-bit words.
struct RE_stat_app_header
{
    std::uint32_t m_policy_engine_handler : 10;
    std::uint32_t m_reserve_not_used : 22;
    std::uint64_t m_server_port : 16;
    std::uint64_t m_b_src_port : 1; // the port is the client's, not the server's
    std::uint64_t m_open_cnt : 23;  // connections opened
    std::uint64_t m_close_cnt : 24; // connections closed
    RE_kav_peer_id m_kav_peer_id;

    // Sets peer, port and source-port flag. The counts and the handle do not change.
    void set(const RE_kav_peer_id& kav_peer_id, const std::uint16_t& server_port, bool b_src_port);
    // Stores the low 10 bits of `handler`.
    void set_policy_engine_handler(RE_stat_policy_engine_handler handler);
    // Whether both are the same application: handle, port, source-port flag and peer are equal. The counts do not
    // matter.
    bool operator==(const RE_stat_app_header& other) const;
    bool operator!=(const RE_stat_app_header& other) const { return !(*this == other); }
    // Returns a hash of the fields that operator== compares.
    std::uint32_t hash_u32() const;
    // Sets all bits to 0.
    void reset();
};
static_assert(offsetof(RE_stat_app_header, m_kav_peer_id) == 12);
static_assert(sizeof(RE_stat_app_header) == 28);

#pragma pack(pop)

// The traffic of one application: counters in kilobytes and messages (wrapping at 2^32), indexed by RE_stat_app_id.
struct RE_stat_app_struct
{
    std::uint32_t m_id_array[RE_STAT_APP_ID_MAX];
    RE_stat_app_header m_header;
};
static_assert(offsetof(RE_stat_app_struct, m_id_array) == 0);
static_assert(offsetof(RE_stat_app_struct, m_header) == sizeof(RE_stat_app_struct::m_id_array));
static_assert(sizeof(RE_stat_app_struct) == sizeof(RE_stat_app_struct::m_id_array) + sizeof(RE_stat_app_header));

// The same record in a top-application log. It always contains the first 18 counters, because a log does not state the
// size of its records.
struct RE_stat_app_log_record
{
    std::uint32_t m_id_array[18];
    RE_stat_app_header m_header;
};
static_assert(sizeof(RE_stat_app_log_record) == 100);

// Converts one of these records to the other. Counters that `From` does not have are 0; counters that `To` does not
// have are left out.
template <typename To, typename From>
To app_record_as(const From& from)
{
    To to{};
    std::memcpy(to.m_id_array, from.m_id_array, std::min(sizeof to.m_id_array, sizeof from.m_id_array));
    to.m_header = from.m_header;
    return to;
}

// The names of an application: its own name and that of the classifier that recognised it. A name ends at its NUL or at
// the end of its array.
struct RE_stat_policy_engine_header
{
    char m_policy_engine_application_name[41];
    char m_policy_engine_classifier_name[41];

    // Orders byte-wise by classifier name, then by application name.
    bool operator<(const RE_stat_policy_engine_header& other) const;
    bool operator==(const RE_stat_policy_engine_header& other) const;
};
static_assert(offsetof(RE_stat_policy_engine_header, m_policy_engine_classifier_name) == 41);
static_assert(sizeof(RE_stat_policy_engine_header) == 82);

// The figures of one connection for a quick latency test: sizes in bytes, latencies in milliseconds per message (0 when
// there was no message).
struct RE_stat_conn_for_qlt
{
    long long re_encode_in_bytes;
    long long re_decode_in_bytes;
    long long re_encode_out_bytes;
    long long re_decode_out_bytes;
    long long lz_encode_in_bytes;
    long long lz_decode_in_bytes;
    long long lz_encode_out_bytes;
    long long lz_decode_out_bytes;
    float avg_encode_latency;
    float avg_decode_latency;
    float avg_encode_lz_latency;
    float avg_decode_lz_latency;
};
static_assert(offsetof(RE_stat_conn_for_qlt, re_encode_in_bytes) == 0);
static_assert(offsetof(RE_stat_conn_for_qlt, re_decode_in_bytes) == 8);
static_assert(offsetof(RE_stat_conn_for_qlt, re_encode_out_bytes) == 16);
static_assert(offsetof(RE_stat_conn_for_qlt, re_decode_out_bytes) == 24);
static_assert(offsetof(RE_stat_conn_for_qlt, lz_encode_in_bytes) == 32);
static_assert(offsetof(RE_stat_conn_for_qlt, lz_decode_in_bytes) == 40);
static_assert(offsetof(RE_stat_conn_for_qlt, lz_encode_out_bytes) == 48);
static_assert(offsetof(RE_stat_conn_for_qlt, lz_decode_out_bytes) == 56);
static_assert(offsetof(RE_stat_conn_for_qlt, avg_encode_latency) == 64);
static_assert(offsetof(RE_stat_conn_for_qlt, avg_decode_latency) == 68);
static_assert(offsetof(RE_stat_conn_for_qlt, avg_encode_lz_latency) == 72);
static_assert(offsetof(RE_stat_conn_for_qlt, avg_decode_lz_latency) == 76);
static_assert(sizeof(RE_stat_conn_for_qlt) == 80);
