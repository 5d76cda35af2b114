// Why a reader could not open its statistics or save them. The viewer prints the number; docs/statistics-image.md lists
// them all.
#pragma once

enum RE_stat_error : int
{
    // Live statistics.
    RE_STAT_ERR_NO_ENGINE = -1,      // there is no segment of that name, or the name is no name
    RE_STAT_ERR_PERMISSION = -2,     // the segment or file may not be read
    RE_STAT_ERR_ENGINE_GONE = -3,    // a segment is there, but the engine that made it no longer runs
    RE_STAT_ERR_NOT_PUBLISHED = -4,  // the engine is still starting, or is just stopping
    RE_STAT_ERR_OWNER = -16,         // a segment is there, but it is, or could be, that of a user who is not trusted
    RE_STAT_ERR_UNKNOWN_OWNER = -17, // KAV_STAT_OWNER names no user

    // Saved statistics.
    RE_STAT_ERR_NO_FILE = -5,         // there is no file of that name
    RE_STAT_ERR_NOT_A_FILE = -6,      // a folder, a device, a pipe: not a regular file
    RE_STAT_ERR_EMPTY_FILE = -7,      // a file of no bytes
    RE_STAT_ERR_READ = -8,            // opening, mapping or reading failed for another reason
    RE_STAT_ERR_NO_MEMORY = -9,       // no memory to hold the file
    RE_STAT_ERR_NOT_STATISTICS = -10, // the first bytes are not those of a statistics image
    RE_STAT_ERR_BYTE_ORDER = -11,     // written on a machine of another byte order
    RE_STAT_ERR_VERSION = -12,        // a layout version that this reader does not know
    RE_STAT_ERR_CUT = -13,            // shorter or longer than it says itself
    RE_STAT_ERR_CHECKSUM = -14,       // some byte is not the one that was written
    RE_STAT_ERR_LAYOUT = -15,         // sizes, offsets or counts that cannot be

    // Saving.
    RE_STAT_ERR_NOT_OPEN = -20,      // nothing to save: the reader is not open
    RE_STAT_ERR_TARGET = -21,        // the target cannot be opened or made
    RE_STAT_ERR_TARGET_FOLDER = -22, // the target is a folder
    RE_STAT_ERR_PLANTED_LINK = -23,  // the target is somebody else's link, pipe or device in a folder open to all
    RE_STAT_ERR_WRITE = -24,         // writing failed
    RE_STAT_ERR_NO_SPACE = -25,      // the disk is full, or a quota or size limit is reached
    RE_STAT_ERR_SYNC = -26,          // the bytes did not reach the disk
    RE_STAT_ERR_RENAME = -27,        // the new file could not take the old one's place
    RE_STAT_ERR_LIVE_SEGMENT = -28,  // the target is a running engine's segment, or a file that engines keep beside it
};
