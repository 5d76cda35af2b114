// Images with arbitrary content.
#include "documents/diff.h"
#include "kavstat_fixture.h"
#include "watch/view.h"

#include <unistd.h>

#include <filesystem>
#include <random>
#include <set>
#include <sstream>

using namespace kavstat;

namespace {

class hostile_image : public kavstat_test
{
protected:
    // Overwrites parts of the image after its section table with random bytes, in rows of all kinds.
    void spoil(std::mt19937& random)
    {
        const std::size_t size = std::filesystem::file_size(segment_path());
        constexpr std::size_t sections_at = 416;
        for (int hit = 0; hit < 200; ++hit) {
            const std::size_t at = sections_at + random() % (size - sections_at - 64);
            const std::size_t length = random() % 64;
            for (std::size_t byte = at; byte < at + length; ++byte) {
                m_image[byte] = static_cast<unsigned char>(random() % 4 == 0 ? 0xff : random());
            }
        }
    }
    unsigned char* m_image = nullptr;
};

} // namespace

TEST_F(hostile_image, gives_documents_that_are_still_sound)
{
    start();
    fill();
    m_image = map_segment();
    std::mt19937 random(1);
    Source source;
    ASSERT_EQ(source.open(), 0);
    DiffSide before = take_side(source.reader(), "before", now);
    WatchModel model;
    WatchView view(0, 1, false);
    const auto expect_harmless = [](const std::string& text) {
        for (const char letter : text) {
            EXPECT_TRUE(letter >= ' ' && letter <= '~') << int{letter};
        }
    };
    for (int round = 0; round < 12; ++round) {
        spoil(random);
        Source spoiled;
        const std::string text = json_text(spoiled);
        EXPECT_TRUE(nlohmann::json::accept(text));

        std::set<std::string> series;
        std::istringstream lines(metrics());
        for (std::string line; std::getline(lines, line);) {
            const std::size_t value = line.rfind(' ') + 1;
            EXPECT_TRUE(line[0] == '#' || series.insert(line.substr(0, value)).second) << line;
            EXPECT_TRUE(line[0] == '#' || line.find_first_not_of("0123456789.e+-", value) == std::string::npos) << line;
        }

        DiffSide after = take_side(spoiled.reader(), "after", now);
        StringSink sink;
        Output output(sink);
        StringSink json_sink;
        Output json_output(json_sink);
        write_diff(before, after, {.b_all = true}, output);
        write_diff_json(before, after, {.b_all = true}, json_output);
        EXPECT_TRUE(output.flush() && json_output.flush());
        EXPECT_TRUE(nlohmann::json::accept(json_sink.text()));
        for (const char letter : sink.text() + json_sink.text()) {
            EXPECT_TRUE(letter == '\n' || (letter >= ' ' && letter <= '~')) << int{letter};
        }
        before = after;

        for (const int page : {'1', '2', '3', '4', '5', '6', '7', '8'}) {
            view.press(page);
            model.update(spoiled.reader(), view.needs(), round % 4 != 0, now, WatchModel::clock::now());
            // The page, the details that Enter opens, and these after another update.
            for (const int key : {WATCH_KEY_DOWN, WATCH_KEY_ENTER, WATCH_KEY_RIGHT}) {
                for (const WatchLine& line : view.screen(model, 120, 40)) {
                    expect_harmless(line.text);
                }
                view.press(key);
                model.read(spoiled.reader(), view.needs(), WatchModel::clock::now());
            }
            model.update(spoiled.reader(), view.needs(), true, now, WatchModel::clock::now());
            for (const std::string& line : view.report(model)) {
                expect_harmless(line);
            }
            StringSink json;
            Output line_output(json);
            view.write_json(model, line_output);
            EXPECT_TRUE(line_output.flush());
            EXPECT_TRUE(nlohmann::json::accept(json.text())) << json.text();
        }
    }
}

TEST_F(hostile_image, that_is_cut_short_gives_no_document)
{
    start();
    fill();
    const auto size = static_cast<off_t>(std::filesystem::file_size(segment_path()));
    Source source;
    Source metrics_source;
    ASSERT_EQ(source.open(), 0);
    ASSERT_EQ(metrics_source.open(), 0);
    ASSERT_EQ(truncate(segment_path().c_str(), 4096), 0);
    StringSink json;
    Output json_output(json);
    write_statistics_json(source, {}, now, json_output);
    EXPECT_FALSE(json_output.flush());
    EXPECT_FALSE(nlohmann::json::accept(json.text()));

    StringSink exposition;
    Output exposition_output(exposition);
    write_metrics_of(metrics_source.reader(), now, exposition_output);
    EXPECT_TRUE(exposition_output.flush());
    EXPECT_NE(exposition.text().find("\nkav_up 0\n"), std::string::npos);
    EXPECT_EQ(exposition.text().find("kav_peer_info{"), std::string::npos);
    ASSERT_EQ(truncate(segment_path().c_str(), size), 0); // so that the engine can withdraw
}
