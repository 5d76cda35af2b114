// Runs every command in the documents and checks that it does what the documents say.
#include "shell.h"
#include "support/contains.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Returns the commands of a document: the lines of its code blocks without a language, and the text between backquotes
// in the first column of a table.
std::vector<std::string> commands_of(const std::string& document)
{
    std::vector<std::string> commands;
    bool b_in_block = false;
    bool b_commands = false; // the block has no language
    std::istringstream lines(document);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("```")) {
            b_in_block = !b_in_block;
            b_commands = b_in_block && line == "```";
            continue;
        }
        std::smatch cell;
        const bool b_cell = std::regex_search(line, cell, std::regex("^\\| (`.*`) \\|"));
        const std::string text = b_cell ? cell[1].str() : b_commands ? "`" + line + "`" : "";
        const std::regex command("`((?:exec_show_stats_kav|kav_demo_engine|watch|script/|cmake|apt-get) ?[^`#]*)");
        for (std::sregex_iterator at(text.begin(), text.end(), command), end; at != end; ++at) {
            std::string found = (*at)[1];
            found.erase(found.find_last_not_of(' ') + 1);
            commands.push_back(found);
        }
    }
    return commands;
}

// Whether script/check-package runs the command, in its own Debian root.
bool is_run_elsewhere(const std::string& command)
{
    return command.starts_with("script/") || command.starts_with("apt-get install ./");
}

// Returns the command with this test's files. A program that never ends gets a time limit.
std::string runnable(std::string command, const std::string& folder)
{
    const auto replace = [&command](const char* pattern, const std::string& by) {
        command = std::regex_replace(command, std::regex(pattern), by);
    };
    replace("^watch ", "");
    replace("(/tmp|/var/log)/", folder + "/");
    replace("build/release", KAV_BUILD_DIR);
    replace("/sw/vantero", folder + "/sw/vantero");
    if (command.starts_with("kav_demo_engine")) {
        command = "KAV_STAT_SEGMENT=kav_documents.$$ " + command + " --duration 0.3";
    }
    return "export PATH='" KAV_BIN_DIR "':$PATH\ncd '" KAV_SOURCE_DIR "' && " + command;
}

class documents : public testing::TestWithParam<const char*>
{
};

TEST_P(documents, every_command_runs)
{
    const scratch_folder folder(disk());
    const idle_engine engine({"--peers", "2", "--top-app-log", folder.file("top_app.log")});
    const std::vector<std::string> commands =
        commands_of(bytes_of_file(KAV_SOURCE_DIR + std::string("/") + GetParam()));
    EXPECT_GE(commands.size(), 2U);
    for (const std::string& command : commands) {
        if (is_run_elsewhere(command)) {
            // A program that is run elsewhere must at least exist.
            const std::string program = command.substr(0, command.find_first_of(" ["));
            EXPECT_TRUE(program == "apt-get" || std::filesystem::exists(KAV_SOURCE_DIR + std::string("/") + program))
                << command;
            continue;
        }
        int status = 0;
        const std::string output = output_of(runnable(command, folder.path()), &status);
        EXPECT_EQ(status, 0) << command << '\n' << output;
        // Saving a file, and a filter that no connection passes, correctly print nothing.
        if (!std::regex_search(command, std::regex("save-file|conn "))) {
            EXPECT_GT(output.size(), 0U) << command;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(each, documents,
                         testing::Values("README.md", "CONTRIBUTING.md", "docs/man/exec_show_stats_kav.8.scd",
                                         "docs/man/kav_demo_engine.1.scd"));

// Returns the words at the start of the first column of a table, in which bars inside a cell are escaped.
std::set<std::string> words_of_first_column(const std::string& table)
{
    const std::regex column("^\\| ((?:[^|\\\\]|\\\\\\|)*) \\|");
    const std::regex word("`([a-z]+(?:-[a-z]+)*)[^`]*`");
    std::set<std::string> words;
    std::istringstream rows(table);
    for (std::string row; std::getline(rows, row);) {
        std::smatch first;
        if (std::regex_search(row, first, column)) {
            const std::string cells = first[1];
            for (std::sregex_iterator at(cells.begin(), cells.end(), word), end; at != end; ++at) {
                words.insert((*at)[1]);
            }
        }
    }
    return words;
}

TEST(readme, every_command_of_its_table_of_reports_prints_one)
{
    const scratch_folder folder(disk());
    const idle_engine engine({"--peers", "2"});
    std::string table = bytes_of_file(KAV_SOURCE_DIR "/README.md");
    table = table.substr(table.find("| command | report |"));
    table = table.substr(0, table.find("\n\n"));
    std::set<std::string> commands = words_of_first_column(table);
    const std::vector<std::string> all = viewer_commands();
    EXPECT_EQ(commands, std::set<std::string>(all.begin(), all.end()));
    EXPECT_EQ(commands.erase("save-file"), 1U); // a file is saved before it is read
    int status = 0;
    const std::string saved = folder.file("saved");
    EXPECT_EQ(output_of("'" KAV_BIN_DIR "/exec_show_stats_kav' save-file '" + saved + "'", &status), "");
    EXPECT_EQ(status, 0);
    for (const std::string& command : commands) {
        const std::string argument = command == "read-file" ? " '" + saved + "'" : "";
        EXPECT_GT(output_of("'" KAV_BIN_DIR "/exec_show_stats_kav' " + command + argument, &status).size(), 20U)
            << command;
        EXPECT_EQ(status, 0) << command;
    }
}

TEST(readme, every_file_that_it_links_is_there)
{
    for (const char* document : {"README.md", "CONTRIBUTING.md", "docs/architecture.md", "docs/reliability.md"}) {
        const std::filesystem::path path = KAV_SOURCE_DIR + std::string("/") + document;
        const std::string text = bytes_of_file(path);
        const std::regex link("\\]\\(([^)#:]+)\\)");
        for (std::sregex_iterator at(text.begin(), text.end(), link), end; at != end; ++at) {
            EXPECT_TRUE(std::filesystem::exists(path.parent_path() / (*at)[1].str())) << document << ": " << (*at)[1];
        }
    }
}

} // namespace
