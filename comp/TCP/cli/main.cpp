#include "RE_exec_show_stats_kav.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>

namespace {

// Large enough that most reports leave in one write. On pages of its own, as every page that is touched costs a fault.
alignas(4096) char output_buffer[65536];

// With standard output closed, the next file to be opened would take its number and receive the report. A file that
// cannot be written to takes it instead, so that printing fails and the exit status says so.
void keep_standard_output_apart()
{
    if (fcntl(STDOUT_FILENO, F_GETFD) >= 0) {
        return;
    }
    int descriptor = 0;
    do {
        descriptor = open("/dev/null", O_RDONLY);
    } while (descriptor >= 0 && descriptor < STDOUT_FILENO);
}

// A closed pipe and a file size limit are told by the exit status, like a full disk, and not by a signal's death.
void hold_back_output_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    sigaddset(&signals, SIGXFSZ);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
}

// Writes all of it. An interruption is no failure, nor is an output that somebody else has made non-blocking, as a
// terminal shared with another program often is: the C library would drop what such an output cannot take at once.
ssize_t write_patiently(void*, const char* bytes, std::size_t size)
{
    std::size_t written = 0;
    while (written < size) {
        const ssize_t part = write(STDOUT_FILENO, bytes + written, size - written);
        if (part >= 0) {
            written += static_cast<std::size_t>(part);
        } else if (errno == EAGAIN) {
            pollfd ready{STDOUT_FILENO, POLLOUT, 0};
            poll(&ready, 1, -1);
        } else if (errno != EINTR) {
            return 0;
        }
    }
    return static_cast<ssize_t>(written);
}

void print_patiently()
{
    cookie_io_functions_t functions{};
    functions.write = write_patiently;
    if (FILE* const patient = fopencookie(nullptr, "w", functions)) {
        stdout = patient;
    }
    std::setvbuf(stdout, output_buffer, _IOFBF, sizeof output_buffer);
}

// Shared memory that is cut short while it is read, which no engine does, is no longer an engine to report on.
void refuse_and_exit(int)
{
    constexpr char refusal[] = "KAV Statistics failed OR KAV was not initialized by WEQ";
    const ssize_t ignored = write(STDOUT_FILENO, refusal, sizeof refusal - 1);
    static_cast<void>(ignored);
    _exit(1);
}

void refuse_statistics_that_vanish()
{
    struct sigaction action
    {
    };
    action.sa_handler = refuse_and_exit;
    sigaction(SIGBUS, &action, nullptr);
}

// std::bad_alloc is the only exception, and the viewer does not catch it. This is not a new handler, as `new
// (std::nothrow)` calls that too, and its callers report a failure themselves.
[[noreturn]] void give_up_without_memory()
{
    std::fflush(stdout);
    constexpr char message[] = "exec_show_stats_kav: out of memory\n";
    const ssize_t ignored = write(STDOUT_FILENO, message, sizeof message - 1);
    static_cast<void>(ignored);
    _exit(1);
}

} // namespace

int main(int argc, char** argv)
{
    keep_standard_output_apart();
    print_patiently();
    hold_back_output_signals();
    refuse_statistics_that_vanish();
    std::set_terminate(give_up_without_memory);
    return exec_show_stats_kav(argc, argv);
}
