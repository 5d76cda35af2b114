// The viewer's messages when no engine runs, for everything that an earlier engine may have left.

#include "support/forked_process.h"
#include "support/own_session.h"
#include "support/small_engine.h"
#include "support/system_test.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const std::string no_engine = "KAV Statistics failed OR KAV was not initialized by WEQ";

class engine_absence : public system_test
{
protected:
    static void expect_refused(const std::vector<std::string>& arguments, const run_surroundings& surroundings = {})
    {
        const program_result result = run_viewer(arguments, surroundings);
        EXPECT_EQ(result.out, no_engine);
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(result.status, 1);
    }

    static void expect_every_word_refused()
    {
        for (const char* word : {"save-file", "tech-support", "top-app", "nack", "global-info", "global-detail", "peer",
                                 "connection", "conn", "config", "brief-config", "kav-bypass", "unknown", ""}) {
            expect_refused({word});
        }
        expect_refused({"peer", "sense"});
        expect_refused({"top-app", "from-file", "/dev/null"});
    }
};

// Runs as an engine in a child process, which the test kills.
void be_an_engine(const forked_process::callback& ready)
{
    const small_engine engine;
    ready();
    pause();
}

} // namespace

TEST_F(engine_absence, is_told_by_every_command_word)
{
    expect_every_word_refused();
}

TEST_F(engine_absence, is_told_after_the_engine_stopped)
{
    small_engine engine;
    EXPECT_EQ(run_viewer({"nack"}).status, 0);
    engine.stop();
    expect_every_word_refused();
    EXPECT_NE(access(segment_path().c_str(), F_OK), 0);
}

TEST_F(engine_absence, is_told_after_the_engine_was_killed_and_left_its_segment_behind)
{
    forked_process engine(be_an_engine);
    ASSERT_TRUE(engine.is_ready());
    EXPECT_EQ(run_viewer({"nack"}).status, 0);
    engine.kill_now();
    ASSERT_EQ(access(segment_path().c_str(), F_OK), 0);
    expect_every_word_refused();
}

TEST_F(engine_absence, ends_when_the_engine_starts_again_over_what_it_left_behind)
{
    forked_process killed(be_an_engine);
    killed.kill_now();
    expect_refused({"nack"});
    const small_engine engine;
    EXPECT_EQ(run_viewer({"nack"}).status, 0);
}

TEST_F(engine_absence, lasts_until_a_starting_engine_has_published)
{
    RE_stat_writer starting;
    ASSERT_EQ(starting.create({}, once_upon_a_time), 0);
    expect_refused({"global-info"});
    starting.publish();
    EXPECT_EQ(run_viewer({"global-info"}).status, 0);
}

TEST_F(engine_absence, is_told_of_a_segment_of_another_version)
{
    const small_engine engine;
    const int segment = open(segment_path().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(segment, 0);
    constexpr off_t layout_version = 12;
    ASSERT_EQ(pwrite(segment, "\x63", 1, layout_version), 1);
    close(segment);
    expect_refused({"global-info"});
}

TEST_F(engine_absence, is_told_of_what_is_no_segment)
{
    ASSERT_EQ(mkfifo(segment_path().c_str(), 0600), 0);
    expect_refused({"global-info"});
    ASSERT_EQ(unlink(segment_path().c_str()), 0);
    write_file(segment_path(), "");
    expect_refused({"global-info"});
    for (const char* name : {"", "/", ".", "..", "a/b", "//"}) {
        expect_refused({"global-info"}, {.environment = {{"KAV_STAT_SEGMENT", name}}});
    }
}

TEST_F(engine_absence, is_told_to_who_may_not_read_the_segment)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can run the viewer as somebody else";
    }
    const own_session session;
    const small_engine engine(0640);
    const run_surroundings as_nobody = {.user = {{nobody, nogroup}}};
    expect_refused({"global-info"}, as_nobody);
    ASSERT_TRUE(session.let_others_in());
    expect_refused({"global-info"}, as_nobody);
    ASSERT_EQ(chmod(segment_path().c_str(), 0644), 0);
    EXPECT_EQ(run_viewer({"global-info"}, as_nobody).status, 0);
}

TEST_F(engine_absence, leaves_refusals_of_the_command_line_alone_as_they_are)
{
    const program_result result = run_viewer({});
    EXPECT_EQ(result.out.substr(0, 20), "Invalid args\nUsage:\n");
    EXPECT_EQ(result.status, 1);
}
