// The statistics image: the common format of live statistics in shared memory and of saved files.
// docs/statistics-image.md describes it byte by byte.
//
// An image states the size of its rows and the number of counters in them. Readers use these numbers, so that engine
// and viewer may be of different releases, with more or fewer counters.
//
// An image consists of a header, a table of sections, and the sections. In a live image, a section has one row per
// slot. In a saved image, peers and connections have rows only for the slots in use, in ascending order, each with its
// slot number. A saved image ends with a checksum of all bytes before it.
#pragma once

#include "RE_sequence.h"
#include "RE_statistics.h"
#include "RE_watched_mapping.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

constexpr char RE_image_magic[8] = {'K', 'A', 'V', 'S', 'T', 'A', 'T', 'S'};
constexpr std::uint32_t RE_image_byte_order = 0x01020304;
constexpr std::uint32_t RE_image_layout_version = 1; // any other version is incompatible

// The largest limits of an engine. An image with larger numbers is invalid.
constexpr std::uint64_t RE_image_max_peers = 4096;
constexpr std::uint64_t RE_image_max_conns = 1000000;
constexpr std::uint64_t RE_image_max_apps = 65536;
constexpr std::uint64_t RE_image_max_nacks = 1000000;

// Later releases may have larger rows and longer section tables; up to here, they are accepted.
constexpr std::uint64_t RE_image_max_row_size = 1U << 14U;
constexpr std::uint32_t RE_image_max_sections = 32;

// The largest size of an image in bytes: room for the largest limits, and some to spare.
constexpr std::uint64_t RE_image_max_size = std::uint64_t{2} << 30;

enum RE_image_state : std::uint32_t
{
    RE_IMAGE_BEING_MADE = 0,
    RE_IMAGE_PUBLISHED = 1, // live, and readable
    RE_IMAGE_WITHDRAWN = 2, // the engine stopped
    RE_IMAGE_SAVED = 3,     // a file
};

// The kind of image that a caller expects. An image of the other kind is invalid.
enum class RE_image_kind
{
    live,
    saved,
};

// How many counters of each family an image contains.
struct RE_image_counts
{
    std::uint32_t global;
    std::uint32_t peer;
    std::uint32_t conn;
    std::uint32_t app;
};

constexpr RE_image_counts RE_image_counts_of_this_build = {RE_STAT_GLOBAL_ID_MAX, RE_STAT_PEER_ID_MAX,
                                                           RE_STAT_CONN_ID_MAX, RE_STAT_APP_ID_MAX};

struct RE_image_header
{
    char magic[8];
    std::uint32_t byte_order;
    std::uint32_t layout_version;
    std::uint32_t state; // an RE_image_state
    std::uint32_t section_count;
    std::uint64_t total_size;       // bytes, including the trailer of a saved image
    std::int64_t engine_start_time; // seconds since the epoch
    std::int64_t capture_time;      // when a saved image was taken, seconds since the epoch; 0 in a live one
    std::uint32_t global_counters;  // how many of each family the rows contain
    std::uint32_t peer_counters;
    std::uint32_t conn_counters;
    std::uint32_t app_counters;
    std::uint32_t peer_slots_used; // one above the highest slot ever used; scans end there
    std::uint32_t conn_slots_used;
    std::uint32_t app_slots_used;
    std::uint32_t reserved;
    std::uint64_t nacks_logged; // NACK entries ever appended; entry n is stored in row n modulo the number of rows
    std::uint64_t nacks_reset;  // entries below this number were discarded by a reset
    std::uint8_t reserved_bytes[32];

    RE_image_counts counts() const { return {global_counters, peer_counters, conn_counters, app_counters}; }
    void set_counts(const RE_image_counts& counts)
    {
        global_counters = counts.global;
        peer_counters = counts.peer;
        conn_counters = counts.conn;
        app_counters = counts.app;
    }
};
static_assert(sizeof(RE_image_header) == 128);

// Checks the first `bytes_there` bytes (at most 128) of an image of `size` bytes: whether it is an image, has a known
// layout version and is complete. Returns 0 or an RE_stat_error.
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
// The table may also contain sections of later releases; they are skipped.
constexpr std::uint32_t RE_image_section_count = 9;

struct RE_image_section
{
    std::uint32_t id;       // an RE_image_section_id
    std::uint32_t row_size; // bytes
    std::uint64_t offset;   // from the image's start, a multiple of 8
    std::uint64_t rows;
    std::uint64_t slots; // how many rows the engine has room for; equal to `rows` in a live image
};
static_assert(sizeof(RE_image_section) == 32);

