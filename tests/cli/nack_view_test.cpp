// The NACK log.
#include "RE_nack_view.h"
#include "support/contains.h"
#include "support/fake_reader.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace {

const std::string head = "\n"
                         "Time                  Peer-No  Conn-ID     Msg-No Type Reason\n"
                         "-------------------------------------------------------------------------------\n";

class nack_view : public view_test
{
protected:
    // 1299506709 is 2011-03-07 14:05:09.
    void add(int peer_id, int conn_id, int msg, int type = 0, int reason = 1, int time = 1299506709)
    {
        reader.nacks.push_back(
            {time, static_cast<std::int16_t>(type), static_cast<std::int16_t>(reason), peer_id, conn_id, msg});
    }

    std::string rows(int conn_id, int peer_id) const
    {
        const std::string output = output_of([=] { show_nack_info(conn_id, peer_id); });
        EXPECT_EQ(output.substr(0, head.size()), head);
        return output.size() < head.size() ? "" : output.substr(head.size());
    }
};

} // namespace

TEST_F(nack_view, prints_head_and_rule_alone_for_an_empty_log)
{
    EXPECT_EQ(output_of([] { show_nack_info(-1, -1); }), head);
    EXPECT_EQ(reader.calls, std::vector<std::string>{"get_first_nack"});
}

TEST_F(nack_view, has_a_rule_of_79_dashes)
{
    EXPECT_TRUE(contains(head, "\n" + std::string(79, '-') + "\n"));
    EXPECT_EQ(rows(-1, -1), "");
}

TEST_F(nack_view, lists_every_entry_in_the_order_of_the_log_without_filters)
{
    add(3, 12, 7);
    add(1, 99, 5, 1, 3, 1299506708);
    EXPECT_EQ(rows(-1, -1), "03/07/2011 14:05:09         3       12          7 Nack Chunk missed\n"
                            "03/07/2011 14:05:08         1       99          5 R-Tx Disk overloaded\n");
}

TEST_F(nack_view, walks_the_log_by_the_cursors_that_the_reader_hands_out)
{
    add(3, 12, 7);
    add(3, 12, 8);
    rows(-1, -1);
    EXPECT_EQ(reader.calls,
              (std::vector<std::string>{"get_first_nack", "get_next_nack 7", "get_next_nack 8", "get_next_nack 9"}));
}

TEST_F(nack_view, lists_only_the_entries_of_a_peer_or_a_connection_or_both)
{
    add(3, 12, 1);
    add(4, 12, 2);
    add(3, 13, 3);
    const std::string first = "03/07/2011 14:05:09         3       12          1 Nack Chunk missed\n";
    EXPECT_EQ(rows(-1, 3), first + "03/07/2011 14:05:09         3       13          3 Nack Chunk missed\n");
    EXPECT_EQ(rows(12, -1), first + "03/07/2011 14:05:09         4       12          2 Nack Chunk missed\n");
    EXPECT_EQ(rows(12, 3), first);
    EXPECT_EQ(rows(13, 4), "");
}

TEST_F(nack_view, takes_0_for_a_number_and_any_negative_filter_for_none)
{
    add(0, 0, 1);
    add(1, 1, 2);
    const std::string of_zero = "03/07/2011 14:05:09         0        0          1 Nack Chunk missed\n";
    EXPECT_EQ(rows(0, -1), of_zero);
    EXPECT_EQ(rows(-1, 0), of_zero);
    EXPECT_EQ(rows(INT_MIN, -5), of_zero + "03/07/2011 14:05:09         1        1          2 Nack Chunk missed\n");
}

TEST_F(nack_view, calls_every_type_but_0_a_retransmission)
{
    for (const int type : {0, 1, 2, -1}) {
        add(3, 12, 7, type, 0);
    }
    EXPECT_EQ(rows(-1, -1), "03/07/2011 14:05:09         3       12          7 Nack None\n"
                            "03/07/2011 14:05:09         3       12          7 R-Tx None\n"
                            "03/07/2011 14:05:09         3       12          7 R-Tx None\n"
                            "03/07/2011 14:05:09         3       12          7 R-Tx None\n");
}

TEST_F(nack_view, has_a_word_for_every_reason_and_calls_the_rest_unknown)
{
    for (const int reason : {0, 1, 2, 3, 4, 5, 6, 7, 32767, -1, -32768}) {
        add(3, 12, 7, 0, reason);
    }
    const std::string row = "03/07/2011 14:05:09         3       12          7 Nack ";
    EXPECT_EQ(rows(-1, -1), row + "None\n" + row + "Chunk missed\n" + row + "Checksum collision\n" + row +
                                "Disk overloaded\n" + row + "Cache is not ready\n" + row + "Unknown\n" + row +
                                "Unknown\n" + row + "Unknown\n" + row + "Unknown\n" + row + "Unknown\n" + row +
                                "Unknown\n");
}

TEST_F(nack_view, keeps_columns_of_20_8_8_and_10_and_never_cuts_a_number)
{
    add(12345678, 87654321, 1234567890);
    add(INT_MIN, INT_MAX, INT_MIN);
    EXPECT_EQ(rows(-1, -1), "03/07/2011 14:05:09  12345678 87654321 1234567890 Nack Chunk missed\n"
                            "03/07/2011 14:05:09  -2147483648 2147483647 -2147483648 Nack Chunk missed\n");
}

TEST_F(nack_view, shows_times_from_1901_to_2038)
{
    for (const int time : {0, -1, INT_MAX, INT_MIN}) {
        add(1, 2, 3, 0, 0, time);
    }
    EXPECT_EQ(rows(-1, -1), "01/01/1970 00:00:00         1        2          3 Nack None\n"
                            "12/31/1969 23:59:59         1        2          3 Nack None\n"
                            "01/19/2038 03:14:07         1        2          3 Nack None\n"
                            "12/13/1901 20:45:52         1        2          3 Nack None\n");
}

TEST_F(nack_view, ends_with_a_log_that_is_emptied_while_it_is_read)
{
    add(1, 2, 3);
    add(1, 2, 4);
    reader.on_read = [this] {
        if (reader.calls.back() == "get_next_nack 8") {
            reader.nacks.clear();
        }
    };
    EXPECT_EQ(rows(-1, -1), "03/07/2011 14:05:09         1        2          3 Nack Chunk missed\n");
}
