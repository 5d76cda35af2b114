// Uses the installed files as an engine's author and an operator do.
#include "RE_stat_ids.h"
#include "shell.h"
#include "support/contains.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

namespace {

class installed_tree : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        m_folder = new scratch_folder(disk());
        int status = 0;
        const std::string output =
            output_of("cmake --install '" KAV_BUILD_DIR "' --prefix '" + prefix() + "'", &status);
        ASSERT_EQ(status, 0) << output;
    }

    static void TearDownTestSuite()
    {
        delete m_folder;
        m_folder = nullptr;
    }

    static std::string prefix() { return m_folder->file("prefix"); }
    static std::string in_prefix(const std::string& path) { return prefix() + "/" + path; }
    static std::string libraries() { return in_prefix(KAV_LIBDIR); }

    // Runs an engine and returns its reports.
    static std::string reports_of_engine(const std::string& program)
    {
        const std::string viewer = in_prefix("bin/exec_show_stats_kav");
        const std::string health = in_prefix("bin/kavstat") + "' health --interval 0.1";
        return output_of("export KAV_STAT_SEGMENT=kav_installed_tree.$$ LD_LIBRARY_PATH='" + libraries() + "'\n'" +
                         program + "' & for i in $(seq 100); do '" + viewer +
                         "' nack >/dev/null && break; sleep 0.05; done\n'" + viewer + "' global-info; '" + viewer +
                         "' conn; '" + health + "; kill $!; wait $!; echo \"status $?\"; '" + viewer + "' nack");
    }

    static void expect_reports_of_minimal_engine(const std::string& reports)
    {
        EXPECT_TRUE(contains(reports, "    Status: Usable\n")) << reports;
        EXPECT_TRUE(contains(reports, "Connections:   Total (cumulative): 1   Active: 1\n")) << reports;
        EXPECT_TRUE(contains(reports, "   Overall: msg:          1, in:   1000 B, out:    250 B, ratio:  75.00%\n"))
            << reports;
        EXPECT_TRUE(contains(reports, "1       1      192.0.2.10:40000  198.51.100.20:80     1000B/   0B  A\n"))
            << reports;
        EXPECT_TRUE(contains(reports, "KAV WARNING: 1 problem - engine: engine_restarted\n")) << reports;
        EXPECT_TRUE(contains(reports, "status 0\nKAV Statistics failed OR KAV was not initialized by WEQ")) << reports;
    }

    static scratch_folder* m_folder;
};

scratch_folder* installed_tree::m_folder = nullptr;

TEST_F(installed_tree, the_viewer_its_page_and_its_completion_are_where_they_belong)
{
    for (const char* path :
         {"bin/exec_show_stats_kav", "bin/kav_demo_engine", "share/man/man8/exec_show_stats_kav.8.gz",
          "share/man/man1/kav_demo_engine.1.gz", "share/man/man5/kav-statistics.5.gz",
          "share/bash-completion/completions/exec_show_stats_kav", "include/kav/RE_stat_writer.h"}) {
        EXPECT_TRUE(std::filesystem::exists(in_prefix(path))) << path;
    }
}

TEST_F(installed_tree, documents_link_to_installed_documents)
{
    const std::filesystem::path documents = in_prefix("share/doc/kav-statistics-doc");
    const std::regex link("\\]\\(([^)#:]+)[)#]");
    int count = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(documents)) {
        if (entry.path().extension() == ".md") {
            const std::string text = bytes_of_file(entry.path());
            for (std::sregex_iterator at(text.begin(), text.end(), link), end; at != end; ++at, ++count) {
                EXPECT_TRUE(std::filesystem::exists(entry.path().parent_path() / (*at)[1].str()))
                    << entry.path() << ": " << (*at)[1];
            }
        }
    }
    EXPECT_GT(count, 20);
}

TEST_F(installed_tree, manual_pages_name_installed_files)
{
    const std::regex name("_/usr/(share/[^_ ]+)_");
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(KAV_SOURCE_DIR "/docs/man")) {
        const std::string text = bytes_of_file(entry.path());
        for (std::sregex_iterator at(text.begin(), text.end(), name), end; at != end; ++at, ++count) {
            EXPECT_TRUE(std::filesystem::exists(in_prefix((*at)[1]))) << entry.path() << ": " << (*at)[1];
        }
        EXPECT_FALSE(std::regex_search(text, std::regex("docs/[^/]*\\.md[^_]"))) << entry.path();
    }
    EXPECT_GT(count, 5);
}

