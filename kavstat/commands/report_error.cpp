#include "commands/report_error.h"

#include "commands/commands.h"
#include "format/text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kavstat {

void report_error(const std::string& text)
{
    std::fprintf(stderr, "kavstat: %s\n", plain_text(text).c_str());
}

int open_or_report(Source& source)
{
    const int error = source.open();
    if (error == 0) {
        return EXIT_OK;
    }
    report_error(source.is_live() ? Source::reason_of(error) : source.name() + ": " + Source::reason_of(error));
    return EXIT_NO_STATISTICS;
}

int report_if_cut(Source& source)
{
    if (!source.reader().is_cut()) {
        return EXIT_OK;
    }
    report_error("the statistics were cut short while they were read");
    return EXIT_NO_STATISTICS;
}

std::optional<RuleSet> read_rules_or_report(const std::optional<std::string>& file)
{
    RuleFileResult result;
    if (file) {
        result = read_rule_file(*file);
    }
    if (!result.error.empty()) {
        report_error(result.error);
        return std::nullopt;
    }
    return std::move(result.rules);
}

int finish_output(Output& output, const DescriptorSink& sink)
{
    if (output.flush()) {
        return EXIT_OK;
    }
    // A reader that closes early, such as head, is not an error.
    if (sink.error() != EPIPE) {
        report_error(std::string("standard output: ") + std::strerror(sink.error()));
    }
    return EXIT_OUTPUT;
}

} // namespace kavstat
