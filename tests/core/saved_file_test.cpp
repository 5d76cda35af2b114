// A saved file contains what the live statistics contained. No other bytes are accepted.
#include "support/engine_fixture.h"

#include "RE_stat_error.h"
#include "RE_stat_segment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <fstream>
#include <random>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace {

class saved_file_test : public engine_test
{
protected:
    // Opens a file with these bytes. If it is accepted, every read of it must be safe.
    int open_bytes(const std::string& bytes)
    {
        const std::string path = folder.file("probe");
        write_file(path, bytes);
        return open_path(path);
    }
    int open_path(const std::string& path)
    {
        const auto saved = file_reader(path);
        const int result = saved->open();
        if (result == 0) {
            const auto again = file_reader(path);
            EXPECT_EQ(again->open(), 0);
            expect_same_statistics(*saved, *again);
            const std::string copy = folder.file("copy");
            EXPECT_EQ(saved->save_stats_binary(copy.c_str()), 0);
            saved->clear_all();
            saved->get_re_auto_bypass_memory_ptr(65536);
        }
        return result;
    }
    std::string saved_bytes()
    {
        start();
        fill();
        return bytes_of_file(save());
    }
    // Returns a file with only a few rows, so that a test can try every byte.
    std::string small_bytes()
    {
        start({2, 2, 2, 2});
        engine.add_peer(1, peer_header_of(1));
        engine.open_conn(0, conn_header_of(1), so_header_of(1), 1);
        engine.find_or_add_app(app_key_of(1));
        engine.add_nack(nack_of(1));
        return bytes_of_file(save());
    }
};

void set_checksum(std::string& bytes)
{
    const std::uint64_t checksum = XXH64(bytes.data(), bytes.size() - 8, 0);
    std::memcpy(bytes.data() + bytes.size() - 8, &checksum, 8);
}

RE_image_header& header_in(std::string& bytes)
{
    return *reinterpret_cast<RE_image_header*>(bytes.data());
}

RE_image_section& section_in(std::string& bytes, RE_image_section_id id)
{
    return reinterpret_cast<RE_image_section*>(bytes.data() + sizeof(RE_image_header))[id - 1];
}

TEST_F(saved_file_test, tells_what_the_live_statistics_told)
{
    start();
    fill();
    const auto saved = file_reader(save());
    ASSERT_EQ(saved->open(), 0);
    expect_same_statistics(*saved, *reader);
    EXPECT_EQ(all_nacks(*saved).size(), 8U);
    EXPECT_TRUE(saved->is_conn_valid(9));
    EXPECT_EQ(saved->get_max_conn_slots(), 10);
}

TEST_F(saved_file_test, of_an_engine_that_has_nothing_tells_nothing)
{
    start();
    const auto saved = file_reader(save());
    ASSERT_EQ(saved->open(), 0);
    expect_same_statistics(*saved, *reader);
    EXPECT_EQ(saved->get_config_param(), nullptr);
    EXPECT_EQ(saved->get_max_peer_slots(), 0);
    EXPECT_EQ(saved->get_max_conn_slots(), 0);
}

TEST_F(saved_file_test, reads_slots_in_any_order)
{
    start();
    fill();
    const auto saved = file_reader(save());
    ASSERT_EQ(saved->open(), 0);
    std::mt19937 random(1);
    for (int round = 0; round < 5000; ++round) {
        const int slot = std::uniform_int_distribution<int>(-2, 12)(random);
        EXPECT_EQ(saved->is_conn_valid(slot), reader->is_conn_valid(slot)) << slot;
        RE_stat_conn_header headers[2] = {};
        EXPECT_EQ(saved->read_conn_header(slot, headers[0]), reader->read_conn_header(slot, headers[1]));
        EXPECT_TRUE(same_record(headers[0], headers[1]));
        EXPECT_EQ(saved->is_peer_valid(slot), reader->is_peer_valid(slot)) << slot;
        long long values[2] = {1, 2};
        EXPECT_EQ(saved->read_peer_stat(slot, 3, values[0]), reader->read_peer_stat(slot, 3, values[1]));
        EXPECT_EQ(values[0], values[1]);
    }
}

