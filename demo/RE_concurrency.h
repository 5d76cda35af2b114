// How many connections were open at a time during the last two minutes.
#pragma once

#include <array>
#include <ctime>

class RE_concurrency
{
public:
    // The number of open connections changes at `now`, which never goes back.
    void change(std::time_t now, int delta);
    int open() const { return m_open; }

    // Over the last two minutes, or what there was of them since the first connection.
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
