#include "RE_watched_mapping.h"

#include "RE_stat_error.h"

#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <new>

namespace {

struct sigaction program_action;

} // namespace

// The signal handler's record of a mapping. `start` is stored last and cleared first. When a handler finds it unchanged
// after reading the other fields, they belong to the same mapping.
struct RE_watched_range
{
    std::atomic<RE_watched_range*> next;
    std::atomic<bool> b_taken;
    std::atomic<std::uintptr_t> start; // 0 while there is no mapping
    std::atomic<std::uintptr_t> end;
    std::atomic<int> protection;
    std::atomic<bool> b_cut;
    std::atomic<bool> b_silent; // the program's own handler is not called
};

namespace {

// The handler may walk the list at any time, so a free range stays in the list until it is reused.
RE_watched_range first_range;

RE_watched_range* take_range()
{
    RE_watched_range* last = nullptr;
    for (RE_watched_range* range = &first_range; range != nullptr; range = range->next) {
        if (!range->b_taken.exchange(true)) {
            return range;
        }
        last = range;
    }
    auto* const added = new (std::nothrow) RE_watched_range{};
    if (added == nullptr) {
        return nullptr;
    }
    added->b_taken = true;
    for (RE_watched_range* expected = nullptr; !last->next.compare_exchange_weak(expected, added); expected = nullptr) {
        last = expected != nullptr ? expected : last;
    }
    return added;
}

RE_watched_range* range_around(std::uintptr_t address)
{
    for (RE_watched_range* range = &first_range; range != nullptr; range = range->next) {
        const std::uintptr_t start = range->start.load(std::memory_order_acquire);
        const std::uintptr_t end = range->end.load(std::memory_order_acquire);
        if (start != 0 && address >= start && address < end && range->start.load(std::memory_order_acquire) == start) {
            return range;
        }
    }
    return nullptr;
}

// Replaces everything from the missing page to the end by zeros; otherwise a scan would raise a signal for each page.
bool put_zeros(RE_watched_range& range, std::uintptr_t address)
{
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const std::uintptr_t from = address / page * page;
    void* const place = reinterpret_cast<void*>(from); // NOLINT(performance-no-int-to-ptr): the signal's address
    return mmap(place, range.end - from, range.protection, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) == place;
}

// Calls the program's own handler. Returns false when there is none.
bool pass_on(int signal, siginfo_t* info, void* context)
{
    if ((program_action.sa_flags & SA_SIGINFO) != 0) {
        program_action.sa_sigaction(signal, info, context);
        return true;
    }
    if (program_action.sa_handler != SIG_DFL && program_action.sa_handler != SIG_IGN) {
        program_action.sa_handler(signal);
        return true;
    }
    return false;
}

void on_bus_error(int signal, siginfo_t* info, void* context)
{
    const int error = errno;
    // Positive codes come from the kernel. Signals with other codes come from kill() and have no address.
    RE_watched_range* const range =
        info->si_code > 0 ? range_around(reinterpret_cast<std::uintptr_t>(info->si_addr)) : nullptr;
    if (range != nullptr && put_zeros(*range, reinterpret_cast<std::uintptr_t>(info->si_addr))) {
        range->b_cut = true;
        if (!range->b_silent) {
            pass_on(signal, info, context);
        }
    } else if (!pass_on(signal, info, context)) {
        std::signal(signal, SIG_DFL);
        raise(signal); // delivered when this handler returns
    }
    errno = error;
}

// The first caller installs the handler; other callers wait until that is done. std::call_once is not used, because it
// brings exceptions into programs that have none and costs one more system call.
void put_handler_into_place()
{
    enum state : int
    {
        missing,
        on_its_way,
        in_place,
    };
    static std::atomic<int> handler{missing};
    int expected = missing;
    if (handler.compare_exchange_strong(expected, on_its_way)) {
        struct sigaction action
        {
        };
        action.sa_sigaction = on_bus_error;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK;
        sigaction(SIGBUS, &action, &program_action);
        handler = in_place;
    }
    while (handler != in_place) {
        sched_yield();
    }
}

} // namespace

int RE_watched_mapping::map(int descriptor, std::size_t size, int protection)
{
    unmap();
    put_handler_into_place();
    void* const mapping = mmap(nullptr, size, protection, MAP_SHARED, descriptor, 0);
    if (mapping == MAP_FAILED) {
        return errno == ENOMEM ? RE_STAT_ERR_NO_MEMORY : RE_STAT_ERR_READ;
    }
    m_range = take_range();
    if (m_range == nullptr) {
        munmap(mapping, size);
        return RE_STAT_ERR_NO_MEMORY;
    }
    const auto start = reinterpret_cast<std::uintptr_t>(mapping);
    m_range->b_cut = false;
    m_range->b_silent = false;
    m_range->protection = protection;
    m_range->end.store(start + size, std::memory_order_release);
    m_range->start.store(start, std::memory_order_release);
    m_base = static_cast<unsigned char*>(mapping);
    m_size = size;
    return 0;
}

void RE_watched_mapping::unmap()
{
    if (m_range == nullptr) {
        return;
    }
    m_range->start.store(0, std::memory_order_release);
    munmap(m_base, m_size);
    forget();
}

void RE_watched_mapping::forget()
{
    m_range->b_taken = false;
    m_range = nullptr;
    m_base = nullptr;
}

bool RE_watched_mapping::move_to(RE_watched_mapping& other)
{
    const std::uintptr_t start = m_range->start.exchange(0);
    if (mremap(m_base, m_size, m_size, MREMAP_MAYMOVE | MREMAP_FIXED, other.m_base) == MAP_FAILED) {
        m_range->start = start;
        return false;
    }
    other.m_range->b_cut = m_range->b_cut.load();
    forget();
    return true;
}

bool RE_watched_mapping::is_cut() const
{
    return m_range != nullptr && m_range->b_cut;
}

RE_cut_silence::RE_cut_silence(const RE_watched_mapping* mapping)
    : m_range(mapping != nullptr ? mapping->m_range : nullptr)
{
    if (m_range != nullptr) {
        m_range->b_silent = true;
    }
}

RE_cut_silence::~RE_cut_silence()
{
    if (m_range != nullptr) {
        m_range->b_silent = false;
    }
}
