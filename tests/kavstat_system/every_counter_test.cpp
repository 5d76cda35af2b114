// One engine's every counter, wherever it can be seen: in JSON, in a real Prometheus, and in the viewer's reports.
#include "documents/metrics.h"
#include "every_counter.h"
#include "kavstat_program.h"
#include "model/counter_names.h"
#include "prometheus.h"
#include "support/demo_engine.h"
#include "support/report_figures.h"

#include <cmath>

using namespace kavstat;

namespace {

class every_counter_test : public system_test
{
protected:
    every_counter engine;
};

// The counter's value in the engine's unit.
long long from_base_unit(RE_stat_unit unit, double value)
{
    switch (unit) {
    case RE_stat_unit::kilobytes:
        return std::llround(value / 1024);
    case RE_stat_unit::megabytes:
        return std::llround(value / 1048576);
    case RE_stat_unit::microseconds:
        return std::llround(value * 1e6);
    case RE_stat_unit::percent:
        return std::llround(value * 100);
    default:
        return std::llround(value);
    }
}

struct compared
{
    int counters = 0;
};

// Holds each counter of a scope against its value by hand, in the document and among the stored series. labels: of the
// series, "a=\"b\"", without those of a range. metric: which of the counter's metrics.
template <typename Value>
void compare(compared& count, CounterScope scope, const nlohmann::json& members, const stored_series& stored,
             std::size_t metric, const std::string& labels, const Value& value)
{
    for (const NamedCounter& counter : counters_of(scope)) {
        for (int at = 0; at < counter.size(); ++at) {
            const long long expected = value(counter.id() + at);
            const nlohmann::json& member = members.at(counter.key);
            const nlohmann::json& figure = counter.is_range() ? member.at(static_cast<std::size_t>(at)) : member;
            EXPECT_EQ(figure.get<long long>(), expected) << counter.key;

            const std::string all_labels = counter.is_range() ? "index=\"" + std::to_string(at) + "\"" : labels;
            const std::string name =
                metrics_of(scope, counter)[metric] + (all_labels.empty() ? "" : "{" + all_labels + "}");
            const auto found = stored.find(name);
            ASSERT_NE(found, stored.end()) << name;
            EXPECT_EQ(from_base_unit(counter.info.unit, found->second), expected) << name;
            ++count.counters;
        }
    }
}

std::vector<std::vector<std::string>> reports()
{
    return {{"global-info"}, {"global-detail"},  {"peer"},         {"peer", "detail"},      {"peer", "nack"},
            {"conn"},        {"conn", "detail"}, {"nack"},         {"top-app", "detail"},   {"top-app"},
            {"config"},      {"brief-config"},   {"tech-support"}, {"kav-bypass", "detail"}};
}

} // namespace

TEST_F(every_counter_test, has_the_same_value_in_json_and_in_prometheus)
{
    ASSERT_EQ(run_viewer({"save-file", path("saved")}).status, 0);
    const nlohmann::json document = nlohmann::json::parse(run_kavstat({"json", "--file", path("saved")}).out);
    const kavstat_server server;
    const prometheus store(folder(), server.port());
    store.query_until("kav_up", [](const stored_series& series) { return !series.empty(); });
    const stored_series stored = store.query("{job=\"kav\"}");

    compared count;
    const auto sum_of_conns = [](int peer) {
        return [peer](int id) {
            long long sum = 0;
            for (int conn = 0; conn < every_counter::conns; ++conn) {
                sum += peer < 0 || conn % every_counter::peers == peer ? every_counter::conn_value(conn, id) : 0;
            }
            return sum;
        };
    };
    const nlohmann::json& global = document.at("global");
    compare(count, CounterScope::engine, global.at("counters"), stored, 0, "", every_counter::engine_value);
    compare(count, CounterScope::connection, global.at("connection_counters"), stored, 0, "", sum_of_conns(-1));
    ASSERT_EQ(document.at("peers").size(), static_cast<std::size_t>(every_counter::peers));
    for (int peer = 0; peer < every_counter::peers; ++peer) {
        const nlohmann::json& members = document.at("peers").at(static_cast<std::size_t>(peer));
        const std::string labels = "peer=\"" + std::to_string(10 + peer) + "\"";
        compare(count, CounterScope::peer, members.at("counters"), stored, 0, labels,
                [&](int id) { return every_counter::peer_value(peer, id); });
        compare(count, CounterScope::connection, members.at("connection_counters"), stored, 1, labels,
                sum_of_conns(peer));
    }
    ASSERT_EQ(document.at("apps").size(), static_cast<std::size_t>(every_counter::apps));
    for (int app = 0; app < every_counter::apps; ++app) {
        const nlohmann::json& members = document.at("apps").at(static_cast<std::size_t>(app));
        const std::string labels = "application=\"" + std::to_string(80 + app) + (app == 1 ? "-source" : "") +
                                   "\",kav_peer_id=\"" + members.at("kav_peer_id").get<std::string>() + "\",peer=\"" +
                                   std::to_string(10 + app % every_counter::peers) + "\"";
        compare(count, CounterScope::application, members.at("counters"), stored, 0, labels,
                [&](int id) { return every_counter::app_value(app, id); });
    }
    EXPECT_EQ(count.counters, 383 + 166 + 3 * (42 + 166) + 4 * 18);
    // Connections are in JSON alone.
    ASSERT_EQ(document.at("connections").size(), static_cast<std::size_t>(every_counter::conns));
    for (int conn = 0; conn < every_counter::conns; ++conn) {
        const nlohmann::json& members = document.at("connections").at(static_cast<std::size_t>(conn)).at("counters");
        for (const NamedCounter& counter : counters_of(CounterScope::connection)) {
            EXPECT_EQ(members.at(counter.key), every_counter::conn_value(conn, counter.id()));
        }
    }
}

