// The signals that ask the engine to stop. They are taken when the engine looks for them, so that it stops between two
// messages and cleans up after itself.
#pragma once

#include <chrono>

class RE_stop_signal
{
public:
    // From here on SIGTERM and SIGINT wait to be looked for, and writing to a closed pipe is an error like any other.
    // duration: when to stop without a signal, in seconds from now; 0 for never.
    explicit RE_stop_signal(double duration);

    // Whether the engine is to stop; looks without waiting.
    bool is_set() { return wait(std::chrono::nanoseconds(0)); }
    // Waits for as long, or until the engine is to stop; true in that case.
    bool wait(std::chrono::nanoseconds time);

private:
    bool m_b_set = false;
    bool m_b_limited;
    std::chrono::steady_clock::time_point m_end;
};
