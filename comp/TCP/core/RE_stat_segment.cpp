#include "RE_stat_segment.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char* default_segment_name = "kav_statistics";

struct flock lock_request(short type, int lock)
{
    struct flock request
    {
    };
    request.l_type = type;
    request.l_whence = SEEK_SET;
    request.l_start = lock;
    request.l_len = 1;
    return request;
}

} // namespace

RE_stat_segment_path::RE_stat_segment_path() : m_path{}
{
    const char* const given = secure_getenv("KAV_STAT_SEGMENT");
    const char* name = given != nullptr ? given : default_segment_name;
    if (name[0] == '/') {
        ++name; // the form in which shm_open takes names
    }
    const std::size_t length = std::strlen(name);
    if (length == 0 || length > 255 || std::strchr(name, '/') != nullptr || std::strcmp(name, ".") == 0 ||
        std::strcmp(name, "..") == 0) {
        return;
    }
    std::snprintf(m_path, sizeof m_path, "%s%s", RE_stat_segment_folder, name);
}

bool take_segment_lock(int descriptor, int lock)
{
    struct flock request = lock_request(F_WRLCK, lock);
    return fcntl(descriptor, F_OFD_SETLK, &request) == 0;
}

bool is_segment_lock_held(int descriptor, int lock)
{
    struct flock request = lock_request(F_RDLCK, lock);
    return fcntl(descriptor, F_OFD_GETLK, &request) == 0 && request.l_type != F_UNLCK;
}
