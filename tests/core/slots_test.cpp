// Slots are reused, figures add up, and nothing of a previous tenant is ever shown for another.
#include "support/engine_fixture.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>

namespace {

class slots_test : public engine_test
{
protected:
    int open_conn(int peer, std::uint32_t number)
    {
        return engine.open_conn(peer, conn_header_of(number), so_header_of(number), number);
    }
    long long conn_stat(int slot, int id)
    {
        long long value = LLONG_MIN;
        reader->is_conn_valid(slot); // starts a new round
        reader->read_conn_stat(slot, id, value);
        return value;
    }
    long long peer_conn_stat(int slot, int id)
    {
        long long value = LLONG_MIN;
        reader->is_peer_valid(slot);
        reader->read_peer_conn_stat(slot, id, value);
        return value;
    }
    long long global_conn_stat(int id)
    {
        long long value = LLONG_MIN;
        reader->read_global_conn_stat(id, value);
        return value;
    }
    std::int32_t conn_id(int slot)
    {
        RE_stat_conn_header read{};
        reader->is_conn_valid(slot);
        reader->read_conn_header(slot, read);
        return read.m_conn_id;
    }
};

TEST_F(slots_test, connection_peer_and_global_figures_agree)
{
    start();
    const int peers[] = {engine.add_peer(5, peer_header_of(5)), engine.add_peer(6, peer_header_of(6))};
    std::vector<int> conns;
    for (std::uint32_t number = 0; number < 12; ++number) {
        conns.push_back(open_conn(peers[number % 2], number));
    }
    for (int id = 0; id < RE_STAT_CONN_ID_MAX; ++id) {
        for (const int conn : conns) {
            engine.add_conn_stat(conn, RE_stat_conn_id{id}, (id - 80) * (conn + 1));
            engine.set_conn_stat(conn, RE_stat_conn_id{id},
                                 conn % 3 == 0 ? 1000 + id : engine.get_conn_stat(conn, RE_stat_conn_id{id}) + 1);
        }
    }
    engine.close_conn(conns[1], 50);
    for (int id = 0; id < RE_STAT_CONN_ID_MAX; ++id) {
        long long sums[2] = {};
        for (const int conn : conns) {
            sums[conn % 2] += conn_stat(conn, id);
        }
        EXPECT_EQ(peer_conn_stat(peers[0], id), sums[0]);
        EXPECT_EQ(peer_conn_stat(peers[1], id), sums[1]);
        EXPECT_EQ(global_conn_stat(id), sums[0] + sums[1]);
    }
    long long total = 0;
    reader->read_global_stat(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, total);
    EXPECT_EQ(total, 12);
    reader->read_peer_stat(peers[0], RE_STAT_PEER_ID_NUM_TOTAL_CONNS, total);
    EXPECT_EQ(total, 6);
    EXPECT_EQ(reader->read_global_active_conn_count(), 11);
    EXPECT_EQ(reader->read_peer_active_conn_count(peers[0]), 6);
    EXPECT_EQ(reader->read_peer_active_conn_count(peers[1]), 5);
}

TEST_F(slots_test, extreme_values_wrap_in_all_three_figures_alike)
{
    start();
    const int peer = engine.add_peer(5, peer_header_of(5));
    const int conn = open_conn(peer, 1);
    engine.set_conn_stat(conn, RE_stat_conn_id{9}, LLONG_MAX);
    engine.set_conn_stat(conn, RE_stat_conn_id{9}, LLONG_MIN);
    engine.add_conn_stat(conn, RE_stat_conn_id{9}, -1);
    EXPECT_EQ(conn_stat(conn, 9), LLONG_MAX);
    EXPECT_EQ(peer_conn_stat(peer, 9), LLONG_MAX);
    EXPECT_EQ(global_conn_stat(9), LLONG_MAX);
}

TEST_F(slots_test, a_retired_peers_connections_keep_their_figures_and_its_number)
{
    start();
    const int peer = engine.add_peer(50, peer_header_of(50));
    const int conn = open_conn(peer, 7);
    engine.add_conn_stat(conn, RE_stat_conn_id{3}, 10);
    engine.remove_peer(peer);
    EXPECT_FALSE(reader->is_peer_valid(peer));
    EXPECT_TRUE(reader->is_conn_valid(conn));
    engine.add_conn_stat(conn, RE_stat_conn_id{3}, 5);
    EXPECT_EQ(conn_stat(conn, 3), 15);
    EXPECT_EQ(global_conn_stat(3), 15);
    int peer_id = 0;
    EXPECT_EQ(reader->read_conn_peer_id(conn, peer_id), 0);
    EXPECT_EQ(peer_id, 50);
    EXPECT_EQ(reader->read_global_active_conn_count(), 1);

    const int next = engine.add_peer(51, peer_header_of(51));
    ASSERT_EQ(next, peer) << "the slot is used again";
    engine.add_conn_stat(conn, RE_stat_conn_id{3}, 100);
    engine.set_conn_stat(conn, RE_stat_conn_id{4}, 100);
    engine.close_conn(conn, 9);
    EXPECT_EQ(peer_conn_stat(next, 3), 0) << "the new peer gets none of it";
    EXPECT_EQ(peer_conn_stat(next, 4), 0);
    EXPECT_EQ(reader->read_peer_active_conn_count(next), 0);
    EXPECT_EQ(reader->read_global_active_conn_count(), 0);
    EXPECT_EQ(global_conn_stat(3), 115);
}

TEST_F(slots_test, a_retired_peers_slot_starts_at_0_for_the_next)
{
    start();
    const int peer = engine.add_peer(50, peer_header_of(50));
    for (int id = 0; id < RE_STAT_PEER_ID_MAX; ++id) {
        engine.set_peer_stat(peer, RE_stat_peer_id{id}, 9);
    }
    engine.remove_peer(peer);
    engine.remove_peer(peer); // removing it once is enough
    ASSERT_EQ(engine.add_peer(51, peer_header_of(51)), peer);
    EXPECT_NE(engine.add_peer(52, peer_header_of(52)), peer);
    for (int id = 0; id < RE_STAT_PEER_ID_MAX; ++id) {
        long long value = -1;
        EXPECT_EQ(reader->read_peer_stat(peer, id, value), 0);
        EXPECT_EQ(value, 0);
    }
}

TEST_F(slots_test, the_connection_closed_first_gives_up_its_place)
{
    start();
    const int peer = engine.add_peer(1, peer_header_of(1));
    for (std::uint32_t number = 0; number < 16; ++number) {
        ASSERT_EQ(open_conn(peer, number), static_cast<int>(number));
    }
    EXPECT_EQ(open_conn(peer, 99), -ENOSPC);
    for (const int slot : {9, 2, 13}) {
        engine.close_conn(slot, 100);
    }
    engine.close_conn(9, 200); // already closed
    EXPECT_EQ(open_conn(peer, 101), 9);
    EXPECT_EQ(open_conn(peer, 102), 2);
    engine.close_conn(9, 300);
    EXPECT_EQ(open_conn(peer, 103), 13);
    EXPECT_EQ(open_conn(peer, 104), 9);
    EXPECT_EQ(open_conn(peer, 105), -ENOSPC);
    EXPECT_EQ(conn_id(9), 104);
    EXPECT_EQ(reader->read_global_active_conn_count(), 16);
}

TEST_F(slots_test, released_slots_are_used_before_any_connection_loses_its_place)
{
    start();
    const int peer = engine.add_peer(1, peer_header_of(1));
    for (std::uint32_t number = 0; number < 16; ++number) {
        open_conn(peer, number);
    }
    engine.close_conn(4, 1);
    engine.close_conn(5, 1);
    engine.release_conn(5);
    engine.release_conn(6); // closes it as well
    engine.release_conn(6);
    EXPECT_FALSE(reader->is_conn_valid(5));
    EXPECT_FALSE(reader->is_conn_valid(6));
    EXPECT_EQ(reader->read_global_active_conn_count(), 13);
    EXPECT_EQ(open_conn(peer, 100), 6);
    EXPECT_EQ(open_conn(peer, 101), 5);
    EXPECT_EQ(open_conn(peer, 102), 4) << "the only closed one";
    EXPECT_EQ(open_conn(peer, 103), -ENOSPC) << "5 was closed before it was released, but is open now";
}

TEST_F(slots_test, opening_and_closing_without_end_takes_no_memory_and_loses_no_slot)
{
    start();
    const int peer = engine.add_peer(1, peer_header_of(1));
    for (std::uint32_t number = 0; number < 16; ++number) {
        open_conn(peer, number);
    }
    for (std::uint32_t number = 16; number < 20000; ++number) {
        const int slot = static_cast<int>(number % 16);
        engine.close_conn(slot, 1);
        if (number % 3 == 0) {
            engine.release_conn(slot);
        }
        ASSERT_EQ(open_conn(peer, number), slot);
        ASSERT_EQ(conn_id(slot), static_cast<std::int32_t>(number));
    }
    EXPECT_EQ(open_conn(peer, 1), -ENOSPC);
    EXPECT_EQ(reader->read_global_active_conn_count(), 16);
    long long total = 0;
    reader->read_global_stat(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, total);
    EXPECT_EQ(total, 20000);
}

TEST_F(slots_test, counters_of_a_slot_used_again_since_its_identity_was_read_are_0)
{
    start();
    const int peer = engine.add_peer(1, peer_header_of(1));
    for (std::uint32_t number = 0; number < 16; ++number) {
        open_conn(peer, number);
    }
    engine.add_conn_stat(3, RE_stat_conn_id{8}, 77);
    RE_stat_conn_header read{};
    ASSERT_TRUE(reader->is_conn_valid(3));
    ASSERT_EQ(reader->read_conn_header(3, read), 0);
    engine.close_conn(3, 1);
    long long value = -1;
    EXPECT_EQ(reader->read_conn_stat(3, 8, value), 0) << "closing changes no tenant";
    EXPECT_EQ(value, 77);
    ASSERT_EQ(open_conn(peer, 500), 3);
    engine.add_conn_stat(3, RE_stat_conn_id{8}, 88);
    value = -1;
    EXPECT_LT(reader->read_conn_stat(3, 8, value), 0);
    EXPECT_EQ(value, 0);
    SO_stat_conn_header so_header{};
    EXPECT_EQ(reader->read_conn_so_header(3, so_header), 0);
    EXPECT_TRUE(same_record(so_header, so_header_of(3))) << "the round began with the old tenant";
    EXPECT_EQ(conn_id(3), 500) << "a new round";
    EXPECT_EQ(reader->read_conn_stat(3, 8, value), 0);
    EXPECT_EQ(value, 88);
}

TEST_F(slots_test, counters_of_a_released_connection_are_0)
{
    start();
    const int peer = engine.add_peer(1, peer_header_of(1));
    const int slot = open_conn(peer, 1);
    engine.add_conn_stat(slot, RE_stat_conn_id{8}, 77);
    ASSERT_TRUE(reader->is_conn_valid(slot));
    engine.release_conn(slot);
    long long value = -1;
    EXPECT_LT(reader->read_conn_stat(slot, 8, value), 0);
    EXPECT_EQ(value, 0);
}

TEST_F(slots_test, counters_of_another_peer_in_the_slot_are_0)
{
    start();
    const int slot = engine.add_peer(1, peer_header_of(1));
    engine.set_peer_stat(slot, RE_stat_peer_id{8}, 77);
    RE_stat_peer_header read{};
    ASSERT_EQ(reader->read_peer_header(slot, read), 0);
    engine.remove_peer(slot);
    ASSERT_EQ(engine.add_peer(2, peer_header_of(2)), slot);
    engine.set_peer_stat(slot, RE_stat_peer_id{8}, 88);
    open_conn(slot, 1);
    engine.add_conn_stat(0, RE_stat_conn_id{8}, 99);
    long long value = -1;
    EXPECT_LT(reader->read_peer_stat(slot, 8, value), 0);
    EXPECT_EQ(value, 0);
    value = -1;
    EXPECT_LT(reader->read_peer_conn_stat(slot, 8, value), 0);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(reader->read_peer_active_conn_count(slot), 0);
    int peer_id = 0;
    reader->read_peer_id(slot, peer_id);
    EXPECT_EQ(peer_id, 1) << "the round began with the old peer";
    ASSERT_TRUE(reader->is_peer_valid(slot));
    EXPECT_EQ(reader->read_peer_stat(slot, 8, value), 0);
    EXPECT_EQ(value, 88);
    EXPECT_EQ(reader->read_peer_active_conn_count(slot), 1);
}

TEST_F(slots_test, fields_of_one_round_come_from_one_copy)
{
    start();
    const int peers[] = {engine.add_peer(10, peer_header_of(10)), engine.add_peer(11, peer_header_of(11))};
    for (std::uint32_t number = 0; number < 16; ++number) {
        open_conn(peers[0], number);
    }
    ASSERT_TRUE(reader->is_conn_valid(3));
    engine.close_conn(3, 1);
    ASSERT_EQ(open_conn(peers[1], 1000), 3);
    for (const std::uint32_t expected : {3U, 1000U}) { // in the second round, each field is read again
        RE_stat_conn_header header{};
        SO_stat_conn_header so_header{};
        std::time_t open_time = 0;
        std::time_t close_time = 0;
        int peer_id = 0;
        reader->read_conn_header(3, header);
        reader->read_conn_so_header(3, so_header);
        reader->read_conn_time(3, open_time, close_time);
        reader->read_conn_peer_id(3, peer_id);
        EXPECT_TRUE(same_record(header, conn_header_of(expected)));
        EXPECT_TRUE(same_record(so_header, so_header_of(expected)));
        EXPECT_EQ(open_time, expected);
        EXPECT_EQ(peer_id, expected == 3 ? 10 : 11);
    }
}

TEST_F(slots_test, a_slot_that_was_empty_at_the_start_of_a_round_stays_so_until_the_next)
{
    start();
    const int peer = engine.add_peer(10, peer_header_of(10));
    open_conn(peer, 0);
    engine.release_conn(0);
    EXPECT_FALSE(reader->is_conn_valid(0));
    open_conn(peer, 1);
    engine.add_conn_stat(0, RE_stat_conn_id{8}, 5);
    RE_stat_conn_header read{};
    long long value = -1;
    EXPECT_LT(reader->read_conn_header(0, read), 0);
    EXPECT_LT(reader->read_conn_stat(0, 8, value), 0) << "no figures without a name";
    EXPECT_EQ(conn_id(0), 1);
}

TEST_F(slots_test, a_record_that_its_engine_left_half_written_is_not_there_and_is_soon_given_up)
{
    start();
    fill();
    unsigned char* const image = map_segment();
    RE_image_section sections[RE_image_section_count];
    std::memcpy(sections, image + sizeof(RE_image_header), sizeof sections);
    auto* const conns = reinterpret_cast<RE_image_conn_row*>(image + sections[RE_IMAGE_CONNS - 1].offset);
    auto* const peers = reinterpret_cast<RE_image_peer_row*>(image + sections[RE_IMAGE_PEERS - 1].offset);
    for (int slot = 0; slot < 10; ++slot) {
        conns[slot].sequence |= 1U;
    }
    peers[0].sequence |= 1U;
    const std::clock_t start_time = std::clock();
    for (int round = 0; round < 100; ++round) {
        for (int slot = 0; slot < 10; ++slot) {
            EXPECT_FALSE(reader->is_conn_valid(slot));
        }
        EXPECT_FALSE(reader->is_peer_valid(0));
        EXPECT_TRUE(reader->is_peer_valid(3));
    }
    EXPECT_LT(std::clock() - start_time, CLOCKS_PER_SEC);
    const auto saved = file_reader(save());
    ASSERT_EQ(saved->open(), 0);
    EXPECT_FALSE(saved->is_conn_valid(0));
    EXPECT_TRUE(saved->is_peer_valid(3));
}

// The numbers of peers with active connections, now and at most, as the engine reports them.
class connected_peers_test : public engine_test
{
protected:
    void SetUp() override
    {
        start();
        for (int number = 0; number < 3; ++number) {
            ASSERT_EQ(engine.add_peer(number, peer_header_of(1)), number);
        }
    }
    int open_conn(int peer) { return engine.open_conn(peer, conn_header_of(1), so_header_of(1), 1); }
    std::pair<long long, long long> connected() const
    {
        return {engine.get_global(RE_STAT_GLOBAL_ID_NUM_CONNECTED_PEER),
                engine.get_global(RE_STAT_GLOBAL_ID_MAX_NUM_CONNECTED_PEER)};
    }
    using now_and_most = std::pair<long long, long long>;
};

TEST_F(connected_peers_test, are_counted_once_however_many_connections_they_have)
{
    EXPECT_EQ(connected(), now_and_most(0, 0));
    const int first = open_conn(0);
    const int second = open_conn(0);
    EXPECT_EQ(connected(), now_and_most(1, 1));
    const int third = open_conn(1);
    EXPECT_EQ(connected(), now_and_most(2, 2));
    engine.close_conn(first, 5);
    engine.close_conn(first, 6);
    EXPECT_EQ(connected(), now_and_most(2, 2));
    engine.release_conn(second);
    EXPECT_EQ(connected(), now_and_most(1, 2));
    engine.release_conn(first);
    engine.close_conn(third, 7);
    EXPECT_EQ(connected(), now_and_most(0, 2));
    open_conn(2);
    EXPECT_EQ(connected(), now_and_most(1, 2));
}

TEST_F(connected_peers_test, are_no_more_when_they_are_removed)
{
    const int of_removed = open_conn(0);
    open_conn(1);
    engine.remove_peer(0);
    EXPECT_EQ(connected(), now_and_most(1, 2));
    ASSERT_EQ(engine.add_peer(9, peer_header_of(9)), 0) << "another peer in the same place";
    EXPECT_EQ(connected(), now_and_most(1, 2));
    engine.close_conn(of_removed, 5);
    EXPECT_EQ(connected(), now_and_most(1, 2));
    open_conn(0);
    EXPECT_EQ(connected(), now_and_most(2, 2));
    engine.remove_peer(2);
    EXPECT_EQ(connected(), now_and_most(2, 2)) << "it had no connection";
}

TEST_F(connected_peers_test, outlive_resets)
{
    const int first = open_conn(0);
    open_conn(1);
    reader->reset_all();
    EXPECT_EQ(connected(), now_and_most(2, 0));
    reader->clear_all();
    EXPECT_EQ(connected(), now_and_most(0, 0));
    open_conn(1);
    EXPECT_EQ(connected(), now_and_most(2, 2)) << "the next change tells it again";
    reader->clear_all();
    engine.close_conn(first, 5);
    EXPECT_EQ(connected(), now_and_most(1, 1));
}

TEST_F(connected_peers_test, are_published_again)
{
    open_conn(0);
    const int second = open_conn(1);
    ASSERT_EQ(truncate(segment_path().c_str(), 0), 0);
    ASSERT_EQ(engine.publish_again(), 0);
    EXPECT_EQ(connected(), now_and_most(2, 2));
    engine.close_conn(second, 5);
    EXPECT_EQ(connected(), now_and_most(1, 2));
}

TEST_F(connected_peers_test, lose_connections_that_close_while_the_segment_is_cut)
{
    const int first = open_conn(0);
    const int second = open_conn(1);
    open_conn(1);
    ASSERT_EQ(truncate(segment_path().c_str(), 0), 0);
    engine.close_conn(first, 5);
    engine.release_conn(second);
    ASSERT_EQ(engine.publish_again(), 0);
    EXPECT_EQ(connected(), now_and_most(1, 1));
    ASSERT_EQ(reader->open(), 0);
    EXPECT_EQ(reader->read_peer_active_conn_count(0), 0);
    EXPECT_EQ(reader->read_peer_active_conn_count(1), 1);
    open_conn(0);
    EXPECT_EQ(connected(), now_and_most(2, 2));
    EXPECT_EQ(reader->read_peer_active_conn_count(0), 1);
}

// Ids of one family are not accepted for another.
template <typename Id>
concept is_conn_id = requires(RE_stat_writer& writer, Id id)
{
    writer.add_conn_stat(0, id, 5);
};
template <typename Id>
concept is_global_id = requires(RE_stat_writer& writer, Id id)
{
    writer.add_global(id, 5);
};
template <typename Id>
concept is_peer_id = requires(RE_stat_writer& writer, Id id)
{
    writer.add_peer_stat(0, id, 5);
};
template <typename Id>
concept is_app_id = requires(RE_stat_writer& writer, Id id)
{
    writer.add_app_stat(0, id, 5);
};
static_assert(is_conn_id<RE_stat_conn_id> && !is_conn_id<RE_stat_global_id> && !is_conn_id<RE_stat_peer_id> &&
              !is_conn_id<RE_stat_app_id> && !is_conn_id<int>);
static_assert(is_global_id<RE_stat_global_id> && !is_global_id<RE_stat_conn_id> && !is_global_id<int>);
static_assert(is_peer_id<RE_stat_peer_id> && !is_peer_id<RE_stat_conn_id> && !is_peer_id<int>);
static_assert(is_app_id<RE_stat_app_id> && !is_app_id<RE_stat_peer_id> && !is_app_id<int>);

} // namespace
