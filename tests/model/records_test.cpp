#include "RE_stat_records.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <type_traits>

namespace {

// The nonzero bytes of a record by their offset.
using byte_map = std::map<std::size_t, int>;

template <typename Record>
byte_map bytes_of(const Record& record)
{
    static_assert(std::is_trivially_copyable_v<Record> && std::is_standard_layout_v<Record>);
    unsigned char raw[sizeof record];
    std::memcpy(raw, &record, sizeof record);
    byte_map result;
    for (std::size_t at = 0; at < sizeof record; ++at) {
        if (raw[at] != 0) {
            result[at] = raw[at];
        }
    }
    return result;
}

// Returns the bytes of a zeroed record after `change`.
template <typename Record, typename Change>
byte_map bytes_after(Change change)
{
    Record record;
    std::memset(static_cast<void*>(&record), 0, sizeof record);
    change(record);
    return bytes_of(record);
}

constexpr std::int32_t ascending = 0x04030201; // 01 02 03 04 in memory

TEST(peer_header, has_its_identifiers_first)
{
    using record = RE_stat_peer_header;
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_context_id.m_data[0] = 1; }), (byte_map{{0, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_context_id.m_data[19] = 1; }), (byte_map{{19, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_peer_mac_id.m_data[0] = 1; }), (byte_map{{20, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_kav_peer_id.m_data[0] = 1; }), (byte_map{{26, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_kav_peer_id.m_data[15] = 1; }), (byte_map{{41, 1}}));
}

TEST(peer_header, has_the_address_behind_two_bytes_of_padding_and_then_the_host_name)
{
    using record = RE_stat_peer_header;
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_peer_ip = 0x0a000001; }), (byte_map{{44, 0x01}, {47, 0x0a}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_peer_host_name[0] = 'a'; }), (byte_map{{48, 'a'}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_peer_host_name[256] = 'z'; }), (byte_map{{304, 'z'}}));
    EXPECT_EQ(sizeof(record), 308U);
}

TEST(peer_header, has_its_flags_low_bit_first_in_byte_305)
{
    using record = RE_stat_peer_header;
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_b_update_from_active_conn = 1; }), (byte_map{{305, 0x01}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_b_outdated = 1; }), (byte_map{{305, 0x02}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_pad = 0x3f; }), (byte_map{{305, 0xfc}}));
}

TEST(conn_header, has_its_fields_in_place)
{
    using record = RE_stat_conn_header;
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_conn_id = ascending; }),
              (byte_map{{0, 1}, {1, 2}, {2, 3}, {3, 4}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_client_ip = 0x0a000001; }), (byte_map{{4, 0x01}, {7, 0x0a}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_server_ip = 0x0a000001; }), (byte_map{{8, 0x01}, {11, 0x0a}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_client_port = 0x1f90; }), (byte_map{{12, 0x90}, {13, 0x1f}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_server_port = 443; }), (byte_map{{14, 0xbb}, {15, 0x01}}));
    EXPECT_EQ(sizeof(record), 16U);
}

TEST(conn_header, has_a_signed_id)
{
    RE_stat_conn_header header{};
    header.m_conn_id = -1;
    EXPECT_LT(header.m_conn_id, 0);
}

TEST(so_conn_header, has_the_connection_type_in_the_low_half_of_its_first_byte)
{
    using record = SO_stat_conn_header;
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_conn_type = 0xf; }), (byte_map{{0, 0x0f}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_comp_type = 0xf; }), (byte_map{{0, 0xf0}}));
}

TEST(so_conn_header, has_its_end_of_traffic_flags_low_bit_first)
{
    using record = SO_stat_conn_header;
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_eot_state.m_req_send = 1; }), (byte_map{{1, 0x01}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_eot_state.m_req_recv = 1; }), (byte_map{{1, 0x02}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_eot_state.m_ack_send = 1; }), (byte_map{{1, 0x04}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_eot_state.m_ack_recv = 1; }), (byte_map{{1, 0x08}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_eot_state.m_ss_req_send = 1; }), (byte_map{{1, 0x10}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_eot_state.m_ss_req_recv = 1; }), (byte_map{{1, 0x20}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_eot_state.m_ss_ack_send = 1; }), (byte_map{{1, 0x40}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_eot_state.m_ss_ack_recv = 1; }), (byte_map{{1, 0x80}}));
}

