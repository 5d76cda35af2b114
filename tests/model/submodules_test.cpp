// The numbers of the parts of the engine in log filters.
#include "RE_syslog.h"

#include <gtest/gtest.h>

TEST(submodules, have_the_numbers_that_log_filters_match_on)
{
    EXPECT_EQ(int{KAV_CORE}, 1);
    EXPECT_EQ(int{KAV_CACHE}, 2);
    EXPECT_EQ(int{KAV_AGG}, 3);
    EXPECT_EQ(int{KAV_CHUNK}, 4);
    EXPECT_EQ(int{KAV_FILEMGR}, 5);
    EXPECT_EQ(int{KAV_STATS}, 6);
    EXPECT_EQ(int{KAV_LZ}, 7);
    EXPECT_EQ(int{KAV_GENERIC}, 8);
    EXPECT_EQ(int{KAV_NACK}, 9);
    static_assert(sizeof(RE_submodules_t) == sizeof(int));
}
