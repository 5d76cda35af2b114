#include "RE_stat_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
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

int open_log(const std::string& path)
{
    int fd = -1;
    do {
        fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    } while (fd < 0 && errno == EINTR);
    return fd < 0 ? -errno : fd;
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

// Writes both parts, with one system call if the file takes them. Returns 0 or -errno.
int write_section(int fd, std::span<const unsigned char> head, std::span<const RE_stat_app_struct> records)
{
    std::array<iovec, 2> parts{{{const_cast<unsigned char*>(head.data()), head.size()},
                                {const_cast<RE_stat_app_struct*>(records.data()), records.size_bytes()}}};
    while (parts[0].iov_len + parts[1].iov_len > 0) {
        const ssize_t count = writev(fd, parts.data(), static_cast<int>(parts.size()));
        if (count < 0 && errno != EINTR) {
            return -errno;
        }
        auto written = count < 0 ? std::size_t{0} : static_cast<std::size_t>(count);
        for (iovec& part : parts) {
            const std::size_t of_part = std::min(written, part.iov_len);
            part.iov_base = static_cast<unsigned char*>(part.iov_base) + of_part;
            part.iov_len -= of_part;
            written -= of_part;
        }
    }
    return 0;
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

    // Taking a section back would take another thread's with it. Other processes are kept out by nothing: a lock on
    // the file would let anyone who may read it stop the engine.
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
    const int result = write_section(fd, head, records);
    if (result == 0) {
        return file.close();
    }
    // Half a section would make the whole log unreadable. A pipe has no way back.
    if (S_ISREG(before.st_mode) && ftruncate(fd, before.st_size) != 0) {
        return -errno;
    }
    return result;
}
