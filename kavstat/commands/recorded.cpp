#include "commands/recorded.h"

#include "format/text.h"
#include "history/recorded_image.h"

namespace kavstat {

std::string RecordedHistory::open(const std::string& path)
{
    const std::string reason = open_history(m_database, path);
    return reason.empty() ? "" : path + ": " + reason;
}

std::optional<HistorySample> RecordedHistory::find(std::optional<std::time_t> moment)
{
    std::optional<HistorySample> found = moment ? m_reader.at(*moment) : m_reader.last();
    if (!found) {
        m_error = m_database.path() + ": " + m_reader.error();
        if (m_reader.error().empty()) {
            const std::optional<HistorySample> first = m_reader.first();
            m_error = m_database.path() +
                      (first ? ": the first sample is of " + date_and_time(first->time) : ": there are no samples");
        }
    }
    return found;
}

std::optional<HistorySample> RecordedHistory::before(const HistorySample& sample)
{
    const std::optional<HistorySample> found = m_reader.before(sample);
    return found && found->engine_start == sample.engine_start ? found : std::nullopt;
}

std::unique_ptr<Source> RecordedHistory::source(const HistorySample& sample)
{
    const std::optional<RecordedMoment> moment = m_reader.restore(sample);
    if (!moment) {
        m_error = m_database.path() + ": " + m_reader.error();
        return nullptr;
    }
    auto source = std::make_unique<Source>(std::make_unique<RecordedReader>(*moment), m_database.path());
    source->open();
    return source;
}

double seconds_between(const HistorySample& before, const HistorySample& after, bool b_neighbours)
{
    return b_neighbours && after.elapsed ? *after.elapsed : static_cast<double>(after.time - before.time);
}

} // namespace kavstat
