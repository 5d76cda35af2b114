// Images of later releases with larger rows or more sections.
#include "support/engine_fixture.h"

#include "RE_stat_error.h"
#include "support/engine_shapes.h"
#include "support/relaid_image.h"

#include <random>

namespace {

constexpr image_extras later_layouts[] = {{8, 0}, {0, 1}, {64, 0}, {24, 5}, {1024, 23}};

std::vector<unsigned char> bytes_at(const std::string& path)
{
    const std::string bytes = bytes_of_file(path);
    return {bytes.begin(), bytes.end()};
}

class later_release_test : public segment_test
{
protected:
    void write(const std::string& path, const std::vector<unsigned char>& bytes)
    {
        write_file(path, std::string(bytes.begin(), bytes.end()));
    }
    // Opens a saved file with these bytes. A file that is accepted can be read, saved and reset.
    int open_bytes(std::vector<unsigned char> bytes)
    {
        repair_image(bytes.data(), bytes.size(), RE_image_kind::saved);
        write(folder.file("probe"), bytes);
        const auto first = file_reader(folder.file("probe"));
        const int result = first->open();
        if (result == 0) {
            const auto again = file_reader(folder.file("probe"));
            EXPECT_EQ(again->open(), 0);
            expect_same_statistics(*first, *again);
            EXPECT_EQ(first->save_stats_binary(folder.file("copy").c_str()), 0);
            first->clear_all();
        }
        return result;
    }
    std::unique_ptr<RE_stat_reader> open_file(const std::string& name)
    {
        auto reader = file_reader(folder.file(name));
        EXPECT_EQ(reader->open(), 0);
        return reader;
    }

    scratch_folder folder;
};

RE_image_section& section_of(std::vector<unsigned char>& bytes, std::uint32_t id)
{
    auto* section = reinterpret_cast<RE_image_section*>(bytes.data() + sizeof(RE_image_header));
    while (section->id != id) {
        ++section;
    }
    return *section;
}

TEST_F(later_release_test, saved_files_are_read_and_saved_again)
{
    const std::vector<unsigned char> ours = saved_sample({});
    write(folder.file("ours"), ours);
    for (const image_extras& extras : later_layouts) {
        SCOPED_TRACE(extras.row_bytes);
        write(folder.file("later"), relaid_image(ours, extras));
        expect_same_statistics(*open_file("later"), *open_file("ours"));
        EXPECT_EQ(open_file("later")->save_stats_binary(folder.file("again").c_str()), 0);
        expect_same_statistics(*open_file("again"), *open_file("ours"));
        // Rows are saved unchanged. Unknown sections are not saved.
        EXPECT_EQ(bytes_at(folder.file("again")), relaid_image(ours, {extras.row_bytes, 0}));
    }
}

TEST_F(later_release_test, live_statistics_are_read_saved_and_reset)
{
    for (const image_extras& extras : later_layouts) {
        SCOPED_TRACE(extras.row_bytes);
        RE_stat_writer engine;
        ASSERT_EQ(publish_sample(engine, {}), 0);
        const std::vector<unsigned char> ours = bytes_at(segment_path());
        const auto reader = live_reader();
        ASSERT_EQ(reader->open(), 0);
        ASSERT_EQ(reader->save_stats_binary(folder.file("ours").c_str()), 0);
        reader->reset_all();
        const std::vector<unsigned char> ours_reset = bytes_at(segment_path());
        ASSERT_NE(ours_reset, ours);
        ASSERT_EQ(reader->close(), 0);

        // The engine does not write from here on.
        write(segment_path(), relaid_image(ours, extras));
        ASSERT_EQ(reader->open(), 0);
        expect_same_statistics(*reader, *open_file("ours"));
        EXPECT_EQ(reader->save_stats_binary(folder.file("saved").c_str()), 0);
        expect_same_statistics(*open_file("saved"), *open_file("ours"));
        reader->reset_all();
        EXPECT_EQ(bytes_at(segment_path()), relaid_image(ours_reset, extras));
    }
}

TEST_F(later_release_test, tables_and_rows_have_bounds)
{
    const std::vector<unsigned char> ours = saved_sample({});
    EXPECT_EQ(open_bytes(relaid_image(ours, {0, RE_image_max_sections - RE_image_section_count})), 0);
    EXPECT_EQ(open_bytes(relaid_image(ours, {0, RE_image_max_sections - RE_image_section_count + 1})),
              RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(open_bytes(relaid_image(ours, {8192, 0})), 0);
    EXPECT_EQ(open_bytes(relaid_image(ours, {16384, 0})), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(open_bytes(relaid_image(ours, {4, 0})), RE_STAT_ERR_LAYOUT);

    const std::vector<unsigned char> later = relaid_image(saved_sample({1, 1, 1, 1, 0}), {8, 2});
    for (const std::uint32_t id : {1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U}) {
        std::vector<unsigned char> bytes = later;
        section_of(bytes, id).row_size -= 8;
        EXPECT_EQ(open_bytes(bytes), 0) << id << ": as large as today";
        section_of(bytes, id).row_size -= 8;
        EXPECT_EQ(open_bytes(bytes), RE_STAT_ERR_LAYOUT) << id;
    }
}

TEST_F(later_release_test, unknown_sections_are_judged_like_others)
{
    const std::vector<unsigned char> later = relaid_image(saved_sample({}), {0, 3});
    const auto result_of = [&](auto change) {
        std::vector<unsigned char> bytes = later;
        change(section_of(bytes, 1001), bytes);
        return open_bytes(bytes);
    };
    using bytes = std::vector<unsigned char>;
    EXPECT_EQ(result_of([](RE_image_section&, bytes&) {}), 0);
    EXPECT_EQ(result_of([](RE_image_section& section, bytes&) { section.id = 1002; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_section& section, bytes&) { section.id = 0; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_section& section, bytes&) { section.offset += 4; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_section& section, bytes&) { section.rows = 4; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_section& section, bytes&) { section.slots = 2; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_section& section, bytes&) { section.rows = section.slots = UINT64_MAX; }),
              RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_section& section, bytes&) { section.row_size = UINT32_MAX; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_section& section, bytes& all) { section.offset = all.size() - 16; }),
              RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_section& section, bytes&) { section.offset = 0; }), RE_STAT_ERR_LAYOUT);
    EXPECT_EQ(result_of([](RE_image_section& section, bytes& all) {
                  section.offset = section_of(all, RE_IMAGE_CONNS).offset + 8;
              }),
              RE_STAT_ERR_LAYOUT)
        << "two sections share bytes";
}

