#include "RE_top_app_log_writer.h"

#include "RE_descriptor.h"
#include "RE_stat_error.h"
#include "RE_target_path.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <mutex>
#include <vector>

namespace {

constexpr RE_stat_policy_engine_handler handler_limit = 1024;

// Opens the log in such a way that neither opening nor writing can block the engine, whatever kind of file it is.
// Returns a descriptor or -errno.
int open_log(const std::string& path)
{
    char resolved[PATH_MAX];
    struct stat found = {};
    if (resolve_target(path.c_str(), resolved, found) == RE_STAT_ERR_PLANTED_LINK) {
        return -ELOOP;
    }
    if (found.st_mode != 0 && !S_ISREG(found.st_mode) && !S_ISDIR(found.st_mode)) {
        return -EINVAL;
    }
    const int fd =
        open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY, 0644);
    return fd < 0 ? -errno : fd;
}

// A reader that finds an incomplete section at the end of the log waits while the log is locked. A user who may only
// read the log can prevent the lock; the section is written anyway.
void lock_for_appending(int fd)
{
    constexpr int most_tries = 100; // a millisecond each
    struct flock request = {};
    request.l_type = F_WRLCK;
    request.l_whence = SEEK_SET;
    for (int tries = 0; tries < most_tries && fcntl(fd, F_OFD_SETLK, &request) != 0; ++tries) {
        const timespec pause{0, 1'000'000};
        nanosleep(&pause, nullptr);
    }
}

template <typename value_type>
void append_image(std::vector<unsigned char>& bytes, const value_type& value)
{
    const auto* const image = reinterpret_cast<const unsigned char*>(&value);
    bytes.insert(bytes.end(), image, image + sizeof value);
}

std::vector<unsigned char> section_of(std::span<const RE_top_app_log_name> names,
                                      std::span<const RE_stat_app_struct> records)
{
    constexpr std::size_t name_entry_size = 86;
    std::vector<unsigned char> section;
    section.reserve(12 + names.size() * name_entry_size + records.size() * sizeof(RE_stat_app_log_record));
    append_image(section, std::uint32_t{RE_STAT_TOP_APP_LOG_BELVANO});
    append_image(section, static_cast<std::uint32_t>(names.size()));
    for (const RE_top_app_log_name& name : names) {
        append_image(section, name.names);
        append_image(section, name.handler);
    }
    append_image(section, static_cast<std::uint32_t>(records.size()));
    for (const RE_stat_app_struct& record : records) {
        append_image(section, app_record_as<RE_stat_app_log_record>(record));
    }
    return section;
}

// Removes a partial section, which would make the whole log unreadable. If another process has appended to the log in
// the meantime, nothing is removed.
int take_back(int fd, off_t size_before, std::size_t written)
{
    struct stat now = {};
    const bool b_alone = fstat(fd, &now) == 0 && now.st_size == size_before + static_cast<off_t>(written);
    return b_alone && ftruncate(fd, size_before) != 0 ? -errno : 0;
}

} // namespace

int append_top_app_log(const std::string& path, std::span<const RE_top_app_log_name> names,
                       std::span<const RE_stat_app_struct> records)
{
    const auto b_unusable = [](const RE_top_app_log_name& name) { return name.handler >= handler_limit; };
    if (std::any_of(names.begin(), names.end(), b_unusable) || names.size() > UINT32_MAX ||
        records.size() > UINT32_MAX) {
        return -EINVAL;
    }
    const std::vector<unsigned char> section = section_of(names, records);

    // For the threads of this process; other processes see the lock on the file.
    static std::mutex one_section_at_a_time;
    const std::lock_guard guard(one_section_at_a_time);

    const int fd = open_log(path);
    if (fd < 0) {
        return fd;
    }
    RE_descriptor file(fd);
    struct stat before = {};
    if (fstat(fd, &before) != 0) {
        return -errno;
    }
    if (!S_ISREG(before.st_mode)) {
        return -EINVAL;
    }
    lock_for_appending(fd);
    if (fstat(fd, &before) != 0) {
        return -errno;
    }
    std::size_t written = 0;
    if (const int error = write_all(fd, section.data(), section.size(), written)) {
        const int not_taken_back = take_back(fd, before.st_size, written);
        return not_taken_back != 0 ? not_taken_back : -error;
    }
    // Some file systems report a failed write only here.
    return file.close() || errno == EINTR ? 0 : -errno;
}
