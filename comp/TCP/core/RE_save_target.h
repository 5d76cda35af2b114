// The destination of a saved image: a regular file that is replaced as a whole or not at all, or a pipe or device that
// is written in place.
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
    // Removes the new file if finish() did not complete.
    ~RE_save_target();
    RE_save_target(const RE_save_target&) = delete;
    RE_save_target& operator=(const RE_save_target&) = delete;

    // Opens the target. path: as the user typed it. Links are followed. Links, pipes and devices that another user may
    // have planted are refused (RE_target_path.h). Returns 0 or an RE_stat_error.
    int open(const char* path);

    // Appends bytes. finish() returns the error, if any.
    void append(const void* bytes, std::size_t size);
    // Appends zeros up to `position` bytes from the start.
    void fill_to(std::uint64_t position);
    // Returns the XXH64 of all bytes so far.
    std::uint64_t checksum() const;

    // Writes the bytes to disk and puts the file into its place. Returns 0 or the RE_stat_error of the first failure.
    // After a failure, a regular target is unchanged, with one exception: after RE_STAT_ERR_SYNC the new file may be in
    // place already, and a power failure may bring the old one back.
    int finish();

private:
    // existing: the file to be replaced, all 0 when there is none.
    int open_beside(const char* target, const struct stat& existing);
    int open_in_place(const char* target, const struct stat& expected);
    int put_into_place();
    void flush();
    void discard();

    alignas(64) unsigned char m_hash_state[128]; // an XXH64_state_t, whose header is not needed here
    RE_descriptor m_descriptor;
    int m_error = 0;
    bool m_b_regular = false;
    unsigned int m_mode = 0;      // of the finished file
    char m_target[PATH_MAX];      // the file to replace
    char m_temporary[PATH_MAX];   // the new file until it is in place; empty when there is none to remove
    std::uint64_t m_position = 0; // bytes appended
    std::size_t m_buffered = 0;
    std::unique_ptr<unsigned char[]> m_buffer; // on the heap: it is too large for some stacks
};
