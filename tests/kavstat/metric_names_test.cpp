// The names and labels of the counters in Prometheus.
#include "model/metric_names.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

using namespace kavstat;

namespace {

std::string selector(CounterScope scope, int id)
{
    for (const NamedCounter& counter : counters_of(scope)) {
        if (counter.id() == id) {
            return selectors_of(scope, counter).back();
        }
    }
    return "";
}

// Returns "direction,cause" for "direction=\"encode\",cause=\"low_memory\"". The label with a bucket's bound is left
// out.
std::string label_names(const std::string& labels)
{
    std::string names;
    bool b_value = false;
    for (const char letter : labels.substr(0, labels.find(",le="))) {
        b_value = letter == '"' ? !b_value : b_value;
        names += b_value || letter == '"' || letter == '=' ? "" : std::string(1, letter);
    }
    return names;
}

const RE_stat_counter_info& counter_with(CounterScope scope, int id)
{
    for (const NamedCounter& counter : counters_of(scope)) {
        if (counter.id() <= id && id <= counter.info.last_id) {
            return counter.info;
        }
    }
    throw std::runtime_error("no such counter");
}

} // namespace

TEST(metric_names, are_the_tables_with_a_prefix)
{
    EXPECT_EQ(selector(CounterScope::engine, RE_STAT_GLOBAL_ID_CACHE_STATE), "kav_cache_state");
    EXPECT_EQ(selector(CounterScope::engine, RE_STAT_GLOBAL_ID_WAIT_Q_SIZE), "kav_queue_bytes{queue=\"wait\"}");
    EXPECT_EQ(selector(CounterScope::engine, SO_STAT_RC_NONE), "kav_transport_connection_resets_total{reason=~\".+\"}");
    EXPECT_EQ(selector(CounterScope::peer, RE_STAT_PEER_ID_ACK_Q_MAX_RTT), "kav_peer_ack_round_trip_max_seconds");
    EXPECT_EQ(selector(CounterScope::application, RE_STAT_APP_ID_LZ_DECODE_OUT_KBYTES),
              "kav_application_lz_output_bytes_total{direction=\"decode\"}");
    EXPECT_EQ(selectors_of(CounterScope::connection, counters_of(CounterScope::connection)[16]),
              (std::vector<std::string>{
                  "kav_connections_bypass_bytes_total{direction=\"encode\",cause=\"low_memory\"}",
                  "kav_peer_connections_bypass_bytes_total{direction=\"encode\",cause=\"low_memory\"}"}));
}

TEST(metric_names, of_a_counter_come_with_type_and_help)
{
    const auto [nacks, missed] = metric_of(CounterScope::connection, RE_STAT_CONN_ID_NUM_MISS_NACK_MSGS);
    EXPECT_EQ(nacks.name, "nacks_total");
    EXPECT_EQ(nacks.type, MetricType::counter);
    EXPECT_STREQ(nacks.help, "messages that could not be decoded and were nacked");
    EXPECT_EQ(nacks.series.size(), 3U);
    EXPECT_EQ(missed.labels, "reason=\"chunk_missed\"");
    const auto [age, sigblock] = metric_of(CounterScope::peer, RE_STAT_PEER_ID_CACHE_SIGBLOCK_AGE);
    EXPECT_EQ(age.name, "cache_oldest_data_timestamp_seconds");
    EXPECT_EQ(age.type, MetricType::gauge);
    EXPECT_EQ(sigblock.labels, "store=\"sigblock\"");
    const auto [classes, last] = metric_of(CounterScope::engine, SO_STAT_HWFQ_BYTES_CLASS_BASE + 255);
    EXPECT_EQ(classes.name, "transport_queued_class_bytes_total");
    EXPECT_EQ(last.labels, "class=\"255\"");
    EXPECT_THROW(metric_of(CounterScope::peer, RE_STAT_PEER_ID_MAX), std::out_of_range);
}

