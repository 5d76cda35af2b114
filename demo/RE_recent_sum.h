// Sums over the recent past, such as "in the last hour", in a fixed number of steps. They are exact to one step.
#pragma once

#include <array>
#include <cstddef>
#include <ctime>

// Stores `steps` steps of `step_seconds` each, including the current one.
template <std::size_t steps, std::time_t step_seconds>
class RE_recent_sum
{
public:
    void add(std::time_t now, long long amount)
    {
        const std::time_t step = now / step_seconds;
        step_sum& sum = m_sums[static_cast<std::size_t>(step) % steps];
        if (sum.step != step) {
            sum = {step, 0};
        }
        sum.amount += amount;
    }

    long long sum(std::time_t now) const
    {
        const std::time_t oldest = now / step_seconds - static_cast<std::time_t>(steps) + 1;
        long long total = 0;
        for (const step_sum& sum : m_sums) {
            total += sum.step >= oldest ? sum.amount : 0;
        }
        return total;
    }

private:
    struct step_sum
    {
        std::time_t step = 0;
        long long amount = 0;
    };
    std::array<step_sum, steps> m_sums{};
};

using RE_last_hour = RE_recent_sum<60, 60>;
