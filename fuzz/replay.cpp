// The main function of a fuzz target without libFuzzer: runs the target once for every file in the named folders.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" {
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
__attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);
}

namespace {

void run(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    std::fprintf(stderr, "%s\n", path.c_str()); // the last name before a crash is the cause
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

} // namespace

int main(int argc, char** argv)
{
    if (LLVMFuzzerInitialize != nullptr) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    std::vector<std::filesystem::path> inputs;
    for (int at = 1; at < argc; ++at) {
        if (argv[at][0] == '-') {
            continue; // an option of libFuzzer
        }
        for (const auto& entry : std::filesystem::directory_iterator(argv[at])) {
            inputs.push_back(entry.path());
        }
    }
    std::sort(inputs.begin(), inputs.end());
    std::for_each(inputs.begin(), inputs.end(), run);
    return inputs.empty() ? 1 : 0;
}
