// Decides which samples of a history are removed, and when.
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

// The rows of a sample move into a later one that does not have rows of the same entries. Then the sample is removed.
struct ThinningStep
{
    long long sample;
    long long into;     // 0 when the engine start has no later sample
    bool b_old = false; // because of its age, and not to keep one in each step
};

// Returns what to do, in an order in which the history is valid after every step. samples: in the order of recording. A
// group of samples that is still growing is left for later, as are all steps above `most`.
std::vector<ThinningStep> plan_thinning(const std::vector<HistorySample>& samples, const Keep& keep, std::time_t now,
                                        std::size_t most);

} // namespace kavstat