TEST_F(later_release_test, sections_of_ours_that_share_bytes_are_refused)
{
    std::vector<unsigned char> bytes = saved_sample({});
    section_of(bytes, RE_IMAGE_CONNS).offset = section_of(bytes, RE_IMAGE_CONN_COUNTERS).offset;
    EXPECT_EQ(open_bytes(bytes), RE_STAT_ERR_LAYOUT);
}

TEST_F(later_release_test, every_bit_of_header_and_table_may_be_wrong_with_a_right_checksum)
{
    std::vector<unsigned char> later = relaid_image(saved_sample({1, 2, 1, 1, 1}), {8, 2});
    const std::size_t table_end = sizeof(RE_image_header) + 11 * sizeof(RE_image_section);
    int refused = 0;
    for (std::size_t bit = 0; bit < 8 * table_end; ++bit) {
        later[bit / 8] = static_cast<unsigned char>(later[bit / 8] ^ (1U << (bit % 8)));
        const int result = open_bytes(later);
        EXPECT_TRUE(result == 0 || result == RE_STAT_ERR_LAYOUT) << bit << ": " << result;
        refused += result != 0 ? 1 : 0;
        later[bit / 8] = static_cast<unsigned char>(later[bit / 8] ^ (1U << (bit % 8)));
    }
    EXPECT_GT(refused, static_cast<int>(8 * 11 * sizeof(RE_image_section) * 8 / 10)) << "of the table's bits alone";
}

TEST_F(later_release_test, cut_anywhere_with_a_right_checksum_is_refused_or_read)
{
    const std::vector<unsigned char> later = relaid_image(saved_sample({1, 2, 1, 1, 1}), {8, 2});
    for (std::size_t size = sizeof(RE_image_header) + sizeof(RE_image_trailer); size < later.size(); size += 3) {
        const int result = open_bytes({later.begin(), later.begin() + static_cast<std::ptrdiff_t>(size)});
        EXPECT_TRUE(result == 0 || result == RE_STAT_ERR_LAYOUT) << size << ": " << result;
    }
}

} // namespace
