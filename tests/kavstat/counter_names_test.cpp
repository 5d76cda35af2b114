// The names of the counters in documents.
#include "RE_stat_ids.h"
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

TEST(counter_names, every_scope_has_all_its_counters)
{
    const auto number_of_ids = [](CounterScope scope) {
        int ids = 0;
        for (const NamedCounter& one : counters_of(scope)) {
            ids += one.size();
        }
        return ids;
    };
    EXPECT_EQ(number_of_ids(CounterScope::engine), RE_STAT_GLOBAL_ID_MAX - 1); // an end mark has an id, too
    EXPECT_EQ(number_of_ids(CounterScope::peer), RE_STAT_PEER_ID_MAX);
    EXPECT_EQ(number_of_ids(CounterScope::connection), RE_STAT_CONN_ID_MAX);
    EXPECT_EQ(number_of_ids(CounterScope::application), RE_STAT_APP_ID_MAX);
}
