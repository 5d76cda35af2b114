// The folders that contain live statistics, and the users whose statistics are trusted.
//
// A segment is in a folder that belongs to its engine's user and that only this user may write to, so that no other
// user can put a segment there. An engine uses the first of these folders that is available to it:
//     /run/kav               when the system has created it for this user (a service's RuntimeDirectory)
//     $XDG_RUNTIME_DIR/kav   in the user's session
//     /dev/shm/kav-UID       otherwise
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

// Has room for the names of a folder and a segment. A session folder with a longer name is skipped.
using RE_stat_path = char[1024];

// Whether only its owner may write to the file or folder that `found` describes.
inline bool is_written_by_owner_alone(const struct stat& found)
{
    return (found.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Opens this user's folder for segments, and creates it when it does not exist. Returns a descriptor, which the caller
// owns, and stores the folder's name in `path`. On failure, returns -errno and logs the reason.
int open_own_stat_folder(RE_stat_path& path);

// Whether `path` is in a folder for segments and its name begins with a dot. Such files are for the engines' own use.
bool is_engine_file(const char* path);

// The folders in which a reader looks, in this order: those of the user that KAV_STAT_OWNER names (by name or number),
// if it is set; /run/kav; those of the reader's own user.
class RE_stat_folders
{
public:
    RE_stat_folders();

    // Returns false when KAV_STAT_OWNER is set and does not name a user. The constructor has then logged that.
    bool is_valid() const { return m_b_valid; }
    static constexpr int count = 5;
    // Stores the name of folder `number`, 0 to count - 1, in `path`. Returns false when that folder is not used.
    bool name_of(int number, RE_stat_path& path) const;
    // Whether the user is trusted: root, the reader's own user, or the user that KAV_STAT_OWNER names.
    bool is_trusted(uid_t user) const;

private:
    uid_t m_user; // the reader's own
    bool m_b_valid = true;
    bool m_b_owner = false; // whether KAV_STAT_OWNER is set
    uid_t m_owner = 0;
};
