#include "RE_chunker.h"

#include "test_bytes.h"

#include <gtest/gtest.h>

#include <set>

namespace {

std::vector<std::size_t> cut_all(const RE_chunker& chunker, RE_byte_view data)
{
    std::vector<std::size_t> ends;
    std::size_t end = 0;
    while (end < data.size()) {
        end += chunker.cut(data.subspan(end)).size;
        ends.push_back(end);
    }
    return ends;
}

TEST(chunker, cuts_within_its_bounds)
{
    const RE_byte_buffer data = random_bytes(1 << 20, 1);
    const RE_chunker chunker({256, 1024, 4096});
    std::size_t begin = 0;
    std::size_t forced = 0;
    const std::vector<std::size_t> ends = cut_all(chunker, data);
    for (const std::size_t end : ends) {
        EXPECT_LE(end - begin, 4096U);
        EXPECT_TRUE(end - begin >= 256 || end == data.size());
        forced += end - begin == 4096 ? 1U : 0U;
        begin = end;
    }
    EXPECT_EQ(begin, data.size());
    // A chunk has 256 + 1024 bytes on average. A tenth more or less is allowed, because a few percent reach the
    // maximum.
    EXPECT_NEAR(static_cast<double>(ends.size()), 1048576.0 / 1280, 82);
    EXPECT_GT(forced, 0U);
    EXPECT_LT(forced, ends.size() / 10);
}

TEST(chunker, finds_its_cuts_again_behind_an_insertion)
{
    const RE_byte_buffer data = random_bytes(256 * 1024, 2);
    RE_byte_buffer changed = data;
    const RE_byte_buffer inserted = random_bytes(11, 3);
    constexpr std::ptrdiff_t place = 100'000;
    changed.insert(changed.begin() + place, inserted.begin(), inserted.end());

    const RE_chunker chunker({256, 1024, 8192});
    const std::vector<std::size_t> before = cut_all(chunker, data);
    const std::vector<std::size_t> after = cut_all(chunker, changed);
    const std::set<std::size_t> cuts_after(after.begin(), after.end());
    std::size_t moved = 0;
    for (const std::size_t cut : before) {
        const std::size_t expected = cut <= place ? cut : cut + inserted.size();
        moved += cuts_after.count(expected) == 0 ? 1U : 0U;
    }
    EXPECT_GT(before.size(), 150U);
    EXPECT_LE(moved, 8U);
}

TEST(chunker, says_why_it_cut)
{
    const RE_chunker chunker({256, 1024, 2048});
    const RE_byte_buffer small = random_bytes(100, 4);
    EXPECT_EQ(chunker.cut(small).size, 100U);
    EXPECT_EQ(chunker.cut(small).cause, RE_cut_cause::end_of_data);

    // In equal bytes, no anchor is found.
    const RE_byte_buffer dull(10'000, 0);
    EXPECT_EQ(chunker.cut(dull).size, 2048U);
    EXPECT_EQ(chunker.cut(dull).cause, RE_cut_cause::forced);

    const RE_byte_buffer lively = random_bytes(10'000, 5);
    const RE_chunk_cut cut = chunker.cut(lively);
    EXPECT_EQ(cut.cause, cut.size == 2048 ? RE_cut_cause::forced : RE_cut_cause::anchor);
}

TEST(chunker, refuses_sizes_out_of_range)
{
    EXPECT_THROW(RE_chunker({63, 1024, 8192}), std::invalid_argument);
    EXPECT_THROW(RE_chunker({256, 1000, 8192}), std::invalid_argument);
    EXPECT_THROW(RE_chunker({256, 1024, 255}), std::invalid_argument);
    EXPECT_THROW(RE_chunker({256, 1024, 16384}), std::invalid_argument);
}

} // namespace
