// The two clocks of the engine: one for durations, one for dates.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <thread>

constexpr std::int64_t ns_per_us = 1000;
constexpr std::int64_t ns_per_ms = 1'000'000;
constexpr std::int64_t ns_per_second = 1'000'000'000;

// Nanoseconds of a clock that never goes backwards.
inline std::int64_t monotonic_ns()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

// Takes this much time; returns at once for 0.
inline void take_longer(std::int64_t nanoseconds)
{
    if (nanoseconds > 0) {
        std::this_thread::sleep_for(std::chrono::nanoseconds(nanoseconds));
    }
}

// Seconds since the epoch.
inline std::time_t wall_seconds()
{
    return std::time(nullptr);
}
