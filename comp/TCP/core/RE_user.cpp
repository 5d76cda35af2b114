#include "RE_user.h"

#include <pwd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Calls `is_wanted` for each user until it returns true.
template <typename Predicate>
void find_entry(const Predicate& is_wanted)
{
    std::FILE* const file = std::fopen("/etc/passwd", "re");
    if (file == nullptr) {
        return;
    }
    struct passwd entry
    {
    };
    struct passwd* found = nullptr;
    char line[4096];
    while (fgetpwent_r(file, &entry, line, sizeof line, &found) == 0 && !is_wanted(entry)) {
    }
    std::fclose(file);
}

} // namespace

bool find_user(const char* name_or_number, uid_t& user)
{
    const std::size_t length = std::strlen(name_or_number);
    if (length == 0) {
        return false;
    }
    if (std::strspn(name_or_number, "0123456789") == length) {
        errno = 0;
        const unsigned long long number = std::strtoull(name_or_number, nullptr, 10);
        user = static_cast<uid_t>(number);
        return errno == 0 && number < UINT32_MAX; // UINT32_MAX means no user
    }
    bool b_found = false;
    find_entry([&](const struct passwd& entry) {
        b_found = std::strcmp(entry.pw_name, name_or_number) == 0;
        if (b_found) {
            user = entry.pw_uid;
        }
        return b_found;
    });
    return b_found;
}

const char* user_text(uid_t user, char (&text)[RE_user_text_size])
{
    std::snprintf(text, sizeof text, "%u", user);
    find_entry([&](const struct passwd& entry) {
        const bool b_found = entry.pw_uid == user;
        if (b_found) {
            std::snprintf(text, sizeof text, "%.64s (%u)", entry.pw_name, user);
        }
        return b_found;
    });
    return text;
}
