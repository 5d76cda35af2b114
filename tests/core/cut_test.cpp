// Live statistics that are cut short while they are read. The process survives, and the zeros are not used as values.
#include "support/engine_fixture.h"

#include "RE_shm_reader.h"
#include "RE_stat_error.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <thread>

namespace {

class cut_test : public engine_test
{
protected:
    void SetUp() override
    {
        start({8, 1000, 8, 8});
        fill();
        struct stat status = {};
        ASSERT_EQ(stat(segment_path().c_str(), &status), 0);
        m_size = status.st_size;
        ASSERT_EQ(m_mine.open(), 0);
    }
    void cut_to(off_t size) const { ASSERT_EQ(truncate(segment_path().c_str(), size), 0); }

    off_t m_size = 0;
    RE_shm_reader m_mine;
};

TEST_F(cut_test, is_noted_by_the_reader_and_read_as_zeros)
{
    EXPECT_FALSE(m_mine.is_cut());
    cut_to(0);
    long long value = 1;
    EXPECT_EQ(m_mine.read_global_stat(1, value), 0);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(m_mine.get_max_conn_slots(), 0);
    EXPECT_TRUE(m_mine.is_cut());
}

TEST_F(cut_test, in_the_middle_leaves_what_stands_before)
{
    cut_to(4096);
    EXPECT_EQ(m_mine.get_max_peer_slots(), reader->get_max_peer_slots());
    EXPECT_FALSE(m_mine.is_cut());
    EXPECT_EQ(m_mine.get_config_param() == nullptr, reader->get_config_param() == nullptr);
    for (int slot = 0; slot < 1000; ++slot) {
        EXPECT_FALSE(m_mine.is_conn_valid(slot));
    }
    EXPECT_TRUE(m_mine.is_cut());
}

TEST_F(cut_test, is_forgotten_when_the_statistics_are_opened_again)
{
    cut_to(0);
    m_mine.get_max_conn_slots();
    EXPECT_TRUE(m_mine.is_cut());
    EXPECT_EQ(m_mine.open(), RE_STAT_ERR_CUT);
    EXPECT_FALSE(m_mine.is_cut());
}

TEST_F(cut_test, with_a_header_that_agrees_is_refused_for_its_layout)
{
    const std::string whole = bytes_of_file(segment_path());
    for (off_t size = m_size - 1; size >= static_cast<off_t>(sizeof(RE_image_header)); size = size * 9 / 10) {
        cut_to(size);
        header().total_size = static_cast<std::uint64_t>(size);
        const auto other = live_reader();
        EXPECT_EQ(other->open(), RE_STAT_ERR_LAYOUT) << size;
    }
    write_file(segment_path(), whole); // so that the engine can withdraw
}

TEST_F(cut_test, of_what_is_being_saved_leaves_the_old_file_and_no_other)
{
    write_file(folder.file("old"), "old");
    cut_to(4096);
    EXPECT_EQ(m_mine.save_stats_binary(folder.file("old").c_str()), RE_STAT_ERR_CUT);
    EXPECT_EQ(m_mine.save_stats_binary(folder.file("new").c_str()), RE_STAT_ERR_CUT);
    EXPECT_EQ(bytes_of_file(folder.file("old")), "old");
    EXPECT_EQ(names_in(folder.path()), std::vector<std::string>{"old"});
}

TEST_F(cut_test, of_one_engine_is_noted_by_all_its_readers_at_once)
{
    std::vector<std::thread> threads;
    std::atomic<int> noted{0};
    std::atomic<int> opened{0};
    for (int number = 0; number < 16; ++number) {
        threads.emplace_back([&] {
            RE_shm_reader each;
            opened += each.open() == 0 ? 1 : 100;
            while (!each.is_cut()) {
                each.is_conn_valid(3);
            }
            ++noted;
        });
    }
    while (opened < 16) {
        std::this_thread::yield();
    }
    cut_to(0);
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(noted, 16);
}

// Group members may do that when the segment's mode allows it.
TEST_F(cut_test, of_a_living_engine_costs_it_no_more_than_what_was_cut)
{
    std::vector<int> open_conns;
    for (std::uint32_t number = 0; number < 1000; ++number) {
        const int slot = engine.open_conn(0, conn_header_of(number), so_header_of(number), 1);
        if (slot >= 0) {
            open_conns.push_back(slot);
        }
    }
    const int app = engine.find_or_add_app(app_key_of(7));
    for (const off_t size : {off_t{0}, off_t{100}, off_t{4096}, off_t{8192}, m_size / 2}) {
        for (const bool b_grown : {false, true}) {
            SCOPED_TRACE(size);
            ASSERT_TRUE(engine.is_in_place());
            cut_to(size);
            if (b_grown && size < 4096) {
                cut_to(m_size);
            }
            EXPECT_FALSE(engine.is_in_place());
            engine.add_global(RE_stat_global_id{1}, 1);
            engine.add_conn_stat(open_conns.front(), RE_stat_conn_id{1}, 1);
            engine.close_conn(open_conns.front(), 5);
            open_conns.erase(open_conns.begin());
            engine.add_nack(nack_of(1));
            EXPECT_EQ(engine.set_bypass({1, 2, RE_bypass_reason::configured, 1, 1, 1, 1}), 0);
            EXPECT_EQ(engine.publish_again(), 0);
            EXPECT_TRUE(engine.is_in_place());
            ASSERT_EQ(reader->open(), 0);
            long long value = 0;
            reader->read_global_stat(1, value);
            EXPECT_GT(value, 0);
            EXPECT_TRUE(same_record(*reader->get_config_param(), config_of(77)));
            EXPECT_EQ(reader->read_global_active_conn_count(), static_cast<int>(open_conns.size()) + 7);
            RE_stat_peer_header peer{};
            EXPECT_EQ(reader->read_peer_header(0, peer), 0);
            EXPECT_TRUE(same_record(peer, peer_header_of(500)));
            RE_stat_app_header found{};
            EXPECT_EQ(reader->read_app_header(app, found), 0);
            EXPECT_EQ(engine.find_or_add_app(app_key_of(7)), app);
            // The slot of the closed connection is reused, and its counters start at 0.
            const int slot = engine.open_conn(0, conn_header_of(5000), so_header_of(1), 9);
            ASSERT_GE(slot, 0);
            EXPECT_EQ(std::count(open_conns.begin(), open_conns.end(), slot), 0);
            open_conns.push_back(slot);
            RE_stat_conn_header conn{};
            EXPECT_EQ(reader->read_conn_header(slot, conn), 0);
            EXPECT_TRUE(same_record(conn, conn_header_of(5000)));
        }
    }
}

TEST_F(cut_test, has_nothing_to_do_with_other_signals_of_that_name)
{
    EXPECT_EQ(result_in_child([] {
                  raise(SIGBUS);
                  return 0;
              }),
              -1);
    EXPECT_EQ(result_in_child([this] {
                  const int file = memfd_create("elsewhere", MFD_CLOEXEC);
                  const void* const page = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, file, 0);
                  return *static_cast<const volatile unsigned char*>(page) + (m_mine.is_cut() ? 1 : 0);
              }),
              -1);
}

} // namespace
