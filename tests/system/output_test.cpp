// Standard output that cannot take a report, or takes it slowly. The exit status shows the error, and the viewer never
// hangs.

#include "support/small_engine_reports.h"
#include "support/viewer_test.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

namespace {

// Smaller than any of the long reports below.
constexpr int small_pipe = 4096;

const std::vector<std::string> every_word[] = {
    {"tech-support"},     {"top-app", "detail"}, {"nack"}, {"global-info"}, {"global-detail"}, {"peer"},
    {"peer", "detail"},   {"connection"},        {"conn"}, {"config"},      {"brief-config"},  {"kav-bypass"},
    {"conn", "id", "12"},
};

class output : public viewer_test
{
protected:
    ~output() override
    {
        close_end(m_reading);
        close_end(m_writing);
    }

    static void close_end(int& end)
    {
        if (end >= 0) {
            close(end);
            end = -1;
        }
    }

    void make_pipe(int flags = 0)
    {
        int ends[2] = {-1, -1};
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        m_reading = ends[0];
        m_writing = ends[1];
        ASSERT_GE(fcntl(m_writing, F_SETPIPE_SZ, small_pipe), 0);
        ASSERT_EQ(fcntl(m_writing, F_SETFL, flags), 0);
    }

    // Starts a viewer that prints into a pipe. The test reads the pipe.
    std::unique_ptr<child_program> start_into_pipe(const std::vector<std::string>& arguments, int flags = 0)
    {
        make_pipe(flags);
        auto viewer = std::make_unique<child_program>(built_program("exec_show_stats_kav"), arguments,
                                                      run_surroundings{.output = m_writing});
        close_end(m_writing);
        return viewer;
    }

    // Returns the result of a viewer whose segment is truncated to 0 bytes in the middle of its output.
    program_result result_when_cut(const std::vector<std::string>& arguments)
    {
        struct stat whole = {};
        EXPECT_EQ(stat(segment_path().c_str(), &whole), 0);
        const auto viewer = start_into_pipe(arguments);
        // After the first bytes, the viewer waits in the middle of its output until the test reads the rest.
        std::string printed(1, '\0');
        EXPECT_EQ(read(m_reading, printed.data(), 1), 1);
        EXPECT_EQ(truncate(segment_path().c_str(), 0), 0);
        printed += rest_of_pipe(small_pipe);
        program_result result = viewer->finish();
        result.out = printed;
        EXPECT_EQ(truncate(segment_path().c_str(), whole.st_size), 0); // so that the engine can withdraw
        return result;
    }

    // Reads the pipe to its end.
    std::string rest_of_pipe(std::size_t bytes_at_a_time)
    {
        std::string text;
        std::string part(bytes_at_a_time, '\0');
        for (ssize_t count = 0; (count = read(m_reading, part.data(), part.size())) > 0;) {
            text.append(part, 0, static_cast<std::size_t>(count));
        }
        return text;
    }

    // Creates a NACK log with a report many times as long as one write.
    void fill_nack_log()
    {
        m_engine.stop();
        RE_stat_limits limits;
        limits.nacks = 10000;
        ASSERT_EQ(m_long_log.create(limits, once_upon_a_time), 0);
        for (int entry = 0; entry < limits.nacks; ++entry) {
            m_long_log.add_nack({static_cast<std::int32_t>(once_upon_a_time), 0, 1, 1, 1, entry});
        }
        m_long_log.publish();
    }

    static void expect_refused(const std::vector<std::string>& arguments, int descriptor)
    {
        const program_result result = run_viewer(arguments, {.output = descriptor});
        EXPECT_FALSE(result.b_timed_out);
        EXPECT_EQ(result.status, 1) << arguments.front();
        EXPECT_EQ(result.err, "");
    }

    int m_reading = -1;
    int m_writing = -1;
    RE_stat_writer m_long_log;
};

} // namespace

TEST_F(output, that_is_a_full_disk_is_told_by_the_status_of_every_word)
{
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    for (const std::vector<std::string>& arguments : every_word) {
        expect_refused(arguments, full);
    }
    close(full);
}

