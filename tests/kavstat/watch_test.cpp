// The live view without its terminal.
#include "RE_stat_error.h"
#include "kavstat_fixture.h"
#include "watch/view.h"

#include <cstring>
#include <random>

using namespace kavstat;

namespace {

using clock_point = WatchModel::clock::time_point;

clock_point second(double number)
{
    return clock_point() +
           std::chrono::duration_cast<WatchModel::clock::duration>(std::chrono::duration<double>(number));
}

class watch : public kavstat_test
{
protected:
    watch() { setenv("TZ", "UTC", 1); }

    void look(double at, bool b_connections = false)
    {
        Source source;
        if (const int error = source.open()) {
            model.lose(error);
            return;
        }
        model.update(source.reader(), b_connections, now, second(at));
    }
    // An engine with two peers and a connection with each.
    void start_small()
    {
        start();
        for (int number = 1; number <= 2; ++number) {
            RE_stat_peer_header header{};
            header.m_kav_peer_id.m_data[0] = static_cast<unsigned char>(number);
            std::strcpy(header.m_peer_host_name, number == 1 ? "branch-1" : "branch\x1B[2J");
            const int peer = engine.add_peer(number, header);
            conns.push_back(engine.open_conn(peer, conn_header_of(static_cast<std::uint32_t>(number)), {}, 5));
        }
    }
    std::vector<std::string> texts(std::size_t width, std::size_t height)
    {
        std::vector<std::string> result;
        for (const WatchLine& line : view.screen(model, width, height)) {
            result.push_back(line.text);
        }
        return result;
    }
    void press(std::initializer_list<int> keys)
    {
        for (const int key : keys) {
            view.press(key);
        }
    }

    std::vector<int> conns;
    WatchModel model;
    WatchView view{WatchPage::peers, 1, false};
};

} // namespace

TEST(spark_line, shows_the_last_values_by_their_height)
{
    const std::vector<double> values{9, 0, 1, 4, 8};
    EXPECT_EQ(spark_line(values, 4, true), " ▁▄█");
    EXPECT_EQ(spark_line(values, 4, false), " .=@");
    EXPECT_EQ(spark_line(values, 9, false), "@ .=#");
    EXPECT_EQ(spark_line(std::vector<double>{}, 9, true), "");
    EXPECT_EQ(spark_line(std::vector<double>{0, 0}, 9, true), "  ");
    EXPECT_EQ(spark_line(values, 0, true), "");
}

TEST(short_size, has_a_unit_of_powers_of_1024)
{
    EXPECT_EQ(short_size(0), "0 B");
    EXPECT_EQ(short_size(999), "999 B");
    EXPECT_EQ(short_size(1000), "1.0 KB");
    EXPECT_EQ(short_size(1536), "1.5 KB");
    EXPECT_EQ(short_size(5.0 * 1024 * 1024), "5.0 MB");
    EXPECT_EQ(short_rate(2048), "2.0 KB/s");
    EXPECT_EQ(short_rate(0), "-");
}

TEST(short_count, fits_in_seven_columns)
{
    EXPECT_EQ(short_count(0), "0");
    EXPECT_EQ(short_count(0.5), "0.5");
    EXPECT_EQ(short_count(999999), "999999");
    EXPECT_EQ(short_count(12345678), "12.3M");
    EXPECT_EQ(short_count(9.9e11), "990.0G");
}

TEST(cut_to_width, counts_characters_and_not_bytes)
{
    EXPECT_EQ(cut_to_width("ab▁▂▃", 4), "ab▁▂");
    EXPECT_EQ(cut_to_width("ab", 4), "ab");
    EXPECT_EQ(cut_to_width("▁", 0), "");
}

TEST(history, keeps_the_last_minutes)
{
    History history;
    for (int value = 0; value < 1000; ++value) {
        history.add(value);
    }
    EXPECT_EQ(history.values().size(), 600U);
    EXPECT_EQ(history.values().front(), 400);
    EXPECT_EQ(history.last(), 999);
}

