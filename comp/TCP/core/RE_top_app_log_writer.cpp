#include "RE_stat_error.h"
#include "RE_stat_writer.h"
#include "RE_target_path.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <mutex>
#include <utility>
#include <vector>

namespace {

constexpr RE_stat_policy_engine_handler handler_limit = 1024;

// Closes the descriptor, unless close() has.
class log_file
{
public:
    explicit log_file(int fd) : m_fd(fd) {}
    ~log_file() { close(); }
    log_file(const log_file&) = delete;
    log_file& operator=(const log_file&) = delete;

    int fd() const { return m_fd; }
    // Returns 0 or -errno. What has been written may get lost as late as here.
    int close()
    {
        const int fd = std::exchange(m_fd, -1);
        return fd >= 0 && ::close(fd) != 0 && errno != EINTR ? -errno : 0;
    }

private:
    int m_fd;
};

// Whatever is found there, neither opening nor writing may make an engine wait. Returns a descriptor or -errno.
int open_log(const std::string& path)
{
    char resolved[PATH_MAX];
    struct stat found
    {
    };
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

// Readers that come to the log's end in the middle of a section ask whether it is locked, and wait then. Somebody who
// may only read the log can keep it from being locked; the section is written all the same.
void lock_for_appending(int fd)
{
    constexpr int most_tries = 100; // a millisecond each
    struct flock request
    {
    };
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

// The section up to its first record.
std::vector<unsigned char> section_head(std::span<const RE_top_app_log_name> names, std::uint32_t record_count)
{
    constexpr std::size_t name_entry_size = 86;
    std::vector<unsigned char> head;
    head.reserve(12 + names.size() * name_entry_size);
    append_image(head, std::uint32_t{RE_STAT_TOP_APP_LOG_BELVANO});
    append_image(head, static_cast<std::uint32_t>(names.size()));
    for (const RE_top_app_log_name& name : names) {
        append_image(head, name.names);
        append_image(head, name.handler);
    }
    append_image(head, record_count);
    return head;
}

// Writes both parts, with one system call if the file takes them. written: how much of them. Returns 0 or -errno.
int write_section(int fd, std::span<const unsigned char> head, std::span<const RE_stat_app_struct> records,
                  std::size_t& written)
{
    std::array<iovec, 2> parts{{{const_cast<unsigned char*>(head.data()), head.size()},
                                {const_cast<RE_stat_app_struct*>(records.data()), records.size_bytes()}}};
    written = 0;
    while (parts[0].iov_len + parts[1].iov_len > 0) {
        const ssize_t count = writev(fd, parts.data(), static_cast<int>(parts.size()));
        if (count <= 0) {
            return count < 0 ? -errno : -EIO;
        }
        auto left = static_cast<std::size_t>(count);
        written += left;
        for (iovec& part : parts) {
            const std::size_t of_part = std::min(left, part.iov_len);
            part.iov_base = static_cast<unsigned char*>(part.iov_base) + of_part;
            part.iov_len -= of_part;
            left -= of_part;
        }
    }
    return 0;
}

// Half a section would make the whole log unreadable. One that another process has appended meanwhile stays.
int take_back(int fd, off_t size_before, std::size_t written)
{
    struct stat now
    {
    };
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
    const std::vector<unsigned char> head = section_head(names, static_cast<std::uint32_t>(records.size()));

    // Of this process' threads; other processes see the lock on the file.
    static std::mutex one_section_at_a_time;
    const std::lock_guard guard(one_section_at_a_time);

    const int fd = open_log(path);
    if (fd < 0) {
        return fd;
    }
    log_file file(fd);
    struct stat before
    {
    };
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
    if (const int error = write_section(fd, head, records, written)) {
        const int not_taken_back = take_back(fd, before.st_size, written);
        return not_taken_back != 0 ? not_taken_back : error;
    }
    return file.close();
}
