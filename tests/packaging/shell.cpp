#include "shell.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

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

std::string contents_of(const std::filesystem::path& path)
{
    std::ifstream file(path);
    EXPECT_TRUE(file) << path;
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

temporary_folder::temporary_folder() : m_path(testing::TempDir() + "kav_packaging_XXXXXX")
{
    std::string name = m_path;
    if (mkdtemp(name.data()) == nullptr) {
        ADD_FAILURE() << "no folder to be had";
    }
    m_path = name;
}

temporary_folder::~temporary_folder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

demo_engine::demo_engine(const std::string& options)
{
    setenv("KAV_STAT_SEGMENT", m_folder.path().filename().c_str(), 1);
    const std::string out = m_folder.path() / "out";
    int status = 0;
    const std::string output =
        output_of("'" KAV_BIN_DIR "/kav_demo_engine' --once " + options + " '" KAV_SOURCE_DIR "/docs' >" + out +
                      " 2>&1 & " + "echo $! >" + (m_folder.path() / "pid").string() +
                      "\nfor i in $(seq 600); do grep -q idle " + out + " && exit 0; sleep 0.05; done; exit 1",
                  &status);
    EXPECT_EQ(status, 0) << output;
}

demo_engine::~demo_engine()
{
    std::string pid = contents_of(m_folder.path() / "pid");
    pid.pop_back(); // the line break
    output_of("kill " + pid + "; while kill -0 " + pid + " 2>/dev/null; do sleep 0.02; done");
    unsetenv("KAV_STAT_SEGMENT");
}
