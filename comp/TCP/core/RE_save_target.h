// Where a saved image goes: a regular file that is replaced as a whole or not at all, or a pipe or device that is
// written in place.
#pragma once

#include "RE_descriptor.h"

#include <cstddef>
#include <cstdint>
#include <memory>

#include <linux/limits.h>

class RE_save_target
{
public:
    RE_save_target();
    // Takes back what finish() did not complete.
    ~RE_save_target();
    RE_save_target(const RE_save_target&) = delete;
    RE_save_target& operator=(const RE_save_target&) = delete;

    // Returns 0 or an RE_stat_error. path: what the user named. Links are followed unless somebody else may have
    // planted them (RE_target_path.h), as he may a pipe or a device.
    int open(const char* path);

    // Errors are kept, and returned by finish().
    void append(const void* bytes, std::size_t size);
    // Appends zeros up to `position` bytes from the start.
    void fill_to(std::uint64_t position);
    // XXH64 of all bytes so far.
    std::uint64_t checksum() const;

    // Brings the bytes to disk and puts the file into its place. Returns 0 or the RE_stat_error of the first failure,
    // after which a regular target is what it was, except that RE_STAT_ERR_SYNC may also mean that the new file is in
    // its place and a loss of power may bring the old one back.
    int finish();

private:
    // existing: the file to be replaced, all 0 when there is none.
    int open_beside(const char* target, const struct stat& existing);
    int open_in_place(const char* target, const struct stat& expected);
    int put_into_place();
    void flush();
    void discard();

    alignas(64) unsigned char m_hash_state[128]; // an XXH64_state_t, whose header need not be known here
    RE_descriptor m_descriptor;
    int m_error = 0;
    bool m_b_regular = false;
    unsigned int m_mode = 0;      // of the finished file
    char m_target[PATH_MAX];      // the file to replace
    char m_temporary[PATH_MAX];   // the new one until then; empty when there is none to discard
    std::uint64_t m_position = 0; // bytes appended
    std::size_t m_buffered = 0;
    std::unique_ptr<unsigned char[]> m_buffer; // on the heap: some stacks are no larger
};
