// Compares the manual pages with the programs that they describe, and displays them with the usual programs.
#include "shell.h"
#include "support/contains.h"
#include "support/small_engine_reports.h"

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

// Returns the page as a reader sees it, without bold type, in lines so long that hardly any word is hyphenated.
std::string page_text(const std::string& page)
{
    const std::string text = output_of("mandoc -T utf8 -O width=1000 '" + page_folder + "/" + page + "'");
    return replace_all(text, ".\b", "");
}

// Returns the text from a heading to the next one.
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

// Whether the text contains the phrase, not as a part of longer words.
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

// Whether a word of a report is a figure: it starts with a digit and is not the name of a size class or a version.
bool is_figure(const std::string& word)
{
    static const std::set<std::string> names = {"0-1K", "1K-5K", "5K-15K", "15K-25K", "25K-40K", "4.4.1"};
    const std::size_t begin = word.find_first_not_of("(");
    return begin != std::string::npos && std::isdigit(static_cast<unsigned char>(word[begin])) != 0 &&
           !names.contains(word);
}

// Returns the phrases between a report's figures, units, line breaks and punctuation: "Used:  50.00%\n" gives "Used".
std::vector<std::string> labels_of(const std::string& report)
{
    static const std::regex unit("(B|KB|MB|B/s|KB/s|%)");
    std::vector<std::string> labels;
    std::istringstream phrases(replace_all(report, "[,:=|](\\s|$)|[=|]", "\n"));
    for (std::string phrase; std::getline(phrases, phrase);) {
        std::istringstream words(phrase + " 0"); // a figure ends the last label
        std::string label;
        bool b_after_figure = false;
        for (std::string word; words >> word;) {
            const bool b_unit = b_after_figure && std::regex_match(word, unit);
            b_after_figure = is_figure(word);
            if (!b_after_figure && !b_unit) {
                label += word + " ";
                continue;
            }
            const std::size_t begin = label.find_first_not_of(" .;<>-([");
            if (std::regex_search(label, std::regex("[A-Za-z]{2}"))) {
                labels.push_back(label.substr(begin, label.find_last_not_of(" .;<>-(]") + 1 - begin));
            }
            label.clear();
        }
    }
    return labels;
}

// Returns every kind of line in reports on the small engine. Each word of a table's heading is a label.
std::string golden_reports()
{
    return global_detail + peer_detail + replace_all(nack_head + conn_head + bypass_entries, "\\s+", "\n") +
           conn_12_info + config_heading + config_detail + bypass_summary + "\n" + web_entry + app_totals + app_table;
}

// Texts of other engines and files: states, kinds and reasons, lines that appear only with a figure, and messages.
const std::string other_texts = R"(
Status: Initializing, Not Usable, Temporarily Failed, Failed, Unknown
Comp-Type: INVALID, KAV-ONLY, LZ-ONLY, None
PLZ enabled: Yes
Closed, Close at, Duration, secs, unknown (system clock has been changed)
Classifier, Application
Nack, R-Tx, Checksum collision, Chunk missed, Disk overloaded, Cache is not ready
out of sync cache, cache initialization, remote cache initialization, peer info stored locally is incorrect
remote cache not compatible, exceed ack-Q cap, remote wait-Q due to nack, local disk overload, remote disk overload
local disk IO error, remote disk IO error, non KAV compression type, skipped frame header, repeated NACKs
-------------------- kav global-detail
-------------------- kav peer-detail
 ------------ KAV configuration parameters ------------------
 ------------ KAV Nack detail statistics ------------------
------------- KAV auto bypass table -----------------------
<---------------- re_cfg.txt start here--------------------->
 Config file open failed
 malloc failure for config file open
