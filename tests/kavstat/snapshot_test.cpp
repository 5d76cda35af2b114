// Names of applications in tables.
#include "model/snapshot.h"

#include <gtest/gtest.h>

using namespace kavstat;

TEST(application_label, names_port_side_and_handle)
{
    RE_stat_app_header header{};
    header.set({}, 80, false);
    EXPECT_EQ(application_label(header), "80");
    header.set({}, 80, true);
    EXPECT_EQ(application_label(header), "80-source");
    header.set_policy_engine_handler(5);
    EXPECT_EQ(application_label(header), "80-source-handle5");
}
