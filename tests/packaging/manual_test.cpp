// The manual pages against the programs that they are about, and against the programs that display them.
#include "shell.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

const std::string source_folder = KAV_SOURCE_DIR;
const std::string page_folder = KAV_MAN_DIR;
const std::string program_folder = KAV_BIN_DIR;

std::string replace_all(const std::string& text, const char* pattern, const std::string& replacement)
{
    return std::regex_replace(text, std::regex(pattern), replacement);
}

std::vector<std::string> matches(const std::string& text, const char* pattern)
{
    const std::regex expression(pattern);
    std::vector<std::string> found;
    for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at) {
        found.push_back((*at)[at->size() - 1]);
    }
    return found;
}

// As a reader sees it, without bold type, on lines so long that hardly any word is parted.
std::string page_text(const std::string& page)
{
    const std::string text = output_of("mandoc -T utf8 -O width=1000 '" + page_folder + "/" + page + "'");
    return replace_all(text, ".\b", "");
}

// From a heading to the next one.
std::string section_of(const std::string& text, const std::string& heading)
{
    const std::size_t begin = text.find("\n" + heading + "\n");
    EXPECT_NE(begin, std::string::npos) << heading;
    if (begin == std::string::npos) {
        return {};
    }
    const std::size_t body = begin + heading.size() + 2;
    const std::string rest = text.substr(body);
    std::smatch next;
    return std::regex_search(rest, next, std::regex("\n[A-Z]"))
               ? rest.substr(0, static_cast<std::size_t>(next.position()))
               : rest;
}

std::string with_single_blanks(const std::string& text)
{
    return replace_all(text, "\\s+", " ");
}

// Whether the phrase stands in the text, not as a part of longer words.
bool holds_phrase(const std::string& text, const std::string& phrase)
{
    const auto is_part_of_word = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; };
    for (std::size_t at = text.find(phrase); at != std::string::npos; at = text.find(phrase, at + 1)) {
        const std::size_t end = at + phrase.size();
        const bool b_begins = at == 0 || !is_part_of_word(phrase.front()) || !is_part_of_word(text[at - 1]);
        const bool b_ends = end == text.size() || !is_part_of_word(phrase.back()) || !is_part_of_word(text[end]);
        if (b_begins && b_ends) {
            return true;
        }
    }
    return false;
}

// The fixed texts between a format's conversions, line breaks and punctuation: "Used: %.2f%%\n" gives "Used".
std::vector<std::string> labels_of(const std::string& literal)
{
    std::string text = replace_all(literal, R"(\\[nt])", "\n");
    text = replace_all(text, R"(%%|%[-+ #0]*[0-9*]*(\.[0-9*]+)?(hh|h|ll|l|z)?[a-zA-Z])", "\n");
    text = replace_all(text, "[,:=|]", "\n");
    std::vector<std::string> labels;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::string label = with_single_blanks(line);
        const std::size_t begin = label.find_first_not_of(" .;<>-([");
        const std::size_t end = label.find_last_not_of(" .;<>-(]");
        if (begin == std::string::npos || end < begin) {
            continue;
        }
        label = label.substr(begin, end - begin + 1);
        if (std::regex_search(label, std::regex("[A-Za-z]{2}"))) {
            labels.push_back(label);
        }
    }
    return labels;
}

