// Completion of command lines, mainly of the viewer, as bash performs it.
#include "shell.h"
#include "support/contains.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

namespace {

// Returns the path of a program's completion.
std::string completion_of(const std::string& program)
{
    return KAV_SOURCE_DIR "/packaging/completion/" + program;
}

// Returns the completions of the word at the end of the line, separated by blanks. As with readline, words also end at
// colons.
std::string offered(const std::string& line, const std::string& program = "exec_show_stats_kav")
{
    const std::string driver = R"(
source ')" + completion_of(program) +
                               R"('
COMP_LINE=$1 COMP_POINT=${#1} COMP_WORDBREAKS=$' \t\n"\'><=;|&(:'
read -ra COMP_WORDS <<<"${COMP_LINE//:/ : }"
[[ $COMP_LINE == *' ' ]] && COMP_WORDS+=('')
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
PATH=)" KAV_BIN_DIR R"(:$PATH
_)" + program + R"(
echo "${COMPREPLY[*]}")";
    const scratch_folder folder(disk());
    std::ofstream(folder.file("driver")) << driver;
    const std::string text =
        output_of("cd '" + folder.path() + "' && touch report.log 'two words' && bash driver '" + line + "'");
    return text.substr(0, text.find_last_not_of('\n') + 1);
}

TEST(completion, offers_as_in_this_table)
{
    const std::pair<std::string, std::string> cases[] = {
        // The first word is a command.
        {"glo", "global-info global-detail"},
        {"conn", "connection conn"},
        {"x", ""},
        // File names are completed where a file is expected.
        {"read-file re", "report.log"},
        {"save-file re", "report.log"},
        {"read-file report.log re", ""},
        {"top-app top 5 from-file re", "report.log"},
        {"top-app re", ""},
        // The words of peer may be in any order and are offered once.
        {"peer ", "mac-id no ctx-id ip detail nack"},
        {"peer no 3 ", "mac-id ctx-id ip detail nack"},
        {"peer detail ", "mac-id no ctx-id ip"},
        {"peer nack i", "ip"},
        // A value that looks like a keyword is a value.
        {"peer no detail ", "mac-id ctx-id ip detail nack"},
        {"top-app from-file peer ", "detail top peer"},
        // The words of conn may be in any order and are offered once.
        {"conn ", "client-ip id peer-no server-ip client-port server-port detail nack active last"},
        {"conn server-port 80 last ser", "server-ip"},
        {"conn server-port ", ""},
        {"conn id 7 client-ip ", ""},
        // The words of connection have fixed positions.
        {"connection ", "client-ip id -"},
        {"connection - ", "-"},
        {"connection client-ip ", ""},
        {"connection client-ip c0000201 ", "server-ip -"},
        {"connection - - - - ", "client-port -"},
        {"connection - - - - - - ", "server-port -"},
        {"connection - - - - - - server-port 50 ", "detail nack -"},
        {"connection - - - - - - - - - ", "active -"},
        {"connection - - - - - - - - - - ", "last -"},
        {"connection - - - - - - - - - - - ", "peer-no"},
        {"connection - - - - - - - - - - - - - ", ""},
        // As in the viewer, words match if they start with a keyword.
        {"peers none 3 ", "mac-id ctx-id ip detail nack"},
        {"connections ", "client-ip id -"},
        {"kav-bypass ", "detail"},
        {"kav-bypass detail ", ""},
    };
    for (const auto& [words, completions] : cases) {
        EXPECT_EQ(offered("exec_show_stats_kav " + words), completions) << words;
    }
}

// The order is part of the viewer's grammar, and completion matches words by the same rule.
TEST(completion, commands_are_the_viewers_in_its_order)
{
    std::string words;
    for (const std::string& command : viewer_commands()) {
        words += (words.empty() ? "" : " ") + command;
    }
    EXPECT_EQ(offered("exec_show_stats_kav "), words);
}

TEST(completion, commands_that_stand_alone_take_nothing)
{
    for (const char* command : {"global-info", "global-detail", "nack", "config", "brief-config", "tech-support"}) {
        EXPECT_EQ(offered("exec_show_stats_kav " + std::string(command) + " "), "") << command;
    }
}

TEST(completion, a_running_engines_peers_are_offered)
{
    const idle_engine engine({"--peers", "3"});
    EXPECT_EQ(offered("exec_show_stats_kav peer no "), "1 2 3");
    EXPECT_EQ(offered("exec_show_stats_kav conn peer-no "), "1 2 3");
    EXPECT_EQ(offered("exec_show_stats_kav peer mac-id "), "02:4b:41:56:00:01 02:4b:41:56:00:02 02:4b:41:56:00:03");
    EXPECT_EQ(offered("exec_show_stats_kav peer mac-id 02:4b:41:56:00:"), "01 02 03"); // bash already has the rest
    EXPECT_EQ(offered("exec_show_stats_kav peer ip 203"), "203.0.113.1 203.0.113.2 203.0.113.3");
    EXPECT_EQ(offered("exec_show_stats_kav connection - - - - - - - - - - - peer-no "), "1 2 3");
    EXPECT_TRUE(offered("exec_show_stats_kav top-app peer ").starts_with("02:4b:41:56:00:01-"));
}

TEST(completion, nothing_is_offered_for_peers_without_an_engine)
{
    EXPECT_EQ(offered("KAV_STAT_SEGMENT= exec_show_stats_kav peer no "), "");
}

// Types keys into an interactive bash, with a program in place of the viewer that prints its arguments.
TEST(completion, keys_typed_at_a_prompt_complete_the_line)
{
    const scratch_folder folder(disk());
    std::ofstream(folder.file("exec_show_stats_kav")) << "#!/bin/sh\necho \"<$*>\"\n";
    std::ofstream(folder.file("rc")) << "PATH='" << folder.path() << "':$PATH\nPS1='> '\nsource '"
                                     << completion_of("exec_show_stats_kav") << "'\n";
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

TEST(completion, the_demo_engine_offers_its_options_and_illnesses)
{
    EXPECT_EQ(offered("kav_demo_engine --bypass", "kav_demo_engine"), "--bypass-threshold-mb --bypass-retry");
    EXPECT_EQ(offered("kav_demo_engine --ill slow", "kav_demo_engine"), "slow-disk slow-encode slow-decode");
    EXPECT_EQ(offered("kav_demo_engine --ill nacks,cache-f", "kav_demo_engine"), "nacks,cache-failed");
    EXPECT_EQ(offered("kav_demo_engine --peers ", "kav_demo_engine"), "");
    EXPECT_EQ(offered("kav_demo_engine re", "kav_demo_engine"), "report.log");
}

} // namespace
