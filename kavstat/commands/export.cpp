// kavstat export.
#include "commands/commands.h"
#include "commands/report_error.h"
#include "history/table_export.h"

#include <unistd.h>

namespace kavstat {

int run_export(const ExportOptions& options)
{
    Database database;
    if (const std::string reason = open_history(database, options.file); !reason.empty()) {
        report_error(options.file + ": " + reason);
        return EXIT_NO_STATISTICS;
    }
    DescriptorSink sink(STDOUT_FILENO);
    Output output(sink);
    const ExportFormat format = options.b_json_lines ? ExportFormat::jsonl : ExportFormat::csv;
    const std::string reason = export_table(database, options.table, format, options.span, output);
    if (!reason.empty()) {
        report_error(options.file + ": " + reason);
    }
    const int written = finish_output(output, sink);
    return reason.empty() ? written : EXIT_ERROR;
}

} // namespace kavstat
