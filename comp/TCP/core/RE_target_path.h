// Resolves a path that is to be written to, and detects what other users may have planted there.
#pragma once

#include <sys/stat.h>

#include <linux/limits.h>

// Whether a user other than root and this user may have put `found` at `path`: it belongs to such a user and is in a
// folder that others may write to. In such a folder, even this user's own link counts as planted, unless the folder is
// sticky and belongs to root or this user.
bool is_planted(const char* path, const struct stat& found);

// Follows `path` through all its folders and links. resolved: receives the path without links, except for a link to
// something without a path of its own, as /dev/stdout may be. found: receives the status of what exists there, all 0
// when nothing does. Returns 0; RE_STAT_ERR_PLANTED_LINK when another user may have planted a link, or a folder inside
// a sticky folder that all may write to; or RE_STAT_ERR_TARGET when the path cannot be followed.
int resolve_target(const char* path, char (&resolved)[PATH_MAX], struct stat& found);