TEST(metric_names, of_message_sizes_make_a_histogram)
{
    const auto [sizes, bucket] = metric_of(CounterScope::connection, RE_STAT_CONN_ID_DECODE_32X);
    EXPECT_EQ(sizes.name, "message_size_bytes");
    EXPECT_EQ(sizes.type, MetricType::histogram);
    EXPECT_EQ(sizes.unit, RE_stat_unit::bytes);
    EXPECT_EQ(bucket.name, "message_size_bytes_bucket");
    EXPECT_EQ(bucket.labels, "direction=\"decode\",le=\"+Inf\"");
    ASSERT_EQ(sizes.series.size(), 16U);
    const MetricSeries& sum = sizes.series[14];
    EXPECT_EQ(sum.name, "message_size_bytes_sum");
    EXPECT_EQ(sum.labels, "direction=\"decode\"");
    EXPECT_EQ(sum.id, RE_STAT_CONN_ID_DECODE_OUT_BYTES);
    EXPECT_EQ(sizes.series[15].name, "message_size_bytes_count");
    // The sum is also a counter with its own series.
    EXPECT_EQ(metric_of(CounterScope::connection, RE_STAT_CONN_ID_DECODE_OUT_BYTES).metric.name, "output_bytes_total");
}

TEST(metric_names, every_counter_has_one_series)
{
    for (const CounterScope scope : all_counter_scopes) {
        std::map<int, int> series_of;
        for (const Metric& metric : metrics_of(scope)) {
            for (const MetricSeries& series : metric.series) {
                const bool b_own = series.value == SeriesValue::counter || series.value == SeriesValue::bucket;
                series_of[series.id] += b_own ? 1 : 0;
            }
        }
        for (const NamedCounter& counter : counters_of(scope)) {
            for (int id = counter.id(); id <= counter.info.last_id; ++id) {
                EXPECT_EQ(series_of[id], 1) << counter.info.name;
            }
        }
    }
}

TEST(metric_names, no_two_series_are_alike_and_no_two_metrics_share_a_name)
{
    std::set<std::string> names;
    std::set<std::string> all_series;
    for (const CounterScope scope : all_counter_scopes) {
        for (const std::string prefix : metric_prefixes_of(scope)) {
            for (const Metric& metric : metrics_of(scope)) {
                EXPECT_TRUE(names.insert(prefix + metric.name).second) << prefix << metric.name;
                for (const MetricSeries& series : metric.series) {
                    EXPECT_TRUE(all_series.insert(prefix + series.name + "{" + series.labels).second)
                        << series.name << series.labels;
                }
            }
        }
    }
}

TEST(metric_names, counters_of_a_metric_have_one_unit_one_kind_and_the_same_labels)
{
    for (const CounterScope scope : all_counter_scopes) {
        for (const Metric& metric : metrics_of(scope)) {
            const RE_stat_counter_info& first = counter_with(scope, metric.series[0].id);
            for (const MetricSeries& series : metric.series) {
                EXPECT_EQ(label_names(series.labels), label_names(metric.series[0].labels)) << metric.name;
                if (series.value == SeriesValue::counter || series.value == SeriesValue::bucket) {
                    EXPECT_EQ(counter_with(scope, series.id).unit, first.unit) << metric.name;
                    EXPECT_EQ(counter_with(scope, series.id).kind, first.kind) << metric.name;
                }
            }
        }
    }
}

TEST(metric_names, the_tables_helps_are_used_once_and_need_no_escapes)
{
    std::set<std::string> used;
    for (const CounterScope scope : all_counter_scopes) {
        for (const Metric& metric : metrics_of(scope)) {
            used.insert(metric.name);
            EXPECT_EQ(std::string(metric.help).find_first_of("\\\n"), std::string::npos) << metric.name;
        }
    }
    std::set<std::string> listed;
    for (const RE_stat_metric_info& metric : re_stat_metrics) {
        const std::string name(metric.name);
        EXPECT_TRUE(listed.insert(name).second) << name;
        EXPECT_TRUE(used.contains(name)) << name;
    }
}
