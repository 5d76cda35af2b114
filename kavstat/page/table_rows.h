// What the tables of entities share: cells, columns, and the selection of rows.
#pragma once

#include "format/json_writer.h"
#include "format/text.h"
#include "model/snapshot.h"
#include "page/entity_tables.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace kavstat {

// A cell; nothing where it is not known.
using TableCell = std::variant<std::monostate, long long, double, std::string>;

template <typename Row>
struct TableColumn
{
    const char* key;
    const char* title;
    const char* unit; // how it is shown; "key" is not shown, but names the row
    TableCell (*cell)(const Row& row);
};

// Rates per second of a row's traffic; nothing without an earlier moment.
struct RowRates
{
    std::optional<double> before;
    std::optional<double> after;

    TableCell saved() const;
};

TableCell cell_of(const std::optional<double>& value);
// Percent saved of all traffic since the start.
TableCell saved_of(double before, double after);
// "192.0.2.1:443"
std::string end_of_connection(std::uint32_t ip, unsigned int port);
// "low_compression" for people.
std::string spaced(std::string word);

// Whether a row with cell `one` comes before one with `other`. What is not known comes last, whichever way round.
bool comes_before(const TableCell& one, const TableCell& other, bool b_reverse);
// The text that a search looks at, in lower case.
std::string text_of_cell(const TableCell& cell);
void write_cell(JsonWriter& json, const TableCell& cell);
// Begins a table's document. seconds: the time that its rates cover; 0 without rates.
void write_table_head(JsonWriter& json, TableOf table, const Snapshot& now, double seconds);

// The rows that a query asks for: of those that contain its text the first ones, in its order.
template <typename Row>
class RowSelection
{
public:
    RowSelection(std::span<const TableColumn<Row>> columns, const TableQuery& query)
        : m_columns(columns), m_query(query), m_search(lower_case(query.search)),
          m_order(std::find_if(columns.begin(), columns.end(), [&](const TableColumn<Row>& column) {
                      return column.key == query.sort;
                  })->cell)
    {}

    void add(Row row)
    {
        if (!contains(row)) {
            return;
        }
        Ranked ranked{m_order(row), m_matching++, std::move(row)};
        if (m_rows.size() == m_query.top) {
            if (m_rows.empty() || !is_ahead(ranked, m_rows.front())) {
                return;
            }
            std::pop_heap(m_rows.begin(), m_rows.end(), ahead());
            m_rows.pop_back();
        }
        m_rows.push_back(std::move(ranked));
        std::push_heap(m_rows.begin(), m_rows.end(), ahead());
    }

    // Writes the table as a document. total: the number of all rows, also of those that do not match.
    void write_table(Output& output, TableOf table, const Snapshot& now, double seconds, std::size_t total)
    {
        JsonWriter json(output);
        write_table_head(json, table, now, seconds);
        write(json, total);
        json.end_object();
    }

    // Writes what follows the head.
    void write(JsonWriter& json, std::size_t total)
    {
        std::sort_heap(m_rows.begin(), m_rows.end(), ahead());
        json.member("total", static_cast<long long>(total));
        json.member("matching", static_cast<long long>(m_matching));
        json.member_text("sort", m_query.sort);
        json.member_boolean("reverse", m_query.b_reverse);
        json.key("columns");
        json.begin_array();
        for (const TableColumn<Row>& column : m_columns) {
            json.begin_object();
            json.member_text("key", column.key);
            json.member_text("title", column.title);
            json.member_text("unit", column.unit);
            json.end_object();
        }
        json.end_array();
        json.key("rows");
        json.begin_array();
        for (const Ranked& ranked : m_rows) {
            json.begin_array();
            for (const TableColumn<Row>& column : m_columns) {
                write_cell(json, column.cell(ranked.row));
            }
            json.end_array();
        }
        json.end_array();
    }

private:
    struct Ranked
    {
        TableCell order;
        std::size_t place; // among those that match, for rows that are equal otherwise
        Row row;
    };

    bool is_ahead(const Ranked& one, const Ranked& other) const
    {
        if (comes_before(one.order, other.order, m_query.b_reverse)) {
            return true;
        }
        return !comes_before(other.order, one.order, m_query.b_reverse) && one.place < other.place;
    }
    auto ahead() const
    {
        return [this](const Ranked& one, const Ranked& other) { return is_ahead(one, other); };
    }

    bool contains(const Row& row) const
    {
        return m_search.empty() || std::any_of(m_columns.begin(), m_columns.end(), [&](const TableColumn<Row>& column) {
                   const std::string_view unit = column.unit;
                   const bool b_text = unit == "text" || unit == "number" || unit == "key";
                   return b_text && text_of_cell(column.cell(row)).find(m_search) != std::string::npos;
               });
    }

    std::span<const TableColumn<Row>> m_columns;
    TableQuery m_query;
    std::string m_search;
    TableCell (*m_order)(const Row&);
    std::size_t m_matching = 0;
    std::vector<Ranked> m_rows; // a heap, the last row in front
};

template <typename Row>
bool has_column_in(std::span<const TableColumn<Row>> columns, const std::string& key)
{
    return std::any_of(columns.begin(), columns.end(),
                       [&](const TableColumn<Row>& column) { return column.key == key; });
}

// Whether the table of these entities has a column of that key.
bool is_peer_column(const std::string& key);
bool is_application_column(const std::string& key);
bool is_connection_column(const std::string& key);
bool is_nack_column(const std::string& key);
bool is_bypass_column(const std::string& key);
bool is_setting_column(const std::string& key);

} // namespace kavstat
