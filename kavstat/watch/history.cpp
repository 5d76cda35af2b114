#include "watch/history.h"

#include <array>

namespace kavstat {

std::string spark_line(const std::vector<float>& values, std::size_t width, bool b_unicode, double highest)
{
    static constexpr std::array<const char*, 9> blocks{" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    static constexpr std::array<const char*, 9> letters{" ", ".", ":", "-", "=", "+", "*", "#", "@"};
    const auto first = values.end() - static_cast<std::ptrdiff_t>(std::min(width, values.size()));
    if (highest <= 0) {
        for (auto value = first; value != values.end(); ++value) {
            highest = std::max(highest, History::is_restart(*value) ? 0.0 : static_cast<double>(*value));
        }
    }
    std::string line;
    for (auto value = first; value != values.end(); ++value) {
        if (History::is_restart(*value)) {
            line += b_unicode ? "│" : "|";
            continue;
        }
        std::size_t height = 0;
        if (*value > 0) {
            height =
                static_cast<std::size_t>(std::clamp(std::lround(static_cast<double>(*value) / highest * 8), 1L, 8L));
        }
        line += b_unicode ? blocks[height] : letters[height];
    }
    return line;
}

} // namespace kavstat
