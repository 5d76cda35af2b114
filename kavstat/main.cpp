// kavstat: the engine's statistics as JSON, as metrics, as a live view and as differences. See --help.
#include "RE_zone_name.h"
#include "command_line.h"
#include "commands/commands.h"
#include "commands/report_error.h"

#include <csignal>
#include <exception>
#include <new>

using namespace kavstat;

int main(int argc, char** argv)
{
    // If the reader of the output goes away, the write fails, and the program ends with the status for that.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    RE_keep_from_odd_zone_files();
    try {
        return kavstat::run_command_line(argc, argv);
    } catch (const std::bad_alloc&) {
        kavstat::report_error("out of memory");
    } catch (const std::exception& error) {
        kavstat::report_error(error.what());
    }
    return kavstat::EXIT_ERROR;
}
