// What one run of the viewer costs beside the cheapest programs there are: /bin/true, and a static program that prints
// one line. All three are started in turn, many times, so that the machine's moods hit them alike.
//
// usage: bench_startup [ROUNDS] [COMMAND...]     (default: 1000 global-detail)
//
// For instructions, which not every machine counts in hardware:
//     valgrind --tool=callgrind --callgrind-out-file=/dev/null build/release/bin/exec_show_stats_kav global-detail

#include "RE_stat_writer.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern char** environ;

namespace {

struct candidate
{
    const char* name;
    std::vector<std::string> words;
    std::vector<double> microseconds;
    rusage usage{};
    long system_calls = 0;
    long resident = 0; // KB
};

std::vector<char*> argv_of(std::vector<std::string>& words)
{
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return argv;
}

[[noreturn]] void fail(const char* what)
{
    std::perror(what);
    std::exit(1);
}

// Runs a program once, its output thrown away.
void run_once(candidate& program)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const auto argv = argv_of(program.words);
    const auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    if (posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        fail(argv[0]);
    }
    int status = 0;
    if (wait4(child, &status, 0, &program.usage) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fail(argv[0]);
    }
    const std::chrono::duration<double, std::micro> taken = std::chrono::steady_clock::now() - start;
    program.microseconds.push_back(taken.count());
    posix_spawn_file_actions_destroy(&actions);
}

// The most memory that a process has had resident, in KB.
long peak_resident(pid_t process)
{
    long kilobytes = 0;
    if (FILE* const status = std::fopen(("/proc/" + std::to_string(process) + "/status").c_str(), "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, status) != nullptr && std::sscanf(line, "VmHWM: %ld", &kilobytes) != 1) {
        }
        std::fclose(status);
    }
    return kilobytes;
}

// Runs a program once more under our eyes: counts its system calls, from execve to the exit, and looks at its memory
// before it goes.
void count_system_calls(candidate& program)
{
    const auto argv = argv_of(program.words);
    const pid_t child = fork();
    if (child == 0) {
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, STDOUT_FILENO);
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXIT);
    constexpr int stop_of_system_call = SIGTRAP | 0x80;
    long stops = 0;
    while (!WIFEXITED(status) && !WIFSIGNALED(status)) {
        ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        waitpid(child, &status, 0);
        if (WIFSTOPPED(status) && WSTOPSIG(status) == stop_of_system_call) {
            ++stops;
        } else if (WIFSTOPPED(status) && status >> 8 == (SIGTRAP | (PTRACE_EVENT_EXIT << 8))) {
            program.resident = peak_resident(child);
        }
    }
    program.system_calls = stops / 2 + 1; // a call stops at its start and its end, the exit at its start alone
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// An engine of ordinary size: tens of peers, hundreds of connections, every figure in use.
void publish_ordinary_engine(RE_stat_writer& writer)
{
    RE_stat_limits limits;
    if (writer.create(limits, std::time(nullptr)) != 0) {
        fail("statistics segment");
    }
    writer.set_global(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE);
    for (int id = 1; id < RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS; ++id) {
        writer.set_global(id, 1000LL * id);
    }
    for (int number = 0; number < 30; ++number) {
        RE_stat_peer_header header{};
        std::snprintf(header.m_peer_host_name, sizeof header.m_peer_host_name, "branch-%d", number);
        const int peer = writer.add_peer(number, header);
        for (int at = 0; at < 20; ++at) {
            RE_stat_conn_header conn{};
            conn.m_conn_id = number * 20 + at;
            SO_stat_conn_header so_header{};
            so_header.m_comp_type = 3;
            const int slot = writer.open_conn(peer, conn, so_header, std::time(nullptr));
            for (int id = 0; id < RE_STAT_CONN_ID_MAX; ++id) {
                writer.add_conn_stat(slot, id, 12345 + id);
            }
        }
    }
    writer.publish();
}

} // namespace

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 1000;
    setenv("KAV_STAT_SEGMENT", ("kav_bench." + std::to_string(getpid())).c_str(), 1);
    RE_stat_writer writer;
    publish_ordinary_engine(writer);

    const std::string self = argv[0];
    const std::string folder = self.substr(0, self.rfind('/') + 1);
    candidate programs[] = {
        {"viewer", {folder + "exec_show_stats_kav"}, {}},
        {"static one-liner", {folder + "one_line"}, {}},
        {"/bin/true", {"/bin/true"}, {}},
    };
    if (argc > 2) {
        programs[0].words.insert(programs[0].words.end(), argv + 2, argv + argc);
    } else {
        programs[0].words.emplace_back("global-detail");
    }

    for (int round = 0; round < rounds; ++round) {
        for (candidate& program : programs) {
            run_once(program);
        }
    }
    std::printf("%-18s %12s %14s %12s %14s\n", "program", "time, ratio", "system calls", "page faults", "resident KB");
    const double base = median(programs[0].microseconds);
    for (candidate& program : programs) {
        count_system_calls(program);
        std::printf("%-18s %12.3f %14ld %12ld %14ld\n", program.name, base / median(program.microseconds),
                    program.system_calls, program.usage.ru_minflt, program.resident);
    }
    std::printf("time, ratio: the viewer's median wall time over the program's, %d runs each, in turn\n", rounds);
    return 0;
}
