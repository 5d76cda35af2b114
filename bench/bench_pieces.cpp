// Measures the parts of reports, each next to the least that it could cost: NAME/ours and NAME/floor. script/bench runs
// them in random order, many times, and compares the medians.
#include "RE_conn_view.h"
#include "RE_nack_view.h"
#include "RE_stat_image.h"
#include "RE_stat_writer.h"
#include "RE_top_app_log.h"
#include "RE_top_app_log_writer.h"
#include "RE_viewer_reader.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace {

[[noreturn]] void give_up(const char* what)
{
    std::perror(what);
    std::exit(1);
}

// Redirects standard output to memory, which is emptied before each use. The C++ streams, which print the results, keep
// the original one.
class report_output
{
public:
    report_output() : m_fd(memfd_create("report", MFD_CLOEXEC))
    {
        FILE* const file = m_fd >= 0 ? fdopen(m_fd, "w") : nullptr;
        if (file == nullptr) {
            give_up("memfd");
        }
        std::setvbuf(file, nullptr, _IOFBF, 65536);
        stdout = file;
    }

    void empty() const
    {
        if (ftruncate(m_fd, 0) != 0 || lseek(m_fd, 0, SEEK_SET) != 0) {
            give_up("ftruncate");
        }
    }

    void write_at_once(const std::string& text) const
    {
        if (write(m_fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            give_up("write");
        }
    }

    std::string text() const
    {
        std::fflush(stdout);
        std::string text(static_cast<std::size_t>(lseek(m_fd, 0, SEEK_END)), '\0');
        if (pread(m_fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
            give_up("pread");
        }
        return text;
    }

private:
    int m_fd;
};

const report_output& output()
{
    static const report_output the_output;
    return the_output;
}

void time_report(benchmark::State& state, const std::function<void()>& print)
{
    for (auto _ : state) {
        state.PauseTiming();
        output().empty();
        state.ResumeTiming();
        print();
        std::fflush(stdout);
    }
}

// Adds a report, and one write of the same bytes.
void add_report(const std::string& name, const std::function<void()>& print)
{
    output().empty();
    print();
    const std::string text = output().text();
    benchmark::RegisterBenchmark((name + "/ours").c_str(),
                                 [print](benchmark::State& state) { time_report(state, print); });
    benchmark::RegisterBenchmark((name + "/floor").c_str(), [text](benchmark::State& state) {
        time_report(state, [&text] { output().write_at_once(text); });
    });
}

// An engine with its own segment, and a reader of it.
class published_engine
{
public:
    published_engine(const char* name, const RE_stat_limits& limits)
    {
        setenv("KAV_STAT_SEGMENT", ("kav_bench_" + std::to_string(getpid()) + name).c_str(), 1);
        if (writer.create(limits, std::time(nullptr)) != 0) {
            give_up("statistics segment");
        }
        writer.set_global(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE);
        writer.add_peer(1, {});
    }

    // Publishes the statistics and returns a reader.
    RE_stat_reader& publish()
    {
        writer.publish();
        m_reader.reset(RE_stat_reader::create(RE_STAT_READER_SHM, nullptr));
        if (m_reader->open() != 0) {
            give_up("opening the statistics");
        }
        return *m_reader;
    }

    RE_stat_writer writer;

private:
    std::unique_ptr<RE_stat_reader> m_reader;
};

// A search in 1,000,000 connections that finds every 100,000th. The floor reads every row of identities once.
void add_scan()
{
    constexpr int count = 1'000'000;
    constexpr unsigned int wanted = 0x0a0a0a0a;
    RE_stat_limits limits;
    limits.connections = count;
    static published_engine engine("scan", limits);
    for (int id = 0; id < count; ++id) {
        RE_stat_conn_header header{};
        header.m_conn_id = id;
        header.m_server_ip = id % 100'000 == 0 ? wanted : 0x0b000000U + static_cast<unsigned int>(id);
        SO_stat_conn_header so_header{};
        so_header.m_comp_type = 3;
        engine.writer.open_conn(0, header, so_header, 1);
    }
    RE_stat_reader& reader = engine.publish();
    benchmark::RegisterBenchmark("scan/ours", [&reader](benchmark::State& state) {
        p_statReader = &reader;
        time_report(state, [] { show_conn(0, wanted, 0, 0, -1, -1, RE_SHOW_INFO, false, false); });
    });
    static const std::vector<RE_image_conn_row> rows(count);
    benchmark::RegisterBenchmark("scan/floor", [](benchmark::State& state) {
        for (auto _ : state) {
            std::uint64_t sum = 0;
            const auto* const words = reinterpret_cast<const std::uint64_t*>(rows.data());
            for (std::size_t at = 0; at < rows.size() * sizeof(RE_image_conn_row) / sizeof *words; ++at) {
                sum += words[at];
            }
            benchmark::DoNotOptimize(sum);
        }
    });
}

void add_nacks()
{
    RE_stat_limits limits;
    limits.nacks = 1'000'000;
    static published_engine engine("nacks", limits);
    const std::time_t now = std::time(nullptr);
    for (int entry = 0; entry < limits.nacks; ++entry) {
        const auto moment = static_cast<std::int32_t>(now - (limits.nacks - entry) / 20);
        engine.writer.add_nack({moment, static_cast<std::int16_t>(entry % 2), static_cast<std::int16_t>(entry % 5), 1,
                                entry % 1000, entry});
    }
    RE_stat_reader& reader = engine.publish();
    add_report("nacks", [&reader] {
        p_statReader = &reader;
        show_nack_info(-1, -1);
    });
}

void add_top_app_detail()
{
    static const std::string path = "/dev/shm/kav_bench_" + std::to_string(getpid()) + ".log";
    std::vector<RE_stat_app_struct> records(1'000'000);
    for (std::size_t at = 0; at < records.size(); ++at) {
        records[at].m_header.m_server_port = static_cast<std::uint16_t>(at % 300);
        for (std::uint32_t& counter : records[at].m_id_array) {
            counter = static_cast<std::uint32_t>(at * 977);
        }
    }
    const std::vector<RE_top_app_log_name> names(1);
    if (append_top_app_log(path, names, records) != 0) {
        give_up(path.c_str());
    }
    add_report("top-app detail", [] {
        std::string file = path;
        char no_peer[] = "";
        show_top_app(file.data(), no_peer, true, 10);
    });
}

// Replaces a file in the current folder by one with these bytes, safely on disk.
void save_by_hand(const std::string& bytes)
{
    const int file = open("kav_bench.tmp", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file < 0 || write(file, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) || fsync(file) != 0 ||
        close(file) != 0 || rename("kav_bench.tmp", "kav_bench.saved") != 0) {
        give_up("kav_bench.tmp");
    }
    const int folder = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0 || fsync(folder) != 0 || close(folder) != 0) {
        give_up("folder");
    }
}

void add_saving()
{
    static published_engine engine("save", {});
    for (int id = 0; id < 600; ++id) {
        engine.writer.open_conn(0, {id, 1, 2, 3, 4}, {}, 1);
    }
    RE_stat_reader& reader = engine.publish();
    if (reader.save_stats_binary("kav_bench.saved") != 0) {
        give_up("kav_bench.saved");
    }
    std::ifstream file("kav_bench.saved", std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    benchmark::RegisterBenchmark("save/ours", [&reader](benchmark::State& state) {
        for (auto _ : state) {
            if (reader.save_stats_binary("kav_bench.saved") != 0) {
                give_up("kav_bench.saved");
            }
        }
    });
    benchmark::RegisterBenchmark("save/floor", [bytes](benchmark::State& state) {
        for (auto _ : state) {
            save_by_hand(bytes);
        }
    });
}

void add_counters()
{
    static published_engine engine("counter", {});
    engine.publish();
    benchmark::RegisterBenchmark("counter/ours", [](benchmark::State& state) {
        for (auto _ : state) {
            engine.writer.add_global(RE_STAT_GLOBAL_ID_NUM_HASH_TABLE_FULL, 1);
        }
    });
    alignas(64) static std::int64_t counter = 0;
    benchmark::RegisterBenchmark("counter/floor", [](benchmark::State& state) {
        for (auto _ : state) {
            __atomic_fetch_add(&counter, std::int64_t{1}, __ATOMIC_RELAXED);
        }
    });
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    output();
    add_counters();
    add_scan();
    add_nacks();
    add_top_app_detail();
    add_saving();
    benchmark::RunSpecifiedBenchmarks();
    std::remove(("/dev/shm/kav_bench_" + std::to_string(getpid()) + ".log").c_str());
    std::remove("kav_bench.saved");
    return 0;
}
