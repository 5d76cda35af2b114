#include "RE_exec_show_stats_kav.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <new>

namespace {

constexpr int exit_failure = 1;

// Large enough that most reports leave in one write.
char output_buffer[65536];

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

[[noreturn]] void out_of_memory()
{
    static constexpr char message[] = "exec_show_stats_kav: out of memory\n";
    std::fflush(stdout);
    const ssize_t ignored = write(STDOUT_FILENO, message, sizeof message - 1);
    static_cast<void>(ignored);
    _exit(exit_failure);
}

} // namespace

int main(int argc, char** argv)
{
    keep_standard_output_apart();
    std::setvbuf(stdout, output_buffer, _IOFBF, sizeof output_buffer);
    std::set_new_handler(out_of_memory);
    // A closed pipe and a full disk are told by the exit status, not by a signal's death.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    return exec_show_stats_kav(argc, argv);
}
