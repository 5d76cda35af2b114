// Unusual environments and scarce resources: the output is the same, or the viewer refuses as documented.

#include "support/small_engine_reports.h"
#include "support/viewer_test.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace {

const std::vector<std::string> every_word[] = {
    {"tech-support"}, {"top-app", "detail"}, {"nack"},   {"global-detail"}, {"peer", "detail"},
    {"conn"},         {"brief-config"},      {"config"},
};

[[maybe_unused]] constexpr rlim_t megabyte = 1U << 20U;

class surroundings : public viewer_test
{
protected:
    static void expect_same_bytes(const run_surroundings& changed)
    {
        for (const std::vector<std::string>& arguments : every_word) {
            const program_result result = run_viewer(arguments, changed);
            EXPECT_EQ(result.status, 0) << arguments.front() << result.out;
            EXPECT_EQ(result.err, "");
            EXPECT_EQ(result.out, report_of(arguments));
        }
    }
};

} // namespace

#ifdef KAV_STATIC_VIEWER
// Sanitizers need more memory and more descriptors than these tests allow.
TEST_F(surroundings, with_little_memory_change_nothing)
{
    expect_same_bytes({.limits = {{RLIMIT_AS, 16 * megabyte}}});
}

TEST_F(surroundings, with_a_small_stack_change_nothing)
{
    const run_surroundings small_stack{.limits = {{RLIMIT_STACK, rlim_t{64} << 10U}}};
    expect_same_bytes(small_stack);
    ASSERT_EQ(run_viewer({"save-file", path("saved")}, small_stack).status, 0);
    const std::string log = KAV_TEST_DATA "/top_app.layout-1.log";
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"global-info"},
             {"peer"},
             {"peer", "nack"},
             {"conn", "detail"},
             {"conn", "nack"},
             {"conn", "last"},
             {"connection"},
             {"kav-bypass", "detail"},
             {"top-app"},
             {"top-app", "from-file", log},
             {"top-app", "from-file", log, "detail", "peer", "1"},
             {"read-file", path("saved")},
             {"no-such-word"},
         }) {
        EXPECT_EQ(run_viewer(arguments, small_stack).out, report_of(arguments)) << arguments.front();
    }
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"peer", "mac-id", "00:11:22:33:44:xx"}, {"conn", "client-ip", "0.0.0.0"}, {"top-app", "top"}}) {
        EXPECT_EQ(run_viewer(arguments, small_stack).out, refusal_of(arguments)) << arguments.front();
    }
}

TEST_F(surroundings, without_memory_for_the_statistics_are_refused)
{
    m_engine.stop();
    RE_stat_writer large;
    RE_stat_limits limits;
    limits.connections = 100000;
    ASSERT_EQ(large.create(limits, once_upon_a_time), 0);
    large.publish();
    EXPECT_EQ(report_of({"conn"}), "");
    const program_result result = run_viewer({"conn"}, {.limits = {{RLIMIT_AS, 16 * megabyte}}});
    EXPECT_EQ(result.out, "KAV Statistics failed OR KAV was not initialized by WEQ");
    EXPECT_EQ(result.status, 1);
}

TEST_F(surroundings, without_any_descriptor_to_spare_are_refused)
{
    const program_result result = run_viewer({"nack"}, {.limits = {{RLIMIT_NOFILE, 3}}});
    EXPECT_EQ(result.out, "KAV Statistics failed OR KAV was not initialized by WEQ");
    EXPECT_EQ(result.status, 1);
}

TEST_F(surroundings, with_one_descriptor_to_spare_change_nothing)
{
    const run_surroundings four_descriptors{.limits = {{RLIMIT_NOFILE, 4}}};
    expect_same_bytes(four_descriptors);
    EXPECT_EQ(run_viewer({"save-file", path("saved")}, four_descriptors).status, 0);
    EXPECT_EQ(run_viewer({"read-file", path("saved")}, four_descriptors).out, report_of({"read-file", path("saved")}));
}
#endif

TEST_F(surroundings, that_limit_files_change_nothing_in_a_pipe)
{
    expect_same_bytes({.limits = {{RLIMIT_FSIZE, 1024}}});
}

