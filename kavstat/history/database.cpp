#include "history/database.h"

#include <sqlite3.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kavstat {

namespace {

// A file name as SQLite reads it with parameters.
std::string uri_of(const std::string& path)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string uri = "file:";
    for (const char letter : path) {
        const auto byte = static_cast<unsigned char>(letter);
        if (byte <= 0x20 || byte >= 0x7f || letter == '%' || letter == '?' || letter == '#') {
            uri += '%';
            uri += digits[byte >> 4U];
            uri += digits[byte & 15U];
        } else {
            uri += letter;
        }
    }
    return uri;
}

// Why the file cannot be a database, or nothing. SQLite would wait for the writer of a FIFO. A new file is readable for
// its owner and group alone, as it contains names and addresses; SQLite gives the files beside it the same permissions.
std::string check_file(const std::string& path, Database::Access access)
{
    if (access == Database::Access::write) {
        const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
        if (file >= 0) {
            ::close(file);
        }
    }
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return std::strerror(errno);
    }
    return S_ISREG(status.st_mode) ? "" : "not a regular file";
}

} // namespace

void Statement::Finalize::operator()(sqlite3_stmt* statement) const
{
    sqlite3_finalize(statement);
}

Statement& Statement::bind(long long value)
{
    sqlite3_bind_int64(m_statement.get(), ++m_parameter, value);
    return *this;
}

Statement& Statement::bind(double value)
{
    sqlite3_bind_double(m_statement.get(), ++m_parameter, value);
    return *this;
}

Statement& Statement::bind(std::string_view text)
{
    sqlite3_bind_text64(m_statement.get(), ++m_parameter, text.data() != nullptr ? text.data() : "", text.size(),
                        SQLITE_TRANSIENT, SQLITE_UTF8);
    return *this;
}

Statement& Statement::bind_bytes(const void* bytes, std::size_t size)
{
    sqlite3_bind_blob64(m_statement.get(), ++m_parameter, bytes, size, SQLITE_TRANSIENT);
    return *this;
}

Statement& Statement::bind_null()
{
    sqlite3_bind_null(m_statement.get(), ++m_parameter);
    return *this;
}

bool Statement::next()
{
    if (m_statement == nullptr || m_b_failed) {
        m_b_failed = true;
        return false;
    }
    const int result = sqlite3_step(m_statement.get());
    m_b_failed = result != SQLITE_ROW && result != SQLITE_DONE;
    return result == SQLITE_ROW;
}

bool Statement::run()
{
    next();
    const bool b_ok = !m_b_failed;
    restart();
    return b_ok;
}

void Statement::restart()
{
    sqlite3_reset(m_statement.get());
    m_parameter = 0;
    m_b_failed = false;
}

long long Statement::integer(int column) const
{
    return sqlite3_column_int64(m_statement.get(), column);
}

double Statement::real(int column) const
{
    return sqlite3_column_double(m_statement.get(), column);
}

std::string_view Statement::text(int column) const
{
    const unsigned char* const text = sqlite3_column_text(m_statement.get(), column);
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(m_statement.get(), column));
    return text != nullptr ? std::string_view(reinterpret_cast<const char*>(text), size) : std::string_view();
}

std::string_view Statement::bytes(int column) const
{
    const void* const bytes = sqlite3_column_blob(m_statement.get(), column);
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(m_statement.get(), column));
    return bytes != nullptr ? std::string_view(static_cast<const char*>(bytes), size) : std::string_view();
}

bool Statement::is_null(int column) const
{
    return type(column) == SQLITE_NULL;
}

int Statement::type(int column) const
{
    return sqlite3_column_type(m_statement.get(), column);
}

int Statement::columns() const
{
    return sqlite3_column_count(m_statement.get());
}

const char* Statement::name(int column) const
{
    return sqlite3_column_name(m_statement.get(), column);
}

