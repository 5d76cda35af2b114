#include "RE_target_path.h"

#include "RE_stat_error.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace {

bool is_trusted(uid_t user)
{
    return user == 0 || user == geteuid();
}

// Reads the status of the folder of `path`. Returns false on failure.
bool look_at_folder_of(const char* path, struct stat& folder)
{
    char name[PATH_MAX] = ".";
    if (const char* const slash = std::strrchr(path, '/')) {
        const std::ptrdiff_t length = slash == path ? 1 : slash - path;
        if (length >= PATH_MAX) {
            return false;
        }
        std::snprintf(name, sizeof name, "%.*s", static_cast<int>(length), path);
    }
    return stat(name, &folder) == 0;
}

bool is_open_to_others(const struct stat& folder)
{
    return !is_trusted(folder.st_uid) || (folder.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

bool is_sticky_for_all(const struct stat& folder)
{
    return (folder.st_mode & S_ISVTX) != 0 && (folder.st_mode & S_IWOTH) != 0;
}

void copy_path(char (&to)[PATH_MAX], const char* from)
{
    std::memcpy(to, from, std::strlen(from) + 1); // `from` comes from an array of the same size
}

// One walk along a path. The part already walked contains no links.
class target_walk
{
public:
    explicit target_walk(char (&resolved)[PATH_MAX]) : m_place(resolved) { m_place[0] = '\0'; }

    int go(const char* path, struct stat& found);

private:
    bool take_name();
    int look(struct stat& found);
    int follow_link(const struct stat& link);
    int judge_missing(struct stat& found);
    bool is_at_end() const { return m_rest[std::strspn(m_rest, "/")] == '\0'; }

    char (&m_place)[PATH_MAX];
    char m_rest[PATH_MAX] = {};
    char m_through[PATH_MAX] = {}; // the last link, when the path ends with it
    int m_links = 0;
};

int target_walk::go(const char* path, struct stat& found)
{
    const int length = std::snprintf(m_rest, sizeof m_rest, "%s", path);
    if (length < 1 || length >= PATH_MAX) {
        return RE_STAT_ERR_TARGET;
    }
    int error = stat(m_rest[0] == '/' ? "/" : ".", &found) == 0 ? 0 : RE_STAT_ERR_TARGET;
    if (m_rest[0] == '/') {
        copy_path(m_place, "/");
    }
    while (error == 0 && !is_at_end()) {
        error = take_name() ? look(found) : RE_STAT_ERR_TARGET;
    }
    const bool b_folder_wanted = m_rest[0] == '/';
    return error == 0 && b_folder_wanted && !S_ISDIR(found.st_mode) ? RE_STAT_ERR_TARGET : error;
}

// Moves the next name from m_rest to the end of m_place. Returns false when m_place would be too long.
bool target_walk::take_name()
{
    const char* const name = m_rest + std::strspn(m_rest, "/");
    const std::size_t name_length = std::strcspn(name, "/");
    const std::size_t place_length = std::strlen(m_place);
    const bool b_slash = place_length > 0 && m_place[place_length - 1] != '/';
    if (place_length + name_length + 2 > PATH_MAX) {
        return false;
    }
    char* const end = m_place + place_length;
    *end = '/';
    std::memcpy(end + (b_slash ? 1 : 0), name, name_length);
    end[name_length + (b_slash ? 1 : 0)] = '\0';
    std::memmove(m_rest, name + name_length, std::strlen(name + name_length) + 1);
    return true;
}

int target_walk::look(struct stat& found)
{
    found = {};
    if (lstat(m_place, &found) != 0) {
        return errno == ENOENT && is_at_end() ? judge_missing(found) : RE_STAT_ERR_TARGET;
    }
    if (S_ISLNK(found.st_mode)) {
        return follow_link(found);
    }
    if (is_at_end()) {
        return 0;
    }
    struct stat around = {};
    if (!S_ISDIR(found.st_mode) || !look_at_folder_of(m_place, around)) {
        return RE_STAT_ERR_TARGET;
    }
    // Its owner may replace it with a link at any time.
    return is_sticky_for_all(around) && !is_trusted(found.st_uid) ? RE_STAT_ERR_PLANTED_LINK : 0;
}

// Inserts the link's target before m_rest.
int target_walk::follow_link(const struct stat& link)
{
    constexpr int most_links = 40; // as many as the system follows
    if (is_planted(m_place, link)) {
        return RE_STAT_ERR_PLANTED_LINK;
    }
    char next[PATH_MAX];
    const ssize_t length = readlink(m_place, next, sizeof next);
    const std::size_t rest_length = std::strlen(m_rest);
    if (++m_links > most_links || length <= 0 || static_cast<std::size_t>(length) + rest_length >= sizeof next) {
        return RE_STAT_ERR_TARGET;
    }
    if (m_rest[0] == '\0') {
        copy_path(m_through, m_place);
    }
    std::memcpy(next + length, m_rest, rest_length + 1);
    copy_path(m_rest, next);
    if (m_rest[0] == '/') {
        copy_path(m_place, "/");
    } else if (char* const slash = std::strrchr(m_place, '/')) {
        slash[slash == m_place ? 1 : 0] = '\0';
    } else {
        m_place[0] = '\0';
    }
    return 0;
}

// Handles a path at which nothing exists: the place of a new file, unless a link leads there. The target text of a link
// to a pipe is not a path; the pipe can only be opened through the link.
int target_walk::judge_missing(struct stat& found)
{
    found = {};
    if (m_through[0] == '\0') {
        return 0;
    }
    if (stat(m_through, &found) != 0 || S_ISREG(found.st_mode)) {
        return RE_STAT_ERR_TARGET;
    }
    copy_path(m_place, m_through);
    return 0;
}

} // namespace

bool is_planted(const char* path, const struct stat& found)
{
    struct stat folder = {};
    if (!look_at_folder_of(path, folder)) {
        return true;
    }
    if (!is_open_to_others(folder)) {
        return false;
    }
    const bool b_stays = is_trusted(folder.st_uid) && (folder.st_mode & S_ISVTX) != 0;
    return !is_trusted(found.st_uid) || (S_ISLNK(found.st_mode) && !b_stays);
}

int resolve_target(const char* path, char (&resolved)[PATH_MAX], struct stat& found)
{
    return target_walk(resolved).go(path, found);
}
