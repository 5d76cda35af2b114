// Measures the connection table of a full engine: 1,000,000 connections, half of them closed, listed to a file in
// memory in three ways that take turns in one run.
//
//   table   show_conn as operators use it: scan, order, rows
//   printf  the same with three printf calls per row, addresses and byte counts by snprintf
//   write   one write of the same bytes, the lower bound of both
//
// bench_conn_table [ROUNDS] [CONNECTIONS] prints the median time of each way and two ratios: table should be at least 5
// times as fast as printf and take at most 2.5 times as long as write. Every field is random, which is the worst case
// for a processor that predicts branches. With "shuffled" as third argument the ids do not follow the slots either, as
// in an engine that has run for a long time. In this case, sorting the ids and reading slots all over the memory takes
// longer than printing the rows, in any way.
//
// User instructions per row, on machines without counters for `perf stat -e instructions:u`:
//   valgrind --tool=callgrind --toggle-collect='show_conn(*)' bench_conn_table 1 100000 table
// Divide the total by the number of connections. "table" and "printf" run only one of the two.
#include "RE_conn_view.h"
#include "RE_value_format.h"
#include "RE_viewer_reader.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

struct still_conn
{
    RE_stat_conn_header header;
    int peer;
    std::time_t open_time;
    std::time_t close_time;
    long long encode_in;
    long long decode_out;
};

// Connections in memory that do not change.
class still_reader : public RE_stat_reader
{
public:
    std::vector<still_conn> conns;

    int get_max_conn_slots() override { return static_cast<int>(conns.size()); }
    bool is_conn_valid(int) override { return true; }
    int read_conn_header(int slot, RE_stat_conn_header& hdr) override
    {
        hdr = at(slot).header;
        return 0;
    }
    int read_conn_so_header(int, SO_stat_conn_header& hdr) override
    {
        hdr.m_comp_type = 3;
        return 0;
    }
    int read_conn_stat(int slot, int id, long long& value) override
    {
        value = id == RE_STAT_CONN_ID_ENCODE_IN_BYTES ? at(slot).encode_in : at(slot).decode_out;
        return 0;
    }
    int read_conn_time(int slot, std::time_t& open_time, std::time_t& close_time) override
    {
        open_time = at(slot).open_time;
        close_time = at(slot).close_time;
        return 0;
    }
    int read_conn_peer_id(int slot, int& peer_id) override
    {
        peer_id = at(slot).peer;
        return 0;
    }

    int open() override { return 0; }
    int close() override { return 0; }
    RE_stat_config_param* get_config_param() override { return nullptr; }
    int read_global_stat(int, long long&) override { return -1; }
    int read_global_conn_stat(int, long long&) override { return -1; }
    int read_global_active_conn_count() override { return 0; }
    int get_max_peer_slots() override { return 0; }
    bool is_peer_valid(int) override { return false; }
    int read_peer_header(int, RE_stat_peer_header&) override { return -1; }
    int read_peer_id(int, int&) override { return -1; }
    int read_peer_stat(int, int, long long&) override { return -1; }
    int read_peer_conn_stat(int, int, long long&) override { return -1; }
    int read_peer_active_conn_count(int) override { return 0; }
    int get_max_app_slots() override { return 0; }
    int read_app_slot(int, RE_stat_app_struct*&) override { return -1; }
    std::uint32_t get_app_slot_shared_memory_header_size() override { return 0; }
    int read_app_header(int, RE_stat_app_header&) override { return -1; }
    int read_app_stat(int, int, long&) override { return -1; }
    const std::uint32_t* get_app_id_array(int) override { return nullptr; }
    int read_conn_stat_for_qlt(RE_stat_conn_handler, RE_stat_conn_for_qlt&) override { return -1; }
    int get_first_nack() override { return -1; }
    int get_next_nack(int, RE_stat_nack_header&) override { return -1; }
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
    const still_conn& at(int slot) const { return conns[static_cast<std::size_t>(slot)]; }
};

