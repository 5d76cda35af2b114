// Linked into a viewer with --wrap=malloc and its kin: the allocation whose number is in KAV_FAIL_ALLOCATION fails, and
// standard error says so.
#include <unistd.h>

#include <cstddef>
#include <cstdlib>

extern "C" {

void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* memory, std::size_t size);
void* __wrap_malloc(std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size);
void* __wrap_realloc(void* memory, std::size_t size);

} // extern "C"

namespace {

// What the C library needs before main, for shared objects that a static program never opens, is not ours to survive.
bool b_started = false;

__attribute__((constructor)) void start()
{
    b_started = true;
}

bool is_to_fail()
{
    static long left = -1;
    if (!b_started) {
        return false;
    }
    if (left < 0) {
        const char* const which = std::getenv("KAV_FAIL_ALLOCATION");
        left = which != nullptr ? std::strtol(which, nullptr, 10) : 0;
    }
    if (left == 0 || --left > 0) {
        return false;
    }
    const ssize_t ignored = write(STDERR_FILENO, "allocation failed\n", 18);
    static_cast<void>(ignored);
    return true;
}

} // namespace

void* __wrap_malloc(std::size_t size)
{
    return is_to_fail() ? nullptr : __real_malloc(size);
}

void* __wrap_calloc(std::size_t count, std::size_t size)
{
    return is_to_fail() ? nullptr : __real_calloc(count, size);
}

void* __wrap_realloc(void* memory, std::size_t size)
{
    return is_to_fail() ? nullptr : __real_realloc(memory, size);
}
