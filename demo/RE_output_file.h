// Files that the engine writes in addition to its statistics.
#pragma once

#include <string>

// Writes a file completely or not at all, and never blocks. Refuses a pipe, a device or a link with this name, and a
// path through links that another user may have planted. Throws std::runtime_error.
void replace_file(const std::string& path, const std::string& text);

// Throws std::runtime_error with the text of a negative result of the library or the system, such as -ENOENT.
[[noreturn]] void fail_with_file(int result, const std::string& what, const std::string& path);
