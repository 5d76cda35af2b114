// Hostile input: an engine's segment that is truncated or kept busy, pipes and links in place of files, files with
// false content, names with control characters. No input may end a program by a signal, block it, fill its memory, or
// make it write elsewhere.
#include "RE_stat_image.h"
#include "RE_stat_writer.h"
#include "RE_top_app_log_writer.h"
#include "support/http_client.h"
#include "support/program_cost.h"
#include "support/terminal.h"
#include "torture.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace {

namespace fs = std::filesystem;
using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr uid_t neighbour = 65534;

// Where an attack takes place.
struct hostile_place
{
    std::string bin;    // the programs under attack
    std::string folder; // empty, on a disk

    std::string program(const char* name) const { return bin + "/" + name; }
    std::string file(const char* name) const { return folder + "/" + name; }
};

struct attack
{
    const char* what;
    // Returns an empty text, or a description of what succeeded.
    std::string (*run)(const hostile_place& place);
};

// A program with a time limit.
class limited_run
{
public:
    limited_run(const std::string& program, const std::vector<std::string>& words,
                const run_surroundings& surroundings = {}, milliseconds limit = std::chrono::seconds(5))
        : m_start(clock::now()), m_program(program, words, surroundings), m_pid(m_program.pid()),
          m_watch([this, limit] { watch(m_start + limit); })
    {}
    ~limited_run() { end_watch(); }
    limited_run(const limited_run&) = delete;
    limited_run& operator=(const limited_run&) = delete;

    pid_t pid() const { return m_pid; }
    child_program& program() { return m_program; }
    const program_result& finish()
    {
        m_result = m_program.finish();
        m_spent = clock::now() - m_start;
        end_watch();
        return m_result;
    }
    milliseconds spent() const { return std::chrono::duration_cast<milliseconds>(m_spent); }
    long peak_megabytes() const { return m_peak_kilobytes >> 10; }

private:
    void watch(clock::time_point deadline)
    {
        while (!m_b_over) {
            m_peak_kilobytes = std::max(m_peak_kilobytes.load(), kilobytes_of(m_pid, "VmHWM"));
            if (clock::now() > deadline) {
                kill(m_pid, SIGKILL);
            }
            std::this_thread::sleep_for(milliseconds(2));
        }
    }
    void end_watch()
    {
        m_b_over = true;
        if (m_watch.joinable()) {
            m_watch.join();
        }
    }

    clock::time_point m_start;
    child_program m_program;
    pid_t m_pid;
    std::atomic<bool> m_b_over{false};
    std::atomic<long> m_peak_kilobytes{0};
    clock::duration m_spent{};
    program_result m_result;
    std::thread m_watch;
};

std::string end_if(bool b_got_through, const std::string& what)
{
    return b_got_through ? what : std::string();
}

// A demo engine under attack, and a mapping of its segment as a user with write access has it.
class attacked_engine
{
public:
    attacked_engine(const hostile_place& place, std::uint32_t conns)
        : m_program(place.program("kav_demo_engine"), {"--once", "--slots", std::to_string(conns), "/etc/hostname"})
    {
        if (m_program.read_line() != "ready" || m_program.read_line() != "idle") {
            throw std::runtime_error("no engine to attack");
        }
        std::ifstream maps("/proc/" + std::to_string(m_program.pid()) + "/maps");
        for (std::string line; std::getline(maps, line);) {
            if (line.find(" rw-s ") != std::string::npos && line.find('/') != std::string::npos) {
                m_path = line.substr(line.find('/'));
            }
        }
        const int segment = open(m_path.c_str(), O_RDWR | O_CLOEXEC);
        m_size = fs::file_size(m_path);
        m_base = mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_SHARED, segment, 0);
        close(segment);
        if (m_base == MAP_FAILED ||
            m_image.attach(static_cast<unsigned char*>(m_base), m_size, RE_image_kind::live) != 0) {
            throw std::runtime_error("no segment to attack");
        }
    }
    ~attacked_engine()
    {
        munmap(m_base, m_size);
        m_program.send_signal(SIGKILL);
        m_program.finish();
        unlink(m_path.c_str());
    }
    attacked_engine(const attacked_engine&) = delete;
    attacked_engine& operator=(const attacked_engine&) = delete;

    const RE_stat_image& image() const { return m_image; }

    // Fills every slot with a connection.
    void fill()
    {
        for (std::uint32_t row = 0; row < m_image.conns.rows; ++row) {
            RE_image_conn_row conn{};
            conn.generation = 1;
            conn.slot = row;
            conn.b_in_use = 1;
            conn.header.m_conn_id = static_cast<int>(row) + 1;
            conn.so_header.m_comp_type = 3;
            conn.open_time = 1;
            store_words(&m_image.conns[row], conn);
        }
        store_release(&m_image.header->conn_slots_used, m_image.conns.rows);
    }
    // Truncates the segment. The engine is stopped before, because its own mapping is truncated as well and the next
    // access would kill it.
    void cut(off_t size)
    {
        m_program.send_signal(SIGSTOP);
        if (truncate(m_path.c_str(), size) != 0) {
            throw std::runtime_error("cannot cut the segment");
        }
    }

