#include "watch/table.h"

#include "format/text.h"

#include <cmath>
#include <cstdio>
#include <numeric>

namespace kavstat {

namespace {

std::string cell(const std::string& text, int width, bool b_left)
{
    const std::string cut = text.substr(0, static_cast<std::size_t>(width));
    const std::string blanks(static_cast<std::size_t>(width) - cut.size(), ' ');
    return b_left ? cut + blanks : blanks + cut;
}

std::string formatted(int decimals, double value, const char* ending)
{
    char text[400]; // room for the longest double without an exponent
    std::snprintf(text, sizeof text, "%.*f%s", decimals, value, ending);
    return text;
}

} // namespace

std::vector<std::size_t> rows_in_order(const WatchTable& table, std::size_t column, bool b_reverse,
                                       const std::string& filter)
{
    std::vector<std::size_t> rows(table.rows);
    std::iota(rows.begin(), rows.end(), std::size_t{0});
    if (!filter.empty()) {
        const std::string part = lower_case(filter);
        std::erase_if(
            rows, [&](std::size_t row) { return lower_case(table_line(table, row)).find(part) == std::string::npos; });
    }
    if (column >= table.columns.size()) {
        return rows;
    }
    const WatchColumn& by = table.columns[column];
    // What rows are ordered by is found once for each, not once for each comparison.
    if (by.number) {
        std::vector<double> keys(table.rows);
        for (const std::size_t row : rows) {
            keys[row] = by.number(row);
        }
        std::stable_sort(rows.begin(), rows.end(), [&](std::size_t a, std::size_t b) {
            return b_reverse ? keys[a] < keys[b] : keys[a] > keys[b];
        });
    } else {
        std::vector<std::string> keys(table.rows);
        for (const std::size_t row : rows) {
            keys[row] = by.text(row);
        }
        std::stable_sort(rows.begin(), rows.end(), [&](std::size_t a, std::size_t b) {
            return b_reverse ? keys[a] > keys[b] : keys[a] < keys[b];
        });
    }
    return rows;
}

std::string table_line(const WatchTable& table, std::size_t row)
{
    std::string line;
    for (const WatchColumn& column : table.columns) {
        // A text at the end may be as long as it likes, and hold characters of several bytes.
        const bool b_last = column.b_left && &column == &table.columns.back();
        line += (line.empty() ? "" : " ") +
                (b_last ? column.text(row) : cell(column.text(row), column.width, column.b_left));
    }
    return line;
}

std::string table_head(const WatchTable& table, std::size_t marked)
{
    std::string line;
    for (std::size_t at = 0; at < table.columns.size(); ++at) {
        const WatchColumn& column = table.columns[at];
        line += (line.empty() ? "" : " ") + cell((at == marked ? "*" : "") + column.title, column.width, column.b_left);
    }
    return line;
}

std::string short_size(double bytes)
{
    static constexpr const char* endings[] = {" KB", " MB", " GB", " TB", " PB", " EB"};
    if (std::abs(bytes) < 1000) {
        return formatted(0, bytes, " B");
    }
    std::size_t unit = 0;
    bytes /= 1024;
    while (std::abs(bytes) >= 1000 && unit + 1 < std::size(endings)) {
        bytes /= 1024;
        ++unit;
    }
    return formatted(1, bytes, endings[unit]);
}

std::string short_rate(double bytes_per_second)
{
    return bytes_per_second > 0 ? short_size(bytes_per_second) + "/s" : "-";
}

std::string short_count(double count)
{
    if (std::abs(count) < 1e6) {
        return formatted(std::abs(count) < 100 && count != std::floor(count) ? 1 : 0, count, "");
    }
    return std::abs(count) < 1e9 ? formatted(1, count / 1e6, "M") : formatted(1, count / 1e9, "G");
}

std::string percent_text(double percent)
{
    return formatted(1, percent, "%");
}

std::string cut_to_width(const std::string& text, std::size_t width)
{
    std::size_t at = 0;
    for (std::size_t column = 0; at < text.size(); ++at) {
        const bool b_starts_character = (static_cast<unsigned char>(text[at]) & 0xC0U) != 0x80U;
        if (b_starts_character && column++ == width) {
            break;
        }
    }
    return text.substr(0, at);
}

} // namespace kavstat
