// kavstat json and kavstat schema.
#include "commands/commands.h"
#include "commands/report_error.h"

#include <unistd.h>

namespace kavstat {

int run_json(const JsonOptions& options)
{
    Source source(options.file);
    if (const int status = open_or_report(source)) {
        return status;
    }
    DescriptorSink sink(STDOUT_FILENO);
    Output output(sink);
    write_statistics_json(source, options.scopes, std::time(nullptr), output);
    if (const int status = report_if_cut(source)) {
        return status;
    }
    return finish_output(output, sink);
}

int run_schema()
{
    DescriptorSink sink(STDOUT_FILENO);
    Output output(sink);
    output.add(statistics_json_schema());
    return finish_output(output, sink);
}

} // namespace kavstat
