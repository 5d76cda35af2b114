// A table of the live view: columns that know how to show and order their rows. Of any number of rows only those in
// sight are made, and of the columns those that a screen has room for.
#pragma once

#include "watch/line.h"
#include "watch/model.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kavstat {

struct WatchColumn
{
    std::string key;   // its name for --sort and in JSON; empty for a drawing, which has none and orders nothing
    std::string title; // upper case, narrower than `width`
    std::size_t width = 0;
    // 0 for the columns that say what a row is and are always in sight; of the others those of the lowest come first.
    int importance = 1;
    bool b_left = false;
    bool b_lowest_first = false;
    bool b_number = false; // in JSON
    std::function<std::string(std::size_t row, std::size_t width)> text;
    // What rows are ordered by; the text where there is none.
    std::function<double(std::size_t row)> order;
};

// A mark in front of a row, so that colour never says anything alone.
struct WatchMark
{
    char letter = ' ';
    WatchStyle style = WatchStyle::plain;
};

// "C" or "W" for what a rule found, and a blank for nothing.
WatchMark mark_of(std::optional<Severity> severity);

struct WatchTable
{
    std::vector<WatchColumn> columns; // the last one takes what room is left, when it is in sight
    std::size_t rows = 0;
    // What a row is about. Not given: rows are about nothing and cannot be told apart.
    std::function<WatchSubject(std::size_t row)> subject;
    // Whether there is such a row; all of them are when it is not given.
    std::function<bool(std::size_t row)> is_there;
    // What a filter looks for its text in.
    std::function<std::string(std::size_t row)> search;
    // `search` depends on `subject` alone, so that its answer is kept from look to look.
    bool b_search_is_lasting = false;
    std::function<WatchMark(std::size_t row)> mark;

    std::optional<std::size_t> column(const std::string& key) const;
};

// Which rows a filter keeps, from look to look.
class RowFilter
{
public:
    void set(const std::string& text);
    const std::string& text() const { return m_text; }
    bool is_empty() const { return m_text.empty(); }
    // Whether the row contains the text, ignoring case.
    bool keeps(const WatchTable& table, std::size_t row);

private:
    struct answer
    {
        WatchSubject subject;
        bool b_kept = false;
    };

    std::string m_text;
    std::string m_lower;
    std::vector<answer> m_answers; // by row
};

// The rows that a filter keeps, ordered by a column, highest or first in the alphabet first; b_reverse: the other way
// round. Equal rows are in the table's order.
class RowOrder
{
public:
    RowOrder(const WatchTable& table, std::size_t column, bool b_reverse, RowFilter& filter);

    std::size_t size() const { return m_rows.size(); }
    // The rows at places `first` to `first + count`. It costs little more than going through all rows once.
    std::vector<std::size_t> window(std::size_t first, std::size_t count);
    // The row's place; nothing when the filter does not keep a row about this.
    std::optional<std::size_t> place_of(const WatchTable& table, const WatchSubject& subject) const;

private:
    struct keyed
    {
        double key;
        std::uint32_t row;
        bool operator<(const keyed& other) const { return key != other.key ? key < other.key : row < other.row; }
    };
    std::vector<keyed> m_rows;
};

// Which columns a width has room for. first: how many of those that can move are passed over at the left; cut to what
// leaves no room unused. ordered: the column that is always in sight.
struct ColumnChoice
{
    std::vector<std::size_t> columns; // as they stand
    std::size_t first = 0;
    bool b_more = false; // at the right
};
ColumnChoice choose_columns(const WatchTable& table, std::size_t width, std::size_t ordered, std::size_t first);

// In front of each row: one column that says which row is selected and one for its mark.
inline constexpr std::size_t gutter_width = 2;

// A row of the table in these columns, and the line above it all with a "*" at the column that rows are ordered by.
std::string table_line(const WatchTable& table, const ColumnChoice& choice, std::size_t row, std::size_t width);
std::string table_head(const WatchTable& table, const ColumnChoice& choice, std::size_t ordered, std::size_t width);

// Columns whose values come from the elements of a list that outlives the table.
// value: what a row has; show: how that reads.
template <typename Rows, typename Value, typename Show>
WatchColumn number_column(std::string key, std::string title, std::size_t width, int importance, const Rows& rows,
                          Value value, Show show)
{
    WatchColumn column;
    column.key = std::move(key);
    column.title = std::move(title);
    column.width = width;
    column.importance = importance;
    column.b_number = true;
    column.text = [&rows, value, show](std::size_t row, std::size_t) { return std::string(show(value(rows[row]))); };
    column.order = [&rows, value](std::size_t row) { return static_cast<double>(value(rows[row])); };
    return column;
}

template <typename Rows, typename Text>
WatchColumn text_column(std::string key, std::string title, std::size_t width, int importance, const Rows& rows,
                        Text text)
{
    WatchColumn column;
    column.key = std::move(key);
    column.title = std::move(title);
    column.width = width;
    column.importance = importance;
    column.b_left = true;
    column.b_lowest_first = true;
    column.text = [&rows, text](std::size_t row, std::size_t) { return std::string(text(rows[row])); };
    return column;
}

// A text whose rows are ordered by a number.
template <typename Rows, typename Text, typename Value>
WatchColumn ordered_text_column(std::string key, std::string title, std::size_t width, int importance, const Rows& rows,
                                Text text, Value value)
{
    WatchColumn column = text_column(std::move(key), std::move(title), width, importance, rows, text);
    column.order = [&rows, value](std::size_t row) { return static_cast<double>(value(rows[row])); };
    return column;
}

// A column that rows are not ordered by.
template <typename Rows, typename Draw>
WatchColumn drawing_column(std::string title, std::size_t width, int importance, const Rows& rows, Draw draw)
{
    WatchColumn column;
    column.title = std::move(title);
    column.width = width;
    column.importance = importance;
    column.b_left = true;
    column.text = [&rows, draw](std::size_t row, std::size_t wide) { return std::string(draw(rows[row], wide)); };
    return column;
}

} // namespace kavstat
