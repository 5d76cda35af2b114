// Bytes for the demo engine's tests: random ones, real ones, and folders that are gone after the test.
#pragma once

#include "RE_bytes.h"
#include "RE_random.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

inline RE_byte_buffer random_bytes(std::size_t size, std::uint64_t seed)
{
    RE_random random(seed);
    RE_byte_buffer bytes(size);
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(random.below(256));
    }
    return bytes;
}

// Lines of words from a small vocabulary: deflates well, and is the same on every machine.
inline RE_byte_buffer text_bytes(std::size_t size, std::uint64_t seed)
{
    RE_random random(seed);
    RE_byte_buffer bytes;
    while (bytes.size() < size) {
        std::uint64_t word = random.below(2000);
        for (std::uint64_t letters = 2 + word % 7; letters > 0; --letters) {
            bytes.push_back(static_cast<std::uint8_t>('a' + next_random(word) % 26));
        }
        bytes.push_back(random.below(12) == 0 ? '\n' : ' ');
    }
    bytes.resize(size);
    return bytes;
}

// The running test program itself: a real file that every machine has.
inline RE_byte_buffer real_bytes(std::size_t size)
{
    std::ifstream file("/proc/self/exe", std::ios::binary);
    RE_byte_buffer bytes(size);
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
    bytes.resize(static_cast<std::size_t>(file.gcount()));
    return bytes;
}

inline std::string text_of(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class temporary_folder
{
public:
    temporary_folder()
    {
        std::string name = std::filesystem::temp_directory_path() / "kav_demo_test_XXXXXX";
        m_path = mkdtemp(name.data());
    }
    ~temporary_folder() { std::filesystem::remove_all(m_path); }
    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;

    std::string file(const std::string& name) const { return m_path + "/" + name; }
    const std::string& path() const { return m_path; }

    void write(const std::string& name, RE_byte_view bytes) const
    {
        std::filesystem::create_directories(std::filesystem::path(file(name)).parent_path());
        std::ofstream out(file(name), std::ios::binary);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }

private:
    std::string m_path;
};
