// Why a reader could not open its statistics or save them. The viewer prints the number; docs/statistics-image.md lists
// them all.
#pragma once

enum RE_stat_error : int
{
    // Live statistics.
    RE_STAT_ERR_NO_ENGINE = -1,      // no segment of that name exists, or the name is invalid
    RE_STAT_ERR_PERMISSION = -2,     // the segment or file may not be read
    RE_STAT_ERR_ENGINE_GONE = -3,    // a segment exists, but its engine no longer runs
    RE_STAT_ERR_NOT_PUBLISHED = -4,  // the engine is still starting, or is stopping
    RE_STAT_ERR_OWNER = -16,         // a segment exists, but it belongs, or could belong, to a user who is not trusted
    RE_STAT_ERR_UNKNOWN_OWNER = -17, // KAV_STAT_OWNER does not name a user

    // Saved statistics.
    RE_STAT_ERR_NO_FILE = -5,         // no file of that name exists
    RE_STAT_ERR_NOT_A_FILE = -6,      // not a regular file but a folder, device, pipe or socket
    RE_STAT_ERR_EMPTY_FILE = -7,      // the file is empty
    RE_STAT_ERR_READ = -8,            // opening, mapping or reading failed for another reason
    RE_STAT_ERR_NO_MEMORY = -9,       // not enough memory
    RE_STAT_ERR_NOT_STATISTICS = -10, // the first bytes are not those of a statistics image
    RE_STAT_ERR_BYTE_ORDER = -11,     // written on a machine with another byte order
    RE_STAT_ERR_VERSION = -12,        // a layout version that this reader does not know
    RE_STAT_ERR_CUT = -13,            // shorter or longer than its header says, or truncated while it was read
    RE_STAT_ERR_CHECKSUM = -14,       // at least one byte differs from what was written
    RE_STAT_ERR_LAYOUT = -15,         // invalid sizes, offsets or counts

    // Saving.
    RE_STAT_ERR_NOT_OPEN = -20,      // nothing to save: the reader is not open
    RE_STAT_ERR_TARGET = -21,        // the target cannot be opened or created
    RE_STAT_ERR_TARGET_FOLDER = -22, // the target is a folder
    RE_STAT_ERR_PLANTED_LINK = -23,  // another user may have planted the target, or a link or folder on the way to it
    RE_STAT_ERR_WRITE = -24,         // writing failed
    RE_STAT_ERR_NO_SPACE = -25,      // the disk is full, or a quota or size limit is reached
    RE_STAT_ERR_SYNC = -26,          // the bytes may not have reached the disk
    RE_STAT_ERR_RENAME = -27,        // the new file could not be renamed to the target
    RE_STAT_ERR_LIVE_SEGMENT = -28,  // the target is a running engine's segment, or a file that engines keep beside it
};