TEST_F(saved_file_test, is_independent_of_the_file_once_it_is_open)
{
    start();
    fill();
    const std::string path = save();
    const auto saved = file_reader(path);
    ASSERT_EQ(saved->open(), 0);
    ASSERT_EQ(truncate(path.c_str(), 0), 0);
    expect_same_statistics(*saved, *reader);
    EXPECT_EQ(saved->open(), RE_STAT_ERR_EMPTY_FILE);
    EXPECT_EQ(saved->get_max_conn_slots(), 0);
}

TEST_F(saved_file_test, saved_again_is_the_same_file)
{
    start();
    fill();
    const std::string path = save();
    // A copy keeps the time of the first saving.
    std::string bytes = bytes_of_file(path);
    EXPECT_GT(header_in(bytes).capture_time, 1700000000);
    EXPECT_EQ(header_in(bytes).engine_start_time, 1700000000);
    header_in(bytes).capture_time = 1234567890;
    set_checksum(bytes);
    write_file(path, bytes);
    const auto saved = file_reader(path);
    ASSERT_EQ(saved->open(), 0);
    const std::string copy = folder.file("copy");
    ASSERT_EQ(saved->save_stats_binary(copy.c_str()), 0);
    EXPECT_TRUE(bytes == bytes_of_file(copy));
    ASSERT_EQ(saved->save_stats_binary(path.c_str()), 0) << "over itself";
    EXPECT_TRUE(bytes == bytes_of_file(path));
}

TEST_F(saved_file_test, cut_at_any_byte_is_refused)
{
    const std::string bytes = small_bytes();
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        ASSERT_EQ(open_bytes(bytes.substr(0, size)), size == 0 ? RE_STAT_ERR_EMPTY_FILE : RE_STAT_ERR_CUT) << size;
    }
    EXPECT_EQ(open_bytes(bytes + '\0'), RE_STAT_ERR_CUT);
    EXPECT_EQ(open_bytes(bytes + bytes), RE_STAT_ERR_CUT);
    EXPECT_EQ(open_bytes(bytes), 0);
}

TEST_F(saved_file_test, every_flipped_bit_of_header_and_section_table_is_refused_with_its_code)
{
    std::string bytes = small_bytes();
    const auto expected = [](std::size_t at) {
        if (at < 8) {
            return RE_STAT_ERR_NOT_STATISTICS;
        }
        if (at < offsetof(RE_image_header, layout_version)) {
            return RE_STAT_ERR_BYTE_ORDER;
        }
        if (at < offsetof(RE_image_header, state)) {
            return RE_STAT_ERR_VERSION;
        }
        const bool b_size =
            at >= offsetof(RE_image_header, total_size) && at < offsetof(RE_image_header, total_size) + 8;
        return b_size ? RE_STAT_ERR_CUT : RE_STAT_ERR_CHECKSUM;
    };
    const std::size_t end = sizeof(RE_image_header) + RE_image_section_count * sizeof(RE_image_section);
    for (std::size_t bit = 0; bit < end * 8; ++bit) {
        char& byte = bytes[bit / 8];
        byte = static_cast<char>(byte ^ (1 << (bit % 8)));
        ASSERT_EQ(open_bytes(bytes), expected(bit / 8)) << bit;
        byte = static_cast<char>(byte ^ (1 << (bit % 8)));
    }
    EXPECT_EQ(open_bytes(bytes), 0);
}

