// The model and the keys of the live view.
#include "RE_stat_error.h"
#include "watch_fixture.h"

#include <random>

using namespace kavstat;

namespace {

using watch = watch_fixture;

constexpr WatchNeeds connections{.b_connections = true};

} // namespace

TEST(saved, is_what_the_reports_show_of_either_direction)
{
    EXPECT_EQ(saved_percent(4096, 1024), 75);
    EXPECT_EQ(saved_percent(1024, 4096), 0); // the output is larger than the input
    EXPECT_EQ(saved_percent(4096, 0), 0);
    EXPECT_EQ(saved_percent(0, 0), 0);
    // A connection that only decodes: the report says 88.94%.
    EXPECT_EQ(saved_text(0, 0, 11060, 100000), "d88.9%");
    EXPECT_EQ(saved_text(4096, 1024, 0, 0), "e75.0%");
    EXPECT_EQ(saved_text(4096, 1024, 11060, 100000), "e75.0% d88.9%");
    EXPECT_EQ(saved_text(4096, 1024, 1000, 4000), "75.0%");
    EXPECT_EQ(saved_text(10, 10, 0, 0), "e0.0%");
    EXPECT_EQ(saved_text(0, 0, 0, 0), "-");
}

TEST_F(watch, tells_rates_from_two_looks)
{
    start_small();
    look(0);
    EXPECT_TRUE(model.is_up());
    EXPECT_FALSE(model.has_rates());
    grow(0, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 4096);
    grow(0, RE_STAT_CONN_ID_ENCODE_OUT_BYTES, 1024);
    grow(0, RE_STAT_CONN_ID_ENCODE_NUM_MSGS, 10);
    grow(0, RE_STAT_CONN_ID_TOT_ENCODE_SPEED, 25000); // microseconds
    grow(1, RE_STAT_CONN_ID_DECODE_OUT_BYTES, 200);
    engine.add_global(RE_STAT_GLOBAL_ID_NUM_READ, 10);
    look(2);
    ASSERT_TRUE(model.has_rates());
    EXPECT_EQ(model.rates().before(), 2148);
    EXPECT_EQ(model.rates().after(), 512);
    EXPECT_EQ(model.rates().encode_latency, 2.5);
    EXPECT_TRUE(std::isnan(model.rates().decode_latency)); // nothing was decoded
    EXPECT_EQ(
        model.rate(model.before().engine[RE_STAT_GLOBAL_ID_NUM_READ], model.now().engine[RE_STAT_GLOBAL_ID_NUM_READ]),
        5);
    EXPECT_EQ(model.peers()[0].rates.encode_in, 2048);
    EXPECT_EQ(model.peers()[1].rates.encode_in, 0);
    EXPECT_EQ(model.peers()[1].history.decode_out.last(), std::vector<float>{100});
}

TEST_F(watch, shows_totals_of_a_saved_file_on_narrow_screens)
{
    start_small();
    grow(0, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 4096);
    look(0);
    view = WatchView(0, 1, false, "/var/folder/saved.kav");
    const std::string text = screen(60, 20);
    EXPECT_EQ(lines(60, 20)[0], "kavstat 1/8 [overview]  2023-11-14 22:28:20  saved.k  ? help");
    EXPECT_NE(text.find("\nTraffic before                    -                 4.0 KiB\n"), std::string::npos) << text;
    look(2); // now sparklines are more important
    EXPECT_EQ(screen(60, 20).find("4.0 KiB\n"), std::string::npos) << screen(60, 20);
}

