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
            const int status = sample();
            thin(clock::now() + thinning_once);
            return status;
        }
        end_at_signals();
        auto next = clock::now();
        while (!is_stopped()) {
            const bool b_recorded = sample() == EXIT_OK;
            const auto now = clock::now();
            // Do not catch up after a sample that took long.
            next = b_recorded ? std::max(next + seconds(m_options.interval), now) : now + seconds(retry_interval());
            // The disk and the processor are also for others.
            thin(now + (next - now) / 2);
            sleep_unless_stopped(duration(next - clock::now()).count());
        }
        return EXIT_OK;
    }

private:
    static constexpr std::chrono::seconds thinning_interval{60};
    static constexpr std::chrono::seconds thinning_once{10};
    static constexpr const char* lost = "samples are lost until this is solved";

    static clock::duration seconds(double number)
    {
        return std::chrono::duration_cast<clock::duration>(duration(number));
    }

    // An attempt to record costs more than a sample: the last one is read from the database first.
    double retry_interval() const { return std::clamp(m_options.interval, 1.0, 10.0); }

    // Removes old samples until the end.
    void thin(clock::time_point end)
    {
        if (clock::now() < m_next_thinning || !m_recorder.is_open()) {
            return;
        }
        const Recorder::Thinning result = m_recorder.thin([end] { return clock::now() >= end; });
        if (result != Recorder::Thinning::unfinished) {
            m_next_thinning = clock::now() + thinning_interval;
        }
        const std::string trouble = result == Recorder::Thinning::failed ? m_recorder.error() : "";
        // A reason that prevents recording has been reported already.
        if (!trouble.empty() && trouble != m_thinning_trouble && m_trouble.empty()) {
            report_error(m_options.file + ": old samples cannot be removed: " + trouble);
        }
        m_thinning_trouble = trouble;
    }

    // Begins a new file when the file was removed or replaced: samples in a removed file would be lost.
    // Returns why that is impossible, or nothing.
    std::string keep_in_place()
    {
        if (m_recorder.is_in_place()) {
            return "";
        }
        if (m_recorder.is_open()) {
            report_error(m_options.file + ": was removed or replaced; recording goes on in a new file");
        }
        m_recorder.close();
        std::string reason = m_recorder.open(m_options.file);
        if (!reason.empty()) {
            m_recorder.close();
        }
        return reason;
    }

    // Returns the exit status of --once.
    int sample()
    {
        if (const std::string reason = keep_in_place(); !reason.empty()) {
            say(m_options.file + ": " + reason, lost);
            return EXIT_ERROR;
        }
        // Open the engine again each time: it may have been restarted.
        auto found = std::make_unique<Source>();
        if (const int error = found->open()) {
            m_source.reset();
            say(Source::reason_of(error), "recording goes on when there is one");
            return EXIT_NO_STATISTICS;
        }
        const bool b_same = m_source != nullptr && found->is_same_engine(*m_source);
        if (!b_same) {
            m_source = std::move(found);
        }
        const double at = duration(clock::now().time_since_epoch()).count();
        switch (m_recorder.record(m_source->reader(), b_same, at)) {
        case RecordResult::recorded:
            say("");
            break;
        case RecordResult::cut:
            m_source.reset();
            say(Source::reason_of(RE_STAT_ERR_CUT), "recording goes on");
            return EXIT_NO_STATISTICS;
        case RecordResult::failed:
            if (!is_stopped()) {
                say(m_options.file + ": " + m_recorder.error(), lost);
            }
            return EXIT_ERROR;
        }
        if (m_recorder.removed() > 0 && !m_b_removal_said) {
            report_error(m_options.file + ": reached its largest size; from now on the oldest samples are removed");
            m_b_removal_said = true;
        }
        return EXIT_OK;
    }

    // Reports a trouble once, and its end. trouble: empty when all is well. outlook: what happens then.
    void say(const std::string& trouble, const char* outlook = "")
    {
        if (trouble == m_trouble) {
            return;
        }
        if (!trouble.empty()) {
            report_error(trouble + "; " + (m_options.b_once ? "nothing was recorded" : outlook));
        } else if (!m_options.b_once) {
            report_error("recording again");
        }
        m_trouble = trouble;
    }

    const RecordOptions& m_options;
    Recorder& m_recorder;
    std::unique_ptr<Source> m_source; // stays open from sample to sample
    clock::time_point m_next_thinning;
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
