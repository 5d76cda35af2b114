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
    void* const mapping = mmap(nullptr, size, PROT_READ, MAP_SHARED, segment.number(), 0);
    if (mapping == MAP_FAILED) {
        return errno == ENOMEM ? RE_STAT_ERR_NO_MEMORY : RE_STAT_ERR_READ;
    }
    m_mapping = mapping;
    m_size = size;
    m_device = status.st_dev;
    m_inode = status.st_ino;

    RE_stat_image image;
    int error = image.attach(static_cast<unsigned char*>(mapping), size, RE_image_kind::live);
    if (error == 0 && load_acquire(&image.header->state) != RE_IMAGE_PUBLISHED) {
        error = RE_STAT_ERR_NOT_PUBLISHED;
    }
    if (error != 0) {
        close();
        return error;
    }
    begin(image);
    return 0;
}

int RE_shm_reader::close()
{
    end();
    if (m_mapping != nullptr) {
        munmap(m_mapping, m_size);
        m_mapping = nullptr;
    }
    return 0;
}

namespace {

// A second, writable mapping of the segment.
class writable_segment : public RE_image_reader::writable_image
{
public:
    writable_segment(void* mapping, std::size_t size) : m_mapping(mapping), m_size(size) {}
    ~writable_segment() override { munmap(m_mapping, m_size); }
    writable_segment(const writable_segment&) = delete;
    writable_segment& operator=(const writable_segment&) = delete;

private:
    void* m_mapping;
    std::size_t m_size;
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
    void* const mapping =
        b_same ? mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_SHARED, segment.number(), 0) : MAP_FAILED;
    if (mapping == MAP_FAILED) {
        const char* const reason = segment.number() >= 0 && !b_same ? "another engine has it" : std::strerror(errno);
        __re_syslog(__FILE__, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, log_id_reset_refused,
                    "statistics not reset: %s cannot be written to: %s", m_path.c_str(), reason);
        return nullptr;
    }
    auto target = std::make_unique<writable_segment>(mapping, m_size);
    if (target->image.attach(static_cast<unsigned char*>(mapping), m_size, RE_image_kind::live) != 0) {
        return nullptr;
    }
    return target;
}