TEST_F(watch, shows_no_rates_of_totals_that_went_back_or_of_another_engine)
{
    start_small();
    grow(0, RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS, 10);
    look(0);
    grow(0, RE_STAT_CONN_ID_NUM_TOTAL_NACK_MSGS, -7);
    look(1);
    EXPECT_EQ(model.rates().nacks, 0);

    engine.close();
    look(2);
    EXPECT_FALSE(model.is_up());
    EXPECT_EQ(model.error(), RE_STAT_ERR_NO_ENGINE);
    RE_stat_writer another;
    ASSERT_EQ(another.create(few, 1700000500), 0);
    another.publish();
    look(3, false);
    EXPECT_TRUE(model.is_up());
    EXPECT_FALSE(model.has_rates());
    EXPECT_TRUE(model.peers().empty());
    look(4);
    EXPECT_TRUE(model.has_rates());
}

TEST_F(watch, marks_a_restart_in_the_histories_of_the_engine_and_its_peers)
{
    start_small();
    look(0);
    grow(0, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 800);
    look(1);
    // Restarted within the same second, so the start time is the same.
    look(2, false);
    grow(0, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 400);
    look(3);
    EXPECT_EQ(spark_line(model.history().encode_in.last(), 9, false), "@|=");
    EXPECT_EQ(spark_line(model.peers()[0].history.encode_in.last(), 9, false), "@|=");
    EXPECT_EQ(spark_line(model.connection_history().last(), 9, false), "@|@");
}

TEST_F(watch, knows_a_peer_again_after_a_restart_whatever_its_slot)
{
    start_small();
    look(0);
    grow(1, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 800);
    look(1);
    const RE_stat_peer_header second_peer = model.peers()[1].now->header;
    engine.close();
    RE_stat_writer another;
    ASSERT_EQ(another.create(few, 1700000500), 0);
    another.add_peer(2, second_peer);
    another.publish();
    look(2, false);
    ASSERT_EQ(model.peers().size(), 1U);
    EXPECT_EQ(spark_line(model.peers()[0].history.encode_in.last(), 9, false), "@|");
}

TEST_F(watch, follows_connections_and_not_slots)
{
    start_small();
    press({'3'});
    look(0);
    grow(0, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 1000);
    look(1);
    ASSERT_EQ(model.conns().size(), 2U);
    EXPECT_EQ(model.conns()[0].rate_before(), 1000);
    engine.release_conn(conns[0]);
    ASSERT_EQ(engine.open_conn(0, conn_header_of(77), {}, 6), conns[0]);
    grow(0, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 5000);
    look(2);
    EXPECT_EQ(model.conns()[0].rate_before(), 0);
    EXPECT_EQ(model.conns()[0].bytes[WatchConn::encode_in], 5000);
    engine.release_conn(conns[0]);
    look(3);
    EXPECT_FALSE(model.conns()[0].b_there);
}

TEST_F(watch, reads_many_connections_part_by_part)
{
    RE_stat_limits limits;
    limits.connections = 2 * WatchModel::connections_per_look + 10;
    start(limits);
    open_connections(limits.connections);
    Source source;
    ASSERT_EQ(source.open(), 0);
    const std::vector<std::size_t> slots{0, WatchModel::connections_per_look, conns.size() - 1}; // one in each part
    const auto rates_after = [&](double at) {
        for (const std::size_t slot : slots) {
            grow(slot, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 100);
        }
        model.update(source.reader(), connections, true, now, second(at));
        std::vector<double> rates;
        for (const std::size_t slot : slots) {
            rates.push_back(model.conns()[slot].rate_before());
        }
        return rates;
    };
    EXPECT_EQ(rates_after(0), (std::vector<double>{0, 0, 0})); // reads all connections
    EXPECT_EQ(model.looks_for_all_connections(), 3U);
    EXPECT_EQ(rates_after(1), (std::vector<double>{100, 0, 0}));
    EXPECT_EQ(rates_after(2), (std::vector<double>{100, 100, 0})); // 200 bytes in two seconds
    EXPECT_EQ(rates_after(3), (std::vector<double>{100, 100, 100}));
    EXPECT_EQ(rates_after(4), (std::vector<double>{100, 100, 100}));
    // After a reading without connections, all are read.
    model.update(source.reader(), {}, true, now, second(5));
    for (const std::size_t slot : slots) {
        grow(slot, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 900);
    }
    model.read(source.reader(), connections, second(10));
    EXPECT_NEAR(model.conns()[slots[1]].rate_before(), 1100 / 8.0, 0.01); // since the reading at second 2
    EXPECT_NEAR(model.conns()[slots[2]].rate_before(), 1000 / 7.0, 0.01); // since the reading at second 3
}

