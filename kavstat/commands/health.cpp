// kavstat health.
#include "RE_stat_error.h"
#include "commands/commands.h"
#include "commands/recorded.h"
#include "commands/report_error.h"
#include "documents/diff.h"
#include "health/report.h"

#include <unistd.h>

#include <chrono>
#include <exception>
#include <thread>

namespace kavstat {

namespace {

using clock = std::chrono::steady_clock;

// One of the two moments.
struct OpenedMoment
{
    DiffSide side;
    clock::time_point at;
};

class HealthCommand
{
public:
    HealthCommand(const HealthOptions& options, const RuleSet& rules) : m_options(options), m_rules(rules) {}

    HealthReport run()
    {
        if (m_options.history.file) {
            return run_recorded();
        }
        const std::vector<std::string>& files = m_options.files;
        Source now(files.empty() ? std::nullopt : std::optional(files.back()));
        m_name = now.name();
        if (m_options.since || files.size() > 1) {
            Source before(m_options.since ? *m_options.since : files.front());
            return look(before, m_before) && look(now, m_now) ? judged(now) : m_unknown;
        }
        if (!now.is_live()) {
            return look(now, m_now) ? judged(now) : m_unknown;
        }
        if (!look(now, m_before)) {
            return m_unknown;
        }
        // Opened again, to find an engine that was restarted.
        now.close();
        std::this_thread::sleep_for(std::chrono::duration<double>(m_options.interval));
        return look(now, m_now) ? judged(now) : m_unknown;
    }

private:
    // A sample and the one before it, or those at the ends of the span.
    HealthReport run_recorded()
    {
        const HistoryOptions& options = m_options.history;
        m_name = *options.file;
        RecordedHistory history;
        const std::string reason = history.open(m_name);
        const std::optional<HistorySample> last =
            reason.empty() ? history.find(options.is_span() ? options.span.to : options.at) : std::nullopt;
        if (!last) {
            return unknown_health(m_rules, reason.empty() ? history.error() : reason, m_name, false);
        }
        const std::optional<HistorySample> first =
            options.is_span() ? history.find(options.span.from) : history.before(*last);
        const std::unique_ptr<Source> now = history.source(*last);
        const std::unique_ptr<Source> before = first ? history.source(*first) : nullptr;
        if (now == nullptr || (first && before == nullptr) || (!first && options.is_span())) {
            return unknown_health(m_rules, history.error(), m_name, false);
        }
        m_recorded_seconds = first ? kavstat::seconds_between(*first, *last, !options.is_span()) : 0;
        return (before == nullptr || look(*before, m_before)) && look(*now, m_now) ? judged(*now) : m_unknown;
    }

    // Returns false if the statistics could not be read.
    bool look(Source& source, std::optional<OpenedMoment>& moment)
    {
        if (const int error = source.open()) {
            const bool b_no_engine =
                source.is_live() && (error == RE_STAT_ERR_NO_ENGINE || error == RE_STAT_ERR_ENGINE_GONE ||
                                     error == RE_STAT_ERR_NOT_PUBLISHED);
            const std::string reason = Source::reason_of(error);
            m_unknown =
                unknown_health(m_rules, source.is_live() ? reason : source.name() + ": " + reason, m_name, b_no_engine);
            return false;
        }
        moment = {take_side(source.reader(), source.name(), std::time(nullptr)), clock::now()};
        const bool b_first = &moment == &m_before || !m_before;
        const double seconds = b_first ? 0 : seconds_between();
        if (!b_first && m_before->side.snapshot.engine_start_time != m_now->side.snapshot.engine_start_time) {
            m_pending = {};
        }
        m_pending.update(source.reader(), moment->side.snapshot, seconds);
        m_extras = read_extras(source.reader(), &m_pending);
        if (source.reader().is_cut()) {
            m_unknown = unknown_health(m_rules, "the statistics were cut short while they were read", m_name, false);
            return false;
        }
        return true;
    }

    // For files, the difference of their times, which are whole seconds.
    double seconds_between() const
    {
        if (m_recorded_seconds) {
            return *m_recorded_seconds;
        }
        if (m_options.since || m_options.files.size() > 1) {
            return static_cast<double>(m_now->side.snapshot.capture_time) -
                   static_cast<double>(m_before->side.snapshot.capture_time);
        }
        return std::chrono::duration<double>(m_now->at - m_before->at).count();
    }

    HealthReport judged(const Source& now)
    {
        HealthMoments moments;
        moments.now = &m_now->side.snapshot;
        moments.extras = m_extras;
        if (m_before) {
            if (const auto reason = why_not_comparable(m_before->side, m_now->side)) {
                return unknown_health(m_rules, "cannot be compared: " + *reason, now.name(), false);
            }
            moments.before = &m_before->side.snapshot;
            moments.seconds = seconds_between();
        }
        HealthReport report = health_report(m_rules, moments, now.name());
        report.b_past = !now.is_live();
        return report;
    }

    const HealthOptions& m_options;
    const RuleSet& m_rules;
    std::string m_name;
    std::optional<double> m_recorded_seconds;
    std::optional<OpenedMoment> m_before;
    std::optional<OpenedMoment> m_now;
    PendingConnections m_pending;
    HealthExtras m_extras;
    HealthReport m_unknown;
};

HealthReport report_of(const HealthOptions& options)
{
    RuleFileResult file;
    if (options.rules) {
        file = read_rule_file(*options.rules);
    }
    if (!file.error.empty()) {
        return unknown_health({}, file.error, *options.rules, false);
    }
    return HealthCommand(options, file.rules).run();
}

} // namespace

int run_health(const HealthOptions& options)
{
    HealthReport report;
    // A monitor would interpret the exit status of an uncaught error as a result.
    try {
        report = report_of(options);
    } catch (const std::exception& error) {
        report.unknown = error.what();
    }
    DescriptorSink sink(STDOUT_FILENO);
    Output output(sink);
    if (options.b_json) {
        write_health_json(report, output);
    } else {
        write_health_text(report, options.b_all, output);
    }
    return finish_output(output, sink) == EXIT_OK ? static_cast<int>(report.status()) : HEALTH_UNKNOWN;
}

} // namespace kavstat
