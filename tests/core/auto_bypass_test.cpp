// The auto-bypass table as it is stored, returned and printed. An image with any content is printed safely.
#include "support/engine_fixture.h"

#include "RE_auto_bypass.h"
#include "RE_bypass_table.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <random>

namespace {

std::string printed(void* table, bool b_detail)
{
    testing::internal::CaptureStdout();
    RE_auto_bypass::show_tables(table, b_detail);
    return testing::internal::GetCapturedStdout();
}

class auto_bypass_test : public engine_test
{
protected:
    auto_bypass_test()
    {
        setenv("TZ", "UTC0", 1);
        tzset();
    }
    ~auto_bypass_test() override { unsetenv("TZ"); }
    static int size() { return static_cast<int>(RE_auto_bypass::get_shm_size()); }
    std::string live(bool b_detail) { return printed(reader->get_re_auto_bypass_memory_ptr(size()), b_detail); }
    std::string saved(bool b_detail)
    {
        const auto file = file_reader(save());
        EXPECT_EQ(file->open(), 0);
        return printed(file->get_re_auto_bypass_memory_ptr(size()), b_detail);
    }
};

constexpr const char* not_available = "KAV auto-bypass table: not available\n";

constexpr const char* nothing_in_it = "KAV auto-bypass table: 0 of 1024 entries in use\n"
                                      "  Bypassed: 0 bytes, 0 connections\n";

constexpr const char* heading =
    "\n        Server-ip:port   Reason           Since                       Bytes  Connections  Next attempt\n";

TEST_F(auto_bypass_test, prints_an_empty_table)
{
    start();
    EXPECT_EQ(live(false), nothing_in_it);
    EXPECT_EQ(live(true), nothing_in_it);
    EXPECT_EQ(saved(true), nothing_in_it);
}

TEST_F(auto_bypass_test, prints_a_summary_and_its_entries)
{
    start();
    ASSERT_EQ(engine.set_bypass({0x0a010203, 443, RE_bypass_reason::low_compression, 1700000000, 1700003600, 5000, 7}),
              0);
    ASSERT_EQ(engine.set_bypass({0xc0a80001, 8080, RE_bypass_reason::configured, 1700000001, 0, 10, 1}), 0);
    ASSERT_EQ(engine.set_bypass({0x01020304, 65535, RE_bypass_reason::repeated_nacks, 0, 0, 0, 0}), 0);
    const std::string summary = "KAV auto-bypass table: 3 of 1024 entries in use\n"
                                "  Bypassed: 5010 bytes, 8 connections\n";
    const std::string entries =
        "         10.1.2.3:443    low compression  11/14/2023 22:13:20          5000            7  11/14/2023 "
        "23:13:20\n"
        "      192.168.0.1:8080   configured       11/14/2023 22:13:21            10            1  never\n"
        "          1.2.3.4:65535  repeated NACKs   01/01/1970 00:00:00             0            0  never\n";
    EXPECT_EQ(live(false), summary);
    EXPECT_EQ(live(true), summary + heading + entries);
    EXPECT_EQ(saved(true), summary + heading + entries);
}

TEST_F(auto_bypass_test, updates_removes_and_reuses_entries)
{
    start();
    ASSERT_EQ(engine.set_bypass({1, 10, RE_bypass_reason::configured, 1, 0, 1, 1}), 0);
    ASSERT_EQ(engine.set_bypass({2, 10, RE_bypass_reason::configured, 1, 0, 2, 1}), 0);
    ASSERT_EQ(engine.set_bypass({1, 11, RE_bypass_reason::configured, 1, 0, 4, 1}), 0);
    ASSERT_EQ(engine.set_bypass({1, 10, RE_bypass_reason::configured, 1, 0, 8, 1}), 0);
    EXPECT_NE(live(false).find("3 of 1024"), std::string::npos);
    EXPECT_NE(live(false).find("14 bytes, 3 connections"), std::string::npos);
    EXPECT_EQ(engine.clear_bypass(1, 12), -ENOENT);
    EXPECT_EQ(engine.clear_bypass(3, 10), -ENOENT);
    EXPECT_EQ(engine.clear_bypass(1, 10), 0);
    EXPECT_EQ(engine.clear_bypass(1, 10), -ENOENT);
    EXPECT_NE(live(false).find("2 of 1024"), std::string::npos);
    ASSERT_EQ(engine.set_bypass({9, 9, RE_bypass_reason::configured, 1, 0, 16, 1}), 0);
    EXPECT_NE(live(false).find("22 bytes, 3 connections"), std::string::npos);
    // The entry after the removed one is found and not added again.
    ASSERT_EQ(engine.clear_bypass(9, 9), 0);
    ASSERT_EQ(engine.set_bypass({1, 11, RE_bypass_reason::configured, 1, 0, 32, 1}), 0);
    EXPECT_NE(live(false).find("34 bytes, 2 connections"), std::string::npos);
    EXPECT_EQ(live(true), saved(true));
}

TEST_F(auto_bypass_test, holds_1024_entries)
{
    start();
    for (std::uint32_t number = 0; number < RE_bypass_capacity; ++number) {
        ASSERT_EQ(engine.set_bypass({number + 1, 80, RE_bypass_reason::configured, 1, 0, 1, 1}), 0);
    }
    EXPECT_EQ(engine.set_bypass({5000, 80, RE_bypass_reason::configured, 1, 0, 1, 1}), -ENOSPC);
    EXPECT_EQ(engine.set_bypass({1024, 80, RE_bypass_reason::configured, 1, 0, 100, 1}), 0) << "an update fits";
    EXPECT_NE(live(true).find("1024 of 1024 entries in use\n  Bypassed: 1123 bytes, 1024 connections\n"),
              std::string::npos);
    EXPECT_EQ(live(true), saved(true));
    const std::string text = live(true);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2 + 2 + 1024);
    ASSERT_EQ(engine.clear_bypass(77, 80), 0);
    EXPECT_EQ(engine.set_bypass({5000, 80, RE_bypass_reason::configured, 1, 0, 1, 1}), 0);
    EXPECT_EQ(engine.set_bypass({5001, 80, RE_bypass_reason::configured, 1, 0, 1, 1}), -ENOSPC);
}

