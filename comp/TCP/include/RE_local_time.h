// Local time in the zone that TZ names, or in the machine's zone when TZ is not set.
#pragma once

#include <ctime>

// Converts `moment` to local time. Returns false when its year does not fit into std::tm. The first call reads the
// zone; it throws std::bad_alloc when there is no memory for it.
bool RE_local_time(std::time_t moment, std::tm& local);
