// Difficult conditions: no memory, few descriptors, unusual clocks, many viewers at once. The report has the same bytes
// as always, or the viewer reports by status 1 that it failed.
#include "support/engine_shapes.h"
#include "torture.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <memory>
#include <string_view>

namespace {

constexpr engine_shape some = {5, 40, 10, 20, 5};

// The names of viewers that are built for these campaigns.
constexpr const char* failing_viewer = "viewer_failing_allocations";
constexpr const char* other_clock_viewer = "viewer_other_clock";

program_result run_other_viewer(const char* name, const std::vector<std::string>& report,
                                const run_surroundings& surroundings)
{
    return child_program(built_program(name), report, surroundings).finish();
}

std::ptrdiff_t lines_of(const std::string& text)
{
    return std::count(text.begin(), text.end(), '\n');
}

// Whether the viewer reports missing memory after at most a part of the report.
bool is_told(const program_result& end, const std::string& whole)
{
    constexpr std::string_view message = "exec_show_stats_kav: out of memory\n";
    if (end.status != 1) {
        return false;
    }
    if (end.out.ends_with(message)) {
        return whole.starts_with(end.out.substr(0, end.out.size() - message.size()));
    }
    return end.out.ends_with("bject not initialized\n") || end.out.ends_with("error code: -9\n");
}

// Makes each allocation of the report fail in turn. how: "" for this one only, "+" for all later ones as well. The time
// zone must be read from a file. Returns the number of runs that ended with status 1.
unsigned long fail_allocations_of(const std::vector<std::string>& report, const std::string& how, tally& result)
{
    run_surroundings surroundings{.environment = {{"TZ", "Asia/Kathmandu"}}};
    const std::string whole = run_viewer(report, surroundings).out;
    unsigned long refused = 0;
    constexpr int allocations_at_most = 2000;
    for (int which = 1; which <= allocations_at_most; ++which) {
        const std::string number = std::to_string(which) + how;
        surroundings.environment.resize(1);
        surroundings.environment.emplace_back("KAV_FAIL_ALLOCATION", number);
        const program_result end = run_other_viewer(failing_viewer, report, surroundings);
        const bool b_same = end.status == 0 && end.out == whole;
        refused += end.status == 1 ? 1U : 0U;
        result.add(b_same || is_told(end, whole), words_of(report) + ", allocation " + number + ": " + end_of(end));
        // The allocator reports each failure on standard error. Without a report, there are no more allocations.
        if (end.err.empty()) {
            break;
        }
    }
    return refused;
}

} // namespace

void fail_allocations(const torture_options& options, tally& result)
{
    RE_stat_writer engine;
    publish_sample(engine, some);
    const std::string saved = options.folder + "/saved";
    run_viewer({"save-file", saved});
    std::vector<std::vector<std::string>> reports = all_reports();
    reports.push_back({"read-file", saved});
    reports.push_back({"save-file", saved});
    reports.push_back({"top-app", "from-file", saved});
    unsigned long refused = 0;
    for (const auto& report : reports) {
        refused += fail_allocations_of(report, "", result);
        refused += fail_allocations_of(report, "+", result);
    }
    result.note("told by status 1: " + std::to_string(refused));
}

namespace {

// Stops and continues the viewer as fast as possible, which interrupts every call that waits.
program_result run_interrupted(const std::vector<std::string>& report)
{
    child_program viewer(built_program("exec_show_stats_kav"), report);
    for (int times = 0; times < 200; ++times) {
        viewer.send_signal(SIGSTOP);
        viewer.send_signal(SIGCONT);
    }
    return viewer.finish();
}

// Interrupts every second system call of one kind before it has an effect.
program_result run_with_injection(const std::string& injection, const std::vector<std::string>& report)
{
    std::vector<std::string> words{"-o", "/dev/null", "-e", injection, built_program("exec_show_stats_kav")};
    words.insert(words.end(), report.begin(), report.end());
    return child_program("/usr/bin/strace", words).finish();
}

} // namespace

