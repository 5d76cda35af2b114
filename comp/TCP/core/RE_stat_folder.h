// The folders that live statistics are in, and whose statistics are to be believed.
//
// A segment is in a folder that belongs to its engine's user and that only this user may write to, so that nobody else
// can put one there. An engine takes the first of these that it may have:
//     /run/kav               when the system has made it for this user (a service's RuntimeDirectory)
//     $XDG_RUNTIME_DIR/kav   in the user's session
//     /dev/shm/kav-UID       otherwise
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

// Holds a folder's name and a segment's name. A session's folder with a longer name is skipped.
using RE_stat_path = char[1024];

// Whether nobody but its owner may write to what `found` describes.
inline bool is_written_by_owner_alone(const struct stat& found)
{
    return (found.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Opens this user's folder for segments and makes it when it is not there. Returns a descriptor, and the folder's name
// in `path`; or -errno, with the reason in the system log.
int open_own_stat_folder(RE_stat_path& path);

// Whether `path` is in a folder for segments and has a name that begins with a dot: engines keep such files for
// themselves.
bool is_engine_file(const char* path);

// Where a reader looks, in this order: the folders of the user that KAV_STAT_OWNER names (by name or number), if it is
// set, then /run/kav, then the reader's own.
class RE_stat_folders
{
public:
    RE_stat_folders();

    // False when KAV_STAT_OWNER names no user, which has then been logged.
    bool is_valid() const { return m_b_valid; }
    static constexpr int count = 5;
    // The name of folder `number`, 0 to count - 1; false when there is none of that number here.
    bool name_of(int number, RE_stat_path& path) const;
    // Root, the reader's own user, and the user that KAV_STAT_OWNER names are believed.
    bool is_trusted(uid_t user) const;

private:
    uid_t m_user; // the reader's own
    bool m_b_valid = true;
    bool m_b_owner = false; // whether KAV_STAT_OWNER is set
    uid_t m_owner = 0;
};
