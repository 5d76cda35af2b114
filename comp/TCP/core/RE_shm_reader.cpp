#include "RE_shm_reader.h"

#include "RE_descriptor.h"
#include "RE_sequence.h"
#include "RE_stat_error.h"
#include "RE_stat_segment.h"
#include "RE_syslog.h"
#include "RE_user.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr int log_id_reset_refused = 690461;
constexpr int log_id_not_believed = 690466;

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

// Whether the owner of a folder, or of the segment in it, is trusted. Logs when not. what: which of the two, for the
// log.
bool is_believed(const RE_stat_folders& folders, const struct stat& found, const char* what, const char* path)
{
    if (folders.is_trusted(found.st_uid)) {
        return true;
    }
    char owner[RE_user_text_size];
    __re_syslog(__FILE__, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, log_id_not_believed,
                "statistics not read: %s%s belongs to %s", what, path, user_text(found.st_uid, owner));
    return false;
}

// Checks a folder by its path. Opening it is not necessary: once it belongs to a trusted user, no other user can
// replace it, because the folders above it are root's or sticky. So a report needs only one descriptor.
int check_folder(const RE_stat_folders& folders, const char* path)
{
    struct stat found = {};
    if (lstat(path, &found) != 0) {
        return error_of_open(errno);
    }
    if (!is_believed(folders, found, "", path)) {
        return RE_STAT_ERR_OWNER;
    }
    if (!S_ISDIR(found.st_mode)) {
        return RE_STAT_ERR_READ;
    }
    if (!is_written_by_owner_alone(found)) {
        __re_syslog(__FILE__, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, log_id_not_believed,
                    "statistics not read: others than its owner may write to %s", path);
        return RE_STAT_ERR_OWNER;
    }
    return 0;
}

// Opens the segment of that name in a folder. Returns a descriptor, which the caller owns, or an RE_stat_error.
int open_segment(const RE_stat_folders& folders, const char* folder, const char* name, int flags, struct stat& found)
{
    if (const int error = check_folder(folders, folder)) {
        return error;
    }
    RE_stat_path path;
    std::snprintf(path, sizeof path, "%s/%s", folder, name);
    const int segment = ::open(path, flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (segment < 0) {
        return error_of_open(errno);
    }
    int error = 0;
    if (fstat(segment, &found) != 0 || !S_ISREG(found.st_mode)) {
        error = RE_STAT_ERR_READ;
    } else if (!is_believed(folders, found, "the segment in ", folder)) {
        error = RE_STAT_ERR_OWNER;
    }
    if (error == 0) {
        return segment;
    }
    ::close(segment);
    return error;
}

} // namespace

RE_shm_reader::~RE_shm_reader()
{
    RE_shm_reader::close();
}

int RE_shm_reader::open()
{
    close();
    const char* const name = stat_segment_name();
    const RE_stat_folders folders;
    if (name == nullptr || !folders.is_valid()) {
        return name == nullptr ? RE_STAT_ERR_NO_ENGINE : RE_STAT_ERR_UNKNOWN_OWNER;
    }
    int error = RE_STAT_ERR_NO_ENGINE;
    for (int number = 0; number < RE_stat_folders::count; ++number) {
        if (!folders.name_of(number, m_folder)) {
            continue;
        }
        struct stat found = {};
        const RE_descriptor segment(open_segment(folders, m_folder, name, O_RDONLY, found));
        if (segment.number() >= 0 && is_segment_lock_held(segment.number())) {
            return map(segment.number(), found);
        }
        // The segment of a dead engine or of another user does not hide a running engine in a later folder.
        if (error == RE_STAT_ERR_NO_ENGINE) {
            error = segment.number() >= 0 ? RE_STAT_ERR_ENGINE_GONE : segment.number();
        }
    }
    report_segment_of_earlier_layout(name);
    return error;
}

int RE_shm_reader::map(int segment, const struct stat& status)
{
    if (status.st_size < static_cast<off_t>(sizeof(RE_image_header))) {
        return RE_STAT_ERR_CUT;
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    if (const int error = m_mapping.map(segment, size, PROT_READ)) {
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
    const char* const name = stat_segment_name();
    struct stat status = {};
    const RE_descriptor segment(name != nullptr ? open_segment(RE_stat_folders(), m_folder, name, O_RDWR, status)
                                                : RE_STAT_ERR_NO_ENGINE);
    const bool b_same = segment.number() >= 0 && status.st_dev == m_device && status.st_ino == m_inode;
    auto target = std::make_unique<writable_segment>();
    if (!b_same || target->mapping.map(segment.number(), m_mapping.size(), PROT_READ | PROT_WRITE) != 0) {
        const char* const reason = segment.number() >= 0 && !b_same ? "another engine has it" : std::strerror(errno);
        __re_syslog(__FILE__, __LINE__, KAV_STATS, RE_SYSLOG_ERROR, log_id_reset_refused,
                    "statistics not reset: the segment in %s cannot be written to: %s", m_folder, reason);
        return nullptr;
    }
    if (target->image.attach(target->mapping.base(), target->mapping.size(), RE_image_kind::live) != 0) {
        return nullptr;
    }
    return target;
}
