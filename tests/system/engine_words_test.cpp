// The command words that report on the engine as a whole, on its peers and on its applications, with the whole output
// of the real viewer.

#include "RE_top_app_log_writer.h"
#include "support/contains.h"
#include "support/small_engine_reports.h"
#include "support/viewer_test.h"

#include <sys/stat.h>

#include <algorithm>

namespace {

class engine_words : public viewer_test
{
};

} // namespace

TEST_F(engine_words, global_info_prints_the_cache_and_the_connections)
{
    EXPECT_EQ(report_of({"global-info"}), global_info);
}

TEST_F(engine_words, global_detail_adds_both_details)
{
    EXPECT_EQ(report_of({"global-detail"}), global_detail);
}

TEST_F(engine_words, nack_lists_the_log_oldest_entry_first)
{
    EXPECT_EQ(report_of({"nack"}), nack_head + first_nack + second_nack + third_nack);
}

TEST_F(engine_words, peer_prints_every_peer)
{
    EXPECT_EQ(report_of({"peer"}), peer_counts + peers_follow + first_peer + rule_of_78 + first_peer_info +
                                       first_peer_connections + busy_encode + idle_decode + second_peer + rule_of_78 +
                                       second_peer_info + second_peer_connections + idle_encode + busy_decode);
}

TEST_F(engine_words, peer_detail_adds_every_detail)
{
    EXPECT_EQ(report_of({"peer", "detail"}), peer_detail);
}

TEST_F(engine_words, peer_nack_prints_the_log_of_each_peer)
{
    EXPECT_EQ(report_of({"peer", "nack"}), peer_counts + peers_follow + first_peer + rule_of_78 + nack_head +
                                               second_nack + second_peer + rule_of_78 + nack_head + first_nack +
                                               third_nack);
}

TEST_F(engine_words, every_filter_of_peer_finds_its_peer)
{
    const std::string only_first = peer_counts + peers_follow + first_peer + rule_of_78 + first_peer_info +
                                   first_peer_connections + busy_encode + idle_decode;
    EXPECT_EQ(report_of({"peer", "no", "1"}), only_first);
    EXPECT_EQ(report_of({"peer", "mac-id", "00:11:22:33:44:55"}), only_first);
    EXPECT_EQ(report_of({"peer", "ip", "203.0.113.1"}), only_first);
    EXPECT_EQ(report_of({"peer", "ctx-id", "4661"}), only_first);
    EXPECT_EQ(report_of({"peers", "none", "1"}), only_first) << "a word that begins with a keyword is that keyword";
    EXPECT_EQ(report_of({"peer", "no", "3"}), peer_counts + peers_follow);
}

TEST_F(engine_words, config_prints_every_parameter_and_the_configuration_file)
{
    // The file exists on machines with an installed engine.
    const std::string installed = "/sw/vantero/config/re_cfg.txt";
    struct stat status = {};
    const std::string file =
        stat(installed.c_str(), &status) == 0 ? bytes_of_file(installed) : " Config file open failed \n";
    EXPECT_EQ(report_of({"config"}), config_heading + config_detail +
                                         "\n<---------------- re_cfg.txt start here--------------------->\n" + file);
}

TEST_F(engine_words, brief_config_prints_the_heading_and_four_lines)
{
    EXPECT_EQ(report_of({"brief-config"}), config_heading);
}

TEST_F(engine_words, kav_bypass_prints_the_sums_and_on_request_the_entries)
{
    EXPECT_EQ(report_of({"kav-bypass"}), bypass_summary);
    EXPECT_EQ(report_of({"kav-bypass", "detail"}), bypass_summary + bypass_entries);
    EXPECT_EQ(report_of({"kav-bypass", "details"}), bypass_summary + bypass_entries);
}

TEST_F(engine_words, tech_support_bundles_configuration_nacks_and_bypass)
{
    EXPECT_EQ(report_of({"tech-support"}),
              "\n ------------ KAV configuration parameters ------------------\n" + config_heading +
                  "\n ------------ KAV Nack detail statistics ------------------\n" + nack_head + first_nack +
                  second_nack + third_nack + "\n------------- KAV auto bypass table -----------------------\n" +
                  bypass_summary + bypass_entries);
}

TEST_F(engine_words, top_app_prints_a_row_for_each_port_by_traffic)
{
    EXPECT_EQ(report_of({"top-app"}), "\n" + app_table);
}

TEST_F(engine_words, top_app_detail_prints_entries_and_totals_first)
{
    EXPECT_EQ(report_of({"top-app", "detail"}), "\n" + web_entry + files_entry + app_totals + app_table);
}

TEST_F(engine_words, top_app_top_cuts_the_rows_and_keeps_the_total)
{
    EXPECT_EQ(report_of({"top-app", "whatever", "top", "1"}), "\nTop Application Summary:\n\n Port,   " + app_columns +
                                                                  "Total  " + app_total_figures + "   80  " +
                                                                  web_figures + "\n");
}

TEST_F(engine_words, top_app_peer_keeps_the_entries_of_a_peer)
{
    const std::string report = report_of({"top-app", "detail", "peer", "00:11:22:33:44:66-000000000000-00000000"});
    EXPECT_EQ(report.substr(0, 1 + files_entry.size()), "\n" + files_entry);
    EXPECT_FALSE(contains(report, "Port: 80"));
    EXPECT_EQ(report_of({"top-app", "detail", "peer", "30532"}), report) << "the number behind the identity";
}

TEST_F(engine_words, top_app_from_file_names_the_classifiers)
{
    const RE_top_app_log_name names[] = {{4, {"Web", "HTTP"}}, {5, {"File-System", "CIFS"}}};
    RE_stat_app_struct records[2]{};
    const std::uint32_t web[] = {976, 0, 244, 0, 781, 0, 292, 0, 390, 0, 97, 0, 10, 0, 8, 0, 6, 0};
    const std::uint32_t files[] = {0, 100, 0, 400, 0, 90, 0, 300, 0, 60, 0, 120, 0, 4, 0, 3, 0, 2};
    std::copy(std::begin(web), std::end(web), records[0].m_id_array);
    std::copy(std::begin(files), std::end(files), records[1].m_id_array);
    records[0].m_header.set(peer_identity(1), 80, false);
    records[0].m_header.set_policy_engine_handler(4);
    records[0].m_header.m_open_cnt = 2;
    records[0].m_header.m_close_cnt = 1;
    records[1].m_header.set(peer_identity(2), 445, false);
    records[1].m_header.set_policy_engine_handler(5);
    records[1].m_header.m_open_cnt = 1;
    ASSERT_EQ(append_top_app_log(path("top_app.log"), names, records), 0);

    EXPECT_EQ(report_of({"top-app", "from-file", path("top_app.log")}),
              "\nTop Application Summary:\n\n     Classifier,  " + app_columns + "          Total " +
                  app_total_figures + "           HTTP " + web_figures + "           CIFS " + files_figures + "\n");
}

TEST_F(engine_words, save_file_says_nothing_and_read_file_prints_both_details)
{
    EXPECT_EQ(report_of({"save-file", path("saved")}), "");
    EXPECT_EQ(report_of({"read-file", path("saved")}), "-------------------- kav global-detail\n" + global_detail +
                                                           "-------------------- kav peer-detail\n" + peer_detail);
}
