// A segment, as engines and readers look at it: its name, its marks, and whether its engine is alive.
#pragma once

#include <sys/stat.h>

// The segment's name in its folder: what KAV_STAT_SEGMENT says, or the built-in one. Null when KAV_STAT_SEGMENT holds
// no usable name: an empty one, one with a slash inside, one too long, or one that begins with a dot, as the engine's
// own files beside segments do.
const char* stat_segment_name();

// A running engine holds a write lock on its segment, which goes with the process, however it ends. Only who may write
// to a segment can have that, so nobody else can pretend that its engine lives.
//
// Takes the lock for as long as `descriptor`'s open file lives. False when somebody else has a lock there.
bool take_segment_lock(int descriptor);

// Whether somebody holds the lock. Needs no more than read permission, takes nothing, and overlooks readers' locks.
bool is_segment_lock_held(int descriptor);

// Whether `path` is the segment of a running engine.
bool is_live_segment(const char* path);

// Whether `path`, not followed if it is a link, is the file that `descriptor` is open on.
bool is_name_of(const char* path, int descriptor);

// Earlier engines published in /dev/shm itself. Their segments are not used any more; when there is one of this name,
// the system log says where engines publish now.
void report_segment_of_earlier_layout(const char* name);