TEST_F(watch, tells_rates_from_two_looks)
{
    start_small();
    look(0);
    EXPECT_TRUE(model.is_up());
    EXPECT_FALSE(model.has_rates());
    engine.add_conn_stat(conns[0], RE_STAT_CONN_ID_ENCODE_IN_BYTES, 4096);
    engine.add_conn_stat(conns[0], RE_STAT_CONN_ID_ENCODE_OUT_BYTES, 1024);
    engine.add_conn_stat(conns[1], RE_STAT_CONN_ID_DECODE_OUT_BYTES, 200);
    engine.add_global(RE_STAT_GLOBAL_ID_NUM_READ, 10);
    look(2);
    ASSERT_TRUE(model.has_rates());
    EXPECT_EQ(model.rates().encode_in, 2048);
    EXPECT_EQ(model.rates().decode_out, 100);
    EXPECT_EQ(model.saved_history().last(), 75);
    EXPECT_EQ(model.engine_rates()[RE_STAT_GLOBAL_ID_NUM_READ], 5);
    EXPECT_EQ(model.peers()[0].rates.encode_in, 2048);
    EXPECT_EQ(model.peers()[1].rates.encode_in, 0);
    EXPECT_EQ(model.peers()[1].history.last(), 100);
}

TEST_F(watch, shows_no_rates_of_totals_that_went_back_or_of_another_engine)
{
    start_small();
    engine.add_global(RE_STAT_GLOBAL_ID_NUM_READ, 10);
    look(0);
    engine.set_global(RE_STAT_GLOBAL_ID_NUM_READ, 3);
    look(1);
    EXPECT_EQ(model.engine_rates()[RE_STAT_GLOBAL_ID_NUM_READ], 0);

    engine.close();
    look(2);
    EXPECT_FALSE(model.is_up());
    EXPECT_EQ(model.error(), RE_STAT_ERR_NO_ENGINE);
    RE_stat_writer another;
    ASSERT_EQ(another.create(few, 1700000500), 0);
    another.set_global(RE_STAT_GLOBAL_ID_NUM_READ, 1000000);
    another.publish();
    look(3);
    EXPECT_TRUE(model.is_up());
    EXPECT_EQ(model.engine_rates()[RE_STAT_GLOBAL_ID_NUM_READ], 0);
    EXPECT_TRUE(model.peers().empty());
    another.add_global(RE_STAT_GLOBAL_ID_NUM_READ, 7);
    look(4);
    EXPECT_EQ(model.engine_rates()[RE_STAT_GLOBAL_ID_NUM_READ], 7);
}

TEST_F(watch, follows_connections_and_not_slots)
{
    start_small();
    look(0, true);
    engine.add_conn_stat(conns[0], RE_STAT_CONN_ID_ENCODE_IN_BYTES, 1000);
    look(1, true);
    ASSERT_EQ(model.conns().size(), 2U);
    EXPECT_EQ(model.conns()[0].rates.encode_in, 1000);
    engine.release_conn(conns[0]);
    ASSERT_EQ(engine.open_conn(0, conn_header_of(77), {}, 6), conns[0]);
    engine.add_conn_stat(conns[0], RE_STAT_CONN_ID_ENCODE_IN_BYTES, 5000);
    look(2, true);
    EXPECT_EQ(model.conns()[0].rates.encode_in, 0);
    EXPECT_EQ(model.conns()[0].encode_in, 5000);
}

TEST_F(watch, shows_peers_as_a_table)
{
    start_small();
    look(0);
    engine.add_conn_stat(conns[0], RE_STAT_CONN_ID_ENCODE_IN_BYTES, 2048);
    engine.add_conn_stat(conns[0], RE_STAT_CONN_ID_ENCODE_OUT_BYTES, 512);
    engine.add_conn_stat(conns[1], RE_STAT_CONN_ID_ENCODE_IN_BYTES, 4096);
    engine.set_peer_stat(0, RE_STAT_PEER_ID_ACK_Q_SIZE, 1536);
    look(1);
    EXPECT_EQ(
        texts(200, 50),
        (std::vector<std::string>{
            "kavstat  1 engine  2[peers] 3 connections  4 applications   22:28:20  every 1s  ? help",
            "   PEER HOST                  CONNS     *ENC-IN     ENC-OUT  SAVED     DEC-OUT  NACK/s     ACK-Q TRAFFIC"
            "                       ",
            "      2 branch?[2J                1    4.0 KB/s           - 100.0%           -       0       0 B @",
            "      1 branch-1                  1    2.0 KB/s     512 B/s  75.0%           -       0    1.5 KB @"}));
}

