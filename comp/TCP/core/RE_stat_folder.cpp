#include "RE_stat_folder.h"

#include "RE_descriptor.h"
#include "RE_syslog.h"
#include "RE_user.h"

#include <fcntl.h>
#include <linux/limits.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace {

constexpr int log_id_folder_refused = 690462;
constexpr int log_id_folder_set_aside = 690463;
constexpr int log_id_owner_unknown = 690464;

constexpr const char* service_folder = "/run/kav";
constexpr const char* memory_folder = "/dev/shm";

// "/dev/shm/kav-UID"
void name_memory_folder(uid_t user, RE_stat_path& path)
{
    std::snprintf(path, sizeof path, "%s/kav-%u", memory_folder, user);
}

// Stores the name of the folder in the user's session folder, as set in the environment. Returns false when none is
// set.
bool name_session_folder(RE_stat_path& path)
{
    const char* const given = secure_getenv("XDG_RUNTIME_DIR");
    constexpr std::size_t longest = sizeof path - sizeof "/" - NAME_MAX;
    return given != nullptr && given[0] == '/' &&
           static_cast<std::size_t>(std::snprintf(path, sizeof path, "%s/kav", given)) < longest;
}

// The same at the usual place, for a user whose environment is not known.
void name_usual_session_folder(uid_t user, RE_stat_path& path)
{
    std::snprintf(path, sizeof path, "/run/user/%u/kav", user);
}

// Opens a folder without following a link. Returns a descriptor, -EPERM when other users own it or may write to it, or
// another -errno.
int open_folder_of(uid_t user, int parent, const char* name)
{
    const int descriptor = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0) {
        return -errno;
    }
    struct stat found = {};
    if (fstat(descriptor, &found) == 0 && found.st_uid == user && is_written_by_owner_alone(found)) {
        return descriptor;
    }
    ::close(descriptor);
    return -EPERM;
}

// The same, but creates the folder when it does not exist.
int make_folder_of(uid_t user, int parent, const char* name)
{
    const bool b_made = mkdirat(parent, name, S_IRWXU) == 0;
    if (b_made ? fchmodat(parent, name, S_IRWXU, 0) != 0 : errno != EEXIST) { // its mode, regardless of the umask
        return -errno;
    }
    return open_folder_of(user, parent, name);
}

// The same in the user's session folder, if that really belongs to the user.
int make_session_folder(uid_t user, const char* path)
{
    RE_stat_path parent_path;
    std::snprintf(parent_path, sizeof parent_path, "%.*s", static_cast<int>(std::strrchr(path, '/') - path), path);
    const RE_descriptor parent(::open(parent_path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!parent.is_open()) {
        return -errno;
    }
    struct stat found = {};
    const bool b_own = fstat(parent.number(), &found) == 0 && found.st_uid == user && is_written_by_owner_alone(found);
    return b_own ? make_folder_of(user, parent.number(), "kav") : -EPERM;
}

// Another user may have put something in the place of this user's folder. Renames it, which the system allows only root
// to do. Returns true when it is no longer there.
bool set_aside(int parent, const char* path, bool b_log)
{
    std::uint64_t number = 0; // unpredictable, so that no other user can create the name first
    if (getrandom(&number, sizeof number, 0) != sizeof number) {
        return false;
    }
    const char* const name = std::strrchr(path, '/') + 1;
    char other_name[64];
    std::snprintf(other_name, sizeof other_name, ".%s.refused.%016" PRIx64, name, number);
    struct stat found = {};
    if (fstatat(parent, name, &found, AT_SYMLINK_NOFOLLOW) != 0 || renameat(parent, name, parent, other_name) != 0) {
        return errno == ENOENT;
    }
    if (b_log) {
        char owner[RE_user_text_size];
        __re_syslog(__FILE__, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, log_id_folder_set_aside,
                    "%s belonged to %s, or others could write to it; it was renamed to %s", path,
                    user_text(found.st_uid, owner), other_name);
    }
    return true;
}

int make_memory_folder(uid_t user, const char* path)
{
    const RE_descriptor parent(::open(memory_folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!parent.is_open()) {
        return -errno;
    }
    const char* const name = std::strrchr(path, '/') + 1;
    int descriptor = -1;
    // Another user may put something there again at once, or may have removed it in the meantime.
    constexpr int attempts = 100;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        descriptor = make_folder_of(user, parent.number(), name);
        const bool b_in_the_way = descriptor == -EPERM || descriptor == -ENOTDIR || descriptor == -ELOOP;
        const bool b_again = b_in_the_way ? set_aside(parent.number(), path, attempt == 0) : descriptor == -ENOENT;
        if (!b_again) {
            break;
        }
    }
    return descriptor;
}

void report_refused_folder(const char* path, int error)
{
    struct stat found = {};
    if (lstat(path, &found) == 0) {
        char owner[RE_user_text_size];
        __re_syslog(__FILE__, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, log_id_folder_refused,
                    "no statistics: %s belongs to %s, mode %o: %s", path, user_text(found.st_uid, owner),
                    found.st_mode & 07777U, std::strerror(error));
    } else {
        __re_syslog(__FILE__, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, log_id_folder_refused,
                    "no statistics: %s cannot be made: %s", path, std::strerror(error));
    }
}

} // namespace

