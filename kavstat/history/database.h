// A thin layer over SQLite: handles that close themselves, and errors as values. Nothing here throws, except when
// memory is exhausted.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace kavstat {

// A prepared statement. After an error, every call does nothing, and Database::error() says why.
class Statement
{
public:
    Statement() = default;
    explicit Statement(sqlite3_stmt* statement) : m_statement(statement) {}

    bool is_ready() const { return m_statement != nullptr; }

    // Bind the next parameter, from the first one on after a run() or a restart().
    Statement& bind(long long value);
    Statement& bind(int value) { return bind(static_cast<long long>(value)); }
    Statement& bind(long value) { return bind(static_cast<long long>(value)); }
    Statement& bind(double value);
    Statement& bind(std::string_view text);
    Statement& bind(const char* text) { return bind(std::string_view(text)); }
    Statement& bind_bytes(const void* bytes, std::size_t size);
    Statement& bind_null();
    template <typename Value>
    Statement& bind(const std::optional<Value>& value)
    {
        return value ? bind(*value) : bind_null();
    }

    // Steps to the next row. False at the end and after an error: then is_failed() is true.
    bool next();
    bool is_failed() const { return m_b_failed; }
    // Runs a statement without rows, and makes it ready to be run again. False after an error.
    bool run();
    // Ready for other parameters.
    void restart();

    // A column of the row, from 0. NULL is 0 or empty.
    long long integer(int column) const;
    double real(int column) const;
    // Valid until the next step.
    std::string_view text(int column) const;
    std::string_view bytes(int column) const;
    bool is_null(int column) const;
    int type(int column) const; // SQLITE_INTEGER ...
    int columns() const;
    const char* name(int column) const;

private:
    struct Finalize
    {
        void operator()(sqlite3_stmt* statement) const;
    };
    std::unique_ptr<sqlite3_stmt, Finalize> m_statement;
    int m_parameter = 0;
    bool m_b_failed = false;
};

class Database
{
public:
    enum class Access
    {
        read,
        write, // creates the file when it does not exist
    };

    Database() = default;
    ~Database() { close(); }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // How long a call waits for another process that has locked the file. Before open().
    void set_patience(std::chrono::milliseconds patience) { m_patience = patience; }

    bool open(const std::string& path, Access access);
    void close();
    bool is_open() const { return m_database != nullptr; }
    const std::string& path() const { return m_path; }

    // False after an error.
    bool run(const std::string& sql);
    Statement prepare(const std::string& sql);
    // The first column of the first row. Empty without a row, or after an error.
    std::optional<long long> number(const std::string& sql);
    std::optional<std::string> text(const std::string& sql);

    long long last_row() const;
    long long changed_rows() const; // by the last statement

    // Ends a transaction that failed. error() and code() still say why it failed.
    void roll_back();

    // Why the last call failed, such as "database or disk is full".
    std::string error() const;
    // The same as SQLite's primary code, such as SQLITE_FULL.
    int code() const;
    // Whether the last call went well.
    bool is_well() const;

private:
    bool open_as(const std::string& name, int flags);

    struct Failure
    {
        int code;
        std::string error;
    };
    // Another process writes for a moment only: a sample, or a part of an import.
    std::chrono::milliseconds m_patience{10000};
    sqlite3* m_database = nullptr;
    std::string m_path;
    std::string m_file_error;             // of open(): why the file was not opened at all
    std::optional<Failure> m_rolled_back; // of the transaction that has just been rolled back
};

// Rolls back unless it was committed.
class Transaction
{
public:
    explicit Transaction(Database& database) : m_database(database), m_b_begun(database.run("BEGIN IMMEDIATE")) {}
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    bool is_begun() const { return m_b_begun; }
    bool commit();

private:
    Database& m_database;
    bool m_b_begun;
};

// The name of a table or column as SQL text, whatever characters it has.
std::string sql_name(std::string_view name);

} // namespace kavstat