TEST_F(saved_file_test, flipped_bits_anywhere_are_refused)
{
    std::string bytes = saved_bytes();
    std::mt19937 random(20240229);
    std::uniform_int_distribution<std::size_t> any_bit(sizeof(RE_image_header) * 8, bytes.size() * 8 - 1);
    for (int round = 0; round < 10000; ++round) {
        const std::size_t bit = any_bit(random);
        char& byte = bytes[bit / 8];
        byte = static_cast<char>(byte ^ (1 << (bit % 8)));
        ASSERT_EQ(open_bytes(bytes), RE_STAT_ERR_CHECKSUM) << bit;
        byte = static_cast<char>(byte ^ (1 << (bit % 8)));
    }
    EXPECT_EQ(open_bytes(bytes), 0);
}

TEST_F(saved_file_test, a_hostile_section_table_with_a_right_checksum_is_refused)
{
    const std::string good = saved_bytes();
    const std::uint64_t numbers[] = {0,
                                     1,
                                     7,
                                     8,
                                     sizeof(RE_image_header),
                                     good.size() - 16,
                                     good.size() - 15,
                                     good.size(),
                                     good.size() + 8,
                                     1ULL << 31,
                                     1ULL << 32,
                                     1ULL << 60,
                                     1ULL << 63,
                                     UINT64_MAX - 7,
                                     UINT64_MAX};
    int refused = 0;
    for (std::uint32_t id = 1; id <= RE_image_section_count; ++id) {
        for (const std::uint64_t number : numbers) {
            std::string changed[5] = {good, good, good, good, good};
            const auto section = [&](int at) -> RE_image_section& {
                return section_in(changed[at], static_cast<RE_image_section_id>(id));
            };
            section(0).offset = number;
            section(1).rows = number;
            section(2).slots = number;
            section(3).row_size = static_cast<std::uint32_t>(number);
            section(4).id = static_cast<std::uint32_t>(number);
            for (std::string& bytes : changed) {
                set_checksum(bytes);
                const int result = open_bytes(bytes); // accepted files are read completely
                EXPECT_TRUE(result == 0 || result == RE_STAT_ERR_LAYOUT) << result;
                refused += result != 0 ? 1 : 0;
            }
            const bool b_beyond = number > good.size() - 16;
            std::string far = good;
            section_in(far, static_cast<RE_image_section_id>(id)).offset = number;
            set_checksum(far);
            if (b_beyond || number < sizeof(RE_image_header)) {
                EXPECT_EQ(open_bytes(far), RE_STAT_ERR_LAYOUT);
            }
        }
    }
    EXPECT_GT(refused, 500);
}

TEST_F(saved_file_test, rows_that_reach_over_the_checksum_are_refused)
{
    std::string bytes = saved_bytes();
    RE_image_section& bypass = section_in(bytes, RE_IMAGE_BYPASS);
    ++bypass.rows;
    const std::uint64_t end = bypass.offset + bypass.rows;
    ASSERT_GT(end, bytes.size() - sizeof(RE_image_trailer)) << "the table is the last section, without padding";
    set_checksum(bytes);
    EXPECT_EQ(open_bytes(bytes), RE_STAT_ERR_LAYOUT);
}

TEST_F(saved_file_test, a_section_twice_or_never_is_refused)
{
    std::string bytes = saved_bytes();
    section_in(bytes, RE_IMAGE_APPS) = section_in(bytes, RE_IMAGE_NACKS);
    set_checksum(bytes);
    EXPECT_EQ(open_bytes(bytes), RE_STAT_ERR_LAYOUT);
}

TEST_F(saved_file_test, sections_may_stand_in_any_order)
{
    std::string bytes = saved_bytes();
    std::swap(section_in(bytes, RE_IMAGE_APPS), section_in(bytes, RE_IMAGE_CONFIG));
    set_checksum(bytes);
    write_file(folder.file("swapped"), bytes);
    const auto saved = file_reader(folder.file("swapped"));
    ASSERT_EQ(saved->open(), 0);
    expect_same_statistics(*saved, *reader);
}

