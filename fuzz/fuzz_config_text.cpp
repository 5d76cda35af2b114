// Uses any bytes as the engine's configuration file: the report must end with exactly these bytes.
#include "RE_config_view.h"
#include "RE_viewer_reader.h"
#include "harness.h"
#include "support/engine_shapes.h"

#include <vector>

namespace {

constexpr const char* config_file = "/sw/vantero/config/re_cfg.txt";
constexpr const char* banner = "\n<---------------- re_cfg.txt start here--------------------->\n";

std::unique_ptr<memory_reader> engine;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    use_own_segment();
    const std::vector<unsigned char> image = live_sample({});
    engine = std::make_unique<memory_reader>(image.data(), image.size());
    if (engine->open() != 0) {
        std::abort();
    }
    p_statReader = engine.get();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const memory_file file(data, size);
    add_file(config_file, file);
    const std::string report = output_of([] { show_config(true); });
    const std::string expected = banner + std::string(reinterpret_cast<const char*>(data), size);
    if (report.size() < expected.size() ||
        report.compare(report.size() - expected.size(), std::string::npos, expected) != 0) {
        std::abort();
    }
    return 0;
}
