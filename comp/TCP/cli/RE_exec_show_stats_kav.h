// The command line of the viewer.
#pragma once

// Runs one request: parses the command line, opens the statistics reader, prints one report and closes the reader.
// Returns the exit status: 1 after any error, otherwise 0, also for an unknown command word. argv is that of main.
int exec_show_stats_kav(int argc, char** argv);

// Prints the usage text.
void show_usage();
