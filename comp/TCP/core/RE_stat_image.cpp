#include "RE_stat_image.h"

#include "RE_image_sections.h"
#include "RE_stat_error.h"

#include <algorithm>
#include <cstring>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace {

// The bounds keep the number of rows times their size far below 2^64.
bool has_sound_rows(const RE_image_section& section, const RE_image_counts& counts)
{
    if (section.slots < section.rows) {
        return false;
    }
    if (section.id > RE_image_section_count) {
        return section.slots <= RE_image_max_size && section.row_size <= RE_image_max_row_size;
    }
    const RE_image_section_rule& rule = RE_image_section_rules[section.id - 1];
    const std::uint64_t smallest = RE_image_row_size(rule, counts);
    const bool b_row_size_right = section.id == RE_IMAGE_BYPASS
                                      ? section.row_size == smallest
                                      : section.row_size >= smallest && section.row_size <= RE_image_max_row_size &&
                                            section.row_size % RE_image_word == 0;
    return b_row_size_right && section.slots <= rule.max_rows;
}

bool is_section_sound(const RE_image_section& section, const RE_image_counts& counts, std::uint64_t first_offset,
                      std::uint64_t end)
{
    return section.id != 0 && has_sound_rows(section, counts) && section.offset % 8 == 0 &&
           section.offset >= first_offset && section.offset <= end &&
           section.rows * section.row_size <= end - section.offset;
}

bool are_apart(const RE_image_section& one, const RE_image_section& other)
{
    return one.offset + one.rows * one.row_size <= other.offset ||
           other.offset + other.rows * other.row_size <= one.offset;
}

// Whether the image ends with a trailer and its checksum is right.
bool is_checksum_right(const unsigned char* base, std::size_t size)
{
    if (size < sizeof(RE_image_header) + sizeof(RE_image_trailer)) {
        return false;
    }
    RE_image_trailer trailer{};
    std::memcpy(&trailer, base + size - sizeof trailer, sizeof trailer);
    return std::memcmp(trailer.magic, RE_image_trailer_magic, sizeof trailer.magic) == 0 &&
           trailer.checksum == XXH64(base, size - sizeof trailer.checksum, 0);
}

// Returns a copy of the header, or of the bytes of it that exist. The engine may be changing numbers in it at the same
// time.
RE_image_header copy_of_header(const unsigned char* base, std::size_t bytes_there)
{
    RE_image_header copy{};
    if (bytes_there < sizeof copy) {
        std::memcpy(static_cast<void*>(&copy), base, bytes_there);
    } else {
        load_words(base, &copy, sizeof copy);
    }
    return copy;
}

// Slots are looked up in saved rows by binary search, which needs ascending order.
template <typename Row>
bool are_slots_ascending(const RE_image_rows<Row>& rows)
{
    for (std::uint32_t at = 0; at < rows.rows; ++at) {
        if (rows[at].slot >= rows.slots || (at > 0 && rows[at].slot <= rows[at - 1].slot)) {
            return false;
        }
    }
    return true;
}

} // namespace

// Only the bytes that exist are compared, so that a file truncated within its header is distinguished from another kind
// of file.
int check_image_header(const RE_image_header& header, std::size_t bytes_there, std::uint64_t size)
{
    if (std::memcmp(header.magic, RE_image_magic, std::min(bytes_there, sizeof header.magic)) != 0) {
        return RE_STAT_ERR_NOT_STATISTICS;
    }
    if (bytes_there < sizeof header) {
        return RE_STAT_ERR_CUT;
    }
    if (header.byte_order != RE_image_byte_order) {
        return RE_STAT_ERR_BYTE_ORDER;
    }
    if (header.layout_version != RE_image_layout_version) {
        return RE_STAT_ERR_VERSION;
    }
    if (header.total_size != size) {
        return RE_STAT_ERR_CUT;
    }
    return size <= RE_image_max_size ? 0 : RE_STAT_ERR_LAYOUT;
}

std::uint64_t place_image_sections(RE_image_section (&sections)[RE_image_section_count], std::uint64_t alignment)
{
    std::uint64_t end = RE_image_table_end;
    for (RE_image_section& section : sections) {
        section.offset = (end + alignment - 1) / alignment * alignment;
        end = section.offset + section.rows * section.row_size;
    }
    return end;
}

std::uint32_t image_sections_to_check(const RE_image_header& head, std::uint64_t size)
{
    const std::uint32_t count = head.section_count;
    const bool b_possible = count >= RE_image_section_count && count <= RE_image_max_sections &&
                            sizeof head + count * sizeof(RE_image_section) <= size;
    return b_possible ? count : 0;
}

