// Saved files that are cut or have a flipped bit: each is refused by the code that says what is wrong with it.
#include "RE_stat_error.h"
#include "RE_stat_image.h"
#include "support/engine_shapes.h"
#include "torture.h"

#include <cstddef>
#include <memory>

namespace {

constexpr std::size_t table_end = sizeof(RE_image_header) + RE_image_section_count * sizeof(RE_image_section);
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

// Which field a flipped bit is in decides what is found wrong first.
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

void try_cut(const std::string& path, const std::vector<unsigned char>& whole, std::size_t length, tally& result)
{
    const int code = open_result(path, {whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)});
    result.add(code == code_of_cut(length), "cut to " + std::to_string(length) + ": code " + std::to_string(code));
}

void try_flip(const std::string& path, std::vector<unsigned char>& bytes, std::size_t bit, tally& result)
{
    const auto mask = static_cast<unsigned char>(1U << (bit % 8));
    bytes[bit / 8] ^= mask;
    const int code = open_result(path, bytes);
    bytes[bit / 8] ^= mask;
    result.add(code == code_of_flip(bit / 8), "bit " + std::to_string(bit) + ": code " + std::to_string(code));
}

} // namespace

void cut_saved_files(const torture_options& options, tally& result)
{
    const std::vector<unsigned char> whole = saved_sample(large_shape);
    const std::string path = options.folder + "/saved";
    for (std::size_t length = 0; length <= table_end; ++length) {
        try_cut(path, whole, length, result);
    }
    std::mt19937 random(options.seed);
    for (unsigned long trial = 0; trial < options.count; ++trial) {
        try_cut(path, whole, drawn(random, table_end, whole.size()), result);
    }
    result.note("each byte of header and section table, the rest at random");
}

void flip_saved_files(const torture_options& options, tally& result)
{
    std::vector<unsigned char> bytes = saved_sample(large_shape);
    const std::string path = options.folder + "/saved";
    for (std::size_t bit = 0; bit < 8 * table_end; ++bit) {
        try_flip(path, bytes, bit, result);
    }
    std::mt19937 random(options.seed);
    for (unsigned long trial = 0; trial < options.count; ++trial) {
        try_flip(path, bytes, drawn(random, 8 * table_end, 8 * bytes.size()), result);
    }
    result.note("each bit of header and section table, the rest at random");
}
