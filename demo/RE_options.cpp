#include "RE_options.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <cstdlib>
#include <iostream>

namespace {

constexpr const char* description =
    "A small redundancy-elimination engine. Its traffic is files and folders. It transfers each file over a\n"
    "connection with one of its peers, checks that the file arrives unchanged, and publishes its statistics for\n"
    "exec_show_stats_kav. Without a PATH it uses some files that every machine has.\n"
    "It prints \"ready\" when its statistics can be read, and runs until SIGTERM or SIGINT.";

constexpr const char* status_and_environment =
    "Exit status: 0 when stopped, 1 after an error, 2 for an invalid command line.\n"
    "Environment: KAV_STAT_SEGMENT is the name of the statistics segment. Each of several engines needs its own name.\n"
    "The segment is in /run/kav if that folder is this user's, else in $XDG_RUNTIME_DIR/kav, else in /dev/shm/kav-UID.";

// Returns an error message or an empty string. Changes a valid text to the mode as a decimal number.
std::string octal_mode(std::string& text)
{
    unsigned int mode = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, mode, 8);
    if (error != std::errc() || stop != end || (mode & 0600U) != 0600U || (mode & ~0664U) != 0) {
        return text + " is no octal mode of 0600 to 0664";
    }
    text = std::to_string(mode);
    return {};
}

std::string illness_text()
{
    constexpr std::size_t name_width = 24;
    std::string text = "Illnesses (for those marked \"set\" only figures are set, all others really happen):\n";
    for (const RE_illness_info& info : all_illnesses()) {
        std::string name = info.name;
        name.resize(name_width, ' ');
        text += "  " + name + (info.b_happens ? "" : "set: ") + info.effect + '\n';
    }
    return text;
}

// Elsewhere an empty path means that the option was not given.
std::string not_empty(const std::string& path)
{
    return path.empty() ? "the path is empty" : "";
}

std::string default_cache_folder()
{
    const char* const folder = std::getenv("TMPDIR");
    return folder == nullptr || *folder == '\0' ? "/tmp" : folder;
}

} // namespace

RE_parsed_options parse_options(int argc, char** argv)
{
    constexpr int usage_error = 2;
    constexpr std::uint32_t largest_message = 16U << 20U;
    RE_parsed_options parsed;
    RE_options& options = parsed.options;
    options.cache_folder = default_cache_folder();

    CLI::App app(description, "kav_demo_engine");
    app.footer(illness_text() + '\n' + status_and_environment);
    app.set_version_flag("--version", std::string("kav_demo_engine ") + KAV_VERSION);
    app.add_option("PATH", options.paths, "Files and folders to use as traffic");
    app.add_flag("--once", options.b_once,
                 "Transfer the traffic once, print \"idle\" and leave the statistics unchanged");
    app.add_flag("--variety", options.b_variety,
                 "Give every report something to show: peers 2 to 4 have problems, and the default traffic contains "
                 "files that do not compress");
    std::vector<std::string> ills;
    app.add_option("--ill", ills,
                   "Be ill, from the start or from a time on (NAME@60s), until the end or for some time (NAME@60s+2m), "
                   "or from one SIGUSR1 to the next (NAME@signal)")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->type_name("NAME[@BEGIN[+LENGTH]],...")
        ->check([](const std::string& text) {
            RE_planned_illness planned{};
            return parse_illness(text, planned);
        });
    app.add_option("--peers", options.peers, "Number of peers")->check(CLI::Range(1, 4096))->capture_default_str();
    app.add_option("--slots", options.slots, "Number of connection slots")
        ->check(CLI::Range(1, 1'000'000))
        ->capture_default_str();
    app.add_option("--segment-mode", options.segment_mode,
                   "Who may read the statistics, or reset figures in them: an octal mode from 0600 to 0664")
        ->transform(CLI::Validator(octal_mode, "OCTAL"))
        ->default_str("0640");
    app.add_option("--concurrency", options.concurrency, "Number of transfers at the same time")
        ->check(CLI::Range(1, 1024))
        ->capture_default_str();
    app.add_option("--keep-open", options.keep_open, "Number of connections kept open after their transfer")
        ->check(CLI::Range(0, 1'000'000))
        ->capture_default_str();
    app.add_option("--repeat", options.repeat, "How often each pass over the traffic transfers each file")
        ->check(CLI::Range(1, 1'000'000))
        ->capture_default_str();
    app.add_option("--rate", options.rate, "Maximum traffic in MB per second; 0 for no limit")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    app.add_option("--duration", options.duration, "Stop after this many seconds; 0 for never")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    app.add_option("--message-size", options.message_size, "Bytes per message; 0 for a mixture of sizes")
        ->check(CLI::Range(0U, largest_message))
        ->capture_default_str();
    app.add_option("--seed", options.seed, "Start value of the random sequence for message sizes")
        ->capture_default_str();
    app.add_option("--cache-mb", options.cache_mb, "Size of the engine's cache in MB; each peer gets an equal part")
        ->check(CLI::Range(1U, 65'536U))
        ->capture_default_str();
    app.add_option("--cache-dir", options.cache_folder, "Folder for the cache files, which have no names")
        ->check(not_empty)
        ->capture_default_str();
    app.add_option("--signature-bits", options.signature_bits, "Length of chunk signatures in bits; short ones collide")
        ->check(CLI::Range(8U, 64U))
        ->capture_default_str();
    app.add_option("--lz-level", options.lz_level, "Compression level")->check(CLI::Range(1, 9))->capture_default_str();
    app.add_option("--bypass-threshold-mb", options.bypass_threshold_mb,
                   "MB of a server's traffic after which the engine decides whether it compresses")
        ->check(CLI::Range(1U, 1024U))
        ->capture_default_str();
    app.add_option("--bypass-retry", options.bypass_retry, "Seconds until a bypassed server is tried again")
        ->check(CLI::Range(1U, 86'400U))
        ->capture_default_str();
    app.add_option("--ledger", options.ledger, "Write the engine's own account of its traffic to this file, as JSON")
        ->check(not_empty);
    app.add_option("--top-app-log", options.top_app_log,
                   "Append a section to this log file after each pass, at most once a second")
        ->check(not_empty);
    app.add_flag("--install-config", options.b_install_config,
                 "Write the configuration to /sw/vantero/config/re_cfg.txt");
    app.add_option("--config-file", options.config_file, "Write the configuration to this file")->check(not_empty);

    try {
        app.parse(argc, argv);
        for (const std::string& text : ills) {
            parse_illness(text, options.ills.emplace_back());
        }
    } catch (const CLI::ParseError& error) {
        parsed.exit_status = app.exit(error) == 0 ? 0 : usage_error;
        std::cout.flush();
    }
    return parsed;
}
