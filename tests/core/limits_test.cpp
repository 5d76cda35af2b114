// An engine may be as large as its limits allow. A large engine that does little costs little.
#include "support/engine_fixture.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

using limits_test = engine_test;

std::uint64_t bytes_in_memory(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return static_cast<std::uint64_t>(status.st_blocks) * 512;
}

TEST_F(limits_test, the_largest_engine_that_does_little_costs_little)
{
    start({4096, 1000000, 65536, 1000000});
    fill();
    EXPECT_LT(bytes_in_memory(segment_path()), std::uint64_t{1} << 20);
    const std::string path = save();
    EXPECT_LT(bytes_of_file(path).size(), std::size_t{64} << 10);
    const auto saved = file_reader(path);
    ASSERT_EQ(saved->open(), 0);
    expect_same_statistics(*saved, *reader);
}

TEST_F(limits_test, asking_for_slots_that_were_never_used_takes_no_memory)
{
    start({4096, 1000000, 65536, 1000000});
    const std::uint64_t before = bytes_in_memory(segment_path());
    for (int slot = 0; slot < 1000000; slot += 40) {
        EXPECT_FALSE(reader->is_conn_valid(slot));
        EXPECT_FALSE(reader->is_peer_valid(slot));
    }
    EXPECT_EQ(bytes_in_memory(segment_path()), before);
}

TEST_F(limits_test, opening_a_large_segment_touches_a_few_pages)
{
    start({4096, 1000000, 65536, 1000000});
    fill();
    const auto mine = live_reader();
    rusage before{};
    rusage after{};
    getrusage(RUSAGE_SELF, &before);
    ASSERT_EQ(mine->open(), 0);
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LE(after.ru_minflt - before.ru_minflt, 8);
    EXPECT_EQ(after.ru_majflt, before.ru_majflt);
}

TEST_F(limits_test, holds_4096_peers)
{
    start({4096, 1, 1, 1});
    for (int number = 0; number < 4096; ++number) {
        ASSERT_EQ(engine.add_peer(number, peer_header_of(static_cast<std::uint32_t>(number))), number);
        engine.add_peer_stat(number, RE_STAT_PEER_ID_NUM_TOTAL_CONNS, number);
    }
    EXPECT_EQ(engine.add_peer(1, peer_header_of(1)), -ENOSPC);
    EXPECT_EQ(reader->get_max_peer_slots(), 4096);
    for (int number = 0; number < 4096; ++number) {
        RE_stat_peer_header header{};
        long long value = -1;
        int peer_id = -1;
        ASSERT_EQ(reader->read_peer_header(number, header), 0);
        ASSERT_TRUE(same_record(header, peer_header_of(static_cast<std::uint32_t>(number))));
        ASSERT_EQ(reader->read_peer_id(number, peer_id), 0);
        ASSERT_EQ(peer_id, number);
        ASSERT_EQ(reader->read_peer_stat(number, RE_STAT_PEER_ID_NUM_TOTAL_CONNS, value), 0);
        ASSERT_EQ(value, number);
    }
}

TEST_F(limits_test, holds_65536_applications)
{
    start({1, 1, 65536, 1});
    for (std::uint32_t number = 0; number < 65536; ++number) {
        ASSERT_EQ(engine.find_or_add_app(app_key_of(number)), static_cast<int>(number));
        engine.add_app_stat(static_cast<int>(number), RE_stat_app_id{17}, number);
    }
    EXPECT_EQ(engine.find_or_add_app(app_key_of(65536)), -ENOSPC);
    EXPECT_EQ(engine.find_or_add_app(app_key_of(65535)), 65535);
    EXPECT_EQ(reader->get_max_app_slots(), 65536);
    EXPECT_EQ(reader->get_app_slot_shared_memory_header_size(), 65536U);
    for (std::uint32_t number = 0; number < 65536; ++number) {
        RE_stat_app_struct* record = nullptr;
        ASSERT_EQ(reader->read_app_slot(static_cast<int>(number), record), 0);
        ASSERT_TRUE(record->m_header == app_key_of(number));
        ASSERT_EQ(record->m_id_array[17], number);
    }
    const auto saved = file_reader(save());
    ASSERT_EQ(saved->open(), 0);
    RE_stat_app_struct* record = nullptr;
    ASSERT_EQ(saved->read_app_slot(65535, record), 0);
    EXPECT_EQ(record->m_id_array[17], 65535U);
}

