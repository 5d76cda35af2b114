#include "model/counter_names.h"

#include <array>
#include <string_view>

namespace kavstat {

namespace {

std::string key_of(std::string_view enumerator)
{
    // The transport optimizer's counters keep a prefix, because some have the names of the engine's.
    static constexpr struct
    {
        std::string_view prefix;
        std::string_view mark;
    } families[] = {{"RE_STAT_GLOBAL_ID_", ""},
                    {"RE_STAT_PEER_ID_", ""},
                    {"RE_STAT_CONN_ID_", ""},
                    {"RE_STAT_APP_ID_", ""},
                    {"SO_STAT_", "so_"}};
    std::string key;
    for (const auto& [prefix, mark] : families) {
        if (enumerator.starts_with(prefix)) {
            enumerator.remove_prefix(prefix.size());
            key = mark;
            break;
        }
    }
    for (const char letter : enumerator) {
        key += letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    }
    return key;
}

std::vector<NamedCounter> with_keys(std::span<const RE_stat_counter_info> counters)
{
    std::vector<NamedCounter> named;
    named.reserve(counters.size());
    for (const RE_stat_counter_info& info : counters) {
        named.push_back({info, key_of(info.name)});
    }
    return named;
}

} // namespace

const std::vector<NamedCounter>& counters_of(CounterScope scope)
{
    static const std::array counters{with_keys(re_stat_global_counters), with_keys(re_stat_peer_counters),
                                     with_keys(re_stat_conn_counters), with_keys(re_stat_app_counters)};
    return counters[index_of(scope)];
}

const char* word_of(CounterScope scope)
{
    static constexpr std::array words{"engine", "peer", "connection", "application"};
    return words[index_of(scope)];
}

} // namespace kavstat
