// The page with its data inside: one file, which needs neither server nor engine.
#pragma once

#include "charts/chart_rows.h"
#include "health/report.h"
#include "model/source.h"
#include "page/live_history.h"

#include <vector>

namespace kavstat {

// What the page shows.
struct PageData
{
    const HealthReport& health;
    RE_image_reader& reader; // open
    TwoMoments moments;      // moments.now: what was taken from the reader
    std::vector<ChartRows> histories;
};

// How many rows of a history a report has room for, when there are so many histories of the engine and of peers.
std::size_t points_in_report(std::size_t histories);
// The same for histories of applications.
std::size_t points_of_app_in_report(std::size_t histories);

void write_page_report(const PageData& data, Output& output);

} // namespace kavstat
