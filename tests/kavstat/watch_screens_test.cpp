// Complete screens of the live view, computed by hand from the figures of one engine.
#include "watch_fixture.h"

using namespace kavstat;

namespace {

// Two peers with a connection each, read three times, two seconds apart. Connection 101 encodes 1 MiB into 768 KiB
// and then 2 MiB into 512 KiB; connection 102 decodes 11060 bytes into 100000 twice.
class watch_screens : public watch_fixture
{
protected:
    void SetUp() override
    {
        start_small();
        set_up_engine();
        look(0);
        for (int round = 0; round < 2; ++round) {
            const bool b_second = round == 1;
            grow(0, RE_STAT_CONN_ID_ENCODE_IN_BYTES, b_second ? 2097152 : 1048576);
            grow(0, RE_STAT_CONN_ID_ENCODE_OUT_BYTES, b_second ? 524288 : 786432);
            grow(0, RE_STAT_CONN_ID_ENCODE_NUM_MSGS, b_second ? 100 : 50);
            grow(0, RE_STAT_CONN_ID_TOT_ENCODE_SPEED, 150000);
            grow(1, RE_STAT_CONN_ID_DECODE_IN_BYTES, 11060);
            grow(1, RE_STAT_CONN_ID_DECODE_OUT_BYTES, 100000);
            grow(1, RE_STAT_CONN_ID_DECODE_NUM_MSGS, 4);
            grow(1, SO_STAT_RECV_ACK_FRAME_NUM, 1); // its ack queue is not stuck
            grow(1, RE_STAT_CONN_ID_TOT_DECODE_SPEED, b_second ? 1600 : 800);
            grow(1, RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS, b_second ? 3 : 0);
            look(2 * round + 2);
        }
    }
    void set_up_engine()
    {
        engine.set_global(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE, 2048);
        engine.set_global(RE_STAT_GLOBAL_ID_TOT_SIGBLOCK_DISK_USAGE, 300);
        engine.set_global(RE_STAT_GLOBAL_ID_TOT_DATAUINT_DISK_USAGE, 724);
        engine.set_global(RE_STAT_GLOBAL_ID_CACHE_SIGBLOCK_AGE, now - 3 * 3600 - 12 * 60 - 1);
        engine.set_global(RE_STAT_GLOBAL_ID_CACHE_DATAUNIT_AGE, now - 900);
        engine.set_global(RE_STAT_GLOBAL_ID_AVG_DISK_READ_LATENCY, 2500);
        engine.set_global(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, 1234);
        engine.set_peer_stat(0, RE_STAT_PEER_ID_ACK_Q_AVG_RTT, 6789);
        engine.set_peer_stat(1, RE_STAT_PEER_ID_ACK_Q_SIZE, 1536);
        engine.set_peer_stat(1, RE_STAT_PEER_ID_ACK_Q_AVG_RTT, 100);
    }
    const std::string healthy =
        "Healthy: none of " + std::to_string(all_rules().size()) + " rules found anything wrong\n";
};

// The cache has failed, and a peer is outdated.
class watch_screens_ill : public watch_screens
{
protected:
    void SetUp() override
    {
        cache_state = RE_CACHE_FAILED;
        b_outdated = true;
        watch_screens::SetUp();
    }
};

} // namespace

TEST_F(watch_screens, overview_at_60_by_10)
{
    EXPECT_EQ(screen(60, 10), "kavstat 1/8 [overview]  22:28:20  every 1s  ? help\n" + healthy +
                                  "Traffic before            1.0 MiB/s  =@\n"
                                  "Traffic after           261.4 KiB/s  @+\n"
                                  "Saved                         75.6%  :*\n"
                                  "Encode latency             1.500 ms  @=\n"
                                  "Cache, oldest 3h12m           50.0%  ==\n"
                                  "NACKs and r-tx                1.5/s   @\n"
                                  "Connections open                  2  @@\n");
}

TEST_F(watch_screens, overview_at_80_by_24)
{
    EXPECT_EQ(screen(80, 24), "kavstat 1/8 [overview]  22:28:20  every 1s  ? help\n" + healthy +
                                  "\n"
                                  "Traffic before            1.0 MiB/s  =@\n"
                                  "  encoding                1.0 MiB/s  =@\n"
                                  "  decoding               48.8 KiB/s  @@\n"
                                  "Traffic after           261.4 KiB/s  @+\n"
                                  "  encoding              256.0 KiB/s  @+\n"
                                  "  decoding                5.4 KiB/s  @@\n"
                                  "Saved                         75.6%  :*\n"
                                  "  encoding                    75.0%  :*\n"
                                  "  decoding                    88.9%  ##\n"
                                  "Encode latency             1.500 ms  @=\n"
                                  "Decode latency             0.400 ms  =@\n"
                                  "Disk read latency          2.500 ms  @@\n"
                                  "Cache, oldest 3h12m           50.0%  ==\n"
                                  "NACKs and r-tx                1.5/s   @\n"
                                  "Connections open                  2  @@\n");
}

