// Where the records of the top-application report come from: the live statistics or a saved log file.
#pragma once

// Prints the top-application report. file: the log's path, or empty for live statistics; peer: the peer to keep, or
// empty for all; detail: print every record as well; top: how many rows, 0 or less for all. A null file or peer prints
// nothing. What is wrong with a log file goes to the system log, not to the report.
void show_top_app(char* file, char* peer, bool detail, int top);
