// Runs the real programs as a shell does, with the given arguments, environment, limits and user. Captures all their
// output and limits their run time.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// Long enough for an instrumented program on a busy machine. A program that still runs after this time hangs.
constexpr std::chrono::seconds run_timeout{120};

struct run_surroundings
{
    // Variables that differ from the test's own environment.
    std::vector<std::pair<std::string, std::string>> environment = {};
    // Resource limits, such as {RLIMIT_NOFILE, 4}.
    std::vector<std::pair<int, rlim_t>> limits = {};
    // Receives standard output, which is then not captured. Not owned. With a negative number, standard output is
    // closed.
    std::optional<int> output = {};
    // User and group to run as, without supplementary groups. Needs root.
    std::optional<std::pair<uid_t, gid_t>> user = {};
};

struct program_result
{
    std::string out;
    std::string err;
    int status = -1;          // exit status, or negative after death by a signal
    int signal = 0;           // the signal that ended the program
    bool b_timed_out = false; // it had to be killed
};

// A program that runs while the test runs. It is killed with this object or with the test's process.
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
    // Returns the next line of standard output without its newline. Returns nothing when no line comes in time.
    std::optional<std::string> read_line();
    // Waits for the end and reads the rest of both outputs.
    program_result finish();

private:
    using clock = std::chrono::steady_clock;

    // Reads the available bytes of both outputs. Returns false at the end of both or at the deadline.
    bool read_some(clock::time_point deadline);
    void wait_for_end(clock::time_point deadline);

    pid_t m_pid = -1;
    int m_out = -1;
    int m_err = -1;
    program_result m_result;
};

// Returns the path of a built program, such as "exec_show_stats_kav".
std::string built_program(const std::string& name);

// Runs the viewer to its end.
program_result run_viewer(const std::vector<std::string>& arguments, const run_surroundings& surroundings = {});
