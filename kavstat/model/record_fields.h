// The fields of the engine's records by the keys that JSON gives them, each named once. visit: called with a key and a
// value, which is a bool, an integer or a text.
#pragma once

#include "RE_stat_records.h"
#include "format/text.h"
#include "model/words.h"

#include <cstdint>
#include <cstring>

namespace kavstat {

template <typename Visit>
void visit_config(const RE_stat_config_param& config, const Visit& visit)
{
    visit("mac_id", RE_mac_id(config.m_own_mac_id).getString());
    visit("kav_peer_id", RE_kav_peer_id(config.m_local_kav_peer_id).getString());
    visit("rep_accl_mode", config.m_b_rep_accl_mode);
    visit("comp_type", config.m_comp_type);
    visit("comp_type_word", word_for(comp_type_words, config.m_comp_type));
    visit("max_peer_slots", config.m_max_peer_slots);
    visit("max_con_cur_connection", config.m_max_con_cur_connection);
    visit("max_num_conn_slots", config.m_max_num_conn_slots);
    visit("max_fan_out", config.m_max_fan_out);
    visit("worker_threads_num", config.m_worker_threads_num);
    visit("total_kav_diskspace_in_mb", config.m_total_kav_diskspace_in_MB);
    visit("total_kav_memory_in_mb", config.m_total_kav_memory_in_MB);
    visit("hash_table_memory_in_mb", config.m_hash_table_memory_in_MB);
    visit("plz_memory_in_mb", config.m_PLZ_memory_in_MB);
    visit("plz_buffer_q_size", config.m_PLZ_buffer_q_size);
    visit("total_weq_buffer_size_in_mb", config.m_total_WEQ_buffer_size_in_MB);
    visit("cache_data_version", config.m_cache_data_version);
    visit("ack_q_weq_cap_in_mb", config.m_ack_q_WEQ_cap_in_MB);
    visit("ack_q_disk_cap_in_mb", config.m_ack_q_disk_cap_in_MB);
    visit("wait_q_cap_in_mb", config.m_wait_q_cap_in_MB);
    visit("max_sig_block_num", config.m_max_sig_block_num);
    visit("max_data_unit_num", config.m_max_data_unit_num);
    visit("sig_read_pool_size", config.m_sig_read_pool_size);
    visit("data_read_pool_size", config.m_data_read_pool_size);
    visit("anchor_distance", config.m_anchor_distance);
    visit("section_size", config.m_section_size);
    visit("avg_chunk_size", config.m_avg_chunk_size);
    visit("min_chunk_size", config.m_min_chunk_size);
    visit("partial_lookup_on", config.m_b_partial_lookup_on);
    visit("write_tshld", config.m_write_tshld);
    visit("cold_pass_tshld", config.m_cold_pass_tshld);
    visit("lz_algorithm", text_in(config.m_lz_algorithm));
    visit("lz_min_msg_size", config.m_lz_min_msg_size);
    visit("lz_mem_level", config.m_lz_memLevel);
    visit("lz_windows_bits", config.m_lz_windowsBits);
    visit("lz_comprs_level", config.m_lz_comprsLevel);
    visit("lz_adaptive", config.m_lz_adaptive);
    visit("lz_adaptive_thres", config.m_lz_adaptive_thres);
    visit("lz_adaptive_use_entropy", config.m_lz_adaptive_use_entropy);
    visit("big_msg_checksum", config.m_big_msg_checksum);
    visit("plz_high_watermark", config.m_plz_high_watermark);
    visit("plz_low_watermark", config.m_plz_low_watermark);
    visit("plz_enabled", config.m_b_plz_enabled);
    visit("iov_block_size", config.m_iov_block_size);
    visit("auto_bypass_threshold_in_mb", config.m_kav_auto_bypass_threshold);
}

// A connection as the transport optimizer sees it. One-bit flags of a byte are given as that byte's numbers.
template <typename Visit>
void visit_transport(const SO_stat_conn_header& header, const Visit& visit)
{
    const auto bits = [](const auto& flags) {
        unsigned char byte = 0;
        static_assert(sizeof flags == sizeof byte);
        std::memcpy(&byte, &flags, sizeof byte);
        return static_cast<int>(byte);
    };
    visit("conn_type", static_cast<int>(header.m_conn_type));
    visit("comp_type", static_cast<int>(header.m_comp_type));
    visit("eot_state", bits(header.m_eot_state));
    visit("ao_net_state", bits(header.m_ao_net_state));
    visit("wan_net_state", bits(header.m_wan_net_state));
    visit("local_latency_hint", static_cast<int>(header.m_local_hints.m_latency));
    visit("local_comp_off_hint", static_cast<int>(header.m_local_hints.m_comp_off));
    visit("local_re_mode_hint", static_cast<int>(header.m_local_hints.m_re_mode_hint));
    visit("remote_latency_hint", static_cast<int>(header.m_remote_hints.m_latency));
    visit("remote_comp_off_hint", static_cast<int>(header.m_remote_hints.m_comp_off));
    visit("remote_re_mode_hint", static_cast<int>(header.m_remote_hints.m_re_mode_hint));
    visit("active_latency_hint", static_cast<int>(header.m_active_hints.m_latency));
    visit("active_comp_off_hint", static_cast<int>(header.m_active_hints.m_comp_off));
    visit("active_re_mode_hint", static_cast<int>(header.m_active_hints.m_re_mode_hint));
    visit("local_cfg_kav_mode", static_cast<int>(header.m_local_cfg_kav_mode));
    visit("remote_cfg_kav_mode", static_cast<int>(header.m_remote_cfg_kav_mode));
    visit("applied_kav_mode", static_cast<int>(header.m_applied_kav_mode));
    visit("kav_mode_negotiated", header.m_kav_mode_negotiated != 0);
    visit("reset_code", static_cast<int>(header.m_reset_code));
    visit("class_id", static_cast<int>(header.m_class_id));
    visit("dscp", static_cast<int>(header.m_dscp));
    visit("wan_insert_ao_type", static_cast<int>(header.m_wan_insert_ao_type));
    visit("wan_fd", std::int32_t{header.m_wan_fd});
    visit("ao_fd", std::int32_t{header.m_ao_fd});
    visit("eot_remote_orig_bytes", std::int64_t{header.m_eot_remote_orig_bytes});
    visit("eot_local_orig_bytes", std::int64_t{header.m_eot_local_orig_bytes});
}

} // namespace kavstat
