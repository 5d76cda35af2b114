#include "RE_report_error.h"

#include "RE_commands.h"
#include "RE_text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

void report_error(const std::string& text)
{
    std::fprintf(stderr, "kavstat: %s\n", plain_text(text).c_str());
}

int open_or_report(RE_source& source)
{
    const int error = source.open();
    if (error == 0) {
        return RE_EXIT_OK;
    }
    report_error(source.is_live() ? RE_source::reason_of(error) : source.name() + ": " + RE_source::reason_of(error));
    return RE_EXIT_NO_STATISTICS;
}

int report_if_cut(RE_source& source)
{
    if (!source.reader().is_cut()) {
        return RE_EXIT_OK;
    }
    report_error("the statistics were cut short while they were read");
    return RE_EXIT_NO_STATISTICS;
}

int finish_output(RE_output& output, const RE_descriptor_sink& sink)
{
    if (output.flush()) {
        return RE_EXIT_OK;
    }
    // A reader that has seen enough, such as head, is no error that anybody wants to read about.
    if (sink.error() != EPIPE) {
        report_error(std::string("standard output: ") + std::strerror(sink.error()));
    }
    return RE_EXIT_OUTPUT;
}
