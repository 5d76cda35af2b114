// A table of the live view: columns that know how to show and order their rows, of which only those in sight are made.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace kavstat {

struct WatchColumn
{
    std::string title;
    int width = 0; // columns on the screen
    bool b_left = false;
    std::function<std::string(std::size_t row)> text;
    // What rows are ordered by, highest first; by the text, lowest first, where there is none.
    std::function<double(std::size_t row)> number;
};

struct WatchTable
{
    std::vector<WatchColumn> columns;
    std::size_t rows = 0;
};

// The rows whose text has `filter` in it, whatever the case, ordered by a column; b_reverse: the other way round. Rows
// that are equal keep their order.
std::vector<std::size_t> rows_in_order(const WatchTable& table, std::size_t column, bool b_reverse,
                                       const std::string& filter);

// A line of the table, and the one above it all. marked: the column that rows are ordered by.
std::string table_line(const WatchTable& table, std::size_t row);
std::string table_head(const WatchTable& table, std::size_t marked);

// "1.5 MB": three digits at least, powers of 1024.
std::string short_size(double bytes);
// The same with "/s"; "-" for nothing.
std::string short_rate(double bytes_per_second);
// "1234" or "12.3M": a number of things that fits in seven columns.
std::string short_count(double count);
std::string percent_text(double percent);

// The last `width` values as a line, one column a value, the highest as the highest mark. b_unicode: blocks of eight
// heights instead of ASCII marks.
template <typename Values>
std::string spark_line(const Values& values, std::size_t width, bool b_unicode);

// The first `width` columns of a text in which every character has one.
std::string cut_to_width(const std::string& text, std::size_t width);

template <typename Values>
std::string spark_line(const Values& values, std::size_t width, bool b_unicode)
{
    static constexpr std::array<const char*, 9> blocks{" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    static constexpr std::array<const char*, 9> letters{" ", ".", ":", "-", "=", "+", "*", "#", "@"};
    const std::size_t count = std::min(width, values.size());
    const auto first = values.end() - static_cast<std::ptrdiff_t>(count);
    double highest = 0;
    for (auto value = first; value != values.end(); ++value) {
        highest = std::max(highest, *value);
    }
    std::string line;
    for (auto value = first; value != values.end(); ++value) {
        std::size_t height = 0;
        if (*value > 0) {
            height = static_cast<std::size_t>(std::clamp(std::lround(*value / highest * 8), 1L, 8L));
        }
        line += b_unicode ? blocks[height] : letters[height];
    }
    return line;
}

} // namespace kavstat
