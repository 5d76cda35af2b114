// A table of the live view. Its columns contain the functions that format and order rows. Only visible rows are
// formatted, and only the columns that fit on the screen.
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
    std::string key;   // its name for --sort and in JSON; empty for sparklines, by which rows cannot be ordered
    std::string title; // upper case, narrower than `width`
    std::size_t width = 0;
    // 0: identifies the row and is always visible. Of the other columns, those with the lowest number are chosen first.
    int importance = 1;
    bool b_left = false;
    bool b_lowest_first = false;
    bool b_number = false; // in JSON
    std::function<std::string(std::size_t row, std::size_t width)> text;
    // The value by which rows are ordered. Without it, they are ordered by the text.
    std::function<double(std::size_t row)> order;
};

// A mark before a row, so that no information is in the colour alone.
struct WatchMark
{
    char letter = ' ';
    WatchStyle style = WatchStyle::plain;
};

// Returns "C" or "W" for the severity of a finding, and a blank without one.
WatchMark mark_of(std::optional<Severity> severity);

struct WatchTable
{
    std::vector<WatchColumn> columns; // the last one, if visible, fills the remaining width
    std::size_t rows = 0;
    // The subject of a row. Without it, rows have no identity.
    std::function<WatchSubject(std::size_t row)> subject;
    // Whether the row exists. Without it, all rows exist.
    std::function<bool(std::size_t row)> is_there;
    // The text in which a filter searches.
    std::function<std::string(std::size_t row)> search;
    // `search` depends on `subject` only, so the result of a filter is kept between readings.
    bool b_search_is_lasting = false;
    std::function<WatchMark(std::size_t row)> mark;

    std::optional<std::size_t> column(const std::string& key) const;
};

// Remembers which rows a filter matches between readings.
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

// The rows that a filter matches, ordered by a column: numbers in descending, texts in ascending order. b_reverse
// reverses it. Equal rows keep the order of the table.
class RowOrder
{
public:
    RowOrder(const WatchTable& table, std::size_t column, bool b_reverse, RowFilter& filter);

    std::size_t size() const { return m_rows.size(); }
    // Returns the rows at the positions from `first` to `first + count`. Needs little more than one pass over all rows.
    std::vector<std::size_t> window(std::size_t first, std::size_t count);
    // Returns the position of the row; empty if the filter matches no row with this subject.
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

// Chooses the columns that fit into a width. first: how many of the columns that can scroll are skipped at the left; it
// is reduced if space would remain unused. ordered: a column that is always visible.
struct ColumnChoice
{
    std::vector<std::size_t> columns; // from left to right
    std::size_t first = 0;
    bool b_more = false; // there are further columns at the right
};
ColumnChoice choose_columns(const WatchTable& table, std::size_t width, std::size_t ordered, std::size_t first);

// Before each row: one column for the selection and one for its mark.
inline constexpr std::size_t gutter_width = 2;

// Format a row of the table in these columns, and the titles with a "*" at the column by which rows are ordered.
std::string table_line(const WatchTable& table, const ColumnChoice& choice, std::size_t row, std::size_t width);
std::string table_head(const WatchTable& table, const ColumnChoice& choice, std::size_t ordered, std::size_t width);

// Columns whose values come from the elements of a list that outlives the table.
// value: returns the value of a row; show: formats it.
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

// A column with texts that is ordered by a number.
template <typename Rows, typename Text, typename Value>
WatchColumn ordered_text_column(std::string key, std::string title, std::size_t width, int importance, const Rows& rows,
                                Text text, Value value)
{
    WatchColumn column = text_column(std::move(key), std::move(title), width, importance, rows, text);
    column.order = [&rows, value](std::size_t row) { return static_cast<double>(value(rows[row])); };
    return column;
}

// A column by which rows cannot be ordered.
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
