// Brings top-application logs into a history, where they can be asked in SQL.
#pragma once

#include "history/database.h"

#include <ctime>
#include <functional>
#include <string>

namespace kavstat {

struct ImportResult
{
    std::string error;     // why the log was not read to its end; empty when it was
    long long records = 0; // that were new
};

// progress: called now and then with the share of the log that has been read, from 0 to 1.
//
// A log is known by its beginning: of one that was imported before and has grown since, whatever its name is now, the
// rest alone is imported. What is whole is kept when the log ends in the middle of something.
ImportResult import_top_app_log(Database& database, const std::string& path, std::time_t now,
                                const std::function<void(double)>& progress);

} // namespace kavstat
