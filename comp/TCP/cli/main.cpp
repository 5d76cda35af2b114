#include "RE_exec_show_stats_kav.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

namespace {

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

// A closed pipe and a file size limit are told by the exit status, like a full disk, and not by a signal's death.
void hold_back_output_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    sigaddset(&signals, SIGXFSZ);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
}

} // namespace

int main(int argc, char** argv)
{
    keep_standard_output_apart();
    std::setvbuf(stdout, output_buffer, _IOFBF, sizeof output_buffer);
    hold_back_output_signals();
    return exec_show_stats_kav(argc, argv);
}
