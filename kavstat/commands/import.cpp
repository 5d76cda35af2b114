// kavstat import.
#include "commands/commands.h"
#include "commands/report_error.h"
#include "history/schema.h"
#include "history/space.h"
#include "history/top_app_import.h"

#include <unistd.h>

#include <cstdio>

namespace kavstat {

int run_import(const ImportOptions& options)
{
    Database database;
    std::string reason;
    if (!database.open(options.file, Database::Access::write)) {
        reason = database.error();
    } else {
        reason = prepare_schema(database);
    }
    if (!reason.empty()) {
        report_error(options.file + ": " + reason);
        return EXIT_ERROR;
    }
    HistorySpace space(database, {}, options.max_size, [] { return false; });
    if (!space.prepare()) {
        report_error(options.file + ": " + database.error());
        return EXIT_ERROR;
    }
    DescriptorSink sink(STDOUT_FILENO);
    Output output(sink);
    int status = EXIT_OK;
    const bool b_progress = isatty(STDERR_FILENO) != 0;
    for (const std::string& log : options.logs) {
        int shown = -1;
        ImportCallbacks callbacks;
        callbacks.progress = [&](double share) {
            const int percent = static_cast<int>(share * 100);
            if (b_progress && percent != shown) {
                shown = percent;
                std::fprintf(stderr, "\r%3d%%", percent);
            }
        };
        callbacks.has_room = [&](long long bytes) { return space.has_room(bytes); };
        const ImportResult result = import_top_app_log(database, log, std::time(nullptr), callbacks);
        if (shown >= 0) {
            std::fprintf(stderr, "\r    \r");
        }
        if (!result.error.empty()) {
            report_error(log + ": " + result.error);
            status = EXIT_ERROR;
        }
        output.add(log + ": " + std::to_string(result.records) + (result.records == 1 ? " record" : " records") + "\n");
    }
    const int written = finish_output(output, sink);
    return status != EXIT_OK ? status : written;
}

} // namespace kavstat
