// Saves a statistics image to a file.
#pragma once

#include "RE_stat_image.h"

// Writes the present contents of `image` to `path`. A regular file is replaced as a whole or not at all; a pipe or
// device is written in place. Returns 0 or an RE_stat_error.
int save_image(const RE_stat_image& image, const char* path);
