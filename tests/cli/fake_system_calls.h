// Lets tests look at the viewer's open, read, lseek and fstat calls and answer in the system's place.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <functional>

namespace fake_system_calls {

// Called instead of the system's when set.
extern std::function<int(const char* path, int flags)> open;
extern std::function<ssize_t(int fd, void* buffer, std::size_t size)> read;
extern std::function<off_t(int fd, off_t offset, int whence)> lseek;
extern std::function<int(int fd, struct stat* status)> fstat;
extern int reads; // read calls since the last reset

// The system's own.
int real_open(const char* path, int flags);
ssize_t real_read(int fd, void* buffer, std::size_t size);
off_t real_lseek(int fd, off_t offset, int whence);
int real_fstat(int fd, struct stat* status);

// All calls go to the system again.
void reset();

} // namespace fake_system_calls
