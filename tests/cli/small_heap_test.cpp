// The viewer's own memory, under other names: this program keeps the C library's.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#define malloc small_heap_malloc
#define free small_heap_free
#define calloc small_heap_calloc
#define realloc small_heap_realloc
extern "C" {
void* malloc(std::size_t size);
void free(void* memory);
void* calloc(std::size_t count, std::size_t size);
void* realloc(void* memory, std::size_t size);
}
#include "../../comp/TCP/program/RE_small_heap.cpp"

namespace {

bool is_aligned(const void* memory)
{
    return reinterpret_cast<std::uintptr_t>(memory) % alignof(std::max_align_t) == 0;
}

bool holds(const unsigned char* memory, std::size_t size, unsigned char value)
{
    return std::all_of(memory, memory + size, [=](unsigned char byte) { return byte == value; });
}

} // namespace

TEST(small_heap, gives_memory_of_every_size)
{
    for (std::size_t size = 0; size < 70000; size += size < 100 ? 1 : 997) {
        void* const memory = malloc(size);
        ASSERT_NE(memory, nullptr) << size;
        ASSERT_TRUE(is_aligned(memory)) << size;
        std::memset(memory, 0xee, size);
        free(memory);
    }
    free(nullptr);
}

TEST(small_heap, keeps_blocks_apart_whatever_comes_and_goes)
{
    struct block
    {
        unsigned char* memory;
        std::size_t size;
        unsigned char value;
    };
    std::mt19937 random(9);
    std::vector<block> blocks;
    for (int round = 0; round < 20000; ++round) {
        const std::size_t size = random() % (random() % 20 == 0 ? 200000U : 600U);
        const auto value = static_cast<unsigned char>(random());
        const std::size_t at = blocks.empty() ? 0 : random() % blocks.size();
        if (blocks.size() < 50 || random() % 3 == 0) {
            blocks.push_back({static_cast<unsigned char*>(malloc(size)), size, value});
            ASSERT_NE(blocks.back().memory, nullptr);
            std::memset(blocks.back().memory, value, size);
            continue;
        }
        block& old = blocks[at];
        ASSERT_TRUE(holds(old.memory, old.size, old.value));
        if (random() % 2 == 0) {
            auto* const moved = static_cast<unsigned char*>(realloc(old.memory, size));
            ASSERT_NE(moved, nullptr);
            ASSERT_TRUE(is_aligned(moved));
            ASSERT_TRUE(holds(moved, std::min(size, old.size), old.value));
            std::memset(moved, value, size);
            old = {moved, size, value};
        } else {
            free(old.memory);
            old = blocks.back();
            blocks.pop_back();
        }
    }
    for (const block& each : blocks) {
        ASSERT_TRUE(holds(each.memory, each.size, each.value));
        free(each.memory);
    }
}

TEST(small_heap, uses_a_block_again)
{
    void* const memory = malloc(100);
    free(memory);
    EXPECT_EQ(malloc(128), memory);
    free(memory);
}

TEST(small_heap, clears_memory_that_was_used_before)
{
    for (const std::size_t size : {std::size_t{48}, std::size_t{5000}, std::size_t{100000}}) {
        void* const used = malloc(size);
        std::memset(used, 0xff, size);
        free(used);
        auto* const cleared = static_cast<unsigned char*>(calloc(size / 8, 8));
        ASSERT_NE(cleared, nullptr);
        EXPECT_TRUE(holds(cleared, size, 0)) << size;
        free(cleared);
    }
}

TEST(small_heap, refuses_what_cannot_be_had)
{
    const std::size_t far_too_much = SIZE_MAX / 2 + 1;
    for (const std::size_t size : {SIZE_MAX, SIZE_MAX - 15, far_too_much, std::size_t{1} << 60U}) {
        errno = 0;
        EXPECT_EQ(malloc(size), nullptr) << size;
        EXPECT_EQ(errno, ENOMEM);
    }
    errno = 0;
    EXPECT_EQ(calloc(SIZE_MAX / 4, 5), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    auto* const kept = static_cast<unsigned char*>(malloc(10));
    std::memset(kept, 7, 10);
    EXPECT_EQ(realloc(kept, std::size_t{1} << 60U), nullptr);
    EXPECT_TRUE(holds(kept, 10, 7)); // a refusal leaves the old block as it is
    free(kept);
}

TEST(small_heap, reallocates_nothing_as_malloc_and_in_place_where_there_is_room)
{
    auto* const memory = static_cast<unsigned char*>(realloc(nullptr, 40));
    ASSERT_NE(memory, nullptr);
    std::memset(memory, 1, 40);
    EXPECT_EQ(realloc(memory, 64), memory); // there was room already
    free(memory);
}
