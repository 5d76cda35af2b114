// A chart as one picture, for reports, tickets and mails.
#pragma once

#include "charts/chart_rows.h"
#include "format/output.h"

#include <string>

namespace kavstat {

// subject: whom the chart is about, any bytes; may be empty.
void write_svg(const Chart& chart, const ChartRows& rows, const std::string& subject, Output& output);

} // namespace kavstat