private:
    child_program m_program;
    std::string m_path;
    std::size_t m_size = 0;
    void* m_base = nullptr;
    RE_stat_image m_image;
};

// ---- Segments.

struct cut_run
{
    program_result end;
    std::string text;
};

// Truncates the segment after the first byte of output, while the program waits until the rest is read.
cut_run run_and_cut(attacked_engine& engine, const std::string& program, const std::vector<std::string>& words)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    run_surroundings into_pipe;
    into_pipe.output = ends[1];
    limited_run run(program, words, into_pipe);
    close(ends[1]);
    std::string text;
    char bytes[65536];
    ssize_t count = read(ends[0], bytes, 1);
    engine.cut(0);
    for (; count > 0; count = read(ends[0], bytes, sizeof bytes)) {
        text.append(bytes, static_cast<std::size_t>(count));
    }
    close(ends[0]);
    return {run.finish(), text};
}

std::string cut_under_kavstat(const hostile_place& place)
{
    attacked_engine engine(place, 2000);
    engine.fill();
    const cut_run run = run_and_cut(engine, place.program("kavstat"), {"json"});
    return end_if(run.end.status != 3 || run.text.empty(), end_of(run.end));
}

std::string cut_under_a_scrape(const hostile_place& place)
{
    attacked_engine engine(place, 5000);
    engine.fill();
    limited_run server(place.program("kavstat"), {"serve", "--listen", "127.0.0.1:0"}, {}, std::chrono::seconds(20));
    const std::string line = server.program().read_line().value_or("");
    const int port = std::atoi(line.substr(line.rfind(':') + 1).c_str());
    // The server has sent the first bytes and waits until the client reads the rest.
    const http_client client(port);
    client.send("GET /api/v1/statistics HTTP/1.1\r\nHost: localhost\r\n\r\n");
    client.take(1);
    engine.cut(0);
    const std::string rest = client.read_all();
    const bool b_lives = get(port, "/healthz").status == 200;
    server.program().send_signal(SIGTERM);
    const program_result& end = server.finish();
    const bool b_whole = rest.ends_with("0\r\n\r\n");
    return end_if(!b_lives || end.signal != 0 || b_whole, end_of(end) + (b_whole ? ", taken for whole" : ""));
}

std::string cut_under_a_save(const hostile_place& place)
{
    attacked_engine engine(place, 20000);
    engine.fill();
    fs::create_directory(place.file("saves"));
    limited_run viewer(place.program("exec_show_stats_kav"), {"save-file", place.file("saves/saved")});
    for (int tries = 0; names_in(place.file("saves")).empty() && tries < 100000; ++tries) {
    }
    engine.cut(4096);
    const program_result& end = viewer.finish();
    const std::vector<std::string> left = names_in(place.file("saves"));
    return end_if(end.status != 1 || !left.empty(), end_of(end) + ", left: " + (left.empty() ? "nothing" : left[0]));
}

std::string cut_under_a_report(const hostile_place& place)
{
    attacked_engine engine(place, 20000);
    engine.fill();
    const cut_run run = run_and_cut(engine, place.program("exec_show_stats_kav"), {"conn"});
    return end_if(run.end.status != 1 || !run.text.ends_with(refusal), end_of(run.end));
}

