// What reading a log field by field, with one read call for each, gives: the obvious way, to hold the viewer's against.
#pragma once

#include <string>
#include <vector>

struct log_outcome
{
    std::string output;
    std::vector<std::string> messages;

    bool operator==(const log_outcome&) const = default;
};

// For a regular file of these bytes, called `path`. Leaves the run's names as the log would.
log_outcome read_log_field_by_field(const std::string& bytes, const std::string& path, const std::string& peer,
                                    bool detail, int top);
