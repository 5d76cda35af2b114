// Every engine library and viewer that was ever compiled depends on the order of RE_stat_reader's virtual operations,
// so this test checks the compiled virtual table. A recording reader overrides every operation. The test calls each
// slot of its table and checks which operation was called.
#include "RE_statistics.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <ctime>
#include <new>
#include <string>
#include <type_traits>

namespace {

// The operations of the recording reader that were called, in order, separated by blanks.
std::string reached;

void reach(const char* operation)
{
    reached += reached.empty() ? "" : " ";
    reached += operation;
}

template <typename Result>
Result reach(const char* operation)
{
    reach(operation);
    return Result{};
}

class recording_reader : public RE_stat_reader
{
public:
    ~recording_reader() override { reach("destructor"); }
    static void operator delete(void* memory)
    {
        reach("delete");
        ::operator delete(memory);
    }

    int open() override { return reach<int>("open"); }
    int close() override { return reach<int>("close"); }
    RE_stat_config_param* get_config_param() override { return reach<RE_stat_config_param*>("get_config_param"); }
    int read_global_stat(int, long long&) override { return reach<int>("read_global_stat"); }
    int read_global_conn_stat(int, long long&) override { return reach<int>("read_global_conn_stat"); }
    int read_global_active_conn_count() override { return reach<int>("read_global_active_conn_count"); }
    int get_max_peer_slots() override { return reach<int>("get_max_peer_slots"); }
    bool is_peer_valid(int) override { return reach<bool>("is_peer_valid"); }
    int read_peer_header(int, RE_stat_peer_header&) override { return reach<int>("read_peer_header"); }
    int read_peer_id(int, int&) override { return reach<int>("read_peer_id"); }
    int read_peer_stat(int, int, long long&) override { return reach<int>("read_peer_stat"); }
    int read_peer_conn_stat(int, int, long long&) override { return reach<int>("read_peer_conn_stat"); }
    int read_peer_active_conn_count(int) override { return reach<int>("read_peer_active_conn_count"); }
    int get_max_app_slots() override { return reach<int>("get_max_app_slots"); }
    int read_app_slot(int, RE_stat_app_struct*&) override { return reach<int>("read_app_slot"); }
    std::uint32_t get_app_slot_shared_memory_header_size() override
    {
        return reach<std::uint32_t>("get_app_slot_shared_memory_header_size");
    }
    int read_app_header(int, RE_stat_app_header&) override { return reach<int>("read_app_header"); }
    int read_app_stat(int, int, long&) override { return reach<int>("read_app_stat"); }
    const std::uint32_t* get_app_id_array(int) override { return reach<const std::uint32_t*>("get_app_id_array"); }
    int get_max_conn_slots() override { return reach<int>("get_max_conn_slots"); }
    bool is_conn_valid(int) override { return reach<bool>("is_conn_valid"); }
    int read_conn_header(int, RE_stat_conn_header&) override { return reach<int>("read_conn_header"); }
    int read_conn_so_header(int, SO_stat_conn_header&) override { return reach<int>("read_conn_so_header"); }
    int read_conn_stat(int, int, long long&) override { return reach<int>("read_conn_stat"); }
    int read_conn_time(int, std::time_t&, std::time_t&) override { return reach<int>("read_conn_time"); }
    int read_conn_peer_id(int, int&) override { return reach<int>("read_conn_peer_id"); }
    int read_conn_stat_for_qlt(RE_stat_conn_handler, RE_stat_conn_for_qlt&) override
    {
        return reach<int>("read_conn_stat_for_qlt");
    }
    int get_first_nack() override { return reach<int>("get_first_nack"); }
    int get_next_nack(int, RE_stat_nack_header&) override { return reach<int>("get_next_nack"); }
    void reset_all() override { reach("reset_all"); }
    void reset_global_stat() override { reach("reset_global_stat"); }
    void reset_peer_stat(int) override { reach("reset_peer_stat"); }
    void reset_all_peers() override { reach("reset_all_peers"); }
    void reset_all_apps() override { reach("reset_all_apps"); }
    void reset_conn_stat(int) override { reach("reset_conn_stat"); }
    void reset_all_conns() override { reach("reset_all_conns"); }
    void reset_all_nacks() override { reach("reset_all_nacks"); }
    void clear_all() override { reach("clear_all"); }
    int save_stats_binary(const char*) override { return reach<int>("save_stats_binary"); }
    void* get_re_auto_bypass_memory_ptr(int) override { return reach<void*>("get_re_auto_bypass_memory_ptr"); }