// Frees one record every 60 ms and keeps the others busy.
std::string keep_records_busy(const hostile_place& place)
{
    attacked_engine engine(place, 200);
    engine.fill();
    const RE_stat_image& image = engine.image();
    for (std::uint32_t row = 0; row < image.conns.rows; ++row) {
        store_release(&image.conns[row].sequence, 1U);
    }
    std::atomic<bool> b_over{false};
    std::thread writer([&] {
        for (std::uint32_t row = 0; row < image.conns.rows && !b_over; ++row) {
            std::this_thread::sleep_for(milliseconds(60));
            store_release(&image.conns[row].sequence, 2U);
        }
    });
    limited_run viewer(place.program("exec_show_stats_kav"), {"conn"}, {}, std::chrono::seconds(20));
    const program_result& end = viewer.finish();
    b_over = true;
    writer.join();
    return end_if(end.status != 0 || viewer.spent() > milliseconds(1500),
                  end_of(end) + " after " + std::to_string(viewer.spent().count()) + " ms");
}

// ---- Pipes and links where files are expected.

// Runs the engine. It must end by itself or when it is asked to.
std::string run_engine_with(const hostile_place& place, const char* option, const std::string& output)
{
    limited_run engine(place.program("kav_demo_engine"), {"--once", option, output, "/etc/hostname"}, {},
                       std::chrono::seconds(4));
    std::this_thread::sleep_for(milliseconds(1000));
    engine.program().send_signal(SIGTERM);
    const program_result& end = engine.finish();
    return end_if(end.signal != 0, "the engine stands still and ignores SIGTERM");
}

std::string pipe_as_log(const hostile_place& place)
{
    mkfifo(place.file("pipe").c_str(), 0600);
    return run_engine_with(place, "--top-app-log", place.file("pipe"));
}

std::string pipe_as_configuration(const hostile_place& place)
{
    mkfifo(place.file("pipe").c_str(), 0600);
    return run_engine_with(place, "--config-file", place.file("pipe"));
}

std::string pipe_as_account(const hostile_place& place)
{
    mkfifo(place.file("pipe").c_str(), 0600);
    const std::string stood_still = run_engine_with(place, "--ledger", place.file("pipe"));
    return stood_still.empty() && !fs::is_fifo(place.file("pipe")) ? "the pipe was replaced" : stood_still;
}

// Creates a folder that all users may write to, with the neighbour's link in it.
std::string planted_link(const hostile_place& place, const std::string& target, mode_t mode)
{
    const std::string open_to_all = place.file("open");
    fs::create_directory(open_to_all);
    if (chmod(open_to_all.c_str(), mode) != 0 || symlink(target.c_str(), (open_to_all + "/link").c_str()) != 0 ||
        lchown((open_to_all + "/link").c_str(), neighbour, neighbour) != 0) {
        throw std::runtime_error("cannot plant a link");
    }
    return open_to_all + "/link";
}

std::string link_as_output(const hostile_place& place, const char* option)
{
    const std::string victim = place.file("victim");
    write_bytes(victim, {'o', 'l', 'd'});
    run_engine_with(place, option, planted_link(place, victim, 0777));
    return end_if(read_bytes(victim) != std::vector<unsigned char>{'o', 'l', 'd'}, "the link's target was written to");
}

std::string link_as_log(const hostile_place& place)
{
    return link_as_output(place, "--top-app-log");
}

std::string link_as_configuration(const hostile_place& place)
{
    return link_as_output(place, "--config-file");
}

std::string link_on_the_way_to_a_saved_file(const hostile_place& place)
{
    attacked_engine engine(place, 10);
    fs::create_directory(place.file("victim"));
    const std::string target = planted_link(place, place.file("victim"), 01777) + "/target";
    limited_run viewer(place.program("exec_show_stats_kav"), {"save-file", target});
    viewer.finish();
    return end_if(fs::exists(place.file("victim/target")), "saved through the link");
}

std::string pipe_as_time_zone(const hostile_place& place)
{
    attacked_engine engine(place, 10);
    mkfifo(place.file("zone").c_str(), 0600);
    run_surroundings zone;
    zone.environment = {{"TZ", place.file("zone")}};
    const std::string saved = place.file("saved");
    limited_run(place.program("exec_show_stats_kav"), {"save-file", saved}).finish();
    limited_run viewer(place.program("exec_show_stats_kav"), {"read-file", saved}, zone);
    const program_result& report = viewer.finish();
    limited_run companion(place.program("kavstat"), {"diff", "--force", saved, saved}, zone);
    const program_result& difference = companion.finish();
    return end_if(report.status != 0 || difference.status != 0,
                  "viewer: " + end_of(report) + ", kavstat: " + end_of(difference));
}

