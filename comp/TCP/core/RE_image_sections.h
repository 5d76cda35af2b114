// A table of the sections of a statistics image. The writer uses it to lay out live images, readers use it to check
// images, and saving uses it to lay out the file.
#pragma once

#include "RE_bypass_table.h"
#include "RE_stat_image.h"
#include "RE_stat_writer.h"

#include <array>

struct RE_image_section_rule
{
    RE_image_section_id id;
    RE_image_section_id pair;  // the section to whose row k this section's row k belongs; mostly itself
    std::uint32_t record_size; // bytes of a row without its counters
    // The families whose counters a row contains, in this order and before anything else that it counts.
    std::uint32_t RE_image_counts::*families[2];
    std::uint64_t max_rows;
    int RE_stat_limits::*limit; // the number of rows of a live image, or null
    std::uint64_t rows;         // the same for sections without a limit
};

constexpr std::uint64_t RE_image_word = sizeof(std::int64_t);

// In the order of the ids.
constexpr auto RE_image_section_rules = [] {
    using counts = RE_image_counts;
    using limits = RE_stat_limits;
    constexpr std::uint32_t active_conns = sizeof(std::int64_t);
    return std::to_array<RE_image_section_rule>({
        {RE_IMAGE_CONFIG, RE_IMAGE_CONFIG, sizeof(RE_image_config_row), {}, 1, nullptr, 1},
        {RE_IMAGE_GLOBAL, RE_IMAGE_GLOBAL, active_conns, {&counts::global, &counts::conn}, 1, nullptr, 1},
        {RE_IMAGE_PEERS, RE_IMAGE_PEERS, sizeof(RE_image_peer_row), {}, RE_image_max_peers, &limits::peers, 0},
        {RE_IMAGE_PEER_COUNTERS,
         RE_IMAGE_PEERS,
         active_conns,
         {&counts::peer, &counts::conn},
         RE_image_max_peers,
         &limits::peers,
         0},
        {RE_IMAGE_CONNS, RE_IMAGE_CONNS, sizeof(RE_image_conn_row), {}, RE_image_max_conns, &limits::connections, 0},
        {RE_IMAGE_CONN_COUNTERS, RE_IMAGE_CONNS, 0, {&counts::conn}, RE_image_max_conns, &limits::connections, 0},
        {RE_IMAGE_APPS,
         RE_IMAGE_APPS,
         RE_image_app_record,
         {&counts::app},
         RE_image_max_apps,
         &limits::applications,
         0},
        {RE_IMAGE_NACKS, RE_IMAGE_NACKS, sizeof(RE_image_nack_row), {}, RE_image_max_nacks, &limits::nacks, 0},
        {RE_IMAGE_BYPASS, RE_IMAGE_BYPASS, 1, {}, 1U << 20U, nullptr, sizeof(RE_bypass_table)},
    });
}();
static_assert(RE_image_section_rules.size() == RE_image_section_count);

// Returns the size in bytes of a section's smallest row in an image with these counters.
constexpr std::uint64_t RE_image_row_size(const RE_image_section_rule& rule, const RE_image_counts& counts)
{
    std::uint64_t size = rule.record_size;
    for (const auto family : rule.families) {
        if (family == &RE_image_counts::app) {
            size += RE_image_app_counters_size(counts.app);
        } else if (family != nullptr) {
            size += RE_image_word * (counts.*family);
        }
    }
    return size;
}

// Returns the size in bytes of the rows that this build writes, which is the smallest size.
constexpr std::uint32_t RE_image_own_row_size(RE_image_section_id id)
{
    return static_cast<std::uint32_t>(RE_image_row_size(RE_image_section_rules[id - 1], RE_image_counts_of_this_build));
}
static_assert(RE_image_own_row_size(RE_IMAGE_GLOBAL) == sizeof(RE_image_global_row));
static_assert(RE_image_own_row_size(RE_IMAGE_PEER_COUNTERS) == sizeof(RE_image_peer_counters));
static_assert(RE_image_own_row_size(RE_IMAGE_CONN_COUNTERS) == sizeof(RE_image_conn_counters));
static_assert(RE_image_own_row_size(RE_IMAGE_APPS) == sizeof(RE_image_app_row));

// Sets the offsets of sections whose row sizes and numbers of rows are set. The sections follow the table one after the
// other, each at a multiple of `alignment`. Returns the end of the last section.
std::uint64_t place_image_sections(RE_image_section (&sections)[RE_image_section_count], std::uint64_t alignment);
