#include "RE_syslog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

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

} // namespace