std::vector<still_conn> make_conns(int count, bool b_shuffled)
{
    std::mt19937_64 random(1); // the same connections in every run
    const auto below = [&random](unsigned long long bound) { return random() % bound; };
    std::vector<int> ids(static_cast<std::size_t>(count));
    std::iota(ids.begin(), ids.end(), 1);
    if (b_shuffled) {
        std::shuffle(ids.begin(), ids.end(), random);
    }
    const std::time_t now = std::time(nullptr);
    std::vector<still_conn> conns;
    for (const int id : ids) {
        const auto opened_ago = static_cast<std::time_t>(below(40ULL * 86400ULL));
        const auto closed_ago = static_cast<std::time_t>(below(static_cast<unsigned long long>(opened_ago) + 1));
        const auto client = static_cast<std::uint32_t>(0x0a000000U + below(1U << 24U));
        const auto server = static_cast<std::uint32_t>(random());
        const auto client_port = static_cast<std::uint16_t>(1024U + below(64000U));
        const std::uint16_t server_port = below(2) == 0 ? 443 : 8080;
        conns.push_back({{id, client, server, client_port, server_port},
                         static_cast<int>(below(200)),
                         now - opened_ago,
                         below(2) == 0 ? now - closed_ago : 0,
                         static_cast<long long>(random() >> (30U + below(30U))),
                         static_cast<long long>(random() >> (30U + below(30U)))});
    }
    return conns;
}

// Prints the table with printf only.
class printf_table
{
public:
    static void show(RE_stat_reader& reader)
    {
        std::vector<RE_conn_slot_id> slot_ids;
        const int count = reader.get_max_conn_slots();
        slot_ids.reserve(static_cast<std::size_t>(count));
        for (int slot = 0; slot < count; ++slot) {
            RE_stat_conn_header hdr{};
            SO_stat_conn_header so{};
            if (reader.is_conn_valid(slot) && reader.read_conn_header(slot, hdr) == 0 &&
                reader.read_conn_so_header(slot, so) == 0 && so.m_comp_type != 0) {
                slot_ids.emplace_back(hdr.m_conn_id, slot);
            }
        }
        std::sort(slot_ids.begin(), slot_ids.end(), RE_conn_slot_id_compare());

        int row = 0;
        for (const RE_conn_slot_id& conn : slot_ids) {
            if (row++ % 30 == 0) {
                std::printf("\n%-5s Peer %15s:%-5s%15s:%-5s  %s/   %s\n", "Conn", "Client-ip", "port", "Server-ip",
                            "port", "Encode-in", "Status");
                std::printf(" Id    No%55s%14s\n", "Decode-out", "(A-Active) ");
                std::printf("%76s\n", "(C-Closed)");
            }
            print_row(reader, conn.m_conn_slot);
        }
    }

private:
    struct text
    {
        char s[32];
    };

    static text ip(unsigned int address)
    {
        text t;
        std::snprintf(t.s, sizeof t.s, "%u.%u.%u.%u", address >> 24U, (address >> 16U) & 255U, (address >> 8U) & 255U,
                      address & 255U);
        return t;
    }

    static text bytes(long long size)
    {
        text t;
        if (size > 1LL << 30) {
            std::snprintf(t.s, sizeof t.s, "%4dGB", static_cast<int>(size >> 30));
        } else if (size > 1LL << 20) {
            std::snprintf(t.s, sizeof t.s, "%4dMB", static_cast<int>(size >> 20));
        } else if (size > 1LL << 10) {
            std::snprintf(t.s, sizeof t.s, "%4dKB", static_cast<int>(size >> 10));
        } else {
            std::snprintf(t.s, sizeof t.s, "%4dB", static_cast<int>(size));
        }
        return t;
    }

