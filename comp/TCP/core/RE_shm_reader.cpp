#include "RE_shm_reader.h"

#include "RE_sequence.h"
#include "RE_stat_error.h"
#include "RE_syslog.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr const char* log_file = "comp/TCP/core/RE_shm_reader";
constexpr int log_id_reset_refused = 690461;

// A descriptor that closes itself.
class descriptor
{
public:
    explicit descriptor(int number) : m_number(number) {}
    ~descriptor()
    {
        if (m_number >= 0) {
            ::close(m_number);
        }
    }
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;
    int number() const { return m_number; }

private:
    int m_number;
};

int error_of_open(int error)
{
    switch (error) {
    case ENOENT:
        return RE_STAT_ERR_NO_ENGINE;
    case EACCES:
    case EPERM:
        return RE_STAT_ERR_PERMISSION;
    default:
        return RE_STAT_ERR_READ;
    }
}

} // namespace

RE_shm_reader::~RE_shm_reader()
{
    RE_shm_reader::close();
}

int RE_shm_reader::open()
{
    close();
    if (!m_path.is_valid()) {
        return RE_STAT_ERR_NO_ENGINE;
    }
    const descriptor segment(::open(m_path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (segment.number() < 0) {
        return error_of_open(errno);
    }
    struct stat status
    {
    };
    if (fstat(segment.number(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return RE_STAT_ERR_READ;
    }
    if (!is_segment_lock_held(segment.number(), RE_segment_lock_engine)) {
        return RE_STAT_ERR_ENGINE_GONE;
    }
    if (status.st_size < static_cast<off_t>(sizeof(RE_image_header))) {
        return RE_STAT_ERR_CUT;
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    if (const int error = m_mapping.map(segment.number(), size, PROT_READ)) {
        return error;
    }
    m_device = status.st_dev;
    m_inode = status.st_ino;

    RE_stat_image image;
    int error = image.attach(m_mapping.base(), size, RE_image_kind::live);
    if (error == 0 && load_acquire(&image.header->state) != RE_IMAGE_PUBLISHED) {
        error = RE_STAT_ERR_NOT_PUBLISHED;
    }
    if (m_mapping.is_cut()) {
        error = RE_STAT_ERR_CUT;
    }
    if (error != 0) {
        close();
        return error;
    }
    image.mapping = &m_mapping;
    begin(image);
    return 0;
}

int RE_shm_reader::close()
{
    end();
    m_mapping.unmap();
    return 0;
}

namespace {

// A second, writable mapping of the segment.
class writable_segment : public RE_image_reader::writable_image
{
public:
    RE_watched_mapping mapping;
};

} // namespace

std::unique_ptr<RE_image_reader::writable_image> RE_shm_reader::open_writable()
{
    if (!is_open()) {
        return nullptr;
    }
    const descriptor segment(::open(m_path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    struct stat status
    {
    };
    const bool b_same = segment.number() >= 0 && fstat(segment.number(), &status) == 0 && status.st_dev == m_device &&
                        status.st_ino == m_inode;
    auto target = std::make_unique<writable_segment>();
    if (!b_same || target->mapping.map(segment.number(), m_mapping.size(), PROT_READ | PROT_WRITE) != 0) {
        const char* const reason = segment.number() >= 0 && !b_same ? "another engine has it" : std::strerror(errno);
        __re_syslog(log_file, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, log_id_reset_refused,
                    "statistics not reset: %s cannot be written to: %s", m_path.c_str(), reason);
        return nullptr;
    }
    if (target->image.attach(target->mapping.base(), target->mapping.size(), RE_image_kind::live) != 0) {
        return nullptr;
    }
    return target;
}
