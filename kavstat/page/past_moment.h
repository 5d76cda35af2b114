// A recorded moment with what tables and health need of it.
#pragma once

#include "health/report.h"
#include "history/recorded_image.h"
#include "page/live_history.h"
#include "page/recorded_rows.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace kavstat {

struct PastMoment
{
    HistorySample sample;
    std::unique_ptr<RecordedReader> reader; // open
    Snapshot now;
    std::optional<Snapshot> before; // the sample before, of the same start of the engine
    double seconds = 0;             // between the two
    HealthReport health;

    // Rates are those of the last seconds before the moment.
    TwoMoments moments() const { return {before ? &*before : nullptr, &now, seconds}; }
};

// Returns nothing, with a reason, when the sample cannot be read. source: named in the health report.
std::optional<PastMoment> read_past_moment(RecordedRows& recorded, const HistorySample& sample, const RuleSet& rules,
                                           const std::string& source, std::string& reason);
// The health of two moments; two.now: not null.
HealthReport health_of_moments(const RuleSet& rules, const TwoMoments& two, RE_image_reader& reader,
                               const std::string& source);

// Keeps the moment that was read last, because a viewer sorts and searches the tables of one moment.
class PastMoments
{
public:
    using clock = std::chrono::steady_clock;

    // The last sample up to `time` in the history of that path. Returns null with a reason when it cannot be read, and
    // without one when nothing was recorded until then.
    const PastMoment* find(const std::string& history, std::time_t time, const RuleSet& rules, std::string& reason);
    // Forgets the moment when it was not used for a minute.
    void forget_unless_used(clock::time_point at);

private:
    std::optional<PastMoment> m_moment;
    clock::time_point m_used;
};

} // namespace kavstat
