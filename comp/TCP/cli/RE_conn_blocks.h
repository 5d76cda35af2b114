// The two blocks of connection figures that the engine, peer and connection reports share.
#pragma once

#include "RE_conn_slot.h"

// Prints the summary: volumes and ratios of encoding and decoding, bypass, latencies, message sizes.
void show_conn_info(const RE_conn_slot& c);

// Prints the detail: chunks, search costs, acknowledgements, bypass causes, NACKs, LZ, cache writes, aggregation.
void show_conn_detail(const RE_conn_slot& c);

// Prints one cause of bypassed encoding if it has bytes; a cause with messages but no bytes is not shown. b_msg: the
// count is of messages, otherwise of chunks.
void print_bypass_cause(const RE_conn_slot& c, const char* cause_str, int num_id, int byte_id, bool b_msg);
