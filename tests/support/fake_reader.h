// A statistics reader and an engine library with contents that tests set.
#pragma once

#include "RE_statistics.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

struct fake_peer
{
    bool b_valid = true;
    RE_stat_peer_header header{};
    int peer_id = 0;
    int active_conns = 0;
    std::map<int, long long> stats;
    std::map<int, long long> conn_stats;
};

struct fake_conn
{
    bool b_valid = true;
    RE_stat_conn_header header{};
    SO_stat_conn_header so_header{};
    int peer_id = 0;
    std::time_t open_time = 0;
    std::time_t close_time = 0;
    std::map<int, long long> stats;
};

// Answers from its public members and records every call. A read of something that does not exist, or any read while
// `b_failing` is set, returns -1 and leaves the out-value unchanged. Views must accept that.
class fake_reader : public RE_stat_reader
{
public:
    std::map<int, long long> global_stats;
    std::map<int, long long> global_conn_stats;
    int global_active_conns = 0;
    std::vector<fake_peer> peers;
    std::vector<fake_conn> conns;
    std::vector<RE_stat_nack_header> nacks;
    std::vector<RE_stat_app_struct> apps; // slots 0 to size-1; all other slots are null
    std::uint32_t app_slots_to_visit = 0; // the result of get_app_slot_shared_memory_header_size
    std::optional<RE_stat_config_param> config;
    void* bypass_memory = nullptr;
    int open_result = 0;
    int save_result = 0;
    bool b_failing = false;
    std::vector<std::string> calls; // for example "read_global_stat 12" or "read_conn_header 3", in order
    std::function<void()> on_read;  // called before every read, so that a test can change the statistics
    std::function<void()> on_destruction;

    ~fake_reader() override;

    // Counts the calls that equal `call`, for example "read_global_stat 12".
    int count(const std::string& call) const;

    int open() override;
    int close() override;
    RE_stat_config_param* get_config_param() override;
    int read_global_stat(int id, long long& value) override;
    int read_global_conn_stat(int id, long long& value) override;
    int read_global_active_conn_count() override;
    int get_max_peer_slots() override;
    bool is_peer_valid(int peer_slot) override;
    int read_peer_header(int peer_slot, RE_stat_peer_header& hdr) override;
    int read_peer_id(int peer_slot, int& peer_id) override;
    int read_peer_stat(int peer_slot, int id, long long& value) override;
    int read_peer_conn_stat(int peer_slot, int id, long long& value) override;
    int read_peer_active_conn_count(int peer_slot) override;
    int get_max_app_slots() override;
    int read_app_slot(int app_slot, RE_stat_app_struct*& p) override;
    std::uint32_t get_app_slot_shared_memory_header_size() override;
    int read_app_header(int, RE_stat_app_header&) override { return -1; }
    int read_app_stat(int, int, long&) override { return -1; }
    const std::uint32_t* get_app_id_array(int) override { return nullptr; }
    int get_max_conn_slots() override;
    bool is_conn_valid(int conn_slot) override;
    int read_conn_header(int conn_slot, RE_stat_conn_header& hdr) override;
    int read_conn_so_header(int conn_slot, SO_stat_conn_header& hdr) override;
    int read_conn_stat(int conn_slot, int id, long long& value) override;
    int read_conn_time(int conn_slot, std::time_t& open_time, std::time_t& close_time) override;
    int read_conn_peer_id(int conn_slot, int& peer_id) override;
    int read_conn_stat_for_qlt(RE_stat_conn_handler, RE_stat_conn_for_qlt&) override { return -1; }
    int get_first_nack() override;
    int get_next_nack(int cursor, RE_stat_nack_header& hdr) override;
    void reset_all() override {}
    void reset_global_stat() override {}
    void reset_peer_stat(int) override {}
    void reset_all_peers() override {}
    void reset_all_apps() override {}
    void reset_conn_stat(int) override {}
    void reset_all_conns() override {}
    void reset_all_nacks() override {}
    void clear_all() override {}
    int save_stats_binary(const char* path) override;
    void* get_re_auto_bypass_memory_ptr(int size) override;

private:
    template <typename... Numbers>
    void note(const char* operation, Numbers... numbers);
    template <typename Thing>
    const Thing* in_slot(const std::vector<Thing>& things, int slot) const;
};

// One message that the viewer sent to the system log.
struct fake_log_message
{
    std::string file;
    int line;
    int submodule;
    int priority;
    int msgid;
    std::string text;

    bool operator==(const fake_log_message&) const = default;
};

// The engine library that the viewer is linked with in these tests.
namespace fake_engine {

// The result of RE_stat_reader::create, which is null when this is not set.
extern std::function<RE_stat_reader*(RE_stat_reader_type type, const char* path)> create;
extern std::vector<fake_log_message> log;
extern int log_inits; // number of times that logging was started
extern unsigned char global_debug_flags;
extern unsigned char per_conn_debug_flags;
extern int bypass_size;                        // the size that the auto-bypass table reports
extern std::vector<std::string> martian_texts; // addresses in dotted form that is_ip_martian refuses
extern std::optional<std::time_t> now;         // the time of day; the real time when not set
// The result of ip_to_string, the dotted form when this is not set. The next call overwrites the text.
extern std::function<std::string(unsigned int ip)> ip_text;

// Restores the initial state: no engine, an empty log and the real time.
void reset();

} // namespace fake_engine

// Returns what `run` prints to standard output.
std::string output_of(const std::function<void()>& run);

// Installs `reader` as the viewer's reader for the length of a scope.
class reader_in_place
{
public:
    explicit reader_in_place(fake_reader& reader);
    ~reader_in_place();
    reader_in_place(const reader_in_place&) = delete;
    reader_in_place& operator=(const reader_in_place&) = delete;
};

// A run of the viewer with `reader` as its reader, a fixed time of day, and UTC as local time.
class view_test : public testing::Test
{
protected:
    static constexpr std::time_t now = 1'000'000'000;

    view_test();
    ~view_test() override;

    static void use_zone(const char* zone);

    fake_reader reader;

private:
    reader_in_place m_in_place{reader};
};