TEST_F(watch, orders_and_filters_as_told)
{
    start_small();
    look(0);
    press({'S', 'S', 'S'}); // back to the peer's number, highest first
    EXPECT_EQ(texts(10, 9)[2], "      2 br");
    press({'r'});
    EXPECT_EQ(texts(10, 9)[2], "      1 br");
    press({'/', 'C', 'H', '-', '1'});
    EXPECT_EQ(texts(80, 9)[1], "filter: CH-1_");
    EXPECT_EQ(texts(10, 9).size(), 4U);
    press({WATCH_KEY_BACKSPACE, '9', WATCH_KEY_ENTER});
    EXPECT_EQ(texts(80, 9)[1], "filter: CH-9");
    EXPECT_EQ(texts(80, 9)[3], "(none)");
    press({WATCH_KEY_ESCAPE});
    EXPECT_EQ(texts(10, 9).size(), 4U);
}

TEST_F(watch, scrolls_no_further_than_there_are_rows)
{
    RE_stat_limits limits;
    limits.peers = 100;
    start(limits);
    for (int number = 0; number < 100; ++number) {
        engine.add_peer(number, {});
    }
    look(0);
    EXPECT_EQ(texts(7, 12).size(), 12U);
    EXPECT_EQ(texts(7, 12)[2], "      0");
    press({'j', WATCH_KEY_DOWN});
    EXPECT_EQ(texts(7, 12)[2], "      2");
    press({WATCH_KEY_PAGE_DOWN});
    EXPECT_EQ(texts(7, 12)[2], "     12");
    press({WATCH_KEY_END});
    EXPECT_EQ(texts(7, 12).back(), "     99");
    press({WATCH_KEY_PAGE_DOWN});
    EXPECT_EQ(texts(7, 12).back(), "     99");
    press({'k'});
    EXPECT_EQ(texts(7, 12)[2], "     89");
    press({WATCH_KEY_HOME, 'k'});
    EXPECT_EQ(texts(7, 12)[2], "      0");
}

TEST_F(watch, tells_keys_pauses_and_ends)
{
    start_small();
    look(0);
    press({'?'});
    EXPECT_EQ(texts(80, 30)[0], "kavstat watch: keys");
    press({'q'}); // leaves the help only
    EXPECT_FALSE(view.is_over());
    press({'p'});
    EXPECT_TRUE(view.is_paused());
    EXPECT_NE(texts(200, 3)[0].find("paused"), std::string::npos);
    press({'+'});
    EXPECT_EQ(view.interval(), 0.5);
    press({'-', '-'});
    EXPECT_EQ(view.interval(), 2);
    press({'\t'});
    EXPECT_EQ(view.page(), WatchPage::connections);
    EXPECT_TRUE(view.needs_connections());
    press({'\t', '\t'});
    EXPECT_EQ(view.page(), WatchPage::engine);
    press({'q'});
    EXPECT_TRUE(view.is_over());
}

TEST_F(watch, says_that_there_is_no_engine)
{
    look(0);
    EXPECT_EQ(texts(80, 5)[2], "No figures: no engine is running.");
    EXPECT_EQ(view.report(model), std::vector<std::string>{"peers: no figures: no engine is running"});
}

TEST_F(watch, fits_any_window_whatever_keys_were_pressed)
{
    start();
    fill();
    look(0, true);
    engine.add_global(RE_STAT_GLOBAL_ID_NUM_READ, 10);
    look(1, true);
    std::mt19937 random(1);
    for (int round = 0; round < 3000; ++round) {
        int key = static_cast<int>(random() % 128);
        if (random() % 4 == 0) {
            key = WATCH_KEY_UP + static_cast<int>(random() % 9);
        }
        view.press(key);
        const std::size_t width = round % 3 == 0 ? 1 : random() % 200;
        const std::size_t height = round % 3 == 0 ? 1 : random() % 60;
        const std::vector<WatchLine> lines = view.screen(model, width, height);
        EXPECT_LE(lines.size(), height);
        for (const WatchLine& line : lines) {
            EXPECT_LE(line.text.size(), width);
        }
    }
}
