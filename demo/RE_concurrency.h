// How many connections were open at the same time during the last two minutes.
#pragma once

#include <array>
#include <ctime>

class RE_concurrency
{
public:
    // Changes the number of open connections at `now`, which never goes backwards.
    void change(std::time_t now, int delta);
    int open() const { return m_open; }

    // Over the last two minutes, or since the first connection if that was later.
    int max(std::time_t now);
    int average(std::time_t now);

private:
    static constexpr std::time_t window = 120;

    void advance(std::time_t now);

    std::array<int, static_cast<std::size_t>(window)> m_most_open{}; // in each second
    std::time_t m_first = 0;
    std::time_t m_last = 0; // m_most_open is filled up to this second
    int m_open = 0;
};
