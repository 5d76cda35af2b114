#include "history/thinning.h"

#include "history/times.h"

#include <algorithm>

namespace kavstat {

namespace {

// The rule for a sample of this age; null when it is older than all rules.
const KeepRule* rule_for(const Keep& keep, long long age)
{
    const auto found =
        std::find_if(keep.rules.begin(), keep.rules.end(), [age](const KeepRule& rule) { return age <= rule.age; });
    return found != keep.rules.end() ? &*found : nullptr;
}

// Rounds down for moments before the epoch as well.
long long step_of(long long time, long long step)
{
    return time / step - (time % step < 0 ? 1 : 0);
}

} // namespace

std::optional<Keep> parse_keep(std::string_view text)
{
    Keep keep;
    if (text == "all") {
        return keep;
    }
    for (bool b_more = true; b_more;) {
        const std::size_t end = text.find(',');
        const std::string_view rule = text.substr(0, end);
        const std::size_t colon = rule.find(':');
        if (colon == std::string_view::npos) {
            return std::nullopt;
        }
        const std::string_view step = rule.substr(colon + 1);
        const std::optional<long long> age = parse_duration(rule.substr(0, colon));
        const std::optional<long long> seconds = step == "all" ? 0 : parse_duration(step);
        if (!age || !seconds || (!keep.rules.empty() && *age <= keep.rules.back().age)) {
            return std::nullopt;
        }
        keep.rules.push_back({*age, *seconds});
        b_more = end != std::string_view::npos;
        text.remove_prefix(b_more ? end + 1 : text.size());
    }
    return keep;
}

std::vector<ThinningStep> plan_thinning(const std::vector<HistorySample>& samples, const Keep& keep, std::time_t now,
                                        std::size_t most)
{
    std::vector<ThinningStep> steps;
    if (keep.rules.empty() || samples.size() < 2) {
        return steps;
    }
    // The clock may have been ahead for a while. No sample is younger than those recorded after it.
    std::vector<long long> times(samples.size());
    long long latest = now;
    for (std::size_t at = samples.size(); at-- > 0;) {
        latest = std::min<long long>(latest, samples[at].time);
        times[at] = latest;
    }
    // The last sample always stays.
    std::size_t at = 0;
    for (; at + 1 < samples.size() && rule_for(keep, now - times[at]) == nullptr && steps.size() < most; ++at) {
        const bool b_same_start = samples[at].engine_start == samples[at + 1].engine_start;
        steps.push_back({samples[at].id, b_same_start ? samples[at + 1].id : 0, true});
    }
    while (at + 1 < samples.size() && steps.size() < most) {
        const KeepRule* const rule = rule_for(keep, now - times[at]);
        if (rule == nullptr || rule->step == 0) {
            break; // none of those after it is older
        }
        const long long group = step_of(times[at], rule->step);
        std::size_t end = at + 1;
        while (end < samples.size() && samples[end].engine_start == samples[at].engine_start &&
               step_of(times[end], rule->step) == group) {
            ++end;
        }
        // Thin the group when all of its samples are old enough.
        const KeepRule* const rule_of_last = rule_for(keep, now - ((group + 1) * rule->step - 1));
        for (std::size_t place = end - 1; rule_of_last == rule && place-- > at;) {
            steps.push_back({samples[place].id, samples[end - 1].id, false});
        }
        at = end;
    }
    return steps;
}

} // namespace kavstat
