#include "support/engine_fixture.h"

#include "support/engine_shapes.h"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#ifdef KAV_SANITIZED
// Without this, the sanitizer's SIGBUS handler would be called as the program's own when live statistics are cut short.
extern "C" const char* __asan_default_options(); // NOLINT(bugprone-reserved-identifier)
extern "C" const char* __asan_default_options()  // NOLINT(bugprone-reserved-identifier)
{
    return "handle_sigbus=0";
}
#endif

namespace {

void fill_bytes(void* bytes, std::size_t size, std::uint32_t number)
{
    auto* const to = static_cast<unsigned char*>(bytes);
    for (std::size_t at = 0; at < size; ++at) {
        to[at] = static_cast<unsigned char>((number >> (at % 4 * 8)) + at / 4);
    }
}

} // namespace

RE_stat_peer_header peer_header_of(std::uint32_t number)
{
    RE_stat_peer_header header;
    std::memset(static_cast<void*>(&header), 0, sizeof header);
    fill_bytes(&header, offsetof(RE_stat_peer_header, m_kav_peer_id) + sizeof header.m_kav_peer_id, number);
    header.m_peer_ip = number;
    std::snprintf(header.m_peer_host_name, sizeof header.m_peer_host_name, "peer-%u", number);
    header.m_b_outdated = number & 1U;
    return header;
}

RE_stat_conn_header conn_header_of(std::uint32_t number)
{
    RE_stat_conn_header header;
    header.m_conn_id = static_cast<std::int32_t>(number);
    header.m_client_ip = number * 3;
    header.m_server_ip = number * 5;
    header.m_client_port = static_cast<std::uint16_t>(number * 7);
    header.m_server_port = static_cast<std::uint16_t>(number * 11);
    return header;
}

SO_stat_conn_header so_header_of(std::uint32_t number)
{
    SO_stat_conn_header header;
    fill_bytes(&header, sizeof header, number);
    return header;
}

RE_stat_nack_header nack_of(std::uint32_t number)
{
    const auto value = static_cast<std::int32_t>(number);
    return {value, static_cast<std::int16_t>(number & 1U), static_cast<std::int16_t>(number % 5), value, value, value};
}

RE_stat_app_header app_key_of(std::uint32_t number)
{
    RE_stat_app_header key;
    key.reset();
    RE_kav_peer_id peer;
    fill_bytes(&peer, sizeof peer, number);
    key.set(peer, static_cast<std::uint16_t>(number), (number & 1U) != 0);
    key.set_policy_engine_handler(number & 0x3ffU);
    return key;
}

RE_stat_config_param config_of(std::uint32_t number)
{
    RE_stat_config_param config;
    std::memset(static_cast<void*>(&config), 0, sizeof config);
    fill_bytes(&config.m_own_mac_id, sizeof config.m_own_mac_id, number);
    config.m_comp_type = 3;
    config.m_max_peer_slots = static_cast<std::int32_t>(number);
    config.m_b_plz_enabled = true;
    config.m_kav_auto_bypass_threshold = static_cast<std::int32_t>(number);
    return config;
}

int result_in_child(const std::function<int()>& work)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        alarm(30);
        _exit(work());
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool may_change_user()
{
    return geteuid() == 0;
}

int result_as_nobody(const std::function<int()>& work)
{
    return result_in_child([&] {
        if (setgroups(0, nullptr) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0) {
            return 255;
        }
        return work();
    });
}

std::unique_ptr<RE_stat_reader> live_reader()
{
    return std::unique_ptr<RE_stat_reader>(RE_stat_reader::create(RE_STAT_READER_SHM, nullptr));
}

std::unique_ptr<RE_stat_reader> file_reader(const std::string& path)
{
    return std::unique_ptr<RE_stat_reader>(RE_stat_reader::create(RE_STAT_READER_FILE, path.c_str()));
}

