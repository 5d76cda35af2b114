// Statistics as metrics.
#include "kavstat_fixture.h"
#include "model/metric_names.h"

#include <cstring>
#include <limits>
#include <set>
#include <sstream>

using namespace kavstat;

namespace {

class metrics_text : public kavstat_test
{
protected:
    bool has_line(const std::string& line) { return ("\n" + metrics()).find("\n" + line + "\n") != std::string::npos; }
};

std::string value_text(RE_stat_unit unit, long long value)
{
    StringSink sink;
    Output output(sink);
    add_metric_value(output, unit, value);
    output.flush();
    return sink.text();
}

} // namespace

TEST(metric_value, is_in_the_base_unit_with_all_its_digits)
{
    EXPECT_EQ(value_text(RE_stat_unit::bytes, 9223372036854775807LL), "9223372036854775807");
    EXPECT_EQ(value_text(RE_stat_unit::kilobytes, 3), "3072");
    EXPECT_EQ(value_text(RE_stat_unit::megabytes, -1), "-1048576");
    EXPECT_EQ(value_text(RE_stat_unit::microseconds, 25000), "0.025");
    EXPECT_EQ(value_text(RE_stat_unit::microseconds, 9007199254740993LL), "9007199254.740993");
    EXPECT_EQ(value_text(RE_stat_unit::microseconds, 3000000), "3");
    EXPECT_EQ(value_text(RE_stat_unit::microseconds, 0), "0");
    EXPECT_EQ(value_text(RE_stat_unit::microseconds, -1), "-0.000001");
    EXPECT_EQ(value_text(RE_stat_unit::microseconds, std::numeric_limits<long long>::min()), "-9223372036854.775808");
    EXPECT_EQ(value_text(RE_stat_unit::percent, 17), "0.17");
    EXPECT_EQ(value_text(RE_stat_unit::percent, 100), "1");
    EXPECT_EQ(value_text(RE_stat_unit::seconds_since_epoch, 1300000000), "1300000000");
}

TEST(metric_value, beyond_64_bits_is_still_a_number)
{
    EXPECT_EQ(std::stod(value_text(RE_stat_unit::megabytes, std::numeric_limits<long long>::max())),
              9223372036854775807.0 * 1048576.0);
}

TEST_F(metrics_text, has_engine_peers_and_applications)
{
    start();
    engine.set_global(RE_STAT_GLOBAL_ID_TOTAL_CACHE_SIZE, 2000);
    engine.set_global(RE_stat_global_id{SO_STAT_RC_NONE + 18}, 77);
    RE_stat_peer_header header{};
    header.m_kav_peer_id.m_data[0] = 1;
    header.m_peer_mac_id = RE_mac_id("00:11:22:33:44:55");
    const int peer = engine.add_peer(12, header);
    engine.set_peer_stat(peer, RE_STAT_PEER_ID_ACK_Q_AVG_RTT, 6789);
    engine.set_peer_stat(peer, RE_STAT_PEER_ID_BYPASS_RATIO, 17);
    const int conn = engine.open_conn(peer, {}, {}, 5);
    engine.add_conn_stat(conn, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 1000);
    RE_stat_app_header app{};
    app.set(header.m_kav_peer_id, 80, false);
    engine.add_app_stat(engine.find_or_add_app(app), RE_STAT_APP_ID_ENCODE_IN_KBYTES, 2);

    EXPECT_TRUE(has_line("kav_up 1"));
    EXPECT_TRUE(has_line("kav_engine_start_timestamp_seconds 1700000000"));
    EXPECT_TRUE(has_line("kav_active_connections 1"));
    EXPECT_TRUE(has_line("kav_bypass_servers{reason=\"low_compression\"} 0"));
    EXPECT_TRUE(has_line("# HELP kav_cache_size_bytes usable cache size on disk"));
    EXPECT_TRUE(has_line("# TYPE kav_cache_size_bytes gauge"));
    EXPECT_TRUE(has_line("kav_cache_size_bytes 2097152000"));
    EXPECT_TRUE(has_line("kav_transport_connection_resets_total{reason=\"18\"} 77"));
    EXPECT_TRUE(has_line("kav_connections_input_bytes_total{direction=\"encode\"} 1000"));
    EXPECT_TRUE(has_line("# TYPE kav_connections_input_bytes_total counter"));
    EXPECT_TRUE(has_line("kav_peer_info{peer=\"12\",kav_peer_id=\"01:00:00:00:00:00-000000000000-00000000\","
                         "mac_id=\"00:11:22:33:44:55\",ip=\"0.0.0.0\",host_name=\"\"} 1"));
    EXPECT_TRUE(has_line("kav_peer_ack_round_trip_avg_seconds{peer=\"12\"} 0.006789"));
    EXPECT_TRUE(has_line("kav_peer_bypass_ratio{peer=\"12\"} 0.17"));
    EXPECT_TRUE(has_line("kav_peer_active_connections{peer=\"12\"} 1"));
    EXPECT_TRUE(has_line("kav_peer_connections_input_bytes_total{direction=\"encode\",peer=\"12\"} 1000"));
    EXPECT_TRUE(has_line("kav_application_input_bytes_total{direction=\"encode\",port=\"80\",handle=\"0\","
                         "classifier=\"server_port\",peer=\"12\"} 2048"));
}