int check_image_sections(const RE_image_header& head, std::span<const RE_image_section> table, std::uint64_t size,
                         RE_image_kind kind, RE_image_section (&found)[RE_image_section_count])
{
    const bool b_is_saved = kind == RE_image_kind::saved;
    const std::uint64_t end = b_is_saved ? size - sizeof(RE_image_trailer) : size;
    const std::uint64_t table_end = sizeof head + table.size_bytes();
    const RE_image_counts counts = head.counts();
    if (b_is_saved != (head.state == RE_IMAGE_SAVED) || table.empty() || table_end > end || counts.global == 0 ||
        counts.peer == 0 || counts.conn == 0 || counts.app == 0) {
        return RE_STAT_ERR_LAYOUT;
    }
    constexpr std::uint64_t most_padding = 64; // before a section
    std::uint64_t accounted_for = table_end;
    for (std::size_t at = 0; at < table.size(); ++at) {
        const RE_image_section& section = table[at];
        if (!is_section_sound(section, counts, table_end, end) || (!b_is_saved && section.rows != section.slots)) {
            return RE_STAT_ERR_LAYOUT;
        }
        for (const RE_image_section& earlier : table.first(at)) {
            if (section.id == earlier.id || !are_apart(section, earlier)) {
                return RE_STAT_ERR_LAYOUT;
            }
        }
        if (section.id <= RE_image_section_count) {
            found[section.id - 1] = section;
        }
        accounted_for += most_padding + section.rows * section.row_size;
    }
    const auto rows_of = [&](RE_image_section_id id) { return found[id - 1].rows; };
    for (const RE_image_section_rule& rule : RE_image_section_rules) {
        if (found[rule.id - 1].id == 0 || rows_of(rule.id) != rows_of(rule.pair)) {
            return RE_STAT_ERR_LAYOUT;
        }
    }
    if (rows_of(RE_IMAGE_GLOBAL) == 0) {
        return RE_STAT_ERR_LAYOUT;
    }
    const bool b_counts_right = head.peer_slots_used == rows_of(RE_IMAGE_PEERS) &&
                                head.conn_slots_used == rows_of(RE_IMAGE_CONNS) &&
                                head.app_slots_used == rows_of(RE_IMAGE_APPS) &&
                                head.nacks_logged == rows_of(RE_IMAGE_NACKS) && head.nacks_reset == 0;
    return b_is_saved && (!b_counts_right || accounted_for < end) ? RE_STAT_ERR_LAYOUT : 0;
}

RE_image_view& RE_stat_image::view(RE_image_section_id id)
{
    RE_image_view* const views[RE_image_section_count] = {&config,        &global, &peers, &peer_counters, &conns,
                                                          &conn_counters, &apps,   &nacks, &bypass};
    return *views[id - 1];
}

int RE_stat_image::attach(unsigned char* base, std::size_t size, RE_image_kind kind)
{
    *this = RE_stat_image{};
    const bool b_is_saved = kind == RE_image_kind::saved;
    const std::size_t bytes_there = std::min(size, sizeof(RE_image_header));
    const RE_image_header head = copy_of_header(base, bytes_there);
    if (const int error = check_image_header(head, bytes_there, size)) {
        return error;
    }
    // Checked before anything else in a file is used. A file cannot avoid this by stating that it is live.
    if (b_is_saved && !is_checksum_right(base, size)) {
        return RE_STAT_ERR_CHECKSUM;
    }
    RE_image_section table[RE_image_max_sections];
    const std::uint32_t count = image_sections_to_check(head, size);
    std::memcpy(table, base + sizeof head, count * sizeof table[0]);
    RE_image_section found[RE_image_section_count] = {};
    if (const int error = check_image_sections(head, {table, count}, size, kind, found)) {
        return error;
    }

    RE_stat_image image;
    image.header = reinterpret_cast<RE_image_header*>(base);
    image.counts = head.counts();
    image.b_saved = b_is_saved;
    for (const RE_image_section& section : found) {
        image.view(static_cast<RE_image_section_id>(section.id)) = {base + section.offset, section.row_size,
                                                                    static_cast<std::uint32_t>(section.rows),
                                                                    static_cast<std::uint32_t>(section.slots)};
    }
    image.place_counters();
    if (b_is_saved && (!are_slots_ascending(image.peers) || !are_slots_ascending(image.conns))) {
        return RE_STAT_ERR_LAYOUT;
    }
    *this = image;
    return 0;
}

void RE_stat_image::place_counters()
{
    // before: the number of counters before these in a row.
    const auto counters = [](const RE_image_view& rows, std::uint64_t before, std::uint32_t count_of_family) {
        unsigned char* const first =
            rows.base != nullptr ? rows.base + before * RE_image_word : nullptr; // without rows
        return RE_image_counters{first, rows.stride, count_of_family};
    };
    global_stats = counters(global, 0, counts.global);
    global_conn_stats = counters(global, counts.global, counts.conn);
    global_active_conns = counters(global, std::uint64_t{counts.global} + counts.conn, 1);
    peer_stats = counters(peer_counters, 0, counts.peer);
    peer_conn_stats = counters(peer_counters, counts.peer, counts.conn);
    peer_active_conns = counters(peer_counters, std::uint64_t{counts.peer} + counts.conn, 1);
    conn_stats = counters(conn_counters, 0, counts.conn);
}
