#include "format/json_writer.h"

#include <nlohmann/json.hpp>

#include <charconv>
#include <cmath>
#include <string>

namespace kavstat {

namespace {

// Sections and their entries start on lines of their own; an entry's inside stays on its line.
constexpr int deepest_line = 2;

} // namespace

void JsonWriter::separate()
{
    if (m_b_behind_key) {
        m_b_behind_key = false;
        return;
    }
    if (!m_b_first) {
        m_output.add(',');
    }
    if (m_depth > 0 && m_depth <= deepest_line) {
        m_output.add('\n');
    }
    m_b_first = false;
}

void JsonWriter::begin(char bracket)
{
    separate();
    m_output.add(bracket);
    ++m_depth;
    m_b_first = true;
}

void JsonWriter::end(char bracket)
{
    m_output.add(bracket);
    --m_depth;
    m_b_first = false;
    if (m_depth == 0) {
        m_output.add('\n');
    }
}

void JsonWriter::key(std::string_view key)
{
    separate();
    m_output.add('"');
    m_output.add(key);
    m_output.add("\":");
    m_b_behind_key = true;
}

void JsonWriter::number(long long value)
{
    separate();
    m_output.add_number(value);
}

void JsonWriter::number(std::uint64_t value)
{
    separate();
    m_output.add(std::to_string(value));
}

void JsonWriter::real(double value)
{
    if (!std::isfinite(value)) {
        null();
        return;
    }
    separate();
    char digits[32];
    const auto [end, error] = std::to_chars(digits, digits + sizeof digits, value);
    m_output.add(std::string_view(digits, static_cast<std::size_t>(end - digits)));
}

void JsonWriter::boolean(bool b_value)
{
    separate();
    m_output.add(b_value ? "true" : "false");
}

void JsonWriter::null()
{
    separate();
    m_output.add("null");
}

void JsonWriter::text(std::string_view value)
{
    separate();
    constexpr bool b_ascii = true;
    m_output.add(nlohmann::json(value).dump(-1, ' ', b_ascii, nlohmann::json::error_handler_t::replace));
}

} // namespace kavstat