TEST_F(saved_file_test, a_hostile_header_with_a_right_checksum_is_refused)
{
    const std::string good = saved_bytes();
    const auto result_of = [&](auto change) {
        std::string bytes = good;
        change(header_in(bytes));
        set_checksum(bytes);
        return open_bytes(bytes);
    };
    EXPECT_EQ(result_of([](RE_image_header& header) { header.state = RE_IMAGE_PUBLISHED; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_header& header) { header.state = 77; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_header& header) { header.section_count = 8; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_header& header) { header.section_count = UINT32_MAX; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_header& header) { ++header.global_counters; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_header& header) { ++header.peer_counters; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_header& header) { --header.peer_counters; }), 0) << "the rows are larger";
    EXPECT_EQ(result_of([](RE_image_header& header) { header.global_counters = UINT32_MAX; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_header& header) { header.peer_counters = 0; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_header& header) { header.conn_counters = 0; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_header& header) { header.app_counters = 1U << 31; }), RE_STAT_ERR_LAYOUT);
    // The numbers of used slots must match the rows.
    EXPECT_EQ(result_of([](RE_image_header& header) { ++header.peer_slots_used; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_header& header) { --header.conn_slots_used; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_header& header) { header.app_slots_used = UINT32_MAX; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_header& header) { header.nacks_logged = UINT64_MAX; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_header& header) { header.nacks_reset = 1; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_header& header) { header.capture_time = INT64_MIN; }), 0);
}

TEST_F(saved_file_test, slots_out_of_order_or_out_of_range_are_refused)
{
    const std::string good = saved_bytes();
    const auto result_of = [&](RE_image_section_id id, std::size_t row, std::uint32_t slot) {
        std::string bytes = good;
        const RE_image_section section = section_in(bytes, id);
        std::memcpy(bytes.data() + section.offset + row * section.row_size + 8, &slot, sizeof slot);
        set_checksum(bytes);
        return open_bytes(bytes);
    };
    for (const RE_image_section_id id : {RE_IMAGE_PEERS, RE_IMAGE_CONNS}) {
        EXPECT_EQ(result_of(id, 0, 0), 0);
        EXPECT_EQ(result_of(id, 1, 0), RE_STAT_ERR_LAYOUT);
        EXPECT_EQ(result_of(id, 0, UINT32_MAX), RE_STAT_ERR_LAYOUT);
        EXPECT_EQ(result_of(id, 2, 1U << 31), RE_STAT_ERR_LAYOUT);
        EXPECT_EQ(result_of(id, 2, 16), RE_STAT_ERR_LAYOUT);
    }
}

TEST_F(saved_file_test, a_body_of_garbage_with_a_right_checksum_reads_safely)
{
    const std::string good = saved_bytes();
    std::mt19937 random(7);
    const std::size_t body = sizeof(RE_image_header) + RE_image_section_count * sizeof(RE_image_section);
    int accepted = 0;
    for (int round = 0; round < 300; ++round) {
        std::string bytes = good;
        const int spots = std::uniform_int_distribution<int>(1, round % 2 == 0 ? 4 : 4000)(random);
        for (int spot = 0; spot < spots; ++spot) {
            const std::size_t at = std::uniform_int_distribution<std::size_t>(body, bytes.size() - 17)(random);
            bytes[at] = static_cast<char>(random());
        }
        set_checksum(bytes);
        const int result = open_bytes(bytes);
        EXPECT_TRUE(result == 0 || result == RE_STAT_ERR_LAYOUT);
        accepted += result == 0 ? 1 : 0;
    }
    EXPECT_GT(accepted, 100);
}

TEST_F(saved_file_test, another_layout_version_is_refused_by_its_own_code)
{
    const std::string good = saved_bytes();
    for (const std::uint32_t version : {0U, 2U, 256U, UINT32_MAX}) {
        std::string bytes = good;
        header_in(bytes).layout_version = version;
        set_checksum(bytes);
        EXPECT_EQ(open_bytes(bytes), RE_STAT_ERR_VERSION);
    }
}

