// Error reporting of the commands.
#pragma once

#include "format/output.h"
#include "health/rules.h"
#include "model/source.h"

#include <optional>
#include <string>

namespace kavstat {

// Prints "kavstat: TEXT" on standard error, with TEXT as printable text.
void report_error(const std::string& text);

// Opens the statistics, or reports why that failed. Returns 0 or an ExitStatus.
int open_or_report(Source& source);

// Reports statistics that were truncated while they were read. Nothing that was made from them may be shown then.
// Returns 0 or an ExitStatus.
int report_if_cut(Source& source);

// Reads the file of rule settings, if there is one. Reports a mistake in it and returns nothing then.
std::optional<RuleSet> read_rules_or_report(const std::optional<std::string>& file);

// Flushes the output. Reports a failure, unless the reader of the output has gone away. Returns 0 or an ExitStatus.
int finish_output(Output& output, const DescriptorSink& sink);

} // namespace kavstat
