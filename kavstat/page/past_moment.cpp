#include "page/past_moment.h"

namespace kavstat {

namespace {

std::optional<Snapshot> snapshot_before(RecordedRows& recorded, const HistorySample& sample)
{
    const auto before = recorded.reader().before(sample);
    if (!before || before->engine_start != sample.engine_start || before->time > sample.time) {
        return std::nullopt;
    }
    const auto moment = recorded.reader().restore(*before);
    if (!moment) {
        return std::nullopt;
    }
    RecordedReader reader(*moment);
    reader.open();
    return take_snapshot(reader, before->time);
}

} // namespace

HealthReport health_of_moments(const RuleSet& rules, const TwoMoments& two, RE_image_reader& reader,
                               const std::string& source)
{
    PendingConnections pending;
    pending.update(reader, *two.now, 0);
    HealthMoments moments;
    moments.before = two.before;
    moments.now = two.now;
    moments.seconds = two.seconds;
    moments.extras = read_extras(reader, &pending);
    return health_report(rules, moments, source);
}

std::optional<PastMoment> read_past_moment(RecordedRows& recorded, const HistorySample& sample, const RuleSet& rules,
                                           const std::string& source, std::string& reason)
{
    const auto moment = recorded.reader().restore(sample);
    if (!moment) {
        reason = recorded.reader().error();
        return std::nullopt;
    }
    PastMoment past;
    past.sample = sample;
    past.reader = std::make_unique<RecordedReader>(*moment);
    past.reader->open();
    past.now = take_snapshot(*past.reader, sample.time);
    past.before = snapshot_before(recorded, sample);
    if (past.before) {
        const auto by_clock = static_cast<double>(past.now.capture_time - past.before->capture_time);
        past.seconds = sample.elapsed.value_or(by_clock);
        if (past.seconds <= 0) {
            past.before.reset();
            past.seconds = 0;
        }
    }
    past.health = health_of_moments(rules, past.moments(), *past.reader, source);
    return past;
}

const PastMoment* PastMoments::find(const std::string& history, std::time_t time, const RuleSet& rules,
                                    std::string& reason)
{
    m_used = clock::now();
    RecordedRows recorded;
    recorded.set_patience(server_patience);
    reason = recorded.open(history);
    if (!reason.empty()) {
        return nullptr;
    }
    const std::optional<HistorySample> sample = recorded.reader().at(time);
    if (!sample) {
        reason = recorded.reader().error();
        return nullptr;
    }
    const bool b_kept = m_moment && m_moment->sample.id == sample->id && m_moment->sample.time == sample->time &&
                        m_moment->sample.engine_start == sample->engine_start;
    if (!b_kept) {
        m_moment.reset();
        m_moment = read_past_moment(recorded, *sample, rules, history, reason);
        if (m_moment) {
            m_moment->reader.reset(); // tables need the snapshots only
        }
    }
    return m_moment ? &*m_moment : nullptr;
}

void PastMoments::forget_unless_used(clock::time_point at)
{
    constexpr std::chrono::seconds kept(60);
    if (m_moment && at - m_used > kept) {
        m_moment.reset();
    }
}

} // namespace kavstat
