// Where the engine's traffic comes from: files, and the messages that they are cut into.
#pragma once

#include "RE_application.h"
#include "RE_random.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

// Every regular file at or below `paths`, sorted within each folder; links within folders are not followed. What cannot
// be read is left out with a note on standard error. Without paths: some files that every machine has, of a bounded
// size; some do not compress when b_variety is set. Throws std::runtime_error for a path that does not exist.
std::vector<std::string> find_traffic(const std::vector<std::string>& paths, bool b_variety = false);

// Sizes of messages in bytes: one size, or (0) a spread of sizes as applications have them, from tiny ones to 64 KB.
struct RE_message_sizes
{
    std::uint32_t fixed = 0;
};

// Reads a file as a sequence of messages.
class RE_message_source
{
public:
    // Leaves a note on standard error and is empty when the file cannot be read.
    RE_message_source(const std::string& path, RE_message_sizes sizes, std::uint64_t seed);

    bool is_open() const { return m_file != nullptr; }
    // What recognises the file's traffic.
    const RE_application& application() const { return *m_application; }
    // Reads the next message; false at the end.
    bool next(RE_byte_buffer& message);

private:
    struct file_closer
    {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    std::uint32_t next_size();

    std::string m_path;
    std::unique_ptr<std::FILE, file_closer> m_file;
    const RE_application* m_application;
    RE_message_sizes m_sizes;
    RE_random m_random;
};
