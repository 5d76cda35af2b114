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
    static void expect_in(const std::string& screen, const std::string& text)
    {
        EXPECT_TRUE(contains(screen, text)) << "no \"" << text << "\" in\n" << screen;
    }
};

} // namespace

TEST_F(live_view, shows_pages_filters_helps_and_ends)
{
    const small_engine engine;
    const terminal screen(folder(), watch("-i 0.2"), 120, 30);
    expect_in(screen.screen_with("COUNTER"), "kavstat  1[engine] 2 peers  3 connections  4 applications");
    expect_in(screen.screen(), "Cache active, 1.0 GB of 2.0 GB in use; 2 peers, 2 applications, 4 connections in all");
    screen.press({"2"});
    expect_in(screen.screen_with("PEER HOST"), "      1 branch-1.example.net      2 ");
    screen.press({"/", "4", "4", ":", "6", "6", "Enter"});
    const std::string filtered = screen.screen_with("filter: 44:66");
    expect_in(filtered, "00:11:22:33:44:66");
    EXPECT_FALSE(contains(filtered, "branch-1")) << filtered;
    screen.press({"Escape"});
    expect_in(screen.screen_without("filter"), "branch-1");
    screen.press({"3"});
    expect_in(screen.screen_with("CLIENT"), "        12       1 192.0.2.10:50000      198.51.100.20:80      open ");
    screen.press({"Tab"});
    expect_in(screen.screen_with("APPLICATION "), "\n445 ");
    screen.press({"?"});
    expect_in(screen.screen_with("kavstat watch: keys"), "q           quit");
    screen.press({"x"});
    screen.screen_without("keys");
    screen.press({"q"});
    expect_in(screen.screen_with("status"), "status 0");
}

TEST_F(live_view, moves_with_the_engine)
{
    small_engine engine;
    const terminal screen(folder(), watch("-i 0.2"), 120, 30);
    screen.screen_with("COUNTER");
    for (int round = 0; round < 100 && screen.screen().find("encode_in_bytes") == std::string::npos; ++round) {
        engine.writer().add_conn_stat(engine.encoding_conn(), RE_STAT_CONN_ID_ENCODE_IN_BYTES, 100000);
    }
    expect_in(screen.screen(), "encode_in_bytes");
    expect_in(screen.screen(), "█");
}

TEST_F(live_view, survives_every_size_of_window)
{
    const small_engine engine;
    const terminal screen(folder(), watch("-i 0.1"), 80, 24);
    screen.screen_with("COUNTER");
    for (const auto& [width, height] : {std::pair(1, 1), {2, 50}, {300, 1}, {500, 200}, {7, 3}, {1, 1}}) {
        screen.resize(width, height);
        for (const char* const page : {"1", "2", "3", "4", "?", "x"}) {
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
        expect_in(screen.screen_with("Cache active"), "2 peers");
    }
    expect_in(screen.screen_with("No figures"), "no engine is running");
    {
        demo_engine engine({"--rate", "1"});
        ASSERT_TRUE(engine.says("ready"));
        expect_in(screen.screen_with("4 peers"), "4 peers");
        engine.send_signal(SIGKILL);
        engine.finish();
        expect_in(screen.screen_with("No figures"), "the engine is no longer running");
    }
    screen.press({"q"});
    expect_in(screen.screen_with("status"), "status 0");
}

TEST_F(live_view, gives_the_terminal_back_after_signals)
{
    const small_engine engine;
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        const terminal screen(folder(), "sh -c 'echo $$ >" + path("pid") + "; exec " + watch() + "'", 80, 24);
        expect_in(screen.screen_with("COUNTER"), "COUNTER");
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
    expect_in(once.out, "\n80                           1           -           -           -        0  976.0 KB"
                        "       0 B        2  75.0%\n");
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
