// Runs any bytes as a command line, with words separated by NULs and an engine to report on. The files "log", "saved"
// and the engine's configuration exist; nothing else on the machine is read or changed.
#include "RE_exec_show_stats_kav.h"
#include "RE_file_reader.h"
#include "harness.h"
#include "support/engine_shapes.h"

#include <cstring>
#include <deque>
#include <vector>

namespace {

constexpr std::size_t max_words = 64;

std::vector<unsigned char>& engine_image()
{
    static std::vector<unsigned char> bytes;
    return bytes;
}

void provide(const char* path, const std::vector<unsigned char>& bytes)
{
    static std::deque<memory_file> files; // kept for the whole run
    add_file(path, files.emplace_back(bytes.data(), bytes.size()));
}

// Reads the sample engine. Saved files are discarded.
class engine_reader : public memory_reader
{
public:
    engine_reader() : memory_reader(engine_image().data(), engine_image().size()) {}
    int save_stats_binary(const char* path) override { return path[0] == '/' ? -1 : 0; }
};

} // namespace

RE_stat_reader* RE_stat_reader::create(RE_stat_reader_type type, const char* path)
{
    if (type == RE_STAT_READER_FILE) {
        return new RE_file_reader(path);
    }
    return new engine_reader;
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    discard_output();
    use_own_segment();
    engine_image() = live_sample({});
    provide("saved", saved_sample({}));
    provide("log", std::vector<unsigned char>(300));
    provide("/sw/vantero/config/re_cfg.txt", {'x', '=', '1', '\n'});
    if (engine_image().empty()) {
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // Each word has its own memory, so that an access beyond its end is detected.
    std::vector<std::unique_ptr<char[]>> words;
    const auto* const text = reinterpret_cast<const char*>(data);
    for (std::size_t at = 0; at < size && words.size() < max_words;) {
        const std::size_t length = strnlen(text + at, size - at);
        words.emplace_back(new char[length + 1]);
        std::memcpy(words.back().get(), text + at, length);
        words.back()[length] = '\0';
        at += length + 1;
    }
    char name[] = "exec_show_stats_kav";
    std::vector<char*> arguments{name};
    for (const auto& word : words) {
        arguments.push_back(word.get());
    }
    arguments.push_back(nullptr);
    const int status = exec_show_stats_kav(static_cast<int>(arguments.size()) - 1, arguments.data());
    if (status != 0 && status != 1) {
        std::abort();
    }
    return 0;
}
