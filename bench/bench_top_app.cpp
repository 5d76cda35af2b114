// Measures a long top-application log: reading it only, reporting it, and reporting it in the obvious way.
//
//     bench_top_app [RECORDS [FOLDER]]      default 1,000,000 records of 100 bytes, in a temporary file under /tmp
//
// Each way runs in its own process, in turns, and the best of five rounds counts. Memory is the peak resident size of
// the process and reads are its read calls during the work, both as counted by the kernel.
#include "RE_top_app_log.h"
#include "RE_top_app_log_writer.h"
#include "RE_top_app_post_process.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

namespace {

constexpr int rounds = 5;

struct cost
{
    double seconds = 0;
    long peak_kbytes = 0;
    long reads = 0;
};

[[noreturn]] void give_up(const char* what)
{
    std::perror(what);
    std::exit(1);
}

// Read calls of this process so far, or -1 where the kernel does not count them.
long read_calls()
{
    long reads = -1;
    if (FILE* const io = std::fopen("/proc/self/io", "re")) {
        char line[128];
        while (std::fgets(line, sizeof line, io) != nullptr) {
            std::sscanf(line, "syscr: %ld", &reads);
        }
        std::fclose(io);
    }
    return reads;
}

// Writes a log of `keys` applications, with as many ports and as many handles (at most 1,024).
void make_log(const std::string& path, std::size_t record_count, unsigned keys)
{
    constexpr std::size_t records_per_section = 65536;
    std::mt19937 random(keys);
    std::vector<RE_top_app_log_name> names(std::min(keys, 1024U));
    for (std::size_t i = 0; i < names.size(); ++i) {
        names[i] = {static_cast<RE_stat_policy_engine_handler>(i), {}};
        std::snprintf(names[i].names.m_policy_engine_application_name, 41, "application-%zu", i);
        std::snprintf(names[i].names.m_policy_engine_classifier_name, 41, "class-%zu", i);
    }
    std::vector<RE_stat_app_struct> records;
    for (std::size_t made = 0; made < record_count; made += records.size()) {
        records.assign(std::min(records_per_section, record_count - made), RE_stat_app_struct{});
        for (RE_stat_app_struct& record : records) {
            const unsigned key = static_cast<unsigned>(random()) % keys;
            for (std::uint32_t& counter : record.m_id_array) {
                counter = static_cast<std::uint32_t>(random()) & 0xffffU;
            }
            record.m_header.m_server_port = key & 0xffffU;
            record.m_header.set_policy_engine_handler(key % 1024);
        }
        if (const int result = append_top_app_log(path, names, records); result != 0) {
            errno = -result;
            give_up("writing the log");
        }
    }
}

void read_and_do_nothing(const std::string& path)
{
    alignas(4096) static char buffer[1 << 20];
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        give_up("open");
    }
    while (read(fd, buffer, sizeof buffer) > 0) {
    }
    close(fd);
}

void run_cat(const std::string& path)
{
    const std::string command = "cat '" + path + "' > /dev/null";
    if (std::system(command.c_str()) != 0) {
        give_up("cat");
    }
}

void report(const std::string& path)
{
    std::string file = path;
    std::string peer;
    show_top_app(file.data(), peer.data(), false, 10);
}

// Loads all records into memory and sorts them once. Relies on the places where this program writes the sections.
void read_records_and_sort(const std::string& path)
{
    FILE* const file = std::fopen(path.c_str(), "re");
    if (file == nullptr) {
        give_up("fopen");
    }
    std::vector<RE_stat_app_struct> records;
    std::uint32_t head[2];
    while (std::fread(head, sizeof head, 1, file) == 1) {
        std::uint32_t record_count = 0;
        std::fseek(file, 86L * head[1], SEEK_CUR);
        if (std::fread(&record_count, sizeof record_count, 1, file) != 1) {
            break;
        }
        RE_stat_app_struct record;
        for (std::uint32_t i = 0; i < record_count && std::fread(&record, sizeof record, 1, file) == 1; ++i) {
            records.push_back(record);
        }
    }
    std::fclose(file);
    std::sort(records.begin(), records.end(), ClassifierComparatorClass{});
}

// Runs `work` in a child process and discards its reports.
template <typename work_type>
cost cost_of(const work_type& work)
{
    auto* const shared =
        static_cast<cost*>(mmap(nullptr, sizeof(cost), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (shared == MAP_FAILED) {
        give_up("mmap");
    }
    std::fflush(stdout);
    const pid_t child = fork();
    if (child < 0) {
        give_up("fork");
    }
    if (child == 0) {
        if (std::freopen("/dev/null", "w", stdout) == nullptr) {
            _exit(1);
        }
        const long reads_before = read_calls();
        const long own_reads = read_calls() - reads_before;
        const auto start = std::chrono::steady_clock::now();
        work();
        shared->seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        shared->reads = read_calls() - reads_before - 2 * own_reads;
        _exit(0);
    }
    int status = 0;
    rusage usage{};
    if (wait4(child, &status, 0, &usage) != child || status != 0) {
        std::fputs("a benchmark's process failed\n", stderr);
        std::exit(1);
    }
    cost result = *shared;
    result.peak_kbytes = usage.ru_maxrss;
    munmap(shared, sizeof(cost));
    return result;
}

void print_row(const char* what, const cost& measured, const cost& floor)
{
    std::printf("%-44s %8.3f s %7.2fx %9.1f MB %8s\n", what, measured.seconds, measured.seconds / floor.seconds,
                static_cast<double>(measured.peak_kbytes) / 1024,
                measured.reads < 0 ? "-" : std::to_string(measured.reads).c_str());
}

void keep_best(cost& best, const cost& measured)
{
    if (best.seconds == 0 || measured.seconds < best.seconds) {
        best = measured;
    }
}

} // namespace

int main(int argc, char** argv)
{
    const std::size_t record_count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1000000;
    std::string folder = std::string(argc > 2 ? argv[2] : "/tmp") + "/bench_top_app.XXXXXX";
    if (record_count == 0 || mkdtemp(folder.data()) == nullptr) {
        give_up("bench_top_app [RECORDS [FOLDER]]");
    }
    const std::string few_keys = folder + "/few";
    const std::string many_keys = folder + "/many";
    // In child processes, so that their memory does not count for the measured ones.
    cost_of([&] { make_log(few_keys, record_count, 20); });
    cost_of([&] { make_log(many_keys, record_count, 65536); });

    cost nothing;
    cost cat;
    cost few;
    cost many;
    cost sorted;
    for (int round = 0; round < rounds; ++round) {
        keep_best(nothing, cost_of([&] { read_and_do_nothing(few_keys); }));
        keep_best(cat, cost_of([&] { run_cat(few_keys); }));
        keep_best(few, cost_of([&] { report(few_keys); }));
        keep_best(many, cost_of([&] { report(many_keys); }));
        keep_best(sorted, cost_of([&] { read_records_and_sort(few_keys); }));
    }
    unlink(few_keys.c_str());
    unlink(many_keys.c_str());
    rmdir(folder.c_str());

    std::printf("%zu records, best of %d rounds\n%-44s %10s %8s %12s %8s\n", record_count, rounds, "", "time", "ratio",
                "resident", "reads");
    print_row("1 MiB reads, nothing done", nothing, nothing);
    cat.reads = -1; // would be the count of another process
    print_row("cat to /dev/null", cat, nothing);
    print_row("show_top_app, 20 applications", few, nothing);
    print_row("show_top_app, 65,536 ports, 1,024 handles", many, nothing);
    print_row("a vector of all records and std::sort", sorted, nothing);
    return 0;
}
