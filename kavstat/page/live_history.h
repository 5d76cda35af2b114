// The last minutes of the running engine, kept in memory by the server: the counters of charts for the engine, its
// peers and the applications with most data, and what is wrong now. All of it has a bound.
#pragma once

#include "charts/chart_rows.h"
#include "health/report.h"
#include "model/snapshot.h"
#include "model/source.h"
#include "page/packed_rows.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

namespace kavstat {

struct LiveHistoryLimits
{
    std::chrono::milliseconds interval{5000}; // between two samples
    std::chrono::seconds span{900};
    std::size_t applications = 500; // those with most data since the engine's start
    // For two snapshots and all rows. The largest engine's snapshots need 30 MB. When rows need more, the oldest go
    // earlier.
    std::size_t bytes = std::size_t{40} << 20U;
};

// Two moments of the engine; null where there is none.
struct TwoMoments
{
    const Snapshot* before = nullptr;
    const Snapshot* now = nullptr;
    double seconds = 0; // between them
};

class LiveHistory
{
public:
    using clock = std::chrono::steady_clock;

    explicit LiveHistory(RuleSet rules = {}, const LiveHistoryLimits& limits = {})
        : m_limits(limits), m_health(std::move(rules))
    {}

    // Takes a sample when it is time for one. now: of the calendar.
    void sample(clock::time_point at, std::chrono::system_clock::time_point now);
    // Takes a sample at once when the engine has stopped, started or restarted since the last one.
    void follow_engine(clock::time_point at, std::chrono::system_clock::time_point now);
    clock::time_point next_sample() const { return m_next; }
    std::chrono::seconds span() const { return m_limits.span; }

    // Nothing when nothing is kept under that key; the engine's is empty.
    std::optional<ChartRows> rows(ChartScope scope, const std::string& key) const;
    // The last two samples; rates between them are those of the last seconds. Empty while no engine is running.
    TwoMoments moments() const;
    // What the last sample was taken from; null while no engine is running.
    RE_image_reader* reader() { return m_source != nullptr ? &m_source->reader() : nullptr; }
    // Of the last sample.
    const HealthReport& health() const { return m_report; }
    const RuleSet& rules() const { return m_health.rules(); }
    // That snapshots and rows need.
    std::size_t bytes() const;

private:
    struct Sample
    {
        std::int64_t time; // milliseconds since the epoch
        std::time_t engine_start_time;
    };
    // The first column of each row is the number of its sample.
    using Series = std::unordered_map<std::string, PackedRows>;

    void take(std::unique_ptr<Source> source, clock::time_point at, std::chrono::system_clock::time_point now);
    void lose(int error, clock::time_point at);
    void judge(Source& source, clock::time_point at);
    void add_rows();
    void add_applications();
    void drop_oldest_sample();
    void drop_old();
    Series& series_of(ChartScope scope) { return m_series[static_cast<std::size_t>(scope)]; }
    template <typename Entity>
    void add_row(ChartScope scope, const std::string& key, const Entity& entity);

    LiveHistoryLimits m_limits;
    clock::time_point m_next;
    std::deque<Sample> m_samples;
    long long m_first_sample = 0; // the number of the oldest
    std::array<Series, 3> m_series;

    std::unique_ptr<Source> m_source; // of the last sample
    std::shared_ptr<const Snapshot> m_before;
    std::shared_ptr<const Snapshot> m_now;
    clock::time_point m_at;
    double m_seconds = 0;

    HealthWatch m_health;
    HealthReport m_report;
    clock::time_point m_next_judgement;
    std::vector<long long> m_row; // its memory serves again and again
};

// What a peer or an application is kept under: "00:11:22:33:44:55-..." and "00:11:22:33:44:55-.../443".
std::string entity_key(const SnapshotPeer& peer);
std::string entity_key(const SnapshotApp& app);

} // namespace kavstat
