#include "watch/table.h"

#include "format/text.h"
#include "format/units.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace kavstat {

WatchMark mark_of(std::optional<Severity> severity)
{
    if (!severity) {
        return {};
    }
    return *severity == Severity::critical ? WatchMark{'C', WatchStyle::critical} : WatchMark{'W', WatchStyle::warning};
}

std::optional<std::size_t> WatchTable::column(const std::string& key) const
{
    for (std::size_t at = 0; at < columns.size(); ++at) {
        if (!key.empty() && columns[at].key == key) {
            return at;
        }
    }
    return std::nullopt;
}

void RowFilter::set(const std::string& text)
{
    m_text = text;
    m_lower = lower_case(text);
    m_answers.clear();
}

bool RowFilter::keeps(const WatchTable& table, std::size_t row)
{
    if (m_text.empty() || !table.search) {
        return true;
    }
    const auto answer_of = [&] { return lower_case(table.search(row)).find(m_lower) != std::string::npos; };
    if (!table.b_search_is_lasting) {
        return answer_of();
    }
    if (row >= m_answers.size()) {
        m_answers.resize(table.rows);
    }
    answer& kept = m_answers[row];
    const WatchSubject subject = table.subject(row);
    if (!(kept.subject == subject)) {
        kept = {subject, answer_of()};
    }
    return kept.b_kept;
}

RowOrder::RowOrder(const WatchTable& table, std::size_t column, bool b_reverse, RowFilter& filter)
{
    const WatchColumn& by = table.columns[column];
    const bool b_lowest_first = by.b_lowest_first != b_reverse;
    m_rows.reserve(table.rows);
    for (std::size_t row = 0; row < table.rows; ++row) {
        if ((!table.is_there || table.is_there(row)) && filter.keeps(table, row)) {
            double key = by.order ? by.order(row) : 0;
            key = std::isnan(key) ? -HUGE_VAL : key; // NaN cannot be ordered
            m_rows.push_back({b_lowest_first ? key : -key, static_cast<std::uint32_t>(row)});
        }
    }
    if (by.order) {
        return;
    }
    // Each text is formatted once. Rows are then ordered by its position in the sorted texts.
    std::vector<std::pair<std::string, std::size_t>> texts;
    texts.reserve(m_rows.size());
    for (std::size_t at = 0; at < m_rows.size(); ++at) {
        texts.emplace_back(by.text(m_rows[at].row, by.width), at);
    }
    std::sort(texts.begin(), texts.end());
    double place = 0;
    for (std::size_t at = 0; at < texts.size(); ++at) {
        place += at > 0 && texts[at].first != texts[at - 1].first ? 1 : 0;
        m_rows[texts[at].second].key = b_lowest_first ? place : -place;
    }
}

std::vector<std::size_t> RowOrder::window(std::size_t first, std::size_t count)
{
    first = std::min(first, m_rows.size());
    count = std::min(count, m_rows.size() - first);
    const auto begin = m_rows.begin() + static_cast<std::ptrdiff_t>(first);
    const auto end = begin + static_cast<std::ptrdiff_t>(count);
    if (begin != m_rows.end()) {
        std::nth_element(m_rows.begin(), begin, m_rows.end());
    }
    if (begin != end) {
        std::partial_sort(begin, end, m_rows.end());
    }
    std::vector<std::size_t> rows;
    for (auto one = begin; one != end; ++one) {
        rows.push_back(one->row);
    }
    return rows;
}

std::optional<std::size_t> RowOrder::place_of(const WatchTable& table, const WatchSubject& subject) const
{
    const auto found =
        std::find_if(m_rows.begin(), m_rows.end(), [&](const keyed& one) { return table.subject(one.row) == subject; });
    if (found == m_rows.end()) {
        return std::nullopt;
    }
    return static_cast<std::size_t>(
        std::count_if(m_rows.begin(), m_rows.end(), [&](const keyed& other) { return other < *found; }));
}

ColumnChoice choose_columns(const WatchTable& table, std::size_t width, std::size_t ordered, std::size_t first)
{
    const auto needed_by = [&](std::size_t column) { return table.columns[column].width + 1; }; // with a blank
    std::size_t room = width + 1 > gutter_width ? width + 1 - gutter_width : 0;
    ColumnChoice choice;
    std::vector<std::size_t> movable;
    for (std::size_t at = 0; at < table.columns.size(); ++at) {
        if (table.columns[at].importance == 0 || at == ordered) {
            choice.columns.push_back(at);
            room -= std::min(room, needed_by(at));
        } else {
            movable.push_back(at);
        }
    }
    // The columns that are chosen first, in the order of the table, and then those that do not fit.
    std::vector<std::size_t> rest = movable;
    std::stable_sort(rest.begin(), rest.end(), [&](std::size_t a, std::size_t b) {
        return table.columns[a].importance < table.columns[b].importance;
    });
    std::vector<std::size_t> line;
    std::size_t left = room;
    std::erase_if(rest, [&](std::size_t column) {
        const bool b_fits = needed_by(column) <= left;
        if (b_fits) {
            left -= needed_by(column);
            line.push_back(column);
        }
        return b_fits;
    });
    std::sort(line.begin(), line.end());
    std::sort(rest.begin(), rest.end());
    line.insert(line.end(), rest.begin(), rest.end());

    // Stops when the last column is visible.
    left = room;
    choice.first = line.size();
    while (choice.first > 0 && needed_by(line[choice.first - 1]) <= left) {
        left -= needed_by(line[--choice.first]);
    }
    choice.first = std::min({first, choice.first, line.empty() ? 0 : line.size() - 1});
    left = room;
    std::size_t at = choice.first;
    while (at < line.size() && needed_by(line[at]) <= left) {
        left -= needed_by(line[at]);
        choice.columns.push_back(line[at++]);
    }
    choice.b_more = at < line.size();
    if (choice.first == 0) {
        std::sort(choice.columns.begin(), choice.columns.end());
    }
    return choice;
}

namespace {

// Marks a text that was cut, so that a number is not mistaken for a shorter one.
constexpr char cut_mark = '~';

// Returns the texts of the columns side by side. The last one fills the remaining width.
template <typename Text>
std::string side_by_side(const WatchTable& table, const ColumnChoice& choice, std::size_t width, const Text& text)
{
    std::string line;
    std::size_t left = width > gutter_width ? width - gutter_width : 0;
    for (const std::size_t at : choice.columns) {
        const WatchColumn& column = table.columns[at];
        const bool b_stretched = at + 1 == table.columns.size() && at == choice.columns.back();
        const std::size_t wide = b_stretched ? std::max(left, column.width) : column.width;
        std::string cell = text(at, wide);
        if (width_of(cell) > wide) {
            cell = cut_to_width(cell, wide - 1) + cut_mark;
        }
        line += (line.empty() ? "" : " ") + padded(cell, wide, column.b_left);
        left -= std::min(left, wide + 1);
    }
    return line;
}

} // namespace

std::string table_line(const WatchTable& table, const ColumnChoice& choice, std::size_t row, std::size_t width)
{
    return side_by_side(table, choice, width,
                        [&](std::size_t at, std::size_t wide) { return table.columns[at].text(row, wide); });
}

std::string table_head(const WatchTable& table, const ColumnChoice& choice, std::size_t ordered, std::size_t width)
{
    // "<" and ">" show that there are further columns.
    return std::string(1, choice.first > 0 ? '<' : ' ') + (choice.b_more ? '>' : ' ') +
           side_by_side(table, choice, width, [&](std::size_t at, std::size_t) {
               return (at == ordered ? "*" : "") + table.columns[at].title;
           });
}

} // namespace kavstat
