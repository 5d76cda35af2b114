#include "shell.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>

std::string output_of(const std::string& command, int* exit_status)
{
    FILE* const pipe = popen(("{ " + command + "\n} 2>&1 </dev/null").c_str(), "r");
    std::string output;
    char block[4096];
    while (const std::size_t length = std::fread(block, 1, sizeof block, pipe)) {
        output.append(block, length);
    }
    const int status = pclose(pipe);
    if (exit_status != nullptr) {
        *exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    return output;
}

std::vector<std::string> viewer_commands()
{
    const std::string source = bytes_of_file(KAV_SOURCE_DIR "/comp/TCP/cli/RE_exec_show_stats_kav.cpp");
    const std::size_t begin = source.find("constexpr command commands[]");
    EXPECT_NE(begin, std::string::npos);
    const std::string table = source.substr(begin, source.find("};", begin) - begin);
    std::vector<std::string> words = {"read-file"}; // needs no engine, and is not in the table
    const std::regex word("\\{\"([a-z-]+)\",");
    for (std::sregex_iterator at(table.begin(), table.end(), word), end; at != end; ++at) {
        words.push_back((*at)[1]);
    }
    EXPECT_GE(words.size(), 13U); // else it is the looking for words that has broken
    return words;
}

idle_engine::idle_engine(std::vector<std::string> options)
{
    setenv("KAV_STAT_SEGMENT", ("kav_packaging_test_" + std::to_string(getpid())).c_str(), 1);
    options.insert(options.begin(), "--once");
    options.emplace_back(KAV_SOURCE_DIR "/docs");
    m_engine = std::make_unique<demo_engine>(options);
    EXPECT_TRUE(m_engine->wait_for("idle"));
}

idle_engine::~idle_engine()
{
    m_engine->stop();
    unsetenv("KAV_STAT_SEGMENT");
}
