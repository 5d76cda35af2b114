#include "RE_output_file.h"

#include "RE_stat_error.h"
#include "RE_target_path.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace {

// Whether the file may be replaced: it is a regular file, or does not exist yet. Returns 0 or -errno.
int judge(const std::string& path)
{
    char resolved[PATH_MAX];
    struct stat found = {};
    if (resolve_target(path.c_str(), resolved, found) == RE_STAT_ERR_PLANTED_LINK) {
        return -ELOOP;
    }
    if (lstat(path.c_str(), &found) != 0) {
        return errno == ENOENT ? 0 : -errno;
    }
    if (S_ISDIR(found.st_mode)) {
        return -EISDIR;
    }
    return S_ISREG(found.st_mode) ? 0 : -EINVAL;
}

int write_all(int descriptor, const std::string& text)
{
    for (std::size_t at = 0; at < text.size();) {
        const ssize_t written = write(descriptor, text.data() + at, text.size() - at);
        if (written < 0) {
            return -errno;
        }
        at += static_cast<std::size_t>(written);
    }
    const mode_t mask = umask(0);
    umask(mask);
    return fchmod(descriptor, 0666 & ~mask) == 0 ? 0 : -errno;
}

} // namespace

void replace_file(const std::string& path, const std::string& text)
{
    if (const int error = judge(path)) {
        fail_with_file(error, "cannot write ", path);
    }
    std::string temporary = path + ".XXXXXX";
    const int descriptor = mkostemp(temporary.data(), O_CLOEXEC);
    if (descriptor < 0) {
        fail_with_file(-errno, "cannot write ", path);
    }
    int error = write_all(descriptor, text);
    error = close(descriptor) != 0 && error == 0 ? -errno : error;
    error = error == 0 && rename(temporary.c_str(), path.c_str()) != 0 ? -errno : error;
    if (error != 0) {
        unlink(temporary.c_str());
        fail_with_file(error, "cannot write ", path);
    }
}

void fail_with_file(int result, const std::string& what, const std::string& path)
{
    if (result == -EINVAL) {
        throw std::runtime_error(what + path + ": not a regular file");
    }
    throw std::system_error(-result, std::generic_category(), what + path);
}
