// Writes a table of a history, row by row.
#pragma once

#include "format/output.h"
#include "history/database.h"
#include "history/reader.h"

#include <string>

namespace kavstat {

enum class ExportFormat
{
    csv,   // as in RFC 4180, with the names of the columns first
    jsonl, // an object on each line
};

// The names of all tables and views that can be exported, joined by commas.
std::string exported_tables(Database& database);

// Returns why nothing was written, or why it ended early, or nothing. Stops when the output fails.
std::string export_table(Database& database, const std::string& table, ExportFormat format, const HistorySpan& span,
                         Output& output);

} // namespace kavstat
