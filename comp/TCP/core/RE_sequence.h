// Records of several fields that one side changes while others copy them, as one and without a lock.
//
// The record starts with a 32-bit counter that is odd while the record changes. A reader copies word by word and
// compares the counter before and after. Every word is stored with release and loaded with acquire order, so that
// whoever saw one new word also sees the counter that announced it.
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

// A record behind its counter: one word of 32 bits, then words of 64. Both sides go by the same words. Row: starts with
// `std::uint32_t sequence`, and stands on a multiple of 8 bytes.
template <typename Row>
constexpr void check_record()
{
    static_assert(sizeof(Row) % sizeof(std::uint64_t) == 0 && offsetof(Row, sequence) == 0);
}

// Copies the words of a record behind its counter.
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
    // Without a loop, which no compiler unrolls around atomic loads: scans copy a million rows.
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

// Replaces a record. One writer at a time.
template <typename Row>
void write_row(Row* row, const Row& value)
{
    const std::uint32_t sequence = load_relaxed(&row->sequence) | 1U;
    store_relaxed(&row->sequence, sequence);
    store_words(row, value);
    store_release(&row->sequence, sequence + 1);
}

// How often all copies that fail together may wait for a writer: a quarter of a second, far more than any living
// engine's thread is kept from finishing its record, and soon over when the engine was killed there or the record is
// garbage.
constexpr int RE_patience = 2000;

// Copies a record as one. False when it would not hold still: its writer was stopped in the middle, or it is garbage.
// patience: how many more waits there are; 0 for records that nobody writes any more. A copy that succeeds costs none,
// so that a reader which runs for days is as patient as on its first day.
template <typename Row>
bool copy_row(const Row* row, Row& copy, int& patience)
{
    constexpr int tries_without_waiting = 8;
    constexpr int tries_without_sleeping = 64;
    const int patience_before = patience;
    for (int tries = 0;; ++tries) {
        const std::uint32_t before = load_acquire(&row->sequence);
        if ((before & 1U) == 0) {
            load_words(row, copy);
            if (load_relaxed(&row->sequence) == before) {
                copy.sequence = before;
                patience = patience_before;
                return true;
            }
        }
        if (tries >= tries_without_waiting) {
            if (patience <= 0) {
                return false;
            }
            --patience;
            if (tries < tries_without_sleeping) {
                sched_yield();
            } else {
                // The writer may wait for the very processor that yielding would keep busy.
                const timespec pause{0, 50000};
                nanosleep(&pause, nullptr);
            }
        }
    }
}
