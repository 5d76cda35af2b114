// The source of the engine's traffic: files, and the messages that they are cut into.
#pragma once

#include "RE_application.h"
#include "RE_random.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

// Returns every regular file at or below `paths`, sorted within each folder. Links within folders are not followed.
// Files and folders that cannot be read are skipped with a message on standard error. Without paths: some files that
// every machine has, of a limited total size; with b_variety, some of them do not compress. Throws std::runtime_error
// for a path that does not exist.
std::vector<std::string> find_traffic(const std::vector<std::string>& paths, bool b_variety = false);

// Sizes of messages in bytes: one size, or (0) a mixture of sizes typical of applications, from tiny ones to 64 KB.
struct RE_message_sizes
{
    std::uint32_t fixed = 0;
};

// Reads a file as a sequence of messages.
class RE_message_source
{
public:
    // If the file cannot be read, prints a message to standard error and is not open.
    RE_message_source(const std::string& path, RE_message_sizes sizes, std::uint64_t seed);

    bool is_open() const { return m_file != nullptr; }
    // The application that the file's traffic belongs to.
    const RE_application& application() const { return *m_application; }
    // Reads the next message. size: of the message in bytes; 0 for the configured sizes. Returns false at the end.
    bool next(RE_byte_buffer& message, std::uint32_t size = 0);

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
