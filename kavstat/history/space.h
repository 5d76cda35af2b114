// Keeps a history within its limits: removes samples because of their age, or because of the size of the file.
#pragma once

#include "history/database.h"
#include "history/thinning.h"

#include <ctime>

namespace kavstat {

// What an engine of a few peers takes, with some samples to spare.
constexpr long long least_history_size = 4LL << 20;

class HistorySpace
{
public:
    // max_size: bytes of the database and of the files beside it; 0 for any.
    HistorySpace(Database& database, Keep keep, long long max_size)
        : m_database(database), m_keep(std::move(keep)), m_max_size(max_size)
    {}

    // After the database was opened.
    bool prepare();
    // Thins out what has become old; at most so many samples a call. False after an error.
    bool thin(std::time_t now, std::size_t most);

    enum class Room
    {
        there,
        none,   // even an empty history would be too large
        reader, // somebody is reading, so that the write-ahead log cannot be emptied
        error,  // see Database::error()
    };
    // Sees to it that so many bytes can be written, by removing the oldest samples.
    Room make_room(long long bytes);
    // How many samples make_room() has removed so far.
    long long removed() const { return m_removed; }
    // How many bytes make_room() can make at most.
    long long most_room() const;

    // Writes what the write-ahead log holds to the file. False when a reader prevents that.
    bool empty_log();

private:
    bool apply(const ThinningStep& step);
    bool remove_oldest();
    bool forget_unused();
    bool is_log_small(long long bytes);
    long long page_size();
    long long used_bytes();
    long long most_in_file() const { return m_max_size - m_max_size / 4; }

    Database& m_database;
    Keep m_keep;
    long long m_max_size;
    long long m_removed = 0;
    long long m_bytes = 0; // that make_room() was asked for last; no single change takes more
};

} // namespace kavstat
