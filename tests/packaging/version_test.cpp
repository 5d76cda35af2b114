// The project's version is in CMakeLists.txt alone. What must repeat it, agrees.
#include "shell.h"
#include "support/contains.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace {

TEST(version, programs_print_it)
{
    for (const std::string program : {"kavstat", "kav_demo_engine"}) {
        EXPECT_EQ(output_of("'" KAV_BIN_DIR "/" + program + "' --version"), program + " " KAV_VERSION "\n");
    }
}

TEST(version, the_changelogs_begin_with_it)
{
    const std::string releases = bytes_of_file(KAV_SOURCE_DIR "/CHANGELOG.md");
    EXPECT_TRUE(releases.substr(releases.find("\n## [")).starts_with("\n## [" KAV_VERSION "] - "));
    EXPECT_TRUE(bytes_of_file(KAV_SOURCE_DIR "/docs/release-notes.md").find("\n## " KAV_VERSION ", since ") !=
                std::string::npos);
    const std::string changelog = bytes_of_file(KAV_SOURCE_DIR "/debian/changelog");
    EXPECT_TRUE(changelog.starts_with("kav-statistics (" KAV_VERSION ") ")) << changelog.substr(0, 60);
}

TEST(version, pkg_config_and_cmake_files_have_it)
{
    EXPECT_TRUE(contains(bytes_of_file(KAV_BUILD_DIR "/packaging/kav_core.pc"), "\nVersion: " KAV_VERSION "\n"));
    EXPECT_TRUE(contains(bytes_of_file(KAV_BUILD_DIR "/packaging/kav_model.pc"), "\nVersion: " KAV_VERSION "\n"));
    EXPECT_TRUE(contains(bytes_of_file(KAV_BUILD_DIR "/packaging/kav_statistics-config-version.cmake"),
                         "set(PACKAGE_VERSION \"" KAV_VERSION "\")"));
}

TEST(version, no_other_file_repeats_it)
{
    // Change logs and release notes name releases, of course.
    const std::string digits = std::regex_replace(std::string(KAV_VERSION), std::regex("\\."), "\\.");
    EXPECT_EQ(output_of("cd '" KAV_SOURCE_DIR "' && git grep -lIE '(^|[^0-9.])" + digits +
                        "([^0-9.]|$)' -- ':!CHANGELOG.md' ':!debian' ':!docs/release-notes.md' ':!*.svg'"),
              "CMakeLists.txt\n");
}

} // namespace
