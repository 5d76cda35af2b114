#include "RE_zone_name.h"

#include <sys/stat.h>

#include <linux/limits.h>

#include <cstdio>
#include <cstdlib>

namespace {

// A missing file is harmless: the C library then reads TZ as a rule. A file of size 0 is not, as the system may
// generate its contents while it is read.
bool is_odd(const char* folder, const char* name)
{
    char path[PATH_MAX];
    struct stat status = {};
    const int length = name[0] == '/' ? std::snprintf(path, sizeof path, "%s", name)
                                      : std::snprintf(path, sizeof path, "%s/%s", folder, name);
    const bool b_there = length > 0 && length < PATH_MAX && stat(path, &status) == 0;
    return b_there && (!S_ISREG(status.st_mode) || status.st_size == 0);
}

} // namespace

// Looks where the C library does: below TZDIR, unless the name begins with a slash. ".." is treated like any other
// name. Rules without dates, such as "EST5EDT", take their dates from the file "posixrules".
void RE_keep_from_odd_zone_files()
{
    const char* name = std::getenv("TZ");
    if (name == nullptr) {
        return;
    }
    if (name[0] == ':') {
        ++name;
    }
    if (name[0] == '\0') {
        name = "Universal";
    }
    const char* folder = std::getenv("TZDIR");
    if (folder == nullptr || folder[0] == '\0') {
        folder = "/usr/share/zoneinfo";
    }
    if (is_odd(folder, name) || is_odd(folder, "posixrules")) {
        unsetenv("TZDIR");
        setenv("TZ", "UTC0", 1);
    }
}
