// The auto-bypass table as it lies in memory: a head and a fixed number of entries. Engines fill it through
// RE_stat_writer, RE_auto_bypass prints it.
#pragma once

#include "RE_stat_writer.h"

#include <cstdint>

constexpr std::uint32_t RE_bypass_magic = 0x50594252; // "RBYP"
constexpr std::uint32_t RE_bypass_capacity = 1024;

struct RE_bypass_row
{
    std::uint32_t sequence; // see RE_sequence.h
    std::uint32_t b_in_use;
    RE_bypass_entry entry;
};
static_assert(sizeof(RE_bypass_row) == 56);

struct RE_bypass_table
{
    std::uint32_t magic;
    std::uint32_t capacity;
    std::uint32_t rows_used; // one above the highest row ever used
    std::uint32_t reserved;
    RE_bypass_row rows[RE_bypass_capacity];
};
static_assert(sizeof(RE_bypass_table) == 16 + 56 * RE_bypass_capacity);