TEST(so_conn_header, has_the_flags_of_both_sockets_low_bit_first)
{
    using record = SO_stat_conn_header;
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_ao_net_state.m_rd_shut = 1; }), (byte_map{{2, 0x01}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_ao_net_state.m_wt_shut = 1; }), (byte_map{{2, 0x02}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_ao_net_state.m_close = 1; }), (byte_map{{2, 0x04}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_ao_net_state.m_peer_choke_on = 1; }), (byte_map{{2, 0x08}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_ao_net_state.m_rd_in_kq = 1; }), (byte_map{{2, 0x10}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_ao_net_state.m_wt_in_kq = 1; }), (byte_map{{2, 0x20}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_ao_net_state.m_envoy = 1; }), (byte_map{{2, 0x40}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_ao_net_state.unused = 1; }), (byte_map{{2, 0x80}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_wan_net_state.m_rd_shut = 1; }), (byte_map{{3, 0x01}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_wan_net_state.unused = 1; }), (byte_map{{3, 0x80}}));
}

TEST(so_conn_header, has_its_hints_low_bits_first)
{
    using record = SO_stat_conn_header;
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_local_hints.m_latency = 0xf; }), (byte_map{{4, 0x0f}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_local_hints.m_comp_off = 0xf; }), (byte_map{{4, 0xf0}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_local_hints.m_re_mode_hint = 3; }), (byte_map{{5, 0x03}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_local_hints.unused = 0x3f; }), (byte_map{{5, 0xfc}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_remote_hints.m_latency = 1; }), (byte_map{{6, 0x01}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_remote_hints.unused = 0x20; }), (byte_map{{7, 0x80}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_active_hints.m_latency = 1; }), (byte_map{{8, 0x01}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_active_hints.unused = 0x20; }), (byte_map{{9, 0x80}}));
}

TEST(so_conn_header, has_its_modes_low_bits_first_in_byte_10)
{
    using record = SO_stat_conn_header;
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_local_cfg_kav_mode = 3; }), (byte_map{{10, 0x03}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_remote_cfg_kav_mode = 3; }), (byte_map{{10, 0x0c}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_applied_kav_mode = 3; }), (byte_map{{10, 0x30}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_kav_mode_negotiated = 1; }), (byte_map{{10, 0x40}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_pad = 1; }), (byte_map{{10, 0x80}}));
}

TEST(so_conn_header, has_the_rest_without_any_padding)
{
    using record = SO_stat_conn_header;
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_reset_code = 1; }), (byte_map{{11, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_class_id = 1; }), (byte_map{{12, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_dscp = 1; }), (byte_map{{13, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_wan_insert_ao_type = 1; }), (byte_map{{14, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_wan_fd = ascending; }),
              (byte_map{{15, 1}, {16, 2}, {17, 3}, {18, 4}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_ao_fd = ascending; }),
              (byte_map{{19, 1}, {20, 2}, {21, 3}, {22, 4}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_eot_remote_orig_bytes = 0x0800000000000001; }),
              (byte_map{{23, 1}, {30, 8}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_eot_local_orig_bytes = 0x0800000000000001; }),
              (byte_map{{31, 1}, {38, 8}}));
    EXPECT_EQ(sizeof(record), 39U);
}

TEST(nack_header, has_its_fields_in_place)
{
    using record = RE_stat_nack_header;
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_time = ascending; }), (byte_map{{0, 1}, {1, 2}, {2, 3}, {3, 4}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_type = 0x0201; }), (byte_map{{4, 1}, {5, 2}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_reason = 0x0201; }), (byte_map{{6, 1}, {7, 2}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_peer_id = ascending; }),
              (byte_map{{8, 1}, {9, 2}, {10, 3}, {11, 4}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_conn_id = ascending; }),
              (byte_map{{12, 1}, {13, 2}, {14, 3}, {15, 4}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_msg_seq_no = ascending; }),
              (byte_map{{16, 1}, {17, 2}, {18, 3}, {19, 4}}));
    EXPECT_EQ(sizeof(record), 20U);
}

