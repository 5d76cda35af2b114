// The built viewer: how it is linked and hardened, and which permissions it needs.

#include "support/contains.h"
#include "support/own_session.h"
#include "support/viewer_test.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

namespace {

#ifdef KAV_STATIC_VIEWER

// Returns a binutils tool's output about the viewer.
std::string told_by(const std::string& tool, std::vector<std::string> options)
{
    options.push_back(built_program("exec_show_stats_kav"));
    const program_result result = child_program("/usr/bin/" + tool, options).finish();
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
}

std::vector<std::string> lines_with(const std::string& text, const std::string& part)
{
    std::vector<std::string> found;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.find(part) != std::string::npos) {
            found.push_back(line);
        }
    }
    return found;
}

#endif

class viewer_rights : public viewer_test
{
protected:
    // Its members may read the segment only because of its group.
    static constexpr gid_t operators = 54321;
};

} // namespace

#ifdef KAV_STATIC_VIEWER

TEST(built_viewer, is_position_independent_and_needs_no_dynamic_linker)
{
    EXPECT_TRUE(contains(told_by("readelf", {"-hW"}), "DYN (Position-Independent Executable file)"));
    EXPECT_FALSE(contains(told_by("readelf", {"-lW"}), "INTERP"));
    EXPECT_FALSE(contains(told_by("readelf", {"-dW"}), "(NEEDED)"));
}

TEST(built_viewer, has_its_relocated_data_made_read_only)
{
    EXPECT_TRUE(contains(told_by("readelf", {"-lW"}), "GNU_RELRO"));
    EXPECT_TRUE(contains(told_by("readelf", {"-dW"}), "Flags: NOW PIE"));
}

TEST(built_viewer, has_no_memory_that_can_be_written_and_run)
{
    const std::string segments = told_by("readelf", {"-lW"});
    ASSERT_EQ(lines_with(segments, " GNU_STACK ").size(), 1U);
    ASSERT_FALSE(lines_with(segments, " LOAD ").empty());
    for (const char* const kind : {" GNU_STACK ", " LOAD "}) {
        for (const std::string& segment : lines_with(segments, kind)) {
            EXPECT_FALSE(contains(segment, " RWE "));
        }
    }
}

#ifdef __x86_64__
TEST(built_viewer, guards_its_stack)
{
    // Functions with arrays first load the guard's value.
    const std::string code = told_by("objdump", {"-d", "--no-show-raw-insn"});
    const std::size_t begin = code.find("RE_save_target");
    ASSERT_NE(begin, std::string::npos);
    std::size_t guarded = 0;
    for (std::size_t at = begin; at != std::string::npos; at = code.find("RE_save_target", at + 1)) {
        const std::string function = code.substr(at, code.find("\n\n", at) - at);
        guarded += function.find(">:\n") < 200 && function.find("%fs:0x28") != std::string::npos ? 1U : 0U;
    }
    EXPECT_GT(guarded, 0U);
}
#endif

#ifdef KAV_FORTIFIED
TEST(built_viewer, checks_what_it_formats)
{
    const std::string symbols = told_by("nm", {});
    EXPECT_TRUE(contains(symbols, " T __printf_chk\n"));
    EXPECT_TRUE(contains(symbols, " T __snprintf_chk\n"));
}
#endif

#endif

TEST_F(viewer_rights, to_read_are_enough_for_every_word)
{
    const own_session session;
    const small_engine engine;
    ASSERT_TRUE(session.let_others_in());
    ASSERT_EQ(chmod(segment_path().c_str(), 0440), 0);
    ASSERT_EQ(chmod(folder().c_str(), 0777), 0);
    run_surroundings without_more;
    if (geteuid() == 0) {
        ASSERT_EQ(chown(segment_path().c_str(), 0, operators), 0);
        without_more.user = {nobody, operators};
    }
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"global-detail"}, {"peer", "detail"}, {"conn"}, {"nack"}, {"top-app"}, {"config"}, {"tech-support"}}) {
        const program_result result = run_viewer(arguments, without_more);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, report_of(arguments));
    }
    EXPECT_EQ(run_viewer({"save-file", path("saved")}, without_more).status, 0);
    EXPECT_EQ(run_viewer({"read-file", path("saved")}, without_more).status, 0);
}

TEST_F(viewer_rights, leave_the_segment_as_it_is)
{
    const std::string before = bytes_of_file(segment_path());
    for (const char* word : {"global-detail", "peer", "conn", "nack", "top-app", "config", "tech-support"}) {
        run_viewer({word});
    }
    run_viewer({"save-file", path("saved")});
    EXPECT_TRUE(bytes_of_file(segment_path()) == before);
}
