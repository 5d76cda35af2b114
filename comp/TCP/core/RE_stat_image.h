// The statistics image: the one form of live statistics in shared memory and of a saved file. docs/statistics-image.md
// describes it byte by byte.
//
// An image is a header, a table of sections, and the sections. In a live image a section has a row for every slot the
// engine has room for; in a saved one the rows of peers and connections are those of the slots in use, in ascending
// order, each with its slot number. A saved image ends with a checksum over all of it.
#pragma once

#include "RE_sequence.h"
#include "RE_statistics.h"
#include "RE_watched_mapping.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

constexpr char RE_image_magic[8] = {'K', 'A', 'V', 'S', 'T', 'A', 'T', 'S'};
constexpr std::uint32_t RE_image_byte_order = 0x01020304;
constexpr std::uint32_t RE_image_layout_version = 1;

// More than any engine may have; what an image claims beyond is not believed.
constexpr std::uint64_t RE_image_max_peers = 4096;
constexpr std::uint64_t RE_image_max_conns = 1000000;
constexpr std::uint64_t RE_image_max_apps = 65536;
constexpr std::uint64_t RE_image_max_nacks = 1000000;

// No image is larger: the largest tables that an engine may have, and room to spare.
constexpr std::uint64_t RE_image_max_size = std::uint64_t{2} << 30;

enum RE_image_state : std::uint32_t
{
    RE_IMAGE_BEING_MADE = 0,
    RE_IMAGE_PUBLISHED = 1, // live, and readable
    RE_IMAGE_WITHDRAWN = 2, // the engine stopped
    RE_IMAGE_SAVED = 3,     // a file
};

// What an image is expected to be; its own word for it is not taken.
enum class RE_image_kind
{
    live,
    saved,
};

struct RE_image_header
{
    char magic[8];
    std::uint32_t byte_order;
    std::uint32_t layout_version;
    std::uint32_t state; // an RE_image_state
    std::uint32_t section_count;
    std::uint64_t total_size;       // bytes, the checksum of a saved image included
    std::int64_t engine_start_time; // seconds since the epoch
    std::int64_t capture_time;      // when a saved image was taken, seconds since the epoch; 0 in a live one
    std::uint32_t global_counters;  // how many of each kind a row holds
    std::uint32_t peer_counters;
    std::uint32_t conn_counters;
    std::uint32_t app_counters;
    std::uint32_t peer_slots_used; // one above the highest slot ever used; scans end there
    std::uint32_t conn_slots_used;
    std::uint32_t app_slots_used;
    std::uint32_t reserved;
    std::uint64_t nacks_logged; // NACK entries ever appended; entry n stands in row n modulo the rows
    std::uint64_t nacks_reset;  // entries below this number were discarded by a reset
    std::uint8_t reserved_bytes[32];
};
static_assert(sizeof(RE_image_header) == 128);

// Judges the first `bytes_there` (128 at most) of an image of `size` bytes: whether it is one, of a known layout and
// whole. Returns 0 or an RE_stat_error.
int check_image_header(const RE_image_header& header, std::size_t bytes_there, std::uint64_t size);

enum RE_image_section_id : std::uint32_t
{
    RE_IMAGE_CONFIG = 1,
    RE_IMAGE_GLOBAL = 2,
    RE_IMAGE_PEERS = 3,
    RE_IMAGE_PEER_COUNTERS = 4, // row k belongs to row k of RE_IMAGE_PEERS
    RE_IMAGE_CONNS = 5,
    RE_IMAGE_CONN_COUNTERS = 6, // row k belongs to row k of RE_IMAGE_CONNS
    RE_IMAGE_APPS = 7,
    RE_IMAGE_NACKS = 8,
    RE_IMAGE_BYPASS = 9, // bytes of the auto-bypass table, up to its last entry in use when saved
};
constexpr std::uint32_t RE_image_section_count = 9;

struct RE_image_section
{
    std::uint32_t id;       // an RE_image_section_id
    std::uint32_t row_size; // bytes
    std::uint64_t offset;   // from the image's start, a multiple of 8
    std::uint64_t rows;
    std::uint64_t slots; // how many rows the engine has room for; `rows` in a live image
};
static_assert(sizeof(RE_image_section) == 32);

// The end of the section table, which follows the header.
constexpr std::uint64_t RE_image_table_end =
    sizeof(RE_image_header) + RE_image_section_count * sizeof(RE_image_section);

// Judges the section table of an image of `size` bytes (that of a saved one with its trailer) whose header has been
// judged, and sorts it by id. Returns 0 or RE_STAT_ERR_LAYOUT. found: all 0.
int check_image_sections(const RE_image_header& head, const RE_image_section (&table)[RE_image_section_count],
                         std::uint64_t size, RE_image_kind kind, RE_image_section (&found)[RE_image_section_count]);

// Rows that are read as one carry a sequence counter in front (RE_sequence.h).

struct RE_image_config_row
{
    std::uint32_t sequence;
    std::uint32_t b_present;
    RE_stat_config_param config;
};
static_assert(sizeof(RE_image_config_row) == 216);

struct RE_image_global_row
{
    std::int64_t stats[RE_STAT_GLOBAL_ID_MAX];
    std::int64_t conn_stats[RE_STAT_CONN_ID_MAX]; // sums over all connections
    std::int64_t active_conns;
};
static_assert(sizeof(RE_image_global_row) == 4408);

