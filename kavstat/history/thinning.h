// Which samples of a history are kept for how long.
#pragma once

#include "history/moment.h"

#include <optional>
#include <string_view>
#include <vector>

namespace kavstat {

// Of samples up to this age, one in each step of time is kept; all of them when the step is 0.
struct KeepRule
{
    long long age; // seconds
    long long step;
};

// In ascending order of ages. Without rules, everything is kept.
struct Keep
{
    std::vector<KeepRule> rules;
};

constexpr const char* default_keep = "1d:all,30d:1m,2y:1h";

// "1d:all,30d:1m,2y:1h", or "all".
std::optional<Keep> parse_keep(std::string_view text);

// One sample's rows go into a later one where that has none of the same things; then the sample goes.
struct ThinningStep
{
    long long sample;
    long long into;     // 0 when nothing of the same engine start is later
    bool b_old = false; // because of its age, and not to keep one in each step
};

// What to do, in an order in which every step leaves a sound history. samples: in the order of recording. The step of
// a group that is not over yet is left for later, as are all above `most`.
std::vector<ThinningStep> plan_thinning(const std::vector<HistorySample>& samples, const Keep& keep, std::time_t now,
                                        std::size_t most);

} // namespace kavstat
