#include "RE_stop_signal.h"

#include <algorithm>
#include <csignal>
#include <ctime>

namespace {

constexpr double longest_duration = 1e9; // 30 years, within the range of the clock

sigset_t awaited_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGUSR1);
    return signals;
}

} // namespace

RE_stop_signal::RE_stop_signal(double duration) : m_b_limited(duration > 0), m_end(std::chrono::steady_clock::now())
{
    if (m_b_limited) {
        const std::chrono::duration<double> limited(std::min(duration, longest_duration));
        m_end += std::chrono::duration_cast<std::chrono::steady_clock::duration>(limited);
    }
    const sigset_t signals = awaited_signals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

bool RE_stop_signal::wait(std::chrono::nanoseconds time)
{
    const auto start = std::chrono::steady_clock::now();
    auto end = start + time;
    if (m_b_limited) {
        end = std::min(end, m_end);
    }
    const sigset_t signals = awaited_signals();
    for (auto now = start; !m_b_set; now = std::chrono::steady_clock::now()) {
        const auto left = std::max(std::chrono::nanoseconds(0), std::chrono::nanoseconds(end - now));
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        const timespec timeout{seconds.count(), (left - seconds).count()};
        const int signal = sigtimedwait(&signals, nullptr, &timeout);
        m_b_toggled = m_b_toggled != (signal == SIGUSR1);
        m_b_set = signal > 0 && signal != SIGUSR1;
        if (left.count() == 0) {
            break;
        }
    }
    m_b_set = m_b_set || (m_b_limited && std::chrono::steady_clock::now() >= m_end);
    return m_b_set;
}