/sw/vantero/config/re_cfg.txt
Invalid args, Invalid peer argument, Invalid conn argument, Invalid host address, invalid mac-id format
low compression, configured
KAV Statistics failed OR KAV was not initialized by WEQ
KAV Statistics Reader: failed to read file, failed to write file, error code, object not initialized
Reader object not initialized
exec_show_stats_kav: out of memory
top_app_log open error, top_app_log read error, short read, top_app_log seek error
top_app_log compatibility error: Top-App logs of v4.4.1 and v4.4.3 cannot be mingled
)";

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
    const std::vector<std::string> labels = labels_of(golden_reports() + other_texts);
    const std::set<std::string> different(labels.begin(), labels.end());
    EXPECT_GT(different.size(), 250U); // fewer labels mean that the search for labels is broken
    const std::set<std::string> values = {"branch-1.example.net", "zlib"};
    for (const std::string& label : different) {
        EXPECT_TRUE(values.contains(label) || holds_phrase(page, label)) << label;
    }
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
    const std::string entries = section_of(page_text("exec_show_stats_kav.8"), "COMMANDS");
    for (const std::string& command : viewer_commands()) {
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

TEST(manual, kavstats_pages_have_every_option_of_its_commands)
{
    const std::string pages =
        with_single_blanks(page_text("kavstat.1") + page_text("kavstat-serve.1") + page_text("kavstat-record.1"));
    const std::string short_options = with_single_blanks(section_of(page_text("kavstat.1"), "SHORT OPTIONS"));
    const std::string help = output_of(program_folder + "/kavstat --help");
    int count = 0;
    for (const std::string& command : matches(help.substr(help.find("Subcommands:")), "\n  ([a-z]+) ")) {
        const std::string options = output_of(program_folder + "/kavstat " + command + " --help");
        for (const std::string& option : matches(options, "\n  (?:-[a-z],)?(--[a-z._-]+)")) {
            // Collectors are described as *--collector.*_NAME_.
            EXPECT_TRUE(option.find("collector.") != std::string::npos || holds_phrase(pages, option))
                << command << ' ' << option;
            ++count;
        }
        for (const std::string& option : matches(options, "\n  (-[a-z],--[a-z._-]+)")) {
            const std::string in_page = option.substr(0, 2) + " " + option.substr(3);
            const std::string others = option.substr(0, 2) + " is ";
            EXPECT_TRUE(
                contains(short_options, in_page) || option == "-h,--help" ||
                (contains(short_options, others) && contains(short_options, option.substr(3) + " in " + command)))
                << command << ' ' << option;
        }
    }
    EXPECT_GT(count, 60);
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

TEST(manual, every_page_refers_to_pages_that_exist_and_kavstats_to_all)
{
    const std::regex reference("\\*([a-z_-]+)\\*\\(([0-9])\\)");
    const std::vector<std::string> names = pages();
    const std::set<std::string> ours(names.begin(), names.end());
    for (const std::string& page : ours) {
        const std::string text = bytes_of_file(source_folder + "/docs/man/" + page + ".scd");
        const std::string see_also = text.substr(text.find("# SEE ALSO"));
        std::set<std::string> siblings = {page};
        for (std::sregex_iterator at(text.begin(), text.end(), reference), end; at != end; ++at) {
            const std::string name = (*at)[1].str() + "." + (*at)[2].str();
            EXPECT_TRUE(ours.contains(name) || !contains(name, "kav")) << page << ": " << name;
            if (ours.contains(name) && contains(see_also, (*at)[0].str())) {
                siblings.insert(name);
            }
        }
        EXPECT_GE(siblings.size(), 4U) << page;
        if (page == "kavstat.1") {
            EXPECT_EQ(siblings, ours);
        }
    }
}

// The crontab line of kavstat's page, with cron's shell and environment.
TEST(manual, the_example_for_the_textfile_collector_runs_from_cron)
{
    const std::string page = bytes_of_file(source_folder + "/docs/man/kavstat.1.scd");
    const std::size_t start = page.find("\n* * * * * root ");
    ASSERT_NE(start, std::string::npos);
    const std::string line = page.substr(start + 16, page.find('\n', start + 1) - start - 16);
    ASSERT_TRUE(line.starts_with("cd /var/lib/prometheus/node-exporter && ")) << line;
    const idle_engine engine({"--peers", "2"});
    const scratch_folder folder(disk());
    const std::string command = "cd '" + folder.path() + "' &&" + line.substr(line.find("&&") + 2);
    std::ofstream(folder.file("command")) << command;
    EXPECT_EQ(output_of("env -i HOME=/ LOGNAME=root SHELL=/bin/sh PATH='" + program_folder +
                        "':/usr/bin:/bin KAV_STAT_SEGMENT=$KAV_STAT_SEGMENT dash -c \"$(cat '" +
                        folder.file("command") + "')\""),
              "");
    EXPECT_TRUE(contains(bytes_of_file(folder.file("kav.prom")), "\nkav_up 1\n"));
    EXPECT_FALSE(std::filesystem::exists(folder.file("kav.prom.new")));
}

TEST(manual, every_page_is_displayed_without_a_warning)
{
    EXPECT_GE(pages().size(), 3U);
    for (const std::string& page : pages()) {
        // scdoc starts every section with a paragraph, which causes a harmless warning.
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
        // Correct but unknown words belong in docs/man/words.txt.
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
