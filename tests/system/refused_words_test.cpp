// Command lines that the real viewer refuses or passes over in silence.

#include "support/viewer_test.h"

namespace {

const std::string usage = "Usage:\n"
                          "/sw/vantero/bin/exec_show_stats_kav [tech-support]\n"
                          "        [global-info | global-detail | nack]\n"
                          "        [peer [no x| mac-id x| ip x| ctx-id x| nack | detail] ]\n"
                          "        [conn [id x|peer-no x|client-ip x|client-port x\n"
                          "              |server-ip x|server-port x|last|active|detail|nack]]\n"
                          "        [save-file output-filename]\n"
                          "        [read-file input-filename]\n"
                          "        [top-app [top x | detail | from-file <input-filename>\n"
                          "              |peer <kav-peer-id-hash | kav-peer-id-string>]\n"
                          "        [kav-bypass]\n"
                          "        [config]\n";

class refused_words : public viewer_test
{
};

} // namespace

TEST_F(refused_words, no_word_at_all_is_refused_with_the_usage)
{
    EXPECT_EQ(refusal_of({}), "Invalid args\n" + usage);
}

TEST_F(refused_words, words_without_their_path_are_refused_with_the_usage)
{
    EXPECT_EQ(refusal_of({"read-file"}), usage);
    EXPECT_EQ(refusal_of({"save-file"}), usage);
}

TEST_F(refused_words, unknown_words_print_nothing_beside_a_running_engine)
{
    EXPECT_EQ(report_of({"globe-info"}), "");
    EXPECT_EQ(report_of({""}), "");
    EXPECT_EQ(report_of({"Peer"}), "");
}

TEST_F(refused_words, mistakes_after_peer_are_refused_with_the_usage)
{
    EXPECT_EQ(refusal_of({"peer", "nonsense"}), "parameter to nonsense is NULL\n" + usage) << "begins with no";
    EXPECT_EQ(refusal_of({"peer", "sense"}), "Invalid peer argument: sense\n" + usage);
    EXPECT_EQ(refusal_of({"peer", "mac-id"}), "parameter to mac-id is NULL\n" + usage);
    EXPECT_EQ(refusal_of({"peer", "mac-id", "0:1:2:3:4:5"}), "invalid mac-id format: 0:1:2:3:4:5\n" + usage);
    EXPECT_EQ(refusal_of({"peer", "mac-id", "gg:11:22:33:44:55:66"}),
              "invalid mac-id format: gg:11:22:33:44:55\n" + usage);
    EXPECT_EQ(refusal_of({"peer", "ip", "224.0.0.1"}), "Invalid host address 224.0.0.1.\n");
}

TEST_F(refused_words, mistakes_after_conn_are_refused_with_the_usage)
{
    EXPECT_EQ(refusal_of({"conn", "sense"}), "Invalid conn argument: sense\n" + usage);
    EXPECT_EQ(refusal_of({"conn", "idle"}), "parameter to idle is NULL\n" + usage);
    EXPECT_EQ(refusal_of({"conn", "client-ip", "0.0.0.1"}), "Invalid host address 0.0.0.1.\n" + usage);
}

TEST_F(refused_words, mistakes_after_connection_are_refused_without_the_usage)
{
    EXPECT_EQ(refusal_of({"connection", "id"}), "parameter to id is NULL\n");
    EXPECT_EQ(refusal_of({"connection", "client-ip", "e0000001"}), "Invalid host address 224.0.0.1.\n");
}

TEST_F(refused_words, mistakes_after_top_app_are_refused_without_the_usage)
{
    EXPECT_EQ(refusal_of({"top-app", "top"}), "parameter to top is NULL\n");
    EXPECT_EQ(refusal_of({"top-app", "detail", "from-file"}), "parameter to from-file is NULL\n");
    EXPECT_EQ(refusal_of({"top-app", "peer"}), "parameter to peer is NULL\n");
}
