// A segment's name and its lock, for engines and readers.
#pragma once

#include <sys/stat.h>

// Returns the segment's name in its folder: the value of KAV_STAT_SEGMENT without a slash at its start, or the built-in
// name. Returns null when the value is not usable: it is empty, contains another slash, is too long, or begins with a
// dot, as the engines' own files in that folder do.
const char* stat_segment_name();

// A running engine holds a write lock on its segment. The lock ends with the process, however that ends. Only a process
// that may write to a segment can hold the lock, so a process without that permission cannot pretend to be a running
// engine.
//
// Takes the lock until the open file of `descriptor` is closed. Returns false when another process holds a lock on it.
bool take_segment_lock(int descriptor);

// Whether the lock is held. Needs only read permission, takes no lock, and ignores read locks.
bool is_segment_lock_held(int descriptor);

// Whether `path` is the segment of a running engine.
bool is_live_segment(const char* path);

// Whether `path` is the file that `descriptor` is open on. A link is not followed.
bool is_name_of(const char* path, int descriptor);

// Engines of earlier releases published in /dev/shm itself. Their segments are no longer used. When one of this name
// exists, logs where engines publish now.
void report_segment_of_earlier_layout(const char* name);
