// The time zone of the environment, as far as it may name a file.
#pragma once

// Sets TZ to universal time when the file it names is no regular file: the C library would wait for a pipe without end.
// To be called before the first local time.
void RE_keep_from_odd_zone_files();
