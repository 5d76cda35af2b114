// The counters of RE_stat_counters.def as data, for programs that go through all of them by name (JSON, metrics, help
// texts). A word that the table's own lists of units and kinds do not hold does not compile, nor does a gap in the ids.
#pragma once

#include "RE_statistics.h"

#include <cstddef>
#include <string_view>

// What one of a counter's value is, and how the value behaves. The enumerators are the words themselves.
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

// The words as text, "bytes" or "total"; they live as long as the program.
const char* get_stat_unit_word(RE_stat_unit unit);
const char* get_stat_kind_word(RE_stat_kind kind);

struct RE_stat_counter_info
{
    int id;
    int last_id;      // of a range that shares one name; equal to id for a counter alone
    const char* name; // the enumerator, "RE_STAT_GLOBAL_ID_CACHE_STATE"
    RE_stat_unit unit;
    RE_stat_kind kind;
    std::string_view metric; // name and labels in Prometheus, after the prefix of what is counted for
    const char* meaning;
};

#define RE_STAT_COUNTER_INFO(first, last, enumerator, unit, kind, metric, meaning)                                     \
    {first, last, #enumerator, RE_stat_unit::unit, RE_stat_kind::kind, metric, meaning},

// One description for each counter, or range of counters, in ascending order of ids. RE_stat_global_id:
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

// A connection counter that is the sum of a histogram as well.
struct RE_stat_sum_info
{
    int id; // an RE_stat_conn_id
    std::string_view metric;
};

inline constexpr RE_stat_sum_info re_stat_conn_sums[] = {
#define RE_STAT_CONN_SUM(enumerator, metric) {enumerator, metric},
#include "RE_stat_counters.def"
};

// What a metric says of itself when a counter's meaning does not say it.
struct RE_stat_metric_info
{
    std::string_view name;
    const char* help;
};

inline constexpr RE_stat_metric_info re_stat_metrics[] = {
#define RE_STAT_METRIC(name, help) {name, help},
#include "RE_stat_counters.def"
};

// Whether the descriptions hold every id from 0 to count - 1, each once and in order.
template <std::size_t Size>
constexpr bool describes_every_id(const RE_stat_counter_info (&counters)[Size], int count)
{
    int next_id = 0;
    for (const RE_stat_counter_info& counter : counters) {
        if (counter.id != next_id || counter.last_id < counter.id) {
            return false;
        }
        next_id = counter.last_id + 1;
    }
    return next_id == count;
}

// The ranges fill the ids up to the end mark of the last one. The mark has a place of its own among the global
// counters, and nothing is counted there.
static_assert(describes_every_id(re_stat_global_counters, SO_STAT_HWFQ_BYTES_MAX));
static_assert(SO_STAT_HWFQ_BYTES_MAX + 1 == RE_STAT_GLOBAL_ID_MAX);
static_assert(describes_every_id(re_stat_peer_counters, RE_STAT_PEER_ID_MAX));
static_assert(describes_every_id(re_stat_conn_counters, RE_STAT_CONN_ID_MAX));
static_assert(describes_every_id(re_stat_app_counters, RE_STAT_APP_ID_MAX));