// ---- Files with false content.

std::vector<unsigned char> saved_bytes(const hostile_place& place)
{
    attacked_engine engine(place, 10);
    limited_run(place.program("exec_show_stats_kav"), {"save-file", place.file("saved")}).finish();
    return read_bytes(place.file("saved"));
}

std::string false_counts_in_a_saved_file(const hostile_place& place)
{
    std::vector<unsigned char> bytes = saved_bytes(place);
    RE_image_header header{};
    std::memcpy(&header, bytes.data(), sizeof header);
    ++header.conn_slots_used;
    std::memcpy(bytes.data(), &header, sizeof header);
    const std::uint64_t checksum = XXH64(bytes.data(), bytes.size() - sizeof checksum, 0);
    std::memcpy(bytes.data() + bytes.size() - sizeof checksum, &checksum, sizeof checksum);
    write_bytes(place.file("saved"), bytes);
    limited_run viewer(place.program("exec_show_stats_kav"), {"read-file", place.file("saved")});
    return end_if(viewer.finish().status == 0, "taken for true");
}

std::string read_large_file(const hostile_place& place, std::vector<unsigned char> bytes, std::uint64_t size)
{
    RE_image_header header{};
    std::memcpy(&header, bytes.data(), sizeof header);
    header.total_size = size;
    std::memcpy(bytes.data(), &header, sizeof header);
    const std::string path = place.file("large");
    write_bytes(path, bytes);
    if (truncate(path.c_str(), static_cast<off_t>(size - 16)) != 0) {
        throw std::runtime_error("cannot make a large file");
    }
    std::ofstream(path, std::ios::app) << "KAVSTEND" << std::string(8, '\0');
    limited_run viewer(place.program("exec_show_stats_kav"), {"read-file", path}, {}, std::chrono::seconds(30));
    const program_result& end = viewer.finish();
    return end_if(end.status != 1 || viewer.peak_megabytes() > 32 || viewer.spent() > milliseconds(1500),
                  end_of(end) + ", " + std::to_string(viewer.peak_megabytes()) + " MB, " +
                      std::to_string(viewer.spent().count()) + " ms");
}

std::string large_file_of_holes(const hostile_place& place)
{
    return read_large_file(place, saved_bytes(place), RE_image_max_size);
}

// A saved file with a table that declares holes to be connections.
std::string large_table_of_holes(const hostile_place& place)
{
    std::vector<unsigned char> bytes = saved_bytes(place);
    RE_image_header header{};
    std::memcpy(&header, bytes.data(), sizeof header);
    std::uint64_t end = RE_image_table_end;
    for (std::uint32_t at = 0; at < RE_image_section_count; ++at) {
        RE_image_section section{};
        unsigned char* const place_of_section = bytes.data() + sizeof header + at * sizeof section;
        std::memcpy(&section, place_of_section, sizeof section);
        if (section.id == RE_IMAGE_CONNS || section.id == RE_IMAGE_CONN_COUNTERS) {
            section.rows = RE_image_max_conns;
            section.slots = RE_image_max_conns;
        }
        section.offset = end;
        end = (end + section.rows * section.row_size + 7) / 8 * 8;
        std::memcpy(place_of_section, &section, sizeof section);
    }
    header.conn_slots_used = RE_image_max_conns;
    std::memcpy(bytes.data(), &header, sizeof header);
    return read_large_file(place, bytes, end + sizeof(RE_image_trailer));
}

// Uses the only place where the viewer looks for the file, unless the file already exists on this machine.
std::string huge_configuration(const hostile_place& place)
{
    const fs::path folder = "/sw/vantero/config";
    const fs::path file = folder / "re_cfg.txt";
    if (fs::exists(file)) {
        return {};
    }
    fs::path made = folder;
    while (!fs::exists(made.parent_path())) {
        made = made.parent_path();
    }
    const bool b_made = fs::create_directories(folder);
    attacked_engine engine(place, 10);
    std::ofstream(file).put('x');
    fs::resize_file(file, std::uintmax_t{3} << 30U);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    run_surroundings to_nowhere;
    to_nowhere.output = null;
    limited_run viewer(place.program("exec_show_stats_kav"), {"config"}, to_nowhere, std::chrono::seconds(60));
    const program_result& end = viewer.finish();
    close(null);
    fs::remove(file);
    if (b_made) {
        fs::remove_all(made);
    }
    return end_if(end.status != 0 || viewer.peak_megabytes() > 32,
                  end_of(end) + ", " + std::to_string(viewer.peak_megabytes()) + " MB");
}

