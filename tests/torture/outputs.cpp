// Outputs that take little, nothing, or are closed. The viewer prints the whole report or ends with status 1, and ends
// soon.
#include "support/engine_shapes.h"
#include "torture.h"

#include <fcntl.h>
#include <pty.h>

#include <chrono>
#include <thread>

namespace {

// Starts the viewer with `output` as its standard output, calls `meanwhile`, and returns the viewer's result.
template <typename Work>
program_result run_into(const std::vector<std::string>& report, int output, const Work& meanwhile)
{
    run_surroundings surroundings;
    surroundings.output = output;
    child_program viewer(built_program("exec_show_stats_kav"), report, surroundings);
    meanwhile();
    return viewer.finish();
}

struct pipe_pair
{
    int reading;
    int writing;
};

pipe_pair make_pipe()
{
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    return {ends[0], ends[1]};
}

// Reads to the end, up to `step` bytes at a time.
std::string read_slowly(int descriptor, std::size_t step, std::chrono::microseconds pause)
{
    std::string text;
    std::vector<char> bytes(step);
    for (;;) {
        const ssize_t count = read(descriptor, bytes.data(), bytes.size());
        if (count <= 0) {
            return text;
        }
        text.append(bytes.data(), static_cast<std::size_t>(count));
        std::this_thread::sleep_for(pause);
    }
}

class outputs
{
public:
    explicit outputs(tally& result) : m_result(result) {}

    void try_report(const std::vector<std::string>& report)
    {
        const std::string whole = run_viewer(report).out;
        expect_failure(report, "closed", run_into(report, -1, [] {}));
        try_device(report, "/dev/full");
        try_broken_pipe(report);
        try_gone_terminal(report);
        try_slow_pipe(report, whole, 1, false);
        try_slow_pipe(report, whole, 1, true);
        try_slow_pipe(report, whole, 4096, true);
    }

private:
    void expect_failure(const std::vector<std::string>& report, const std::string& output, const program_result& end)
    {
        m_result.add(end.status == 1, words_of(report) + ", output " + output + ": " + end_of(end));
    }

    void try_device(const std::vector<std::string>& report, const char* path)
    {
        const int device = open(path, O_WRONLY | O_CLOEXEC);
        expect_failure(report, path, run_into(report, device, [] {}));
        close(device);
    }

    void try_broken_pipe(const std::vector<std::string>& report)
    {
        const pipe_pair ends = make_pipe();
        close(ends.reading);
        expect_failure(report, "without a reader", run_into(report, ends.writing, [] {}));
        close(ends.writing);
    }

    void try_gone_terminal(const std::vector<std::string>& report)
    {
        int master = -1;
        int terminal = -1;
        if (openpty(&master, &terminal, nullptr, nullptr, nullptr) != 0) {
            throw std::runtime_error("no terminal");
        }
        fcntl(master, F_SETFD, FD_CLOEXEC);
        close(master);
        expect_failure(report, "terminal gone", run_into(report, terminal, [] {}));
        close(terminal);
    }

    void try_slow_pipe(const std::vector<std::string>& report, const std::string& whole, std::size_t step,
                       bool b_non_blocking)
    {
        const pipe_pair ends = make_pipe();
        fcntl(ends.writing, F_SETPIPE_SZ, 4096);
        if (b_non_blocking) {
            fcntl(ends.writing, F_SETFL, O_NONBLOCK);
        }
        std::string taken;
        std::thread reader(
            [&] { taken = read_slowly(ends.reading, step, std::chrono::microseconds(step == 1 ? 0 : 500)); });
        const program_result end = run_into(report, ends.writing, [&] { close(ends.writing); });
        reader.join();
        close(ends.reading);
        m_result.add(end.status == 0 && taken == whole,
                     words_of(report) + ", " + std::to_string(step) + " bytes at a time" +
                         (b_non_blocking ? ", non-blocking: " : ": ") + end_of(end) + ", " +
                         std::to_string(taken.size()) + " of " + std::to_string(whole.size()) + " bytes");
    }

    tally& m_result;
};

} // namespace

void close_outputs(const torture_options&, tally& result)
{
    RE_stat_writer engine;
    publish_sample(engine, large_shape);
    outputs trial(result);
    for (const auto& report : all_reports()) {
        trial.try_report(report);
    }
    result.note("seven outputs, every report");
}
