// Where the engines of the user who runs the tests publish.
#pragma once

#include "RE_stat_folder.h"

#include <unistd.h>

#include <stdexcept>
#include <string>

// The path of a segment of this name. Its folder is there afterwards.
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