TEST(nack_header, has_signed_fields)
{
    RE_stat_nack_header header;
    std::memset(&header, 0xff, sizeof header);
    EXPECT_EQ(header.m_time, -1);
    EXPECT_EQ(header.m_type, -1);
    EXPECT_EQ(header.m_reason, -1);
    EXPECT_EQ(header.m_peer_id, -1);
    EXPECT_EQ(header.m_conn_id, -1);
    EXPECT_EQ(header.m_msg_seq_no, -1);
}

TEST(config_param, has_its_numbers_in_place)
{
    struct
    {
        std::int32_t RE_stat_config_param::*field;
        std::size_t offset;
    } const numbers[] = {
        {&RE_stat_config_param::m_comp_type, 24},
        {&RE_stat_config_param::m_max_peer_slots, 28},
        {&RE_stat_config_param::m_max_con_cur_connection, 32},
        {&RE_stat_config_param::m_max_num_conn_slots, 36},
        {&RE_stat_config_param::m_max_fan_out, 40},
        {&RE_stat_config_param::m_worker_threads_num, 44},
        {&RE_stat_config_param::m_total_kav_diskspace_in_MB, 48},
        {&RE_stat_config_param::m_total_kav_memory_in_MB, 52},
        {&RE_stat_config_param::m_hash_table_memory_in_MB, 56},
        {&RE_stat_config_param::m_PLZ_memory_in_MB, 60},
        {&RE_stat_config_param::m_PLZ_buffer_q_size, 64},
        {&RE_stat_config_param::m_total_WEQ_buffer_size_in_MB, 68},
        {&RE_stat_config_param::m_cache_data_version, 72},
        {&RE_stat_config_param::m_ack_q_WEQ_cap_in_MB, 76},
        {&RE_stat_config_param::m_ack_q_disk_cap_in_MB, 80},
        {&RE_stat_config_param::m_wait_q_cap_in_MB, 84},
        {&RE_stat_config_param::m_max_sig_block_num, 88},
        {&RE_stat_config_param::m_max_data_unit_num, 92},
        {&RE_stat_config_param::m_sig_read_pool_size, 96},
        {&RE_stat_config_param::m_data_read_pool_size, 100},
        {&RE_stat_config_param::m_anchor_distance, 104},
        {&RE_stat_config_param::m_section_size, 108},
        {&RE_stat_config_param::m_avg_chunk_size, 112},
        {&RE_stat_config_param::m_min_chunk_size, 116},
        {&RE_stat_config_param::m_lz_min_msg_size, 160},
        {&RE_stat_config_param::m_lz_memLevel, 164},
        {&RE_stat_config_param::m_lz_windowsBits, 168},
        {&RE_stat_config_param::m_lz_comprsLevel, 172},
        {&RE_stat_config_param::m_lz_adaptive_thres, 180},
        {&RE_stat_config_param::m_plz_high_watermark, 188},
        {&RE_stat_config_param::m_plz_low_watermark, 192},
        {&RE_stat_config_param::m_iov_block_size, 200},
        {&RE_stat_config_param::m_kav_auto_bypass_threshold, 204},
    };
    for (const auto& number : numbers) {
        EXPECT_EQ(
            bytes_after<RE_stat_config_param>([&](RE_stat_config_param& c) { c.*number.field = ascending; }),
            (byte_map{{number.offset, 1}, {number.offset + 1, 2}, {number.offset + 2, 3}, {number.offset + 3, 4}}));
    }
    EXPECT_EQ(sizeof(RE_stat_config_param), 208U);
}

