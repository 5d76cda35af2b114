// A file of fixed size in which new data overwrites the oldest.
#pragma once

#include "RE_bytes.h"

#include <string>

// The file has no name, so it disappears when the engine ends, also after a crash. Throws std::system_error on failure.
class RE_cache_file
{
public:
    // Creates the file in `folder`. prepare() allocates its disk space.
    RE_cache_file(const std::string& folder, std::uint64_t size);
    ~RE_cache_file();
    RE_cache_file(const RE_cache_file&) = delete;
    RE_cache_file& operator=(const RE_cache_file&) = delete;

    // Allocates the next part of the file's disk space, at most `bytes`. The cache can be used when all is allocated.
    void prepare(std::uint64_t bytes);
    bool is_prepared() const { return m_prepared == m_size; }

    // Whether the disk accepts writes.
    bool is_writable() const;
    // Makes the disk appear full: writes go to a device that is always full.
    void set_disk_full(bool b_full);
    bool is_disk_full() const { return m_full_device >= 0; }

    // `position` counts all bytes ever written; the file contains the last `size` of them.
    void write(std::uint64_t position, RE_byte_view bytes);
    // Appends to `out`.
    void read(std::uint64_t position, std::size_t size, RE_byte_buffer& out);

private:
    int write_descriptor() const { return m_full_device >= 0 ? m_full_device : m_descriptor; }

    int m_descriptor;
    std::uint64_t m_size;
    std::uint64_t m_prepared = 0;
    int m_full_device = -1; // -1 unless the disk is full
};
