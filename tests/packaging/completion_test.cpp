// Completion of the viewer's command line, as bash itself performs it.
#include "shell.h"
#include "support/contains.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>

namespace {

const std::string completion = KAV_SOURCE_DIR "/packaging/completion/exec_show_stats_kav";

// What is offered for the word at the end of the line, separated by blanks. The line is handed over as readline does
// it, with words that end at colons as well.
std::string offered(const std::string& line)
{
    static const std::string driver = R"(
source ')" + completion + R"('
COMP_LINE=$1 COMP_POINT=${#1} COMP_WORDBREAKS=$' \t\n"\'><=;|&(:'
read -ra COMP_WORDS <<<"${COMP_LINE//:/ : }"
[[ $COMP_LINE == *' ' ]] && COMP_WORDS+=('')
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
PATH=)" KAV_BIN_DIR R"(:$PATH
_exec_show_stats_kav
echo "${COMPREPLY[*]}")";
    const scratch_folder folder(disk());
    std::ofstream(folder.file("driver")) << driver;
    const std::string text =
        output_of("cd '" + folder.path() + "' && touch report.log 'two words' && bash driver '" + line + "'");
    return text.substr(0, text.find_last_not_of('\n') + 1);
}

TEST(completion, the_first_word_is_a_command)
{
    EXPECT_EQ(offered("exec_show_stats_kav "),
              "read-file save-file tech-support top-app nack global-info global-detail "
              "peer connection conn config brief-config kav-bypass");
    EXPECT_EQ(offered("exec_show_stats_kav glo"), "global-info global-detail");
    EXPECT_EQ(offered("exec_show_stats_kav conn"), "connection conn");
    EXPECT_EQ(offered("exec_show_stats_kav x"), "");
}

// The order is part of the viewer's grammar, and completion recognises words by the same rule.
TEST(completion, commands_are_the_viewers_in_its_order)
{
    const std::string source = bytes_of_file(KAV_SOURCE_DIR "/comp/TCP/cli/RE_exec_show_stats_kav.cpp");
    const std::size_t begin = source.find("constexpr command commands[]");
    ASSERT_NE(begin, std::string::npos);
    const std::string table = source.substr(begin, source.find("};", begin) - begin);
    std::string words = "read-file"; // which the viewer looks for first
    const std::regex word("\\{\"([a-z-]+)\",");
    for (std::sregex_iterator at(table.begin(), table.end(), word), end; at != end; ++at) {
        words += " " + (*at)[1].str();
    }
    EXPECT_EQ(offered("exec_show_stats_kav "), words);
}

TEST(completion, commands_that_stand_alone_take_nothing)
{
    for (const char* command : {"global-info", "global-detail", "nack", "config", "brief-config", "tech-support"}) {
        EXPECT_EQ(offered("exec_show_stats_kav " + std::string(command) + " "), "") << command;
    }
}

TEST(completion, files_are_offered_where_a_file_belongs)
{
    EXPECT_EQ(offered("exec_show_stats_kav read-file re"), "report.log");
    EXPECT_EQ(offered("exec_show_stats_kav save-file re"), "report.log");
    EXPECT_EQ(offered("exec_show_stats_kav read-file report.log re"), "");
    EXPECT_EQ(offered("exec_show_stats_kav top-app top 5 from-file re"), "report.log");
    EXPECT_EQ(offered("exec_show_stats_kav top-app re"), "");
}

TEST(completion, the_words_of_peer_come_in_any_order_and_once)
{
    EXPECT_EQ(offered("exec_show_stats_kav peer "), "mac-id no ctx-id ip detail nack");
    EXPECT_EQ(offered("exec_show_stats_kav peer no 3 "), "mac-id ctx-id ip detail nack");
    EXPECT_EQ(offered("exec_show_stats_kav peer detail "), "mac-id no ctx-id ip");
    EXPECT_EQ(offered("exec_show_stats_kav peer nack i"), "ip");
}

TEST(completion, a_value_that_looks_like_a_keyword_is_a_value)
{
    EXPECT_EQ(offered("exec_show_stats_kav peer no detail "), "mac-id ctx-id ip detail nack");
    EXPECT_EQ(offered("exec_show_stats_kav top-app from-file peer "), "detail top peer");
}

TEST(completion, the_words_of_conn_come_in_any_order_and_once)
{
    EXPECT_EQ(offered("exec_show_stats_kav conn "),
              "client-ip id peer-no server-ip client-port server-port detail nack active last");
    EXPECT_EQ(offered("exec_show_stats_kav conn server-port 80 last ser"), "server-ip");
    EXPECT_EQ(offered("exec_show_stats_kav conn server-port "), "");
    EXPECT_EQ(offered("exec_show_stats_kav conn id 7 client-ip "), "");
}

TEST(completion, the_words_of_connection_have_their_places)
{
    EXPECT_EQ(offered("exec_show_stats_kav connection "), "client-ip id -");
    EXPECT_EQ(offered("exec_show_stats_kav connection - "), "-");
    EXPECT_EQ(offered("exec_show_stats_kav connection client-ip "), "");
    EXPECT_EQ(offered("exec_show_stats_kav connection client-ip c0000201 "), "server-ip -");
    EXPECT_EQ(offered("exec_show_stats_kav connection - - - - "), "client-port -");
    EXPECT_EQ(offered("exec_show_stats_kav connection - - - - - - "), "server-port -");
    EXPECT_EQ(offered("exec_show_stats_kav connection - - - - - - server-port 50 "), "detail nack -");
    EXPECT_EQ(offered("exec_show_stats_kav connection - - - - - - - - - "), "active -");
    EXPECT_EQ(offered("exec_show_stats_kav connection - - - - - - - - - - "), "last -");
    EXPECT_EQ(offered("exec_show_stats_kav connection - - - - - - - - - - - "), "peer-no");
    EXPECT_EQ(offered("exec_show_stats_kav connection - - - - - - - - - - - - - "), "");
}

TEST(completion, words_are_recognised_by_their_beginning_as_the_viewer_does)
{
    EXPECT_EQ(offered("exec_show_stats_kav peers none 3 "), "mac-id ctx-id ip detail nack");
    EXPECT_EQ(offered("exec_show_stats_kav connections "), "client-ip id -");
    EXPECT_EQ(offered("exec_show_stats_kav kav-bypass "), "detail");
    EXPECT_EQ(offered("exec_show_stats_kav kav-bypass detail "), "");
}

TEST(completion, a_running_engines_peers_are_offered)
{
    const idle_engine engine({"--peers", "3"});
    EXPECT_EQ(offered("exec_show_stats_kav peer no "), "1 2 3");
    EXPECT_EQ(offered("exec_show_stats_kav conn peer-no "), "1 2 3");
    EXPECT_EQ(offered("exec_show_stats_kav peer mac-id "), "02:4b:41:56:00:01 02:4b:41:56:00:02 02:4b:41:56:00:03");
    EXPECT_EQ(offered("exec_show_stats_kav peer mac-id 02:4b:41:56:00:"), "01 02 03"); // bash has the rest already
    EXPECT_EQ(offered("exec_show_stats_kav peer ip 203"), "203.0.113.1 203.0.113.2 203.0.113.3");
    EXPECT_EQ(offered("exec_show_stats_kav connection - - - - - - - - - - - peer-no "), "1 2 3");
    EXPECT_TRUE(offered("exec_show_stats_kav top-app peer ").starts_with("02:4b:41:56:00:01-"));
}

TEST(completion, nothing_is_offered_for_peers_without_an_engine)
{
    EXPECT_EQ(offered("KAV_STAT_SEGMENT= exec_show_stats_kav peer no "), "");
}

// Keys typed into an interactive bash, with a program of the viewer's name that tells its arguments.
TEST(completion, keys_typed_at_a_prompt_complete_the_line)
{
    const scratch_folder folder(disk());
    std::ofstream(folder.file("exec_show_stats_kav")) << "#!/bin/sh\necho \"<$*>\"\n";
    std::ofstream(folder.file("rc")) << "PATH='" << folder.path() << "':$PATH\nPS1='> '\nsource '" << completion
                                     << "'\n";
    std::ofstream(folder.file("keys")) << "exec_show_stats_kav tec\t\n"
                                          "exec_show_stats_kav conn server-p\t80 la\t\n"
                                          "exec_show_stats_kav top-app det\t\nexit\n";
    const std::string session =
        output_of("cd '" + folder.path() + "' && chmod +x exec_show_stats_kav && " +
                  "{ sleep 0.5; while IFS= read -r line; do printf '%s\\n' \"$line\"; sleep 0.3; done <keys; } | " +
                  "TERM=dumb script -qec 'bash --noprofile --rcfile rc -i' /dev/null");
    EXPECT_TRUE(contains(session, "<tech-support>")) << session;
    EXPECT_TRUE(contains(session, "<conn server-port 80 last>")) << session;
    EXPECT_TRUE(contains(session, "<top-app detail>")) << session;
}

} // namespace
