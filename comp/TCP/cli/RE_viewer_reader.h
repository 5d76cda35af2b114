// The one reader of a run, and short functions for the counters that every view reads.
#pragma once

#include "RE_statistics.h"

#include <limits>

// Null until the front end creates the reader. Views are called only after it has been opened, and do not check it.
extern RE_stat_reader* p_statReader;

// A global counter (id: an RE_stat_global_id), read again at every call; 0 when the reader does not have it.
inline long long GLOB(int id)
{
    long long value = 0;
    p_statReader->read_global_stat(id, value);
    return value;
}

// A counter of the peer in `peer_slot` (id: an RE_stat_peer_id), read again at every call; 0 when the reader does not
// have it.
inline long long PEER(int peer_slot, int id)
{
    long long value = 0;
    p_statReader->read_peer_stat(peer_slot, id, value);
    return value;
}

// The low 32 bits of a counter as a signed number, for the narrower fields and conversions of reports.
inline int low32(long long value)
{
    return static_cast<int>(static_cast<unsigned int>(static_cast<unsigned long long>(value)));
}

// Counters come from outside, so their sums, differences and products wrap, like the engine's own 64-bit arithmetic,
// instead of being undefined.
inline long long wrapping_sum(long long a, long long b)
{
    return static_cast<long long>(static_cast<unsigned long long>(a) + static_cast<unsigned long long>(b));
}

inline long long wrapping_difference(long long a, long long b)
{
    return static_cast<long long>(static_cast<unsigned long long>(a) - static_cast<unsigned long long>(b));
}

// numerator / divisor, truncated toward 0. The one quotient that does not fit (the smallest number by -1) wraps.
// divisor: not 0.
inline long long wrapping_quotient(long long numerator, long long divisor)
{
    return divisor == -1 ? wrapping_difference(0, numerator) : numerator / divisor;
}

// A histogram's bucket as a whole percentage of the histogram's total, truncated. total: not 0.
inline int percent_of_total(long long value, long long total)
{
    const auto hundredfold = static_cast<long long>(static_cast<unsigned long long>(value) * 100U);
    return low32(wrapping_quotient(hundredfold, total));
}

// `part` as a percentage of `whole`, in single precision on purpose. A whole of 0 gives an infinite result.
template <typename Count>
float percentage(Count part, Count whole)
{
    static_assert(std::numeric_limits<float>::is_iec559);
    return static_cast<float>(part) * 100.0F / static_cast<float>(whole);
}
