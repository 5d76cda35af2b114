// Compares whole programs. They run in turn, many times, so that variations of the machine affect all of them alike.
//
//     bench_pairs [--rounds N] [--memory] -- PROGRAM [WORD...] -- PROGRAM [WORD...] [-- ...]
//
// --rounds N   default 200
// --memory     standard output goes to a file in memory, which is emptied before each run, instead of /dev/null
//
// Prints one line per program, with its fields separated by tabs: median wall time in microseconds; median ratio of the
// first program's time to this program's time in the same round; system calls; page faults; peak memory in KB; bytes
// printed (0 without --memory).
#include "support/program_cost.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct candidate
{
    program_words words;
    std::vector<double> seconds;
    std::vector<double> ratios; // the first program's time divided by this one's
    long page_faults = 0;
    long output_size = 0;
};

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

long run_once(candidate& program, int output)
{
    if (output >= 0 && (ftruncate(output, 0) != 0 || lseek(output, 0, SEEK_SET) != 0)) {
        std::perror("memory");
        std::exit(1);
    }
    const program_cost cost = timed_run(program.words, output);
    program.seconds.push_back(cost.seconds);
    program.page_faults = cost.page_faults;
    return output >= 0 ? static_cast<long>(lseek(output, 0, SEEK_CUR)) : 0;
}

} // namespace

int main(int argc, char** argv)
{
    int rounds = 200;
    int output = -1;
    std::vector<candidate> programs;
    for (int at = 1; at < argc; ++at) {
        if (std::strcmp(argv[at], "--") == 0) {
            programs.emplace_back();
        } else if (!programs.empty()) {
            programs.back().words.emplace_back(argv[at]);
        } else if (std::strcmp(argv[at], "--memory") == 0) {
            output = memfd_create("output", 0);
        } else if (std::strcmp(argv[at], "--rounds") == 0 && at + 1 < argc) {
            rounds = std::max(std::atoi(argv[++at]), 1);
        }
    }
    if (programs.empty() ||
        std::any_of(programs.begin(), programs.end(), [](const candidate& each) { return each.words.empty(); })) {
        std::fputs("usage: bench_pairs [--rounds N] [--memory] -- PROGRAM [WORD...] -- PROGRAM [WORD...] [-- ...]\n",
                   stderr);
        return 2;
    }

    for (int round = 0; round < rounds; ++round) {
        for (candidate& program : programs) {
            program.output_size = run_once(program, output);
            program.ratios.push_back(programs.front().seconds.back() / program.seconds.back());
        }
    }
    for (candidate& program : programs) {
        const program_cost watched = watched_run(program.words);
        std::printf("%.1f\t%.3f\t%ld\t%ld\t%ld\t%ld\n", median(program.seconds) * 1e6, median(program.ratios),
                    watched.system_calls, program.page_faults, watched.resident, program.output_size);
    }
    return 0;
}