// Reports on logs that grow while they are read.
std::string log_that_is_appended_to(const hostile_place& place)
{
    constexpr int reports = 100;
    attacked_engine engine(place, 10);
    RE_stat_app_struct record{};
    record.m_id_array[0] = 1;
    const std::vector<RE_stat_app_struct> section(5000, record);
    int empty = 0;
    for (int at = 0; at < reports; ++at) {
        const std::string log = place.file("log");
        unlink(log.c_str());
        append_top_app_log(log, {}, section);
        std::atomic<bool> b_over{false};
        std::thread writer([&] {
            constexpr int most_sections = 100;
            for (int sections = 0; sections < most_sections && !b_over; ++sections) {
                append_top_app_log(log, {}, section);
            }
        });
        limited_run viewer(place.program("exec_show_stats_kav"), {"top-app", "from-file", log});
        const program_result& end = viewer.finish();
        b_over = true;
        writer.join();
        empty += end.status != 0 || end.out == "\n" ? 1 : 0;
    }
    return end_if(empty > 0, std::to_string(empty) + " of " + std::to_string(reports) + " reports empty");
}

// ---- Names with control characters.

std::string name_on_a_terminal(const hostile_place& place)
{
    attacked_engine engine(place, 10);
    RE_image_peer_row peer{};
    peer.b_in_use = 1;
    std::strcpy(peer.header.m_peer_host_name, "a\x1b]0;title\x07\xc2\x9b");
    store_words(&engine.image().peers[0], peer);
    const std::string text = run_on_terminal(place.program("exec_show_stats_kav"), {"peer", "no", "0"}).out;
    const bool b_shown = text.find("]0;title") != std::string::npos;
    return end_if(!b_shown || text.find('\x1b') != std::string::npos || text.find("\xc2\x9b") != std::string::npos,
                  b_shown ? "the terminal obeys a name" : "no report");
}

constexpr attack attacks[] = {
    {"segment cut under a report", cut_under_a_report},
    {"segment cut under a save", cut_under_a_save},
    {"segment cut under kavstat json", cut_under_kavstat},
    {"segment cut under a scrape of kavstat serve", cut_under_a_scrape},
    {"records kept busy, one freed every 60 ms", keep_records_busy},
    {"pipe as top-application log", pipe_as_log},
    {"pipe as configuration file", pipe_as_configuration},
    {"pipe as ledger", pipe_as_account},
    {"planted link as top-application log", link_as_log},
    {"planted link as configuration file", link_as_configuration},
    {"planted link on the way to a saved file", link_on_the_way_to_a_saved_file},
    {"pipe as time zone", pipe_as_time_zone},
    {"false counts in a saved file", false_counts_in_a_saved_file},
    {"saved file of 2 GB of holes", large_file_of_holes},
    {"saved file whose connections are holes", large_table_of_holes},
    {"configuration of 3 GB", huge_configuration},
    {"log that is appended to, 100 reports", log_that_is_appended_to},
    {"names that act on a terminal", name_on_a_terminal},
};

} // namespace

void attack_with_inputs(const torture_options& options, tally& result)
{
    const std::string bin =
        options.bin.empty() ? fs::path(built_program("kavstat")).parent_path().string() : options.bin;
    // Fewer trials, because some attacks take seconds.
    const unsigned long count = (options.count + 3) / 4;
    for (const attack& each : attacks) {
        unsigned long lost = 0;
        std::string told;
        for (unsigned long times = 0; times < count; ++times) {
            const std::string folder = options.folder + "/place";
            fs::create_directory(folder);
            const std::string got_through = each.run({bin, folder});
            fs::remove_all(folder);
            lost += got_through.empty() ? 0U : 1U;
            told = got_through.empty() ? told : got_through;
            result.add(got_through.empty(), std::string(each.what) + ": " + got_through);
        }
        std::printf("  %-50s %9lu %6lu  %s\n", each.what, count, lost, told.c_str());
        std::fflush(stdout);
    }
}