// The reports show figures in forms of their own, so they cannot be read back exactly. Instead an engine is made after
// the JSON document, every figure of it, and the viewer must see no difference.
TEST_F(every_counter_test, makes_the_viewer_report_the_same_from_json_as_from_the_saved_file)
{
    ASSERT_EQ(run_viewer({"save-file", path("saved")}).status, 0);
    const nlohmann::json document = nlohmann::json::parse(run_kavstat({"json", "--file", path("saved")}).out);
    const std::string first_segment = segment();
    setenv("KAV_STAT_SEGMENT", other_segment().c_str(), 1);
    RE_stat_writer copy;
    publish_document(document, copy);
    ASSERT_EQ(run_viewer({"save-file", path("saved-copy")}).status, 0);

    run_surroundings original;
    original.environment = {{"KAV_STAT_SEGMENT", first_segment}};
    for (const std::vector<std::string>& words : reports()) {
        const program_result before = run_viewer(words, original);
        const program_result after = run_viewer(words);
        EXPECT_EQ(before.status, 0);
        EXPECT_GT(before.out.size(), 50U);
        EXPECT_EQ(without_ages(after.out), without_ages(before.out)) << words.back();
    }
    const auto read_file = [this](const std::string& name) {
        std::string text = run_viewer({"read-file", path(name)}).out;
        for (std::size_t at = 0; (at = text.find(path(name))) != std::string::npos;) {
            text.replace(at, path(name).size(), "FILE");
        }
        return without_ages(text);
    };
    EXPECT_GT(read_file("saved").size(), 10000U);
    EXPECT_EQ(read_file("saved-copy"), read_file("saved"));

    // The viewer does tell the difference of a single figure.
    copy.add_peer_stat(0, RE_STAT_PEER_ID_NUM_NACKS, 1);
    EXPECT_NE(run_viewer({"peer", "detail"}).out, run_viewer({"peer", "detail"}, original).out);
}

TEST_F(every_counter_test, is_answered_by_prometheus_as_the_engine_lives_and_dies)
{
    const kavstat_server server;
    const prometheus store(folder(), server.port());
    const auto is_value = [](double value) {
        return [value](const stored_series& series) { return series.size() == 1 && series.begin()->second == value; };
    };
    const auto expect_answer = [&](const std::string& expression, double value) {
        const stored_series answer = store.query_until(expression, is_value(value));
        ASSERT_EQ(answer.size(), 1U) << expression;
        EXPECT_EQ(answer.begin()->second, value) << expression;
    };
    expect_answer("kav_up", 1);
    expect_answer("up{job=\"kav\"}", 1);
    expect_answer("count(kav_peer_info)", 3);
    expect_answer("sum(kav_peer_connections_encode_in_bytes_total) - sum(kav_connections_encode_in_bytes_total)", 0);
    expect_answer("kav_peer_ack_q_avg_rtt_seconds{peer=\"11\"}", (700001.0 * 16 + 13) / 1e6);
    expect_answer("count(kav_peer_bypass_ratio * on(peer) group_left(host_name) kav_peer_info{host_name=\"branch-1\"})",
                  1);

    // A peer that is gone has no series any more at the next scrape.
    engine.writer().remove_peer(1);
    expect_answer("count(kav_peer_info)", 2);
    EXPECT_TRUE(store.query("{job=\"kav\",peer=\"11\",__name__=~\"kav_peer.*\"}").empty());

    engine.writer().close();
    expect_answer("kav_up", 0);
    EXPECT_TRUE(store.query("kav_peer_info").empty());
    expect_answer("up{job=\"kav\"}", 1);

    engine.restart();
    expect_answer("kav_up", 1);
    expect_answer("count(kav_peer_info)", 3);
    expect_answer("kav_engine_start_time_seconds", 1700000500);
}
