// The users of this machine, as listed in /etc/passwd. The system's own look-up cannot be linked into the viewer, which
// is a static program.
#pragma once

#include <sys/types.h>

#include <cstddef>

// Finds a user by name. A decimal number is the user id itself, which need not be listed. Returns false when there is
// no such user.
bool find_user(const char* name_or_number, uid_t& user);

// Writes "nobody (65534)", or "65534" for a user without a name, to `text`. Returns `text`.
constexpr std::size_t RE_user_text_size = 80;
const char* user_text(uid_t user, char (&text)[RE_user_text_size]);
