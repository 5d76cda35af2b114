// Builds with more or fewer counters read, save and reset each other's statistics.
#include "support/engine_fixture.h"

#include <cstdlib>
#include <fstream>
#include <map>

namespace {

struct build
{
    const char* name;
    const char* tool;
    int counters; // in each family, compared with this build
};

constexpr build builds[] = {{"less", image_tool_less, -1}, {"same", image_tool, 0}, {"more", image_tool_more, 1}};

using text_by_line = std::map<std::string, std::string>; // the text before " = ", and the text after it

text_by_line lines_of(const std::string& path)
{
    text_by_line lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const std::size_t middle = line.find(" = ");
        lines[line.substr(0, middle)] = middle == std::string::npos ? "" : line.substr(middle + 3);
    }
    return lines;
}

class other_builds_test : public segment_test
{
protected:
    // Runs shell commands while that build publishes the sample engine.
    void run_beside(const build& engine, const std::string& commands) const
    {
        const std::string line = std::string(engine.tool) + " publish '" + commands + "'";
        ASSERT_EQ(std::system(line.c_str()), 0) << line;
    }
    std::string file(const build& engine, const build& other, const char* what) const
    {
        return folder.file(std::string(engine.name) + "-" + other.name + "-" + what);
    }

    scratch_folder folder;
};

// Returns what `reader` must see of the statistics that `engine` printed about itself. Counters that only one of the
// two has are 0 or missing.
text_by_line as_read_by(const build& reader, const build& engine, text_by_line lines)
{
    const std::pair<const char*, int> families[] = {
        {"global ", RE_STAT_GLOBAL_ID_MAX},    {"sum ", RE_STAT_CONN_ID_MAX},
        {"peer 0: ", RE_STAT_PEER_ID_MAX},     {"peer 1: ", RE_STAT_PEER_ID_MAX},
        {"peer 0: sum ", RE_STAT_CONN_ID_MAX}, {"peer 1: sum ", RE_STAT_CONN_ID_MAX},
        {"conn 0: ", RE_STAT_CONN_ID_MAX},     {"conn 1: ", RE_STAT_CONN_ID_MAX},
        {"conn 2: ", RE_STAT_CONN_ID_MAX},     {"conn 3: ", RE_STAT_CONN_ID_MAX},
        {"app 0: ", RE_STAT_APP_ID_MAX},       {"app 1: ", RE_STAT_APP_ID_MAX},
        {"app 2: ", RE_STAT_APP_ID_MAX}};
    for (const auto& [prefix, count] : families) {
        for (int id = count + engine.counters; id < count + reader.counters; ++id) {
            lines[prefix + std::to_string(id)] = "0";
        }
        for (int id = count + reader.counters; id < count + engine.counters; ++id) {
            EXPECT_EQ(lines.erase(prefix + std::to_string(id)), 1U) << prefix << id;
        }
    }
    return lines;
}

TEST_F(other_builds_test, count_what_they_were_built_with)
{
    for (const build& engine : builds) {
        run_beside(engine, std::string(engine.tool) + " print >" + file(engine, engine, "live"));
        const text_by_line lines = lines_of(file(engine, engine, "live"));
        // count: of this build. The figure of the last counter is base + factor * id.
        const auto expect_last = [&](const char* prefix, int count, int base, int factor) {
            const int id = count + engine.counters - 1;
            EXPECT_EQ(lines.count(prefix + std::to_string(id + 1)), 0U) << engine.name << ' ' << prefix;
            const auto found = lines.find(prefix + std::to_string(id));
            EXPECT_EQ(found != lines.end() ? found->second : "none", std::to_string(base + factor * id))
                << engine.name << ' ' << prefix;
        };
        expect_last("global ", RE_STAT_GLOBAL_ID_MAX, 0, 7);
        expect_last("peer 1: ", RE_STAT_PEER_ID_MAX, 1000, 1);
        expect_last("conn 2: ", RE_STAT_CONN_ID_MAX, 3000, 1);
        expect_last("sum ", RE_STAT_CONN_ID_MAX, 10000, 4);
        expect_last("peer 0: sum ", RE_STAT_CONN_ID_MAX, 4000, 2);
        expect_last("app 0: ", RE_STAT_APP_ID_MAX, 5000, 1);
        EXPECT_EQ(lines.at("active"), "2");
        EXPECT_EQ(lines.count("app 0: port 80, 3 opened, 1 closed, peer 02:00:00:00:00:00-000000000000-00000000"), 1U);
        EXPECT_EQ(lines.count("peer 1: 12 branch-1 active 0"), 1U);
        EXPECT_EQ(lines.count("conn 3: 103 port 40003 fd 10 from 1700000003 to 1700000603"), 1U);
        EXPECT_EQ(lines.count("nack: 1700000002 conn 102 message 2"), 1U);
        EXPECT_EQ(lines.count("config: 50 zlib"), 1U);
    }
}

