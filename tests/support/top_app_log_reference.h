// A reference for the viewer's log reader: reads a log field by field, with one read call per field.
#pragma once

#include <string>
#include <vector>

struct log_outcome
{
    std::string output;
    std::vector<std::string> messages;

    bool operator==(const log_outcome&) const = default;
};

// Reads these bytes as a regular file at `path`. Sets the viewer's names as reading the log does.
log_outcome read_log_field_by_field(const std::string& bytes, const std::string& path, const std::string& peer,
                                    bool detail, int top);
