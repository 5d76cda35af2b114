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

// Samples an engine again and again, and says once when something goes wrong and when it is well again.
class RecordCommand
{
public:
    RecordCommand(const RecordOptions& options, Recorder& recorder) : m_options(options), m_recorder(recorder) {}

    int run()
    {
        if (m_options.b_once) {
            const bool b_recorded = sample();
            m_recorder.thin();
            return b_recorded ? EXIT_OK : m_source != nullptr ? EXIT_ERROR : EXIT_NO_STATISTICS;
        }
        end_at_signals();
        auto next = clock::now();
        auto next_thinning = next;
        while (!is_stopped()) {
            sample();
            if (clock::now() >= next_thinning) {
                m_recorder.thin();
                next_thinning = clock::now() + thinning_interval;
            }
            // Not faster afterwards when a sample took long.
            next = std::max(next + std::chrono::duration_cast<clock::duration>(duration(m_options.interval)),
                            clock::now());
            sleep_unless_stopped(duration(next - clock::now()).count());
        }
        return EXIT_OK;
    }

private:
    static constexpr std::chrono::seconds thinning_interval{60};

    bool sample()
    {
        // Opened beside the one that is open: that is how an engine that was started anew is found.
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
            say(m_options.file + ": " + m_recorder.error() + "; this sample is lost, recording goes on");
            return false;
        }
        if (m_recorder.removed() > 0 && !m_b_removal_said) {
            report_error(m_options.file + ": reached its largest size; from now on the oldest samples are removed");
            m_b_removal_said = true;
        }
        return true;
    }

    // What is wrong, or nothing. It is said when it changes.
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
    bool m_b_removal_said = false;
};

} // namespace

int run_record(const RecordOptions& options)
{
    Recorder recorder({options.b_connections, options.keep, options.max_size});
    if (const std::string reason = recorder.open(options.file); !reason.empty()) {
        report_error(options.file + ": " + reason);
        return EXIT_ERROR;
    }
    return RecordCommand(options, recorder).run();
}

} // namespace kavstat