TEST_F(metrics_text, has_nothing_that_grows_with_connections)
{
    start();
    fill();
    const auto lines = [this] {
        const std::string text = metrics();
        return std::count(text.begin(), text.end(), '\n');
    };
    const auto before = lines();
    ASSERT_GE(engine.open_conn(0, conn_header_of(5), so_header_of(5), 5), 0);
    EXPECT_EQ(lines(), before);
}

TEST_F(metrics_text, never_has_two_series_of_one_name)
{
    start();
    for (const int identity : {1, 2}) {
        RE_stat_peer_header header{};
        header.m_kav_peer_id.m_data[0] = static_cast<unsigned char>(identity);
        engine.add_peer(5, header);
        RE_stat_app_header app{};
        app.set(header.m_kav_peer_id, 80, false);
        engine.find_or_add_app(app);
    }
    const std::string text = metrics();
    std::set<std::string> series;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const std::string name = line.substr(0, line.rfind(' '));
        EXPECT_TRUE(line[0] == '#' || series.insert(name).second) << line;
    }
    EXPECT_TRUE(has_line("kavstat_skipped_peers 1"));
    EXPECT_TRUE(has_line("kavstat_skipped_applications 1"));
}

TEST_F(metrics_text, names_of_the_far_side_can_break_no_label)
{
    start();
    RE_stat_peer_header header{};
    std::strcpy(header.m_peer_host_name, "a\"} 1\nkav_up 0\n\\\x1B[2J\xFF");
    engine.add_peer(1, header);
    EXPECT_TRUE(has_line("kav_peer_info{peer=\"1\",kav_peer_id=\"00:00:00:00:00:00-000000000000-00000000\","
                         "mac_id=\"00:00:00:00:00:00\",ip=\"0.0.0.0\",host_name=\"a\\\"} 1\xEF\xBF\xBDkav_up "
                         "0\xEF\xBF\xBD\\\\\xEF\xBF\xBD[2J\xEF\xBF\xBD\"} 1"));
    EXPECT_FALSE(has_line("kav_up 0"));
}

TEST_F(metrics_text, every_sample_follows_its_head)
{
    start();
    fill();
    std::istringstream lines(metrics());
    std::string metric;
    std::set<std::string> metrics;
    std::string type;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("# HELP ")) {
            metric = line.substr(7, line.find(' ', 7) - 7);
            EXPECT_TRUE(metrics.insert(metric).second) << metric;
        } else if (line.starts_with("# TYPE ")) {
            EXPECT_EQ(line.substr(7, metric.size()), metric);
            type = line.substr(8 + metric.size());
            EXPECT_TRUE(type != "counter" || metric.ends_with("_total")) << metric;
        } else {
            const std::string name = line.substr(0, line.find_first_of(" {"));
            if (type == "histogram") {
                EXPECT_TRUE(name == metric + "_bucket" || name == metric + "_sum" || name == metric + "_count") << line;
            } else {
                EXPECT_EQ(name, metric);
            }
        }
    }
    std::size_t expected = 13; // the metrics that are not counters of the table
    for (const CounterScope scope : all_counter_scopes) {
        expected += metrics_of(scope).size() * metric_prefixes_of(scope).size();
    }
    EXPECT_EQ(metrics.size(), expected);
}

