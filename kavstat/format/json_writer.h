// Writes JSON piece by piece, so that a document of a million connections needs no more memory than one number. Numbers
// are written with all their digits. nlohmann-json escapes texts as pure ASCII and replaces bytes that are not UTF-8 by
// U+FFFD, so that they are harmless to parsers and terminals.
#pragma once

#include "format/output.h"

#include <cstdint>
#include <string_view>

namespace kavstat {

class JsonWriter
{
public:
    // output: outlives this object.
    explicit JsonWriter(Output& output) : m_output(output) {}

    void begin_object() { begin('{'); }
    void end_object() { end('}'); }
    void begin_array() { begin('['); }
    void end_array() { end(']'); }
    // key: without anything to escape.
    void key(std::string_view key);

    void number(long long value);
    void number(std::uint64_t value);
    // The shortest digits that mean this number; null when it is infinite or none.
    void real(double value);
    void boolean(bool b_value);
    void null();
    void text(std::string_view value);

    // One key and its value.
    void member(std::string_view name, long long value)
    {
        key(name);
        number(value);
    }
    void member_text(std::string_view name, std::string_view value)
    {
        key(name);
        text(value);
    }
    void member_boolean(std::string_view name, bool b_value)
    {
        key(name);
        boolean(b_value);
    }

private:
    void begin(char bracket);
    void end(char bracket);
    // Writes the separator before a value or key: a comma, and a line break in indented documents.
    void separate();

    Output& m_output;
    int m_depth = 0;
    bool m_b_first = true; // the innermost object or array is still empty
    bool m_b_behind_key = false;
};

} // namespace kavstat
