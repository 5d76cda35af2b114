// Keeps a history within its limits: removes samples because of their age, or because of the size of the file.
#pragma once

#include "history/database.h"
#include "history/thinning.h"

#include <ctime>
#include <deque>
#include <functional>

namespace kavstat {

// Enough for some samples of an engine with a few peers.
constexpr long long least_history_size = 4LL << 20;

class HistorySpace
{
public:
    // max_size: bytes of the database and of the files beside it; 0 for any. is_stopped: whether long work is to end.
    HistorySpace(Database& database, Keep keep, long long max_size, std::function<bool()> is_stopped)
        : m_database(database), m_keep(std::move(keep)), m_max_size(max_size), m_is_stopped(std::move(is_stopped))
    {}

    // After the database was opened, also again.
    bool prepare();
    enum class Thinning
    {
        finished, // nothing is left to do, or another process reads and the write-ahead log has no room
        unfinished,
        failed, // see Database::error()
    };
    // Removes samples that have become old, one after another until is_over(), but at least one. A sample takes about
    // as long to remove as to record.
    Thinning thin(std::time_t now, const std::function<bool()>& is_over);

    // Whether so many bytes can be written without removing samples.
    bool has_room(long long bytes);

    enum class Room
    {
        there,
        none,   // even an empty history would be too large
        logs,   // imported logs alone are too large; nothing was removed
        reader, // another process reads, so that the write-ahead log cannot be emptied
        stopped,
        error, // see Database::error()
    };
    // Removes the oldest samples until so many bytes can be written.
    Room make_room(long long bytes);
    // How many samples make_room() has removed so far.
    long long removed() const { return m_removed; }
    // How many bytes make_room() can make at most.
    long long most_room() const;

    // Writes the pages of the write-ahead log to the file. False when a reader prevents that, or after an error.
    bool empty_log();
    // Empties the log while the disk still has room for so many bytes and for the log's pages in the file. A log that
    // fills the disk could not be emptied any more.
    void leave_room_on_disk(long long bytes);

private:
    bool plan(std::time_t now);
    bool apply(const ThinningStep& step);
    bool remove_oldest();
    bool forget_unused();
    bool is_log_small(long long bytes);
    Room reason_of_large_log() const;
    long long page_size();
    long long used_bytes();
    long long bytes_of_logs();
    long long most_in_file() const { return m_max_size - m_max_size / 4; }

    Database& m_database;
    Keep m_keep;
    long long m_max_size;
    std::function<bool()> m_is_stopped;
    std::deque<ThinningStep> m_steps; // still to be done
    bool m_b_unused = false;          // there may be rows to which no sample refers
    long long m_removed = 0;
    long long m_log_records = 0; // imported, of which the size is known
    long long m_log_bytes = 0;
    long long m_bytes = 0; // of the last make_room(); no single change takes more
};

} // namespace kavstat
