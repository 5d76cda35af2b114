#include "commands/stop_signals.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <thread>

namespace kavstat {

namespace {

volatile std::sig_atomic_t b_stopped = 0;

} // namespace

// System calls are not restarted, so that a wait ends.
void end_at_signals()
{
    struct sigaction action
    {
    };
    action.sa_handler = [](int) { b_stopped = 1; };
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(signal, &action, nullptr);
    }
}

bool is_stopped()
{
    return b_stopped != 0;
}

void sleep_unless_stopped(double seconds)
{
    using clock = std::chrono::steady_clock;
    using duration = std::chrono::duration<double>;
    const auto end = clock::now() + duration(seconds);
    while (!is_stopped() && clock::now() < end) {
        std::this_thread::sleep_for(std::min<duration>(end - clock::now(), duration(0.05)));
    }
}

} // namespace kavstat