// The end of the section table of this build, which follows the header.
constexpr std::uint64_t RE_image_table_end =
    sizeof(RE_image_header) + RE_image_section_count * sizeof(RE_image_section);

// Returns how many entries of the section table to pass to check_image_sections, or 0 when the number in the header is
// invalid for an image of `size` bytes.
std::uint32_t image_sections_to_check(const RE_image_header& head, std::uint64_t size);

// Checks the section table of an image of `size` bytes, including the trailer of a saved image. The header must have
// been checked before. found: all 0 at the call; receives the sections that this build knows, by id. Returns 0 or
// RE_STAT_ERR_LAYOUT.
int check_image_sections(const RE_image_header& head, std::span<const RE_image_section> table, std::uint64_t size,
                         RE_image_kind kind, RE_image_section (&found)[RE_image_section_count]);

// Rows that are read consistently begin with a sequence counter (RE_sequence.h).

struct RE_image_config_row
{
    std::uint32_t sequence;
    std::uint32_t b_present;
    RE_stat_config_param config;
};
static_assert(sizeof(RE_image_config_row) == 216);

struct RE_image_peer_row
{
    std::uint32_t sequence;
    std::uint32_t generation; // changes with every tenant of the slot
    std::uint32_t slot;       // slot number; readers use it only in a saved image
    std::uint32_t b_in_use;
    std::int32_t peer_id;
    RE_stat_peer_header header;
};
static_assert(sizeof(RE_image_peer_row) == 328);

// What listings filter on: small rows, apart from the counters.
struct RE_image_conn_row
{
    std::uint32_t sequence;
    std::uint32_t generation; // changes with every tenant of the slot
    std::uint32_t slot;       // slot number; readers use it only in a saved image
    std::int32_t peer_id;
    RE_stat_conn_header header;
    std::uint8_t b_in_use;
    SO_stat_conn_header so_header;
    std::int64_t open_time;  // seconds since the epoch
    std::int64_t close_time; // 0 while the connection is open
};
static_assert(offsetof(RE_image_conn_row, open_time) == 72);
static_assert(sizeof(RE_image_conn_row) == 88);

// The rows of counters, as this build writes them.
struct RE_image_global_row
{
    std::int64_t stats[RE_STAT_GLOBAL_ID_MAX];
    std::int64_t conn_stats[RE_STAT_CONN_ID_MAX]; // sums over all connections
    std::int64_t active_conns;
};

struct RE_image_peer_counters
{
    std::int64_t stats[RE_STAT_PEER_ID_MAX];
    std::int64_t conn_stats[RE_STAT_CONN_ID_MAX]; // sums over the peer's connections
    std::int64_t active_conns;
};

struct RE_image_conn_counters
{
    std::int64_t stats[RE_STAT_CONN_ID_MAX];
};

// An application's identity never changes once it is stored, so the row needs no sequence counter. It consists of 4
// reserved bytes, the counters, padded to a multiple of 8 bytes, and the header.
constexpr std::uint32_t RE_image_app_counters_at = 4;
constexpr std::uint32_t RE_image_app_record = RE_image_app_counters_at + sizeof(RE_stat_app_header);

constexpr std::uint64_t RE_image_app_counters_size(std::uint64_t count)
{
    return (count + 1) / 2 * 8;
}

struct RE_image_app_row
{
    std::uint32_t reserved;
    std::uint32_t stats[RE_image_app_counters_size(RE_STAT_APP_ID_MAX) / sizeof(std::uint32_t)];
    RE_stat_app_header header;
};

// Returns the word of the header that contains the port (bits 0 to 15), the source-port flag (bit 16), and the numbers
// of connections opened (17 to 39) and closed (40 to 63). It is changed atomically.
inline std::uint64_t* RE_image_app_word(RE_stat_app_header* header)
{
    return reinterpret_cast<std::uint64_t*>(reinterpret_cast<unsigned char*>(header) + 4);
}
static_assert((offsetof(RE_image_app_row, header) + 4) % 8 == 0);

// Here the sequence counter also identifies the entry in the row: it is 2 (n + 1) for entry n, and 1 less while the
// entry is written.
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

// Whether `id` is one of a family's `count` counters.
inline bool is_id(int id, int count)
{
    return id >= 0 && id < count;
}

