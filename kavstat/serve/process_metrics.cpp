#include "serve/process_metrics.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>

namespace kavstat {

namespace {

std::string text_of_seconds(double seconds)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.6f", seconds);
    return text;
}

double processor_seconds()
{
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

} // namespace

void write_process_metrics(Output& output, MetricsFormat format, double start_time)
{
    write_metric(output, format, MetricType::counter, "process_cpu_seconds_total",
                 "Total user and system CPU time spent in seconds.", text_of_seconds(processor_seconds()));
    std::error_code error;
    const auto open = std::distance(std::filesystem::directory_iterator("/proc/self/fd", error),
                                    std::filesystem::directory_iterator());
    if (!error) {
        write_metric(output, format, MetricType::gauge, "process_open_fds", "Number of open file descriptors.",
                     std::to_string(open));
    }
    rlimit descriptors{};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    write_metric(output, format, MetricType::gauge, "process_max_fds", "Maximum number of open file descriptors.",
                 std::to_string(descriptors.rlim_cur));
    long long virtual_pages = 0;
    long long resident_pages = 0;
    if (std::ifstream("/proc/self/statm") >> virtual_pages >> resident_pages) {
        const long long page = sysconf(_SC_PAGESIZE);
        write_metric(output, format, MetricType::gauge, "process_virtual_memory_bytes", "Virtual memory size in bytes.",
                     std::to_string(virtual_pages * page));
        write_metric(output, format, MetricType::gauge, "process_resident_memory_bytes",
                     "Resident memory size in bytes.", std::to_string(resident_pages * page));
    }
    write_metric(output, format, MetricType::gauge, "process_start_time_seconds",
                 "Start time of the process since unix epoch in seconds.", text_of_seconds(start_time));
}

} // namespace kavstat
