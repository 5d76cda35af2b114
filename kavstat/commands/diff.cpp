// kavstat diff.
#include "documents/diff.h"
#include "commands/commands.h"
#include "commands/report_error.h"

#include <unistd.h>

namespace kavstat {

int run_diff(const DiffOptions& options)
{
    DiffSide sides[2];
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