struct RE_image_peer_row
{
    std::uint32_t sequence;
    std::uint32_t generation; // which tenant of the slot this is
    std::uint32_t slot;       // in a saved image
    std::uint32_t b_in_use;
    std::int32_t peer_id;
    RE_stat_peer_header header;
};
static_assert(sizeof(RE_image_peer_row) == 328);

struct RE_image_peer_counters
{
    std::int64_t stats[RE_STAT_PEER_ID_MAX];
    std::int64_t conn_stats[RE_STAT_CONN_ID_MAX]; // sums over the peer's connections
    std::int64_t active_conns;
};
static_assert(sizeof(RE_image_peer_counters) == 1672);

// What a listing filters on, dense and apart from the counters.
struct RE_image_conn_row
{
    std::uint32_t sequence;
    std::uint32_t generation; // which tenant of the slot this is
    std::uint32_t slot;       // in a saved image
    std::int32_t peer_id;
    RE_stat_conn_header header;
    std::uint8_t b_in_use;
    SO_stat_conn_header so_header;
    std::int64_t open_time;  // seconds since the epoch
    std::int64_t close_time; // 0 while the connection is open
};
static_assert(offsetof(RE_image_conn_row, open_time) == 72);
static_assert(sizeof(RE_image_conn_row) == 88);

struct RE_image_conn_counters
{
    std::int64_t stats[RE_STAT_CONN_ID_MAX];
};
static_assert(sizeof(RE_image_conn_counters) == 1328);

// An application's identity never changes once it is there, so the row needs no sequence counter. The bytes in front
// put the 64-bit word that holds both connection counts on a multiple of 8.
struct RE_image_app_row
{
    std::uint32_t reserved;
    RE_stat_app_struct app;
};
static_assert(sizeof(RE_image_app_row) == 104);
static_assert((offsetof(RE_image_app_row, app) + offsetof(RE_stat_app_struct, m_header) + 4) % 8 == 0);

// Here the sequence counter also tells which entry stands in the row: 2 (n + 1) for entry n, less 1 while it is
// written.
struct RE_image_nack_row
{
    std::uint32_t sequence;
    RE_stat_nack_header nack;
};
static_assert(sizeof(RE_image_nack_row) == 24);

inline std::uint32_t RE_nack_sequence(std::uint64_t entry_number)
{
    return static_cast<std::uint32_t>(2 * (entry_number + 1));
}

// The end of a saved image.
struct RE_image_trailer
{
    char magic[8];
    std::uint64_t checksum; // XXH64, seed 0, of all bytes before this field
};
static_assert(sizeof(RE_image_trailer) == 16);

constexpr char RE_image_trailer_magic[8] = {'K', 'A', 'V', 'S', 'T', 'E', 'N', 'D'};

// An image in memory whose every size and offset has been checked. It points into the memory and owns none of it.
// Values that a running engine may change (state, NACK numbers) are read through `header` with atomic loads.
struct RE_stat_image
{
    RE_image_header* header = nullptr;
    RE_image_config_row* config = nullptr; // null when the engine has published none
    RE_image_global_row* global = nullptr;
    RE_image_peer_row* peers = nullptr;
    RE_image_peer_counters* peer_counters = nullptr;
    RE_image_conn_row* conns = nullptr;
    RE_image_conn_counters* conn_counters = nullptr;
    RE_image_app_row* apps = nullptr;
    RE_image_nack_row* nacks = nullptr;
    unsigned char* bypass = nullptr;

    std::uint32_t peer_rows = 0;
    std::uint32_t conn_rows = 0;
    std::uint32_t app_rows = 0;
    std::uint32_t nack_rows = 0;
    std::uint32_t bypass_size = 0; // bytes
    // How much room the engine has, of which a saved image holds what is in use.
    std::uint32_t peer_slots = 0;
    std::uint32_t conn_slots = 0;
    std::uint32_t app_slots = 0;
    std::uint32_t nack_slots = 0;
    std::uint32_t bypass_room = 0; // bytes
    bool b_saved = false;
    // What a live image lies in; null for memory that nobody else can cut short.
    const RE_watched_mapping* mapping = nullptr;

    // Whether figures that were read may have been zeros in place of what had been cut off.
    bool is_cut() const { return mapping != nullptr && mapping->is_cut(); }

    // How many rows hold anything. In a live image those beyond have no memory yet; a mere look would claim some.
    std::uint32_t peer_rows_in_reach() const { return rows_in_reach(&header->peer_slots_used, peer_rows); }
    std::uint32_t conn_rows_in_reach() const { return rows_in_reach(&header->conn_slots_used, conn_rows); }
    std::uint32_t app_rows_in_reach() const { return rows_in_reach(&header->app_slots_used, app_rows); }

    // Checks the `size` bytes at `base` (8-byte aligned, there for as long as the image is used) and points into them.
    // Nothing in them is trusted; of a saved image every byte is checked. Returns 0 or an RE_stat_error.
    int attach(unsigned char* base, std::size_t size, RE_image_kind kind);

private:
    std::uint32_t rows_in_reach(const std::uint32_t* slots_used, std::uint32_t rows) const
    {
        return b_saved ? rows : std::min(load_acquire(slots_used), rows);
    }
};
