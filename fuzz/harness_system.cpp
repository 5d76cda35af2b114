// The system calls that a report depends on, for fuzz targets linked with --wrap: only the input may affect the result.
#include "harness.h"
#include "support/engine_shapes.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <map>

namespace {

// Never destroyed, because coverage tools open their files after all destructors.
std::map<std::string, std::string>& files()
{
    static auto* const known = new std::map<std::string, std::string>;
    return *known;
}

bool begins(const char* text, const char* beginning)
{
    return std::strncmp(text, beginning, std::strlen(beginning)) == 0;
}

// Whether the path is an input in memory. Other open files belong to the harness, and opening one of its pipes could
// block forever.
bool is_input_in_memory(const char* path)
{
    struct stat status
    {
    };
    return begins(path, "/proc/self/fd/") && stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

} // namespace

void add_file(const std::string& path, const memory_file& file)
{
    files()[path] = file.path();
}

extern "C" {

std::time_t __wrap_time(std::time_t* result);
int __wrap_sched_yield();
int __real_open(const char* path, int flags, unsigned int mode);
int __wrap_open(const char* path, int flags, unsigned int mode);

std::time_t __wrap_time(std::time_t* result)
{
    if (result != nullptr) {
        *result = sample_now;
    }
    return sample_now;
}

// Waiting for an engine that does not exist would only take time.
int __wrap_sched_yield()
{
    return 0;
}

int __wrap_open(const char* path, int flags, unsigned int mode)
{
    const auto found = files().find(path);
    if (found != files().end()) {
        return __real_open(found->second.c_str(), flags, mode);
    }
    // The sample engine's segment and its folders, the inputs in memory, and the target of saved reports.
    if (std::strcmp(path, "/dev/shm") == 0 || begins(path, "/dev/shm/kav-") || begins(path, "/tmp/kav_sample.") ||
        is_input_in_memory(path) || std::strcmp(path, "/dev/null") == 0) {
        return __real_open(path, flags, mode);
    }
    errno = ENOENT;
    return -1;
}

} // extern "C"
