// Saving over an older file when something fails. After that, the target is the complete old or new file. No other file
// remains if the viewer could report the failure.
#include "RE_stat_image.h"
#include "support/engine_shapes.h"
#include "torture.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <thread>

namespace {

using clock_type = std::chrono::steady_clock;

// An engine with statistics to save, and a target that contains an older file with other statistics.
class saving
{
public:
    saving(const torture_options& options, const engine_shape& size)
        : m_folder(options.folder), m_old(saved_sample({1, 1, 1, 1, 1}))
    {
        if (publish_sample(m_engine, size) != 0 || m_old.empty()) {
            throw std::runtime_error("no engine to save");
        }
    }

    void use_folder(const std::string& folder) { m_folder = folder; }
    std::string target() const { return m_folder + "/saved"; }
    std::vector<std::string> arguments() const { return {"save-file", target()}; }

    void begin()
    {
        for (const std::string& name : names_in(m_folder)) {
            unlink((m_folder + "/" + name).c_str());
        }
        write_bytes(target(), m_old);
    }

    bool is_old() const { return read_bytes(target()) == m_old; }
    // Whether the target is a valid file other than the old one.
    bool is_new() const
    {
        const std::unique_ptr<RE_stat_reader> reader(RE_stat_reader::create(RE_STAT_READER_FILE, target().c_str()));
        return reader->open() >= 0 && !is_old();
    }
    bool has_litter() const { return names_in(m_folder) != std::vector<std::string>{"saved"}; }

    // Whether the target and its folder are as they must be after this end of the viewer.
    bool is_kept(const program_result& end) const
    {
        if (end.b_timed_out || end.signal != 0 || has_litter()) {
            return false;
        }
        return end.status == 0 ? is_new() : is_old() || is_new();
    }

private:
    std::string m_folder;
    std::vector<unsigned char> m_old;
    RE_stat_writer m_engine;
};

double seconds_of_a_save(saving& trial)
{
    trial.begin();
    const auto start = clock_type::now();
    run_viewer(trial.arguments());
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

} // namespace

void kill_while_saving(const torture_options& options, tally& result)
{
    saving trial(options, {50, 2000, 500, 1000, 200});
    double length = 0;
    for (int run = 0; run < 5; ++run) {
        length = std::max(length, seconds_of_a_save(trial));
    }
    std::mt19937 random(options.seed);
    std::uniform_real_distribution<double> moment(0.0, length);
    unsigned long old_files = 0;
    unsigned long unfinished = 0;
    for (unsigned long at = 0; at < options.count; ++at) {
        trial.begin();
        child_program viewer(built_program("exec_show_stats_kav"), trial.arguments());
        std::this_thread::sleep_for(std::chrono::duration<double>(moment(random)));
        viewer.send_signal(SIGKILL);
        viewer.finish();
        old_files += trial.is_old() ? 1U : 0U;
        unfinished += trial.has_litter() ? 1U : 0U;
        result.add(trial.is_old() || trial.is_new(), "neither the old file nor the new one");
    }
    result.note("old " + std::to_string(old_files) + ", new " + std::to_string(result.tried() - old_files) +
                "; killed with the new file unfinished " + std::to_string(unfinished));
}

void fail_calls_while_saving(const torture_options& options, tally& result)
{
    saving trial(options, {10, 200, 50, 100, 20});
    const struct
    {
        const char* call;
        std::vector<const char*> errors;
    } faults[] = {
        {"write", {"ENOSPC", "EIO", "EDQUOT", "EFBIG", "EINTR"}},
        {"fsync", {"EIO", "ENOSPC", "EDQUOT", "EINTR"}},
        {"close", {"EIO", "ENOSPC", "EINTR"}},
        {"rename", {"EACCES", "EIO", "ENOSPC", "EXDEV", "EISDIR"}},
        {"fchmod", {"EPERM", "EIO"}},
        {"openat", {"EMFILE", "ENFILE", "EACCES", "ENOSPC", "EROFS"}},
        {"newfstatat", {"EACCES", "EIO"}},
        {"lstat", {"EACCES", "EIO"}},
        {"umask", {"EINVAL"}},
        {"getrandom", {"ENOSYS"}},
        {"mmap", {"ENOMEM"}},
        {"fcntl", {"EINVAL", "ENOLCK"}},
    };
    constexpr int calls_at_most = 12; // more than a save makes of any call
    unsigned long refused = 0;
    for (const auto& fault : faults) {
        for (const char* const error : fault.errors) {
            for (int which = 1; which <= calls_at_most; ++which) {
                trial.begin();
                const std::string injection =
                    "inject=" + std::string(fault.call) + ":error=" + error + ":when=" + std::to_string(which);
                std::vector<std::string> words{"-o", "/dev/null", "-e", injection,
                                               built_program("exec_show_stats_kav")};
                for (const std::string& word : trial.arguments()) {
                    words.push_back(word);
                }
                const program_result end = child_program("/usr/bin/strace", words).finish();
                refused += end.status != 0 ? 1U : 0U;
                result.add(trial.is_kept(end), injection + ": " + end_of(end) + (trial.has_litter() ? ", litter" : ""));
            }
        }
    }
    result.note("told by status 1: " + std::to_string(refused));
}

namespace {

void limit_file_sizes(saving& trial, tally& result, unsigned long& refused)
{
    trial.begin();
    run_viewer(trial.arguments());
    const std::size_t whole = read_bytes(trial.target()).size();
    for (std::size_t limit = 0; limit <= whole + 1024; limit += std::min<std::size_t>(1024, whole)) {
        trial.begin();
        run_surroundings surroundings;
        surroundings.limits = {{RLIMIT_FSIZE, limit}};
        const program_result end = run_viewer(trial.arguments(), surroundings);
        refused += end.status != 0 ? 1U : 0U;
        result.add(trial.is_kept(end) && (end.status == 0) == (limit >= whole),
                   "file size limit " + std::to_string(limit) + ": " + end_of(end));
    }
}

// Saves to small file systems in memory, each one page larger. Returns false when this user may not mount them.
bool fill_small_disks(saving& trial, const std::string& folder, tally& result, unsigned long& refused)
{
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return false;
    }
    constexpr std::size_t page = 4096;
    for (std::size_t pages = 8; pages <= 120; ++pages) {
        const std::string size = "size=" + std::to_string(pages * page);
        if (mount("none", folder.c_str(), "tmpfs", 0, size.c_str()) != 0) {
            return false;
        }
        trial.use_folder(folder);
        trial.begin();
        const program_result end = run_viewer(trial.arguments());
        refused += end.status != 0 ? 1U : 0U;
        result.add(trial.is_kept(end), size + ": " + end_of(end));
        umount2(folder.c_str(), MNT_DETACH);
    }
    return true;
}

} // namespace

void fill_disk_while_saving(const torture_options& options, tally& result)
{
    saving trial(options, {10, 200, 50, 100, 20});
    unsigned long refused = 0;
    limit_file_sizes(trial, result, refused);
    const bool b_disks = fill_small_disks(trial, options.folder, result, refused);
    result.note("told by status 1: " + std::to_string(refused) + (b_disks ? "" : "; file size limits alone, not root"));
}