TEST(config_param, has_its_switches_in_place)
{
    using record = RE_stat_config_param;
    EXPECT_EQ(bytes_after<record>([](record& c) { c.m_b_rep_accl_mode = true; }), (byte_map{{22, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& c) { c.m_b_partial_lookup_on = true; }), (byte_map{{120, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& c) { c.m_lz_adaptive = true; }), (byte_map{{176, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& c) { c.m_lz_adaptive_use_entropy = true; }), (byte_map{{184, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& c) { c.m_big_msg_checksum = true; }), (byte_map{{185, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& c) { c.m_b_plz_enabled = true; }), (byte_map{{196, 1}}));
}

TEST(config_param, has_its_identifiers_thresholds_and_text_in_place)
{
    using record = RE_stat_config_param;
    EXPECT_EQ(bytes_after<record>([](record& c) { c.m_own_mac_id.m_data[5] = 1; }), (byte_map{{5, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& c) { c.m_local_kav_peer_id.m_data[0] = 1; }), (byte_map{{6, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& c) { c.m_local_kav_peer_id.m_data[15] = 1; }), (byte_map{{21, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& c) { c.m_write_tshld = 0x0201; }), (byte_map{{122, 1}, {123, 2}}));
    EXPECT_EQ(bytes_after<record>([](record& c) { c.m_cold_pass_tshld = 0x0201; }), (byte_map{{124, 1}, {125, 2}}));
    EXPECT_EQ(bytes_after<record>([](record& c) { c.m_lz_algorithm[0] = 'a'; }), (byte_map{{126, 'a'}}));
    EXPECT_EQ(bytes_after<record>([](record& c) { c.m_lz_algorithm[31] = 'z'; }), (byte_map{{157, 'z'}}));
}

TEST(app_header, packs_twelve_bytes_of_bit_fields_without_gaps)
{
    using record = RE_stat_app_header;
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_policy_engine_handler = 0x3ff; }),
              (byte_map{{0, 0xff}, {1, 0x03}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_reserve_not_used = 0x3fffff; }),
              (byte_map{{1, 0xfc}, {2, 0xff}, {3, 0xff}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_server_port = 0xffff; }), (byte_map{{4, 0xff}, {5, 0xff}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_b_src_port = 1; }), (byte_map{{6, 0x01}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_open_cnt = 0x7fffff; }),
              (byte_map{{6, 0xfe}, {7, 0xff}, {8, 0xff}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_close_cnt = 0xffffff; }),
              (byte_map{{9, 0xff}, {10, 0xff}, {11, 0xff}}));
}

TEST(app_header, carries_the_open_count_across_byte_8)
{
    using record = RE_stat_app_header;
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_open_cnt = 1; }), (byte_map{{6, 0x02}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_open_cnt = 1 << 14; }), (byte_map{{7, 0x80}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_open_cnt = 1 << 15; }), (byte_map{{8, 0x01}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_open_cnt = 1 << 22; }), (byte_map{{8, 0x80}}));

    RE_stat_app_header header{};
    header.m_open_cnt = 8388607;
    EXPECT_EQ(header.m_open_cnt, 8388607U);
    EXPECT_EQ(header.m_close_cnt, 0U);
}

TEST(app_header, has_the_peer_behind_the_bit_fields_and_no_padding)
{
    using record = RE_stat_app_header;
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_kav_peer_id.m_data[0] = 1; }), (byte_map{{12, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_kav_peer_id.m_data[15] = 1; }), (byte_map{{27, 1}}));
    EXPECT_EQ(sizeof(record), 28U);
}

RE_stat_app_header sample_app_header()
{
    RE_stat_app_header header{};
    RE_kav_peer_id peer{};
    peer.m_data[0] = 0x5a;
    header.set(peer, 443, true);
    header.set_policy_engine_handler(17);
    return header;
}

TEST(app_header, is_set_to_peer_port_and_flag_and_keeps_the_rest)
{
    RE_stat_app_header header{};
    header.m_policy_engine_handler = 17;
    header.m_open_cnt = 5;
    header.m_close_cnt = 4;
    RE_kav_peer_id peer{};
    peer.m_data[0] = 0x5a;
    header.set(peer, 65535, true);
    // 17, port 65535, flag 1 below an open count of 5, close count 4, the peer.
    EXPECT_EQ(bytes_of(header), (byte_map{{0, 17}, {4, 0xff}, {5, 0xff}, {6, 0x0b}, {9, 4}, {12, 0x5a}}));
    header.set(RE_kav_peer_id{}, 0, false);
    EXPECT_EQ(bytes_of(header), (byte_map{{0, 17}, {6, 0x0a}, {9, 4}}));
}

