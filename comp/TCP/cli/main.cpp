#include "RE_exec_show_stats_kav.h"
#include "RE_terminal_filter.h"
#include "RE_zone_name.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>

namespace {

// Large enough that most reports need one write. Aligned to pages, because every page that is touched costs a fault.
alignas(4096) char output_buffer[65536];

// If standard output is closed, the next file to be opened would get its number and receive the report. So this
// function first opens a file that cannot be written to in its place: printing fails, and the exit status shows it.
// Returns whether standard output is a terminal, because the same system call answers both questions.
bool keep_standard_output_apart()
{
    if (isatty(STDOUT_FILENO) == 1) {
        return true;
    }
    for (int descriptor = errno == EBADF ? 0 : STDOUT_FILENO; descriptor >= 0 && descriptor < STDOUT_FILENO;) {
        descriptor = open("/dev/null", O_RDONLY);
    }
    return false;
}

// A closed pipe and a file size limit lead to an exit status, as a full disk does, and not to a signal.
void hold_back_output_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    sigaddset(&signals, SIGXFSZ);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
}

// Writes all bytes. Repeats an interrupted write, and waits for an output that another program has made non-blocking,
// such as a shared terminal. The C library would lose what such an output cannot take at once.
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

// Names come from peers. Characters that would move the cursor or set a title are shown as question marks.
ssize_t write_to_terminal(void* filter, const char* bytes, std::size_t size)
{
    char piece[4096];
    for (std::size_t at = 0; at < size;) {
        const std::size_t length = std::min(size - at, sizeof piece);
        static_cast<RE_terminal_filter*>(filter)->copy(bytes + at, length, piece);
        if (write_patiently(nullptr, piece, length) == 0) {
            return 0;
        }
        at += length;
    }
    return static_cast<ssize_t>(size);
}

void print_patiently(bool b_terminal)
{
    static RE_terminal_filter filter;
    cookie_io_functions_t functions{};
    functions.write = b_terminal ? write_to_terminal : write_patiently;
    if (FILE* const patient = fopencookie(&filter, "w", functions)) {
        stdout = patient;
    }
    std::setvbuf(stdout, output_buffer, _IOFBF, sizeof output_buffer);
}

// Runs when the shared memory is truncated while it is read, which no engine does: there is no engine left to report
// on. While statistics are being saved, the engine library handles the signal itself, removes the incomplete file and
// returns an error.
void refuse_and_exit(int)
{
    constexpr char refusal[] = "KAV Statistics failed OR KAV was not initialized by WEQ";
    const ssize_t ignored = write(STDOUT_FILENO, refusal, sizeof refusal - 1);
    static_cast<void>(ignored);
    _exit(1);
}

void refuse_statistics_that_vanish()
{
    struct sigaction action = {};
    action.sa_handler = refuse_and_exit;
    sigaction(SIGBUS, &action, nullptr);
}

// std::bad_alloc is the only exception, and the viewer does not catch it. This is not a new handler, because `new
// (std::nothrow)` calls a new handler too, and its callers report a failure themselves.
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
    print_patiently(keep_standard_output_apart());
    hold_back_output_signals();
    refuse_statistics_that_vanish();
    std::set_terminate(give_up_without_memory);
    RE_keep_from_odd_zone_files();
    return exec_show_stats_kav(argc, argv);
}
