// An engine that changes everything as fast as it can while viewers report on it.
//
// Every record of this engine is derived from one number, so that a row with parts of two records is noticed.
#include "RE_ip.h"
#include "support/engine_shapes.h"
#include "support/forked_process.h"
#include "support/own_segment.h"
#include "torture.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string_view>
#include <thread>

namespace {

constexpr int peer_count = 8;
constexpr int conn_count = 64;
constexpr RE_stat_limits limits = {peer_count, conn_count, 64, 128};

RE_stat_peer_header peer_of(unsigned int number)
{
    RE_stat_peer_header header{};
    const unsigned char mac[6] = {0x02,
                                  0,
                                  static_cast<unsigned char>(number >> 24U),
                                  static_cast<unsigned char>(number >> 16U),
                                  static_cast<unsigned char>(number >> 8U),
                                  static_cast<unsigned char>(number)};
    header.m_peer_mac_id = RE_mac_id(mac);
    std::copy_n(mac, 6, header.m_kav_peer_id.m_data);
    std::copy_n(mac, 6, header.m_kav_peer_id.m_data + 10);
    std::snprintf(header.m_peer_host_name, sizeof header.m_peer_host_name, "%0200u", number);
    return header;
}

constexpr unsigned int id_bits = 0xffff;

RE_stat_conn_header conn_of(unsigned int number)
{
    RE_stat_conn_header header{};
    header.m_conn_id = static_cast<int>(number);
    header.m_client_ip = 0x0a000000U + number;
    header.m_server_ip = 0x14000000U + number;
    header.m_client_port = static_cast<std::uint16_t>(number);
    header.m_server_port = static_cast<std::uint16_t>(id_bits - number);
    return header;
}

RE_stat_nack_header nack_of(int number)
{
    return {static_cast<std::int32_t>(sample_start),
            static_cast<std::int16_t>(number % 2),
            static_cast<std::int16_t>(number % 5),
            number,
            number,
            number};
}

// Both halves of every counter always have the same value.
constexpr long long both_halves = 0x0000000100000001LL;

// The work of an engine: it opens, counts and closes a connection, and sometimes adds a peer or an application. Does
// not wait.
class busy_engine
{
public:
    explicit busy_engine(RE_stat_writer& writer) : m_writer(writer)
    {
        for (int& peer : m_peers) {
            peer = add_peer();
        }
    }

    void work()
    {
        SO_stat_conn_header so_header{};
        so_header.m_comp_type = 3;
        const unsigned int number = ++m_number & id_bits;
        const int peer = m_peers[number % peer_count];
        const int slot = m_writer.open_conn(peer, conn_of(number), so_header, sample_start);
        for (int id = 0; id < RE_STAT_CONN_ID_MAX; id += 7) {
            m_writer.add_conn_stat(slot, RE_stat_conn_id{id}, both_halves);
        }
        m_writer.add_conn_stat(slot, RE_STAT_CONN_ID_ENCODE_IN_BYTES, both_halves);
        m_writer.add_nack(nack_of(static_cast<int>(number)));
        m_writer.add_global(RE_STAT_GLOBAL_ID_NUM_HASH_TABLE_FULL, both_halves);
        if (number % 3 == 0) {
            m_writer.close_conn(m_last_slot, sample_start + 1);
        }
        if (number % 5 == 0) {
            m_writer.release_conn(slot);
        }
        if (number % 64 == 0) {
            int& changing = m_peers[(number / 64) % peer_count];
            m_writer.remove_peer(changing);
            changing = add_peer();
        }
        m_last_slot = slot;
    }

private:
    int add_peer()
    {
        ++m_peer_number;
        return m_writer.add_peer(static_cast<int>(m_peer_number), peer_of(m_peer_number));
    }

