// A file of fixed size that is written round and round: what was written longest ago is overwritten first.
#pragma once

#include "RE_bytes.h"

#include <string>

// The file has no name, so that it is gone when the engine is, however it ends. Throws std::system_error on failures.
class RE_cache_file
{
public:
    // Makes the file in `folder`; its space is taken by prepare().
    RE_cache_file(const std::string& folder, std::uint64_t size);
    ~RE_cache_file();
    RE_cache_file(const RE_cache_file&) = delete;
    RE_cache_file& operator=(const RE_cache_file&) = delete;

    // Takes the next part of the file's space from the disk, `bytes` at most. A cache can be used when all is taken.
    void prepare(std::uint64_t bytes);
    bool is_prepared() const { return m_prepared == m_size; }

    // Whether the disk takes writes.
    bool is_writable() const;
    // Whether the disk is full: writes go to a device that always is.
    void set_disk_full(bool b_full);
    bool is_disk_full() const { return m_full_device >= 0; }

    // `position` counts all bytes ever written; the file holds the last `size` of them.
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
