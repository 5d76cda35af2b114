#include "RE_stat_image.h"

#include "RE_stat_error.h"

#include <algorithm>
#include <cstring>

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace {

// What a section of each id must look like, in the order of RE_image_section_id.
struct section_rule
{
    std::uint32_t row_size;
    std::uint64_t min_rows;
    std::uint64_t max_rows;
};

constexpr std::uint64_t max_bypass_size = 1U << 20;

constexpr section_rule section_rules[RE_image_section_count] = {
    {sizeof(RE_image_config_row), 0, 1},
    {sizeof(RE_image_global_row), 1, 1},
    {sizeof(RE_image_peer_row), 0, RE_image_max_peers},
    {sizeof(RE_image_peer_counters), 0, RE_image_max_peers},
    {sizeof(RE_image_conn_row), 0, RE_image_max_conns},
    {sizeof(RE_image_conn_counters), 0, RE_image_max_conns},
    {sizeof(RE_image_app_row), 0, RE_image_max_apps},
    {sizeof(RE_image_nack_row), 0, RE_image_max_nacks},
    {1, 0, max_bypass_size},
};

bool is_section_sound(const RE_image_section& section, std::uint64_t first_offset, std::uint64_t end)
{
    if (section.id < 1 || section.id > RE_image_section_count) {
        return false;
    }
    const section_rule& rule = section_rules[section.id - 1];
    if (section.row_size != rule.row_size || section.rows < rule.min_rows || section.rows > rule.max_rows ||
        section.slots < section.rows || section.slots > rule.max_rows) {
        return false;
    }
    // The bounds above keep the product far from 2^64.
    const std::uint64_t size = section.rows * section.row_size;
    return section.offset % 8 == 0 && section.offset >= first_offset && section.offset <= end &&
           size <= end - section.offset;
}

// Whether the image ends with a trailer that is true.
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

// A copy of the header or of what there is of it. Its engine may be changing numbers in it at this moment.
RE_image_header copy_of_header(const unsigned char* base, std::size_t bytes_there)
{
    RE_image_header copy{};
    auto* const bytes = reinterpret_cast<unsigned char*>(&copy);
    if (bytes_there < sizeof copy) {
        std::memcpy(bytes, base, bytes_there);
        return copy;
    }
    const auto* const words = reinterpret_cast<const std::uint64_t*>(base);
    for (std::size_t at = 0; at < sizeof copy / sizeof(std::uint64_t); ++at) {
        const std::uint64_t word = load_relaxed(words + at);
        std::memcpy(bytes + at * sizeof word, &word, sizeof word);
    }
    return copy;
}

// Lookups in saved rows halve their way to a slot, which needs ascending order.
template <typename Row>
bool are_slots_ascending(const Row* rows, std::uint32_t count, std::uint32_t slots)
{
    for (std::uint32_t at = 0; at < count; ++at) {
        if (rows[at].slot >= slots || (at > 0 && rows[at].slot <= rows[at - 1].slot)) {
            return false;
        }
    }
    return true;
}

} // namespace

// Only the bytes that are there are looked at, so that a file cut within its header is told from another kind of file.
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