void starve_viewer(const torture_options&, tally& result)
{
    RE_stat_writer engine;
    publish_sample(engine, some);
    const std::pair<const char*, std::pair<int, rlim_t>> limits[] = {
        {"address space of 16 MB", {RLIMIT_AS, 16U << 20U}},
        {"data of 4 MB", {RLIMIT_DATA, 4U << 20U}},
        {"stack of 256 KB", {RLIMIT_STACK, 256U << 10U}},
        {"4 descriptors", {RLIMIT_NOFILE, 4}},
        {"files of 1 KB", {RLIMIT_FSIZE, 1024}},
        {"no core file", {RLIMIT_CORE, 0}},
        {"no locked memory", {RLIMIT_MEMLOCK, 0}},
    };
    for (const auto& report : all_reports()) {
        const std::string whole = run_viewer(report).out;
        for (const auto& [name, limit] : limits) {
            run_surroundings surroundings;
            surroundings.limits = {limit};
            const program_result end = run_viewer(report, surroundings);
            result.add(end.status == 0 && end.out == whole, words_of(report) + ", " + name + ": " + end_of(end));
        }
        const program_result stopped = run_interrupted(report);
        result.add(stopped.status == 0 && stopped.out == whole, words_of(report) + ", stopped: " + end_of(stopped));
        for (const char* const injection : {"inject=write:error=EINTR:when=1+2", "inject=read:error=EINTR:when=1+2",
                                            "inject=write:error=EAGAIN:when=1+2"}) {
            const program_result end = run_with_injection(injection, report);
            result.add(end.status == 0 && end.out == whole, words_of(report) + ", " + injection + ": " + end_of(end));
        }
    }
}

void turn_clocks(const torture_options&, tally& result)
{
    RE_stat_writer engine;
    publish_sample(engine, some);
    constexpr long long two_to_the_31 = 1LL << 31U;
    constexpr long long moments[] = {
        0,
        1,
        -1,
        sample_start - 1000000, // the clock was set back after the engine's start
        two_to_the_31 - 1,
        two_to_the_31,
        2 * two_to_the_31 - 1,
        2 * two_to_the_31,
        -two_to_the_31,
        253402300800LL, // year 10000
        INT64_MAX,
        INT64_MIN,
    };
    const std::pair<const char*, std::string> variables[] = {
        {"TZ", "Asia/Kathmandu"},   {"TZ", "Pacific/Apia"},
        {"TZ", "America/New_York"}, {"TZ", ":/etc/passwd"},
        {"TZ", "../../etc/passwd"}, {"TZ", ""},
        {"TZ", "<+99>-99:99:99"},   {"TZ", std::string(10000, 'A')},
        {"LC_ALL", "de_DE.UTF-8"},  {"LC_NUMERIC", "fr_FR.UTF-8"},
        {"LANG", "ar_EG.UTF-8"},    {"LC_ALL", std::string(10000, 'x')},
        {"POSIXLY_CORRECT", "1"},   {"LOCPATH", "/nowhere"},
        {"MALLOC_PERTURB_", "165"}, {"GLIBC_TUNABLES", "glibc.malloc.tcache_count=0"},
    };
    for (const auto& report : all_reports()) {
        const std::string whole = run_viewer(report).out;
        for (const long long moment : moments) {
            const program_result end = run_other_viewer(other_clock_viewer, report,
                                                        {.environment = {{"KAV_TEST_NOW", std::to_string(moment)}}});
            result.add(end.status == 0 && lines_of(end.out) == lines_of(whole),
                       words_of(report) + " at " + std::to_string(moment) + ": " + end_of(end));
        }
        for (const auto& [name, value] : variables) {
            run_surroundings surroundings;
            surroundings.environment = {{name, value}};
            const program_result end = run_viewer(report, surroundings);
            const bool b_same = std::string(name) == "TZ" ? lines_of(end.out) == lines_of(whole) : end.out == whole;
            result.add(end.status == 0 && b_same,
                       words_of(report) + ", " + name + "=" + value.substr(0, 40) + ": " + end_of(end));
        }
    }
    result.note("times of day alone may change with the clock and the zone");
}

void start_many_viewers(const torture_options& options, tally& result)
{
    RE_stat_writer engine;
    publish_sample(engine, some);
    std::vector<std::string> whole;
    for (const auto& report : all_reports()) {
        whole.push_back(run_viewer(report).out);
    }
    std::vector<std::unique_ptr<child_program>> viewers;
    const std::string viewer = built_program("exec_show_stats_kav");
    // Stops each viewer as soon as it exists, so that all exist before the first one continues.
    for (unsigned long at = 0; at < options.count; ++at) {
        viewers.push_back(std::make_unique<child_program>(viewer, all_reports()[at % all_reports().size()]));
        viewers.back()->send_signal(SIGSTOP);
    }
    for (const auto& each : viewers) {
        each->send_signal(SIGCONT);
    }
    for (unsigned long at = 0; at < options.count; ++at) {
        const program_result end = viewers[at]->finish();
        result.add(end.status == 0 && end.out == whole[at % whole.size()],
                   words_of(all_reports()[at % all_reports().size()]) + ": " + end_of(end));
    }
}
