// Figures of the live view, one per line, each with a sparkline.
#pragma once

#include "watch/line.h"
#include "watch/model.h"

#include <cstddef>
#include <string>
#include <vector>

namespace kavstat {

struct WatchFigure
{
    std::string key; // in JSON, with its unit: "saved_ratio"
    std::string label;
    double number = 0; // in the unit that the key names; NaN if unknown
    std::string text;  // number and unit for people
    std::string total; // since the engine's start, or another text; may be empty
    std::vector<float> history;
    double highest = 0; // of the sparkline's scale; 0: the highest visible value
    int importance = 0; // if there is no room for all figures, those with the lowest number remain
    WatchStyle style = WatchStyle::plain;
};

// Returns traffic before and after, savings and NACKs. totals: of the same connections; may be null.
std::vector<WatchFigure> traffic_figures(const TrafficRates& rates, const TrafficHistory& history, bool b_rates,
                                         const ConnectionFigures* totals);
// Returns all figures of the overview page.
std::vector<WatchFigure> overview_figures(const WatchModel& model);

// Returns one line per figure. If there are more than `most`, the least important figures are left out.
std::vector<WatchLine> figure_lines(const std::vector<WatchFigure>& figures, std::size_t width, std::size_t most,
                                    bool b_unicode);

// "CRITICAL peer 3 branch-3: messages nacked 1.20% (should be at most 0.10%), for at least 5 s"
WatchLine finding_line(const Finding& finding);

// Breaks the line's text between words. The second and further lines begin with the indent.
std::vector<WatchLine> wrapped_line(const WatchLine& line, std::size_t width, std::size_t indent);

} // namespace kavstat