TEST_F(other_builds_test, read_each_other_live_and_saved_by_any)
{
    for (const build& engine : builds) {
        std::string commands = std::string(engine.tool) + " print >" + file(engine, engine, "itself");
        for (const build& reader : builds) {
            commands += std::string("; ") + reader.tool + " print >" + file(engine, reader, "live");
            commands += std::string("; ") + reader.tool + " save " + file(engine, reader, "saved");
        }
        run_beside(engine, commands);
        const text_by_line truth = lines_of(file(engine, engine, "itself"));
        ASSERT_GT(truth.size(), 1000U);
        for (const build& reader : builds) {
            SCOPED_TRACE(std::string(engine.name) + " read by " + reader.name);
            const text_by_line expected = as_read_by(reader, engine, truth);
            EXPECT_EQ(lines_of(file(engine, reader, "live")), expected);
            // Any build may save the file. It contains what the engine counts.
            for (const build& saver : builds) {
                const std::string read = file(saver, reader, "read");
                ASSERT_EQ(
                    std::system(
                        (std::string(reader.tool) + " print " + file(engine, saver, "saved") + " >" + read).c_str()),
                    0);
                EXPECT_EQ(lines_of(read), expected) << "saved by " << saver.name;
            }
        }
    }
}

TEST_F(other_builds_test, reset_each_other_and_nothing_else)
{
    for (const build& engine : builds) {
        for (const build& other : builds) {
            for (const char* what : {"reset", "clear"}) {
                SCOPED_TRACE(std::string(engine.name) + " " + what + " by " + other.name);
                const auto print_to = [&](const std::string& path) {
                    return std::string(engine.tool) + " print >" + path;
                };
                run_beside(engine, print_to(file(engine, other, "before")) + "; " + other.tool + " " + what + "; " +
                                       print_to(file(engine, other, "after")));
                const text_by_line before = lines_of(file(engine, other, "before"));
                const text_by_line after = lines_of(file(engine, other, "after"));
                const bool b_clear = std::string(what) == "clear";
                EXPECT_EQ(after.at("global 12"), "0");                                    // a total
                EXPECT_EQ(after.at("global 13"), b_clear ? "0" : before.at("global 13")); // a current value
                EXPECT_EQ(after.at("peer 1: 9"), "0");
                EXPECT_EQ(after.at("peer 1: 10"), "0");
                EXPECT_EQ(after.at("peer 1: 11"), b_clear ? "0" : "1011");
                // A build cannot find out whether an unknown counter is a total.
                const bool b_last_stays = !b_clear && other.counters < engine.counters;
                for (const char* const prefix : {"sum ", "peer 1: sum ", "conn 3: "}) {
                    const std::string last = prefix + std::to_string(165 + engine.counters);
                    EXPECT_EQ(after.at(last), b_last_stays ? before.at(last) : "0") << last;
                }
                EXPECT_EQ(after.at("conn 3: 0"), "0");
                EXPECT_EQ(after.at("app 2: 0"), "0");
                EXPECT_EQ(after.at("active"), "2");
                EXPECT_EQ(after.count("app 0: port 80, 0 opened, 0 closed, peer "
                                      "02:00:00:00:00:00-000000000000-00000000"),
                          1U);
                EXPECT_EQ(after.count("nack: 1700000002 conn 102 message 2"), 0U);
                for (const char* const identity :
                     {"config: 50 zlib", "peer 1: 12 branch-1 active 0", "peer 0: 11 branch-0 active 2",
                      "conn 3: 103 port 40003 fd 10 from 1700000003 to 1700000603"}) {
                    EXPECT_EQ(after.count(identity), 1U) << identity;
                }
                EXPECT_EQ(after.at("app 2: " + std::to_string(17 + engine.counters)), "0");
            }
        }
    }
}

} // namespace
