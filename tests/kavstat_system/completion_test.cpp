// Completion of kavstat's arguments in bash.
#include "kavstat_program.h"
#include "support/contains.h"

#include <sstream>

namespace {

class kavstat_completion : public system_test
{
protected:
    // Returns the words that are offered for the last argument, in order, separated by blanks.
    std::string offered(const std::vector<std::string>& words)
    {
        std::string line;
        for (const std::string& word : words) {
            line += " '" + word + "'";
        }
        const std::string script = "source " KAV_TEST_FILES "/../../packaging/completion/kavstat\n"
                                   "COMP_WORDS=(" +
                                   built_program("kavstat") + line + ")\nCOMP_CWORD=" + std::to_string(words.size()) +
                                   "\n_kavstat\nprintf '%s\\n' \"${COMPREPLY[@]}\" | sort\n";
        const program_result result = child_program("/bin/bash", {"-c", script}).finish();
        EXPECT_EQ(result.err, "");
        std::istringstream lines(result.out);
        std::string joined;
        for (std::string one; std::getline(lines, one);) {
            joined += (joined.empty() ? "" : " ") + one;
        }
        return joined;
    }
};

} // namespace

TEST_F(kavstat_completion, offers_commands_options_and_values)
{
    EXPECT_EQ(offered({"s"}), "schema serve");
    EXPECT_EQ(offered({"json", "--s"}), "--scope");
    EXPECT_EQ(offered({"json", "--scope", "n"}), "nacks");
    EXPECT_EQ(offered({"json", "--scope", "nacks,p"}), "nacks,peers");
    EXPECT_EQ(offered({"watch", "--page", ""}),
              "applications bypass configuration connections counters nacks overview peers");
    EXPECT_EQ(offered({"watch", "--page", "nacks", "--sort", "s"}), "sequence");
    EXPECT_EQ(offered({"list", "--unit", "micro"}), "microseconds");
    EXPECT_EQ(offered({"diff", "--a"}), "--all");
    EXPECT_EQ(offered({"diff", "--scope", "engine,p"}), "engine,peers");
    EXPECT_EQ(offered({"schema", "--of", ""}), "diff health statistics statistics-line watch");
    write_file(path("saved-1"), "");
    EXPECT_EQ(offered({"diff", path("sav")}), path("saved-1"));
    EXPECT_EQ(offered({"json", "--file", path("sav")}), path("saved-1"));
    EXPECT_EQ(offered({"health", "--since", path("sav")}), path("saved-1"));
    EXPECT_EQ(offered({"rules", "--rules", path("sav")}), path("saved-1"));
    EXPECT_EQ(offered({"record", path("sav")}), path("saved-1"));
    EXPECT_EQ(offered({"record", "--keep", "a"}), "all");
    EXPECT_EQ(offered({"export", "--table", "p"}), "peer");
    EXPECT_EQ(offered({"json", "--history", path("sav")}), path("saved-1"));
}

TEST_F(kavstat_completion, knows_every_command_and_option_that_there_is)
{
    std::istringstream help(run_kavstat({"--help"}).out);
    bool b_commands = false;
    int commands = 0;
    for (std::string line; std::getline(help, line);) {
        b_commands = b_commands || line == "Subcommands:";
        std::istringstream words(line);
        std::string command;
        if (!b_commands || !line.starts_with("  ") || line.starts_with("   ") || !(words >> command)) {
            continue;
        }
        ++commands;
        EXPECT_EQ(offered({command}), command);
        std::istringstream options(run_kavstat({command, "--help"}).out);
        for (std::string word; options >> word;) {
            const std::string option =
                word.substr(word.find("--") == std::string::npos ? word.size() : word.find("--"));
            if (option.size() > 2) {
                EXPECT_TRUE(contains((" " + offered({command, "--"}) + " "), " " + option + " "))
                    << command << " " << option;
            }
        }
    }
    EXPECT_EQ(commands, 12);
}
