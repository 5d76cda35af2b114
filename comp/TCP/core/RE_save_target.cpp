#include "RE_save_target.h"

#include "RE_stat_error.h"
#include "RE_stat_folder.h"
#include "RE_stat_segment.h"
#include "RE_target_path.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace {

// Bytes per write.
constexpr std::size_t buffer_size = std::size_t{64} << 10U;

// Stores the path of the folder of `path` in `folder`. Returns false when it is too long.
bool folder_of(const char* path, char (&folder)[PATH_MAX])
{
    const char* const slash = std::strrchr(path, '/');
    if (slash == nullptr) {
        std::memcpy(folder, ".", sizeof ".");
        return true;
    }
    const auto length = std::max<std::size_t>(static_cast<std::size_t>(slash - path), 1);
    if (length >= sizeof folder) {
        return false;
    }
    std::memcpy(folder, path, length);
    folder[length] = '\0';
    return true;
}

int error_of_write(int error)
{
    return error == ENOSPC || error == EDQUOT || error == EFBIG ? RE_STAT_ERR_NO_SPACE : RE_STAT_ERR_WRITE;
}

// Replacing an engine's segment would hide the engine from viewers.
bool is_engines(const char* target)
{
    return is_live_segment(target) || is_engine_file(target);
}

XXH64_state_t* hash_in(unsigned char* bytes)
{
    return std::launder(reinterpret_cast<XXH64_state_t*>(bytes));
}

} // namespace

RE_save_target::RE_save_target()
{
    static_assert(sizeof(XXH64_state_t) <= sizeof m_hash_state);
    m_target[0] = '\0';
    m_temporary[0] = '\0';
    XXH64_reset(new (m_hash_state) XXH64_state_t, 0);
}

RE_save_target::~RE_save_target()
{
    discard();
}

void RE_save_target::discard()
{
    m_descriptor.close();
    if (m_temporary[0] != '\0') {
        unlink(m_temporary);
        m_temporary[0] = '\0';
    }
}

int RE_save_target::open(const char* path)
{
    m_buffer.reset(new (std::nothrow) unsigned char[buffer_size]);
    if (m_buffer == nullptr) {
        return RE_STAT_ERR_NO_MEMORY;
    }
    char target[PATH_MAX];
    struct stat found = {};
    if (const int error = resolve_target(path, target, found)) {
        return error;
    }
    if (S_ISDIR(found.st_mode)) {
        return RE_STAT_ERR_TARGET_FOLDER;
    }
    if (found.st_mode == 0 || S_ISREG(found.st_mode)) {
        return open_beside(target, found);
    }
    return is_planted(target, found) ? RE_STAT_ERR_PLANTED_LINK : open_in_place(target, found);
}