TEST_F(limits_test, holds_1000000_connections_and_saves_them)
{
    start({1, 1000000, 1, 1});
    const int peer = engine.add_peer(1, peer_header_of(1));
    for (int number = 0; number < 1000000; ++number) {
        const auto value = static_cast<std::uint32_t>(number);
        ASSERT_EQ(engine.open_conn(peer, conn_header_of(value), so_header_of(value), number), number);
        engine.add_conn_stat(number, RE_stat_conn_id{165}, number);
    }
    EXPECT_EQ(engine.open_conn(peer, conn_header_of(0), so_header_of(0), 1), -ENOSPC);
    EXPECT_EQ(reader->get_max_conn_slots(), 1000000);
    EXPECT_EQ(reader->read_global_active_conn_count(), 1000000);
    const auto expect_all = [](RE_stat_reader& any) {
        for (int number = 0; number < 1000000; ++number) {
            RE_stat_conn_header header{};
            long long value = -1;
            ASSERT_TRUE(any.is_conn_valid(number));
            ASSERT_EQ(any.read_conn_header(number, header), 0);
            ASSERT_EQ(header.m_conn_id, number);
            ASSERT_EQ(any.read_conn_stat(number, 165, value), 0);
            ASSERT_EQ(value, number);
        }
    };
    expect_all(*reader);
    const scratch_folder disk("/tmp"); // 1.4 GB
    ASSERT_EQ(reader->save_stats_binary(disk.file("saved").c_str()), 0);
    const auto saved = file_reader(disk.file("saved"));
    ASSERT_EQ(saved->open(), 0);
    expect_all(*saved);
}

// ---- The NACK log.

class nack_log_test : public engine_test
{
protected:
    void add(std::uint32_t first, std::uint32_t count)
    {
        for (std::uint32_t number = first; number < first + count; ++number) {
            engine.add_nack(nack_of(number));
        }
    }
    void expect_entries(std::int32_t first, std::size_t count)
    {
        const auto nacks = all_nacks(*reader);
        ASSERT_EQ(nacks.size(), count);
        for (std::size_t at = 0; at < count; ++at) {
            EXPECT_TRUE(
                same_record(nacks[at], nack_of(static_cast<std::uint32_t>(first) + static_cast<std::uint32_t>(at))))
                << at;
        }
    }
};

TEST_F(nack_log_test, is_empty_at_first)
{
    start();
    EXPECT_LT(reader->get_first_nack(), 0);
    RE_stat_nack_header entry = nack_of(5);
    for (const int cursor : {0, 1, INT32_MAX, -1, INT32_MIN}) {
        EXPECT_LT(reader->get_next_nack(cursor, entry), 0);
        EXPECT_TRUE(same_record(entry, RE_stat_nack_header{}));
    }
}

TEST_F(nack_log_test, gives_entries_oldest_first_and_a_cursor_behind_the_last)
{
    start();
    add(100, 3);
    RE_stat_nack_header entry{};
    int cursor = reader->get_first_nack();
    ASSERT_GE(cursor, 0);
    for (std::uint32_t number = 100; number < 103; ++number) {
        cursor = reader->get_next_nack(cursor, entry);
        ASSERT_GE(cursor, 0) << "not negative for the last entry either";
        EXPECT_TRUE(same_record(entry, nack_of(number)));
    }
    EXPECT_LT(reader->get_next_nack(cursor, entry), 0);
    EXPECT_TRUE(same_record(entry, RE_stat_nack_header{}));
}

TEST_F(nack_log_test, keeps_the_newest_entries_when_it_wraps)
{
    for (const int room : {1, 2, 3, 8}) {
        SCOPED_TRACE(room);
        start({1, 1, 1, room});
        for (std::uint32_t number = 0; number < 30; ++number) {
            add(number, 1);
            const std::size_t kept = std::min<std::size_t>(number + 1, static_cast<std::size_t>(room));
            expect_entries(static_cast<std::int32_t>(number + 1 - kept), kept);
        }
        engine.close();
    }
}

TEST_F(nack_log_test, a_walk_goes_on_with_the_oldest_entry_left_when_its_next_one_is_overwritten)
{
    start();
    add(0, 8);
    RE_stat_nack_header entry{};
    int cursor = reader->get_first_nack();
    cursor = reader->get_next_nack(cursor, entry);
    EXPECT_EQ(entry.m_time, 0);
    add(8, 4); // 0 to 3 are overwritten
    cursor = reader->get_next_nack(cursor, entry);
    EXPECT_EQ(entry.m_time, 4);
    cursor = reader->get_next_nack(cursor, entry);
    EXPECT_EQ(entry.m_time, 5);
    add(12, 20); // all of them are overwritten
    EXPECT_LT(reader->get_next_nack(cursor, entry), 0);
    expect_entries(24, 8);
}