TEST_F(installed_tree, schema_and_rules_are_those_that_kavstat_prints)
{
    const std::string rules = bytes_of_file(in_prefix("share/kavstat/prometheus/kav_alerts.rules.yml"));
    EXPECT_TRUE(contains(rules, "\ngroups:\n")) << rules.substr(0, 100);
    EXPECT_EQ(rules, output_of("'" + in_prefix("bin/kavstat") + "' rules"));
    const std::string schema = bytes_of_file(in_prefix("share/kavstat/kavstat.schema.json"));
    EXPECT_TRUE(schema.starts_with("{\n  \"$schema\": \"https://json-schema.org/")) << schema.substr(0, 100);
    EXPECT_EQ(schema, output_of("'" + in_prefix("bin/kavstat") + "' schema"));
}

TEST_F(installed_tree, the_viewer_alone_takes_no_library_along)
{
    const scratch_folder folder(disk());
    const std::string alone = folder.file("sw/vantero");
    output_of("cmake --install '" KAV_BUILD_DIR "' --component viewer --prefix '" + alone + "'");
    EXPECT_TRUE(output_of("'" + alone + "/bin/exec_show_stats_kav'").starts_with("Invalid args\nUsage:\n"));
    EXPECT_FALSE(std::filesystem::exists(alone + "/include"));
    EXPECT_EQ(output_of("find '" + alone + "' -name 'lib*'"), "");
    EXPECT_EQ(output_of("readelf -d '" + alone + "/bin/exec_show_stats_kav' | grep NEEDED"), "");
}

TEST_F(installed_tree, the_examples_build_with_cmake)
{
    const scratch_folder folder(disk());
    int status = 0;
    const std::string output =
        output_of("cmake -G Ninja -S '" KAV_SOURCE_DIR "/examples' -B '" + folder.path() + "' -DCMAKE_PREFIX_PATH='" +
                      prefix() + "' && cmake --build '" + folder.path() + "'",
                  &status);
    ASSERT_EQ(status, 0) << output;
    expect_reports_of_minimal_engine(reports_of_engine(folder.file("minimal_engine")));
    expect_reports_of_minimal_engine(reports_of_engine(folder.file("minimal_engine_c")));
}

TEST_F(installed_tree, the_c_interface_is_c99_and_cpp17)
{
    const std::string program = "'#include <kav_core.h>\nint main(void) { return kav_writer_publish(0) != "
                                "KAV_ERROR_ARGUMENT || RE_STAT_CONN_ID_ENCODE_NUM_MSGS != " +
                                std::to_string(RE_STAT_CONN_ID_ENCODE_NUM_MSGS) + "; }'";
    for (const char* compiler : {"cc -std=c99 -x c", "c++ -std=c++17 -x c++"}) {
        const scratch_folder folder(disk());
        int status = 0;
        const std::string output =
            output_of("cd '" + folder.path() + "' && export PKG_CONFIG_PATH='" + libraries() +
                          "/pkgconfig' && printf " + program + " >program && " + compiler +
                          " -Wall -Wextra -Wpedantic -Werror program -x none $(pkg-config --cflags --libs kav_core) && "
                          "LD_LIBRARY_PATH='" +
                          libraries() + "' ./a.out",
                      &status);
        EXPECT_EQ(status, 0) << compiler << '\n' << output;
    }
}

TEST_F(installed_tree, a_project_in_c_alone_finds_the_library)
{
    const scratch_folder folder(disk());
    std::ofstream(folder.file("CMakeLists.txt"))
        << "cmake_minimum_required(VERSION 3.16)\nproject(p LANGUAGES C)\n"
           "find_package(kav_statistics 0.2 REQUIRED)\n"
           "add_executable(engine " KAV_SOURCE_DIR "/examples/minimal_engine.c)\n"
           "target_link_libraries(engine kav::core_c)\n";
    int status = 0;
    const std::string output =
        output_of("cmake -G Ninja -S '" + folder.path() + "' -B '" + folder.path() + "/build' -DCMAKE_PREFIX_PATH='" +
                      prefix() + "' && cmake --build '" + folder.path() + "/build'",
                  &status);
    ASSERT_EQ(status, 0) << output;
    const std::string engine = folder.file("build/engine");
    expect_reports_of_minimal_engine(reports_of_engine(engine));
    const std::string json = output_of("export KAV_STAT_SEGMENT=kav_installed_tree_c.$$\n'" + engine +
                                       "' & sleep 1; '" + in_prefix("bin/kavstat") + "' json --scope peers; kill $!");
    EXPECT_TRUE(contains(json, "\"branch-1\"")) << json;
}

