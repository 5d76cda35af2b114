#include "watch/page.h"

#include "format/units.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>

namespace kavstat {

namespace {

constexpr std::size_t longest_filter = 60;
// The lines above a table use at most half of a small screen and a few lines of a large one.
constexpr std::size_t least_rows = 8;
// For a pipe or a log: wide enough for all columns of each page.
constexpr std::size_t paper_width = 240;

// Returns a column of a row as JSON.
nlohmann::json json_of(const WatchColumn& column, std::size_t row)
{
    if (!column.b_number) {
        return column.text(row, column.width);
    }
    const double number = column.order(row);
    if (!std::isfinite(number)) {
        return nullptr;
    }
    constexpr double largest_exact = 9007199254740992; // 2^53
    if (number == std::floor(number) && std::abs(number) <= largest_exact) {
        return static_cast<long long>(number);
    }
    return number;
}

} // namespace

std::size_t TablePage::ordered_column(const WatchTable& table) const
{
    return table.column(m_order).value_or(0);
}

std::vector<std::size_t> TablePage::rows_in_sight(const WatchTable& table, RowOrder& order, std::size_t room)
{
    const std::size_t last = order.size() > 0 ? order.size() - 1 : 0;
    if (m_b_follow && !m_b_moved) {
        m_place = order.place_of(table, m_selected).value_or(m_place);
    }
    m_place = std::min(m_place, last);
    m_room = std::max<std::size_t>(room, 1);
    m_first_row = std::min({m_first_row, m_place, order.size() > m_room ? order.size() - m_room : 0});
    m_first_row = std::max(m_first_row, m_place + 1 > m_room ? m_place + 1 - m_room : 0);
    std::vector<std::size_t> rows = order.window(m_first_row, room);
    m_selected = {};
    if (table.subject && m_place - m_first_row < rows.size()) {
        m_selected = table.subject(rows[m_place - m_first_row]);
    }
    m_b_moved = false;
    return rows;
}

std::vector<WatchLine> TablePage::lines(const WatchModel& model, const WatchFrame& frame)
{
    std::vector<WatchLine> lines;
    if (m_content.heading) {
        const std::size_t most = std::max(frame.height / 2, frame.height - std::min(frame.height, least_rows));
        lines = m_content.heading(model, {frame.width, most, frame.b_unicode});
    }
    if (m_b_typing || !m_filter.is_empty()) {
        lines.push_back({"filter: " + m_filter.text() + (m_b_typing ? "_" : ""), WatchStyle::prompt});
    }
    const WatchTable table = m_content.table(model, frame);
    m_keys.clear();
    for (const WatchColumn& column : table.columns) {
        if (!column.key.empty()) {
            m_keys.push_back(column.key);
        }
    }
    const std::size_t ordered = ordered_column(table);
    RowOrder order(table, ordered, m_b_reverse, m_filter);
    const ColumnChoice choice = choose_columns(table, frame.width, ordered, m_first_column);
    m_first_column = choice.first;
    lines.push_back({table_head(table, choice, ordered, frame.width), WatchStyle::head});
    const std::size_t room = frame.height > lines.size() ? frame.height - lines.size() : 0;
    const std::vector<std::size_t> rows = rows_in_sight(table, order, room);
    for (std::size_t at = 0; at < rows.size(); ++at) {
        const bool b_selected = table.subject && m_first_row + at == m_place;
        const WatchMark mark = table.mark ? table.mark(rows[at]) : WatchMark();
        std::string text{b_selected ? '>' : ' ', mark.letter};
        text += table_line(table, choice, rows[at], frame.width);
        // A selected row with a finding keeps its colour; the ">" shows the selection.
        const bool b_plain = mark.style == WatchStyle::plain;
        lines.push_back({text, b_selected && b_plain ? WatchStyle::selected : mark.style});
    }
    if (rows.empty()) {
        lines.push_back({"  (none)"});
    }
    lines.resize(std::min(lines.size(), frame.height));
    return lines;
}

std::vector<WatchLine> TablePage::report(const WatchModel& model, bool b_unicode)
{
    std::vector<WatchLine> lines;
    const WatchFrame paper{paper_width, History::most_values, b_unicode};
    if (m_content.heading) {
        lines = m_content.heading(model, paper);
    }
    const WatchTable table = m_content.table(model, paper);
    const std::size_t ordered = ordered_column(table);
    RowOrder order(table, ordered, m_b_reverse, m_filter);
    const ColumnChoice choice = choose_columns(table, paper_width, ordered, 0);
    lines.push_back({table_head(table, choice, ordered, paper_width), WatchStyle::head});
    for (const std::size_t row : order.window(0, order.size())) {
        const WatchMark mark = table.mark ? table.mark(row) : WatchMark();
        lines.push_back({std::string{' ', mark.letter} + table_line(table, choice, row, paper_width), mark.style});
    }
    return lines;
}

void TablePage::write_rows(const WatchModel& model, Output& output)
{
    const WatchTable table = m_content.table(model, {paper_width, 0, false});
    RowOrder order(table, ordered_column(table), m_b_reverse, m_filter);
    bool b_first = true;
    for (const std::size_t row : order.window(0, order.size())) {
        nlohmann::ordered_json object = nlohmann::ordered_json::object();
        for (const WatchColumn& column : table.columns) {
            if (!column.key.empty()) {
                object[column.key] = json_of(column, row);
            }
        }
        output.add(b_first ? "" : ",");
        output.add(object.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace));
        b_first = false;
    }
}