TEST_F(output, that_is_closed_is_told_by_the_status_of_every_word)
{
    for (const std::vector<std::string>& arguments : every_word) {
        expect_refused(arguments, -1);
    }
}

TEST_F(output, that_is_only_for_reading_is_told_by_the_status)
{
    const int only_for_reading = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(only_for_reading, 0);
    expect_refused({"global-detail"}, only_for_reading);
    close(only_for_reading);
}

TEST_F(output, that_is_closed_never_lets_a_report_into_a_file)
{
    const program_result result = run_viewer({"save-file", path("saved")}, {.output = -1});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(run_viewer({"read-file", path("saved")}).status, 0);
    expect_refused({"read-file", path("saved")}, -1);
    EXPECT_EQ(run_viewer({"read-file", path("saved")}).status, 0);
}

TEST_F(output, whose_reader_is_gone_is_told_by_the_status_of_every_word)
{
    make_pipe();
    close_end(m_reading);
    for (const std::vector<std::string>& arguments : every_word) {
        expect_refused(arguments, m_writing);
    }
}

TEST_F(output, whose_reader_leaves_in_the_middle_is_told_by_the_status)
{
    fill_nack_log();
    const auto viewer = start_into_pipe({"nack"});
    char some[100];
    ASSERT_EQ(read(m_reading, some, sizeof some), static_cast<ssize_t>(sizeof some));
    close_end(m_reading);
    EXPECT_EQ(viewer->finish().status, 1);
}

TEST_F(output, that_takes_one_byte_at_a_time_gets_the_whole_report)
{
    const std::string report = report_of({"peer", "detail"});
    ASSERT_GT(report.size(), static_cast<std::size_t>(small_pipe));
    const auto viewer = start_into_pipe({"peer", "detail"});
    EXPECT_EQ(rest_of_pipe(1), report);
    EXPECT_EQ(viewer->finish().status, 0);
}

TEST_F(output, that_does_not_wait_gets_the_whole_report_while_there_is_room)
{
    make_pipe(O_NONBLOCK);
    const std::string report = report_of({"global-info"});
    const program_result result = run_viewer({"global-info"}, {.output = m_writing});
    EXPECT_EQ(result.status, 0);
    close_end(m_writing);
    EXPECT_EQ(rest_of_pipe(small_pipe), report);
}

TEST_F(output, that_does_not_wait_is_waited_for_when_it_is_full)
{
    fill_nack_log();
    const std::string report = report_of({"nack"});
    const auto viewer = start_into_pipe({"nack"}, O_NONBLOCK);
    EXPECT_EQ(rest_of_pipe(small_pipe), report);
    EXPECT_EQ(viewer->finish().status, 0);
}

TEST_F(output, ends_with_the_refusal_when_shared_memory_is_cut_short_under_a_report)
{
    fill_nack_log();
    const std::string report = report_of({"nack"});
    const program_result result = result_when_cut({"nack"});
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.status, 1);
    const std::string refusal = "KAV Statistics failed OR KAV was not initialized by WEQ";
    ASSERT_GT(result.out.size(), refusal.size());
    EXPECT_EQ(result.out, report.substr(0, result.out.size() - refusal.size()) + refusal);
}

TEST_F(output, that_is_being_saved_to_ends_with_a_code_when_shared_memory_is_cut_short)
{
    fill_nack_log();
    const program_result result = result_when_cut({"save-file", "/dev/fd/1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(result.out.ends_with("KAV Statistics Reader: failed to write file /dev/fd/1, error code: -13\n"));
}

TEST_F(output, of_a_long_report_comes_through_whole)
{
    fill_nack_log();
    const std::string report = report_of({"nack"});
    const std::string last_row = "03/13/2011 07:06:40         1        1       9999 Nack Chunk missed\n";
    EXPECT_EQ(report.size(), nack_head.size() + 10000 * last_row.size());
    EXPECT_EQ(report.substr(report.size() - last_row.size()), last_row);
}
