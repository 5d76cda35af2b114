// The campaign of all attacks by other users. Each attack runs in its own process.
#include "hostile.h"

#include "support/child_program.h"
#include "support/private_dev.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <exception>
#include <filesystem>

namespace {

constexpr const char* no_place = "no place";

// Returns an empty text, a description of what succeeded, or `no_place`.
std::string attempt(const attack& each, const torture_options& options)
{
    int outcome[2];
    if (pipe(outcome) != 0) {
        throw std::runtime_error("no pipe");
    }
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        close(outcome[0]);
        std::string text;
        try {
            private_dev dev;
            const std::string bin = options.bin.empty()
                                        ? std::filesystem::path(built_program("kavstat")).parent_path().string()
                                        : options.bin;
            if (dev.enter()) {
                dev.discard_log();
                text = each.run({bin});
            } else {
                text = no_place;
            }
        } catch (const std::exception& error) {
            text = error.what();
        }
        const bool b_told = write(outcome[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
        _exit(b_told ? 0 : 1);
    }
    close(outcome[1]);
    std::string text;
    char part[256];
    for (ssize_t length = 0; (length = read(outcome[0], part, sizeof part)) > 0;) {
        text.append(part, static_cast<std::size_t>(length));
    }
    close(outcome[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return status == 0 ? text : "the attack itself ended with " + std::to_string(status);
}

} // namespace

void attack_as_neighbours(const torture_options& options, tally& result)
{
    if (geteuid() != 0) {
        result.skip("needs root, and a second user");
        return;
    }
    for (const attack& each : attacks_on_trust()) {
        unsigned long lost = 0;
        std::string told;
        for (unsigned long times = 0; times < options.count; ++times) {
            const std::string got_through = attempt(each, options);
            if (got_through == no_place) {
                result.skip("needs folders of its own in place of /dev and /run");
                return;
            }
            lost += got_through.empty() ? 0U : 1U;
            told = got_through.empty() ? told : got_through;
            result.add(got_through.empty(), std::string(each.what) + ": " + got_through);
        }
        std::printf("  %-50s %9lu %6lu  %s\n", each.what, options.count, lost, told.c_str());
    }
#ifndef KAV_SANITIZED
    // Sanitizers handle signals and need memory themselves.
    attack_with_inputs(options, result);
#endif
}
