// The names under which programs see the counters.
#include "documents/metrics.h"
#include "model/counter_names.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

using namespace kavstat;

namespace {

const NamedCounter& counter(CounterScope scope, const std::string& key)
{
    for (const NamedCounter& candidate : counters_of(scope)) {
        if (candidate.key == key) {
            return candidate;
        }
    }
    throw std::runtime_error("no counter " + key);
}

std::string metric(CounterScope scope, const std::string& key)
{
    return metric_name_of(counter(scope, key));
}

} // namespace

TEST(counter_names, a_key_is_the_enumerator_without_its_familys_prefix)
{
    EXPECT_EQ(counter(CounterScope::engine, "cache_state").id(), 0);
    EXPECT_EQ(counter(CounterScope::engine, "tot_datauint_disk_usage").id(), 69);
    EXPECT_EQ(counter(CounterScope::peer, "orv").id(), 33);
    EXPECT_EQ(counter(CounterScope::connection, "encode_in_bytes").id(), 0);
    EXPECT_EQ(counter(CounterScope::application, "lz_decode_num_msgs").id(), 17);
}

TEST(counter_names, the_transport_optimizers_counters_keep_a_mark)
{
    EXPECT_EQ(counter(CounterScope::connection, "so_ao_rd_num").id(), 137);
    EXPECT_EQ(counter(CounterScope::engine, "so_rc_none").size(), 19);
    EXPECT_EQ(counter(CounterScope::engine, "so_hwfq_bytes_class_base").size(), 256);
}

TEST(counter_names, metrics_are_in_base_units_and_totals_say_so)
{
    EXPECT_EQ(metric(CounterScope::engine, "total_cache_size"), "total_cache_size_bytes");
    EXPECT_EQ(metric(CounterScope::engine, "data_fifo_in_load_cache"), "data_fifo_in_load_cache_bytes_total");
    EXPECT_EQ(metric(CounterScope::engine, "cache_sigblock_age"), "cache_sigblock_age_timestamp_seconds");
    EXPECT_EQ(metric(CounterScope::engine, "plz_encode_on_conn_count"), "plz_encode_on_conn");
    EXPECT_EQ(metric(CounterScope::engine, "iovbuf_b_size"), "iovbuf_block_size_bytes");
    EXPECT_EQ(metric(CounterScope::peer, "bypass_ratio"), "bypass_ratio");
    EXPECT_EQ(metric(CounterScope::peer, "ack_q_max_rtt"), "ack_q_max_rtt_seconds");
    EXPECT_EQ(metric(CounterScope::peer, "tot_kav_decode_thrput"), "tot_kav_decode_thrput_bytes_per_second");
    EXPECT_EQ(metric(CounterScope::connection, "encode_in_bytes"), "encode_in_bytes_total");
    EXPECT_EQ(metric(CounterScope::connection, "tot_encode_speed"), "tot_encode_speed_seconds_total");
    EXPECT_EQ(metric(CounterScope::application, "encode_in_kbytes"), "encode_in_bytes_total");
}

TEST(counter_names, no_two_counters_of_a_scope_share_a_key)
{
    for (const CounterScope scope : all_counter_scopes) {
        std::set<std::string> keys;
        for (const NamedCounter& one : counters_of(scope)) {
            EXPECT_TRUE(keys.insert(one.key).second) << one.key;
            EXPECT_TRUE(std::regex_match(one.key, std::regex("[a-z][a-z0-9_]*"))) << one.key;
        }
    }
}

TEST(counter_names, no_two_counters_share_a_metric_and_only_totals_end_in_total)
{
    std::set<std::string> metrics;
    for (const CounterScope scope : all_counter_scopes) {
        for (const NamedCounter& one : counters_of(scope)) {
            for (const std::string& name : metrics_of(scope, one)) {
                EXPECT_TRUE(metrics.insert(name).second) << name;
                EXPECT_EQ(name.ends_with("_total"), one.is_total()) << name;
            }
        }
    }
    EXPECT_EQ(metrics.size(), counters_of(CounterScope::engine).size() + 42 + 2 * 166 + 18);
}

TEST(counter_names, every_scope_has_all_its_counters)
{
    const auto number_of_ids = [](CounterScope scope) {
        int ids = 0;
        for (const NamedCounter& one : counters_of(scope)) {
            ids += one.size();
        }
        return ids;
    };
    EXPECT_EQ(number_of_ids(CounterScope::engine), 383);
    EXPECT_EQ(number_of_ids(CounterScope::peer), 42);
    EXPECT_EQ(number_of_ids(CounterScope::connection), 166);
    EXPECT_EQ(number_of_ids(CounterScope::application), 18);
}
