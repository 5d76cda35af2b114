// The top-application report, from the live statistics or from a saved log file.
#pragma once

// Prints the top-application report. file: the log's path, or empty for live statistics. peer: the peer to keep, or
// empty for all. detail: print every record as well. top: how many rows, 0 or less for all. If file or peer is null,
// nothing is printed. An error in a log file goes to the system log and not to the report, which ends at that point.
//
// Logs have two layouts, both in the engine's byte order and without magic number or checksum:
//
// BELVANO: sections one after another, each
//     version  4 bytes   1
//     N        4 bytes
//     N times  86 bytes  RE_stat_policy_engine_header and a handle of 4 bytes
//     M        4 bytes
//     M times  100 bytes RE_stat_app_log_record, with a handle of this section
//
// QUADA, recognised by any other first word: RE_stat_app_log_record from the first byte to the last. A log of this
// layout is read, with its entry blocks printed, and then refused, because it has neither an end nor names.
void show_top_app(char* file, char* peer, bool detail, int top);
