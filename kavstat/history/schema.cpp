#include "history/schema.h"

#include <algorithm>
#include <cstring>

namespace kavstat {

namespace {

const char* type_of(const FieldValue& value)
{
    const bool b_text = std::holds_alternative<IpAddress>(value) || std::holds_alternative<RE_mac_id>(value) ||
                        std::holds_alternative<RE_kav_peer_id>(value) || std::holds_alternative<Word>(value) ||
                        std::holds_alternative<std::string_view>(value);
    return b_text ? "TEXT" : "INTEGER";
}

// A field's column has the type of the field's values.
template <typename Record>
void add_fields(std::vector<HistoryColumn>& columns, Fields<Record> fields, const std::string& prefix = {})
{
    static const Record record{};
    for (const Field<Record>& field : fields) {
        columns.push_back({prefix + field.key, type_of(field.value(record))});
    }
}

void add_counters(std::vector<HistoryColumn>& columns, CounterScope scope, const std::string& prefix = {})
{
    for (HistoryColumn& column : counter_columns(scope, prefix)) {
        columns.push_back(std::move(column));
    }
}

// What figures these are is the rest of the fields.
template <typename Record>
Fields<Record> without_last(Fields<Record> fields, std::size_t count)
{
    return fields.first(fields.size() - count);
}

HistoryTable identities(const char* name, std::vector<HistoryColumn> columns)
{
    HistoryTable table{std::string(name) + "_identity",
                       {{"id", "INTEGER PRIMARY KEY"},
                        {"engine_start", "INTEGER NOT NULL REFERENCES engine_start(id)"},
                        {"first_sample", "INTEGER NOT NULL"},
                        {"gone_sample", "INTEGER"}},
                       ""};
    std::move(columns.begin(), columns.end(), std::back_inserter(table.columns));
    return table;
}

HistoryTable figures(const char* name, std::vector<HistoryColumn> columns)
{
    HistoryTable table{std::string(name) + "_figures",
                       {{"sample", "INTEGER NOT NULL"}, {"identity", "INTEGER NOT NULL"}},
                       "PRIMARY KEY (sample, identity)",
                       false};
    std::move(columns.begin(), columns.end(), std::back_inserter(table.columns));
    return table;
}

std::vector<HistoryTable> make_tables()
{
    std::vector<HistoryTable> tables;
    tables.push_back({"engine_start",
                      {{"id", "INTEGER PRIMARY KEY"},
                       {"start_time", "INTEGER NOT NULL"},
                       {"kav_peer_id", "TEXT"},
                       {"application_slots", "INTEGER NOT NULL"},
                       {"first_sample", "INTEGER NOT NULL"}},
                      ""});

    HistoryTable configuration{
        "configuration", {{"id", "INTEGER PRIMARY KEY"}, {"first_sample", "INTEGER NOT NULL"}}, ""};
    add_fields(configuration.columns, config_fields);
    configuration.columns.push_back({"record", "BLOB"});
    tables.push_back(std::move(configuration));

    tables.push_back({"sample",
                      {{"id", "INTEGER PRIMARY KEY AUTOINCREMENT"},
                       {"time", "INTEGER NOT NULL"},
                       {"engine_start", "INTEGER NOT NULL REFERENCES engine_start(id)"},
                       {"elapsed", "REAL"},
                       {"configuration", "INTEGER REFERENCES configuration(id)"},
                       {"base", "INTEGER NOT NULL"},
                       {"first_nack", "INTEGER NOT NULL"},
                       {"end_nack", "INTEGER NOT NULL"},
                       {"bypass_table", "INTEGER NOT NULL"}},
                      ""});

    HistoryTable engine{"engine_figures", {{"sample", "INTEGER PRIMARY KEY"}}, ""};
    add_fields(engine.columns, engine_fields);
    add_counters(engine.columns, CounterScope::engine);
    add_counters(engine.columns, CounterScope::connection, sums_prefix);
    tables.push_back(std::move(engine));

    // The last field of a peer, and the last two of an application and three of a server, change all the time.
    std::vector<HistoryColumn> columns;
    add_fields(columns, without_last(peer_fields, 1));
    columns.push_back({"context_id", "TEXT"});
    tables.push_back(identities("peer", std::move(columns)));
    columns = {};
    add_fields(columns, peer_fields.last(1));
    add_counters(columns, CounterScope::peer);
    add_counters(columns, CounterScope::connection, sums_prefix);
    tables.push_back(figures("peer", std::move(columns)));

    columns = {};
    add_fields(columns, without_last(app_fields, 2));
    tables.push_back(identities("application", std::move(columns)));
    columns = {};
    add_fields(columns, app_fields.last(2));
    add_counters(columns, CounterScope::application);
    tables.push_back(figures("application", std::move(columns)));

    columns = {};
    add_fields(columns, without_last(bypass_fields, 3));
    tables.push_back(identities("bypass", std::move(columns)));
    columns = {};
    add_fields(columns, bypass_fields.last(3));
    tables.push_back(figures("bypass", std::move(columns)));

    HistoryTable connection{
        "connection", {{"sample", "INTEGER NOT NULL"}}, "PRIMARY KEY (sample, slot, id, open_time)", false};
    add_fields(connection.columns, connection_fields);
    add_fields(connection.columns, transport_fields, "transport_");
    connection.columns.push_back({"transport_record", "BLOB"});
    add_counters(connection.columns, CounterScope::connection);
    tables.push_back(std::move(connection));

    HistoryTable nack{"nack",
                      {{"engine_start", "INTEGER NOT NULL REFERENCES engine_start(id)"},
                       {"number", "INTEGER NOT NULL"},
                       {"sample", "INTEGER NOT NULL"}},
                      "PRIMARY KEY (engine_start, number)",
                      false};
    add_fields(nack.columns, nack_fields);
    tables.push_back(std::move(nack));

    HistoryTable log{"top_app_log",
                     {{"id", "INTEGER PRIMARY KEY"},
                      {"name", "TEXT NOT NULL"},
                      {"layout", "INTEGER NOT NULL"},
                      {"size", "INTEGER NOT NULL"},
                      {"checksum", "TEXT NOT NULL"},
                      {"sections", "INTEGER NOT NULL"},
                      {"records", "INTEGER NOT NULL"},
                      {"imported", "INTEGER NOT NULL"}},
                     ""};
    tables.push_back(std::move(log));
    HistoryTable record{"top_app_record",
                        {{"log", "INTEGER NOT NULL REFERENCES top_app_log(id)"},
                         {"number", "INTEGER NOT NULL"},
                         {"section", "INTEGER NOT NULL"},
                         {"application", "TEXT"},
                         {"classifier", "TEXT"}},
                        "PRIMARY KEY (log, number)",
                        false};
    add_fields(record.columns, app_fields.subspan(2));
    add_counters(record.columns, CounterScope::application);
    tables.push_back(std::move(record));
    return tables;
}

std::string definition(const HistoryTable& table)
{
    std::string sql = "CREATE TABLE IF NOT EXISTS " + sql_name(table.name) + " (";
    for (const HistoryColumn& column : table.columns) {
        sql += (&column == table.columns.data() ? "" : ", ") + sql_name(column.name) + " " + column.type;
    }
    return sql + (table.key.empty() ? "" : ", " + table.key) + (table.b_own_row ? ")" : ") WITHOUT ROWID");
}

// The views have their time beside each row, and what a row of figures belongs to.
std::string view_of(HistoryKind kind)
{
    std::string sql = std::string("CREATE VIEW ") + word_of(kind) +
                      " AS SELECT f.sample, s.time, s.elapsed, s.engine_start, f.identity";
    for (const HistoryColumn& column : identities_of(kind).columns) {
        if (column.name != "id" && column.name != "engine_start" && column.name != "first_sample" &&
            column.name != "gone_sample") {
            sql += ", i." + sql_name(column.name);
        }
    }
    for (const HistoryColumn& column : figures_of(kind).columns) {
        if (column.name != "sample" && column.name != "identity") {
            sql += ", f." + sql_name(column.name);
        }
    }
    return sql + " FROM " + figures_of(kind).name + " f JOIN sample s ON s.id = f.sample JOIN " +
           identities_of(kind).name + " i ON i.id = f.identity";
}

std::string view_of_engine()
{
    std::string sql = "CREATE VIEW engine AS SELECT f.sample, s.time, s.elapsed, s.engine_start";
    for (const HistoryColumn& column : history_table("engine_figures").columns) {
        if (column.name != "sample") {
            sql += ", f." + sql_name(column.name);
        }
    }
    return sql + " FROM engine_figures f JOIN sample s ON s.id = f.sample";
}

std::string version_error(long long version)
{
    return "its layout has version " + std::to_string(version) + ", which is newer than this program's (" +
           std::to_string(history_version) + ")";
}

bool make_tables_in(Database& database)
{
    for (const HistoryTable& table : history_tables()) {
        if (!database.run(definition(table))) {
            return false;
        }
        const std::vector<std::string> there = columns_in(database, table.name);
        for (const HistoryColumn& column : table.columns) {
            if (std::find(there.begin(), there.end(), column.name) == there.end() &&
                !database.run("ALTER TABLE " + sql_name(table.name) + " ADD COLUMN " + sql_name(column.name) + " " +
                              column.type)) {
                return false;
            }
        }
    }
    for (const char* const sql :
         {"CREATE INDEX IF NOT EXISTS sample_time ON sample(time)",
          "CREATE INDEX IF NOT EXISTS peer_identity_start ON peer_identity(engine_start)",
          "CREATE INDEX IF NOT EXISTS application_identity_start ON application_identity(engine_start)",
          "CREATE INDEX IF NOT EXISTS bypass_identity_start ON bypass_identity(engine_start)",
          "DROP VIEW IF EXISTS engine", "DROP VIEW IF EXISTS peer", "DROP VIEW IF EXISTS application",
          "DROP VIEW IF EXISTS bypass"}) {
        if (!database.run(sql)) {
            return false;
        }
    }
    bool b_ok = database.run(view_of_engine());
    for (const HistoryKind kind : all_history_kinds) {
        b_ok = b_ok && database.run(view_of(kind));
    }
    return b_ok;
}

} // namespace

std::string HistoryTable::column_names() const
{
    std::string names;
    for (const HistoryColumn& column : columns) {
        names += (names.empty() ? "" : ", ") + sql_name(column.name);
    }
    return names;
}

std::string HistoryTable::insertion() const
{
    std::string sql = "INSERT INTO " + sql_name(name) + " (" + column_names() + ") VALUES (";
    for (std::size_t at = 0; at < columns.size(); ++at) {
        sql += at == 0 ? "?" : ", ?";
    }
    return sql + ")";
}

const char* word_of(HistoryKind kind)
{
    switch (kind) {
    case HistoryKind::peer:
        return "peer";
    case HistoryKind::application:
        return "application";
    default:
        return "bypass";
    }
}

const std::vector<HistoryTable>& history_tables()
{
    static const std::vector<HistoryTable> tables = make_tables();
    return tables;
}

const HistoryTable& history_table(const std::string& name)
{
    const std::vector<HistoryTable>& tables = history_tables();
    return *std::find_if(tables.begin(), tables.end(), [&](const HistoryTable& table) { return table.name == name; });
}

std::vector<HistoryColumn> counter_columns(CounterScope scope, const std::string& prefix)
{
    std::vector<HistoryColumn> columns;
    for (const NamedCounter& counter : counters_of(scope)) {
        for (int place = 0; place < counter.size(); ++place) {
            columns.push_back(
                {prefix + counter.key + (counter.is_range() ? "_" + std::to_string(place) : ""), "INTEGER"});
        }
    }
    return columns;
}

std::string prepare_schema(Database& database)
{
    const bool b_new = database.number("SELECT count(*) FROM sqlite_schema").value_or(-1) == 0;
    if (b_new) {
        // Before anything is stored in the file: free pages can then be given back to the system.
        database.run("PRAGMA auto_vacuum = INCREMENTAL");
    } else if (std::string error = check_schema(database); !error.empty()) {
        return error;
    }
    // Every sample is written before it is reported; only a power failure may take the last ones.
    if (database.text("PRAGMA journal_mode = WAL").value_or("") != "wal" ||
        !database.run("PRAGMA synchronous = NORMAL")) {
        return database.error();
    }
    Transaction transaction(database);
    const bool b_made = transaction.is_begun() && make_tables_in(database) &&
                        database.run("PRAGMA application_id = " + std::to_string(history_application_id)) &&
                        database.run("PRAGMA user_version = " + std::to_string(history_version)) &&
                        transaction.commit();
    return b_made ? "" : database.error();
}

std::string check_schema(Database& database)
{
    const std::optional<long long> id = database.number("PRAGMA application_id");
    if (!id) {
        return database.error();
    }
    if (*id != history_application_id) {
        return "not a recorded history";
    }
    const long long version = database.number("PRAGMA user_version").value_or(0);
    if (version > history_version) {
        return version_error(version);
    }
    // A view could calculate for ever, so nothing else may have a table's name. Virtual tables have no page.
    Statement other = database.prepare(
        "SELECT lower(name) FROM sqlite_schema WHERE type = 'view' OR (type = 'table' AND rootpage = 0)");
    while (other.next()) {
        for (const HistoryTable& table : history_tables()) {
            if (other.text(0) == table.name) {
                return "\"" + table.name + "\" is not a table";
            }
        }
    }
    return other.is_ready() && !other.is_failed() ? "" : database.error();
}

std::vector<std::string> columns_in(Database& database, const std::string& table)
{
    std::vector<std::string> names;
    Statement statement = database.prepare("SELECT name FROM pragma_table_info(?)");
    statement.bind(table);
    while (statement.next()) {
        names.emplace_back(statement.text(0));
    }
    return names;
}

std::string selection(Database& database, const HistoryTable& table)
{
    const std::vector<std::string> there = columns_in(database, table.name);
    std::string names;
    for (const HistoryColumn& column : table.columns) {
        const bool b_there = std::find(there.begin(), there.end(), column.name) != there.end();
        names += (names.empty() ? "" : ", ") + (b_there ? sql_name(column.name) : "NULL");
    }
    return names;
}

} // namespace kavstat
