// The viewer still reports files that earlier versions of the engine library wrote.
#include "support/contains.h"
#include "support/small_engine_reports.h"
#include "support/viewer_test.h"

namespace {

class old_files : public viewer_test
{
};

TEST_F(old_files, a_top_application_log_of_sections_is_reported)
{
    EXPECT_EQ(report_of({"top-app", "from-file", KAV_TEST_DATA "/top_app.layout-1.log"}),
              "\nTop Application Summary:\n\n     Classifier,  " + app_columns + "          Total " +
                  app_total_figures + "           HTTP " + web_figures + "           CIFS " + files_figures + "\n");
}

TEST_F(old_files, saved_statistics_of_layout_1_are_reported)
{
    const std::string report = report_of({"read-file", KAV_TEST_DATA "/statistics.layout-1"});
    EXPECT_TRUE(contains(report, "Peer-No : 11 "));
    EXPECT_TRUE(contains(report, "Peer-No : 12 "));
    EXPECT_TRUE(contains(report, "Peer-ID : 02:00:00:00:00:01\n"));
}

} // namespace
