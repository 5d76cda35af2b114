// Helpers for the programs that create seeds.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

inline void write_seed(const std::string& folder, const std::string& name, const void* bytes, std::size_t size)
{
    const std::string path = folder + "/" + name;
    FILE* const file = std::fopen(path.c_str(), "wb");
    if (file == nullptr || std::fwrite(bytes, 1, size, file) != size || std::fclose(file) != 0 || size == 0) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        std::exit(1);
    }
}

template <typename Bytes>
void write_seed(const std::string& folder, const std::string& name, const Bytes& bytes)
{
    write_seed(folder, name, bytes.data(), bytes.size());
}

// Returns the folder, which is the only argument of such a program.
inline std::string seed_folder(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "%s FOLDER\n", argv[0]);
        std::exit(1);
    }
    return argv[1];
}
