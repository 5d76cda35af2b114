#include "support/child_program.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace {

constexpr int cannot_start = 127;

std::vector<std::string> environment_with(const std::vector<std::pair<std::string, std::string>>& changes)
{
    std::vector<std::string> result;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        const std::string name = text.substr(0, text.find('='));
        const bool b_changed =
            std::any_of(changes.begin(), changes.end(), [&](const auto& change) { return change.first == name; });
        if (!b_changed) {
            result.push_back(text);
        }
    }
    for (const auto& [name, value] : changes) {
        result.push_back(name + "=" + value);
    }
    return result;
}

std::vector<char*> pointers_to(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Removes the messages of a program that was built to count its coverage and cannot write the counts.
void drop_coverage_notes(std::string& err)
{
    for (std::size_t end = 0; err.starts_with("profiling:") && (end = err.find('\n')) != std::string::npos;) {
        err.erase(0, end + 1);
    }
}

struct pipe_ends
{
    int reading = -1;
    int writing = -1;
};

pipe_ends make_pipe()
{
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe to be had");
    }
    return {ends[0], ends[1]};
}

void close_if_open(int& descriptor)
{
    if (descriptor >= 0) {
        close(descriptor);
        descriptor = -1;
    }
}

// Runs in the child process, where allocating memory is not allowed. Returns only after an error.
void become_program(int program, char* const* arguments, char* const* environment, int out, int err,
                    const run_surroundings& surroundings)
{
    const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (input < 0 || dup2(input, STDIN_FILENO) < 0 || dup2(err, STDERR_FILENO) < 0) {
        return;
    }
    if (out >= 0 ? dup2(out, STDOUT_FILENO) < 0 : close(STDOUT_FILENO) != 0) {
        return;
    }
    for (const int signal : {SIGPIPE, SIGTERM, SIGINT, SIGXFSZ}) {
        std::signal(signal, SIG_DFL);
    }
    if (surroundings.user) {
        const auto [user, group] = *surroundings.user;
        if (setgroups(0, nullptr) != 0 || setgid(group) != 0 || setuid(user) != 0) {
            return;
        }
    }
    // Closes the descriptors that the test inherited, because some tests count descriptors.
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (const auto& [resource, value] : surroundings.limits) {
        const rlimit limit{value, value};
        if (setrlimit(static_cast<__rlimit_resource>(resource), &limit) != 0) {
            return;
        }
    }
    // Runs the program through its descriptor, because another user may not be allowed to enter the build folder.
    fexecve(program, arguments, environment);
}

} // namespace

child_program::child_program(const std::string& path, const std::vector<std::string>& arguments,
                             const run_surroundings& surroundings)
{
    std::vector<std::string> words{path};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<std::string> variables = environment_with(surroundings.environment);
    if (surroundings.user || !surroundings.limits.empty()) {
        // A program that counts its coverage and runs under limits or as another user would only spoil the counts.
        variables.emplace_back("GCOV_PREFIX=/dev/null");
    }
    const std::vector<char*> argument_pointers = pointers_to(words);
    const std::vector<char*> variable_pointers = pointers_to(variables);

    const int program = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (program < 0) {
        throw std::runtime_error(path + ": " + std::strerror(errno));
    }
    pipe_ends out;
    if (!surroundings.output) {
        out = make_pipe();
    }
    pipe_ends err = make_pipe();
    m_pid = fork();
    if (m_pid == 0) {
        become_program(program, argument_pointers.data(), variable_pointers.data(),
                       surroundings.output.value_or(out.writing), err.writing, surroundings);
        _exit(cannot_start);
    }
    close(program);
    close_if_open(out.writing);
    close_if_open(err.writing);
    m_out = out.reading;
    m_err = err.reading;
    if (m_pid < 0) {
        throw std::runtime_error("no process to be had");
    }
}

child_program::~child_program()
{
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    close_if_open(m_out);
    close_if_open(m_err);
}

void child_program::send_signal(int signal) const
{
    kill(m_pid, signal);
}

bool child_program::read_some(clock::time_point deadline)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock::now()).count();
    if ((m_out < 0 && m_err < 0) || left <= 0) {
        return false;
    }
    pollfd ends[] = {{m_out, POLLIN, 0}, {m_err, POLLIN, 0}};
    if (poll(ends, std::size(ends), static_cast<int>(left)) <= 0) {
        return true;
    }
    const auto read_from = [](const pollfd& end, int& descriptor, std::string& text) {
        if (descriptor < 0 || end.revents == 0) {
            return;
        }
        char bytes[65536];
        const ssize_t count = read(descriptor, bytes, sizeof bytes);
        if (count > 0) {
            text.append(bytes, static_cast<std::size_t>(count));
        } else {
            close_if_open(descriptor);
        }
    };
    read_from(ends[0], m_out, m_result.out);
    read_from(ends[1], m_err, m_result.err);
    return true;
}

std::optional<std::string> child_program::read_line()
{
    const auto deadline = clock::now() + run_timeout;
    std::size_t end = m_result.out.find('\n');
    while (end == std::string::npos && read_some(deadline)) {
        end = m_result.out.find('\n');
    }
    if (end == std::string::npos) {
        return std::nullopt;
    }
    const std::string line = m_result.out.substr(0, end);
    m_result.out.erase(0, end + 1);
    return line;
}

void child_program::wait_for_end(clock::time_point deadline)
{
    int state = 0;
    while (waitpid(m_pid, &state, WNOHANG) == 0) {
        if (clock::now() >= deadline) {
            m_result.b_timed_out = true;
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &state, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    m_pid = -1;
    if (WIFEXITED(state)) {
        m_result.status = WEXITSTATUS(state);
    } else {
        m_result.signal = WTERMSIG(state);
    }
}

program_result child_program::finish()
{
    const auto deadline = clock::now() + run_timeout;
    while (read_some(deadline)) {
    }
    wait_for_end(deadline);
    drop_coverage_notes(m_result.err);
    return std::move(m_result);
}

std::string built_program(const std::string& name)
{
    return std::string(KAV_BIN_DIR) + "/" + name;
}

program_result run_viewer(const std::vector<std::string>& arguments, const run_surroundings& surroundings)
{
    return child_program(built_program("exec_show_stats_kav"), arguments, surroundings).finish();
}
