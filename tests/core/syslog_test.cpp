#include "RE_syslog.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdlib>
#include <functional>
#include <string>

namespace {

// Returns what `run` sends to the system log, by means of the copy on standard error.
std::string logged_by(const std::function<void()>& run)
{
    openlog("kav", LOG_PERROR, LOG_DAEMON);
    testing::internal::CaptureStderr();
    run();
    const std::string text = testing::internal::GetCapturedStderr();
    closelog();
    return text;
}

TEST(syslog, debug_flags_start_at_what_the_environment_says)
{
    ASSERT_NE(re_syslog_global_debug_enabled, nullptr);
    ASSERT_NE(re_syslog_per_conn_debug_enabled, nullptr);
    unsetenv("KAV_SYSLOG_DEBUG");
    re_syslog_init();
    EXPECT_EQ(*re_syslog_global_debug_enabled, 0);
    setenv("KAV_SYSLOG_DEBUG", "8", 1);
    re_syslog_init();
    EXPECT_EQ(*re_syslog_global_debug_enabled & RE_SYSLOG_DEBUG_ENABLED, RE_SYSLOG_DEBUG_ENABLED);
    setenv("KAV_SYSLOG_DEBUG", "garbage", 1);
    re_syslog_init();
    EXPECT_EQ(*re_syslog_global_debug_enabled, 0);
    unsetenv("KAV_SYSLOG_DEBUG");
}

TEST(syslog, a_message_of_any_length_is_safe)
{
    const std::string text(100000, '%');
    __re_syslog("file", 1, KAV_STATS, RE_SYSLOG_DEBUG, 1, "%s", text.c_str());
    __re_syslog("file", 1, KAV_STATS, RE_SYSLOG_DEBUG, 1, "%s %d", "%n%s%d", 5);
}

TEST(syslog, a_message_is_one_line_with_its_place_at_the_end)
{
    EXPECT_EQ(
        logged_by([] { __re_syslog("a/file", 12, KAV_STATS, RE_SYSLOG_ERROR, 345, "open(%s): %s\n", "log", "no"); }),
        "kav: %KAV-6-3-345: open(log): no [a/file:12]\n");
    EXPECT_EQ(logged_by([] { __re_syslog("f", 1, KAV_CORE, RE_SYSLOG_ERROR, 2, "three\n\n\n"); }),
              "kav: %KAV-1-3-2: three [f:1]\n");
    EXPECT_EQ(logged_by([] { __re_syslog("f", 1, KAV_CORE, RE_SYSLOG_ERROR, 2, "\n"); }), "kav: %KAV-1-3-2:  [f:1]\n");
    EXPECT_EQ(logged_by([] { __re_syslog("f", 1, KAV_CORE, RE_SYSLOG_ERROR, 2, "none"); }),
              "kav: %KAV-1-3-2: none [f:1]\n");
}

TEST(syslog, a_quoted_text_cannot_break_the_line)
{
    const std::string text = "a\nb\r\tc\x1b[2J\x7f\x01 \xc3\xa9\\~\n";
    EXPECT_EQ(logged_by([&text] { __re_syslog("f", 1, KAV_CORE, RE_SYSLOG_ERROR, 2, "id:%s", text.c_str()); }),
              "kav: %KAV-1-3-2: id:a\\nb\\r\\tc\\x1b[2J\\x7f\\x01 \xc3\xa9\\~\\n [f:1]\n");
    EXPECT_EQ(logged_by([] { __re_syslog("f", 1, KAV_CORE, RE_SYSLOG_ERROR, 2, "%s\n", "x\n"); }),
              "kav: %KAV-1-3-2: x\\n [f:1]\n");
}

TEST(syslog, a_message_that_is_cut_keeps_its_place)
{
    for (const char filler : {'x', '\n'}) {
        const std::string text(100000, filler);
        const std::string line =
            logged_by([&text] { __re_syslog("f", 1, KAV_CORE, RE_SYSLOG_ERROR, 2, "%s\n\n", text.c_str()); });
        EXPECT_EQ(line.find('\n'), line.size() - 1);
        EXPECT_TRUE(line.ends_with(" [f:1]\n"));
        EXPECT_GT(line.size(), 2000U);
        EXPECT_LT(line.size(), 2200U);
    }
}

} // namespace
