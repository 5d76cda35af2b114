#include "history/top_app_import.h"

#include "RE_descriptor.h"
#include "format/text.h"
#include "history/rows.h"
#include "history/schema.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace kavstat {

namespace {

constexpr std::size_t handles = 1024; // a record has 10 bits for its handle
constexpr std::size_t buffer_size = std::size_t{1} << 20;
// Of a log without sections, in one transaction.
constexpr long long records_at_once = 20000;

// The names of a handle, as a section stores them.
struct __attribute__((packed)) LoggedNames
{
    RE_stat_policy_engine_header names;
    std::uint32_t handle;
};
static_assert(sizeof(LoggedNames) == 86);

// What was imported of a log before.
struct KnownLog
{
    long long id = 0; // 0 for a new log
    long long size = 0;
    long long sections = 0;
    long long records = 0;
};

// Reads a file and calculates the checksum of all bytes read.
class LogFile
{
public:
    LogFile() { XXH64_reset(&m_state, 0); }

    std::string open(const std::string& path)
    {
        m_file = RE_descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
        struct stat status = {};
        if (!m_file.is_open() || fstat(m_file.number(), &status) != 0) {
            return std::strerror(errno);
        }
        if (!S_ISREG(status.st_mode)) {
            return "not a regular file";
        }
        m_size = status.st_size;
        m_buffer.resize(buffer_size);
        return m_size == 0 ? "the file is empty" : "";
    }

    long long size() const { return m_size; }
    long long place() const { return m_place; }
    long long left() const { return m_size - m_place; }

    // False when the file has fewer bytes, or cannot be read.
    bool read(void* bytes, std::size_t size)
    {
        auto* to = static_cast<unsigned char*>(bytes);
        while (size > 0) {
            if (m_first == m_end && !fill()) {
                return false;
            }
            const std::size_t part = std::min(size, m_end - m_first);
            std::memcpy(to, m_buffer.data() + m_first, part);
            XXH64_update(&m_state, to, part);
            to += part;
            size -= part;
            m_first += part;
            m_place += static_cast<long long>(part);
        }
        return true;
    }
    bool skip_to(long long place)
    {
        std::array<unsigned char, 4096> bytes{};
        while (m_place < place) {
            const auto part = std::min<long long>(place - m_place, static_cast<long long>(bytes.size()));
            if (!read(bytes.data(), static_cast<std::size_t>(part))) {
                return false;
            }
        }
        return true;
    }
    bool rewind()
    {
        m_first = m_end = 0;
        m_place = 0;
        XXH64_reset(&m_state, 0);
        return lseek(m_file.number(), 0, SEEK_SET) == 0;
    }
    // Of all bytes up to the place.
    std::string checksum() const
    {
        char text[24];
        std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(XXH64_digest(&m_state)));
        return text;
    }

private:
    bool fill()
    {
        ssize_t count = 0;
        do {
            count = ::read(m_file.number(), m_buffer.data(), m_buffer.size());
        } while (count < 0 && errno == EINTR);
        m_first = 0;
        m_end = count > 0 ? static_cast<std::size_t>(count) : 0;
        return count > 0;
    }

    RE_descriptor m_file;
    XXH64_state_t m_state{};
    std::vector<unsigned char> m_buffer;
    std::size_t m_first = 0;
    std::size_t m_end = 0;
    long long m_size = 0;
    long long m_place = 0;
};

class LogImport
{
public:
    LogImport(Database& database, const std::string& path, std::time_t now, const ImportCallbacks& callbacks)
        : m_database(database), m_path(path), m_now(now), m_callbacks(callbacks)
    {}

    ImportResult run()
    {
        m_result.error = m_file.open(m_path);
        std::uint32_t first = 0;
        if (!m_result.error.empty() || !find_known()) {
            return m_result;
        }
        if (m_log.size == m_file.size()) {
            return m_result;
        }
        if (!m_file.rewind() || !m_file.read(&first, sizeof first) || !m_file.rewind() || !m_file.skip_to(m_log.size)) {
            m_result.error = "it cannot be read, or is shorter than four bytes";
            return m_result;
        }
        m_add = m_database.prepare(history_table("top_app_record").insertion());
        const bool b_sections = first == RE_STAT_TOP_APP_LOG_BELVANO;
        m_layout = b_sections ? RE_STAT_TOP_APP_LOG_BELVANO : RE_STAT_TOP_APP_LOG_QUADA;
        while (m_result.error.empty() && m_file.left() > 0) {
            import_part(b_sections);
            m_callbacks.progress(static_cast<double>(m_file.place()) / static_cast<double>(m_file.size()));
        }
        return m_result;
    }

private:
    // Finds the largest known log that this one begins with.
    bool find_known()
    {
        Statement row = m_database.prepare(
            "SELECT id, size, checksum, sections, records FROM top_app_log WHERE size BETWEEN 0 AND ?1 AND "
            "sections BETWEEN 0 AND ?1 AND records BETWEEN 0 AND ?1 ORDER BY size");
        row.bind(m_file.size());
        while (row.next()) {
            if (!m_file.skip_to(row.integer(1))) {
                m_result.error = "it cannot be read";
                return false;
            }
            if (m_file.checksum() == row.text(2)) {
                m_log = {row.integer(0), row.integer(1), row.integer(3), row.integer(4)};
            }
        }
        if (row.is_failed() || !row.is_ready()) {
            m_result.error = m_database.error();
            return false;
        }
        return true;
    }