const char* const figures_with_totals = "Traffic before            1.0 MiB/s                 3.2 MiB  =@\n"
                                        "  encoding                1.0 MiB/s                 3.0 MiB  =@\n"
                                        "  decoding               48.8 KiB/s               195.3 KiB  @@\n"
                                        "Traffic after           261.4 KiB/s                 1.3 MiB  @+\n"
                                        "  encoding              256.0 KiB/s                 1.2 MiB  @+\n"
                                        "  decoding                5.4 KiB/s                21.6 KiB  @@\n"
                                        "Saved                         75.6%                   60.2%  :*\n"
                                        "  encoding                    75.0%                   58.3%  :*\n"
                                        "  decoding                    88.9%                   88.9%  ##\n"
                                        "Encode latency             1.500 ms                          @=\n"
                                        "Decode latency             0.400 ms                          =@\n"
                                        "Disk read latency          2.500 ms                          @@\n"
                                        "Cache, oldest 3h12m           50.0%      1.0 GiB of 2.0 GiB  ==\n"
                                        "NACKs and r-tx                1.5/s                       3   @\n"
                                        "Connections open                  2                    1234  @@\n";

TEST_F(watch_screens, overview_at_120_by_40)
{
    EXPECT_EQ(screen(120, 40),
              "kavstat 1/8 [overview]  22:28:20  every 1s  ? help\n" + healthy + "\n" + figures_with_totals);
}

TEST_F(watch_screens, overview_at_200_by_60)
{
    EXPECT_EQ(screen(200, 60), "kavstat  1[overview] 2 peers  3 connections  4 applications  5 nacks  6 bypass  7 "
                               "counters  8 configuration  22:28:20  every 1s  ? help\n" +
                                   healthy + "\n" + figures_with_totals);
}

TEST_F(watch_screens, overview_with_blocks)
{
    view = WatchView(0, 1, true);
    EXPECT_EQ(screen(80, 24), "kavstat 1/8 [overview]  22:28:20  every 1s  ? help\n" + healthy +
                                  "\n"
                                  "Traffic before            1.0 MiB/s  ▄█\n"
                                  "  encoding                1.0 MiB/s  ▄█\n"
                                  "  decoding               48.8 KiB/s  ██\n"
                                  "Traffic after           261.4 KiB/s  █▅\n"
                                  "  encoding              256.0 KiB/s  █▅\n"
                                  "  decoding                5.4 KiB/s  ██\n"
                                  "Saved                         75.6%  ▂▆\n"
                                  "  encoding                    75.0%  ▂▆\n"
                                  "  decoding                    88.9%  ▇▇\n"
                                  "Encode latency             1.500 ms  █▄\n"
                                  "Decode latency             0.400 ms  ▄█\n"
                                  "Disk read latency          2.500 ms  ██\n"
                                  "Cache, oldest 3h12m           50.0%  ▄▄\n"
                                  "NACKs and r-tx                1.5/s   █\n"
                                  "Connections open                  2  ██\n");
}

TEST_F(watch_screens_ill, what_is_wrong_stands_first)
{
    EXPECT_EQ(screen(60, 10), "kavstat 1/8 [overview]  22:28:20  every 1s  ? help\n"
                              "> 1/2 CRITICAL engine: cache state failed, for at least 4 s\n"
                              "    Save the statistics (exec_show_stats_kav save-file\n"
                              "    FILE), then look at the disk and restart the engine.\n"
                              "Traffic before            1.0 MiB/s  =@\n"
                              "Traffic after           261.4 KiB/s  @+\n"
                              "Saved                         75.6%  :*\n"
                              "Encode latency             1.500 ms  @=\n"
                              "Cache failed                  50.0%  ==\n"
                              "NACKs and r-tx                1.5/s   @\n");
    EXPECT_EQ(screen(80, 24), "kavstat 1/8 [overview]  22:28:20  every 1s  ? help\n"
                              "> CRITICAL engine: cache state failed, for at least 4 s\n"
                              "  WARNING peer 2 b?[2J???e???: is outdated although connections are open, for at\n"
                              "    The engine has given up its cache; traffic passes without redundancy\n"
                              "    elimination. Save the statistics (exec_show_stats_kav save-file FILE), then\n"
                              "    look at the disk and restart the engine.\n"
                              "\n"
                              "Traffic before            1.0 MiB/s  =@\n"
                              "  encoding                1.0 MiB/s  =@\n"
                              "  decoding               48.8 KiB/s  @@\n"
                              "Traffic after           261.4 KiB/s  @+\n"
                              "  encoding              256.0 KiB/s  @+\n"
                              "  decoding                5.4 KiB/s  @@\n"
                              "Saved                         75.6%  :*\n"
                              "  encoding                    75.0%  :*\n"
                              "  decoding                    88.9%  ##\n"
                              "Encode latency             1.500 ms  @=\n"
                              "Decode latency             0.400 ms  =@\n"
                              "Disk read latency          2.500 ms  @@\n"
                              "Cache failed                  50.0%  ==\n"
                              "NACKs and r-tx                1.5/s   @\n"
                              "Connections open                  2  @@\n");
}

