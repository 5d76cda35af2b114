// The demo engine as a program: its output, its exit status and the files that it leaves.
#include "RE_statistics.h"

#include "engine_process.h"
#include "test_bytes.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <memory>

namespace {

TEST(program, runs_until_it_is_told_to_stop)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        const temporary_folder folder;
        folder.write("traffic/a.txt", random_bytes(100'000, 1));
        engine_process engine({"--ledger", folder.file("ledger"), folder.file("traffic")});
        ASSERT_TRUE(engine.wait_for("ready"));
        const std::unique_ptr<RE_stat_reader> reader(RE_stat_reader::create(RE_STAT_READER_SHM, nullptr));
        EXPECT_EQ(reader->open(), 0);
        long long state = 0;
        reader->read_global_stat(RE_STAT_GLOBAL_ID_CACHE_STATE, state);
        EXPECT_EQ(state, RE_CACHE_ACTIVE);
        engine.send(signal);
        EXPECT_EQ(engine.wait(), 0);
        EXPECT_FALSE(engine.has_segment());
        EXPECT_TRUE(nlohmann::json::accept(bytes_of_file(folder.file("ledger"))));
    }
}

TEST(program, stops_by_itself_after_its_duration)
{
    const temporary_folder folder;
    engine_process engine({"--duration", "0.2", folder.path()});
    EXPECT_TRUE(engine.wait_for("ready"));
    EXPECT_EQ(engine.wait(), 0);
    EXPECT_FALSE(engine.has_segment());
}

TEST(program, holds_its_rate)
{
    const temporary_folder folder;
    folder.write("a", random_bytes(512 * 1024, 1));
    engine_process engine({"--once", "--repeat", "1", "--rate", "1", folder.path()});
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(engine.wait_for("idle"));
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
    EXPECT_GT(spent.count(), 0.45);
}

TEST(program, moves_the_same_bytes_again_with_the_same_seed)
{
    const temporary_folder folder;
    for (int file = 0; file < 9; ++file) {
        folder.write("traffic/" + std::to_string(file), real_bytes(300'000));
    }
    std::string ledgers[2];
    for (std::string& ledger : ledgers) {
        engine_process engine(
            {"--once", "--cache-mb", "4", "--seed", "5", "--ledger", folder.file("ledger"), folder.file("traffic")});
        ASSERT_TRUE(engine.wait_for("idle"));
        ledger = bytes_of_file(folder.file("ledger"));
    }
    EXPECT_FALSE(ledgers[0].empty());
    EXPECT_EQ(ledgers[0], ledgers[1]);
}

TEST(program, refuses_to_publish_where_another_engine_does)
{
    const temporary_folder folder;
    engine_process first({"--once", folder.path()});
    ASSERT_TRUE(first.wait_for("idle"));
    const std::string segment = std::getenv("KAV_STAT_SEGMENT");
    engine_process second({"--once", "--help"}); // is started only to get another segment name
    EXPECT_EQ(second.wait(), 0);
    setenv("KAV_STAT_SEGMENT", segment.c_str(), 1);
    const std::string command =
        built_program("kav_demo_engine") + " --once " + folder.path() + " 2>" + folder.file("errors");
    EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 1);
    EXPECT_EQ(bytes_of_file(folder.file("errors")),
              "kav_demo_engine: another engine publishes under this name; KAV_STAT_SEGMENT selects another name\n");
}

TEST(program, tells_mistakes_on_the_command_line_from_errors)
{
    engine_process unknown({"--no-such-option"});
    EXPECT_EQ(unknown.wait(), 2);
    EXPECT_FALSE(unknown.errors().empty());
    engine_process out_of_range({"--peers", "0"});
    EXPECT_EQ(out_of_range.wait(), 2);
    engine_process missing({"/no/such/path"});
    EXPECT_EQ(missing.wait(), 1);
    EXPECT_EQ(missing.errors(), "kav_demo_engine: /no/such/path: no such file or folder\n");
    EXPECT_FALSE(missing.has_segment());
    const temporary_folder folder;
    engine_process no_ledger({"--once", "--ledger", "/no/such/folder/ledger", folder.path()});
    EXPECT_EQ(no_ledger.wait(), 1);
    EXPECT_FALSE(no_ledger.has_segment());
    engine_process no_cache({"--once", "--cache-dir", "/no/such/folder", folder.path()});
    EXPECT_EQ(no_cache.wait(), 1);
    EXPECT_FALSE(no_cache.has_segment());
}

TEST(program, writes_its_configuration_only_where_it_is_asked_to)
{
    const temporary_folder folder;
    engine_process engine({"--once", "--peers", "3", "--config-file", folder.file("config"), folder.path()});
    ASSERT_TRUE(engine.wait_for("idle"));
    EXPECT_EQ(bytes_of_file(folder.file("config")).substr(0, 8), "peers 3\n");

    const std::unique_ptr<RE_stat_reader> reader(RE_stat_reader::create(RE_STAT_READER_SHM, nullptr));
    ASSERT_EQ(reader->open(), 0);
    const RE_stat_config_param* const config = reader->get_config_param();
    ASSERT_NE(config, nullptr);
    EXPECT_EQ(config->m_max_fan_out, 3);
    EXPECT_EQ(config->m_comp_type, 3);
    EXPECT_STREQ(config->m_lz_algorithm, "zlib");
}

TEST(program, takes_no_empty_path)
{
    for (const char* const option : {"--top-app-log", "--ledger", "--config-file", "--cache-dir"}) {
        engine_process engine({"--once", "--duration", "1", option, ""});
        EXPECT_EQ(engine.wait(), 2) << option;
        EXPECT_NE(engine.errors().find(std::string(option) + ": the path is empty"), std::string::npos);
    }
}

TEST(program, makes_no_cache_through_another_users_link)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs another user";
    }
    const temporary_folder folder;
    const std::string open_to_all = folder.file("open");
    const std::string link = open_to_all + "/link";
    ASSERT_EQ(mkdir(open_to_all.c_str(), 0755), 0);
    ASSERT_EQ(chmod(open_to_all.c_str(), 01777), 0);
    ASSERT_EQ(symlink(folder.path().c_str(), link.c_str()), 0);
    ASSERT_EQ(lchown(link.c_str(), 65534, 65534), 0);
    engine_process engine({"--once", "--duration", "1", "--cache-dir", link, "/etc/hostname"});
    EXPECT_EQ(engine.wait(), 1);
    EXPECT_EQ(engine.errors(),
              "kav_demo_engine: cannot make a cache file in " + link + ": Too many levels of symbolic links\n");
}

// The engine neither waits for an existing file with an output's name nor writes to it.
TEST(program, ends_with_an_error_where_an_output_is_no_regular_file)
{
    const temporary_folder folder;
    folder.write("traffic/a.txt", random_bytes(100'000, 1));
    ASSERT_EQ(mkfifo(folder.file("pipe").c_str(), 0600), 0);
    ASSERT_EQ(symlink(folder.file("elsewhere").c_str(), folder.file("link").c_str()), 0);
    for (const char* const option : {"--top-app-log", "--ledger", "--config-file"}) {
        for (const std::string& output : {folder.file("pipe"), folder.file("link"), std::string("/dev/null")}) {
            engine_process engine({"--once", option, output, folder.file("traffic")});
            EXPECT_EQ(engine.wait(), 1) << option << ' ' << output;
            EXPECT_NE(engine.errors().find(output + ": "), std::string::npos) << engine.errors();
            EXPECT_FALSE(engine.has_segment());
        }
    }
    EXPECT_NE(access(folder.file("elsewhere").c_str(), F_OK), 0);
    struct stat status = {};
    ASSERT_EQ(stat("/dev/null", &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));
}

} // namespace
