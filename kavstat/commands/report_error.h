// How commands tell what went wrong.
#pragma once

#include "format/output.h"
#include "model/source.h"

#include <string>

namespace kavstat {

// "kavstat: TEXT" on standard error, TEXT as printable text.
void report_error(const std::string& text);

// Opens the statistics, or says why not. Returns 0 or an ExitStatus.
int open_or_report(Source& source);

// Says so when the statistics were cut short while they were read, after which what was made of them is not to be
// shown. Returns 0 or an ExitStatus.
int report_if_cut(Source& source);

// Hands over the rest of the output, and says why not unless nobody reads it any more. Returns 0 or an ExitStatus.
int finish_output(Output& output, const DescriptorSink& sink);

} // namespace kavstat
