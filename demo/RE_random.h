// A small random generator whose sequence is the same on every machine and with every library.
#pragma once

#include <cstdint>

// Returns the next number of the sequence and advances `state`. Every start value gives a good sequence.
constexpr std::uint64_t next_random(std::uint64_t& state)
{
    state += 0x9e3779b97f4a7c15U;
    std::uint64_t mixed = state;
    mixed = (mixed ^ (mixed >> 30U)) * 0xbf58476d1ce4e5b9U;
    mixed = (mixed ^ (mixed >> 27U)) * 0x94d049bb133111ebU;
    return mixed ^ (mixed >> 31U);
}

class RE_random
{
public:
    explicit RE_random(std::uint64_t seed) : m_state(seed) {}

    // From 0 to bound - 1; bound is at least 1.
    std::uint64_t below(std::uint64_t bound) { return next_random(m_state) % bound; }

private:
    std::uint64_t m_state;
};