TEST(app_header, keeps_ten_bits_of_a_handle)
{
    RE_stat_app_header header{};
    header.m_reserve_not_used = 0x3fffff;
    header.set_policy_engine_handler(1023);
    EXPECT_EQ(header.m_policy_engine_handler, 1023U);
    header.set_policy_engine_handler(1024);
    EXPECT_EQ(header.m_policy_engine_handler, 0U);
    header.set_policy_engine_handler(0xfffffc05);
    EXPECT_EQ(header.m_policy_engine_handler, 5U);
    EXPECT_EQ(header.m_reserve_not_used, 0x3fffffU) << "the bits beside the handle stay";
}

TEST(app_header, is_reset_to_nothing)
{
    RE_stat_app_header header;
    std::memset(static_cast<void*>(&header), 0xff, sizeof header);
    header.reset();
    EXPECT_EQ(bytes_of(header), byte_map{});
}

TEST(app_header, is_equal_by_handle_port_flag_and_peer_whatever_the_counts)
{
    const RE_stat_app_header header = sample_app_header();
    RE_stat_app_header other = header;
    other.m_open_cnt = 3;
    other.m_close_cnt = 2;
    EXPECT_TRUE(header == other);
    EXPECT_FALSE(header != other);
    EXPECT_EQ(header.hash_u32(), other.hash_u32()) << "what is equal has one hash";

    other = header;
    other.m_server_port = 444;
    EXPECT_TRUE(header != other);
    other = header;
    other.m_b_src_port = 0;
    EXPECT_TRUE(header != other);
    other = header;
    other.set_policy_engine_handler(18);
    EXPECT_TRUE(header != other);
    other = header;
    other.m_kav_peer_id.m_data[15] = 1;
    EXPECT_TRUE(header != other);
}

TEST(app_header, hashes_handle_port_flag_and_peer)
{
    const RE_stat_app_header header = sample_app_header();
    RE_stat_app_header other = header;
    other.m_server_port = 444;
    EXPECT_NE(header.hash_u32(), other.hash_u32());
    other = header;
    other.m_b_src_port = 0;
    EXPECT_NE(header.hash_u32(), other.hash_u32());
    other = header;
    other.set_policy_engine_handler(18);
    EXPECT_NE(header.hash_u32(), other.hash_u32());
    other = header;
    other.m_kav_peer_id.m_data[15] = 1;
    EXPECT_NE(header.hash_u32(), other.hash_u32());
}

TEST(app_struct, has_18_counters_and_then_its_header)
{
    using record = RE_stat_app_struct;
    EXPECT_EQ(bytes_after<record>([](record& a) { a.m_id_array[0] = 0x04030201; }),
              (byte_map{{0, 1}, {1, 2}, {2, 3}, {3, 4}}));
    EXPECT_EQ(bytes_after<record>([](record& a) { a.m_id_array[17] = 0x04030201; }),
              (byte_map{{68, 1}, {69, 2}, {70, 3}, {71, 4}}));
    EXPECT_EQ(bytes_after<record>([](record& a) { a.m_header.m_policy_engine_handler = 1; }), (byte_map{{72, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& a) { a.m_header.m_server_port = 443; }),
              (byte_map{{76, 0xbb}, {77, 0x01}}));
    EXPECT_EQ(bytes_after<record>([](record& a) { a.m_header.m_kav_peer_id.m_data[15] = 1; }), (byte_map{{99, 1}}));
    EXPECT_EQ(sizeof(record), 100U);
}

RE_stat_policy_engine_header names(const std::string& classifier, const std::string& application)
{
    RE_stat_policy_engine_header header{};
    std::memcpy(header.m_policy_engine_classifier_name, classifier.data(), classifier.size());
    std::memcpy(header.m_policy_engine_application_name, application.data(), application.size());
    return header;
}

// Compares two headers. Returns "<" when the first one comes first, ">" when the second one does, and "=" when they are
// equal.
std::string order(const RE_stat_policy_engine_header& a, const RE_stat_policy_engine_header& b)
{
    return std::string(a < b ? "<" : "") + (b < a ? ">" : "") + (a == b ? "=" : "");
}

TEST(policy_engine_header, has_the_application_first)
{
    using record = RE_stat_policy_engine_header;
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_policy_engine_application_name[0] = 'a'; }),
              (byte_map{{0, 'a'}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_policy_engine_application_name[40] = 'a'; }),
              (byte_map{{40, 'a'}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_policy_engine_classifier_name[0] = 'c'; }),
              (byte_map{{41, 'c'}}));
    EXPECT_EQ(bytes_after<record>([](record& h) { h.m_policy_engine_classifier_name[40] = 'c'; }),
              (byte_map{{81, 'c'}}));
    EXPECT_EQ(sizeof(record), 82U);
}

