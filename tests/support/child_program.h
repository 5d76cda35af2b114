// Runs the real programs as a shell would: with arguments, environment, limits and a user of one's choice, everything
// that they print caught, and never longer than they may take.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// Long enough for an instrumented program on a busy machine; what is still there then hangs.
constexpr std::chrono::seconds run_timeout{120};

struct run_surroundings
{
    // Variables that differ from the test's own environment.
    std::vector<std::pair<std::string, std::string>> environment = {};
    // Resource limits, such as {RLIMIT_NOFILE, 4}.
    std::vector<std::pair<int, rlim_t>> limits = {};
    // Where standard output goes instead of being caught; not owned. A negative number: standard output is closed.
    std::optional<int> output = {};
    // User and group to run as, without any further groups. Needs root.
    std::optional<std::pair<uid_t, gid_t>> user = {};
};

struct program_result
{
    std::string out;
    std::string err;
    int status = -1;          // exit status, or negative after a signal's death
    int signal = 0;           // that ended the program
    bool b_timed_out = false; // it had to be killed
};

// A program that runs beside the test. It ends with this object, or with the test's process.
class child_program
{
public:
    // Standard input is empty.
    child_program(const std::string& path, const std::vector<std::string>& arguments,
                  const run_surroundings& surroundings = {});
    ~child_program();
    child_program(const child_program&) = delete;
    child_program& operator=(const child_program&) = delete;

    pid_t pid() const { return m_pid; }
    void send_signal(int signal) const;
    // The next line of standard output without its end; nothing when none comes in time or at all.
    std::optional<std::string> read_line();
    // Waits for the end, reading what is left of both outputs.
    program_result finish();

private:
    using clock = std::chrono::steady_clock;

    // Reads what either output has to give; false at the end of both or at the deadline.
    bool read_some(clock::time_point deadline);
    void wait_for_end(clock::time_point deadline);

    pid_t m_pid = -1;
    int m_out = -1;
    int m_err = -1;
    program_result m_result;
};

// The path of a program that was built, such as "exec_show_stats_kav".
std::string built_program(const std::string& name);

// Runs the viewer to its end.
program_result run_viewer(const std::vector<std::string>& arguments, const run_surroundings& surroundings = {});
