// The signals that ask the engine to stop, or to change its health. The engine checks for them, so that it stops
// between two messages and cleans up.
#pragma once

#include <chrono>

class RE_stop_signal
{
public:
    // From now on SIGTERM, SIGINT and SIGUSR1 are blocked until they are checked for, and writing to a closed pipe is
    // an ordinary error. duration: when to stop without a signal, in seconds from now; 0 for never.
    explicit RE_stop_signal(double duration);

    // Whether the engine must stop. Does not wait.
    bool is_set() { return wait(std::chrono::nanoseconds(0)); }
    // Waits for this time, or until the engine must stop. Returns true if it must stop.
    bool wait(std::chrono::nanoseconds time);
    // Whether the number of SIGUSR1 that were checked for is odd.
    bool is_toggled() const { return m_b_toggled; }

private:
    bool m_b_set = false;
    bool m_b_toggled = false;
    bool m_b_limited;
    std::chrono::steady_clock::time_point m_end;
};
