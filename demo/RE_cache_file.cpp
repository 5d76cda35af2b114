#include "RE_cache_file.h"

#include "RE_stat_error.h"
#include "RE_target_path.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace {

[[noreturn]] void fail(int error, const std::string& what)
{
    throw std::system_error(error, std::generic_category(), what);
}

int open_unnamed_file(const std::string& folder)
{
    char resolved[PATH_MAX];
    struct stat found = {};
    if (resolve_target(folder.c_str(), resolved, found) == RE_STAT_ERR_PLANTED_LINK) {
        fail(ELOOP, "cannot make a cache file in " + folder);
    }
    std::string name = folder + "/kav_cache_XXXXXX";
    const int descriptor = mkostemp(name.data(), O_CLOEXEC);
    if (descriptor < 0) {
        fail(errno, "cannot make a cache file in " + folder);
    }
    unlink(name.c_str());
    return descriptor;
}

} // namespace

RE_cache_file::RE_cache_file(const std::string& folder, std::uint64_t size)
    : m_descriptor(open_unnamed_file(folder)), m_size(size)
{}

RE_cache_file::~RE_cache_file()
{
    if (is_disk_full()) {
        close(m_full_device);
    }
    close(m_descriptor);
}

void RE_cache_file::prepare(std::uint64_t bytes)
{
    const std::uint64_t part = std::min(bytes, m_size - m_prepared);
    if (part == 0) {
        return;
    }
    int error = EINTR;
    while (error == EINTR) {
        error = posix_fallocate(m_descriptor, static_cast<off_t>(m_prepared), static_cast<off_t>(part));
    }
    if (error != 0) {
        fail(error, "cannot take disk space for a cache");
    }
    m_prepared += part;
}

// Writes after the end of the data, where no chunk is.
bool RE_cache_file::is_writable() const
{
    const std::uint8_t byte = 0;
    return pwrite(write_descriptor(), &byte, sizeof byte, static_cast<off_t>(m_size)) == sizeof byte;
}

void RE_cache_file::set_disk_full(bool b_full)
{
    if (is_disk_full()) {
        close(m_full_device);
    }
    m_full_device = b_full ? open("/dev/full", O_WRONLY | O_CLOEXEC) : -1;
    if (b_full && m_full_device < 0) {
        fail(errno, "cannot open /dev/full");
    }
}

void RE_cache_file::write(std::uint64_t position, RE_byte_view bytes)
{
    while (!bytes.empty()) {
        const std::uint64_t offset = position % m_size;
        const std::size_t wanted = std::min<std::uint64_t>(bytes.size(), m_size - offset);
        const ssize_t written = pwrite(write_descriptor(), bytes.data(), wanted, static_cast<off_t>(offset));
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            fail(errno, "cannot write to a cache file");
        }
        bytes = bytes.subspan(static_cast<std::size_t>(written));
        position += static_cast<std::uint64_t>(written);
    }
}

void RE_cache_file::read(std::uint64_t position, std::size_t size, RE_byte_buffer& out)
{
    std::size_t at = out.size();
    out.resize(at + size);
    while (at < out.size()) {
        const std::uint64_t offset = position % m_size;
        const std::size_t wanted = std::min<std::uint64_t>(out.size() - at, m_size - offset);
        const ssize_t got = pread(m_descriptor, out.data() + at, wanted, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            fail(got < 0 ? errno : EIO, "cannot read from a cache file");
        }
        at += static_cast<std::size_t>(got);
        position += static_cast<std::uint64_t>(got);
    }
}