void TablePage::press_in_filter(int key)
{
    std::string text = m_filter.text();
    if (key == WATCH_KEY_ENTER) {
        m_b_typing = false;
        return;
    }
    if (key == WATCH_KEY_ESCAPE) {
        m_b_typing = false;
        text.clear();
    } else if (key == WATCH_KEY_BACKSPACE) {
        text = text.substr(0, text.empty() ? 0 : text.size() - 1);
    } else if (key >= ' ' && key <= '~' && text.size() < longest_filter) {
        text += static_cast<char>(key);
    }
    m_filter.set(text);
}

void TablePage::next_order(bool b_forwards)
{
    const auto found = std::find(m_keys.begin(), m_keys.end(), m_order);
    if (found != m_keys.end()) {
        const auto at = static_cast<std::size_t>(found - m_keys.begin());
        m_order = m_keys[(at + (b_forwards ? 1 : m_keys.size() - 1)) % m_keys.size()];
    }
}

void TablePage::move(std::ptrdiff_t by)
{
    const auto size = static_cast<std::size_t>(std::abs(by));
    m_place = by < 0 ? m_place - std::min(m_place, size) : m_place + size;
    m_b_moved = true;
    m_b_follow = true;
}

bool TablePage::press(int key)
{
    if (m_b_typing) {
        press_in_filter(key);
        return true;
    }
    const auto page = static_cast<std::ptrdiff_t>(m_room);
    switch (key) {
    case 's':
    case 'S':
        next_order(key == 's');
        return true;
    case 'r':
        m_b_reverse = !m_b_reverse;
        return true;
    case '/':
        m_b_typing = true;
        return true;
    case WATCH_KEY_ESCAPE:
        if (m_filter.is_empty()) {
            return false;
        }
        m_filter.set("");
        return true;
    case 'k':
    case WATCH_KEY_UP:
        move(-1);
        return true;
    case 'j':
    case WATCH_KEY_DOWN:
        move(1);
        return true;
    case WATCH_KEY_PAGE_UP:
        move(-page);
        return true;
    case ' ':
    case WATCH_KEY_PAGE_DOWN:
        move(page);
        return true;
    case WATCH_KEY_HOME:
        // From now on, the first row is selected.
        m_place = 0;
        m_b_follow = false;
        return true;
    case WATCH_KEY_END:
        m_place = 0;
        move(static_cast<std::ptrdiff_t>(WatchModel::most_rows));
        return true;
    case WATCH_KEY_LEFT:
        m_first_column -= std::min<std::size_t>(m_first_column, 1);
        return true;
    case WATCH_KEY_RIGHT:
        ++m_first_column;
        return true;
    default:
        return false;
    }
}

std::vector<std::string> TablePage::order_keys() const
{
    std::vector<std::string> keys;
    for (const WatchColumn& column : m_content.table(WatchModel(), {paper_width, 0, false}).columns) {
        if (!column.key.empty()) {
            keys.push_back(column.key);
        }
    }
    return keys;
}

void TablePage::order_by(const std::string& key, bool b_reverse)
{
    m_order = key;
    m_b_reverse = b_reverse;
}

} // namespace kavstat
