// The two command words that list connections, with the whole output of the real viewer.

#include "support/small_engine_reports.h"
#include "support/viewer_test.h"

namespace {

class connection_words : public viewer_test
{
};

} // namespace

TEST_F(connection_words, conn_prints_a_table_newest_id_first)
{
    EXPECT_EQ(report_of({"conn"}), conn_head + conn_12_row + conn_10_row + conn_9_row);
}

TEST_F(connection_words, conn_keeps_the_table_for_filters_by_server_peer_and_activity)
{
    EXPECT_EQ(report_of({"conn", "server-port", "445"}), conn_head + conn_9_row);
    EXPECT_EQ(report_of({"conn", "server-ip", "198.51.100.20"}), conn_head + conn_12_row + conn_10_row);
    EXPECT_EQ(report_of({"conn", "peer-no", "2"}), conn_head + conn_9_row);
    EXPECT_EQ(report_of({"conn", "active"}), conn_head + conn_12_row + conn_9_row);
}

TEST_F(connection_words, conn_prints_blocks_for_filters_by_id_and_client)
{
    EXPECT_EQ(report_of({"conn", "id", "12"}), conn_12_info);
    EXPECT_EQ(report_of({"conn", "client-ip", "192.0.2.11"}), conn_9_info);
    EXPECT_EQ(report_of({"conn", "client-port", "50000"}), conn_12_info);
    EXPECT_EQ(report_of({"conn", "client-port", "115536"}), conn_12_info) << "the low 16 bits count";
}

TEST_F(connection_words, conn_shows_detail_nacks_and_the_last_one)
{
    EXPECT_EQ(report_of({"conn", "id", "12", "detail"}), conn_12_info + encoding_conn_detail);
    EXPECT_EQ(report_of({"conn", "id", "12", "nack"}), conn_12 + nack_head + second_nack);
    EXPECT_EQ(report_of({"conn", "last", "peer-no", "2"}), conn_9_info);
}

TEST_F(connection_words, conn_tells_when_a_closed_connection_lived)
{
    const int conn = m_engine.writer().open_conn(1, conn_ends(13, 0xc000020d, 50004, 0xc6336414, 8080), transport(3),
                                                 once_upon_a_time);
    m_engine.writer().close_conn(conn, once_upon_a_time + 3661);
    EXPECT_EQ(report_of({"conn", "id", "13"}),
              "\nConn-ID: 13 192.0.2.13:50004 -- 198.51.100.20:8080  Peer No:  2 Status: Closed\n" + rule_of_78 +
                  "Open at 03/13/2011 07:06:40, Close at 03/13/2011 08:07:41, Duration: 3661 secs\n" + idle_encode +
                  idle_decode);
}

TEST_F(connection_words, conn_prints_nothing_when_nothing_matches)
{
    EXPECT_EQ(report_of({"conn", "id", "8"}), "") << "goes around the engine";
    EXPECT_EQ(report_of({"conn", "peer-no", "3"}), "");
}

TEST_F(connection_words, connection_takes_hexadecimal_numbers_at_fixed_places)
{
    EXPECT_EQ(report_of({"connection"}), conn_head + conn_12_row + conn_10_row + conn_9_row);
    EXPECT_EQ(report_of({"connection", "id", "c"}), conn_12_info);
    EXPECT_EQ(report_of({"connection", "client-ip", "c000020b"}), conn_9_info);
    EXPECT_EQ(report_of({"connection", "-", "-", "-", "-", "client-port", "c350"}), conn_12_info);
    EXPECT_EQ(report_of({"connection", "-", "-", "server-ip", "c6336415"}), conn_head + conn_9_row);
    EXPECT_EQ(report_of({"connection", "-", "-", "-", "-", "-", "-", "server-port", "1bd"}), conn_head + conn_9_row);
    EXPECT_EQ(report_of({"connection", "id", "c", "-", "-", "-", "-", "-", "-", "detail"}),
              conn_12_info + encoding_conn_detail);
    EXPECT_EQ(report_of({"connection", "-", "-", "-", "-", "-", "-", "-", "-", "-", "active", "-", "peer-no", "1"}),
              conn_head + conn_12_row);
    EXPECT_EQ(report_of({"connection", "-", "-", "-", "-", "-", "-", "-", "-", "-", "-", "last", "peer-no", "2"}),
              conn_9_info);
}
