// Live statistics that are cut short while they are read: nobody dies of it, and nothing is made of the zeros.
#include "core/engine_fixture.h"

#include "RE_shm_reader.h"
#include "RE_stat_error.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

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
        struct stat status
        {
        };
        ASSERT_EQ(stat(segment_path().c_str(), &status), 0);
        m_size = status.st_size;
        ASSERT_EQ(m_mine.open(), 0);
    }
    // The engine cannot withdraw from memory that is gone.
    void TearDown() override { cut_to(m_size); }

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

TEST_F(cut_test, of_what_is_being_saved_leaves_the_old_file_and_no_other)
{
    write_file(folder.file("old"), "old");
    cut_to(4096);
    EXPECT_EQ(m_mine.save_stats_binary(folder.file("old").c_str()), RE_STAT_ERR_CUT);
    EXPECT_EQ(m_mine.save_stats_binary(folder.file("new").c_str()), RE_STAT_ERR_CUT);
    EXPECT_EQ(bytes_of_file(folder.file("old")), "old");
    EXPECT_EQ(folder.names(), std::vector<std::string>{"old"});
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
