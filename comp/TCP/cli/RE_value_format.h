// How reports render byte counts, reduction ratios, ages, times and the message-size histogram.
//
// There are two families of size and ratio formatters. One takes signed bytes, for the engine, peer and connection
// reports. The other takes unsigned kilobytes, for the top-application report. They share names, but differ on purpose
// in form and in the treatment of 0: operators' scripts rely on both.
//
// A `const char*` result is in a static buffer of its function and is valid until that function's next call.
#pragma once

#include "RE_conn_slot.h"

#include <string>

// A byte count in six columns and a unit: "   100 MB" above 100 MB, "   100 KB" above 100 KB, otherwise "102400 B".
// Truncated, never rounded; a negative size keeps its sign.
std::string get_data_size_str(long long size);

// A kilobyte count in six columns and a unit, GB, MB or KB, with the same two bounds.
std::string get_data_size_str(unsigned long long size_in_KB);

// The same as a field of a row. `at`: 32 free bytes.
char* put_data_size(char* at, unsigned long long size_in_KB);

// A byte count in four columns for the connection table: "1024B", "   1KB". Above 1024 of a unit, the next one is used.
std::string get_conn_byte_summary(long long size);

// The same as a field of a row, in the manner of RE_row_writer.h. `at`: 32 free bytes.
char* put_conn_byte_summary(char* at, long long size);

// The share of the input that an encoder removed (b_encode), or the share of a decoder's output that was not sent over
// the wire, with both sizes: "in:   1000 B, out:    250 B, ratio:  75.00%". Expansion and a side of 0 or less give
// ratio 0. In single precision, on purpose.
const char* get_in_out_ratio_str(long long in_bytes, long long out_bytes, bool b_encode);

// The ratio alone: " 75.00%". Here one side of 0 gives "100.00%", and both give "  0.00%".
std::string get_in_out_ratio_str(unsigned long long in_bytes, unsigned long long out_bytes, bool b_encode);

// The same as a field of a row. `at`: 32 free bytes.
char* put_in_out_ratio(char* at, unsigned long long in_bytes, unsigned long long out_bytes, bool b_encode);

// The time since a moment (seconds since the epoch; 0 or less: unknown, printed as "0s"): "2h3m4s", "1d3h", "45d".
const char* get_age_str(long long cache_time);

// The same as a field of a row. `at`: 256 free bytes.
char* put_age(char* at, long long cache_time);

// A moment (seconds since the epoch) in local time: "03/07/2011 14:05:09".
const char* get_time_str(int t);

// The same as a field of a row. `at`: 32 free bytes.
char* put_time(char* at, int t);

// Prints the message-size histogram of a slot: six counters from first_id on, as percentages of their sum.
void show_msg_size_dist(const RE_conn_slot& c, int first_id);