int RE_save_target::open_in_place(const char* target, const struct stat& expected)
{
    // O_NONBLOCK, so that opening a pipe without a reader fails instead of waiting forever. Writing may wait.
    m_descriptor = RE_descriptor(::open(target, O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat opened = {};
    // The target may have been replaced since it was checked.
    if (!m_descriptor.is_open() || fstat(m_descriptor.number(), &opened) != 0 || opened.st_dev != expected.st_dev ||
        opened.st_ino != expected.st_ino) {
        return RE_STAT_ERR_TARGET;
    }
    const int flags = fcntl(m_descriptor.number(), F_GETFL);
    if (flags >= 0) {
        fcntl(m_descriptor.number(), F_SETFL, flags & ~O_NONBLOCK);
    }
    return 0;
}

int RE_save_target::open_beside(const char* target, const struct stat& existing)
{
    if (is_engines(target)) {
        return RE_STAT_ERR_LIVE_SEGMENT;
    }
    char folder[PATH_MAX];
    if (!folder_of(target, folder)) {
        return RE_STAT_ERR_TARGET;
    }
    const int target_length = std::snprintf(m_target, sizeof m_target, "%s", target);
    const int length = std::snprintf(m_temporary, sizeof m_temporary, "%s/.kav_statistics.XXXXXX", folder);
    if (target_length < 1 || target_length >= PATH_MAX || length >= PATH_MAX) {
        m_temporary[0] = '\0';
        return RE_STAT_ERR_TARGET;
    }
    m_descriptor = RE_descriptor(mkostemp(m_temporary, O_CLOEXEC));
    if (!m_descriptor.is_open()) {
        m_temporary[0] = '\0';
        return errno == ENOSPC || errno == EDQUOT ? RE_STAT_ERR_NO_SPACE : RE_STAT_ERR_TARGET;
    }
    m_b_regular = true;
    // Keeps the mode of the existing file without its set-user-ID and set-group-ID bits. The mode of a file that
    // another user may have planted is not kept: it may let others write to this user's new file.
    if (S_ISREG(existing.st_mode) && !is_planted(target, existing)) {
        m_mode = existing.st_mode & 0777;
    } else {
        const mode_t mask = umask(0);
        umask(mask);
        m_mode = 0666 & ~mask;
    }
    return 0;
}

void RE_save_target::append(const void* bytes, std::size_t size)
{
    if (m_error != 0 || size == 0) {
        return;
    }
    XXH64_update(hash_in(m_hash_state), bytes, size);
    m_position += size;
    const auto* from = static_cast<const unsigned char*>(bytes);
    while (size > 0) {
        const std::size_t part = std::min(size, buffer_size - m_buffered);
        std::memcpy(m_buffer.get() + m_buffered, from, part);
        m_buffered += part;
        from += part;
        size -= part;
        if (m_buffered == buffer_size) {
            flush();
        }
    }
}

void RE_save_target::fill_to(std::uint64_t position)
{
    constexpr unsigned char zeros[8] = {};
    while (m_error == 0 && m_position < position) {
        append(zeros, static_cast<std::size_t>(std::min<std::uint64_t>(sizeof zeros, position - m_position)));
    }
}

std::uint64_t RE_save_target::checksum() const
{
    XXH64_state_t state{};
    std::memcpy(&state, m_hash_state, sizeof state);
    return XXH64_digest(&state);
}

void RE_save_target::flush()
{
    std::size_t written = 0;
    if (const int error = m_error == 0 ? write_all(m_descriptor.number(), m_buffer.get(), m_buffered, written) : 0) {
        m_error = error_of_write(error);
    }
    m_buffered = 0;
}

int RE_save_target::finish()
{
    flush();
    if (m_error == 0 && m_b_regular) {
        m_error = put_into_place();
    } else if (m_error == 0) {
        m_error = m_descriptor.close() ? 0 : error_of_write(errno);
    }
    discard();
    return m_error;
}

int RE_save_target::put_into_place()
{
    if (fchmod(m_descriptor.number(), static_cast<mode_t>(m_mode)) != 0) {
        return RE_STAT_ERR_WRITE;
    }
    if (fsync(m_descriptor.number()) != 0) {
        return errno == ENOSPC || errno == EDQUOT ? RE_STAT_ERR_NO_SPACE : RE_STAT_ERR_SYNC;
    }
    if (!m_descriptor.close()) {
        return error_of_write(errno);
    }
    if (is_engines(m_target)) { // an engine may have started in the meantime
        return RE_STAT_ERR_LIVE_SEGMENT;
    }
    if (rename(m_temporary, m_target) != 0) {
        return RE_STAT_ERR_RENAME;
    }
    m_temporary[0] = '\0';

    char folder[PATH_MAX];
    if (!folder_of(m_target, folder)) {
        return RE_STAT_ERR_SYNC;
    }
    const RE_descriptor opened(::open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened.is_open()) {
        return errno == EACCES ? 0 : RE_STAT_ERR_SYNC; // a folder without read permission cannot be synced
    }
    // Some file systems cannot sync a folder; the file itself is on disk.
    return fsync(opened.number()) == 0 || errno == EINVAL ? 0 : RE_STAT_ERR_SYNC;
}
