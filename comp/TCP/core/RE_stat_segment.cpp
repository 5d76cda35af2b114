#include "RE_stat_segment.h"

#include "RE_descriptor.h"
#include "RE_stat_image.h"
#include "RE_syslog.h"
#include "RE_user.h"

#include <fcntl.h>
#include <linux/limits.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int log_id_earlier_layout = 690465;

constexpr const char* default_segment_name = "kav_statistics";

struct flock lock_request(short type)
{
    struct flock request = {};
    request.l_type = type;
    request.l_whence = SEEK_SET;
    request.l_len = 1;
    return request;
}

bool has_image_magic(int descriptor)
{
    char magic[sizeof RE_image_magic];
    return pread(descriptor, magic, sizeof magic, 0) == sizeof magic &&
           std::memcmp(magic, RE_image_magic, sizeof magic) == 0;
}

} // namespace

const char* stat_segment_name()
{
    const char* const given = secure_getenv("KAV_STAT_SEGMENT");
    const char* name = given != nullptr ? given : default_segment_name;
    if (name[0] == '/') {
        ++name; // names for shm_open() begin with a slash
    }
    const std::size_t length = std::strlen(name);
    return length == 0 || length > NAME_MAX || name[0] == '.' || std::strchr(name, '/') != nullptr ? nullptr : name;
}

bool take_segment_lock(int descriptor)
{
    struct flock request = lock_request(F_WRLCK);
    return fcntl(descriptor, F_OFD_SETLK, &request) == 0;
}

bool is_segment_lock_held(int descriptor)
{
    struct flock request = lock_request(F_RDLCK);
    return fcntl(descriptor, F_OFD_GETLK, &request) == 0 && request.l_type != F_UNLCK;
}

bool is_live_segment(const char* path)
{
    struct stat found = {};
    if (stat(path, &found) != 0 || !S_ISREG(found.st_mode)) {
        return false;
    }
    const RE_descriptor segment(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    return segment.is_open() && is_segment_lock_held(segment.number()) && has_image_magic(segment.number());
}

bool is_name_of(const char* path, int descriptor)
{
    struct stat opened = {};
    struct stat named = {};
    return fstat(descriptor, &opened) == 0 && lstat(path, &named) == 0 && opened.st_ino == named.st_ino &&
           opened.st_dev == named.st_dev;
}

void report_segment_of_earlier_layout(const char* name)
{
    char path[sizeof "/dev/shm/" + NAME_MAX];
    std::snprintf(path, sizeof path, "/dev/shm/%s", name);
    struct stat found = {};
    const RE_descriptor segment(::open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    const bool b_hidden = !segment.is_open() && errno == EACCES;
    const bool b_image = segment.is_open() && fstat(segment.number(), &found) == 0 && S_ISREG(found.st_mode) &&
                         has_image_magic(segment.number());
    if (b_image || (b_hidden && lstat(path, &found) == 0)) {
        char owner[RE_user_text_size];
        __re_syslog(
            __FILE__, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, log_id_earlier_layout,
            "%s, of %s, is where engines of an earlier release publish; it is not used. Engines of this release "
            "publish in /run/kav, $XDG_RUNTIME_DIR/kav or /dev/shm/kav-UID: stop that engine and start one of "
            "this release",
            path, user_text(found.st_uid, owner));
    }
}