TEST_F(watch_screens, peers_at_four_sizes)
{
    press({'2'});
    EXPECT_EQ(screen(60, 10), "kavstat 2/8 [peers]  22:28:20  every 1s  ? help\n"
                              " >  PEER HOST                     *BEFORE SAVED\n"
                              ">      1 branch-1.example.net   1.0 MiB/s e58.3%\n"
                              "       2 b?[2J???e???          48.8 KiB/s d88.9%\n");
    EXPECT_EQ(screen(80, 24), "kavstat 2/8 [peers]  22:28:20  every 1s  ? help\n"
                              " >  PEER HOST                  CONNS     *BEFORE       AFTER SAVED\n"
                              ">      1 branch-1.example.net      1   1.0 MiB/s 256.0 KiB/s e58.3%\n"
                              "       2 b?[2J???e???              1  48.8 KiB/s   5.4 KiB/s d88.9%\n");
    EXPECT_EQ(
        screen(120, 40),
        "kavstat 2/8 [peers]  22:28:20  every 1s  ? help\n"
        " >  PEER HOST                  CONNS     *BEFORE       AFTER SAVED          NACK/s         RTT     ACK-Q "
        "TRAFFIC\n"
        ">      1 branch-1.example.net      1   1.0 MiB/s 256.0 KiB/s e58.3%              0    6.789 ms       0 B =@\n"
        "       2 b?[2J???e???              1  48.8 KiB/s   5.4 KiB/s d88.9%            1.5    0.100 ms   1.5 KiB "
        "@@\n");
    EXPECT_EQ(screen(200, 60), "kavstat  1 overview  2[peers] 3 connections  4 applications  5 nacks  6 bypass  7 "
                               "counters  8 configuration  22:28:20  every 1s  ? help\n"
                               "    PEER HOST                  CONNS     *BEFORE       AFTER SAVED          NACK/s     "
                               " ENC-IN     ENC-OUT      DEC-IN     DEC-OUT         RTT     ACK-Q TRAFFIC\n"
                               ">      1 branch-1.example.net      1   1.0 MiB/s 256.0 KiB/s e58.3%              0   "
                               "1.0 MiB/s 256.0 KiB/s           -           -    6.789 ms       0 B =@\n"
                               "       2 b?[2J???e???              1  48.8 KiB/s   5.4 KiB/s d88.9%            1.5     "
                               "      -           -   5.4 KiB/s  48.8 KiB/s    0.100 ms   1.5 KiB @@\n");
}

TEST_F(watch_screens_ill, a_row_is_marked_by_what_is_wrong)
{
    press({'2'});
    EXPECT_EQ(screen(80, 24), "kavstat 2/8 [peers]  22:28:20  every 1s  ? help\n"
                              " >  PEER HOST                  CONNS     *BEFORE       AFTER SAVED\n"
                              ">      1 branch-1.example.net      1   1.0 MiB/s 256.0 KiB/s e58.3%\n"
                              " W     2 b?[2J???e???              1  48.8 KiB/s   5.4 KiB/s d88.9%\n");
}

TEST_F(watch_screens, columns_that_there_is_no_room_for_are_to_the_right)
{
    press({'2'});
    lines(60, 10);
    press({WATCH_KEY_RIGHT});
    EXPECT_EQ(screen(60, 10), "kavstat 2/8 [peers]  22:28:20  every 1s  ? help\n"
                              "<>  PEER HOST                     *BEFORE  CONNS       AFTER\n"
                              ">      1 branch-1.example.net   1.0 MiB/s      1 256.0 KiB/s\n"
                              "       2 b?[2J???e???          48.8 KiB/s      1   5.4 KiB/s\n");
}

// The same engine, with connections read.
class watch_connection_screens : public watch_screens
{
protected:
    watch_connection_screens() { press({'3'}); }
};