TEST_F(metrics_text, counts_messages_up_to_each_size)
{
    start();
    const int peer = engine.add_peer(3, {});
    const int conn = engine.open_conn(peer, {}, {}, 5);
    engine.add_conn_stat(conn, RE_STAT_CONN_ID_ENCODE_X, 7);
    engine.add_conn_stat(conn, RE_STAT_CONN_ID_ENCODE_4X, 2);
    engine.add_conn_stat(conn, RE_STAT_CONN_ID_ENCODE_32X, 1);
    engine.add_conn_stat(conn, RE_STAT_CONN_ID_ENCODE_IN_BYTES, 70000);
    engine.add_conn_stat(conn, RE_STAT_CONN_ID_DECODE_16X, 4);
    engine.add_conn_stat(conn, RE_STAT_CONN_ID_DECODE_IN_BYTES, 1);
    engine.add_conn_stat(conn, RE_STAT_CONN_ID_DECODE_OUT_BYTES, 120000);

    const std::string text = metrics();
    const std::size_t begin = text.find("# TYPE kav_peer_connections_message_size_bytes histogram\n");
    ASSERT_NE(begin, std::string::npos);
    const std::string expected = R"(# TYPE kav_peer_connections_message_size_bytes histogram
kav_peer_connections_message_size_bytes_bucket{direction="encode",le="1024.0",peer="3"} 7
kav_peer_connections_message_size_bytes_bucket{direction="encode",le="5120.0",peer="3"} 7
kav_peer_connections_message_size_bytes_bucket{direction="encode",le="15360.0",peer="3"} 9
kav_peer_connections_message_size_bytes_bucket{direction="encode",le="25600.0",peer="3"} 9
kav_peer_connections_message_size_bytes_bucket{direction="encode",le="40960.0",peer="3"} 9
kav_peer_connections_message_size_bytes_bucket{direction="encode",le="+Inf",peer="3"} 10
kav_peer_connections_message_size_bytes_sum{direction="encode",peer="3"} 70000
kav_peer_connections_message_size_bytes_count{direction="encode",peer="3"} 10
kav_peer_connections_message_size_bytes_bucket{direction="decode",le="1024.0",peer="3"} 0
kav_peer_connections_message_size_bytes_bucket{direction="decode",le="5120.0",peer="3"} 0
kav_peer_connections_message_size_bytes_bucket{direction="decode",le="15360.0",peer="3"} 0
kav_peer_connections_message_size_bytes_bucket{direction="decode",le="25600.0",peer="3"} 0
kav_peer_connections_message_size_bytes_bucket{direction="decode",le="40960.0",peer="3"} 4
kav_peer_connections_message_size_bytes_bucket{direction="decode",le="+Inf",peer="3"} 4
kav_peer_connections_message_size_bytes_sum{direction="decode",peer="3"} 120000
kav_peer_connections_message_size_bytes_count{direction="decode",peer="3"} 4
)";
    EXPECT_EQ(text.substr(begin, expected.size()), expected);
    EXPECT_TRUE(has_line("kav_connections_message_size_bytes_count{direction=\"encode\"} 10"));
}

TEST_F(metrics_text, names_applications_by_port_handle_classifier_and_peer)
{
    start();
    RE_stat_peer_header peer{};
    peer.m_kav_peer_id.m_data[0] = 1;
    engine.add_peer(12, peer);
    RE_stat_app_header app{};
    app.set(peer.m_kav_peer_id, 80, true);
    app.set_policy_engine_handler(5);
    engine.add_app_stat(engine.find_or_add_app(app), RE_STAT_APP_ID_DECODE_NUM_MSGS, 3);
    RE_kav_peer_id gone{};
    gone.m_data[0] = 2;
    app.set(gone, 443, false);
    app.set_policy_engine_handler(0);
    engine.add_app_stat(engine.find_or_add_app(app), RE_STAT_APP_ID_DECODE_NUM_MSGS, 4);
    engine.publish();
    EXPECT_TRUE(has_line("kav_application_messages_total{direction=\"decode\",port=\"80\",handle=\"5\","
                         "classifier=\"client_port\",peer=\"12\"} 3"));
    EXPECT_TRUE(has_line("kav_application_messages_total{direction=\"decode\",port=\"443\",handle=\"0\","
                         "classifier=\"server_port\",kav_peer_id=\"02:00:00:00:00:00-000000000000-00000000\"} 4"));
}

TEST_F(metrics_text, of_an_absent_engine_says_so_and_nothing_else)
{
    StringSink sink;
    Output output(sink);
    write_metrics_without_engine(output);
    output.flush();
    EXPECT_EQ(sink.text(), "# HELP kav_up 1 when the engine's statistics could be read\n"
                           "# TYPE kav_up gauge\n"
                           "kav_up 0\n"
                           "# HELP kavstat_build_info the program that made these metrics; always 1\n"
                           "# TYPE kavstat_build_info gauge\n"
                           "kavstat_build_info{version=\"" KAV_VERSION "\"} 1\n");
}

