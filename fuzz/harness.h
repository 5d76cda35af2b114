// Shared code of the fuzz targets: an environment that does not change (time, files, the system log), images in memory,
// and one call that prints every report.
#pragma once

#include "RE_image_reader.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

// From now on standard output is discarded.
void discard_output();

// Returns what `print` prints to standard output.
template <typename Print>
std::string output_of(const Print& print);

// A file that exists only in memory.
class memory_file
{
public:
    memory_file(const void* bytes, std::size_t size);
    ~memory_file();
    memory_file(const memory_file&) = delete;
    memory_file& operator=(const memory_file&) = delete;
    const char* path() const { return m_path.c_str(); }

private:
    int m_descriptor;
    std::string m_path;
};

// The viewer and the core library can open only the files that are added here. Opening `path` opens `file` instead.
void add_file(const std::string& path, const memory_file& file);

// Reads an image as live statistics, without a segment. The bytes are copied, so that the address sanitizer detects a
// read beyond them.
class memory_reader : public RE_image_reader
{
public:
    memory_reader(const unsigned char* bytes, std::size_t size);
    int open() override;
    int close() override;

protected:
    std::unique_ptr<writable_image> open_writable() override;

private:
    std::unique_ptr<unsigned char[]> m_bytes;
    std::size_t m_size;
};

// Prints every report, discards a saved file, asks for invalid slots and ids, resets, and prints once more.
void exercise(RE_stat_reader& reader);

template <typename Print>
std::string output_of(const Print& print)
{
    char* text = nullptr;
    std::size_t size = 0;
    FILE* const terminal = stdout;
    stdout = open_memstream(&text, &size);
    print();
    std::fclose(stdout);
    stdout = terminal;
    std::string result(text, size);
    std::free(text);
    return result;
}
