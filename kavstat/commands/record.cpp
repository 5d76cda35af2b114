// kavstat record.
#include "RE_stat_error.h"
#include "commands/commands.h"
#include "commands/report_error.h"
#include "commands/stop_signals.h"
#include "history/recorder.h"

#include <algorithm>
#include <chrono>
#include <memory>

namespace kavstat {

namespace {

using clock = std::chrono::steady_clock;
using duration = std::chrono::duration<double>;

// Samples an engine until it is stopped. Reports the beginning and the end of each trouble.
class RecordCommand
{
public:
    RecordCommand(const RecordOptions& options, Recorder& recorder) : m_options(options), m_recorder(recorder) {}

    int run()
    {
        if (m_options.b_once) {
            const bool b_recorded = sample();
            thin();
            return b_recorded ? EXIT_OK : m_source != nullptr ? EXIT_ERROR : EXIT_NO_STATISTICS;
        }
        end_at_signals();
        auto next = clock::now();
        auto next_thinning = next;
        while (!is_stopped()) {
            sample();
            if (clock::now() >= next_thinning) {
                thin();
                next_thinning = clock::now() + thinning_interval;
            }
            // Do not catch up after a sample that took long.
            next = std::max(next + std::chrono::duration_cast<clock::duration>(duration(m_options.interval)),
                            clock::now());
            sleep_unless_stopped(duration(next - clock::now()).count());
        }
        return EXIT_OK;
    }

private:
    static constexpr std::chrono::seconds thinning_interval{60};

    void thin()
    {
        const std::string trouble = m_recorder.thin() ? "" : m_recorder.error();
        if (!trouble.empty() && trouble != m_thinning_trouble) {
            report_error(m_options.file + ": old samples cannot be removed: " + trouble);
        }
        m_thinning_trouble = trouble;
    }

    bool sample()
    {
        // Open the engine again each time: it may have been restarted.
        auto found = std::make_unique<Source>();
        if (const int error = found->open()) {
            m_source.reset();
            say(Source::reason_of(error) + "; recording goes on when there is one");
            return false;
        }
        const bool b_same = m_source != nullptr && found->is_same_engine(*m_source);
        if (!b_same) {
            m_source = std::move(found);
        }
        const double seconds = duration(clock::now().time_since_epoch()).count();
        switch (m_recorder.record(m_source->reader(), b_same, seconds)) {
        case RecordResult::recorded:
            say("");
            break;
        case RecordResult::cut:
            m_source.reset();
            say(Source::reason_of(RE_STAT_ERR_CUT) + "; recording goes on");
            return false;
        case RecordResult::failed:
            if (is_stopped()) {
                return false;
            }
            say(m_options.file + ": " + m_recorder.error() + "; this sample is lost, recording goes on");
            return false;
        }
        if (m_recorder.removed() > 0 && !m_b_removal_said) {
            report_error(m_options.file + ": reached its largest size; from now on the oldest samples are removed");
            m_b_removal_said = true;
        }
        return true;
    }

    // Reports a trouble once, and its end. trouble: empty when all is well.
    void say(const std::string& trouble)
    {
        if (trouble == m_trouble) {
            return;
        }
        if (!trouble.empty()) {
            report_error(trouble);
        } else if (!m_options.b_once) {
            report_error("recording again");
        }
        m_trouble = trouble;
    }

    const RecordOptions& m_options;
    Recorder& m_recorder;
    std::unique_ptr<Source> m_source; // stays open from sample to sample
    std::string m_trouble;
    std::string m_thinning_trouble;
    bool m_b_removal_said = false;
};

} // namespace

int run_record(const RecordOptions& options)
{
    Recorder recorder({options.b_connections, options.keep, options.max_size, [] { return std::time(nullptr); },
                       [] { return is_stopped(); }});
    if (const std::string reason = recorder.open(options.file); !reason.empty()) {
        report_error(options.file + ": " + reason);
        return EXIT_ERROR;
    }
    return RecordCommand(options, recorder).run();
}

} // namespace kavstat