namespace {

// Whether both calls return the same result and the same value. The values start out different, so that a value that is
// not written is noticed.
template <typename Read, typename... Slot>
void expect_same_reads(RE_stat_reader& left, RE_stat_reader& right, int count, Read read, Slot... slot)
{
    for (int id = -1; id <= count; ++id) {
        long long values[2] = {1, 2};
        EXPECT_EQ((left.*read)(slot..., id, values[0]), (right.*read)(slot..., id, values[1])) << id;
        EXPECT_EQ(values[0], values[1]) << id;
    }
}

template <typename Record>
void expect_same_records(RE_stat_reader& left, RE_stat_reader& right, int (RE_stat_reader::*read)(int, Record&),
                         int slot)
{
    Record records[2] = {};
    EXPECT_EQ((left.*read)(slot, records[0]), (right.*read)(slot, records[1]));
    EXPECT_TRUE(same_record(records[0], records[1]));
}

void expect_same_peer(RE_stat_reader& left, RE_stat_reader& right, int slot)
{
    SCOPED_TRACE("peer slot " + std::to_string(slot));
    ASSERT_EQ(left.is_peer_valid(slot), right.is_peer_valid(slot));
    expect_same_records(left, right, &RE_stat_reader::read_peer_header, slot);
    expect_same_records(left, right, &RE_stat_reader::read_peer_id, slot);
    expect_same_reads(left, right, RE_STAT_PEER_ID_MAX, &RE_stat_reader::read_peer_stat, slot);
    expect_same_reads(left, right, RE_STAT_CONN_ID_MAX, &RE_stat_reader::read_peer_conn_stat, slot);
    EXPECT_EQ(left.read_peer_active_conn_count(slot), right.read_peer_active_conn_count(slot));
}

void expect_same_conn(RE_stat_reader& left, RE_stat_reader& right, int slot)
{
    SCOPED_TRACE("connection slot " + std::to_string(slot));
    ASSERT_EQ(left.is_conn_valid(slot), right.is_conn_valid(slot));
    expect_same_records(left, right, &RE_stat_reader::read_conn_header, slot);
    expect_same_records(left, right, &RE_stat_reader::read_conn_so_header, slot);
    std::time_t times[4] = {1, 2, 3, 4};
    EXPECT_EQ(left.read_conn_time(slot, times[0], times[1]), right.read_conn_time(slot, times[2], times[3]));
    EXPECT_EQ(times[0], times[2]);
    EXPECT_EQ(times[1], times[3]);
    expect_same_records(left, right, &RE_stat_reader::read_conn_peer_id, slot);
    expect_same_reads(left, right, RE_STAT_CONN_ID_MAX, &RE_stat_reader::read_conn_stat, slot);
    expect_same_records(left, right, &RE_stat_reader::read_conn_stat_for_qlt, slot);
}

void expect_same_app(RE_stat_reader& left, RE_stat_reader& right, int slot)
{
    SCOPED_TRACE("application slot " + std::to_string(slot));
    RE_stat_app_struct* records[2] = {};
    EXPECT_EQ(left.read_app_slot(slot, records[0]), right.read_app_slot(slot, records[1]));
    ASSERT_EQ(records[0] == nullptr, records[1] == nullptr);
    if (records[0] != nullptr) {
        EXPECT_TRUE(same_record(*records[0], *records[1]));
    }
    expect_same_records(left, right, &RE_stat_reader::read_app_header, slot);
    EXPECT_EQ(left.get_app_id_array(slot) == nullptr, right.get_app_id_array(slot) == nullptr);
    for (int id = -1; id <= RE_STAT_APP_ID_MAX; ++id) {
        long values[2] = {1, 2};
        EXPECT_EQ(left.read_app_stat(slot, id, values[0]), right.read_app_stat(slot, id, values[1]));
        EXPECT_EQ(values[0], values[1]) << id;
    }
}

} // namespace

void expect_same_statistics(RE_stat_reader& left, RE_stat_reader& right)
{
    const RE_stat_config_param* const configs[2] = {left.get_config_param(), right.get_config_param()};
    ASSERT_EQ(configs[0] == nullptr, configs[1] == nullptr);
    if (configs[0] != nullptr) {
        EXPECT_TRUE(same_record(*configs[0], *configs[1]));
    }
    expect_same_reads(left, right, RE_STAT_GLOBAL_ID_MAX, &RE_stat_reader::read_global_stat);
    expect_same_reads(left, right, RE_STAT_CONN_ID_MAX, &RE_stat_reader::read_global_conn_stat);
    EXPECT_EQ(left.read_global_active_conn_count(), right.read_global_active_conn_count());
    for (int slot = -2; slot < std::max(left.get_max_peer_slots(), right.get_max_peer_slots()) + 2; ++slot) {
        expect_same_peer(left, right, slot);
    }
    for (int slot = -2; slot < std::max(left.get_max_conn_slots(), right.get_max_conn_slots()) + 2; ++slot) {
        expect_same_conn(left, right, slot);
    }
    EXPECT_EQ(left.get_max_app_slots(), right.get_max_app_slots());
    const std::uint32_t apps = left.get_app_slot_shared_memory_header_size();
    EXPECT_EQ(apps, right.get_app_slot_shared_memory_header_size());
    for (int slot = -2; slot < static_cast<int>(apps) + 2; ++slot) {
        expect_same_app(left, right, slot);
    }
    const std::vector<RE_stat_nack_header> nacks = all_nacks(left);
    const std::vector<RE_stat_nack_header> other_nacks = all_nacks(right);
    ASSERT_EQ(nacks.size(), other_nacks.size());
    for (std::size_t at = 0; at < nacks.size(); ++at) {
        EXPECT_TRUE(same_record(nacks[at], other_nacks[at])) << at;
    }
}

