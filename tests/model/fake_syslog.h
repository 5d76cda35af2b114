// A replacement of the system log that tests can read.
#pragma once

#include <string>
#include <vector>

struct fake_log_message
{
    std::string file;
    int line;
    int submodule;
    int priority;
    int msgid;
    std::string text;

    bool operator==(const fake_log_message&) const = default;
};

// All messages since the last `fake_log.clear()`, oldest first.
extern std::vector<fake_log_message> fake_log;
