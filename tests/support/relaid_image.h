// A statistics image with the layout of a later release: the same figures with larger rows and more sections.
#pragma once

#include "RE_stat_image.h"

#include <algorithm>
#include <cstring>
#include <vector>

#define XXH_INLINE_ALL
#include <xxhash.h>

// Corrects magic, byte order, version, state, size and, in a saved image, the checksum, so that readers check
// everything else. An image that is too small for a header and a trailer is not changed.
inline void repair_image(unsigned char* bytes, std::size_t size, RE_image_kind kind)
{
    RE_image_header header{};
    if (size < sizeof header + sizeof(RE_image_trailer)) {
        return;
    }
    const bool b_saved = kind == RE_image_kind::saved;
    std::memcpy(&header, bytes, sizeof header);
    std::memcpy(header.magic, RE_image_magic, sizeof header.magic);
    header.byte_order = RE_image_byte_order;
    header.layout_version = RE_image_layout_version;
    header.state = b_saved ? RE_IMAGE_SAVED : RE_IMAGE_PUBLISHED;
    header.total_size = size;
    std::memcpy(bytes, &header, sizeof header);
    if (b_saved) {
        RE_image_trailer trailer{};
        std::memcpy(trailer.magic, RE_image_trailer_magic, sizeof trailer.magic);
        std::memcpy(bytes + size - sizeof trailer, &trailer, sizeof trailer);
        trailer.checksum = XXH64(bytes, size - sizeof trailer.checksum, 0);
        std::memcpy(bytes + size - sizeof trailer, &trailer, sizeof trailer);
    }
}

struct image_extras
{
    std::uint32_t row_bytes = 0; // added to each row outside the auto-bypass table; a multiple of 8
    std::uint32_t sections = 0;  // unknown to this build; the first one precedes all others
};

// Returns a valid image of this build's layout in the later layout. Added bytes are 0xa5.
inline std::vector<unsigned char> relaid_image(const std::vector<unsigned char>& image, const image_extras& extras)
{
    RE_image_header header{};
    std::memcpy(&header, image.data(), sizeof header);
    std::vector<RE_image_section> old_table(header.section_count);
    std::memcpy(old_table.data(), image.data() + sizeof header, header.section_count * sizeof old_table[0]);
    const bool b_saved = header.state == RE_IMAGE_SAVED;

    std::vector<RE_image_section> table = old_table;
    for (std::uint32_t added = 0; added < extras.sections; ++added) {
        table.insert(added == 0 ? table.begin() : table.end(), {1000 + added, 24, 0, 3 * added, 3 * added});
    }
    header.section_count = static_cast<std::uint32_t>(table.size());
    std::vector<unsigned char> bytes(sizeof header + table.size() * sizeof table[0], 0);
    for (RE_image_section& section : table) {
        section.row_size += section.id < RE_IMAGE_BYPASS ? extras.row_bytes : 0;
        section.offset = bytes.size();
        const std::uint64_t end = section.offset + section.rows * section.row_size;
        bytes.resize((end + 7) / 8 * 8, 0xa5);
        const auto old = std::find_if(old_table.begin(), old_table.end(),
                                      [&](const RE_image_section& known) { return known.id == section.id; });
        for (std::uint64_t row = 0; old != old_table.end() && row < section.rows; ++row) {
            std::memcpy(bytes.data() + section.offset + row * section.row_size,
                        image.data() + old->offset + row * old->row_size, old->row_size);
        }
    }
    std::memcpy(bytes.data(), &header, sizeof header);
    std::memcpy(bytes.data() + sizeof header, table.data(), table.size() * sizeof table[0]);
    bytes.resize(bytes.size() + (b_saved ? sizeof(RE_image_trailer) : 0));
    repair_image(bytes.data(), bytes.size(), b_saved ? RE_image_kind::saved : RE_image_kind::live);
    return bytes;
}