TEST_F(auto_bypass_test, extreme_moments_and_figures_print_as_numbers)
{
    start();
    ASSERT_EQ(engine.set_bypass(
                  {UINT32_MAX, 0, static_cast<RE_bypass_reason>(99), INT64_MAX, INT64_MIN, UINT64_MAX, UINT64_MAX}),
              0);
    EXPECT_EQ(live(true), "KAV auto-bypass table: 1 of 1024 entries in use\n"
                          "  Bypassed: 18446744073709551615 bytes, 18446744073709551615 connections\n" +
                              std::string(heading) +
                              "  255.255.255.255:0      unknown          9223372036854775807  18446744073709551615  "
                              "18446744073709551615  -9223372036854775808\n");
    ASSERT_EQ(engine.set_bypass({UINT32_MAX, 0, RE_bypass_reason::configured, 4294967296, -1, 0, 0}), 0);
    EXPECT_NE(live(true).find("02/07/2106 06:28:16"), std::string::npos);
    EXPECT_NE(live(true).find("12/31/1969 23:59:59"), std::string::npos);
}

TEST_F(auto_bypass_test, a_table_that_is_none_is_not_available)
{
    EXPECT_EQ(printed(nullptr, true), not_available);
    const auto memory = std::make_unique<RE_bypass_table>();
    EXPECT_EQ(printed(memory.get(), true), not_available);
    std::memset(static_cast<void*>(memory.get()), 0xff, sizeof *memory);
    EXPECT_EQ(printed(memory.get(), true), not_available);
}

TEST_F(auto_bypass_test, counts_that_cannot_be_and_rows_that_never_hold_still_print_safely)
{
    const auto memory = std::make_unique<RE_bypass_table>();
    memory->magic = RE_bypass_magic;
    memory->capacity = 3;
    memory->rows_used = UINT32_MAX;
    EXPECT_EQ(printed(memory.get(), true), nothing_in_it);
    for (RE_bypass_row& row : memory->rows) {
        row.sequence = 1;
        row.b_in_use = 1;
    }
    EXPECT_EQ(printed(memory.get(), true), nothing_in_it) << "all of them are being written";
    memory->rows[1023].sequence = UINT32_MAX - 1;
    EXPECT_NE(printed(memory.get(), true).find("1 of 1024"), std::string::npos);
}

TEST_F(auto_bypass_test, garbage_prints_safely)
{
    const auto memory = std::make_unique<RE_bypass_table>();
    std::mt19937 random(3);
    for (int round = 0; round < 5; ++round) {
        auto* const bytes = reinterpret_cast<unsigned char*>(memory.get());
        for (std::size_t at = 0; at < sizeof *memory; ++at) {
            bytes[at] = static_cast<unsigned char>(random());
        }
        memory->magic = RE_bypass_magic;
        const std::string text = printed(memory.get(), true);
        EXPECT_EQ(text.substr(0, 23), "KAV auto-bypass table: ");
        EXPECT_EQ(text.back(), '\n');
        EXPECT_EQ(text.find('\0'), std::string::npos);
    }
}

TEST_F(auto_bypass_test, memory_is_handed_out_at_its_own_size_only)
{
    start();
    fill();
    const auto file = file_reader(save());
    ASSERT_EQ(file->open(), 0);
    for (RE_stat_reader* const any : {reader.get(), file.get()}) {
        ASSERT_NE(any->get_re_auto_bypass_memory_ptr(size()), nullptr);
        for (const int wrong : {0, -1, 1, size() - 1, size() + 1, 2 * size(), INT_MAX, INT_MIN}) {
            EXPECT_EQ(any->get_re_auto_bypass_memory_ptr(wrong), nullptr) << wrong;
        }
    }
}

TEST_F(auto_bypass_test, memory_that_was_handed_out_stays)
{
    start();
    fill();
    const auto file = file_reader(save());
    ASSERT_EQ(file->open(), 0);
    void* const first = file->get_re_auto_bypass_memory_ptr(size());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(file->get_re_auto_bypass_memory_ptr(1), nullptr);
    EXPECT_EQ(file->get_re_auto_bypass_memory_ptr(size()), first);
    EXPECT_EQ(printed(first, true), live(true));
}

TEST_F(auto_bypass_test, a_saved_table_holds_only_what_is_in_use)
{
    start();
    const std::size_t empty = bytes_of_file(save()).size();
    ASSERT_EQ(engine.set_bypass({1, 10, RE_bypass_reason::configured, 1, 0, 1, 1}), 0);
    EXPECT_EQ(bytes_of_file(save()).size(), empty + sizeof(RE_bypass_row));
}

} // namespace
