// Reports on a terminal, where names that come from peers must not act.
#include "RE_stat_writer.h"
#include "support/contains.h"
#include "support/system_test.h"

#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <cstring>
#include <thread>

namespace {

constexpr char hostile_name[] = "a\x1b]0;root\x07\x9b"
                                "2J\xc2\x9b"
                                "b\ttab\nline\u00e9";
constexpr char shown_name[] = "a?]0;root??2J\xc2?b\ttab\nline\u00e9";

class on_a_terminal : public system_test
{
protected:
    on_a_terminal()
    {
        EXPECT_EQ(m_engine.create({}, 1), 0);
        RE_stat_peer_header peer{};
        std::memcpy(peer.m_peer_host_name, hostile_name, sizeof hostile_name);
        m_engine.add_peer(1, peer);
        m_engine.publish();
    }

    // What arrives at the other end of a terminal that changes nothing itself.
    static std::string shown(const std::vector<std::string>& arguments, int& status)
    {
        termios raw{};
        cfmakeraw(&raw);
        int master = -1;
        int terminal = -1;
        EXPECT_EQ(openpty(&master, &terminal, nullptr, &raw, nullptr), 0);
        std::string text;
        std::thread reader([&] {
            char bytes[4096];
            for (ssize_t count = 0; (count = read(master, bytes, sizeof bytes)) > 0;) {
                text.append(bytes, static_cast<std::size_t>(count));
            }
        });
        run_surroundings surroundings;
        surroundings.output = terminal;
        child_program viewer(built_program("exec_show_stats_kav"), arguments, surroundings);
        status = viewer.finish().status;
        close(terminal);
        reader.join();
        close(master);
        return text;
    }

    static std::string with_shown_name(std::string report)
    {
        const std::size_t at = report.find(hostile_name);
        EXPECT_NE(at, std::string::npos);
        return report.replace(at, sizeof hostile_name - 1, shown_name);
    }

private:
    RE_stat_writer m_engine;
};

} // namespace

TEST_F(on_a_terminal, control_characters_are_question_marks_and_nothing_else_changes)
{
    const program_result in_a_pipe = run_viewer({"peer"});
    EXPECT_TRUE(contains(in_a_pipe.out, hostile_name)) << "as the peer gave it";
    int status = -1;
    EXPECT_EQ(shown({"peer"}, status), with_shown_name(in_a_pipe.out));
    EXPECT_EQ(status, 0);
}

TEST_F(on_a_terminal, words_of_the_command_line_do_not_act_either)
{
    int status = -1;
    EXPECT_EQ(shown({"peer", "\x1b[2J"}, status).substr(0, 28), "Invalid peer argument: ?[2J\n");
    EXPECT_EQ(status, 1);
}
