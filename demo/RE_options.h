// The settings from the engine's command line.
#pragma once

#include "RE_illness.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct RE_options
{
    std::vector<std::string> paths;
    bool b_once = false;
    bool b_variety = false;
    std::vector<RE_planned_illness> ills;
    int peers = 4;
    int slots = 1024;
    unsigned int segment_mode = 0640;
    int concurrency = 8;
    int keep_open = 4;
    int repeat = 2;
    double rate = 0;     // MB per second, 0 for no limit
    double duration = 0; // seconds, 0 for no limit
    std::uint32_t message_size = 0;
    std::uint64_t seed = 1;
    unsigned int cache_mb = 64;
    std::string cache_folder;
    unsigned int signature_bits = 64;
    int lz_level = 3;
    unsigned int bypass_threshold_mb = 1;
    unsigned int bypass_retry = 60;
    std::string ledger;
    std::string top_app_log;
    bool b_install_config = false;
    std::string config_file;
};

// The options are valid, or the program must exit with this status: after help, version or an error, which have been
// printed.
struct RE_parsed_options
{
    RE_options options;
    std::optional<int> exit_status;
};
RE_parsed_options parse_options(int argc, char** argv);