int open_own_stat_folder(RE_stat_path& path)
{
    const uid_t user = geteuid();
    std::snprintf(path, sizeof path, "%s", service_folder);
    int descriptor = open_folder_of(user, AT_FDCWD, path);
    if (descriptor < 0 && name_session_folder(path)) {
        descriptor = make_session_folder(user, path);
    }
    if (descriptor < 0) {
        name_memory_folder(user, path);
        descriptor = make_memory_folder(user, path);
    }
    if (descriptor < 0) {
        report_refused_folder(path, -descriptor);
    }
    return descriptor;
}

bool is_engine_file(const char* path)
{
    const char* const slash = std::strrchr(path, '/');
    const char* const name = slash != nullptr ? slash + 1 : path;
    char folder[PATH_MAX] = ".";
    struct stat found = {};
    if (slash != nullptr) {
        std::snprintf(folder, sizeof folder, "%.*s", static_cast<int>(name - path), path);
    }
    if (name[0] != '.' || stat(folder, &found) != 0) {
        return false;
    }
    RE_stat_path places[4] = {};
    std::snprintf(places[0], sizeof places[0], "%s", service_folder);
    if (!name_session_folder(places[1])) {
        places[1][0] = '\0';
    }
    name_usual_session_folder(found.st_uid, places[2]);
    name_memory_folder(found.st_uid, places[3]);
    return std::any_of(std::begin(places), std::end(places), [&found](const RE_stat_path& place) {
        struct stat status = {};
        return stat(place, &status) == 0 && status.st_dev == found.st_dev && status.st_ino == found.st_ino;
    });
}

RE_stat_folders::RE_stat_folders() : m_user(geteuid())
{
    const char* const owner = secure_getenv("KAV_STAT_OWNER");
    m_b_owner = owner != nullptr;
    if (m_b_owner && !find_user(owner, m_owner)) {
        m_b_valid = false;
        __re_syslog(__FILE__, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, log_id_owner_unknown,
                    "KAV_STAT_OWNER names no user of this machine: %s", owner);
    }
}

bool RE_stat_folders::name_of(int number, RE_stat_path& path) const
{
    switch (number) {
    case 0:
        name_usual_session_folder(m_owner, path);
        return m_b_owner;
    case 1:
        name_memory_folder(m_owner, path);
        return m_b_owner;
    case 2:
        std::snprintf(path, sizeof path, "%s", service_folder);
        return true;
    case 3:
        if (!name_session_folder(path)) {
            name_usual_session_folder(m_user, path);
        }
        return true;
    default:
        name_memory_folder(m_user, path);
        return true;
    }
}

bool RE_stat_folders::is_trusted(uid_t user) const
{
    return user == 0 || user == m_user || (m_b_owner && user == m_owner);
}
