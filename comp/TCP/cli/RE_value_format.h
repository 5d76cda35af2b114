// How reports render byte counts, reduction ratios, ages, times and the message-size histogram.
//
// There are two families of size and ratio formatters: over signed bytes for the engine, peer and connection reports,
// over unsigned kilobytes for the top-application report. They share names and differ in form and in their treatment
// of 0, on purpose: operators' scripts know both.
//
// A `const char*` result lives in a static buffer of its function until that function's next call.
#pragma once

#include "RE_conn_slot.h"

#include <string>

// A byte count in six columns and a unit: "   100 MB" above 100 MB, "   100 KB" above 100 KB, otherwise "102400 B".
// Cut, never rounded; a negative size prints as such.
std::string get_data_size_str(long long size);

// A kilobyte count in six columns and a unit, GB, MB or KB, with the same two bounds.
std::string get_data_size_str(unsigned long long size_in_KB);

// A byte count in four columns for the connection table: "1024B", "   1KB". A unit starts above 1024 of the one before.
std::string get_conn_byte_summary(long long size);

// The same as a field of a row, in the manner of RE_row_writer.h. `at`: 32 free bytes.
char* put_conn_byte_summary(char* at, long long size);

// How much of the input an encoder removed (b_encode), or how much of a decoder's output the wire did not carry, with
// both sizes: "in:   1000 B, out:    250 B, ratio:  75.00%". Expansion and a side of 0 or less give ratio 0. Single
// precision, on purpose.
const char* get_in_out_ratio_str(long long in_bytes, long long out_bytes, bool b_encode);

// The ratio alone: " 75.00%". Here one side of 0 gives "100.00%" and only both give "  0.00%".
std::string get_in_out_ratio_str(unsigned long long in_bytes, unsigned long long out_bytes, bool b_encode);

// How long ago a moment (seconds since the epoch; 0 or less: not known, printed as "0s") was: "2h3m4s", "1d3h", "45d".
const char* get_age_str(long long cache_time);

// The same as a field of a row. `at`: 256 free bytes.
char* put_age(char* at, long long cache_time);

// A moment (seconds since the epoch) in local time: "03/07/2011 14:05:09".
const char* get_time_str(int t);

// The same as a field of a row. `at`: 32 free bytes.
char* put_time(char* at, int t);

// Prints the message-size histogram of a slot: six counters from first_id on, in percent of their sum.
void show_msg_size_dist(const RE_conn_slot& c, int first_id);
