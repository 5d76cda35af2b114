// The latest values of a figure of the live view, with marks where the engine was restarted.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <string>
#include <vector>

namespace kavstat {

class History
{
public:
    // Wider than any screen, and ten minutes at one value per second.
    static constexpr std::size_t most_values = 600;

    explicit History(std::size_t capacity = most_values) : m_capacity(capacity) {}

    void add(double value) { put(std::isfinite(value) ? static_cast<float>(value) : 0); }
    void mark_restart()
    {
        if (!m_values.empty()) {
            put(restart);
        }
    }
    static bool is_restart(float value) { return std::isnan(value); }

    std::size_t size() const { return m_values.size(); }
    // Returns the latest values, at most `count`, oldest first.
    std::vector<float> last(std::size_t count = most_values) const
    {
        count = std::min(count, m_values.size());
        std::vector<float> values;
        values.reserve(count);
        for (std::size_t at = m_values.size() - count; at < m_values.size(); ++at) {
            values.push_back(m_values[(m_oldest + at) % m_values.size()]);
        }
        return values;
    }

private:
    static constexpr float restart = std::numeric_limits<float>::quiet_NaN();

    void put(float value)
    {
        if (m_values.size() < m_capacity) {
            m_values.push_back(value);
            return;
        }
        m_values[m_oldest] = value;
        m_oldest = (m_oldest + 1) % m_capacity;
    }

    std::size_t m_capacity;
    std::size_t m_oldest = 0;
    std::vector<float> m_values; // a ring once it is full
};

// Returns the history of a figure that is computed from two others, value by value. Restarts remain marked.
template <typename Make>
std::vector<float> combined(const std::vector<float>& left, const std::vector<float>& right, const Make& make)
{
    std::vector<float> values(std::min(left.size(), right.size()));
    for (std::size_t at = 0; at < values.size(); ++at) {
        const bool b_restart = History::is_restart(left[at]);
        values[at] = b_restart ? left[at] : static_cast<float>(make(left[at], right[at]));
    }
    return values;
}

// Draws the last `width` values, one column per value. The scale ends at `highest`, or at the highest value if that is
// 0. A bar marks a restart of the engine. b_unicode: blocks of eight heights instead of ASCII.
std::string spark_line(const std::vector<float>& values, std::size_t width, bool b_unicode, double highest = 0);

} // namespace kavstat
