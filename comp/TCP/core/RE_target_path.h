// Where a path leads that is to be written to, if nobody else has had a hand in it.
#pragma once

#include <sys/stat.h>

#include <linux/limits.h>

// Whether `found`, which stands at `path`, may have been put there by somebody who is neither root nor this user: it is
// another user's, in a folder that others may write to. A link is planted there even if it is one's own, unless the
// folder is sticky.
bool is_planted(const char* path, const struct stat& found);

// Follows `path` through all its folders and links. resolved: the same place without links, except that one to
// something without a name of its own, as /dev/stdout may be, stays. found: what stands there, all 0 when nothing does.
// Returns 0; RE_STAT_ERR_PLANTED_LINK when a link may have been planted, or a folder in a sticky one that all may write
// to; RE_STAT_ERR_TARGET when the path leads nowhere.
int resolve_target(const char* path, char (&resolved)[PATH_MAX], struct stat& found);
