// Imports top-application logs into a history, for queries in SQL.
#pragma once

#include "history/database.h"

#include <ctime>
#include <functional>
#include <string>

namespace kavstat {

struct ImportResult
{
    std::string error;     // why the log was not read to its end; empty on success
    long long records = 0; // new ones
};

struct ImportCallbacks
{
    // Called after each part with the share of the log that has been read, from 0 to 1.
    std::function<void(double)> progress = [](double) {};
    // Whether so many bytes may be added to the database. The import ends when they may not.
    std::function<bool(long long)> has_room = [](long long) { return true; };
};

// A log is recognised by its first bytes, not by its name. When it was imported before and has grown since, only the
// new part is imported. When the log is truncated, complete sections and records are imported.
ImportResult import_top_app_log(Database& database, const std::string& path, std::time_t now,
                                const ImportCallbacks& callbacks = {});

} // namespace kavstat
