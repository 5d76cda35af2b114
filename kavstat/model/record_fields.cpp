#include "model/record_fields.h"

#include "format/text.h"
#include "model/words.h"

#include <cstring>

namespace kavstat {

namespace {

using Unit = RE_stat_unit;

// One-bit flags as the byte that they make up.
template <typename Flags>
unsigned char byte_of(const Flags& flags)
{
    static_assert(sizeof flags == 1);
    unsigned char byte = 0;
    std::memcpy(&byte, &flags, sizeof byte);
    return byte;
}

constexpr Field<Snapshot> engine_rows[] = {
    {"active_connections", "connections open now", [](auto& s) { return s.active_connections; }, Unit::connections},
};

constexpr Field<SnapshotPeer> peer_rows[] = {
    {"slot", "storage place, from 0", [](auto& p) { return p.slot; }},
    {"number", "the peer's number, Peer-No in reports", [](auto& p) { return p.number; }},
    {"context", "the context's number, 0 to 65535", [](auto& p) { return p.header.m_context_id.context_number(); }},
    {"mac_id", "the peer device's MAC address", [](auto& p) { return p.header.m_peer_mac_id; }},
    {"kav_peer_id", "the peer engine's identity", [](auto& p) { return p.header.m_kav_peer_id; }},
    {"kav_peer_hash", "the number in brackets after the identity in reports, 0 to 65535",
     [](auto& p) { return p.header.m_kav_peer_id.hash_u16(); }},
    {"ip", "address that the peer reported; 0.0.0.0 when it did not",
     [](auto& p) { return IpAddress{p.header.m_peer_ip}; }},
    {"host_name", "as the peer sent it; empty when not known",
     [](auto& p) { return text_in(p.header.m_peer_host_name); }},
    {"outdated", "the peer's record is outdated", [](auto& p) { return p.header.m_b_outdated != 0; }},
    {"update_from_active_conn", "the record came from an active connection",
     [](auto& p) { return p.header.m_b_update_from_active_conn != 0; }},
    {"active_connections", "connections open with the peer now", [](auto& p) { return p.active_connections; },
     Unit::connections},
};

constexpr Field<SnapshotConn> connection_rows[] = {
    {"slot", "storage place, from 0", [](auto& c) { return c.slot; }},
    {"id", "the connection's id", [](auto& c) { return c.header.m_conn_id; }},
    {"peer", "number of the connection's peer, -1 when there is none", [](auto& c) { return c.peer_number; }},
    {"client_ip", "the client's address", [](auto& c) { return IpAddress{c.header.m_client_ip}; }},
    {"client_port", "the client's port", [](auto& c) { return Port{c.header.m_client_port}; }},
    {"server_ip", "the server's address", [](auto& c) { return IpAddress{c.header.m_server_ip}; }},
    {"server_port", "the server's port", [](auto& c) { return Port{c.header.m_server_port}; }},
    {"open", "the connection is open", [](auto& c) { return c.is_open(); }},
    {"open_time", "when it was opened", [](auto& c) { return c.open_time; }, Unit::seconds_since_epoch},
    {"close_time", "when it was closed; 0 or less while it is open", [](auto& c) { return c.close_time; },
     Unit::seconds_since_epoch},
};

constexpr Field<SO_stat_conn_header> transport_rows[] = {
    {"conn_type", "code of the connection's type", [](auto& t) { return t.m_conn_type; }},
    {"comp_type", "code of the compression applied; 0 when the engine does not work on the connection",
     [](auto& t) { return t.m_comp_type; }},
    {"eot_state",
     "flags of the end of traffic from bit 0: request sent, received, acknowledgement sent, received, then these four "
     "for a single side",
     [](auto& t) { return byte_of(t.m_eot_state); }},
    {"ao_net_state",
     "flags of the socket towards the application from bit 0: read shut, write shut, closed, peer choked, read queued, "
     "write queued, envoy",
     [](auto& t) { return byte_of(t.m_ao_net_state); }},
    {"wan_net_state", "flags of the socket towards the WAN, as in ao_net_state",
     [](auto& t) { return byte_of(t.m_wan_net_state); }},
    {"local_latency_hint", "latency hint of this side", [](auto& t) { return t.m_local_hints.m_latency; }},
    {"local_comp_off_hint", "compression-off hint of this side", [](auto& t) { return t.m_local_hints.m_comp_off; }},
    {"local_re_mode_hint", "mode hint of this side", [](auto& t) { return t.m_local_hints.m_re_mode_hint; }},
    {"remote_latency_hint", "latency hint of the peer", [](auto& t) { return t.m_remote_hints.m_latency; }},
    {"remote_comp_off_hint", "compression-off hint of the peer", [](auto& t) { return t.m_remote_hints.m_comp_off; }},
    {"remote_re_mode_hint", "mode hint of the peer", [](auto& t) { return t.m_remote_hints.m_re_mode_hint; }},
    {"active_latency_hint", "latency hint in force", [](auto& t) { return t.m_active_hints.m_latency; }},
    {"active_comp_off_hint", "compression-off hint in force", [](auto& t) { return t.m_active_hints.m_comp_off; }},
    {"active_re_mode_hint", "mode hint in force", [](auto& t) { return t.m_active_hints.m_re_mode_hint; }},
    {"local_cfg_kav_mode", "mode that this side is configured for", [](auto& t) { return t.m_local_cfg_kav_mode; }},
    {"remote_cfg_kav_mode", "mode that the peer is configured for", [](auto& t) { return t.m_remote_cfg_kav_mode; }},
    {"applied_kav_mode", "mode in force", [](auto& t) { return t.m_applied_kav_mode; }},
    {"kav_mode_negotiated", "the mode was negotiated with the peer",
     [](auto& t) { return t.m_kav_mode_negotiated != 0; }},
    {"reset_code", "code of the connection's reset", [](auto& t) { return t.m_reset_code; }},
    {"class_id", "traffic class", [](auto& t) { return t.m_class_id; }},
    {"dscp", "DSCP value", [](auto& t) { return t.m_dscp; }},
    {"wan_insert_ao_type", "application type as inserted on the WAN side, a code",
     [](auto& t) { return t.m_wan_insert_ao_type; }},
    {"wan_fd", "descriptor of the socket towards the WAN", [](auto& t) { return t.m_wan_fd; }},
    {"ao_fd", "descriptor of the socket towards the application", [](auto& t) { return t.m_ao_fd; }},
    {"eot_remote_orig_bytes", "original bytes of the peer at end of traffic",
     [](auto& t) { return t.m_eot_remote_orig_bytes; }, Unit::bytes},
    {"eot_local_orig_bytes", "original bytes of this side at end of traffic",
     [](auto& t) { return t.m_eot_local_orig_bytes; }, Unit::bytes},
};

constexpr Field<SnapshotApp> app_rows[] = {
    {"slot", "storage place, from 0", [](auto& a) { return a.slot; }},
    {"peer", "number of the peer with this identity, -1 when there is none", [](auto& a) { return a.peer_number; }},
    {"kav_peer_id", "the peer engine's identity", [](auto& a) { return a.app.m_header.m_kav_peer_id; }},
    {"port", "the application's port", [](auto& a) { return Port{a.app.m_header.m_server_port}; }},
    {"is_source_port", "the port is the client's, not the server's",
     [](auto& a) { return a.app.m_header.m_b_src_port != 0; }},
    {"policy_engine_handler", "handle of the application's names, 0 to 1023",
     [](auto& a) { return a.app.m_header.m_policy_engine_handler; }},
    {"opened", "connections opened, wraps at 2^23", [](auto& a) { return a.app.m_header.m_open_cnt; },
     Unit::connections},
    {"closed", "connections closed, wraps at 2^24", [](auto& a) { return a.app.m_header.m_close_cnt; },
     Unit::connections},
};

constexpr Field<RE_stat_nack_header> nack_rows[] = {
    {"time", "when it was logged", [](auto& n) { return n.m_time; }, Unit::seconds_since_epoch},
    {"type", "0 when this engine sent the NACK, otherwise it received one and sent the message again",
     [](auto& n) { return n.m_type; }},
    {"type_word", "type as a word",
     [](auto& n) {
         return Word{nack_type_words, n.m_type == RE_STAT_NACK_AT_RECEIVER ? 0 : 1, true};
     }},
    {"reason", "the reason's code", [](auto& n) { return n.m_reason; }},
    {"reason_word", "the reason",
     [](auto& n) {
         return Word{nack_reason_words, n.m_reason};
     }},
    {"peer", "the peer's number", [](auto& n) { return n.m_peer_id; }},
    {"connection", "the connection's id", [](auto& n) { return n.m_conn_id; }},
    {"message", "the message's sequence number", [](auto& n) { return n.m_msg_seq_no; }},
};

constexpr Field<RE_stat_config_param> config_rows[] = {
    {"mac_id", "the device's MAC address", [](auto& c) { return RE_mac_id(c.m_own_mac_id); }},
    {"kav_peer_id", "the engine's identity", [](auto& c) { return RE_kav_peer_id(c.m_local_kav_peer_id); }},
    {"rep_accl_mode", "set up for replication between data centres", [](auto& c) { return c.m_b_rep_accl_mode; }},
    {"comp_type", "the compression type's code", [](auto& c) { return c.m_comp_type; }},
    {"comp_type_word", "the compression type",
     [](auto& c) {
         return Word{comp_type_words, c.m_comp_type};
     }},
    {"max_peer_slots", "peers that can be kept", [](auto& c) { return c.m_max_peer_slots; }, Unit::peers},
    {"max_con_cur_connection", "connections open at a time", [](auto& c) { return c.m_max_con_cur_connection; },
     Unit::connections},
    {"max_num_conn_slots", "connections that can be kept", [](auto& c) { return c.m_max_num_conn_slots; },
     Unit::connections},
    {"max_fan_out", "peers that the machine is made for", [](auto& c) { return c.m_max_fan_out; }, Unit::peers},
    {"worker_threads_num", "threads of the transport optimizer", [](auto& c) { return c.m_worker_threads_num; }},
    {"total_kav_diskspace_in_mb", "disk space of the cache", [](auto& c) { return c.m_total_kav_diskspace_in_MB; },
     Unit::megabytes},
    {"total_kav_memory_in_mb", "memory of the cache", [](auto& c) { return c.m_total_kav_memory_in_MB; },
     Unit::megabytes},
    {"hash_table_memory_in_mb", "memory of the cache's index", [](auto& c) { return c.m_hash_table_memory_in_MB; },
     Unit::megabytes},
    {"plz_memory_in_mb", "memory of persistent LZ", [](auto& c) { return c.m_PLZ_memory_in_MB; }, Unit::megabytes},
    {"plz_buffer_q_size", "length of persistent LZ's queue", [](auto& c) { return c.m_PLZ_buffer_q_size; }},
    {"total_weq_buffer_size_in_mb", "memory for messages", [](auto& c) { return c.m_total_WEQ_buffer_size_in_MB; },
     Unit::megabytes},
    {"cache_data_version", "the cache's format; peers with another one are not compatible",
     [](auto& c) { return c.m_cache_data_version; }},
    {"ack_q_weq_cap_in_mb", "memory that the ack queue may take", [](auto& c) { return c.m_ack_q_WEQ_cap_in_MB; },
     Unit::megabytes},
    {"ack_q_disk_cap_in_mb", "disk space that the ack queue may take", [](auto& c) { return c.m_ack_q_disk_cap_in_MB; },
     Unit::megabytes},
    {"wait_q_cap_in_mb", "memory that the wait queue may take", [](auto& c) { return c.m_wait_q_cap_in_MB; },
     Unit::megabytes},
    {"max_sig_block_num", "signature blocks on disk", [](auto& c) { return c.m_max_sig_block_num; }, Unit::blocks},
    {"max_data_unit_num", "data units on disk", [](auto& c) { return c.m_max_data_unit_num; }},
    {"sig_read_pool_size", "signature blocks held in memory for reading",
     [](auto& c) { return c.m_sig_read_pool_size; }},
    {"data_read_pool_size", "data segments held in memory for reading",
     [](auto& c) { return c.m_data_read_pool_size; }},
    {"anchor_distance", "distance of anchors by default", [](auto& c) { return c.m_anchor_distance; }, Unit::bytes},
    {"section_size", "size of a section of chunks by default", [](auto& c) { return c.m_section_size; }},
    {"avg_chunk_size", "size of a chunk on average by default", [](auto& c) { return c.m_avg_chunk_size; },
     Unit::bytes},
    {"min_chunk_size", "least size of a chunk by default", [](auto& c) { return c.m_min_chunk_size; }, Unit::bytes},
    {"partial_lookup_on", "range lookup: partial matches are looked for",
     [](auto& c) { return c.m_b_partial_lookup_on; }},
    {"write_tshld", "range lookup: threshold of writing", [](auto& c) { return c.m_write_tshld; }},
    {"cold_pass_tshld", "range lookup: threshold of the cold pass", [](auto& c) { return c.m_cold_pass_tshld; }},
    {"lz_algorithm", "name of the LZ algorithm", [](auto& c) { return text_in(c.m_lz_algorithm); }},
    {"lz_min_msg_size", "smaller messages are not compressed with LZ", [](auto& c) { return c.m_lz_min_msg_size; },
     Unit::bytes},
    {"lz_mem_level", "memory level of LZ", [](auto& c) { return c.m_lz_memLevel; }},
    {"lz_windows_bits", "window of LZ, in bits", [](auto& c) { return c.m_lz_windowsBits; }},
    {"lz_comprs_level", "compression level of LZ", [](auto& c) { return c.m_lz_comprsLevel; }},
    {"lz_adaptive", "LZ leaves alone what does not compress", [](auto& c) { return c.m_lz_adaptive; }},
    {"lz_adaptive_thres", "threshold of adaptive LZ", [](auto& c) { return c.m_lz_adaptive_thres; }, Unit::percent},
    {"lz_adaptive_use_entropy", "adaptive LZ judges by entropy", [](auto& c) { return c.m_lz_adaptive_use_entropy; }},
    {"big_msg_checksum", "large messages have a checksum", [](auto& c) { return c.m_big_msg_checksum; }},
    {"plz_high_watermark", "fill level at which persistent LZ begins to save memory",
     [](auto& c) { return c.m_plz_high_watermark; }},
    {"plz_low_watermark", "fill level at which persistent LZ ends saving memory",
     [](auto& c) { return c.m_plz_low_watermark; }},
    {"plz_enabled", "persistent LZ is on", [](auto& c) { return c.m_b_plz_enabled; }},
    {"iov_block_size", "block size of message buffers", [](auto& c) { return c.m_iov_block_size; }, Unit::bytes},
    {"auto_bypass_threshold_in_mb", "traffic of a server after which it is judged whether it compresses",
     [](auto& c) { return c.m_kav_auto_bypass_threshold; }, Unit::megabytes},
};

constexpr Field<RE_bypass_entry> bypass_rows[] = {
    {"server_ip", "the server's address", [](auto& b) { return IpAddress{b.server_ip}; }},
    {"server_port", "the server's port", [](auto& b) { return Port{b.server_port}; }},
    {"reason", "the reason's code", [](auto& b) { return static_cast<int>(b.reason); }},
    {"reason_word", "why the server is bypassed",
     [](auto& b) {
         return Word{bypass_reason_words, static_cast<int>(b.reason)};
     }},
    {"since", "when the bypass began", [](auto& b) { return b.since; }, Unit::seconds_since_epoch},
    {"next_attempt", "when the server is tried again; 0 for never", [](auto& b) { return b.next_attempt; },
     Unit::seconds_since_epoch},
    {"bytes", "bytes bypassed since then", [](auto& b) { return b.bytes; }, Unit::bytes},
    {"connections", "connections bypassed since then", [](auto& b) { return b.connections; }, Unit::connections},
};

} // namespace

constinit const Fields<Snapshot> engine_fields = engine_rows;
constinit const Fields<SnapshotPeer> peer_fields = peer_rows;
constinit const Fields<SnapshotConn> connection_fields = connection_rows;
constinit const Fields<SO_stat_conn_header> transport_fields = transport_rows;
constinit const Fields<SnapshotApp> app_fields = app_rows;
constinit const Fields<RE_stat_nack_header> nack_fields = nack_rows;
constinit const Fields<RE_stat_config_param> config_fields = config_rows;
constinit const Fields<RE_bypass_entry> bypass_fields = bypass_rows;

} // namespace kavstat