    RE_stat_writer& m_writer;
    int m_peers[peer_count] = {};
    unsigned int m_number = 0;
    unsigned int m_peer_number = 0;
    int m_last_slot = -1;
};

// What the engine's process reports to this one.
struct shared_words
{
    std::atomic<unsigned long> done;
    std::atomic<unsigned long> processor_nanoseconds; // used by the engine so far, updated from time to time
    std::atomic<bool> b_ready;
};

shared_words* share_words()
{
    void* const memory = mmap(nullptr, sizeof(shared_words), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::runtime_error("no shared memory");
    }
    return new (memory) shared_words{};
}

void be_busy(shared_words& words)
{
    stay_on_processor(0);
    RE_stat_writer writer;
    if (writer.create(limits, sample_start) != 0) {
        return;
    }
    busy_engine engine(writer);
    writer.publish();
    words.b_ready = true;
    for (;;) {
        for (int times = 0; times < 256; ++times) {
            engine.work();
        }
        timespec used{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
        words.done.fetch_add(256, std::memory_order_relaxed);
        words.processor_nanoseconds =
            static_cast<unsigned long>(used.tv_sec) * 1000000000UL + static_cast<unsigned long>(used.tv_nsec);
    }
}

void wait_for(const shared_words& words)
{
    for (int tries = 0; !words.b_ready; ++tries) {
        if (tries > 5000) {
            throw std::runtime_error("the engine does not start");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Whether a row of "conn" is consistent: id, peer, client, server.
bool is_conn_row_whole(const std::string& line)
{
    int id = 0;
    int peer = 0;
    unsigned int client[4] = {};
    unsigned int server[4] = {};
    unsigned int client_port = 0;
    unsigned int server_port = 0;
    if (std::sscanf(line.c_str(), "%d %d %u.%u.%u.%u:%u %u.%u.%u.%u:%u", &id, &peer, &client[0], &client[1], &client[2],
                    &client[3], &client_port, &server[0], &server[1], &server[2], &server[3], &server_port) != 12) {
        return true; // not a row
    }
    // A connection that was closed after the listing found it has a row of zeros.
    const bool b_gone = id == 0 && peer == -1 && client[0] == 0 && server[0] == 0 && client_port == 0;
    const auto number = static_cast<unsigned int>(id);
    const auto low = [](const unsigned int(&ip)[4]) { return (ip[1] << 16U) + (ip[2] << 8U) + ip[3]; };
    return b_gone || (client[0] == 10 && server[0] == 20 && low(client) == number && low(server) == number &&
                      client_port == number && server_port == id_bits - number);
}

// Whether a row of the NACK log is consistent: time, peer, connection, message, type, reason.
bool is_nack_row_whole(const std::string& line)
{
    int peer = 0;
    int conn = 0;
    int message = 0;
    char type[8] = {};
    char reason[32] = {};
    if (std::sscanf(line.c_str(), "11/14/2023 22:13:20 %d %d %d %7s %31[^\n]", &peer, &conn, &message, type, reason) !=
        5) {
        return true;
    }
    constexpr const char* reasons[] = {"None", "Chunk missed", "Checksum collision", "Disk overloaded",
                                       "Cache is not ready"};
    return peer == conn && conn == message && (message % 2 == 0 ? "Nack" : "R-Tx") == std::string(type) &&
           reasons[message % 5] == std::string(reason);
}

// Checks the block of a peer: number, MAC address, identity and name, in this order.
class peer_blocks
{
public:
    bool take(const std::string& line)
    {
        char text[256] = {};
        if (std::sscanf(line.c_str(), "Peer-No : %u", &m_number) == 1) {
            return true;
        }
        const RE_stat_peer_header peer = peer_of(m_number);
        if (std::sscanf(line.c_str(), "Peer-ID : %255s", text) == 1) {
            return peer.m_peer_mac_id.getString() == text;
        }
        if (std::sscanf(line.c_str(), "KAV-peer-id : %255s", text) == 1) {
            return peer.m_kav_peer_id.getString() == text;
        }
        if (std::sscanf(line.c_str(), "Hostname: %255s", text) == 1) {
            return std::string(peer.m_peer_host_name) == text;
        }
        return true;
    }

private:
    unsigned int m_number = 0;
};

// Returns the first line with parts of two records, or an empty text.
std::string mixed_line(const std::string& report)
{
    peer_blocks peers;
    std::istringstream lines(report);
    for (std::string line; std::getline(lines, line);) {
        if (!is_conn_row_whole(line) || !is_nack_row_whole(line) || !peers.take(line)) {
            return line;
        }
    }
    return {};
}

} // namespace

void read_moving_engine(const torture_options& options, tally& result)
{
    shared_words* const words = share_words();
    const forked_process engine([words](const auto& ready) {
        ready();
        be_busy(*words);
    });
    stay_on_processor(1);
    wait_for(*words);
    const auto start = std::chrono::steady_clock::now();
    const auto& reports = all_reports();
    std::size_t bytes = 0;
    for (unsigned long at = 0; at < options.count; ++at) {
        const std::vector<std::string>& report = reports[at % reports.size()];
        const program_result end = run_viewer(report);
        const std::string mixed = mixed_line(end.out);
        bytes += end.out.size();
        // An engine without a configuration has no brief report. All other reports contain text.
        const bool b_complete =
            end.status == 0 && end.err.empty() && (!end.out.empty() || report[0].find("config") != 0);
        result.add((b_complete || report[0] == "config" || report[0] == "brief-config") && end.status == 0 &&
                       mixed.empty(),
                   words_of(report) + ": " + end_of(end) + ", " + mixed);
    }
    const auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    char note[160];
    std::snprintf(note, sizeof note, "%.0f s, %zu MB of reports; meanwhile %lu connections opened", seconds,
                  bytes >> 20U, words->done.load());
    result.note(note);
}

namespace {

// Returns how much work the busy engine does per second of its own processor time, while viewers report on the engine
// with the given segment.
double work_done(const shared_words& words, const std::string& segment)
{
    constexpr std::chrono::milliseconds length{500};
    run_surroundings surroundings;
    surroundings.environment = {{"KAV_STAT_SEGMENT", segment}};
    const unsigned long done_before = words.done;
    const unsigned long time_before = words.processor_nanoseconds;
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t at = 0; std::chrono::steady_clock::now() - start < length; ++at) {
        run_viewer(all_reports()[at % all_reports().size()], surroundings);
    }
    return static_cast<double>(words.done - done_before) /
           (static_cast<double>(words.processor_nanoseconds - time_before) * 1e-9);
}

} // namespace

// The viewers use the other processor in the same way in both cases, once with this engine and once with an idle one.
// The only difference is that they read what the engine writes. The engine's own processor time does not include time
// that other processes take.
void compare_throughput(const torture_options& options, tally& result)
{
    shared_words* const words = share_words();
    const std::string busy = std::getenv("KAV_STAT_SEGMENT");
    const std::string idle = busy + ".idle";
    setenv("KAV_STAT_SEGMENT", idle.c_str(), 1);
    RE_stat_writer idle_engine;
    if (idle_engine.create(limits, sample_start) != 0) {
        throw std::runtime_error("no idle engine");
    }
    busy_engine work(idle_engine);
    for (int times = 0; times < 10000; ++times) {
        work.work();
    }
    idle_engine.publish();
    setenv("KAV_STAT_SEGMENT", busy.c_str(), 1);

    const forked_process engine([words](const auto& ready) {
        ready();
        be_busy(*words);
    });
    stay_on_processor(1);
    wait_for(*words);
    std::vector<double> ratios;
    for (unsigned long pair = 0; pair < options.count; ++pair) {
        // The order alternates, so that a machine that slows down favours neither case.
        const bool b_busy_first = pair % 2 == 0;
        const double first = work_done(*words, b_busy_first ? busy : idle);
        const double second = work_done(*words, b_busy_first ? idle : busy);
        ratios.push_back(b_busy_first ? first / second : second / first);
    }
    std::sort(ratios.begin(), ratios.end());
    constexpr double noise = 0.05;
    const double median = ratios.empty() ? 0.0 : ratios[ratios.size() / 2];
    for (std::size_t pair = 0; pair < ratios.size(); ++pair) {
        result.add(median > 1.0 - noise, "the engine is slower with readers than without: " + std::to_string(median));
    }
    char note[160];
    std::snprintf(note, sizeof note, "read / not read: median %.3f, from %.3f to %.3f", median,
                  ratios.empty() ? 0.0 : ratios.front(), ratios.empty() ? 0.0 : ratios.back());
    result.note(note);
}

namespace {

// Starts engines again and again, each with other limits. Each one is stopped cleanly or killed by the parent process.
void come_and_go(unsigned int seed)
{
    std::mt19937 random(seed);
    const auto drawn = [&random](int most) { return std::uniform_int_distribution<int>(1, most)(random); };
    for (;;) {
        RE_stat_writer writer;
        const int peers = drawn(50);
        if (writer.create({peers, drawn(2000), drawn(500), drawn(1000)}, sample_start) != 0) {
            continue;
        }
        writer.set_config({});
        busy_engine engine(writer);
        writer.publish();
        for (int work = drawn(3000); work > 0; --work) {
            engine.work();
        }
        if (drawn(4) == 1) {
            std::this_thread::sleep_for(std::chrono::microseconds(drawn(3000)));
        }
    }
}

// Truncates the segment at a random time of the viewer's run. The engine does not survive that either.
program_result run_over_cut_segment(const std::vector<std::string>& report, int microseconds)
{
    child_program viewer(built_program("exec_show_stats_kav"), report);
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
    const std::string path = own_segment_path(std::getenv("KAV_STAT_SEGMENT"));
    const int ignored = truncate(path.c_str(), microseconds % 2 == 0 ? 0 : 4096);
    static_cast<void>(ignored); // the segment may not exist at the moment
    return viewer.finish();
}

bool ends_with_refusal(const std::string& text)
{
    return std::string_view(text).ends_with(refusal);
}

} // namespace

void change_engines(const torture_options& options, tally& result)
{
    std::mt19937 random(options.seed);
    std::uniform_int_distribution<int> drawn(0, 1500);
    unsigned long refused = 0;
    unsigned long engines = 0;
    for (unsigned long at = 0; at < options.count; ++engines) {
        const forked_process engine([&](const auto& ready) {
            ready();
            come_and_go(options.seed + static_cast<unsigned int>(at));
        });
        // The object kills the engine at an arbitrary point. The next engine finds what it left.
        for (int reports = 10; reports > 0 && at < options.count; --reports, ++at) {
            const auto& report = all_reports()[random() % all_reports().size()];
            const program_result end = at % 5 == 4 ? run_over_cut_segment(report, drawn(random)) : run_viewer(report);
            // Output from before the truncation is kept.
            const bool b_refused = end.status == 1 && ends_with_refusal(end.out);
            refused += b_refused ? 1U : 0U;
            const std::string mixed = mixed_line(end.out);
            result.add(b_refused || (end.status == 0 && end.err.empty() && mixed.empty()),
                       words_of(report) + ": " + end_of(end) + ", " + mixed + end.err);
        }
    }
    result.note(std::to_string(engines) + " engines killed; refused by status 1: " + std::to_string(refused));
}
