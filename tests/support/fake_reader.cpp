#include "support/fake_reader.h"

#include "RE_auto_bypass.h"
#include "RE_ip.h"
#include "RE_syslog.h"
#include "RE_viewer_reader.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

fake_reader::~fake_reader()
{
    if (on_destruction) {
        on_destruction();
    }
}

int fake_reader::count(const std::string& call) const
{
    return static_cast<int>(std::count(calls.begin(), calls.end(), call));
}

template <typename... Numbers>
void fake_reader::note(const char* operation, Numbers... numbers)
{
    calls.push_back((operation + ... + (" " + std::to_string(numbers))));
    if (on_read) {
        on_read();
    }
}

// Returns the content of a slot, or null for an invalid slot or while `b_failing` is set.
template <typename Thing>
const Thing* fake_reader::in_slot(const std::vector<Thing>& things, int slot) const
{
    const bool b_there = !b_failing && slot >= 0 && slot < static_cast<int>(things.size());
    return b_there ? &things[static_cast<std::size_t>(slot)] : nullptr;
}

namespace {

template <typename Thing, typename Value>
int read_member(const Thing* thing, Value Thing::*member, Value& value)
{
    if (thing == nullptr) {
        return -1;
    }
    value = thing->*member;
    return 0;
}

int look_up(const std::map<int, long long>& stats, int id, long long& value)
{
    const auto found = stats.find(id);
    if (found == stats.end()) {
        return -1;
    }
    value = found->second;
    return 0;
}

template <typename Thing>
int look_up(const Thing* thing, std::map<int, long long> Thing::*stats, int id, long long& value)
{
    return thing == nullptr ? -1 : look_up(thing->*stats, id, value);
}

template <typename Thing>
bool is_valid(const std::vector<Thing>& things, int slot)
{
    return slot >= 0 && slot < static_cast<int>(things.size()) && things[static_cast<std::size_t>(slot)].b_valid;
}

} // namespace

int fake_reader::open()
{
    note("open");
    return open_result;
}

int fake_reader::close()
{
    note("close");
    return 0;
}

RE_stat_config_param* fake_reader::get_config_param()
{
    note("get_config_param");
    return config ? &*config : nullptr;
}

int fake_reader::read_global_stat(int id, long long& value)
{
    note("read_global_stat", id);
    return b_failing ? -1 : look_up(global_stats, id, value);
}

int fake_reader::read_global_conn_stat(int id, long long& value)
{
    note("read_global_conn_stat", id);
    return b_failing ? -1 : look_up(global_conn_stats, id, value);
}

int fake_reader::read_global_active_conn_count()
{
    note("read_global_active_conn_count");
    return global_active_conns;
}

int fake_reader::get_max_peer_slots()
{
    note("get_max_peer_slots");
    return static_cast<int>(peers.size());
}

bool fake_reader::is_peer_valid(int peer_slot)
{
    note("is_peer_valid", peer_slot);
    return is_valid(peers, peer_slot);
}

int fake_reader::read_peer_header(int peer_slot, RE_stat_peer_header& hdr)
{
    note("read_peer_header", peer_slot);
    return read_member(in_slot(peers, peer_slot), &fake_peer::header, hdr);
}

int fake_reader::read_peer_id(int peer_slot, int& peer_id)
{
    note("read_peer_id", peer_slot);
    return read_member(in_slot(peers, peer_slot), &fake_peer::peer_id, peer_id);
}

int fake_reader::read_peer_stat(int peer_slot, int id, long long& value)
{
    note("read_peer_stat", peer_slot, id);
    return look_up(in_slot(peers, peer_slot), &fake_peer::stats, id, value);
}

int fake_reader::read_peer_conn_stat(int peer_slot, int id, long long& value)
{
    note("read_peer_conn_stat", peer_slot, id);
    return look_up(in_slot(peers, peer_slot), &fake_peer::conn_stats, id, value);
}

int fake_reader::read_peer_active_conn_count(int peer_slot)
{
    note("read_peer_active_conn_count", peer_slot);
    const fake_peer* const peer = in_slot(peers, peer_slot);
    return peer != nullptr ? peer->active_conns : 0;
}

int fake_reader::get_max_app_slots()
{
    note("get_max_app_slots");
    return static_cast<int>(apps.size());
}

int fake_reader::read_app_slot(int app_slot, RE_stat_app_struct*& p)
{
    note("read_app_slot", app_slot);
    const bool b_there = app_slot >= 0 && app_slot < static_cast<int>(apps.size());
    p = b_there ? &apps[static_cast<std::size_t>(app_slot)] : nullptr;
    return b_there ? 0 : -1;
}

std::uint32_t fake_reader::get_app_slot_shared_memory_header_size()
{
    note("get_app_slot_shared_memory_header_size");
    return app_slots_to_visit;
}

int fake_reader::get_max_conn_slots()
{
    note("get_max_conn_slots");
    return static_cast<int>(conns.size());
}

bool fake_reader::is_conn_valid(int conn_slot)
{
    note("is_conn_valid", conn_slot);
    return is_valid(conns, conn_slot);
}

int fake_reader::read_conn_header(int conn_slot, RE_stat_conn_header& hdr)
{
    note("read_conn_header", conn_slot);
    return read_member(in_slot(conns, conn_slot), &fake_conn::header, hdr);
}

int fake_reader::read_conn_so_header(int conn_slot, SO_stat_conn_header& hdr)
{
    note("read_conn_so_header", conn_slot);
    return read_member(in_slot(conns, conn_slot), &fake_conn::so_header, hdr);
}

