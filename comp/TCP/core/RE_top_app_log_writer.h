// Logs an engine's top applications, for reports on the past.
#pragma once

#include "RE_statistics.h"

#include <span>
#include <string>

// The names that a handle stands for in one section of a top-application log. handler: 0 to 1,023.
struct RE_top_app_log_name
{
    RE_stat_policy_engine_handler handler;
    RE_stat_policy_engine_header names;
};

// Appends one section (names, then records whose handles they explain) to a top-application log file, and creates the
// file when it does not exist. A section is written as a whole; after an error, a partial section is removed. A report
// that reads the log at the same time sees all of the section or nothing. Waits at most a tenth of a second for other
// processes. Returns 0; -EINVAL when the log is not a regular file or a handle is out of range; -ELOOP when the log is
// a link, or another user may have planted a link in its path; or -errno.
int append_top_app_log(const std::string& path, std::span<const RE_top_app_log_name> names,
                       std::span<const RE_stat_app_struct> records);
