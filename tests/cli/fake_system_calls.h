// Lets tests observe the viewer's open, read, lseek and fstat calls and answer instead of the system.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <functional>

namespace fake_system_calls {

// Called instead of the system call when set.
extern std::function<int(const char* path, int flags)> open;
extern std::function<ssize_t(int fd, void* buffer, std::size_t size)> read;
extern std::function<off_t(int fd, off_t offset, int whence)> lseek;
extern std::function<int(int fd, struct stat* status)> fstat;
extern int reads; // read calls since the last reset

// The real system calls.
int real_open(const char* path, int flags);
ssize_t real_read(int fd, void* buffer, std::size_t size);
off_t real_lseek(int fd, off_t offset, int whence);
int real_fstat(int fd, struct stat* status);

// Makes all calls go to the system again.
void reset();

} // namespace fake_system_calls
