// How commands tell what went wrong.
#pragma once

#include "RE_output.h"
#include "RE_source.h"

#include <string>

// "kavstat: TEXT" on standard error, TEXT as printable text.
void report_error(const std::string& text);

// Opens the statistics, or says why not. Returns 0 or an RE_exit_status.
int open_or_report(RE_source& source);

// Says so when the statistics were cut short while they were read, after which what was made of them is not to be
// shown. Returns 0 or an RE_exit_status.
int report_if_cut(RE_source& source);

// Hands over the rest of the output, and says why not unless nobody reads it any more. Returns 0 or an RE_exit_status.
int finish_output(RE_output& output, const RE_descriptor_sink& sink);
