// kavstat diff.
#include "documents/diff.h"
#include "commands/commands.h"
#include "commands/recorded.h"
#include "commands/report_error.h"

#include <unistd.h>

namespace kavstat {

namespace {

// Two samples of a history: those at the ends of the span.
int take_recorded_sides(const HistoryOptions& options, DiffSide (&sides)[2])
{
    RecordedHistory history;
    if (const std::string reason = history.open(*options.file); !reason.empty()) {
        report_error(reason);
        return EXIT_NO_STATISTICS;
    }
    const std::optional<std::time_t> moments[2] = {options.span.from, options.span.to};
    for (std::size_t at = 0; at < std::size(sides); ++at) {
        const std::optional<HistorySample> sample = history.find(moments[at]);
        const std::unique_ptr<Source> source = sample ? history.source(*sample) : nullptr;
        if (source == nullptr) {
            report_error(history.error());
            return EXIT_NO_STATISTICS;
        }
        sides[at] = take_side(source->reader(), source->name(), sample->time);
    }
    return EXIT_OK;
}

int take_sides(const DiffOptions& options, DiffSide (&sides)[2])
{
    const std::optional<std::string> files[2] = {options.before, options.after};
    for (std::size_t at = 0; at < std::size(sides); ++at) {
        Source source(files[at]);
        if (const int status = open_or_report(source)) {
            return status;
        }
        sides[at] = take_side(source.reader(), source.name(), std::time(nullptr));
        if (const int status = report_if_cut(source)) {
            return status;
        }
    }
    return EXIT_OK;
}

} // namespace

int run_diff(const DiffOptions& options)
{
    DiffSide sides[2];
    if (const int status =
            options.history.file ? take_recorded_sides(options.history, sides) : take_sides(options, sides)) {
        return status;
    }
    const auto& [before, after] = sides;
    if (const auto reason = why_not_comparable(before, after); reason && !options.b_force) {
        report_error("cannot be compared: " + *reason);
        return EXIT_ERROR;
    }
    DescriptorSink sink(STDOUT_FILENO);
    Output output(sink);
    if (options.b_json) {
        write_diff_json(before, after, options.choice, output);
    } else {
        write_diff(before, after, options.choice, output);
    }
    return finish_output(output, sink);
}

} // namespace kavstat