TEST_F(surroundings, that_limit_files_cut_a_redirected_report_and_tell)
{
    const int file = open(path("report").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(file, 0);
    const program_result result = run_viewer({"global-detail"}, {.limits = {{RLIMIT_FSIZE, 1024}}, .output = file});
    close(file);
    EXPECT_EQ(result.status, 1) << "and no death by a signal";
    EXPECT_EQ(bytes_of_file(path("report")), report_of({"global-detail"}).substr(0, 1024));
}

TEST_F(surroundings, with_a_time_zone_show_its_time)
{
    const auto first_nack_in = [](const std::string& zone) {
        const std::string report = run_viewer({"nack"}, {.environment = {{"TZ", zone}}}).out;
        constexpr std::size_t time_size = 19;
        return report.size() < nack_head.size() ? report : report.substr(nack_head.size(), time_size);
    };
    EXPECT_EQ(first_nack_in("IST-5:30"), "03/13/2011 12:36:40");
    // The time is some hours before daylight saving time starts.
    EXPECT_EQ(first_nack_in("PST8PDT,M3.2.0,M11.1.0"), "03/12/2011 23:06:40");
    EXPECT_EQ(first_nack_in("XXX-24:59:59"), "03/14/2011 08:06:39");
}

TEST_F(surroundings, with_an_odd_time_zone_show_universal_time)
{
    for (const std::string& zone : {std::string(), std::string("No/Such/Zone"), std::string(":"), std::string("%n%s%n"),
                                    std::string("../../../etc/passwd"), std::string(5000, 'A')}) {
        expect_same_bytes({.environment = {{"TZ", zone}}});
    }
}

TEST_F(surroundings, with_a_time_zone_that_is_no_file_never_wait_for_it)
{
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    ASSERT_EQ(mkfifo(path("posixrules").c_str(), 0600), 0);
    for (const std::string& zone :
         {path("fifo"), ":" + path("fifo"), "../../.." + path("fifo"), std::string("/dev/tty"), std::string("America"),
          std::string("/proc/self/status")}) {
        expect_same_bytes({.environment = {{"TZ", zone}}});
    }
    for (const std::string& zone : {std::string("fifo"), std::string(":fifo"), std::string("EST5EDT")}) {
        expect_same_bytes({.environment = {{"TZDIR", folder()}, {"TZ", zone}}});
    }
}

TEST_F(surroundings, with_odd_variables_change_nothing)
{
    expect_same_bytes({.environment = {{"LANGUAGE", "de"},
                                       {"LOCPATH", folder()},
                                       {"GCONV_PATH", folder()},
                                       {"POSIXLY_CORRECT", "1"},
                                       {"TMPDIR", "/no/such/folder"},
                                       {"HOME", ""},
                                       {"PATH", ""}}});
}

TEST_F(surroundings, with_a_decimal_comma_keep_the_point)
{
    const std::string make_locale = "localedef -f UTF-8 -i de_DE " + path("de_DE.UTF-8") + " >/dev/null 2>&1";
    if (std::system(make_locale.c_str()) != 0) {
        GTEST_SKIP() << "this machine has nothing to make a locale of";
    }
    expect_same_bytes(
        {.environment = {{"LOCPATH", folder()}, {"LC_ALL", "de_DE.UTF-8"}, {"LC_NUMERIC", "de_DE.UTF-8"}}});
}

TEST_F(surroundings, with_endless_words_are_taken_as_far_as_they_go)
{
    const std::string endless(100000, '7');
    EXPECT_EQ(report_of({endless}), "");
    EXPECT_EQ(report_of({"conn", "id", endless}), report_of({"conn"}))
        << "the low 32 bits of the largest number are -1";
    EXPECT_EQ(report_of({"top-app", "from-file", endless}), "\n");
    EXPECT_EQ(report_of({"top-app", "top", endless}), report_of({"top-app"}));
    EXPECT_EQ(refusal_of({"peer", "mac-id", endless}).substr(0, 41), "invalid mac-id format: 77777777777777777\n");
    EXPECT_EQ(refusal_of({"conn", "server-ip", endless}).substr(0, 30), "Invalid host address 0.0.0.0.\n");
}
