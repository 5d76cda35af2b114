#include "page/table_rows.h"

#include "model/change.h"

namespace kavstat {

namespace {

struct CellWriter
{
    void operator()(std::monostate) const { json.null(); }
    void operator()(long long value) const { json.number(value); }
    void operator()(double value) const { json.real(value); }
    void operator()(const std::string& value) const { json.text(value); }

    JsonWriter& json;
};

// What a number is ordered by; nothing for texts and unknown cells.
std::optional<double> order_of(const TableCell& cell)
{
    if (const auto* const whole = std::get_if<long long>(&cell)) {
        return static_cast<double>(*whole);
    }
    const auto* const real = std::get_if<double>(&cell);
    return real != nullptr ? std::optional(*real) : std::nullopt;
}

} // namespace

TableCell RowRates::saved() const
{
    const bool b_traffic = before && after && (*before > 0 || *after > 0);
    return b_traffic ? TableCell(saved_percent(*before, *after)) : TableCell();
}

TableCell cell_of(const std::optional<double>& value)
{
    return value ? TableCell(*value) : TableCell();
}

TableCell saved_of(double before, double after)
{
    return before > 0 || after > 0 ? TableCell(saved_percent(before, after)) : TableCell();
}

std::string spaced(std::string word)
{
    std::replace(word.begin(), word.end(), '_', ' ');
    return word;
}

std::string end_of_connection(std::uint32_t ip, unsigned int port)
{
    return ip_text(ip) + ":" + std::to_string(port);
}

bool comes_before(const TableCell& one, const TableCell& other, bool b_reverse)
{
    const bool b_one = !std::holds_alternative<std::monostate>(one);
    const bool b_other = !std::holds_alternative<std::monostate>(other);
    if (!b_one || !b_other) {
        return b_one && !b_other;
    }
    const auto* const text = std::get_if<std::string>(&one);
    const auto* const other_text = std::get_if<std::string>(&other);
    if (text != nullptr && other_text != nullptr) {
        return b_reverse ? *other_text < *text : *text < *other_text;
    }
    // The values of settings are both. Numbers come before texts.
    if ((text == nullptr) != (other_text == nullptr)) {
        return (text == nullptr) != b_reverse;
    }
    const double number = order_of(one).value_or(0);
    const double other_number = order_of(other).value_or(0);
    return b_reverse ? number < other_number : number > other_number;
}

std::string text_of_cell(const TableCell& cell)
{
    if (const auto* const number = std::get_if<long long>(&cell)) {
        return std::to_string(*number);
    }
    const auto* const text = std::get_if<std::string>(&cell);
    return text != nullptr ? lower_case(*text) : "";
}

void write_cell(JsonWriter& json, const TableCell& cell)
{
    std::visit(CellWriter{json}, cell);
}

void write_table_head(JsonWriter& json, TableOf table, const Snapshot& now, double seconds)
{
    json.begin_object();
    json.member("kavstat_table", table_json_version);
    json.member_text("of", word_of(table));
    json.member("engine_start_time", static_cast<long long>(now.engine_start_time));
    json.member("capture_time", static_cast<long long>(now.capture_time));
    json.key("seconds");
    if (seconds > 0) {
        json.real(seconds);
    } else {
        json.null();
    }
}

} // namespace kavstat