TEST_F(watch, takes_nacks_as_they_arrive)
{
    start_small();
    engine.add_nack(nack_of(1));
    engine.add_nack(nack_of(2));
    press({'5'});
    look(0);
    ASSERT_EQ(model.nacks().size(), 2U);
    EXPECT_FALSE(model.nacks()[1].b_new); // logged before the first reading
    engine.add_nack(nack_of(3));
    look(1);
    ASSERT_EQ(model.nacks().size(), 3U);
    EXPECT_FALSE(model.nacks()[1].b_new);
    EXPECT_TRUE(model.nacks()[2].b_new);
    EXPECT_EQ(model.nacks()[2].nack.m_msg_seq_no, 3);
    look(2);
    EXPECT_FALSE(model.nacks()[2].b_new);
    reader->reset_all_nacks();
    look(3);
    EXPECT_TRUE(model.nacks().empty());
    engine.add_nack(nack_of(4));
    look(4);
    EXPECT_EQ(model.nacks().size(), 1U);
}

TEST_F(watch, keeps_no_more_than_the_newest_nacks)
{
    RE_stat_limits limits;
    limits.nacks = 3000;
    start(limits);
    press({'5'});
    look(0);
    for (std::uint32_t number = 0; number < 2500; ++number) {
        engine.add_nack(nack_of(number));
    }
    look(1);
    ASSERT_EQ(model.nacks().size(), WatchModel::most_nacks);
    EXPECT_EQ(model.nacks().back().nack.m_msg_seq_no, 2499);
}

TEST_F(watch, keeps_the_history_of_the_things_that_were_opened_last)
{
    RE_stat_limits limits;
    limits.connections = 20;
    start(limits);
    open_connections(limits.connections);
    Source source;
    ASSERT_EQ(source.open(), 0);
    const auto subject = [](int slot) { return WatchSubject{SubjectKind::connection, slot, slot, 5}; };
    model.update(source.reader(), {.subject = subject(0)}, true, now, second(0));
    grow(0, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 1000);
    model.update(source.reader(), {.subject = subject(1)}, true, now, second(1));
    ASSERT_NE(model.find_followed(subject(0)), nullptr);
    EXPECT_EQ(model.find_followed(subject(0))->history.encode_in.last(), std::vector<float>{1000});
    EXPECT_EQ(model.find_followed(subject(0))->rates.encode_in, 1000);
    engine.release_conn(conns[0]);
    model.update(source.reader(), {.subject = subject(0)}, true, now, second(2));
    EXPECT_FALSE(model.find_followed(subject(0))->b_there);
    for (int slot = 2; slot < 20; ++slot) {
        model.read(source.reader(), {.subject = subject(slot)}, second(3));
    }
    EXPECT_EQ(model.find_followed(subject(0)), nullptr);
    EXPECT_EQ(model.find_followed(subject(19 - static_cast<int>(WatchModel::most_followed))), nullptr);
    EXPECT_NE(model.find_followed(subject(20 - static_cast<int>(WatchModel::most_followed))), nullptr);
}

