#include "RE_chunk_store.h"

#include "test_bytes.h"

#include <gtest/gtest.h>

namespace {

constexpr std::time_t noon = 1'000'000;

TEST(signature_fifo, drops_the_oldest_beyond_its_capacity)
{
    RE_signature_fifo fifo(1000, 100);
    for (RE_signature signature = 1; signature <= 4; ++signature) {
        fifo.insert(signature, 300, noon);
    }
    EXPECT_EQ(fifo.find(1), nullptr);
    ASSERT_NE(fifo.find(2), nullptr);
    EXPECT_EQ(fifo.find(2)->position, 300U);
    EXPECT_EQ(fifo.chunk_count(), 3U);
    EXPECT_EQ(fifo.used_bytes(), 900U);
    EXPECT_EQ(fifo.head_clock(), 1200U);
    EXPECT_EQ(fifo.tail_clock(), 300U);
    EXPECT_EQ(fifo.bytes_evicted_in_last_hour(noon), 300);
}

TEST(signature_fifo, stays_bounded_whatever_comes)
{
    RE_signature_fifo fifo(64 * 1024, 256);
    RE_random random(1);
    for (int count = 0; count < 100'000; ++count) {
        fifo.insert(random.below(1000), static_cast<std::uint32_t>(256 + random.below(4096)), noon);
        ASSERT_LE(fifo.used_bytes(), fifo.capacity());
        ASSERT_LE(fifo.chunk_count(), fifo.max_chunk_count());
    }
}

TEST(signature_fifo, remembers_less_while_it_is_limited)
{
    RE_signature_fifo fifo(1000, 100);
    for (RE_signature signature = 1; signature <= 5; ++signature) {
        fifo.insert(signature, 200, noon);
    }
    fifo.limit({500}, noon);
    EXPECT_EQ(fifo.capacity(), 500U);
    EXPECT_EQ(fifo.chunk_count(), 2U);
    EXPECT_EQ(fifo.times_full(), 0U);
    fifo.limit({2000, 3}, noon);
    EXPECT_EQ(fifo.capacity(), 1000U);
    EXPECT_EQ(fifo.chunk_count(), 2U);
    fifo.insert(6, 200, noon);
    EXPECT_EQ(fifo.times_full(), 0U);
    fifo.insert(7, 200, noon);
    EXPECT_EQ(fifo.times_full(), 1U);
    EXPECT_EQ(fifo.chunk_count(), 3U);
    EXPECT_EQ(fifo.find(4), nullptr);
    fifo.limit({}, noon);
    fifo.insert(8, 200, noon);
    EXPECT_EQ(fifo.chunk_count(), 4U);
}

TEST(signature_fifo, keeps_a_chunk_that_came_again_until_its_last_place_goes)
{
    RE_signature_fifo fifo(1000, 100);
    fifo.insert(1, 400, noon);
    fifo.insert(1, 400, noon);
    fifo.insert(2, 400, noon); // the first copy of chunk 1 is evicted
    ASSERT_NE(fifo.find(1), nullptr);
    EXPECT_EQ(fifo.find(1)->position, 400U);
    fifo.insert(3, 400, noon);
    EXPECT_EQ(fifo.find(1), nullptr);
}

TEST(signature_fifo, counts_sections_from_the_oldest_to_the_newest)
{
    RE_signature_fifo fifo(1000, 100);
    EXPECT_EQ(fifo.section_count(), 0U);
    fifo.insert(1, 300, noon);
    fifo.insert(2, 300, noon);
    fifo.end_section();
    fifo.end_section(); // a message without chunks does not create a section
    fifo.insert(3, 300, noon + 5);
    fifo.end_section();
    EXPECT_EQ(fifo.section_count(), 2U);
    EXPECT_EQ(fifo.oldest_time(), noon);
    fifo.insert(4, 600, noon + 6); // evicts 1 and 2, the whole first section
    EXPECT_EQ(fifo.section_count(), 2U);
    EXPECT_EQ(fifo.sections_evicted_in_last_hour(noon + 6), 1);
    EXPECT_EQ(fifo.oldest_time(), noon + 5);
}

TEST(signature_fifo, forgets_what_it_is_told_to)
{
    RE_signature_fifo fifo(10'000, 100);
    for (RE_signature signature = 1; signature <= 5; ++signature) {
        fifo.insert(signature, 100, noon);
    }
    fifo.forget(4);
    fifo.forget_up_to(100, noon); // forgets 1 and 2
    EXPECT_EQ(fifo.find(1), nullptr);
    EXPECT_EQ(fifo.find(2), nullptr);
    EXPECT_NE(fifo.find(3), nullptr);
    EXPECT_EQ(fifo.find(4), nullptr);
    EXPECT_NE(fifo.find(5), nullptr);
    fifo.clear();
    EXPECT_EQ(fifo.chunk_count(), 0U);
    EXPECT_EQ(fifo.tail_clock(), fifo.head_clock());
}

TEST(last_hour, forgets_what_is_older_than_an_hour)
{
    RE_last_hour sum;
    sum.add(noon, 5);
    sum.add(noon + 1800, 7);
    EXPECT_EQ(sum.sum(noon + 1800), 12);
    EXPECT_EQ(sum.sum(noon + 3600 + 60), 7);
    EXPECT_EQ(sum.sum(noon + 100'000), 0);
}

TEST(chunk_store, gives_back_what_it_was_given_until_it_wraps)
{
    const temporary_folder folder;
    RE_chunk_store store(folder.path(), 100'000, 256);
    EXPECT_FALSE(store.is_ready());
    store.prepare(60'000);
    EXPECT_FALSE(store.is_ready());
    store.prepare(60'000);
    EXPECT_TRUE(store.is_ready());

    // 300 chunks of 1,000 bytes fill the file three times. The last 100 are still in it.
    for (std::uint64_t number = 0; number < 300; ++number) {
        store.insert(number, random_bytes(1000, number), noon);
        if (number % 7 == 0) {
            store.end_section();
        }
    }
    store.end_section();
    for (std::uint64_t number = 0; number < 300; ++number) {
        RE_byte_buffer chunk;
        ASSERT_EQ(store.read(number, chunk), number >= 200) << number;
        if (number >= 200) {
            EXPECT_EQ(chunk, random_bytes(1000, number)) << number;
        }
    }
}

TEST(chunk_store, reads_chunks_of_the_section_under_way)
{
    const temporary_folder folder;
    RE_chunk_store store(folder.path(), 100'000, 256);
    store.prepare(100'000);
    store.insert(1, random_bytes(700, 1), noon);
    store.insert(2, random_bytes(800, 2), noon);
    RE_byte_buffer chunk;
    ASSERT_TRUE(store.read(2, chunk));
    EXPECT_EQ(chunk, random_bytes(800, 2));
    EXPECT_EQ(store.disk_work().reads, 0U);
    EXPECT_EQ(store.disk_work().writes, 0U);
}

TEST(chunk_store, fails_while_its_disk_is_full_and_is_empty_after_that)
{
    const temporary_folder folder;
    RE_chunk_store store(folder.path(), 100'000, 256);
    store.prepare(100'000);
    store.insert(1, random_bytes(700, 1), noon);
    store.end_section();

    store.set_disk_full(true);
    EXPECT_TRUE(store.is_failed());
    EXPECT_FALSE(store.is_ready());
    store.prepare(0);
    EXPECT_TRUE(store.is_failed());
    store.insert(2, random_bytes(700, 2), noon);
    store.end_section();
    EXPECT_EQ(store.index().chunk_count(), 0U);

    store.set_disk_full(false);
    EXPECT_TRUE(store.is_ready());
    store.insert(3, random_bytes(700, 3), noon);
    store.end_section();
    RE_byte_buffer chunk;
    EXPECT_FALSE(store.read(1, chunk));
    EXPECT_FALSE(store.read(2, chunk));
    ASSERT_TRUE(store.read(3, chunk));
    EXPECT_EQ(chunk, random_bytes(700, 3));
}

TEST(chunk_store, is_not_ready_and_loses_all_while_it_is_not_in_use)
{
    const temporary_folder folder;
    RE_chunk_store store(folder.path(), 100'000, 256);
    store.prepare(100'000);
    store.insert(1, random_bytes(700, 1), noon);
    store.end_section();
    store.set_in_use(false);
    EXPECT_FALSE(store.is_ready());
    EXPECT_FALSE(store.is_failed());
    store.set_in_use(true);
    EXPECT_TRUE(store.is_ready());
    EXPECT_EQ(store.size_of(1), 0U);
}

TEST(chunk_store, leaves_no_file_behind)
{
    const temporary_folder folder;
    const RE_chunk_store store(folder.path(), 100'000, 256);
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST(chunk_store, says_when_it_cannot_make_its_file)
{
    EXPECT_THROW(RE_chunk_store("/nonexistent", 100'000, 256), std::exception);
}

} // namespace
