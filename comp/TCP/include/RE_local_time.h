// Local time in the zone that TZ names, or else the machine's.
#pragma once

#include <ctime>

// False for a moment that no calendar can hold. The first call reads the zone and throws std::bad_alloc when there is
// no memory for it.
bool RE_local_time(std::time_t moment, std::tm& local);
