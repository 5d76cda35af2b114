// The viewer throws nothing and catches nothing, yet the library's containers bring the whole of the exception runtime
// into a statically linked program: half a megabyte to load and a reserve of memory to set up before main. These are
// the places where it would come in; each ends the program with the exit status of an error instead.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

constexpr int exit_failure = 1;

[[noreturn]] void give_up(const char* what)
{
    std::fflush(stdout);
    const ssize_t ignored = write(STDOUT_FILENO, what, std::strlen(what));
    static_cast<void>(ignored);
    _exit(exit_failure);
}

void* allocate(std::size_t size)
{
    return std::malloc(size > 0 ? size : 1);
}

void* allocate_or_give_up(std::size_t size)
{
    void* const memory = allocate(size);
    if (memory == nullptr) {
        give_up("exec_show_stats_kav: out of memory\n");
    }
    return memory;
}

} // namespace

void* operator new(std::size_t size)
{
    return allocate_or_give_up(size);
}

void* operator new[](std::size_t size)
{
    return allocate_or_give_up(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}

// What the library's headers call where they would throw.
namespace std { // NOLINT(cert-dcl58-cpp): these are the library's own entry points, defined for the whole program

[[noreturn]] void __throw_length_error(const char*);
[[noreturn]] void __throw_logic_error(const char*);
[[noreturn]] void __throw_bad_alloc();
[[noreturn]] void __throw_bad_array_new_length();

void __throw_length_error(const char* what)
{
    give_up(what);
}

void __throw_logic_error(const char* what)
{
    give_up(what);
}

void __throw_bad_alloc()
{
    give_up("exec_show_stats_kav: out of memory\n");
}

void __throw_bad_array_new_length()
{
    give_up("exec_show_stats_kav: out of memory\n");
}

} // namespace std

extern "C" [[noreturn]] void __cxa_pure_virtual();

extern "C" void __cxa_pure_virtual()
{
    give_up("exec_show_stats_kav: internal error\n");
}