TEST_F(saved_file_test, of_another_byte_order_is_refused_by_its_own_code)
{
    std::string bytes = saved_bytes();
    header_in(bytes).byte_order = 0x04030201;
    EXPECT_EQ(open_bytes(bytes), RE_STAT_ERR_BYTE_ORDER);
}

TEST_F(saved_file_test, what_is_no_statistics_file_is_refused)
{
    EXPECT_EQ(open_bytes("x"), RE_STAT_ERR_NOT_STATISTICS);
    EXPECT_EQ(open_bytes("KAVSTATX and more"), RE_STAT_ERR_NOT_STATISTICS);
    EXPECT_EQ(open_bytes(std::string(100000, '\0')), RE_STAT_ERR_NOT_STATISTICS);
    EXPECT_EQ(open_bytes("KAVSTATS"), RE_STAT_ERR_CUT);
    EXPECT_EQ(open_path(folder.file("missing")), RE_STAT_ERR_NO_FILE);
    EXPECT_EQ(open_path(""), RE_STAT_ERR_NO_FILE);
    EXPECT_EQ(open_path(folder.file("missing/file")), RE_STAT_ERR_NO_FILE);
    write_file(folder.file("plain"), "x");
    EXPECT_EQ(open_path(folder.file("plain/file")), RE_STAT_ERR_NO_FILE);
    EXPECT_EQ(open_bytes(""), RE_STAT_ERR_EMPTY_FILE);
    EXPECT_EQ(open_path(folder.path()), RE_STAT_ERR_NOT_A_FILE);
    EXPECT_EQ(open_path("/dev/zero"), RE_STAT_ERR_NOT_A_FILE);
    EXPECT_EQ(open_path("/dev/null"), RE_STAT_ERR_NOT_A_FILE);
    EXPECT_EQ(open_path(std::string(5000, 'x')), RE_STAT_ERR_READ);
    ASSERT_EQ(symlink("loop", folder.file("loop").c_str()), 0);
    EXPECT_EQ(open_path(folder.file("loop")), RE_STAT_ERR_READ);
}

TEST_F(saved_file_test, a_pipe_or_socket_in_its_place_never_makes_it_wait)
{
    ASSERT_EQ(mkfifo(folder.file("pipe").c_str(), 0644), 0);
    EXPECT_EQ(open_path(folder.file("pipe")), RE_STAT_ERR_NOT_A_FILE);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, folder.file("socket").c_str());
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(open_path(folder.file("socket")), RE_STAT_ERR_NOT_A_FILE);
    close(listener);
}

TEST_F(saved_file_test, is_found_through_a_link)
{
    start();
    fill();
    const std::string path = save();
    ASSERT_EQ(symlink(path.c_str(), folder.file("link").c_str()), 0);
    EXPECT_EQ(open_path(folder.file("link")), 0);
}

TEST_F(saved_file_test, needs_permission_to_read)
{
    if (!may_change_user()) {
        GTEST_SKIP() << "needs another user";
    }
    start();
    const std::string path = save();
    ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    EXPECT_EQ(result_as_nobody([&] { return file_reader(path)->open() == RE_STAT_ERR_PERMISSION ? 0 : 1; }), 0);
}

TEST_F(saved_file_test, a_huge_sparse_file_is_refused_at_once)
{
    std::string bytes = saved_bytes();
    const std::string path = folder.file("sparse");
    for (const std::uint64_t size : {std::uint64_t{1} << 40, RE_image_max_size + 1, RE_image_max_size}) {
        header_in(bytes).total_size = size;
        write_file(path, bytes);
        ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(size)), 0);
        rusage before{};
        rusage after{};
        getrusage(RUSAGE_SELF, &before);
        EXPECT_EQ(open_path(path), size <= RE_image_max_size ? RE_STAT_ERR_CHECKSUM : RE_STAT_ERR_LAYOUT);
        getrusage(RUSAGE_SELF, &after);
        EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 16 << 10) << "kilobytes";
    }
    header_in(bytes).total_size = RE_image_max_size;
    write_file(path, bytes);
    ASSERT_EQ(truncate(path.c_str(), off_t{1} << 39), 0);
    EXPECT_EQ(open_path(path), RE_STAT_ERR_CUT);
}

