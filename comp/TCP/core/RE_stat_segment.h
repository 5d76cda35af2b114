// Where live statistics are: the shared-memory segment's name, and whether its engine is alive.
#pragma once

#include <cstddef>

// Where the segments of this machine are.
constexpr char RE_stat_segment_folder[] = "/dev/shm/";

// The segment's path in the file system that POSIX shared memory lives in, for the name in KAV_STAT_SEGMENT or, without
// it, the built-in one.
class RE_stat_segment_path
{
public:
    RE_stat_segment_path();

    // False when KAV_STAT_SEGMENT holds no usable name: an empty one, one with a slash inside, or one too long.
    bool is_valid() const { return m_path[0] != '\0'; }
    const char* c_str() const { return m_path; }

private:
    char m_path[sizeof RE_stat_segment_folder + 255];
};

// A running engine holds a lock on one byte of its segment; starting engines hold another while they decide. Both go
// with the process, however it ends.
constexpr int RE_segment_lock_engine = 0;
constexpr int RE_segment_lock_start = 1;

// Takes a lock for as long as `descriptor`'s open file lives. False when somebody else has it.
bool take_segment_lock(int descriptor, int lock);

// Whether somebody holds a lock. Needs no more than read permission and takes nothing.
bool is_segment_lock_held(int descriptor, int lock);
