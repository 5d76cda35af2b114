// Bytes for the demo engine's tests, random and real, and folders that are removed after the test.
#pragma once

#include "RE_bytes.h"
#include "RE_random.h"
#include "support/files.h"

#include <filesystem>
#include <fstream>
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

// Returns lines of words from a small vocabulary. They compress well and are the same on every machine.
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

// Returns bytes of the running test program, a real file that exists on every machine.
inline RE_byte_buffer real_bytes(std::size_t size)
{
    std::ifstream file("/proc/self/exe", std::ios::binary);
    RE_byte_buffer bytes(size);
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
    bytes.resize(static_cast<std::size_t>(file.gcount()));
    return bytes;
}

class temporary_folder : public scratch_folder
{
public:
    temporary_folder() : scratch_folder(disk()) {}

    void write(const std::string& name, RE_byte_view bytes) const
    {
        std::filesystem::create_directories(std::filesystem::path(file(name)).parent_path());
        write_file(file(name), {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    }
};
