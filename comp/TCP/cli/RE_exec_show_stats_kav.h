// The command line of the viewer.
#pragma once

// Runs one request: parses the command line, opens the statistics reader, prints one report and lets go of the reader.
// Returns the exit status: 1 after any error, 0 otherwise, an unknown command word included. argv as main gets it.
int exec_show_stats_kav(int argc, char** argv);

// Prints the usage text.
void show_usage();
