// kavstat: the engine's statistics as JSON, as metrics, as a live view and as differences. See --help.
#include "RE_command_line.h"
#include "RE_commands.h"
#include "RE_report_error.h"
#include "RE_zone_name.h"

#include <csignal>
#include <exception>
#include <new>

int main(int argc, char** argv)
{
    // A reader of our output that goes away is noticed where we write, with a status of its own.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    RE_keep_from_odd_zone_files();
    try {
        return run_command_line(argc, argv);
    } catch (const std::bad_alloc&) {
        report_error("out of memory");
    } catch (const std::exception& error) {
        report_error(error.what());
    }
    return RE_EXIT_ERROR;
}
