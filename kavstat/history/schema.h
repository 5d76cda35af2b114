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

// In the file's header, so that file(1) and we tell a history from other databases.
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
    std::string key;       // what follows the columns, such as the primary key
    bool b_own_row = true; // rows have a number of their own, "rowid"

    std::string column_names() const; // "id, time, ..."
    std::string insertion() const;    // an INSERT with one parameter per column
};

// What has identities and figures: two tables, and a view of the name that joins them.
enum class HistoryKind
{
    peer,
    application,
    bypass,
};
constexpr HistoryKind all_history_kinds[] = {HistoryKind::peer, HistoryKind::application, HistoryKind::bypass};
const char* word_of(HistoryKind kind);

// In the order in which they are made.
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

// Makes what is missing: everything in a new file, otherwise columns of counters that have come since. Returns why the
// file cannot be used, or nothing.
std::string prepare_schema(Database& database);
// Whether the file is a history that this program can read. Returns why not, or nothing.
std::string check_schema(Database& database);

// The names of a table's columns in this file; of another release, it may have others.
std::vector<std::string> columns_in(Database& database, const std::string& table);
// For a SELECT: the table's columns; those that the file does not have are 0.
std::string selection(Database& database, const HistoryTable& table);

} // namespace kavstat
