// Metrics of this process, under the names that Prometheus' client libraries use.
#pragma once

#include "documents/metrics.h"

namespace kavstat {

// start_time: of the process, seconds since the epoch.
void write_process_metrics(Output& output, MetricsFormat format, double start_time);

} // namespace kavstat
