// The counters of RE_stat_counters.def as data, for programs that go through all of them by name (JSON, metrics, help
// texts). A unit or kind that is missing in the table's own lists does not compile, and neither does a gap in the ids.
#pragma once

#include "RE_statistics.h"

#include <cstddef>
#include <string_view>

// The unit of a counter's value, and how the value behaves. The enumerators are the words of the table.
enum class RE_stat_unit : unsigned char
{
#define RE_STAT_UNIT(word) word,
#include "RE_stat_counters.def"
};

enum class RE_stat_kind : unsigned char
{
#define RE_STAT_KIND(word) word,
#include "RE_stat_counters.def"
};

// Return the word as text, such as "bytes" or "total". The text is static.
const char* get_stat_unit_word(RE_stat_unit unit);
const char* get_stat_kind_word(RE_stat_kind kind);

struct RE_stat_counter_info
{
    int id;
    int last_id;      // of a range that shares one name; equal to id for a single counter
    const char* name; // the enumerator, such as "RE_STAT_GLOBAL_ID_CACHE_STATE"
    RE_stat_unit unit;
    RE_stat_kind kind;
    std::string_view metric; // name and labels in Prometheus, without a prefix such as "kav_peer_"
    const char* meaning;
};

#define RE_STAT_COUNTER_INFO(first, last, enumerator, unit, kind, metric, meaning)                                     \
    {first, last, #enumerator, RE_stat_unit::unit, RE_stat_kind::kind, metric, meaning},

// One description per counter or range of counters, in ascending order of ids. RE_stat_global_id:
inline constexpr RE_stat_counter_info re_stat_global_counters[] = {
#define RE_STAT_GLOBAL(value, ...) RE_STAT_COUNTER_INFO(value, value, __VA_ARGS__)
#define RE_STAT_GLOBAL_RANGE(...) RE_STAT_COUNTER_INFO(__VA_ARGS__)
#include "RE_stat_counters.def"
};

// RE_stat_peer_id:
inline constexpr RE_stat_counter_info re_stat_peer_counters[] = {
#define RE_STAT_PEER(value, ...) RE_STAT_COUNTER_INFO(value, value, __VA_ARGS__)
#include "RE_stat_counters.def"
};

// RE_stat_conn_id:
inline constexpr RE_stat_counter_info re_stat_conn_counters[] = {
#define RE_STAT_CONN(value, ...) RE_STAT_COUNTER_INFO(value, value, __VA_ARGS__)
#include "RE_stat_counters.def"
};

// RE_stat_app_id:
inline constexpr RE_stat_counter_info re_stat_app_counters[] = {
#define RE_STAT_APP(value, ...) RE_STAT_COUNTER_INFO(value, value, __VA_ARGS__)
#include "RE_stat_counters.def"
};

#undef RE_STAT_COUNTER_INFO

// A connection counter that is also the sum of a histogram.
struct RE_stat_sum_info
{
    int id; // an RE_stat_conn_id
    std::string_view metric;
};

inline constexpr RE_stat_sum_info re_stat_conn_sums[] = {
#define RE_STAT_CONN_SUM(enumerator, metric) {enumerator, metric},
#include "RE_stat_counters.def"
};

// The help text of a metric that has labels or contains another metric.
struct RE_stat_metric_info
{
    std::string_view name;
    const char* help;
};

inline constexpr RE_stat_metric_info re_stat_metrics[] = {
#define RE_STAT_METRIC(name, help) {name, help},
#include "RE_stat_counters.def"
};

// Whether the descriptions cover every id from 0 to count - 1, each once and in order. end_mark: an id without a
// description.
template <std::size_t Size>
constexpr bool describes_every_id(const RE_stat_counter_info (&counters)[Size], int count, int end_mark = -1)
{
    int next_id = 0;
    for (const RE_stat_counter_info& counter : counters) {
        if (counter.id != next_id || counter.last_id < counter.id) {
            return false;
        }
        next_id = counter.last_id + 1;
        next_id += next_id == end_mark ? 1 : 0;
    }
    return next_id == count;
}

static_assert(describes_every_id(re_stat_global_counters, RE_STAT_GLOBAL_ID_MAX, SO_STAT_HWFQ_BYTES_MAX));
static_assert(describes_every_id(re_stat_peer_counters, RE_STAT_PEER_ID_MAX));
static_assert(describes_every_id(re_stat_conn_counters, RE_STAT_CONN_ID_MAX));
static_assert(describes_every_id(re_stat_app_counters, RE_STAT_APP_ID_MAX));
