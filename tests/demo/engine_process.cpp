#include "engine_process.h"

#include "support/own_segment.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace {

std::string next_segment_name()
{
    static int number = 0;
    return "kav_demo_test_" + std::to_string(getpid()) + "_" + std::to_string(++number);
}

} // namespace

engine_process::engine_process(std::vector<std::string> arguments) : m_segment(next_segment_name())
{
    setenv("KAV_STAT_SEGMENT", m_segment.c_str(), 1);
    int output[2];
    int errors[2];
    if (pipe(output) != 0 || pipe(errors) != 0) {
        throw std::runtime_error("no pipe");
    }
    arguments.insert(arguments.begin(), KAV_DEMO_ENGINE);
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    m_process = fork();
    if (m_process == 0) {
        dup2(output[1], STDOUT_FILENO);
        dup2(errors[1], STDERR_FILENO);
        for (const int descriptor : {output[0], output[1], errors[0], errors[1]}) {
            close(descriptor);
        }
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(output[1]);
    close(errors[1]);
    m_output = output[0];
    m_errors = errors[0];
}

engine_process::~engine_process()
{
    if (m_process > 0) {
        send(SIGKILL);
        wait();
        std::filesystem::remove(segment_path()); // which a killed engine leaves behind
    }
    close(m_output);
    close(m_errors);
}

bool engine_process::wait_for(const std::string& line)
{
    while (("\n" + m_said).find("\n" + line + "\n") == std::string::npos) {
        char text[256];
        const ssize_t count = read(m_output, text, sizeof text);
        if (count <= 0) {
            return false;
        }
        m_said.append(text, static_cast<std::size_t>(count));
    }
    return true;
}

void engine_process::send(int signal) const
{
    kill(m_process, signal);
}

int engine_process::wait()
{
    int status = 0;
    waitpid(m_process, &status, 0);
    m_process = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

bool engine_process::has_segment() const
{
    return std::filesystem::exists(segment_path());
}

std::string engine_process::segment_path() const
{
    return own_segment_path(m_segment);
}

std::string engine_process::errors()
{
    std::string text;
    char part[256];
    for (ssize_t count = 1; count > 0;) {
        count = read(m_errors, part, sizeof part);
        text.append(part, static_cast<std::size_t>(count > 0 ? count : 0));
    }
    return text;
}