// Every string literal of a source, comments and include lines apart.
std::vector<std::string> literals_of(const std::filesystem::path& source)
{
    std::vector<std::string> literals;
    std::istringstream lines(bytes_of_file(source));
    for (std::string line; std::getline(lines, line);) {
        if (!std::regex_search(line, std::regex("^ *(#include|//)"))) {
            for (const std::string& literal : matches(line, R"re("((?:[^"\\]|\\.)*)")re")) {
                literals.push_back(literal);
            }
        }
    }
    return literals;
}

// What no operator ever sees, or what the page tells in another way.
bool is_exempt(const std::string& literal)
{
    static const std::set<std::string> exempt = {
        "comp/TCP/cli/RE_exec_show_stats_kav",  // where debug traces say that they come from
        "comp/TCP/cli/RE_top_app_post_process", // where log messages say that they come from
        "parameter to top is NULL",             // the page has the word as a placeholder
        "parameter to from-file is NULL",       //
        "parameter to peer is NULL",            //
        "0123456789abcdef",                     // digits
        "B KBMBGB",                             // units, one by one
        " KB MB GB",                            //
        "TZif",                                 // the mark of a time zone's file
        "/dev/null",                            //
        " Id    No%55s%14s\\n",                 // the second half of two headings that the page has in one
    };
    return exempt.contains(literal) || literal.starts_with("argv[");
}

// The usage text has a test of its own; no report of the viewer prints the accounting of memory by module.
std::string without_exempt_functions(const std::string& text)
{
    return text.substr(
        0, std::min(text.find("\nvoid show_usage()"), text.find("\nlong long show_malloc_stat_for_module(")));
}

std::vector<std::string> pages()
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(source_folder + "/docs/man")) {
        if (entry.path().extension() == ".scd") {
            names.push_back(entry.path().stem());
        }
    }
    return names;
}

TEST(manual, every_label_that_the_viewer_prints_is_in_its_page)
{
    const std::string page = with_single_blanks(page_text("exec_show_stats_kav.8"));
    std::vector<std::filesystem::path> sources = {source_folder + "/comp/TCP/core/RE_auto_bypass.cpp"};
    for (const auto& entry : std::filesystem::directory_iterator(source_folder + "/comp/TCP/cli")) {
        if (entry.path().extension() == ".cpp") {
            sources.push_back(entry.path());
        }
    }
    std::size_t count = 0;
    for (const auto& source : sources) {
        const std::filesystem::path kept = testing::TempDir() + "kav_manual_test.cpp";
        std::ofstream(kept) << without_exempt_functions(bytes_of_file(source));
        for (const std::string& literal : literals_of(kept)) {
            if (is_exempt(literal)) {
                continue;
            }
            for (const std::string& label : labels_of(literal)) {
                EXPECT_TRUE(holds_phrase(page, label)) << source.filename() << " prints \"" << label << '"';
                ++count;
            }
        }
        std::filesystem::remove(kept);
    }
    EXPECT_GT(count, 400U); // else it is the looking for labels that has broken
}

TEST(manual, every_word_of_the_usage_text_is_in_the_viewers_page)
{
    const std::string usage = output_of(program_folder + "/exec_show_stats_kav");
    ASSERT_TRUE(usage.starts_with("Invalid args\nUsage:\n/sw/vantero/bin/exec_show_stats_kav ")) << usage;
    const std::string page = page_text("exec_show_stats_kav.8");
    EXPECT_TRUE(holds_phrase(page, "/sw/vantero/bin/exec_show_stats_kav"));

    std::string words = usage.substr(usage.find("[tech-support]"));
    words = replace_all(words, "<[^>]*>|(output|input)-filename| x", " "); // values
    const std::string commands = section_of(page, "COMMANDS");
    const std::vector<std::string> keywords = matches(words, "([a-z]+(?:-[a-z]+)*)");
    EXPECT_GT(keywords.size(), 30U);
    for (const std::string& keyword : keywords) {
        EXPECT_TRUE(holds_phrase(commands, keyword)) << keyword;
    }
}

TEST(manual, every_command_of_the_viewer_has_an_entry_of_its_own)
{
    const std::string source = bytes_of_file(source_folder + "/comp/TCP/cli/RE_exec_show_stats_kav.cpp");
    const std::string table = source.substr(source.find("constexpr command commands[]"), 800);
    std::vector<std::string> commands = matches(table.substr(0, table.find("};")), "\\{\"([a-z-]+)\", run_");
    EXPECT_EQ(commands.size(), 12U);
    commands.emplace_back("read-file");
    const std::string entries = section_of(page_text("exec_show_stats_kav.8"), "COMMANDS");
    for (const std::string& command : commands) {
        EXPECT_TRUE(std::regex_search(entries, std::regex("\n {5,7}" + command + "( [^\n]*)?\n {9,}"))) << command;
    }
}

TEST(manual, the_demo_engines_page_has_its_options_and_no_other)
{
    const std::string help = output_of(program_folder + "/kav_demo_engine --help");
    const std::vector<std::string> told = matches(help, "\n  (?:-h,)?(--[a-z-]+)");
    const std::vector<std::string> described =
        matches(section_of(page_text("kav_demo_engine.1"), "OPTIONS"), "(?:^|\n) {5,7}(?:-h, )?(--[a-z-]+)");
    EXPECT_GT(told.size(), 15U);
    EXPECT_EQ(std::set(told.begin(), told.end()), std::set(described.begin(), described.end()));
}

TEST(manual, every_error_code_is_in_the_page_of_the_file_format)
{
    const std::string codes = section_of(page_text("kav-statistics.5"), "ERROR CODES");
    const std::string header = bytes_of_file(source_folder + "/comp/TCP/core/RE_stat_error.h");
    const std::regex code("RE_STAT_ERR_([A-Z_]+) = (-[0-9]+)");
    int count = 0;
    for (std::sregex_iterator at(header.begin(), header.end(), code), end; at != end; ++at, ++count) {
        EXPECT_TRUE(holds_phrase(codes, (*at)[2].str() + " " + (*at)[1].str())) << (*at)[0];
    }
    EXPECT_GT(count, 20);
}

TEST(manual, every_page_is_displayed_without_a_warning)
{
    EXPECT_GE(pages().size(), 3U);
    for (const std::string& page : pages()) {
        // scdoc begins every section with a paragraph of its own, which is harmless.
        const std::string warnings = output_of("mandoc -T lint -W warning '" + page_folder + "/" + page +
                                               "' | grep -v 'skipping paragraph macro: PP'");
        EXPECT_EQ(warnings, "") << page;
        EXPECT_EQ(output_of("MANWIDTH=100 man -l --warnings '" + page_folder + "/" + page + "' >/dev/null"), "")
            << page;
        EXPECT_GT(page_text(page).size(), 2000U) << page;
    }
}

TEST(manual, every_page_is_spelt_right)
{
    const std::string words = testing::TempDir() + "kav_manual_test.words";
    std::ofstream(words) << "personal_ws-1.1 en 0 utf-8\n" << bytes_of_file(source_folder + "/docs/man/words.txt");
    for (const std::string& page : pages()) {
        const std::string text = testing::TempDir() + "kav_manual_test.text";
        std::ofstream(text) << page_text(page);
        // Words that are right but new go to docs/man/words.txt.
        EXPECT_EQ(output_of("aspell list -l en_GB --encoding=utf-8 --personal=" + words + " <" + text), "") << page;
        std::filesystem::remove(text);
    }
    std::filesystem::remove(words);
}

TEST(manual, a_word_that_is_wrong_is_found)
{
    EXPECT_EQ(output_of("echo 'a mispelt word' | aspell list -l en_GB"), "mispelt\n");
}

} // namespace
