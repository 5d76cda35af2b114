// A line of the live view.
#pragma once

#include <string>

namespace kavstat {

enum class WatchStyle
{
    plain,
    title,    // what all this is
    head,     // above a table's columns
    selected, // the row that Enter opens
    fresh,    // has just arrived
    warning,
    critical,
    prompt, // where a filter is typed
};

struct WatchLine
{
    std::string text;
    WatchStyle style = WatchStyle::plain;
};

} // namespace kavstat
