// The command line of kavstat.
#pragma once

namespace kavstat {

// Runs what the command line asks for and returns the exit status.
int run_command_line(int argc, const char* const* argv);

} // namespace kavstat
