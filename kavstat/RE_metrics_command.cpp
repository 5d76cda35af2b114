// kavstat metrics.
#include "RE_commands.h"
#include "RE_metrics.h"
#include "RE_report_error.h"

#include <unistd.h>

int run_metrics(const RE_metrics_options& options)
{
    RE_source source(options.file);
    RE_descriptor_sink sink(STDOUT_FILENO);
    RE_output output(sink);
    if (source.is_live() && source.open() != 0) {
        // What collects the output must see that the engine is gone, and not the figures of the last time.
        write_metrics_without_engine(output);
        return finish_output(output, sink);
    }
    if (!source.is_live()) {
        if (const int status = open_or_report(source)) {
            return status;
        }
    }
    write_metrics_of(source.reader(), std::time(nullptr), output);
    return finish_output(output, sink);
}