TEST_F(watch_connection_screens, at_four_sizes)
{
    EXPECT_EQ(screen(60, 10), "kavstat 3/8 [connections]  22:28:20  every 1s  ? help\n"
                              " >      CONN SERVER                      *RATE SAVED\n"
                              ">        101 198.51.100.20:443       1.0 MiB/s e58.3%\n"
                              "         102 198.51.100.20:80       48.8 KiB/s d88.9%\n");
    EXPECT_EQ(screen(80, 24), "kavstat 3/8 [connections]  22:28:20  every 1s  ? help\n"
                              " >      CONN   PEER SERVER                STATE        *RATE SAVED\n"
                              ">        101      1 198.51.100.20:443     open     1.0 MiB/s e58.3%\n"
                              "         102      2 198.51.100.20:80      open    48.8 KiB/s d88.9%\n");
    EXPECT_EQ(
        screen(120, 40),
        "kavstat 3/8 [connections]  22:28:20  every 1s  ? help\n"
        " >      CONN   PEER CLIENT                SERVER                STATE        *RATE    BEFORE     AFTER SAVED\n"
        ">        101      1 192.0.2.10:50001      198.51.100.20:443     open     1.0 MiB/s   3.0 MiB   1.2 MiB "
        "e58.3%\n"
        "         102      2 192.0.2.10:50002      198.51.100.20:80      open    48.8 KiB/s 195.3 KiB  21.6 KiB "
        "d88.9%\n");
    EXPECT_EQ(screen(200, 60),
              "kavstat  1 overview  2 peers  3[connections] 4 applications  5 nacks  6 bypass  7 counters  8 "
              "configuration  22:28:20  every 1s  ? help\n"
              "        CONN   PEER CLIENT                SERVER                STATE        *RATE    BEFORE     AFTER "
              "SAVED            ENC-IN   ENC-OUT    DEC-IN   DEC-OUT   OPENED HOST\n"
              ">        101      1 192.0.2.10:50001      198.51.100.20:443     open     1.0 MiB/s   3.0 MiB   1.2 MiB "
              "e58.3%          3.0 MiB   1.2 MiB       0 B       0 B      10m branch-1.example.net\n"
              "         102      2 192.0.2.10:50002      198.51.100.20:80      open    48.8 KiB/s 195.3 KiB  21.6 KiB "
              "d88.9%              0 B       0 B  21.6 KiB 195.3 KiB      10m b?[2J???e???\n");
}

TEST_F(watch_screens, counters_at_four_sizes)
{
    press({'7', '/', 'n', 'a', 'c', 'k', 'e', 'd', WATCH_KEY_ENTER});
    EXPECT_EQ(screen(60, 10), "kavstat 7/8 [counters]  22:28:20  every 1s  ? help\n"
                              "filter: nacked\n"
                              " >*AREA       COUNTER                            NOW\n"
                              ">!nacks       num_total_nack_msgs                  3\n"
                              "  nacks       num_col_nack_msgs                    0\n"
                              "  nacks       num_miss_nack_msgs                   0\n"
                              "  nacks       num_cache_not_ready_nack_~           0\n");
    EXPECT_EQ(screen(80, 24), "kavstat 7/8 [counters]  22:28:20  every 1s  ? help\n"
                              "filter: nacked\n"
                              " >*AREA       COUNTER                                           NOW   PER SECOND\n"
                              ">!nacks       num_total_nack_msgs                                 3        1.5/s\n"
                              "  nacks       num_col_nack_msgs                                   0            -\n"
                              "  nacks       num_miss_nack_msgs                                  0            -\n"
                              "  nacks       num_cache_not_ready_nack_msgs                       0            -\n");
    EXPECT_EQ(screen(120, 40),
              "kavstat 7/8 [counters]  22:28:20  every 1s  ? help\n"
              "filter: nacked\n"
              " >*AREA       COUNTER                                           NOW   PER SECOND MEANING\n"
              ">!nacks       num_total_nack_msgs                                 3        1.5/s messages nacked, "
              "whatever the cause\n"
              "  nacks       num_col_nack_msgs                                   0            - messages nacked: "
              "checksum collision\n"
              "  nacks       num_miss_nack_msgs                                  0            - messages nacked: chunk "
              "missed\n"
              "  nacks       num_cache_not_ready_nack_msgs                       0            - messages nacked: cache "
              "not ready\n");
    EXPECT_EQ(screen(200, 60), "kavstat  1 overview  2 peers  3 connections  4 applications  5 nacks  6 bypass  "
                               "7[counters] 8 configuration  22:28:20  every 1s  ? help\n"
                               "filter: nacked\n"
                               "  *AREA       COUNTER                                           NOW   PER SECOND       "
                               "         VALUE UNIT                OF          MEANING\n"
                               ">!nacks       num_total_nack_msgs                                 3        1.5/s       "
                               "             3 messages            connections messages nacked, whatever the cause\n"
                               "  nacks       num_col_nack_msgs                                   0            -       "
                               "             0 messages            connections messages nacked: checksum collision\n"
                               "  nacks       num_miss_nack_msgs                                  0            -       "
                               "             0 messages            connections messages nacked: chunk missed\n"
                               "  nacks       num_cache_not_ready_nack_msgs                       0            -       "
                               "             0 messages            connections messages nacked: cache not ready\n");
}

