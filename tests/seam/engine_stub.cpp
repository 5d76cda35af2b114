// The smallest engine library that the viewer links with. Its engine runs but has no statistics.
#include "RE_auto_bypass.h"
#include "RE_ip.h"
#include "RE_statistics.h"
#include "RE_syslog.h"

namespace {

class empty_reader : public RE_stat_reader
{
public:
    int open() override { return 0; }
    int close() override { return 0; }
    RE_stat_config_param* get_config_param() override { return nullptr; }
    int read_global_stat(int, long long& value) override { return none(value); }
    int read_global_conn_stat(int, long long& value) override { return none(value); }
    int read_global_active_conn_count() override { return 0; }
    int get_max_peer_slots() override { return 0; }
    bool is_peer_valid(int) override { return false; }
    int read_peer_header(int, RE_stat_peer_header& hdr) override { return none(hdr); }
    int read_peer_id(int, int& peer_id) override { return none(peer_id); }
    int read_peer_stat(int, int, long long& value) override { return none(value); }
    int read_peer_conn_stat(int, int, long long& value) override { return none(value); }
    int read_peer_active_conn_count(int) override { return 0; }
    int get_max_app_slots() override { return 0; }
    int read_app_slot(int, RE_stat_app_struct*& p) override { return none(p); }
    std::uint32_t get_app_slot_shared_memory_header_size() override { return 0; }
    int read_app_header(int, RE_stat_app_header& hdr) override { return none(hdr); }
    int read_app_stat(int, int, long& value) override { return none(value); }
    const std::uint32_t* get_app_id_array(int) override { return nullptr; }
    int get_max_conn_slots() override { return 0; }
    bool is_conn_valid(int) override { return false; }
    int read_conn_header(int, RE_stat_conn_header& hdr) override { return none(hdr); }
    int read_conn_so_header(int, SO_stat_conn_header& hdr) override { return none(hdr); }
    int read_conn_stat(int, int, long long& value) override { return none(value); }
    int read_conn_time(int, std::time_t& open_time, std::time_t& close_time) override
    {
        none(open_time);
        return none(close_time);
    }
    int read_conn_peer_id(int, int& peer_id) override { return none(peer_id); }
    int read_conn_stat_for_qlt(RE_stat_conn_handler, RE_stat_conn_for_qlt& out) override { return none(out); }
    int get_first_nack() override { return -1; }
    int get_next_nack(int, RE_stat_nack_header& hdr) override { return none(hdr); }
    void reset_all() override {}
    void reset_global_stat() override {}
    void reset_peer_stat(int) override {}
    void reset_all_peers() override {}
    void reset_all_apps() override {}
    void reset_conn_stat(int) override {}
    void reset_all_conns() override {}
    void reset_all_nacks() override {}
    void clear_all() override {}
    int save_stats_binary(const char*) override { return -1; }
    void* get_re_auto_bypass_memory_ptr(int) override { return nullptr; }

private:
    template <typename Value>
    static int none(Value& value)
    {
        value = Value{};
        return -1;
    }
};

unsigned char no_debug = 0;

} // namespace

RE_stat_reader* RE_stat_reader::create(RE_stat_reader_type, const char*)
{
    return new empty_reader;
}

unsigned char* re_syslog_global_debug_enabled = &no_debug;
unsigned char* re_syslog_per_conn_debug_enabled = &no_debug;

void re_syslog_init()
{}

void __re_syslog(const char*, int, int, int, int, const char*, ...)
{}

unsigned int string_to_ip(const char*)
{
    return 0;
}

const char* ip_to_string(unsigned int)
{
    return "0.0.0.0";
}

bool is_ip_martian(unsigned int, int)
{
    return false;
}

std::uint32_t RE_auto_bypass::get_shm_size()
{
    return 0;
}

void RE_auto_bypass::show_tables(void*, bool)
{}