TEST_F(watch, orders_and_filters_page_by_page)
{
    start_small();
    press({'2'});
    look(0);
    lines(80, 24);
    press({'S', 'S', 'S'}); // from BEFORE back to PEER, highest first
    EXPECT_EQ(lines(10, 9)[2], ">      2 b");
    press({'r'});
    EXPECT_EQ(lines(10, 9)[2], ">      1 b");
    press({'/', 'C', 'H', '-', '1'});
    EXPECT_EQ(lines(80, 9)[1], "filter: CH-1_");
    EXPECT_EQ(lines(80, 9).size(), 4U);
    press({WATCH_KEY_BACKSPACE, '9', WATCH_KEY_ENTER});
    EXPECT_EQ(lines(80, 9)[1], "filter: CH-9");
    EXPECT_EQ(lines(80, 9)[3], "  (none)");
    press({'4'});
    EXPECT_EQ(lines(80, 9)[1].find("filter"), std::string::npos);
    press({'2'});
    EXPECT_EQ(lines(80, 9)[1], "filter: CH-9");
    press({WATCH_KEY_ESCAPE});
    EXPECT_EQ(lines(80, 9).size(), 4U);
}

TEST_F(watch, scrolls_no_further_than_there_are_rows)
{
    RE_stat_limits limits;
    limits.peers = 100;
    start(limits);
    for (int number = 0; number < 100; ++number) {
        engine.add_peer(number, {});
    }
    press({'2'});
    look(0);
    EXPECT_EQ(lines(8, 12).size(), 12U);
    EXPECT_EQ(lines(8, 12)[2], ">      0");
    press({'j', WATCH_KEY_DOWN});
    EXPECT_EQ(lines(8, 12)[4], ">      2");
    press({WATCH_KEY_PAGE_DOWN});
    EXPECT_EQ(lines(8, 12).back(), ">     12");
    press({WATCH_KEY_END});
    EXPECT_EQ(lines(8, 12).back(), ">     99");
    press({WATCH_KEY_PAGE_DOWN});
    EXPECT_EQ(lines(8, 12).back(), ">     99");
    press({'k'});
    EXPECT_EQ(lines(8, 12)[10], ">     98");
    press({WATCH_KEY_PAGE_UP});
    EXPECT_EQ(lines(8, 12)[2], ">     88");
    press({WATCH_KEY_HOME, 'k'});
    EXPECT_EQ(lines(8, 12)[2], ">      0");
}

TEST_F(watch, the_selection_goes_where_its_row_goes)
{
    start_small();
    press({'2'});
    look(0);
    grow(0, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 1000);
    look(1);
    EXPECT_EQ(lines(30, 9)[2].substr(0, 10), ">      1 b");
    press({'j'});
    EXPECT_EQ(lines(30, 9)[3].substr(0, 10), ">      2 b");
    grow(1, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 1000);
    look(2);
    EXPECT_EQ(lines(30, 9)[2].substr(0, 10), ">      2 b");
    press({WATCH_KEY_HOME}); // selects the first row
    grow(0, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 1000);
    look(3);
    EXPECT_EQ(lines(30, 9)[2].substr(0, 10), ">      1 b");
}

TEST_F(watch, opens_what_is_selected_and_returns)
{
    start_small();
    press({'2'});
    look(0);
    lines(80, 24);
    press({'j'});
    lines(80, 24);
    press({WATCH_KEY_ENTER});
    look(1);
    EXPECT_EQ(view.page().name(), "peer");
    EXPECT_EQ(lines(80, 24)[1], "Peer 2 b?[2J???e???, 00:00:00:00:00:00, 1 connection open");
    press({'/', 'x', WATCH_KEY_ENTER, WATCH_KEY_ESCAPE}); // only removes the filter
    EXPECT_EQ(view.page().name(), "peer");
    press({WATCH_KEY_ESCAPE});
    EXPECT_EQ(view.page().name(), "peers");
    EXPECT_EQ(lines(80, 24)[3].substr(0, 10), ">      2 b");
    turn_to('3', 1);
    lines(80, 24);
    turn_to(WATCH_KEY_ENTER, 1);
    EXPECT_EQ(view.page().name(), "connection");
    EXPECT_EQ(lines(120, 24)[1],
              "Connection 101, 192.0.2.10:50001 to 198.51.100.20:443, peer 1 branch-1.example.net, open "
              "since 2023-11-14 22:18:20");
    engine.close_conn(conns[0], 1700000600);
    look(2);
    EXPECT_NE(lines(120, 24)[1].find(", closed at 2023-11-14 22:23:20"), std::string::npos) << lines(120, 24)[1];
    engine.release_conn(conns[0]);
    look(3);
    EXPECT_EQ(lines(80, 24)[1], "Connection 101 is gone");
    press({'8', WATCH_KEY_ENTER}); // its rows cannot be opened
    EXPECT_EQ(view.page().name(), "configuration");
}

