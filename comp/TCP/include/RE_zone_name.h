// Protection against a TZ that names an unsuitable file.
#pragma once

// Sets TZ to universal time when the file that it names exists but is empty or not a regular file: on a pipe, for
// example, the C library would wait forever. Must be called before the first conversion to local time.
void RE_keep_from_odd_zone_files();
