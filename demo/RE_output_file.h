// Files that the engine writes beside its statistics.
#pragma once

#include <string>

// Writes a file as a whole or not at all, and never waits for whatever else has its name: a pipe, a device or a link is
// refused, as is a path through links that another user may have planted. Throws std::runtime_error.
void replace_file(const std::string& path, const std::string& text);

// Throws std::runtime_error with what a negative result of the library or the system, such as -ENOENT, says of a file.
[[noreturn]] void fail_with_file(int result, const std::string& what, const std::string& path);