TEST_F(saved_file_test, a_large_file_of_holes_is_refused_before_it_is_loaded)
{
    std::string bytes = saved_bytes();
    const std::string path = folder.file("holes");
    const auto open_of_size = [&](std::uint64_t size) {
        header_in(bytes).total_size = size;
        write_file(path, bytes);
        EXPECT_EQ(truncate(path.c_str(), static_cast<off_t>(size - 16)), 0);
        std::ofstream(path, std::ios::app) << "KAVSTEND" << std::string(8, '\0');
        rusage before{};
        rusage after{};
        getrusage(RUSAGE_SELF, &before);
        const int result = open_path(path);
        getrusage(RUSAGE_SELF, &after);
        EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 16 << 10) << "kilobytes";
        return result;
    };
    EXPECT_EQ(open_of_size(RE_image_max_size), RE_STAT_ERR_LAYOUT) << "the table does not account for its size";

    // Now the section table does, with connections that were never written.
    constexpr std::uint64_t rows = 1000000;
    std::uint64_t end = RE_image_table_end;
    for (std::uint32_t id = 1; id <= RE_image_section_count; ++id) {
        RE_image_section section = section_in(bytes, static_cast<RE_image_section_id>(id));
        if (id == RE_IMAGE_CONNS || id == RE_IMAGE_CONN_COUNTERS) {
            section.rows = rows;
            section.slots = rows;
        }
        section.offset = end;
        end = (end + section.rows * section.row_size + 7) / 8 * 8;
        std::memcpy(bytes.data() + sizeof(RE_image_header) + (id - 1) * sizeof section, &section, sizeof section);
    }
    header_in(bytes).conn_slots_used = rows;
    EXPECT_EQ(open_of_size(end + sizeof(RE_image_trailer)), RE_STAT_ERR_LAYOUT);
}

TEST_F(saved_file_test, a_large_file_without_memory_for_it_is_refused)
{
    if (b_under_a_sanitizer) {
        GTEST_SKIP() << "sanitizers need address space themselves";
    }
    start({1, 50000, 1, 1});
    engine.add_peer(1, peer_header_of(1));
    for (std::uint32_t number = 0; number < 50000; ++number) {
        engine.open_conn(0, conn_header_of(number), so_header_of(number), 1);
    }
    const std::string path = save(); // 70 MB
    EXPECT_EQ(result_in_child([&] {
                  const rlimit limit{16 << 20, 16 << 20};
                  if (setrlimit(RLIMIT_AS, &limit) != 0) {
                      return 1;
                  }
                  return file_reader(path)->open() == RE_STAT_ERR_NO_MEMORY ? 0 : 2;
              }),
              0);
}

TEST_F(saved_file_test, a_live_segment_is_no_saved_file)
{
    start();
    fill();
    EXPECT_EQ(open_path(segment_path()), RE_STAT_ERR_CHECKSUM);
}

TEST_F(saved_file_test, holds_no_byte_that_nobody_wrote)
{
    start();
    fill();
    const auto bytes_now = [&] {
        std::string bytes = bytes_of_file(save());
        header_in(bytes).capture_time = 0;
        bytes.resize(bytes.size() - 8);
        return bytes;
    };
    const std::string first = bytes_now();
    EXPECT_TRUE(first == bytes_now());
    EXPECT_EQ(first.size() % 8, 0U);
}

} // namespace
