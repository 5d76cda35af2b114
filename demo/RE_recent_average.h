// The average of the latest values. It follows changes and does not need timestamps.
#pragma once

#include <algorithm>

// The mean of the first `count` values; from then on each new value has a weight of 1 / `count`.
template <int count>
class RE_recent_average
{
public:
    void add(double value)
    {
        m_seen = std::min(m_seen + 1, count);
        m_average += (value - m_average) / m_seen;
    }
    double value() const { return m_average; }

private:
    double m_average = 0;
    int m_seen = 0;
};
