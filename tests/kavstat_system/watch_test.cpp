// The live view in a real terminal.
#include "kavstat_program.h"
#include "support/contains.h"
#include "support/demo_engine.h"
#include "support/terminal.h"

#include <csignal>
#include <cstring>

namespace {

class live_view : public system_test
{
protected:
    std::string watch(const std::string& options = "") const { return built_program("kavstat") + " watch " + options; }
    static void expect_in(const std::string& screen, const std::string& text) { EXPECT_TRUE(contains(screen, text)); }
};

} // namespace

TEST_F(live_view, shows_pages_filters_helps_and_ends)
{
    const small_engine engine;
    const terminal screen(folder(), watch("-i 0.2"), 120, 30);
    expect_in(screen.screen_with("Cache, oldest"), "kavstat 1/8 [overview]  ");
    expect_in(screen.screen(), "CRITICAL peer 1 branch-1.example.net: is disconnected although connections are open");
    expect_in(screen.screen(), "\nCache, oldest 45d1h           50.0%      1.0 GiB of 2.0 GiB");
    screen.press({"2"});
    expect_in(screen.screen_with("PEER HOST"),
              "\n>C     1 branch-1.example.net      2 "); // disconnected according to its record
    screen.press({"/", "4", "4", ":", "6", "6", "Enter"});
    const std::string filtered = screen.screen_with("filter: 44:66");
    expect_in(filtered, "00:11:22:33:44:66");
    EXPECT_EQ(filtered.find("branch-1"), std::string::npos) << filtered;
    screen.press({"Escape"});
    expect_in(screen.screen_without("filter"), "branch-1");
    screen.press({"3"});
    expect_in(screen.screen_with("CLIENT"), "        12      1 192.0.2.10:50000      198.51.100.20:80      open ");
    screen.press({"Tab"});
    expect_in(screen.screen_with("APPLICATION "), "\n  445 ");
    screen.press({"5"});
    expect_in(screen.screen_with("REASON"), " checksum_collision ");
    screen.press({"6"});
    expect_in(screen.screen_with("BYPASSED"), "  198.51.100.31:");
    screen.press({"7"});
    expect_in(screen.screen_with("COUNTER"), "> cache       cache_state                                    active ");
    screen.press({"8"});
    expect_in(screen.screen_with("PARAMETER"), "  max_con_cur_connection      4000");
    screen.press({"?"});
    expect_in(screen.screen_with("kavstat watch: keys"), "? q          show this help, which any key closes; quit");
    screen.press({"x"});
    screen.screen_without("keys");
    screen.press({"q"});
    expect_in(screen.screen_with("status"), "status 0");
}

TEST_F(live_view, opens_a_peer_with_its_counters_and_returns)
{
    small_engine engine;
    const terminal screen(folder(), watch("-i 0.2 -p peers"), 80, 24);
    screen.screen_with("branch-1");
    screen.press({"Enter"});
    expect_in(screen.screen_with("Peer "),
              "Peer 1 branch-1.example.net, 00:11:22:33:44:55, 203.0.113.1, 2 connections");
    screen.press({"/", "r", "t", "t", "Enter"});
    expect_in(screen.screen_with("filter: rtt"), "> queues      ack_q_max_rtt                               12.345 ms");
    screen.press({"Escape", "Escape"});
    expect_in(screen.screen_with("PEER HOST"), "00:11:22:33:44:66");
}

TEST_F(live_view, moves_with_the_engine)
{
    small_engine engine;
    const terminal screen(folder(), watch("-i 0.2 -p connections --sort rate"), 120, 30);
    screen.screen_with("CLIENT");
    for (int round = 0; round < 100 && screen.screen().find("iB/s") == std::string::npos; ++round) {
        engine.writer().add_conn_stat(engine.encoding_conn(), RE_STAT_CONN_ID_ENCODE_IN_BYTES, 1000000);
    }
    expect_in(screen.screen(), "iB/s");
    screen.press({"1"});
    expect_in(screen.screen_with("█"), "Traffic before");
}

TEST_F(live_view, survives_every_size_of_window)
{
    const small_engine engine;
    const terminal screen(folder(), watch("-i 0.1"), 80, 24);
    screen.screen_with("Traffic before");
    for (const auto& [width, height] : {std::pair(1, 1), {2, 50}, {300, 1}, {500, 200}, {7, 3}, {1, 1}}) {
        screen.resize(width, height);
        for (const char* const page : {"1", "2", "3", "4", "5", "6", "7", "8", "2", "Right", "Enter", "?", "x"}) {
            screen.press({page});
        }
    }
    screen.resize(100, 20);
    screen.press({"2"});
    expect_in(screen.screen_with("PEER HOST"), "branch-1.example.net");
    screen.press({"q"});
    expect_in(screen.screen_with("status"), "status 0");
}

TEST_F(live_view, follows_an_engine_that_stops_and_starts_again)
{
    const terminal screen(folder(), watch("-i 0.1"), 100, 24);
    screen.screen_with("no engine is running");
    {
        const small_engine engine;
        expect_in(screen.screen_with("▄"), "Connections open"); // at least two readings
    }
    expect_in(screen.screen_with("CRITICAL no figures"), "no engine is running");
    {
        demo_engine engine({"--rate", "1"});
        ASSERT_TRUE(engine.says("ready"));
        expect_in(screen.screen_with("Traffic before"), "│"); // marks the restart
        engine.send_signal(SIGKILL);
        engine.finish();
        expect_in(screen.screen_with("CRITICAL no figures"), "the engine is no longer running");
    }
    screen.press({"q"});
    expect_in(screen.screen_with("status"), "status 0");
}

