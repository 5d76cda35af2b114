// Metrics of the serving process, under the names that client libraries of Prometheus use.
#pragma once

#include "documents/metrics.h"

namespace kavstat {

// start_time: of the process, seconds since the epoch.
void write_process_metrics(Output& output, MetricsFormat format, double start_time);

} // namespace kavstat
