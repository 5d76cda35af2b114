// The top-application report, from the live statistics or from a saved log file.
#pragma once

// Prints the top-application report. file: the log's path, or empty for live statistics; peer: the peer to keep, or
// empty for all; detail: print every record as well; top: how many rows, 0 or less for all. A null file or peer prints
// nothing. What is wrong with a log file goes to the system log, not to the report, which then ends where it is.
//
// Logs have two layouts, both in the engine's byte order and without magic number or checksum:
//
// BELVANO, sections back to back, each
//     version  4 bytes   1
//     N        4 bytes
//     N times  86 bytes  RE_stat_policy_engine_header and a handle of 4 bytes
//     M        4 bytes
//     M times  100 bytes RE_stat_app_log_record, with a handle of this section
//
// QUADA, known by any other first word: RE_stat_app_log_record from the first byte to the last. A log of this layout
// is gathered, with its entry blocks, and then refused, since it has neither end nor names.
void show_top_app(char* file, char* peer, bool detail, int top);