TEST_F(installed_tree, the_example_builds_with_pkg_config_as_its_comment_says)
{
    const scratch_folder folder(disk());
    const std::string source = bytes_of_file(KAV_SOURCE_DIR "/examples/minimal_engine.cpp");
    const std::size_t begin = source.find("c++ -std=c++20 ");
    ASSERT_NE(begin, std::string::npos);
    const std::string command = source.substr(begin, source.find('\n', begin) - begin);
    int status = 0;
    const std::string output =
        output_of("cd '" + folder.path() + "' && cp '" KAV_SOURCE_DIR "/examples/minimal_engine.cpp' . && " +
                      "export PKG_CONFIG_PATH='" + libraries() + "/pkgconfig' && " + command + " -Wall -Wextra -Werror",
                  &status);
    ASSERT_EQ(status, 0) << output;
    expect_reports_of_minimal_engine(reports_of_engine(folder.file("a.out")));
    EXPECT_TRUE(contains(output_of("readelf -d '" + folder.file("a.out") + "'"), "[libkav_core.so." KAV_ABI "]"));
}

TEST_F(installed_tree, the_example_builds_with_the_library_inside)
{
    const scratch_folder folder(disk());
    int status = 0;
    const std::string output =
        output_of("cd '" + folder.path() + "' && c++ -std=c++20 '" KAV_SOURCE_DIR "/examples/minimal_engine.cpp' -I'" +
                      in_prefix("include/kav") + "' '" + libraries() + "/libkav_core.a'",
                  &status);
    ASSERT_EQ(status, 0) << output;
    expect_reports_of_minimal_engine(reports_of_engine(folder.file("a.out")));
    EXPECT_EQ(output_of("readelf -d '" + folder.file("a.out") + "' | grep libkav"), "");
}

TEST_F(installed_tree, the_model_alone_serves_programs_with_a_log_of_their_own)
{
    const scratch_folder folder(disk());
    std::ofstream(folder.file("program.cpp")) << R"(#include <RE_stat_counters.h>
#include <RE_syslog.h>
#include <cstdio>
void __re_syslog(const char*, int, int, int, int id, const char*, ...) { std::printf("message %d\n", id); }
int main()
{
    std::printf("%s\n", get_stat_unit_word(re_stat_global_counters[1].unit));
    return RE_mac_id().set("no address") ? 1 : 0;
})";
    std::ofstream(folder.file("CMakeLists.txt")) << "cmake_minimum_required(VERSION 3.16)\nproject(p LANGUAGES CXX)\n"
                                                    "find_package(kav_statistics 0.2 REQUIRED)\n"
                                                    "add_executable(program program.cpp)\n"
                                                    "target_link_libraries(program kav::model)\n";
    const std::string place = folder.path();
    int status = 0;
    std::string output = output_of("cmake -G Ninja -S '" + place + "' -B '" + place + "/build' -DCMAKE_PREFIX_PATH='" +
                                       prefix() + "' && cmake --build '" + place + "/build'",
                                   &status);
    ASSERT_EQ(status, 0) << output;
    output = output_of("'" + place + "/build/program'", &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(output, "megabytes\nmessage 690410\n");
}

TEST_F(installed_tree, the_shared_library_offers_what_its_headers_declare_and_no_more)
{
    const std::string offered =
        output_of("nm -DC --defined-only '" + libraries() + "/libkav_core.so' | cut -c 20- | grep KAV_CORE_" KAV_ABI);
    for (const char* name : {"RE_stat_reader::create(", "RE_stat_writer::open_conn(", "RE_auto_bypass::show_tables(",
                             "RE_mac_id::set(char const*)", "append_top_app_log(", "typeinfo for RE_stat_reader",
                             "kav_writer_create", "kav_error_text"}) {
        EXPECT_TRUE(contains(offered, name)) << name;
    }
    for (const char* name : {"RE_image_reader", "RE_save_target", "implementation", "\nstd::"}) {
        EXPECT_FALSE(contains(offered, name)) << name;
    }
}

TEST_F(installed_tree, has_no_header_of_the_inside)
{
    for (const char* name : {"RE_local_time.h", "RE_record_flag.h", "RE_zone_name.h", "RE_live_segment.h"}) {
        EXPECT_FALSE(std::filesystem::exists(in_prefix(std::string("include/kav/") + name))) << name;
    }
}

} // namespace
