// The place of the segments of the user who runs the tests.
#pragma once

#include "RE_stat_folder.h"

#include <unistd.h>

#include <stdexcept>
#include <string>

// Returns the path of the segment with this name. Creates its folder if necessary.
inline std::string own_segment_path(const std::string& name)
{
    RE_stat_path folder;
    const int descriptor = open_own_stat_folder(folder);
    if (descriptor < 0) {
        throw std::runtime_error("no folder for statistics: " + std::string(folder));
    }
    close(descriptor);
    return std::string(folder) + "/" + name;
}
