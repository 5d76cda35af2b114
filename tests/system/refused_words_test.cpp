// Command lines that the real viewer refuses or silently ignores.

#include "support/viewer_test.h"
#include "support/viewer_usage.h"

namespace {

class refused_words : public viewer_test
{
};

} // namespace

TEST_F(refused_words, bring_their_message_and_some_of_them_the_usage)
{
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, "Invalid args\n" + usage},
        {{"read-file"}, usage},
        {{"save-file"}, usage},
        {{"peer", "nonsense"}, "parameter to nonsense is NULL\n" + usage}, // starts with "no"
        {{"peer", "sense"}, "Invalid peer argument: sense\n" + usage},
        {{"peer", "mac-id", "0:1:2:3:4:5"}, "invalid mac-id format: 0:1:2:3:4:5\n" + usage},
        {{"peer", "mac-id", "gg:11:22:33:44:55:66"}, "invalid mac-id format: gg:11:22:33:44:55\n" + usage},
        {{"peer", "ip", "224.0.0.1"}, "Invalid host address 224.0.0.1.\n"},
        {{"conn", "sense"}, "Invalid conn argument: sense\n" + usage},
        {{"conn", "client-ip", "0.0.0.1"}, "Invalid host address 0.0.0.1.\n" + usage},
        {{"connection", "id"}, "parameter to id is NULL\n"},
        {{"connection", "client-ip", "e0000001"}, "Invalid host address 224.0.0.1.\n"},
        {{"top-app", "top"}, "parameter to top is NULL\n"},
    };
    for (const auto& [words, text] : cases) {
        EXPECT_EQ(refusal_of(words), text);
    }
}

TEST_F(refused_words, that_are_unknown_print_nothing_beside_a_running_engine)
{
    EXPECT_EQ(report_of({"globe-info"}), "");
    EXPECT_EQ(report_of({""}), "");
    EXPECT_EQ(report_of({"Peer"}), "");
}
