#include "RE_stat_counters.h"

const char* get_stat_unit_word(RE_stat_unit unit)
{
    static constexpr const char* words[] = {
#define RE_STAT_UNIT(word) #word,
#include "RE_stat_counters.def"
    };
    return words[static_cast<std::size_t>(unit)];
}

const char* get_stat_kind_word(RE_stat_kind kind)
{
    static constexpr const char* words[] = {
#define RE_STAT_KIND(word) #word,
#include "RE_stat_counters.def"
    };
    return words[static_cast<std::size_t>(kind)];
}
