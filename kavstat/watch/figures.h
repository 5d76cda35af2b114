// Figures of the live view that are shown one a line, each with its sparkline.
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
    double number = 0; // in the unit that the key names; not a number when it is not known
    std::string text;  // number and unit for people
    std::string total; // since the engine's start, or what else is worth knowing; may be empty
    std::vector<float> history;
    double highest = 0; // of the sparkline's scale; 0: the highest value in sight
    int importance = 0; // when there is no room for all, those of the lowest stay
    WatchStyle style = WatchStyle::plain;
};

// Traffic before and after, what was saved, NACKs. totals: of the same connections; may be null.
std::vector<WatchFigure> traffic_figures(const TrafficRates& rates, const TrafficHistory& history, bool b_rates,
                                         const ConnectionFigures* totals);
// Everything that the first page shows.
std::vector<WatchFigure> overview_figures(const WatchModel& model);

// A line each, at most `most` of them: those of little importance are left out first.
std::vector<WatchLine> figure_lines(const std::vector<WatchFigure>& figures, std::size_t width, std::size_t most,
                                    bool b_unicode);

// "CRITICAL peer 3 branch-3: messages nacked 1.20% (at most 0.10%), for at least 5 s"
WatchLine finding_line(const Finding& finding);

} // namespace kavstat