// The end of a saved image.
struct RE_image_trailer
{
    char magic[8];
    std::uint64_t checksum; // XXH64, seed 0, of all bytes before this field
};
static_assert(sizeof(RE_image_trailer) == 16);

constexpr char RE_image_trailer_magic[8] = {'K', 'A', 'V', 'S', 'T', 'E', 'N', 'D'};

// Rows of a section.
struct RE_image_view
{
    unsigned char* base = nullptr;
    std::uint32_t stride = 0;
    std::uint32_t rows = 0;
    std::uint32_t slots = 0; // how many rows the engine has room for

    unsigned char* row(std::size_t number) const { return base + number * stride; }
};

// Row: the type of the start of each row.
template <typename Row>
struct RE_image_rows : RE_image_view
{
    // number: 0 or above; of any integer type, because slots are signed and rows are not.
    template <typename Number>
    Row& operator[](Number number) const
    {
        return *reinterpret_cast<Row*>(row(static_cast<std::size_t>(number)));
    }
};

// One family of counters in the rows of a section.
struct RE_image_counters
{
    unsigned char* base = nullptr; // the first counter of row 0
    std::uint32_t stride = 0;
    std::uint32_t count = 0;

    std::int64_t* of_row(std::size_t row) const { return reinterpret_cast<std::int64_t*>(base + row * stride); }
    // Reads a counter. One that the image does not contain is 0.
    std::int64_t read(std::size_t row, int id) const
    {
        return static_cast<std::uint32_t>(id) < count ? load_acquire(of_row(row) + id) : 0;
    }
};

// An image in memory, with all sizes and offsets checked. It points into the memory and does not own it. Values that a
// running engine may change (state, NACK numbers) are read through `header` with atomic loads.
struct RE_stat_image
{
    RE_image_header* header = nullptr;
    RE_image_counts counts = {};
    RE_image_rows<RE_image_config_row> config; // may have no row
    RE_image_view global;
    RE_image_rows<RE_image_peer_row> peers;
    RE_image_view peer_counters;
    RE_image_rows<RE_image_conn_row> conns;
    RE_image_view conn_counters;
    RE_image_view apps;
    RE_image_rows<RE_image_nack_row> nacks;
    RE_image_view bypass; // a row is a byte

    RE_image_counters global_stats;
    RE_image_counters global_conn_stats;
    RE_image_counters global_active_conns;
    RE_image_counters peer_stats;
    RE_image_counters peer_conn_stats;
    RE_image_counters peer_active_conns;
    RE_image_counters conn_stats;

    bool b_saved = false;
    // The mapping of a live image; null for memory that no other process can truncate.
    const RE_watched_mapping* mapping = nullptr;

    RE_image_view& view(RE_image_section_id id);
    const RE_image_view& view(RE_image_section_id id) const { return const_cast<RE_stat_image*>(this)->view(id); }

    // Whether the image was truncated, so that figures may have been read as zeros.
    bool is_cut() const { return mapping != nullptr && mapping->is_cut(); }

    // Return how many rows are in use. In a live image, the rows after these have no memory yet; reading them would
    // allocate it.
    std::uint32_t peer_rows_in_reach() const { return rows_in_reach(&header->peer_slots_used, peers.rows); }
    std::uint32_t conn_rows_in_reach() const { return rows_in_reach(&header->conn_slots_used, conns.rows); }
    std::uint32_t app_rows_in_reach() const { return rows_in_reach(&header->app_slots_used, apps.rows); }

    std::uint32_t* app_stats(std::size_t row) const
    {
        return reinterpret_cast<std::uint32_t*>(apps.row(row) + RE_image_app_counters_at);
    }
    RE_stat_app_header* app_header(std::size_t row) const
    {
        return reinterpret_cast<RE_stat_app_header*>(apps.row(row) + RE_image_app_counters_at +
                                                     RE_image_app_counters_size(counts.app));
    }

    // Checks the `size` bytes at `base` and points into them. They must be 8-byte aligned and remain valid while the
    // image is used. Nothing in them is trusted; the checksum of a saved image covers every byte. Returns 0 or an
    // RE_stat_error.
    int attach(unsigned char* base, std::size_t size, RE_image_kind kind);
    // Points the families of counters into the sections, which must be set, as must be `counts`. attach() does it.
    void place_counters();

private:
    std::uint32_t rows_in_reach(const std::uint32_t* slots_used, std::uint32_t rows) const
    {
        return b_saved ? rows : std::min(load_acquire(slots_used), rows);
    }
};
