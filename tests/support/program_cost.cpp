#include "support/program_cost.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sys/syscall.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>

extern char** environ;

namespace {

std::vector<char*> argv_of(const program_words& words)
{
    std::vector<char*> argv;
    for (const std::string& word : words) {
        argv.push_back(const_cast<char*>(word.c_str())); // execv does not change them
    }
    argv.push_back(nullptr);
    return argv;
}

[[noreturn]] void fail(const std::string& what)
{
    std::perror(what.c_str());
    std::exit(1);
}

// Starts the program and stops it at its first instruction.
pid_t start_traced(const program_words& words)
{
    const auto argv = argv_of(words);
    const pid_t child = fork();
    if (child == 0) {
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, STDOUT_FILENO);
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) {
        fail(words[0]);
    }
    return child;
}

} // namespace

program_cost timed_run(const program_words& words, int output)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (output < 0) {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    } else {
        posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    }
    const auto argv = argv_of(words);
    const auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    if (posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        fail(words[0]);
    }
    int status = 0;
    rusage usage{};
    const bool b_done = wait4(child, &status, 0, &usage) == child;
    const auto end = std::chrono::steady_clock::now();
    posix_spawn_file_actions_destroy(&actions);
    if (!b_done || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fail(words[0]);
    }
    program_cost cost;
    cost.seconds = std::chrono::duration<double>(end - start).count();
    cost.page_faults = usage.ru_minflt;
    return cost;
}

program_cost watched_run(const program_words& words)
{
    constexpr int stop_of_system_call = SIGTRAP | 0x80;
    const pid_t child = start_traced(words);
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXIT);
    program_cost cost;
    cost.system_calls = 1; // execve, which has already returned
    bool b_in_call = false;
    int status = 0;
    do {
        ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        if (waitpid(child, &status, 0) != child) {
            fail(words[0]);
        }
        if (WIFSTOPPED(status) && WSTOPSIG(status) == stop_of_system_call) {
            b_in_call = !b_in_call;
            if (b_in_call) {
                user_regs_struct registers{};
                ptrace(PTRACE_GETREGS, child, nullptr, &registers);
                ++cost.system_calls;
                cost.write_calls += registers.orig_rax == SYS_write ? 1 : 0;
            }
        } else if (WIFSTOPPED(status) && status >> 8 == (SIGTRAP | (PTRACE_EVENT_EXIT << 8))) {
            cost.resident = kilobytes_of(child, "VmHWM");
        }
    } while (WIFSTOPPED(status));
    return cost;
}

long count_instructions(const program_words& words)
{
    const pid_t child = start_traced(words);
    long count = 0;
    int status = 0;
    do {
        ++count;
        ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr);
        if (waitpid(child, &status, 0) != child) {
            fail(words[0]);
        }
    } while (WIFSTOPPED(status));
    return count;
}

long kilobytes_of(pid_t process, const std::string& figure)
{
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(figure + ":")) {
            return std::strtol(line.c_str() + figure.size() + 1, nullptr, 10);
        }
    }
    return 0;
}