TEST_F(metrics_text, in_openmetrics_name_families_units_and_times)
{
    start();
    const int peer = engine.add_peer(12, {});
    engine.open_conn(peer, {}, {}, 5);
    MetricsChoice choice;
    choice.format = MetricsFormat::openmetrics;
    const std::string text = metrics(choice);
    const auto has = [&](const std::string& lines) { return ("\n" + text).find("\n" + lines) != std::string::npos; };
    EXPECT_TRUE(has("# TYPE kavstat_build info\n"
                    "# HELP kavstat_build the program that made these metrics; always 1\n"
                    "kavstat_build_info{version="));
    EXPECT_TRUE(has("# TYPE kav_cache_size_bytes gauge\n"
                    "# UNIT kav_cache_size_bytes bytes\n"
                    "# HELP kav_cache_size_bytes usable cache size on disk\n"
                    "kav_cache_size_bytes 0\n"));
    EXPECT_TRUE(has("# TYPE kav_cache_reads counter\n"));
    EXPECT_TRUE(has("kav_cache_reads_total 0\nkav_cache_reads_created 1700000000\n"));
    EXPECT_TRUE(has("# TYPE kav_peer info\n"));
    EXPECT_TRUE(has("kav_peer_connections_input_bytes_total{direction=\"encode\",peer=\"12\"} 0\n"
                    "kav_peer_connections_input_bytes_created{direction=\"encode\",peer=\"12\"} 1700000000\n"));
    EXPECT_TRUE(has("kav_connections_message_size_bytes_count{direction=\"encode\"} 0\n"
                    "kav_connections_message_size_bytes_created{direction=\"encode\"} 1700000000\n"));
    EXPECT_TRUE(text.ends_with("\n# EOF\n"));
    choice.collectors.reset(static_cast<std::size_t>(Collector::created));
    EXPECT_EQ(metrics(choice).find("_created"), std::string::npos);
}

TEST_F(metrics_text, openmetrics_leave_out_counts_below_zero)
{
    start();
    engine.set_global(RE_STAT_GLOBAL_ID_NUM_READ, -5);
    EXPECT_TRUE(has_line("kav_cache_reads_total -5"));
    MetricsChoice choice;
    choice.format = MetricsFormat::openmetrics;
    const std::string text = metrics(choice);
    EXPECT_NE(text.find("\n# TYPE kav_cache_reads counter\n"), std::string::npos);
    EXPECT_EQ(text.find("\nkav_cache_reads_"), std::string::npos);
}

TEST_F(metrics_text, beyond_the_bound_on_series_lack_whole_peers_and_applications)
{
    start();
    for (int number = 1; number <= 3; ++number) {
        RE_stat_peer_header header{};
        header.m_kav_peer_id.m_data[0] = static_cast<unsigned char>(number);
        engine.add_peer(number, header);
        RE_stat_app_header app{};
        app.set(header.m_kav_peer_id, 80, false);
        engine.find_or_add_app(app);
    }
    const auto series_with = [](const std::string& text, const std::string& part) {
        std::istringstream lines(text);
        int count = 0;
        for (std::string line; std::getline(lines, line);) {
            count += line[0] != '#' && line.find(part) != std::string::npos ? 1 : 0;
        }
        return count;
    };
    const std::string all = metrics();
    EXPECT_EQ(all.find("kavstat_series_dropped"), std::string::npos);
    const int of_app = series_with(all, "port=\"80\"") / 3;
    const int of_peer = series_with(all, "peer=\"1\"") - of_app;
    MetricsChoice choice;
    choice.collectors.reset(static_cast<std::size_t>(Collector::engine));
    choice.collectors.reset(static_cast<std::size_t>(Collector::connections));
    const auto limited_to = [&](int series) {
        choice.max_series = static_cast<std::size_t>(series);
        return metrics(choice);
    };
    const std::string whole = limited_to(3 * of_peer + 3 * of_app);
    EXPECT_NE(whole.find("\nkavstat_series_dropped 0\n"), std::string::npos);
    EXPECT_EQ(series_with(whole, "port=\"80\""), 3 * of_app);
    const std::string cut = limited_to(3 * of_peer + 2 * of_app - 1);
    EXPECT_NE(cut.find("\nkavstat_series_dropped " + std::to_string(2 * of_app) + "\n"), std::string::npos);
    EXPECT_EQ(series_with(cut, "port=\"80\""), of_app);
    EXPECT_EQ(series_with(cut, "port=\"80\",handle=\"0\",classifier=\"server_port\",peer=\"1\""), of_app);
    EXPECT_EQ(series_with(cut, "peer=\"3\""), of_peer);
    const std::string one = limited_to(2 * of_peer - 1);
    EXPECT_EQ(series_with(one, "peer=\"1\""), of_peer);
    EXPECT_EQ(series_with(one, "peer=\"2\""), 0);
    EXPECT_EQ(series_with(one, "port="), 0);
    choice.collectors.set();
    choice.collectors.reset(static_cast<std::size_t>(Collector::peer_connections));
    // All series of the engine count, and so do gauges.
    const std::string everything = limited_to(1000000);
    const int of_program = series_with(everything, "kavstat_") + series_with(everything, "kav_up");
    const int bound = series_with(everything, "") - of_program;
    EXPECT_NE(limited_to(bound).find("\nkavstat_series_dropped 0\n"), std::string::npos);
    EXPECT_EQ(limited_to(bound - 1).find("\nkavstat_series_dropped 0\n"), std::string::npos);
    // The engine is shown whatever the bound.
    EXPECT_NE(limited_to(1).find("\nkav_cache_reads_total 0\n"), std::string::npos);
}
