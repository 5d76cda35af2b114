// kavstat json and kavstat schema.
#include "RE_commands.h"
#include "RE_report_error.h"

#include <unistd.h>

int run_json(const RE_json_options& options)
{
    RE_source source(options.file);
    if (const int status = open_or_report(source)) {
        return status;
    }
    RE_descriptor_sink sink(STDOUT_FILENO);
    RE_output output(sink);
    write_statistics_json(source, options.scopes, std::time(nullptr), output);
    if (const int status = report_if_cut(source)) {
        return status;
    }
    return finish_output(output, sink);
}

int run_schema()
{
    RE_descriptor_sink sink(STDOUT_FILENO);
    RE_output output(sink);
    output.add(statistics_json_schema());
    return finish_output(output, sink);
}
