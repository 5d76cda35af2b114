// The tables of a recorded history. Their columns come from the descriptions of counters and of fields, so that they
// have the names that JSON has. kav-history(5) describes them for people who write queries.
#pragma once

#include "history/database.h"
#include "model/counter_names.h"
#include "model/record_fields.h"

#include <span>
#include <string>
#include <vector>

namespace kavstat {

// Stored in the file's header. file(1) and open_history() recognise a history by it.
constexpr int history_application_id = 0x4b415648; // "KAVH"
// Goes up when a table or column changes its meaning or goes away. New columns alone do not change it.
constexpr int history_version = 1;

// What the names of columns of sums over connections begin with.
constexpr const char* sums_prefix = "conn_";

struct HistoryColumn
{
    std::string name;
    const char* type; // "INTEGER", "TEXT" ...
};

struct HistoryTable
{
    std::string name;
    std::vector<HistoryColumn> columns;
    std::string key;       // follows the columns, such as the primary key
    bool b_own_row = true; // rows have a "rowid"

    std::string column_names() const; // "id, time, ..."
    std::string insertion() const;    // an INSERT with one parameter per column
};

// Entries with identities and figures: each kind has two tables, and a view of its name that joins them.
enum class HistoryKind
{
    peer,
    application,
    bypass,
};
constexpr HistoryKind all_history_kinds[] = {HistoryKind::peer, HistoryKind::application, HistoryKind::bypass};
const char* word_of(HistoryKind kind);

// In the order in which they are created.
const std::vector<HistoryTable>& history_tables();
const HistoryTable& history_table(const std::string& name);
inline const HistoryTable& identities_of(HistoryKind kind)
{
    return history_table(word_of(kind) + std::string("_identity"));
}
inline const HistoryTable& figures_of(HistoryKind kind)
{
    return history_table(word_of(kind) + std::string("_figures"));
}
// The columns of a counter scope, one per id, in the order of ids.
std::vector<HistoryColumn> counter_columns(CounterScope scope, const std::string& prefix = {});

// Creates all tables in a new file. In an older one, adds the columns of counters that it does not have. Returns why
// the file cannot be used, or nothing.
std::string prepare_schema(Database& database);
// Whether the file is a history that this program can read. Returns why not, or nothing.
std::string check_schema(Database& database);

// The names of a table's columns in this file, which may come from another release.
std::vector<std::string> columns_in(Database& database, const std::string& table);
// For a SELECT: the table's columns, with NULL for those that the file does not have.
std::string selection(Database& database, const HistoryTable& table);

} // namespace kavstat
