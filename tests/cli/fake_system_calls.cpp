#include "cli/fake_system_calls.h"

#include <fcntl.h>

#include <cstdarg>

extern "C" int __real_open(const char* path, int flags, ...);
extern "C" ssize_t __real_read(int fd, void* buffer, std::size_t size);
extern "C" off_t __real_lseek(int fd, off_t offset, int whence);
extern "C" int __real_fstat(int fd, struct stat* status);
extern "C" int __wrap_open(const char* path, int flags, ...);
extern "C" ssize_t __wrap_read(int fd, void* buffer, std::size_t size);
extern "C" off_t __wrap_lseek(int fd, off_t offset, int whence);
extern "C" int __wrap_fstat(int fd, struct stat* status);

namespace fake_system_calls {

std::function<int(const char*, int)> open;
std::function<ssize_t(int, void*, std::size_t)> read;
std::function<off_t(int, off_t, int)> lseek;
std::function<int(int, struct stat*)> fstat;
int reads = 0;

int real_open(const char* path, int flags)
{
    return __real_open(path, flags);
}

ssize_t real_read(int fd, void* buffer, std::size_t size)
{
    return __real_read(fd, buffer, size);
}

off_t real_lseek(int fd, off_t offset, int whence)
{
    return __real_lseek(fd, offset, whence);
}

int real_fstat(int fd, struct stat* status)
{
    return __real_fstat(fd, status);
}

void reset()
{
    open = nullptr;
    read = nullptr;
    lseek = nullptr;
    fstat = nullptr;
    reads = 0;
}

} // namespace fake_system_calls

extern "C" int __wrap_open(const char* path, int flags, ...)
{
    if (fake_system_calls::open) {
        return fake_system_calls::open(path, flags);
    }
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return __real_open(path, flags, mode);
}

extern "C" ssize_t __wrap_read(int fd, void* buffer, std::size_t size)
{
    ++fake_system_calls::reads;
    return fake_system_calls::read ? fake_system_calls::read(fd, buffer, size) : __real_read(fd, buffer, size);
}

extern "C" off_t __wrap_lseek(int fd, off_t offset, int whence)
{
    return fake_system_calls::lseek ? fake_system_calls::lseek(fd, offset, whence) : __real_lseek(fd, offset, whence);
}

extern "C" int __wrap_fstat(int fd, struct stat* status)
{
    return fake_system_calls::fstat ? fake_system_calls::fstat(fd, status) : __real_fstat(fd, status);
}
