// kavstat metrics.
#include "documents/metrics.h"
#include "RE_stat_error.h"
#include "commands/commands.h"
#include "commands/report_error.h"

#include <unistd.h>

namespace kavstat {

int run_metrics(const MetricsOptions& options)
{
    Source source(options.file);
    DescriptorSink sink(STDOUT_FILENO);
    Output output(sink);
    if (!source.is_live()) {
        if (const int status = open_or_report(source)) {
            return status;
        }
    } else if (const int error = source.open()) {
        // The collector must see that the engine is gone instead of keeping old figures.
        if (error != RE_STAT_ERR_NO_ENGINE && error != RE_STAT_ERR_ENGINE_GONE && error != RE_STAT_ERR_NOT_PUBLISHED) {
            report_error(Source::reason_of(error));
        }
        write_metrics_without_engine(output, options.choice);
        return finish_output(output, sink);
    }
    write_metrics_of(source.reader(), std::time(nullptr), output, options.choice);
    report_if_cut(source); // also visible in the output
    return finish_output(output, sink);
}

} // namespace kavstat
