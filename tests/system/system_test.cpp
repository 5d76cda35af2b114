#include "system_test.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

system_test::system_test()
{
    static int count = 0;
    m_segment = "kav_system_test_" + std::to_string(getpid()) + "_" + std::to_string(++count);
    setenv("KAV_STAT_SEGMENT", m_segment.c_str(), 1);
    setenv("TZ", "UTC", 1);

    std::string pattern = std::filesystem::temp_directory_path() / "kav_system_test.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("no folder to be had for " + pattern);
    }
    m_folder = pattern;
}

system_test::~system_test()
{
    unlink(segment_path().c_str());
    unlink(own_segment_path(other_segment()).c_str());
    std::error_code ignored;
    std::filesystem::remove_all(m_folder, ignored);
}

std::string bytes_of(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void write_bytes(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

std::vector<std::string> names_in(const std::string& folder)
{
    std::vector<std::string> names;
    for (const std::filesystem::directory_entry& entry : std::filesystem::directory_iterator(folder)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}