TEST_F(watch_screens, a_peer_with_its_figures_and_counters)
{
    press({'2'});
    lines(80, 24);
    press({WATCH_KEY_ENTER, '/', 'e', 'n', 'c', 'o', 'd', 'e', '_', 'i', 'n', WATCH_KEY_ENTER});
    EXPECT_EQ(screen(80, 24), "kavstat 2/8 [peers]  22:28:20  every 1s  ? help\n"
                              "Peer 1 branch-1.example.net, 00:00:00:00:00:00, 1 connection open\n"
                              "Traffic before            1.0 MiB/s  =@\n"
                              "  encoding                1.0 MiB/s  =@\n"
                              "  decoding                    0 B/s\n"
                              "Traffic after           256.0 KiB/s  @+\n"
                              "  encoding              256.0 KiB/s  @+\n"
                              "  decoding                    0 B/s\n"
                              "Saved                         75.0%  :*\n"
                              "  encoding                    75.0%  :*\n"
                              "  decoding                        -\n"
                              "NACKs and r-tx                  0/s\n"
                              "filter: encode_in\n"
                              " >*AREA       COUNTER                                           NOW   PER SECOND\n"
                              "> volumes     encode_in_bytes                               3.0 MiB    1.0 MiB/s\n"
                              "  volumes     re_encode_in_bytes                                0 B            -\n"
                              "  volumes     lz_encode_in_bytes                                0 B            -\n");
}

TEST_F(watch_screens_ill, the_selected_finding_stays_selected_and_opens_what_it_is_about)
{
    lines(80, 24);
    press({WATCH_KEY_DOWN});
    EXPECT_EQ(lines(80, 24)[2], "> WARNING peer 2 b?[2J???e???: is outdated although connections are open, for at");
    EXPECT_EQ(lines(80, 24)[3], "    least 4 s");
    engine.set_global(RE_STAT_GLOBAL_ID_CACHE_STATE, RE_CACHE_ACTIVE); // removes the finding before it
    look(6);
    EXPECT_EQ(lines(80, 24)[1].substr(0, 16), "> WARNING peer 2");
    press({WATCH_KEY_ENTER});
    EXPECT_EQ(lines(80, 24)[1], "Peer 2 b?[2J???e???, 00:00:00:00:00:00, 1 connection open, outdated");
    EXPECT_EQ(lines(80, 24)[2].substr(0, 16), "WARNING peer 2 b");
    EXPECT_EQ(lines(80, 24)[3], "  least 6 s");
    EXPECT_EQ(lines(80, 24)[4], "  It should heal at the next contact. If it stays, check the peer's version and");
    EXPECT_EQ(lines(80, 24)[5], "  that its management connection works.");
}

TEST_F(watch_screens_ill, what_is_wrong_is_in_the_text_and_in_json_as_well)
{
    const std::vector<std::string> text = view.report(model);
    EXPECT_EQ(text[0], "overview at 22:28:20");
    EXPECT_EQ(text[1], "CRITICAL engine: cache state failed, for at least 4 s");
    EXPECT_EQ(text[2],
              "    Save the statistics (exec_show_stats_kav save-file FILE), then look at the disk and restart "
              "the engine.");
    const nlohmann::json line = nlohmann::json::parse(json());
    ASSERT_EQ(line["health"].size(), 2U);
    EXPECT_EQ(line["health"][0]["rule"], "cache_failed");
    EXPECT_EQ(line["health"][0]["severity"], "critical");
    EXPECT_EQ(line["health"][1]["peer"], 2);
    EXPECT_EQ(line["figures"]["before_bytes_per_second"], 1098576);
    EXPECT_EQ(line["figures"]["encode_saved_ratio"], 0.75);
    EXPECT_EQ(line["figures"]["encode_latency_seconds"], 0.0015);
    EXPECT_EQ(line["rows"], nlohmann::json::array());
}
