// Saved files that are truncated or have a flipped bit. The error code must match the damage. The same files with
// corrected header and checksum reach the later checks. They must be refused for their layout, or be completely
// readable.
#include "RE_stat_error.h"
#include "RE_stat_image.h"
#include "support/engine_shapes.h"
#include "support/relaid_image.h"
#include "torture.h"

#include <cstddef>
#include <memory>

namespace {

constexpr std::size_t table_end = sizeof(RE_image_header) + RE_image_section_count * sizeof(RE_image_section);
constexpr std::size_t smallest_repaired = sizeof(RE_image_header) + sizeof(RE_image_trailer);
constexpr image_extras later_layout = {24, 3}; // as a later release may save the same statistics

int open_result(const std::string& path, const std::vector<unsigned char>& bytes)
{
    write_bytes(path, bytes);
    const std::unique_ptr<RE_stat_reader> reader(RE_stat_reader::create(RE_STAT_READER_FILE, path.c_str()));
    return reader->open();
}

std::size_t drawn(std::mt19937& random, std::size_t first, std::size_t end)
{
    return std::uniform_int_distribution<std::size_t>(first, end - 1)(random);
}

int code_of_cut(std::size_t length)
{
    return length == 0 ? RE_STAT_ERR_EMPTY_FILE : RE_STAT_ERR_CUT;
}

// Returns the expected error code. It depends on the field that contains the flipped bit.
int code_of_flip(std::size_t at)
{
    if (at < offsetof(RE_image_header, byte_order)) {
        return RE_STAT_ERR_NOT_STATISTICS;
    }
    if (at < offsetof(RE_image_header, layout_version)) {
        return RE_STAT_ERR_BYTE_ORDER;
    }
    if (at < offsetof(RE_image_header, state)) {
        return RE_STAT_ERR_VERSION;
    }
    const std::size_t size_at = offsetof(RE_image_header, total_size);
    return at >= size_at && at < size_at + 8 ? RE_STAT_ERR_CUT : RE_STAT_ERR_CHECKSUM;
}

// Whether a file with a valid checksum is refused for its layout, or can be read, saved and reset.
bool is_refused_or_readable(const std::string& path, std::vector<unsigned char> bytes)
{
    repair_image(bytes.data(), bytes.size(), RE_image_kind::saved);
    write_bytes(path, bytes);
    const std::unique_ptr<RE_stat_reader> reader(RE_stat_reader::create(RE_STAT_READER_FILE, path.c_str()));
    const int code = reader->open();
    if (code != 0) {
        return code == RE_STAT_ERR_LAYOUT;
    }
    long long value = 0;
    for (int slot = 0; slot < reader->get_max_conn_slots(); ++slot) {
        reader->read_conn_stat(slot, RE_STAT_CONN_ID_MAX - 1, value);
    }
    for (int slot = 0; slot < reader->get_max_peer_slots(); ++slot) {
        reader->read_peer_conn_stat(slot, RE_STAT_CONN_ID_MAX - 1, value);
        reader->read_peer_stat(slot, RE_STAT_PEER_ID_MAX - 1, value);
        reader->read_peer_active_conn_count(slot);
    }
    const int saved = reader->save_stats_binary("/dev/null");
    reader->clear_all();
    return saved == 0;
}

void try_cut(const std::string& path, const std::vector<unsigned char>& whole, std::size_t length, tally& result)
{
    const std::vector<unsigned char> cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    const int code = open_result(path, cut);
    result.add(code == code_of_cut(length), "cut to " + std::to_string(length) + ": code " + std::to_string(code));
    result.add(length < smallest_repaired || is_refused_or_readable(path, cut),
               "cut to " + std::to_string(length) + " and repaired");
}

void try_flip(const std::string& path, std::vector<unsigned char>& bytes, std::size_t bit, tally& result)
{
    const auto mask = static_cast<unsigned char>(1U << (bit % 8));
    bytes[bit / 8] ^= mask;
    const int code = open_result(path, bytes);
    result.add(code == code_of_flip(bit / 8), "bit " + std::to_string(bit) + ": code " + std::to_string(code));
    result.add(is_refused_or_readable(path, bytes), "bit " + std::to_string(bit) + ", repaired");
    bytes[bit / 8] ^= mask;
}

} // namespace

void cut_saved_files(const torture_options& options, tally& result)
{
    const std::string path = options.folder + "/saved";
    const std::vector<unsigned char> whole = saved_sample(large_shape);
    const std::vector<unsigned char> later = relaid_image(whole, later_layout);
    for (std::size_t length = 0; length <= table_end; ++length) {
        try_cut(path, whole, length, result);
    }
    std::mt19937 random(options.seed);
    for (unsigned long trial = 0; trial < options.count; ++trial) {
        try_cut(path, whole, drawn(random, table_end, whole.size()), result);
        try_cut(path, later, drawn(random, 1, later.size()), result);
    }
    result.note("each byte of header and section table, the rest at random");
}

void flip_saved_files(const torture_options& options, tally& result)
{
    const std::string path = options.folder + "/saved";
    std::vector<unsigned char> bytes = saved_sample(large_shape);
    std::vector<unsigned char> later = relaid_image(bytes, later_layout);
    for (std::size_t bit = 0; bit < 8 * table_end; ++bit) {
        try_flip(path, bytes, bit, result);
    }
    std::mt19937 random(options.seed);
    for (unsigned long trial = 0; trial < options.count; ++trial) {
        try_flip(path, bytes, drawn(random, 8 * table_end, 8 * bytes.size()), result);
        try_flip(path, later, drawn(random, 0, 8 * later.size()), result);
    }
    result.note("each bit of header and section table, the rest at random");
}
