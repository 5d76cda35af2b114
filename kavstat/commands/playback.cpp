#include "commands/playback.h"

#include "format/text.h"

#include <algorithm>
#include <chrono>

namespace kavstat {

std::string Playback::open(const HistoryOptions& options)
{
    if (std::string reason = m_history.open(*options.file); !reason.empty()) {
        return reason;
    }
    m_samples = m_history.reader().samples(options.span);
    if (!m_history.reader().error().empty()) {
        return *options.file + ": " + m_history.reader().error();
    }
    if (m_samples.empty()) {
        const bool b_other = options.is_span() && m_history.find(std::nullopt);
        return b_other ? *options.file + ": there are no samples in this time"
                       : *options.file + ": there are no samples";
    }
    m_at = m_samples.size() - 1;
    if (options.is_span()) {
        m_at = 0;
    } else if (options.at) {
        const std::optional<HistorySample> sample = m_history.find(options.at);
        if (!sample) {
            return m_history.error();
        }
        const auto found = std::find_if(m_samples.begin(), m_samples.end(),
                                        [&](const HistorySample& each) { return each.id == sample->id; });
        m_at = static_cast<std::size_t>(found - m_samples.begin());
    }
    return "";
}

bool Playback::update(std::size_t at, const WatchNeeds& needs)
{
    const HistorySample& sample = m_samples[at];
    std::unique_ptr<Source> source = m_history.source(sample);
    if (source == nullptr) {
        return false;
    }
    // The clock may have been set between the samples, so count the time that really passed.
    const bool b_next = m_shown && *m_shown + 1 == at && m_samples[*m_shown].engine_start == sample.engine_start;
    if (b_next) {
        const double seconds = seconds_between(m_samples[*m_shown], sample, true);
        m_time += std::chrono::duration_cast<WatchModel::clock::duration>(std::chrono::duration<double>(seconds));
    }
    m_source = std::move(source);
    m_model.update(m_source->reader(), needs, b_next, sample.time, m_time);
    m_shown = at;
    return true;
}

bool Playback::show(const WatchNeeds& needs)
{
    if (m_shown == m_at) {
        return true;
    }
    if (!m_shown || *m_shown + 1 != m_at) {
        // After a jump, rates come from the sample before, which an empty model reads first.
        m_model = WatchModel(m_rules);
        m_shown.reset();
        if (m_at > 0 && !update(m_at - 1, needs)) {
            return false;
        }
    }
    return update(m_at, needs);
}

void Playback::turn(const WatchNeeds& needs)
{
    if (m_source != nullptr) {
        m_model.read(m_source->reader(), needs, m_time);
    }
}

bool Playback::move(long long by)
{
    const auto last = static_cast<long long>(m_samples.size()) - 1;
    const auto to = static_cast<std::size_t>(std::clamp(static_cast<long long>(m_at) + by, 0LL, last));
    const bool b_moved = to != m_at;
    m_at = to;
    return b_moved;
}

bool Playback::press(int key)
{
    switch (key) {
    case WATCH_KEY_LEFT:
        m_b_playing = false;
        move(-1);
        return true;
    case WATCH_KEY_RIGHT:
        m_b_playing = false;
        move(1);
        return true;
    case WATCH_KEY_PAGE_UP:
        m_b_playing = false;
        move(-10);
        return true;
    case WATCH_KEY_PAGE_DOWN:
        m_b_playing = false;
        move(10);
        return true;
    case ' ':
        m_b_playing = !m_b_playing && !is_at_end();
        return true;
    default:
        return false;
    }
}

std::string Playback::position() const
{
    return date_and_time(m_samples[m_at].time) + ", " + std::to_string(m_at + 1) + " of " +
           std::to_string(m_samples.size()) + (m_b_playing ? ", playing" : "");
}

} // namespace kavstat