    static void print_row(RE_stat_reader& reader, int slot)
    {
        RE_stat_conn_header hdr{};
        std::time_t open_time = 0;
        std::time_t close_time = 0;
        int peer = -1;
        long long encode_in = 0;
        long long decode_out = 0;
        reader.read_conn_header(slot, hdr);
        reader.read_conn_time(slot, open_time, close_time);
        reader.read_conn_peer_id(slot, peer);
        reader.read_conn_stat(slot, RE_STAT_CONN_ID_ENCODE_IN_BYTES, encode_in);
        reader.read_conn_stat(slot, RE_STAT_CONN_ID_DECODE_OUT_BYTES, decode_out);
        std::printf("%-5d %3d %15s:%-5hu", hdr.m_conn_id, peer, ip(hdr.m_client_ip).s, hdr.m_client_port);
        std::printf("%15s:%-5hu  %s/%s", ip(hdr.m_server_ip).s, hdr.m_server_port, bytes(encode_in).s,
                    bytes(decode_out).s);
        if (close_time > 0) {
            std::printf("  C(%s)\n", get_age_str(close_time));
        } else {
            std::printf("  A\n");
        }
    }
};

[[noreturn]] void give_up(const char* what)
{
    std::perror(what);
    std::exit(1);
}

// Redirects standard output to a file in memory, which is emptied before each use.
class output_file
{
public:
    output_file() : m_fd(memfd_create("table", 0))
    {
        if (m_fd < 0 || dup2(m_fd, STDOUT_FILENO) < 0) {
            give_up("memfd");
        }
    }

    // Returns the seconds that `run` takes to write to the empty file.
    template <typename Run>
    double time(Run run)
    {
        if (ftruncate(m_fd, 0) != 0 || lseek(m_fd, 0, SEEK_SET) != 0) {
            give_up("ftruncate");
        }
        const auto start = std::chrono::steady_clock::now();
        run();
        std::fflush(stdout);
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }

    std::vector<char> content() const
    {
        std::vector<char> bytes(static_cast<std::size_t>(lseek(m_fd, 0, SEEK_END)));
        if (pread(m_fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
            give_up("pread");
        }
        return bytes;
    }

private:
    int m_fd;
};

void write_at_once(const std::vector<char>& bytes)
{
    if (write(STDOUT_FILENO, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        give_up("write");
    }
}

double median(std::vector<double> times)
{
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

} // namespace

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::max(std::atoi(argv[1]), 1) : 9;
    const int count = argc > 2 ? std::max(std::atoi(argv[2]), 1) : 1000000;
    const std::string what = argc > 3 ? argv[3] : "";

    still_reader reader;
    reader.conns = make_conns(count, what == "shuffled");
    p_statReader = &reader;
    const auto table = [] { show_conn(0, 0, 0, 0, -1, -1, RE_SHOW_INFO, false, false); };
    const auto printf_rows = [&reader] { printf_table::show(reader); };

    output_file out;
    if (what == "table" || what == "printf") {
        const double time = what == "table" ? out.time(table) : out.time(printf_rows);
        std::fprintf(stderr, "%s: %.1f ms\n", what.c_str(), time * 1e3);
        return 0;
    }
    out.time(table);
    const std::vector<char> bytes = out.content();
    const auto plain_write = [&bytes] { write_at_once(bytes); };

    std::vector<double> table_times;
    std::vector<double> printf_times;
    std::vector<double> write_times;
    for (int round = 0; round < rounds; ++round) {
        table_times.push_back(out.time(table));
        printf_times.push_back(out.time(printf_rows));
        write_times.push_back(out.time(plain_write));
    }

    const double t = median(table_times);
    const double p = median(printf_times);
    const double w = median(write_times);
    std::fprintf(stderr, "%d connections, %zu bytes, %d rounds, medians:\n", count, bytes.size(), rounds);
    std::fprintf(stderr, "  table  %8.1f ms\n  printf %8.1f ms\n  write  %8.1f ms\n", t * 1e3, p * 1e3, w * 1e3);
    std::fprintf(stderr, "  printf / table %.2f (goal: at least 5), table / write %.2f (goal: at most 2.5)\n", p / t,
                 t / w);
    return 0;
}
