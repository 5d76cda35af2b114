// The memory layout of the auto-bypass table: a header and a fixed number of rows. Engines fill the table through
// RE_stat_writer; RE_auto_bypass prints it.
#pragma once

#include <cstdint>

constexpr std::uint32_t RE_bypass_magic = 0x50594252; // "RBYP"
constexpr std::uint32_t RE_bypass_capacity = 1024;

// Why a server's traffic bypasses the engine.
enum class RE_bypass_reason : std::uint32_t
{
    low_compression = 1, // the engine removed too little redundancy to be worth the work
    configured = 2,      // the configuration says so
    repeated_nacks = 3,  // the peer failed to decode too often
};

// One server whose traffic bypasses the engine.
struct RE_bypass_entry
{
    std::uint32_t server_ip; // host order
    std::uint16_t server_port;
    RE_bypass_reason reason;
    std::int64_t since;        // seconds since the epoch
    std::int64_t next_attempt; // when the engine tries the server again, seconds since the epoch; 0 for never
    std::uint64_t bytes;       // that bypassed the engine since `since`
    std::uint64_t connections; // that bypassed the engine since `since`
};

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