    bool fail(const std::string& reason)
    {
        m_result.error = reason;
        return false;
    }
    bool fail_cut() { return fail("it is truncated after byte " + std::to_string(m_file.size())); }

    // Imports a section, or a number of records, in one transaction.
    void import_part(bool b_section)
    {
        const long long before = m_log.records;
        long long records = 0;
        if (b_section) {
            std::uint32_t count = 0;
            if (!read_section_head(count)) {
                return;
            }
            records = count;
        } else {
            records = std::min(m_file.left() / static_cast<long long>(sizeof(RE_stat_app_log_record)), records_at_once);
            if (records == 0) {
                fail_cut();
                return;
            }
        }
        // In a transaction, the write-ahead log could not be emptied.
        if (!has_room_for(records)) {
            return;
        }
        Transaction transaction(m_database);
        bool b_ok = transaction.is_begun() && begin_log();
        if (!b_ok) {
            fail(m_database.error());
            return;
        }
        for (long long at = 0; b_ok && at < records; ++at) {
            b_ok = import_record();
        }
        if (!b_ok) {
            return;
        }
        m_log.sections += b_section ? 1 : 0;
        if (!end_log() || !transaction.commit()) {
            fail(m_database.error());
            return;
        }
        m_result.records += m_log.records - before;
    }

    bool has_room_for(long long records)
    {
        // The most that a record takes with both names, in pages that are not full.
        constexpr long long bytes_of_record = 400;
        constexpr long long other_pages = 32LL * 4096;
        return m_callbacks.has_room(records * bytes_of_record + other_pages) ||
               fail("the database has no room for the rest within --max-size");
    }

    bool read_section_head(std::uint32_t& records)
    {
        std::uint32_t version = 0;
        std::uint32_t names = 0;
        const long long place = m_file.place();
        for (auto& name : m_names) {
            name.reset();
        }
        if (!m_file.read(&version, sizeof version)) {
            return fail_cut();
        }
        if (version != RE_STAT_TOP_APP_LOG_BELVANO) {
            return fail("at byte " + std::to_string(place) + " there is no section");
        }
        if (!m_file.read(&names, sizeof names) ||
            static_cast<long long>(names) * static_cast<long long>(sizeof(LoggedNames)) > m_file.left()) {
            return fail_cut();
        }
        for (std::uint32_t at = 0; at < names; ++at) {
            LoggedNames logged{};
            if (!m_file.read(&logged, sizeof logged)) {
                return fail_cut();
            }
            // Of several names for a handle, the first are valid.
            if (logged.handle < handles && !m_names[logged.handle]) {
                m_names[logged.handle] = logged.names;
            }
        }
        const bool b_whole =
            m_file.read(&records, sizeof records) &&
            static_cast<long long>(records) * static_cast<long long>(sizeof(RE_stat_app_log_record)) <= m_file.left();
        return b_whole || fail_cut();
    }

    bool import_record()
    {
        RE_stat_app_log_record logged{};
        const long long place = m_file.place();
        if (!m_file.read(&logged, sizeof logged)) {
            return fail_cut();
        }
        if (logged.m_header.m_reserve_not_used != 0) {
            return fail("at byte " + std::to_string(place) + " there is no record; is it a top-application log?");
        }
        SnapshotApp app;
        app.app = app_record_as<RE_stat_app_struct>(logged);
        m_add.bind(m_log.id).bind(++m_log.records).bind(m_log.sections + 1);
        if (const auto& names = m_names[app.app.m_header.m_policy_engine_handler]) {
            m_add.bind(clean_text(text_in(names->m_policy_engine_application_name)));
            m_add.bind(clean_text(text_in(names->m_policy_engine_classifier_name)));
        } else {
            m_add.bind_null().bind_null();
        }
        bind_fields(m_add, app_fields.subspan(2), app);
        bind_counters(m_add, CounterScope::application, std::span<const std::uint32_t>(app.app.m_id_array));
        return m_add.run() || fail(m_database.error());
    }

    bool begin_log()
    {
        if (m_log.id != 0) {
            return true;
        }
        Statement statement = m_database.prepare(history_table("top_app_log").insertion());
        statement.bind_null().bind(clean_text(m_path)).bind(m_layout).bind(0).bind("").bind(0).bind(0);
        const bool b_ok = statement.bind(m_now).run();
        m_log.id = b_ok ? m_database.last_row() : 0;
        return b_ok;
    }

    bool end_log()
    {
        Statement statement = m_database.prepare(
            "UPDATE top_app_log SET name = ?, size = ?, checksum = ?, sections = ?, records = ?, imported = ? "
            "WHERE id = ?");
        return statement.bind(clean_text(m_path))
            .bind(m_file.place())
            .bind(m_file.checksum())
            .bind(m_log.sections)
            .bind(m_log.records)
            .bind(m_now)
            .bind(m_log.id)
            .run();
    }

    Database& m_database;
    const std::string& m_path;
    std::time_t m_now;
    const ImportCallbacks& m_callbacks;
    LogFile m_file;
    KnownLog m_log;
    int m_layout = 0;
    std::array<std::optional<RE_stat_policy_engine_header>, handles> m_names; // of the section, by handle
    Statement m_add;
    ImportResult m_result;
};

} // namespace

ImportResult import_top_app_log(Database& database, const std::string& path, std::time_t now,
                                const ImportCallbacks& callbacks)
{
    return LogImport(database, path, now, callbacks).run();
}

} // namespace kavstat
