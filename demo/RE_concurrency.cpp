#include "RE_concurrency.h"

#include <algorithm>

void RE_concurrency::change(std::time_t now, int delta)
{
    advance(now);
    m_open += delta;
    int& most_open = m_most_open[static_cast<std::size_t>(m_last % window)];
    most_open = std::max(most_open, m_open);
}

int RE_concurrency::max(std::time_t now)
{
    advance(now);
    return *std::max_element(m_most_open.begin(), m_most_open.end());
}

int RE_concurrency::average(std::time_t now)
{
    advance(now);
    const std::time_t seconds = std::min(m_last - m_first + 1, window);
    long long sum = 0;
    for (const int most_open : m_most_open) {
        sum += most_open;
    }
    return static_cast<int>(sum / seconds);
}

// Fills the seconds since the last change. They had as many open connections as that change left.
void RE_concurrency::advance(std::time_t now)
{
    if (m_first == 0) {
        m_first = now;
        m_last = now;
    }
    if (now - m_last > window) {
        m_last = now - window;
    }
    while (m_last < now) {
        ++m_last;
        m_most_open[static_cast<std::size_t>(m_last % window)] = m_open;
    }
}
