// Reports on a terminal, which names from peers must not control.
#include "RE_stat_writer.h"
#include "support/contains.h"
#include "support/system_test.h"
#include "support/terminal.h"

#include <cstring>

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

    static program_result run_on_this(const std::vector<std::string>& arguments)
    {
        return run_on_terminal(built_program("exec_show_stats_kav"), arguments);
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
    const program_result on_this = run_on_this({"peer"});
    EXPECT_EQ(on_this.out, with_shown_name(in_a_pipe.out));
    EXPECT_EQ(on_this.status, 0);
}

TEST_F(on_a_terminal, words_of_the_command_line_do_not_act_either)
{
    const program_result on_this = run_on_this({"peer", "\x1b[2J"});
    EXPECT_EQ(on_this.out.substr(0, 28), "Invalid peer argument: ?[2J\n");
    EXPECT_EQ(on_this.status, 1);
}
