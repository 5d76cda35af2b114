// A line of the live view.
#pragma once

#include <string>

namespace kavstat {

enum class WatchStyle
{
    plain,
    title,    // of the screen
    head,     // titles of a table's columns
    selected, // the row that Enter opens
    fresh,    // arrived since the last reading
    warning,
    critical,
    prompt, // for typing a filter
};

struct WatchLine
{
    std::string text;
    WatchStyle style = WatchStyle::plain;
};

} // namespace kavstat