TEST_F(live_view, gives_the_terminal_back_after_signals)
{
    const small_engine engine;
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        const terminal screen(folder(), "sh -c 'echo $$ >" + path("pid") + "; exec " + watch() + "'", 80, 24);
        expect_in(screen.screen_with("Traffic before"), "Traffic before");
        ASSERT_EQ(kill(std::stoi(bytes_of_file(path("pid"))), signal), 0);
        const std::string after = screen.screen_with("status");
        expect_in(after, "status 0");
        EXPECT_FALSE(contains(after, "COUNTER")) << after;
    }
}

TEST_F(live_view, names_of_the_far_side_cannot_reach_the_terminal)
{
    small_engine engine;
    RE_stat_peer_header header{};
    std::strcpy(header.m_peer_host_name, "\x1B[2J\x1B]0;x\x07\xC2\x9B");
    engine.writer().add_peer(77, header);
    const terminal screen(folder(), watch("-p peers"), 120, 24);
    expect_in(screen.screen_with("     77 "), "     77 ?[2J?]0;x???  ");
}

TEST_F(live_view, is_text_on_a_terminal_that_cannot_be_drawn_on)
{
    const small_engine engine;
    for (const char* const name : {"dumb", "no-such-terminal", "''"}) {
        const terminal screen(folder(), "env TERM=" + std::string(name) + " " + watch("-i 0.2 -p peers"), 120, 30);
        expect_in(screen.screen_with("peers at "), "branch-1.example.net");
        screen.press({"C-c"});
        expect_in(screen.screen_with("status"), "status 0");
    }
}

TEST_F(live_view, is_text_in_a_pipe_and_once)
{
    const small_engine engine;
    const program_result once = run_kavstat({"watch", "--once", "-i", "0.1", "-p", "applications"});
    EXPECT_EQ(once.status, 0);
    EXPECT_EQ(once.out.substr(0, 16), "applications at ");
    expect_in(once.out, "\n  80                      1 branch-1.example.net           -           - e75.0%");
    for (const char letter : once.out) {
        EXPECT_TRUE(letter == '\n' || (letter >= ' ' && letter <= '~'));
    }
    child_program endless(built_program("kavstat"), {"watch", "-i", "0.1", "-p", "peers"});
    int heads = 0;
    for (int line = 0; line < 20; ++line) {
        heads += endless.read_line().value_or("").starts_with("peers at ") ? 1 : 0;
    }
    EXPECT_GE(heads, 3);
    endless.send_signal(SIGTERM);
    EXPECT_EQ(endless.finish().status, 0);
}

TEST_F(live_view, is_a_line_of_json_after_every_interval)
{
    const small_engine engine;
    child_program endless(built_program("kavstat"),
                          {"watch", "--json", "-i", "0.1", "-p", "peers", "--filter", "branch"});
    for (int line = 0; line < 3; ++line) {
        const nlohmann::json document = nlohmann::json::parse(endless.read_line().value_or(""));
        EXPECT_EQ(document["kavstat_watch"], 1);
        EXPECT_EQ(document["page"], "peers");
        EXPECT_EQ(document["engine_start_time"], once_upon_a_time);
        EXPECT_EQ(document["figures"]["cache_used_ratio"], 0.5);
        EXPECT_EQ(document["figures"]["encode_latency_seconds"], nullptr); // no messages
        ASSERT_EQ(document["rows"].size(), 1U);
        EXPECT_EQ(document["rows"][0]["peer"], 1);
        EXPECT_EQ(document["rows"][0]["host"], "branch-1.example.net");
        EXPECT_EQ(document["rows"][0]["before"], 0);
    }
    endless.send_signal(SIGTERM);
    EXPECT_EQ(endless.finish().status, 0);
}

TEST_F(live_view, of_a_file_is_shown_once_or_until_a_key)
{
    {
        const small_engine engine;
        ASSERT_EQ(run_viewer({"save-file", path("saved")}).status, 0);
    }
    const program_result text =
        run_kavstat({"watch", "--file", path("saved"), "-p", "connections", "--sort", "connection"});
    EXPECT_EQ(text.status, 0) << text.err;
    expect_in(text.out, "connections at ");
    expect_in(text.out, "  saved\n");
    expect_in(text.out, "\n          12      1 192.0.2.10:50000      198.51.100.20:80      open             - ");
    const program_result none = run_kavstat({"watch", "--file", path("none")});
    EXPECT_EQ(none.status, 3);
    EXPECT_EQ(none.err, "kavstat: " + path("none") + ": there is no such file\n");
    const terminal screen(folder(), watch("-i 0.1 --file " + path("saved")), 100, 24);
    expect_in(screen.screen_with("Cache, oldest 45d1h"), "kavstat 1/8 [overview]  20");
    screen.press({"3"});
    expect_in(screen.screen_with("SERVER"), "198.51.100.20:80");
    screen.press({"q"});
    expect_in(screen.screen_with("status"), "status 0");
}

TEST_F(live_view, names_the_columns_that_a_page_can_be_ordered_by)
{
    const program_result result = run_kavstat({"watch", "-p", "nacks", "--sort", "rate"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "kavstat: --sort: the page \"nacks\" has no column \"rate\", but time, peer, host, connection, "
              "direction, reason, sequence\n");
    EXPECT_EQ(run_kavstat({"watch", "--sort", "peer"}).err, "kavstat: --sort: the page \"overview\" has no columns\n");
}
