// The two clocks of the engine: one to measure with, one to put dates on things.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>

constexpr std::int64_t ns_per_us = 1000;

// Nanoseconds of a clock that never goes back.
inline std::int64_t monotonic_ns()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

// Seconds since the epoch.
inline std::time_t wall_seconds()
{
    return std::time(nullptr);
}
