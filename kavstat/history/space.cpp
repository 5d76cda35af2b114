#include "history/space.h"

#include "history/reader.h"
#include "history/schema.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <array>

namespace kavstat {

namespace {

// Tables whose rows move into another sample.
constexpr std::array moved_tables{"peer_figures", "application_figures", "bypass_figures", "connection"};

// For the file FILE-shm, which grows slowly with the log.
constexpr long long shared_bytes = 131072;

long long file_size(const std::string& path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? status.st_size : 0;
}

} // namespace

bool HistorySpace::prepare()
{
    m_steps.clear();
    m_log_records = 0;
    if (m_max_size == 0) {
        return true;
    }
    // Rooms are estimates. This limit is exact: a transaction that would exceed it fails.
    const long long pages = most_in_file() / std::max(page_size(), 1LL);
    return m_database.run("PRAGMA max_page_count = " + std::to_string(std::max(pages, 1LL))) &&
           m_database.run("PRAGMA journal_size_limit = " + std::to_string(m_max_size / 8)) &&
           // Written once a transaction, when it is complete.
           m_database.run("PRAGMA cache_spill = OFF");
}

bool HistorySpace::plan(std::time_t now)
{
    HistoryReader reader(m_database);
    const std::vector<HistorySample> samples = reader.samples({});
    if (!reader.error().empty()) {
        return false;
    }
    constexpr std::size_t most_steps = 200;
    const std::vector<ThinningStep> steps = plan_thinning(samples, m_keep, now, most_steps);
    m_steps.assign(steps.begin(), steps.end());
    return true;
}

HistorySpace::Thinning HistorySpace::thin(std::time_t now, const std::function<bool()>& is_over)
{
    do {
        if (m_is_stopped() || (m_max_size != 0 && !is_log_small(m_bytes))) {
            return Thinning::finished;
        }
        bool b_ok = true;
        if (!m_steps.empty()) {
            const ThinningStep step = m_steps.front();
            m_steps.pop_front();
            b_ok = apply(step);
            m_b_unused = m_b_unused || step.b_old;
        } else if (m_b_unused) {
            m_b_unused = false;
            b_ok = forget_unused();
        } else {
            b_ok = plan(now);
            if (b_ok && m_steps.empty()) {
                return Thinning::finished;
            }
        }
        if (!b_ok) {
            m_steps.clear();
            return Thinning::failed;
        }
    } while (!is_over());
    return Thinning::unfinished;
}

// Where the later sample has a row already, that is newer and stays.
bool HistorySpace::apply(const ThinningStep& step)
{
    const std::string sample = std::to_string(step.sample);
    Transaction transaction(m_database);
    bool b_ok = transaction.is_begun();
    for (const char* const table : moved_tables) {
        if (step.into != 0) {
            b_ok = b_ok && m_database.run(std::string("UPDATE OR IGNORE ") + table +
                                          " SET sample = " + std::to_string(step.into) + " WHERE sample = " + sample);
        }
        b_ok = b_ok && m_database.run(std::string("DELETE FROM ") + table + " WHERE sample = " + sample);
    }
    b_ok = b_ok && m_database.run("DELETE FROM engine_figures WHERE sample = " + sample);
    if (step.into != 0) {
        b_ok = b_ok && m_database.run("UPDATE sample SET elapsed = elapsed + (SELECT elapsed FROM sample WHERE id = " +
                                      sample + ") WHERE id = " + std::to_string(step.into));
    }
    // A sample that is not removed would be tried again and again: a damaged or hostile file.
    return b_ok && m_database.run("DELETE FROM sample WHERE id = " + sample) && m_database.changed_rows() == 1 &&
           transaction.commit();
}

bool HistorySpace::remove_oldest()
{
    HistoryReader reader(m_database);
    const std::optional<HistorySample> oldest = reader.first();
    const std::optional<HistorySample> next = oldest ? reader.after(*oldest) : std::nullopt;
    return next && apply({oldest->id, next->engine_start == oldest->engine_start ? next->id : 0, true});
}

// Removes rows to which no sample refers any more.
bool HistorySpace::forget_unused()
{
    Transaction transaction(m_database);
    bool b_ok = transaction.is_begun();
    const long long oldest = m_database.number("SELECT min(id) FROM sample").value_or(0);
    for (const HistoryKind kind : all_history_kinds) {
        b_ok = b_ok &&
               m_database.run("DELETE FROM " + identities_of(kind).name + " WHERE gone_sample <= " +
                              std::to_string(oldest) + " OR engine_start NOT IN (SELECT engine_start FROM sample)") &&
               m_database.run("DELETE FROM " + figures_of(kind).name + " WHERE sample = " + std::to_string(oldest) +
                              " AND identity NOT IN (SELECT id FROM " + identities_of(kind).name + ")");
    }
    return b_ok &&
           m_database.run("DELETE FROM nack WHERE engine_start NOT IN (SELECT engine_start FROM sample) OR "
                          "(engine_start = (SELECT engine_start FROM sample ORDER BY id LIMIT 1) AND number < (SELECT "
                          "first_nack FROM sample ORDER BY id LIMIT 1))") &&
           m_database.run("DELETE FROM engine_start WHERE id NOT IN (SELECT engine_start FROM sample)") &&
           m_database.run("DELETE FROM configuration WHERE id NOT IN (SELECT configuration FROM sample WHERE "
                          "configuration IS NOT NULL)") &&
           transaction.commit();
}

long long HistorySpace::page_size()
{
    return m_database.number("PRAGMA page_size").value_or(4096);
}

long long HistorySpace::used_bytes()
{
    return (m_database.number("PRAGMA page_count").value_or(0) -
            m_database.number("PRAGMA freelist_count").value_or(0)) *
           page_size();
}

// Of imported logs, which stay. Counting their pages takes long, so it is done when they have changed.
long long HistorySpace::bytes_of_logs()
{
    const long long records = m_database.number("SELECT sum(records) FROM top_app_log").value_or(0);
    if (records != m_log_records) {
        m_log_bytes =
            m_database.number("SELECT sum(pgsize) FROM dbstat WHERE name = 'top_app_record' AND aggregate = 1")
                .value_or(0);
        m_log_records = records;
    }
    return m_log_bytes;
}

bool HistorySpace::has_room(long long bytes)
{
    return m_max_size == 0 || (used_bytes() + bytes <= most_in_file() && is_log_small(bytes));
}

bool HistorySpace::empty_log()
{
    return m_database.number("PRAGMA wal_checkpoint(TRUNCATE)").value_or(1) == 0;
}

void HistorySpace::leave_room_on_disk(long long bytes)
{
    const long long log = file_size(m_database.path() + "-wal");
    struct statvfs disk = {};
    if (log > 0 && statvfs(m_database.path().c_str(), &disk) == 0 &&
        static_cast<long long>(disk.f_bavail) * static_cast<long long>(disk.f_frsize) < 2 * log + bytes) {
        empty_log();
    }
}

bool HistorySpace::is_log_small(long long bytes)
{
    const long long most = most_room();
    const std::string log = m_database.path() + "-wal";
    return file_size(log) + bytes <= most || (empty_log() && file_size(log) + bytes <= most);
}

// After is_log_small() was false.
HistorySpace::Room HistorySpace::reason_of_large_log() const
{
    return m_database.is_well() ? Room::reader : Room::error;
}

long long HistorySpace::most_room() const
{
    return m_max_size / 4 - shared_bytes;
}

HistorySpace::Room HistorySpace::make_room(long long bytes)
{
    m_bytes = bytes;
    if (m_max_size == 0) {
        return Room::there;
    }
    if (bytes > most_room()) {
        return Room::none;
    }
    const bool b_large = file_size(m_database.path()) > most_in_file();
    // A little more than needed, so that not every sample has to make room.
    const long long target = most_in_file() - bytes;
    const bool b_full = used_bytes() > target;
    if (b_full && bytes_of_logs() > target - target / 64) {
        return Room::logs;
    }
    while (b_full && used_bytes() > target - target / 64) {
        if (m_is_stopped()) {
            return Room::stopped;
        }
        if (!is_log_small(bytes)) {
            return reason_of_large_log();
        }
        m_steps.clear(); // planned with this sample
        if (!remove_oldest()) {
            return m_database.is_well() ? Room::none : Room::error;
        }
        ++m_removed;
    }
    if (b_full && !forget_unused()) {
        return Room::error;
    }
    // A file of an earlier, larger limit.
    while (b_large && m_database.number("PRAGMA freelist_count").value_or(0) > 0 &&
           m_database.number("PRAGMA page_count").value_or(0) * page_size() > most_in_file()) {
        if (m_is_stopped()) {
            return Room::stopped;
        }
        if (!is_log_small(bytes)) {
            return reason_of_large_log();
        }
        if (!m_database.run("PRAGMA incremental_vacuum(64)")) {
            return Room::error;
        }
    }
    return is_log_small(bytes) ? Room::there : reason_of_large_log();
}

} // namespace kavstat