TEST(policy_engine_header, is_ordered_by_classifier_and_then_by_application)
{
    EXPECT_EQ(order(names("ftp", "z"), names("http", "a")), "<");
    EXPECT_EQ(order(names("http", "a"), names("ftp", "z")), ">");
    EXPECT_EQ(order(names("http", "mail"), names("http", "web")), "<");
    EXPECT_EQ(order(names("http", "web"), names("http", "mail")), ">");
    EXPECT_EQ(order(names("http", "web"), names("http", "web")), "=");
}

TEST(policy_engine_header, orders_a_beginning_before_the_whole)
{
    EXPECT_EQ(order(names("http", ""), names("https", "")), "<");
    EXPECT_EQ(order(names("", "web"), names("", "webmail")), "<");
    EXPECT_EQ(order(names("", ""), names("a", "")), "<");
}

TEST(policy_engine_header, is_ordered_by_bytes_without_sign_or_case)
{
    EXPECT_EQ(order(names("Z", ""), names("a", "")), "<");
    EXPECT_EQ(order(names("z", ""), names("\xc3\xa4", "")), "<");
}

TEST(policy_engine_header, does_not_look_behind_a_nul)
{
    EXPECT_EQ(order(names(std::string("web\0x", 5), "a"), names(std::string("web\0y", 5), "a")), "=");
    EXPECT_EQ(order(names("web", std::string("a\0x", 3)), names("web", std::string("a\0y", 3))), "=");
}

TEST(policy_engine_header, ends_a_name_without_nul_at_its_array)
{
    const std::string full(41, 'n');
    const std::string other = std::string(40, 'n') + "o";
    // The classifier is at the end of the record, after the application. The missing NUL must not join the two.
    EXPECT_EQ(order(names(full, full), names(full, full)), "=");
    EXPECT_EQ(order(names(full, full), names(full, other)), "<");
    EXPECT_EQ(order(names(full, other), names(other, full)), "<");
    EXPECT_EQ(order(names("a", full), names("b", full)), "<");
    EXPECT_EQ(order(names(full.substr(1), full), names(full, full)), "<");
}

TEST(conn_for_qlt, has_eight_byte_counters_and_four_latencies)
{
    using record = RE_stat_conn_for_qlt;
    EXPECT_EQ(bytes_after<record>([](record& q) { q.re_encode_in_bytes = 1; }), (byte_map{{0, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& q) { q.re_decode_in_bytes = 1; }), (byte_map{{8, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& q) { q.re_encode_out_bytes = 1; }), (byte_map{{16, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& q) { q.re_decode_out_bytes = 1; }), (byte_map{{24, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& q) { q.lz_encode_in_bytes = 1; }), (byte_map{{32, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& q) { q.lz_decode_in_bytes = 1; }), (byte_map{{40, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& q) { q.lz_encode_out_bytes = 1; }), (byte_map{{48, 1}}));
    EXPECT_EQ(bytes_after<record>([](record& q) { q.lz_decode_out_bytes = 1; }), (byte_map{{56, 1}}));
    // 1.0 in single precision is 3f800000.
    EXPECT_EQ(bytes_after<record>([](record& q) { q.avg_encode_latency = 1; }), (byte_map{{66, 0x80}, {67, 0x3f}}));
    EXPECT_EQ(bytes_after<record>([](record& q) { q.avg_decode_latency = 1; }), (byte_map{{70, 0x80}, {71, 0x3f}}));
    EXPECT_EQ(bytes_after<record>([](record& q) { q.avg_encode_lz_latency = 1; }), (byte_map{{74, 0x80}, {75, 0x3f}}));
    EXPECT_EQ(bytes_after<record>([](record& q) { q.avg_decode_lz_latency = 1; }), (byte_map{{78, 0x80}, {79, 0x3f}}));
}

} // namespace
