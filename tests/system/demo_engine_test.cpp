// The demo engine as a user runs it, observed through the viewer.

#include "support/contains.h"
#include "support/demo_engine.h"
#include "support/report_figures.h"
#include "support/system_test.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

namespace {

const std::vector<std::string> every_word[] = {
    {"tech-support"}, {"top-app", "detail"}, {"nack"}, {"global-detail"}, {"peer", "detail"}, {"conn"}, {"config"},
};

class demo : public system_test
{
protected:
    demo()
    {
        std::string text;
        for (int line = 0; line < 20000; ++line) {
            text += "line " + std::to_string(line % 700) + " of a text that repeats itself\n";
        }
        write_file(path("traffic.txt"), text);
    }

    std::vector<std::string> once() const { return {"--once", path("traffic.txt")}; }
    bool has_segment() const { return access(segment_path().c_str(), F_OK) == 0; }
};

program_result run_demo(const std::vector<std::string>& arguments)
{
    return demo_engine(arguments).finish();
}

} // namespace

TEST_F(demo, says_ready_once_it_can_be_read_and_idle_when_its_traffic_is_through)
{
    demo_engine engine(once());
    ASSERT_TRUE(engine.says("ready"));
    EXPECT_EQ(run_viewer({"global-info"}).status, 0);
    ASSERT_TRUE(engine.says("idle"));
    const program_result result = engine.stop();
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
}

TEST_F(demo, ends_cleanly_and_takes_its_segment_along_when_told_to)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        demo_engine engine({path("traffic.txt")});
        ASSERT_TRUE(engine.says("ready"));
        EXPECT_TRUE(has_segment());
        engine.send_signal(signal);
        const program_result result = engine.finish();
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.err, "");
        EXPECT_FALSE(has_segment());
        EXPECT_EQ(run_viewer({"nack"}).status, 1);
    }
}

TEST_F(demo, publishes_again_when_its_segment_is_removed)
{
    for (const bool b_once : {true, false}) {
        demo_engine engine(b_once ? once() : std::vector<std::string>{path("traffic.txt")});
        ASSERT_TRUE(engine.says("ready"));
        if (b_once) {
            ASSERT_TRUE(engine.says("idle"));
        }
        const std::string before = run_viewer({"conn", "last"}).out;
        ASSERT_EQ(unlink(segment_path().c_str()), 0);
        for (int tenths = 0; tenths < 300 && !has_segment(); ++tenths) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        EXPECT_TRUE(has_segment());
        const program_result after = run_viewer({"conn", "last"});
        EXPECT_EQ(after.status, 0);
        if (b_once) {
            EXPECT_EQ(without_ages(after.out), without_ages(before));
        }
        EXPECT_EQ(engine.stop().status, 0);
        EXPECT_FALSE(has_segment());
    }
}

TEST_F(demo, gives_its_segment_the_mode_that_was_asked_for)
{
    const std::pair<std::vector<std::string>, mode_t> modes[] = {
        {{}, 0640}, {{"--segment-mode", "0600"}, 0600}, {{"--segment-mode", "664"}, 0664}};
    for (const auto& [arguments, mode] : modes) {
        std::vector<std::string> words = once();
        words.insert(words.end(), arguments.begin(), arguments.end());
        demo_engine engine(words);
        ASSERT_TRUE(engine.says("ready"));
        struct stat found = {};
        ASSERT_EQ(stat(segment_path().c_str(), &found), 0);
        EXPECT_EQ(found.st_mode & 07777U, mode);
        EXPECT_EQ(engine.stop().status, 0);
    }
}

