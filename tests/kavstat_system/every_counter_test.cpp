// Every counter of one engine in all places where it appears: JSON, a real Prometheus server and the viewer's reports.
#include "document_engine.h"
#include "documents/metrics.h"
#include "kavstat_program.h"
#include "model/metric_names.h"
#include "prometheus.h"
#include "support/engine_shapes.h"
#include "support/report_figures.h"

#include <cmath>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>

using namespace kavstat;

namespace {

class every_counter_test : public system_test
{
protected:
    every_counter engine;
};

// Returns the name of a series in the store: with all its labels in alphabetical order. Values contain no commas.
std::string stored_name(const std::string& name, std::string labels, const std::string& more_labels)
{
    labels += labels.empty() || more_labels.empty() ? more_labels : "," + more_labels;
    std::set<std::string> sorted;
    std::istringstream words(labels);
    for (std::string word; std::getline(words, word, ',');) {
        sorted.insert(word);
    }
    std::string text;
    for (const std::string& word : sorted) {
        text += (text.empty() ? "{" : ",") + word;
    }
    return name + text + (text.empty() ? "" : "}");
}

// Converts a value to the engine's unit.
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

// Compares each counter of a scope in a document with its expected value.
template <typename Value>
void compare_members(CounterScope scope, const nlohmann::json& members, const Value& value)
{
    for (const NamedCounter& counter : counters_of(scope)) {
        for (int at = 0; at < counter.size(); ++at) {
            const nlohmann::json& member = members.at(counter.key);
            const nlohmann::json& figure = counter.is_range() ? member.at(static_cast<std::size_t>(at)) : member;
            EXPECT_EQ(figure.get<long long>(), value(counter.id() + at)) << counter.key;
        }
    }
}

// Compares the stored series. prefix: of the metrics' names. labels: identify the owner of the counters, as "a=\"b\"".
template <typename Value>
void compare_series(compared& count, CounterScope scope, const stored_series& stored, const std::string& prefix,
                    const std::string& labels, const Value& value)
{
    for (const Metric& metric : metrics_of(scope)) {
        long long observed = 0;
        for (const MetricSeries& series : metric.series) {
            const std::string name = stored_name(prefix + series.name, series.labels, labels);
            const auto found = stored.find(name);
            ASSERT_NE(found, stored.end()) << name;
            switch (series.value) {
            case SeriesValue::counter:
                EXPECT_EQ(from_base_unit(metric.unit, found->second), value(series.id)) << name;
                ++count.counters;
                break;
            case SeriesValue::bucket:
                EXPECT_EQ(std::llround(found->second) - observed, value(series.id)) << name;
                observed = std::llround(found->second);
                ++count.counters;
                break;
            case SeriesValue::sum:
                EXPECT_EQ(from_base_unit(metric.unit, found->second), value(series.id)) << name;
                break;
            case SeriesValue::count:
                EXPECT_EQ(std::llround(found->second), observed) << name;
                observed = 0;
                break;
            }
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
    const prometheus store(folder(), {server.port()});
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
    compare_members(CounterScope::engine, global.at("counters"), every_counter::engine_value);
    compare_series(count, CounterScope::engine, stored, "kav_", "", every_counter::engine_value);
    compare_members(CounterScope::connection, global.at("connection_counters"), sum_of_conns(-1));
    compare_series(count, CounterScope::connection, stored, "kav_connections_", "", sum_of_conns(-1));
    ASSERT_EQ(document.at("peers").size(), static_cast<std::size_t>(every_counter::peers));
    for (int peer = 0; peer < every_counter::peers; ++peer) {
        const nlohmann::json& members = document.at("peers").at(static_cast<std::size_t>(peer));
        const std::string labels = "peer=\"" + std::to_string(10 + peer) + "\"";
        const auto value = [peer](int id) { return every_counter::peer_value(peer, id); };
        compare_members(CounterScope::peer, members.at("counters"), value);
        compare_series(count, CounterScope::peer, stored, "kav_peer_", labels, value);
        compare_members(CounterScope::connection, members.at("connection_counters"), sum_of_conns(peer));
        compare_series(count, CounterScope::connection, stored, "kav_peer_connections_", labels, sum_of_conns(peer));
    }
    ASSERT_EQ(document.at("apps").size(), static_cast<std::size_t>(every_counter::apps));
    for (int app = 0; app < every_counter::apps; ++app) {
        const nlohmann::json& members = document.at("apps").at(static_cast<std::size_t>(app));
        const std::string labels = "port=\"" + std::to_string(80 + app) + "\",handle=\"0\",classifier=\"" +
                                   (app == 1 ? "client" : "server") + "_port\",peer=\"" +
                                   std::to_string(10 + app % every_counter::peers) + "\"";
        const auto value = [app](int id) { return every_counter::app_value(app, id); };
        compare_members(CounterScope::application, members.at("counters"), value);
        compare_series(count, CounterScope::application, stored, "kav_application_", labels, value);
    }
    EXPECT_EQ(count.counters, 383 + 166 + 3 * (42 + 166) + 4 * 18);
    // Only the JSON document contains connections.
    ASSERT_EQ(document.at("connections").size(), static_cast<std::size_t>(every_counter::conns));
    for (int conn = 0; conn < every_counter::conns; ++conn) {
        const nlohmann::json& members = document.at("connections").at(static_cast<std::size_t>(conn)).at("counters");
        for (const NamedCounter& counter : counters_of(CounterScope::connection)) {
            EXPECT_EQ(members.at(counter.key), every_counter::conn_value(conn, counter.id()));
        }
    }
}

// The reports show figures in rounded forms, so they cannot be read back exactly. Instead, this test creates an engine
// from every figure of the JSON document. The viewer must report the same for both.
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

    // The viewer notices a change of a single figure.
    copy.add_peer_stat(0, RE_STAT_PEER_ID_NUM_NACKS, 1);
    EXPECT_NE(run_viewer({"peer", "detail"}).out, run_viewer({"peer", "detail"}, original).out);
}

TEST_F(every_counter_test, is_answered_by_prometheus_as_the_engine_lives_and_dies)
{
    const kavstat_server server;
    const prometheus store(folder(), {server.port()});
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
    expect_answer("sum(kav_peer_connections_input_bytes_total) - sum(kav_connections_input_bytes_total)", 0);
    expect_answer("kav_peer_ack_round_trip_avg_seconds{peer=\"11\"}", (700001.0 * 16 + 13) / 1e6);

    // After the next scrape, a removed peer has no series.
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
    expect_answer("kav_engine_start_timestamp_seconds", 1700000500);
}

namespace {

std::string document_text(const std::string& name)
{
    std::ifstream file(KAV_DOCS "/" + name);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace

// The engine's counters do not change, so the queries use totals instead of rates.
TEST_F(every_counter_test, answers_the_documented_queries_for_two_appliances)
{
    const kavstat_server one;
    const kavstat_server other;
    const prometheus store(folder(), {one.port(), other.port()});
    ASSERT_EQ(
        store.query_until("count(kav_up) == 2", [](const stored_series& series) { return !series.empty(); }).size(),
        1U);
    const std::string documents = document_text("kavstat.md");
    const auto expect_answers = [&](const std::string& query, const std::string& of_answers, double value) {
        EXPECT_NE(documents.find(query), std::string::npos) << query;
        const std::string of_totals = std::regex_replace(query, std::regex(R"(rate\(([^\[]*)\[5m\]\))"), "$1");
        const stored_series answer = store.query(of_answers + "(" + of_totals + ")");
        ASSERT_EQ(answer.size(), 1U) << of_totals;
        EXPECT_NEAR(answer.begin()->second, value, 1e-9) << of_totals;
    };
    const auto all = [](int id) {
        double sum = 0;
        for (int conn = 0; conn < every_counter::conns; ++conn) {
            sum += static_cast<double>(every_counter::conn_value(conn, id));
        }
        return sum;
    };

    // Three peers at each of two appliances. A join without the instance is refused.
    const std::string join = "kav_peer_bypass_ratio * on (instance, peer) group_left (host_name) kav_peer_info";
    expect_answers(join, "count", 6);
    expect_answers(join, "max", (700001.0 * 31 + 13 * 2) / 100);
    EXPECT_TRUE(store.query("kav_peer_bypass_ratio * on (peer) group_left (host_name) kav_peer_info").empty());

    const std::string saved =
        R"(1 - sum by (instance) (rate(kav_connections_output_bytes_total{direction="encode"}[5m]))
  / sum by (instance) (rate(kav_connections_input_bytes_total{direction="encode"}[5m])))";
    expect_answers(saved, "count", 2);
    expect_answers(saved, "max", 1 - all(RE_STAT_CONN_ID_ENCODE_OUT_BYTES) / all(RE_STAT_CONN_ID_ENCODE_IN_BYTES));

    const std::string causes =
        R"(sum by (instance, cause) (rate(kav_connections_bypass_bytes_total{direction="encode"}[5m])))";
    expect_answers(causes, "count", 2 * 16);
    expect_answers(causes, "max", all(RE_STAT_CONN_ID_ENCODE_BYPASS_LOW_COMP_BYTES));

    const std::string nacks = R"(sum by (instance, peer) (rate(kav_peer_connections_nacks_total[5m]))
  / on (instance, peer) rate(kav_peer_connections_messages_total{direction="decode"}[5m]))";
    expect_answers(nacks, "count", 6);

    const std::string latency =
        R"(rate(kav_connections_processing_seconds_total[5m]) / rate(kav_connections_messages_total[5m]))";
    expect_answers(latency, "count", 4);
    expect_answers(latency, "max", all(RE_STAT_CONN_ID_TOT_DECODE_SPEED) / 1e6 / all(RE_STAT_CONN_ID_DECODE_NUM_MSGS));

    // About a sixth of the messages is in the last bucket. The query returns the lower bound of that bucket.
    const std::string sizes = R"(histogram_quantile(0.9,
  sum by (instance, direction, le) (rate(kav_connections_message_size_bytes_bucket[5m]))))";
    expect_answers(sizes, "count", 4);
    expect_answers(sizes, "max", 40960);

    const std::string applications = R"(topk by (instance) (5,
  sum by (instance, port, handle, classifier) (rate(kav_application_input_bytes_total{direction="encode"}[5m]))))";
    expect_answers(applications, "count", 2 * every_counter::apps);
    expect_answers(applications, "max", 1024.0 * every_counter::app_value(3, RE_STAT_APP_ID_ENCODE_IN_KBYTES));
}
