// Linked into a viewer with --wrap=malloc, --wrap=calloc and --wrap=realloc. The allocation with the number in
// KAV_FAIL_ALLOCATION fails, and with a "+" after the number, all later ones fail as well. A message on standard error
// reports each failure.
#include <unistd.h>

#include <cerrno>
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

// Allocations before main never fail. The C library makes them for shared objects, which a static program does not
// open, and the viewer cannot handle their failure. Volatile, because Clang would otherwise run the constructor at
// compile time.
volatile bool b_started = false;

__attribute__((constructor)) void start()
{
    b_started = true;
}

bool is_to_fail()
{
    const char* const which = b_started ? std::getenv("KAV_FAIL_ALLOCATION") : nullptr;
    if (which == nullptr) {
        return false;
    }
    static long count = 0;
    char* end = nullptr;
    const long first = std::strtol(which, &end, 10);
    ++count;
    if (*end == '+' ? count < first : count != first) {
        return false;
    }
    const ssize_t ignored = write(STDERR_FILENO, "allocation failed\n", 18);
    static_cast<void>(ignored);
    errno = ENOMEM;
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
