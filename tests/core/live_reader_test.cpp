// A live reader returns what an engine publishes, operation by operation.
#include "support/engine_fixture.h"

#include "RE_stat_counters.h"
#include "RE_stat_error.h"
#include "support/own_session.h"

#include <cerrno>
#include <climits>
#include <cstring>

namespace {

using live_reader_test = engine_test;

constexpr int hostile_numbers[] = {-1, -2, INT_MIN, INT_MIN + 1, INT_MAX, INT_MAX - 1, 1 << 24};

TEST_F(live_reader_test, tells_every_global_counter)
{
    start();
    for (int id = 0; id < RE_STAT_GLOBAL_ID_MAX; ++id) {
        engine.set_global(RE_stat_global_id{id}, 7LL * id - 100);
        engine.add_global(RE_stat_global_id{id}, LLONG_MAX / 1000);
        ASSERT_EQ(engine.get_global(RE_stat_global_id{id}), 7LL * id - 100 + LLONG_MAX / 1000);
    }
    for (int id = 0; id < RE_STAT_GLOBAL_ID_MAX; ++id) {
        long long value = -1;
        EXPECT_EQ(reader->read_global_stat(id, value), 0);
        EXPECT_EQ(value, 7LL * id - 100 + LLONG_MAX / 1000);
    }
}

TEST_F(live_reader_test, counters_hold_either_end_of_64_bits_and_wrap)
{
    start();
    long long value = 0;
    engine.set_global(RE_stat_global_id{5}, LLONG_MAX);
    reader->read_global_stat(5, value);
    EXPECT_EQ(value, LLONG_MAX);
    engine.add_global(RE_stat_global_id{5}, 1);
    reader->read_global_stat(5, value);
    EXPECT_EQ(value, LLONG_MIN);
}

TEST_F(live_reader_test, tells_the_configuration_and_null_before_there_is_one)
{
    start();
    EXPECT_EQ(reader->get_config_param(), nullptr);
    const RE_stat_config_param config = config_of(4321);
    engine.set_config(config);
    const RE_stat_config_param* const told = reader->get_config_param();
    ASSERT_NE(told, nullptr);
    EXPECT_TRUE(same_record(*told, config));
    engine.set_config(config_of(4322));
    ASSERT_NE(reader->get_config_param(), nullptr);
    EXPECT_EQ(reader->get_config_param()->m_max_peer_slots, 4322);
}

TEST_F(live_reader_test, a_flag_of_any_byte_reads_as_a_sound_bool)
{
    start();
    engine.set_config(config_of(1));
    unsigned char* const image = map_segment();
    RE_image_section sections[RE_image_section_count];
    std::memcpy(sections, image + sizeof(RE_image_header), sizeof sections);
    image[sections[RE_IMAGE_CONFIG - 1].offset + 8 + offsetof(RE_stat_config_param, m_b_plz_enabled)] = 0x72;
    image[sections[RE_IMAGE_CONFIG - 1].offset + 8 + offsetof(RE_stat_config_param, m_lz_adaptive)] = 2;
    const RE_stat_config_param* const told = reader->get_config_param();
    ASSERT_NE(told, nullptr);
    EXPECT_TRUE(told->m_b_plz_enabled);
    EXPECT_EQ(reinterpret_cast<const unsigned char&>(told->m_b_plz_enabled), 1);
    EXPECT_EQ(reinterpret_cast<const unsigned char&>(told->m_lz_adaptive), 1);
}

TEST_F(live_reader_test, tells_a_peer)
{
    start();
    const int slot = engine.add_peer(-7, peer_header_of(9));
    ASSERT_EQ(slot, 0);
    for (int id = 0; id < RE_STAT_PEER_ID_MAX; ++id) {
        engine.set_peer_stat(slot, RE_stat_peer_id{id}, id);
        engine.add_peer_stat(slot, RE_stat_peer_id{id}, -1000);
    }
    EXPECT_EQ(reader->get_max_peer_slots(), 1);
    EXPECT_TRUE(reader->is_peer_valid(slot));
    RE_stat_peer_header header{};
    EXPECT_EQ(reader->read_peer_header(slot, header), 0);
    EXPECT_TRUE(same_record(header, peer_header_of(9)));
    int peer_id = 0;
    EXPECT_EQ(reader->read_peer_id(slot, peer_id), 0);
    EXPECT_EQ(peer_id, -7);
    for (int id = 0; id < RE_STAT_PEER_ID_MAX; ++id) {
        long long value = 0;
        EXPECT_EQ(reader->read_peer_stat(slot, id, value), 0);
        EXPECT_EQ(value, id - 1000);
        EXPECT_EQ(engine.get_peer_stat(slot, RE_stat_peer_id{id}), id - 1000);
    }
    engine.update_peer(slot, peer_header_of(10));
    EXPECT_EQ(reader->read_peer_header(slot, header), 0);
    EXPECT_TRUE(same_record(header, peer_header_of(10)));
}

TEST_F(live_reader_test, tells_a_connection)
{
    start();
    const int peer = engine.add_peer(12, peer_header_of(12));
    const int slot = engine.open_conn(peer, conn_header_of(34), so_header_of(56), 1700000123);
    ASSERT_EQ(slot, 0);
    for (int id = 0; id < RE_STAT_CONN_ID_MAX; ++id) {
        engine.add_conn_stat(slot, RE_stat_conn_id{id}, id + 1);
    }
    EXPECT_EQ(reader->get_max_conn_slots(), 1);
    EXPECT_TRUE(reader->is_conn_valid(slot));
    RE_stat_conn_header header;
    EXPECT_EQ(reader->read_conn_header(slot, header), 0);
    EXPECT_TRUE(same_record(header, conn_header_of(34)));
    SO_stat_conn_header so_header;
    EXPECT_EQ(reader->read_conn_so_header(slot, so_header), 0);
    EXPECT_TRUE(same_record(so_header, so_header_of(56)));
    std::time_t open_time = 0;
    std::time_t close_time = 1;
    EXPECT_EQ(reader->read_conn_time(slot, open_time, close_time), 0);
    EXPECT_EQ(open_time, 1700000123);
    EXPECT_EQ(close_time, 0);
    int peer_id = 0;
    EXPECT_EQ(reader->read_conn_peer_id(slot, peer_id), 0);
    EXPECT_EQ(peer_id, 12);
    for (int id = 0; id < RE_STAT_CONN_ID_MAX; ++id) {
        long long value = 0;
        EXPECT_EQ(reader->read_conn_stat(slot, id, value), 0);
        EXPECT_EQ(value, id + 1);
        EXPECT_EQ(engine.get_conn_stat(slot, RE_stat_conn_id{id}), id + 1);
    }
    EXPECT_EQ(reader->read_global_active_conn_count(), 1);
    EXPECT_EQ(reader->read_peer_active_conn_count(peer), 1);

    engine.update_conn_so_header(slot, so_header_of(57));
    engine.close_conn(slot, 1700000200);
    EXPECT_TRUE(reader->is_conn_valid(slot)) << "a closed connection stays in the list";
    EXPECT_EQ(reader->read_conn_so_header(slot, so_header), 0);
    EXPECT_TRUE(same_record(so_header, so_header_of(57)));
    reader->read_conn_time(slot, open_time, close_time);
    EXPECT_EQ(close_time, 1700000200);
    EXPECT_EQ(reader->read_global_active_conn_count(), 0);
    EXPECT_EQ(reader->read_peer_active_conn_count(peer), 0);
}

TEST_F(live_reader_test, a_close_time_never_reads_as_open)
{
    start();
    const int peer = engine.add_peer(1, peer_header_of(1));
    const int slot = engine.open_conn(peer, conn_header_of(1), so_header_of(1), 100);
    engine.close_conn(slot, -5);
    std::time_t open_time = 0;
    std::time_t close_time = 0;
    reader->read_conn_time(slot, open_time, close_time);
    EXPECT_EQ(close_time, 1);
}

TEST_F(live_reader_test, tells_the_figures_of_a_quick_latency_test)
{
    start();
    const int peer = engine.add_peer(1, peer_header_of(1));
    const int slot = engine.open_conn(peer, conn_header_of(1), so_header_of(1), 100);
    engine.add_conn_stat(slot, RE_STAT_CONN_ID_RE_ENCODE_IN_BYTES, 11);
    engine.add_conn_stat(slot, RE_STAT_CONN_ID_RE_DECODE_IN_BYTES, 12);
    engine.add_conn_stat(slot, RE_STAT_CONN_ID_RE_ENCODE_OUT_BYTES, 13);
    engine.add_conn_stat(slot, RE_STAT_CONN_ID_RE_DECODE_OUT_BYTES, 14);
    engine.add_conn_stat(slot, RE_STAT_CONN_ID_LZ_ENCODE_IN_BYTES, 15);
    engine.add_conn_stat(slot, RE_STAT_CONN_ID_LZ_DECODE_IN_BYTES, 16);
    engine.add_conn_stat(slot, RE_STAT_CONN_ID_LZ_ENCODE_OUT_BYTES, 17);
    engine.add_conn_stat(slot, RE_STAT_CONN_ID_LZ_DECODE_OUT_BYTES, 18);
    engine.add_conn_stat(slot, RE_STAT_CONN_ID_TOT_ENCODE_SPEED, 6000);
    engine.add_conn_stat(slot, RE_STAT_CONN_ID_ENCODE_NUM_MSGS, 4);
    engine.add_conn_stat(slot, RE_STAT_CONN_ID_TOT_DECODE_SPEED, 9000); // no message, so no latency
    engine.add_conn_stat(slot, RE_STAT_CONN_ID_TOT_ENCODE_LZ_SPEED, 250);
    engine.add_conn_stat(slot, RE_STAT_CONN_ID_LZ_ENCODE_NUM_MSGS, 1);
    engine.add_conn_stat(slot, RE_STAT_CONN_ID_TOT_DECODE_LZ_SPEED, 3000);
    engine.add_conn_stat(slot, RE_STAT_CONN_ID_LZ_DECODE_NUM_MSGS, 2);
    RE_stat_conn_for_qlt figures;
    ASSERT_EQ(reader->read_conn_stat_for_qlt(slot, figures), 0);
    EXPECT_EQ(figures.re_encode_in_bytes, 11);
    EXPECT_EQ(figures.re_decode_in_bytes, 12);
    EXPECT_EQ(figures.re_encode_out_bytes, 13);
    EXPECT_EQ(figures.re_decode_out_bytes, 14);
    EXPECT_EQ(figures.lz_encode_in_bytes, 15);
    EXPECT_EQ(figures.lz_decode_in_bytes, 16);
    EXPECT_EQ(figures.lz_encode_out_bytes, 17);
    EXPECT_EQ(figures.lz_decode_out_bytes, 18);
    EXPECT_EQ(figures.avg_encode_latency, 1.5F);
    EXPECT_EQ(figures.avg_decode_latency, 0.0F);
    EXPECT_EQ(figures.avg_encode_lz_latency, 0.25F);
    EXPECT_EQ(figures.avg_decode_lz_latency, 1.5F);
}

TEST_F(live_reader_test, tells_applications)
{
    start();
    EXPECT_EQ(reader->get_max_app_slots(), few.applications);
    EXPECT_EQ(reader->get_app_slot_shared_memory_header_size(), 0U);
    const RE_stat_app_header key = app_key_of(0xbeef);
    const int slot = engine.find_or_add_app(key);
    ASSERT_EQ(slot, 0);
    EXPECT_EQ(engine.find_or_add_app(key), slot);
    EXPECT_EQ(engine.find_or_add_app(app_key_of(0xbef0)), 1);
    for (int id = 0; id < RE_STAT_APP_ID_MAX; ++id) {
        engine.add_app_stat(slot, RE_stat_app_id{id}, UINT32_MAX);
        engine.add_app_stat(slot, RE_stat_app_id{id}, static_cast<std::uint32_t>(id) + 1);
    }
    engine.add_app_conns(slot, 0x7fffff, 0xffffff);
    engine.add_app_conns(slot, 3, 5); // each count wraps separately
    EXPECT_EQ(reader->get_app_slot_shared_memory_header_size(), 2U);

    RE_stat_app_header header;
    EXPECT_EQ(reader->read_app_header(slot, header), 0);
    EXPECT_TRUE(header == key);
    EXPECT_EQ(header.m_open_cnt, 2U);
    EXPECT_EQ(header.m_close_cnt, 4U);
    EXPECT_EQ(header.m_server_port, 0xbeefU);
    EXPECT_EQ(header.m_b_src_port, 1U);
    RE_stat_app_struct* record = nullptr;
    EXPECT_EQ(reader->read_app_slot(slot, record), 0);
    ASSERT_NE(record, nullptr);
    EXPECT_TRUE(same_record(record->m_header, header));
    const std::uint32_t* const ids = reader->get_app_id_array(slot);
    ASSERT_NE(ids, nullptr);
    for (int id = 0; id < RE_STAT_APP_ID_MAX; ++id) {
        long value = -1;
        EXPECT_EQ(reader->read_app_stat(slot, id, value), 0);
        EXPECT_EQ(value, id);
        EXPECT_EQ(record->m_id_array[id], static_cast<std::uint32_t>(id));
        EXPECT_EQ(ids[id], static_cast<std::uint32_t>(id));
    }
}

TEST_F(live_reader_test, what_counts_connections_is_no_part_of_an_applications_name)
{
    start();
    RE_stat_app_header key = app_key_of(80);
    key.m_open_cnt = 5;
    key.m_reserve_not_used = 77;
    const int slot = engine.find_or_add_app(key);
    key.m_open_cnt = 6;
    key.m_close_cnt = 1;
    EXPECT_EQ(engine.find_or_add_app(key), slot);
}

TEST_F(live_reader_test, always_writes_what_it_was_asked_for)
{
    start();
    fill();
    const auto expect_nothing_of_peer = [&](int slot) {
        RE_stat_peer_header header = peer_header_of(1);
        EXPECT_LT(reader->read_peer_header(slot, header), 0);
        EXPECT_TRUE(same_record(header, RE_stat_peer_header{}));
        int peer_id = 5;
        EXPECT_LT(reader->read_peer_id(slot, peer_id), 0);
        EXPECT_EQ(peer_id, -1);
        long long value = 5;
        EXPECT_LT(reader->read_peer_stat(slot, 0, value), 0);
        EXPECT_EQ(value, 0);
        value = 5;
        EXPECT_LT(reader->read_peer_conn_stat(slot, 0, value), 0);
        EXPECT_EQ(value, 0);
        EXPECT_EQ(reader->read_peer_active_conn_count(slot), 0);
        EXPECT_FALSE(reader->is_peer_valid(slot));
    };
    const auto expect_nothing_of_conn = [&](int slot) {
        RE_stat_conn_header header = conn_header_of(1);
        EXPECT_LT(reader->read_conn_header(slot, header), 0);
        EXPECT_TRUE(same_record(header, RE_stat_conn_header{}));
        SO_stat_conn_header so_header = so_header_of(1);
        EXPECT_LT(reader->read_conn_so_header(slot, so_header), 0);
        EXPECT_TRUE(same_record(so_header, SO_stat_conn_header{}));
        long long value = 5;
        EXPECT_LT(reader->read_conn_stat(slot, 0, value), 0);
        EXPECT_EQ(value, 0);
        std::time_t open_time = 5;
        std::time_t close_time = 5;
        EXPECT_LT(reader->read_conn_time(slot, open_time, close_time), 0);
        EXPECT_EQ(open_time, 0);
        EXPECT_EQ(close_time, 0);
        int peer_id = 5;
        EXPECT_LT(reader->read_conn_peer_id(slot, peer_id), 0);
        EXPECT_EQ(peer_id, -1);
        RE_stat_conn_for_qlt figures;
        figures.re_encode_in_bytes = 5;
        figures.avg_decode_lz_latency = 5;
        EXPECT_LT(reader->read_conn_stat_for_qlt(slot, figures), 0);
        EXPECT_TRUE(same_record(figures, RE_stat_conn_for_qlt{}));
        EXPECT_FALSE(reader->is_conn_valid(slot));
    };
    const auto expect_nothing_of_app = [&](int slot) {
        RE_stat_app_struct record{};
        RE_stat_app_struct* place = &record;
        EXPECT_LT(reader->read_app_slot(slot, place), 0);
        EXPECT_EQ(place, nullptr);
        RE_stat_app_header header = app_key_of(1);
        EXPECT_LT(reader->read_app_header(slot, header), 0);
        EXPECT_TRUE(same_record(header, RE_stat_app_header{}));
        long value = 5;
        EXPECT_LT(reader->read_app_stat(slot, 0, value), 0);
        EXPECT_EQ(value, 0);
        EXPECT_EQ(reader->get_app_id_array(slot), nullptr);
    };
    for (const int number : hostile_numbers) {
        expect_nothing_of_peer(number);
        expect_nothing_of_conn(number);
        expect_nothing_of_app(number);
        long long value = 5;
        EXPECT_LT(reader->read_global_stat(number, value), 0);
        EXPECT_EQ(value, 0);
        value = 5;
        EXPECT_LT(reader->read_global_conn_stat(number, value), 0);
        EXPECT_EQ(value, 0);
        value = 5;
        EXPECT_LT(reader->read_peer_stat(0, number, value), 0);
        EXPECT_EQ(value, 0);
        value = 5;
        EXPECT_LT(reader->read_peer_conn_stat(0, number, value), 0);
        EXPECT_EQ(value, 0);
        value = 5;
        EXPECT_LT(reader->read_conn_stat(0, number, value), 0);
        EXPECT_EQ(value, 0);
        long app_value = 5;
        EXPECT_LT(reader->read_app_stat(0, number, app_value), 0);
        EXPECT_EQ(app_value, 0);
    }
    expect_nothing_of_peer(1); // retired
    expect_nothing_of_peer(few.peers - 1);
    expect_nothing_of_peer(few.peers);
    expect_nothing_of_conn(4); // released
    expect_nothing_of_conn(few.connections - 1);
    expect_nothing_of_conn(few.connections);
    expect_nothing_of_app(3);
    expect_nothing_of_app(few.applications);
}

// Ids are checked by assertions in a debug build, because a wrong id is a programming error.
TEST_F(live_reader_test, the_engine_ignores_numbers_out_of_range)
{
    start();
    fill();
    const std::string before = bytes_of_file(segment_path());
    for (const int number : hostile_numbers) {
        EXPECT_DEBUG_DEATH(engine.add_global(RE_stat_global_id{number}, 1), "b_known");
        EXPECT_DEBUG_DEATH(engine.set_global(RE_stat_global_id{number}, 1), "b_known");
        EXPECT_DEBUG_DEATH(EXPECT_EQ(engine.get_global(RE_stat_global_id{number}), 0), "b_known");
        engine.update_peer(number, peer_header_of(1));
        engine.remove_peer(number);
        engine.add_peer_stat(number, RE_stat_peer_id{0}, 1);
        EXPECT_DEBUG_DEATH(engine.add_peer_stat(0, RE_stat_peer_id{number}, 1), "b_known");
        engine.set_peer_stat(number, RE_stat_peer_id{0}, 1);
        EXPECT_DEBUG_DEATH(engine.set_peer_stat(0, RE_stat_peer_id{number}, 1), "b_known");
        EXPECT_EQ(engine.get_peer_stat(number, RE_stat_peer_id{0}), 0);
        EXPECT_DEBUG_DEATH(EXPECT_EQ(engine.get_peer_stat(0, RE_stat_peer_id{number}), 0), "b_known");
        EXPECT_EQ(engine.open_conn(number, conn_header_of(1), so_header_of(1), 1), -EINVAL);
        engine.update_conn_so_header(number, so_header_of(1));
        engine.close_conn(number, 1);
        engine.release_conn(number);
        engine.add_conn_stat(number, RE_stat_conn_id{0}, 1);
        EXPECT_DEBUG_DEATH(engine.add_conn_stat(0, RE_stat_conn_id{number}, 1), "b_known");
        engine.set_conn_stat(number, RE_stat_conn_id{0}, 1);
        EXPECT_DEBUG_DEATH(engine.set_conn_stat(0, RE_stat_conn_id{number}, 1), "b_known");
        EXPECT_EQ(engine.get_conn_stat(number, RE_stat_conn_id{0}), 0);
        EXPECT_DEBUG_DEATH(EXPECT_EQ(engine.get_conn_stat(0, RE_stat_conn_id{number}), 0), "b_known");
        engine.add_app_stat(number, RE_stat_app_id{0}, 1);
        EXPECT_DEBUG_DEATH(engine.add_app_stat(0, RE_stat_app_id{number}, 1), "b_known");
        engine.add_app_conns(number, 1, 1);
    }
    EXPECT_EQ(engine.open_conn(1, conn_header_of(1), so_header_of(1), 1), -EINVAL) << "its peer was retired";
    EXPECT_TRUE(before == bytes_of_file(segment_path()));
}

TEST_F(live_reader_test, an_engine_that_is_not_there_takes_everything_and_does_nothing)
{
    RE_stat_writer none;
    none.publish();
    none.set_config(config_of(1));
    none.add_global(RE_stat_global_id{0}, 1);
    none.set_global(RE_stat_global_id{0}, 1);
    EXPECT_EQ(none.get_global(RE_stat_global_id{0}), 0);
    EXPECT_EQ(none.add_peer(1, peer_header_of(1)), -EINVAL);
    none.update_peer(0, peer_header_of(1));
    none.remove_peer(0);
    none.add_peer_stat(0, RE_stat_peer_id{0}, 1);
    none.set_peer_stat(0, RE_stat_peer_id{0}, 1);
    EXPECT_EQ(none.get_peer_stat(0, RE_stat_peer_id{0}), 0);
    EXPECT_EQ(none.open_conn(0, conn_header_of(1), so_header_of(1), 1), -EINVAL);
    none.update_conn_so_header(0, so_header_of(1));
    none.close_conn(0, 1);
    none.release_conn(0);
    none.add_conn_stat(0, RE_stat_conn_id{0}, 1);
    none.set_conn_stat(0, RE_stat_conn_id{0}, 1);
    EXPECT_EQ(none.get_conn_stat(0, RE_stat_conn_id{0}), 0);
    EXPECT_EQ(none.find_or_add_app(app_key_of(1)), -EINVAL);
    none.add_app_stat(0, RE_stat_app_id{0}, 1);
    none.add_app_conns(0, 1, 1);
    none.add_nack(nack_of(1));
    EXPECT_EQ(none.set_bypass({}), -EINVAL);
    EXPECT_EQ(none.clear_bypass(0, 0), -EINVAL);
    none.close();
}

TEST_F(live_reader_test, tells_nothing_while_it_is_not_open)
{
    start();
    fill();
    EXPECT_EQ(reader->close(), 0);
    EXPECT_EQ(reader->close(), 0);
    const auto never_opened = live_reader();
    expect_same_statistics(*reader, *never_opened);
    EXPECT_EQ(reader->get_config_param(), nullptr);
    EXPECT_EQ(reader->get_max_peer_slots(), 0);
    EXPECT_EQ(reader->get_max_conn_slots(), 0);
    EXPECT_EQ(reader->get_max_app_slots(), 0);
    EXPECT_EQ(reader->get_app_slot_shared_memory_header_size(), 0U);
    EXPECT_LT(reader->get_first_nack(), 0);
    RE_stat_nack_header entry;
    EXPECT_LT(reader->get_next_nack(0, entry), 0);
    EXPECT_EQ(reader->get_re_auto_bypass_memory_ptr(16), nullptr);
    EXPECT_EQ(reader->save_stats_binary(folder.file("none").c_str()), RE_STAT_ERR_NOT_OPEN);
    EXPECT_TRUE(names_in(folder.path()).empty());
    reader->reset_all();
    reader->clear_all();
    reader->reset_peer_stat(0);
    reader->reset_conn_stat(0);
}

TEST_F(live_reader_test, opens_again_after_closing_and_while_it_is_open)
{
    start();
    fill();
    const auto other = live_reader();
    ASSERT_EQ(other->open(), 0);
    reader->close();
    ASSERT_EQ(reader->open(), 0);
    expect_same_statistics(*reader, *other);
    ASSERT_EQ(reader->open(), 0);
    expect_same_statistics(*reader, *other);
}

TEST_F(live_reader_test, only_shares_one_reader_for_each_kind_and_path)
{
    RE_stat_reader* const live = RE_stat_reader::only(RE_STAT_READER_SHM, nullptr);
    ASSERT_NE(live, nullptr);
    EXPECT_EQ(RE_stat_reader::only(RE_STAT_READER_SHM, nullptr), live);
    RE_stat_reader* const file = RE_stat_reader::only(RE_STAT_READER_FILE, "/nowhere/a");
    ASSERT_NE(file, nullptr);
    EXPECT_NE(file, live);
    EXPECT_EQ(RE_stat_reader::only(RE_STAT_READER_FILE, "/nowhere/a"), file);
    EXPECT_NE(RE_stat_reader::only(RE_STAT_READER_FILE, "/nowhere/b"), file);
    EXPECT_EQ(file->open(), RE_STAT_ERR_NO_FILE);
}

TEST_F(live_reader_test, no_reader_is_made_without_a_path_or_of_an_unknown_kind)
{
    EXPECT_EQ(RE_stat_reader::create(RE_STAT_READER_FILE, nullptr), nullptr);
    EXPECT_EQ(RE_stat_reader::create(static_cast<RE_stat_reader_type>(2), "x"), nullptr);
    EXPECT_EQ(RE_stat_reader::only(RE_STAT_READER_FILE, nullptr), nullptr);
}

// ---- Resets.

using reset_test = engine_test;

bool is_kept_by_resets(RE_stat_kind kind)
{
    return kind == RE_stat_kind::current;
}

// Expects counters as they are after fill() and a reset. A reset of totals keeps current values.
template <typename Infos, typename Read>
void expect_reset(const Infos& infos, Read read, bool b_everything)
{
    for (const RE_stat_counter_info& info : infos) {
        for (int id = info.id; id <= info.last_id; ++id) {
            long long value = -1;
            ASSERT_EQ(read(id, value), 0);
            if (b_everything || !is_kept_by_resets(info.kind)) {
                EXPECT_EQ(value, 0) << info.name;
            } else {
                EXPECT_NE(value, 0) << info.name;
            }
        }
    }
}

// Makes sure that no counter is 0, so that a reset is noticed.
void fill_without_zeros(RE_stat_writer& engine)
{
    for (int slot = 0; slot < 4; ++slot) {
        for (int id = 0; id < RE_STAT_PEER_ID_MAX; ++id) {
            engine.set_peer_stat(slot, RE_stat_peer_id{id}, 10000 * slot + id + 1);
        }
    }
    for (int slot = 0; slot < 10; ++slot) {
        for (int id = 0; id < RE_STAT_CONN_ID_MAX; ++id) {
            engine.set_conn_stat(slot, RE_stat_conn_id{id}, 1000 * slot + id + 1);
        }
    }
}

TEST_F(reset_test, all_sets_totals_and_maxima_to_0_and_keeps_current_values)
{
    start();
    fill();
    fill_without_zeros(engine);
    const int active = reader->read_global_active_conn_count();
    reader->reset_all();
    expect_reset(
        re_stat_global_counters, [&](int id, long long& value) { return reader->read_global_stat(id, value); }, false);
    expect_reset(
        re_stat_conn_counters, [&](int id, long long& value) { return reader->read_global_conn_stat(id, value); },
        false);
    for (const int peer : {0, 3}) {
        expect_reset(
            re_stat_peer_counters, [&](int id, long long& value) { return reader->read_peer_stat(peer, id, value); },
            false);
        expect_reset(
            re_stat_conn_counters,
            [&](int id, long long& value) { return reader->read_peer_conn_stat(peer, id, value); }, false);
    }
    expect_reset(
        re_stat_conn_counters, [&](int id, long long& value) { return reader->read_conn_stat(3, id, value); }, false);
    EXPECT_EQ(reader->read_global_active_conn_count(), active);
    EXPECT_TRUE(all_nacks(*reader).empty());
    RE_stat_app_struct* record = nullptr;
    ASSERT_EQ(reader->read_app_slot(1, record), 0);
    EXPECT_EQ(record->m_id_array[3], 0U);
    EXPECT_EQ(record->m_header.m_open_cnt, 0U);
    EXPECT_EQ(record->m_header.m_close_cnt, 0U);
    EXPECT_TRUE(record->m_header == app_key_of(61)) << "applications stay in their slots";
}

TEST_F(reset_test, clear_all_sets_every_figure_to_0_and_keeps_who_is_there)
{
    start();
    fill();
    fill_without_zeros(engine);
    reader->clear_all();
    for (int id = 0; id < RE_STAT_GLOBAL_ID_MAX; ++id) {
        EXPECT_EQ(engine.get_global(RE_stat_global_id{id}), 0) << id;
    }
    expect_reset(
        re_stat_conn_counters, [&](int id, long long& value) { return reader->read_global_conn_stat(id, value); },
        true);
    expect_reset(
        re_stat_peer_counters, [&](int id, long long& value) { return reader->read_peer_stat(3, id, value); }, true);
    expect_reset(
        re_stat_conn_counters, [&](int id, long long& value) { return reader->read_peer_conn_stat(3, id, value); },
        true);
    expect_reset(
        re_stat_conn_counters, [&](int id, long long& value) { return reader->read_conn_stat(3, id, value); }, true);
    EXPECT_TRUE(all_nacks(*reader).empty());
    EXPECT_TRUE(reader->is_peer_valid(3));
    EXPECT_TRUE(reader->is_conn_valid(3));
    EXPECT_NE(reader->get_config_param(), nullptr);
    EXPECT_EQ(reader->read_global_active_conn_count(), 7);
}

TEST_F(reset_test, each_reset_touches_its_own_figures_alone)
{
    start();
    fill();
    fill_without_zeros(engine);
    constexpr int total = RE_STAT_CONN_ID_ENCODE_NUM_MSGS;
    const auto global = [&] {
        long long value = 0;
        reader->read_global_conn_stat(total, value);
        return value;
    };
    const auto peer = [&](int slot) {
        long long value = 0;
        reader->read_peer_conn_stat(slot, total, value);
        return value;
    };
    const auto conn = [&](int slot) {
        long long value = 0;
        reader->read_conn_stat(slot, total, value);
        return value;
    };
    const long long global_before = global();
    reader->reset_conn_stat(0);
    EXPECT_EQ(conn(0), 0);
    EXPECT_NE(conn(1), 0);
    EXPECT_NE(peer(0), 0);
    reader->reset_all_conns();
    EXPECT_EQ(conn(1), 0);
    EXPECT_NE(peer(0), 0);
    reader->reset_peer_stat(0);
    EXPECT_EQ(peer(0), 0);
    EXPECT_NE(peer(3), 0);
    reader->reset_all_peers();
    EXPECT_EQ(peer(3), 0);
    EXPECT_EQ(global(), global_before);
    EXPECT_FALSE(all_nacks(*reader).empty());
    reader->reset_all_nacks();
    EXPECT_TRUE(all_nacks(*reader).empty());
    EXPECT_NE(reader->get_app_id_array(2)[1], 0U);
    reader->reset_all_apps();
    EXPECT_EQ(reader->get_app_id_array(2)[1], 0U);
    EXPECT_EQ(global(), global_before);
    reader->reset_global_stat();
    EXPECT_EQ(global(), 0);
}

TEST_F(reset_test, a_bad_slot_resets_nothing)
{
    start();
    fill();
    const std::string before = bytes_of_file(segment_path());
    for (const int slot : hostile_numbers) {
        reader->reset_peer_stat(slot);
        reader->reset_conn_stat(slot);
    }
    reader->reset_peer_stat(1); // retired
    reader->reset_conn_stat(4); // released
    EXPECT_TRUE(before == bytes_of_file(segment_path()));
}

TEST_F(reset_test, the_engine_counts_on_and_the_log_starts_anew)
{
    start();
    fill();
    reader->reset_all();
    engine.add_global(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, 5);
    engine.add_nack(nack_of(99));
    long long value = 0;
    reader->read_global_stat(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, value);
    EXPECT_EQ(value, 5);
    const auto nacks = all_nacks(*reader);
    ASSERT_EQ(nacks.size(), 1U);
    EXPECT_EQ(nacks[0].m_time, 99);
}

TEST_F(reset_test, without_write_permission_changes_nothing)
{
    if (!may_change_user()) {
        GTEST_SKIP() << "needs another user";
    }
    const own_session session;
    ASSERT_EQ(engine.create(few, 1700000000, 0644), 0);
    engine.publish();
    ASSERT_TRUE(session.let_others_in());
    fill();
    const std::string before = bytes_of_file(segment_path());
    EXPECT_EQ(result_as_nobody([&] {
                  const auto mine = live_reader();
                  if (mine->open() != 0) {
                      return 1;
                  }
                  mine->reset_all();
                  mine->clear_all();
                  mine->reset_conn_stat(0);
                  return mine->is_conn_valid(0) ? 0 : 2;
              }),
              0);
    EXPECT_TRUE(before == bytes_of_file(segment_path()));
}

TEST_F(reset_test, never_reaches_another_engine_that_has_taken_the_name)
{
    start();
    fill();
    engine.close();
    RE_stat_writer second;
    ASSERT_EQ(second.create(few, 1700000000), 0);
    second.publish();
    second.set_global(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, 55);
    reader->reset_all();
    reader->clear_all();
    EXPECT_EQ(second.get_global(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS), 55);
}

TEST_F(reset_test, of_a_slot_that_the_segment_has_no_more_changes_nothing)
{
    start();
    fill();
    auto* const table = reinterpret_cast<RE_image_section*>(map_segment() + sizeof(RE_image_header));
    for (const RE_image_section_id id :
         {RE_IMAGE_PEERS, RE_IMAGE_PEER_COUNTERS, RE_IMAGE_CONNS, RE_IMAGE_CONN_COUNTERS}) {
        table[id - 1].rows = table[id - 1].slots = 2;
    }
    const std::string before = bytes_of_file(segment_path());
    ASSERT_TRUE(reader->is_peer_valid(2));
    reader->reset_peer_stat(2);
    ASSERT_TRUE(reader->is_conn_valid(3));
    reader->reset_conn_stat(3);
    EXPECT_TRUE(before == bytes_of_file(segment_path()));
    reader->reset_peer_stat(0);
    EXPECT_FALSE(before == bytes_of_file(segment_path()));
}

TEST_F(reset_test, of_a_saved_file_stays_in_memory)
{
    start();
    fill();
    const std::string path = save();
    const std::string before = bytes_of_file(path);
    const auto saved = file_reader(path);
    ASSERT_EQ(saved->open(), 0);
    saved->reset_all();
    long long value = 1;
    EXPECT_EQ(saved->read_global_stat(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, value), 0);
    EXPECT_EQ(value, 0);
    EXPECT_TRUE(all_nacks(*saved).empty());
    saved->reset_conn_stat(3);
    saved->reset_peer_stat(3);
    saved->clear_all();
    EXPECT_EQ(saved->read_conn_stat(3, 100, value), 0);
    EXPECT_EQ(value, 0);
    EXPECT_TRUE(before == bytes_of_file(path));
    ASSERT_EQ(saved->open(), 0);
    expect_same_statistics(*saved, *reader);
}

} // namespace
