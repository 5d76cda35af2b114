// Completion of command lines, as bash, zsh and fish perform it.
#include "shell.h"
#include "support/contains.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Returns the path of a program's completion.
std::string completion_of(const std::string& program)
{
    return KAV_BUILD_DIR "/completion/" + program;
}

// Returns the completions of the word at the end of the line, separated by blanks. As with readline, words also end at
// colons and equals signs.
std::string offered(const std::string& line, const std::string& program = "exec_show_stats_kav")
{
    const std::string driver = R"(
source ')" + completion_of(program) +
                               R"('
COMP_LINE=$1 COMP_POINT=${#1} COMP_WORDBREAKS=$' \t\n"\'><=;|&(:'
separated=${COMP_LINE//:/ : }
read -ra COMP_WORDS <<<"${separated//=/ = }"
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
        {"conn id 7 client-ip ", ""}, // no engine is running
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
    EXPECT_TRUE(contains(" " + offered("exec_show_stats_kav conn id ") + " ", " 1 "));
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

using words = std::set<std::string>;
using offers = std::map<std::string, words>;

// Collects lines of words, each group after a line "== " and the command line that they complete. Of words joined by
// commas, the last one is kept; of --option=word, the word.
offers groups_of(const std::string& text)
{
    offers found;
    std::string line;
    std::istringstream lines(text);
    for (std::string word; std::getline(lines, word);) {
        if (word.starts_with("== ")) {
            line = word.substr(3);
        } else if (!word.empty()) {
            word = word.substr(0, word.find('\t'));
            found[line].insert(word.substr(word.find_last_of(",=") + 1));
        }
    }
    return found;
}

std::string joined(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines) {
        text += line + '\n';
    }
    return text;
}

offers offered_by_bash(const std::vector<std::string>& lines)
{
    offers found;
    for (const std::string& line : lines) {
        std::istringstream completions(offered(line, line.substr(0, line.find(' '))));
        for (std::string word; completions >> word;) {
            found[line].insert(word.substr(word.rfind(',') + 1));
        }
    }
    return found;
}

offers offered_by_fish(const std::vector<std::string>& lines)
{
    const scratch_folder folder(disk());
    std::ofstream(folder.file("lines")) << joined(lines);
    return groups_of(output_of("cd '" + folder.path() + "' && export HOME=$PWD PATH='" KAV_BIN_DIR "':$PATH\n" +
                               R"(touch report.log && fish --no-config -c '
for file in )" KAV_BUILD_DIR R"(/completion/*.fish
    source $file
end
for line in (cat lines)
    echo "== $line"
    complete -C "$line"
end')"));
}

// An interactive zsh whose keys are the lines, each with a tab, and which notes what it would offer.
offers offered_by_zsh(const std::vector<std::string>& lines)
{
    const scratch_folder folder(disk());
    std::ofstream(folder.file("keys")) << joined(lines);
    std::ofstream(folder.file(".zshrc")) << R"(
fpath=()" KAV_BUILD_DIR R"(/completion $fpath)
LISTMAX=10000
autoload -Uz compinit
compinit -u -D
zle-line-init() { : >at_prompt }
zle -N zle-line-init
compadd() {
    if (( ${argv[(I)-[OAD]*]} )); then # asks for matches, does not offer them
        builtin compadd "$@"
        return
    fi
    local -a found
    builtin compadd -O found "$@"
    print -rl -- "== $BUFFER" $found >>offered
    builtin compadd "$@"
}
)";
    const std::string screen = output_of("cd '" + folder.path() +
                                         "' && export HOME=$PWD ZDOTDIR=$PWD TERM=dumb PATH='" KAV_BIN_DIR "':$PATH\n" +
                                         R"(touch report.log
wait_for() { for i in $(seq 600); do [ -e "$1" ] && return; sleep 0.1; done; }
{
    wait_for at_prompt
    while IFS= read -r line; do printf '%s\t\025' "$line"; done <keys
    printf 'exit\n'
    wait_for ended
} | script -qec 'stty cols 200 rows 500; zsh -i; touch ended' /dev/null)");
    offers found = groups_of(bytes_of_file(folder.file("offered")));
    EXPECT_FALSE(found.empty()) << screen;
    return found;
}

constexpr struct
{
    const char* name;
    offers (*offered)(const std::vector<std::string>& lines);
} shells[] = {{"bash", offered_by_bash}, {"zsh", offered_by_zsh}, {"fish", offered_by_fish}};

class shells_complete : public testing::TestWithParam<std::size_t>
{
protected:
    static offers offered(const std::vector<std::string>& lines) { return shells[GetParam()].offered(lines); }
};

TEST_P(shells_complete, as_in_this_table)
{
    const idle_engine engine({"--peers", "3"});
    const std::pair<std::string, words> cases[] = {
        {"kavstat me", {"metrics"}},
        {"kavstat json --fi", {"--file"}},
        {"kavstat json --file re", {"report.log"}},
        {"kavstat json --scope global,a", {"apps"}},
        {"kavstat health --since re", {"report.log"}},
        {"kavstat rules --rules re", {"report.log"}},
        {"kavstat diff re", {"report.log"}},
        {"kavstat diff --scope engine,p", {"peers"}},
        {"kavstat watch --page nacks --sort s", {"sequence"}},
        {"kavstat schema --of h", {"health"}},
        {"kavstat watch --page c", {"connections", "counters", "configuration"}},
        {"kavstat watch --page peers --sort enc", {"encode_in", "encode_out"}},
        {"kavstat list --unit by", {"bytes", "bytes_per_second"}},
        {"kavstat list --kind m", {"maximum", "minimum"}},
        {"kavstat list --scope e", {"engine"}},
        {"kavstat list total_cache_", {"total_cache_ram_size", "total_cache_size"}},
        {"kavstat diff --search total_cache_", {"total_cache_ram_size", "total_cache_size"}},
        {"kavstat list --kind=m", {"maximum", "minimum"}},
        {"kavstat export --table peer", {"peer", "peer_figures", "peer_identity"}},
        {"kavstat export --from ", {"-5m", "-1h", "-6h", "-1d", "-7d"}},
        {"kavstat json --history report.log --at n", {"now"}},
        {"kavstat report --to n", {"now"}},
        {"kavstat report --svg traffic --peer ", {"1", "2", "3"}},
        {"kavstat report --svg c", {"cache", "cache_age", "connections"}},
        {"kavstat record re", {"report.log"}},
        {"kavstat import re", {"report.log"}},
        {"kav_demo_engine --bypass", {"--bypass-threshold-mb", "--bypass-retry"}},
        {"kav_demo_engine --ill slow", {"slow-disk", "slow-encode", "slow-decode"}},
        {"kav_demo_engine --ill nacks,cache-f", {"cache-failed"}},
        {"kav_demo_engine re", {"report.log"}},
        {"exec_show_stats_kav glo", {"global-info", "global-detail"}},
        {"exec_show_stats_kav peer no ", {"1", "2", "3"}},
        {"exec_show_stats_kav peer detail n", {"no"}},
        {"exec_show_stats_kav conn last server-", {"server-ip", "server-port"}},
        {"exec_show_stats_kav conn peer-no ", {"1", "2", "3"}},
        {"exec_show_stats_kav top-app from-file re", {"report.log"}},
        {"exec_show_stats_kav read-file re", {"report.log"}},
        {"exec_show_stats_kav connection - - ser", {"server-ip"}},
        {"exec_show_stats_kav kav-bypass d", {"detail"}},
    };
    std::vector<std::string> lines;
    for (const auto& [line, completions] : cases) {
        lines.push_back(line);
    }
    offers found = offered(lines);
    for (const auto& [line, completions] : cases) {
        EXPECT_EQ(found[line], completions) << line;
    }
}

// The names are in the error for an unknown table.
TEST(completion, the_tables_of_a_database_are_offered)
{
    const idle_engine engine({"--peers", "3"});
    const scratch_folder folder(disk());
    const std::string error = output_of("export PATH='" KAV_BIN_DIR "':$PATH; cd '" + folder.path() +
                                        "' && kavstat record --once db && kavstat export --table unknown db 2>&1");
    std::istringstream names(std::regex_replace(error.substr(error.find("there are ") + 10), std::regex(","), ""));
    const words tables{std::istream_iterator<std::string>(names), {}};
    EXPECT_TRUE(tables.contains("top_app_log")) << error;
    EXPECT_EQ(offered_by_bash({"kavstat export --table "})["kavstat export --table "], tables);
}

// The commands and options that a help shows.
words words_of_help(const std::string& command, const char* pattern)
{
    const std::string help = output_of("'" KAV_BIN_DIR "'/" + command + " --help");
    const std::regex expression(pattern);
    words found;
    for (std::sregex_iterator at(help.begin(), help.end(), expression), end; at != end; ++at) {
        found.insert((*at)[1]);
    }
    return found;
}

TEST_P(shells_complete, every_option_and_command_of_the_help)
{
    const std::string help = output_of("'" KAV_BIN_DIR "'/kavstat --help");
    std::map<std::string, words> wanted;
    const std::string from_commands = help.substr(help.find("Subcommands:"));
    words& commands = wanted["kavstat "];
    std::istringstream lines(from_commands.substr(0, from_commands.find("\n\n")));
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("  ")) {
            commands.insert(line.substr(2, line.find(' ', 2) - 2));
        }
    }
    EXPECT_GE(commands.size(), 9U) << help;
    std::vector<std::string> programs = {"kav_demo_engine"};
    for (const std::string& command : commands) {
        programs.push_back("kavstat " + command);
    }
    for (const std::string& program : programs) {
        words& options = wanted[program + " --"];
        options = words_of_help(program, "\n  (?:-[A-Za-z],)?(--[a-z][a-z_.-]*)");
        EXPECT_TRUE(options.contains("--help")) << program;
    }
    std::vector<std::string> command_lines;
    for (const auto& [line, completions] : wanted) {
        command_lines.push_back(line);
    }
    offers found = offered(command_lines);
    for (auto& [line, completions] : wanted) {
        if (line == "kavstat ") { // some shells offer its two options as well
            found[line].erase("--help");
            found[line].erase("--version");
        }
        EXPECT_EQ(found[line], completions) << line;
    }
}

INSTANTIATE_TEST_SUITE_P(each, shells_complete, testing::Range(std::size_t{0}, std::size(shells)),
                         [](const auto& index) { return std::string(shells[index.param].name); });

TEST(completion, numbers_that_only_the_user_knows_are_not_offered)
{
    EXPECT_EQ(offered("kav_demo_engine --message-size x", "kav_demo_engine"), "");
}

} // namespace