TEST_F(demo, explains_itself_without_starting)
{
    const program_result help = run_demo({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* option : {"--once", "--ledger", "--peers", "--slots", "--rate", "--top-app-log", "--version",
                               "KAV_STAT_SEGMENT", "Exit status"}) {
        EXPECT_TRUE(contains(help.out, option)) << option;
    }
    EXPECT_EQ(help.err, "");
    const program_result version = run_demo({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.substr(0, 16), "kav_demo_engine ");
    EXPECT_EQ(version.out.find('\n'), version.out.size() - 1);
    EXPECT_FALSE(has_segment());
}

TEST_F(demo, tells_mistakes_on_its_command_line_by_status_2)
{
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{{"--no-such-option"},
                                                                                           {"--peers", "0"},
                                                                                           {"--peers", "many"},
                                                                                           {"--slots"},
                                                                                           {"--rate", "-1"},
                                                                                           {"--segment-mode", "0646"},
                                                                                           {"--segment-mode", "0440"},
                                                                                           {"--segment-mode", "608"},
                                                                                           {"--ledger"}}) {
        const program_result result = run_demo(arguments);
        EXPECT_EQ(result.status, 2) << arguments.front();
        EXPECT_NE(result.err, "");
        EXPECT_EQ(result.out, "");
        EXPECT_FALSE(has_segment());
    }
}

TEST_F(demo, holds_every_report_still_when_it_is_idle)
{
    demo_engine engine(once());
    ASSERT_TRUE(engine.says("ready"));
    ASSERT_TRUE(engine.says("idle"));
    std::vector<std::string> before;
    for (const std::vector<std::string>& arguments : every_word) {
        before.push_back(without_ages(report_of(arguments)));
    }
    EXPECT_TRUE(contains(before[3], "\nConnections:   Total (cumulative): 2   Active: 2\n"));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    std::size_t at = 0;
    for (const std::vector<std::string>& arguments : every_word) {
        EXPECT_EQ(without_ages(report_of(arguments)), before[at++]);
    }
}

TEST_F(demo, reads_back_as_it_was_when_saved)
{
    demo_engine engine(once());
    ASSERT_TRUE(engine.says("ready"));
    ASSERT_TRUE(engine.says("idle"));
    const std::string live = "-------------------- kav global-detail\n" + report_of({"global-detail"}) +
                             "-------------------- kav peer-detail\n" + report_of({"peer", "detail"});
    EXPECT_EQ(report_of({"save-file", path("saved")}), "");
    EXPECT_EQ(engine.stop().status, 0);
    EXPECT_EQ(without_ages(report_of({"read-file", path("saved")})), without_ages(live));
}

TEST_F(demo, moves_its_counters_while_it_runs)
{
    demo_engine engine({path("traffic.txt")});
    ASSERT_TRUE(engine.says("ready"));
    const auto end = std::chrono::steady_clock::now() + run_timeout;
    std::vector<std::string> reports;
    while (reports.size() < 5 && std::chrono::steady_clock::now() < end) {
        const std::string report = without_ages(report_of({"global-info"}));
        if (reports.empty() || report != reports.back()) {
            reports.push_back(report);
        }
    }
    EXPECT_EQ(reports.size(), 5U);
}

TEST_F(demo, runs_beside_another_under_another_name)
{
    demo_engine first(once());
    ASSERT_TRUE(first.says("ready"));
    demo_engine second({"--once", "--peers", "7", path("traffic.txt")}, other_segment());
    ASSERT_TRUE(second.says("ready"));
    ASSERT_TRUE(first.says("idle"));
    ASSERT_TRUE(second.says("idle"));
    const std::string peers_of_first = report_of({"peer", "no", "7"});
    const program_result peers_of_second =
        run_viewer({"peer", "no", "7"}, {.environment = {{"KAV_STAT_SEGMENT", other_segment()}}});
    EXPECT_FALSE(contains(peers_of_first, "Peer-No : 7"));
    EXPECT_TRUE(contains(peers_of_second.out, "Peer-No : 7"));
    EXPECT_EQ(first.stop().status, 0);
    EXPECT_EQ(run_viewer({"nack"}, {.environment = {{"KAV_STAT_SEGMENT", other_segment()}}}).status, 0);
    EXPECT_EQ(second.stop().status, 0);
}

TEST_F(demo, is_refused_where_another_publishes_and_does_it_no_harm)
{
    demo_engine first(once());
    ASSERT_TRUE(first.says("ready"));
    ASSERT_TRUE(first.says("idle"));
    const std::string before = without_ages(report_of({"global-detail"}));
    const program_result second = run_demo(once());
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.out, "");
    EXPECT_EQ(second.err,
              "kav_demo_engine: another engine publishes under this name; KAV_STAT_SEGMENT selects another name\n");
    EXPECT_EQ(without_ages(report_of({"global-detail"})), before);
    EXPECT_EQ(first.stop().status, 0);
}

TEST_F(demo, that_was_killed_is_gone_for_the_viewer_and_can_be_started_again)
{
    demo_engine killed(once());
    ASSERT_TRUE(killed.says("ready"));
    killed.send_signal(SIGKILL);
    EXPECT_EQ(killed.finish().signal, SIGKILL);
    EXPECT_TRUE(has_segment());
    const program_result result = run_viewer({"global-detail"});
    EXPECT_EQ(result.out, "KAV Statistics failed OR KAV was not initialized by WEQ");
    EXPECT_EQ(result.status, 1);

    demo_engine restarted(once());
    ASSERT_TRUE(restarted.says("ready"));
    EXPECT_EQ(run_viewer({"global-detail"}).status, 0);
    EXPECT_EQ(restarted.stop().status, 0);
    EXPECT_FALSE(has_segment());
}