TEST_F(nack_log_test, a_walk_ends_even_if_the_engine_appends_faster_than_it_reads)
{
    start();
    add(0, 8);
    RE_stat_nack_header entry{};
    int seen = 0;
    std::int32_t last = -1;
    for (int cursor = reader->get_first_nack(); cursor >= 0 && seen < 1000; ++seen) {
        add(static_cast<std::uint32_t>(8 + seen), 1);
        cursor = reader->get_next_nack(cursor, entry);
        if (cursor >= 0) {
            EXPECT_GT(entry.m_time, last);
            last = entry.m_time;
        }
    }
    EXPECT_LE(seen, 9);
    EXPECT_LT(last, 8) << "what was appended during the walk waits for the next one";
}

TEST_F(nack_log_test, cursors_stay_right_where_numbers_outgrow_31_and_32_bits)
{
    const std::uint64_t starts[] = {(1ULL << 31) - 12, (1ULL << 32) - 12, (1ULL << 33) - 12, (1ULL << 62) + 5};
    for (const std::uint64_t number : starts) {
        SCOPED_TRACE(number);
        start();
        header().nacks_logged = number;
        header().nacks_reset = number;
        EXPECT_LT(reader->get_first_nack(), 0);
        for (std::uint32_t added = 1; added < 40; ++added) {
            add(added - 1, 1);
            const std::size_t kept = std::min<std::size_t>(added, 8);
            expect_entries(static_cast<std::int32_t>(added - kept), kept);
        }
        const auto saved = file_reader(save());
        ASSERT_EQ(saved->open(), 0);
        EXPECT_EQ(all_nacks(*saved).size(), 8U);
        EXPECT_EQ(all_nacks(*saved)[7].m_time, 38);
        engine.close();
    }
}

TEST_F(nack_log_test, bogus_cursors_end_or_lead_to_entries_but_never_astray)
{
    start();
    add(0, 20);
    RE_stat_nack_header entry{};
    EXPECT_LT(reader->get_next_nack(-1, entry), 0);
    EXPECT_LT(reader->get_next_nack(INT32_MIN, entry), 0);
    reader->get_first_nack();
    for (const int cursor : {20, 21, 1000, INT32_MAX}) {
        EXPECT_LT(reader->get_next_nack(cursor, entry), 0) << cursor;
    }
    header().nacks_logged = (1ULL << 40) + 4;
    header().nacks_reset = 0;
    ASSERT_LT(reader->get_first_nack(), INT32_MAX);
    for (const int cursor : {0, 4, 5, 1000, INT32_MAX}) {
        EXPECT_LT(reader->get_next_nack(cursor, entry), 0) << "no row holds the entry it should";
    }
}

TEST_F(nack_log_test, a_row_that_is_being_written_is_passed_over)
{
    start();
    add(0, 8);
    unsigned char* const image = map_segment();
    RE_image_section sections[RE_image_section_count];
    std::memcpy(sections, image + sizeof(RE_image_header), sizeof sections);
    auto* const rows = reinterpret_cast<RE_image_nack_row*>(image + sections[RE_IMAGE_NACKS - 1].offset);
    --rows[3].sequence;
    const auto nacks = all_nacks(*reader);
    ASSERT_EQ(nacks.size(), 7U);
    EXPECT_EQ(nacks[2].m_time, 2);
    EXPECT_EQ(nacks[3].m_time, 4);
    const auto saved = file_reader(save());
    ASSERT_EQ(saved->open(), 0);
    EXPECT_EQ(all_nacks(*saved).size(), 7U);
}

TEST_F(nack_log_test, a_reset_ends_a_walk_and_empties_the_log)
{
    start();
    add(0, 20);
    RE_stat_nack_header entry{};
    const int cursor = reader->get_next_nack(reader->get_first_nack(), entry);
    ASSERT_GE(cursor, 0);
    reader->reset_all_nacks();
    EXPECT_LT(reader->get_next_nack(cursor, entry), 0);
    EXPECT_LT(reader->get_first_nack(), 0);
    add(20, 3);
    expect_entries(20, 3);
    const auto saved = file_reader(save());
    ASSERT_EQ(saved->open(), 0);
    EXPECT_EQ(all_nacks(*saved).size(), 3U);
}

TEST_F(nack_log_test, numbers_that_cannot_be_never_lead_out_of_the_log)
{
    start();
    add(0, 20);
    const std::uint64_t numbers[] = {0, 1, 7, 8, 19, 21, 1ULL << 31, 1ULL << 63, UINT64_MAX - 1, UINT64_MAX};
    for (const std::uint64_t logged : numbers) {
        for (const std::uint64_t reset : numbers) {
            header().nacks_logged = logged;
            header().nacks_reset = reset;
            EXPECT_LE(all_nacks(*reader).size(), 8U) << logged << ' ' << reset;
            const auto saved = file_reader(save());
            ASSERT_EQ(saved->open(), 0);
            EXPECT_LE(all_nacks(*saved).size(), 8U);
        }
    }
}

} // namespace