TEST_F(watch, tells_keys_pauses_and_ends)
{
    start_small();
    look(0);
    press({'?'});
    EXPECT_EQ(lines(80, 30)[0], "kavstat watch: keys");
    EXPECT_EQ(lines(60, 10)[9], "? q          show this help, which any key closes; quit");
    for (const std::size_t width : {60U, 80U}) {
        const std::size_t height = width == 60 ? 10 : 24;
        EXPECT_EQ(lines(width, height), lines(200, height)) << "a key's text is cut at " << width << " columns";
    }
    press({'q'}); // only closes the help
    EXPECT_FALSE(view.is_over());
    press({'p'});
    EXPECT_TRUE(view.is_paused());
    EXPECT_NE(lines(200, 3)[0].find("paused"), std::string::npos);
    press({'+'});
    EXPECT_EQ(view.interval(), 0.5);
    press({'-', '-'});
    EXPECT_EQ(view.interval(), 2);
    press({'\t', '\t'});
    EXPECT_EQ(view.page().name(), "connections");
    EXPECT_TRUE(view.needs().b_connections);
    press({'\t', '\t', '\t', '\t', '\t', '\t'});
    EXPECT_EQ(view.page().name(), "overview");
    EXPECT_FALSE(view.needs().b_connections);
    press({'q'});
    EXPECT_TRUE(view.is_over());
}

TEST_F(watch, says_that_there_is_no_engine)
{
    press({'2'});
    look(0);
    EXPECT_EQ(screen(80, 9), "kavstat 2/8 [peers]  no engine is running  every 1s  ? help\n"
                             "\n"
                             "CRITICAL no figures: no engine is running\n"
                             "Start the engine; the system log says why it stopped. If it runs, check\n"
                             "KAV_STAT_SEGMENT, KAV_STAT_OWNER and the permission to read its shared memory.\n");
    EXPECT_EQ(view.report(model), std::vector<std::string>{"peers: no figures: no engine is running"});
    EXPECT_EQ(json(), "{\"kavstat_watch\":1,\"page\":\"peers\",\"error\":\"no engine is running\"}\n");
}

TEST_F(watch, fits_any_window_whatever_keys_were_pressed)
{
    start();
    fill();
    look(0);
    engine.add_global(RE_STAT_GLOBAL_ID_NUM_READ, 10);
    std::mt19937 random(1);
    for (int round = 0; round < 3000; ++round) {
        int key = static_cast<int>(random() % 128);
        if (random() % 3 == 0) {
            key = WATCH_KEY_UP + static_cast<int>(random() % 11);
        }
        if (round % 20 == 0) {
            key = '1' + static_cast<int>(random() % 8);
        }
        view.press(key);
        if (round % 7 == 0) {
            look(round + 1);
        }
        const std::size_t width = round % 3 == 0 ? 1 : random() % 200;
        const std::size_t height = round % 3 == 0 ? 1 : random() % 60;
        const std::vector<WatchLine> lines = view.screen(model, width, height);
        EXPECT_LE(lines.size(), height);
        for (const WatchLine& line : lines) {
            EXPECT_LE(line.text.size(), width);
            for (const char letter : line.text) {
                EXPECT_TRUE(letter >= ' ' && letter <= '~') << int{letter};
            }
        }
    }
}