int fake_reader::read_conn_stat(int conn_slot, int id, long long& value)
{
    note("read_conn_stat", conn_slot, id);
    return look_up(in_slot(conns, conn_slot), &fake_conn::stats, id, value);
}

int fake_reader::read_conn_time(int conn_slot, std::time_t& open_time, std::time_t& close_time)
{
    note("read_conn_time", conn_slot);
    const fake_conn* const conn = in_slot(conns, conn_slot);
    read_member(conn, &fake_conn::open_time, open_time);
    return read_member(conn, &fake_conn::close_time, close_time);
}

int fake_reader::read_conn_peer_id(int conn_slot, int& peer_id)
{
    note("read_conn_peer_id", conn_slot);
    return read_member(in_slot(conns, conn_slot), &fake_conn::peer_id, peer_id);
}

// Cursors start at 7, so that a view that uses them as indexes fails its test.
constexpr int first_nack_cursor = 7;

int fake_reader::get_first_nack()
{
    note("get_first_nack");
    return nacks.empty() ? -1 : first_nack_cursor;
}

int fake_reader::get_next_nack(int cursor, RE_stat_nack_header& hdr)
{
    note("get_next_nack", cursor);
    const int at = cursor - first_nack_cursor;
    if (at < 0 || at >= static_cast<int>(nacks.size())) {
        return -1;
    }
    hdr = nacks[static_cast<std::size_t>(at)];
    return cursor + 1;
}

int fake_reader::save_stats_binary(const char* path)
{
    note((std::string("save_stats_binary ") + path).c_str());
    return save_result;
}

void* fake_reader::get_re_auto_bypass_memory_ptr(int size)
{
    note("get_re_auto_bypass_memory_ptr", size);
    return bypass_memory;
}

namespace fake_engine {

std::function<RE_stat_reader*(RE_stat_reader_type, const char*)> create;
std::vector<fake_log_message> log;
int log_inits = 0;
unsigned char global_debug_flags = 0;
unsigned char per_conn_debug_flags = 0;
int bypass_size = 0;
std::vector<std::string> martian_texts;
std::optional<std::time_t> now;
std::function<std::string(unsigned int ip)> ip_text;

void reset()
{
    create = nullptr;
    log.clear();
    log_inits = 0;
    global_debug_flags = 0;
    per_conn_debug_flags = 0;
    bypass_size = 0;
    martian_texts.clear();
    now.reset();
    ip_text = nullptr;
}

} // namespace fake_engine

RE_stat_reader* RE_stat_reader::create(RE_stat_reader_type type, const char* path)
{
    return fake_engine::create ? fake_engine::create(type, path) : nullptr;
}

RE_stat_reader* RE_stat_reader::only(RE_stat_reader_type, const char*)
{
    return nullptr;
}

unsigned char* re_syslog_global_debug_enabled = &fake_engine::global_debug_flags;
unsigned char* re_syslog_per_conn_debug_enabled = &fake_engine::per_conn_debug_flags;

void re_syslog_init()
{
    ++fake_engine::log_inits;
}

void __re_syslog(const char* file, int line, int submodule, int priority, int msgid, const char* format, ...)
{
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    fake_engine::log.push_back({file, line, submodule, priority, msgid, text});
}

unsigned int string_to_ip(const char* s)
{
    in_addr address{};
    return inet_pton(AF_INET, s, &address) == 1 ? ntohl(address.s_addr) : 0;
}

const char* ip_to_string(unsigned int ip)
{
    static std::string text;
    text = fake_engine::ip_text ? fake_engine::ip_text(ip)
                                : std::to_string(ip >> 24U) + "." + std::to_string((ip >> 16U) & 255U) + "." +
                                      std::to_string((ip >> 8U) & 255U) + "." + std::to_string(ip & 255U);
    return text.c_str();
}

bool is_ip_martian(unsigned int ip_network_order, int flag)
{
    EXPECT_EQ(flag, 1);
    const std::string text = ip_to_string(ntohl(ip_network_order));
    return std::count(fake_engine::martian_texts.begin(), fake_engine::martian_texts.end(), text) != 0;
}

std::uint32_t RE_auto_bypass::get_shm_size()
{
    return static_cast<std::uint32_t>(fake_engine::bypass_size);
}

void RE_auto_bypass::show_tables(void* mem, bool b_detail)
{
    std::printf("auto-bypass table at %s, %s\n", mem == nullptr ? "null" : "memory", b_detail ? "detail" : "summary");
}

extern "C" std::time_t __real_time(std::time_t* out);
extern "C" std::time_t __wrap_time(std::time_t* out);

extern "C" std::time_t __wrap_time(std::time_t* out)
{
    if (!fake_engine::now) {
        return __real_time(out);
    }
    if (out != nullptr) {
        *out = *fake_engine::now;
    }
    return *fake_engine::now;
}

std::string output_of(const std::function<void()>& run)
{
    testing::internal::CaptureStdout();
    run();
    return testing::internal::GetCapturedStdout();
}

reader_in_place::reader_in_place(fake_reader& reader)
{
    p_statReader = &reader;
}

reader_in_place::~reader_in_place()
{
    p_statReader = nullptr;
}

view_test::view_test()
{
    fake_engine::reset();
    fake_engine::now = now;
    use_zone("UTC0");
}

view_test::~view_test()
{
    fake_engine::reset();
    unsetenv("TZ");
    tzset();
}

void view_test::use_zone(const char* zone)
{
    setenv("TZ", zone, 1);
    tzset();
}
