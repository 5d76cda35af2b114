// The C interface: what an engine publishes through it is what readers read, and wrong arguments change nothing.
#include "kav_core.h"
#include "support/engine_fixture.h"

#include <climits>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <set>

namespace {

class c_interface_test : public segment_test
{
protected:
    ~c_interface_test() override { kav_writer_close(m_writer); }

    void start(const kav_limits* limits = nullptr)
    {
        ASSERT_EQ(kav_writer_create(&m_writer, limits, 1'600'000'000, 0640), 0);
        ASSERT_EQ(kav_writer_publish(m_writer), 0);
        m_reader = live_reader();
        ASSERT_EQ(m_reader->open(), 0);
    }
    kav_writer* writer() const { return m_writer; }
    RE_stat_reader& reader() const { return *m_reader; }

    int add_peer(int number = 7) { return kav_writer_add_peer(m_writer, number, &m_peer); }
    int open_connection(int peer_slot)
    {
        return kav_writer_open_connection(m_writer, peer_slot, &m_connection, &m_transport, 1'600'000'100);
    }
    long long global(int id) const
    {
        long long value = LLONG_MIN;
        m_reader->read_global_stat(id, value);
        return value;
    }

    kav_peer m_peer = {};
    kav_connection m_connection = {31, 0xc000020a, 0xc6336414, 40000, 80};
    kav_transport m_transport = {};

private:
    kav_writer* m_writer = nullptr;
    std::unique_ptr<RE_stat_reader> m_reader;
};

TEST_F(c_interface_test, a_peer_is_published_with_every_field)
{
    start();
    for (unsigned char at = 0; at < 20; ++at) {
        m_peer.context_id[at] = static_cast<unsigned char>(at + 1);
    }
    std::memcpy(m_peer.mac_id, "\x02\x4b\x41\x56\x00\x09", 6);
    std::memcpy(m_peer.kav_peer_id, "0123456789abcdef", 16);
    m_peer.ip = 0xcb007101;
    const std::string long_name(400, 'n');
    m_peer.host_name = long_name.c_str();
    m_peer.from_active_connection = true;
    const int slot = add_peer();
    ASSERT_EQ(slot, 0);
    EXPECT_EQ(kav_writer_set_peer_stat(writer(), slot, RE_STAT_PEER_ID_NUM_TOTAL_CONNS, 40), 0);
    EXPECT_EQ(kav_writer_add_peer_stat(writer(), slot, RE_STAT_PEER_ID_NUM_TOTAL_CONNS, 2), 0);

    RE_stat_peer_header header{};
    ASSERT_TRUE(reader().is_peer_valid(slot));
    reader().read_peer_header(slot, header);
    EXPECT_EQ(header.m_context_id.m_data[0], 1);
    EXPECT_EQ(header.m_context_id.m_data[19], 20);
    EXPECT_EQ(header.m_peer_mac_id.getString(), "02:4b:41:56:00:09");
    EXPECT_EQ(std::memcmp(header.m_kav_peer_id.data(), "0123456789abcdef", 16), 0);
    EXPECT_EQ(header.m_peer_ip, 0xcb007101U);
    EXPECT_EQ(std::string(header.m_peer_host_name), std::string(256, 'n'));
    EXPECT_EQ(header.m_b_outdated, 0);
    EXPECT_EQ(header.m_b_update_from_active_conn, 1);
    int number = 0;
    reader().read_peer_id(slot, number);
    EXPECT_EQ(number, 7);
    long long value = 0;
    reader().read_peer_stat(slot, RE_STAT_PEER_ID_NUM_TOTAL_CONNS, value);
    EXPECT_EQ(value, 42);

    m_peer.host_name = nullptr;
    m_peer.outdated = true;
    m_peer.from_active_connection = false;
    EXPECT_EQ(kav_writer_update_peer(writer(), slot, &m_peer), 0);
    ASSERT_TRUE(reader().is_peer_valid(slot));
    reader().read_peer_header(slot, header);
    EXPECT_STREQ(header.m_peer_host_name, "");
    EXPECT_EQ(header.m_b_outdated, 1);
    EXPECT_EQ(header.m_b_update_from_active_conn, 0);
    EXPECT_EQ(kav_writer_remove_peer(writer(), slot), 0);
    EXPECT_FALSE(reader().is_peer_valid(slot));
}

TEST_F(c_interface_test, a_connection_is_published_with_every_field)
{
    start();
    const int peer = add_peer();
    m_transport.type = 9;
    m_transport.compression = KAV_COMPRESSION_BOTH;
    m_transport.end_of_traffic = KAV_END_REQUEST_RECEIVED | KAV_END_SINGLE_ACK_RECEIVED;
    m_transport.application_socket = KAV_SOCKET_WRITE_SHUT | KAV_SOCKET_ENVOY;
    m_transport.wan_socket = KAV_SOCKET_READ_SHUT | KAV_SOCKET_AWAITS_WRITE;
    m_transport.local_hints = {1, 2, 3};
    m_transport.remote_hints = {4, 5, 2};
    m_transport.active_hints = {15, 14, 1};
    m_transport.local_mode = 1;
    m_transport.remote_mode = 2;
    m_transport.applied_mode = 3;
    m_transport.mode_negotiated = true;
    m_transport.reset_code = 21;
    m_transport.class_id = 22;
    m_transport.dscp = 23;
    m_transport.wan_insert_type = 24;
    m_transport.wan_descriptor = 25;
    m_transport.application_descriptor = 26;
    m_transport.end_of_traffic_remote_bytes = 27;
    m_transport.end_of_traffic_local_bytes = 28;
    const int slot = open_connection(peer);
    ASSERT_EQ(slot, 0);

    ASSERT_TRUE(reader().is_conn_valid(slot));
    RE_stat_conn_header ends{};
    reader().read_conn_header(slot, ends);
    EXPECT_EQ(ends.m_conn_id, 31);
    EXPECT_EQ(ends.m_client_ip, 0xc000020aU);
    EXPECT_EQ(ends.m_server_ip, 0xc6336414U);
    EXPECT_EQ(ends.m_client_port, 40000);
    EXPECT_EQ(ends.m_server_port, 80);
    SO_stat_conn_header state{}; // packed, so that its members are compared by value
    reader().read_conn_so_header(slot, state);
    EXPECT_EQ(+state.m_conn_type, 9);
    EXPECT_EQ(+state.m_comp_type, 3);
    EXPECT_TRUE(state.m_eot_state.m_req_recv && state.m_eot_state.m_ss_ack_recv && !state.m_eot_state.m_req_send);
    EXPECT_TRUE(state.m_ao_net_state.m_wt_shut && state.m_ao_net_state.m_envoy && !state.m_ao_net_state.m_rd_shut);
    EXPECT_TRUE(state.m_wan_net_state.m_rd_shut && state.m_wan_net_state.m_wt_in_kq && !state.m_wan_net_state.m_close);
    EXPECT_EQ(state.m_local_hints.m_latency, 1);
    EXPECT_EQ(state.m_local_hints.m_comp_off, 2);
    EXPECT_EQ(state.m_local_hints.m_re_mode_hint, 3);
    EXPECT_EQ(state.m_remote_hints.m_latency, 4);
    EXPECT_EQ(state.m_active_hints.m_latency, 15);
    EXPECT_EQ(+state.m_local_cfg_kav_mode, 1);
    EXPECT_EQ(+state.m_remote_cfg_kav_mode, 2);
    EXPECT_EQ(+state.m_applied_kav_mode, 3);
    EXPECT_EQ(state.m_kav_mode_negotiated, 1);
    EXPECT_EQ(+state.m_reset_code, 21);
    EXPECT_EQ(+state.m_class_id, 22);
    EXPECT_EQ(+state.m_dscp, 23);
    EXPECT_EQ(+state.m_wan_insert_ao_type, 24);
    EXPECT_EQ(+state.m_wan_fd, 25);
    EXPECT_EQ(+state.m_ao_fd, 26);
    EXPECT_EQ(+state.m_eot_remote_orig_bytes, 27);
    EXPECT_EQ(+state.m_eot_local_orig_bytes, 28);

    EXPECT_EQ(kav_writer_add_connection_stat(writer(), slot, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 1000), 0);
    EXPECT_EQ(kav_writer_set_connection_stat(writer(), slot, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 700), 0);
    long long value = 0;
    reader().read_conn_stat(slot, RE_STAT_CONN_ID_ENCODE_IN_BYTES, value);
    EXPECT_EQ(value, 700);
    reader().read_global_conn_stat(RE_STAT_CONN_ID_ENCODE_IN_BYTES, value);
    EXPECT_EQ(value, 700);

    EXPECT_EQ(reader().read_global_active_conn_count(), 1);
    EXPECT_EQ(kav_writer_close_connection(writer(), slot, 1'600'000'200), 0);
    EXPECT_EQ(reader().read_global_active_conn_count(), 0);
    std::time_t opened = 0;
    std::time_t closed = 0;
    ASSERT_TRUE(reader().is_conn_valid(slot));
    reader().read_conn_time(slot, opened, closed);
    EXPECT_EQ(opened, 1'600'000'100);
    EXPECT_EQ(closed, 1'600'000'200);
    EXPECT_EQ(kav_writer_release_connection(writer(), slot), 0);
    EXPECT_FALSE(reader().is_conn_valid(slot));
}

TEST_F(c_interface_test, applications_nacks_and_bypassed_servers_are_published)
{
    start();
    kav_application application = {{0}, 1023, 443, true};
    std::memcpy(application.kav_peer_id, "0123456789abcdef", 16);
    const int slot = kav_writer_find_or_add_application(writer(), &application);
    ASSERT_EQ(slot, 0);
    EXPECT_EQ(kav_writer_find_or_add_application(writer(), &application), slot);
    EXPECT_EQ(kav_writer_add_application_stat(writer(), slot, 3, 5), 0);
    EXPECT_EQ(kav_writer_add_application_connections(writer(), slot, 4, 1), 0);
    RE_stat_app_header key{};
    reader().read_app_header(slot, key);
    EXPECT_EQ(key.m_policy_engine_handler, 1023U);
    EXPECT_EQ(key.m_server_port, 443U);
    EXPECT_EQ(key.m_b_src_port, 1U);
    EXPECT_EQ(key.m_open_cnt, 4U);
    EXPECT_EQ(key.m_close_cnt, 1U);
    EXPECT_EQ(std::memcmp(key.m_kav_peer_id.data(), "0123456789abcdef", 16), 0);
    long value = 0;
    reader().read_app_stat(slot, 3, value);
    EXPECT_EQ(value, 5);

    const kav_nack nack = {1'600'000'300, KAV_NACK_AT_SENDER, KAV_NACK_DISK_OVERLOADED, 7, 31, 99};
    EXPECT_EQ(kav_writer_add_nack(writer(), &nack), 0);
    const std::vector<RE_stat_nack_header> nacks = all_nacks(reader());
    ASSERT_EQ(nacks.size(), 1U);
    EXPECT_EQ(nacks[0].m_time, 1'600'000'300);
    EXPECT_EQ(nacks[0].m_type, 1);
    EXPECT_EQ(nacks[0].m_reason, 3);
    EXPECT_EQ(nacks[0].m_peer_id, 7);
    EXPECT_EQ(nacks[0].m_conn_id, 31);
    EXPECT_EQ(nacks[0].m_msg_seq_no, 99);

    const kav_bypass bypass = {0xc6336414, 443, KAV_BYPASS_REPEATED_NACKS, 11, 12, 13, 14};
    EXPECT_EQ(kav_writer_set_bypass(writer(), &bypass), 0);
    const auto* const table =
        static_cast<const RE_bypass_table*>(reader().get_re_auto_bypass_memory_ptr(sizeof(RE_bypass_table)));
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->rows[0].b_in_use, 1U);
    EXPECT_EQ(table->rows[0].entry.server_ip, 0xc6336414U);
    EXPECT_EQ(table->rows[0].entry.server_port, 443);
    EXPECT_EQ(table->rows[0].entry.reason, RE_bypass_reason::repeated_nacks);
    EXPECT_EQ(table->rows[0].entry.since, 11);
    EXPECT_EQ(table->rows[0].entry.next_attempt, 12);
    EXPECT_EQ(table->rows[0].entry.bytes, 13U);
    EXPECT_EQ(table->rows[0].entry.connections, 14U);
    EXPECT_EQ(kav_writer_clear_bypass(writer(), 0xc6336414, 443), 0);
    EXPECT_EQ(table->rows[0].b_in_use, 0U);
    EXPECT_EQ(kav_writer_clear_bypass(writer(), 0xc6336414, 443), KAV_ERROR_NOT_FOUND);
}

// Every integer has a value of its own, so that no field is copied to another one's place.
TEST_F(c_interface_test, the_configuration_is_published_with_every_field)
{
    start();
    kav_configuration from = {};
    std::memcpy(from.own_mac_id, "\x02\x4b\x41\x56\x00\x08", 6);
    std::memcpy(from.local_kav_peer_id, "0123456789abcdef", 16);
    from.compression = 3;
    std::int32_t number = 100;
    for (std::int32_t* at = &from.max_peer_slots; at <= &from.min_chunk_size; ++at) {
        *at = number++;
    }
    from.replication_acceleration = from.partial_lookup = from.lz_adaptive = from.plz_enabled = true;
    from.write_threshold = 201;
    from.cold_pass_threshold = 202;
    from.lz_algorithm = "deflate, at a level that does not fit";
    from.lz_min_message_size = 203;
    from.lz_memory_level = 204;
    from.lz_window_bits = 205;
    from.lz_compression_level = 206;
    from.lz_adaptive_threshold = 207;
    from.plz_high_watermark = 208;
    from.plz_low_watermark = 209;
    from.iov_block_size = 210;
    from.auto_bypass_threshold_mb = 211;
    ASSERT_EQ(kav_writer_set_configuration(writer(), &from), 0);

    const RE_stat_config_param* const read = reader().get_config_param();
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(std::memcmp(read->m_own_mac_id.m_data, from.own_mac_id, 6), 0);
    EXPECT_EQ(std::memcmp(read->m_local_kav_peer_id.m_data, from.local_kav_peer_id, 16), 0);
    EXPECT_EQ(read->m_comp_type, 3);
    number = 100;
    for (const std::int32_t* at = &read->m_max_peer_slots; at <= &read->m_min_chunk_size; ++at) {
        EXPECT_EQ(*at, number++);
    }
    EXPECT_EQ(number, 123);
    EXPECT_TRUE(read->m_b_rep_accl_mode && read->m_b_partial_lookup_on && read->m_lz_adaptive && read->m_b_plz_enabled);
    EXPECT_FALSE(read->m_lz_adaptive_use_entropy || read->m_big_msg_checksum);
    EXPECT_EQ(read->m_write_tshld, 201);
    EXPECT_EQ(read->m_cold_pass_tshld, 202);
    EXPECT_STREQ(read->m_lz_algorithm, "deflate, at a level that does n");
    EXPECT_EQ(read->m_lz_min_msg_size, 203);
    EXPECT_EQ(read->m_lz_memLevel, 204);
    EXPECT_EQ(read->m_lz_windowsBits, 205);
    EXPECT_EQ(read->m_lz_comprsLevel, 206);
    EXPECT_EQ(read->m_lz_adaptive_thres, 207);
    EXPECT_EQ(read->m_plz_high_watermark, 208);
    EXPECT_EQ(read->m_plz_low_watermark, 209);
    EXPECT_EQ(read->m_iov_block_size, 210);
    EXPECT_EQ(read->m_kav_auto_bypass_threshold, 211);
}

TEST_F(c_interface_test, a_saved_file_holds_the_same_statistics)
{
    const scratch_folder folder(disk());
    ASSERT_EQ(kav_writer_save(nullptr, "file"), KAV_ERROR_ARGUMENT);
    start();
    open_connection(add_peer());
    kav_writer_set_global(writer(), RE_STAT_GLOBAL_ID_CACHE_STATE, KAV_CACHE_USABLE);
    kav_writer_add_global(writer(), RE_STAT_GLOBAL_ID_CACHE_STATE, 1);
    EXPECT_EQ(global(RE_STAT_GLOBAL_ID_CACHE_STATE), 3);
    ASSERT_EQ(kav_writer_save(writer(), folder.file("saved").c_str()), 0);
    const std::unique_ptr<RE_stat_reader> saved = file_reader(folder.file("saved"));
    ASSERT_GE(saved->open(), 0);
    expect_same_statistics(reader(), *saved);

    EXPECT_EQ(kav_writer_save(writer(), nullptr), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_save(writer(), folder.path().c_str()), KAV_ERROR_FILE);
}

TEST_F(c_interface_test, an_unpublished_writer_saves_nothing)
{
    const scratch_folder folder(disk());
    kav_writer* writer = nullptr;
    ASSERT_EQ(kav_writer_create(&writer, nullptr, 1, 0640), 0);
    EXPECT_EQ(kav_writer_save(writer, folder.file("saved").c_str()), KAV_ERROR_ARGUMENT);
    kav_writer_close(writer);
}

TEST_F(c_interface_test, a_removed_segment_is_published_again)
{
    start();
    add_peer();
    EXPECT_EQ(kav_writer_is_in_place(writer()), 1);
    std::filesystem::remove(segment_path());
    EXPECT_EQ(kav_writer_is_in_place(writer()), 0);
    EXPECT_EQ(kav_writer_publish_again(writer()), 0);
    EXPECT_EQ(kav_writer_is_in_place(writer()), 1);
    const std::unique_ptr<RE_stat_reader> again = live_reader();
    ASSERT_EQ(again->open(), 0);
    EXPECT_TRUE(again->is_peer_valid(0));
}

TEST_F(c_interface_test, a_second_engine_of_the_name_and_full_tables_are_refused)
{
    const kav_limits one = {1, 1, 1, 1};
    start(&one);
    kav_writer* second = reinterpret_cast<kav_writer*>(1);
    EXPECT_EQ(kav_writer_create(&second, nullptr, 1, 0640), KAV_ERROR_BUSY);
    EXPECT_EQ(second, nullptr);

    const int peer = add_peer();
    EXPECT_EQ(peer, 0);
    EXPECT_EQ(add_peer(), KAV_ERROR_FULL);
    EXPECT_EQ(open_connection(peer), 0);
    EXPECT_EQ(open_connection(peer), KAV_ERROR_FULL);
    kav_application application = {};
    EXPECT_EQ(kav_writer_find_or_add_application(writer(), &application), 0);
    application.port = 1;
    EXPECT_EQ(kav_writer_find_or_add_application(writer(), &application), KAV_ERROR_FULL);
    for (std::uint32_t server = 1; server <= RE_bypass_capacity; ++server) {
        const kav_bypass bypass = {server, 80, KAV_BYPASS_CONFIGURED, 0, 0, 0, 0};
        ASSERT_EQ(kav_writer_set_bypass(writer(), &bypass), 0);
    }
    const kav_bypass bypass = {0, 80, KAV_BYPASS_CONFIGURED, 0, 0, 0, 0};
    EXPECT_EQ(kav_writer_set_bypass(writer(), &bypass), KAV_ERROR_FULL);
}

TEST_F(c_interface_test, null_pointers_are_refused)
{
    EXPECT_EQ(kav_writer_create(nullptr, nullptr, 1, 0640), KAV_ERROR_ARGUMENT);
    kav_writer_close(nullptr);
    EXPECT_EQ(kav_writer_publish(nullptr), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_is_in_place(nullptr), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_publish_again(nullptr), KAV_ERROR_ARGUMENT);
    start();
    const int conn = open_connection(add_peer());
    const kav_configuration configuration = {};
    const kav_application application = {};
    const kav_nack nack = {};
    const kav_bypass bypass = {1, 80, KAV_BYPASS_CONFIGURED, 0, 0, 0, 0};
    kav_writer* const none = nullptr;
    EXPECT_EQ(kav_writer_set_configuration(none, &configuration), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_add_global(none, 0, 1), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_set_global(none, 0, 1), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_add_peer(none, 1, &m_peer), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_update_peer(none, 0, &m_peer), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_remove_peer(none, 0), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_add_peer_stat(none, 0, 0, 1), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_set_peer_stat(none, 0, 0, 1), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_open_connection(none, 0, &m_connection, &m_transport, 1), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_update_transport(none, 0, &m_transport), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_close_connection(none, 0, 1), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_release_connection(none, 0), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_add_connection_stat(none, 0, 0, 1), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_set_connection_stat(none, 0, 0, 1), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_find_or_add_application(none, &application), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_add_application_stat(none, 0, 0, 1), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_add_application_connections(none, 0, 1, 1), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_add_nack(none, &nack), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_set_bypass(none, &bypass), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_clear_bypass(none, 1, 80), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_set_configuration(writer(), nullptr), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_add_peer(writer(), 1, nullptr), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_update_peer(writer(), 0, nullptr), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_open_connection(writer(), 0, nullptr, &m_transport, 1), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_open_connection(writer(), 0, &m_connection, nullptr, 1), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_update_transport(writer(), conn, nullptr), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_find_or_add_application(writer(), nullptr), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_add_nack(writer(), nullptr), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_set_bypass(writer(), nullptr), KAV_ERROR_ARGUMENT);
}

TEST_F(c_interface_test, slots_and_ids_out_of_range_are_refused)
{
    start();
    const int peer = add_peer();
    const int conn = open_connection(peer);
    kav_application application = {};
    const int app = kav_writer_find_or_add_application(writer(), &application);
    for (const int slot : {INT_MIN, -1, 1, 255, 256, 1024, INT_MAX}) {
        EXPECT_EQ(kav_writer_update_peer(writer(), slot, &m_peer), KAV_ERROR_ARGUMENT) << slot;
        EXPECT_EQ(kav_writer_remove_peer(writer(), slot), KAV_ERROR_ARGUMENT) << slot;
        EXPECT_EQ(kav_writer_add_peer_stat(writer(), slot, 0, 1), KAV_ERROR_ARGUMENT) << slot;
        EXPECT_EQ(kav_writer_set_peer_stat(writer(), slot, 0, 1), KAV_ERROR_ARGUMENT) << slot;
        EXPECT_EQ(open_connection(slot), KAV_ERROR_ARGUMENT) << slot;
        EXPECT_EQ(kav_writer_update_transport(writer(), slot, &m_transport), KAV_ERROR_ARGUMENT) << slot;
        EXPECT_EQ(kav_writer_close_connection(writer(), slot, 1), KAV_ERROR_ARGUMENT) << slot;
        EXPECT_EQ(kav_writer_release_connection(writer(), slot), KAV_ERROR_ARGUMENT) << slot;
        EXPECT_EQ(kav_writer_add_connection_stat(writer(), slot, 0, 1), KAV_ERROR_ARGUMENT) << slot;
        EXPECT_EQ(kav_writer_set_connection_stat(writer(), slot, 0, 1), KAV_ERROR_ARGUMENT) << slot;
        EXPECT_EQ(kav_writer_add_application_stat(writer(), slot, 0, 1), KAV_ERROR_ARGUMENT) << slot;
        EXPECT_EQ(kav_writer_add_application_connections(writer(), slot, 1, 1), KAV_ERROR_ARGUMENT) << slot;
    }
    for (const int id : {INT_MIN, -1, 100'000, INT_MAX}) {
        EXPECT_EQ(kav_writer_add_global(writer(), id, 1), KAV_ERROR_ARGUMENT) << id;
        EXPECT_EQ(kav_writer_set_global(writer(), id, 1), KAV_ERROR_ARGUMENT) << id;
        EXPECT_EQ(kav_writer_add_peer_stat(writer(), peer, id, 1), KAV_ERROR_ARGUMENT) << id;
        EXPECT_EQ(kav_writer_set_peer_stat(writer(), peer, id, 1), KAV_ERROR_ARGUMENT) << id;
        EXPECT_EQ(kav_writer_add_connection_stat(writer(), conn, id, 1), KAV_ERROR_ARGUMENT) << id;
        EXPECT_EQ(kav_writer_set_connection_stat(writer(), conn, id, 1), KAV_ERROR_ARGUMENT) << id;
        EXPECT_EQ(kav_writer_add_application_stat(writer(), app, id, 1), KAV_ERROR_ARGUMENT) << id;
    }
    EXPECT_EQ(kav_writer_add_global(writer(), RE_STAT_GLOBAL_ID_MAX, 1), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_add_peer_stat(writer(), peer, RE_STAT_PEER_ID_MAX, 1), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_add_connection_stat(writer(), conn, RE_STAT_CONN_ID_MAX, 1), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_add_application_stat(writer(), app, RE_STAT_APP_ID_MAX, 1), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(reader().read_global_active_conn_count(), 1);
}

TEST_F(c_interface_test, values_out_of_range_are_refused)
{
    kav_writer* none = nullptr;
    for (const kav_limits limits : {kav_limits{0, 1, 1, 1},
                                    {4097, 1, 1, 1},
                                    {1, -1, 1, 1},
                                    {1, 1, 65'537, 1},
                                    {1, 1, 1, 0},
                                    {INT_MAX, INT_MAX, INT_MAX, INT_MAX}}) {
        EXPECT_EQ(kav_writer_create(&none, &limits, 1, 0640), KAV_ERROR_ARGUMENT);
    }
    EXPECT_EQ(kav_writer_create(&none, nullptr, 1, 07777), KAV_ERROR_ARGUMENT);
    start();
    const int peer = add_peer();
    const auto refused = [&](auto change) {
        kav_transport transport = {};
        change(transport);
        EXPECT_EQ(kav_writer_open_connection(writer(), peer, &m_connection, &transport, 1), KAV_ERROR_ARGUMENT);
    };
    refused([](kav_transport& transport) { transport.type = 16; });
    refused([](kav_transport& transport) { transport.compression = 16; });
    refused([](kav_transport& transport) { transport.local_mode = 4; });
    refused([](kav_transport& transport) { transport.remote_mode = 4; });
    refused([](kav_transport& transport) { transport.applied_mode = 255; });
    refused([](kav_transport& transport) { transport.local_hints.latency = 16; });
    refused([](kav_transport& transport) { transport.remote_hints.compression_off = 16; });
    refused([](kav_transport& transport) { transport.active_hints.mode = 4; });
    const int conn = open_connection(peer);
    EXPECT_EQ(kav_writer_close_connection(writer(), conn, 0), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_close_connection(writer(), conn, INT64_MIN), KAV_ERROR_ARGUMENT);
    EXPECT_EQ(kav_writer_close_connection(writer(), conn, 5), 0);
    EXPECT_EQ(kav_writer_close_connection(writer(), conn, 6), KAV_ERROR_ARGUMENT);
    const kav_application application = {{0}, 1024, 80, false};
    EXPECT_EQ(kav_writer_find_or_add_application(writer(), &application), KAV_ERROR_ARGUMENT);
    for (const kav_nack nack :
         {kav_nack{0, 2, 0, 0, 0, 0}, {0, -1, 0, 0, 0, 0}, {0, 0, 5, 0, 0, 0}, {0, 0, -1, 0, 0, 0}}) {
        EXPECT_EQ(kav_writer_add_nack(writer(), &nack), KAV_ERROR_ARGUMENT);
    }
    for (const std::uint16_t reason : {std::uint16_t{0}, std::uint16_t{4}, std::uint16_t{65535}}) {
        const kav_bypass bypass = {1, 80, reason, 0, 0, 0, 0};
        EXPECT_EQ(kav_writer_set_bypass(writer(), &bypass), KAV_ERROR_ARGUMENT);
    }
    EXPECT_TRUE(all_nacks(reader()).empty());
}

TEST(c_interface, every_error_has_a_text_of_its_own)
{
    std::set<std::string> texts;
    for (int error = KAV_ERROR_SYSTEM; error <= KAV_ERROR_ARGUMENT; ++error) {
        texts.insert(kav_error_text(error));
    }
    EXPECT_EQ(texts.size(), 9U);
    EXPECT_STREQ(kav_error_text(KAV_ERROR_BUSY), "another engine uses the name");
    EXPECT_STREQ(kav_error_text(0), "no error");
    EXPECT_STREQ(kav_error_text(5), "no error");
    EXPECT_STREQ(kav_error_text(-10), "unknown error");
    EXPECT_STREQ(kav_error_text(INT_MIN), "unknown error");
}

} // namespace