std::vector<RE_stat_nack_header> all_nacks(RE_stat_reader& reader)
{
    std::vector<RE_stat_nack_header> nacks;
    RE_stat_nack_header entry;
    for (int cursor = reader.get_first_nack(); cursor >= 0;) {
        cursor = reader.get_next_nack(cursor, entry);
        if (cursor >= 0) {
            nacks.push_back(entry);
        }
    }
    return nacks;
}

segment_test::segment_test()
{
    static int number = 0;
    m_name = "kav_test_" + std::to_string(getpid()) + "_" + std::to_string(++number);
    setenv("KAV_STAT_SEGMENT", m_name.c_str(), 1);
}

segment_test::~segment_test()
{
    for (const auto& [start, size] : m_mappings) {
        munmap(start, size);
    }
    std::error_code ignored;
    std::filesystem::remove_all(segment_path(), ignored);
    // Created by result_as_nobody().
    std::filesystem::remove_all("/dev/shm/kav-" + std::to_string(nobody) + "/" + m_name, ignored);
    unsetenv("KAV_STAT_SEGMENT");
}

unsigned char* segment_test::map_segment()
{
    const int descriptor = open(segment_path().c_str(), O_RDWR | O_CLOEXEC);
    struct stat status = {};
    if (descriptor < 0 || fstat(descriptor, &status) != 0) {
        ADD_FAILURE() << "no segment";
        std::abort();
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    void* const start = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    if (start == MAP_FAILED) {
        ADD_FAILURE() << "no mapping";
        std::abort();
    }
    m_mappings.emplace_back(start, size);
    return static_cast<unsigned char*>(start);
}

void engine_test::start(const RE_stat_limits& limits)
{
    ASSERT_EQ(engine.create(limits, 1700000000), 0);
    engine.publish();
    reader = live_reader();
    ASSERT_EQ(reader->open(), 0);
}

void engine_test::fill()
{
    engine.set_config(config_of(77));
    set_engine_figures(engine, [](int id) { return 1000000007LL * (id + 1); });
    for (std::uint32_t peer = 0; peer < 4; ++peer) {
        const int slot = engine.add_peer(static_cast<int>(peer) + 40, peer_header_of(peer + 500));
        ASSERT_EQ(slot, static_cast<int>(peer));
        set_peer_figures(engine, slot, [&](int id) { return 10000 * slot + id; });
    }
    engine.remove_peer(1);
    for (std::uint32_t number = 0; number < 10; ++number) {
        const int peer = number % 2 == 0 ? 0 : 3;
        const int slot = engine.open_conn(peer, conn_header_of(number + 900), so_header_of(number), 5000 + number);
        ASSERT_EQ(slot, static_cast<int>(number));
        add_conn_figures(engine, slot, [&](int id) { return 1000 * slot + id - 50; });
    }
    engine.close_conn(2, 6000);
    engine.release_conn(4);
    engine.release_conn(7);
    for (std::uint32_t number = 0; number < 3; ++number) {
        const int slot = engine.find_or_add_app(app_key_of(number + 60));
        add_app_figures(engine, slot, [&](int id) { return number * 100 + static_cast<std::uint32_t>(id); });
        engine.add_app_conns(slot, number + 3, number + 2);
    }
    for (std::uint32_t number = 0; number < 11; ++number) { // more than the log holds
        engine.add_nack(nack_of(number));
    }
    ASSERT_EQ(engine.set_bypass({0x0a000001, 443, RE_bypass_reason::low_compression, 1600000000, 0, 12345, 6}), 0);
}

std::string engine_test::save(const std::string& name)
{
    const std::string path = folder.file(name);
    EXPECT_EQ(reader->save_stats_binary(path.c_str()), 0);
    return path;
}
