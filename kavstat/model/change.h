// How a counter moved between two moments.
#pragma once

#include "RE_stat_counters.h"

#include <cstdint>

namespace kavstat {

enum class ChangeKind
{
    none,      // the same value
    moved,     // by `by`
    restarted, // the engine was started in between: `by` is what a running total has counted since then
    went_back, // a running total is lower than before, so it was reset: its growth is not known
};

struct Change
{
    ChangeKind kind = ChangeKind::none;
    long long by = 0; // 0 when not known
};

// b_restarted: the engine was started between the two moments. Values may be any; differences wrap as counters do.
Change change_of(RE_stat_kind kind, long long before, long long after, bool b_restarted);

// The same for counters of 32 bits, which wrap at 2^32: a step back of more than half of that is a reset, a shorter one
// a wrap.
Change change_of_32(RE_stat_kind kind, std::uint32_t before, std::uint32_t after, bool b_restarted);

// The growth of a running total per second, for live views; 0 if it is not known. seconds: above 0.
double rate_of(const Change& change, double seconds);

// Returns the savings in percent of the larger side: of the input when encoding, of the output when decoding. It is 0
// while either side is 0. exec_show_stats_kav computes its ratio in the same way.
double saved_percent(double before, double after);

} // namespace kavstat
