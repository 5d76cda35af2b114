#include "RE_local_time.h"

#include <cerrno>
#include <new>

namespace {

bool read_zone()
{
    errno = 0;
    tzset();
    // Without memory for the zone, the C library silently uses universal time.
    if (errno == ENOMEM) {
        throw std::bad_alloc();
    }
    return true;
}

} // namespace

bool RE_local_time(std::time_t moment, std::tm& local)
{
    [[maybe_unused]] static const bool b_zone_is_read = read_zone();
    return localtime_r(&moment, &local) != nullptr;
}
