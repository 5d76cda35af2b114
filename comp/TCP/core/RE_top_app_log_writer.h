// What an engine logs its top applications with, for reports on the past.
#pragma once

#include "RE_statistics.h"

#include <span>
#include <string>

// The names behind a handle, for a section of a top-application log.
struct RE_top_app_log_name
{
    RE_stat_policy_engine_handler handler;
    RE_stat_policy_engine_header names;
};

// Appends one section (names, then records whose handles they explain) to a top-application log file, which is made
// when it is not there. A section is written as a whole or, after an error, taken back; a report that is made of the
// log meanwhile has all of it or nothing. Waits for nobody longer than a tenth of a second. Returns 0, -EINVAL when the
// log is no regular file, -ELOOP when it is a link or a link on the way there may be somebody else's, or -errno.
int append_top_app_log(const std::string& path, std::span<const RE_top_app_log_name> names,
                       std::span<const RE_stat_app_struct> records);
