// Consistent copies of records that one side may change while others copy them, without a lock.
//
// The record starts with a 32-bit counter that is odd while the record changes. A reader copies word by word and
// compares the counter before and after. Every word is stored with release and loaded with acquire order, so that a
// reader that has seen a new word also sees the counter that announced it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <utility>

#include <sched.h>

template <typename Value>
Value load_relaxed(const Value* place)
{
    return __atomic_load_n(place, __ATOMIC_RELAXED);
}

template <typename Value>
Value load_acquire(const Value* place)
{
    return __atomic_load_n(place, __ATOMIC_ACQUIRE);
}

template <typename Value>
void store_relaxed(Value* place, Value value)
{
    __atomic_store_n(place, value, __ATOMIC_RELAXED);
}

template <typename Value>
void store_release(Value* place, Value value)
{
    __atomic_store_n(place, value, __ATOMIC_RELEASE);
}

// Copies `size` bytes that others may be changing, each 64-bit word atomically. `from` and `size` are multiples of 8.
inline void load_words(const void* from, void* to, std::size_t size)
{
    const auto* const words = static_cast<const std::uint64_t*>(from);
    auto* const bytes = static_cast<unsigned char*>(to);
    for (std::size_t at = 0; at < size / sizeof *words; ++at) {
        const std::uint64_t word = load_acquire(words + at);
        std::memcpy(bytes + at * sizeof word, &word, sizeof word);
    }
}

// After its counter, a record consists of one 32-bit word and then 64-bit words. Both sides use the same words. Row:
// begins with `std::uint32_t sequence`, and its address is a multiple of 8.
template <typename Row>
constexpr void check_record()
{
    static_assert(sizeof(Row) % sizeof(std::uint64_t) == 0 && offsetof(Row, sequence) == 0);
}

// Copies the words of a record that follow its counter.
template <typename Row>
void load_words(const Row* from, Row& to)
{
    check_record<Row>();
    auto* const bytes = reinterpret_cast<unsigned char*>(&to);
    const std::uint32_t first = load_acquire(reinterpret_cast<const std::uint32_t*>(from) + 1);
    std::memcpy(bytes + sizeof first, &first, sizeof first);
    const auto* const words = reinterpret_cast<const std::uint64_t*>(from);
    const auto load = [&](std::size_t at) {
        const std::uint64_t word = load_acquire(words + at);
        std::memcpy(bytes + at * sizeof word, &word, sizeof word);
    };
    // Unrolled here, because compilers do not unroll loops of atomic loads, and scans copy a million rows.
    [&]<std::size_t... At>(std::index_sequence<At...>)
    {
        (load(At + 1), ...);
    }
    (std::make_index_sequence<sizeof(Row) / sizeof(std::uint64_t) - 1>());
}

template <typename Row>
void store_words(Row* to, const Row& from)
{
    check_record<Row>();
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&from);
    std::uint32_t first = 0;
    std::memcpy(&first, bytes + sizeof first, sizeof first);
    store_release(reinterpret_cast<std::uint32_t*>(to) + 1, first);
    auto* const words = reinterpret_cast<std::uint64_t*>(to);
    for (std::size_t at = 1; at < sizeof(Row) / sizeof(std::uint64_t); ++at) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes + at * sizeof word, sizeof word);
        store_release(words + at, word);
    }
}

// Replaces a record. Only one writer may do so at a time.
template <typename Row>
void write_row(Row* row, const Row& value)
{
    const std::uint32_t sequence = load_relaxed(&row->sequence) | 1U;
    store_relaxed(&row->sequence, sequence);
    store_words(row, value);
    store_release(&row->sequence, sequence + 1);
}

// Limits how long a report waits for writers that are changing records. The limit is long enough for a delayed thread
// of a running engine. Without it, a report would wait forever when the engine was killed in the middle, the record is
// corrupt, or a process keeps it changing on purpose.
class RE_patience
{
public:
    static constexpr std::int64_t second = 1'000'000'000; // all times are nanoseconds

    // For records that are no longer written.
    RE_patience() = default;
    // For live records. in_all: the longest time to wait for all records together, in nanoseconds; at most half of it
    // is spent on one record. A reader that is used for longer than one report gets the full time again a minute after
    // its first wait.
    static RE_patience with_engine(std::int64_t in_all = second / 2)
    {
        RE_patience patience;
        patience.m_in_all = patience.m_left = in_all;
        return patience;
    }

    // Waits briefly for a record after `tries` failed tries. Returns false when the time for it is used up.
    bool wait(int tries, std::int64_t& waited_for_record)
    {
        constexpr int tries_without_sleeping = 64;
        const std::int64_t start = now();
        if (m_left <= 0 && m_first_wait != 0 && start - m_first_wait > 60 * second) {
            m_left = m_in_all;
            m_first_wait = 0;
        }
        if (m_left <= 0 || waited_for_record >= m_in_all / 2) {
            return false;
        }
        m_first_wait = m_first_wait != 0 ? m_first_wait : start;
        if (tries < tries_without_sleeping) {
            sched_yield();
        } else {
            // The writer may be waiting for this processor, which yielding would keep busy.
            const timespec pause{0, 50000};
            nanosleep(&pause, nullptr);
        }
        const std::int64_t waited = now() - start;
        waited_for_record += waited;
        m_left -= waited;
        return true;
    }

private:
    static std::int64_t now()
    {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC, &time);
        return time.tv_sec * second + time.tv_nsec;
    }

    std::int64_t m_in_all = 0;
    std::int64_t m_left = 0;
    std::int64_t m_first_wait = 0; // 0 before the first wait
};

// Calls `copy` until the record does not change during the call. sequence: the record's counter. Returns the counter's
// value, or an odd value when no consistent copy was possible: the writer was stopped in the middle, or the record is
// corrupt.
template <typename Copy>
std::uint32_t copy_as_one(const std::uint32_t* sequence, const Copy& copy, RE_patience& patience)
{
    constexpr int tries_without_waiting = 8;
    std::int64_t waited = 0;
    for (int tries = 0;; ++tries) {
        const std::uint32_t before = load_acquire(sequence);
        if ((before & 1U) == 0) {
            copy();
            if (load_relaxed(sequence) == before) {
                return before;
            }
        }
        if (tries >= tries_without_waiting && !patience.wait(tries, waited)) {
            return 1;
        }
    }
}

// Copies a record. Returns false when no consistent copy was possible.
template <typename Row>
bool copy_row(const Row* row, Row& copy, RE_patience& patience)
{
    const std::uint32_t sequence = copy_as_one(
        &row->sequence, [&] { load_words(row, copy); }, patience);
    copy.sequence = sequence;
    return (sequence & 1U) == 0;
}