bool Database::open_as(const std::string& name, int flags)
{
    close();
    return sqlite3_open_v2(name.c_str(), &m_database, flags | SQLITE_OPEN_URI | SQLITE_OPEN_EXRESCODE, nullptr) ==
               SQLITE_OK &&
           // The file may come from another user, who may have added triggers, or views that call functions with
           // side effects.
           sqlite3_db_config(m_database, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr) == SQLITE_OK &&
           sqlite3_db_config(m_database, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr) == SQLITE_OK &&
           // SQLite opens the file itself only now, and reads its header.
           run("PRAGMA schema_version");
}

bool Database::open(const std::string& path, Access access)
{
    m_path = path;
    close();
    m_file_error = check_file(path, access);
    if (!m_file_error.empty()) {
        return false;
    }
    const std::string uri = uri_of(path);
    bool b_open =
        open_as(uri, access == Access::write ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE : SQLITE_OPEN_READONLY);
    // A reader of the write-ahead log needs the file FILE-shm. Where it may not create that file and no other process
    // has, the database is not being written, and the file alone is complete as long as the log is empty.
    struct stat log = {};
    const bool b_no_log = code() == SQLITE_CANTOPEN || code() == SQLITE_READONLY;
    if (!b_open && access == Access::read && b_no_log && ::access(path.c_str(), R_OK) == 0 &&
        (stat((path + "-wal").c_str(), &log) != 0 || log.st_size == 0)) {
        b_open = open_as(uri + "?immutable=1", SQLITE_OPEN_READONLY);
    }
    if (b_open) {
        sqlite3_busy_timeout(m_database, static_cast<int>(m_patience.count()));
    }
    return b_open;
}

void Database::close()
{
    m_rolled_back.reset();
    sqlite3_close(m_database);
    m_database = nullptr;
}

bool Database::run(const std::string& sql)
{
    m_rolled_back.reset();
    return m_database != nullptr && sqlite3_exec(m_database, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

Statement Database::prepare(const std::string& sql)
{
    m_rolled_back.reset();
    sqlite3_stmt* statement = nullptr;
    if (m_database != nullptr) {
        sqlite3_prepare_v2(m_database, sql.data(), static_cast<int>(sql.size()), &statement, nullptr);
    }
    return Statement(statement);
}

std::optional<long long> Database::number(const std::string& sql)
{
    Statement statement = prepare(sql);
    return statement.next() && !statement.is_null(0) ? std::optional(statement.integer(0)) : std::nullopt;
}

std::optional<std::string> Database::text(const std::string& sql)
{
    Statement statement = prepare(sql);
    return statement.next() && !statement.is_null(0) ? std::optional(std::string(statement.text(0))) : std::nullopt;
}

long long Database::last_row() const
{
    return sqlite3_last_insert_rowid(m_database);
}

long long Database::changed_rows() const
{
    return sqlite3_changes64(m_database);
}

void Database::roll_back()
{
    std::optional<Failure> failure;
    if (!is_well()) {
        failure = Failure{code(), error()};
    }
    run("ROLLBACK");
    m_rolled_back = std::move(failure);
}

std::string Database::error() const
{
    if (!m_file_error.empty()) {
        return m_file_error;
    }
    if (m_rolled_back) {
        return m_rolled_back->error;
    }
    return m_database != nullptr ? sqlite3_errmsg(m_database) : "not enough memory";
}

int Database::code() const
{
    return m_rolled_back ? m_rolled_back->code : sqlite3_errcode(m_database) & 0xff;
}

bool Database::is_well() const
{
    return code() == SQLITE_OK || code() == SQLITE_ROW || code() == SQLITE_DONE;
}

Transaction::~Transaction()
{
    if (m_b_begun) {
        m_database.roll_back();
    }
}

bool Transaction::commit()
{
    const bool b_done = m_b_begun && m_database.run("COMMIT");
    m_b_begun = m_b_begun && !b_done;
    return b_done;
}

std::string sql_name(std::string_view name)
{
    std::string text = "\"";
    for (const char letter : name) {
        text += letter;
        if (letter == '"') {
            text += '"';
        }
    }
    return text + '"';
}

} // namespace kavstat
