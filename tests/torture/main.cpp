// Runs one torture campaign and prints one row: what was tried, how often, and how often it failed.
//     kav_torture CAMPAIGN [--count N | --percent N] [--seed N] [--bin FOLDER]
// With --bin, hostile-neighbours attacks the programs in that folder, such as those of an earlier version.
//     kav_torture --list
#include "support/engine_shapes.h"
#include "support/own_segment.h"
#include "torture.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>

namespace {

constexpr campaign campaigns[] = {
    {"cut", "saved file cut: refused by its code", 1000, cut_saved_files},
    {"flip", "saved file with a flipped bit: refused by its code", 10000, flip_saved_files},
    {"kill-save", "kill -9 while saving: the old file or the new", 1000, kill_while_saving},
    {"fail-save", "failing system call while saving", 0, fail_calls_while_saving},
    {"full-disk", "disk full while saving, at every size", 0, fill_disk_while_saving},
    {"moving", "reports beside an engine at full speed", 100000, read_moving_engine},
    {"throughput", "engine's speed, being read and not, in pairs", 20, compare_throughput},
    {"changes", "engine killed, restarted, replaced in a report", 2000, change_engines},
    {"outputs", "closed, full, slow and broken outputs", 0, close_outputs},
    {"allocations", "each allocation failing in turn, alone and for good", 0, fail_allocations},
    {"poor", "limits on memory, descriptors, files; signals", 0, starve_viewer},
    {"clocks", "years, time zones, locales", 0, turn_clocks},
    {"crowd", "viewers at once beside one engine", 1000, start_many_viewers},
    {"hostile-neighbours", "attacks by other users of the machine", 20, attack_as_neighbours},
    {"attacks", "attacks on kavstat's server: others are answered", 30, attack_server},
    {"health", "health beside ill and healthy engines", 600, judge_health},
};

const campaign* find_campaign(const char* name)
{
    for (const campaign& candidate : campaigns) {
        if (std::strcmp(candidate.name, name) == 0) {
            return &candidate;
        }
    }
    return nullptr;
}

// Creates a folder in the working folder, which is more often on a disk than /tmp is.
std::string make_folder()
{
    std::string folder = std::filesystem::current_path() / "kav_torture.XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
        throw std::runtime_error("cannot make " + folder);
    }
    return folder;
}

int run_campaign(const campaign& chosen, torture_options options)
{
    options.folder = make_folder();
    const std::string segment = own_segment_path(use_own_segment());
    setenv("TZ", "UTC", 1);
    tally result;
    chosen.run(options, result);
    std::filesystem::remove_all(options.folder);
    unlink(segment.c_str()); // left by an engine that was killed
    std::printf("%-52s %9lu %6lu  %s\n", chosen.promise, result.tried(), result.lost(), result.note().c_str());
    return result.is_skipped() || (result.lost() == 0 && result.tried() > 0) ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::strcmp(argv[1], "--list") == 0) {
        for (const campaign& each : campaigns) {
            std::printf("%s\n", each.name);
        }
        return 0;
    }
    const campaign* const chosen = argc > 1 ? find_campaign(argv[1]) : nullptr;
    if (chosen == nullptr || argc % 2 != 0) {
        std::fprintf(stderr, "kav_torture CAMPAIGN [--count N | --percent N] [--seed N] [--bin FOLDER] | --list\n");
        return 2;
    }
    torture_options options;
    options.count = chosen->default_count;
    for (int at = 2; at < argc; at += 2) {
        const unsigned long number = std::strtoul(argv[at + 1], nullptr, 10);
        if (std::strcmp(argv[at], "--count") == 0) {
            options.count = number;
        } else if (std::strcmp(argv[at], "--percent") == 0) {
            options.count = (chosen->default_count * number + 99) / 100;
        } else if (std::strcmp(argv[at], "--bin") == 0) {
            options.bin = std::filesystem::absolute(argv[at + 1]);
        } else {
            options.seed = static_cast<unsigned int>(number);
        }
    }
    try {
        return run_campaign(*chosen, options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", chosen->name, error.what());
        return 2;
    }
}
