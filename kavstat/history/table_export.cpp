#include "history/table_export.h"

#include "format/json_writer.h"
#include "format/text.h"
#include "history/schema.h"

#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace kavstat {

namespace {

constexpr const char* own_tables = "type IN ('table', 'view') AND name NOT LIKE 'sqlite\\_%' ESCAPE '\\'";

// The SQL condition for rows of a span; empty when the table's rows have no time. Two parameters: the ends of the span.
std::string condition_for(const std::vector<std::string>& columns)
{
    const auto has = [&](const char* name) { return std::find(columns.begin(), columns.end(), name) != columns.end(); };
    const std::string of_samples = " IN (SELECT id FROM sample WHERE time >= ?1 AND time <= ?2)";
    if (has("time")) {
        return "time >= ?1 AND time <= ?2";
    }
    if (has("start_time")) {
        return "start_time >= ?1 AND start_time <= ?2";
    }
    if (has("sample")) {
        return "sample" + of_samples;
    }
    return has("first_sample") ? "first_sample" + of_samples : "";
}

std::string hex_of(std::string_view bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const char letter : bytes) {
        const auto byte = static_cast<unsigned char>(letter);
        text += digits[byte >> 4U];
        text += digits[byte & 15U];
    }
    return text;
}

std::string real_text(double value)
{
    char text[40];
    std::snprintf(text, sizeof text, "%.15g", value);
    return text;
}

void write_csv_text(std::string_view text, Output& output)
{
    const std::string clean = clean_text(text);
    if (clean.find_first_of("\",\r\n") == std::string::npos) {
        output.add(clean);
        return;
    }
    output.add('"');
    for (const char letter : clean) {
        output.add(letter);
        if (letter == '"') {
            output.add('"');
        }
    }
    output.add('"');
}

void write_csv_row(const Statement& row, Output& output)
{
    for (int column = 0; column < row.columns(); ++column) {
        if (column > 0) {
            output.add(',');
        }
        switch (row.type(column)) {
        case SQLITE_INTEGER:
            output.add_number(row.integer(column));
            break;
        case SQLITE_FLOAT:
            output.add(real_text(row.real(column)));
            break;
        case SQLITE_TEXT:
            write_csv_text(row.text(column), output);
            break;
        case SQLITE_BLOB:
            output.add(hex_of(row.bytes(column)));
            break;
        default:
            break;
        }
    }
    output.add("\r\n");
}

void write_json_row(const Statement& row, Output& output)
{
    for (int column = 0; column < row.columns(); ++column) {
        output.add(column == 0 ? '{' : ',');
        JsonWriter(output).text(row.name(column));
        output.add(':');
        switch (row.type(column)) {
        case SQLITE_INTEGER:
            output.add_number(row.integer(column));
            break;
        case SQLITE_FLOAT:
            output.add(std::isfinite(row.real(column)) ? real_text(row.real(column)) : "null");
            break;
        case SQLITE_TEXT:
            JsonWriter(output).text(row.text(column));
            break;
        case SQLITE_BLOB:
            JsonWriter(output).text(hex_of(row.bytes(column)));
            break;
        default:
            output.add("null");
            break;
        }
    }
    output.add("}\n");
}

} // namespace

std::string exported_tables(Database& database)
{
    std::string names;
    Statement row =
        database.prepare(std::string("SELECT name FROM sqlite_schema WHERE ") + own_tables + " ORDER BY name");
    while (row.next()) {
        names += (names.empty() ? "" : ", ") + std::string(row.text(0));
    }
    return names;
}

std::string export_table(Database& database, const std::string& table, ExportFormat format, const HistorySpan& span,
                         Output& output)
{
    Statement known =
        database.prepare(std::string("SELECT 1 FROM sqlite_schema WHERE ") + own_tables + " AND name = ?");
    known.bind(table);
    if (!known.next()) {
        return known.is_failed() ? database.error()
                                 : "no such table: \"" + table + "\"; there are " + exported_tables(database);
    }
    std::string sql = "SELECT * FROM " + quoted(table);
    const bool b_span = span.from || span.to;
    if (b_span) {
        const std::string condition = condition_for(columns_in(database, table));
        if (condition.empty()) {
            return "rows of \"" + table + "\" have no time";
        }
        sql += " WHERE " + condition;
    }
    Statement row = database.prepare(sql);
    if (b_span) {
        row.bind(static_cast<long long>(span.from.value_or(std::numeric_limits<std::time_t>::min())));
        row.bind(static_cast<long long>(span.to.value_or(std::numeric_limits<std::time_t>::max())));
    }
    if (!row.is_ready()) {
        return database.error();
    }
    for (int column = 0; format == ExportFormat::csv && column < row.columns(); ++column) {
        output.add(column == 0 ? "" : ",");
        write_csv_text(row.name(column), output);
    }
    output.add(format == ExportFormat::csv ? "\r\n" : "");
    while (output.is_ok() && row.next()) {
        format == ExportFormat::csv ? write_csv_row(row, output) : write_json_row(row, output);
    }
    return row.is_failed() ? database.error() : "";
}

} // namespace kavstat
