// kavstat diff.
#include "RE_commands.h"
#include "RE_diff.h"
#include "RE_report_error.h"

#include <unistd.h>

int run_diff(const RE_diff_options& options)
{
    RE_diff_side sides[2];
    const std::optional<std::string> files[2] = {options.before, options.after};
    for (std::size_t at = 0; at < std::size(sides); ++at) {
        RE_source source(files[at]);
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
        return RE_EXIT_ERROR;
    }
    RE_descriptor_sink sink(STDOUT_FILENO);
    RE_output output(sink);
    write_diff(before, after, options.b_all, output);
    return finish_output(output, sink);
}