int check_image_sections(const RE_image_header& head, const RE_image_section (&table)[RE_image_section_count],
                         std::uint64_t size, RE_image_kind kind, RE_image_section (&found)[RE_image_section_count])
{
    const bool b_is_saved = kind == RE_image_kind::saved;
    const std::uint64_t end = b_is_saved ? size - sizeof(RE_image_trailer) : size;
    if (b_is_saved != (head.state == RE_IMAGE_SAVED) || head.section_count != RE_image_section_count ||
        RE_image_table_end > end || head.global_counters != RE_STAT_GLOBAL_ID_MAX ||
        head.peer_counters != RE_STAT_PEER_ID_MAX || head.conn_counters != RE_STAT_CONN_ID_MAX ||
        head.app_counters != RE_STAT_APP_ID_MAX) {
        return RE_STAT_ERR_LAYOUT;
    }
    constexpr std::uint64_t most_padding = 64; // in front of a section
    std::uint64_t accounted_for = RE_image_table_end;
    for (const RE_image_section& section : table) {
        if (!is_section_sound(section, RE_image_table_end, end) || found[section.id - 1].id != 0 ||
            (!b_is_saved && section.rows != section.slots)) {
            return RE_STAT_ERR_LAYOUT;
        }
        found[section.id - 1] = section;
        accounted_for += most_padding + section.rows * section.row_size;
    }
    const auto rows_of = [&](RE_image_section_id id) { return found[id - 1].rows; };
    if (rows_of(RE_IMAGE_PEER_COUNTERS) != rows_of(RE_IMAGE_PEERS) ||
        rows_of(RE_IMAGE_CONN_COUNTERS) != rows_of(RE_IMAGE_CONNS)) {
        return RE_STAT_ERR_LAYOUT;
    }
    const bool b_counts_right = head.peer_slots_used == rows_of(RE_IMAGE_PEERS) &&
                                head.conn_slots_used == rows_of(RE_IMAGE_CONNS) &&
                                head.app_slots_used == rows_of(RE_IMAGE_APPS) &&
                                head.nacks_logged == rows_of(RE_IMAGE_NACKS) && head.nacks_reset == 0;
    return b_is_saved && (!b_counts_right || accounted_for < end) ? RE_STAT_ERR_LAYOUT : 0;
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
    // Before anything else of a file is believed, the words that could say otherwise included.
    if (b_is_saved && !is_checksum_right(base, size)) {
        return RE_STAT_ERR_CHECKSUM;
    }
    if (size < RE_image_table_end) {
        return RE_STAT_ERR_LAYOUT;
    }
    RE_image_section table[RE_image_section_count];
    std::memcpy(table, base + sizeof head, sizeof table);
    RE_image_section found[RE_image_section_count] = {};
    if (const int error = check_image_sections(head, table, size, kind, found)) {
        return error;
    }
    const auto rows_of = [&](RE_image_section_id id) { return static_cast<std::uint32_t>(found[id - 1].rows); };
    const auto slots_of = [&](RE_image_section_id id) { return static_cast<std::uint32_t>(found[id - 1].slots); };
    const auto start_of = [&](RE_image_section_id id) { return base + found[id - 1].offset; };

    RE_stat_image image;
    image.b_saved = b_is_saved;
    image.header = reinterpret_cast<RE_image_header*>(base);
    if (rows_of(RE_IMAGE_CONFIG) != 0) {
        image.config = reinterpret_cast<RE_image_config_row*>(start_of(RE_IMAGE_CONFIG));
    }
    image.global = reinterpret_cast<RE_image_global_row*>(start_of(RE_IMAGE_GLOBAL));
    image.peers = reinterpret_cast<RE_image_peer_row*>(start_of(RE_IMAGE_PEERS));
    image.peer_counters = reinterpret_cast<RE_image_peer_counters*>(start_of(RE_IMAGE_PEER_COUNTERS));
    image.conns = reinterpret_cast<RE_image_conn_row*>(start_of(RE_IMAGE_CONNS));
    image.conn_counters = reinterpret_cast<RE_image_conn_counters*>(start_of(RE_IMAGE_CONN_COUNTERS));
    image.apps = reinterpret_cast<RE_image_app_row*>(start_of(RE_IMAGE_APPS));
    image.nacks = reinterpret_cast<RE_image_nack_row*>(start_of(RE_IMAGE_NACKS));
    image.bypass = start_of(RE_IMAGE_BYPASS);
    image.peer_rows = rows_of(RE_IMAGE_PEERS);
    image.conn_rows = rows_of(RE_IMAGE_CONNS);
    image.app_rows = rows_of(RE_IMAGE_APPS);
    image.nack_rows = rows_of(RE_IMAGE_NACKS);
    image.bypass_size = rows_of(RE_IMAGE_BYPASS);
    image.peer_slots = slots_of(RE_IMAGE_PEERS);
    image.conn_slots = slots_of(RE_IMAGE_CONNS);
    image.app_slots = slots_of(RE_IMAGE_APPS);
    image.nack_slots = slots_of(RE_IMAGE_NACKS);
    image.bypass_room = slots_of(RE_IMAGE_BYPASS);
    if (b_is_saved && (!are_slots_ascending(image.peers, image.peer_rows, image.peer_slots) ||
                       !are_slots_ascending(image.conns, image.conn_rows, image.conn_slots))) {
        return RE_STAT_ERR_LAYOUT;
    }
    *this = image;
    return 0;
}
