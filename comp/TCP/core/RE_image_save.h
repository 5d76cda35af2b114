// Writing a statistics image to a file.
#pragma once

#include "RE_stat_image.h"

// Writes what `image` holds at this moment to `path`. A regular file is replaced as a whole or not at all, whatever
// fails; a pipe or device is written in place. Returns 0 or an RE_stat_error.
int save_image(const RE_stat_image& image, const char* path);