    // Not part of the interface. It is in the first slot after the interface and so shows where the interface ends.
    virtual void behind_the_interface() { reach("behind_the_interface"); }
};

// Returns an argument for an operation under test, with an arbitrary value.
template <typename Argument>
Argument argument()
{
    static std::remove_reference_t<Argument> value{};
    return value;
}

// Calls a slot of the reader's virtual table as an operation with these types. An object starts with the address of
// slot 0 of its table, and `this` is the first argument. Calling a member function as a plain function is undefined, so
// the sanitizer is switched off here.
template <typename Result, typename... Arguments>
__attribute__((no_sanitize("undefined"))) void call_slot(RE_stat_reader* reader, std::size_t slot)
{
    using operation = Result (*)(RE_stat_reader*, Arguments...);
    const unsigned char* table = nullptr;
    std::memcpy(&table, static_cast<const void*>(reader), sizeof table);
    operation found = nullptr;
    std::memcpy(&found, table + slot * sizeof found, sizeof found);
    found(reader, argument<Arguments>()...);
}

// Slots 0 and 1 contain the two destructors.
constexpr std::size_t first_operation_slot = 2;

struct vtable_row
{
    const char* operation;
    void (*call)(RE_stat_reader* reader, std::size_t slot);
};

constexpr vtable_row operations[] = {
    {"open", call_slot<int>},
    {"close", call_slot<int>},
    {"get_config_param", call_slot<RE_stat_config_param*>},
    {"read_global_stat", call_slot<int, int, long long&>},
    {"read_global_conn_stat", call_slot<int, int, long long&>},
    {"read_global_active_conn_count", call_slot<int>},
    {"get_max_peer_slots", call_slot<int>},
    {"is_peer_valid", call_slot<bool, int>},
    {"read_peer_header", call_slot<int, int, RE_stat_peer_header&>},
    {"read_peer_id", call_slot<int, int, int&>},
    {"read_peer_stat", call_slot<int, int, int, long long&>},
    {"read_peer_conn_stat", call_slot<int, int, int, long long&>},
    {"read_peer_active_conn_count", call_slot<int, int>},
    {"get_max_app_slots", call_slot<int>},
    {"read_app_slot", call_slot<int, int, RE_stat_app_struct*&>},
    {"get_app_slot_shared_memory_header_size", call_slot<std::uint32_t>},
    {"read_app_header", call_slot<int, int, RE_stat_app_header&>},
    {"read_app_stat", call_slot<int, int, int, long&>},
    {"get_app_id_array", call_slot<const std::uint32_t*, int>},
    {"get_max_conn_slots", call_slot<int>},
    {"is_conn_valid", call_slot<bool, int>},
    {"read_conn_header", call_slot<int, int, RE_stat_conn_header&>},
    {"read_conn_so_header", call_slot<int, int, SO_stat_conn_header&>},
    {"read_conn_stat", call_slot<int, int, int, long long&>},
    {"read_conn_time", call_slot<int, int, std::time_t&, std::time_t&>},
    {"read_conn_peer_id", call_slot<int, int, int&>},
    {"read_conn_stat_for_qlt", call_slot<int, RE_stat_conn_handler, RE_stat_conn_for_qlt&>},
    {"get_first_nack", call_slot<int>},
    {"get_next_nack", call_slot<int, int, RE_stat_nack_header&>},
    {"reset_all", call_slot<void>},
    {"reset_global_stat", call_slot<void>},
    {"reset_peer_stat", call_slot<void, int>},
    {"reset_all_peers", call_slot<void>},
    {"reset_all_apps", call_slot<void>},
    {"reset_conn_stat", call_slot<void, int>},
    {"reset_all_conns", call_slot<void>},
    {"reset_all_nacks", call_slot<void>},
    {"clear_all", call_slot<void>},
    {"save_stats_binary", call_slot<int, const char*>},
    {"get_re_auto_bypass_memory_ptr", call_slot<void*, int>},
    {"behind_the_interface", call_slot<void>},
};

TEST(reader_vtable, holds_the_operations_in_the_order_of_the_contract)
{
    recording_reader reader;
    std::size_t slot = first_operation_slot;
    for (const vtable_row& row : operations) {
        reached.clear();
        row.call(&reader, slot);
        EXPECT_EQ(reached, row.operation) << "slot " << slot;
        ++slot;
    }
}

TEST(reader_vtable, begins_with_the_destructor_that_leaves_the_memory_alone)
{
    alignas(recording_reader) unsigned char memory[sizeof(recording_reader)];
    RE_stat_reader* const reader = new (memory) recording_reader;
    reached.clear();
    call_slot<void>(reader, 0);
    EXPECT_EQ(reached, "destructor");
}

TEST(reader_vtable, goes_on_with_the_destructor_that_frees_the_memory)
{
    RE_stat_reader* const reader = new recording_reader;
    reached.clear();
    call_slot<void>(reader, 1);
    EXPECT_EQ(reached, "destructor delete");
}

} // namespace
